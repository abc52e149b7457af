// The Sampler module: up to 16 samples per instrument chosen through a 96-note map,
// with volume and panning envelopes, auto-vibrato, fade-out and per-sample loops.
// This header holds the records its data chunks store and what editors and loaders use.
//
// Chunks of a Sampler module: 0 = the instrument record, 2s+1 = the header of sample s,
// 2s+2 = the frames of sample s (s = 0..15). The records below are stored in song and
// module files byte for byte (little-endian), so their layout is fixed by static_asserts.
//
// Error convention: functions returning int give 0 on success and 1 on failure
// (bad module index, not a Sampler, no memory); getters return null when there is nothing.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

#include "engine/thread.h"
#include "psynth/psynth_net.h"

static_assert(std::endian::native == std::endian::little, "the chunk records are stored little-endian as they are");

constexpr int PSYNTH_SAMPLER_SAMPLES = 16;
constexpr int PSYNTH_SAMPLER_VOICES = 16;
constexpr int PSYNTH_SAMPLER_NOTES = 96;            // entries of the note-to-sample map
constexpr int PSYNTH_SAMPLER_ENV_POINTS = 12;
constexpr int PSYNTH_SAMPLER_ENV_TICKS = 512;       // entries of an envelope table, one per tick
constexpr int PSYNTH_SAMPLER_ENV_MAX = 1024;        // envelope table value for y = 64
constexpr int PSYNTH_SAMPLER_DATA_SIZE = 2188;      // the module's private data block
constexpr int PSYNTH_SAMPLER_RECORD_FRAMES = 65536; // frames of the recording ring
constexpr int PSYNTH_SAMPLER_INSTRUMENT_CHUNK = 0;

// Chunk numbers of sample s.
constexpr int psynth_sampler_header_chunk(int sample) { return 2 * sample + 1; }
constexpr int psynth_sampler_data_chunk(int sample) { return 2 * sample + 2; }

// Envelope type bits (volume and panning alike).
enum : uint8_t {
    PSYNTH_SAMPLER_ENV_ON = 1,
    PSYNTH_SAMPLER_ENV_SUSTAIN = 2,
    PSYNTH_SAMPLER_ENV_LOOP = 4,
};

// Sample type byte: loop kind in bits 0-1, data format in bits 4-5, stereo in bit 6.
enum : uint8_t {
    PSYNTH_SAMPLER_LOOP_MASK = 0x03,
    PSYNTH_SAMPLER_LOOP_OFF = 0,
    PSYNTH_SAMPLER_LOOP_FORWARD = 1,
    PSYNTH_SAMPLER_LOOP_PINGPONG = 2,
    PSYNTH_SAMPLER_FORMAT_SHIFT = 4,
    PSYNTH_SAMPLER_FORMAT_MASK = 0x30,
    PSYNTH_SAMPLER_STEREO = 0x40,
};
enum : int {
    PSYNTH_SAMPLER_FORMAT_INT8 = 0,
    PSYNTH_SAMPLER_FORMAT_INT16 = 1,
    PSYNTH_SAMPLER_FORMAT_FLOAT32 = 2,
};

// Storage flags of a sample-data chunk, from which the file layer converts byte order.
enum : int {
    PSYNTH_SAMPLER_STORAGE_INT8 = 1,
    PSYNTH_SAMPLER_STORAGE_INT16 = 2,
    PSYNTH_SAMPLER_STORAGE_FLOAT32 = 4,
    PSYNTH_SAMPLER_STORAGE_STEREO = 8,
};

// Controller numbers, in registration order.
enum : int {
    PSYNTH_SAMPLER_CTL_VOLUME = 0,
    PSYNTH_SAMPLER_CTL_PANNING,
    PSYNTH_SAMPLER_CTL_SAMPLE_INTERP,
    PSYNTH_SAMPLER_CTL_VOLUME_INTERP,
    PSYNTH_SAMPLER_CTL_POLYPHONY,
    PSYNTH_SAMPLER_CTL_COUNT
};
// The one local (per-voice) controller number: panning.
constexpr int PSYNTH_SAMPLER_LOCAL_CTL_PAN = 1;

struct psynth_sampler_env_point {
    uint16_t x;  // ticks, 0..511
    uint16_t y;  // 0..64 (panning: 32 = centre)
};

// Chunk 0 (2364 bytes). Natural alignment gives exactly the stored offsets.
struct psynth_sampler_instrument {
    uint8_t reserved0[4];
    char name[22];                 // zero-terminated if shorter
    uint8_t reserved26[2];
    uint16_t samples_num;          // samples in use, 0..16
    uint8_t reserved30[6];
    uint8_t sample_map[PSYNTH_SAMPLER_NOTES];  // sample number for notes 0..95
    psynth_sampler_env_point volume_points[PSYNTH_SAMPLER_ENV_POINTS];
    psynth_sampler_env_point panning_points[PSYNTH_SAMPLER_ENV_POINTS];
    uint8_t volume_points_num;
    uint8_t panning_points_num;
    uint8_t volume_sustain;        // point indices
    uint8_t volume_loop_start;
    uint8_t volume_loop_end;
    uint8_t panning_sustain;
    uint8_t panning_loop_start;
    uint8_t panning_loop_end;
    uint8_t volume_type;           // PSYNTH_SAMPLER_ENV_* bits
    uint8_t panning_type;
    uint8_t vibrato_type;          // 0 sine, 1 ramp down, 2 square
    uint8_t vibrato_sweep;
    uint8_t vibrato_depth;
    uint8_t vibrato_rate;
    uint16_t volume_fadeout;
    uint8_t volume;                // 0..64
    int8_t finetune;               // added to every sample's finetune
    uint8_t panning;
    int8_t relative_note;          // added to every sample's relative note
    uint8_t reserved248[2];
    int16_t volume_table[PSYNTH_SAMPLER_ENV_TICKS];   // 0..1024 per tick, built from the points
    int16_t panning_table[PSYNTH_SAMPLER_ENV_TICKS];
    uint32_t sample_refs[PSYNTH_SAMPLER_SAMPLES];     // stored values carry no meaning
};
static_assert(sizeof(psynth_sampler_instrument) == 2364, "the instrument record is 2364 bytes");
static_assert(offsetof(psynth_sampler_instrument, name) == 4);
static_assert(offsetof(psynth_sampler_instrument, samples_num) == 28);
static_assert(offsetof(psynth_sampler_instrument, sample_map) == 36);
static_assert(offsetof(psynth_sampler_instrument, volume_points) == 132);
static_assert(offsetof(psynth_sampler_instrument, panning_points) == 180);
static_assert(offsetof(psynth_sampler_instrument, volume_points_num) == 228);
static_assert(offsetof(psynth_sampler_instrument, panning_loop_end) == 235);
static_assert(offsetof(psynth_sampler_instrument, volume_type) == 236);
static_assert(offsetof(psynth_sampler_instrument, vibrato_type) == 238);
static_assert(offsetof(psynth_sampler_instrument, vibrato_rate) == 241);
static_assert(offsetof(psynth_sampler_instrument, volume_fadeout) == 242);
static_assert(offsetof(psynth_sampler_instrument, volume) == 244);
static_assert(offsetof(psynth_sampler_instrument, relative_note) == 247);
static_assert(offsetof(psynth_sampler_instrument, volume_table) == 250);
static_assert(offsetof(psynth_sampler_instrument, panning_table) == 1274);
static_assert(offsetof(psynth_sampler_instrument, sample_refs) == 2300);

// Chunks 1, 3, ... 31 (at least 44 bytes): the 40-byte sample header of the instrument
// files the Sampler loads as they are, then a run-time reference the module neither
// reads nor writes (its pointers live in the module's private data).
struct psynth_sampler_sample {
    uint32_t length;       // frames
    uint32_t loop_start;   // frames
    uint32_t loop_length;  // frames
    uint8_t volume;        // 0..64
    int8_t finetune;       // 1/128 semitone
    uint8_t type;          // loop, format and stereo bits
    uint8_t panning;       // 0..255, 128 = centre
    int8_t relative_note;
    uint8_t reserved;
    char name[22];
    uint32_t data_ref;
};
static_assert(sizeof(psynth_sampler_sample) == 44, "the sample header chunk is 44 bytes");
static_assert(offsetof(psynth_sampler_sample, volume) == 12);
static_assert(offsetof(psynth_sampler_sample, relative_note) == 16);
static_assert(offsetof(psynth_sampler_sample, name) == 18);
static_assert(offsetof(psynth_sampler_sample, data_ref) == 40);
constexpr int PSYNTH_SAMPLER_HEADER_FIELDS = 40;  // bytes the module reads from a header chunk

// Rebuilds both envelope tables of an instrument from its points (after the points
// change). Any thread that holds the module's mutex.
void psynth_sampler_build_envelope_tables(psynth_sampler_instrument* ins);
// Writes the default instrument into a zero-filled record: volume 64, panning 128, the
// default volume envelope (sustain at point 1) and panning envelope, both off, their
// tables built, no samples. Any thread that holds the module's mutex.
void psynth_sampler_write_default_instrument(psynth_sampler_instrument* ins);
// Builds one 512-entry table from `count` points: zero where no segment reaches. Any thread.
void psynth_sampler_build_envelope(const psynth_sampler_env_point* points, int count, int16_t* table);
// Storage flags for a sample of this type byte; 0 for an unknown data format. Any thread.
int psynth_sampler_storage_flags(uint8_t type);

// The module's mutex, which every editor or loader takes before changing its chunks
// (the render only try-locks it). Null for a bad index. Any thread.
tarvik_mutex* psynth_sampler_get_mutex(int mod_num, psynth_net* net);

// Arms (on != 0) or disarms the recording of the module's inputs into a 65536-frame
// ring of 16-bit frames (1 or 2 channels, as the module has inputs); with
// every_second_frame only every second input frame is kept. The first block the render
// records skips its leading frames of silence on every channel. Arming an armed module
// starts a new take. Returns 0, or 1 for a bad index or no memory. GUI thread; takes
// the module's mutex.
int psynth_sampler_record(int mod_num, int on, int every_second_frame, psynth_net* net);
// The recording ring while armed (null otherwise): its channel count and the frames
// written into it since the take began (the ring index is that count mod 65536).
// GUI thread, with the module's mutex held.
const int16_t* psynth_sampler_get_take(int mod_num, int* channels, uint32_t* frames_written, psynth_net* net);
