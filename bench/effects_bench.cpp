// Cost of the effect modules: each one renders a stereo 1024-frame buffer of a
// sawtooth at 44100 Hz by calling its handler directly, as the net's render pass would.
// Reports ns per frame (both channels) and the multiple of realtime on one core.
#include "bench/effect_bench.h"

namespace {

using effect_bench::run_effect;

void BM_Echo(benchmark::State& state) { run_effect(state, psynth_echo, {}); }
void BM_Delay(benchmark::State& state) { run_effect(state, psynth_delay, {}); }
void BM_Loop(benchmark::State& state) { run_effect(state, psynth_loop, {{3, 2}}); }    // Repeats 2
void BM_FilterHQ(benchmark::State& state) { run_effect(state, psynth_filter, {{1, 3000}, {2, 800}, {9, 128}}); }
void BM_FilterLQ(benchmark::State& state) { run_effect(state, psynth_filter, {{1, 3000}, {2, 800}, {5, 2}}); }
void BM_Reverb(benchmark::State& state) { run_effect(state, psynth_reverb, {}); }  // HQ: 16 combs, 8 allpasses
void BM_Compressor(benchmark::State& state) { run_effect(state, psynth_compressor, {{1, 100}}); }  // Threshold 100

BENCHMARK(BM_Echo);
BENCHMARK(BM_Delay);
BENCHMARK(BM_Loop);
BENCHMARK(BM_FilterHQ);
BENCHMARK(BM_FilterLQ);
BENCHMARK(BM_Reverb);
BENCHMARK(BM_Compressor);

}  // namespace
