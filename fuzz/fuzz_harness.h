// What every fuzz target shares: the foundation comes up once; an input is handed to a
// reader as a file in the temporary folder (the readers open paths), then whatever it made
// is played for a short piece in odd-sized requests, so that the render code meets
// whatever the readers let through. Memory is bounded by libFuzzer's limits (tools/fuzz.sh).
#pragma once

#include <cstddef>
#include <cstdint>

#include "song/song.h"

// Brings up the memory manager and the file layer and silences the log (first call only).
void zelfon_fuzz_start();
// Writes the input to this process's scratch file and returns its virtual path, or null.
const char* zelfon_fuzz_input_file(const uint8_t* data, size_t size);
// A fresh, empty song at 44100 Hz; false when it cannot be made.
bool zelfon_fuzz_song_init(zelfon_song* song);
// Plays the song from line 0 for 3003 frames, in requests of 1001.
void zelfon_fuzz_render(zelfon_song* song);
// Links module `mod` into OUT, writes a short pattern of notes for it (low, middle, the
// highest, a note-off) at a brisk tempo and plays the song.
void zelfon_fuzz_play_module(int mod, zelfon_song* song);


// Runs the reader target `name` (a folder name of tools/fuzz.sh: "song", "module",
// "sample_wav", ... "import_it") on one input, as its fuzzer does; the regression tests run
// the kept findings through it. Returns 0, or -1 for an unknown name.
int zelfon_fuzz_run(const char* name, const uint8_t* data, size_t size);
