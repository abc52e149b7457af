// The render pass's helper threads. A round is a number that the caller raises; a helper
// spins for a while on it after each round (passes follow each other closely during an
// export) and then sleeps on it, so that an idle net costs no CPU.
#include "psynth/psynth_pool.h"

#include <atomic>
#include <new>
#include <thread>

#include "engine/memory.h"
#include "engine/thread.h"

namespace {

// Checks of the round number before a helper goes to sleep, some tens of microseconds;
// every few checks it offers its core, which the caller may need on a busy machine.
constexpr int kSpinsBeforeSleep = 4096;
constexpr int kSpinsPerYield = 64;

struct helper {
    tarvik_thread thread;
    psynth_pool* pool;
};

}  // namespace

struct psynth_pool {
    std::atomic<int> round;
    std::atomic<int> stop;
    psynth_pool_work work;
    void* arg;
    int helpers;
    helper* threads;
};

namespace {

inline void cpu_relax() { __builtin_ia32_pause(); }

void helper_main(tarvik_thread*, void* arg) {
    psynth_pool* pool = ((helper*)arg)->pool;
    int seen = pool->round.load(std::memory_order_acquire);
    for (;;) {
        int spins = 0;
        int now;
        while ((now = pool->round.load(std::memory_order_acquire)) == seen && !pool->stop.load(std::memory_order_acquire)) {
            if (++spins < kSpinsBeforeSleep) {
                if (spins % kSpinsPerYield == 0) std::this_thread::yield();
                else cpu_relax();
            } else {
                pool->round.wait(seen, std::memory_order_acquire);
            }
        }
        if (pool->stop.load(std::memory_order_acquire)) return;
        seen = now;
        pool->work(pool->arg);
    }
}

}  // namespace

psynth_pool* psynth_pool_new(int helpers, psynth_pool_work work, void* arg) {
    if (helpers < 1) return nullptr;
    void* block = mem_new(MEM_DYNAMIC, sizeof(psynth_pool), "psynth_pool_new");
    if (!block) return nullptr;
    psynth_pool* pool = new (block) psynth_pool();
    pool->work = work;
    pool->arg = arg;
    pool->threads = (helper*)mem_new(MEM_DYNAMIC, sizeof(helper) * (size_t)helpers, "psynth_pool_new");
    if (!pool->threads) {
        psynth_pool_free(pool);
        return nullptr;
    }
    for (int i = 0; i < helpers; i++) {
        pool->threads[i].pool = pool;
        if (tarvik_thread_create(&pool->threads[i].thread, helper_main, &pool->threads[i])) {
            psynth_pool_free(pool);
            return nullptr;
        }
        pool->helpers = i + 1;
    }
    return pool;
}

void psynth_pool_free(psynth_pool* pool) {
    if (!pool) return;
    pool->stop.store(1, std::memory_order_release);
    pool->round.fetch_add(1, std::memory_order_release);
    pool->round.notify_all();
    for (int i = 0; i < pool->helpers; i++) tarvik_thread_join(&pool->threads[i].thread);
    mem_free(pool->threads);
    pool->~psynth_pool();
    mem_free(pool);
}

void psynth_pool_wake(psynth_pool* pool) {
    pool->round.fetch_add(1, std::memory_order_release);
    pool->round.notify_all();
}
