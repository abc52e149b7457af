// Modulator: modulates the sound of the second module linked into it (the carrier) by
// the first (the modulator), in link order: amplitude (ring) modulation multiplies them,
// phase modulation delays the carrier by an amount the modulator sets.
//
// | # | name              | units                       | min | max | default | kind     |
// |---|-------------------|-----------------------------|-----|-----|---------|----------|
// | 0 | "Volume"          | ""                          | 0   | 512 | 256     | number   |
// | 1 | "Type"            | "amplitude/phase/phase abs" | 0   | 2   | 0       | selector |
// | 2 | "Max phase delay" | ""                          | 0   | 256 | 32      | number   |
// | 3 | "Mono"            | "off/on"                    | 0   | 1   | 0       | selector |
//
// The module reads its two sources itself (flag 0x2000); further linked modules are not
// heard. Channel c of the output takes channel c of both (a mono source feeds both).
//   amplitude — carrier × modulator / 4096 (full scale is 1.0), × "Volume" / 256, one
//     product brought back toward zero; silent unless both sound.
//   phase — the carrier passes through a line of 1/64 second; the modulator, limited to
//     ±full scale, sets the delay from 0 (at −full scale) to "Max phase delay" / 256 of the
//     line (at +full scale), read between two frames with linear interpolation;
//     phase abs — the same with the delay set by |modulator| (0 at silence).
// In the phase modes the line drains for its length after the carrier falls silent.
// Sums wrap at 16 bits like every sum in the net.
#include <cstdint>

#include "psynth/delay_line.h"
#include "psynth/effect_io.h"
#include "psynth/psynth_dsp.h"
#include "psynth/psynth_modules.h"

namespace {

constexpr int kChannels = 2;
constexpr int kLineDivisor = 64;                // the phase line holds 1/64 second
constexpr int kLineSpare = 2;                   // frames beyond the longest delay (interpolation)
constexpr int kFracBits = 8;                    // delays are counted in 1/256 frame
constexpr int kFracOne = 1 << kFracBits;
constexpr int kRingShift = PSYNTH_FULL_SCALE_SHIFT + PSYNTH_GAIN_SHIFT;  // / 4096, × volume / 256
constexpr int kModulatorSource = 1;             // link order: the first linked module modulates
constexpr int kCarrierSource = 2;               // the second is modulated

enum modulator_ctl : int { CTL_VOLUME, CTL_TYPE, CTL_MAX_DELAY, CTL_MONO, CTL_COUNT };
enum modulator_type : int { TYPE_AMPLITUDE, TYPE_PHASE, TYPE_PHASE_ABS };

struct modulator_data {
    int ctl[CTL_COUNT];
    psynth_sample* line;  // both phase lines in one block (delay_line.h)
    int32_t length;       // samples per channel line
    int32_t position;     // write position, shared by both channels
    int32_t tail;         // frames rendered since the carrier fell silent
    uint8_t line_used;    // the line holds sound (cleared when the tail ends)
};

void clear_states(modulator_data* d) {
    psynth_delay_line_clear(d->line);
    d->position = 0;
    d->tail = d->length;
    d->line_used = 0;
}

void init(int mod_num, modulator_data* d, psynth_net* net) {
    int* v = d->ctl;
    psynth_register_ctl(mod_num, "Volume", "", 0, 512, 256, PSYNTH_CTL_NUMBER, &v[CTL_VOLUME], net);
    psynth_register_ctl(mod_num, "Type", "amplitude/phase/phase abs", 0, 2, 0, PSYNTH_CTL_SELECTOR, &v[CTL_TYPE], net);
    psynth_register_ctl(mod_num, "Max phase delay", "", 0, 256, 32, PSYNTH_CTL_NUMBER, &v[CTL_MAX_DELAY], net);
    psynth_register_ctl(mod_num, "Mono", "off/on", 0, 1, 0, PSYNTH_CTL_SELECTOR, &v[CTL_MONO], net);
    d->length = net->sampling_rate / kLineDivisor + kLineSpare;
    d->line = psynth_delay_line_new(d->length, "psynth_modulator");
    clear_states(d);
}

// True when `src` sounds on one of the channels [0, channels) before frame `to`.
bool source_sounds(int src, int channels, int to, const psynth_net* net) {
    if (!psynth_linked_module_exists(src, net)) return false;
    for (int c = 0; c < channels; c++) {
        int start;
        if (psynth_source_output(&net->modules[src], c, &start) && start < to) return true;
    }
    return false;
}

void ring(const psynth_sample* m, const psynth_sample* x, psynth_sample* out, int from, int to, int32_t volume) {
    for (int i = from; i < to; i++) {
        out[i] = psynth_wrap16((int32_t)psynth_shr_toward_zero((int64_t)m[i] * x[i] * volume, kRingShift));
    }
}

// The carrier through the line, read `delay` (1/256 frame) behind the frame just written,
// where the delay is (modulator + 4096) × max / 8192, or |modulator| × max / 4096 with `absolute`.
int32_t phase(const psynth_sample* m, const psynth_sample* x, psynth_sample* out, int from, int to,
              psynth_sample* line, int32_t length, int32_t p, int32_t max_delay, bool absolute, int32_t volume) {
    for (int i = from; i < to; i++) {
        line[p] = x[i];
        int32_t level = psynth_clamp(m[i], -PSYNTH_FULL_SCALE, PSYNTH_FULL_SCALE);
        // |level| over 0..4096, or level + 4096 over 0..8192, scales the longest delay.
        int64_t reach = absolute ? (level < 0 ? -level : level) : level + PSYNTH_FULL_SCALE;
        int32_t delay = (int32_t)((reach * max_delay) >> (PSYNTH_FULL_SCALE_SHIFT + (absolute ? 0 : 1)));
        int32_t q0 = p - (delay >> kFracBits);
        if (q0 < 0) q0 += length;
        int32_t q1 = q0 > 0 ? q0 - 1 : length - 1;
        int32_t frac = delay & (kFracOne - 1);
        int32_t y = psynth_div256_toward_zero(line[q0] * (kFracOne - frac) + line[q1] * frac);
        out[i] = psynth_apply_gain((psynth_sample)y, volume);
        p = psynth_delay_line_next(p, length);
    }
    return p;
}

intptr_t render(int mod_num, modulator_data* d, psynth_net* net) {
    psynth_module* mod = &net->modules[mod_num];
    int channels = psynth_effect_set_mono(mod_num, d->ctl[CTL_MONO] != 0, kChannels, net);
    if (!mod->input_buffers[0] || !mod->input_buffers[1] || !d->line) return 0;
    for (int c = 0; c < channels; c++) {
        if (!mod->output_buffers[c]) return 0;
    }
    int from = mod->render_offset;
    int to = from + mod->render_frames;
    const int type = d->ctl[CTL_TYPE];
    const int src_m = psynth_nth_linked_module(mod, kModulatorSource, net);
    const int src_x = psynth_nth_linked_module(mod, kCarrierSource, net);
    const bool carrier = source_sounds(src_x, channels, to, net);
    if (type == TYPE_AMPLITUDE) {
        if (!carrier || !source_sounds(src_m, channels, to, net)) {
            if (d->line_used) clear_states(d);
            return 0;
        }
    } else if (!psynth_effect_tail(carrier, &d->tail, d->length, to - from)) {
        if (d->line_used) clear_states(d);
        return 0;
    }
    d->line_used = 1;

    // The module's own input buffers are free (the net does not mix into them): they
    // hold the modulator's and the carrier's channel with zeros before their starts.
    psynth_sample* m = mod->input_buffers[0];
    psynth_sample* x = mod->input_buffers[1];
    const int32_t volume = d->ctl[CTL_VOLUME];
    const int32_t max_delay = (d->length - kLineSpare) * d->ctl[CTL_MAX_DELAY];  // 1/256 frame
    int32_t end_position = d->position;
    for (int c = 0; c < channels; c++) {
        psynth_source_input(src_m, c, from, to, m, net);
        psynth_source_input(src_x, c, from, to, x, net);
        psynth_sample* line = psynth_delay_line_channel(d->line, d->length, c);
        if (type == TYPE_AMPLITUDE) {
            ring(m, x, mod->output_buffers[c], from, to, volume);
            // The line keeps the carrier, so a switch to phase modulation starts from it.
            int32_t p = d->position;
            for (int i = from; i < to; i++, p = psynth_delay_line_next(p, d->length)) line[p] = x[i];
            end_position = p;
        } else {
            end_position = phase(m, x, mod->output_buffers[c], from, to, line, d->length, d->position, max_delay,
                                 type == TYPE_PHASE_ABS, volume);
        }
    }
    d->position = end_position;
    return 1;
}

}  // namespace

intptr_t psynth_modulator(int mod_num, psynth_event* event, psynth_net* net) {
    switch (event->command) {
    case PS_CMD_GET_DATA_SIZE: return sizeof(modulator_data);
    case PS_CMD_GET_SYNTH_NAME: return (intptr_t) "Modulator";
    case PS_CMD_GET_SYNTH_INFO:
        return (intptr_t) "Modulator.\nThe first linked module modulates\nthe second (amplitude or phase)";
    case PS_CMD_GET_SYNTH_COLOR: return (intptr_t) "#C57FFF";
    case PS_CMD_GET_INPUTS_NUM: return kChannels;
    case PS_CMD_GET_OUTPUTS_NUM: return kChannels;
    case PS_CMD_GET_FLAGS: return PSYNTH_FLAG_EFFECT | PSYNTH_FLAG_NO_INPUT_MIXING;
    default: break;
    }
    modulator_data* d = psynth_module_data<modulator_data>(mod_num, net);
    if (!d) return 0;
    switch (event->command) {
    case PS_CMD_INIT:
        init(mod_num, d, net);
        return 1;
    case PS_CMD_CLEAN:
        clear_states(d);
        return 1;
    case PS_CMD_RENDER_REPLACE: return render(mod_num, d, net);
    case PS_CMD_CLOSE:
        psynth_delay_line_free(d->line);
        d->line = nullptr;
        return 1;
    default: return 0;
    }
}
