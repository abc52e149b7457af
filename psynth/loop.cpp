// Loop: records up to two pattern lines of its input and plays them back a set number
// of times, in step with the song's tempo (SPEED_CHANGED), then records again; the
// seams are crossfaded over at most one millisecond from the loop's last sample.
//
// | # | name      | units    | min | max | default | kind     |
// |---|-----------|----------|-----|-----|---------|----------|
// | 0 | "Volume"  | ""       | 0   | 256 | 256     | number   |
// | 1 | "Delay"   | ""       | 0   | 256 | 256     | number   |
// | 2 | "Stereo"  | "off/on" | 0   | 1   | 1       | selector |
// | 3 | "Repeats" | ""       | 0   | 64  | 0       | selector |
//
// "Delay" 256 is two lines. "Repeats" is a selector so that a pattern value reaches it
// raw (0..64); setting it restarts the loop at once. With Repeats 0 the input passes
// through unchanged while it is recorded.
#include <cstdint>

#include "psynth/delay_line.h"
#include "psynth/effect_io.h"
#include "psynth/psynth_dsp.h"
#include "psynth/psynth_modules.h"

namespace {

constexpr int kDataSize = 52;
constexpr int kChannels = 2;
constexpr int kLineDivisor = 3;        // the line holds 1/3 second
constexpr int kDelayUnityLines = 128;  // "Delay" 128 is one pattern line
constexpr int kTickFracShift = 8;      // tick lengths are in 1/256 frame
constexpr int kFadeDivisor = 1000;     // the seam fade lasts at most 1 ms
constexpr int kFadeUnity = 256;        // fade weights are in 1/256

enum loop_ctl : int { CTL_VOLUME, CTL_DELAY, CTL_STEREO, CTL_REPEATS, CTL_COUNT };

// The playback state every channel starts a render from.
struct loop_state {
    int32_t position;  // within the loop
    int32_t repeat;    // 0 while recording, then 1.. for each repeat
    uint8_t fade_in;   // the recording pass fades in from the loop's last sample
};

struct loop_data {
    int ctl[CTL_COUNT];
    int32_t repeat;
    uint8_t fade_in;
    uint8_t idle;
    uint8_t ticks_per_line;  // from SPEED_CHANGED
    int32_t length;          // samples per channel line
    psynth_sample* line;     // both lines in one block (delay_line.h)
    int32_t position;
    int32_t tick_length;     // 1/256 frame, from SPEED_CHANGED
};
static_assert(sizeof(loop_data) <= kDataSize, "Loop's state fits its private data size");

void init(int mod_num, loop_data* d, psynth_net* net) {
    psynth_register_ctl(mod_num, "Volume", "", 0, 256, 256, PSYNTH_CTL_NUMBER, &d->ctl[CTL_VOLUME], net);
    psynth_register_ctl(mod_num, "Delay", "", 0, 256, 256, PSYNTH_CTL_NUMBER, &d->ctl[CTL_DELAY], net);
    psynth_register_ctl(mod_num, "Stereo", "off/on", 0, 1, 1, PSYNTH_CTL_SELECTOR, &d->ctl[CTL_STEREO], net);
    psynth_register_ctl(mod_num, "Repeats", "", 0, 64, 0, PSYNTH_CTL_SELECTOR, &d->ctl[CTL_REPEATS], net);
    d->length = net->sampling_rate / kLineDivisor;
    d->line = psynth_delay_line_new(d->length, "psynth_loop");
    d->position = 0;
    d->repeat = 0;
    d->fade_in = 0;
    d->idle = 1;
}

// The crossfade from the loop's last sample `last` into `x` at loop position p < fade.
psynth_sample fade_from(psynth_sample last, psynth_sample x, int32_t p, int32_t fade) {
    int32_t w = p * kFadeUnity / fade;
    return psynth_add_wrap(psynth_apply_gain(last, kFadeUnity - w), psynth_apply_gain(x, w));
}

// The loop's end: count the pass and choose the next one. After the last repeat the
// recording pass fades in from the loop's last sample; with no repeats at all the
// loop simply records again.
void end_of_pass(loop_state* s, int repeats) {
    s->position = 0;
    s->fade_in = 0;
    s->repeat++;
    if (s->repeat > repeats) {
        if (s->repeat >= 2) s->fade_in = 1;
        s->repeat = 0;
    }
}

// One channel over [from, to) from state `s`, in runs that end at the loop's end.
loop_state render_channel(loop_state s, psynth_sample* line, int32_t loop, int32_t fade,
                          int repeats, const psynth_sample* in, psynth_sample* out, int from, int to) {
    if (s.position >= loop) end_of_pass(&s, repeats);  // "Delay" shortened the loop below p
    int i = from;
    while (i < to) {
        int run = loop - s.position;
        if (run > to - i) run = to - i;
        psynth_sample last = line[loop - 1];
        int32_t p = s.position;
        if (s.repeat == 0) {
            for (int k = 0; k < run; k++, p++) {
                psynth_sample x = in[i + k];
                line[p] = x;
                out[i + k] = (s.fade_in && p < fade) ? fade_from(last, x, p, fade) : x;
            }
        } else {
            for (int k = 0; k < run; k++, p++) {
                psynth_sample x = line[p];
                out[i + k] = p < fade ? fade_from(last, x, p, fade) : x;
            }
        }
        s.position = p;
        i += run;
        if (s.position >= loop) end_of_pass(&s, repeats);
    }
    return s;
}

intptr_t render(int mod_num, loop_data* d, psynth_net* net) {
    psynth_module* mod = &net->modules[mod_num];
    if (!psynth_effect_has_buffers(mod) || !d->line) return 0;
    int channels = d->ctl[CTL_STEREO] ? kChannels : 1;
    psynth_set_number_of_outputs(mod_num, channels, net);
    int from = mod->render_offset;
    int to = from + mod->render_frames;
    if (!psynth_effect_wake(psynth_effect_has_input(mod, channels, to), &d->idle)) return 0;

    int64_t line_frames = ((int64_t)d->ticks_per_line * d->tick_length) >> kTickFracShift;
    int64_t loop64 = line_frames * d->ctl[CTL_DELAY] / kDelayUnityLines;
    int32_t loop = loop64 > d->length ? d->length : (int32_t)loop64;
    int32_t fade = 0;
    if (loop <= 0) {
        loop = 1;
    } else {
        fade = loop / 2;
        if (fade > net->sampling_rate / kFadeDivisor) fade = net->sampling_rate / kFadeDivisor;
    }

    const loop_state start = {d->position, d->repeat, d->fade_in};
    loop_state end = start;
    for (int c = 0; c < channels; c++) {
        if (!mod->input_buffers[c] || !mod->output_buffers[c]) continue;
        const psynth_sample* in = psynth_effect_input(mod, c, from, to);
        psynth_sample* out = mod->output_buffers[c];
        end = render_channel(start, psynth_delay_line_channel(d->line, d->length, c), loop, fade,
                             d->ctl[CTL_REPEATS], in, out, from, to);
        if (d->ctl[CTL_VOLUME] != PSYNTH_GAIN_UNITY) {
            for (int i = from; i < to; i++) out[i] = psynth_apply_gain(out[i], d->ctl[CTL_VOLUME]);
        }
    }
    d->position = end.position;
    d->repeat = end.repeat;
    d->fade_in = end.fade_in;
    return 1;
}

}  // namespace

intptr_t psynth_loop(int mod_num, psynth_event* event, psynth_net* net) {
    switch (event->command) {
    case PS_CMD_GET_DATA_SIZE: return kDataSize;
    case PS_CMD_GET_SYNTH_NAME: return (intptr_t) "Loop";
    case PS_CMD_GET_SYNTH_INFO: return (intptr_t) "Loop.\nMax delay is 2 lines";
    case PS_CMD_GET_SYNTH_COLOR: return (intptr_t) "#FF7FC5";
    case PS_CMD_GET_INPUTS_NUM: return kChannels;
    case PS_CMD_GET_OUTPUTS_NUM: return kChannels;
    case PS_CMD_GET_FLAGS: return PSYNTH_FLAG_EFFECT | PSYNTH_FLAG_GET_SPEED_CHANGES;
    default: break;
    }
    loop_data* d = psynth_module_data<loop_data>(mod_num, net);
    if (!d) return 0;
    switch (event->command) {
    case PS_CMD_INIT:
        init(mod_num, d, net);
        return 1;
    case PS_CMD_CLEAN:
        psynth_delay_line_clear(d->line);
        d->position = 0;
        d->repeat = 0;
        d->idle = 1;
        return 1;
    case PS_CMD_RENDER_REPLACE: return render(mod_num, d, net);
    case PS_CMD_SET_GLOBAL_CONTROLLER:
        if ((uint16_t)event->note == CTL_REPEATS) {
            d->repeat = 0;
            d->position = 0;
        }
        return 0;  // the net stores the value as well
    case PS_CMD_SPEED_CHANGED:
        d->tick_length = psynth_event_tick_length(event);
        d->ticks_per_line = (uint8_t)psynth_event_ticks_per_line(event);
        return 1;
    case PS_CMD_CLOSE:
        psynth_delay_line_free(d->line);
        d->line = nullptr;
        return 1;
    default: return 0;
    }
}
