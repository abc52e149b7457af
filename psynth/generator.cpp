// The Generator: a polyphonic oscillator instrument of the sound net. Each voice runs
// a 32-bit phase accumulator through one of nine waveforms (one of them drawn by the
// user in data chunk 0) under a linear attack/release envelope, into a stereo output.
//
// Controllers (registered at INIT in this order; values in the module's own units):
//
// | # | name                    | units                                                           | min | max  | default | kind     |
// |---|-------------------------|-----------------------------------------------------------------|-----|------|---------|----------|
// | 0 | "Volume"                | ""                                                              | 0   | 512  | 256     | number   |
// | 1 | "Waveform"              | "triangle/saw/square/noise/drawn/sine/half-sine/abs-sine/pulse" | 0   | 8    | 0       | selector |
// | 2 | "Panning"               | ""                                                              | 0   | 256  | 128     | number   |
// | 3 | "Attack"                | "ms"                                                            | 0   | 512  | 0       | number   |
// | 4 | "Release"               | "ms"                                                            | 0   | 512  | 64      | number   |
// | 5 | "Polyphony"             | "ch."                                                           | 1   | 16   | 8       | number   |
// | 6 | "Mode"                  | "HQ/HQmono/LQ/LQmono"                                           | 0   | 3    | 0       | selector |
// | 7 | "Sustain"               | "off/on"                                                        | 0   | 1    | 1       | selector |
// | 8 | "Freq.modulation input" | ""                                                              | 0   | 256  | 0       | number   |
// | 9 | "Duty cycle"            | ""                                                              | 0   | 1024 | 512     | number   |
//
// Volume: 256 is unity; one voice of a full-scale waveform at unity volume, full velocity
//   (256) and centre panning peaks at ±2048 in 13.3 units, half the device's full scale.
// Waveform: triangle/saw/square/noise/drawn/sine/half-sine/abs-sine/pulse. Half-sine is the
//   positive half of a sine followed by silence, abs-sine the positive half stretched over the
//   whole period; both are unipolar and carry a DC offset. Pulse is high for a quarter of the
//   period. Noise holds a new random value for each 1/32 of the note's period, so that it gets
//   brighter with the pitch. Drawn reads the 32 points of chunk 0.
// Panning: 0 left, 128 centre, 256 right; the far side fades out, the near side stays at unity.
// Attack, Release: the length of the linear ramp from silence to full level and back (the
//   release falls at that slope from wherever it starts). Below 1 ms a ramp still lasts 1 ms,
//   so that no note starts or stops with a click. CLEAN silences at once.
// Polyphony: voices a note may take; voices above a lowered limit are released.
// Mode: HQ smooths the edges of saw, square and pulse (polynomial band-limited steps),
//   interpolates the drawn points and the sine table; LQ plays the raw shapes (stepped drawn
//   points, the classic chip sound). The mono modes play one voice, legato: a new note
//   re-pitches the sounding voice without restarting its phase.
// Sustain: off makes every note decay right after its attack as if released (plucked).
// Freq.modulation input: how much input 1 moves the phase (phase modulation, as FM
//   synthesizers do it): at 256 an input at the device's full scale (4096) moves it by
//   ±2 periods. Without a link into the input nothing is read.
// Duty cycle: the share of the period (in 1/1024) taken by the first half of the shape:
//   the pulse width of square and pulse, the skew of triangle, saw and the sines (noise
//   ignores it). 512 leaves every shape as it is.
//
// Data chunk 0: kDrawnPoints signed bytes, the drawn waveform over one period (storage flag 1,
// 8-bit data). INIT creates it with one period of a sine; SETUP_FINISHED recreates or grows it
// when a loaded module lacks it. Flags: sound source (0x8) only: no time depends on the tempo.
// Local controller: SET_LOCAL_CONTROLLER number 2 ("Panning") pans one voice (0..32768 → 0..256,
// added to the module's panning around the centre).
// Voices: NOTE_ON takes, among the first Polyphony voices, the one holding the event's id, else
// a free one from the cursor on, else a releasing one, else the one after the cursor. A voice
// still sounding when taken keeps its phase and level and attacks again from there (no click).
// The voices are summed with saturation at the 16-bit range, so a loud chord flattens instead
// of wrapping round. The noise of each note comes from its own LCG, seeded at NOTE_ON from the
// module's seed (restarted at INIT and CLEAN), so a song renders the same noise every time.
#include <cstdint>
#include <cstring>

#include "psynth/psynth_dsp.h"
#include "psynth/psynth_modules.h"
#include "psynth/psynth_tables.h"
#include "psynth/psynth_voices.h"

namespace {

// ---- Constants ----

constexpr int kMaxVoices = PSYNTH_VOICES_MAX;
constexpr int kDrawnPoints = 32;
constexpr int kDrawnChunk = 0;
constexpr int kChunkFlag8Bit = 1;  // storage flag of 8-bit chunk data: no byte order to convert

constexpr int kWaveAmp = PSYNTH_WAVE_AMP;
constexpr int kDrawnScale = 4;       // a drawn point (−128..127) × 16 spans ±2048
constexpr int kVolumeMax = 512;      // twice unity
constexpr int kRampMaxMs = 512;      // longest attack or release
constexpr int kFmAmountMax = 256;

// Phase: one period is 2^32; the top bits pick a waveform's segment.
constexpr uint32_t kHalfPeriod = PSYNTH_PHASE_HALF;
constexpr uint32_t kQuarterPeriod = PSYNTH_PHASE_QUARTER;
constexpr uint64_t kFullPeriod = 1ull << 32;
constexpr int kSawShift = 20;        // signed phase → −2048..2047
constexpr int kDrawnIndexShift = 27; // phase → point 0..31
constexpr int kDrawnFracShift = 11;  // phase → position between two points...
constexpr int kDrawnFracBits = 16;   // ...in 16 bits
constexpr int kNoiseHoldShift = 27;  // noise takes a new value every 1/32 period


constexpr int kMinRampMs = 1;

// Gains: 65536 is unity (a 256-unity volume × a 256-unity panning), so that an envelope
// level scales them with 16 fraction bits; two divisions by 256 bring a product back.
constexpr int32_t kPanCentre = PSYNTH_PAN_CENTRE;
constexpr int32_t kPanMax = PSYNTH_PAN_MAX;
constexpr int kGainGlideFrames = 64;  // a volume, panning or velocity change glides this long

// Duty cycle: 1024 is the whole period; the warp keeps 16 fraction bits.
constexpr int kDutyBits = 10;
constexpr int kDutyMax = 1 << kDutyBits;
constexpr int kWarpFracBits = 16;

// Phase modulation: input (13.3) × amount (256 unity) moves the phase 2^13 per unit.
constexpr int kFmShift = 13;

constexpr uint32_t kNoiseSeedStart = 0x5EED;

// Polynomial band-limited step: 16 fraction bits for the position within one step.
constexpr int kBlepBits = 16;
constexpr int32_t kBlepOne = 1 << kBlepBits;

enum gen_waveform : int {
    WAVE_TRIANGLE,
    WAVE_SAW,
    WAVE_SQUARE,
    WAVE_NOISE,
    WAVE_DRAWN,
    WAVE_SINE,
    WAVE_HALF_SINE,
    WAVE_ABS_SINE,
    WAVE_PULSE,
    WAVE_COUNT
};
const char* const kWaveformNames = "triangle/saw/square/noise/drawn/sine/half-sine/abs-sine/pulse";

enum gen_mode : int { MODE_HQ, MODE_HQ_MONO, MODE_LQ, MODE_LQ_MONO, MODE_COUNT };

enum gen_ctl : int {
    CTL_VOLUME,
    CTL_WAVEFORM,
    CTL_PANNING,
    CTL_ATTACK,
    CTL_RELEASE,
    CTL_POLYPHONY,
    CTL_MODE,
    CTL_SUSTAIN,
    CTL_FM,
    CTL_DUTY,
    CTL_COUNT
};


// ---- Records ----

struct gen_voice {
    int active;
    int id;         // the event id that owns it, −1 = none
    int pitch;      // 1/256 semitone, smaller is higher
    uint32_t phase;
    uint32_t step;  // phase advance per frame
    int velocity;   // 0..256
    int pan;        // local panning 0..256, 128 = none
    int stage;
    int32_t env;    // 0..PSYNTH_ENV_ONE
    int fresh;      // the first render takes the gains at once, without a glide
    int32_t gain[2];         // current left and right gain (65536 = unity)
    int32_t gain_target[2];
    int32_t gain_delta[2];   // per frame while gliding
    int glide;               // frames left in the glide
    uint32_t noise_seed;
    int32_t noise_value;
};

struct gen_data {
    int ctl[CTL_COUNT];
    gen_voice voices[kMaxVoices];
    int cursor;           // where the search for a free voice starts
    uint32_t noise_seed;  // seeds each note's noise; restarted at INIT and CLEAN
};

// What every voice of one render piece shares, derived from the controllers.
struct gen_render_params {
    int waveform;
    bool hq;
    bool sustain;
    int32_t attack_inc;   // envelope rise per frame
    int32_t release_dec;  // envelope fall per frame
    uint32_t duty;        // phase where the first half of the shape ends
    uint32_t warp_lo;     // phase scale below duty (kWarpFracBits fraction bits)
    uint32_t warp_hi;     // phase scale above it
    const int8_t* drawn;
    const psynth_sample* fm_in;  // null: no modulation in this piece
    int fm_start;
    int fm_amount;
};

const int8_t kSilentDrawn[kDrawnPoints] = {};

// ---- Small helpers ----

bool mono_mode(const gen_data* d) {
    int mode = d->ctl[CTL_MODE];
    return mode == MODE_HQ_MONO || mode == MODE_LQ_MONO;
}

// Voices a new note may take.
int voice_limit(const gen_data* d) {
    return mono_mode(d) ? 1 : psynth_clamp(d->ctl[CTL_POLYPHONY], 1, kMaxVoices);
}

// Envelope change per frame for a ramp of `ms` milliseconds (at least 1 ms, at most 512).
int32_t ramp_per_frame(int ms, int rate) { return psynth_env_step(psynth_clamp(ms, kMinRampMs, kRampMaxMs), rate); }

// ---- Waveforms (value ±2048 for a phase; `step` only for the smoothed edges) ----

// Correction for a step from −2048 up to +2048 at phase `edge` (subtract it for a step
// down): a second-order polynomial spread over the frame before and the frame after the
// edge. The frame that lands exactly on the edge gets the midpoint.
int32_t blep(uint32_t phase, uint32_t edge, uint32_t step) {
    uint32_t after = phase - edge;
    if (after < step) {
        int32_t x = (int32_t)(((uint64_t)after << kBlepBits) / step);
        return ((2 * x - (int32_t)(((int64_t)x * x) >> kBlepBits) - kBlepOne) * kWaveAmp) >> kBlepBits;
    }
    uint32_t before = edge - phase;
    if (before < step) {
        int32_t x = (int32_t)(((uint64_t)before << kBlepBits) / step);
        return (((int32_t)(((int64_t)x * x) >> kBlepBits) - 2 * x + kBlepOne) * kWaveAmp) >> kBlepBits;
    }
    return 0;
}

// The phase as the shape sees it: the first half of the shape takes `duty` of the period.
uint32_t warp_phase(uint32_t phase, const gen_render_params& p) {
    if (phase < p.duty) return (uint32_t)(((uint64_t)phase * p.warp_lo) >> kWarpFracBits);
    return kHalfPeriod + (uint32_t)(((uint64_t)(phase - p.duty) * p.warp_hi) >> kWarpFracBits);
}

template <int kWave, bool kHq>
int32_t wave_value(uint32_t phase, uint32_t step, const gen_render_params& p) {
    uint32_t w = warp_phase(phase, p);
    switch (kWave) {
    case WAVE_TRIANGLE:
        return psynth_triangle(w);
    case WAVE_SAW: {
        int32_t v = (int32_t)w >> kSawShift;
        return kHq ? v - blep(phase, p.duty, step) : v;
    }
    case WAVE_SQUARE: {
        int32_t v = w < kHalfPeriod ? kWaveAmp : -kWaveAmp;
        return kHq ? v + blep(phase, 0, step) - blep(phase, p.duty, step) : v;
    }
    case WAVE_PULSE: {
        int32_t v = w < kQuarterPeriod ? kWaveAmp : -kWaveAmp;
        return kHq ? v + blep(phase, 0, step) - blep(phase, p.duty >> 1, step) : v;
    }
    case WAVE_DRAWN: {
        int idx = (int)(w >> kDrawnIndexShift);
        int32_t a = (int32_t)p.drawn[idx] << kDrawnScale;
        if (!kHq) return a;
        int32_t b = (int32_t)p.drawn[(idx + 1) & (kDrawnPoints - 1)] << kDrawnScale;
        int32_t frac = (int32_t)((w >> kDrawnFracShift) & ((1u << kDrawnFracBits) - 1));
        return a + (((b - a) * frac) >> kDrawnFracBits);
    }
    case WAVE_SINE:
        return psynth_sine<kHq>(w);
    case WAVE_HALF_SINE:
        return w < kHalfPeriod ? psynth_sine<kHq>(w) : 0;
    case WAVE_ABS_SINE:
        return psynth_sine<kHq>(w >> 1);
    default:
        return 0;
    }
}

// ---- One voice over frames [from, to), added into the outputs ----

template <int kWave, bool kHq>
void render_voice(gen_voice* v, const gen_render_params& p, psynth_sample* out_l,
                  psynth_sample* out_r, int from, int to) {
    uint32_t phase = v->phase;
    const uint32_t step = v->step;
    int32_t env = v->env;
    int stage = v->stage;
    int32_t gain_l = v->gain[0], gain_r = v->gain[1];
    const int32_t delta_l = v->gain_delta[0], delta_r = v->gain_delta[1];
    int glide = v->glide;
    uint32_t noise_seed = v->noise_seed;
    int32_t noise = v->noise_value;
    const psynth_sample* fm_in = p.fm_in;
    const int fm_amount = p.fm_amount;
    const int fm_start = p.fm_start;
    const int32_t attack_inc = p.attack_inc;
    const int32_t release_dec = p.release_dec;
    const int after_attack = p.sustain ? PSYNTH_ENV_SUSTAIN : PSYNTH_ENV_RELEASE;
    int active = 1;

    for (int i = from; i < to; i++) {
        int32_t w;
        if constexpr (kWave == WAVE_NOISE) {
            w = noise;
        } else {
            uint32_t ph = phase;
            if (fm_in && i >= fm_start) ph += (uint32_t)((int32_t)fm_in[i] * fm_amount) << kFmShift;
            w = wave_value<kWave, kHq>(ph, step, p);
        }
        int32_t g_l = (int32_t)(((int64_t)env * gain_l) >> PSYNTH_ENV_BITS);
        int32_t g_r = (int32_t)(((int64_t)env * gain_r) >> PSYNTH_ENV_BITS);
        out_l[i] = psynth_add_saturated(out_l[i], psynth_div256_toward_zero(psynth_div256_toward_zero(w * g_l)));
        out_r[i] = psynth_add_saturated(out_r[i], psynth_div256_toward_zero(psynth_div256_toward_zero(w * g_r)));

        uint32_t next = phase + step;
        if (kWave == WAVE_NOISE && (((next ^ phase) >> kNoiseHoldShift) || step >= (1u << kNoiseHoldShift))) {
            noise = psynth_noise_next(&noise_seed);
        }
        phase = next;
        if (glide > 0) {
            gain_l += delta_l;
            gain_r += delta_r;
            if (--glide == 0) {
                gain_l = v->gain_target[0];
                gain_r = v->gain_target[1];
            }
        }
        if (!psynth_env_advance(&env, &stage, attack_inc, release_dec, after_attack)) {
            active = 0;
            break;
        }
    }

    v->phase = phase;
    v->env = env;
    v->stage = stage;
    v->gain[0] = gain_l;
    v->gain[1] = gain_r;
    v->glide = glide;
    v->noise_seed = noise_seed;
    v->noise_value = noise;
    if (!active) {
        v->active = 0;
        v->id = -1;
    }
}

typedef void (*voice_renderer)(gen_voice*, const gen_render_params&, psynth_sample*, psynth_sample*, int, int);

template <bool kHq>
voice_renderer renderer_for(int waveform) {
    switch (waveform) {
    case WAVE_SAW: return render_voice<WAVE_SAW, kHq>;
    case WAVE_SQUARE: return render_voice<WAVE_SQUARE, kHq>;
    case WAVE_NOISE: return render_voice<WAVE_NOISE, kHq>;
    case WAVE_DRAWN: return render_voice<WAVE_DRAWN, kHq>;
    case WAVE_SINE: return render_voice<WAVE_SINE, kHq>;
    case WAVE_HALF_SINE: return render_voice<WAVE_HALF_SINE, kHq>;
    case WAVE_ABS_SINE: return render_voice<WAVE_ABS_SINE, kHq>;
    case WAVE_PULSE: return render_voice<WAVE_PULSE, kHq>;
    default: return render_voice<WAVE_TRIANGLE, kHq>;
    }
}

// ---- Render ----

// True when some link still feeds the input, so that its samples are this buffer's.
bool input_is_fed(const psynth_module* mod, const psynth_net* net) {
    for (int i = 0; i < mod->input_links_capacity; i++) {
        int src = mod->input_links[i];
        if (src >= 0 && src < net->slots && (net->modules[src].flags & PSYNTH_FLAG_EXISTS)) return true;
    }
    return false;
}

void prepare_params(int mod_num, const gen_data* d, int end, psynth_net* net, gen_render_params* p) {
    const psynth_module* mod = &net->modules[mod_num];
    int mode = psynth_clamp(d->ctl[CTL_MODE], 0, MODE_COUNT - 1);
    p->waveform = psynth_clamp(d->ctl[CTL_WAVEFORM], 0, WAVE_COUNT - 1);
    p->hq = mode == MODE_HQ || mode == MODE_HQ_MONO;
    p->sustain = d->ctl[CTL_SUSTAIN] != 0;
    p->attack_inc = ramp_per_frame(d->ctl[CTL_ATTACK], net->sampling_rate);
    p->release_dec = ramp_per_frame(d->ctl[CTL_RELEASE], net->sampling_rate);

    int duty = psynth_clamp(d->ctl[CTL_DUTY], 1, kDutyMax - 1);
    p->duty = (uint32_t)duty << (32 - kDutyBits);
    p->warp_lo = (uint32_t)(((uint64_t)kHalfPeriod << kWarpFracBits) / p->duty);
    p->warp_hi = (uint32_t)(((uint64_t)kHalfPeriod << kWarpFracBits) / (kFullPeriod - p->duty));

    const int8_t* drawn = (const int8_t*)psynth_get_chunk(mod_num, kDrawnChunk, net);
    int size = 0;
    psynth_get_chunk_info(mod_num, kDrawnChunk, &size, nullptr, nullptr, net);
    p->drawn = drawn && size >= kDrawnPoints ? drawn : kSilentDrawn;

    p->fm_amount = psynth_clamp(d->ctl[CTL_FM], 0, kFmAmountMax);
    p->fm_in = nullptr;
    p->fm_start = end;
    if (p->fm_amount > 0 && mod->input_channels > 0 && mod->input_buffers[0] &&
        mod->input_start[0] < end && input_is_fed(mod, net)) {
        p->fm_in = mod->input_buffers[0];
        p->fm_start = mod->input_start[0];
    }
}

// Target gains of a voice from volume, velocity and panning; a changed target starts a glide.
void update_gains(gen_voice* v, const gen_data* d) {
    int32_t vv = psynth_div256_toward_zero(psynth_clamp(d->ctl[CTL_VOLUME], 0, kVolumeMax) * v->velocity);
    int32_t target[2];
    psynth_pan_gains(d->ctl[CTL_PANNING] + v->pan - kPanCentre, target);
    target[0] *= vv;
    target[1] *= vv;
    if (v->fresh) {
        v->fresh = 0;
        v->glide = 0;
        for (int c = 0; c < 2; c++) v->gain[c] = v->gain_target[c] = target[c];
        return;
    }
    if (target[0] == v->gain_target[0] && target[1] == v->gain_target[1]) return;
    v->glide = kGainGlideFrames;
    for (int c = 0; c < 2; c++) {
        v->gain_target[c] = target[c];
        v->gain_delta[c] = (target[c] - v->gain[c]) / kGainGlideFrames;
    }
}

intptr_t render(int mod_num, gen_data* d, psynth_net* net) {
    psynth_module* mod = &net->modules[mod_num];
    int from, to;
    if (!psynth_render_span(mod, &from, &to)) return 0;
    if (!mod->output_buffers[0] || !mod->output_buffers[1]) return 0;
    if (!psynth_voices_sounding(d->voices, kMaxVoices)) return 0;

    gen_render_params p;
    prepare_params(mod_num, d, to, net, &p);
    int limit = voice_limit(d);
    psynth_sample* out_l = mod->output_buffers[0];
    psynth_sample* out_r = mod->output_buffers[1];
    psynth_clear_span(out_l, from, to);
    psynth_clear_span(out_r, from, to);
    voice_renderer run = p.hq ? renderer_for<true>(p.waveform) : renderer_for<false>(p.waveform);
    for (int i = 0; i < kMaxVoices; i++) {
        gen_voice* v = &d->voices[i];
        if (!v->active) continue;
        // Voices above a lowered limit, and held notes once Sustain goes off, fade out.
        if (i >= limit && v->stage != PSYNTH_ENV_RELEASE) v->stage = PSYNTH_ENV_RELEASE;
        if (!p.sustain && v->stage == PSYNTH_ENV_SUSTAIN) v->stage = PSYNTH_ENV_RELEASE;
        update_gains(v, d);
        run(v, p, out_l, out_r, from, to);
    }
    return 1;
}

// ---- Notes ----

gen_voice* voice_with_id(gen_data* d, int id) { return psynth_voice_find(d->voices, kMaxVoices, id); }

void release_voice(gen_voice* v) {
    if (v->active) v->stage = PSYNTH_ENV_RELEASE;
}

// A free voice starts from silence at phase 0. A sounding voice taken for the note keeps its
// phase and envelope level and attacks again from there, so that taking it never clicks.
intptr_t note_on(const psynth_event* e, gen_data* d, psynth_net* net) {
    int limit = voice_limit(d);
    int chosen = psynth_voice_choose(d->voices, limit, e->id, &d->cursor,
                                     [](const gen_voice& v) { return v.stage == PSYNTH_ENV_RELEASE; });
    psynth_voice_hand_over_id(d->voices, kMaxVoices, chosen, e->id, [](gen_voice& v) { release_voice(&v); });
    gen_voice* v = &d->voices[chosen];
    if (!v->active) {
        v->phase = 0;
        v->env = 0;
        v->fresh = 1;
        v->noise_seed = ((uint32_t)tarvik_random(&d->noise_seed) << 15) ^ (uint32_t)tarvik_random(&d->noise_seed);
        v->noise_value = psynth_noise_next(&v->noise_seed);
    }
    v->active = 1;
    v->stage = PSYNTH_ENV_ATTACK;
    v->id = e->id;
    v->pitch = e->pitch;
    v->step = psynth_pitch_to_phase_step(e->pitch, net->sampling_rate);
    v->velocity = psynth_clamp(e->velocity, 0, PSYNTH_VELOCITY_MAX);
    v->pan = kPanCentre;
    return 1;
}

void silence_all(gen_data* d) {
    psynth_voices_clear(d->voices, kMaxVoices, &d->cursor);
    for (gen_voice& v : d->voices) v.pan = kPanCentre;
    d->noise_seed = kNoiseSeedStart;
}

// ---- Set-up ----

// One period of a sine in kDrawnPoints signed bytes.
void write_default_drawn(int8_t* points) {
    for (int i = 0; i < kDrawnPoints; i++) {
        points[i] = (int8_t)(psynth_sine<false>((uint32_t)i << kDrawnIndexShift) * INT8_MAX / kWaveAmp);
    }
}

// Creates chunk 0 with the default shape, or grows a short one (the tail stays 0).
void ensure_drawn_chunk(int mod_num, psynth_net* net) {
    void* fresh = psynth_ensure_chunk(mod_num, kDrawnChunk, kDrawnPoints, kChunkFlag8Bit, net);
    if (fresh) write_default_drawn((int8_t*)fresh);
}

void init(int mod_num, gen_data* d, psynth_net* net) {
    memset(d, 0, sizeof(*d));
    static const psynth_ctl_row rows[CTL_COUNT] = {
        {"Volume", "", 0, kVolumeMax, PSYNTH_GAIN_UNITY},
        {"Waveform", kWaveformNames, 0, WAVE_COUNT - 1, WAVE_TRIANGLE, PSYNTH_CTL_SELECTOR},
        {"Panning", "", 0, kPanMax, kPanCentre},
        {"Attack", "ms", 0, kRampMaxMs, 0},
        {"Release", "ms", 0, kRampMaxMs, 64},
        {"Polyphony", "ch.", 1, kMaxVoices, 8},
        {"Mode", "HQ/HQmono/LQ/LQmono", 0, MODE_COUNT - 1, MODE_HQ, PSYNTH_CTL_SELECTOR},
        {"Sustain", "off/on", 0, 1, 1, PSYNTH_CTL_SELECTOR},
        {"Freq.modulation input", "", 0, kFmAmountMax, 0},
        {"Duty cycle", "", 0, kDutyMax, kDutyMax / 2},
    };
    psynth_register_ctl_rows(mod_num, rows, d->ctl, net);
    silence_all(d);
    ensure_drawn_chunk(mod_num, net);
}

}  // namespace

intptr_t psynth_generator(int mod_num, psynth_event* event, psynth_net* net) {
    gen_data* d = psynth_module_data<gen_data>(mod_num, net);
    switch (event->command) {
    case PS_CMD_GET_DATA_SIZE: return sizeof(gen_data);
    case PS_CMD_GET_SYNTH_NAME: return (intptr_t) "Generator";
    case PS_CMD_GET_SYNTH_INFO:
        return (intptr_t) "Generator.\nA polyphonic oscillator: triangle, saw, square, noise, a drawn "
                          "32-point wave, sine, half-sine, abs-sine and pulse.\nInput 1 modulates the "
                          "phase (amount: \"Freq.modulation input\").\n\nAvailable local controllers:\n * Panning";
    case PS_CMD_GET_SYNTH_COLOR: return (intptr_t) "#00A0FF";
    case PS_CMD_GET_INPUTS_NUM: return 1;
    case PS_CMD_GET_OUTPUTS_NUM: return 2;
    case PS_CMD_GET_FLAGS: return PSYNTH_FLAG_GENERATOR;
    default: break;
    }
    if (!d) return 0;
    switch (event->command) {
    case PS_CMD_INIT:
        init(mod_num, d, net);
        return 1;
    case PS_CMD_SETUP_FINISHED:
        ensure_drawn_chunk(mod_num, net);
        return 1;
    case PS_CMD_CLEAN:
        silence_all(d);
        return 1;
    case PS_CMD_RENDER_REPLACE:
        return render(mod_num, d, net);
    case PS_CMD_NOTE_ON:
        return note_on(event, d, net);
    case PS_CMD_SET_FREQ: {
        gen_voice* v = voice_with_id(d, event->id);
        if (v) {
            v->pitch = event->pitch;
            v->step = psynth_pitch_to_phase_step(event->pitch, net->sampling_rate);
        }
        return 1;
    }
    case PS_CMD_SET_VELOCITY: {
        gen_voice* v = voice_with_id(d, event->id);
        if (v) v->velocity = psynth_clamp(event->velocity, 0, PSYNTH_VELOCITY_MAX);
        return 1;
    }
    case PS_CMD_NOTE_OFF: {
        gen_voice* v = voice_with_id(d, event->id);
        if (v) release_voice(v);
        return 1;
    }
    case PS_CMD_ALL_NOTES_OFF:
        for (int i = 0; i < kMaxVoices; i++) {
            release_voice(&d->voices[i]);
            d->voices[i].id = -1;
        }
        return 1;
    case PS_CMD_SET_LOCAL_CONTROLLER: {
        gen_voice* v = voice_with_id(d, event->id);
        if (!v || (uint16_t)event->note != CTL_PANNING) return 0;
        v->pan = psynth_clamp(event->velocity >> 7, 0, kPanMax);
        return 1;
    }
    case PS_CMD_CLOSE:
        return 1;
    default:
        return 0;
    }
}
