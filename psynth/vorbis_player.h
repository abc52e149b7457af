// The Vorbis player module: plays an Ogg Vorbis file kept whole, as the file's bytes, in
// its data chunk 0. The file is decoded once into 16-bit frames on the GUI thread, so the
// voices only read memory while rendering. This header holds what loaders and editors use.
//
// Error convention: psynth_vorbis_player_load returns 0, −1 when the file cannot be opened
// or read, or one of the PSYNTH_VORBIS_ERROR_* codes; getters return 1 when there is nothing.
#pragma once

#include <cstdint>

#include "psynth/psynth_net.h"

constexpr int PSYNTH_VORBIS_FILE_CHUNK = 0;
// Ogg files above this size are refused (about an hour of music at 128 kbit/s).
constexpr int64_t PSYNTH_VORBIS_MAX_FILE_BYTES = (int64_t)64 << 20;
// The decoded frames of one module stay below this; the rest of a longer file is left out
// (about 9.5 minutes of 44100 Hz stereo, 19 of mono).
constexpr int64_t PSYNTH_VORBIS_MAX_DECODED_BYTES = (int64_t)96 << 20;
// The note that plays the file at its own speed: C5 (semitone 60).
constexpr int PSYNTH_VORBIS_BASE_PITCH = (120 - 60) * 256;

enum : int {
    PSYNTH_VORBIS_OK = 0,
    PSYNTH_VORBIS_ERROR_CANT_OPEN = -1,  // the file cannot be opened or read
    PSYNTH_VORBIS_ERROR_MODULE = 1,      // not a Vorbis player module
    PSYNTH_VORBIS_ERROR_MEMORY = 2,
    PSYNTH_VORBIS_ERROR_NOT_VORBIS = 3,  // not an Ogg Vorbis stream, or damaged in its headers
    PSYNTH_VORBIS_ERROR_TOO_LARGE = 4,   // the file is above PSYNTH_VORBIS_MAX_FILE_BYTES
    PSYNTH_VORBIS_ERROR_EMPTY = 5,       // the stream holds no sound
};

// Controller numbers, in registration order.
enum : int {
    PSYNTH_VORBIS_CTL_VOLUME = 0,
    PSYNTH_VORBIS_CTL_ORIGINAL_SPEED,
    PSYNTH_VORBIS_CTL_FINETUNE,
    PSYNTH_VORBIS_CTL_REPEAT,
    PSYNTH_VORBIS_CTL_POLYPHONY,
    PSYNTH_VORBIS_CTL_CHANNELS,
    PSYNTH_VORBIS_CTL_COUNT
};

// What the module holds decoded.
struct psynth_vorbis_info {
    int64_t frames;  // decoded frames
    int channels;    // 1 or 2 (files with more channels keep their front left and right)
    int rate;        // the file's sampling rate
};

// Reads the Ogg Vorbis file at `path` (a virtual path) into chunk 0 of module `mod_num`
// and decodes it; the module's voices stop. On failure the module keeps what it had.
// Returns 0 or an error code above, and logs why. GUI thread; takes the net's mutex for
// the moment of the swap, so the caller must not hold it.
int psynth_vorbis_player_load(int mod_num, const char* path, psynth_net* net);
// The decoded file of module `mod_num`. Returns 0, or 1 when the module is not a Vorbis
// player or holds no playable file. GUI thread.
int psynth_vorbis_player_get_info(int mod_num, psynth_vorbis_info* info, psynth_net* net);
