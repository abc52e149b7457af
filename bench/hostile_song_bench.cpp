// Cost of loading songs under 1 MB that claim far more than they hold, as `zelfon info`
// does it: load, then the song's length in frames. Each file is written by the real chunk
// writer into a disk file in the temporary folder:
// - patterns: 16384 pattern slots (the file's limit), each an icon at a line position that
//   falls as the slots rise, so the play order is sorted from the worst order;
// - far: one pattern of 4 lines at line 2^30;
// - tempo: one pattern of 32 tracks by 4000 lines whose every cell holds a tempo effect
//   (128 000 tempo changes);
// - modules: 1016 Reverbs of a few dozen bytes each.
// Counters: the file's size, the memory manager's peak growth during the load, the song's
// length in frames and the modules loaded.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "engine/file.h"
#include "engine/log.h"
#include "engine/memory.h"
#include "song/chunks.h"
#include "song/song_file.h"

namespace {

constexpr const char* kPath = "3:/zelfon_hostile_bench.zelfon";
constexpr int kTempo = 0x0F;

enum hostile_kind { PATTERNS, FAR, TEMPO, MODULES };

bool write_pattern(int fd, int x, const std::vector<zelfon_cell>* cells, int tracks, int lines) {
    uint16_t icon[ZELFON_ICON_SIZE] = {0x8001};
    if (cells && zelfon_write_chunk("PDTA", (uint32_t)(cells->size() * sizeof(zelfon_cell)), cells->data(), fd)) return false;
    // One line of one track is what a pattern without those chunks has.
    bool size_ok = (tracks == 1 && lines == 1) ||
                   (!zelfon_write_int_chunk("PCHN", tracks, fd) && !zelfon_write_int_chunk("PLIN", lines, fd));
    return size_ok && !zelfon_write_chunk("PICO", sizeof icon, icon, fd) && !zelfon_write_int_chunk("PXXX", x, fd) &&
           !zelfon_write_chunk("PEND", 0, nullptr, fd);
}

bool write_hostile_song(hostile_kind kind) {
    int fd = v3_open(kPath, "wb");
    if (!fd) return false;
    bool ok = !zelfon_write_chunk("ZFON", 0, nullptr, fd);
    if (kind == PATTERNS) {
        for (int i = 0; ok && i < ZELFON_FILE_MAX_PATTERN_SLOTS; i++) ok = write_pattern(fd, 1000000 - 7 * i, nullptr, 1, 1);
    } else if (kind == FAR) {
        ok = ok && write_pattern(fd, 1 << 30, nullptr, 1, 4);
    } else if (kind == TEMPO) {
        std::vector<zelfon_cell> cells(32 * 4000);
        for (size_t i = 0; i < cells.size(); i++) cells[i] = zelfon_cell{0, 0, 0, kTempo, 0, (uint16_t)(32 + i % 200)};
        ok = ok && write_pattern(fd, 0, &cells, 32, 4000);
    } else {
        ok = ok && !zelfon_write_chunk("SEND", 0, nullptr, fd);  // OUT
        for (int i = 0; ok && i < ZELFON_FILE_MAX_MODULE_SLOTS - 8; i++) {
            ok = !zelfon_write_int_chunk("SFFF", 1, fd) && !zelfon_write_chunk("STYP", 7, "Reverb", fd) &&
                 !zelfon_write_chunk("SEND", 0, nullptr, fd);
        }
    }
    return v3_close(fd) == 0 && ok;
}

void BM_LoadHostileSong(benchmark::State& state) {
    mem_init();
    v3_init();
    tarvik_log_disable(1);
    zelfon_song song;
    if (!write_hostile_song((hostile_kind)state.range(0)) || zelfon_song_init(0, 44100, &song)) {
        state.SkipWithError("no song");
        return;
    }
    int64_t before = mem_get_stats().dynamic_in_use;
    int64_t frames = 0;
    for (auto _ : state) {
        zelfon_load_song(kPath, &song);
        frames = zelfon_get_song_length_frames(44100, &song);
    }
    state.counters["file_kb"] = (double)v3_get_file_size(kPath) / 1024;
    state.counters["peak_mb"] = (double)(mem_get_stats().max_dynamic_used - before) / (1 << 20);
    state.counters["frames"] = (double)frames;
    int modules = 0;
    for (int m = 0; m < song.net->slots; m++) modules += (song.net->modules[m].flags & PSYNTH_FLAG_EXISTS) ? 1 : 0;
    state.counters["modules"] = modules;
    zelfon_song_close(&song);
    v3_remove(kPath);
    v3_deinit();
    mem_free_all();
    mem_deinit();
}
BENCHMARK(BM_LoadHostileSong)->ArgName("kind")->DenseRange(PATTERNS, MODULES)->Unit(benchmark::kMillisecond);

}  // namespace
