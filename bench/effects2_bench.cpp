// Cost of the utility effects (Distortion, DC Blocker, Amplifier, Modulator, 3Band
// Equalizer) on the harness of effect_bench.h; the Modulator reads two linked modules
// whose outputs hold the sawtooth of the harness.
#include "effect_bench.h"

namespace {

// Two modules linked into `mod`, first the modulator, then the carrier, their outputs
// rendered in this pass as far as the Modulator can tell.
void link_two_sources(psynth_net* net, int mod) {
    for (int k = 0; k < 2; k++) {
        int src = psynth_add_synth(-1, psynth_amplifier, nullptr, 0, 0, 0, 125, 6, net);
        psynth_module* s = &net->modules[src];
        for (int c = 0; c < kChannels; c++) {
            for (int i = 0; i < kFrames; i++) s->output_buffers[c][i] = bench_saw(c + k, i);
            s->output_start[c] = 0;
        }
        s->render_state |= PSYNTH_RENDER_DONE;
        psynth_make_link(mod, src, net);
    }
}

// Everything on: saturation driven × 8.5, 8 bits, 22050 Hz, noise.
void BM_Distortion(benchmark::State& state) {
    run_effect(state, psynth_distortion, {{1, 1}, {2, 128}, {3, 8}, {4, 22050}, {5, 32}});
}
void BM_DCBlocker(benchmark::State& state) { run_effect(state, psynth_dcblocker, {}); }
// Volume, balance, width and fine volume away from unity.
void BM_Amplifier(benchmark::State& state) {
    run_effect(state, psynth_amplifier, {{0, 300}, {1, 100}, {4, 384}, {6, 30000}});
}
void BM_ModulatorRing(benchmark::State& state) { run_effect(state, psynth_modulator, {}, link_two_sources); }
void BM_ModulatorPhase(benchmark::State& state) {
    run_effect(state, psynth_modulator, {{1, 1}, {2, 128}}, link_two_sources);
}
void BM_Equalizer(benchmark::State& state) { run_effect(state, psynth_equalizer, {{0, 100}, {1, 300}, {2, 400}}); }

BENCHMARK(BM_Distortion);
BENCHMARK(BM_DCBlocker);
BENCHMARK(BM_Amplifier);
BENCHMARK(BM_ModulatorRing);
BENCHMARK(BM_ModulatorPhase);
BENCHMARK(BM_Equalizer);

}  // namespace
