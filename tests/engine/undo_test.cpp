// Undo manager tests: sizing, groups, ring overflow, the redo tail, the budget, resets on
// failure (read back from the log file), and random sequences checked against a model.
// The test application swaps doc[par1] with the int at the start of the action's data.
#include <cstring>
#include <deque>
#include <string>
#include <utility>

#include "engine/random.h"
#include "engine/undo.h"
#include "engine_test_env.h"

namespace {

// On undo the data is resized to par3 bytes and on redo to par2 (0: left alone).
// The trace holds one entry per call: '*' add, '+' redo, '-' undo, then the type.
struct test_app {
    int doc[8] = {};
    std::string trace;
    int calls = 0;
    int fail_at = -1;  // this call (counted from 0) returns 5
};

int app_handler(int do_it, undo_action* a, undo* u) {
    test_app* app = static_cast<test_app*>(u->user_data);
    app->trace += (do_it ? (u->status ? "*" : "+") : "-") + std::to_string(a->type) + " ";
    if (app->calls++ == app->fail_at) return 5;
    uint32_t size = u->status ? 0 : do_it ? a->par2 : a->par3;
    if (size) a->data = mem_resize(a->data, size);
    if (a->data) std::swap(app->doc[a->par1 % 8], *static_cast<int*>(a->data));
    return 0;
}

// One action of a listed history, "type/level/size ".
std::string entry(uint32_t type, uint32_t level, size_t size) {
    return std::to_string(type) + "/" + std::to_string(level) + "/" + std::to_string(size) + " ";
}

// Every test starts with a history set up for 2000 bytes (budget 1000) and ends with
// undo_deinit and a check that no block is left behind.
class UndoTest : public MemLogFixture {
protected:
    void SetUp() override {
        MemLogFixture::SetUp();
        init(2000);
    }
    void TearDown() override {
        finish();
        MemLogFixture::TearDown();
    }
    void init(uint32_t size) { undo_init(size, app_handler, &app_, &u_); }
    // Adds action `type` at `level` with `size` bytes of data holding `value` for doc[cell].
    int add(uint32_t level, uint32_t type, uint32_t size, int value = 0, uint32_t cell = 0,
            uint32_t redo_size = 0, uint32_t undo_size = 0) {
        undo_action a = {0, type, cell, redo_size, undo_size, mem_new(MEM_DYNAMIC, size, "test_action")};
        *static_cast<int*>(a.data) = value;
        u_.level = level;
        int r = undo_add_action(&a, &u_);
        if (r) mem_free(a.data);  // a failed add leaves the data with its owner
        return r;
    }
    // The ring, oldest first, as "type/level/size".
    std::string ring() {
        std::string s;
        for (uint32_t i = 0; i < u_.end; i++) {
            const undo_action& a = u_.actions[(u_.first + i) & (u_.actions_num_limit - 1)];
            s += entry(a.type, a.level, mem_get_size(a.data));
        }
        return s;
    }
    void expect_empty(uint32_t size) {
        EXPECT_EQ(u_.actions, nullptr);
        EXPECT_EQ(u_.status + u_.data_size + u_.level + u_.first + u_.cur + u_.end, 0u);
        EXPECT_EQ(u_.data_size_limit, size / 2);  // settings survive
        EXPECT_EQ(u_.action_handler, &app_handler);
        EXPECT_EQ(u_.user_data, &app_);
    }
    void finish() {
        undo_deinit(&u_);
        EXPECT_FALSE(mem_free_all());
    }
    test_app app_;
    undo u_;
};

TEST_F(UndoTest, InitSizesCapacityAndBudgetFromOneSetting) {
    std::memset(&u_, 0xAB, sizeof u_);
    init(2097152);
    EXPECT_EQ(u_.data_size_limit, 1048576u);
    EXPECT_EQ(u_.actions_num_limit, 65536u);
    EXPECT_EQ(u_.status + u_.data_size + u_.level + u_.first + u_.cur + u_.end, 0u);
    EXPECT_EQ(u_.actions, nullptr);
    EXPECT_EQ(u_.user_data, &app_);
    const uint32_t sizes[][2] = {{0, 1}, {111, 1}, {112, 2}, {168, 4}, {224, 4}, {281, 8}, {3000000, 65536}};
    for (auto& s : sizes) {
        init(s[0]);
        EXPECT_EQ(u_.actions_num_limit, s[1]) << s[0];
        EXPECT_EQ(u_.data_size_limit, s[0] / 2) << s[0];
    }
}

TEST_F(UndoTest, RingIsAllocatedAtTheFirstAddAndTagged) {
    init(200);  // capacity 4
    undo_action a = {0, 1, 0, 0, 0, nullptr};
    EXPECT_EQ(undo_add_action(&a, &u_), 0);
    EXPECT_EQ(block_tag(u_.actions), "undo_add_action");  // 4 actions of 28 bytes
    EXPECT_EQ(mem_get_size(u_.actions), 112u);
}

TEST_F(UndoTest, AddPerformsWithStatusAndRecordsAtTheLevel) {
    EXPECT_EQ(add(3, 1, 10, 11, 0), 0);
    EXPECT_EQ(add(4, 2, 20, 22, 1), 0);
    app_.fail_at = 2;
    EXPECT_EQ(add(4, 3, 30, 33, 2), 5);  // the handler's result; nothing recorded
    EXPECT_EQ(app_.trace, "*1 *2 *3 ");
    EXPECT_EQ(u_.status, 0u);
    EXPECT_EQ(ring(), "1/3/10 2/4/20 ");
    EXPECT_EQ(u_.cur, 2u);
    EXPECT_EQ(u_.data_size, 30u);
    EXPECT_EQ(app_.doc[0] * 100 + app_.doc[1] + app_.doc[2], 1122);
}

TEST_F(UndoTest, GroupOfThreeIsUndoneAndRedoneAsOne) {
    add(1, 1, 8, 10, 0);
    add(2, 2, 8, 20, 1);
    add(2, 3, 8, 30, 2);
    add(2, 4, 8, 40, 1);
    execute_undo(&u_);
    EXPECT_EQ(app_.trace, "*1 *2 *3 *4 -4 -3 -2 ");
    EXPECT_EQ(u_.cur, 1u);
    EXPECT_EQ(app_.doc[0] * 100 + app_.doc[1] * 10 + app_.doc[2], 1000);
    execute_redo(&u_);
    EXPECT_EQ(app_.doc[0] * 100 + app_.doc[1] * 10 + app_.doc[2], 1430);
    execute_redo(&u_);  // at the end: nothing
    execute_undo(&u_);
    execute_undo(&u_);
    execute_undo(&u_);  // at the start: nothing
    EXPECT_EQ(app_.trace, "*1 *2 *3 *4 -4 -3 -2 +2 +3 +4 -4 -3 -2 -1 ");
    EXPECT_EQ(u_.cur, 0u);
    EXPECT_EQ(u_.end, 4u);
    EXPECT_EQ(app_.doc[0] + app_.doc[1] + app_.doc[2], 0);
}

TEST_F(UndoTest, FullRingDropsTheOldestAction) {
    init(100);  // capacity 1: each action replaces the previous one
    add(1, 1, 10);
    add(1, 2, 20);
    EXPECT_EQ(ring(), "2/1/20 ");
    EXPECT_EQ(u_.data_size, 20u);
    execute_undo(&u_);
    execute_undo(&u_);
    EXPECT_EQ(app_.trace, "*1 *2 -2 ");
    finish();

    init(224);  // capacity 4; the ring wraps, and a group loses its oldest member
    app_.trace.clear();
    for (uint32_t t = 1; t <= 6; t++) add(t < 4 ? 1 : t, t, 4);
    EXPECT_EQ(u_.first, 2u);
    EXPECT_EQ(ring(), "3/1/4 4/4/4 5/5/4 6/6/4 ");
    for (int i = 0; i < 4; i++) execute_undo(&u_);
    for (int i = 0; i < 4; i++) execute_redo(&u_);
    EXPECT_EQ(app_.trace, "*1 *2 *3 *4 *5 *6 -6 -5 -4 -3 +3 +4 +5 +6 ");
}

TEST_F(UndoTest, NewActionDropsTheRedoTail) {
    add(1, 1, 10);
    add(2, 2, 20);
    add(3, 3, 30);
    execute_undo(&u_);
    execute_undo(&u_);
    add(4, 4, 40);
    EXPECT_EQ(ring(), "1/1/10 4/4/40 ");
    EXPECT_EQ(u_.data_size, 50u);
    execute_redo(&u_);
    EXPECT_EQ(app_.trace, "*1 *2 *3 -3 -2 *4 ");
}

TEST_F(UndoTest, BudgetDropsTheOldestGroupsWhole) {
    add(1, 1, 200);
    add(1, 2, 200);
    add(2, 3, 100);
    add(2, 4, 100);
    add(2, 5, 100);
    add(3, 6, 500);  // 1200: the first group leaves whole although one action would do
    EXPECT_EQ(ring(), "3/2/100 4/2/100 5/2/100 6/3/500 ");
    EXPECT_EQ(u_.data_size, 800u);
    EXPECT_EQ(u_.cur, 4u);
    add(4, 7, 1000);  // exactly the budget stays
    EXPECT_EQ(ring(), "7/4/1000 ");
    add(5, 8, 1001);  // too big even alone: the history ends up empty
    EXPECT_EQ(ring(), "");
    EXPECT_EQ(u_.data_size + u_.cur + u_.end, 0u);
}

TEST_F(UndoTest, UndoThatGrowsDropsOlderGroupsButNotItsOwn) {
    add(1, 1, 300);
    add(2, 2, 300);
    add(3, 3, 100, 0, 0, 100, 300);
    add(3, 4, 100, 0, 0, 100, 300);
    execute_undo(&u_);  // 1000 after the first action, 1200 after the second
    EXPECT_EQ(ring(), "2/2/300 3/3/300 4/3/300 ");
    EXPECT_EQ(u_.data_size, 900u);
    EXPECT_EQ(u_.cur, 1u);
    execute_redo(&u_);
    EXPECT_EQ(u_.data_size, 500u);
    EXPECT_EQ(app_.trace, "*1 *2 *3 *4 -4 -3 +3 +4 ");
}

TEST_F(UndoTest, GroupOverBudgetEmptiesTheHistory) {
    add(1, 1, 100, 0, 0, 100, 2000);
    execute_undo(&u_);
    EXPECT_EQ(log_text(), "execute_undo(). mem.error. data_size: 2000\nundo_reset(). data_size: 2000\n");
    expect_empty(2000);
    std::string first = log_text();

    add(1, 1, 50);
    add(2, 2, 100, 0, 0, 1999, 100);
    execute_undo(&u_);
    execute_redo(&u_);  // the older group goes first, then the history
    EXPECT_EQ(log_text(), first + "execute_redo(). mem.error. data_size: 1999\nundo_reset(). data_size: 1999\n");
    expect_empty(2000);
}

TEST_F(UndoTest, FailingUndoEmptiesTheHistory) {
    add(1, 1, 10);
    add(2, 2, 20);
    add(2, 3, 30);
    app_.fail_at = 4;  // the second action of the group
    execute_undo(&u_);
    EXPECT_EQ(app_.trace, "*1 *2 *3 -3 -2 ");
    EXPECT_EQ(log_text(), "execute_undo(). action error. data_size: 60\nundo_reset(). data_size: 60\n");
    expect_empty(2000);
    EXPECT_EQ(add(7, 4, 8), 0);  // usable again
    EXPECT_EQ(ring(), "4/7/8 ");
}

TEST_F(UndoTest, FailingRedoEmptiesTheHistory) {
    add(1, 1, 10);
    add(1, 2, 20);
    execute_undo(&u_);
    app_.fail_at = 5;
    execute_redo(&u_);
    EXPECT_EQ(app_.trace, "*1 *2 -2 -1 +1 +2 ");
    EXPECT_EQ(log_text(), "execute_redo(). action error. data_size: 30\nundo_reset(). data_size: 30\n");
    expect_empty(2000);
}

// The model: a deque of actions, oldest first, and a cursor; sizes follow the same rules.
struct model_action {
    uint32_t type, level, size, redo_size, undo_size;
};
struct model {
    std::deque<model_action> h;
    size_t cur = 0, capacity, budget;
    int calls = 0, fail_at = -1;
    std::string trace, log;
    int drops = 0, trims = 0, resets = 0;

    uint32_t total() const {
        uint32_t t = 0;
        for (auto& a : h) t += a.size;
        return t;
    }
    void pop_oldest() {
        h.pop_front();
        if (cur) cur--;
    }
    void trim(bool protect, uint32_t level) {
        while (total() > budget && !h.empty() && !(protect && h.front().level == level)) {
            uint32_t gone = h.front().level;
            trims++;
            while (!h.empty() && h.front().level == gone) pop_oldest();
        }
    }
    void reset(const std::string& why) {
        resets++;
        log += why + std::to_string(total()) + "\nundo_reset(). data_size: " + std::to_string(total()) + "\n";
        h.clear();
        cur = 0;
    }
    bool call(char how, const model_action& a) {
        trace += how + std::to_string(a.type) + " ";
        return calls++ != fail_at;
    }
    void add(const model_action& a) {
        if (!call('*', a)) return;
        if (cur == capacity) pop_oldest(), drops++;
        h.resize(cur);
        h.push_back(a);
        cur++;
        trim(false, 0);
    }
    void step(bool forward) {
        const std::string name = forward ? "execute_redo(). " : "execute_undo(). ";
        bool started = false;
        uint32_t group = 0;
        while (forward ? cur < h.size() : cur > 0) {
            model_action& a = h[forward ? cur : cur - 1];
            if (started && a.level != group) return;
            started = true;
            group = a.level;
            if (!call(forward ? '+' : '-', a)) return reset(name + "action error. data_size: ");
            a.size = forward ? a.redo_size : a.undo_size;
            forward ? cur++ : cur--;
            trim(true, group);
            if (total() > budget) return reset(name + "mem.error. data_size: ");
        }
    }
    std::string ring() const {
        std::string s;
        for (auto& a : h) s += entry(a.type, a.level, a.size);
        return s;
    }
};

TEST_F(UndoTest, RandomSequencesMatchAModel) {
    init(500);  // capacity 8, budget 250
    model m;
    m.capacity = 8;
    m.budget = 250;
    uint32_t seed = 20240611, level = 0;
    auto r = [&](int n) { return tarvik_random(&seed) % n; };
    for (uint32_t step = 1; step <= 3000; step++) {
        SCOPED_TRACE(step);
        app_.fail_at = m.fail_at = r(40) ? -1 : m.calls + r(3);
        int op = r(8);
        if (op < 4) {
            if (r(3) == 0) level = r(5);
            model_action a = {step, level, 4u + r(36), 4u + r(80), 4u + r(80)};
            m.add(a);
            add(level, step, a.size, 0, r(8), a.redo_size, a.undo_size);
        } else {
            m.step(op < 6);
            op < 6 ? execute_redo(&u_) : execute_undo(&u_);
        }
        ASSERT_EQ(app_.trace, m.trace);
        ASSERT_EQ(ring(), m.ring());
        ASSERT_EQ(u_.cur, m.cur);
        ASSERT_EQ(u_.data_size, m.total());
    }
    EXPECT_EQ(log_text(), m.log);
    EXPECT_GT(m.drops, 10);  // every path was taken
    EXPECT_GT(m.trims, 10);
    EXPECT_GT(m.resets, 10);
}

}  // namespace
