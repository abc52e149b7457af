// The pattern slot table: slots keep their numbers (empty slots stay in place), clones
// share their parent's record, holes can be closed before saving and re-opened after,
// and the play order sorts the occupied slots along the timeline.
#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>

#include "engine/log.h"
#include "engine/memory.h"
#include "song/song.h"

// New patterns are light text on a dark blue until the user picks colours.
constexpr uint8_t kPatternFg[3] = {232, 236, 200};
constexpr uint8_t kPatternBg[3] = {44, 62, 96};
constexpr int kHoleInts = 2;  // a hole is (position, count)

// ---- Slot helpers ----

static bool slot_used(int slot, const zelfon_song* song) {
    return slot >= 0 && slot < song->pats_capacity && song->pats && song->pats[slot];
}

static bool slot_is_clone(int slot, const zelfon_song* song) {
    return (song->pats_info[slot].flags & ZELFON_PATTERN_FLAG_CLONE) != 0;
}

// Playback state cleared: no track sounding, no track-state set.
static void reset_info(zelfon_pattern_info* info, uint32_t flags, int parent, int x, int y) {
    memset(info, 0, sizeof(*info));
    info->flags = flags;
    info->parent = parent;
    info->x = x;
    info->y = y;
    info->track_set = -1;
}

static void clear_slots(int first, int count, zelfon_song* song) {
    if (count > 0 && first < song->pats_free_from) song->pats_free_from = first;
    for (int i = first; i < first + count; i++) {
        song->pats[i] = nullptr;
        reset_info(&song->pats_info[i], 0, -1, 0, 0);
    }
}

// Grows both arrays (in steps of 16) until slot `min_capacity − 1` exists. 0, or 1 when
// memory ran out (the table then keeps its old capacity and contents).
static int grow_pattern_table(int64_t min_capacity, zelfon_song* song) {
    if (min_capacity <= song->pats_capacity && song->pats) return 0;
    int64_t steps = (min_capacity + ZELFON_PATTERN_SLOTS_STEP - 1) / ZELFON_PATTERN_SLOTS_STEP;
    int64_t capacity = steps * ZELFON_PATTERN_SLOTS_STEP;
    if (capacity < ZELFON_PATTERN_SLOTS_STEP) capacity = ZELFON_PATTERN_SLOTS_STEP;
    if (capacity > INT_MAX) return 1;
    size_t pats_size = (size_t)capacity * sizeof(zelfon_pattern*);
    size_t info_size = (size_t)capacity * sizeof(zelfon_pattern_info);
    int old_capacity = song->pats ? song->pats_capacity : 0;
    if (!song->pats) {
        zelfon_pattern** pats = (zelfon_pattern**)mem_new(MEM_DYNAMIC, pats_size, "grow_pattern_table");
        zelfon_pattern_info* info = (zelfon_pattern_info*)mem_new(MEM_DYNAMIC, info_size, "grow_pattern_table");
        if (!pats || !info) {
            mem_free(pats);
            mem_free(info);
            return 1;
        }
        song->pats = pats;
        song->pats_info = info;
    } else {
        // A failed second resize leaves the first block larger but the capacity unchanged.
        zelfon_pattern** pats = (zelfon_pattern**)mem_resize(song->pats, pats_size);
        if (!pats) return 1;
        song->pats = pats;
        zelfon_pattern_info* info = (zelfon_pattern_info*)mem_resize(song->pats_info, info_size);
        if (!info) return 1;
        song->pats_info = info;
    }
    song->pats_capacity = (int)capacity;
    clear_slots(old_capacity, (int)capacity - old_capacity, song);
    return 0;
}

// Frees a pattern record with its cells and icon number, and empties every slot holding it.
static void free_pattern_record(zelfon_pattern* pat, zelfon_song* song) {
    for (int i = 0; i < song->pats_capacity; i++) {
        if (song->pats[i] == pat) clear_slots(i, 1, song);
    }
    zelfon_release_icon_number(pat->icon_num, song);
    mem_free(pat->data);
    mem_free(pat);
}

// The search starts where the last one ended, so that thousands of new patterns or clones
// (a file, an import) do not scan the table once each.
static int first_empty_slot(zelfon_song* song) {
    for (int i = song->pats_free_from > 0 ? song->pats_free_from : 0; i < song->pats_capacity; i++) {
        if (!song->pats[i]) {
            song->pats_free_from = i;
            return i;
        }
    }
    song->pats_free_from = song->pats_capacity;
    return -1;
}

// ---- Table ----

int zelfon_get_free_pattern_num(zelfon_song* song) {
    if (song->pats) {
        int slot = first_empty_slot(song);
        if (slot >= 0) return slot;
    }
    int old_capacity = song->pats ? song->pats_capacity : 0;
    if (grow_pattern_table((int64_t)old_capacity + ZELFON_PATTERN_SLOTS_STEP, song)) return -1;
    return old_capacity;
}

void zelfon_init_pattern_record(zelfon_pattern* pat, int lines, int channels, uint32_t seed) {
    memset(pat, 0, sizeof(*pat));
    pat->data_xsize = channels;
    pat->data_ysize = lines;
    pat->channels = channels;
    pat->lines = lines;
    pat->ysize = ZELFON_PATTERN_DEFAULT_YSIZE;
    memcpy(pat->fg, kPatternFg, sizeof(pat->fg));
    memcpy(pat->bg, kPatternBg, sizeof(pat->bg));
    pat->icon_num = -1;
    zelfon_make_random_icon(pat->icon, seed);
}

int new_pattern_with_num(int num, int lines, int channels, int x, int y, uint32_t seed, zelfon_song* song) {
    if (num < 0) return -1;
    if (lines < 1) lines = 1;
    if (channels < 1) channels = 1;
    if (channels > ZELFON_MAX_TRACKS) channels = ZELFON_MAX_TRACKS;
    if (grow_pattern_table((int64_t)num + 1, song)) return -1;
    if (song->pats[num]) zelfon_remove_pattern(num, song);

    zelfon_pattern* pat = (zelfon_pattern*)mem_new(MEM_DYNAMIC, sizeof(zelfon_pattern), "new_pattern_with_num");
    zelfon_cell* data = (zelfon_cell*)mem_new(MEM_DYNAMIC, (size_t)lines * channels * sizeof(zelfon_cell), "new_pattern_with_num");
    if (!pat || !data) {
        mem_free(pat);
        mem_free(data);
        return -1;
    }
    mem_zero(data);
    zelfon_init_pattern_record(pat, lines, channels, seed);
    pat->data = data;

    song->pats[num] = pat;
    reset_info(&song->pats_info[num], 0, -1, x, y);
    zelfon_draw_pattern_icon(num, song);
    return num;
}

int zelfon_clone_pattern(int slot, int x, int y, zelfon_song* song) {
    if (!slot_used(slot, song)) return -1;
    zelfon_pattern* pat = song->pats[slot];
    int parent = slot;
    if (slot_is_clone(slot, song)) {
        parent = song->pats_info[slot].parent;  // kept when no parent slot holds the record
        for (int i = 0; i < song->pats_capacity; i++) {
            if (song->pats[i] == pat && !slot_is_clone(i, song)) {
                parent = i;
                break;
            }
        }
    }
    int clone = zelfon_get_free_pattern_num(song);
    if (clone < 0) return -1;
    song->pats[clone] = pat;
    reset_info(&song->pats_info[clone], ZELFON_PATTERN_FLAG_CLONE, parent, x, y);
    return clone;
}

void zelfon_remove_pattern(int slot, zelfon_song* song) {
    if (!slot_used(slot, song)) return;
    if (slot_is_clone(slot, song)) clear_slots(slot, 1, song);
    else free_pattern_record(song->pats[slot], song);
}

void zelfon_remove_all_patterns(zelfon_song* song) {
    if (!song->pats) return;
    // Record by record, so that clones whose parent slot is gone are freed too: each
    // distinct record once, found by sorting the slots' references.
    zelfon_pattern** records = (zelfon_pattern**)mem_new(
        MEM_DYNAMIC, sizeof(zelfon_pattern*) * (size_t)(song->pats_capacity + 1), "zelfon_remove_all_patterns");
    if (!records) {
        for (int i = 0; i < song->pats_capacity; i++) {
            if (song->pats[i]) free_pattern_record(song->pats[i], song);
        }
        return;
    }
    int count = 0;
    for (int i = 0; i < song->pats_capacity; i++) {
        if (song->pats[i]) records[count++] = song->pats[i];
    }
    std::sort(records, records + count);
    count = (int)(std::unique(records, records + count) - records);
    clear_slots(0, song->pats_capacity, song);
    for (int k = 0; k < count; k++) {
        zelfon_release_icon_number(records[k]->icon_num, song);
        mem_free(records[k]->data);
        mem_free(records[k]);
    }
    mem_free(records);
}

int zelfon_set_pattern_channels(int slot, int channels, zelfon_song* song) {
    if (!slot_used(slot, song)) return 1;
    if (channels < 1) channels = 1;
    if (channels > ZELFON_MAX_TRACKS) channels = ZELFON_MAX_TRACKS;
    zelfon_pattern* pat = song->pats[slot];
    int old_stride = pat->data_xsize;
    if (channels > old_stride) {
        int ysize = pat->data_ysize;
        zelfon_cell* data = (zelfon_cell*)mem_resize(pat->data, (size_t)channels * ysize * sizeof(zelfon_cell));
        if (!data) return 1;
        // From the last cell backwards: every cell moves to a higher index, so none is
        // overwritten before it has moved.
        for (int line = ysize - 1; line >= 0; line--) {
            for (int track = channels - 1; track >= 0; track--) {
                zelfon_cell* dest = &data[(size_t)line * channels + track];
                if (track < old_stride) *dest = data[(size_t)line * old_stride + track];
                else memset(dest, 0, sizeof(*dest));
            }
        }
        pat->data = data;
        pat->data_xsize = channels;
    }
    pat->channels = channels;
    return 0;
}

int zelfon_reserve_pattern_slot(int slot, zelfon_song* song) {
    if (slot < 0) return 1;
    int64_t steps = ((int64_t)slot + ZELFON_PATTERN_SLOTS_STEP) / ZELFON_PATTERN_SLOTS_STEP;
    int64_t capacity = steps * ZELFON_PATTERN_SLOTS_STEP;
    if (song->pats && capacity < song->pats_capacity) capacity = song->pats_capacity;
    if (capacity > INT_MAX) return 1;
    size_t order_size = (size_t)capacity * sizeof(int);
    bool grow_table = !song->pats || capacity > song->pats_capacity;
    bool grow_order = mem_get_size(song->sorted_pats) < order_size;
    if (!grow_table && !grow_order) return 0;

    zelfon_pattern** pats = nullptr;
    zelfon_pattern_info* info = nullptr;
    int* order = nullptr;
    if (grow_table) {
        pats = (zelfon_pattern**)mem_new(MEM_DYNAMIC, (size_t)capacity * sizeof(zelfon_pattern*), "zelfon_reserve_pattern_slot");
        info = (zelfon_pattern_info*)mem_new(MEM_DYNAMIC, (size_t)capacity * sizeof(zelfon_pattern_info), "zelfon_reserve_pattern_slot");
    }
    if (grow_order) order = (int*)mem_new(MEM_DYNAMIC, order_size, "zelfon_reserve_pattern_slot");
    if ((grow_table && (!pats || !info)) || (grow_order && !order)) {
        mem_free(pats);
        mem_free(info);
        mem_free(order);
        return 1;
    }
    // Copied under the mutex: the render writes the playback state of the infos.
    tarvik_mutex_lock(&song->net->mutex);
    zelfon_pattern** old_pats = song->pats;
    zelfon_pattern_info* old_info = song->pats_info;
    int* old_order = song->sorted_pats;
    if (grow_table) {
        int old_capacity = song->pats ? song->pats_capacity : 0;
        if (old_capacity) {
            memcpy(pats, song->pats, (size_t)old_capacity * sizeof(*pats));
            memcpy(info, song->pats_info, (size_t)old_capacity * sizeof(*info));
        }
        song->pats = pats;
        song->pats_info = info;
        song->pats_capacity = (int)capacity;
        clear_slots(old_capacity, (int)capacity - old_capacity, song);
    }
    if (grow_order) {
        if (song->sorted_pats_count) memcpy(order, song->sorted_pats, (size_t)song->sorted_pats_count * sizeof(int));
        song->sorted_pats = order;
    }
    tarvik_mutex_unlock(&song->net->mutex);
    if (grow_table) {
        mem_free(old_pats);
        mem_free(old_info);
    }
    if (grow_order) mem_free(old_order);
    return 0;
}

zelfon_cell* zelfon_get_cell(int slot, int track, int line, zelfon_song* song) {
    if (!slot_used(slot, song)) return nullptr;
    zelfon_pattern* pat = song->pats[slot];
    if (!pat->data || track < 0 || track >= pat->data_xsize || line < 0 || line >= pat->data_ysize) return nullptr;
    return &pat->data[(size_t)line * pat->data_xsize + track];
}

// ---- Holes ----

// Renumbers the slot references at or beyond `first` by `delta`: the parents of clones,
// the editors' pattern list and the current pattern.
static void renumber_slots_from(int first, int delta, zelfon_song* song) {
    for (int i = 0; i < song->pats_capacity; i++) {
        zelfon_pattern_info* info = &song->pats_info[i];
        if (song->pats[i] && (info->flags & ZELFON_PATTERN_FLAG_CLONE) && info->parent >= first) info->parent += delta;
    }
    for (int i = 0; i < song->editor_pats_count; i++) {
        if (song->editor_pats[i] >= first) song->editor_pats[i] += delta;
    }
    if (song->current_pattern >= first) song->current_pattern += delta;
}

// Length of the run of empty slots at `pos` when an occupied slot follows it, else 0.
static int hole_at(int pos, const zelfon_song* song) {
    if (song->pats[pos]) return 0;
    int end = pos;
    while (end < song->pats_capacity && !song->pats[end]) end++;
    return end < song->pats_capacity ? end - pos : 0;
}

int zelfon_optimize_patterns_and_save_holes(int** holes_out, int* holes_size, zelfon_song* song) {
    if (holes_out) *holes_out = nullptr;
    if (holes_size) *holes_size = 0;
    if (!song->pats) return 0;

    // Count the holes first so that the array is allocated before the table changes.
    int* holes = nullptr;
    if (holes_out) {
        int count = 0;
        for (int pos = 0; pos < song->pats_capacity;) {
            int k = hole_at(pos, song);
            count += k > 0;
            pos += k > 0 ? k : 1;
        }
        if (count == 0) return 0;
        int capacity = (count + ZELFON_PATTERN_SLOTS_STEP - 1) / ZELFON_PATTERN_SLOTS_STEP * ZELFON_PATTERN_SLOTS_STEP;
        holes = (int*)mem_new(MEM_DYNAMIC, (size_t)capacity * kHoleInts * sizeof(int), "zelfon_optimize_patterns_and_save_holes");
        if (!holes) return 1;
        mem_zero(holes);
    }

    int count = 0;
    int capacity = song->pats_capacity;
    for (int pos = 0; pos < capacity; pos++) {
        int k = hole_at(pos, song);
        if (k == 0) continue;
        memmove(&song->pats[pos], &song->pats[pos + k], (size_t)(capacity - pos - k) * sizeof(zelfon_pattern*));
        memmove(&song->pats_info[pos], &song->pats_info[pos + k], (size_t)(capacity - pos - k) * sizeof(zelfon_pattern_info));
        clear_slots(capacity - k, k, song);
        renumber_slots_from(pos + k, -k, song);
        if (holes) {
            holes[count * kHoleInts] = pos;
            holes[count * kHoleInts + 1] = k;
        }
        count++;
    }
    if (holes_out) *holes_out = holes;
    if (holes_size) *holes_size = count * kHoleInts * (int)sizeof(int);
    return 0;
}

void zelfon_restore_holes(const int* holes, int holes_size, zelfon_song* song) {
    int pairs = holes ? holes_size / (kHoleInts * (int)sizeof(int)) : 0;
    if (pairs <= 0 || !song->pats) return;
    int64_t total = 0;
    for (int i = 0; i < pairs; i++) {
        if (holes[i * kHoleInts] < 0 || holes[i * kHoleInts + 1] < 0) return;
        total += holes[i * kHoleInts + 1];
    }
    // Room for every slot in use to move up by all the holes at once.
    int used_end = 0;
    for (int i = 0; i < song->pats_capacity; i++) {
        if (song->pats[i]) used_end = i + 1;
    }
    if (grow_pattern_table(used_end + total, song)) {
        tarvik_log("zelfon_restore_holes() error: no memory for %d slots\n", (int)(used_end + total));
        return;
    }

    int capacity = song->pats_capacity;
    int before = 0;  // counts of the pairs already restored
    for (int i = 0; i < pairs; i++) {
        int pos = holes[i * kHoleInts] + before;
        int k = holes[i * kHoleInts + 1];
        before += k;
        // Past the last slot in use nothing moves (the table has room for every hole).
        if (k == 0 || (int64_t)pos + k > capacity) continue;
        memmove(&song->pats[pos + k], &song->pats[pos], (size_t)(capacity - pos - k) * sizeof(zelfon_pattern*));
        memmove(&song->pats_info[pos + k], &song->pats_info[pos], (size_t)(capacity - pos - k) * sizeof(zelfon_pattern_info));
        clear_slots(pos, k, song);
        renumber_slots_from(pos, k, song);
    }
}

// ---- Play order ----

// True when slot a plays after slot b: later start, or the same start and a later end.
static bool plays_after(int a, int b, const zelfon_song* song) {
    int64_t xa = song->pats_info[a].x;
    int64_t xb = song->pats_info[b].x;
    if (xa != xb) return xa > xb;
    return xa + song->pats[a]->lines > xb + song->pats[b]->lines;
}

void zelfon_sort_patterns(zelfon_song* song) {
    song->sorted_pats_count = 0;
    song->song_lines = 0;
    if (!song->pats) return;
    size_t needed = (size_t)song->pats_capacity * sizeof(int);
    if (mem_get_size(song->sorted_pats) < needed) {
        int* sorted = song->sorted_pats ? (int*)mem_resize(song->sorted_pats, needed)
                                        : (int*)mem_new(MEM_DYNAMIC, needed, "zelfon_sort_patterns");
        if (!sorted) return;  // an empty play order: nothing plays rather than stale slots
        song->sorted_pats = sorted;
    }

    int count = 0;
    int64_t song_lines = 0;
    for (int i = 0; i < song->pats_capacity; i++) {
        if (!song->pats[i]) continue;
        song->sorted_pats[count++] = i;
        int64_t end = (int64_t)song->pats_info[i].x + song->pats[i]->lines;
        if (end > song_lines) song_lines = end;
    }
    // The order of a stable sort by (x, end): slots with equal keys keep their slot order.
    // (A bubble sort gives the same order, but a file of thousands of patterns would wait
    // for it.) Slots filled along the timeline, as an import fills them, are in order already.
    auto plays_first = [song](int a, int b) { return plays_after(b, a, song) || (!plays_after(a, b, song) && a < b); };
    if (!std::is_sorted(song->sorted_pats, song->sorted_pats + count, plays_first)) {
        std::sort(song->sorted_pats, song->sorted_pats + count, plays_first);
    }
    song->sorted_pats_count = count;
    song->song_lines = song_lines > INT_MAX ? INT_MAX : (int)song_lines;
}

// ---- Debugging ----

void zelfon_dump_patterns(zelfon_song* song) {
    for (int i = 0; i < song->pats_capacity; i++) {
        const zelfon_pattern_info* info = &song->pats_info[i];
        char kind[32] = "";
        if (!song->pats[i]) snprintf(kind, sizeof(kind), "EMPTY ");
        else if (info->flags & ZELFON_PATTERN_FLAG_CLONE) snprintf(kind, sizeof(kind), "CLONE (parent %d) ", info->parent);
        tarvik_log("%03d x:%04d y:%04d %s\n", i, info->x, info->y, kind);
    }
}
