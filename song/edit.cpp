// The song's editing history: the undo manager's handler that sends each action to the
// file that performs it, groups, and undo and redo that tell the editors where they were.
#include <cstring>

#include "engine/memory.h"
#include "engine/profile.h"
#include "song/edit_actions.h"

zelfon_pattern* zelfon_edit_pattern(int slot, const zelfon_song* song) {
    if (slot < 0 || !song->pats || slot >= song->pats_capacity) return nullptr;
    return song->pats[slot];
}

psynth_module* zelfon_edit_synth(int mod, const zelfon_song* song) {
    const psynth_net* net = song->net;
    if (!net || !net->modules || mod < 0 || mod >= net->slots) return nullptr;
    psynth_module* m = &net->modules[mod];
    return (m->flags & PSYNTH_FLAG_EXISTS) ? m : nullptr;
}

static int perform(int do_it, undo_action* a, undo* u) {
    zelfon_song* song = (zelfon_song*)u->user_data;
    switch (a->type) {
    case ZELFON_ACTION_CELLS:
    case ZELFON_ACTION_TYPED_CELL: return zelfon_perform_cells(do_it, a, song);
    case ZELFON_ACTION_SONG: return zelfon_perform_song(do_it, a, song);
    case ZELFON_ACTION_SYNTH_IN:
    case ZELFON_ACTION_SYNTH_OUT:
    case ZELFON_ACTION_LINK: return zelfon_perform_synth(do_it, a, song);
    case ZELFON_ACTION_SYNTH_MOVE:
    case ZELFON_ACTION_SYNTH_SETTINGS:
    case ZELFON_ACTION_SYNTH_CTL: return zelfon_perform_synth_settings(do_it, a, song);
    case ZELFON_ACTION_SAMPLER: return zelfon_perform_sampler(do_it, a, song);
    default: return zelfon_perform_pattern(do_it, a, song);
    }
}

uint32_t zelfon_edit_profile_undo_size() {
    int size = profile_get_int_value("undosize", ZELFON_UNDO_SIZE_DEFAULT, nullptr);
    return size < 0 ? (uint32_t)ZELFON_UNDO_SIZE_DEFAULT : (uint32_t)size;
}

void zelfon_edit_init_history(uint32_t size, zelfon_song* song) {
    undo_deinit(&song->history);
    undo_init(size, perform, song, &song->history);
}

void zelfon_edit_close_history(zelfon_song* song) { undo_deinit(&song->history); }

void zelfon_edit_begin(zelfon_song* song) { song->history.level++; }

int zelfon_edit_record(uint32_t type, int slot, int track, int line, void* data, zelfon_song* song) {
    undo_action a = {0, type, (uint32_t)slot, (uint32_t)track, (uint32_t)line, data};
    if (undo_add_action(&a, &song->history) == 0) return ZELFON_EDIT_OK;
    mem_free(a.data);
    return ZELFON_EDIT_NO_MEMORY;
}

// The action `pos` places after the oldest one of the history's ring.
static undo_action* action_at(const undo* u, uint32_t pos) {
    return &u->actions[(u->first + pos) & (u->actions_num_limit - 1)];
}

undo_action* zelfon_edit_last_action(zelfon_song* song) {
    undo* u = &song->history;
    if (!u->actions || u->cur == 0 || u->cur != u->end) return nullptr;
    undo_action* a = action_at(u, u->cur - 1);
    return a->level == u->level ? a : nullptr;
}

static void place_of(const undo_action* a, zelfon_edit_place* place) {
    if (!place) return;
    bool net = a->type >= ZELFON_ACTION_SYNTH_IN;
    place->slot = net ? -1 : (int)a->par1;
    place->track = net ? 0 : (int)a->par2;
    place->line = net ? 0 : (int)a->par3;
    place->module = net ? (int)a->par1 : -1;
}

zelfon_move_change* zelfon_new_move_change(const int* slots, int count, int dx, int dy,
                                           void (*place)(int slot, int* x, int* y, const void* context),
                                           const void* context) {
    zelfon_move_change* m = (zelfon_move_change*)mem_new(
        MEM_DYNAMIC, sizeof(zelfon_move_change) + (size_t)count * sizeof(zelfon_move_entry), "zelfon_new_move_change");
    if (!m) return nullptr;
    m->count = count;
    for (int i = 0; i < count; i++) {
        int x, y;
        place(slots[i], &x, &y, context);
        zelfon_move_entries(m)[i] = {slots[i], {x, x + dx}, {y, y + dy}};
    }
    return m;
}

int zelfon_undo(zelfon_edit_place* place, zelfon_song* song) {
    undo* u = &song->history;
    if (!zelfon_can_undo(song)) return 0;
    place_of(action_at(u, u->cur - 1), place);
    execute_undo(u);
    return 1;
}

int zelfon_redo(zelfon_edit_place* place, zelfon_song* song) {
    undo* u = &song->history;
    if (!zelfon_can_redo(song)) return 0;
    place_of(action_at(u, u->cur), place);
    execute_redo(u);
    return 1;
}

int zelfon_can_undo(const zelfon_song* song) { return song->history.actions && song->history.cur > 0; }

int zelfon_can_redo(const zelfon_song* song) {
    return song->history.actions && song->history.cur < song->history.end;
}
