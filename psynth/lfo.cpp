// LFO: tremolo or auto-pan. A low-frequency oscillator (lfo_wave.h) swings the gain of
// the signal ("amplitude") or moves it between left and right ("panning"); its phase runs
// on while the input is silent, so the modulation keeps its timing across pauses.
//
// | # | name        | units                             | min | max  | default | kind     |
// |---|-------------|-----------------------------------|-----|------|---------|----------|
// | 0 | "Volume"    | ""                                | 0   | 256  | 256     | number   |
// | 1 | "Type"      | "amplitude/panning"               | 0   | 1    | 0       | selector |
// | 2 | "Shape"     | "sine/triangle/saw/square/random" | 0   | 4    | 0       | selector |
// | 3 | "Freq"      | "Hz/100"                          | 0   | 4096 | 256     | number   |
// | 4 | "Depth"     | ""                                | 0   | 256  | 256     | number   |
// | 5 | "Set phase" | ""                                | 0   | 256  | 0       | number   |
// | 6 | "Mono"      | "off/on"                          | 0   | 1    | 0       | selector |
//
// Amplitude: the gain swings between "Volume" at the LFO's top and
// "Volume" × (256 − "Depth") / 256 at its bottom. Panning: a balance control swung by the
// LFO; at the centre both sides pass at "Volume", towards one side the other one fades,
// reaching silence when "Depth" is 256. "Mono" takes only the first input: amplitude
// then gives one output channel, panning spreads that one input over both outputs.
// "Set phase" (0..256 is one cycle) restarts the LFO there when it is changed, and CLEAN
// restarts it at the stored value, so a song's modulation is the same on every play.
#include <algorithm>
#include <cstdint>

#include "psynth/effect_io.h"
#include "psynth/lfo_wave.h"
#include "psynth/psynth_dsp.h"
#include "psynth/psynth_modules.h"

namespace {

constexpr int kChannels = 2;
constexpr int kAmpGainShift = 16;  // the amplitude gain is in 1/65536
constexpr int kPanGainShift = 15;  // the panning gains are in 1/32768

enum lfo_ctl : int { CTL_VOLUME, CTL_TYPE, CTL_SHAPE, CTL_FREQ, CTL_DEPTH, CTL_PHASE, CTL_MONO, CTL_COUNT };
enum lfo_type : int { TYPE_AMPLITUDE, TYPE_PANNING };

struct lfo_data {
    int ctl[CTL_COUNT];
    psynth_lfo_osc lfo;
};

void init(int mod_num, lfo_data* d, psynth_net* net) {
    int* v = d->ctl;
    psynth_register_ctl(mod_num, "Volume", "", 0, 256, 256, PSYNTH_CTL_NUMBER, &v[CTL_VOLUME], net);
    psynth_register_ctl(mod_num, "Type", "amplitude/panning", 0, 1, 0, PSYNTH_CTL_SELECTOR, &v[CTL_TYPE], net);
    psynth_register_ctl(mod_num, "Shape", PSYNTH_LFO_SHAPE_NAMES, 0, PSYNTH_LFO_SHAPES - 1, 0, PSYNTH_CTL_SELECTOR,
                        &v[CTL_SHAPE], net);
    psynth_register_ctl(mod_num, "Freq", "Hz/100", 0, 4096, 256, PSYNTH_CTL_NUMBER, &v[CTL_FREQ], net);
    psynth_register_ctl(mod_num, "Depth", "", 0, 256, 256, PSYNTH_CTL_NUMBER, &v[CTL_DEPTH], net);
    psynth_register_ctl(mod_num, "Set phase", "", 0, 256, 0, PSYNTH_CTL_NUMBER, &v[CTL_PHASE], net);
    psynth_register_ctl(mod_num, "Mono", "off/on", 0, 1, 0, PSYNTH_CTL_SELECTOR, &v[CTL_MONO], net);
    psynth_lfo_reset(&d->lfo, 0);
}

// A controller value as stored, kept inside its range (a damaged song file may hold anything).
int ctl_in_range(const lfo_data* d, int ctl, int max) { return std::clamp(d->ctl[ctl], 0, max); }

// Amplitude over [from, to): gain = Volume × (1 − Depth × (1 − lfo) / 2), in 1/65536.
void render_amplitude(psynth_lfo_osc* lfo, int shape, int depth, int volume, const psynth_sample* const* in,
                      psynth_sample* const* out, int channels, int from, int to) {
    for (int i = from; i < to; i++) {
        int32_t m = psynth_lfo_value(lfo, shape);
        psynth_lfo_advance(lfo, 1);
        int32_t dip = (depth * (PSYNTH_LFO_ONE - m)) >> PSYNTH_GAIN_SHIFT;  // 0..65536
        int32_t gain = (((1 << kAmpGainShift) - dip) * volume) >> PSYNTH_GAIN_SHIFT;
        for (int c = 0; c < channels; c++) {
            out[c][i] = (psynth_sample)psynth_shr_toward_zero((int64_t)in[c][i] * gain, kAmpGainShift);
        }
    }
}

// Panning over [from, to): the LFO times Depth is the balance, −1 left .. +1 right;
// the side it moves away from is attenuated. A mono input feeds both sides.
void render_panning(psynth_lfo_osc* lfo, int shape, int depth, int volume, const psynth_sample* const* in,
                    psynth_sample* const* out, int from, int to) {
    for (int i = from; i < to; i++) {
        int32_t m = psynth_lfo_value(lfo, shape);
        psynth_lfo_advance(lfo, 1);
        int32_t pan = (int32_t)psynth_shr_toward_zero((int64_t)m * depth, PSYNTH_GAIN_SHIFT);
        int32_t left = ((PSYNTH_LFO_ONE - (pan > 0 ? pan : 0)) * volume) >> PSYNTH_GAIN_SHIFT;
        int32_t right = ((PSYNTH_LFO_ONE + (pan < 0 ? pan : 0)) * volume) >> PSYNTH_GAIN_SHIFT;
        out[0][i] = (psynth_sample)psynth_shr_toward_zero((int64_t)in[0][i] * left, kPanGainShift);
        out[1][i] = (psynth_sample)psynth_shr_toward_zero((int64_t)in[1][i] * right, kPanGainShift);
    }
}

intptr_t render(int mod_num, lfo_data* d, psynth_net* net) {
    psynth_module* mod = &net->modules[mod_num];
    if (!psynth_effect_has_buffers(mod)) return 0;
    int type = ctl_in_range(d, CTL_TYPE, TYPE_PANNING);
    bool mono = d->ctl[CTL_MONO] != 0;
    int in_channels = mono ? 1 : kChannels;
    int out_channels = type == TYPE_PANNING ? kChannels : in_channels;
    psynth_set_number_of_outputs(mod_num, out_channels, net);
    int from = mod->render_offset;
    int to = from + mod->render_frames;
    d->lfo.step = psynth_lfo_step(ctl_in_range(d, CTL_FREQ, 4096), net->sampling_rate);
    if (!psynth_effect_has_input(mod, in_channels, to)) {
        psynth_lfo_advance(&d->lfo, to - from);  // the LFO runs on in silence
        return 0;
    }
    const psynth_sample* in[kChannels] = {};
    psynth_sample* out[kChannels] = {};
    for (int c = 0; c < out_channels; c++) {
        if (!mod->output_buffers[c]) return 0;
        out[c] = mod->output_buffers[c];
    }
    for (int c = 0; c < in_channels; c++) {
        if (!mod->input_buffers[c]) return 0;
        in[c] = psynth_effect_input(mod, c, from, to);
    }
    if (mono) in[1] = in[0];
    int shape = ctl_in_range(d, CTL_SHAPE, PSYNTH_LFO_SHAPES - 1);
    int depth = ctl_in_range(d, CTL_DEPTH, 256);
    int volume = ctl_in_range(d, CTL_VOLUME, 256);
    if (type == TYPE_PANNING) {
        render_panning(&d->lfo, shape, depth, volume, in, out, from, to);
    } else {
        render_amplitude(&d->lfo, shape, depth, volume, in, out, in_channels, from, to);
    }
    return 1;
}

}  // namespace

intptr_t psynth_lfo(int mod_num, psynth_event* event, psynth_net* net) {
    switch (event->command) {
    case PS_CMD_GET_DATA_SIZE: return sizeof(lfo_data);
    case PS_CMD_GET_SYNTH_NAME: return (intptr_t) "LFO";
    case PS_CMD_GET_SYNTH_INFO:
        return (intptr_t) "LFO.\nAmplitude (tremolo) or panning\nmodulation by a low-frequency oscillator";
    case PS_CMD_GET_SYNTH_COLOR: return (intptr_t) "#FFE97F";
    case PS_CMD_GET_INPUTS_NUM: return kChannels;
    case PS_CMD_GET_OUTPUTS_NUM: return kChannels;
    case PS_CMD_GET_FLAGS: return PSYNTH_FLAG_EFFECT;
    default: break;
    }
    lfo_data* d = psynth_module_data<lfo_data>(mod_num, net);
    if (!d) return 0;
    switch (event->command) {
    case PS_CMD_INIT:
        init(mod_num, d, net);
        return 1;
    case PS_CMD_SETUP_FINISHED:
    case PS_CMD_CLEAN:
        psynth_lfo_reset(&d->lfo, psynth_lfo_phase_of_ctl(ctl_in_range(d, CTL_PHASE, 256)));
        return 1;
    case PS_CMD_RENDER_REPLACE: return render(mod_num, d, net);
    case PS_CMD_SET_GLOBAL_CONTROLLER:
        psynth_lfo_phase_event(&d->lfo, event, CTL_PHASE, &net->modules[mod_num]);
        return 0;  // the net stores the value as well
    case PS_CMD_CLOSE: return 1;
    default: return 0;
    }
}
