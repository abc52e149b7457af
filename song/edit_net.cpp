// Sound net edits that change its structure: modules in and out (add, remove, paste,
// duplicate) and links. A module taken out is kept as a module-file image with every link
// list of the net beside it; putting it back restores both, entry for entry.
#include "song/edit_net.h"

#include <cstdio>
#include <cstring>

#include "engine/file.h"
#include "engine/memory.h"
#include "song/edit_actions.h"
#include "song/module_file.h"

// ZELFON_ACTION_SYNTH_IN / _OUT: the record, then links_count ints of link lists (as
// write_links lays them out), then image_size bytes of module file. Both are captured
// whenever the module is taken out, so that it comes back as it left.
struct zelfon_synth_image {
    psynth_handler type;  // without an image: a new module of this type
    int slots;            // the slot table's length before the module came in (a song saves every slot)
    int x, y;
    int links_count;      // 0: the module comes in unlinked
    int image_size;       // 0: no image yet
};

// ZELFON_ACTION_LINK: the source (the destination is the action's module), then the link
// lists before the toggle and, once it was done, after it.
struct zelfon_link_change {
    int src;
    int before_count;
    int after_count;  // 0 until the first do
};

// ---- Link lists of the whole net ----
// Laid out as: slots, then per slot its input and output capacities (−1 both for a free
// slot), then per used slot its input entries and its output entries.

static int links_count(const psynth_net* net) {
    int count = 1 + 2 * net->slots;
    for (int i = 0; i < net->slots; i++) {
        const psynth_module* m = &net->modules[i];
        if (m->flags & PSYNTH_FLAG_EXISTS) count += m->input_links_capacity + m->output_links_capacity;
    }
    return count;
}

// Copies a list's entries (a list without room has no array) and returns where the next goes.
static int* append_links(int* out, const int* links, int capacity) {
    if (capacity > 0) memcpy(out, links, sizeof(int) * capacity);
    return out + (capacity > 0 ? capacity : 0);
}

static void write_links(const psynth_net* net, int* out) {
    *out++ = net->slots;
    int* entries = out + 2 * net->slots;
    for (int i = 0; i < net->slots; i++) {
        const psynth_module* m = &net->modules[i];
        bool used = m->flags & PSYNTH_FLAG_EXISTS;
        *out++ = used ? m->input_links_capacity : -1;
        *out++ = used ? m->output_links_capacity : -1;
        if (!used) continue;
        entries = append_links(entries, m->input_links, m->input_links_capacity);
        entries = append_links(entries, m->output_links, m->output_links_capacity);
    }
}

// A copy of `count` link entries in a new block (null for none); false when memory ran out.
static bool copy_links(const int* entries, int count, int** out) {
    *out = nullptr;
    if (count <= 0) return true;
    *out = (int*)mem_new(MEM_DYNAMIC, sizeof(int) * count, "restore_links");
    if (*out) memcpy(*out, entries, sizeof(int) * count);
    return *out != nullptr;
}

// Gives every module that was in use in the snapshot its lists back: copies are made first,
// swapped in under the mutex, and the old lists freed after. Non-zero when the net does not
// hold the snapshot's modules or memory ran out (nothing changed).
static int restore_links(const int* snap, zelfon_song* song) {
    psynth_net* net = song->net;
    int slots = snap[0];
    const int* caps = snap + 1;
    if (slots > net->slots) return 1;
    int** lists = (int**)mem_new(MEM_DYNAMIC, sizeof(int*) * 2 * (slots > 0 ? slots : 1), "restore_links");
    if (!lists) return 1;
    mem_zero(lists);
    const int* entries = caps + 2 * slots;
    bool ok = true;
    for (int i = 0; i < slots && ok; i++) {
        bool used = (net->modules[i].flags & PSYNTH_FLAG_EXISTS) != 0;
        if (used != (caps[2 * i] >= 0)) ok = false;
        if (!used || !ok) continue;
        ok = copy_links(entries, caps[2 * i], &lists[2 * i]) &&
             copy_links(entries + caps[2 * i], caps[2 * i + 1], &lists[2 * i + 1]);
        entries += caps[2 * i] + caps[2 * i + 1];
    }
    if (ok) {
        tarvik_mutex_lock(&net->mutex);
        for (int i = 0; i < slots; i++) {
            psynth_module* m = &net->modules[i];
            if (!(m->flags & PSYNTH_FLAG_EXISTS)) continue;
            int* old_in = m->input_links;
            int* old_out = m->output_links;
            m->input_links = lists[2 * i];
            m->input_links_capacity = caps[2 * i];
            m->output_links = lists[2 * i + 1];
            m->output_links_capacity = caps[2 * i + 1];
            lists[2 * i] = old_in;
            lists[2 * i + 1] = old_out;
        }
        tarvik_mutex_unlock(&net->mutex);
    }
    for (int i = 0; i < 2 * slots; i++) mem_free(lists[i]);
    mem_free(lists);
    return ok ? 0 : 1;
}

// ---- Module images ----

static int* image_links(zelfon_synth_image* r) { return (int*)(r + 1); }
static uint8_t* image_bytes(zelfon_synth_image* r) { return (uint8_t*)(image_links(r) + r->links_count); }

// A record with a copy of `image` and, when `net` is given, its link lists now. Null when
// memory ran out.
static zelfon_synth_image* new_synth_image(psynth_handler type, int slots, int x, int y, const void* image,
                                           size_t image_size, const psynth_net* net) {
    int links = net ? links_count(net) : 0;
    zelfon_synth_image* r = (zelfon_synth_image*)mem_new(
        MEM_DYNAMIC, sizeof(zelfon_synth_image) + sizeof(int) * links + image_size, "new_synth_image");
    if (!r) return nullptr;
    *r = {type, slots, x, y, links, (int)image_size};
    if (net) write_links(net, image_links(r));
    if (image_size) memcpy(image_bytes(r), image, image_size);
    return r;
}

// Module `mod` as a module file without place and links, in a new block of *size bytes.
// Null when it could not be written.
static void* write_image(int mod, int* size, zelfon_song* song) {
    int fd = v3_open_in_memory(nullptr, 0);
    if (!fd) return nullptr;
    int failed = zelfon_save_synth_to_fd(mod, fd, 0, song);
    *size = (int)v3_tell(fd);
    void* data = v3_get_memory_data(fd);
    v3_close(fd);
    if (failed) {
        mem_free(data);
        return nullptr;
    }
    return data;
}

// Creates the module of a module-file image in `index` (−1: a new slot) at x, y, unlinked.
// Returns its number or −1.
static int read_image(int index, int x, int y, const void* image, size_t size, zelfon_song* song) {
    void* copy = mem_new(MEM_DYNAMIC, size, "read_image");  // a memory file needs a block of its own
    if (!copy) return -1;
    memcpy(copy, image, size);
    int fd = v3_open_in_memory(copy, size);
    if (!fd) {
        mem_free(copy);
        return -1;
    }
    int mod = zelfon_load_synth_from_fd(index, x, y, fd, 0, song);
    mem_free(v3_get_memory_data(fd));
    v3_close(fd);
    return mod;
}

static void remove_synth(int mod, psynth_net* net) {
    tarvik_mutex_lock(&net->mutex);
    psynth_remove_synth(mod, net);
    tarvik_mutex_unlock(&net->mutex);
}

// Puts the record's module into `slot` (the slot table's end: a new one), then its links.
static int put_in(int slot, zelfon_synth_image* r, zelfon_song* song) {
    psynth_net* net = song->net;
    if (slot < 0 || slot > net->slots || zelfon_edit_synth(slot, song)) return 1;
    int index = slot < net->slots ? slot : -1;
    int mod;
    if (r->image_size > 0) {
        mod = read_image(index, r->x, r->y, image_bytes(r), (size_t)r->image_size, song);
    } else {
        tarvik_mutex_lock(&net->mutex);
        mod = psynth_add_synth(index, r->type, nullptr, 0, r->x, r->y, song->bpm, song->speed, net);
        if (mod >= 0) psynth_do_command(mod, PS_CMD_SETUP_FINISHED, net);
        tarvik_mutex_unlock(&net->mutex);
    }
    if (mod != slot) {
        if (mod >= 0) remove_synth(mod, net);
        return 1;
    }
    if (r->links_count > 0 && restore_links(image_links(r), song)) {
        remove_synth(mod, net);
        return 1;
    }
    return 0;
}

// Gives the slot table back the length it had before, when the slots it grew by are free
// again: the table's length shows in the song's bytes.
static void shrink_slots(int slots, psynth_net* net) {
    if (slots < 1 || slots >= net->slots) return;
    for (int i = slots; i < net->slots; i++) {
        if (net->modules[i].flags & PSYNTH_FLAG_EXISTS) return;
    }
    tarvik_mutex_lock(&net->mutex);
    net->slots = slots;  // the block keeps its size; the next growth takes it up again
    tarvik_mutex_unlock(&net->mutex);
}

// Keeps the module in `slot` and the net's links in the action, then removes the module.
static int take_out(int slot, undo_action* a, zelfon_song* song) {
    psynth_module* m = zelfon_edit_synth(slot, song);
    if (!m || slot == 0) return 1;
    int size = 0;
    void* image = write_image(slot, &size, song);
    if (!image) return 1;
    zelfon_synth_image* old = (zelfon_synth_image*)a->data;
    zelfon_synth_image* r = new_synth_image(old->type, old->slots, m->x, m->y, image, (size_t)size, song->net);
    mem_free(image);
    if (!r) return 1;
    mem_free(a->data);
    a->data = r;
    remove_synth(slot, song->net);
    shrink_slots(r->slots, song->net);
    return 0;
}

// ---- Links ----

static int* link_lists(zelfon_link_change* c, int which) { return (int*)(c + 1) + (which ? c->before_count : 0); }

// The first do toggles the link and keeps the lists it gave; redo and undo restore lists.
static int toggle_link(int do_it, int dest, undo_action* a, zelfon_song* song) {
    zelfon_link_change* c = (zelfon_link_change*)a->data;
    if (!do_it) return restore_links(link_lists(c, 0), song);
    if (c->after_count > 0) return restore_links(link_lists(c, 1), song);
    psynth_net* net = song->net;
    if (!zelfon_edit_synth(dest, song) || !zelfon_edit_synth(c->src, song)) return 1;
    int after = links_count(net);
    size_t before_size = sizeof(zelfon_link_change) + sizeof(int) * c->before_count;
    // Room for the lists after the toggle, which may grow a list by two entries either way.
    zelfon_link_change* next = (zelfon_link_change*)mem_new(MEM_DYNAMIC, before_size + sizeof(int) * (after + 4), "toggle_link");
    if (!next) return 1;
    memcpy(next, c, before_size);
    tarvik_mutex_lock(&net->mutex);
    psynth_make_link(dest, c->src, net);
    tarvik_mutex_unlock(&net->mutex);
    next->after_count = links_count(net);
    write_links(net, link_lists(next, 1));
    mem_free(a->data);
    a->data = next;
    return 0;
}

int zelfon_perform_synth(int do_it, undo_action* a, zelfon_song* song) {
    int mod = (int)a->par1;
    switch (a->type) {
    case ZELFON_ACTION_SYNTH_IN:
        return do_it ? put_in(mod, (zelfon_synth_image*)a->data, song) : take_out(mod, a, song);
    case ZELFON_ACTION_SYNTH_OUT:
        return do_it ? take_out(mod, a, song) : put_in(mod, (zelfon_synth_image*)a->data, song);
    case ZELFON_ACTION_LINK: return toggle_link(do_it, mod, a, song);
    default: return 1;
    }
}

// ---- Actions ----

static int first_free_synth_slot(const zelfon_song* song) {
    for (int i = 0; i < song->net->slots; i++) {
        if (!zelfon_edit_synth(i, song)) return i;
    }
    return song->net->slots;
}

// Records a module coming in; returns its number, or −1.
static int record_synth_in(zelfon_synth_image* r, zelfon_song* song) {
    if (!r) return -1;
    int slot = first_free_synth_slot(song);
    return zelfon_edit_record(ZELFON_ACTION_SYNTH_IN, slot, 0, 0, r, song) == ZELFON_EDIT_OK ? slot : -1;
}

int zelfon_edit_add_synth(psynth_handler type, int x, int y, zelfon_song* song) {
    if (!type) return -1;
    return record_synth_in(new_synth_image(type, song->net->slots, x, y, nullptr, 0, nullptr), song);
}

int zelfon_edit_remove_synth(int mod, zelfon_song* song) {
    if (!zelfon_edit_synth(mod, song)) return ZELFON_EDIT_NO_MODULE;
    if (mod == 0) return ZELFON_EDIT_OUTPUT_MODULE;
    zelfon_synth_image* r = new_synth_image(nullptr, song->net->slots, 0, 0, nullptr, 0, nullptr);
    if (!r) return ZELFON_EDIT_NO_MEMORY;
    return zelfon_edit_record(ZELFON_ACTION_SYNTH_OUT, mod, 0, 0, r, song);
}

int zelfon_edit_paste_synth(const void* image, size_t size, int x, int y, zelfon_song* song) {
    if (!image || size < 8 || memcmp(image, "ZSYN", 4) != 0) return -1;
    return record_synth_in(new_synth_image(nullptr, song->net->slots, x, y, image, size, nullptr), song);
}

int zelfon_edit_paste_synth_file(const char* path, int x, int y, zelfon_song* song) {
    if (v3_get_file_type(path) != V3_FILE_REGULAR) return -1;  // a FIFO planted at the path would never end
    int fd = v3_open(path, "rb");
    if (!fd) return -1;
    v3_seek(fd, 0, SEEK_END);
    int64_t size = v3_tell(fd);
    v3_rewind(fd);
    void* image = size > 0 ? mem_new(MEM_DYNAMIC, (size_t)size, "zelfon_edit_paste_synth_file") : nullptr;
    bool read = image && v3_read(image, 1, (size_t)size, fd) == (size_t)size;
    v3_close(fd);
    int mod = read ? zelfon_edit_paste_synth(image, (size_t)size, x, y, song) : -1;
    mem_free(image);
    return mod;
}

int zelfon_edit_duplicate_synth(int mod, int x, int y, zelfon_song* song) {
    if (!zelfon_edit_synth(mod, song) || mod == 0) return -1;
    int size = 0;
    void* image = write_image(mod, &size, song);
    if (!image) return -1;
    int copy = record_synth_in(new_synth_image(nullptr, song->net->slots, x, y, image, (size_t)size, nullptr), song);
    mem_free(image);
    return copy;
}

int zelfon_edit_link(int dest, int src, zelfon_song* song) {
    if (!zelfon_edit_synth(dest, song) || !zelfon_edit_synth(src, song)) return ZELFON_EDIT_NO_MODULE;
    if (dest == src) return ZELFON_EDIT_OUTSIDE;
    int before = links_count(song->net);
    zelfon_link_change* c =
        (zelfon_link_change*)mem_new(MEM_DYNAMIC, sizeof(zelfon_link_change) + sizeof(int) * before, "zelfon_edit_link");
    if (!c) return ZELFON_EDIT_NO_MEMORY;
    *c = {src, before, 0};
    write_links(song->net, link_lists(c, 0));
    return zelfon_edit_record(ZELFON_ACTION_LINK, dest, 0, 0, c, song);
}
