// Song files ("ZFON"): the song's settings, every pattern slot and every module slot of
// the sound net with its links, controller values and data chunks, in the chunk container
// of song/chunks.h. The backup "1:/BACKUP.zelfon" is an ordinary song file.
//
// Error convention: savers return 0 on success and 1 on any failure, and then leave the
// file that was at the path untouched. zelfon_load_song returns 0, −1 when the file cannot
// be opened, or a loader error code (the ZELFON_LOAD_ERROR_* values); whatever was read
// before an error stays loaded. Loading and saving are for the GUI thread.
#pragma once

#include "song/song.h"

constexpr const char* ZELFON_SONG_FILE_EXTENSION = "zelfon";
constexpr const char* ZELFON_BACKUP_FILE = "1:/BACKUP.zelfon";
// The version current writers store: major text and "minor.patch" text.
constexpr const char* ZELFON_VERSION_MAJOR = "1";
constexpr const char* ZELFON_VERSION_MINOR = "6.4";

// Pattern slots and module slots beyond these are taken as damage and not loaded.
constexpr int ZELFON_FILE_MAX_PATTERN_SLOTS = 16384;
constexpr int ZELFON_FILE_MAX_MODULE_SLOTS = 1024;
// A pattern without cell data in the file may ask for at most this many bytes of cells.
constexpr int64_t ZELFON_FILE_MAX_EMPTY_PATTERN_BYTES = 32 << 20;
// What a song may build in memory beyond its file's own size (patterns, modules and what
// they allocate): a small file cannot claim more; loading stops there with an error.
constexpr int64_t ZELFON_FILE_LOAD_MEMORY = 56 << 20;

enum : int {
    ZELFON_LOAD_OK = 0,
    ZELFON_LOAD_CANT_OPEN = -1,
    ZELFON_LOAD_ERROR_BLOCK = 2,        // a chunk is cut short or its block cannot be allocated
    ZELFON_LOAD_ERROR_PATTERN = 3,      // no pattern slot (or the pattern cannot be made)
    ZELFON_LOAD_ERROR_CHUNK_TABLE = 4,  // 4, 5, 6: the three arrays of a module's chunk table
    ZELFON_LOAD_ERROR_CHUNK_FLAGS = 5,
    ZELFON_LOAD_ERROR_CHUNK_RATES = 6,
    ZELFON_LOAD_ERROR_MODULE = 7,       // a module cannot be created
    ZELFON_LOAD_ERROR_MEMORY = 8,       // the file asks for more memory than its size allows
};
// What a load error means, for a message ("a module cannot be created").
const char* zelfon_load_error_text(int error);

// The "VERS" value of version texts such as "1" and "6.4": bytes 0, patch, minor, major.
uint32_t zelfon_version_value(const char* major, const char* minor);

// Saves the song at `path` with the version texts `major` and `minor` (ZELFON_VERSION_*).
// Returns 0, or 1 on any failure.
int zelfon_save_song(const char* path, const char* major, const char* minor, zelfon_song* song);
// Saves the song as "1:/BACKUP.zelfon" (before risky operations). Returns 0, or 1.
int zelfon_save_backup(zelfon_song* song);
// Stops playback and gives the song a fresh net (Output alone) and an empty pattern table,
// its name, tempo and transport back to their defaults; the song is left marked not loaded.
void zelfon_reset_song(zelfon_song* song);
// Stops playback, replaces the song with the file's, marks it loaded and starts its editing
// history anew (not when the file cannot be opened). Returns 0 or an error code.
int zelfon_load_song(const char* path, zelfon_song* song);
