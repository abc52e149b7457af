// Cost of the Kicker, DrumSynth and SpectraVoice: each renders 1024-frame buffers at
// 44100 Hz with a given number of sounding voices, by calling its handler directly as the
// net's render pass would; and the SpectraVoice's wavetable build on NOTE_ON. Reports ns per
// frame (all voices together) and the multiple of realtime on one core.
#include <benchmark/benchmark.h>

#include <initializer_list>
#include <vector>

#include "engine/memory.h"
#include "psynth/psynth_modules.h"

namespace {

constexpr int kRate = 44100;
constexpr int kFrames = 1024;
constexpr int kRestrikeBuffers = 40;  // 0.93 s: one-shot drums of 2 s never fall silent

struct ctl_setting {
    int ctl;
    int value;
};

struct synth_bench {
    psynth_net net;
    int mod;
    psynth_handler handler;
};

void open_synth(synth_bench* b, psynth_handler handler, std::initializer_list<ctl_setting> ctls) {
    mem_init();
    psynth_init(0, kRate, 125, 6, &b->net);
    b->handler = handler;
    b->mod = psynth_add_synth(-1, handler, nullptr, 0, 0, 0, 125, 6, &b->net);
    psynth_do_command(b->mod, PS_CMD_SETUP_FINISHED, &b->net);
    for (const ctl_setting& s : ctls) *b->net.modules[b->mod].ctls[s.ctl].value = s.value;
    b->net.frames = kFrames;
    b->net.modules[b->mod].render_offset = 0;
    b->net.modules[b->mod].render_frames = kFrames;
}

void strike(synth_bench* b, const std::vector<int>& semitones) {
    for (size_t i = 0; i < semitones.size(); i++) {
        psynth_event e = {};
        e.command = PS_CMD_NOTE_ON;
        e.id = (int)i;
        e.note = (int16_t)semitones[i];
        e.velocity = 200;
        e.pitch = (120 - semitones[i]) * 256;
        b->handler(b->mod, &e, &b->net);
    }
}

void report(benchmark::State& state) {
    // An inverted rate of (frames / 1e9) reads as nanoseconds per frame.
    state.counters["ns_per_frame"] = benchmark::Counter((double)state.iterations() * kFrames / 1e9,
                                                        benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    state.counters["x_realtime"] = benchmark::Counter((double)state.iterations() * kFrames / kRate,
                                                      benchmark::Counter::kIsRate);
}

void run_synth(benchmark::State& state, psynth_handler handler, std::initializer_list<ctl_setting> ctls,
               const std::vector<int>& semitones) {
    synth_bench b;
    open_synth(&b, handler, ctls);
    psynth_event render = {};
    render.command = PS_CMD_RENDER_REPLACE;
    int buffers = 0;
    for (auto _ : state) {
        if (buffers++ % kRestrikeBuffers == 0) strike(&b, semitones);
        benchmark::DoNotOptimize(handler(b.mod, &render, &b.net));
        benchmark::ClobberMemory();
    }
    report(state);
    psynth_close(&b.net);
}

enum { KICK_RELEASE = 3, KICK_POLYPHONY = 6 };
enum { DRUM_BASS_LENGTH = 3, DRUM_HIHAT_LENGTH = 6, DRUM_SNARE_LENGTH = 9 };
enum { SV_POLYPHONY = 4 };

void BM_Kicker(benchmark::State& state) {
    run_synth(state, psynth_kicker, {{KICK_RELEASE, 2000}}, {36});
}
void BM_Kicker4Voices(benchmark::State& state) {
    run_synth(state, psynth_kicker, {{KICK_RELEASE, 2000}, {KICK_POLYPHONY, 4}}, {36, 38, 40, 43});
}
void BM_DrumSynth3Drums(benchmark::State& state) {
    run_synth(state, psynth_drumsynth, {{DRUM_BASS_LENGTH, 2000}, {DRUM_HIHAT_LENGTH, 2000}, {DRUM_SNARE_LENGTH, 2000}},
              {60, 62, 66});
}
void BM_SpectraVoice(benchmark::State& state) { run_synth(state, psynth_spectravoice, {}, {48}); }
void BM_SpectraVoice8Voices(benchmark::State& state) {
    run_synth(state, psynth_spectravoice, {{SV_POLYPHONY, 8}}, {48, 52, 55, 60, 64, 67, 72, 76});
}

// One NOTE_ON that must build its table (SETUP_FINISHED marks the partials changed): the
// default four partials (12 sines with their widths), or all 16 at the widest (272 sines).
void run_table_build(benchmark::State& state, bool widest) {
    synth_bench b;
    open_synth(&b, psynth_spectravoice, {});
    if (widest) {
        uint16_t* p = (uint16_t*)psynth_get_chunk(b.mod, 0, &b.net);
        for (int i = 0; i < 16; i++) {
            p[3 * i] = (uint16_t)(16 * (i + 1));
            p[3 * i + 1] = 64;
            p[3 * i + 2] = 8;
        }
    }
    for (auto _ : state) {
        psynth_do_command(b.mod, PS_CMD_SETUP_FINISHED, &b.net);
        strike(&b, {48});
        benchmark::ClobberMemory();
    }
    psynth_close(&b.net);
}
void BM_SpectraVoiceNoteOnBuild(benchmark::State& state) { run_table_build(state, false); }
void BM_SpectraVoiceNoteOnBuildWidest(benchmark::State& state) { run_table_build(state, true); }

BENCHMARK(BM_Kicker);
BENCHMARK(BM_Kicker4Voices);
BENCHMARK(BM_DrumSynth3Drums);
BENCHMARK(BM_SpectraVoice);
BENCHMARK(BM_SpectraVoice8Voices);
BENCHMARK(BM_SpectraVoiceNoteOnBuild);
BENCHMARK(BM_SpectraVoiceNoteOnBuildWidest);

}  // namespace
