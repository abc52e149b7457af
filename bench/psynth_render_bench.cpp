// Cost of the render pass: a chain of 32 stereo modules (a sawtooth source and 31
// gain stages ending in OUT), each receiving 4 events per 1024-frame buffer, so every
// module renders in 4 pieces. Reports the time per module per buffer.
#include <benchmark/benchmark.h>

#include "engine/log.h"
#include "engine/memory.h"
#include "psynth/psynth_net.h"

namespace {

constexpr int kChainLength = 32;
constexpr int kFrames = 1024;
constexpr int kChannels = 2;
constexpr int kGainCtl = 0;

struct chain_module {
    int gain;   // controller 0, 256 = unity
    int phase;  // sawtooth position of the source
};

intptr_t answer_common(int mod_num, psynth_event* event, psynth_net* net) {
    switch (event->command) {
    case PS_CMD_GET_DATA_SIZE: return sizeof(chain_module);
    case PS_CMD_GET_SYNTH_COLOR: return (intptr_t) "#406080";
    case PS_CMD_GET_INPUTS_NUM:
    case PS_CMD_GET_OUTPUTS_NUM: return kChannels;
    case PS_CMD_INIT: {
        chain_module* d = (chain_module*)net->modules[mod_num].data;
        psynth_register_ctl(mod_num, "Gain", "", 0, 256, 255, PSYNTH_CTL_NUMBER, &d->gain, net);
        d->phase = 0;
        return 1;
    }
    case PS_CMD_NOTE_ON:
    case PS_CMD_NOTE_OFF:
    case PS_CMD_SET_VELOCITY:
    case PS_CMD_CLOSE: return 1;
    default: return 0;
    }
}

// Sawtooth of one period per 1024 frames at about a quarter of full scale.
intptr_t saw_source(int mod_num, psynth_event* event, psynth_net* net) {
    switch (event->command) {
    case PS_CMD_GET_SYNTH_NAME: return (intptr_t) "Saw";
    case PS_CMD_GET_FLAGS: return PSYNTH_FLAG_GENERATOR;
    case PS_CMD_RENDER_REPLACE: {
        psynth_module* mod = &net->modules[mod_num];
        chain_module* d = (chain_module*)mod->data;
        int phase = d->phase;
        psynth_sample* left = mod->output_buffers[0] + mod->render_offset;
        psynth_sample* right = mod->output_buffers[1] + mod->render_offset;
        for (int i = 0; i < mod->render_frames; i++) {
            psynth_sample v = (psynth_sample)(((phase + i) & 1023) - 512);
            left[i] = v;
            right[i] = (psynth_sample)-v;
        }
        d->phase = phase + mod->render_frames;
        return 1;
    }
    default: return answer_common(mod_num, event, net);
    }
}

// Copies its inputs scaled by the gain controller; silent pieces stay silent.
intptr_t gain_stage(int mod_num, psynth_event* event, psynth_net* net) {
    switch (event->command) {
    case PS_CMD_GET_SYNTH_NAME: return (intptr_t) "Gain";
    case PS_CMD_GET_FLAGS: return PSYNTH_FLAG_EFFECT;
    case PS_CMD_RENDER_REPLACE: {
        psynth_module* mod = &net->modules[mod_num];
        int gain = ((chain_module*)mod->data)->gain;
        int off = mod->render_offset;
        int end = off + mod->render_frames;
        int written = 0;
        for (int c = 0; c < kChannels; c++) {
            const psynth_sample* in = mod->input_buffers[c];
            psynth_sample* out = mod->output_buffers[c];
            int start = mod->input_start[c] > off ? mod->input_start[c] : off;
            if (start >= end) {
                for (int i = off; i < end; i++) out[i] = 0;
                continue;
            }
            for (int i = off; i < start; i++) out[i] = 0;
            for (int i = start; i < end; i++) {
                int x = in[i] * gain;
                out[i] = (psynth_sample)(x < 0 ? (x + 255) >> 8 : x >> 8);
            }
            written = 1;
        }
        return written;
    }
    default: return answer_common(mod_num, event, net);
    }
}

void queue(psynth_net* net, int mod_num, int command, int offset, int note, int value) {
    psynth_event event = {};
    event.command = command;
    event.id = 1;
    event.offset = offset;
    event.note = (int16_t)note;
    event.velocity = (uint16_t)value;
    psynth_add_event(mod_num, &event, net);
}

void foundation_once() {
    static bool ready = false;
    if (ready) return;
    mem_init();
    tarvik_log_init(TARVIK_LOG_FILE);
    ready = true;
}

void BM_RenderChain(benchmark::State& state) {
    const int events_per_module = (int)state.range(0);
    foundation_once();
    psynth_net net;
    psynth_init(0, 44100, 125, 6, &net);
    net.global_volume = 256;
    int modules[kChainLength];
    modules[0] = psynth_add_synth(-1, saw_source, nullptr, 0, 0, 0, 125, 6, &net);
    for (int i = 1; i < kChainLength; i++) {
        modules[i] = psynth_add_synth(-1, gain_stage, nullptr, 0, 0, 0, 125, 6, &net);
        psynth_make_link(modules[i], modules[i - 1], &net);
    }
    psynth_make_link(0, modules[kChainLength - 1], &net);

    const int spacing = kFrames / (events_per_module > 0 ? events_per_module : 1);
    int buffer = 0;
    for (auto _ : state) {
        tarvik_mutex_lock(&net.mutex);
        for (int m : modules) {
            for (int e = 0; e < events_per_module; e++) {
                int offset = e * spacing + 7;
                switch (e & 3) {
                case 0: queue(&net, m, PS_CMD_NOTE_ON, offset, 48, 200); break;
                case 1: queue(&net, m, PS_CMD_SET_GLOBAL_CONTROLLER, offset, kGainCtl, 32000 + (buffer & 511)); break;
                case 2: queue(&net, m, PS_CMD_SET_VELOCITY, offset, 0, 180); break;
                default: queue(&net, m, PS_CMD_NOTE_OFF, offset, 0, 0); break;
                }
            }
        }
        psynth_set_render_params(kFrames, 0, 0, 0, 0, &net);
        psynth_render_all(&net);
        psynth_clear_events(&net);
        tarvik_mutex_unlock(&net.mutex);
        benchmark::DoNotOptimize(net.modules[0].input_buffers[0][kFrames - 1]);
        buffer++;
    }
    // Seconds per (module × buffer); the console shows it as ns or us.
    state.counters["per_module_buffer"] = benchmark::Counter(
        (double)state.iterations() * kChainLength,
        benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    state.counters["frames"] = kFrames;
    psynth_close(&net);
}

BENCHMARK(BM_RenderChain)->Arg(4)->Arg(0)->ArgName("events")->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
