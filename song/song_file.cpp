// Saving and loading whole songs: settings, the pattern slot table (empty slots written as
// bare "PEND" so that numbers survive), and every module slot through the per-module chunks
// of song/module_file.h. Loading replaces the song and its net, then binds clones and links
// once the whole file has been read.
#include "song/song_file.h"

#include <bit>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "engine/file.h"
#include "engine/log.h"
#include "engine/memory.h"
#include "engine/sound.h"
#include "song/chunks.h"
#include "song/devices.h"
#include "song/edit.h"
#include "song/module_file.h"
#include "song/playback.h"

static_assert(std::endian::native == std::endian::little, "pattern cells and icons are written as they lie in memory");

// While a file is read, slots that must keep their numbers but hold nothing (empty slots,
// clones waiting for their parent) carry these marks; they are cleared at the end.
constexpr uint32_t kModulePlaceholderFlags = 0x40000001;
static zelfon_pattern g_pattern_placeholder_record;
static zelfon_pattern* const kPatternPlaceholder = &g_pattern_placeholder_record;

constexpr int kCellSize = (int)sizeof(zelfon_cell);
constexpr int kColorSize = 3;
constexpr int kGlobalVolumeMax = 512;
constexpr int kSpeedMax = 255;
constexpr int kVersionByteMask = 0xFF;

static bool module_used(int mod_num, const psynth_net* net) {
    return mod_num >= 0 && mod_num < net->slots && (net->modules[mod_num].flags & PSYNTH_FLAG_EXISTS);
}

static int clamp_int(int v, int lo, int hi) { return v < lo ? lo : v > hi ? hi : v; }

uint32_t zelfon_version_value(const char* major, const char* minor) {
    uint32_t a = major ? (uint32_t)strtoul(major, nullptr, 10) & kVersionByteMask : 0;
    uint32_t b = 0, c = 0;
    if (minor) {
        char* end = nullptr;
        b = (uint32_t)strtoul(minor, &end, 10) & kVersionByteMask;
        if (end && *end == '.') c = (uint32_t)strtoul(end + 1, nullptr, 10) & kVersionByteMask;
    }
    return a << 24 | b << 16 | c << 8;
}

// ---- Saving ----

// Tracks up to and including the last one holding a non-empty cell in any line (at least 1).
static int used_tracks(const zelfon_pattern* pat, int lines, int channels) {
    int used = 1;
    for (int line = 0; line < lines; line++) {
        const zelfon_cell* row = &pat->data[(size_t)line * pat->data_xsize];
        for (int t = used; t < channels; t++) {
            if (!zelfon_cell_is_empty(&row[t])) used = t + 1;
        }
    }
    return used;
}

// The shared data of a parent pattern: cells, size, icon and colours.
static int write_pattern_data(const zelfon_pattern* pat, int fd) {
    int lines = pat->lines < pat->data_ysize ? pat->lines : pat->data_ysize;
    int channels = pat->channels < pat->data_xsize ? pat->channels : pat->data_xsize;
    if (lines < 0) lines = 0;
    int used = pat->data ? used_tracks(pat, lines, channels) : 1;
    if (pat->data) {
        uint32_t line_bytes = (uint32_t)used * kCellSize;
        if (zelfon_write_chunk_header("PDTA", line_bytes * (uint32_t)lines, fd)) return 1;
        for (int line = 0; line < lines; line++) {
            if (v3_write(&pat->data[(size_t)line * pat->data_xsize], 1, line_bytes, fd) != line_bytes) return 1;
        }
    }
    return zelfon_write_int_chunk("PCHN", used, fd) || zelfon_write_int_chunk("PLIN", lines, fd) ||
           zelfon_write_int_chunk("PYSZ", pat->ysize, fd) ||
           zelfon_write_chunk("PICO", sizeof(pat->icon), pat->icon, fd) ||
           zelfon_write_chunk("PFGC", kColorSize, pat->fg, fd) || zelfon_write_chunk("PBGC", kColorSize, pat->bg, fd);
}

static int write_pattern_slot(int slot, int fd, const zelfon_song* song) {
    const zelfon_pattern* pat = song->pats[slot];
    const zelfon_pattern_info* info = &song->pats_info[slot];
    if (pat) {
        bool clone = info->flags & ZELFON_PATTERN_FLAG_CLONE;
        if (clone ? zelfon_write_int_chunk("PPAR", info->parent, fd) : write_pattern_data(pat, fd)) return 1;
        if (zelfon_write_int_chunk("PFFF", (int32_t)info->flags, fd) || zelfon_write_int_chunk("PXXX", info->x, fd) ||
            zelfon_write_int_chunk("PYYY", info->y, fd)) {
            return 1;
        }
    }
    return zelfon_write_chunk("PEND", 0, nullptr, fd);
}

struct song_save_job {
    uint32_t version;
    zelfon_song* song;
};

static int write_song_body(int fd, void* context) {
    song_save_job* job = (song_save_job*)context;
    zelfon_song* song = job->song;
    psynth_net* net = song->net;
    if (zelfon_write_chunk("ZFON", 0, nullptr, fd) || zelfon_write_int_chunk("VERS", (int32_t)job->version, fd) ||
        zelfon_write_int_chunk("BPM ", song->bpm, fd) || zelfon_write_int_chunk("SPED", song->speed, fd) ||
        zelfon_write_int_chunk("GVOL", net->global_volume, fd)) {
        return 1;
    }
    if (song->name && zelfon_write_chunk("NAME", (uint32_t)mem_get_size(song->name), song->name, fd)) return 1;

    int last_pattern = -1;  // trailing empty slots are not written
    for (int i = 0; song->pats && i < song->pats_capacity; i++) {
        if (song->pats[i]) last_pattern = i;
    }
    for (int i = 0; i <= last_pattern; i++) {
        if (write_pattern_slot(i, fd, song)) return 1;
    }
    for (int i = 0; i < net->slots; i++) {
        int err = module_used(i, net)
                      ? zelfon_write_synth_chunks(i, ZELFON_SYNTH_PART_POSITION | ZELFON_SYNTH_PART_INPUT_LINKS, fd, song)
                      : zelfon_write_chunk("SEND", 0, nullptr, fd);
        if (err) return 1;
    }
    return 0;
}

int zelfon_save_song(const char* path, const char* major, const char* minor, zelfon_song* song) {
    if (!song->net || !song->net->modules) return 1;
    song_save_job job = {zelfon_version_value(major, minor), song};
    return zelfon_save_file_safely(path, write_song_body, &job);
}

int zelfon_save_backup(zelfon_song* song) {
    return zelfon_save_song(ZELFON_BACKUP_FILE, ZELFON_VERSION_MAJOR, ZELFON_VERSION_MINOR, song);
}

// ---- Loading ----

// Pattern values collected until their "PEND".
struct pending_pattern {
    int lines;
    int tracks;  // as the file gives it: the row stride of `cells`
    int ysize;
    int has_icon;
    uint16_t icon[ZELFON_ICON_SIZE];
    int has_fg, has_bg;
    uint8_t fg[kColorSize], bg[kColorSize];
    uint32_t flags;
    int x, y;
    int has_parent;
    int parent;
    zelfon_cell* cells;  // owned block from "PDTA"
    uint32_t cells_size;
};

struct song_load_state {
    pending_pattern pattern;
    zelfon_pending_synth synth;
    int sends;  // "SEND" chunks seen: the first one is the net's OUT
    int64_t memory_limit;  // the memory manager's bytes in use the load may reach
};

// The memory a file may make the song hold: what it held before, the file, and a fixed room.
static int64_t load_memory_limit(int fd) {
    int64_t here = v3_tell(fd);
    int64_t size = v3_seek(fd, 0, V3_SEEK_END) == 0 ? v3_tell(fd) : 0;
    v3_seek(fd, here, V3_SEEK_SET);
    return mem_get_stats().dynamic_in_use + (size > 0 ? size : 0) + ZELFON_FILE_LOAD_MEMORY;
}

// Checked as the file places `more` bytes of patterns or after a module is made: a tiny file
// that claims gigabytes stops here, with what it made so far.
static bool within_memory_limit(int64_t more, const song_load_state* st) {
    int64_t in_use = mem_get_stats().dynamic_in_use;
    if (in_use + more <= st->memory_limit) return true;
    tarvik_log("zelfon_load_song(): the file asks for more memory than its size allows (%lld bytes)\n",
               (long long)(in_use + more));
    return false;
}

static void reset_pending_pattern(pending_pattern* p) {
    mem_free(p->cells);
    memset(p, 0, sizeof(*p));
    p->lines = 1;
    p->tracks = 1;
    p->ysize = ZELFON_PATTERN_DEFAULT_YSIZE;
    p->parent = -1;
}

static void clear_pattern_info(zelfon_pattern_info* info) {
    memset(info, 0, sizeof(*info));
    info->parent = -1;
    info->track_set = -1;
}

// Copies cells stored with the file's row stride into a pattern whose size differs from them.
static void copy_cells(zelfon_pattern* pat, const pending_pattern* p) {
    int64_t stride = p->tracks > 0 ? p->tracks : 1;
    int64_t cells_count = p->cells_size / kCellSize;
    int tracks = stride < pat->data_xsize ? (int)stride : pat->data_xsize;
    for (int line = 0; line < pat->data_ysize; line++) {
        for (int t = 0; t < tracks; t++) {
            int64_t index = line * stride + t;
            if (index >= cells_count) return;
            pat->data[(size_t)line * pat->data_xsize + t] = p->cells[index];
        }
    }
}

// "PEND": the slot becomes a pattern, a clone waiting for its parent, or an empty slot.
static int place_pattern(pending_pattern* p, const song_load_state* st, zelfon_song* song) {
    int slot = zelfon_get_free_pattern_num(song);
    if (slot < 0 || slot >= ZELFON_FILE_MAX_PATTERN_SLOTS) return ZELFON_LOAD_ERROR_PATTERN;
    zelfon_pattern_info* info = &song->pats_info[slot];
    if (p->has_parent || !p->has_icon) {
        song->pats[slot] = kPatternPlaceholder;
        clear_pattern_info(info);
        if (p->has_parent) {
            info->flags = p->flags | ZELFON_PATTERN_FLAG_CLONE;
            info->parent = p->parent;
            info->x = p->x;
            info->y = p->y;
        }
        return 0;
    }
    int lines = p->lines < 1 ? 1 : p->lines;
    int tracks = clamp_int(p->tracks, 1, ZELFON_MAX_TRACKS);
    int64_t bytes = (int64_t)lines * tracks * kCellSize;
    int64_t allowed = (int64_t)p->cells_size > ZELFON_FILE_MAX_EMPTY_PATTERN_BYTES ? (int64_t)p->cells_size
                                                                                 : ZELFON_FILE_MAX_EMPTY_PATTERN_BYTES;
    if (bytes > allowed) return ZELFON_LOAD_ERROR_PATTERN;
    if (!within_memory_limit(bytes, st)) return ZELFON_LOAD_ERROR_MEMORY;
    if (new_pattern_with_num(slot, lines, tracks, p->x, p->y, (uint32_t)slot, song) != slot) {
        return ZELFON_LOAD_ERROR_PATTERN;
    }
    zelfon_pattern* pat = song->pats[slot];
    song->pats_info[slot].flags = p->flags & ~(uint32_t)ZELFON_PATTERN_FLAG_CLONE;
    if (p->cells && p->tracks == tracks && (int64_t)p->cells_size == bytes) {
        mem_free(pat->data);  // the file's block becomes the cells as it is
        pat->data = p->cells;
        p->cells = nullptr;
    } else if (p->cells) {
        copy_cells(pat, p);
    }
    memcpy(pat->icon, p->icon, sizeof(pat->icon));
    if (p->has_fg) memcpy(pat->fg, p->fg, kColorSize);
    if (p->has_bg) memcpy(pat->bg, p->bg, kColorSize);
    pat->ysize = p->ysize;
    zelfon_draw_pattern_icon(slot, song);
    return 0;
}

// The file's input list becomes the module's own, holes included; the links are made in
// both directions once every module exists.
static void set_input_list(int mod_num, zelfon_pending_synth* p, psynth_net* net) {
    psynth_module* mod = &net->modules[mod_num];
    mem_free(mod->input_links);
    mod->input_links = p->input_links;
    mod->input_links_capacity = p->input_links ? p->input_links_count : 0;
    p->input_links = nullptr;
    p->input_links_count = 0;
}

// The first "SEND" is the net's OUT: only its placement, tuning, colour and inputs are taken.
static void configure_output(zelfon_pending_synth* p, zelfon_song* song) {
    psynth_net* net = song->net;
    if (!module_used(0, net)) return;
    psynth_module* mod = &net->modules[0];
    mod->finetune = p->finetune;
    mod->relative_note = p->relative_note;
    mod->x = p->x;
    mod->y = p->y;
    if (p->has_color) memcpy(mod->color, p->color, sizeof(mod->color));
    set_input_list(0, p, net);
}

static bool has_free_module_slot(const psynth_net* net) {
    for (int i = 0; i < net->slots; i++) {
        if (!(net->modules[i].flags & PSYNTH_FLAG_EXISTS)) return true;
    }
    return false;
}

// Every later "SEND" takes the next module slot; an empty one keeps its place with a mark.
static int add_song_module(zelfon_pending_synth* p, zelfon_song* song) {
    psynth_net* net = song->net;
    if (!has_free_module_slot(net) && net->slots + PSYNTH_SLOTS_STEP > ZELFON_FILE_MAX_MODULE_SLOTS) {
        return ZELFON_LOAD_ERROR_MODULE;
    }
    int mod_num = zelfon_pending_synth_add(-1, p, song);
    if (mod_num < 0) return ZELFON_LOAD_ERROR_MODULE;
    if (p->flags == 0) {
        psynth_remove_synth(mod_num, net);
        net->modules[mod_num].flags = kModulePlaceholderFlags;
        return 0;
    }
    set_input_list(mod_num, p, net);
    zelfon_pending_synth_configure(mod_num, p, song);
    return 0;
}

static int finish_module(song_load_state* st, zelfon_song* song) {
    int code = 0;
    if (st->sends++ == 0) configure_output(&st->synth, song);
    else code = add_song_module(&st->synth, song);
    zelfon_pending_synth_reset(0, 0, &st->synth);
    if (code == 0 && !within_memory_limit(0, st)) code = ZELFON_LOAD_ERROR_MEMORY;
    return code;
}

// One chunk of a song file. Returns 0 or a loader error code.
static int take_song_chunk(song_load_state* st, zelfon_chunk_reader* r, zelfon_song* song) {
    pending_pattern* p = &st->pattern;
    switch (r->id) {
    // Tempo and volume are kept where the render can divide and multiply by them safely.
    case zelfon_chunk_id("BPM "): song->bpm = (uint16_t)clamp_int(zelfon_chunk_int(r), ZELFON_BPM_MIN, ZELFON_BPM_MAX); break;
    case zelfon_chunk_id("SPED"): song->speed = (uint8_t)clamp_int(zelfon_chunk_int(r), 1, kSpeedMax); break;
    case zelfon_chunk_id("GVOL"): song->net->global_volume = clamp_int(zelfon_chunk_int(r), 0, kGlobalVolumeMax); break;
    case zelfon_chunk_id("NAME"):
        mem_free(song->name);
        song->name = zelfon_chunk_take_text(r);
        break;
    case zelfon_chunk_id("PDTA"):
        mem_free(p->cells);
        p->cells_size = r->size;
        p->cells = (zelfon_cell*)zelfon_chunk_reader_take(r);
        break;
    case zelfon_chunk_id("PCHN"): p->tracks = zelfon_chunk_int(r); break;
    case zelfon_chunk_id("PLIN"): p->lines = zelfon_chunk_int_in(r, 1, ZELFON_TIMELINE_POSITION_MAX); break;
    case zelfon_chunk_id("PYSZ"): p->ysize = zelfon_chunk_int_in(r, 1, ZELFON_TIMELINE_POSITION_MAX); break;
    case zelfon_chunk_id("PICO"):
        zelfon_chunk_copy(r, p->icon, sizeof(p->icon));
        p->has_icon = 1;
        break;
    case zelfon_chunk_id("PFGC"):
        zelfon_chunk_copy(r, p->fg, kColorSize);
        p->has_fg = 1;
        break;
    case zelfon_chunk_id("PBGC"):
        zelfon_chunk_copy(r, p->bg, kColorSize);
        p->has_bg = 1;
        break;
    case zelfon_chunk_id("PPAR"):
        p->parent = zelfon_chunk_int(r);
        p->has_parent = 1;
        break;
    case zelfon_chunk_id("PFFF"): p->flags = (uint32_t)zelfon_chunk_int(r); break;
    case zelfon_chunk_id("PXXX"):
        p->x = zelfon_chunk_int_in(r, -ZELFON_TIMELINE_POSITION_MAX, ZELFON_TIMELINE_POSITION_MAX);
        break;
    case zelfon_chunk_id("PYYY"):
        p->y = zelfon_chunk_int_in(r, -ZELFON_TIMELINE_POSITION_MAX, ZELFON_TIMELINE_POSITION_MAX);
        break;
    case zelfon_chunk_id("PEND"): {
        int code = place_pattern(p, st, song);
        reset_pending_pattern(p);
        return code;
    }
    case zelfon_chunk_id("SEND"): return finish_module(st, song);
    default: {
        // Module chunks; anything else ("ZFON", "VERS", ids of other versions) is skipped.
        int code = zelfon_pending_synth_take(r, 1, &st->synth);
        return code > 0 ? code : 0;
    }
    }
    return 0;
}

void zelfon_reset_song(zelfon_song* song) {
    if (song->playing) zelfon_stop(song);
    song->loaded = 0;
    zelfon_remove_all_patterns(song);
    mem_free(song->name);
    song->name = nullptr;
    song->bpm = ZELFON_BPM_DEFAULT;
    song->speed = ZELFON_SPEED_DEFAULT;
    int rate = song->net->sampling_rate;
    psynth_close(song->net);
    psynth_init(0, rate, song->bpm, song->speed, song->net);
    zelfon_open_midi_keyboard(song);  // the new net has a new MIDI client
    song->editor_pats_count = 0;
    song->current_pattern = 0;
    song->looped_pattern = -1;
    song->next_looped_pattern = -1;
    song->playing_pats[0] = -1;
    song->line = 0;
    song->start_line = 0;
    song->last_bpm = -1;
    song->last_speed = -1;
}

static bool real_parent(int parent, const zelfon_song* song) {
    return parent >= 0 && parent < song->pats_capacity && song->pats[parent] &&
           song->pats[parent] != kPatternPlaceholder && !(song->pats_info[parent].flags & ZELFON_PATTERN_FLAG_CLONE);
}

// Clones take their parent's record; every other mark becomes an empty slot.
static void bind_clones(zelfon_song* song) {
    for (int i = 0; i < song->pats_capacity; i++) {
        zelfon_pattern_info* info = &song->pats_info[i];
        if (song->pats[i] == kPatternPlaceholder && (info->flags & ZELFON_PATTERN_FLAG_CLONE) &&
            real_parent(info->parent, song)) {
            song->pats[i] = song->pats[info->parent];
        }
    }
    for (int i = 0; i < song->pats_capacity; i++) {
        if (song->pats[i] == kPatternPlaceholder) {
            song->pats[i] = nullptr;
            if (i < song->pats_free_from) song->pats_free_from = i;
            clear_pattern_info(&song->pats_info[i]);
        }
    }
}

static bool list_contains(const int* links, int capacity, int link) {
    for (int i = 0; links && i < capacity; i++) {
        if (links[i] == link) return true;
    }
    return false;
}

// Each valid entry of a module's input list gets its matching output link; entries naming
// no module, and repeats, become free entries.
static void link_inputs(int mod_num, psynth_net* net) {
    for (int i = 0; i < net->modules[mod_num].input_links_capacity; i++) {
        int src = net->modules[mod_num].input_links[i];
        bool ok = module_used(src, net) &&
                  !list_contains(net->modules[src].output_links, net->modules[src].output_links_capacity, mod_num);
        if (ok) psynth_add_output_link(src, mod_num, net);
        else net->modules[mod_num].input_links[i] = -1;
    }
}

static void finish_song(zelfon_song* song) {
    bind_clones(song);
    psynth_net* net = song->net;
    for (int i = 0; i < net->slots; i++) {
        if (net->modules[i].flags == kModulePlaceholderFlags) net->modules[i].flags = 0;
    }
    for (int i = 0; i < net->slots; i++) {
        if (module_used(i, net)) link_inputs(i, net);
    }
    zelfon_sort_patterns(song);
}

static int load_song(const char* path, zelfon_song* song) {
    int fd = v3_open(path, "rb");
    if (!fd) {
        tarvik_log("Can't open file %s\n", path);
        return ZELFON_LOAD_CANT_OPEN;
    }
    if (!song->net) {
        v3_close(fd);
        tarvik_log("zelfon_load_song(): the song has no net\n");
        return ZELFON_LOAD_CANT_OPEN;
    }
    zelfon_reset_song(song);

    song_load_state st;
    memset(&st.pattern, 0, sizeof(st.pattern));
    reset_pending_pattern(&st.pattern);
    zelfon_pending_synth_init(0, 0, &st.synth);
    st.sends = 0;
    st.memory_limit = load_memory_limit(fd);
    zelfon_chunk_reader reader;
    zelfon_chunk_reader_init(fd, &reader);
    int code = 0;
    for (;;) {
        if (load_block(&reader)) {
            code = ZELFON_LOAD_ERROR_BLOCK;
            break;
        }
        if (reader.id == 0) break;
        code = take_song_chunk(&st, &reader, song);
        if (code) break;
    }
    zelfon_chunk_reader_drop(&reader);
    reset_pending_pattern(&st.pattern);
    zelfon_pending_synth_reset(0, 0, &st.synth);
    v3_close(fd);

    finish_song(song);
    if (code) tarvik_log("zelfon_load_song() error %d\n", code);
    song->loaded = 1;
    return code;
}

int zelfon_load_song(const char* path, zelfon_song* song) {
    // Stopping needs the render thread; then the sound stream's slots are held off the
    // song (the device plays silence) while its net is rebuilt.
    if (song->playing) zelfon_stop(song);
    sound_stream_lock();
    int code = load_song(path, song);
    sound_stream_unlock();
    // The old history's actions name the old song's patterns (a file that could not be
    // opened left the song as it was).
    if (code != ZELFON_LOAD_CANT_OPEN) zelfon_edit_init_history(zelfon_edit_profile_undo_size(), song);
    return code;
}

const char* zelfon_load_error_text(int error) {
    switch (error) {
    case ZELFON_LOAD_CANT_OPEN: return "the file cannot be opened";
    case ZELFON_LOAD_ERROR_BLOCK: return "a chunk is cut short or too large";
    case ZELFON_LOAD_ERROR_PATTERN: return "a pattern cannot be made";
    case ZELFON_LOAD_ERROR_CHUNK_TABLE:
    case ZELFON_LOAD_ERROR_CHUNK_FLAGS:
    case ZELFON_LOAD_ERROR_CHUNK_RATES: return "a module's data chunks are damaged";
    case ZELFON_LOAD_ERROR_MODULE: return "a module cannot be created";
    case ZELFON_LOAD_ERROR_MEMORY: return "it asks for far more memory than a song of its size can need";
    default: return "the file is damaged";
    }
}
