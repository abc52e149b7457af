// Tempo over the timeline: per-line tables of BPM and speed built from the song's
// settings and the patterns' tempo effects (0x0F), and the song's length in frames.
#include "engine/memory.h"
#include "psynth/psynth_net.h"
#include "song/song.h"

constexpr int kEffectTempo = 0x0F;      // value > 31: BPM; otherwise ticks per line
constexpr int kTempoSpeedMax = 31;
constexpr int kFrameFracBits = 8;       // tick lengths are in 1/256 frame
constexpr int64_t kFrameFracOne = 1 << kFrameFracBits;

// Writes the tempo effects of the pattern in `slot` into the tables (lines 0..lines−1 only).
static void apply_pattern_tempo(int slot, uint16_t* bpm, uint8_t* speed, int lines, const zelfon_song* song) {
    const zelfon_pattern* pat = song->pats[slot];
    int x = song->pats_info[slot].x;
    if (!pat->data || (int64_t)x + pat->lines <= 0) return;
    int tracks = pat->channels < pat->data_xsize ? pat->channels : pat->data_xsize;
    int rows = pat->lines < pat->data_ysize ? pat->lines : pat->data_ysize;
    int first = x < 0 ? -x : 0;  // lines before the song's start do not count
    for (int l = first; l < rows && (int64_t)x + l < lines; l++) {
        for (int t = 0; t < tracks; t++) {
            const zelfon_cell* cell = &pat->data[(size_t)l * pat->data_xsize + t];
            if (cell->effect != kEffectTempo) continue;
            if (cell->value > kTempoSpeedMax) {
                bpm[x + l] = cell->value < ZELFON_BPM_MAX ? cell->value : ZELFON_BPM_MAX;
            } else {
                uint8_t ticks = (uint8_t)(cell->value & 0xFF);
                speed[x + l] = ticks < 2 ? 1 : ticks;
            }
        }
    }
}

int zelfon_get_song_speed_tables(uint16_t** bpm_table, uint8_t** speed_table, int lines, zelfon_song* song) {
    *bpm_table = nullptr;
    *speed_table = nullptr;
    if (lines < 1) lines = 1;
    uint16_t* bpm = (uint16_t*)mem_new(MEM_DYNAMIC, (size_t)lines * sizeof(uint16_t), "zelfon_get_song_speed_tables");
    uint8_t* speed = (uint8_t*)mem_new(MEM_DYNAMIC, (size_t)lines, "zelfon_get_song_speed_tables");
    if (!bpm || !speed) {
        mem_free(bpm);
        mem_free(speed);
        return 1;
    }
    mem_zero(bpm);
    mem_zero(speed);
    bpm[0] = song->bpm;
    speed[0] = song->speed ? song->speed : 1;  // a speed of 0 plays as 1
    for (int i = 0; i < song->pats_capacity; i++) {
        if (song->pats[i]) apply_pattern_tempo(i, bpm, speed, lines, song);
    }
    for (int l = 1; l < lines; l++) {
        if (!bpm[l]) bpm[l] = bpm[l - 1];
        if (!speed[l]) speed[l] = speed[l - 1];
    }
    *bpm_table = bpm;
    *speed_table = speed;
    return 0;
}

int64_t zelfon_get_song_length_frames(int sampling_rate, zelfon_song* song) {
    zelfon_sort_patterns(song);
    int lines = song->song_lines;
    if (lines <= 0) return 0;
    uint16_t* bpm = nullptr;
    uint8_t* speed = nullptr;
    if (zelfon_get_song_speed_tables(&bpm, &speed, lines, song)) return -1;
    // Each line's fraction of a frame is carried into the next, so long songs do not drift.
    int64_t frames = 0;
    int64_t fraction = 0;
    for (int l = 0; l < lines; l++) {
        int64_t line_length = (int64_t)psynth_tick_length(sampling_rate, bpm[l]) * speed[l];
        frames += line_length >> kFrameFracBits;
        fraction += line_length & (kFrameFracOne - 1);
        if (fraction >= kFrameFracOne) {
            frames++;
            fraction -= kFrameFracOne;
        }
    }
    mem_free(bpm);
    mem_free(speed);
    return frames;
}
