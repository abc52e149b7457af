// Tempo over the timeline: the list of BPM and speed changes made by the song's settings
// and the patterns' tempo effects (0x0F), and the song's length in frames. Only changes are
// stored: a song's length costs nothing, whatever line its last pattern claims to end at.
#include <algorithm>

#include "engine/memory.h"
#include "psynth/psynth_net.h"
#include "song/song.h"

constexpr int kEffectTempo = 0x0F;      // value > 31: BPM; otherwise ticks per line
constexpr int kTempoSpeedMax = 31;
constexpr int kFrameFracBits = 8;       // tick lengths are in 1/256 frame
constexpr int64_t kFrameFracOne = 1 << kFrameFracBits;

namespace {

// One tempo effect at an absolute line; `order` keeps the order in which effects overwrite
// each other on one line (slot, then line, then track).
struct tempo_effect {
    int line;
    int order;
    uint16_t value;
};

// Calls `take(line, value)` for each tempo effect of the pattern in `slot` at line ≥ 0.
template <class F>
void for_each_tempo_effect(int slot, const zelfon_song* song, F take) {
    const zelfon_pattern* pat = song->pats[slot];
    int x = song->pats_info[slot].x;
    if (!pat->data || (int64_t)x + pat->lines <= 0) return;
    int tracks = pat->channels < pat->data_xsize ? pat->channels : pat->data_xsize;
    int rows = pat->lines < pat->data_ysize ? pat->lines : pat->data_ysize;
    int first = x < 0 ? -x : 0;  // lines before the song's start do not count
    for (int l = first; l < rows && (int64_t)x + l <= INT32_MAX; l++) {
        for (int t = 0; t < tracks; t++) {
            const zelfon_cell* cell = &pat->data[(size_t)l * pat->data_xsize + t];
            if (cell->effect == kEffectTempo) take(x + l, cell->value);
        }
    }
}

// Applies one tempo effect's value to a tempo.
void apply_effect(uint16_t value, zelfon_tempo_change* tempo) {
    if (value > kTempoSpeedMax) {
        tempo->bpm = value < ZELFON_BPM_MAX ? value : ZELFON_BPM_MAX;
    } else {
        uint8_t ticks = (uint8_t)(value & 0xFF);
        tempo->speed = ticks < 2 ? 1 : ticks;
    }
}

}  // namespace

int zelfon_get_song_tempo_changes(zelfon_tempo_change** changes, int* count, zelfon_song* song) {
    *changes = nullptr;
    *count = 0;
    int64_t effects_count = 0;
    for (int i = 0; i < song->pats_capacity; i++) {
        if (song->pats[i]) for_each_tempo_effect(i, song, [&](int, uint16_t) { effects_count++; });
    }
    // Every effect can start a change of its own, after the one at line 0.
    zelfon_tempo_change* list = (zelfon_tempo_change*)mem_new(
        MEM_DYNAMIC, (size_t)(effects_count + 1) * sizeof(zelfon_tempo_change), "zelfon_get_song_tempo_changes");
    tempo_effect* effects = effects_count ? (tempo_effect*)mem_new(MEM_DYNAMIC, (size_t)effects_count * sizeof(tempo_effect),
                                                                   "zelfon_get_song_tempo_changes")
                                          : nullptr;
    if (!list || (effects_count && !effects)) {
        mem_free(list);
        mem_free(effects);
        return 1;
    }
    int n = 0;
    for (int i = 0; i < song->pats_capacity; i++) {
        if (!song->pats[i]) continue;
        for_each_tempo_effect(i, song, [&](int line, uint16_t value) {
            effects[n] = tempo_effect{line, n, value};
            n++;
        });
    }
    std::sort(effects, effects + n, [](const tempo_effect& a, const tempo_effect& b) {
        return a.line != b.line ? a.line < b.line : a.order < b.order;
    });

    zelfon_tempo_change tempo = {0, song->bpm, (uint8_t)(song->speed ? song->speed : 1)};  // a speed of 0 plays as 1
    int changes_count = 0;
    int e = 0;
    while (e < n && effects[e].line == 0) apply_effect(effects[e++].value, &tempo);
    list[changes_count++] = tempo;
    while (e < n) {
        tempo.line = effects[e].line;
        while (e < n && effects[e].line == tempo.line) apply_effect(effects[e++].value, &tempo);
        const zelfon_tempo_change* last = &list[changes_count - 1];
        if (tempo.bpm != last->bpm || tempo.speed != last->speed) list[changes_count++] = tempo;
    }
    mem_free(effects);
    *changes = list;
    *count = changes_count;
    return 0;
}

const zelfon_tempo_change* zelfon_tempo_at(const zelfon_tempo_change* changes, int count, int line) {
    const zelfon_tempo_change* after = std::upper_bound(
        changes, changes + count, line, [](int l, const zelfon_tempo_change& c) { return l < c.line; });
    return after == changes ? changes : after - 1;
}

int64_t zelfon_get_song_length_frames(int sampling_rate, zelfon_song* song) {
    zelfon_sort_patterns(song);
    int lines = song->song_lines;
    if (lines <= 0) return 0;
    zelfon_tempo_change* changes = nullptr;
    int count = 0;
    if (zelfon_get_song_tempo_changes(&changes, &count, song)) return -1;
    // Each line's fraction of a frame is carried into the next, so long songs do not drift:
    // a run of equal lines adds its whole frames and the frames its fractions add up to.
    int64_t frames = 0;
    int64_t fraction = 0;
    for (int i = 0; i < count && changes[i].line < lines; i++) {
        int64_t end = i + 1 < count && changes[i + 1].line < lines ? changes[i + 1].line : lines;
        int64_t run = end - changes[i].line;
        int64_t line_length = (int64_t)psynth_tick_length(sampling_rate, changes[i].bpm) * changes[i].speed;
        fraction += run * (line_length & (kFrameFracOne - 1));
        frames += run * (line_length >> kFrameFracBits) + (fraction >> kFrameFracBits);
        fraction &= kFrameFracOne - 1;
    }
    mem_free(changes);
    return frames;
}
