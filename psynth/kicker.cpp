// The Kicker: a kick drum of the sound net. Each note starts an oscillator far above its
// pitch that falls onto it (the thump of an analogue kick), under a short attack and a
// curved decay, into one output (the net feeds a mono source to both sides of a stereo input).
//
// Controllers (registered at INIT in this order; values in the module's own units):
//
// | # | name           | units                  | min | max  | default | kind     |
// |---|----------------|------------------------|-----|------|---------|----------|
// | 0 | "Volume"       | ""                     | 0   | 512  | 256     | number   |
// | 1 | "Waveform"     | "triangle/square/sine" | 0   | 2    | 2       | selector |
// | 2 | "Attack"       | "ms"                   | 0   | 500  | 0       | number   |
// | 3 | "Release"      | "ms"                   | 1   | 2000 | 300     | number   |
// | 4 | "Boost"        | ""                     | 0   | 1024 | 0       | number   |
// | 5 | "Acceleration" | ""                     | 0   | 1024 | 256     | number   |
// | 6 | "Polyphony"    | "ch."                  | 1   | 4    | 1       | number   |
// | 7 | "Anti-click"   | "off/on"               | 0   | 1    | 1       | selector |
//
// Volume: 256 is unity; a full-velocity (256) kick at unity peaks at ±2048 (13.3), half the
//   device's full scale, like one Generator voice.
// Waveform: the oscillator's shape; sine is the round kick, triangle and square are harder.
// Attack: the linear rise from silence (0: the kick starts at full level; the sine and the
//   triangle start on a zero crossing, the square at its top).
// Release: how long the kick lasts after its attack. The level falls linearly and is heard
//   squared (fast at first, then a long tail), reaching silence exactly at the end. A kick is
//   one-shot: NOTE_OFF does not shorten it.
// Boost: drives the oscillator into a hard clip at ±2048 by a gain of (256 + Boost) / 256,
//   which flattens the sine toward a square: a louder, punchier kick at the same peak.
// Acceleration: how fast the pitch falls from three octaves above the note onto it: the
//   distance shrinks by e every 5120 / Acceleration ms (20 ms at 256, 5 ms at 1024); 0 plays
//   the note's pitch from the start, without a sweep.
// Polyphony: voices a kick may take. At 1 a new kick cuts the one still sounding.
// Anti-click: when a new kick takes a voice that is still sounding, the old sound fades out
//   over 2 ms instead of stopping dead.
//
// Voices: NOTE_ON takes, among the first Polyphony voices, the one holding the event's id,
// else a free one from the cursor on, else the one after the cursor. SET_FREQ moves the pitch
// the sweep falls to; SET_VELOCITY changes the level. Flags: sound source (0x8). No chunks.
#include <cstdint>
#include <cstring>

#include "psynth/psynth_dsp.h"
#include "psynth/psynth_modules.h"
#include "psynth/psynth_voices.h"

namespace {

constexpr int kMaxVoices = 4;
constexpr int kVolumeMax = 512;
constexpr int kAttackMaxMs = 500;
constexpr int kReleaseMaxMs = 2000;
constexpr int kBoostMax = 1024;
constexpr int kAccelerationMax = 1024;
constexpr int kSweepStart = 36 * 256;            // three octaves above the note
constexpr int64_t kSweepTauUsAtOne = 5120000;  // time constant × Acceleration, in µs
constexpr int kAntiClickMs = 2;
constexpr int kStageOver = PSYNTH_ENV_RELEASE + 1;  // the kick has ended; a fade may still run

enum kick_waveform : int { WAVE_TRIANGLE, WAVE_SQUARE, WAVE_SINE, WAVE_COUNT };

enum kick_ctl : int {
    CTL_VOLUME,
    CTL_WAVEFORM,
    CTL_ATTACK,
    CTL_RELEASE,
    CTL_BOOST,
    CTL_ACCELERATION,
    CTL_POLYPHONY,
    CTL_ANTI_CLICK,
    CTL_COUNT
};

struct kick_voice {
    int active;
    int id;                // the event id that owns it, −1 = none
    int velocity;          // 0..256
    psynth_swept_osc osc;
    int32_t env;           // 0..PSYNTH_ENV_ONE
    int stage;
    int32_t last;          // the voice's last output sample, where a cut starts its fade
    int32_t fade_from;     // anti-click: the old sound's level fading out...
    int fade_left;         // ...over this many more frames
};

struct kick_data {
    int ctl[CTL_COUNT];
    kick_voice voices[kMaxVoices];
    int cursor;
};

// What every voice of one render piece shares, derived from the controllers.
struct kick_params {
    int rate;
    int32_t attack_inc;
    int32_t release_dec;
    int32_t drive;  // boost gain, 256 = unity
    int32_t gain;   // volume, 256 = unity
    int fade_frames;
};

int voice_limit(const kick_data* d) { return psynth_clamp(d->ctl[CTL_POLYPHONY], 1, kMaxVoices); }

int fade_frames(int rate) { return psynth_clamp(rate * kAntiClickMs / 1000, 1, PSYNTH_BUFFER_SIZE); }

template <int kWave>
int32_t wave_value(uint32_t phase) {
    switch (kWave) {
    case WAVE_TRIANGLE: return psynth_triangle(phase);
    case WAVE_SQUARE: return phase < PSYNTH_PHASE_HALF ? PSYNTH_WAVE_AMP : -PSYNTH_WAVE_AMP;
    default: return psynth_sine<true>(phase);
    }
}

// One voice over frames [from, to), added into the output.
template <int kWave>
void render_voice(kick_voice* v, const kick_params& p, psynth_sample* out, int from, int to) {
    psynth_swept_osc osc = v->osc;
    int32_t env = v->env;
    int stage = v->stage;
    int32_t fade_from = v->fade_from;
    int fade_left = v->fade_left;
    int32_t last = v->last;
    const int32_t gain = p.gain * v->velocity;  // 65536 = unity
    bool ringing = stage != kStageOver;

    for (int i = from; i < to && (ringing || fade_left > 0); i++) {
        last = 0;
        if (ringing) {
            int32_t w = wave_value<kWave>(psynth_swept_osc_next(&osc, p.rate));
            if (p.drive != PSYNTH_GAIN_UNITY) {
                w = psynth_clamp((w * p.drive) >> PSYNTH_GAIN_SHIFT, -PSYNTH_WAVE_AMP, PSYNTH_WAVE_AMP);
            }
            int32_t g = (int32_t)(((int64_t)psynth_env_curved(env) * gain) >> PSYNTH_ENV_BITS);
            last = psynth_div256_toward_zero(psynth_div256_toward_zero(w * g));
            ringing = psynth_env_advance(&env, &stage, p.attack_inc, p.release_dec, PSYNTH_ENV_RELEASE);
        }
        int32_t sum = last;
        if (fade_left > 0) {
            sum += fade_from * fade_left / p.fade_frames;
            fade_left--;
        }
        out[i] = psynth_add_saturated(out[i], sum);
    }
    if (!ringing) stage = kStageOver;
    bool active = ringing || fade_left > 0;

    v->osc = osc;
    v->env = env;
    v->stage = stage;
    v->fade_from = fade_from;
    v->fade_left = fade_left;
    v->last = active ? last : 0;
    if (!active) {
        v->active = 0;
        v->id = -1;
    }
}

typedef void (*voice_renderer)(kick_voice*, const kick_params&, psynth_sample*, int, int);

voice_renderer renderer_for(int waveform) {
    switch (waveform) {
    case WAVE_TRIANGLE: return render_voice<WAVE_TRIANGLE>;
    case WAVE_SQUARE: return render_voice<WAVE_SQUARE>;
    default: return render_voice<WAVE_SINE>;
    }
}

intptr_t render(int mod_num, kick_data* d, psynth_net* net) {
    psynth_module* mod = &net->modules[mod_num];
    int from, to;
    if (!psynth_render_span(mod, &from, &to) || !mod->output_buffers[0]) return 0;
    if (!psynth_voices_sounding(d->voices, kMaxVoices)) return 0;

    kick_params p;
    p.rate = net->sampling_rate;
    p.attack_inc = psynth_env_step(psynth_clamp(d->ctl[CTL_ATTACK], 0, kAttackMaxMs), p.rate);
    p.release_dec = psynth_env_step(psynth_clamp(d->ctl[CTL_RELEASE], 1, kReleaseMaxMs), p.rate);
    p.drive = PSYNTH_GAIN_UNITY + psynth_clamp(d->ctl[CTL_BOOST], 0, kBoostMax);
    p.gain = psynth_clamp(d->ctl[CTL_VOLUME], 0, kVolumeMax);
    p.fade_frames = fade_frames(p.rate);

    psynth_sample* out = mod->output_buffers[0];
    psynth_clear_span(out, from, to);
    voice_renderer run = renderer_for(psynth_clamp(d->ctl[CTL_WAVEFORM], 0, WAVE_COUNT - 1));
    for (int i = 0; i < kMaxVoices; i++) {
        if (d->voices[i].active) run(&d->voices[i], p, out, from, to);
    }
    return 1;
}

// A kick starts from phase 0 and silence (or full level without an attack). Taking a voice
// that still sounds cuts it; with Anti-click its last sample fades out under the new kick.
intptr_t note_on(const psynth_event* e, kick_data* d, psynth_net* net) {
    int limit = voice_limit(d);
    int chosen = psynth_voice_choose(d->voices, limit, e->id, &d->cursor, [](const kick_voice& v) { return v.id < 0; });
    psynth_voice_hand_over_id(d->voices, kMaxVoices, chosen, e->id, [](kick_voice&) {});
    kick_voice* v = &d->voices[chosen];
    int32_t fade_from = v->active && d->ctl[CTL_ANTI_CLICK] ? v->last : 0;
    if (v->active && d->ctl[CTL_ANTI_CLICK]) fade_from += v->fade_from * v->fade_left / fade_frames(net->sampling_rate);
    int acceleration = psynth_clamp(d->ctl[CTL_ACCELERATION], 0, kAccelerationMax);
    int32_t coef = acceleration > 0 ? psynth_sweep_coef(kSweepTauUsAtOne / acceleration, net->sampling_rate) : 0;

    memset(v, 0, sizeof(*v));
    v->active = 1;
    v->id = e->id;
    v->velocity = psynth_clamp(e->velocity, 0, PSYNTH_VELOCITY_MAX);
    psynth_swept_osc_start(&v->osc, e->pitch, acceleration > 0 ? kSweepStart : 0, coef);
    bool attack = d->ctl[CTL_ATTACK] > 0;
    v->env = attack ? 0 : PSYNTH_ENV_ONE;
    v->stage = attack ? PSYNTH_ENV_ATTACK : PSYNTH_ENV_RELEASE;
    v->fade_from = fade_from;
    v->fade_left = fade_from ? fade_frames(net->sampling_rate) : 0;
    return 1;
}

void init(int mod_num, kick_data* d, psynth_net* net) {
    memset(d, 0, sizeof(*d));
    static const psynth_ctl_row rows[CTL_COUNT] = {
        {"Volume", "", 0, kVolumeMax, PSYNTH_GAIN_UNITY},
        {"Waveform", "triangle/square/sine", 0, WAVE_COUNT - 1, WAVE_SINE, PSYNTH_CTL_SELECTOR},
        {"Attack", "ms", 0, kAttackMaxMs, 0},
        {"Release", "ms", 1, kReleaseMaxMs, 300},
        {"Boost", "", 0, kBoostMax, 0},
        {"Acceleration", "", 0, kAccelerationMax, 256},
        {"Polyphony", "ch.", 1, kMaxVoices, 1},
        {"Anti-click", "off/on", 0, 1, 1, PSYNTH_CTL_SELECTOR},
    };
    psynth_register_ctl_rows(mod_num, rows, d->ctl, net);
    psynth_voices_clear(d->voices, kMaxVoices, &d->cursor);
}

}  // namespace

intptr_t psynth_kicker(int mod_num, psynth_event* event, psynth_net* net) {
    switch (event->command) {
    case PS_CMD_GET_DATA_SIZE: return sizeof(kick_data);
    case PS_CMD_GET_SYNTH_NAME: return (intptr_t) "Kicker";
    case PS_CMD_GET_SYNTH_INFO:
        return (intptr_t) "Kicker.\nA kick drum: the pitch falls from three octaves above the note onto it "
                          "(speed: \"Acceleration\"), then the kick decays over \"Release\".";
    case PS_CMD_GET_SYNTH_COLOR: return (intptr_t) "#FF4030";
    case PS_CMD_GET_INPUTS_NUM: return 0;
    case PS_CMD_GET_OUTPUTS_NUM: return 1;
    case PS_CMD_GET_FLAGS: return PSYNTH_FLAG_GENERATOR;
    default: break;
    }
    kick_data* d = psynth_module_data<kick_data>(mod_num, net);
    if (!d) return 0;
    switch (event->command) {
    case PS_CMD_INIT:
        init(mod_num, d, net);
        return 1;
    case PS_CMD_SETUP_FINISHED: return 1;
    case PS_CMD_CLEAN:
        psynth_voices_clear(d->voices, kMaxVoices, &d->cursor);
        return 1;
    case PS_CMD_RENDER_REPLACE: return render(mod_num, d, net);
    case PS_CMD_NOTE_ON: return note_on(event, d, net);
    case PS_CMD_SET_FREQ: {
        kick_voice* v = psynth_voice_find(d->voices, kMaxVoices, event->id);
        if (v) v->osc.pitch = event->pitch;
        return 1;
    }
    case PS_CMD_SET_VELOCITY:
    case PS_CMD_NOTE_OFF:
    case PS_CMD_ALL_NOTES_OFF: return psynth_one_shot_event(d->voices, kMaxVoices, event);
    case PS_CMD_CLOSE: return 1;
    default: return 0;
    }
}
