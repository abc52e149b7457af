// Undo manager: the ring of recorded actions, the cursor that undo and redo move group
// by group, and the trimming that keeps the actions' data within the budget by dropping
// the oldest groups whole.
#include "engine/undo.h"

#include <cstring>

#include "engine/log.h"
#include "engine/memory.h"

namespace {

// Bytes of ring per action and of budget per action: the setting is split evenly
// between the ring and the actions' data.
constexpr uint32_t kBytesPerAction = 2 * sizeof(undo_action);

uint32_t mask_of(const undo* u) { return u->actions_num_limit - 1; }

// The action `pos` places after the oldest one.
undo_action* action_at(undo* u, uint32_t pos) { return &u->actions[(u->first + pos) & mask_of(u)]; }

uint32_t data_size_of(const undo_action* a) { return static_cast<uint32_t>(mem_get_size(a->data)); }

// Frees an action's data and takes it out of the total.
void release_data(undo* u, undo_action* a) {
    u->data_size -= data_size_of(a);
    mem_free(a->data);
    a->data = nullptr;
}

// Removes the oldest action. It lies before the cursor whenever trimming reaches it (the
// group being moved is protected); the guard keeps the cursor sane should a handler
// change an action's level while the action runs.
void drop_oldest(undo* u) {
    release_data(u, action_at(u, 0));
    u->first = (u->first + 1) & mask_of(u);
    if (u->cur > 0) u->cur--;
    u->end--;
}

// Drops the oldest groups whole while the data is over budget. With `protect`, stops at
// an oldest action of `level`: that group is the one being undone or redone.
void trim(undo* u, uint32_t level, bool protect) {
    while (u->data_size > u->data_size_limit && u->end > 0) {
        uint32_t oldest_level = action_at(u, 0)->level;
        if (protect && oldest_level == level) return;
        drop_oldest(u);
        while (u->end > 0 && action_at(u, 0)->level == oldest_level) drop_oldest(u);
    }
}

// After an action of the group `level` was undone or redone: accounts for the change of
// its data, trims older groups and discards the history when the group alone is too big.
// Returns false when the history was discarded.
bool settle(undo* u, const undo_action* a, uint32_t old_size, uint32_t level, const char* who) {
    u->data_size = u->data_size - old_size + data_size_of(a);
    trim(u, level, true);
    if (u->data_size <= u->data_size_limit) return true;
    tarvik_log("%s(). mem.error. data_size: %d\n", who, static_cast<int>(u->data_size));
    undo_reset(u);
    return false;
}

void free_all_data(undo* u) {
    if (!u->actions) return;
    for (uint32_t i = 0; i < u->end; i++) release_data(u, action_at(u, i));
}

}  // namespace

void undo_init(uint32_t size, undo_action_handler handler, void* user_data, undo* u) {
    std::memset(u, 0, sizeof *u);
    u->data_size_limit = size / 2;
    uint32_t wanted = size / kBytesPerAction;
    uint32_t capacity = 1;
    while (capacity < wanted) capacity <<= 1;
    u->actions_num_limit = capacity;
    u->action_handler = handler;
    u->user_data = user_data;
}

int undo_add_action(undo_action* action, undo* u) {
    action->level = u->level;
    u->status = 1;
    int result = u->action_handler(1, action, u);
    u->status = 0;
    if (result != 0) return result;

    if (!u->actions) {
        u->actions = static_cast<undo_action*>(
            mem_new(MEM_DYNAMIC, static_cast<size_t>(u->actions_num_limit) * sizeof(undo_action), "undo_add_action"));
        if (!u->actions) {
            // The action is done but cannot be recorded (the failure is logged); its data
            // is ours from here, so it goes.
            mem_free(action->data);
            action->data = nullptr;
            return result;
        }
    }
    if (u->cur == u->actions_num_limit) drop_oldest(u);
    while (u->end > u->cur) {
        release_data(u, action_at(u, u->end - 1));
        u->end--;
    }
    *action_at(u, u->cur) = *action;
    u->cur++;
    u->end++;
    u->data_size += data_size_of(action);
    trim(u, 0, false);
    return result;
}

void execute_undo(undo* u) {
    bool started = false;
    uint32_t level = 0;
    while (u->cur > 0) {
        undo_action* a = action_at(u, u->cur - 1);
        if (!started) {
            level = a->level;
            started = true;
        } else if (a->level != level) {
            return;
        }
        u->cur--;
        uint32_t old_size = data_size_of(a);
        if (u->action_handler(0, a, u) != 0) {
            tarvik_log("execute_undo(). action error. data_size: %d\n", static_cast<int>(u->data_size));
            undo_reset(u);
            return;
        }
        if (!settle(u, a, old_size, level, "execute_undo")) return;
    }
}

void execute_redo(undo* u) {
    bool started = false;
    uint32_t level = 0;
    while (u->cur < u->end) {
        undo_action* a = action_at(u, u->cur);
        if (!started) {
            level = a->level;
            started = true;
        } else if (a->level != level) {
            return;
        }
        uint32_t old_size = data_size_of(a);
        if (u->action_handler(1, a, u) != 0) {
            tarvik_log("execute_redo(). action error. data_size: %d\n", static_cast<int>(u->data_size));
            undo_reset(u);
            return;
        }
        u->cur++;
        if (!settle(u, a, old_size, level, "execute_redo")) return;
    }
}

void undo_reset(undo* u) {
    tarvik_log("undo_reset(). data_size: %d\n", static_cast<int>(u->data_size));
    free_all_data(u);
    mem_free(u->actions);
    u->actions = nullptr;
    u->status = 0;
    u->data_size = 0;
    u->level = 0;
    u->first = 0;
    u->cur = 0;
    u->end = 0;
}

void undo_deinit(undo* u) {
    free_all_data(u);
    mem_free(u->actions);
    u->actions = nullptr;
    u->data_size = 0;
    u->first = 0;
    u->cur = 0;
    u->end = 0;
}
