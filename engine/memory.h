// Memory manager: every heap block of the program comes from here.
// Each block carries a 32-byte header (flags, size, a 15-character tag and the
// links of its list), so that the shutdown report can name every leaked block.
//
// Error convention: allocation failures return null and are logged as
// "MEM ALLOC ERROR %d %s"; the null-safe helpers do nothing and return 0 when
// given a null pointer. Sizes above UINT32_MAX - 32 do not fit the header and fail
// like an allocation without memory. All functions may be called from any thread;
// those that allocate, free, resize or read the counters take the manager's mutex.
#pragma once

#include <cstddef>
#include <cstdint>

// Block kinds: dynamic for almost everything, storage for large long-lived buffers.
enum : int { MEM_DYNAMIC = 0, MEM_STORAGE = 1 };

constexpr int MEM_HEADER_SIZE = 32;
constexpr int MEM_TAG_LENGTH = 15;

// Statistics of the manager, for tests and the CPU/memory monitor.
struct mem_stats {
    int64_t dynamic_in_use;
    int64_t storage_in_use;
    int64_t max_dynamic_used;
    int64_t max_storage_used;
    uint64_t allocations;  // mem_new calls, failed ones too (and mem_resize of a null pointer) since mem_init
    int64_t error_size;    // size of the first failed allocation, 0 while none failed
};

// Sets up the lists, counters and the manager's mutex. Call once, before anything allocates.
void mem_init();
// Destroys the manager's mutex (after mem_free_all).
void mem_deinit();

// Allocates `size` bytes of `kind` (0 dynamic, 1 storage) tagged with `name`
// (cut at 15 characters). Returns null (and logs) on failure. Contents are not cleared.
void* mem_new(int kind, size_t size, const char* name);
// The same as mem_new(MEM_DYNAMIC, size, name).
void* mem_new_dynamic(size_t size, const char* name);
// Releases a block; null is ignored.
void mem_free(void* ptr);
// Changes a block's size, keeping its contents; the added tail is zeroed.
// A null pointer allocates a new dynamic block tagged "mem_resize". Returns the (maybe moved) block,
// or null (logged) when it cannot be reallocated; the old block then stays valid and unchanged.
void* mem_resize(void* ptr, size_t new_size);
// Size the caller asked for; 0 for null.
size_t mem_get_size(const void* ptr);
// Zeroes the whole block; null is ignored.
void mem_zero(void* ptr);
// Copy of a string in a new block tagged "mem_strdup" (one byte, the terminator, for null or "").
char* mem_strdup(const char* s);

// Null-safe helpers: each returns 0 (and does nothing) when a pointer argument is null.
size_t mem_strlen(const char* s);
size_t mem_count_pointers(void* const* array);  // non-null entries before the terminating null
int mem_strcmp(const char* a, const char* b);
char* mem_strcat(char* dest, const char* src);
void* mem_move(void* dest, const void* src, size_t n);
void* mem_set(void* dest, int value, size_t n);
int mem_cmp(const void* a, const void* b, size_t n);  // -1, 0 or 1
// Bounded concatenation: returns 1 when the arguments are invalid, the destination
// was already full or the result had to be cut (then the last byte is 0); 0 otherwise.
int mem_strcat_bounded(char* dest, size_t dest_size, const char* src);

// Reads the counters under the manager's mutex.
mem_stats mem_get_stats();

// Shutdown report through the log printer: lists and frees every block still held
// ("MEMORY CLEANUP (STORAGE)", "MEMORY CLEANUP (DYNAMIC)", "FREE %d %s"), then the
// peaks and the leaked totals. Returns true when something leaked. Logs outside the
// manager's mutex (the log printer may allocate). Thread: the main thread at shutdown.
bool mem_free_all();
