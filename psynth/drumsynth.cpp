// The DrumSynth: a small drum kit of the sound net played from the keyboard. Every octave
// holds the three drums: a bass drum (a falling sine), a snare (a falling sine with noise)
// and a hi-hat (filtered noise), each struck with its own volume, length and tone, into one
// output (the net feeds a mono source to both sides of a stereo input).
//
// Controllers (registered at INIT in this order; values in the module's own units):
//
// | #  | name           | units | min | max  | default | kind   |
// |----|----------------|-------|-----|------|---------|--------|
// | 0  | "Volume"       | ""    | 0   | 512  | 256     | number |
// | 1  | "Polyphony"    | "ch." | 1   | 16   | 4       | number |
// | 2  | "Bass volume"  | ""    | 0   | 512  | 256     | number |
// | 3  | "Bass length"  | "ms"  | 1   | 2000 | 300     | number |
// | 4  | "Bass tone"    | ""    | 0   | 512  | 256     | number |
// | 5  | "Hihat volume" | ""    | 0   | 512  | 256     | number |
// | 6  | "Hihat length" | "ms"  | 1   | 2000 | 80      | number |
// | 7  | "Hihat tone"   | ""    | 0   | 512  | 384     | number |
// | 8  | "Snare volume" | ""    | 0   | 512  | 256     | number |
// | 9  | "Snare length" | "ms"  | 1   | 2000 | 200     | number |
// | 10 | "Snare tone"   | ""    | 0   | 512  | 320     | number |
//
// Keys, in every octave: C and C# strike the bass drum, D, D# and E the snare, F to B the
// hi-hat. C5 (semitone 60) plays the bass drum at its own pitch (about 49 Hz) and D5 the
// snare's body at its own (about 185 Hz); every other key moves the drum by as many
// semitones as it stands from that key, so the kit can be tuned from the pattern.
// Volume: 256 is unity; a drum at unity module and drum volume and full velocity (256) peaks
//   at ±2048 (13.3), half the device's full scale, like one Generator voice.
// Lengths: how long a struck drum sounds; the level falls linearly and is heard squared (fast
//   at first, then a tail), reaching silence exactly at the end. Drums are one-shot: NOTE_OFF
//   does not shorten them.
// Bass tone: the bass drum's pitch, ±8 semitones around 256 (32 per semitone).
// Hihat tone: brightness: high-passed noise through a low-pass that opens with the tone.
// Snare tone: the share of noise against the body: 0 is the body alone, 512 the noise alone.
// Polyphony: voices a drum may take; each drum strike takes its own voice, and a drum struck
// again while the kit is full takes over the voice after the cursor.
// Voices: NOTE_ON takes, among the first Polyphony voices, the one holding the event's id, else
// a free one from the cursor on, else one whose key was released, else the one after the
// cursor. The noise of each strike comes from its own generator, seeded at NOTE_ON from the
// module's seed (restarted at INIT and CLEAN), so a song renders the same every time.
// Flags: sound source (0x8). No chunks.
#include <cstdint>
#include <cstring>

#include "psynth/psynth_dsp.h"
#include "psynth/psynth_modules.h"
#include "psynth/psynth_voices.h"

namespace {

constexpr int kVolumeMax = 512;
constexpr int kLengthMaxMs = 2000;
constexpr int kToneMax = 512;
constexpr int kToneCentre = 256;
constexpr int kSemitone = 256;       // pitch units
constexpr int kTonePerSemitone = 32;  // "Bass tone" units
constexpr int kHomeOctaveC = 60;     // C5: the keys of this octave play the drums at their own pitch
constexpr uint32_t kNoiseSeedStart = 0xD12A;

enum drum_kind : int { DRUM_BASS, DRUM_HIHAT, DRUM_SNARE, DRUM_COUNT };

// The key of each drum in an octave (semitone of its first key) and what sets its sound.
struct drum_shape {
    int first_key;
    int home_pitch;  // pitch of the drum on its first key in the home octave
    int sweep;       // pitch units the body falls from
    int tau_us;      // time constant of the fall
};
const drum_shape kDrums[DRUM_COUNT] = {
    {0, (120 - 31) * kSemitone, 24 * kSemitone, 15000},  // G1, from two octaves above
    {5, 0, 0, 0},                                         // noise only
    {2, (120 - 54) * kSemitone, 12 * kSemitone, 8000},   // F#3, from an octave above
};

// Hi-hat: the noise less its one-pole low-pass (coefficient in 1/256, about 5 kHz at 44100 Hz)
// leaves the highs; a second low-pass whose coefficient rises with the tone darkens or opens
// them (about 900 Hz at tone 0, open at 512); the two filters take away about half the level,
// which the make-up gain gives back.
constexpr int kHatHighPass = 128;
constexpr int kHatCoefMin = 32;
constexpr int kHatCoefSpan = 224;
constexpr int kHatMakeup = 2;

enum drum_ctl : int {
    CTL_VOLUME,
    CTL_POLYPHONY,
    CTL_BASS_VOLUME,
    CTL_BASS_LENGTH,
    CTL_BASS_TONE,
    CTL_HIHAT_VOLUME,
    CTL_HIHAT_LENGTH,
    CTL_HIHAT_TONE,
    CTL_SNARE_VOLUME,
    CTL_SNARE_LENGTH,
    CTL_SNARE_TONE,
    CTL_COUNT
};
constexpr int kCtlsPerDrum = 3;  // volume, length, tone from CTL_BASS_VOLUME on, in drum order

struct drum_voice {
    int active;
    int id;         // the event id that owns it, −1 = none
    int kind;
    int velocity;   // 0..256
    int offset;     // pitch units from the drum's own pitch (the key, bends)
    psynth_swept_osc osc;
    uint32_t noise_seed;
    int32_t high;   // the hi-hat's filter states
    int32_t low;
    int32_t env;    // 0..PSYNTH_ENV_ONE
    int stage;
};

struct drum_data {
    int ctl[CTL_COUNT];
    drum_voice voices[PSYNTH_VOICES_MAX];
    int cursor;
    uint32_t noise_seed;  // seeds each strike's noise; restarted at INIT and CLEAN
};

int drum_ctl(const drum_data* d, int kind, int which) {
    return d->ctl[CTL_BASS_VOLUME + kind * kCtlsPerDrum + which];
}

int drum_for_key(int note) {
    int key = ((note % 12) + 12) % 12;
    return key < kDrums[DRUM_SNARE].first_key ? DRUM_BASS : key < kDrums[DRUM_HIHAT].first_key ? DRUM_SNARE : DRUM_HIHAT;
}

// The pitch a voice's body falls to: the drum's own, moved by the key and (bass) the tone.
int body_pitch(const drum_data* d, const drum_voice* v) {
    int pitch = kDrums[v->kind].home_pitch + v->offset;
    if (v->kind == DRUM_BASS) {
        int tone = psynth_clamp(drum_ctl(d, DRUM_BASS, 2), 0, kToneMax) - kToneCentre;
        pitch -= tone * kSemitone / kTonePerSemitone;
    }
    return pitch;
}

// One voice over frames [from, to), added into the output.
template <int kKind>
void render_voice(drum_voice* v, const drum_data* d, int rate, psynth_sample* out, int from, int to) {
    psynth_swept_osc osc = v->osc;
    uint32_t seed = v->noise_seed;
    int32_t high = v->high;
    int32_t low = v->low;
    int32_t env = v->env;
    int stage = v->stage;
    const int32_t decay = psynth_env_step(psynth_clamp(drum_ctl(d, kKind, 1), 1, kLengthMaxMs), rate);
    const int32_t gain = psynth_div256_toward_zero(psynth_clamp(d->ctl[CTL_VOLUME], 0, kVolumeMax) *
                                                   psynth_clamp(drum_ctl(d, kKind, 0), 0, kVolumeMax)) *
                         v->velocity;  // 65536 = unity
    const int32_t tone = psynth_clamp(drum_ctl(d, kKind, 2), 0, kToneMax);
    const int32_t hat_coef = kHatCoefMin + tone * kHatCoefSpan / kToneMax;
    bool ringing = true;

    for (int i = from; i < to && ringing; i++) {
        int32_t w;
        if constexpr (kKind == DRUM_BASS) {
            w = psynth_sine<true>(psynth_swept_osc_next(&osc, rate));
        } else if constexpr (kKind == DRUM_HIHAT) {
            int32_t x = psynth_noise_next(&seed);
            high += ((x - high) * kHatHighPass) >> PSYNTH_GAIN_SHIFT;
            low += ((x - high - low) * hat_coef) >> PSYNTH_GAIN_SHIFT;
            w = psynth_clamp(low * kHatMakeup, -PSYNTH_WAVE_AMP, PSYNTH_WAVE_AMP);
        } else {
            int32_t body = psynth_sine<true>(psynth_swept_osc_next(&osc, rate));
            int32_t noise = psynth_noise_next(&seed);
            w = (body * (kToneMax - tone) + noise * tone) / kToneMax;
        }
        int32_t g = (int32_t)(((int64_t)psynth_env_curved(env) * gain) >> PSYNTH_ENV_BITS);
        out[i] = psynth_add_saturated(out[i], psynth_div256_toward_zero(psynth_div256_toward_zero(w * g)));
        ringing = psynth_env_advance(&env, &stage, 0, decay, PSYNTH_ENV_RELEASE);
    }

    v->osc = osc;
    v->noise_seed = seed;
    v->high = high;
    v->low = low;
    v->env = env;
    v->stage = stage;
    if (!ringing) {
        v->active = 0;
        v->id = -1;
    }
}

intptr_t render(int mod_num, drum_data* d, psynth_net* net) {
    psynth_module* mod = &net->modules[mod_num];
    int from, to;
    if (!psynth_render_span(mod, &from, &to) || !mod->output_buffers[0]) return 0;
    if (!psynth_voices_sounding(d->voices, PSYNTH_VOICES_MAX)) return 0;

    psynth_sample* out = mod->output_buffers[0];
    psynth_clear_span(out, from, to);
    for (drum_voice& v : d->voices) {
        if (!v.active) continue;
        switch (v.kind) {
        case DRUM_BASS: render_voice<DRUM_BASS>(&v, d, net->sampling_rate, out, from, to); break;
        case DRUM_HIHAT: render_voice<DRUM_HIHAT>(&v, d, net->sampling_rate, out, from, to); break;
        default: render_voice<DRUM_SNARE>(&v, d, net->sampling_rate, out, from, to); break;
        }
    }
    return 1;
}

intptr_t note_on(const psynth_event* e, drum_data* d, psynth_net* net) {
    int limit = psynth_clamp(d->ctl[CTL_POLYPHONY], 1, PSYNTH_VOICES_MAX);
    int chosen = psynth_voice_choose(d->voices, limit, e->id, &d->cursor, [](const drum_voice& v) { return v.id < 0; });
    psynth_voice_hand_over_id(d->voices, PSYNTH_VOICES_MAX, chosen, e->id, [](drum_voice&) {});
    drum_voice* v = &d->voices[chosen];
    memset(v, 0, sizeof(*v));
    v->active = 1;
    v->id = e->id;
    v->kind = drum_for_key(e->note);
    v->velocity = psynth_clamp(e->velocity, 0, PSYNTH_VELOCITY_MAX);
    // Pitch of the drum's first key in the home octave, unbent: (120 − semitone) × 256.
    int key_pitch = (120 - (kHomeOctaveC + kDrums[v->kind].first_key)) * kSemitone;
    v->offset = e->pitch - key_pitch;
    const drum_shape& shape = kDrums[v->kind];
    psynth_swept_osc_start(&v->osc, body_pitch(d, v), shape.sweep, psynth_sweep_coef(shape.tau_us, net->sampling_rate));
    v->noise_seed = ((uint32_t)tarvik_random(&d->noise_seed) << 15) ^ (uint32_t)tarvik_random(&d->noise_seed);
    v->env = PSYNTH_ENV_ONE;
    v->stage = PSYNTH_ENV_RELEASE;
    return 1;
}

void silence_all(drum_data* d) {
    psynth_voices_clear(d->voices, PSYNTH_VOICES_MAX, &d->cursor);
    d->noise_seed = kNoiseSeedStart;
}

void init(int mod_num, drum_data* d, psynth_net* net) {
    memset(d, 0, sizeof(*d));
    static const psynth_ctl_row rows[CTL_COUNT] = {
        {"Volume", "", 0, kVolumeMax, PSYNTH_GAIN_UNITY},
        {"Polyphony", "ch.", 1, PSYNTH_VOICES_MAX, 4},
        {"Bass volume", "", 0, kVolumeMax, PSYNTH_GAIN_UNITY},
        {"Bass length", "ms", 1, kLengthMaxMs, 300},
        {"Bass tone", "", 0, kToneMax, kToneCentre},
        {"Hihat volume", "", 0, kVolumeMax, PSYNTH_GAIN_UNITY},
        {"Hihat length", "ms", 1, kLengthMaxMs, 80},
        {"Hihat tone", "", 0, kToneMax, 384},
        {"Snare volume", "", 0, kVolumeMax, PSYNTH_GAIN_UNITY},
        {"Snare length", "ms", 1, kLengthMaxMs, 200},
        {"Snare tone", "", 0, kToneMax, 320},
    };
    psynth_register_ctl_rows(mod_num, rows, d->ctl, net);
    silence_all(d);
}

}  // namespace

intptr_t psynth_drumsynth(int mod_num, psynth_event* event, psynth_net* net) {
    switch (event->command) {
    case PS_CMD_GET_DATA_SIZE: return sizeof(drum_data);
    case PS_CMD_GET_SYNTH_NAME: return (intptr_t) "DrumSynth";
    case PS_CMD_GET_SYNTH_INFO:
        return (intptr_t) "DrumSynth.\nA drum kit on the keyboard, in every octave:\n"
                          " C, C#: bass drum\n D, D#, E: snare\n F to B: hi-hat";
    case PS_CMD_GET_SYNTH_COLOR: return (intptr_t) "#FFC040";
    case PS_CMD_GET_INPUTS_NUM: return 0;
    case PS_CMD_GET_OUTPUTS_NUM: return 1;
    case PS_CMD_GET_FLAGS: return PSYNTH_FLAG_GENERATOR;
    default: break;
    }
    drum_data* d = psynth_module_data<drum_data>(mod_num, net);
    if (!d) return 0;
    switch (event->command) {
    case PS_CMD_INIT:
        init(mod_num, d, net);
        return 1;
    case PS_CMD_SETUP_FINISHED: return 1;
    case PS_CMD_CLEAN:
        silence_all(d);
        return 1;
    case PS_CMD_RENDER_REPLACE: return render(mod_num, d, net);
    case PS_CMD_NOTE_ON: return note_on(event, d, net);
    case PS_CMD_SET_FREQ: {
        drum_voice* v = psynth_voice_find(d->voices, PSYNTH_VOICES_MAX, event->id);
        if (v) {
            int key_pitch = (120 - (kHomeOctaveC + kDrums[v->kind].first_key)) * kSemitone;
            v->offset = event->pitch - key_pitch;
            v->osc.pitch = body_pitch(d, v);
        }
        return 1;
    }
    case PS_CMD_SET_VELOCITY:
    case PS_CMD_NOTE_OFF:
    case PS_CMD_ALL_NOTES_OFF: return psynth_one_shot_event(d->voices, PSYNTH_VOICES_MAX, event);
    case PS_CMD_CLOSE: return 1;
    default: return 0;
    }
}
