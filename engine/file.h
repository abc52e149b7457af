// Virtual file system: the only way the program touches files. A handle (1..256) names a disk
// file, a member of the registered TAR archive (disk 0) or a memory buffer; paths begin with a
// disk prefix: "1:/" working directory, "2:/" application data, "3:/" temporary directory.
//
// Error convention: opens return a handle, 0 on failure; operations on a handle outside
// 1..256 or on an empty slot do nothing and return 0; v3_make_filename returns null for a
// path it cannot map. v3_remove and v3_rename return 0 on success and non-zero on failure,
// as the C library's functions do. The layer prints no messages.
//
// Threads: only the claim and release of a slot take the layer's mutex; a handle belongs
// to one thread at a time. Before v3_init and after v3_deinit the layer still works, but
// for one thread only (the log printer writes the memory manager's shutdown report after
// v3_deinit that way).
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

constexpr int V3_MAX_FILES = 256;
constexpr int V3_MAX_MODE_LENGTH = 16;
constexpr int V3_FIND_NAME_SIZE = 2048;
constexpr int V3_MAX_DRIVES = 32;
constexpr int V3_DRIVE_NAME_SIZE = 4;  // "C:/" and its terminator

// What a record's data lives in.
enum : int {
    V3_TYPE_DISK = 0,     // a standard-library stream
    V3_TYPE_ARCHIVE = 1,  // read-only memory owned by the record (a member of the TAR archive)
    V3_TYPE_MEMORY = 2,   // growable memory over a caller's buffer (v3_open_in_memory)
};

// v3_seek origins.
enum : int { V3_SEEK_SET = 0, V3_SEEK_CUR = 1, V3_SEEK_END = 2 };

// One open file.
struct v3_file {
    char* name;    // real file name (owned), null for memory and standard streams
    FILE* f;       // stream of a disk file, else null
    int type;      // V3_TYPE_*
    char* data;    // memory buffer (types 1 and 2)
    int64_t pos;   // position in data; seeks set it without bounds checks
    int64_t size;  // valid bytes (type 1) or the buffer's capacity (type 2)
};

// Directory search. The caller owns the record, sets `path` and `mask`, and calls
// v3_find_close when done (also after a failed v3_find_first).
struct v3_find_item {
    const char* path;  // directory, virtual or real
    const char* mask;  // extensions separated by "/" ("wav/aiff"), case-insensitive; null or "" for all
    char name[V3_FIND_NAME_SIZE];  // UTF-8 name of the entry found
    int type;                      // 1 directory, 0 file
    void* search;                  // the platform's search state (a memory-manager block)
};

// Clears the slot table, the drive list and the archive handle, creates the mutex, reads the
// drive list and wraps the standard streams. Thread: the main thread, at start-up.
void v3_init();
// Destroys the mutex and frees the standard-stream wrappers; open handles stay as they are.
// Thread: the main thread, after other threads have stopped.
void v3_deinit();

// Real name for "1:/", "2:/" or "3:/" + rest: a new block tagged "v3_make_filename" that the
// caller frees. Null for a path without a disk prefix, a disk other than 1..3, or a directory
// that cannot be fetched. Any thread.
char* v3_make_filename(const char* path);

// Opens `path` with a standard-library `mode` ("rb", "wb", "ab", ... at most 16 characters).
// "0:/name" opens a member of the registered archive as a read-only memory file; a path
// without a prefix is used as it stands. Returns the handle or 0. Any thread (disk 0: one
// thread at a time, as it moves the archive's position).
int v3_open(const char* path, const char* mode);
// Makes a growable memory file over `data` (a memory-manager block, or null with size 0) of
// `size` bytes, position 0; a buffer made from null starts zeroed. Writes past the end resize the block: take it back with v3_get_memory_data
// before v3_close. Returns the handle or 0 when all slots are taken. Any thread.
int v3_open_in_memory(void* data, size_t size);
// Closes the handle: frees its name, its record and (type 1 only) its buffer. Returns the
// stream's close result (0 on success, EOF when pending data could not be written), 0 for
// memory files and invalid handles.
int v3_close(int h);

// Reads `count` elements of `el_size` bytes. Returns the number of whole elements read.
size_t v3_read(void* buf, size_t el_size, size_t count, int h);
// Writes `count` elements of `el_size` bytes; a type-2 file grows. Returns whole elements written.
size_t v3_write(const void* buf, size_t el_size, size_t count, int h);
// Next byte as 0..255; -1 at the end of the file (0 for an invalid handle).
int v3_getc(int h);
// Writes one byte; a type-2 file at its end grows by 1024 bytes. Returns 0, or -1 on failure.
int v3_putc(int c, int h);
// Moves the position (V3_SEEK_SET, V3_SEEK_CUR, V3_SEEK_END). Memory files take any
// position and return 0; disk files return the standard library's result (0 or -1).
int v3_seek(int h, int64_t offset, int whence);
// Current position (-1 when a disk stream cannot tell).
int64_t v3_tell(int h);
// Sets the position to 0.
void v3_rewind(int h);
// Hands what was written to disk file h to the system and, where it can (Linux), starts
// writing it to the disk without waiting: a long save's final sync then has less to wait for.
void v3_start_writeback(int h);
// Flushes the disk file in slot `h` of the table, i.e. the file whose handle is h + 1 (a
// long-standing quirk kept on purpose): do not rely on it. Returns the flush result, else 0.
int v3_flush(int h);

// Size of the file at `path` (opened, measured and closed); 0 when it cannot be opened or
// is not a regular file (a FIFO or device is never opened).
int64_t v3_get_file_size(const char* path);
// Last change of the file at `path` in seconds since 1970; -1 when it does not exist.
int64_t v3_get_file_time(const char* path);
// Deletes the file. Returns 0 on success, non-zero on failure.
int v3_remove(const char* path);
// Moves the file `old_path` to `new_path`, replacing an existing file there.
// Returns 0 on success, non-zero on failure.
int v3_rename(const char* old_path, const char* new_path);

// What is at a path, links followed. A member of the registered archive is a regular file.
enum : int {
    V3_FILE_NONE = 0,       // nothing, or the path cannot be mapped
    V3_FILE_REGULAR = 1,
    V3_FILE_DIRECTORY = 2,
    V3_FILE_SPECIAL = 3,    // a device, a FIFO or a socket: reading it may never end
};
int v3_get_file_type(const char* path);

// Saving a file so that it is never lost. The data goes to a new temporary file in the
// target's folder, ".NAME.zelfon-tmp-XXXXXX", created where nothing was (a link planted
// there is never followed); v3_save_end writes it to the disk, moves it over the target
// and syncs the folder, so that the target is the old file or the new one whenever the
// program or the machine stops. Temporary files that earlier saves of the same target
// left behind are deleted when the next save begins. A link at the target is replaced.
// A target that exists and is not a regular file (a device, a FIFO) is written where it
// is, and the path "-" writes to standard output; a FIFO that nobody reads is refused
// instead of waited for. A folder at the target is refused.
constexpr const char* V3_SAVE_STDOUT = "-";
constexpr const char* V3_SAVE_TEMP_MARK = ".zelfon-tmp-";

// Why v3_save_begin failed.
enum : int {
    V3_SAVE_OK = 0,
    V3_SAVE_BAD_PATH = 1,     // no path, an empty one, or one that maps nowhere (disk 0, 4..9)
    V3_SAVE_NOT_A_FILE = 2,   // a folder is at the path
    V3_SAVE_CANT_CREATE = 3,  // the temporary file, the device or the FIFO cannot be opened
};

// One save in progress; the caller owns the record.
struct v3_save {
    int h;          // the handle to write through; 0 when the save could not begin
    int in_place;   // the target itself is written (standard output, a device, a FIFO)
    int error;      // V3_SAVE_*, set by v3_save_begin
    char* target;   // real name of the target (owned), null for standard output
    char* temp;     // real name of the temporary file (owned), null when written in place
};

// Begins a save of `path` (virtual or plain, or "-"). Returns the handle to write to with
// v3_write (also in save->h), or 0 with the reason in save->error; nothing on the disk has
// changed then. Call v3_save_end in both cases. Any thread, one save per record.
int v3_save_begin(const char* path, v3_save* save);
// Ends the save. With `commit` non-zero the data is synced and moved over the target;
// with 0 (the caller's writes failed) the temporary file is deleted and the target left as
// it was. Returns 0 when the target now holds the new data, -1 otherwise.
int v3_save_end(v3_save* save, int commit);

// The buffer of a memory file (it moves when a type-2 file grows), null for other handles.
void* v3_get_memory_data(int h);
// Valid bytes (type 1) or capacity (type 2) of a memory file, 0 for other handles.
int64_t v3_get_memory_size(int h);

// Registers the handle whose TAR archive disk 0 reads (0: none). The archive stays owned by
// the caller, who closes it after unregistering. Thread: the main thread.
void v3_set_archive(int h);
// The registered archive handle, 0 when none.
int v3_get_archive();

// The wrapper of standard input (0), output (1) or error (2); null before v3_init, after
// v3_deinit or for another number. The wrappers are not in the slot table.
v3_file* v3_get_std_stream(int n);

// Logical drives read at v3_init ("C:/", ...; one "/" on Unix systems).
int v3_get_drives_count();
// Name of drive `i`, null when out of range.
const char* v3_get_drive_name(int i);
// Index of the drive that holds the working directory, 0 when not found.
int v3_get_current_drive();

// Starts listing item->path (virtual or real). Returns 1 with the first matching entry in
// item->name and item->type, 0 when there is none or the directory cannot be read.
// Directories are never filtered by the mask. Any thread, one item per thread.
int v3_find_first(v3_find_item* item);
// Next matching entry: 1 found, 0 at the end.
int v3_find_next(v3_find_item* item);
// Ends the search and frees its state; safe to call twice or after a failed v3_find_first.
void v3_find_close(v3_find_item* item);
