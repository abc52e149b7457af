// Mutex, thread and tick clock tests: try-lock seen from another thread, mutual
// exclusion, the stop-request protocol, and the tick rule on both sides of 50000 Hz.
#include <gtest/gtest.h>

#include <atomic>

#include "engine/thread.h"

namespace {

struct trylock_probe {
    tarvik_mutex* m;
    int result;
};

void try_once(tarvik_thread*, void* arg) {
    auto* probe = static_cast<trylock_probe*>(arg);
    probe->result = tarvik_mutex_trylock(probe->m);
    if (probe->result == 0) tarvik_mutex_unlock(probe->m);
}

int trylock_from_other_thread(tarvik_mutex* m) {
    trylock_probe probe{m, -1};
    tarvik_thread t;
    if (tarvik_thread_create(&t, try_once, &probe) != 0) return -2;
    if (tarvik_thread_join(&t) != 0) return -3;
    return probe.result;
}

TEST(TarvikThreadTest, TrylockIsBusyWhileAnotherThreadHolds) {
    tarvik_mutex m;
    ASSERT_EQ(tarvik_mutex_create(&m), 0);
    tarvik_mutex_lock(&m);
    EXPECT_GT(trylock_from_other_thread(&m), 0);
    tarvik_mutex_unlock(&m);
    EXPECT_EQ(trylock_from_other_thread(&m), 0);
    tarvik_mutex_destroy(&m);
}

struct shared_count {
    tarvik_mutex m;
    int value;  // deliberately not atomic: the mutex must protect it
};

void add_many(tarvik_thread*, void* arg) {
    auto* c = static_cast<shared_count*>(arg);
    for (int i = 0; i < 100000; i++) {
        tarvik_mutex_lock(&c->m);
        c->value++;
        tarvik_mutex_unlock(&c->m);
    }
}

TEST(TarvikThreadTest, LockSerialisesUpdates) {
    shared_count c{};
    tarvik_mutex_create(&c.m);
    tarvik_thread t[2];
    for (auto& th : t) ASSERT_EQ(tarvik_thread_create(&th, add_many, &c), 0);
    for (auto& th : t) ASSERT_EQ(tarvik_thread_join(&th), 0);
    EXPECT_EQ(c.value, 200000);
    tarvik_mutex_destroy(&c.m);
}

struct worker_state {
    tarvik_thread* seen_thread;
    std::atomic<int> started;
    std::atomic<int> finished;
};

void work_until_stopped(tarvik_thread* self, void* arg) {
    auto* w = static_cast<worker_state*>(arg);
    w->seen_thread = self;
    w->started = 1;
    while (!tarvik_thread_stop_requested(self)) tarvik_sleep_ms(1);
    w->finished = 1;
}

TEST(TarvikThreadTest, RunsUntilStopRequestedThenJoins) {
    worker_state w{};
    tarvik_thread t;
    ASSERT_EQ(tarvik_thread_create(&t, work_until_stopped, &w), 0);
    while (!w.started) tarvik_sleep_ms(1);
    EXPECT_EQ(w.finished, 0);
    tarvik_thread_request_stop(&t);
    EXPECT_EQ(tarvik_thread_join(&t), 0);
    EXPECT_EQ(w.finished, 1);
    EXPECT_EQ(w.seen_thread, &t);
    EXPECT_NE(tarvik_thread_join(&t), 0);  // already released
}

TEST(TarvikTimeTest, SlowCounterIsMultipliedUp) {
    EXPECT_EQ(tarvik_ticks_from_counter(7, 1000), 350u);
    EXPECT_EQ(tarvik_ticks_from_counter(7, 30000), 14u);  // ceil(50000 / 30000) = 2
    EXPECT_EQ(tarvik_ticks_from_counter(7, 50000), 7u);
    EXPECT_EQ(tarvik_ticks_per_second_for(1000), 50000u);
    EXPECT_EQ(tarvik_ticks_per_second_for(30000), 60000u);
}

TEST(TarvikTimeTest, FastCounterIsDividedDown) {
    EXPECT_EQ(tarvik_ticks_from_counter(19999, 1000000000), 0u);
    EXPECT_EQ(tarvik_ticks_from_counter(20000, 1000000000), 1u);
    EXPECT_EQ(tarvik_ticks_from_counter(7159090, 3579545), 100832u);  // divisor 71
    EXPECT_EQ(tarvik_ticks_from_counter(123, 99999), 123u);           // divisor 1
    EXPECT_EQ(tarvik_ticks_per_second_for(1000000000), 50000u);
    EXPECT_EQ(tarvik_ticks_per_second_for(3579545), 50416u);
    EXPECT_EQ(tarvik_ticks_per_second_for(99999), 99999u);
}

TEST(TarvikTimeTest, ClockIsMonotonicAtAtLeast50000PerSecond) {
    uint32_t per_second = tarvik_time_ticks_per_second();
    EXPECT_GE(per_second, 50000u);
    tarvik_ticks prev = tarvik_time_ticks();
    for (int i = 0; i < 10000; i++) {
        tarvik_ticks now = tarvik_time_ticks();
        ASSERT_LT(static_cast<uint32_t>(now - prev), 0x80000000u);
        prev = now;
    }
    tarvik_ticks before = tarvik_time_ticks();
    tarvik_sleep_ms(10);  // sleeps at least 10 ms, so at least 10 ms of ticks (less one for rounding)
    EXPECT_GE(static_cast<uint32_t>(tarvik_time_ticks() - before), per_second / 100 - 1);
}

}  // namespace
