// Flanger: a short delay swept by its own LFO (lfo_wave.h) and mixed with the dry
// signal, so that the comb of notches the delay cuts into the sound sweeps up and down
// in frequency; feedback deepens the comb into resonant peaks.
//
// | # | name            | units                             | min | max  | default | kind     |
// |---|-----------------|-----------------------------------|-----|------|---------|----------|
// | 0 | "Dry"           | ""                                | 0   | 256  | 256     | number   |
// | 1 | "Wet"           | ""                                | 0   | 256  | 256     | number   |
// | 2 | "Feedback"      | ""                                | 0   | 255  | 128     | number   |
// | 3 | "Delay"         | ""                                | 0   | 256  | 64      | number   |
// | 4 | "LFO freq"      | "Hz/100"                          | 0   | 1024 | 50      | number   |
// | 5 | "LFO amp"       | ""                                | 0   | 256  | 128     | number   |
// | 6 | "LFO waveform"  | "sine/triangle/saw/square/random" | 0   | 4    | 0       | selector |
// | 7 | "Set LFO phase" | ""                                | 0   | 256  | 0       | number   |
//
// The delay is one frame plus "Delay" × (1/128 second) / 256, plus "LFO amp" × (1/128
// second) / 256 × (1 + lfo) / 2: the LFO sweeps it upward from the "Delay" setting.
// With Dry and Wet equal and no feedback, a delay of d frames cuts notches at
// rate × (2k + 1) / (2d) Hz. The delayed sample is read between frames (linear
// interpolation), so the sweep is smooth. "Feedback" stops at 255/256 so the ring always
// dies away, and the line saturates instead of wrapping when the resonance runs hot.
// Without input the module renders until a whole line length of its wet signal was
// silent, then reports silence. "Set LFO phase" restarts the sweep (0..256 is one cycle);
// CLEAN restarts it at the stored value.
#include <algorithm>
#include <cstdint>

#include "psynth/delay_line.h"
#include "psynth/effect_io.h"
#include "psynth/lfo_wave.h"
#include "psynth/psynth_dsp.h"
#include "psynth/psynth_modules.h"

namespace {

constexpr int kChannels = 2;
constexpr int kSpanDivisor = 128;  // "Delay" and "LFO amp" of 256 each span 1/128 second
constexpr int kLineMargin = 4;     // the one-frame minimum and the interpolation's neighbour
constexpr int kMaxFreq = 1024;

enum flanger_ctl : int {
    CTL_DRY,
    CTL_WET,
    CTL_FEEDBACK,
    CTL_DELAY,
    CTL_LFO_FREQ,
    CTL_LFO_AMP,
    CTL_LFO_SHAPE,
    CTL_LFO_PHASE,
    CTL_COUNT
};

struct flanger_data {
    int ctl[CTL_COUNT];
    psynth_lfo_osc lfo;
    psynth_sample* line;  // both lines in one block (delay_line.h)
    int32_t length;       // samples per channel line
    int32_t position;     // write position, shared by both channels
    int32_t span;         // frames of "Delay" 256 (and of "LFO amp" 256)
    int32_t quiet;        // frames of silent wet signal since the input fell silent
};

void restart_lfo(flanger_data* d) {
    psynth_lfo_reset(&d->lfo, psynth_lfo_phase_of_ctl(std::clamp(d->ctl[CTL_LFO_PHASE], 0, 256)));
}

void init(int mod_num, flanger_data* d, psynth_net* net) {
    int* v = d->ctl;
    psynth_register_ctl(mod_num, "Dry", "", 0, 256, 256, PSYNTH_CTL_NUMBER, &v[CTL_DRY], net);
    psynth_register_ctl(mod_num, "Wet", "", 0, 256, 256, PSYNTH_CTL_NUMBER, &v[CTL_WET], net);
    psynth_register_ctl(mod_num, "Feedback", "", 0, 255, 128, PSYNTH_CTL_NUMBER, &v[CTL_FEEDBACK], net);
    psynth_register_ctl(mod_num, "Delay", "", 0, 256, 64, PSYNTH_CTL_NUMBER, &v[CTL_DELAY], net);
    psynth_register_ctl(mod_num, "LFO freq", "Hz/100", 0, kMaxFreq, 50, PSYNTH_CTL_NUMBER, &v[CTL_LFO_FREQ], net);
    psynth_register_ctl(mod_num, "LFO amp", "", 0, 256, 128, PSYNTH_CTL_NUMBER, &v[CTL_LFO_AMP], net);
    psynth_register_ctl(mod_num, "LFO waveform", PSYNTH_LFO_SHAPE_NAMES, 0, PSYNTH_LFO_SHAPES - 1, 0,
                        PSYNTH_CTL_SELECTOR, &v[CTL_LFO_SHAPE], net);
    psynth_register_ctl(mod_num, "Set LFO phase", "", 0, 256, 0, PSYNTH_CTL_NUMBER, &v[CTL_LFO_PHASE], net);
    d->span = net->sampling_rate / kSpanDivisor;
    d->length = 2 * d->span + kLineMargin;
    d->line = psynth_delay_line_new(d->length, "psynth_flanger");
    d->position = 0;
    d->quiet = d->length;
    restart_lfo(d);
}

// The sweep of one render, in 1/65536 frame: delay = base + sweep × (lfo + 32768) / 65536.
struct flanger_sweep {
    uint32_t base;
    int64_t sweep;
    int shape;
};

// One channel over [from, to) from the LFO state `lfo`. Returns the write position after
// the last frame; *wet_heard becomes true when a delayed sample was not zero.
int32_t render_channel(psynth_sample* line, int32_t length, int32_t p, psynth_lfo_osc* lfo, const flanger_sweep& s,
                       const int* ctl, const psynth_sample* in, psynth_sample* out, int from, int to,
                       bool* wet_heard) {
    // Clamped: a damaged song file may hold any value.
    int dry = std::clamp(ctl[CTL_DRY], 0, 256);
    int wet = std::clamp(ctl[CTL_WET], 0, 256);
    int feedback = std::clamp(ctl[CTL_FEEDBACK], 0, 255);
    int32_t heard = 0;
    for (int i = from; i < to; i++) {
        int32_t m = psynth_lfo_value(lfo, s.shape);
        psynth_lfo_advance(lfo, 1);
        uint32_t delay = s.base + (uint32_t)((s.sweep * (m + PSYNTH_LFO_ONE)) >> PSYNTH_DELAY_FRAC_BITS);
        psynth_sample y = psynth_delay_line_read_frac(line, length, p, delay);
        heard |= y;
        int32_t w = in[i] + psynth_apply_gain(y, feedback);
        line[p] = (psynth_sample)std::clamp<int32_t>(w, INT16_MIN, INT16_MAX);
        out[i] = psynth_add_wrap(psynth_apply_gain(in[i], dry), psynth_apply_gain(y, wet));
        p = psynth_delay_line_next(p, length);
    }
    if (heard) *wet_heard = true;
    return p;
}

intptr_t render(int mod_num, flanger_data* d, psynth_net* net) {
    psynth_module* mod = &net->modules[mod_num];
    if (!psynth_effect_has_buffers(mod, kChannels) || !d->line) return 0;
    int from = mod->render_offset;
    int to = from + mod->render_frames;
    d->lfo.step = psynth_lfo_step(std::clamp(d->ctl[CTL_LFO_FREQ], 0, kMaxFreq), net->sampling_rate);
    bool has_input = psynth_effect_has_input(mod, kChannels, to);
    if (!has_input && d->quiet >= d->length) {
        psynth_lfo_advance(&d->lfo, to - from);  // the sweep runs on in silence
        return 0;
    }

    flanger_sweep s;
    s.base = (1u << PSYNTH_DELAY_FRAC_BITS) +
             ((uint32_t)(d->span * std::clamp(d->ctl[CTL_DELAY], 0, 256)) << (PSYNTH_DELAY_FRAC_BITS - PSYNTH_GAIN_SHIFT));
    s.sweep = (int64_t)d->span * std::clamp(d->ctl[CTL_LFO_AMP], 0, 256) << (PSYNTH_DELAY_FRAC_BITS - PSYNTH_GAIN_SHIFT);
    s.shape = std::clamp(d->ctl[CTL_LFO_SHAPE], 0, PSYNTH_LFO_SHAPES - 1);
    psynth_lfo_osc start = d->lfo;
    int32_t end_position = d->position;
    bool wet_heard = false;
    for (int c = 0; c < kChannels; c++) {
        psynth_lfo_osc lfo = start;
        const psynth_sample* in = psynth_effect_input(mod, c, from, to);
        end_position = render_channel(psynth_delay_line_channel(d->line, d->length, c), d->length, d->position,
                                      &lfo, s, d->ctl, in, mod->output_buffers[c], from, to, &wet_heard);
        d->lfo = lfo;
    }
    d->position = end_position;
    if (has_input || wet_heard) {
        d->quiet = 0;
    } else {
        d->quiet += to - from;
    }
    return 1;
}

}  // namespace

intptr_t psynth_flanger(int mod_num, psynth_event* event, psynth_net* net) {
    switch (event->command) {
    case PS_CMD_GET_DATA_SIZE: return sizeof(flanger_data);
    case PS_CMD_GET_SYNTH_NAME: return (intptr_t) "Flanger";
    case PS_CMD_GET_SYNTH_INFO: return (intptr_t) "Flanger.\nShort delay swept by an LFO,\nwith feedback";
    case PS_CMD_GET_SYNTH_COLOR: return (intptr_t) "#9F7FFF";
    case PS_CMD_GET_INPUTS_NUM: return kChannels;
    case PS_CMD_GET_OUTPUTS_NUM: return kChannels;
    case PS_CMD_GET_FLAGS: return PSYNTH_FLAG_EFFECT;
    default: break;
    }
    flanger_data* d = psynth_module_data<flanger_data>(mod_num, net);
    if (!d) return 0;
    switch (event->command) {
    case PS_CMD_INIT:
        init(mod_num, d, net);
        return 1;
    case PS_CMD_SETUP_FINISHED:
        restart_lfo(d);
        return 1;
    case PS_CMD_CLEAN:
        psynth_delay_line_clear(d->line);
        d->position = 0;
        d->quiet = d->length;
        restart_lfo(d);
        return 1;
    case PS_CMD_RENDER_REPLACE: return render(mod_num, d, net);
    case PS_CMD_SET_GLOBAL_CONTROLLER:
        psynth_lfo_phase_event(&d->lfo, event, CTL_LFO_PHASE, &net->modules[mod_num]);
        return 0;  // the net stores the value as well
    case PS_CMD_CLOSE:
        psynth_delay_line_free(d->line);
        d->line = nullptr;
        return 1;
    default: return 0;
    }
}
