// Writers of small XM, MOD, S3M and IT files, byte by byte, from one description of a
// song, for the import tests, the import benchmark and the fuzzers' seed files. Cells
// hold each format's own raw values; samples hold signed frames and are stored in each
// format's own way (delta-coded, unsigned, IT 2.14/2.15 compressed).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

using tw_bytes = std::vector<uint8_t>;

enum : int { TW_LOOP_OFF = 0, TW_LOOP_FORWARD = 1, TW_LOOP_PINGPONG = 2 };
enum : int { TW_RAW = 0, TW_IT214 = 214, TW_IT215 = 215 };

// One cell, in the file's own encoding; −1 leaves a field empty.
struct tw_cell {
    int pattern, row, channel;
    int note = -1;        // XM 1..97, MOD period, S3M octave << 4 | semitone, IT 0..119 / 254 / 255
    int instrument = 0;   // 1-based, 0 none
    int volume = -1;      // the volume column byte (XM 0x10..0xFF, S3M 0..64, IT 0..212)
    int effect = -1;      // XM/MOD 0..35, S3M/IT 1..26 (A..Z)
    int param = 0;
};

struct tw_sample {
    std::string name;
    std::vector<int16_t> frames;  // 8-bit samples use −128..127
    bool wide = false;
    int loop = TW_LOOP_OFF;
    uint32_t loop_start = 0, loop_length = 0;
    int volume = 64;
    int finetune = 0;       // XM −128..127, MOD −8..7
    int relative_note = 0;  // XM
    int panning = -1;       // XM 0..255, IT 0..64; −1 none
    uint32_t rate = 8363;   // S3M C-4 speed, IT C-5 speed
    int compression = TW_RAW;
};

struct tw_point {
    int x, y;
};

struct tw_envelope {
    std::vector<tw_point> points;
    bool on = false;
    int sustain = -1;               // point index, −1 none
    int loop_start = -1, loop_end = -1;
};

struct tw_instrument {
    std::string name;
    std::vector<int> samples;       // indices into the song's samples
    std::vector<int> note_map;      // sample (index into `samples`) of each note, empty: all the first
    tw_envelope volume, panning;
    int vibrato_type = 0, vibrato_sweep = 0, vibrato_depth = 0, vibrato_rate = 0;
    int fadeout = 0;
};

struct tw_song {
    std::string name;
    int channels = 4;
    int speed = 6, bpm = 125;
    bool linear = true;
    std::vector<int> orders;
    int patterns = 1;
    int rows = 16;                  // MOD and S3M patterns always have 64
    std::vector<tw_cell> cells;
    std::vector<tw_sample> samples;
    std::vector<tw_instrument> instruments;  // XM and IT instrument mode
};

tw_bytes tw_write_xm(const tw_song& song);
tw_bytes tw_write_mod(const tw_song& song, const char* signature = "M.K.");
tw_bytes tw_write_s3m(const tw_song& song);
tw_bytes tw_write_it(const tw_song& song, bool instrument_mode);

// One cycle of a sine of `frames` frames at `amplitude`.
std::vector<int16_t> tw_sine(int frames, int amplitude);
// A sample with every kind of step the IT compression switches widths for.
std::vector<int16_t> tw_rough(int frames, int amplitude, uint32_t seed);

// A song of one looped one-cycle sine (32 frames, 8-bit, sample rate `rate` where the
// format has one) played by one long note: for measuring the frequency of a note.
tw_song tw_tone_song(int note, uint32_t rate);

// The seed files of the fuzzers and the test songs: one rich song of each format.
tw_song tw_rich_song();
tw_bytes tw_rich_file(const char* format);  // "xm", "mod", "s3m", "it", "it-samples"
