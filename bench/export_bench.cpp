// Cost of a WAV export: a three-minute song of 16 Sampler voices (one looped 16-bit sample,
// notes retriggered every 16 lines on 16 tracks) exported as the 16-bit mix to
// "3:/bench_export.wav" through the whole path: playback, the net, conversion and the file.
#include <benchmark/benchmark.h>

#include <cmath>

#include "engine/file.h"
#include "engine/memory.h"
#include "psynth/psynth_modules.h"
#include "psynth/sampler.h"
#include "song/export.h"
#include "song/song.h"

namespace {

constexpr int kRate = 44100;
constexpr int kTracks = 16;
constexpr int kPatternLines = 64;
constexpr int kPatterns = 24;          // 1536 lines of 0.12 s: just over three minutes
constexpr int kRetriggerLines = 16;
constexpr int kSampleFrames = 22050;
constexpr int kLoopStart = 2205;

// One mono 16-bit sample of a sine and its octave, looped over all but its first tenth.
void add_sample(int mod, psynth_net* net) {
    psynth_new_chunk(mod, psynth_sampler_header_chunk(0), sizeof(psynth_sampler_sample), 0, 0, net);
    psynth_new_chunk(mod, psynth_sampler_data_chunk(0), kSampleFrames * (int)sizeof(int16_t), 0, kRate, net);
    int16_t* data = (int16_t*)psynth_get_chunk(mod, psynth_sampler_data_chunk(0), net);
    for (int i = 0; i < kSampleFrames; i++) {
        data[i] = (int16_t)(9000 * std::sin(i * 0.0627) + 4000 * std::sin(i * 0.1254));
    }
    psynth_sampler_sample* h = (psynth_sampler_sample*)psynth_get_chunk(mod, psynth_sampler_header_chunk(0), net);
    h->length = kSampleFrames;
    h->loop_start = kLoopStart;
    h->loop_length = kSampleFrames - kLoopStart;
    h->volume = 64;
    h->panning = 128;
    h->relative_note = 29;
    h->type = PSYNTH_SAMPLER_LOOP_FORWARD | (PSYNTH_SAMPLER_FORMAT_INT16 << PSYNTH_SAMPLER_FORMAT_SHIFT);
    psynth_sampler_instrument* ins = (psynth_sampler_instrument*)psynth_get_chunk(mod, 0, net);
    ins->samples_num = 1;
}

// The song: one pattern of 16 tracks placed 24 times (clones) one after the other.
bool build_song(zelfon_song* song) {
    if (zelfon_song_init(0, kRate, song) != 0) return false;
    psynth_net* net = song->net;
    int mod = psynth_add_synth(-1, psynth_sampler, nullptr, 0, 0, 0, song->bpm, song->speed, net);
    if (mod < 0) return false;
    psynth_make_link(0, mod, net);
    add_sample(mod, net);
    psynth_do_command(mod, PS_CMD_SETUP_FINISHED, net);
    *net->modules[mod].ctls[PSYNTH_SAMPLER_CTL_POLYPHONY].value = kTracks;
    int slot = zelfon_get_free_pattern_num(song);
    if (new_pattern_with_num(slot, kPatternLines, kTracks, 0, 0, 1, song) != slot) return false;
    for (int line = 0; line < kPatternLines; line += kRetriggerLines) {
        for (int t = 0; t < kTracks; t++) {
            zelfon_cell* c = zelfon_get_cell(slot, t, line, song);
            *c = zelfon_cell{(uint8_t)(37 + 2 * t + line / kRetriggerLines), 100, (uint16_t)(mod + 1), 0, 0, 0};
        }
    }
    for (int p = 1; p < kPatterns; p++) {
        if (zelfon_clone_pattern(slot, p * kPatternLines, 0, song) < 0) return false;
    }
    zelfon_sort_patterns(song);
    return true;
}

// True when a stretch of 16-bit frames from the middle of the file holds sound.
bool sounds_in_the_middle(const char* path) {
    int h = v3_open(path, "rb");
    if (!h) return false;
    int16_t frames[2048];
    bool loud = false;
    if (v3_seek(h, v3_get_file_size(path) / 2 & ~(int64_t)3, V3_SEEK_SET) == 0 &&
        v3_read(frames, sizeof(frames), 1, h) == 1) {
        for (int16_t v : frames) loud |= v > 1000 || v < -1000;
    }
    v3_close(h);
    return loud;
}

void BM_ExportThreeMinutes16Voices(benchmark::State& state) {
    mem_init();
    v3_init();
    zelfon_song song{};
    if (!build_song(&song)) {
        state.SkipWithError("the song could not be built");
    } else {
        double seconds = (double)zelfon_get_song_length_frames(kRate, &song) / kRate;
        int result = ZELFON_EXPORT_OK;
        for (auto _ : state) {
            result |= zelfon_export_to_wav("3:/bench_export.wav", ZELFON_EXPORT_INT16, ZELFON_EXPORT_ONE_FILE,
                                           nullptr, nullptr, &song);
        }
        if (result != ZELFON_EXPORT_OK) state.SkipWithError("the export failed");
        else if (!sounds_in_the_middle("3:/bench_export.wav")) state.SkipWithError("the export is silent");
        // Seconds of song per second of export.
        state.counters["x_realtime"] = benchmark::Counter(seconds * (double)state.iterations(), benchmark::Counter::kIsRate);
        state.counters["song_seconds"] = seconds;
    }
    zelfon_song_close(&song);
    v3_remove("3:/bench_export.wav");
    v3_deinit();
    mem_free_all();
    mem_deinit();
}

BENCHMARK(BM_ExportThreeMinutes16Voices)->Unit(benchmark::kMillisecond);

}  // namespace
