// The SpectraVoice: an additive synthesizer of the sound net. Its sound is a list of 16
// partials (frequency, volume, width) kept in data chunk 0; every note renders them into its
// own looped wavetable, leaving out what would lie above half the sampling rate, and plays
// it under an attack/release envelope into a stereo output.
//
// Controllers (registered at INIT in this order; values in the module's own units):
//
// | # | name             | units        | min | max  | default | kind   |
// |---|------------------|--------------|-----|------|---------|--------|
// | 0 | "Volume"         | ""           | 0   | 512  | 256     | number |
// | 1 | "Panning"        | ""           | 0   | 256  | 128     | number |
// | 2 | "Attack"         | "ms"         | 0   | 4000 | 20      | number |
// | 3 | "Release"        | "ms"         | 0   | 4000 | 300     | number |
// | 4 | "Polyphony"      | "ch."        | 1   | 16   | 8       | number |
// | 5 | "Partial"        | ""           | 1   | 16   | 1       | number |
// | 6 | "Partial freq"   | "1/16 harm." | 0   | 1024 | 16      | number |
// | 7 | "Partial volume" | ""           | 0   | 256  | 256     | number |
// | 8 | "Partial width"  | "1/16 harm." | 0   | 8    | 0       | number |
//
// Volume: 256 is unity; a lone partial of volume 256 at unity volume, full velocity (256) and
//   centre panning peaks at ±2048 (13.3), half the device's full scale, like a Generator voice.
//   Partials add up; the wavetable holds their sum up to the 16-bit range.
// Panning: 0 left, 128 centre, 256 right; the far side fades out, the near side stays at unity.
// Attack, Release: the linear rise from silence and the fall after NOTE_OFF (at least 1 ms).
// Partial: which partial controllers 6 to 8 show and change (a SET_GLOBAL_CONTROLLER event on
//   6 to 8 writes the partial in chunk 0, and the sounding notes rebuild their tables).
// Partial freq: in 1/16 of the note's frequency: 16 is the fundamental, 32 the second
//   harmonic, 24 a fifth above the fundamental; 0 switches the partial off.
// Partial volume: 256 is a partial of full level.
// Partial width: spreads the partial over 2·width + 1 neighbouring frequencies 1/16 harmonic
//   apart, with falling weights and fixed random phases: a wide partial beats and shimmers like
//   an ensemble; 0 is a pure sine. The spread keeps the partial's power.
//
// Data chunk 0: 16 partials of three unsigned 16-bit little-endian values each (frequency,
// volume, width, in the units above), 96 bytes, storage flag 2 (16-bit data). INIT creates it
// with a soft organ (partials 1 to 4 on the first four harmonics, the others silent);
// SETUP_FINISHED recreates or grows it when a loaded module lacks it, and re-reads it.
//
// Wavetables: 4096 frames holding 16 periods of the note, one per voice, allocated at INIT.
// NOTE_ON builds the voice's table when the partials changed since it was built or the note's
// highest playable frequency leaves out other partials, copying it from another voice that
// holds the same (so a chord builds once); changed partials rebuild the tables of sounding
// notes before their next frame. Nothing is allocated while rendering. A build costs about
// 0.04 ms for the default partials and 0.8 ms for all 16 at the widest (bench/README.md).
// Voices: NOTE_ON takes, among the first Polyphony voices, the one holding the event's id, else
// a free one from the cursor on, else a releasing one, else the one after the cursor.
// Flags: sound source (0x8).
#include <array>
#include <cstdint>
#include <cstring>

#include "engine/memory.h"
#include "psynth/psynth_dsp.h"
#include "psynth/psynth_modules.h"
#include "psynth/psynth_voices.h"

namespace {

constexpr int kPartials = 16;
constexpr int kPartialChunk = 0;
constexpr int kChunkFlag16Bit = 2;  // storage flag of 16-bit chunk data: byte order converted
constexpr int kVolumeMax = 512;
constexpr int kRampMaxMs = 4000;
constexpr int kMinRampMs = 1;
constexpr int kPartialFreqMax = 1024;
constexpr int kPartialVolumeMax = 256;
constexpr int kPartialWidthMax = 8;

// Wavetable: 2^12 frames, 16 periods, so one frequency step of the table (a bin) is 1/16 of
// the note's frequency. The table's phase is 32 bits: 12 for the frame, 20 of fraction.
constexpr int kTableBits = 12;
constexpr int kTableSize = 1 << kTableBits;
constexpr int kTablePeriodsBits = 4;
constexpr int kTableFracShift = 32 - kTableBits;
constexpr int kTableInterpBits = 16;  // interpolation weight from the top of the fraction
constexpr int kHighestBin = kTableSize / 2 - 1;
// psynth_pitch_to_freq gives 32 × Hz; a bin b is playable while b/16 × Hz < rate/2, that is
// while b × freq < 256 × rate.
constexpr int kBinLimitPerRate = 256;
constexpr int kSpreadWeightBits = 16;  // the power share of one spread line, in 1/65536
constexpr uint32_t kPhaseSeedBase = 0x5BEC7;
constexpr int kLineShift = 11;
constexpr int kRandomToPointShift = 3;  // tarvik_random's 15 bits → a point 0..4095 of a period  // amplitude × sine (±2048) → a line peaking at its amplitude

enum sv_ctl : int {
    CTL_VOLUME,
    CTL_PANNING,
    CTL_ATTACK,
    CTL_RELEASE,
    CTL_POLYPHONY,
    CTL_PARTIAL,
    CTL_PARTIAL_FREQ,
    CTL_PARTIAL_VOLUME,
    CTL_PARTIAL_WIDTH,
    CTL_COUNT
};

// One partial as chunk 0 stores it (little-endian; the file layer swaps by the storage flag).
struct sv_partial {
    uint16_t freq;
    uint16_t volume;
    uint16_t width;
};
static_assert(sizeof(sv_partial) == 6, "a partial is three 16-bit values");
constexpr int kPartialChunkSize = kPartials * (int)sizeof(sv_partial);

struct sv_voice {
    int active;
    int id;             // the event id that owns it, −1 = none
    int pitch;
    uint32_t phase;     // position in the table
    uint32_t step;
    int velocity;       // 0..256
    int32_t env;        // 0..PSYNTH_ENV_ONE
    int stage;
    uint32_t built_generation;  // partials its table was built from
    int built_bins;             // highest bin the table holds, −1 = not built
};

struct sv_data {
    int ctl[CTL_COUNT];
    sv_voice voices[PSYNTH_VOICES_MAX];
    int cursor;
    uint32_t generation;  // counts changes of the partials
    int16_t* tables;      // PSYNTH_VOICES_MAX × kTableSize, allocated at INIT
    int32_t* sum;         // kTableSize: where a table is summed before it is held to 16 bits
};

int32_t ramp_per_frame(int ms, int rate) { return psynth_env_step(psynth_clamp(ms, kMinRampMs, kRampMaxMs), rate); }

// ---- Partials ----

sv_partial* partials_of(int mod_num, psynth_net* net) {
    int size = 0;
    void* p = psynth_get_chunk(mod_num, kPartialChunk, net);
    if (!p || psynth_get_chunk_info(mod_num, kPartialChunk, &size, nullptr, nullptr, net) != 0) return nullptr;
    return size >= kPartialChunkSize ? (sv_partial*)p : nullptr;
}

void write_default_partials(sv_partial* p) {
    const sv_partial organ[4] = {{16, 256, 0}, {32, 128, 1}, {48, 85, 1}, {64, 64, 2}};
    for (int i = 0; i < kPartials; i++) p[i] = i < 4 ? organ[i] : sv_partial{(uint16_t)(16 * (i + 1)), 0, 0};
}

// Creates chunk 0 with the default partials, or grows a short one (the tail stays 0).
void ensure_partial_chunk(int mod_num, psynth_net* net) {
    void* fresh = psynth_ensure_chunk(mod_num, kPartialChunk, kPartialChunkSize, kChunkFlag16Bit, net);
    if (fresh) write_default_partials((sv_partial*)fresh);
}

// Controllers 6 to 8 show the selected partial.
void show_partial(int mod_num, sv_data* d, psynth_net* net) {
    const sv_partial* p = partials_of(mod_num, net);
    if (!p) return;
    const sv_partial& x = p[psynth_clamp(d->ctl[CTL_PARTIAL], 1, kPartials) - 1];
    d->ctl[CTL_PARTIAL_FREQ] = psynth_clamp(x.freq, 0, kPartialFreqMax);
    d->ctl[CTL_PARTIAL_VOLUME] = psynth_clamp(x.volume, 0, kPartialVolumeMax);
    d->ctl[CTL_PARTIAL_WIDTH] = psynth_clamp(x.width, 0, kPartialWidthMax);
}

// Writes controllers 6 to 8 into the selected partial; sounding notes rebuild their tables.
void store_partial(int mod_num, sv_data* d, psynth_net* net) {
    sv_partial* p = partials_of(mod_num, net);
    if (!p) return;
    sv_partial& x = p[psynth_clamp(d->ctl[CTL_PARTIAL], 1, kPartials) - 1];
    x.freq = (uint16_t)psynth_clamp(d->ctl[CTL_PARTIAL_FREQ], 0, kPartialFreqMax);
    x.volume = (uint16_t)psynth_clamp(d->ctl[CTL_PARTIAL_VOLUME], 0, kPartialVolumeMax);
    x.width = (uint16_t)psynth_clamp(d->ctl[CTL_PARTIAL_WIDTH], 0, kPartialWidthMax);
    d->generation++;
}

// ---- Wavetables ----

// The highest bin a note of this pitch plays below half the sampling rate.
int highest_bin(int pitch, int rate) {
    uint64_t freq = psynth_pitch_to_freq(pitch);
    if (freq == 0) return kHighestBin;
    uint64_t bins = ((uint64_t)kBinLimitPerRate * (uint64_t)(rate > 0 ? rate : 0) - 1) / freq;
    return bins > (uint64_t)kHighestBin ? kHighestBin : (int)bins;
}

// One period of the shared sine in as many points as a wavetable has frames (4 × the quarter
// table's steps): frame n of a line at bin b is exactly point (start + n·b) mod 4096, so the
// build reads whole points and needs no interpolation.
static_assert(kTableSize == 4 * PSYNTH_SINE_SIZE, "a wavetable frame is one step of the sine table");
constexpr std::array<int16_t, kTableSize> make_period_sine() {
    std::array<int16_t, kTableSize> t{};
    for (int m = 0; m < kTableSize; m++) {
        int quadrant = m / PSYNTH_SINE_SIZE, pos = m % PSYNTH_SINE_SIZE;
        int v = PSYNTH_QUARTER_SINE[quadrant & 1 ? PSYNTH_SINE_SIZE - pos : pos];
        t[m] = (int16_t)(quadrant & 2 ? -v : v);
    }
    return t;
}
constexpr std::array<int16_t, kTableSize> kPeriodSine = make_period_sine();

// Sums one sine of `amp` (13.3, up to 2048 for a full partial) at table bin `bin`, starting
// at point `start` of its period, into the sum.
void add_line(int32_t* sum, int bin, int32_t amp, uint32_t start) {
    uint32_t k = start;
    for (int n = 0; n < kTableSize; n++) {
        sum[n] += (amp * kPeriodSine[k & (kTableSize - 1)]) >> kLineShift;
        k += (uint32_t)bin;
    }
}

// Renders the partials into the voice's table, bins above `bins` left out.
void build_table(const sv_partial* partials, int bins, int32_t* sum, int16_t* table) {
    memset(sum, 0, sizeof(int32_t) * kTableSize);
    for (int i = 0; i < kPartials; i++) {
        const sv_partial& p = partials[i];
        int volume = psynth_clamp(p.volume, 0, kPartialVolumeMax);
        int centre = psynth_clamp(p.freq, 0, kPartialFreqMax);
        if (volume == 0 || centre == 0) continue;
        int width = psynth_clamp(p.width, 0, kPartialWidthMax);
        // Line j of the spread has weight width + 1 − |j|; the weights sum to (width + 1)².
        // Its amplitude is √(share of the power), so the spread keeps the partial's power.
        int64_t total = (int64_t)(width + 1) * (width + 1);
        uint32_t seed = kPhaseSeedBase + (uint32_t)i;
        for (int j = -width; j <= width; j++) {
            uint32_t start = width ? (uint32_t)tarvik_random(&seed) >> kRandomToPointShift : 0;
            int bin = centre + j;
            if (bin < 1 || bin > bins) continue;
            int64_t weight = width + 1 - (j < 0 ? -j : j);
            uint32_t share = psynth_isqrt64((weight << (2 * kSpreadWeightBits)) / total);  // 16 bits
            int32_t amp = (int32_t)(((int64_t)volume * PSYNTH_WAVE_AMP / kPartialVolumeMax * share) >> kSpreadWeightBits);
            add_line(sum, bin, amp, start);
        }
    }
    for (int n = 0; n < kTableSize; n++) table[n] = (int16_t)psynth_clamp(sum[n], INT16_MIN, INT16_MAX);
}

// The highest bin any partial reaches with its spread.
int partials_reach(const sv_partial* partials) {
    int reach = 0;
    for (int i = 0; partials && i < kPartials; i++) {
        if (partials[i].volume == 0 || partials[i].freq == 0) continue;
        int top = psynth_clamp(partials[i].freq, 0, kPartialFreqMax) + psynth_clamp(partials[i].width, 0, kPartialWidthMax);
        if (top > reach) reach = top;
    }
    return reach;
}

// Builds the voice's table unless it already holds these partials for this note's range.
// A note that slid down (`at_note_on` false) keeps its table: it only lacks some highs.
void prepare_table(int mod_num, sv_data* d, int index, bool at_note_on, psynth_net* net) {
    sv_voice* v = &d->voices[index];
    const sv_partial* partials = partials_of(mod_num, net);
    int bins = highest_bin(v->pitch, net->sampling_rate);
    int reach = partials_reach(partials);
    if (bins > reach) bins = reach;  // notes that play every partial share one table's worth
    if (v->built_generation == d->generation && (v->built_bins == bins || (!at_note_on && v->built_bins < bins))) {
        return;
    }
    int16_t* table = d->tables + (size_t)index * kTableSize;
    const int16_t* same = nullptr;  // another voice's table with this content: a chord builds once
    for (int i = 0; i < PSYNTH_VOICES_MAX && !same; i++) {
        const sv_voice& o = d->voices[i];
        if (i != index && o.built_generation == d->generation && o.built_bins == bins) {
            same = d->tables + (size_t)i * kTableSize;
        }
    }
    if (same) {
        memcpy(table, same, sizeof(int16_t) * kTableSize);
    } else if (partials) {
        build_table(partials, bins, d->sum, table);
    } else {
        memset(table, 0, sizeof(int16_t) * kTableSize);
    }
    v->built_bins = bins;
    v->built_generation = d->generation;
}

// ---- Render ----

void render_voice(sv_voice* v, const int16_t* table, const int32_t gains[2], int32_t attack_inc,
                  int32_t release_dec, psynth_sample* out_l, psynth_sample* out_r, int from, int to) {
    uint32_t phase = v->phase;
    const uint32_t step = v->step;
    int32_t env = v->env;
    int stage = v->stage;
    bool active = true;
    for (int i = from; i < to && active; i++) {
        uint32_t idx = phase >> kTableFracShift;
        int32_t frac = (int32_t)((phase >> (kTableFracShift - kTableInterpBits)) & ((1u << kTableInterpBits) - 1));
        int32_t a = table[idx];
        int32_t b = table[(idx + 1) & (kTableSize - 1)];
        int32_t w = a + (int32_t)(((int64_t)(b - a) * frac) >> kTableInterpBits);
        int64_t we = ((int64_t)w * env) >> PSYNTH_ENV_BITS;
        out_l[i] = psynth_add_saturated(out_l[i], (int32_t)psynth_shr_toward_zero(we * gains[0], 2 * PSYNTH_GAIN_SHIFT));
        out_r[i] = psynth_add_saturated(out_r[i], (int32_t)psynth_shr_toward_zero(we * gains[1], 2 * PSYNTH_GAIN_SHIFT));
        phase += step;
        active = psynth_env_advance(&env, &stage, attack_inc, release_dec, PSYNTH_ENV_SUSTAIN);
    }
    v->phase = phase;
    v->env = env;
    v->stage = stage;
    if (!active) {
        v->active = 0;
        v->id = -1;
    }
}

intptr_t render(int mod_num, sv_data* d, psynth_net* net) {
    psynth_module* mod = &net->modules[mod_num];
    int from, to;
    if (!psynth_render_span(mod, &from, &to)) return 0;
    if (!mod->output_buffers[0] || !mod->output_buffers[1] || !d->tables) return 0;
    if (!psynth_voices_sounding(d->voices, PSYNTH_VOICES_MAX)) return 0;

    int32_t attack_inc = ramp_per_frame(d->ctl[CTL_ATTACK], net->sampling_rate);
    int32_t release_dec = ramp_per_frame(d->ctl[CTL_RELEASE], net->sampling_rate);
    int limit = psynth_clamp(d->ctl[CTL_POLYPHONY], 1, PSYNTH_VOICES_MAX);
    int volume = psynth_clamp(d->ctl[CTL_VOLUME], 0, kVolumeMax);
    psynth_sample* out_l = mod->output_buffers[0];
    psynth_sample* out_r = mod->output_buffers[1];
    psynth_clear_span(out_l, from, to);
    psynth_clear_span(out_r, from, to);
    for (int i = 0; i < PSYNTH_VOICES_MAX; i++) {
        sv_voice* v = &d->voices[i];
        if (!v->active) continue;
        if (i >= limit) v->stage = PSYNTH_ENV_RELEASE;  // voices above a lowered limit fade out
        prepare_table(mod_num, d, i, false, net);
        int32_t gains[2];
        psynth_pan_gains(d->ctl[CTL_PANNING], gains);
        int32_t level = psynth_div256_toward_zero(volume * v->velocity);  // 256 = unity
        gains[0] *= level;
        gains[1] *= level;
        render_voice(v, d->tables + (size_t)i * kTableSize, gains, attack_inc, release_dec, out_l, out_r, from, to);
    }
    return 1;
}

// ---- Notes ----

void release_voice(sv_voice* v) {
    if (v->active) v->stage = PSYNTH_ENV_RELEASE;
}

// A free voice starts from silence at the table's start. A sounding voice taken for the note
// keeps its level and attacks again from there, so that taking it never clicks.
intptr_t note_on(int mod_num, const psynth_event* e, sv_data* d, psynth_net* net) {
    if (!d->tables) return 0;
    int limit = psynth_clamp(d->ctl[CTL_POLYPHONY], 1, PSYNTH_VOICES_MAX);
    int chosen = psynth_voice_choose(d->voices, limit, e->id, &d->cursor,
                                     [](const sv_voice& v) { return v.stage == PSYNTH_ENV_RELEASE; });
    psynth_voice_hand_over_id(d->voices, PSYNTH_VOICES_MAX, chosen, e->id, [](sv_voice& v) { release_voice(&v); });
    sv_voice* v = &d->voices[chosen];
    if (!v->active) {
        v->phase = 0;
        v->env = 0;
    }
    v->active = 1;
    v->stage = PSYNTH_ENV_ATTACK;
    v->id = e->id;
    v->pitch = e->pitch;
    v->step = psynth_pitch_to_phase_step(e->pitch, net->sampling_rate) >> kTablePeriodsBits;
    v->velocity = psynth_clamp(e->velocity, 0, PSYNTH_VELOCITY_MAX);
    prepare_table(mod_num, d, chosen, true, net);
    return 1;
}

void silence_all(sv_data* d) {
    for (sv_voice& v : d->voices) {
        uint32_t generation = v.built_generation;
        int bins = v.built_bins;
        memset(&v, 0, sizeof(v));
        v.id = -1;
        v.built_generation = generation;  // the tables stay valid
        v.built_bins = bins;
    }
    d->cursor = 0;
}

void init(int mod_num, sv_data* d, psynth_net* net) {
    memset(d, 0, sizeof(*d));
    static const psynth_ctl_row rows[CTL_COUNT] = {
        {"Volume", "", 0, kVolumeMax, PSYNTH_GAIN_UNITY},
        {"Panning", "", 0, PSYNTH_PAN_MAX, PSYNTH_PAN_CENTRE},
        {"Attack", "ms", 0, kRampMaxMs, 20},
        {"Release", "ms", 0, kRampMaxMs, 300},
        {"Polyphony", "ch.", 1, PSYNTH_VOICES_MAX, 8},
        {"Partial", "", 1, kPartials, 1},
        {"Partial freq", "1/16 harm.", 0, kPartialFreqMax, 16},
        {"Partial volume", "", 0, kPartialVolumeMax, kPartialVolumeMax},
        {"Partial width", "1/16 harm.", 0, kPartialWidthMax, 0},
    };
    psynth_register_ctl_rows(mod_num, rows, d->ctl, net);
    d->tables = (int16_t*)mem_new(MEM_DYNAMIC, sizeof(int16_t) * kTableSize * PSYNTH_VOICES_MAX, "sv_tables");
    d->sum = (int32_t*)mem_new(MEM_DYNAMIC, sizeof(int32_t) * kTableSize, "sv_sum");
    if (!d->tables || !d->sum) {
        mem_free(d->tables);
        mem_free(d->sum);
        d->tables = nullptr;
        d->sum = nullptr;
    }
    for (sv_voice& v : d->voices) v.built_bins = -1;
    silence_all(d);
    ensure_partial_chunk(mod_num, net);
}

// Controllers 5 to 8 are taken here: choosing a partial shows it, changing one writes it.
intptr_t global_controller(int mod_num, const psynth_event* e, sv_data* d, psynth_net* net) {
    int n = (uint16_t)e->note;
    if (n < CTL_PARTIAL || n > CTL_PARTIAL_WIDTH || n >= net->modules[mod_num].ctls_count) return 0;
    d->ctl[n] = psynth_ctl_value_from_normalized(&net->modules[mod_num].ctls[n], e->velocity);
    if (n == CTL_PARTIAL) {
        show_partial(mod_num, d, net);
    } else {
        store_partial(mod_num, d, net);
    }
    return 1;
}

}  // namespace

intptr_t psynth_spectravoice(int mod_num, psynth_event* event, psynth_net* net) {
    switch (event->command) {
    case PS_CMD_GET_DATA_SIZE: return sizeof(sv_data);
    case PS_CMD_GET_SYNTH_NAME: return (intptr_t) "SpectraVoice";
    case PS_CMD_GET_SYNTH_INFO:
        return (intptr_t) "SpectraVoice.\nAn additive synthesizer: 16 partials, each with a frequency "
                          "(in 1/16 of the note's), a volume and a width that spreads it into a shimmering band.";
    case PS_CMD_GET_SYNTH_COLOR: return (intptr_t) "#A070FF";
    case PS_CMD_GET_INPUTS_NUM: return 0;
    case PS_CMD_GET_OUTPUTS_NUM: return 2;
    case PS_CMD_GET_FLAGS: return PSYNTH_FLAG_GENERATOR;
    default: break;
    }
    sv_data* d = psynth_module_data<sv_data>(mod_num, net);
    if (!d) return 0;
    switch (event->command) {
    case PS_CMD_INIT:
        init(mod_num, d, net);
        return 1;
    case PS_CMD_SETUP_FINISHED:
        ensure_partial_chunk(mod_num, net);
        show_partial(mod_num, d, net);
        d->generation++;
        return 1;
    case PS_CMD_CLEAN:
        silence_all(d);
        return 1;
    case PS_CMD_RENDER_REPLACE: return render(mod_num, d, net);
    case PS_CMD_NOTE_ON: return note_on(mod_num, event, d, net);
    case PS_CMD_SET_FREQ: {
        sv_voice* v = psynth_voice_find(d->voices, PSYNTH_VOICES_MAX, event->id);
        if (v) {
            v->pitch = event->pitch;
            v->step = psynth_pitch_to_phase_step(event->pitch, net->sampling_rate) >> kTablePeriodsBits;
        }
        return 1;
    }
    case PS_CMD_SET_VELOCITY: {
        sv_voice* v = psynth_voice_find(d->voices, PSYNTH_VOICES_MAX, event->id);
        if (v) v->velocity = psynth_clamp(event->velocity, 0, PSYNTH_VELOCITY_MAX);
        return 1;
    }
    case PS_CMD_NOTE_OFF: {
        sv_voice* v = psynth_voice_find(d->voices, PSYNTH_VOICES_MAX, event->id);
        if (v) release_voice(v);
        return 1;
    }
    case PS_CMD_ALL_NOTES_OFF:
        for (sv_voice& v : d->voices) {
            release_voice(&v);
            v.id = -1;
        }
        return 1;
    case PS_CMD_SET_GLOBAL_CONTROLLER: return global_controller(mod_num, event, d, net);
    case PS_CMD_CLOSE:
        mem_free(d->tables);
        mem_free(d->sum);
        d->tables = nullptr;
        d->sum = nullptr;
        return 1;
    default: return 0;
    }
}
