// Building blocks of the synthesizer modules (Generator, Kicker, DrumSynth, SpectraVoice;
// the Sampler and FM take their voice choice from here too): the choice of a voice for a
// new note, the attack/release envelope, the sine table, the oscillator phase step, the
// drums' falling pitch sweep, noise and saturating mixing.
// Everything here is inline and allocation-free, for the render thread.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <numbers>

#include "engine/random.h"
#include "psynth/psynth_dsp.h"
#include "psynth/psynth_net.h"
#include "psynth/psynth_tables.h"

constexpr int PSYNTH_VOICES_MAX = 16;     // voices a synthesizer keeps in its data block
constexpr int PSYNTH_WAVE_AMP = 2048;     // peak of every oscillator, 13.3 units at unity gain
constexpr int PSYNTH_VELOCITY_MAX = 256;  // event velocities are 0..256, 256 = full
constexpr int PSYNTH_PAN_CENTRE = 128;
constexpr int PSYNTH_PAN_MAX = 256;

// a + b held to the 16-bit range: voices are summed with saturation, so that a loud chord
// flattens instead of wrapping round.
inline psynth_sample psynth_add_saturated(psynth_sample a, int32_t b) {
    return psynth_saturate16((int64_t)a + b);
}

// Gains (256 = unity) of the left and right side for a panning 0..256 (128 = centre): the
// far side fades out, the near side stays at unity.
inline void psynth_pan_gains(int pan, int32_t gains[2]) {
    pan = psynth_clamp(pan, 0, PSYNTH_PAN_MAX);
    gains[0] = psynth_clamp((PSYNTH_PAN_MAX - pan) * 2, 0, PSYNTH_PAN_MAX);
    gains[1] = psynth_clamp(pan * 2, 0, PSYNTH_PAN_MAX);
}

// ---- Render request ----

// The frames [from, to) a render request asks for; false when they do not lie within the
// buffers (the module then renders nothing).
inline bool psynth_render_span(const psynth_module* mod, int* from, int* to) {
    *from = mod->render_offset;
    *to = *from + mod->render_frames;
    return *from >= 0 && *to > *from && *to <= PSYNTH_BUFFER_SIZE;
}

// Zeroes out[from, to), for voices that add into it.
inline void psynth_clear_span(psynth_sample* out, int from, int to) {
    memset(out + from, 0, sizeof(psynth_sample) * (size_t)(to - from));
}

// ---- Oscillator phase: one period is 2^32 ----

constexpr uint32_t PSYNTH_PHASE_HALF = 0x80000000u;
constexpr uint32_t PSYNTH_PHASE_QUARTER = 0x40000000u;

// ---- Sine ----

// Quarter sine table: PSYNTH_SINE_SIZE + 1 points from 0 to 2048, plus one guard entry for
// interpolating at the very top.
constexpr int PSYNTH_SINE_BITS = 10;
constexpr int PSYNTH_SINE_SIZE = 1 << PSYNTH_SINE_BITS;
constexpr int PSYNTH_SINE_QUADRANT_SHIFT = 30;  // phase → quarter of the period
constexpr int PSYNTH_SINE_PHASE_SHIFT = 8;      // phase within a quarter → table position
constexpr int PSYNTH_SINE_POS_BITS = PSYNTH_SINE_QUADRANT_SHIFT - PSYNTH_SINE_PHASE_SHIFT;
constexpr int PSYNTH_SINE_FRAC_BITS = PSYNTH_SINE_POS_BITS - PSYNTH_SINE_BITS;
constexpr int32_t PSYNTH_SINE_QUARTER_POS = 1 << PSYNTH_SINE_POS_BITS;

// sin(x) for 0 ≤ x ≤ π/2 by its Taylor series: evaluated by the compiler, so the table is
// the same on every machine.
constexpr double psynth_taylor_sine(double x) {
    double term = x, sum = x;
    for (int n = 1; n < 12; n++) {
        term *= -x * x / ((2.0 * n) * (2.0 * n + 1));
        sum += term;
    }
    return sum;
}

constexpr std::array<int16_t, PSYNTH_SINE_SIZE + 2> psynth_make_quarter_sine() {
    std::array<int16_t, PSYNTH_SINE_SIZE + 2> t{};
    for (int i = 0; i <= PSYNTH_SINE_SIZE; i++) {
        double s = psynth_taylor_sine(std::numbers::pi / 2 * i / PSYNTH_SINE_SIZE);
        t[i] = (int16_t)(s * PSYNTH_WAVE_AMP + 0.5);
    }
    t[PSYNTH_SINE_SIZE + 1] = PSYNTH_WAVE_AMP;
    return t;
}
inline constexpr std::array<int16_t, PSYNTH_SINE_SIZE + 2> PSYNTH_QUARTER_SINE = psynth_make_quarter_sine();
static_assert(PSYNTH_QUARTER_SINE[0] == 0 && PSYNTH_QUARTER_SINE[PSYNTH_SINE_SIZE] == PSYNTH_WAVE_AMP,
              "the quarter sine spans 0..2048");

// The quarter-sine table read at position m (0..PSYNTH_SINE_QUARTER_POS): interpolated
// (kHq) or the nearest point.
template <bool kHq>
int32_t psynth_quarter_sine(int32_t m) {
    if (!kHq) return PSYNTH_QUARTER_SINE[(m + (1 << (PSYNTH_SINE_FRAC_BITS - 1))) >> PSYNTH_SINE_FRAC_BITS];
    int idx = m >> PSYNTH_SINE_FRAC_BITS;
    int32_t frac = m & ((1 << PSYNTH_SINE_FRAC_BITS) - 1);
    int32_t a = PSYNTH_QUARTER_SINE[idx];
    return a + (((PSYNTH_QUARTER_SINE[idx + 1] - a) * frac) >> PSYNTH_SINE_FRAC_BITS);
}

// 2048 · sin(2π · phase / 2^32).
template <bool kHq>
int32_t psynth_sine(uint32_t phase) {
    uint32_t quadrant = phase >> PSYNTH_SINE_QUADRANT_SHIFT;
    int32_t pos = (int32_t)((phase >> PSYNTH_SINE_PHASE_SHIFT) & (uint32_t)(PSYNTH_SINE_QUARTER_POS - 1));
    int32_t v = psynth_quarter_sine<kHq>(quadrant & 1 ? PSYNTH_SINE_QUARTER_POS - pos : pos);
    return quadrant & 2 ? -v : v;
}

// ---- Triangle ----

constexpr int PSYNTH_TRIANGLE_SHIFT = 19;  // phase → 0..8191: a rise over 4096 units and back

// A triangle of ±2048 that rises through 0 at phase 0, like the sine.
inline int32_t psynth_triangle(uint32_t phase) {
    int32_t u = (int32_t)((phase + PSYNTH_PHASE_QUARTER) >> PSYNTH_TRIANGLE_SHIFT);
    int32_t d = u - 2 * PSYNTH_WAVE_AMP;
    return PSYNTH_WAVE_AMP - (d < 0 ? -d : d);
}

// ---- Noise ----

constexpr int PSYNTH_NOISE_VALUE_SHIFT = 3;  // tarvik_random's 0..32767 → 0..4095

// The next value −2048..2047 of a voice's own noise generator.
inline int32_t psynth_noise_next(uint32_t* seed) {
    return (tarvik_random(seed) >> PSYNTH_NOISE_VALUE_SHIFT) - PSYNTH_WAVE_AMP;
}

// ---- Attack/release envelope ----
// A level from 0 to PSYNTH_ENV_ONE rising at one slope and falling at another; the 24
// fraction bits keep a ramp of seconds exact at any sampling rate.

constexpr int PSYNTH_ENV_BITS = 24;
constexpr int32_t PSYNTH_ENV_ONE = 1 << PSYNTH_ENV_BITS;

enum psynth_env_stage : int { PSYNTH_ENV_ATTACK, PSYNTH_ENV_SUSTAIN, PSYNTH_ENV_RELEASE };

// Level change per frame for a ramp lasting `ms` milliseconds (at least one frame).
inline int32_t psynth_env_step(int ms, int rate) {
    int64_t frames = (int64_t)(ms > 0 ? ms : 0) * (rate > 0 ? rate : 1) / 1000;
    if (frames < 1) frames = 1;
    int32_t per_frame = (int32_t)(PSYNTH_ENV_ONE / frames);
    return per_frame > 0 ? per_frame : 1;
}

// Advances the envelope by one frame: the attack rises to the top and goes on to
// `after_attack` (sustain, or release for notes that decay at once); the release falls to
// zero. Returns false when the release has reached zero (the voice is over).
inline bool psynth_env_advance(int32_t* level, int* stage, int32_t attack_inc, int32_t release_dec,
                               int after_attack) {
    if (*stage == PSYNTH_ENV_ATTACK) {
        *level += attack_inc;
        if (*level >= PSYNTH_ENV_ONE) {
            *level = PSYNTH_ENV_ONE;
            *stage = after_attack;
        }
    } else if (*stage == PSYNTH_ENV_RELEASE) {
        *level -= release_dec;
        if (*level <= 0) {
            *level = 0;
            return false;
        }
    }
    return true;
}

// The envelope level squared (0..PSYNTH_ENV_ONE): a linear fall heard as the quick-then-slow
// decay of a struck drum.
inline int32_t psynth_env_curved(int32_t level) {
    return (int32_t)(((int64_t)level * level) >> PSYNTH_ENV_BITS);
}

// ---- Voices ----
// A voice record has at least `active` and `id` (the event id that owns it, −1 = none).
// Finding the voice a later event addresses is the same for every instrument; giving a
// new note its voice follows one of two rules: the Sampler's (also the FM's) and the
// Generator's (also the Kicker's, DrumSynth's and SpectraVoice's).

// The active voice among the first `count` that owns `id`, or null (also for id < 0).
template <class V>
V* psynth_voice_find(V* voices, int count, int id) {
    if (id < 0) return nullptr;
    for (int i = 0; i < count; i++) {
        if (voices[i].active && voices[i].id == id) return &voices[i];
    }
    return nullptr;
}

// True when one of the first `count` voices sounds.
template <class V>
bool psynth_voices_sounding(const V* voices, int count) {
    for (int i = 0; i < count; i++) {
        if (voices[i].active) return true;
    }
    return false;
}

// Silences the first `count` voices and frees their ids; the cursor goes back to voice 0.
template <class V>
void psynth_voices_clear(V* voices, int count, int* cursor) {
    for (int i = 0; i < count; i++) {
        voices[i] = V{};
        voices[i].id = -1;
    }
    *cursor = 0;
}

// SET_VELOCITY, NOTE_OFF and ALL_NOTES_OFF of a one-shot instrument (Kicker, DrumSynth): the
// voice owning the id takes the velocity (0..256); a released key only gives up the id, for
// the drum rings on. Returns 1 (the handler's answer).
template <class V>
intptr_t psynth_one_shot_event(V* voices, int count, const psynth_event* e) {
    if (e->command == PS_CMD_ALL_NOTES_OFF) {
        for (int i = 0; i < count; i++) voices[i].id = -1;
    } else if (V* v = psynth_voice_find(voices, count, e->id)) {
        if (e->command == PS_CMD_SET_VELOCITY) v->velocity = psynth_clamp(e->velocity, 0, PSYNTH_VELOCITY_MAX);
        if (e->command == PS_CMD_NOTE_OFF) v->id = -1;
    }
    return 1;
}

// The Sampler's rule (voice records also have `key_held`): the voice a NOTE_ON takes.
// While the module is idle (nothing sounded since INIT or CLEAN) it is voice 0. Otherwise
// any of the `total` voices still carrying `id` is released and detached (it sounds on
// through its release), and the first inactive voice among the first `polyphony`,
// searched upward from the cursor with wrap-around, is taken; when all of them sound, the
// one after the cursor is stolen. The cursor follows the chosen voice. Sound thread.
template <class V>
int psynth_take_voice(V* voices, int total, int polyphony, int id, bool idle, int* cursor) {
    if (idle) return *cursor = 0;
    if (id != -1) {
        for (int i = 0; i < total; i++) {
            if (voices[i].id != id) continue;
            voices[i].key_held = 0;
            voices[i].id = -1;
        }
    }
    for (int j = 0; j < polyphony; j++) {
        int i = (*cursor + j) % polyphony;
        if (!voices[i].active) return *cursor = i;
    }
    return *cursor = (*cursor + 1) % polyphony;
}

// A voice for a new note among the first `limit` (≥ 1): a free one from the cursor on, else
// one after the cursor for which `releasing` holds, else the one after the cursor (stolen).
// The cursor follows the choice.
template <class V, class R>
int psynth_voice_pick(V* voices, int limit, int* cursor, R releasing) {
    int start = *cursor % limit;
    for (int n = 0; n < limit; n++) {
        int i = (start + n) % limit;
        if (!voices[i].active) return *cursor = i;
    }
    for (int n = 1; n <= limit; n++) {
        int i = (start + n) % limit;
        if (releasing(voices[i])) return *cursor = i;
    }
    return *cursor = (start + 1) % limit;
}

// The Generator's rule: the voice for a new note among the first `limit`: the one already
// holding the id, else psynth_voice_pick's choice. Pair it with psynth_voice_hand_over_id.
template <class V, class R>
int psynth_voice_choose(V* voices, int limit, int id, int* cursor, R releasing) {
    if (limit <= 1) return 0;
    if (V* held = psynth_voice_find(voices, limit, id)) return (int)(held - voices);
    return psynth_voice_pick(voices, limit, cursor, releasing);
}

// The Generator's rule, second step: the id of a new note moves to voice `chosen`: any
// other voice among the `count` holding it is released (through `release`) and forgets it.
// With `chosen` −1 (the Vorbis player, before it picks) every such voice is released.
template <class V, class F>
void psynth_voice_hand_over_id(V* voices, int count, int chosen, int id, F release) {
    if (id < 0) return;
    for (int i = 0; i < count; i++) {
        if (i != chosen && voices[i].active && voices[i].id == id) {
            release(voices[i]);
            voices[i].id = -1;
        }
    }
}

// ---- Falling pitch of drums ----
// A drum starts `sweep` pitch units above its note and falls toward it exponentially: every
// frame the distance shrinks by coef / 2^24 of itself. The oscillator's step follows the
// pitch every PSYNTH_SWEEP_BLOCK frames, which keeps the division out of the frame loop.

constexpr int PSYNTH_SWEEP_FRAC_BITS = 16;  // fraction bits of the distance
constexpr int PSYNTH_SWEEP_COEF_BITS = 24;
constexpr int PSYNTH_SWEEP_BLOCK = 16;

struct psynth_swept_osc {
    uint32_t phase;
    uint32_t step;
    int32_t distance;  // pitch units above the note, PSYNTH_SWEEP_FRAC_BITS fraction bits
    int32_t coef;      // fall per frame, PSYNTH_SWEEP_COEF_BITS fraction bits
    int pitch;         // where the sweep ends
    int countdown;     // frames until the step follows the pitch again
};

// The per-frame coefficient for a fall whose distance shrinks by e in `tau_us` microseconds.
inline int32_t psynth_sweep_coef(int64_t tau_us, int rate) {
    if (tau_us < 1) tau_us = 1;
    int64_t coef = ((int64_t)1000000 << PSYNTH_SWEEP_COEF_BITS) / (tau_us * (rate > 0 ? rate : 1));
    return (int32_t)(coef < 1 ? 1 : coef > (1 << PSYNTH_SWEEP_COEF_BITS) ? (1 << PSYNTH_SWEEP_COEF_BITS) : coef);
}

// Starts at phase 0, `sweep` pitch units (0..32767) above `pitch`.
inline void psynth_swept_osc_start(psynth_swept_osc* o, int pitch, int sweep, int32_t coef) {
    o->phase = 0;
    o->step = 0;
    o->distance = psynth_clamp(sweep, 0, INT16_MAX) << PSYNTH_SWEEP_FRAC_BITS;
    o->coef = coef;
    o->pitch = pitch;
    o->countdown = 0;
}

// The phase of this frame; then advances the phase and the sweep by one frame.
inline uint32_t psynth_swept_osc_next(psynth_swept_osc* o, int rate) {
    if (o->countdown <= 0) {
        o->step = psynth_pitch_to_phase_step(o->pitch - (o->distance >> PSYNTH_SWEEP_FRAC_BITS), rate);
        o->countdown = PSYNTH_SWEEP_BLOCK;
    }
    o->countdown--;
    uint32_t phase = o->phase;
    o->phase += o->step;
    o->distance -= (int32_t)(((int64_t)o->distance * o->coef) >> PSYNTH_SWEEP_COEF_BITS);
    return phase;
}
