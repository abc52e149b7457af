// Mutexes, threads and the tick clock: thin wrappers over the standard library,
// built in place inside plain records so that their owners need no heap block.
// Exceptions from the standard library stop here and become return values.
#include "engine/thread.h"

#include <atomic>
#include <chrono>
#include <new>
#include <system_error>

namespace {

constexpr uint64_t kMinTicksPerSecond = 50000;
using tarvik_clock = std::chrono::steady_clock;
constexpr uint64_t kClockFrequency = tarvik_clock::period::den / tarvik_clock::period::num;

std::mutex* mutex_of(tarvik_mutex* m) { return std::launder(reinterpret_cast<std::mutex*>(m->storage)); }

std::thread* thread_of(tarvik_thread* t) { return std::launder(reinterpret_cast<std::thread*>(t->storage)); }

void thread_main(tarvik_thread* t) { t->proc(t, t->arg); }

}  // namespace

int tarvik_mutex_create(tarvik_mutex* m) {
    new (m->storage) std::mutex();
    m->created = 1;
    return 0;
}

void tarvik_mutex_destroy(tarvik_mutex* m) {
    if (!m->created) return;
    mutex_of(m)->~mutex();
    m->created = 0;
}

void tarvik_mutex_lock(tarvik_mutex* m) {
    try {
        mutex_of(m)->lock();
    } catch (const std::system_error&) {
        // Only a broken mutex fails to lock; the caller goes on as if it held it.
    }
}

int tarvik_mutex_trylock(tarvik_mutex* m) { return mutex_of(m)->try_lock() ? 0 : 1; }

void tarvik_mutex_unlock(tarvik_mutex* m) { mutex_of(m)->unlock(); }

int tarvik_thread_create(tarvik_thread* t, tarvik_thread_proc proc, void* arg) {
    t->proc = proc;
    t->arg = arg;
    t->running = 0;
    std::atomic_ref<int>(t->stop_request).store(0);
    try {
        new (t->storage) std::thread(thread_main, t);
    } catch (const std::system_error&) {
        return 1;
    } catch (const std::bad_alloc&) {
        return 1;
    }
    t->running = 1;
    return 0;
}

void tarvik_thread_request_stop(tarvik_thread* t) { std::atomic_ref<int>(t->stop_request).store(1); }

int tarvik_thread_stop_requested(tarvik_thread* t) { return std::atomic_ref<int>(t->stop_request).load(); }

int tarvik_thread_join(tarvik_thread* t) {
    if (!t->running) return 1;
    std::thread* th = thread_of(t);
    try {
        th->join();
    } catch (const std::system_error&) {
        return 1;  // e.g. a thread joining itself; the thread stays owned by the record
    }
    th->~thread();
    t->running = 0;
    return 0;
}

void tarvik_sleep_ms(int ms) {
    if (ms > 0) std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

uint64_t tarvik_ticks_from_counter(uint64_t counter, uint64_t freq) {
    if (freq == 0) return 0;
    // A slow counter is multiplied up, a fast one divided down: never fewer than 50000 ticks a second.
    if (freq <= kMinTicksPerSecond) return counter * ((kMinTicksPerSecond + freq - 1) / freq);
    return counter / (freq / kMinTicksPerSecond);
}

uint64_t tarvik_ticks_per_second_for(uint64_t freq) { return tarvik_ticks_from_counter(freq, freq); }

tarvik_ticks tarvik_time_ticks() {
    uint64_t counter = static_cast<uint64_t>(tarvik_clock::now().time_since_epoch().count());
    return static_cast<tarvik_ticks>(tarvik_ticks_from_counter(counter, kClockFrequency));
}

uint32_t tarvik_time_ticks_per_second() {
    return static_cast<uint32_t>(tarvik_ticks_per_second_for(kClockFrequency));
}
