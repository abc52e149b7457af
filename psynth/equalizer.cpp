// 3Band Equalizer: splits each channel into low, middle and high bands with two one-pole
// low-passes at the crossovers and sets the level of each band. The bands are formed so
// that they always add up to the input: at unity gains the output is the input exactly.
//
// | # | name          | units    | min | max   | default | kind     |
// |---|---------------|----------|-----|-------|---------|----------|
// | 0 | "Low"         | ""       | 0   | 512   | 256     | number   |
// | 1 | "Middle"      | ""       | 0   | 512   | 256     | number   |
// | 2 | "High"        | ""       | 0   | 512   | 256     | number   |
// | 3 | "Low cutoff"  | "Hz"     | 10  | 4000  | 800     | number   |
// | 4 | "High cutoff" | "Hz"     | 100 | 20000 | 5000    | number   |
// | 5 | "Mono"        | "off/on" | 0   | 1     | 0       | selector |
//
// Gains use 256 as unity (512: +6 dB, 0: the band removed). With A and B the low-passes
// at "Low cutoff" and "High cutoff": low = A, middle = B − A, high = input − B. The slopes
// are 6 dB per octave, so a band cut is deep only an octave or more away from its
// crossover (the low band cut at 800 Hz takes about 24 dB off 50 Hz). If the low cutoff is
// set above the high one, the bands still add up to the input.
// Arithmetic: the input enters × 4096; a low-pass moves by (x − s) × a / 65536 toward zero,
// a = 1 − e^(−2π·f/rate) in 1/65536; the weighted bands are brought back toward zero.
// After the input falls silent the filters ring out for one second, then the module clears
// its state and is silent.
#include <cmath>
#include <cstdint>

#include "psynth/effect_io.h"
#include "psynth/psynth_dsp.h"
#include "psynth/psynth_modules.h"

namespace {

constexpr int kChannels = 2;
constexpr int kStateShift = 12;  // the filter states hold the input × 4096
constexpr int kCoefShift = 16;   // low-pass coefficients in 1/65536
constexpr int kCoefMax = (1 << kCoefShift) - 1;
constexpr int kOutShift = kStateShift + PSYNTH_GAIN_SHIFT;
constexpr double kTwoPi = 6.283185307179586;

enum equalizer_ctl : int { CTL_LOW, CTL_MIDDLE, CTL_HIGH, CTL_LOW_CUTOFF, CTL_HIGH_CUTOFF, CTL_MONO, CTL_COUNT };

struct equalizer_channel {
    int32_t low;   // the low-pass at "Low cutoff"
    int32_t high;  // the low-pass at "High cutoff"
};

struct equalizer_data {
    int ctl[CTL_COUNT];
    equalizer_channel ch[kChannels];
    int32_t coef_low;   // for the cutoff values below
    int32_t coef_high;
    int32_t coef_low_hz;
    int32_t coef_high_hz;
    int32_t rate;
    int32_t tail;         // frames rendered since the input fell silent
    int32_t tail_length;  // one second
};

void clear_states(equalizer_data* d) {
    for (equalizer_channel& c : d->ch) c = equalizer_channel{};
}

// a = 1 − e^(−2π·hz/rate) in 1/65536, within 1..65535 so that a low-pass always moves.
int32_t lowpass_coef(int hz, int rate) {
    double a = 1.0 - std::exp(-kTwoPi * hz / (rate > 0 ? rate : 1));
    return psynth_clamp((int32_t)std::lround(a * (1 << kCoefShift)), 1, kCoefMax);
}

void init(int mod_num, equalizer_data* d, psynth_net* net) {
    int* v = d->ctl;
    psynth_register_ctl(mod_num, "Low", "", 0, 512, 256, PSYNTH_CTL_NUMBER, &v[CTL_LOW], net);
    psynth_register_ctl(mod_num, "Middle", "", 0, 512, 256, PSYNTH_CTL_NUMBER, &v[CTL_MIDDLE], net);
    psynth_register_ctl(mod_num, "High", "", 0, 512, 256, PSYNTH_CTL_NUMBER, &v[CTL_HIGH], net);
    psynth_register_ctl(mod_num, "Low cutoff", "Hz", 10, 4000, 800, PSYNTH_CTL_NUMBER, &v[CTL_LOW_CUTOFF], net);
    psynth_register_ctl(mod_num, "High cutoff", "Hz", 100, 20000, 5000, PSYNTH_CTL_NUMBER, &v[CTL_HIGH_CUTOFF], net);
    psynth_register_ctl(mod_num, "Mono", "off/on", 0, 1, 0, PSYNTH_CTL_SELECTOR, &v[CTL_MONO], net);
    d->rate = net->sampling_rate;
    d->coef_low_hz = d->coef_high_hz = -1;  // computed at the first render
    d->tail_length = net->sampling_rate;
    d->tail = d->tail_length;
    clear_states(d);
}

// One low-pass step toward x (both × 4096).
inline int32_t lowpass(int32_t s, int32_t x, int32_t a) {
    return s + (int32_t)psynth_shr_toward_zero((int64_t)(x - s) * a, kCoefShift);
}

void equalize(equalizer_channel* st, int32_t a, int32_t b, int32_t g_low, int32_t g_mid, int32_t g_high,
              const psynth_sample* in, psynth_sample* out, int from, int to) {
    int32_t low = st->low, high = st->high;
    for (int i = from; i < to; i++) {
        int32_t x = in[i] * (1 << kStateShift);
        low = lowpass(low, x, a);
        high = lowpass(high, x, b);
        int64_t sum = (int64_t)low * g_low + (int64_t)(high - low) * g_mid + (int64_t)(x - high) * g_high;
        out[i] = psynth_wrap16((int32_t)psynth_shr_toward_zero(sum, kOutShift));
    }
    st->low = low;
    st->high = high;
}

intptr_t render(int mod_num, equalizer_data* d, psynth_net* net) {
    psynth_module* mod = &net->modules[mod_num];
    int channels = psynth_effect_set_mono(mod_num, d->ctl[CTL_MONO] != 0, kChannels, net);
    if (!psynth_effect_has_buffers(mod, channels)) return 0;
    int from = mod->render_offset;
    int to = from + mod->render_frames;
    if (!psynth_effect_tail(psynth_effect_has_input(mod, channels, to), &d->tail, d->tail_length, to - from)) {
        clear_states(d);
        return 0;
    }
    // Cutoffs may be set directly (loading, the editor), so they are compared here.
    if (d->coef_low_hz != d->ctl[CTL_LOW_CUTOFF]) {
        d->coef_low_hz = d->ctl[CTL_LOW_CUTOFF];
        d->coef_low = lowpass_coef(d->coef_low_hz, d->rate);
    }
    if (d->coef_high_hz != d->ctl[CTL_HIGH_CUTOFF]) {
        d->coef_high_hz = d->ctl[CTL_HIGH_CUTOFF];
        d->coef_high = lowpass_coef(d->coef_high_hz, d->rate);
    }
    for (int c = 0; c < channels; c++) {
        equalize(&d->ch[c], d->coef_low, d->coef_high, d->ctl[CTL_LOW], d->ctl[CTL_MIDDLE], d->ctl[CTL_HIGH],
                 psynth_effect_input(mod, c, from, to), mod->output_buffers[c], from, to);
    }
    return 1;
}

}  // namespace

intptr_t psynth_equalizer(int mod_num, psynth_event* event, psynth_net* net) {
    switch (event->command) {
    case PS_CMD_GET_DATA_SIZE: return sizeof(equalizer_data);
    case PS_CMD_GET_SYNTH_NAME: return (intptr_t) "3Band Equalizer";
    case PS_CMD_GET_SYNTH_INFO:
        return (intptr_t) "3Band Equalizer.\nLow, middle and high levels\nwith adjustable crossovers";
    case PS_CMD_GET_SYNTH_COLOR: return (intptr_t) "#9FFF7F";
    case PS_CMD_GET_INPUTS_NUM: return kChannels;
    case PS_CMD_GET_OUTPUTS_NUM: return kChannels;
    case PS_CMD_GET_FLAGS: return PSYNTH_FLAG_EFFECT;
    default: break;
    }
    equalizer_data* d = psynth_module_data<equalizer_data>(mod_num, net);
    if (!d) return 0;
    switch (event->command) {
    case PS_CMD_INIT:
        init(mod_num, d, net);
        return 1;
    case PS_CMD_CLEAN:
        clear_states(d);
        d->tail = d->tail_length;
        return 1;
    case PS_CMD_RENDER_REPLACE: return render(mod_num, d, net);
    case PS_CMD_CLOSE: return 1;
    default: return 0;
    }
}
