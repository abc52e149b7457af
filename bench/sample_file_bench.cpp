// Cost of loading and saving samples: a 10-second stereo WAV (16-bit and 24-bit, which
// is turned into floats) loaded into a Sampler, and a 16-bit one saved as WAV; and 100 MB
// WAVs (16-bit PCM read straight in, 24-bit in the extensible header decoded block by
// block). The files are written once into the temporary folder; the page cache keeps them warm.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "engine/memory.h"
#include "psynth/psynth_modules.h"
#include "psynth/sample_file.h"

namespace {

constexpr int kFrames = 441000;  // 10 s at 44100 Hz
constexpr int64_t k100MB = 100 * 1024 * 1024;

std::string temp_path(const char* name) { return (std::filesystem::temp_directory_path() / name).string(); }

std::string le(uint32_t v, int n) {
    std::string s;
    for (int i = 0; i < n; i++) s += (char)(v >> (8 * i));
    return s;
}

// A stereo WAV of `bits` (16 or 24; with `extensible` the 40-byte "fmt " of tag 0xFFFE)
// holding `frames` frames of a slow ramp.
std::string write_wav(const char* name, int bits, int64_t frames, bool extensible = false) {
    std::string path = temp_path(name);
    const int bytes = bits / 8;
    const uint32_t data = (uint32_t)(frames * 2 * bytes);
    std::string fmt = le(extensible ? 0xFFFE : 1, 2) + le(2, 2) + le(44100, 4) + le(44100 * 2 * bytes, 4) + le(2 * bytes, 2) +
                      le(bits, 2);
    if (extensible) fmt += le(22, 2) + le(bits, 2) + le(3, 4) + le(1, 2) + std::string("\0\0\0\0\x10\0\x80\0\0\xaa\0\x38\x9b\x71", 14);
    std::string head = "WAVEfmt " + le((uint32_t)fmt.size(), 4) + fmt + "data" + le(data, 4);
    head = "RIFF" + le((uint32_t)head.size() + data, 4) + head;
    std::vector<uint8_t> values((size_t)data);
    for (int64_t i = 0; i < frames * 2; i++) {
        const uint32_t v = (uint32_t)(i * 97);
        for (int b = 0; b < bytes; b++) values[(size_t)(i * bytes + b)] = (uint8_t)(v >> (8 * b));
    }
    FILE* f = fopen(path.c_str(), "wb");
    fwrite(head.data(), 1, head.size(), f);
    fwrite(values.data(), 1, values.size(), f);
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

void load_wav(benchmark::State& state, const std::string& path, int64_t bytes, double seconds) {
    sampler_net s;
    for (auto _ : state) {
        if (psynth_sample_load(path.c_str(), s.mod, PSYNTH_SAMPLE_SLOT_INSTRUMENT, 0, &s.net)) state.SkipWithError("load failed");
    }
    state.SetBytesProcessed(state.iterations() * bytes);
    state.counters["x_realtime"] = benchmark::Counter(seconds * state.iterations(), benchmark::Counter::kIsRate);
    std::remove(path.c_str());
}

void BM_LoadWav16Stereo(benchmark::State& state) {
    load_wav(state, write_wav("zelfon_bench_16.wav", 16, kFrames), (int64_t)kFrames * 4, 10.0);
}
void BM_LoadWav24Stereo(benchmark::State& state) {
    load_wav(state, write_wav("zelfon_bench_24.wav", 24, kFrames), (int64_t)kFrames * 6, 10.0);
}
// 100 MB of values: 26214400 frames of 16-bit stereo (about 10 minutes at 44100 Hz).
void BM_LoadWav100MB16Stereo(benchmark::State& state) {
    load_wav(state, write_wav("zelfon_bench_100mb.wav", 16, k100MB / 4), k100MB, k100MB / 4 / 44100.0);
}
// 100 MB of 24-bit values in the extensible header: 17476266 frames become 140 MB of floats.
void BM_LoadWav100MB24Extensible(benchmark::State& state) {
    load_wav(state, write_wav("zelfon_bench_100mb24.wav", 24, k100MB / 6, true), k100MB / 6 * 6, k100MB / 6 / 44100.0);
}

void BM_SaveWav16Stereo(benchmark::State& state) {
    std::string in = write_wav("zelfon_bench_16.wav", 16, kFrames);
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
BENCHMARK(BM_LoadWav100MB16Stereo)->Unit(benchmark::kMillisecond)->UseRealTime();  // file I/O: wall time
BENCHMARK(BM_LoadWav100MB24Extensible)->Unit(benchmark::kMillisecond)->UseRealTime();  // file I/O: wall time
BENCHMARK(BM_SaveWav16Stereo)->Unit(benchmark::kMillisecond)->UseRealTime();  // file I/O: wall time
