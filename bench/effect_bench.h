// The shared body of the effect benchmarks: one module rendering a stereo 1024-frame
// buffer of two sawtooth inputs at 44100 Hz by calling its handler directly, as the net's
// render pass would; reports ns per frame (both channels) and the multiple of realtime.
#pragma once

#include <benchmark/benchmark.h>

#include <initializer_list>

#include "engine/memory.h"
#include "psynth/psynth_modules.h"

namespace effect_bench {

constexpr int kRate = 44100;
constexpr int kFrames = 1024;
constexpr int kChannels = 2;

// Sets the module's controllers (index, value) after INIT.
struct ctl_setting {
    int ctl;
    int value;
};

inline void run_effect(benchmark::State& state, psynth_handler handler, std::initializer_list<ctl_setting> ctls) {
    mem_init();
    psynth_net net;
    psynth_init(0, kRate, 125, 6, &net);
    int mod = psynth_add_synth(-1, handler, nullptr, 0, 0, 0, 125, 6, &net);
    psynth_do_command(mod, PS_CMD_SETUP_FINISHED, &net);
    psynth_module* m = &net.modules[mod];
    for (const ctl_setting& s : ctls) *m->ctls[s.ctl].value = s.value;
    for (int c = 0; c < kChannels; c++) {
        for (int i = 0; i < kFrames; i++) {
            m->input_buffers[c][i] = (psynth_sample)(((i * (c ? 7 : 5)) & 1023) * 4 - 2048);
        }
        m->input_start[c] = 0;
    }
    net.frames = kFrames;
    m->render_offset = 0;
    m->render_frames = kFrames;
    psynth_event render = {};
    render.command = PS_CMD_RENDER_REPLACE;
    for (auto _ : state) {
        benchmark::DoNotOptimize(handler(mod, &render, &net));
        benchmark::ClobberMemory();
    }
    // An inverted rate of (frames / 1e9) reads as nanoseconds per frame.
    state.counters["ns_per_frame"] = benchmark::Counter((double)state.iterations() * kFrames / 1e9,
                                                        benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    state.counters["x_realtime"] = benchmark::Counter((double)state.iterations() * kFrames / kRate,
                                                      benchmark::Counter::kIsRate);
    psynth_close(&net);
}

}  // namespace effect_bench
