// Vocal filter: gives any sound the colour of a sung vowel. Up to five band-pass
// resonators, tuned to the formants of the vowel a, e, i, o or u as sung by a soprano,
// alto, tenor or bass, run side by side and their outputs are summed, each at the
// formant's own level.
//
// | # | name        | units                     | min | max | default | kind     |
// |---|-------------|---------------------------|-----|-----|---------|----------|
// | 0 | "Volume"    | ""                        | 0   | 512 | 256     | number   |
// | 1 | "Vowel"     | "a/e/i/o/u"               | 0   | 4   | 0       | selector |
// | 2 | "Voice"     | "soprano/alto/tenor/bass" | 0   | 3   | 0       | selector |
// | 3 | "Bandwidth" | ""                        | 0   | 256 | 128     | number   |
// | 4 | "Formants"  | ""                        | 1   | 5   | 5       | selector |
// | 5 | "Mono"      | "off/on"                  | 0   | 1   | 0       | selector |
//
// "Bandwidth" 128 takes each formant's own bandwidth; every 64 up doubles it, every 64
// down halves it (a quarter to four times). "Formants" keeps the lowest ones: 2 is
// already a recognisable vowel, 5 adds the singer's brilliance. "Formants" is a selector
// so that a pattern value reaches it raw. Each resonator peaks at unity gain times its
// formant's level, so a sine at the first formant passes at "Volume". The coefficients
// are worked out (in floating point) when the module is set up and whenever vowel,
// voice, bandwidth or formant count change, never per sample; the samples themselves
// run in fixed point. After the input stops the resonators ring out for one second.
#include <cmath>
#include <algorithm>
#include <cstdint>
#include <numbers>

#include "psynth/effect_io.h"
#include "psynth/psynth_dsp.h"
#include "psynth/psynth_modules.h"

namespace {

constexpr int kChannels = 2;
constexpr int kFormants = 5;
constexpr int kVowels = 5;
constexpr int kVoices = 4;
constexpr int kCoefShift = 24;   // resonator coefficients in 1/2^24
constexpr int kStateShift = 8;   // samples run with 8 more fractional bits inside
constexpr int kBandwidthUnity = 128;
constexpr double kBandwidthOctave = 64.0;  // "Bandwidth" steps per doubling

enum vocal_ctl : int { CTL_VOLUME, CTL_VOWEL, CTL_VOICE, CTL_BANDWIDTH, CTL_FORMANTS, CTL_MONO, CTL_COUNT };

struct formant {
    int16_t hz;   // centre frequency
    int16_t db;   // level relative to the first formant
    int16_t bw;   // bandwidth in Hz
};

// Formants of sung vowels [voice][vowel][formant]: the widely published measurements
// for soprano, alto, tenor and bass singing a, e, i, o, u.
const formant kFormantTable[kVoices][kVowels][kFormants] = {
    {   // soprano
        {{800, 0, 80}, {1150, -6, 90}, {2900, -32, 120}, {3900, -20, 130}, {4950, -50, 140}},
        {{350, 0, 60}, {2000, -20, 100}, {2800, -15, 120}, {3600, -40, 150}, {4950, -56, 200}},
        {{270, 0, 60}, {2140, -12, 90}, {2950, -26, 100}, {3900, -26, 120}, {4950, -44, 120}},
        {{450, 0, 70}, {800, -11, 80}, {2830, -22, 100}, {3800, -22, 130}, {4950, -50, 135}},
        {{325, 0, 50}, {700, -16, 60}, {2700, -35, 170}, {3800, -40, 180}, {4950, -60, 200}},
    },
    {   // alto
        {{800, 0, 80}, {1150, -4, 90}, {2800, -20, 120}, {3500, -36, 130}, {4950, -60, 140}},
        {{400, 0, 60}, {1600, -24, 80}, {2700, -30, 120}, {3300, -35, 150}, {4950, -60, 200}},
        {{350, 0, 50}, {1700, -20, 100}, {2700, -30, 120}, {3700, -36, 150}, {4950, -60, 200}},
        {{450, 0, 70}, {800, -9, 80}, {2830, -16, 100}, {3500, -28, 130}, {4950, -55, 135}},
        {{325, 0, 50}, {700, -12, 60}, {2530, -30, 170}, {3500, -40, 180}, {4950, -64, 200}},
    },
    {   // tenor
        {{650, 0, 80}, {1080, -6, 90}, {2650, -7, 120}, {2900, -8, 130}, {3250, -22, 140}},
        {{400, 0, 70}, {1700, -14, 80}, {2600, -12, 100}, {3200, -14, 120}, {3580, -20, 120}},
        {{290, 0, 40}, {1870, -15, 90}, {2800, -18, 100}, {3250, -20, 120}, {3540, -30, 120}},
        {{400, 0, 40}, {800, -10, 80}, {2600, -12, 100}, {2800, -12, 120}, {3000, -26, 120}},
        {{350, 0, 40}, {600, -20, 60}, {2700, -17, 100}, {2900, -14, 120}, {3300, -26, 120}},
    },
    {   // bass
        {{600, 0, 60}, {1040, -7, 70}, {2250, -9, 110}, {2450, -9, 120}, {2750, -20, 130}},
        {{400, 0, 40}, {1620, -12, 80}, {2400, -9, 100}, {2800, -12, 120}, {3100, -18, 120}},
        {{250, 0, 60}, {1750, -30, 90}, {2600, -16, 100}, {3050, -22, 120}, {3340, -28, 120}},
        {{400, 0, 40}, {750, -11, 80}, {2400, -21, 100}, {2600, -20, 120}, {2900, -40, 120}},
        {{350, 0, 40}, {600, -20, 80}, {2400, -32, 100}, {2675, -28, 120}, {2950, -36, 120}},
    },
};

// One resonator: y = b0·(x − x[n−2]) + a1·y[n−1] − a2·y[n−2], all in 1/2^24.
struct resonator_coefs {
    int32_t b0;
    int32_t a1;
    int32_t a2;
};

struct resonator_state {
    int32_t y1, y2;  // the last two outputs, × 256
};

struct vocal_channel {
    int32_t x1, x2;  // the last two inputs, × 256
    resonator_state r[kFormants];
};

struct vocal_data {
    int ctl[CTL_COUNT];
    resonator_coefs coefs[kFormants];
    int32_t active;     // resonators in use (the formant count, less those above Nyquist)
    int32_t coefs_key;  // the settings the coefficients were worked out for (−1: none yet)
    vocal_channel ch[kChannels];
    int32_t tail;         // frames rendered since the input fell silent
    int32_t tail_length;  // one second
};

// The settings the coefficients depend on, in one number.
int32_t settings_key(const vocal_data* d) {
    return std::clamp(d->ctl[CTL_VOWEL], 0, kVowels - 1) | std::clamp(d->ctl[CTL_VOICE], 0, kVoices - 1) << 4 |
           std::clamp(d->ctl[CTL_BANDWIDTH], 0, 256) << 8 | std::clamp(d->ctl[CTL_FORMANTS], 1, kFormants) << 20;
}

// Works out the resonators for the current settings (GUI thread at set-up, or the sound
// thread once after a change; a few exp/cos calls, no allocation).
void update_coefs(vocal_data* d, int rate) {
    int32_t key = settings_key(d);
    int voice = std::clamp(d->ctl[CTL_VOICE], 0, kVoices - 1);
    const formant* f = kFormantTable[voice][std::clamp(d->ctl[CTL_VOWEL], 0, kVowels - 1)];
    double widen = std::exp2((std::clamp(d->ctl[CTL_BANDWIDTH], 0, 256) - kBandwidthUnity) / kBandwidthOctave);
    double one = (double)(1 << kCoefShift);
    int count = std::clamp(d->ctl[CTL_FORMANTS], 1, kFormants);
    d->active = 0;
    for (int k = 0; k < count && rate > 0; k++) {
        if (2 * f[k].hz >= rate) break;  // the table rises: no higher formant fits either
        double r = std::exp(-std::numbers::pi * f[k].bw * widen / rate);
        double theta = 2.0 * std::numbers::pi * f[k].hz / rate;
        double level = std::pow(10.0, f[k].db / 20.0);
        resonator_coefs& c = d->coefs[d->active++];
        c.b0 = (int32_t)std::lround((1.0 - r * r) / 2.0 * level * one);  // unity gain at the centre
        c.a1 = (int32_t)std::lround(2.0 * r * std::cos(theta) * one);
        c.a2 = (int32_t)std::lround(r * r * one);
    }
    d->coefs_key = key;
}

void clear_states(vocal_data* d) {
    for (vocal_channel& c : d->ch) c = vocal_channel{};
    d->tail = d->tail_length;
}

void init(int mod_num, vocal_data* d, psynth_net* net) {
    int* v = d->ctl;
    psynth_register_ctl(mod_num, "Volume", "", 0, 512, 256, PSYNTH_CTL_NUMBER, &v[CTL_VOLUME], net);
    psynth_register_ctl(mod_num, "Vowel", "a/e/i/o/u", 0, kVowels - 1, 0, PSYNTH_CTL_SELECTOR, &v[CTL_VOWEL], net);
    psynth_register_ctl(mod_num, "Voice", "soprano/alto/tenor/bass", 0, kVoices - 1, 0, PSYNTH_CTL_SELECTOR,
                        &v[CTL_VOICE], net);
    psynth_register_ctl(mod_num, "Bandwidth", "", 0, 256, kBandwidthUnity, PSYNTH_CTL_NUMBER, &v[CTL_BANDWIDTH], net);
    psynth_register_ctl(mod_num, "Formants", "", 1, kFormants, kFormants, PSYNTH_CTL_SELECTOR, &v[CTL_FORMANTS], net);
    psynth_register_ctl(mod_num, "Mono", "off/on", 0, 1, 0, PSYNTH_CTL_SELECTOR, &v[CTL_MONO], net);
    d->tail_length = net->sampling_rate;
    clear_states(d);
    update_coefs(d, net->sampling_rate);
}

// One channel over [from, to): the resonators side by side, summed, scaled by the volume.
// Products are brought back toward zero, so a silent input lets every resonator die out.
void render_channel(vocal_channel* st, const resonator_coefs* coefs, int active, int volume,
                    const psynth_sample* in, psynth_sample* out, int from, int to) {
    int32_t x1 = st->x1, x2 = st->x2;
    resonator_state r[kFormants];
    for (int k = 0; k < active; k++) r[k] = st->r[k];
    for (int i = from; i < to; i++) {
        int32_t x = in[i] * (1 << kStateShift);
        int32_t dx = x - x2;
        int64_t sum = 0;
        for (int k = 0; k < active; k++) {
            const resonator_coefs& c = coefs[k];
            int64_t acc = (int64_t)c.b0 * dx + (int64_t)c.a1 * r[k].y1 - (int64_t)c.a2 * r[k].y2;
            int32_t y = (int32_t)psynth_shr_toward_zero(acc, kCoefShift);
            r[k].y2 = r[k].y1;
            r[k].y1 = y;
            sum += y;
        }
        x2 = x1;
        x1 = x;
        out[i] = psynth_wrap16((int32_t)psynth_shr_toward_zero(sum * volume, kStateShift + PSYNTH_GAIN_SHIFT));
    }
    st->x1 = x1;
    st->x2 = x2;
    for (int k = 0; k < active; k++) st->r[k] = r[k];
}

intptr_t render(int mod_num, vocal_data* d, psynth_net* net) {
    psynth_module* mod = &net->modules[mod_num];
    if (!psynth_effect_has_buffers(mod)) return 0;
    int channels = psynth_effect_set_mono(mod_num, d->ctl[CTL_MONO] != 0, kChannels, net);
    int from = mod->render_offset;
    int to = from + mod->render_frames;
    if (!psynth_effect_tail(psynth_effect_has_input(mod, channels, to), &d->tail, d->tail_length, to - from)) return 0;
    if (settings_key(d) != d->coefs_key) update_coefs(d, net->sampling_rate);
    int volume = std::clamp(d->ctl[CTL_VOLUME], 0, 512);
    for (int c = 0; c < channels; c++) {
        if (!mod->input_buffers[c] || !mod->output_buffers[c]) return 0;
        const psynth_sample* in = psynth_effect_input(mod, c, from, to);
        render_channel(&d->ch[c], d->coefs, d->active, volume, in, mod->output_buffers[c], from, to);
    }
    if (d->tail >= d->tail_length) clear_states(d);  // rung out: the next input starts from rest
    return 1;
}

}  // namespace

intptr_t psynth_vocal_filter(int mod_num, psynth_event* event, psynth_net* net) {
    switch (event->command) {
    case PS_CMD_GET_DATA_SIZE: return sizeof(vocal_data);
    case PS_CMD_GET_SYNTH_NAME: return (intptr_t) "Vocal filter";
    case PS_CMD_GET_SYNTH_INFO:
        return (intptr_t) "Vocal filter.\nFormants of the vowels a, e, i, o, u\nfor soprano, alto, tenor and bass";
    case PS_CMD_GET_SYNTH_COLOR: return (intptr_t) "#FF7FA8";
    case PS_CMD_GET_INPUTS_NUM: return kChannels;
    case PS_CMD_GET_OUTPUTS_NUM: return kChannels;
    case PS_CMD_GET_FLAGS: return PSYNTH_FLAG_EFFECT;
    default: break;
    }
    vocal_data* d = psynth_module_data<vocal_data>(mod_num, net);
    if (!d) return 0;
    switch (event->command) {
    case PS_CMD_INIT:
        init(mod_num, d, net);
        return 1;
    case PS_CMD_SETUP_FINISHED:
        update_coefs(d, net->sampling_rate);
        return 1;
    case PS_CMD_CLEAN:
        clear_states(d);
        return 1;
    case PS_CMD_RENDER_REPLACE: return render(mod_num, d, net);
    case PS_CMD_CLOSE: return 1;
    default: return 0;
    }
}
