// A pool of helper threads for the render pass: each round, every helper calls the pool's
// work function once. The caller wakes them and works alongside; it never waits for a
// helper that has not started (the work itself decides what each thread takes on).
//
// Error convention: psynth_pool_new returns null when memory or threads ran out.
#pragma once

struct psynth_pool;
typedef void (*psynth_pool_work)(void* arg);

// Starts `helpers` threads that call work(arg) once per round. GUI thread.
psynth_pool* psynth_pool_new(int helpers, psynth_pool_work work, void* arg);
// Stops and joins the helpers (none may be inside a round's caller) and frees the pool. GUI thread.
void psynth_pool_free(psynth_pool* pool);
// Starts a round: sleeping helpers are woken. Never blocks; the render thread.
void psynth_pool_wake(psynth_pool* pool);
