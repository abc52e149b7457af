// Cost of the Sampler's voices: 16 voices on a looped 16-bit mono or stereo sample with
// volume and panning envelopes, linear interpolation and volume ramps at 44100 Hz,
// rendered by calling the module's handler directly, with the AVX2 kernels or with the
// baseline (SSE2) ones. Reports ns per voice per frame.
#include <benchmark/benchmark.h>

#include <cmath>
#include <vector>

#include "engine/memory.h"
#include "psynth/psynth_cpu.h"
#include "psynth/psynth_modules.h"
#include "psynth/sampler.h"

namespace {

constexpr int kRate = 44100;
constexpr int kVoices = 16;
constexpr int kFrames = 1024;
constexpr int kSampleFrames = 44100;
constexpr int kLoopStart = 11025;

// A 16-bit sample of two detuned sines (one per channel of a stereo one), looped over its
// last three quarters.
void add_sample(int mod, int channels, psynth_net* net) {
    psynth_new_chunk(mod, psynth_sampler_header_chunk(0), sizeof(psynth_sampler_sample), 0, 0, net);
    psynth_new_chunk(mod, psynth_sampler_data_chunk(0), kSampleFrames * channels * (int)sizeof(int16_t), 0, kRate, net);
    int16_t* data = (int16_t*)psynth_get_chunk(mod, psynth_sampler_data_chunk(0), net);
    for (int i = 0; i < kSampleFrames; i++) {
        data[channels * i] = (int16_t)(12000 * std::sin(i * 0.0627));
        if (channels == 2) data[2 * i + 1] = (int16_t)(12000 * std::sin(i * 0.0631));
    }
    psynth_sampler_sample* h = (psynth_sampler_sample*)psynth_get_chunk(mod, psynth_sampler_header_chunk(0), net);
    h->length = kSampleFrames;
    h->loop_start = kLoopStart;
    h->loop_length = kSampleFrames - kLoopStart;
    h->volume = 64;
    h->panning = 128;
    h->relative_note = 29;  // about 44100 Hz at note 48, as a sample recorded at that rate
    h->type = PSYNTH_SAMPLER_LOOP_FORWARD | (PSYNTH_SAMPLER_FORMAT_INT16 << PSYNTH_SAMPLER_FORMAT_SHIFT) |
              (channels == 2 ? PSYNTH_SAMPLER_STEREO : 0);
    psynth_sampler_instrument* ins = (psynth_sampler_instrument*)psynth_get_chunk(mod, 0, net);
    ins->samples_num = 1;
    // The default envelopes, switched on: volume held at its sustain point, panning swinging.
    ins->volume_type = PSYNTH_SAMPLER_ENV_ON | PSYNTH_SAMPLER_ENV_SUSTAIN;
    ins->panning_type = PSYNTH_SAMPLER_ENV_ON | PSYNTH_SAMPLER_ENV_LOOP;
    ins->panning_loop_start = 0;
    ins->panning_loop_end = 3;
}

void BM_SamplerVoices(benchmark::State& state) {
    psynth_cpu_baseline_only(state.range(1) == 0);
    mem_init();
    psynth_net net;
    psynth_init(0, kRate, 125, 6, &net);
    int mod = psynth_add_synth(-1, psynth_sampler, nullptr, 0, 0, 0, 125, 6, &net);
    add_sample(mod, (int)state.range(0), &net);
    psynth_do_command(mod, PS_CMD_SETUP_FINISHED, &net);
    psynth_module* m = &net.modules[mod];
    *m->ctls[PSYNTH_SAMPLER_CTL_SAMPLE_INTERP].value = 1;  // linear
    *m->ctls[PSYNTH_SAMPLER_CTL_POLYPHONY].value = kVoices;
    for (int v = 0; v < kVoices; v++) {
        psynth_event e = {};
        e.command = PS_CMD_NOTE_ON;
        e.id = v;
        e.note = (int16_t)(36 + v * 2);  // steps from about 0.5 to 2.9 frames per frame
        e.velocity = 200;
        e.pitch = (120 - e.note) * 256;
        psynth_sampler(mod, &e, &net);
    }
    psynth_event render = {};
    render.command = PS_CMD_RENDER_REPLACE;
    net.frames = kFrames;
    m->render_offset = 0;
    m->render_frames = kFrames;
    int64_t frames = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(psynth_sampler(mod, &render, &net));
        benchmark::DoNotOptimize(m->output_buffers[0][kFrames - 1]);
        frames += kFrames;
    }
    // An inverted rate of (voice frames / 1e9) reads as nanoseconds per voice frame.
    state.counters["ns_per_voice_frame"] =
        benchmark::Counter((double)frames * kVoices / 1e9, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    state.counters["x_realtime"] = benchmark::Counter((double)frames / kRate, benchmark::Counter::kIsRate);
    if (psynth_sampler(mod, &render, &net) == 0) state.SkipWithError("the voices stopped sounding");
    psynth_close(&net);
    psynth_cpu_baseline_only(false);
}

BENCHMARK(BM_SamplerVoices)
    ->ArgNames({"channels", "avx2"})
    ->ArgsProduct({{1, 2}, {1, 0}})
    ->Unit(benchmark::kMicrosecond);

}  // namespace
