// Memory manager: tagged heap blocks on two linked lists (dynamic and storage),
// byte counters with peaks, and the shutdown report of blocks still held.
// The list links are 32-bit block ids into a table kept here, not pointers.
#include "engine/memory.h"

#include <cstdlib>
#include <cstring>

#include "engine/log.h"
#include "engine/thread.h"

namespace {

constexpr uint32_t kHeaderMagic = 123456;  // low two bits free for the kind
constexpr uint32_t kKindMask = 3;
constexpr size_t kMaxBlockSize = UINT32_MAX - MEM_HEADER_SIZE;  // size and header must fit the u32 field
constexpr uint32_t kFirstTableCapacity = 1024;

// `next` and `prev` are ids, not pointers, so that the header stays 32 bytes on 64-bit hosts.
struct mem_block_header {
    uint32_t flags;
    uint32_t size;
    char name[MEM_TAG_LENGTH + 1];
    uint32_t next;
    uint32_t prev;
};
static_assert(sizeof(mem_block_header) == MEM_HEADER_SIZE, "the block header is 32 bytes");

// One table entry per id; a free entry holds the next free id instead of a header.
struct mem_id_entry {
    mem_block_header* header;
    uint32_t next_free;
};

struct mem_list {
    uint32_t first;
    uint32_t last;
};

struct mem_manager {
    tarvik_mutex mutex;
    mem_list dynamic_list;
    mem_list storage_list;
    mem_id_entry* table;  // system heap: the manager cannot allocate through itself
    uint32_t table_capacity;  // entry 0 is never used: id 0 means "none"
    uint32_t table_used;      // entries handed out at least once
    uint32_t free_head;
    mem_stats stats;
};

mem_manager g_mem;

mem_block_header* header_of(const void* ptr) {
    return reinterpret_cast<mem_block_header*>(static_cast<char*>(const_cast<void*>(ptr)) - MEM_HEADER_SIZE);
}

void* block_of(mem_block_header* h) { return reinterpret_cast<char*>(h) + MEM_HEADER_SIZE; }

mem_list& list_for_kind(uint32_t kind) { return kind == MEM_DYNAMIC ? g_mem.dynamic_list : g_mem.storage_list; }

// Only kinds 0 and 1 are counted; 2 and 3 live on the storage list uncounted.
int64_t* counter_for_kind(uint32_t kind) {
    if (kind == MEM_DYNAMIC) return &g_mem.stats.dynamic_in_use;
    if (kind == MEM_STORAGE) return &g_mem.stats.storage_in_use;
    return nullptr;
}

void count_change(uint32_t kind, int64_t delta) {
    int64_t* counter = counter_for_kind(kind);
    if (!counter) return;
    *counter += delta;
    if (delta <= 0) return;
    if (kind == MEM_DYNAMIC && *counter > g_mem.stats.max_dynamic_used) g_mem.stats.max_dynamic_used = *counter;
    if (kind == MEM_STORAGE && *counter > g_mem.stats.max_storage_used) g_mem.stats.max_storage_used = *counter;
}

// Under the mutex. Returns 0 when the table cannot grow.
uint32_t take_id(mem_block_header* h) {
    uint32_t id = g_mem.free_head;
    if (id) {
        g_mem.free_head = g_mem.table[id].next_free;
    } else {
        if (g_mem.table_used + 1 >= g_mem.table_capacity) {
            if (g_mem.table_capacity > UINT32_MAX / 2) return 0;
            uint32_t capacity = g_mem.table_capacity ? g_mem.table_capacity * 2 : kFirstTableCapacity;
            void* grown = std::realloc(g_mem.table, capacity * sizeof(mem_id_entry));
            if (!grown) return 0;
            g_mem.table = static_cast<mem_id_entry*>(grown);
            g_mem.table_capacity = capacity;
        }
        id = ++g_mem.table_used;
    }
    g_mem.table[id].header = h;
    g_mem.table[id].next_free = 0;
    return id;
}

void release_id(uint32_t id) {
    g_mem.table[id].header = nullptr;
    g_mem.table[id].next_free = g_mem.free_head;
    g_mem.free_head = id;
}

// A block's id is kept by its neighbour (or the list head), not in its own header.
uint32_t own_id(const mem_block_header* h) {
    if (h->prev) return g_mem.table[h->prev].header->next;
    return list_for_kind(h->flags & kKindMask).first;
}

void record_error(size_t size) {
    if (g_mem.stats.error_size) return;  // only the first failure is kept
    g_mem.stats.error_size = size > INT64_MAX ? INT64_MAX : static_cast<int64_t>(size);
}

// Logged outside the manager's mutex.
void log_alloc_error(size_t size, const char* name) {
    tarvik_log("MEM ALLOC ERROR %zu %s\n", size, name ? name : "");
}

// Names every block of a detached list, first to last, then releases them.
// Logging happens outside the mutex, so the log printer may itself allocate;
// the table is read under it because such an allocation may move the table.
void report_and_release(const mem_list& list, const char* title) {
    if (!list.first) return;
    tarvik_log("%s", title);
    uint32_t next;
    for (uint32_t id = list.first; id; id = next) {
        tarvik_mutex_lock(&g_mem.mutex);
        const mem_block_header* h = g_mem.table[id].header;
        next = h->next;
        tarvik_mutex_unlock(&g_mem.mutex);
        tarvik_log("FREE %u %s\n", h->size, h->name);
    }
    for (uint32_t id = list.first; id; id = next) {
        tarvik_mutex_lock(&g_mem.mutex);
        mem_block_header* h = g_mem.table[id].header;
        next = h->next;
        release_id(id);
        tarvik_mutex_unlock(&g_mem.mutex);
        std::free(h);
    }
}

}  // namespace

void mem_init() {
    std::free(g_mem.table);
    g_mem = mem_manager{};
    tarvik_mutex_create(&g_mem.mutex);
}

void mem_deinit() {
    tarvik_mutex_destroy(&g_mem.mutex);
    std::free(g_mem.table);
    g_mem.table = nullptr;
    g_mem.table_capacity = 0;
    g_mem.table_used = 0;
    g_mem.free_head = 0;
}

void* mem_new(int kind, size_t size, const char* name) {
    mem_block_header* h = nullptr;
    if (size <= kMaxBlockSize) h = static_cast<mem_block_header*>(std::malloc(size + MEM_HEADER_SIZE));
    uint32_t k = static_cast<uint32_t>(kind) & kKindMask;
    if (h) {
        h->flags = kHeaderMagic | k;
        h->size = static_cast<uint32_t>(size);
        std::memset(h->name, 0, sizeof h->name);
        if (name) std::strncpy(h->name, name, MEM_TAG_LENGTH);
        h->next = 0;
    }

    tarvik_mutex_lock(&g_mem.mutex);
    g_mem.stats.allocations++;
    uint32_t id = h ? take_id(h) : 0;
    if (id) {
        mem_list& list = list_for_kind(k);
        h->prev = list.last;
        if (list.last) g_mem.table[list.last].header->next = id;
        else list.first = id;
        list.last = id;
        count_change(k, static_cast<int64_t>(size));
    } else {
        record_error(size);
    }
    tarvik_mutex_unlock(&g_mem.mutex);

    if (!id) {
        std::free(h);
        log_alloc_error(size, name);
        return nullptr;
    }
    return block_of(h);
}

void* mem_new_dynamic(size_t size, const char* name) { return mem_new(MEM_DYNAMIC, size, name); }

void mem_free(void* ptr) {
    if (!ptr) return;
    mem_block_header* h = header_of(ptr);
    uint32_t kind = h->flags & kKindMask;

    tarvik_mutex_lock(&g_mem.mutex);
    uint32_t id = own_id(h);
    mem_list& list = list_for_kind(kind);
    if (h->prev) g_mem.table[h->prev].header->next = h->next;
    else list.first = h->next;
    if (h->next) g_mem.table[h->next].header->prev = h->prev;
    else list.last = h->prev;
    release_id(id);
    count_change(kind, -static_cast<int64_t>(h->size));
    tarvik_mutex_unlock(&g_mem.mutex);

    std::free(h);
}

void* mem_resize(void* ptr, size_t new_size) {
    if (!ptr) return mem_new(MEM_DYNAMIC, new_size, "mem_resize");
    mem_block_header* h = header_of(ptr);
    size_t old_size = h->size;
    if (new_size == old_size) return ptr;

    tarvik_mutex_lock(&g_mem.mutex);
    mem_block_header* moved = nullptr;
    if (new_size <= kMaxBlockSize) {
        uint32_t id = own_id(h);  // read before the old header goes away
        moved = static_cast<mem_block_header*>(std::realloc(h, new_size + MEM_HEADER_SIZE));
        if (moved) {
            // Neighbours and list ends hold the id, so only the table entry changes.
            g_mem.table[id].header = moved;
            moved->size = static_cast<uint32_t>(new_size);
            count_change(moved->flags & kKindMask, static_cast<int64_t>(new_size) - static_cast<int64_t>(old_size));
        }
    }
    if (!moved) record_error(new_size);
    tarvik_mutex_unlock(&g_mem.mutex);

    if (!moved) {
        // The old block stays valid and unchanged, as with the system realloc.
        log_alloc_error(new_size, h->name);
        return nullptr;
    }
    char* block = static_cast<char*>(block_of(moved));
    if (new_size > old_size) std::memset(block + old_size, 0, new_size - old_size);
    return block;
}

size_t mem_get_size(const void* ptr) { return ptr ? header_of(ptr)->size : 0; }

void mem_zero(void* ptr) {
    if (ptr) std::memset(ptr, 0, header_of(ptr)->size);
}

char* mem_strdup(const char* s) {
    size_t length = s ? std::strlen(s) : 0;
    char* copy = static_cast<char*>(mem_new(MEM_DYNAMIC, length + 1, "mem_strdup"));
    if (copy && s) std::memcpy(copy, s, length + 1);
    else if (copy) copy[0] = 0;  // never hand out an unterminated string
    return copy;
}

size_t mem_strlen(const char* s) { return s ? std::strlen(s) : 0; }

size_t mem_count_pointers(void* const* array) {
    if (!array) return 0;
    size_t count = 0;
    while (array[count]) count++;
    return count;
}

int mem_strcmp(const char* a, const char* b) { return a && b ? std::strcmp(a, b) : 0; }

char* mem_strcat(char* dest, const char* src) { return dest && src ? std::strcat(dest, src) : nullptr; }

void* mem_move(void* dest, const void* src, size_t n) { return dest && src ? std::memmove(dest, src, n) : nullptr; }

void* mem_set(void* dest, int value, size_t n) { return dest ? std::memset(dest, value, n) : nullptr; }

int mem_cmp(const void* a, const void* b, size_t n) {
    if (!a || !b) return 0;
    int result = std::memcmp(a, b, n);
    return (result > 0) - (result < 0);
}

int mem_strcat_bounded(char* dest, size_t dest_size, const char* src) {
    if (!dest || !src || dest_size == 0) return 1;
    size_t used = strnlen(dest, dest_size);
    if (used == dest_size) {  // no terminator inside: already full
        dest[dest_size - 1] = 0;
        return 1;
    }
    size_t room = dest_size - 1 - used;
    size_t length = std::strlen(src);
    size_t copied = length < room ? length : room;
    std::memcpy(dest + used, src, copied);
    dest[used + copied] = 0;  // the last byte when cut
    return copied < length ? 1 : 0;
}

mem_stats mem_get_stats() {
    tarvik_mutex_lock(&g_mem.mutex);
    mem_stats stats = g_mem.stats;
    tarvik_mutex_unlock(&g_mem.mutex);
    return stats;
}

bool mem_free_all() {
    tarvik_mutex_lock(&g_mem.mutex);
    mem_list storage = g_mem.storage_list;
    mem_list dynamic = g_mem.dynamic_list;
    g_mem.storage_list = mem_list{};
    g_mem.dynamic_list = mem_list{};
    tarvik_mutex_unlock(&g_mem.mutex);

    report_and_release(storage, "MEMORY CLEANUP (STORAGE)\n");
    report_and_release(dynamic, "MEMORY CLEANUP (DYNAMIC)\n");

    // The clean-up does not lower the counters: what is still counted is what leaked.
    mem_stats s = mem_get_stats();
    tarvik_log("Max dynamic memory used: %lld\n", static_cast<long long>(s.max_dynamic_used));
    tarvik_log("Max storage memory used: %lld\n", static_cast<long long>(s.max_storage_used));
    tarvik_log("%lld %lld\n", static_cast<long long>(s.dynamic_in_use), static_cast<long long>(s.storage_in_use));
    return s.dynamic_in_use != 0 || s.storage_in_use != 0;
}
