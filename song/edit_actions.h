// The undo records of the editing actions, shared by song/edit*.cpp only: the action types,
// what each keeps, and the helpers every action uses to check, record and write.
//
// Every action keeps where it happened in its words: par1 the slot (−1: the song's
// settings), par2 the track, par3 the line. Its `data` block keeps the rest: one record
// per type (below), defined beside its performer in edit_cells.cpp, edit_patterns.cpp and
// edit_song.cpp.
#pragma once

#include <cstdint>

#include "engine/undo.h"
#include "song/edit.h"

enum : uint32_t {
    ZELFON_ACTION_CELLS = 1,     // zelfon_cells_change: a rectangle's old and new cells
    ZELFON_ACTION_TYPED_CELL,    // zelfon_cells_change of one typed cell (later typing there merges)
    ZELFON_ACTION_PATTERN_IN,    // zelfon_pattern_snapshot: do puts its slots in, undo takes them out
    ZELFON_ACTION_PATTERN_OUT,   // zelfon_pattern_snapshot: do takes its slots out, undo puts them in
    ZELFON_ACTION_MAKE_UNIQUE,   // zelfon_unique_change: do gives the clone a copy of the record
    ZELFON_ACTION_MOVE,          // zelfon_move_change + entries: old and new places of each slot
    ZELFON_ACTION_RESIZE,        // zelfon_resize_change: old and new lines and tracks
    ZELFON_ACTION_LOOK,          // zelfon_look_change: old and new colours and icon
    ZELFON_ACTION_SONG,          // zelfon_song_change + names: old and new settings
    // Sound net actions (ZELFON_ACTION_SYNTH_IN and after):
    ZELFON_ACTION_SYNTH_IN,      // zelfon_synth_image: do puts the module in, undo takes it out
    ZELFON_ACTION_SYNTH_OUT,     // zelfon_synth_image: do takes the module out, undo puts it in
    ZELFON_ACTION_LINK,          // zelfon_link_change: every link list before and after a toggle
    ZELFON_ACTION_SYNTH_MOVE,    // zelfon_move_change + entries: old and new places of each module
    ZELFON_ACTION_SYNTH_SETTINGS,  // zelfon_settings_change: old and new name, colour, pitch, MIDI out, mute, solo
    ZELFON_ACTION_SYNTH_CTL,     // zelfon_ctl_change: one controller's old and new value (later moves merge)
    ZELFON_ACTION_SAMPLER,       // zelfon_sampler_image: Sampler chunks as they are not now (par2 slot, par3 merge key)
};

// ZELFON_ACTION_MOVE and ZELFON_ACTION_SYNTH_MOVE: count, then count zelfon_move_entries
// (a pattern's slot or a module's number).
struct zelfon_move_change {
    int count;
};
struct zelfon_move_entry {
    int slot;
    int x[2], y[2];  // [0] before, [1] after
};

// A move record of `count` entries for `slots`, each moved by dx, dy from the place that
// place(slot, &x, &y, context) gives. Null when memory ran out.
zelfon_move_change* zelfon_new_move_change(const int* slots, int count, int dx, int dy,
                                           void (*place)(int slot, int* x, int* y, const void* context),
                                           const void* context);
// True when (x + dx, y + dy) still fits in an int.
inline bool zelfon_move_fits(int x, int y, int dx, int dy) {
    int64_t nx = (int64_t)x + dx, ny = (int64_t)y + dy;
    return nx >= INT32_MIN && nx <= INT32_MAX && ny >= INT32_MIN && ny <= INT32_MAX;
}
inline zelfon_move_entry* zelfon_move_entries(zelfon_move_change* m) { return (zelfon_move_entry*)(m + 1); }

// The pattern in `slot`, or null when the slot is empty or out of range.
zelfon_pattern* zelfon_edit_pattern(int slot, const zelfon_song* song);
// The module in `mod`, or null when the slot is free or out of range.
psynth_module* zelfon_edit_synth(int mod, const zelfon_song* song);
// Records `data` as a new action of `type` at the place, performing it through the history.
// Returns ZELFON_EDIT_OK, or NO_MEMORY when it failed (`data` is then freed, nothing changed).
int zelfon_edit_record(uint32_t type, int slot, int track, int line, void* data, zelfon_song* song);
// The newest action when it is the last one of the current group with nothing to redo
// after it, or null: typing merges into it.
undo_action* zelfon_edit_last_action(zelfon_song* song);

// Performers of the history's handler: do_it 1 does (or redoes), 0 undoes. 0, or non-zero
// when the song does not hold what the action expects (the history is then dropped).
int zelfon_perform_cells(int do_it, const undo_action* a, zelfon_song* song);
int zelfon_perform_pattern(int do_it, const undo_action* a, zelfon_song* song);
int zelfon_perform_song(int do_it, const undo_action* a, zelfon_song* song);
// The sound net's: modules in and out and links (edit_net.cpp; these may replace a->data
// with what they captured), moves, settings and controllers (edit_net_settings.cpp).
int zelfon_perform_synth(int do_it, undo_action* a, zelfon_song* song);
int zelfon_perform_synth_settings(int do_it, const undo_action* a, zelfon_song* song);
// The Sampler editor's (edit_sampler_undo.cpp): swaps the chunks kept in a->data with the module's.
int zelfon_perform_sampler(int do_it, undo_action* a, zelfon_song* song);

// ---- Sampler chunks (edit_sampler_undo.cpp) ----
// A new content for one chunk of a Sampler: a memory-manager block (null: no chunk).
struct zelfon_chunk_block {
    int chunk;
    void* data;
    int flags;
    int rate;
};
// Puts `blocks` into Sampler `mod` as one edit of sample `slot` (−1: the instrument), keeping
// the chunks' present content for undo. The blocks are the edit's from the call on (freed on
// failure or when they change nothing). A non-zero `key` merges the edit into the newest
// action of the current group when it has the same module and key. OK or NO_MEMORY.
int zelfon_sampler_commit(int mod, int slot, uint32_t key, zelfon_chunk_block* blocks, int count, zelfon_song* song);
// Runs `change(context)`, which changes the module's chunks itself (a loader), as one edit of
// chunks `chunks` (recorded when it changed any, or the chunk table); *result gets what change
// returned. OK, or NO_MEMORY when there was no memory to keep the chunks (change not run).
int zelfon_sampler_record_change(int mod, int slot, const int* chunks, int count, int (*change)(void* context),
                                 void* context, int* result, zelfon_song* song);
