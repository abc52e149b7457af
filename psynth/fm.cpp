// The FM synthesizer: a polyphonic two-operator instrument. A modulator sine (with
// optional self-feedback and note scaling) moves the phase of a carrier sine, each
// operator under its own attack/decay/sustain/release table. It computes its sound at
// 44100 Hz and goes through the inner-rate rings (inner_rate.h) at other net rates.
//
// | #  | name         | units                | min | max | default | kind     |
// |----|--------------|----------------------|-----|-----|---------|----------|
// | 0  | "C.Volume"   | ""                   | 0   | 256 | 128     | number   |
// | 1  | "M.Volume"   | ""                   | 0   | 256 | 48      | number   |
// | 2  | "Panning"    | ""                   | 0   | 256 | 128     | number   |
// | 3  | "C.Freq mul" | ""                   | 0   | 16  | 1       | number   |
// | 4  | "M.Freq mul" | ""                   | 0   | 16  | 1       | number   |
// | 5  | "M.Feedback" | ""                   | 0   | 256 | 0       | number   |
// | 6  | "C.Attack"   | ""                   | 0   | 512 | 32      | number   |
// | 7  | "C.Decay"    | ""                   | 0   | 512 | 32      | number   |
// | 8  | "C.Sustain"  | ""                   | 0   | 256 | 128     | number   |
// | 9  | "C.Release"  | ""                   | 0   | 512 | 64      | number   |
// | 10 | "M.Attack"   | ""                   | 0   | 512 | 32      | number   |
// | 11 | "M.Decay"    | ""                   | 0   | 512 | 32      | number   |
// | 12 | "M.Sustain"  | ""                   | 0   | 256 | 128     | number   |
// | 13 | "M.Release"  | ""                   | 0   | 512 | 64      | number   |
// | 14 | "M.Scaling"  | ""                   | 0   | 4   | 0       | number   |
// | 15 | "Polyphony"  | "ch."                | 1   | 16  | 4       | selector |
// | 16 | "Mode"       | "HQ/HQmono/LQ/LQmono" | 0   | 3   | 0       | selector |
//
// Envelope times count table entries; an entry lasts 256 inner frames (5.8 ms). A held
// key stops each operator at the end of its decay (the sustain level); a released note
// first finishes attack and decay, then runs the release and ends with the carrier's.
// A frequency multiplier of 0 plays its operator an octave down. "M.Scaling" s > 0 makes
// the modulation depth fall with the note: (128 − note)^s / 128^s, zero at note 128.
// The mono modes have one output; the LQ modes read the envelopes without interpolation.
#include <cstdint>
#include <cstring>

#include "engine/log.h"
#include "engine/memory.h"
#include "psynth/inner_rate.h"
#include "psynth/psynth_dsp.h"
#include "psynth/psynth_modules.h"
#include "psynth/psynth_tables.h"
#include "psynth/psynth_voices.h"

namespace {

const char* const kName = "FM";
const char* const kInfo =
    "FM Synthesizer.\n(Frequency Modulation)\n\"C\" - carrier\n\"M\" - modulator\nInternal sampling frequency: 44100 Hz";
const char* const kColor = "#00E3FF";
constexpr int kDataSize = 17136;  // the private data size every saved FM expects
constexpr int kOutputs = 2;
constexpr uint32_t kFlags = PSYNTH_FLAG_GENERATOR;
constexpr int kVoices = 16;

enum fm_ctl : int {
    CTL_C_VOLUME, CTL_M_VOLUME, CTL_PANNING, CTL_C_MUL, CTL_M_MUL, CTL_M_FEEDBACK,
    CTL_C_ATTACK, CTL_C_DECAY, CTL_C_SUSTAIN, CTL_C_RELEASE,
    CTL_M_ATTACK, CTL_M_DECAY, CTL_M_SUSTAIN, CTL_M_RELEASE,
    CTL_M_SCALING, CTL_POLYPHONY, CTL_MODE, CTL_COUNT
};
enum fm_mode : int { MODE_HQ, MODE_HQ_MONO, MODE_LQ, MODE_LQ_MONO };

// Sine table: 4096 entries per period, grown from the 256-entry half-sine bytes.
constexpr int kHalfSine = 256;
constexpr int kSineBase = 2 * kHalfSine;  // the first table: one period of 512 entries
constexpr int kSineBaseScale = 128;       // half-sine bytes → 15-bit amplitude
constexpr int kSineBasePasses = 16;
constexpr int kSineSize = 4096;
constexpr int kSineMask = kSineSize - 1;
constexpr int kSineExpandBits = 3;        // 512 → 4096 entries
constexpr int kSinePasses = 8;
// Phases: one period is 2^22, so a 16.16 step of f/44100 (f in Hz × 64) advances it
// exactly; the table index is the phase >> 10.
constexpr int kPhaseToIndexBits = 10;

// Envelope tables: levels 0..256 are stored × 128 (32768 = full); values are computed
// as 32-bit v >> 15 with v = level << 22 at the corners.
constexpr int kEnvTimeMax = 512;
constexpr int kEnvEntries = 1540;         // 3 × 512 entries, the closing zero and a spare
constexpr int kLevelMax = 256;
constexpr int kLevelBits = 22;
constexpr int kEnvValueBits = 15;
constexpr int kEnvSlopeBits = 15;         // decay slope: level difference × 128 × 32768
constexpr int kLevelToEntry = 128;
constexpr int kEnvPosBits = 8;            // positions are in 1/256 entry, +1 per inner frame
constexpr int kEnvPosMask = (1 << kEnvPosBits) - 1;
constexpr int kEnvWeightOne = 1 << kEnvPosBits;

// Operator arithmetic.
constexpr int kGainBits = PSYNTH_GAIN_SHIFT;   // velocity × "C.Volume" and the side volumes
constexpr int kPanCentre = 128;
constexpr int kPanBits = 7;
constexpr int kScaleTop = 128;                 // note scaling: k = 128 − note, 128 = full depth
constexpr int kScaleBits = 7;
constexpr int kFeedbackBits = 8;
constexpr int kModBits = 15;                   // modulator output = eM · sine >> 15 (table steps)
constexpr int kOutBits = 18;                   // ((c · side >> 8) · eC) >> 18 → 13.3 samples

struct fm_voice {
    uint32_t c_phase;  // one period = 2^22
    uint32_t m_phase;
    int32_t c_pos;     // envelope positions, 1/256 entry
    int32_t m_pos;
    uint32_t step;     // 16.16: the note's table frequency ÷ 44100
    int32_t id;        // −1 = none
    int32_t velocity;
    int32_t note;
    uint8_t active;
    uint8_t key_held;
};

struct fm_data {
    int ctl[CTL_COUNT];
    fm_voice voices[kVoices];
    int cursor;
    int idle;            // set while nothing has sounded since INIT or CLEAN
    int rebuild;         // a controller moved: the envelope tables are rebuilt before the next render
    int c_end, m_end;    // index of the last entry of each envelope
    int16_t* sine;       // kSineSize entries, then both envelope tables, in one block from INIT
    uint16_t* c_env;     // kEnvEntries each
    uint16_t* m_env;
    psynth_inner_rate inner;
};
static_assert(sizeof(fm_data) <= kDataSize, "the FM's state fits its private data size");

// A controller read within its registered range: songs may carry any value.
int ctl(const fm_data* d, int n, int lo, int hi) {
    int v = d->ctl[n];
    return v < lo ? lo : v > hi ? hi : v;
}
int polyphony(const fm_data* d) { return ctl(d, CTL_POLYPHONY, 1, kVoices); }
int mode(const fm_data* d) { return ctl(d, CTL_MODE, MODE_HQ, MODE_LQ_MONO); }
int outputs_for(int m) { return m == MODE_HQ_MONO || m == MODE_LQ_MONO ? 1 : kOutputs; }

// ---- Tables ----

// Smoothing passes going upward in place: each entry becomes the mean of its neighbours
// (toward zero), the left one already smoothed in this pass; the ends wrap around.
void smooth(int16_t* x, int size, int passes) {
    for (int p = 0; p < passes; p++) {
        for (int i = 0; i < size; i++) {
            int prev = x[(i + size - 1) % size], next = x[(i + 1) % size];
            x[i] = (int16_t)((prev + next) / 2);
        }
    }
}

void build_sine(int16_t* sine) {
    const uint8_t* half = psynth_get_half_sine_table();
    for (int i = 0; i < kHalfSine; i++) {
        sine[i] = (int16_t)(half[i] * kSineBaseScale);
        sine[kHalfSine + i] = (int16_t)(-half[i] * kSineBaseScale);
    }
    smooth(sine, kSineBase, kSineBasePasses);
    for (int i = kSineSize - 1; i >= 0; i--) sine[i] = sine[i >> kSineExpandBits];  // downward: sources stay intact
    smooth(sine, kSineSize, kSinePasses);
}

// One envelope from silence up to `peak` over a entries, down to `sustain` over d, down to
// silence over r (levels 0..256); each stage writes its first and last entry, the next stage
// overwriting the shared one. Returns the index of the last entry; the one after it is 0.
int build_envelope(uint16_t* t, int a, int d, int r, int peak, int sustain) {
    // Entry j of a stage is start + j · slope: the same as adding the slope entry by entry,
    // without a step past the stage's end.
    const int32_t top = peak << kLevelBits, low = sustain << kLevelBits;
    const int32_t rise = a > 0 ? top / a : 0;
    for (int j = 0; j <= a; j++) t[j] = (uint16_t)((j * rise) >> kEnvValueBits);
    const int32_t fall = ((sustain - peak) * kLevelToEntry << kEnvSlopeBits) / (d > 0 ? d : 1);
    for (int j = 0; j <= d; j++) t[a + j] = (uint16_t)((top + j * fall) >> kEnvValueBits);
    const int32_t fade = -low / (r > 0 ? r : 1);
    for (int j = 0; j <= r; j++) t[a + d + j] = (uint16_t)((low + j * fade) >> kEnvValueBits);
    t[a + d + r + 1] = 0;
    return a + d + r;
}

void build_envelopes(fm_data* d) {
    d->c_end = build_envelope(d->c_env, ctl(d, CTL_C_ATTACK, 0, kEnvTimeMax), ctl(d, CTL_C_DECAY, 0, kEnvTimeMax),
                              ctl(d, CTL_C_RELEASE, 0, kEnvTimeMax), kLevelMax, ctl(d, CTL_C_SUSTAIN, 0, kLevelMax));
    const int depth = ctl(d, CTL_M_VOLUME, 0, kLevelMax);
    const int sustain = (depth * ctl(d, CTL_M_SUSTAIN, 0, kLevelMax)) >> kGainBits;
    d->m_end = build_envelope(d->m_env, ctl(d, CTL_M_ATTACK, 0, kEnvTimeMax), ctl(d, CTL_M_DECAY, 0, kEnvTimeMax),
                              ctl(d, CTL_M_RELEASE, 0, kEnvTimeMax), depth, sustain);
    d->rebuild = 0;
}

// ---- Voices ----

// What every voice of one render shares.
struct fm_params {
    const int16_t* sine;
    const uint16_t* c_env;
    const uint16_t* m_env;
    int c_mul, m_mul;
    int feedback;
    int scaling;
    int c_volume, panning;
    int32_t c_hold, m_hold;  // positions where a held key stops: end of the decay
    int32_t c_end, m_end;    // positions of the last entries
};

fm_params params_of(const fm_data* d) {
    fm_params p;
    p.sine = d->sine;
    p.c_env = d->c_env;
    p.m_env = d->m_env;
    p.c_mul = ctl(d, CTL_C_MUL, 0, 16);
    p.m_mul = ctl(d, CTL_M_MUL, 0, 16);
    p.feedback = ctl(d, CTL_M_FEEDBACK, 0, 256);
    p.scaling = ctl(d, CTL_M_SCALING, 0, 4);
    p.c_volume = ctl(d, CTL_C_VOLUME, 0, 256);
    p.panning = ctl(d, CTL_PANNING, 0, 256);
    p.c_hold = (ctl(d, CTL_C_ATTACK, 0, kEnvTimeMax) + ctl(d, CTL_C_DECAY, 0, kEnvTimeMax)) << kEnvPosBits;
    p.m_hold = (ctl(d, CTL_M_ATTACK, 0, kEnvTimeMax) + ctl(d, CTL_M_DECAY, 0, kEnvTimeMax)) << kEnvPosBits;
    p.c_end = d->c_end << kEnvPosBits;
    p.m_end = d->m_end << kEnvPosBits;
    return p;
}

uint32_t operator_step(uint32_t step, int mul) { return mul ? step * (uint32_t)mul : step >> 1; }

// An envelope over a run of frames within one table entry: the value is n >> 8, and n
// moves by `delta` per frame. In the HQ modes n is the blend t[i] · (256 − w) + t[i+1] · w
// of the entry and the next one at weight w = position & 255, which grows by
// t[i+1] − t[i] as w steps by one; in the LQ modes it is t[i] · 256 throughout. An
// envelope standing at its cap does not move.
struct env_run {
    int32_t n;
    int32_t delta;
};

template <bool HQ>
inline env_run envelope_run(const uint16_t* t, int32_t pos, bool moving) {
    const int32_t i = pos >> kEnvPosBits;
    if constexpr (!HQ) return {t[i] << kEnvPosBits, 0};
    const int32_t w = pos & kEnvPosMask;
    return {t[i] * (kEnvWeightOne - w) + t[i + 1] * w, moving ? t[i + 1] - t[i] : 0};
}

// `frames` inner frames of the operators added into out_l (and out_r when STEREO), with
// both envelopes running as given; the phases advance.
template <bool FEEDBACK, bool STEREO>
void operator_frames(const int16_t* sine, int feedback, int32_t scale, uint32_t* c_phase, uint32_t* m_phase,
                     uint32_t c_step, uint32_t m_step, env_run ce, env_run me, int32_t side_l, int32_t side_r,
                     int16_t* out_l, int16_t* out_r, int frames) {
    uint32_t cph = *c_phase, mph = *m_phase;
    for (int f = 0; f < frames; f++) {
        const int32_t e_c = ce.n >> kEnvPosBits;
        const int32_t e_m = psynth_wrap32((int64_t)(me.n >> kEnvPosBits) * scale) >> kScaleBits;
        int32_t m_index = (int32_t)(mph >> kPhaseToIndexBits);
        if constexpr (FEEDBACK) m_index += (sine[m_index & kSineMask] * feedback) >> kFeedbackBits;
        const int32_t m = psynth_wrap32((int64_t)e_m * sine[m_index & kSineMask]) >> kModBits;
        const int32_t c = sine[(m + (int32_t)(cph >> kPhaseToIndexBits)) & kSineMask];
        out_l[f] = psynth_add_wrap(out_l[f], psynth_wrap16(psynth_wrap32((int64_t)((c * side_l) >> kGainBits) * e_c) >> kOutBits));
        if constexpr (STEREO) {
            out_r[f] = psynth_add_wrap(out_r[f], psynth_wrap16(psynth_wrap32((int64_t)((c * side_r) >> kGainBits) * e_c) >> kOutBits));
        }
        cph += c_step;
        mph += m_step;
        ce.n += ce.delta;
        me.n += me.delta;
    }
    *c_phase = cph;
    *m_phase = mph;
}

int min_int(int a, int64_t b) { return b < a ? (int)b : a; }

// Adds `frames` inner frames of voice v into out[0] (and out[1] when STEREO). The
// envelope positions step by one per frame and are capped at the start of every frame;
// the block is cut into runs in which no position leaves its table entry, reaches its
// cap or ends the voice, so that the envelopes move by plain additions inside a run.
template <bool HQ, bool FEEDBACK, bool STEREO>
void render_voice(fm_voice* v, const fm_params& p, int16_t* const* out, int frames) {
    const uint32_t c_step = operator_step(v->step, p.c_mul);
    const uint32_t m_step = operator_step(v->step, p.m_mul);
    // Side volumes: the far side of the panning fades, the near side keeps the volume.
    const int32_t vol = (v->velocity * p.c_volume) >> kGainBits;
    int32_t side_l = vol, side_r = vol;
    if (p.panning < kPanCentre) side_r = (vol * p.panning) >> kPanBits;
    else side_l = ((kLevelMax - p.panning) * vol) >> kPanBits;
    // Note scaling: K = k^s / 128^(s−1), k = 128 − note; 128 leaves the depth as it is.
    int32_t scale = kScaleTop;
    if (p.scaling > 0) {
        const int32_t k = kScaleTop - v->note;
        scale = k;
        for (int i = 1; i < p.scaling; i++) scale = psynth_wrap32((int64_t)scale * k) >> kScaleBits;
    }
    // A held key stops both positions at the end of their decay; released, the carrier's
    // last entry ends the voice and the modulator waits at its own last entry.
    const bool held = v->key_held;
    const int32_t c_limit = held ? p.c_hold : INT32_MAX;
    const int32_t c_stop = held ? INT32_MAX : p.c_end;
    const int32_t m_limit = held && p.m_hold < p.m_end ? p.m_hold : p.m_end;

    int32_t cpos = v->c_pos, mpos = v->m_pos;
    for (int f = 0; f < frames;) {
        if (cpos > c_limit) cpos = c_limit;
        if (mpos > m_limit) mpos = m_limit;
        if (cpos >= c_stop) {
            v->active = 0;  // the rest of the block is silent for it
            v->id = -1;
            break;
        }
        const bool c_moving = cpos < c_limit, m_moving = mpos < m_limit;
        int run = min_int(frames - f, (int64_t)c_stop - cpos);
        if (c_moving) run = min_int(min_int(run, kEnvWeightOne - (cpos & kEnvPosMask)), (int64_t)c_limit - cpos);
        if (m_moving) run = min_int(min_int(run, kEnvWeightOne - (mpos & kEnvPosMask)), (int64_t)m_limit - mpos);
        operator_frames<FEEDBACK, STEREO>(p.sine, p.feedback, scale, &v->c_phase, &v->m_phase, c_step, m_step,
                                          envelope_run<HQ>(p.c_env, cpos, c_moving),
                                          envelope_run<HQ>(p.m_env, mpos, m_moving), side_l, side_r,
                                          out[0] + f, STEREO ? out[1] + f : nullptr, run);
        // A capped position is left one past its cap, as stepping frame by frame leaves it.
        cpos = c_moving ? cpos + run : cpos + 1;
        mpos = m_moving ? mpos + run : mpos + 1;
        f += run;
    }
    v->c_pos = cpos;
    v->m_pos = mpos;
}

typedef void (*voice_renderer)(fm_voice*, const fm_params&, int16_t* const*, int);

template <bool HQ, bool FEEDBACK>
voice_renderer pick_renderer(bool stereo) {
    return stereo ? render_voice<HQ, FEEDBACK, true> : render_voice<HQ, FEEDBACK, false>;
}

voice_renderer pick_renderer(int m, bool feedback) {
    const bool hq = m == MODE_HQ || m == MODE_HQ_MONO, stereo = outputs_for(m) == kOutputs;
    if (hq) return feedback ? pick_renderer<true, true>(stereo) : pick_renderer<true, false>(stereo);
    return feedback ? pick_renderer<false, true>(stereo) : pick_renderer<false, false>(stereo);
}

// The next `frames` inner frames of every sounding voice into out[c], c < channels.
// Both channels come from one pass over the voice: they differ only in their side volume.
void render_voices(fm_data* d, const fm_params& p, voice_renderer run, int channels, int16_t* const* out, int frames) {
    for (int c = 0; c < channels; c++) memset(out[c], 0, sizeof(int16_t) * frames);
    const int count = polyphony(d);
    for (int i = 0; i < count; i++) {
        if (d->voices[i].active) run(&d->voices[i], p, out, frames);
    }
}

// ---- Commands ----

intptr_t render(int mod_num, fm_data* d, psynth_net* net) {
    psynth_module* mod = &net->modules[mod_num];
    const int m = mode(d);
    const int channels = outputs_for(m);
    psynth_set_number_of_outputs(mod_num, channels, net);
    const int at = mod->render_offset;
    const int frames = mod->render_frames;
    if (!d->sine || at < 0 || frames <= 0 || at + frames > PSYNTH_BUFFER_SIZE) return 0;
    psynth_sample* out[kOutputs] = {mod->output_buffers[0], mod->output_buffers[1]};
    for (int c = 0; c < channels; c++) {
        if (!out[c]) return 0;
        out[c] += at;
    }
    if (d->rebuild) build_envelopes(d);

    const bool any = psynth_voices_sounding(d->voices, polyphony(d));
    if (net->sampling_rate == PSYNTH_INNER_RATE) {
        if (!any) return 0;
        fm_params p = params_of(d);
        render_voices(d, p, pick_renderer(m, p.feedback > 0), channels, out, frames);
        return 1;
    }
    if (net->sampling_rate <= 0) return 0;
    const uint32_t step = psynth_inner_rate_step(net->sampling_rate);
    if (!any) {
        if (!d->inner.in_use) return 0;
        psynth_inner_rate_flush(&d->inner, step, channels, out, frames);  // the rings' tail, then silence
        return 1;
    }
    const fm_params p = params_of(d);
    const voice_renderer run = pick_renderer(m, p.feedback > 0);
    psynth_inner_rate_render(&d->inner, step, channels, out, frames,
                             [&](int16_t* const* dst, int n) { render_voices(d, p, run, channels, dst, n); });
    return 1;
}

uint32_t step_for_pitch(int pitch) {
    psynth_step s = psynth_pitch_to_step(pitch, PSYNTH_INNER_RATE);
    return (s.whole << PSYNTH_STEP_FRAC_BITS) + s.frac;  // wraps for pitches far above hearing
}

intptr_t note_on(fm_data* d, const psynth_event* ev) {
    int vi = psynth_take_voice(d->voices, kVoices, polyphony(d), ev->id, d->idle != 0, &d->cursor);
    fm_voice* v = &d->voices[vi];
    memset(v, 0, sizeof(*v));
    v->active = 1;
    v->key_held = 1;
    v->id = ev->id;
    v->velocity = ev->velocity;
    v->note = ev->note;
    v->step = step_for_pitch(ev->pitch);
    d->idle = 0;
    return 1;
}

void clear_voices(fm_data* d) {
    for (fm_voice& v : d->voices) {
        v.active = 0;
        v.id = -1;
    }
    d->idle = 1;
}

intptr_t init(int mod_num, fm_data* d, psynth_net* net) {
    memset(d, 0, sizeof(*d));
    static const psynth_ctl_row kCtls[CTL_COUNT] = {
        {"C.Volume", "", 0, 256, 128},
        {"M.Volume", "", 0, 256, 48},
        {"Panning", "", 0, 256, 128},
        {"C.Freq mul", "", 0, 16, 1},
        {"M.Freq mul", "", 0, 16, 1},
        {"M.Feedback", "", 0, 256, 0},
        {"C.Attack", "", 0, 512, 32},
        {"C.Decay", "", 0, 512, 32},
        {"C.Sustain", "", 0, 256, 128},
        {"C.Release", "", 0, 512, 64},
        {"M.Attack", "", 0, 512, 32},
        {"M.Decay", "", 0, 512, 32},
        {"M.Sustain", "", 0, 256, 128},
        {"M.Release", "", 0, 512, 64},
        {"M.Scaling", "", 0, 4, 0},
        {"Polyphony", "ch.", 1, 16, 4, PSYNTH_CTL_SELECTOR},
        {"Mode", "HQ/HQmono/LQ/LQmono", 0, 3, 0, PSYNTH_CTL_SELECTOR},
    };
    psynth_register_ctl_rows(mod_num, kCtls, d->ctl, net);
    clear_voices(d);
    d->cursor = 0;
    const size_t bytes = sizeof(int16_t) * kSineSize + sizeof(uint16_t) * kEnvEntries * 2;
    d->sine = (int16_t*)mem_new(MEM_DYNAMIC, bytes, "psynth_fm");
    if (d->sine) {
        build_sine(d->sine);
        d->c_env = (uint16_t*)(d->sine + kSineSize);
        d->m_env = d->c_env + kEnvEntries;
    } else {
        tarvik_log("psynth_fm(): no memory for the tables\n");
    }
    d->rebuild = 1;
    psynth_inner_rate_clear(&d->inner);
    return 1;
}

intptr_t close_module(fm_data* d) {
    mem_free(d->sine);
    d->sine = nullptr;
    d->c_env = d->m_env = nullptr;
    return 1;
}

}  // namespace

intptr_t psynth_fm(int mod_num, psynth_event* event, psynth_net* net) {
    switch (event->command) {
    case PS_CMD_GET_DATA_SIZE: return kDataSize;
    case PS_CMD_GET_SYNTH_NAME: return (intptr_t)kName;
    case PS_CMD_GET_SYNTH_INFO: return (intptr_t)kInfo;
    case PS_CMD_GET_SYNTH_COLOR: return (intptr_t)kColor;
    case PS_CMD_GET_OUTPUTS_NUM: return kOutputs;
    case PS_CMD_GET_FLAGS: return kFlags;
    default: break;
    }
    fm_data* d = psynth_module_data<fm_data>(mod_num, net, psynth_fm);
    if (!d) return 0;
    switch (event->command) {
    case PS_CMD_INIT: return init(mod_num, d, net);
    case PS_CMD_CLEAN:
        clear_voices(d);
        psynth_inner_rate_clear(&d->inner);
        return 1;
    case PS_CMD_RENDER_REPLACE: return render(mod_num, d, net);
    case PS_CMD_NOTE_ON: return note_on(d, event);
    case PS_CMD_SET_FREQ: {
        fm_voice* v = d->idle ? nullptr : psynth_voice_find(d->voices, polyphony(d), event->id);
        if (v) v->step = step_for_pitch(event->pitch);
        return 1;
    }
    case PS_CMD_SET_VELOCITY: {
        fm_voice* v = d->idle ? nullptr : psynth_voice_find(d->voices, polyphony(d), event->id);
        if (v) v->velocity = event->velocity;
        return 1;
    }
    case PS_CMD_NOTE_OFF:
        if (d->idle || event->id == -1) return 1;
        for (fm_voice& v : d->voices) {
            if (v.id == event->id) v.key_held = 0;
        }
        return 1;
    case PS_CMD_ALL_NOTES_OFF:
        for (fm_voice& v : d->voices) {
            v.key_held = 0;
            v.id = -1;
        }
        return 1;
    case PS_CMD_SET_LOCAL_CONTROLLER:
    case PS_CMD_SET_GLOBAL_CONTROLLER:
        d->rebuild = 1;  // the net stores the value; the tables follow at the next render
        return 0;
    case PS_CMD_CLOSE: return close_module(d);
    default: return 0;
    }
}
