// Module files and the per-module chunks they share with song files: writing a module's
// settings, links, controller values and data chunks, collecting them again while a file is
// read, and creating the module once its "SEND" arrives.
#include "song/module_file.h"

#include <cstring>

#include "engine/file.h"
#include "engine/log.h"
#include "engine/memory.h"
#include "psynth/psynth_modules.h"

// A chunk table longer than this is taken as damage, not as a module's data.
constexpr int kMaxChunkSlots = 65536;
// Link lists never hold more entries than a net has modules, and nets stay far below this.
constexpr int kMaxLinks = 1024;
constexpr int kSynthFileVersion = 1;
constexpr int kNameChunkSize = PSYNTH_NAME_SIZE - 1;  // "SNAM" holds the name without its terminator

// ---- Writing ----

static bool module_used(int mod_num, const psynth_net* net) {
    return net && net->modules && mod_num >= 0 && mod_num < net->slots &&
           (net->modules[mod_num].flags & PSYNTH_FLAG_EXISTS);
}

// A data chunk in the file's byte order.
static int write_data_chunk(const void* data, int size, int flags, int fd) {
    if (!zelfon_chunk_needs_swap()) return zelfon_write_chunk("CHDT", (uint32_t)size, data, fd);
    void* copy = mem_new(MEM_DYNAMIC, (size_t)size, "zelfon_save_song");
    if (!copy) return 3;
    memcpy(copy, data, (size_t)size);
    zelfon_chunk_swap_bytes(copy, (size_t)size, flags);
    int err = zelfon_write_chunk("CHDT", (uint32_t)size, copy, fd);
    mem_free(copy);
    return err;
}

static int write_data_chunks(int mod_num, int fd, psynth_net* net) {
    psynth_module* mod = &net->modules[mod_num];
    if (!mod->chunks) return 0;
    int count = psynth_get_chunks_count(mod_num, net);
    if (zelfon_write_int_chunk("CHNK", count, fd)) return 1;
    for (int i = 0; i < count; i++) {
        if (!mod->chunks[i]) continue;
        if (zelfon_write_int_chunk("CHNM", i, fd) ||
            write_data_chunk(mod->chunks[i], (int)mem_get_size(mod->chunks[i]), mod->chunk_flags[i], fd) ||
            zelfon_write_int_chunk("CHFF", mod->chunk_flags[i], fd) ||
            zelfon_write_int_chunk("CHFR", mod->chunk_rates[i], fd)) {
            return 1;
        }
    }
    return 0;
}

static int write_ctl_values(const psynth_module* mod, int fd) {
    for (int i = 0; i < mod->ctls_count && i < PSYNTH_MAX_CTLS; i++) {
        const psynth_ctl* ctl = &mod->ctls[i];
        if (zelfon_write_int_chunk("CVAL", ctl->value ? *ctl->value : ctl->def, fd)) return 1;
    }
    return 0;
}

// "SMLC": the MIDI learn bindings, three bytes each (controller, channel, MIDI controller),
// after every chunk older readers know (they skip it). Written only when there are some,
// so modules without bindings keep their bytes.
static int write_midi_learn(const psynth_module* mod, int fd) {
    uint8_t bindings[PSYNTH_MAX_CTLS * 3];
    uint32_t size = 0;
    for (int c = 0; c < PSYNTH_MAX_CTLS; c++) {
        if (mod->midi_learn_cc[c] == PSYNTH_MIDI_UNBOUND) continue;
        bindings[size++] = (uint8_t)c;
        bindings[size++] = mod->midi_learn_channel[c];
        bindings[size++] = mod->midi_learn_cc[c];
    }
    return size ? zelfon_write_chunk("SMLC", size, bindings, fd) : 0;
}

int zelfon_write_synth_chunks(int mod_num, int parts, int fd, zelfon_song* song) {
    psynth_net* net = song->net;
    if (!module_used(mod_num, net)) return 1;
    psynth_module* mod = &net->modules[mod_num];
    char name[kNameChunkSize] = {};
    // A full-length name fills the chunk without a terminator; shorter ones are padded with zeros.
    memcpy(name, mod->name, strnlen(mod->name, sizeof(name)));
    const char* type = (const char*)psynth_do_command(mod_num, PS_CMD_GET_SYNTH_NAME, net);
    bool has_type = type && type[0];
    bool position = parts & ZELFON_SYNTH_PART_POSITION;
    const char* midi_name = mod->midi_out_name;

    bool failed =
        zelfon_write_int_chunk("SFFF", (int32_t)mod->flags, fd) ||
        zelfon_write_chunk("SNAM", sizeof(name), name, fd) ||
        (has_type && zelfon_write_chunk("STYP", (uint32_t)strlen(type) + 1, type, fd)) ||
        zelfon_write_int_chunk("SFIN", mod->finetune, fd) ||
        zelfon_write_int_chunk("SREL", mod->relative_note, fd) ||
        (position && (zelfon_write_int_chunk("SXXX", mod->x, fd) || zelfon_write_int_chunk("SYYY", mod->y, fd))) ||
        zelfon_write_chunk("SCOL", 3, mod->color, fd) ||
        (midi_name && zelfon_write_chunk("SMIN", (uint32_t)strlen(midi_name) + 1, midi_name, fd)) ||
        zelfon_write_int_chunk("SMIC", mod->midi_out_channel, fd) ||
        zelfon_write_int_chunk("SMIB", mod->midi_out_bank, fd) ||
        zelfon_write_int_chunk("SMIP", mod->midi_out_program, fd) ||
        ((parts & ZELFON_SYNTH_PART_INPUT_LINKS) &&
         zelfon_write_int_array_chunk("SLNK", mod->input_links, mod->input_links_capacity, fd)) ||
        ((parts & ZELFON_SYNTH_PART_OUTPUT_LINKS) &&
         zelfon_write_int_array_chunk("SLNk", mod->output_links, mod->output_links_capacity, fd)) ||
        write_ctl_values(mod, fd) ||
        write_data_chunks(mod_num, fd, net) ||
        write_midi_learn(mod, fd) ||
        zelfon_write_chunk("SEND", 0, nullptr, fd);
    return failed ? 1 : 0;
}

// ---- Collecting a module's chunks ----

void zelfon_pending_synth_init(int x, int y, zelfon_pending_synth* p) {
    memset(p, 0, sizeof(*p));
    p->x = x;
    p->y = y;
    p->midi_bank = -1;
    p->midi_program = -1;
    p->chunk_selected = -1;
    memset(p->midi_learn_cc, PSYNTH_MIDI_UNBOUND, sizeof p->midi_learn_cc);
}

static void free_pending_chunks(zelfon_pending_synth* p) {
    for (int i = 0; p->chunks && i < p->chunks_count; i++) mem_free(p->chunks[i]);
    mem_free(p->chunks);
    mem_free(p->chunk_flags);
    mem_free(p->chunk_rates);
    p->chunks = nullptr;
    p->chunk_flags = nullptr;
    p->chunk_rates = nullptr;
    p->chunks_count = 0;
    p->chunk_selected = -1;
}

void zelfon_pending_synth_reset(int x, int y, zelfon_pending_synth* p) {
    free_pending_chunks(p);
    mem_free(p->midi_name);
    mem_free(p->input_links);
    mem_free(p->output_links);
    zelfon_pending_synth_init(x, y, p);
}

// A zeroed array of `count` entries of `size` bytes, or null.
static void* new_zeroed(int count, size_t size) {
    void* block = mem_new(MEM_DYNAMIC, (size_t)count * size, "zelfon_load_song");
    mem_zero(block);
    return block;
}

// "CHNK": a new table of n empty entries. Errors 4, 5 and 6 for its three arrays.
// "SMLC": bindings outside the controllers, channels or MIDI controllers are dropped.
static void take_midi_learn(const zelfon_chunk_reader* reader, zelfon_pending_synth* p) {
    const uint8_t* b = (const uint8_t*)reader->data;
    for (uint32_t i = 0; b && i + 3 <= reader->size; i += 3) {
        if (b[i] >= PSYNTH_MAX_CTLS || b[i + 1] > 15 || b[i + 2] > 127) continue;
        p->midi_learn_channel[b[i]] = b[i + 1];
        p->midi_learn_cc[b[i]] = b[i + 2];
    }
}

static int take_chunk_table(zelfon_chunk_reader* reader, zelfon_pending_synth* p) {
    int count = zelfon_chunk_int(reader);
    free_pending_chunks(p);
    if (count <= 0) return 0;
    if (count > kMaxChunkSlots) return 4;
    p->chunks_count = count;
    if (!(p->chunks = (void**)new_zeroed(count, sizeof(void*)))) return 4;
    if (!(p->chunk_flags = (int*)new_zeroed(count, sizeof(int)))) return 5;
    if (!(p->chunk_rates = (int*)new_zeroed(count, sizeof(int)))) return 6;
    return 0;
}

// "SLNK" / "SLNk": the block becomes the list, cut to kMaxLinks entries.
static void take_links(zelfon_chunk_reader* reader, int** links, int* count) {
    mem_free(*links);
    int n = zelfon_chunk_ints(reader);
    *links = (int*)zelfon_chunk_reader_take(reader);
    *count = n < kMaxLinks ? n : kMaxLinks;
}

int zelfon_pending_synth_take(zelfon_chunk_reader* reader, int take_position_links, zelfon_pending_synth* p) {
    bool selected = p->chunks && p->chunk_selected >= 0 && p->chunk_selected < p->chunks_count;
    switch (reader->id) {
    case zelfon_chunk_id("SFFF"): p->flags = (uint32_t)zelfon_chunk_int(reader); break;
    case zelfon_chunk_id("SNAM"):
        zelfon_chunk_copy(reader, p->name, kNameChunkSize);
        p->name[kNameChunkSize] = 0;
        p->has_name = 1;
        break;
    case zelfon_chunk_id("STYP"):
        zelfon_chunk_copy(reader, p->type, sizeof(p->type) - 1);
        p->type[sizeof(p->type) - 1] = 0;
        break;
    case zelfon_chunk_id("SFIN"):
        p->finetune = zelfon_chunk_int_in(reader, -PSYNTH_FINETUNE_MAX, PSYNTH_FINETUNE_MAX);
        break;
    case zelfon_chunk_id("SREL"):
        p->relative_note = zelfon_chunk_int_in(reader, -PSYNTH_RELATIVE_NOTE_MAX, PSYNTH_RELATIVE_NOTE_MAX);
        break;
    case zelfon_chunk_id("SXXX"):
        if (take_position_links) p->x = zelfon_chunk_int_in(reader, -PSYNTH_POSITION_MAX, PSYNTH_POSITION_MAX);
        break;
    case zelfon_chunk_id("SYYY"):
        if (take_position_links) p->y = zelfon_chunk_int_in(reader, -PSYNTH_POSITION_MAX, PSYNTH_POSITION_MAX);
        break;
    case zelfon_chunk_id("SCOL"):
        zelfon_chunk_copy(reader, p->color, sizeof(p->color));
        p->has_color = 1;
        break;
    case zelfon_chunk_id("SMIN"):
        mem_free(p->midi_name);
        p->midi_name = zelfon_chunk_take_text(reader);
        break;
    case zelfon_chunk_id("SMIC"): p->midi_channel = zelfon_chunk_int_in(reader, 0, PSYNTH_MIDI_CHANNEL_MAX); break;
    case zelfon_chunk_id("SMIB"): p->midi_bank = zelfon_chunk_int_in(reader, -1, PSYNTH_MIDI_BANK_MAX); break;
    case zelfon_chunk_id("SMIP"): p->midi_program = zelfon_chunk_int_in(reader, -1, PSYNTH_MIDI_PROGRAM_MAX); break;
    case zelfon_chunk_id("SLNK"):
        if (take_position_links) take_links(reader, &p->input_links, &p->input_links_count);
        break;
    case zelfon_chunk_id("SLNk"):
        if (take_position_links) take_links(reader, &p->output_links, &p->output_links_count);
        break;
    case zelfon_chunk_id("CVAL"):
        if (p->ctl_count < PSYNTH_MAX_CTLS) p->ctl_values[p->ctl_count++] = zelfon_chunk_int(reader);
        break;
    case zelfon_chunk_id("CHNK"): return take_chunk_table(reader, p);
    case zelfon_chunk_id("CHNM"): p->chunk_selected = zelfon_chunk_int(reader); break;
    case zelfon_chunk_id("SMLC"): take_midi_learn(reader, p); break;
    case zelfon_chunk_id("CHDT"):
        if (selected) {
            mem_free(p->chunks[p->chunk_selected]);
            p->chunks[p->chunk_selected] = zelfon_chunk_reader_take(reader);
        }
        break;
    case zelfon_chunk_id("CHFF"):
        if (selected) p->chunk_flags[p->chunk_selected] = zelfon_chunk_int(reader);
        break;
    case zelfon_chunk_id("CHFR"):
        if (selected) p->chunk_rates[p->chunk_selected] = zelfon_chunk_int(reader);
        break;
    default:
        return -1;
    }
    return 0;
}

// ---- Creating the module ----

int zelfon_pending_synth_add(int slot, const zelfon_pending_synth* p, zelfon_song* song) {
    psynth_handler handler = nullptr;
    if (p->flags & PSYNTH_FLAG_EXISTS) {
        handler = psynth_find_module_type(p->type);
        if (!handler) tarvik_log("Unknown module type \"%s\"; the module gets no sound\n", p->type);
    }
    // Only the net's own OUT is an output module, and it is never created from a file.
    uint32_t flags = p->flags & ~(uint32_t)PSYNTH_FLAG_OUTPUT;
    return psynth_add_synth(slot, handler, p->has_name ? p->name : nullptr, flags, p->x, p->y, song->bpm,
                            song->speed, song->net);
}

static void set_ctl_values(psynth_module* mod, const zelfon_pending_synth* p) {
    for (int i = 0; i < p->ctl_count && i < mod->ctls_count; i++) {
        const psynth_ctl* ctl = &mod->ctls[i];
        if (!ctl->value) continue;
        int v = p->ctl_values[i];
        // Modules index tables with their values: keep them within the registered range.
        if (ctl->min <= ctl->max) v = v < ctl->min ? ctl->min : v > ctl->max ? ctl->max : v;
        *ctl->value = v;
    }
}

// The collected chunk table replaces the module's own.
static void move_chunk_table(int mod_num, zelfon_pending_synth* p, psynth_net* net) {
    if (!p->chunks) return;
    psynth_free_chunks(mod_num, net);
    psynth_module* mod = &net->modules[mod_num];
    if (zelfon_chunk_needs_swap()) {
        for (int i = 0; i < p->chunks_count; i++) {
            zelfon_chunk_swap_bytes(p->chunks[i], mem_get_size(p->chunks[i]), p->chunk_flags[i]);
        }
    }
    mod->chunks = p->chunks;
    mod->chunk_flags = p->chunk_flags;
    mod->chunk_rates = p->chunk_rates;
    p->chunks = nullptr;
    p->chunk_flags = nullptr;
    p->chunk_rates = nullptr;
    p->chunks_count = 0;
    p->chunk_selected = -1;
}

void zelfon_pending_synth_configure(int mod_num, zelfon_pending_synth* p, zelfon_song* song) {
    psynth_net* net = song->net;
    if (!module_used(mod_num, net)) return;
    psynth_module* mod = &net->modules[mod_num];
    mod->finetune = p->finetune;
    mod->relative_note = p->relative_note;
    if (p->has_color) memcpy(mod->color, p->color, sizeof(mod->color));
    if (p->flags & PSYNTH_FLAG_EXISTS) set_ctl_values(mod, p);
    memcpy(mod->midi_learn_cc, p->midi_learn_cc, sizeof mod->midi_learn_cc);
    memcpy(mod->midi_learn_channel, p->midi_learn_channel, sizeof mod->midi_learn_channel);
    move_chunk_table(mod_num, p, net);
    psynth_set_midi_prog(mod_num, p->midi_bank, p->midi_program, net);
    psynth_open_midi_out(mod_num, p->midi_name, p->midi_channel, net);
    psynth_do_command(mod_num, PS_CMD_SETUP_FINISHED, net);
}

// ---- Module files ----

int zelfon_save_synth_to_fd(int mod_num, int fd, int flags, zelfon_song* song) {
    if (!module_used(mod_num, song->net)) return 1;
    int parts = (flags & ZELFON_SYNTH_POS_AND_LINKS)
                    ? ZELFON_SYNTH_PART_POSITION | ZELFON_SYNTH_PART_INPUT_LINKS | ZELFON_SYNTH_PART_OUTPUT_LINKS
                    : 0;
    if (zelfon_write_chunk("ZSYN", 0, nullptr, fd) || zelfon_write_int_chunk("VERS", kSynthFileVersion, fd)) return 1;
    return zelfon_write_synth_chunks(mod_num, parts, fd, song);
}

struct synth_save_job {
    int mod_num;
    int flags;
    zelfon_song* song;
};

static int write_synth_file(int fd, void* context) {
    synth_save_job* job = (synth_save_job*)context;
    return zelfon_save_synth_to_fd(job->mod_num, fd, job->flags, job->song);
}

int zelfon_save_synth(int mod_num, const char* path, int flags, zelfon_song* song) {
    if (!module_used(mod_num, song->net)) return 1;
    synth_save_job job = {mod_num, flags, song};
    return zelfon_save_file_safely(path, write_synth_file, &job);
}

static bool link_target_ok(int other, int mod_num, const psynth_net* net) {
    return other != mod_num && module_used(other, net);
}

// Links from the file, made in both directions with modules that exist in this net.
static void make_file_links(int mod_num, const zelfon_pending_synth* p, psynth_net* net) {
    for (int i = 0; i < p->input_links_count; i++) {
        int src = p->input_links[i];
        if (!link_target_ok(src, mod_num, net)) continue;
        psynth_add_input_link(mod_num, src, net);
        psynth_add_output_link(src, mod_num, net);
    }
    for (int i = 0; i < p->output_links_count; i++) {
        int dest = p->output_links[i];
        if (!link_target_ok(dest, mod_num, net)) continue;
        psynth_add_output_link(mod_num, dest, net);
        psynth_add_input_link(dest, mod_num, net);
    }
}

// "SEND" of a module file: the module replaces whatever was in `slot`.
static int create_file_synth(int slot, zelfon_pending_synth* p, int take_links, zelfon_song* song) {
    psynth_net* net = song->net;
    tarvik_mutex_lock(&net->mutex);
    if (slot >= 0 && slot < net->slots) psynth_remove_synth(slot, net);
    int mod_num = zelfon_pending_synth_add(slot, p, song);
    if (mod_num >= 0 && p->flags == 0) {
        psynth_remove_synth(mod_num, net);
        mod_num = -1;
    } else if (mod_num >= 0) {
        zelfon_pending_synth_configure(mod_num, p, song);
        if (take_links) make_file_links(mod_num, p, net);
    }
    tarvik_mutex_unlock(&net->mutex);
    return mod_num;
}

int zelfon_load_synth_from_fd(int slot, int x, int y, int fd, int flags, zelfon_song* song) {
    if (!song->net) return -1;
    int take_links = flags & ZELFON_SYNTH_POS_AND_LINKS;
    zelfon_chunk_reader reader;
    zelfon_chunk_reader_init(fd, &reader);
    zelfon_pending_synth p;
    zelfon_pending_synth_init(x, y, &p);
    int mod_num = -1;
    int error = 0;
    for (;;) {
        if (load_block(&reader)) {
            error = 2;
            break;
        }
        if (reader.id == 0) {
            tarvik_log("zelfon_load_synth(): the file ends before its module does\n");
            break;
        }
        if (reader.id == zelfon_chunk_id("SEND")) {
            mod_num = create_file_synth(slot, &p, take_links, song);
            if (mod_num < 0) error = 7;
            break;
        }
        int taken = zelfon_pending_synth_take(&reader, take_links, &p);
        if (taken > 0) {
            error = taken;
            break;
        }
    }
    if (error) tarvik_log("zelfon_load_synth() error %d\n", error);
    zelfon_chunk_reader_drop(&reader);
    zelfon_pending_synth_reset(x, y, &p);
    return mod_num;
}

int zelfon_load_synth(int slot, int x, int y, const char* path, int flags, zelfon_song* song) {
    int fd = v3_open(path, "rb");
    if (!fd) {
        tarvik_log("Can't open file %s\n", path);
        return -1;
    }
    int mod_num = zelfon_load_synth_from_fd(slot, x, y, fd, flags, song);
    v3_close(fd);
    return mod_num;
}

int zelfon_copy_synth_to_pasteboard(int mod_num, zelfon_song* song) {
    return zelfon_save_synth(mod_num, ZELFON_PASTEBOARD_FILE, ZELFON_SYNTH_POS_AND_LINKS, song);
}

int zelfon_paste_synth_from_pasteboard(int x, int y, zelfon_song* song) {
    return zelfon_load_synth(-1, x, y, ZELFON_PASTEBOARD_FILE, 0, song);
}
