// Cost of undoing (and redoing) the largest paste the pattern editor makes: a block of
// 32 tracks × 256 lines into a 32-track, 256-line pattern, with the net's mutex taken as
// the edit takes it while a song plays.
#include <benchmark/benchmark.h>

#include <vector>

#include "engine/memory.h"
#include "song/edit.h"

namespace {

constexpr int kLines = 256;

void BM_UndoPaste32x256(benchmark::State& state) {
    mem_init();
    zelfon_song song;
    zelfon_song_init(0, 44100, &song);
    int slot = zelfon_edit_new_pattern(kLines, ZELFON_MAX_TRACKS, 0, 0, 1, &song);
    std::vector<zelfon_cell> block((size_t)ZELFON_MAX_TRACKS * kLines);
    for (size_t i = 0; i < block.size(); i++) block[i] = zelfon_cell{(uint8_t)(1 + i % 120), 100, 2, 0, 0, (uint16_t)i};
    zelfon_cell_rect at = {slot, 0, 0, 0, 0};
    zelfon_edit_begin(&song);
    zelfon_edit_paste(&at, block.data(), ZELFON_MAX_TRACKS, kLines, 0, &song);
    for (auto _ : state) {
        zelfon_undo(nullptr, &song);
        state.PauseTiming();
        zelfon_redo(nullptr, &song);
        state.ResumeTiming();
    }
    if (zelfon_get_cell(slot, 31, kLines - 1, &song)->value != (uint16_t)(block.size() - 1)) state.SkipWithError("paste lost");
    zelfon_song_close(&song);
    mem_free_all();
    mem_deinit();
}
BENCHMARK(BM_UndoPaste32x256)->Unit(benchmark::kMicrosecond);

}  // namespace
