// Helpers of the effect module tests: a source module that plays any function of
// (channel, absolute frame), effect chains into OUT, a check of an effect's answers
// about itself, and the rendering of an effect's two outputs.
#pragma once

#include <climits>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "test_modules.h"

typedef int (*signal_fn)(int channel, int frame);

struct signal_source_data {
    signal_fn fn;
    int frame;        // absolute frame of the next render piece
    int silent_from;  // pieces starting at or after this absolute frame are silent
};

inline intptr_t signal_source(int mod_num, psynth_event* event, psynth_net* net) {
    switch (event->command) {
    case PS_CMD_GET_DATA_SIZE: return sizeof(signal_source_data);
    case PS_CMD_GET_SYNTH_NAME: return (intptr_t) "Signal";
    case PS_CMD_GET_OUTPUTS_NUM: return 2;
    case PS_CMD_GET_FLAGS: return PSYNTH_FLAG_GENERATOR;
    case PS_CMD_INIT: return 1;
    case PS_CMD_RENDER_REPLACE: {
        psynth_module* mod = &net->modules[mod_num];
        signal_source_data* d = (signal_source_data*)mod->data;
        int t = d->frame;
        d->frame += mod->render_frames;
        if (!d->fn || t >= d->silent_from) return 0;
        for (int c = 0; c < mod->output_channels; c++) {
            for (int k = 0; k < mod->render_frames; k++) {
                mod->output_buffers[c][mod->render_offset + k] = (psynth_sample)d->fn(c, t + k);
            }
        }
        return 1;
    }
    default: return 0;
    }
}

// A source playing fn on `channels` (1 or 2) outputs until absolute frame silent_from.
inline int add_signal_source(psynth_net* net, signal_fn fn, int channels = 2, int silent_from = INT_MAX) {
    int m = psynth_add_synth(-1, signal_source, nullptr, 0, 0, 0, 125, 6, net);
    signal_source_data* d = (signal_source_data*)net->modules[m].data;
    d->fn = fn;
    d->frame = 0;
    d->silent_from = silent_from;
    psynth_set_number_of_outputs(m, channels, net);
    return m;
}

inline void set_silent_from(psynth_net* net, int src, int frame) {
    ((signal_source_data*)net->modules[src].data)->silent_from = frame;
}

// Adds an effect of `handler` fed by `src` (if ≥ 0) and feeding OUT; returns its index.
inline int add_effect(psynth_net* net, psynth_handler handler, int src) {
    int fx = psynth_add_synth(-1, handler, nullptr, 0, 0, 0, 125, 6, net);
    psynth_do_command(fx, PS_CMD_SETUP_FINISHED, net);
    if (src >= 0) psynth_make_link(fx, src, net);
    psynth_make_link(0, fx, net);
    return fx;
}

inline void set_ctl(psynth_net* net, int m, int ctl, int value) { *net->modules[m].ctls[ctl].value = value; }
inline void set_ctls(psynth_net* net, int m, std::initializer_list<std::pair<int, int>> ctl_values) {
    for (auto [ctl, value] : ctl_values) set_ctl(net, m, ctl, value);
}

struct effect_identity {
    int data_size;  // 0: the module's own choice, not checked
    const char* name;
    const char* info;
    uint8_t red, green, blue;
    uint32_t flags = PSYNTH_FLAG_EFFECT;
};

// "" when an effect answers as expected (data size, name, description, colour, flags,
// two inputs and two outputs), else the first difference.
inline std::string check_effect_identity(psynth_net* net, psynth_handler handler, int m, const effect_identity& want) {
    const psynth_module* mod = &net->modules[m];
    psynth_event e = {};
    e.command = PS_CMD_GET_DATA_SIZE;
    if (want.data_size && handler(m, &e, net) != want.data_size) return "data size";
    if (strcmp(mod->name, want.name)) return std::string("name ") + mod->name;
    e.command = PS_CMD_GET_SYNTH_INFO;
    if (strcmp((const char*)handler(m, &e, net), want.info)) return "description";
    if (mod->color[0] != want.red || mod->color[1] != want.green || mod->color[2] != want.blue) return "colour";
    if ((mod->flags & ~(PSYNTH_FLAG_EXISTS | PSYNTH_FLAG_INITIALIZED)) != want.flags) return "flags";
    if (mod->input_channels != 2 || mod->output_channels != 2) return "channels";
    return "";
}

// Sends a command with a given event to a module through the net's event path.
inline void queue_controller(psynth_net* net, int m, int ctl, int value, int offset = 0) {
    queue_event(net, m, PS_CMD_SET_GLOBAL_CONTROLLER, offset, -1, ctl, value);
}

// Product of a sample and a 256-unity gain brought back toward zero, written plainly
// for the references of the tests.
inline int gain256(int x, int g) { return x * g / 256; }
inline int wrap16(int x) { return (int16_t)(uint16_t)(unsigned)x; }

// Renders `frames` frames in buffers of `buffer` frames and returns what the two output
// channels of `fx` held (frames before a buffer's output start, and a channel beyond the
// output count, read as 0). *silent, when given, counts the buffers in which channel 0
// was silent from the start.
inline std::vector<std::vector<int>> render_outputs(psynth_net* net, int fx, int frames, int buffer = 1024,
                                                   int* silent = nullptr) {
    std::vector<std::vector<int>> out(2);
    for (int done = 0; done < frames; done += buffer) {
        int n = frames - done < buffer ? frames - done : buffer;
        render_buffer(net, n);
        const psynth_module* m = &net->modules[fx];
        if (silent && m->output_start[0] >= n) (*silent)++;
        for (int c = 0; c < 2; c++) {
            bool used = c < m->output_channels;
            for (int k = 0; k < n; k++) out[c].push_back(used && m->output_start[c] <= k ? m->output_buffers[c][k] : 0);
        }
    }
    return out;
}

// Renders buffers of `sizes` and compares the outputs of `fx` frame by frame with
// expect(t, want) (t the absolute frame, called once per frame in order); before(b) runs
// before buffer b. "" or the first difference.
template <class Before, class Expect>
std::string compare_render(psynth_net* net, int fx, std::initializer_list<int> sizes, Before before, Expect expect) {
    int t = 0, b = 0;
    for (int n : sizes) {
        before(b);
        render_buffer(net, n);
        const psynth_module* mod = &net->modules[fx];
        for (int k = 0; k < n; k++, t++) {
            int want[2];
            expect(t, want);
            for (int c = 0; c < mod->output_channels; c++) {
                int got = mod->output_start[c] <= k ? mod->output_buffers[c][k] : 0;
                if (got != want[c]) {
                    return "buffer " + std::to_string(b) + " channel " + std::to_string(c) + " frame " +
                           std::to_string(t) + ": " + std::to_string(got) + " instead of " + std::to_string(want[c]);
                }
            }
        }
        b++;
    }
    return "";
}

// Starts the net afresh at `rate`.
inline void restart_net(psynth_net* net, int rate = 44100) {
    psynth_close(net);
    psynth_init(0, rate, 125, 6, net);
}
