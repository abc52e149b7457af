// Profile: the program's configuration store. Key/value lines read from a small text file
// ("//" comments, values in double quotes may hold blanks and "/"), queried with defaults,
// changed at run time and saved back so that the file's comments and layout survive.
//
// Error convention: functions that can fail return 0 on success and non-zero on failure;
// profile_load returns -1 when no file could be opened. A null profile means the global one.
// Save and load failures are logged. Threads: the profile has no lock; the main (GUI) thread
// owns it, readers on other threads only while nothing changes it.
//
// File format, as loaded: lines end at "\r" or "\n" (each one counts as a line); "//" starts
// a comment up to the end of the line; the first run of characters above the blank is the
// key, the next run (or a "..." string, which may span lines) the value; the rest of the
// line is ignored. Keys and values are cut at 1024 characters. A value holding a double
// quote cannot be saved so that it reads back the same.
#pragma once

constexpr int PROFILE_MAX_TOKEN = 1024;
constexpr int PROFILE_DEFAULT_FILES_COUNT = 4;
// Tried in this order by profile_load(nullptr, ...): working directory, then application data.
extern const char* const PROFILE_DEFAULT_FILES[PROFILE_DEFAULT_FILES_COUNT];

struct profile_key {
    char* key;    // owned
    char* value;  // owned, null when the line held only the key
    int line;     // zero-based line of the loaded file; -1 for a key added at run time
    int deleted;  // a deleted key is skipped by queries and not written back
};

struct profile_data {
    int file_num;     // index in PROFILE_DEFAULT_FILES of the loaded file; -1 for a caller's name or none
    char* file_name;  // the file's virtual name (owned), null when none
    char* source;     // the whole loaded text plus a terminator (owned), kept for saving
    profile_key* keys;  // a memory-manager block; its size gives the capacity
    int num;            // keys in use
    int load_failed;    // the file exists but was not read whole: save refuses to replace it
};

// Makes `p` an empty profile without freeing anything (for a fresh record).
void profile_new(profile_data* p);
// Frees the profile's content and leaves it empty.
void profile_close(profile_data* p);
// Clears `p`, then reads `file_name`, or the first default file that opens when it is null.
// Returns 0 when a file was read, -1 when none could be opened (the profile stays empty but
// keeps a caller's name for saving), 1 when the file could not be read or memory ran out.
int profile_load(const char* file_name, profile_data* p);

// The value of the first live entry with this exact key, or `default_value` when there is
// none or its value is null. The pointer stays valid until the key changes.
const char* profile_get_str_value(const char* key, const char* default_value, profile_data* p);
// The value read as a decimal integer (sign, digits; later characters ignored; clamped to
// int), or `default_value` when the key is absent, null or holds no digits.
int profile_get_int_value(const char* key, int default_value, profile_data* p);
// Appends an entry (copies of key and value; value may be null) for `line` (-1: added at run time).
int profile_add_key(const char* key, const char* value, int line, profile_data* p);
// Replaces the value of the first live entry with this key (a removed one is brought back
// in its place), or adds the key at run time.
int profile_set_str_value(const char* key, const char* value, profile_data* p);
// Marks the first live entry with this key deleted. Returns 0, or -1 when there was none.
int profile_remove_key(const char* key, profile_data* p);

// Writes the profile back to its file: the loaded text with the lines of changed keys
// rewritten ("key value", the value quoted when it holds "/", a blank or a control
// character, or is empty), deleted keys' lines dropped and run-time keys appended at the end,
// one per line. Unchanged lines keep their bytes. The text is a safe save of the file layer
// (v3_save_begin): a new file in the same folder replaces the old one only when fully
// written, so a failure leaves the old file whole. When the save cannot begin (the folder
// cannot be written), the default files before the loaded one are tried,
// towards the first (with no file loaded: all four, from the last). Returns 0, or non-zero
// (logged) on failure.
int profile_save(profile_data* p);
