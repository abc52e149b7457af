// DC Blocker: removes the constant offset of a signal with the net's shared one-pole
// high-pass (psynth_dsp.h, cut near 5 Hz), on both channels or, with "Mono" on, on the
// left input only into a single output.
//
// | # | name   | units    | min | max | default | kind     |
// |---|--------|----------|-----|-----|---------|----------|
// | 0 | "Mono" | "off/on" | 0   | 1   | 0       | selector |
//
// A constant input decays toward 0 within a few hundred milliseconds. After the input
// falls silent the filter renders one second of tail (the settling of an offset that
// stopped), then clears its state and is silent.
#include <cstdint>

#include "psynth/effect_io.h"
#include "psynth/psynth_dsp.h"
#include "psynth/psynth_modules.h"

namespace {

constexpr int kChannels = 2;

enum dc_blocker_ctl : int { CTL_MONO, CTL_COUNT };

struct dc_blocker_data {
    int ctl[CTL_COUNT];
    psynth_dc_blocker state[kChannels];
    int32_t coef;
    int32_t tail;         // frames rendered since the input fell silent
    int32_t tail_length;  // one second
};

void clear_states(dc_blocker_data* d) {
    for (psynth_dc_blocker& b : d->state) b = psynth_dc_blocker{};
}

void init(int mod_num, dc_blocker_data* d, psynth_net* net) {
    psynth_register_ctl(mod_num, "Mono", "off/on", 0, 1, 0, PSYNTH_CTL_SELECTOR, &d->ctl[CTL_MONO], net);
    d->coef = psynth_dc_blocker_coef(net->sampling_rate);
    d->tail_length = net->sampling_rate;
    d->tail = d->tail_length;
    clear_states(d);
}

intptr_t render(int mod_num, dc_blocker_data* d, psynth_net* net) {
    psynth_module* mod = &net->modules[mod_num];
    int channels = psynth_effect_set_mono(mod_num, d->ctl[CTL_MONO] != 0, kChannels, net);
    if (!psynth_effect_has_buffers(mod, channels)) return 0;
    int from = mod->render_offset;
    int to = from + mod->render_frames;
    if (!psynth_effect_tail(psynth_effect_has_input(mod, channels, to), &d->tail, d->tail_length, to - from)) {
        clear_states(d);
        return 0;
    }
    for (int c = 0; c < channels; c++) {
        const psynth_sample* in = psynth_effect_input(mod, c, from, to);
        psynth_dc_block_run(&d->state[c], d->coef, in, mod->output_buffers[c], from, to);
    }
    return 1;
}

}  // namespace

intptr_t psynth_dcblocker(int mod_num, psynth_event* event, psynth_net* net) {
    switch (event->command) {
    case PS_CMD_GET_DATA_SIZE: return sizeof(dc_blocker_data);
    case PS_CMD_GET_SYNTH_NAME: return (intptr_t) "DC Blocker";
    case PS_CMD_GET_SYNTH_INFO: return (intptr_t) "DC Blocker.\nRemoves the constant offset\n(below about 5 Hz)";
    case PS_CMD_GET_SYNTH_COLOR: return (intptr_t) "#7FA8FF";
    case PS_CMD_GET_INPUTS_NUM: return kChannels;
    case PS_CMD_GET_OUTPUTS_NUM: return kChannels;
    case PS_CMD_GET_FLAGS: return PSYNTH_FLAG_EFFECT;
    default: break;
    }
    dc_blocker_data* d = psynth_module_data<dc_blocker_data>(mod_num, net);
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
