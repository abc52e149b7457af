// Echo: a feedback echo of up to one second. Each channel has a circular line whose
// length is set by "Delay"; every frame outputs what the line holds, attenuates it by
// "Feedback" and adds the input, so the echo repeats and decays until CLEAN.
//
// | # | name       | units    | min | max | default | kind     |
// |---|------------|----------|-----|-----|---------|----------|
// | 0 | "Dry"      | ""       | 0   | 256 | 256     | number   |
// | 1 | "Wet"      | ""       | 0   | 256 | 128     | number   |
// | 2 | "Feedback" | ""       | 0   | 256 | 128     | number   |
// | 3 | "Delay"    | ""       | 0   | 256 | 256     | number   |
// | 4 | "Stereo"   | "off/on" | 0   | 1   | 1       | selector |
//
// "Delay" sets the length of the ring (256: one second), not a read tap, so shortening it
// shortens the ring. With "Stereo" on the right input enters half a ring further on, so
// the right echo is offset by half the delay.
#include <cstdint>

#include "psynth/delay_line.h"
#include "psynth/effect_io.h"
#include "psynth/psynth_dsp.h"
#include "psynth/psynth_modules.h"

namespace {

constexpr int kDataSize = 44;  // the private data size every saved Echo expects
constexpr int kChannels = 2;
constexpr int kDelayShift = 8;  // "Delay" 256 is the whole line

enum echo_ctl : int { CTL_DRY, CTL_WET, CTL_FEEDBACK, CTL_DELAY, CTL_STEREO, CTL_COUNT };

struct echo_data {
    int ctl[CTL_COUNT];
    int32_t length;       // samples per channel line: one second at INIT's rate
    psynth_sample* line;  // both lines in one block (delay_line.h)
    int32_t position;     // write position, shared by both channels
    uint8_t idle;         // set until an input sounds (again after CLEAN)
};
static_assert(sizeof(echo_data) <= kDataSize, "Echo's state fits its private data size");

void init(int mod_num, echo_data* d, psynth_net* net) {
    psynth_register_ctl(mod_num, "Dry", "", 0, 256, 256, PSYNTH_CTL_NUMBER, &d->ctl[CTL_DRY], net);
    psynth_register_ctl(mod_num, "Wet", "", 0, 256, 128, PSYNTH_CTL_NUMBER, &d->ctl[CTL_WET], net);
    psynth_register_ctl(mod_num, "Feedback", "", 0, 256, 128, PSYNTH_CTL_NUMBER, &d->ctl[CTL_FEEDBACK], net);
    psynth_register_ctl(mod_num, "Delay", "", 0, 256, 256, PSYNTH_CTL_NUMBER, &d->ctl[CTL_DELAY], net);
    psynth_register_ctl(mod_num, "Stereo", "off/on", 0, 1, 1, PSYNTH_CTL_SELECTOR, &d->ctl[CTL_STEREO], net);
    d->length = net->sampling_rate;
    d->line = psynth_delay_line_new(d->length, "psynth_echo");
    d->position = 0;
    d->idle = 1;
}

// One channel over [from, to): read, attenuate, add the input at `input_at` places
// ahead of the write position (0 or half the ring), add the dry signal.
int32_t render_channel(psynth_sample* line, int32_t ring, int32_t p, int32_t input_at,
                       const psynth_sample* in, psynth_sample* out, int from, int to,
                       int wet, int feedback, int dry) {
    for (int i = from; i < to; i++) {
        psynth_sample b = line[p];
        psynth_sample o = psynth_apply_gain(b, wet);
        line[p] = psynth_apply_gain(b, feedback);
        if (in) {
            int32_t q = p + input_at;
            if (q >= ring) q -= ring;
            line[q] = psynth_add_wrap(line[q], in[i]);
            o = psynth_add_wrap(o, psynth_apply_gain(in[i], dry));
        }
        out[i] = o;
        p = psynth_delay_line_next(p, ring);
    }
    return p;
}

intptr_t render(int mod_num, echo_data* d, psynth_net* net) {
    psynth_module* mod = &net->modules[mod_num];
    if (!psynth_effect_has_buffers(mod) || !mod->output_buffers[1] || !d->line) return 0;
    int from = mod->render_offset;
    int to = from + mod->render_frames;
    if (!psynth_effect_wake(psynth_effect_has_input(mod, kChannels, to), &d->idle)) return 0;

    int64_t ring64 = ((int64_t)d->length * d->ctl[CTL_DELAY]) >> kDelayShift;
    int32_t ring = ring64 > d->length ? d->length : (int32_t)ring64;
    int32_t end_position = d->position;
    for (int c = 0; c < kChannels; c++) {
        bool has_input = mod->input_buffers[c] && mod->input_start[c] < to;
        const psynth_sample* in = has_input ? psynth_effect_input(mod, c, from, to) : nullptr;
        int32_t input_at = (c == 1 && d->ctl[CTL_STEREO]) ? ring / 2 : 0;
        end_position = render_channel(psynth_delay_line_channel(d->line, d->length, c), ring,
                                      d->position, input_at, in, mod->output_buffers[c], from, to,
                                      d->ctl[CTL_WET], d->ctl[CTL_FEEDBACK], d->ctl[CTL_DRY]);
    }
    d->position = end_position;
    return 1;
}

}  // namespace

intptr_t psynth_echo(int mod_num, psynth_event* event, psynth_net* net) {
    switch (event->command) {
    case PS_CMD_GET_DATA_SIZE: return kDataSize;
    case PS_CMD_GET_SYNTH_NAME: return (intptr_t) "Echo";
    case PS_CMD_GET_SYNTH_INFO: return (intptr_t) "Echo.\nMax delay is one second";
    case PS_CMD_GET_SYNTH_COLOR: return (intptr_t) "#FFA37F";
    case PS_CMD_GET_INPUTS_NUM: return kChannels;
    case PS_CMD_GET_OUTPUTS_NUM: return kChannels;
    case PS_CMD_GET_FLAGS: return PSYNTH_FLAG_EFFECT;
    default: break;
    }
    echo_data* d = psynth_module_data<echo_data>(mod_num, net);
    if (!d) return 0;
    switch (event->command) {
    case PS_CMD_INIT:
        init(mod_num, d, net);
        return 1;
    case PS_CMD_CLEAN:
        psynth_delay_line_clear(d->line);
        d->position = 0;
        d->idle = 1;
        return 1;
    case PS_CMD_RENDER_REPLACE: return render(mod_num, d, net);
    case PS_CMD_CLOSE:
        psynth_delay_line_free(d->line);
        d->line = nullptr;
        return 1;
    default: return 0;
    }
}
