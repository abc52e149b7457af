// Cost of the playback engine itself: a 64-line, 32-track pattern with a note in every
// cell, looped for ten minutes of song time into a module that makes no sound, so the
// time measured is cells into events, per-tick effects and the net's bookkeeping.
#include <benchmark/benchmark.h>

#include <vector>

#include "engine/log.h"
#include "engine/memory.h"
#include "song/playback.h"

namespace {

constexpr int kRate = 44100;
constexpr int kSongSeconds = 600;
constexpr int kRequestFrames = 1024;
constexpr int kLines = 64;

// Takes every event and renders silence.
intptr_t silent_handler(int mod_num, psynth_event* event, psynth_net* net) {
    switch (event->command) {
    case PS_CMD_GET_OUTPUTS_NUM: return 2;
    case PS_CMD_GET_FLAGS: return PSYNTH_FLAG_GENERATOR;
    case PS_CMD_NOTE_ON:
    case PS_CMD_NOTE_OFF:
    case PS_CMD_SET_FREQ:
    case PS_CMD_SET_VELOCITY: return 1;
    default: return 0;
    }
}

void BM_PlaybackTenMinutes(benchmark::State& state) {
    mem_init();
    zelfon_song song;
    zelfon_song_init(0, kRate, &song);
    int mod = psynth_add_synth(-1, silent_handler, "Silent", 0, 0, 0, song.bpm, song.speed, song.net);
    psynth_make_link(0, mod, song.net);
    int slot = new_pattern_with_num(zelfon_get_free_pattern_num(&song), kLines, ZELFON_MAX_TRACKS, 0, 0, 1, &song);
    for (int line = 0; line < kLines; line++) {
        for (int t = 0; t < ZELFON_MAX_TRACKS; t++) {
            *zelfon_get_cell(slot, t, line, &song) = zelfon_cell{(uint8_t)(25 + (line + t) % 60), 100, (uint16_t)(mod + 1), 0, 0, 0};
        }
    }
    zelfon_sort_patterns(&song);
    std::vector<float> out(kRequestFrames * 2);
    const int64_t total_frames = (int64_t)kSongSeconds * kRate;
    // At a constant tempo a line lasts T × speed / 256 frames.
    const double lines_per_run = (double)total_frames * 256 / ((double)psynth_tick_length(kRate, song.bpm) * song.speed);
    for (auto _ : state) {
        zelfon_play(0, &song);  // restarts from line 0 when already playing
        for (int64_t done = 0; done < total_frames; done += kRequestFrames) {
            zelfon_render_request r{out.data(), ZELFON_SAMPLE_FLOAT32, 2, kRequestFrames, nullptr, tarvik_time_ticks()};
            zelfon_render(&r, &song);
        }
    }
    // Rate counters divide by the measured seconds; inverted, they give seconds per line.
    state.counters["ns_per_line"] = benchmark::Counter(lines_per_run * state.iterations() / 1e9,
                                                       benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    state.counters["x_realtime"] = benchmark::Counter((double)kSongSeconds * state.iterations(), benchmark::Counter::kIsRate);
    zelfon_song_close(&song);
    mem_free_all();
    mem_deinit();
}

}  // namespace

BENCHMARK(BM_PlaybackTenMinutes)->Unit(benchmark::kMillisecond)->Iterations(3);
