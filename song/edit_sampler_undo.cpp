// The undo records of the Sampler editor: an image of the chunks an edit changed as they
// are not now, swapped with the module's chunks by undo and by redo alike. New blocks are
// made outside the module's mutex; only the exchange of blocks happens under it.
#include <cstring>

#include "engine/memory.h"
#include "psynth/sampler.h"
#include "song/edit_actions.h"

namespace {

constexpr int kMaxChunks = 1 + 2 * PSYNTH_SAMPLER_SAMPLES;  // the instrument and every sample's two

// ZELFON_ACTION_SAMPLER's data: `count` entries, each followed by its bytes padded to 4.
struct zelfon_sampler_image {
    int32_t count;
    int32_t applied;  // the edit was made before it was recorded: its first do only clears this
    int32_t table;    // the module's chunk count (0: no table), which song files record
    int32_t reserved;
};
struct zelfon_sampler_entry {
    int32_t chunk;
    int32_t size;  // −1: no chunk
    int32_t flags;
    int32_t rate;
};

size_t padded(size_t n) { return (n + 3) & ~(size_t)3; }

// Walks the entries of an image.
template <class F>
void each_entry(const zelfon_sampler_image* img, F f) {
    const uint8_t* p = (const uint8_t*)(img + 1);
    for (int i = 0; i < img->count; i++) {
        zelfon_sampler_entry e;
        memcpy(&e, p, sizeof(e));
        f(e, p + sizeof(e));
        p += sizeof(e) + padded(e.size > 0 ? (size_t)e.size : 0);
    }
}

// The chunks `chunks` of the module as they are now, or null when memory ran out.
zelfon_sampler_image* capture(int mod, const int* chunks, int count, psynth_net* net) {
    size_t total = sizeof(zelfon_sampler_image);
    for (int i = 0; i < count; i++) {
        int size = 0;
        if (psynth_get_chunk(mod, chunks[i], net)) psynth_get_chunk_info(mod, chunks[i], &size, nullptr, nullptr, net);
        total += sizeof(zelfon_sampler_entry) + padded((size_t)size);
    }
    auto* img = (zelfon_sampler_image*)mem_new(MEM_DYNAMIC, total, "sampler_capture");
    if (!img) return nullptr;
    img->count = count;
    img->applied = 0;
    img->table = psynth_get_chunks_count(mod, net);
    img->reserved = 0;
    uint8_t* p = (uint8_t*)(img + 1);
    for (int i = 0; i < count; i++) {
        zelfon_sampler_entry e = {chunks[i], -1, 0, 0};
        const void* data = psynth_get_chunk(mod, chunks[i], net);
        psynth_get_chunk_info(mod, chunks[i], nullptr, &e.flags, &e.rate, net);
        if (data) psynth_get_chunk_info(mod, chunks[i], &e.size, nullptr, nullptr, net);
        memcpy(p, &e, sizeof(e));
        p += sizeof(e);
        if (data) {
            memcpy(p, data, (size_t)e.size);
            memset(p + e.size, 0, padded((size_t)e.size) - (size_t)e.size);
            p += padded((size_t)e.size);
        }
    }
    return img;
}

void free_blocks(zelfon_chunk_block* blocks, int count) {
    for (int i = 0; i < count; i++) {
        mem_free(blocks[i].data);
        blocks[i].data = nullptr;
    }
}

// Exchanges the module's chunks for `blocks` under its mutex, and with table ≥ 0 makes
// the chunk table that long; the old blocks are freed after. Returns 0, or 1 when a chunk
// table could not grow (blocks are freed then).
int swap_in(int mod, zelfon_chunk_block* blocks, int count, int table, psynth_net* net) {
    void* old[kMaxChunks] = {};
    int failed = 0;
    // A Sampler's own mutex keeps its chunks; any other module's are the net's.
    tarvik_mutex* mutex = psynth_sampler_get_mutex(mod, net);
    if (!mutex) mutex = &net->mutex;
    tarvik_mutex_lock(mutex);
    for (int i = 0; i < count; i++) {
        old[i] = psynth_take_chunk(mod, blocks[i].chunk, nullptr, nullptr, net);
        failed |= psynth_put_chunk(mod, blocks[i].chunk, blocks[i].data, blocks[i].flags, blocks[i].rate, net);
        blocks[i].data = nullptr;
    }
    if (table >= 0) failed |= psynth_set_chunks_count(mod, table, net);
    tarvik_mutex_unlock(mutex);
    for (int i = 0; i < count; i++) mem_free(old[i]);
    return failed;
}

// New blocks holding an image's chunks, or false when memory ran out.
bool blocks_of(const zelfon_sampler_image* img, zelfon_chunk_block* blocks) {
    int n = 0;
    bool ok = true;
    each_entry(img, [&](const zelfon_sampler_entry& e, const uint8_t* bytes) {
        zelfon_chunk_block& b = blocks[n++];
        b = {e.chunk, nullptr, e.flags, e.rate};
        if (e.size < 0) return;
        b.data = mem_new(MEM_DYNAMIC, (size_t)e.size, "sampler_restore");
        if (b.data) memcpy(b.data, bytes, (size_t)e.size);
        else ok = false;
    });
    if (!ok) free_blocks(blocks, n);
    return ok;
}

// True when the module's chunks hold exactly the blocks.
bool same_as_now(int mod, const zelfon_chunk_block* blocks, int count, psynth_net* net) {
    for (int i = 0; i < count; i++) {
        const void* now = psynth_get_chunk(mod, blocks[i].chunk, net);
        if (!now || !blocks[i].data) {
            if (now != blocks[i].data) return false;
            continue;
        }
        int size = 0, flags = 0, rate = 0;
        psynth_get_chunk_info(mod, blocks[i].chunk, &size, &flags, &rate, net);
        if ((size_t)size != mem_get_size(blocks[i].data) || flags != blocks[i].flags || rate != blocks[i].rate ||
            memcmp(now, blocks[i].data, (size_t)size) != 0) {
            return false;
        }
    }
    return true;
}

// True when the module's chunks are those of the image.
bool image_is_now(int mod, const zelfon_sampler_image* img, psynth_net* net) {
    bool same = img->table == psynth_get_chunks_count(mod, net);
    each_entry(img, [&](const zelfon_sampler_entry& e, const uint8_t* bytes) {
        const void* now = psynth_get_chunk(mod, e.chunk, net);
        int size = -1, flags = 0, rate = 0;
        psynth_get_chunk_info(mod, e.chunk, now ? &size : nullptr, &flags, &rate, net);
        if (!now) size = -1;
        same = same && size == e.size && (size < 0 || (flags == e.flags && rate == e.rate && memcmp(now, bytes, (size_t)size) == 0));
    });
    return same;
}

void chunks_of(const zelfon_sampler_image* img, int* chunks) {
    int n = 0;
    each_entry(img, [&](const zelfon_sampler_entry& e, const uint8_t*) { chunks[n++] = e.chunk; });
}

int record(int mod, int slot, uint32_t key, zelfon_sampler_image* before, zelfon_song* song) {
    before->applied = 1;
    return zelfon_edit_record(ZELFON_ACTION_SAMPLER, mod, slot, (int)key, before, song);
}

}  // namespace

int zelfon_perform_sampler(int, undo_action* a, zelfon_song* song) {
    const int mod = (int)a->par1;
    auto* img = (zelfon_sampler_image*)a->data;
    if (!img || !zelfon_edit_synth(mod, song) || img->count > kMaxChunks) return 1;
    if (img->applied) {
        img->applied = 0;
        return 0;
    }
    int chunks[kMaxChunks];
    chunks_of(img, chunks);
    zelfon_sampler_image* now = capture(mod, chunks, img->count, song->net);
    zelfon_chunk_block blocks[kMaxChunks];
    if (!now || !blocks_of(img, blocks)) {
        mem_free(now);
        return 1;
    }
    if (swap_in(mod, blocks, img->count, img->table, song->net)) {
        mem_free(now);
        return 1;
    }
    mem_free(a->data);
    a->data = now;
    return 0;
}

int zelfon_sampler_commit(int mod, int slot, uint32_t key, zelfon_chunk_block* blocks, int count, zelfon_song* song) {
    psynth_net* net = song->net;
    if (same_as_now(mod, blocks, count, net)) {
        free_blocks(blocks, count);
        return ZELFON_EDIT_OK;
    }
    const undo_action* last = key ? zelfon_edit_last_action(song) : nullptr;
    const bool merge = last && last->type == ZELFON_ACTION_SAMPLER && (int)last->par1 == mod && last->par3 == key;
    int chunks[kMaxChunks];
    for (int i = 0; i < count; i++) chunks[i] = blocks[i].chunk;
    zelfon_sampler_image* before = merge ? nullptr : capture(mod, chunks, count, net);
    if (!merge && !before) {
        free_blocks(blocks, count);
        return ZELFON_EDIT_NO_MEMORY;
    }
    if (swap_in(mod, blocks, count, -1, net)) {
        // A chunk table that could not grow: what went in goes back out.
        zelfon_chunk_block restore[kMaxChunks];
        if (before && blocks_of(before, restore)) swap_in(mod, restore, count, before->table, net);
        mem_free(before);
        return ZELFON_EDIT_NO_MEMORY;
    }
    // A merged edit's action keeps the chunks as they were before the first of its run.
    return merge ? ZELFON_EDIT_OK : record(mod, slot, key, before, song);
}

int zelfon_sampler_record_change(int mod, int slot, const int* chunks, int count, int (*change)(void* context),
                                 void* context, int* result, zelfon_song* song) {
    zelfon_sampler_image* before = capture(mod, chunks, count, song->net);
    if (!before) return ZELFON_EDIT_NO_MEMORY;
    *result = change(context);
    if (image_is_now(mod, before, song->net)) {
        mem_free(before);
        return ZELFON_EDIT_OK;
    }
    return record(mod, slot, 0, before, song);
}
