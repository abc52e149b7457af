// The editing actions: every change the studio's editors make to a song's patterns and
// settings, each performed through the song's undo history so that it can be undone and
// redone. No window is needed: the editors call these, and the tests do too.
//
// Groups: one gesture of the musician is one undo group. zelfon_edit_begin starts a new
// group; every action until the next begin joins it (a paste is one action; a drag that
// moves patterns over many frames calls begin once, at the press). Typing into one cell
// merges consecutive edits of that cell into one step.
//
// Error convention: actions return ZELFON_EDIT_OK (0) or a ZELFON_EDIT_* code and then
// change nothing. When the history's budget is too small for an action it still happens
// and the history drops what the undo manager drops (old groups, or everything).
//
// Threads: the GUI thread. Cell writes and pattern-table changes take the net's mutex
// only while the render would read what they change (never while allocating); the play
// order is rebuilt after every change of places or sizes. While the song plays, a removed
// pattern's sounding notes end at once, and a pattern moved or put back onto the playing
// line starts on its next pass.
#pragma once

#include <cstdint>

#include "song/song.h"

constexpr int ZELFON_MAX_PATTERN_LINES = 65536;  // lines a pattern may have
constexpr int ZELFON_UNDO_SIZE_DEFAULT = 2097152;  // profile key "undosize"

enum : int {
    ZELFON_EDIT_OK = 0,
    ZELFON_EDIT_OUTSIDE = 1,      // beyond the pattern, the track limit (32) or the line limit
    ZELFON_EDIT_NO_PATTERN = 2,   // the slot is empty or out of range
    ZELFON_EDIT_NO_MEMORY = 3,
    ZELFON_EDIT_NOT_A_PATTERN = 4,  // clipboard text that is not cells
    ZELFON_EDIT_NO_MODULE = 5,    // the module slot is empty or out of range
    ZELFON_EDIT_OUTPUT_MODULE = 6,  // the Output module (slot 0) is never removed
    ZELFON_EDIT_NO_SAMPLE = 7,    // the Sampler's slot holds no playable sample
    ZELFON_EDIT_LOAD_FAILED = 8,  // a sample file did not load (psynth_sample_load_error() tells why)
};

// Fields of a cell, for clearing and for paste-mix.
enum : uint32_t {
    ZELFON_FIELD_NOTE = 1,
    ZELFON_FIELD_VELOCITY = 2,
    ZELFON_FIELD_MODULE = 4,
    ZELFON_FIELD_EFFECT = 8,   // controller and effect
    ZELFON_FIELD_VALUE = 16,
    ZELFON_FIELD_ALL = 31,
};

// A rectangle of cells in one pattern: `tracks` × `lines` from (track, line).
struct zelfon_cell_rect {
    int slot;
    int track;
    int line;
    int tracks;
    int lines;
};

// Where an undone or redone edit happened, for the editors' cursors: a cell edit's corner;
// track and line 0 for pattern edits (a move gives its first slot); slot −1 for the song's
// settings and for sound net edits, which give their module (a move its first one).
struct zelfon_edit_place {
    int slot;
    int track;
    int line;
    int module;  // −1 unless a sound net edit
};

// ---- History (edit.cpp) ----
// (Re)creates the song's history with budget `size` (the profile's "undosize"); the old
// one is dropped. zelfon_song_init and zelfon_load_song call it.
void zelfon_edit_init_history(uint32_t size, zelfon_song* song);
// The profile's "undosize" (ZELFON_UNDO_SIZE_DEFAULT when it is absent or negative).
uint32_t zelfon_edit_profile_undo_size();
// Frees the history (zelfon_song_close calls it).
void zelfon_edit_close_history(zelfon_song* song);
// Starts a new undo group for the next actions.
void zelfon_edit_begin(zelfon_song* song);
// Undoes / redoes one group. Returns 1 and the edit's place (undo: the group's last action,
// redo: its first; place may be null), 0 when there was nothing.
int zelfon_undo(zelfon_edit_place* place, zelfon_song* song);
int zelfon_redo(zelfon_edit_place* place, zelfon_song* song);
// Non-zero when there is a group to undo / redo.
int zelfon_can_undo(const zelfon_song* song);
int zelfon_can_redo(const zelfon_song* song);

// ---- Cells (edit_cells.cpp) ----
// Writes `cells` (r->tracks per line, r->lines lines) into the rectangle.
int zelfon_edit_set_cells(const zelfon_cell_rect* r, const zelfon_cell* cells, zelfon_song* song);
// Writes one typed cell; a typed edit of the same cell right before it in the same group
// merges with it into one undo step.
int zelfon_edit_type_cell(int slot, int track, int line, const zelfon_cell* cell, zelfon_song* song);
// Clears `fields` of every cell of the rectangle.
int zelfon_edit_clear(const zelfon_cell_rect* r, uint32_t fields, zelfon_song* song);
// Pastes `tracks` × `lines` cells at (r->slot, r->track, r->line), cut at the pattern's
// edges; with `mix`, only into fields that are empty (controller and effect count as one
// field). Returns OUTSIDE when nothing fits.
int zelfon_edit_paste(const zelfon_cell_rect* at, const zelfon_cell* cells, int tracks, int lines, int mix,
                      zelfon_song* song);
// Moves the notes (1..120) of the rectangle by `semitones`, kept within 1..120; other notes stay.
int zelfon_edit_transpose(const zelfon_cell_rect* r, int semitones, zelfon_song* song);
// In each track of the rectangle: velocities, and controller/effect values, are set on a
// straight line from the rectangle's first line to its last (where both ends hold one:
// a velocity, or a controller or effect); values are rounded toward the first line's, and
// the lines between take the first line's controller and effect.
int zelfon_edit_interpolate(const zelfon_cell_rect* r, zelfon_song* song);
// Inserts an empty line at `line` of the tracks track..track+tracks−1 (the lines below move
// down; the last one falls off), or deletes it (the lines below move up; an empty one comes in).
int zelfon_edit_insert_line(int slot, int track, int tracks, int line, zelfon_song* song);
int zelfon_edit_delete_line(int slot, int track, int tracks, int line, zelfon_song* song);

// ---- Patterns (edit_patterns.cpp) ----
// A new pattern (cleared cells, an icon drawn from `seed`) in the first empty slot, the
// table growing by 16 when there is none. Returns its slot, or −1 (with nothing changed)
// when memory ran out or the size lies beyond 1..ZELFON_MAX_PATTERN_LINES × 1..32.
int zelfon_edit_new_pattern(int lines, int tracks, int x, int y, uint32_t seed, zelfon_song* song);
// Removes the pattern in `slot`; a parent takes its clones with it (all come back on undo).
int zelfon_edit_remove_pattern(int slot, zelfon_song* song);
// A clone of the pattern in `slot` at x, y. Returns its slot, or −1.
int zelfon_edit_clone_pattern(int slot, int x, int y, zelfon_song* song);
// Turns a clone into a pattern of its own with a copy of the cells (un-clone); a pattern
// that is no clone stays as it is (OK, nothing recorded).
int zelfon_edit_make_unique(int slot, zelfon_song* song);
// Moves the patterns of `slots` by dx lines and dy rows.
int zelfon_edit_move_patterns(const int* slots, int count, int dx, int dy, zelfon_song* song);
// Changes a pattern's lines (1..ZELFON_MAX_PATTERN_LINES) and tracks (1..32); clones change with it.
int zelfon_edit_resize_pattern(int slot, int lines, int tracks, zelfon_song* song);
// Changes a pattern's colours and icon (shared with its clones) and redraws the icon.
int zelfon_edit_pattern_look(int slot, const uint8_t fg[3], const uint8_t bg[3], const uint16_t icon[ZELFON_ICON_SIZE],
                             zelfon_song* song);

// ---- Song settings (edit_song.cpp) ----
// Sets the name (null or "" clears it), BPM (32..16000), speed (1..31) and global volume (0..512).
int zelfon_edit_song_properties(const char* name, int bpm, int speed, int volume, zelfon_song* song);

// ---- Clipboard text (pattern_text.cpp) ----
// Cells as plain text, so that patterns travel between two running studios through the
// system clipboard: a first line "Zelfon cells TRACKS LINES", then one line a line of
// TRACKS cells as "note vel module effect ctl value" in hex, cells separated by "|".
// Returns a new memory-manager block (the caller frees it), or null when memory ran out.
char* zelfon_cells_to_text(const zelfon_cell* cells, int tracks, int lines);
// Reads such text. Returns 0 with a new block of cells and its size, or
// ZELFON_EDIT_NOT_A_PATTERN (nothing allocated) for any other text, or NO_MEMORY.
int zelfon_cells_from_text(const char* text, zelfon_cell** cells, int* tracks, int* lines);
