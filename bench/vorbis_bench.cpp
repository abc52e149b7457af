// Cost of the Vorbis player: its voices at 44100 Hz (1 and 8, each at its own pitch, on a
// repeating 30-second stereo file, rendered by calling the handler for 1024-frame blocks),
// and the load of that file: reading it, decoding all of it with Tremor, keeping the chunk.
// The Ogg file is encoded once by oggenc from a tone into a temporary folder.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <unistd.h>

#include "engine/memory.h"
#include "psynth/psynth_modules.h"
#include "psynth/vorbis_player.h"
#include "tests/psynth/ogg_tone.h"

namespace {

constexpr int kRate = 44100;
constexpr int kFrames = 1024;
constexpr double kSeconds = 30;

// A folder of its own, removed when the program ends.
struct bench_folder {
    std::filesystem::path path = std::filesystem::temp_directory_path() / ("zelfon_vorbis_bench_" + std::to_string(getpid()));
    bench_folder() { std::filesystem::create_directories(path); }
    ~bench_folder() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
};

// The 30-second stereo file (441 Hz left, 882 Hz right), made on first use; "" without oggenc.
const std::string& thirty_second_file() {
    static const bench_folder folder;
    static const std::string path = [] {
        if (!ogg_tone_encoder_found()) return std::string();
        return ogg_tone_make(folder.path.string(), "thirty", 441, kSeconds, kRate, 2, 882);
    }();
    return path;
}

struct player {
    psynth_net net;
    int mod;
};

// A net with one Vorbis player holding the file; false when it cannot be made.
bool make_player(player* p) {
    psynth_init(0, kRate, 125, 6, &p->net);
    p->mod = psynth_add_synth(-1, psynth_vorbis_player, nullptr, 0, 0, 0, 125, 6, &p->net);
    if (p->mod < 0) return false;
    psynth_do_command(p->mod, PS_CMD_SETUP_FINISHED, &p->net);
    return !thirty_second_file().empty() && psynth_vorbis_player_load(p->mod, thirty_second_file().c_str(), &p->net) == 0;
}

void BM_VorbisVoices(benchmark::State& state) {
    const int voices = (int)state.range(0);
    mem_init();
    player p;
    if (!make_player(&p)) {
        state.SkipWithError("no Ogg file (oggenc missing?)");
        psynth_close(&p.net);
        return;
    }
    psynth_module* m = &p.net.modules[p.mod];
    *m->ctls[PSYNTH_VORBIS_CTL_REPEAT].value = 1;
    for (int v = 0; v < voices; v++) {
        psynth_event e = {};
        e.command = PS_CMD_NOTE_ON;
        e.id = v;
        e.velocity = 200;
        e.pitch = PSYNTH_VORBIS_BASE_PITCH + (v - 4) * 256;  // steps from about 0.8 to 1.3
        psynth_vorbis_player(p.mod, &e, &p.net);
    }
    psynth_event render = {};
    render.command = PS_CMD_RENDER_REPLACE;
    p.net.frames = kFrames;
    m->render_offset = 0;
    m->render_frames = kFrames;
    int64_t frames = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(psynth_vorbis_player(p.mod, &render, &p.net));
        benchmark::DoNotOptimize(m->output_buffers[0][kFrames - 1]);
        frames += kFrames;
    }
    // Inverted rates of (frames / 1e9) read as nanoseconds per frame.
    state.counters["ns_per_frame"] =
        benchmark::Counter((double)frames / 1e9, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    state.counters["ns_per_voice_frame"] =
        benchmark::Counter((double)frames * voices / 1e9, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    if (psynth_vorbis_player(p.mod, &render, &p.net) == 0) state.SkipWithError("the voices stopped sounding");
    psynth_close(&p.net);
}

void BM_VorbisLoadThirtySeconds(benchmark::State& state) {
    mem_init();
    player p;
    if (!make_player(&p)) {
        state.SkipWithError("no Ogg file (oggenc missing?)");
        psynth_close(&p.net);
        return;
    }
    for (auto _ : state) {
        if (psynth_vorbis_player_load(p.mod, thirty_second_file().c_str(), &p.net) != 0) state.SkipWithError("load failed");
    }
    state.counters["x_realtime"] = benchmark::Counter(kSeconds * (double)state.iterations(), benchmark::Counter::kIsRate);
    psynth_close(&p.net);
}

BENCHMARK(BM_VorbisVoices)->Arg(1)->Arg(8)->ArgName("voices")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_VorbisLoadThirtySeconds)->Unit(benchmark::kMillisecond);

}  // namespace
