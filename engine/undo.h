// Undo manager: a generic undo/redo history. It never knows what an action does; the
// application's handler performs each action forwards (do/redo) or backwards (undo).
// Actions sharing a level form one group, undone and redone as one step.
//
// Error convention: the handler returns 0 on success and non-zero on failure. A failing
// handler during undo or redo, or a group that alone exceeds the memory budget, discards
// the whole history (logged), so no group is ever left half undone. The manager takes no
// lock: all functions belong to the thread that edits the song (the GUI thread).
#pragma once

#include <cstdint>

struct undo;

// One action, copied by value into the ring. Packed to 4 bytes so that it keeps its
// 28 bytes on 64-bit builds too: the ring then costs capacity × 28 bytes, which is what
// the sizing in undo_init assumes.
#pragma pack(push, 4)
struct undo_action {
    uint32_t level;  // group number, set from the history's level when the action is added
    uint32_t type;   // the application's action type
    uint32_t par1, par2, par3;  // the application's words, with a meaning for each type
    // The action's saved state: a block from the memory manager, or null. The history owns
    // it once the action is recorded; the handler may replace or resize it while it runs.
    void* data;
};
#pragma pack(pop)
static_assert(sizeof(undo_action) == 28);

// Performs `action` forwards (do_it = 1: do or redo) or backwards (do_it = 0: undo).
// Returns 0 on success, non-zero on failure.
typedef int (*undo_action_handler)(int do_it, undo_action* action, undo* u);

// The history: a ring of actions with a capacity and a budget for the actions' data.
struct undo {
    uint32_t status;             // 1 while the handler runs for a new action inside undo_add_action
    uint32_t data_size;          // sum of mem_get_size of the data of every action in the ring
    uint32_t data_size_limit;    // budget for data_size; the oldest groups leave when it is exceeded
    uint32_t actions_num_limit;  // ring capacity, a power of two (positions are masked)
    uint32_t level;              // group number for new actions, set by the application
    uint32_t first;              // ring slot of the oldest action
    uint32_t cur;                // actions before the cursor (those that can be undone)
    uint32_t end;                // actions in the ring; end - cur can be redone
    undo_action* actions;        // the ring, allocated at the first add
    undo_action_handler action_handler;
    void* user_data;             // the application's state, for the handler
};

// Clears `u` and sizes it from one setting: budget size / 2 bytes, capacity the smallest
// power of two not below size / 56 (at least 1). Allocates nothing.
void undo_init(uint32_t size, undo_action_handler handler, void* user_data, undo* u);
// Performs `action` (handler(1, ...) with status 1) and records it at the cursor under
// u->level, dropping the redo tail and, over capacity or budget, the oldest actions.
// Returns the handler's result; on failure nothing is recorded and the caller keeps
// action->data. On success the history owns the data (it may already be freed by trimming).
int undo_add_action(undo_action* action, undo* u);
// Undoes the group before the cursor, last action first; does nothing when cur is 0.
void execute_undo(undo* u);
// Redoes the group after the cursor, first action first; does nothing when cur equals end.
void execute_redo(undo* u);
// Logs "undo_reset(). data_size: %d", frees every action's data and the ring, and empties
// the history; the capacity, budget, handler and user data stay.
void undo_reset(undo* u);
// Frees every action's data and the ring without logging, leaving the history empty.
void undo_deinit(undo* u);
