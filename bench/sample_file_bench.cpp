// Cost of loading and saving samples: a 10-second stereo WAV (16-bit and 24-bit, which
// is turned into floats in place) loaded into a Sampler, and a 16-bit one saved as WAV.
// The files are written once into the temporary folder; the page cache keeps them warm.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "engine/memory.h"
#include "psynth/psynth_modules.h"
#include "psynth/sample_file.h"

namespace {

constexpr int kFrames = 441000;  // 10 s at 44100 Hz

std::string temp_path(const char* name) { return (std::filesystem::temp_directory_path() / name).string(); }

std::string le(uint32_t v, int n) {
    std::string s;
    for (int i = 0; i < n; i++) s += (char)(v >> (8 * i));
    return s;
}

// A stereo WAV of `bits` (16 or 24) holding a slow ramp.
std::string write_wav(int bits) {
    std::string path = temp_path(bits == 16 ? "zelfon_bench_16.wav" : "zelfon_bench_24.wav");
    const int bytes = bits / 8;
    const uint32_t data = (uint32_t)kFrames * 2 * bytes;
    std::string s = "RIFF" + le(data + 36, 4) + "WAVEfmt " + le(16, 4) + le(1, 2) + le(2, 2) + le(44100, 4) +
                    le(44100 * 2 * bytes, 4) + le(2 * bytes, 2) + le(bits, 2) + "data" + le(data, 4);
    s.reserve(s.size() + data);
    for (int i = 0; i < kFrames * 2; i++) s += le((uint32_t)(i * 97), bytes);
    FILE* f = fopen(path.c_str(), "wb");
    fwrite(s.data(), 1, s.size(), f);
    fclose(f);
    return path;
}

struct sampler_net {
    psynth_net net;
    int mod;
    sampler_net() {
        mem_init();
        psynth_init(0, 44100, 125, 6, &net);
        mod = psynth_add_synth(-1, psynth_sampler, nullptr, 0, 0, 0, 125, 6, &net);
    }
    ~sampler_net() {
        psynth_close(&net);
        mem_free_all();
        mem_deinit();
    }
};

void load_wav(benchmark::State& state, int bits) {
    std::string path = write_wav(bits);
    sampler_net s;
    for (auto _ : state) {
        if (psynth_sample_load(path.c_str(), s.mod, PSYNTH_SAMPLE_SLOT_INSTRUMENT, 0, &s.net)) state.SkipWithError("load failed");
    }
    state.SetBytesProcessed(state.iterations() * (int64_t)kFrames * 2 * (bits / 8));
    state.counters["x_realtime"] = benchmark::Counter(10.0 * state.iterations(), benchmark::Counter::kIsRate);
    std::remove(path.c_str());
}

void BM_LoadWav16Stereo(benchmark::State& state) { load_wav(state, 16); }
void BM_LoadWav24Stereo(benchmark::State& state) { load_wav(state, 24); }

void BM_SaveWav16Stereo(benchmark::State& state) {
    std::string in = write_wav(16);
    std::string out = temp_path("zelfon_bench_out.wav");
    sampler_net s;
    psynth_sample_load(in.c_str(), s.mod, PSYNTH_SAMPLE_SLOT_INSTRUMENT, 0, &s.net);
    for (auto _ : state) {
        if (psynth_sample_save_wav(out.c_str(), s.mod, 0, &s.net)) state.SkipWithError("save failed");
    }
    state.SetBytesProcessed(state.iterations() * (int64_t)kFrames * 4);
    std::remove(in.c_str());
    std::remove(out.c_str());
}

}  // namespace

BENCHMARK(BM_LoadWav16Stereo)->Unit(benchmark::kMillisecond)->UseRealTime();  // file I/O: wall time
BENCHMARK(BM_LoadWav24Stereo)->Unit(benchmark::kMillisecond)->UseRealTime();  // file I/O: wall time
BENCHMARK(BM_SaveWav16Stereo)->Unit(benchmark::kMillisecond)->UseRealTime();  // file I/O: wall time
