// Cell edits: every change to a rectangle of cells (typing, clearing, paste, transpose,
// interpolate, inserting and deleting lines) is computed first as the rectangle's new
// cells, then recorded as one action that keeps the old cells beside the new ones.
#include <cstring>

#include "engine/memory.h"
#include "song/edit_actions.h"

constexpr int kNoteMin = 1;    // C0
constexpr int kNoteMax = 120;  // the highest note the editors write

// ZELFON_ACTION_CELLS and _TYPED_CELL: the rectangle's size, then tracks × lines old cells,
// then as many new cells (line by line). Its corner is the action's place.
struct zelfon_cells_change {
    int tracks;
    int lines;
};

static zelfon_cell* change_cells(zelfon_cells_change* c) { return (zelfon_cell*)(c + 1); }
static zelfon_cell* old_cells(zelfon_cells_change* c) { return change_cells(c); }
static zelfon_cell* new_cells(zelfon_cells_change* c) { return change_cells(c) + (size_t)c->tracks * c->lines; }

// The pattern when the rectangle lies inside its lines and tracks in use, else null.
static zelfon_pattern* pattern_holding(const zelfon_cell_rect* r, const zelfon_song* song) {
    zelfon_pattern* pat = zelfon_edit_pattern(r->slot, song);
    if (!pat || r->track < 0 || r->line < 0 || r->tracks < 1 || r->lines < 1) return nullptr;
    if ((int64_t)r->track + r->tracks > pat->channels || (int64_t)r->line + r->lines > pat->lines) return nullptr;
    return pat;
}

static int rect_error(const zelfon_cell_rect* r, const zelfon_song* song) {
    return zelfon_edit_pattern(r->slot, song) ? ZELFON_EDIT_OUTSIDE : ZELFON_EDIT_NO_PATTERN;
}

static zelfon_cell* pattern_row(const zelfon_pattern* pat, int track, int line) {
    return &pat->data[(size_t)line * pat->data_xsize + track];
}

// Writes tracks × lines cells at (track, line) while the render is held off them.
static void write_cells(zelfon_pattern* pat, int track, int line, int tracks, int lines, const zelfon_cell* cells,
                        zelfon_song* song) {
    tarvik_mutex_lock(&song->net->mutex);
    for (int l = 0; l < lines; l++) {
        memcpy(pattern_row(pat, track, line + l), &cells[(size_t)l * tracks], (size_t)tracks * sizeof(zelfon_cell));
    }
    tarvik_mutex_unlock(&song->net->mutex);
}

// A change of the rectangle whose old and new cells are both the pattern's cells now (the
// caller changes the new ones). Null when memory ran out.
static zelfon_cells_change* start_change(const zelfon_cell_rect* r, const zelfon_pattern* pat) {
    size_t count = (size_t)r->tracks * r->lines;
    zelfon_cells_change* c = (zelfon_cells_change*)mem_new(
        MEM_DYNAMIC, sizeof(zelfon_cells_change) + 2 * count * sizeof(zelfon_cell), "start_change");
    if (!c) return nullptr;
    c->tracks = r->tracks;
    c->lines = r->lines;
    for (int l = 0; l < r->lines; l++) {
        memcpy(&old_cells(c)[(size_t)l * r->tracks], pattern_row(pat, r->track, r->line + l), (size_t)r->tracks * sizeof(zelfon_cell));
    }
    memcpy(new_cells(c), old_cells(c), count * sizeof(zelfon_cell));
    return c;
}

// Records the change; one that changes nothing is dropped.
static int finish_change(const zelfon_cell_rect* r, zelfon_cells_change* c, zelfon_song* song,
                         uint32_t type = ZELFON_ACTION_CELLS) {
    size_t count = (size_t)c->tracks * c->lines;
    if (memcmp(old_cells(c), new_cells(c), count * sizeof(zelfon_cell)) == 0) {
        mem_free(c);
        return ZELFON_EDIT_OK;
    }
    return zelfon_edit_record(type, r->slot, r->track, r->line, c, song);
}

int zelfon_perform_cells(int do_it, const undo_action* a, zelfon_song* song) {
    zelfon_cells_change* c = (zelfon_cells_change*)a->data;
    zelfon_cell_rect r = {(int)a->par1, (int)a->par2, (int)a->par3, c->tracks, c->lines};
    zelfon_pattern* pat = pattern_holding(&r, song);
    if (!pat) return 1;
    write_cells(pat, r.track, r.line, r.tracks, r.lines, do_it ? new_cells(c) : old_cells(c), song);
    return 0;
}

int zelfon_edit_set_cells(const zelfon_cell_rect* r, const zelfon_cell* cells, zelfon_song* song) {
    zelfon_pattern* pat = pattern_holding(r, song);
    if (!pat) return rect_error(r, song);
    zelfon_cells_change* c = start_change(r, pat);
    if (!c) return ZELFON_EDIT_NO_MEMORY;
    memcpy(new_cells(c), cells, (size_t)r->tracks * r->lines * sizeof(zelfon_cell));
    return finish_change(r, c, song);
}

int zelfon_edit_type_cell(int slot, int track, int line, const zelfon_cell* cell, zelfon_song* song) {
    zelfon_cell_rect r = {slot, track, line, 1, 1};
    zelfon_pattern* pat = pattern_holding(&r, song);
    if (!pat) return rect_error(&r, song);
    undo_action* last = zelfon_edit_last_action(song);
    if (last && last->type == ZELFON_ACTION_TYPED_CELL && (int)last->par1 == slot && (int)last->par2 == track &&
        (int)last->par3 == line) {
        *new_cells((zelfon_cells_change*)last->data) = *cell;
        write_cells(pat, track, line, 1, 1, cell, song);
        return ZELFON_EDIT_OK;
    }
    zelfon_cells_change* c = start_change(&r, pat);
    if (!c) return ZELFON_EDIT_NO_MEMORY;
    *new_cells(c) = *cell;
    return finish_change(&r, c, song, ZELFON_ACTION_TYPED_CELL);
}

// Clears `fields` of one cell.
static void clear_fields(zelfon_cell* cell, uint32_t fields) {
    if (fields & ZELFON_FIELD_NOTE) cell->note = 0;
    if (fields & ZELFON_FIELD_VELOCITY) cell->vel = 0;
    if (fields & ZELFON_FIELD_MODULE) cell->module = 0;
    if (fields & ZELFON_FIELD_EFFECT) {
        cell->effect = 0;
        cell->ctl = 0;
    }
    if (fields & ZELFON_FIELD_VALUE) cell->value = 0;
}

int zelfon_edit_clear(const zelfon_cell_rect* r, uint32_t fields, zelfon_song* song) {
    zelfon_pattern* pat = pattern_holding(r, song);
    if (!pat) return rect_error(r, song);
    zelfon_cells_change* c = start_change(r, pat);
    if (!c) return ZELFON_EDIT_NO_MEMORY;
    for (size_t i = 0; i < (size_t)r->tracks * r->lines; i++) clear_fields(&new_cells(c)[i], fields);
    return finish_change(r, c, song);
}

// Paste-mix: each field of `dest` that is empty takes the field of `src`.
static void mix_into(zelfon_cell* dest, const zelfon_cell* src) {
    if (!dest->note) dest->note = src->note;
    if (!dest->vel) dest->vel = src->vel;
    if (!dest->module) dest->module = src->module;
    if (!dest->effect && !dest->ctl) {
        dest->effect = src->effect;
        dest->ctl = src->ctl;
    }
    if (!dest->value) dest->value = src->value;
}

int zelfon_edit_paste(const zelfon_cell_rect* at, const zelfon_cell* cells, int tracks, int lines, int mix,
                      zelfon_song* song) {
    zelfon_pattern* pat = zelfon_edit_pattern(at->slot, song);
    if (!pat) return ZELFON_EDIT_NO_PATTERN;
    if (tracks < 1 || lines < 1) return ZELFON_EDIT_OUTSIDE;
    int fit_tracks = pat->channels - at->track < tracks ? pat->channels - at->track : tracks;
    int fit_lines = pat->lines - at->line < lines ? pat->lines - at->line : lines;
    zelfon_cell_rect r = {at->slot, at->track, at->line, fit_tracks, fit_lines};
    if (!pattern_holding(&r, song)) return ZELFON_EDIT_OUTSIDE;
    zelfon_cells_change* c = start_change(&r, pat);
    if (!c) return ZELFON_EDIT_NO_MEMORY;
    for (int l = 0; l < fit_lines; l++) {
        for (int t = 0; t < fit_tracks; t++) {
            zelfon_cell* dest = &new_cells(c)[(size_t)l * fit_tracks + t];
            const zelfon_cell* src = &cells[(size_t)l * tracks + t];
            if (mix) mix_into(dest, src);
            else *dest = *src;
        }
    }
    return finish_change(&r, c, song);
}

int zelfon_edit_transpose(const zelfon_cell_rect* r, int semitones, zelfon_song* song) {
    zelfon_pattern* pat = pattern_holding(r, song);
    if (!pat) return rect_error(r, song);
    zelfon_cells_change* c = start_change(r, pat);
    if (!c) return ZELFON_EDIT_NO_MEMORY;
    for (size_t i = 0; i < (size_t)r->tracks * r->lines; i++) {
        zelfon_cell* cell = &new_cells(c)[i];
        if (cell->note < kNoteMin || cell->note > kNoteMax) continue;
        int64_t note = (int64_t)cell->note + semitones;
        cell->note = (uint8_t)(note < kNoteMin ? kNoteMin : note > kNoteMax ? kNoteMax : note);
    }
    return finish_change(r, c, song);
}

// The value at step i of n − 1 on the straight line from a to b, rounded toward a.
static int on_line(int a, int b, int i, int n) { return a + (int)((int64_t)(b - a) * i / (n - 1)); }

int zelfon_edit_interpolate(const zelfon_cell_rect* r, zelfon_song* song) {
    zelfon_pattern* pat = pattern_holding(r, song);
    if (!pat) return rect_error(r, song);
    zelfon_cells_change* c = start_change(r, pat);
    if (!c) return ZELFON_EDIT_NO_MEMORY;
    int n = r->lines;
    for (int t = 0; n > 1 && t < r->tracks; t++) {
        zelfon_cell* first = &new_cells(c)[t];
        zelfon_cell* last = &new_cells(c)[(size_t)(n - 1) * r->tracks + t];
        bool velocities = first->vel && last->vel;
        bool values = (first->effect || first->ctl) && (last->effect || last->ctl);
        for (int l = 1; l < n - 1; l++) {
            zelfon_cell* cell = &new_cells(c)[(size_t)l * r->tracks + t];
            if (velocities) cell->vel = (uint8_t)on_line(first->vel, last->vel, l, n);
            if (values) {
                cell->effect = first->effect;
                cell->ctl = first->ctl;
                cell->value = (uint16_t)on_line(first->value, last->value, l, n);
            }
        }
    }
    return finish_change(r, c, song);
}

// Inserting (direction 1) or deleting (−1) line `line` of the tracks: the rectangle from
// that line to the pattern's end shifts by one line, an empty line coming in.
static int shift_lines(int slot, int track, int tracks, int line, int direction, zelfon_song* song) {
    zelfon_pattern* pat = zelfon_edit_pattern(slot, song);
    if (!pat) return ZELFON_EDIT_NO_PATTERN;
    zelfon_cell_rect r = {slot, track, line, tracks, pat->lines - line};
    if (!pattern_holding(&r, song)) return ZELFON_EDIT_OUTSIDE;
    zelfon_cells_change* c = start_change(&r, pat);
    if (!c) return ZELFON_EDIT_NO_MEMORY;
    size_t row = (size_t)tracks;
    size_t kept = (size_t)(r.lines - 1) * row;
    zelfon_cell* cells = new_cells(c);
    if (direction > 0) {
        memcpy(cells + row, old_cells(c), kept * sizeof(zelfon_cell));
        memset(cells, 0, row * sizeof(zelfon_cell));
    } else {
        memcpy(cells, old_cells(c) + row, kept * sizeof(zelfon_cell));
        memset(cells + kept, 0, row * sizeof(zelfon_cell));
    }
    return finish_change(&r, c, song);
}

int zelfon_edit_insert_line(int slot, int track, int tracks, int line, zelfon_song* song) {
    return shift_lines(slot, track, tracks, line, 1, song);
}

int zelfon_edit_delete_line(int slot, int track, int tracks, int line, zelfon_song* song) {
    return shift_lines(slot, track, tracks, line, -1, song);
}
