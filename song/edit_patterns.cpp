// Pattern edits on the timeline: new, remove, clone, make unique, move, resize and look.
// A pattern comes and goes whole through one snapshot (its record, cells and every slot
// that holds it), so that undo and redo bring it back into the very same slots.
#include <cstring>

#include "engine/memory.h"
#include "song/edit_actions.h"
#include "song/playback.h"

// One slot of a snapshot: its number and info (playback state cleared).
struct zelfon_slot_place {
    int slot;
    zelfon_pattern_info info;
};

// ZELFON_ACTION_PATTERN_IN / _OUT: then places_count zelfon_slot_places, then, when
// cells_stored, the record's data_xsize × data_ysize cells.
struct zelfon_pattern_snapshot {
    int source_slot;   // −1: `record` is the pattern's own; else the slots share this slot's record
    int cells_stored;  // 0: the cells are cleared (a new pattern)
    int places_count;
    zelfon_pattern record;  // its data pointer and icon number mean nothing here
};

// ZELFON_ACTION_MAKE_UNIQUE: what the clone was.
struct zelfon_unique_change {
    int source_slot;  // a slot holding the record the clone shared
    uint32_t flags;
    int parent;
};

// ZELFON_ACTION_RESIZE and ZELFON_ACTION_LOOK: [0] before, [1] after.
struct zelfon_resize_change {
    int lines[2];
    int tracks[2];
};
struct zelfon_look_change {
    uint8_t fg[2][3];
    uint8_t bg[2][3];
    uint16_t icon[2][ZELFON_ICON_SIZE];
};

// ---- Helpers ----

static zelfon_slot_place* snapshot_places(zelfon_pattern_snapshot* s) { return (zelfon_slot_place*)(s + 1); }
static zelfon_cell* snapshot_cells(zelfon_pattern_snapshot* s) { return (zelfon_cell*)(snapshot_places(s) + s->places_count); }
static size_t record_cells(const zelfon_pattern* pat) { return (size_t)pat->data_xsize * pat->data_ysize; }

static bool is_clone(int slot, const zelfon_song* song) {
    return (song->pats_info[slot].flags & ZELFON_PATTERN_FLAG_CLONE) != 0;
}

// An info as a slot keeps it while nothing plays it.
static zelfon_pattern_info quiet_info(const zelfon_pattern_info* info) {
    zelfon_pattern_info q = *info;
    q.sounding_tracks = 0;
    memset(q.track_module, 0, sizeof(q.track_module));
    q.track_set = -1;
    return q;
}

static zelfon_pattern_info empty_info() {
    zelfon_pattern_info info;
    memset(&info, 0, sizeof(info));
    info.parent = -1;
    info.track_set = -1;
    return info;
}

static int first_free_slot(const zelfon_song* song) {
    int capacity = song->pats ? song->pats_capacity : 0;
    for (int i = 0; i < capacity; i++) {
        if (!song->pats[i]) return i;
    }
    return capacity;
}

// The slot holding the same record as `slot` that a clone names as its parent: a non-clone
// one first, else any other; −1 when no other slot holds it.
static int parent_slot_of(int slot, const zelfon_song* song) {
    int other = -1;
    for (int i = 0; i < song->pats_capacity; i++) {
        if (i == slot || song->pats[i] != song->pats[slot]) continue;
        if (!is_clone(i, song)) return i;
        if (other < 0) other = i;
    }
    return other;
}

static zelfon_pattern_snapshot* new_snapshot(int places, size_t cells) {
    size_t size = sizeof(zelfon_pattern_snapshot) + places * sizeof(zelfon_slot_place) + cells * sizeof(zelfon_cell);
    zelfon_pattern_snapshot* s = (zelfon_pattern_snapshot*)mem_new(MEM_DYNAMIC, size, "new_snapshot");
    if (!s) return nullptr;
    mem_zero(s);
    s->source_slot = -1;
    s->places_count = places;
    s->cells_stored = cells > 0;
    return s;
}

// A copy of a record with its cells, outside the table. Null when memory ran out.
static zelfon_pattern* copy_record(const zelfon_pattern* from, const zelfon_cell* cells) {
    zelfon_pattern* pat = (zelfon_pattern*)mem_new(MEM_DYNAMIC, sizeof(zelfon_pattern), "copy_record");
    zelfon_cell* data = (zelfon_cell*)mem_new(MEM_DYNAMIC, record_cells(from) * sizeof(zelfon_cell), "copy_record");
    if (!pat || !data) {
        mem_free(pat);
        mem_free(data);
        return nullptr;
    }
    *pat = *from;
    if (cells) memcpy(data, cells, record_cells(from) * sizeof(zelfon_cell));
    else mem_zero(data);
    pat->data = data;
    pat->icon_num = -1;
    return pat;
}

// Makes sure that re-sorting the play order under the mutex will not allocate.
static int room_for_play_order(zelfon_song* song) {
    return zelfon_reserve_pattern_slot(song->pats_capacity > 0 ? song->pats_capacity - 1 : 0, song);
}

static void free_record(zelfon_pattern* pat, zelfon_song* song) {
    zelfon_release_icon_number(pat->icon_num, song);
    mem_free(pat->data);
    mem_free(pat);
}

// ---- Putting whole patterns in and taking them out ----

static int put_in(zelfon_pattern_snapshot* s, zelfon_song* song) {
    zelfon_slot_place* places = snapshot_places(s);
    for (int i = 0; i < s->places_count; i++) {
        if (zelfon_reserve_pattern_slot(places[i].slot, song) || song->pats[places[i].slot]) return 1;
    }
    zelfon_pattern* pat = zelfon_edit_pattern(s->source_slot, song);
    bool own = s->source_slot < 0;
    if (own) pat = copy_record(&s->record, s->cells_stored ? snapshot_cells(s) : nullptr);
    if (!pat) return 1;
    tarvik_mutex_lock(&song->net->mutex);
    for (int i = 0; i < s->places_count; i++) {
        // A slot emptied behind the history's back may still be on the playing list.
        zelfon_playback_drop_pattern(places[i].slot, song);
        song->pats[places[i].slot] = pat;
        song->pats_info[places[i].slot] = places[i].info;
    }
    zelfon_playback_places_changed(song);
    tarvik_mutex_unlock(&song->net->mutex);
    if (own) zelfon_draw_pattern_icon(places[0].slot, song);
    return 0;
}

static int take_out(zelfon_pattern_snapshot* s, zelfon_song* song) {
    zelfon_slot_place* places = snapshot_places(s);
    zelfon_pattern* pat = zelfon_edit_pattern(places[0].slot, song);
    for (int i = 0; i < s->places_count; i++) {
        if (!pat || zelfon_edit_pattern(places[i].slot, song) != pat) return 1;
    }
    if (room_for_play_order(song)) return 1;
    tarvik_mutex_lock(&song->net->mutex);
    for (int i = 0; i < s->places_count; i++) {
        zelfon_playback_drop_pattern(places[i].slot, song);
        song->pats[places[i].slot] = nullptr;
        song->pats_info[places[i].slot] = empty_info();
    }
    zelfon_playback_places_changed(song);
    tarvik_mutex_unlock(&song->net->mutex);
    if (s->source_slot < 0) free_record(pat, song);
    return 0;
}

// The pattern in `slot` as a snapshot: a clone alone, or a record with every slot holding it.
static zelfon_pattern_snapshot* snapshot_of(int slot, zelfon_song* song) {
    const zelfon_pattern* pat = song->pats[slot];
    int source = is_clone(slot, song) ? parent_slot_of(slot, song) : -1;
    int places = 1;
    if (source < 0) {
        places = 0;
        for (int i = 0; i < song->pats_capacity; i++) places += song->pats[i] == pat;
    }
    zelfon_pattern_snapshot* s = new_snapshot(places, source < 0 ? record_cells(pat) : 0);
    if (!s) return nullptr;
    s->source_slot = source;
    s->record = *pat;
    zelfon_slot_place* place = snapshot_places(s);
    for (int i = 0; i < song->pats_capacity; i++) {
        if (i == slot || (source < 0 && song->pats[i] == pat)) *place++ = {i, quiet_info(&song->pats_info[i])};
    }
    if (s->cells_stored) memcpy(snapshot_cells(s), pat->data, record_cells(pat) * sizeof(zelfon_cell));
    return s;
}

// ---- Make unique, move, resize, look ----

static int make_unique(int do_it, int slot, const zelfon_unique_change* u, zelfon_song* song) {
    zelfon_pattern* pat = zelfon_edit_pattern(slot, song);
    zelfon_pattern* shared = zelfon_edit_pattern(u->source_slot, song);
    if (!pat || !shared) return 1;
    zelfon_pattern* next = do_it ? copy_record(shared, shared->data) : shared;
    if (!next) return 1;
    tarvik_mutex_lock(&song->net->mutex);
    song->pats[slot] = next;
    song->pats_info[slot].flags = do_it ? u->flags & ~(uint32_t)ZELFON_PATTERN_FLAG_CLONE : u->flags;
    song->pats_info[slot].parent = do_it ? -1 : u->parent;
    tarvik_mutex_unlock(&song->net->mutex);
    if (do_it) zelfon_draw_pattern_icon(slot, song);
    else free_record(pat, song);
    return 0;
}

static int move(int do_it, zelfon_move_change* m, zelfon_song* song) {
    zelfon_move_entry* e = zelfon_move_entries(m);
    for (int i = 0; i < m->count; i++) {
        if (!zelfon_edit_pattern(e[i].slot, song)) return 1;
    }
    if (room_for_play_order(song)) return 1;
    tarvik_mutex_lock(&song->net->mutex);
    for (int i = 0; i < m->count; i++) {
        song->pats_info[e[i].slot].x = e[i].x[do_it];
        song->pats_info[e[i].slot].y = e[i].y[do_it];
    }
    zelfon_playback_places_changed(song);
    tarvik_mutex_unlock(&song->net->mutex);
    return 0;
}

// Lines and tracks of the pattern; its storage grows first when they need more (copied
// outside the mutex: only this thread writes cells), and never shrinks.
static int resize(int slot, int lines, int tracks, zelfon_song* song) {
    zelfon_pattern* pat = zelfon_edit_pattern(slot, song);
    if (!pat || room_for_play_order(song)) return 1;
    int xsize = tracks > pat->data_xsize ? tracks : pat->data_xsize;
    int ysize = lines > pat->data_ysize ? lines : pat->data_ysize;
    zelfon_cell* data = pat->data;
    if (xsize != pat->data_xsize || ysize != pat->data_ysize) {
        data = (zelfon_cell*)mem_new(MEM_DYNAMIC, (size_t)xsize * ysize * sizeof(zelfon_cell), "resize");
        if (!data) return 1;
        mem_zero(data);
        for (int l = 0; l < pat->data_ysize; l++) {
            memcpy(&data[(size_t)l * xsize], &pat->data[(size_t)l * pat->data_xsize], (size_t)pat->data_xsize * sizeof(zelfon_cell));
        }
    }
    zelfon_cell* old = pat->data;
    tarvik_mutex_lock(&song->net->mutex);
    pat->data = data;
    pat->data_xsize = xsize;
    pat->data_ysize = ysize;
    pat->lines = lines;
    pat->channels = tracks;
    zelfon_playback_places_changed(song);
    tarvik_mutex_unlock(&song->net->mutex);
    if (old != data) mem_free(old);
    return 0;
}

static int set_look(int slot, const zelfon_look_change* l, int which, zelfon_song* song) {
    zelfon_pattern* pat = zelfon_edit_pattern(slot, song);
    if (!pat) return 1;
    memcpy(pat->fg, l->fg[which], sizeof(pat->fg));
    memcpy(pat->bg, l->bg[which], sizeof(pat->bg));
    memcpy(pat->icon, l->icon[which], sizeof(pat->icon));
    zelfon_draw_pattern_icon(slot, song);
    return 0;
}

int zelfon_perform_pattern(int do_it, const undo_action* a, zelfon_song* song) {
    int slot = (int)a->par1;
    switch (a->type) {
    case ZELFON_ACTION_PATTERN_IN:
        return do_it ? put_in((zelfon_pattern_snapshot*)a->data, song) : take_out((zelfon_pattern_snapshot*)a->data, song);
    case ZELFON_ACTION_PATTERN_OUT:
        return do_it ? take_out((zelfon_pattern_snapshot*)a->data, song) : put_in((zelfon_pattern_snapshot*)a->data, song);
    case ZELFON_ACTION_MAKE_UNIQUE: return make_unique(do_it, slot, (const zelfon_unique_change*)a->data, song);
    case ZELFON_ACTION_MOVE: return move(do_it, (zelfon_move_change*)a->data, song);
    case ZELFON_ACTION_RESIZE: {
        const zelfon_resize_change* r = (const zelfon_resize_change*)a->data;
        return resize(slot, r->lines[do_it], r->tracks[do_it], song);
    }
    case ZELFON_ACTION_LOOK: return set_look(slot, (const zelfon_look_change*)a->data, do_it, song);
    default: return 1;
    }
}

// ---- Actions ----

// Records a snapshot action; returns `slot`, or −1 when it failed.
static int record_snapshot(uint32_t type, int slot, zelfon_pattern_snapshot* s, zelfon_song* song) {
    if (!s) return -1;
    return zelfon_edit_record(type, slot, 0, 0, s, song) == ZELFON_EDIT_OK ? slot : -1;
}

static bool size_allowed(int lines, int tracks) {
    return lines >= 1 && lines <= ZELFON_MAX_PATTERN_LINES && tracks >= 1 && tracks <= ZELFON_MAX_TRACKS;
}

int zelfon_edit_new_pattern(int lines, int tracks, int x, int y, uint32_t seed, zelfon_song* song) {
    if (!size_allowed(lines, tracks)) return -1;
    int slot = first_free_slot(song);
    zelfon_pattern_snapshot* s = new_snapshot(1, 0);
    if (!s) return -1;
    zelfon_init_pattern_record(&s->record, lines, tracks, seed);
    zelfon_pattern_info info = empty_info();
    info.x = x;
    info.y = y;
    *snapshot_places(s) = {slot, info};
    return record_snapshot(ZELFON_ACTION_PATTERN_IN, slot, s, song);
}

int zelfon_edit_remove_pattern(int slot, zelfon_song* song) {
    if (!zelfon_edit_pattern(slot, song)) return ZELFON_EDIT_NO_PATTERN;
    return record_snapshot(ZELFON_ACTION_PATTERN_OUT, slot, snapshot_of(slot, song), song) < 0 ? ZELFON_EDIT_NO_MEMORY
                                                                                             : ZELFON_EDIT_OK;
}

int zelfon_edit_clone_pattern(int slot, int x, int y, zelfon_song* song) {
    if (!zelfon_edit_pattern(slot, song)) return -1;
    int clone = first_free_slot(song);
    zelfon_pattern_snapshot* s = new_snapshot(1, 0);
    if (!s) return -1;
    s->source_slot = slot;
    int parent = is_clone(slot, song) ? parent_slot_of(slot, song) : slot;
    zelfon_pattern_info info = empty_info();
    info.flags = ZELFON_PATTERN_FLAG_CLONE;
    info.parent = parent < 0 ? song->pats_info[slot].parent : parent;
    info.x = x;
    info.y = y;
    *snapshot_places(s) = {clone, info};
    return record_snapshot(ZELFON_ACTION_PATTERN_IN, clone, s, song);
}

int zelfon_edit_make_unique(int slot, zelfon_song* song) {
    if (!zelfon_edit_pattern(slot, song)) return ZELFON_EDIT_NO_PATTERN;
    int source = is_clone(slot, song) ? parent_slot_of(slot, song) : -1;
    if (source < 0) return ZELFON_EDIT_OK;  // already a pattern of its own
    zelfon_unique_change* u = (zelfon_unique_change*)mem_new(MEM_DYNAMIC, sizeof(*u), "zelfon_edit_make_unique");
    if (!u) return ZELFON_EDIT_NO_MEMORY;
    *u = {source, song->pats_info[slot].flags, song->pats_info[slot].parent};
    return zelfon_edit_record(ZELFON_ACTION_MAKE_UNIQUE, slot, 0, 0, u, song);
}

static int check_move(const int* slots, int count, int dx, int dy, const zelfon_song* song) {
    for (int i = 0; i < count; i++) {
        if (!zelfon_edit_pattern(slots[i], song)) return ZELFON_EDIT_NO_PATTERN;
        const zelfon_pattern_info* info = &song->pats_info[slots[i]];
        if (!zelfon_move_fits(info->x, info->y, dx, dy)) return ZELFON_EDIT_OUTSIDE;
    }
    return ZELFON_EDIT_OK;
}

static void pattern_place(int slot, int* x, int* y, const void* context) {
    const zelfon_pattern_info* info = &((const zelfon_song*)context)->pats_info[slot];
    *x = info->x;
    *y = info->y;
}

int zelfon_edit_move_patterns(const int* slots, int count, int dx, int dy, zelfon_song* song) {
    if (count <= 0 || (dx == 0 && dy == 0)) return ZELFON_EDIT_OK;
    int code = check_move(slots, count, dx, dy, song);
    if (code) return code;
    zelfon_move_change* m = zelfon_new_move_change(slots, count, dx, dy, pattern_place, song);
    if (!m) return ZELFON_EDIT_NO_MEMORY;
    return zelfon_edit_record(ZELFON_ACTION_MOVE, slots[0], 0, 0, m, song);
}

int zelfon_edit_resize_pattern(int slot, int lines, int tracks, zelfon_song* song) {
    zelfon_pattern* pat = zelfon_edit_pattern(slot, song);
    if (!pat) return ZELFON_EDIT_NO_PATTERN;
    if (!size_allowed(lines, tracks)) return ZELFON_EDIT_OUTSIDE;
    if (lines == pat->lines && tracks == pat->channels) return ZELFON_EDIT_OK;
    zelfon_resize_change* r = (zelfon_resize_change*)mem_new(MEM_DYNAMIC, sizeof(*r), "zelfon_edit_resize_pattern");
    if (!r) return ZELFON_EDIT_NO_MEMORY;
    *r = {{pat->lines, lines}, {pat->channels, tracks}};
    return zelfon_edit_record(ZELFON_ACTION_RESIZE, slot, 0, 0, r, song);
}

int zelfon_edit_pattern_look(int slot, const uint8_t fg[3], const uint8_t bg[3], const uint16_t icon[ZELFON_ICON_SIZE],
                             zelfon_song* song) {
    zelfon_pattern* pat = zelfon_edit_pattern(slot, song);
    if (!pat) return ZELFON_EDIT_NO_PATTERN;
    zelfon_look_change* l = (zelfon_look_change*)mem_new(MEM_DYNAMIC, sizeof(*l), "zelfon_edit_pattern_look");
    if (!l) return ZELFON_EDIT_NO_MEMORY;
    memcpy(l->fg[0], pat->fg, sizeof(pat->fg));
    memcpy(l->bg[0], pat->bg, sizeof(pat->bg));
    memcpy(l->icon[0], pat->icon, sizeof(pat->icon));
    memcpy(l->fg[1], fg, sizeof(pat->fg));
    memcpy(l->bg[1], bg, sizeof(pat->bg));
    memcpy(l->icon[1], icon, sizeof(pat->icon));
    return zelfon_edit_record(ZELFON_ACTION_LOOK, slot, 0, 0, l, song);
}
