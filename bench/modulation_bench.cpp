// Cost of the modulation effects (Flanger, LFO, Vibrato, Vocal filter): each renders a
// stereo 1024-frame buffer of two sawtooth inputs at 44100 Hz through its handler, with
// its LFO running, and reports ns per frame (both channels).
#include "effect_bench.h"

namespace {

void BM_Flanger(benchmark::State& state) { run_effect(state, psynth_flanger, {}); }  // sine sweep, feedback 128
void BM_LfoAmplitude(benchmark::State& state) { run_effect(state, psynth_lfo, {}); }  // sine tremolo
void BM_LfoPanning(benchmark::State& state) { run_effect(state, psynth_lfo, {{1, 1}}); }
void BM_Vibrato(benchmark::State& state) { run_effect(state, psynth_vibrato, {}); }
void BM_VocalFilter(benchmark::State& state) { run_effect(state, psynth_vocal_filter, {}); }  // 5 formants

BENCHMARK(BM_Flanger);
BENCHMARK(BM_LfoAmplitude);
BENCHMARK(BM_LfoPanning);
BENCHMARK(BM_Vibrato);
BENCHMARK(BM_VocalFilter);

}  // namespace
