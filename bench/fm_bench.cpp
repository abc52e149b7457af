// Cost of the FM synthesizer's voices: 16 voices in HQ stereo with modulator feedback
// and note scaling, held at their sustain, rendered by calling the module's handler
// directly at 44100 Hz (no resampling) and at 48000 Hz (through the inner-rate rings).
// Reports ns per voice per output frame.
#include <benchmark/benchmark.h>

#include "engine/memory.h"
#include "psynth/psynth_modules.h"

namespace {

constexpr int kVoices = 16;
constexpr int kFrames = 1024;
enum : int { CTL_M_FEEDBACK = 5, CTL_M_SCALING = 14, CTL_POLYPHONY = 15 };

void BM_FmVoices(benchmark::State& state) {
    const int rate = (int)state.range(0);
    mem_init();
    psynth_net net;
    psynth_init(0, rate, 125, 6, &net);
    int mod = psynth_add_synth(-1, psynth_fm, nullptr, 0, 0, 0, 125, 6, &net);
    psynth_module* m = &net.modules[mod];
    *m->ctls[CTL_POLYPHONY].value = kVoices;
    *m->ctls[CTL_M_FEEDBACK].value = 64;
    *m->ctls[CTL_M_SCALING].value = 1;
    for (int v = 0; v < kVoices; v++) {
        psynth_event e = {};
        e.command = PS_CMD_NOTE_ON;
        e.id = v;
        e.note = (int16_t)(36 + v * 3);
        e.velocity = 200;
        e.pitch = (120 - e.note) * 256;
        psynth_fm(mod, &e, &net);
    }
    psynth_event render = {};
    render.command = PS_CMD_RENDER_REPLACE;
    net.frames = kFrames;
    m->render_offset = 0;
    m->render_frames = kFrames;
    // Past the attack and decay, so every block is the steady sustain.
    for (int i = 0; i < 40; i++) psynth_fm(mod, &render, &net);
    int64_t frames = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(psynth_fm(mod, &render, &net));
        benchmark::DoNotOptimize(m->output_buffers[0][kFrames - 1]);
        frames += kFrames;
    }
    // An inverted rate of (voice frames / 1e9) reads as nanoseconds per voice frame.
    state.counters["ns_per_voice_frame"] =
        benchmark::Counter((double)frames * kVoices / 1e9, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    state.counters["x_realtime"] = benchmark::Counter((double)frames / rate, benchmark::Counter::kIsRate);
    if (psynth_fm(mod, &render, &net) == 0) state.SkipWithError("the voices stopped sounding");
    psynth_close(&net);
}

BENCHMARK(BM_FmVoices)->Arg(44100)->Arg(48000)->Unit(benchmark::kMicrosecond);

}  // namespace
