// Export: renders the whole song offline through the playback engine into WAV files (the
// mix, or one file per module), and writes the song's notes as a Standard MIDI File.
//
// Error convention: both exports return ZELFON_EXPORT_OK (0) on success and one of the
// non-zero codes below otherwise, after one log line that names the cause. Files are
// written as safe saves of the file layer (v3_save_begin): under a temporary name beside
// the target, synced and moved into place only when complete (or the export was aborted),
// so a failure never leaves a half-written file at the target path; a device or FIFO at
// the target, or the path "-" (standard output), is written in place. An existing song or
// module file is never replaced by an export. Both run on the interface thread with no
// other thread rendering.
#pragma once

#include "song/song.h"

// Sample formats, as the export dialog lists them.
enum : int { ZELFON_EXPORT_INT16 = 0, ZELFON_EXPORT_FLOAT32 = 1 };

// Modes, as the export dialog lists them.
enum : int {
    ZELFON_EXPORT_ONE_FILE = 0,       // the mix
    ZELFON_EXPORT_PER_MODULE = 1,     // every module that is not muted
    ZELFON_EXPORT_PER_EFFECT = 2,     // effects only
    ZELFON_EXPORT_PER_OUT_LINK = 3,   // modules linked into the Output module only
};

enum : int {
    ZELFON_EXPORT_OK = 0,
    ZELFON_EXPORT_BAD_ARGUMENT = 1,   // format, mode, path or an empty song record
    ZELFON_EXPORT_NO_MEMORY = 2,
    ZELFON_EXPORT_FILE_ERROR = 3,     // a file could not be opened, written or moved into place
    ZELFON_EXPORT_ABORTED = 4,        // stopped by zelfon_export_abort; files are in place
    ZELFON_EXPORT_TOO_LONG = 5,       // the data does not fit the WAV header's 32-bit sizes
};

constexpr int ZELFON_EXPORT_PIECE = 8192;             // frames per render request
constexpr int ZELFON_EXPORT_PROGRESS_FRAMES = 32768;  // progress is reported after more than this
constexpr int ZELFON_EXPORT_PROGRESS_FULL = 256;
constexpr int ZELFON_MIDI_TICKS_PER_LINE = 24;        // MIDI division = this × lines per beat

// Receives the caller's data and the progress 0..256. Interface thread (called from the export).
typedef void (*zelfon_export_progress)(void* callback_data, int progress);

// Renders the song from line 0 for its length into WAV at `path` (mode 0) or into one file per
// module named from the path's base (modes 1..3; the path's file name must hold a "."), in
// `format`; `progress` may be null. Stops playback first and leaves the song stopped and its
// modules cleaned. Files that cannot be opened are skipped, the others written; all are
// opened before rendering starts, and when none can be, nothing is rendered. Returns
// ZELFON_EXPORT_OK or an error code (above). Interface thread; takes the net's mutex per piece.
int zelfon_export_to_wav(const char* path, int format, int mode, zelfon_export_progress progress,
                         void* callback_data, zelfon_song* song);

// Writes the song's notes at `path` as a Standard MIDI File of format 1: a tempo track and one
// track per module that the song plays, named after the module. Returns ZELFON_EXPORT_OK or an
// error code. Interface thread; the song must not be edited meanwhile.
int zelfon_export_to_midi(const char* path, zelfon_song* song);

// Asks a running WAV export of `song` to end after its current piece (from the progress
// callback or another thread). A new export clears the request. Any thread.
void zelfon_export_abort(zelfon_song* song);

// Why an export failed, for a message ("" for a file that could not be written, whose
// name says enough), e.g. "the song is longer than a WAV file can hold".
const char* zelfon_export_failure_reason(int result);
