// Delay: a short two-tap delay of up to 1/64 second with separate left and right
// times and volumes, an optional inverted wet signal and a mono switch that turns the
// module into one output channel (the net then feeds it to both sides downstream).
//
// | # | name                | units    | min | max | default | kind     |
// |---|---------------------|----------|-----|-----|---------|----------|
// | 0 | "Dry"               | ""       | 0   | 512 | 256     | number   |
// | 1 | "Wet"               | ""       | 0   | 512 | 256     | number   |
// | 2 | "Delay L"           | ""       | 0   | 256 | 128     | number   |
// | 3 | "Delay R"           | ""       | 0   | 256 | 160     | number   |
// | 4 | "Volume L"          | ""       | 0   | 256 | 256     | number   |
// | 5 | "Volume R"          | ""       | 0   | 256 | 256     | number   |
// | 6 | "Mono"              | "off/on" | 0   | 1   | 0       | selector |
// | 7 | "Inverse amplitude" | "off/on" | 0   | 1   | 0       | selector |
//
// A tap of 0 outputs the sample just written; the longest tap is one sample short of the
// line. Without input the module renders one line length of tail, then falls silent.
#include <cstdint>

#include "psynth/delay_line.h"
#include "psynth/effect_io.h"
#include "psynth/psynth_dsp.h"
#include "psynth/psynth_modules.h"

namespace {

constexpr int kDataSize = 52;
constexpr int kChannels = 2;
constexpr int kLineDivisor = 64;  // the line holds 1/64 second
constexpr int kTapShift = 8;      // "Delay L/R" 256 is the whole line

enum delay_ctl : int {
    CTL_DRY,
    CTL_WET,
    CTL_DELAY_L,
    CTL_DELAY_R,
    CTL_VOLUME_L,
    CTL_VOLUME_R,
    CTL_MONO,
    CTL_INVERSE,
    CTL_COUNT
};

// Packed to 4-byte alignment so that the record, pointer included, fits the 52 bytes
// the module has always declared (every field still sits at its natural alignment).
#pragma pack(push, 4)
struct delay_data {
    int ctl[CTL_COUNT];
    psynth_sample* line;  // both lines in one block (delay_line.h)
    int32_t length;       // samples per channel line
    int32_t position;     // write position, shared by both channels
    int32_t tail;         // frames rendered since the input fell silent
};
#pragma pack(pop)
static_assert(sizeof(delay_data) <= kDataSize, "Delay's state fits its private data size");

void init(int mod_num, delay_data* d, psynth_net* net) {
    psynth_register_ctl(mod_num, "Dry", "", 0, 512, 256, PSYNTH_CTL_NUMBER, &d->ctl[CTL_DRY], net);
    psynth_register_ctl(mod_num, "Wet", "", 0, 512, 256, PSYNTH_CTL_NUMBER, &d->ctl[CTL_WET], net);
    psynth_register_ctl(mod_num, "Delay L", "", 0, 256, 128, PSYNTH_CTL_NUMBER, &d->ctl[CTL_DELAY_L], net);
    psynth_register_ctl(mod_num, "Delay R", "", 0, 256, 160, PSYNTH_CTL_NUMBER, &d->ctl[CTL_DELAY_R], net);
    psynth_register_ctl(mod_num, "Volume L", "", 0, 256, 256, PSYNTH_CTL_NUMBER, &d->ctl[CTL_VOLUME_L], net);
    psynth_register_ctl(mod_num, "Volume R", "", 0, 256, 256, PSYNTH_CTL_NUMBER, &d->ctl[CTL_VOLUME_R], net);
    psynth_register_ctl(mod_num, "Mono", "off/on", 0, 1, 0, PSYNTH_CTL_SELECTOR, &d->ctl[CTL_MONO], net);
    psynth_register_ctl(mod_num, "Inverse amplitude", "off/on", 0, 1, 0, PSYNTH_CTL_SELECTOR,
                        &d->ctl[CTL_INVERSE], net);
    d->length = net->sampling_rate / kLineDivisor;
    d->line = psynth_delay_line_new(d->length, "psynth_delay");
    d->position = 0;
    d->tail = d->length;
}

// Tap length for a "Delay L/R" value: at most one sample short of the line.
int32_t tap_length(int32_t length, int delay) {
    int32_t tap = (int32_t)(((int64_t)length * delay) >> kTapShift);
    return tap > length - 1 ? length - 1 : tap;
}

// One channel over [from, to): write the input, read `tap` samples back, scale by `wet`
// (negated when inverse), add the dry signal. Returns the position after the last frame.
int32_t render_channel(psynth_sample* line, int32_t length, int32_t p, int32_t tap,
                       const psynth_sample* in, psynth_sample* out, int from, int to, int wet,
                       bool inverse, int dry) {
    int32_t read = p - tap;
    if (read < 0) read += length;
    for (int i = from; i < to; i++) {
        line[p] = in[i];
        psynth_sample o = 0;
        if (wet) {
            o = psynth_apply_gain(line[read], wet);
            if (inverse) o = psynth_wrap16(-(int32_t)o);
        }
        out[i] = psynth_add_wrap(o, psynth_apply_gain(in[i], dry));
        p = psynth_delay_line_next(p, length);
        read = psynth_delay_line_next(read, length);
    }
    return p;
}

intptr_t render(int mod_num, delay_data* d, psynth_net* net) {
    psynth_module* mod = &net->modules[mod_num];
    if (!psynth_effect_has_buffers(mod) || !d->line) return 0;
    int channels = psynth_effect_set_mono(mod_num, d->ctl[CTL_MONO] != 0, kChannels, net);
    int from = mod->render_offset;
    int to = from + mod->render_frames;
    if (!psynth_effect_tail(psynth_effect_has_input(mod, channels, to), &d->tail, d->length, to - from)) return 0;

    const int wet[kChannels] = {d->ctl[CTL_WET] * d->ctl[CTL_VOLUME_L] / PSYNTH_GAIN_UNITY,
                                d->ctl[CTL_WET] * d->ctl[CTL_VOLUME_R] / PSYNTH_GAIN_UNITY};
    const int tap[kChannels] = {tap_length(d->length, d->ctl[CTL_DELAY_L]),
                                tap_length(d->length, d->ctl[CTL_DELAY_R])};
    int32_t end_position = d->position;
    for (int c = 0; c < channels; c++) {
        if (!mod->input_buffers[c] || !mod->output_buffers[c]) continue;
        const psynth_sample* in = psynth_effect_input(mod, c, from, to);
        end_position = render_channel(psynth_delay_line_channel(d->line, d->length, c), d->length,
                                      d->position, tap[c], in, mod->output_buffers[c], from, to,
                                      wet[c], d->ctl[CTL_INVERSE] != 0, d->ctl[CTL_DRY]);
    }
    d->position = end_position;
    return 1;
}

}  // namespace

intptr_t psynth_delay(int mod_num, psynth_event* event, psynth_net* net) {
    switch (event->command) {
    case PS_CMD_GET_DATA_SIZE: return kDataSize;
    case PS_CMD_GET_SYNTH_NAME: return (intptr_t) "Delay";
    case PS_CMD_GET_SYNTH_INFO: return (intptr_t) "Delay.\nMax delay is 1/64 second";
    case PS_CMD_GET_SYNTH_COLOR: return (intptr_t) "#7FFFDB";
    case PS_CMD_GET_INPUTS_NUM: return kChannels;
    case PS_CMD_GET_OUTPUTS_NUM: return kChannels;
    case PS_CMD_GET_FLAGS: return PSYNTH_FLAG_EFFECT;
    default: break;
    }
    delay_data* d = psynth_module_data<delay_data>(mod_num, net);
    if (!d) return 0;
    switch (event->command) {
    case PS_CMD_INIT:
        init(mod_num, d, net);
        return 1;
    case PS_CMD_CLEAN:
        psynth_delay_line_clear(d->line);
        d->position = 0;
        d->tail = d->length;
        return 1;
    case PS_CMD_RENDER_REPLACE: return render(mod_num, d, net);
    case PS_CMD_CLOSE:
        psynth_delay_line_free(d->line);
        d->line = nullptr;
        return 1;
    default: return 0;
    }
}
