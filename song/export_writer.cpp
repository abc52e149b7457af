// The export's writer thread (export_writer.h). Two counters pass the buffers back and
// forth: `queued` is raised by the renderer, `written` by the writer; each side sleeps
// on the other's counter only when it has nothing to do.
#include "song/export_writer.h"

#include <atomic>
#include <cstdint>
#include <new>

#include "engine/file.h"
#include "engine/memory.h"
#include "engine/thread.h"

namespace {

constexpr size_t kEndOfPieces = SIZE_MAX;  // the size that tells the thread to return
constexpr const char* kTag = "zelfon_export_writer";

}  // namespace

struct zelfon_export_writer {
    std::atomic<uint32_t> queued;
    std::atomic<uint32_t> written;
    uint32_t next;  // renderer's side: pieces handed out so far
    int buffers;
    int h;
    bool failed;  // writer's side, read after the join
    uint8_t** data;
    size_t* sizes;
    tarvik_thread thread;
};

namespace {

void write_pieces(tarvik_thread*, void* arg) {
    zelfon_export_writer* w = (zelfon_export_writer*)arg;
    for (uint32_t done = 0;; done++) {
        uint32_t queued;
        while ((queued = w->queued.load(std::memory_order_acquire)) == done) w->queued.wait(queued, std::memory_order_acquire);
        const int slot = (int)(done % (uint32_t)w->buffers);
        const size_t size = w->sizes[slot];
        if (size == kEndOfPieces) return;
        if (!w->failed && v3_write(w->data[slot], 1, size, w->h) != size) w->failed = true;
        w->written.store(done + 1, std::memory_order_release);
        w->written.notify_one();
    }
}

void free_writer(zelfon_export_writer* w) {
    for (int i = 0; w->data && i < w->buffers; i++) mem_free(w->data[i]);
    mem_free(w->data);
    mem_free(w->sizes);
    w->~zelfon_export_writer();
    mem_free(w);
}

}  // namespace

zelfon_export_writer* zelfon_export_writer_start(int h, size_t bytes, int buffers) {
    void* block = mem_new(MEM_DYNAMIC, sizeof(zelfon_export_writer), kTag);
    if (!block) return nullptr;
    zelfon_export_writer* w = new (block) zelfon_export_writer();
    w->buffers = buffers;
    w->h = h;
    w->data = (uint8_t**)mem_new(MEM_DYNAMIC, sizeof(uint8_t*) * (size_t)buffers, kTag);
    w->sizes = (size_t*)mem_new(MEM_DYNAMIC, sizeof(size_t) * (size_t)buffers, kTag);
    bool ok = w->data && w->sizes;
    if (w->data) mem_zero(w->data);
    for (int i = 0; ok && i < buffers; i++) ok = (w->data[i] = (uint8_t*)mem_new(MEM_DYNAMIC, bytes, kTag)) != nullptr;
    if (!ok || tarvik_thread_create(&w->thread, write_pieces, w)) {
        free_writer(w);
        return nullptr;
    }
    return w;
}

void* zelfon_export_writer_next(zelfon_export_writer* w) {
    uint32_t written;
    while (w->next - (written = w->written.load(std::memory_order_acquire)) == (uint32_t)w->buffers) {
        w->written.wait(written, std::memory_order_acquire);
    }
    return w->data[w->next % (uint32_t)w->buffers];
}

void zelfon_export_writer_queue(zelfon_export_writer* w, size_t size) {
    w->sizes[w->next % (uint32_t)w->buffers] = size;
    w->queued.store(++w->next, std::memory_order_release);
    w->queued.notify_one();
}

bool zelfon_export_writer_finish(zelfon_export_writer* w) {
    zelfon_export_writer_next(w);  // a free buffer for the end mark
    zelfon_export_writer_queue(w, kEndOfPieces);
    tarvik_thread_join(&w->thread);
    bool ok = !w->failed;
    free_writer(w);
    return ok;
}
