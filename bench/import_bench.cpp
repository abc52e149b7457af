// Cost of importing XM files made in memory by the test writers: one of about 1 MB (32
// channels, 40 patterns of 64 rows with a note and an effect in most cells, 128 orders, most
// of them repeats, so clones, and 16 instruments of 16-bit samples), and a small one whose
// nested pattern loops unroll into the longest song an import makes.
#include <benchmark/benchmark.h>

#include "engine/file.h"
#include "engine/log.h"
#include "engine/memory.h"
#include "song/import.h"
#include "song/tracker_writers.h"

namespace {

constexpr int kChannels = 32;
constexpr int kPatterns = 40;
constexpr int kRows = 64;
constexpr int kOrders = 128;
constexpr int kInstruments = 16;
constexpr int kSampleFrames = 21000;

tw_bytes big_xm() {
    tw_song s;
    s.name = "Import benchmark";
    s.channels = kChannels;
    s.patterns = kPatterns;
    s.rows = kRows;
    for (int o = 0; o < kOrders; o++) s.orders.push_back((o * 7) % kPatterns);
    const int effects[][2] = {{0xA, 0x21}, {0x1, 0x04}, {0x0, 0x37}, {0x9, 0x01}, {0x4, 0x44}, {0xE, 0x92}, {0x3, 0x08}, {0x8, 0x80}};
    for (int p = 0; p < kPatterns; p++) {
        for (int row = 0; row < kRows; row++) {
            for (int ch = 0; ch < kChannels; ch++) {
                int k = p * 131 + row * 17 + ch;
                if (k % 5 == 4) continue;
                const int* fx = effects[k % 8];
                s.cells.push_back({p, row, ch, 25 + k % 60, 1 + k % kInstruments, 0x10 + k % 64, fx[0], fx[1]});
            }
        }
    }
    for (int i = 0; i < kInstruments; i++) {
        tw_sample smp;
        smp.name = "Sample " + std::to_string(i);
        smp.frames = tw_rough(kSampleFrames, 20000, (uint32_t)i);
        smp.wide = true;
        smp.loop = TW_LOOP_FORWARD;
        smp.loop_start = 1000;
        smp.loop_length = kSampleFrames - 1000;
        s.samples.push_back(smp);
        tw_instrument ins;
        ins.name = "Instrument " + std::to_string(i);
        ins.samples = {i};
        ins.volume = {{{0, 64}, {20, 40}, {80, 0}}, true, 1, -1, -1};
        ins.fadeout = 512;
        s.instruments.push_back(ins);
    }
    return tw_write_xm(s);
}

// One pattern of 256 rows, a note every fourth row in each of 32 channels, and loops nested
// four deep (rows 0–3, 0–15, 0–63 and 0–255, sixteen times each): 16^4 passes of its rows
// would be far more than an import lays out.
tw_bytes looped_xm() {
    tw_song s;
    s.name = "Nested loops";
    s.channels = kChannels;
    s.rows = 256;
    s.orders = {0};
    const int loop_ends[] = {3, 15, 63, 255};
    for (int row = 0; row < s.rows; row++) {
        for (int ch = 0; ch < kChannels; ch++) {
            tw_cell cell{0, row, ch};
            if (row % 4 == 0) {
                cell.note = 37 + (row / 4 + ch) % 24;
                cell.instrument = 1;
            }
            if (ch < 4 && row == 0) cell.effect = 0xE, cell.param = 0x60;                 // loop start
            if (ch < 4 && row == loop_ends[ch]) cell.effect = 0xE, cell.param = 0x6F;     // back 15 times
            s.cells.push_back(cell);
        }
    }
    tw_sample smp;
    smp.name = "Sine";
    smp.frames = tw_sine(64, 20000);
    smp.loop = TW_LOOP_FORWARD;
    smp.loop_length = 64;
    s.samples.push_back(smp);
    tw_instrument ins;
    ins.name = "Sine";
    ins.samples = {0};
    s.instruments.push_back(ins);
    return tw_write_xm(s);
}

void import_file(benchmark::State& state, const tw_bytes& file) {
    mem_init();
    v3_init();
    tarvik_log_disable(1);
    zelfon_song song;
    if (zelfon_song_init(0, 44100, &song)) state.SkipWithError("no song");
    zelfon_import_report report;
    for (auto _ : state) {
        if (zelfon_import_song_from_memory(file.data(), file.size(), &song, &report)) state.SkipWithError(report.error);
    }
    state.counters["file_kb"] = (double)file.size() / 1024;
    state.counters["lines"] = report.lines;
    state.counters["patterns"] = report.patterns;
    state.counters["clones"] = report.clones;
    zelfon_song_close(&song);
    v3_deinit();
    mem_free_all();
    mem_deinit();
}

void BM_ImportXm(benchmark::State& state) { import_file(state, big_xm()); }
void BM_ImportLoopedXm(benchmark::State& state) { import_file(state, looped_xm()); }

BENCHMARK(BM_ImportXm)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ImportLoopedXm)->Unit(benchmark::kMillisecond);

}  // namespace
