// Cost of the FM synthesizer's voices: 16 voices in HQ stereo with modulator feedback
// and note scaling, rendered by calling the module's handler directly at 44100 Hz (no
// resampling) and at 48000 Hz (through the inner-rate rings), either held at their
// sustain or kept in their attack (envelopes interpolated every frame).
// Reports ns per voice per output frame.
#include <benchmark/benchmark.h>

#include "engine/memory.h"
#include "psynth/psynth_modules.h"

namespace {

constexpr int kVoices = 16;
constexpr int kFrames = 1024;
constexpr int kRetrigger = 64;  // blocks between new notes while the attack is measured
enum : int { CTL_M_FEEDBACK = 5, CTL_C_ATTACK = 6, CTL_M_ATTACK = 10, CTL_M_SCALING = 14, CTL_POLYPHONY = 15 };

void notes_on(int mod, psynth_net* net) {
    for (int v = 0; v < kVoices; v++) {
        psynth_event e = {};
        e.command = PS_CMD_NOTE_ON;
        e.id = v;
        e.note = (int16_t)(36 + v * 3);
        e.velocity = 200;
        e.pitch = (120 - e.note) * 256;
        psynth_fm(mod, &e, net);
    }
}

void BM_FmVoices(benchmark::State& state) {
    const int rate = (int)state.range(0);
    const bool attack = state.range(1) != 0;
    mem_init();
    psynth_net net;
    psynth_init(0, rate, 125, 6, &net);
    int mod = psynth_add_synth(-1, psynth_fm, nullptr, 0, 0, 0, 125, 6, &net);
    psynth_module* m = &net.modules[mod];
    *m->ctls[CTL_POLYPHONY].value = kVoices;
    *m->ctls[CTL_M_FEEDBACK].value = 64;
    *m->ctls[CTL_M_SCALING].value = 1;
    if (attack) *m->ctls[CTL_C_ATTACK].value = *m->ctls[CTL_M_ATTACK].value = 512;  // 128 blocks long
    notes_on(mod, &net);
    psynth_event render = {};
    render.command = PS_CMD_RENDER_REPLACE;
    net.frames = kFrames;
    m->render_offset = 0;
    m->render_frames = kFrames;
    // Held: past the attack and decay, so every block is the steady sustain.
    for (int i = 0; i < 40 && !attack; i++) psynth_fm(mod, &render, &net);
    int64_t frames = 0;
    for (auto _ : state) {
        if (attack && frames % (kRetrigger * kFrames) == 0) notes_on(mod, &net);  // new notes take over the voices
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

BENCHMARK(BM_FmVoices)
    ->ArgNames({"rate", "attack"})
    ->Args({44100, 0})
    ->Args({48000, 0})
    ->Args({44100, 1})
    ->Args({48000, 1})
    ->Unit(benchmark::kMicrosecond);

}  // namespace
