// Mutexes, threads and the tick clock shared by the engine.
// Records are plain data that live inside their owners; create/destroy bracket their use.
// Error convention: create functions return 0 on success, non-zero on failure.
#pragma once

#include <cstdint>
#include <mutex>
#include <thread>

struct tarvik_mutex {
    alignas(std::mutex) unsigned char storage[sizeof(std::mutex)];
    int created;
};

// Builds the mutex in place. Returns 0.
int tarvik_mutex_create(tarvik_mutex* m);
// Destroys a created mutex (it must be unlocked); does nothing for one never created.
void tarvik_mutex_destroy(tarvik_mutex* m);
// Waits until the mutex is taken.
void tarvik_mutex_lock(tarvik_mutex* m);
// Returns 0 when the mutex was taken, non-zero when it is busy.
int tarvik_mutex_trylock(tarvik_mutex* m);
// Releases a mutex held by the calling thread.
void tarvik_mutex_unlock(tarvik_mutex* m);

struct tarvik_thread;
typedef void (*tarvik_thread_proc)(tarvik_thread* thread, void* arg);

// A thread is started with a routine and one argument; the routine polls
// tarvik_thread_stop_requested() and returns when it is set.
struct tarvik_thread {
    alignas(std::thread) unsigned char storage[sizeof(std::thread)];
    int running;
    int stop_request;  // read and written atomically
    tarvik_thread_proc proc;
    void* arg;
};

// Starts proc(t, arg) on a new thread; `t` must stay in place until joined. Returns 0, non-zero on failure.
int tarvik_thread_create(tarvik_thread* t, tarvik_thread_proc proc, void* arg);
// Asks the routine to return; any thread.
void tarvik_thread_request_stop(tarvik_thread* t);
// Non-zero once a stop was requested; polled by the routine.
int tarvik_thread_stop_requested(tarvik_thread* t);
// Waits for the routine to return and releases the thread. Returns 0 on success,
// non-zero for a thread not running or one that joins itself.
int tarvik_thread_join(tarvik_thread* t);
// Sleeps the calling thread for at least `ms` milliseconds (nothing for ms <= 0).
void tarvik_sleep_ms(int ms);

// Tick clock: at least 50000 ticks per second from the monotonic counter.
// Ticks wrap at 32 bits; compare them by unsigned difference.
typedef uint32_t tarvik_ticks;
// Counter with frequency `freq` → ticks: counter × ceil(50000 / freq) when freq ≤ 50000,
// else counter / (freq / 50000).
uint64_t tarvik_ticks_from_counter(uint64_t counter, uint64_t freq);
// Ticks per second for a counter of frequency `freq` (the same rule applied to one second).
uint64_t tarvik_ticks_per_second_for(uint64_t freq);
// Now, in ticks of the monotonic clock (truncated to 32 bits); any thread.
tarvik_ticks tarvik_time_ticks();
// Ticks per second of tarvik_time_ticks (at least 50000).
uint32_t tarvik_time_ticks_per_second();
