// A thread that writes an export's pieces to its file, in order, while the next pieces
// render: the file system's share of an export leaves the render threads' path.
//
// Error convention: zelfon_export_writer_start returns null when memory or a thread ran
// out (write synchronously then); zelfon_export_writer_finish returns false when a write fell short.
#pragma once

#include <cstddef>

struct zelfon_export_writer;

// Starts the thread for file handle `h` with `buffers` buffers of `bytes` each.
zelfon_export_writer* zelfon_export_writer_start(int h, size_t bytes, int buffers);
// The buffer to fill next; waits while every buffer is queued and not yet written.
void* zelfon_export_writer_next(zelfon_export_writer* w);
// Queues the first `size` bytes of the buffer `next` returned last.
void zelfon_export_writer_queue(zelfon_export_writer* w, size_t size);
// Writes what is queued, stops the thread and frees the writer. True when every byte was written.
bool zelfon_export_writer_finish(zelfon_export_writer* w);
