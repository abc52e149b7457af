// The common form the tracker readers (import_xm, import_mod, import_s3m, import_it)
// produce and import_build turns into a song: patterns of cells with the format's effects
// named by meaning, a pool of samples already in the Sampler's layout, and instruments
// that map notes onto those samples. Also the bounds-checked byte reader they share.
//
// Error convention: readers return 0 or a ZELFON_IMPORT_* code with the reason written
// by tracker_fail into the report. Every block is the memory manager's; tracker_free
// releases them all, whatever state a failed reader left.
#pragma once

#include <cstddef>
#include <cstdint>

#include "psynth/sampler.h"
#include "song/import.h"

// Limits beyond which a file is taken as damage rather than music.
constexpr int TRACKER_MAX_ORDERS = 256;
constexpr int TRACKER_MAX_PATTERNS = 256;
constexpr int TRACKER_MAX_ROWS = 256;
constexpr int TRACKER_MAX_CHANNELS = 64;
constexpr int TRACKER_MAX_INSTRUMENTS = 255;
constexpr int TRACKER_MAX_SAMPLES = 4080;          // 255 instruments of 16 samples
constexpr uint32_t TRACKER_MAX_SAMPLE_FRAMES = 1u << 26;

constexpr double TRACKER_C4_RATE = 8363.0;         // Hz of C-4 with relative note and finetune 0
constexpr double TRACKER_AMIGA_CLOCK = 3546895.0;  // Hz × period: an Amiga period's playback rate

constexpr uint16_t TRACKER_ORDER_SKIP = 0xFFFE;   // "+++": go on with the next order
constexpr uint16_t TRACKER_ORDER_END = 0xFFFF;    // "---": the song ends here

// Notes of a cell: 1..120 as in the song's cells (1 = C-0, 49 = C-4), or these.
constexpr uint8_t TRACKER_NOTE_NONE = 0;
constexpr uint8_t TRACKER_NOTE_MAX = 120;
constexpr uint8_t TRACKER_NOTE_OFF = 128;   // key off: the envelopes release
constexpr uint8_t TRACKER_NOTE_CUT = 129;   // silence at once
constexpr uint8_t TRACKER_NOTE_FADE = 130;  // fade out

// Effects by meaning; each reader decodes its letters and volume column into these.
enum tracker_fx : uint8_t {
    TFX_NONE = 0,
    TFX_ARPEGGIO,            // xy: +x, +y semitones
    TFX_PORTA_UP,            // per tick after the first, in the format's slide units
    TFX_PORTA_DOWN,
    TFX_FINE_PORTA_UP,       // once
    TFX_FINE_PORTA_DOWN,
    TFX_EXTRA_FINE_PORTA_UP, // once, a quarter of a fine step
    TFX_EXTRA_FINE_PORTA_DOWN,
    TFX_TONE_PORTA,          // per tick towards the cell's note
    TFX_VOLSLIDE,            // x0 up, 0y down, per tick after the first (volume 0..64)
    TFX_FINE_VOLSLIDE_UP,    // once
    TFX_FINE_VOLSLIDE_DOWN,
    TFX_SET_VOLUME,          // 0..64
    TFX_SET_PAN,             // 0..255
    TFX_SAMPLE_OFFSET,       // × 256 frames
    TFX_JUMP,                // to order x
    TFX_BREAK,               // to row x of the next order
    TFX_PATTERN_LOOP,        // 0 = loop start, x = loop x times
    TFX_SPEED,               // ticks per row, 0 = stop
    TFX_TEMPO,               // BPM
    TFX_RETRIG,              // every x ticks (y: the volume change of a multi retrigger)
    TFX_NOTE_CUT,            // at tick x
    TFX_NOTE_DELAY,          // at tick x
    TFX_KEY_OFF,             // at tick x
    // Without a counterpart here: counted in the report under their kind.
    TFX_VIBRATO,
    TFX_TREMOLO,
    TFX_TREMOR,
    TFX_PANBRELLO,
    TFX_GLOBAL_VOLUME,
    TFX_CHANNEL_VOLUME,
    TFX_PANNING_SLIDE,
    TFX_PATTERN_DELAY,
    TFX_TEMPO_SLIDE,
    TFX_ENVELOPE_POSITION,
    TFX_WAVEFORM,
    TFX_FILTER,
    TFX_MIDI,
    TFX_SOUND_CONTROL,
    TFX_HIGH_OFFSET,
    TFX_OTHER,
    TFX_COUNT
};

struct tracker_fx_slot {
    uint8_t kind;   // tracker_fx
    uint8_t param;
};

inline void tracker_put_fx(tracker_fx_slot* slot, int kind, int param) {
    slot->kind = (uint8_t)kind;
    slot->param = (uint8_t)param;
}

// One cell: slot 0 holds what the volume column asks, slot 1 the effect column.
struct tracker_cell {
    uint8_t note;
    uint8_t instrument;  // 0 none, i = instrument i−1
    tracker_fx_slot fx[2];
};

struct tracker_pattern {
    int rows;             // 0 while the file holds no such pattern
    tracker_cell* cells;  // rows × the module's channels, or null for an empty pattern
};

struct tracker_sample {
    psynth_sampler_sample header;  // lengths and loops in frames; format bits say 8 or 16-bit
    void* data;                    // mono frames, null when the sample is empty
    bool sets_pan;                 // a note with an instrument takes the sample's panning
};

struct tracker_instrument {
    psynth_sampler_instrument ins;  // name, note map (into `sample_of`), envelopes, vibrato, fade-out
    int samples_num;
    int sample_of[PSYNTH_SAMPLER_SAMPLES];  // index into the module's sample pool
};

struct tracker_module {
    int format;               // zelfon_import_format
    char name[PSYNTH_NAME_SIZE];
    int channels;
    int speed;                // initial ticks per row
    int bpm;
    int global_volume;        // 256 = unity
    bool linear_slides;       // slides in 1/64 semitone; else Amiga periods
    uint8_t channel_pan[TRACKER_MAX_CHANNELS];  // 0..255
    int orders_num;
    uint16_t orders[TRACKER_MAX_ORDERS];
    int restart_order;        // where the song goes after its last order
    int patterns_num;
    tracker_pattern patterns[TRACKER_MAX_PATTERNS];
    int instruments_num;
    tracker_instrument* instruments;
    int samples_num;
    tracker_sample* samples;
    zelfon_import_report* report;
};

// ---- Byte reader ----

// A view of the file: reads past the end give 0 and set `cut`, so that a reader checks
// once after a block of fields instead of before each one.
struct tracker_reader {
    const uint8_t* data;
    size_t size;
    size_t pos;
    bool cut;
};

inline bool tracker_has(const tracker_reader* r, size_t n) { return r->pos <= r->size && n <= r->size - r->pos; }
uint8_t tracker_u8(tracker_reader* r);
uint16_t tracker_u16le(tracker_reader* r);
uint16_t tracker_u16be(tracker_reader* r);
uint32_t tracker_u32le(tracker_reader* r);
// Copies n bytes (zeros past the end).
void tracker_bytes(tracker_reader* r, void* out, size_t n);
// A little-endian 16-bit field of a block already checked to be in the file.
inline uint16_t tracker_le16(const uint8_t* p) { return (uint16_t)(p[0] | p[1] << 8); }
void tracker_skip(tracker_reader* r, size_t n);
// Moves to `pos`; a position past the end sets `cut`.
void tracker_seek(tracker_reader* r, size_t pos);

// ---- Shared helpers ----

// Writes the reason into the report and returns `code`.
int tracker_fail(tracker_module* m, int code, const char* format, ...);
// Counts `count` losses of `kind`.
void tracker_lose(tracker_module* m, int kind, int count = 1);
// A name of at most `n` bytes from a file, made printable and without trailing blanks.
void tracker_name(char* out, size_t out_size, const uint8_t* in, size_t n);

// The relative note and finetune (1/128 semitone) that make C-4 play at `rate` Hz.
void tracker_rate_to_pitch(double rate, int8_t* relative_note, int8_t* finetune);
// The rate C-4 of a sample plays at, from its relative note and finetune.
double tracker_sample_rate(const psynth_sampler_sample* header);

// Allocates the sample pool and the instrument table (zeroed). 0 or an error code.
int tracker_alloc_tables(tracker_module* m, int instruments, int samples);
// Allocates pattern `p` with `rows` rows of empty cells. 0 or an error code.
int tracker_alloc_pattern(tracker_module* m, int p, int rows);
tracker_cell* tracker_cell_at(tracker_module* m, int p, int row, int channel);
// Makes instrument i a plain one over sample s: every note plays it, default envelopes off.
void tracker_instrument_of_sample(tracker_module* m, int i, int s);

// Reads the frames of sample s (its header says length, 8 or 16-bit) from the reader:
// `is_signed` false for unsigned data, `delta` for delta-coded data. Data cut by the end
// of the file shortens the sample (a loss); 0 or an error code.
int tracker_read_sample_data(tracker_module* m, int s, tracker_reader* r, bool is_signed, bool delta);
// Clamps a sample's loop into its length; a loop of under 2 frames is none.
void tracker_fix_loop(psynth_sampler_sample* h);

void tracker_free(tracker_module* m);

// ---- Readers (one file each) and the song builder ----

bool tracker_is_xm(const uint8_t* data, size_t size);
bool tracker_is_mod(const uint8_t* data, size_t size);
bool tracker_is_s3m(const uint8_t* data, size_t size);
bool tracker_is_it(const uint8_t* data, size_t size);
int tracker_read_xm(tracker_reader* r, tracker_module* m);
int tracker_read_mod(tracker_reader* r, tracker_module* m);
int tracker_read_s3m(tracker_reader* r, tracker_module* m);
int tracker_read_it(tracker_reader* r, tracker_module* m);

// The MOD effect letters (0..F with the E sub-effects), shared by XM, into the cell's
// effect slot; the volume slide of the combined effects 5 and 6 takes the volume slot
// when it is free.
void tracker_decode_mod_effect(tracker_module* m, int effect, int param, tracker_cell* cell);
// The S3M effect letters (A = 1 .. Z = 26), shared by IT (`it`: IT's meanings where the
// two differ), into the cell's effect slot.
void tracker_decode_s3m_effect(tracker_module* m, int command, int param, bool it, tracker_cell* cell);

// Replaces the song's patterns and modules with the module's. 0 or an error code.
int tracker_build_song(tracker_module* m, zelfon_song* song);
