// WAV and MIDI export. The WAV export plays the song from line 0 through zelfon_render in
// pieces of 8192 frames; the piece hook appends each module's output to its file while the
// net's buffers of the 4096-frame pass are still in place, and the mix is taken from the
// render's own output. The MIDI export walks the lines and the patterns under them as
// playback does, turning the notes of each module into one track of a format-1 file.
#include "song/export.h"

#include <atomic>
#include <bit>
#include <climits>
#include <cstdio>
#include <cstring>
#include <utility>

#include "engine/file.h"
#include "engine/log.h"
#include "engine/memory.h"
#include "engine/sound.h"
#include "song/chunks.h"
#include "song/playback.h"

static_assert(std::endian::native == std::endian::little, "WAV data is written as the host stores it");

constexpr int kWavHeaderSize = 44;
constexpr int kWavChannels = 2;
constexpr int kWavTagPcm = 1;
constexpr int kWavTagFloat = 3;
constexpr size_t kWritebackBytes = 4 << 20;  // the disk is asked to write every 4 MB of the mix
constexpr int kProgressShift = 8;      // progress = (done & ~255) / (total >> 8)
constexpr int64_t kWavMaxData = 0xFFFFFFFFll - 36;
constexpr const char* kWavTag = "zelfon_export_to_wav";
constexpr const char* kMidiTag = "zelfon_export_to_midi";

// A pending abort names the song whose export should stop (one export runs at a time).
static std::atomic<zelfon_song*> g_abort_song{nullptr};

void zelfon_export_abort(zelfon_song* song) { g_abort_song.store(song); }

// ---- Safe writes: the file layer's saves, so a target is replaced only when complete ----

struct export_file {
    v3_save save;      // save.h 0 = not open (or given up)
    int failed;        // a write failed: the file is dropped at the end
    char* final_name;  // owned, for messages
};

// Opens the file; an existing song or module file is never replaced by an export.
static bool export_file_open(export_file* f, const char* final_name, const char* tag) {
    f->final_name = mem_strdup(final_name);
    if (!f->final_name) return false;
    int kind = zelfon_file_kind(final_name);
    if (kind == ZELFON_FILE_SONG || kind == ZELFON_FILE_MODULE) {
        tarvik_log("%s(): %s is a song or module file: not overwritten\n", tag, final_name);
        return false;
    }
    return v3_save_begin(final_name, &f->save) != 0;
}

static void export_file_write(export_file* f, const void* data, size_t size) {
    if (!f->save.h || f->failed || size == 0) return;
    if (v3_write(data, 1, size, f->save.h) != size) f->failed = 1;
}

// Syncs the file and moves it into place; a failed one is deleted. Returns true when the
// file is in place. Logs what went wrong under the caller's name.
static bool export_file_finish(export_file* f, const char* who) {
    bool opened = f->save.h != 0;
    bool ok = v3_save_end(&f->save, !f->failed) == 0;
    if (opened && !ok) tarvik_log("%s(): cannot write %s\n", who, f->final_name);
    mem_free(f->final_name);
    f->final_name = nullptr;
    return opened && ok;
}

static void put_le16(uint8_t* p, uint32_t v) {
    p[0] = (uint8_t)v;
    p[1] = (uint8_t)(v >> 8);
}

static void put_le32(uint8_t* p, uint32_t v) {
    put_le16(p, v & 0xFFFF);
    put_le16(p + 2, v >> 16);
}

// ---- WAV ----

static void make_wav_header(uint8_t header[kWavHeaderSize], uint32_t data_size, int bytes_per_sample, int rate) {
    memcpy(header, "RIFF", 4);
    put_le32(header + 4, data_size + 36);
    memcpy(header + 8, "WAVEfmt ", 8);
    put_le32(header + 16, 16);
    put_le16(header + 20, bytes_per_sample == 4 ? kWavTagFloat : kWavTagPcm);
    put_le16(header + 22, kWavChannels);
    put_le32(header + 24, (uint32_t)rate);
    put_le32(header + 28, (uint32_t)rate * kWavChannels * bytes_per_sample);
    put_le16(header + 32, kWavChannels * bytes_per_sample);
    put_le16(header + 34, 8 * bytes_per_sample);
    memcpy(header + 36, "data", 4);
    put_le32(header + 40, data_size);
}

// What the piece hook needs; every block is allocated before the export starts.
struct wav_export {
    int format;
    int bytes_per_sample;
    int slots;
    export_file* files;  // one per module slot; the mix (slot 0) is written from the render buffer
    void* convert;       // one net pass of stereo frames in the file format
};

// Interleaves two channels of a module's output (frames before a start are silence; a mono
// output feeds both channels, a module without outputs gives silence) into the file format.
static void convert_module_output(const psynth_module* mod, int frames, const wav_export* e) {
    for (int c = 0; c < kWavChannels; c++) {
        int source = c < mod->output_channels ? c : mod->output_channels - 1;
        const psynth_sample* buf = source >= 0 ? mod->output_buffers[source] : nullptr;
        int start = buf ? mod->output_start[source] : frames;
        if (start < 0) start = 0;
        if (e->format == ZELFON_EXPORT_FLOAT32) {
            float* dest = (float*)e->convert + c;
            for (int i = 0; i < frames; i++) dest[i * kWavChannels] = i < start ? 0.0f : zelfon_sample_to_float(buf[i]);
        } else {
            int16_t* dest = (int16_t*)e->convert + c;
            for (int i = 0; i < frames; i++) dest[i * kWavChannels] = i < start ? 0 : zelfon_sample_to_int16(buf[i]);
        }
    }
}

// Runs after every net pass with the modules' buffers in place. No allocation here.
static void wav_piece_hook(void* hook_data, int frames, zelfon_song* song) {
    wav_export* e = (wav_export*)hook_data;
    const psynth_net* net = song->net;
    for (int m = 1; m < e->slots && m < net->slots; m++) {
        export_file* f = &e->files[m];
        if (!f->save.h || f->failed) continue;
        convert_module_output(&net->modules[m], frames, e);
        export_file_write(f, e->convert, (size_t)frames * kWavChannels * e->bytes_per_sample);
    }
}

static void set_piece_hook(void (*hook)(void*, int, zelfon_song*), void* data, zelfon_song* song) {
    tarvik_mutex_lock(&song->net->mutex);
    song->piece_hook = hook;
    song->piece_hook_data = data;
    tarvik_mutex_unlock(&song->net->mutex);
}

static bool module_linked_into_output(int mod, const psynth_net* net) {
    const psynth_module* out = &net->modules[0];
    for (int i = 0; i < out->input_links_capacity; i++) {
        if (out->input_links[i] == mod) return true;
    }
    return false;
}

static bool module_takes_file(int mod, int mode, const psynth_net* net) {
    const psynth_module* m = &net->modules[mod];
    if (!(m->flags & PSYNTH_FLAG_EXISTS)) return false;
    if (mode == ZELFON_EXPORT_ONE_FILE) return mod == 0;
    if (m->flags & PSYNTH_FLAG_MUTE) return false;
    if (mode == ZELFON_EXPORT_PER_EFFECT) return (m->flags & PSYNTH_FLAG_EFFECT) != 0;
    if (mode == ZELFON_EXPORT_PER_OUT_LINK) return mod != 0 && module_linked_into_output(mod, net);
    return true;
}

// Position just after the last path separator (or the disk prefix).
static const char* file_name_part(const char* path) {
    const char* name = path;
    for (const char* p = path; *p; p++) {
        if (*p == '/' || *p == '\\' || *p == ':') name = p + 1;
    }
    return name;
}

// The file of module `mod`: the base (the path up to its last "."), then for a module other
// than 0 "_", its number in two hex digits, "_" and its name (characters that no file name may
// hold become "_"), then ".wav". A new block, or null when memory ran out.
static char* module_file_name(const char* path, int mod, const psynth_net* net) {
    const char* dot = strrchr(file_name_part(path), '.');
    size_t base = (size_t)(dot - path);
    const char* name = net->modules[mod].name;
    size_t size = base + strlen(name) + 32;
    char* out = (char*)mem_new(MEM_DYNAMIC, size, kWavTag);
    if (!out) return nullptr;
    memcpy(out, path, base);
    if (mod == 0) {
        snprintf(out + base, size - base, ".wav");
        return out;
    }
    int n = snprintf(out + base, size - base, "_%02X_", mod);
    char* p = out + base + n;
    for (const char* s = name; *s; s++) *p++ = strchr("/\\:*?\"<>|", *s) ? '_' : *s;
    snprintf(p, size - (size_t)(p - out), ".wav");
    return out;
}

// Opens the files of the mode and writes their headers; a file that cannot be opened stays
// closed. Returns false when one failed.
static bool open_wav_files(const char* path, int mode, uint32_t data_size, wav_export* e, zelfon_song* song) {
    const psynth_net* net = song->net;
    uint8_t header[kWavHeaderSize];
    make_wav_header(header, data_size, e->bytes_per_sample, net->sampling_rate);
    bool all = true;
    for (int m = 0; m < e->slots; m++) {
        if (!module_takes_file(m, mode, net)) continue;
        char* name = mode == ZELFON_EXPORT_ONE_FILE ? mem_strdup(path) : module_file_name(path, m, net);
        export_file* f = &e->files[m];
        if (!name || !export_file_open(f, name, kWavTag)) {
            tarvik_log("zelfon_export_to_wav(): cannot open %s\n", name ? name : path);
            export_file_finish(f, "zelfon_export_to_wav");
            all = false;
        } else {
            export_file_write(f, header, sizeof(header));
        }
        mem_free(name);
    }
    return all;
}

static bool close_wav_files(wav_export* e) {
    bool all = true;
    for (int m = 0; m < e->slots; m++) {
        export_file* f = &e->files[m];
        bool opened = f->save.h != 0;
        if (!export_file_finish(f, "zelfon_export_to_wav") && opened) all = false;
    }
    return all;
}

// The mix's piece rendered last, written while the next one renders: the write is the side
// job of the next piece's first pass, so it shares the cores with the modules.
struct pending_write {
    export_file* file;
    const void* data;
    size_t size;     // 0: nothing waits
    size_t written;  // since the disk last started writing
};

static void write_pending(void* arg) {
    pending_write* w = (pending_write*)arg;
    export_file_write(w->file, w->data, w->size);
    w->written += w->size;
    w->size = 0;
    // The disk writes while the rest renders: the file's final sync has only the tail left.
    if (w->written >= kWritebackBytes && w->file->save.h) {
        v3_start_writeback(w->file->save.h);
        w->written = 0;
    }
}

static void set_side_job(pending_write* w, zelfon_song* song) {
    tarvik_mutex_lock(&song->net->mutex);
    psynth_set_side_job(w->size ? write_pending : nullptr, w, song->net);
    tarvik_mutex_unlock(&song->net->mutex);
}

static void render_piece(void* buffer, int type, int frames, zelfon_song* song) {
    zelfon_render_request request = {buffer, type, kWavChannels, frames, nullptr, tarvik_time_ticks()};
    zelfon_render(&request, song);
}

static bool wav_arguments_valid(const char* path, int format, int mode, const zelfon_song* song) {
    if (!song || !song->net || !song->net->modules || !song->loaded || !path || !*path) return false;
    if (format != ZELFON_EXPORT_INT16 && format != ZELFON_EXPORT_FLOAT32) return false;
    if (mode < ZELFON_EXPORT_ONE_FILE || mode > ZELFON_EXPORT_PER_OUT_LINK) return false;
    // The per-module names are built from the base before the file name's last ".".
    if (mode != ZELFON_EXPORT_ONE_FILE && !strchr(file_name_part(path), '.')) return false;
    return true;
}

static int export_stopped_song(const char* path, int format, int mode, zelfon_export_progress progress,
                               void* callback_data, zelfon_song* song) {
    psynth_net* net = song->net;
    int64_t total = zelfon_get_song_length_frames(net->sampling_rate, song);
    if (total < 0) {
        tarvik_log("zelfon_export_to_wav(): no memory for the song's length\n");
        return ZELFON_EXPORT_NO_MEMORY;
    }
    tarvik_log("Song length (frames): %lld\n", (long long)total);

    wav_export e = {};
    e.format = format;
    e.bytes_per_sample = format == ZELFON_EXPORT_FLOAT32 ? 4 : 2;
    int64_t data_size = total * kWavChannels * e.bytes_per_sample;
    if (data_size > kWavMaxData) {
        tarvik_log("zelfon_export_to_wav(): %lld frames do not fit a WAV file\n", (long long)total);
        return ZELFON_EXPORT_TOO_LONG;
    }
    const int type = format == ZELFON_EXPORT_FLOAT32 ? ZELFON_SAMPLE_FLOAT32 : ZELFON_SAMPLE_INT16;
    const size_t piece_bytes = (size_t)ZELFON_EXPORT_PIECE * kWavChannels * e.bytes_per_sample;
    e.slots = net->slots;
    void* buffer = mem_new(MEM_DYNAMIC, piece_bytes, kWavTag);
    void* next_buffer = mem_new(MEM_DYNAMIC, piece_bytes, kWavTag);  // the one rendered while `buffer` is written
    e.convert = mem_new(MEM_DYNAMIC, (size_t)ZELFON_RENDER_PIECE * kWavChannels * e.bytes_per_sample, kWavTag);
    e.files = (export_file*)mem_new(MEM_DYNAMIC, sizeof(export_file) * (size_t)e.slots, kWavTag);
    if (!buffer || !next_buffer || !e.convert || !e.files) {
        mem_free(buffer);
        mem_free(next_buffer);
        mem_free(e.convert);
        mem_free(e.files);
        tarvik_log("zelfon_export_to_wav(): no memory for the buffers\n");
        return ZELFON_EXPORT_NO_MEMORY;
    }
    mem_zero(e.files);

    zelfon_reset_transport_for_export(song);
    int result = open_wav_files(path, mode, (uint32_t)data_size, &e, song) ? ZELFON_EXPORT_OK : ZELFON_EXPORT_FILE_ERROR;
    // With no file to write there is nothing to render for.
    bool any_open = false;
    for (int m = 0; m < e.slots; m++) any_open |= e.files[m].save.h != 0;
    if (!any_open) total = 0;

    set_piece_hook(wav_piece_hook, &e, song);
    pending_write pending = {&e.files[0], nullptr, 0, 0};
    int64_t done = 0;
    int64_t reported = 0;
    bool aborted = false;
    while (done < total) {
        if (g_abort_song.load() == song) {
            aborted = true;
            break;
        }
        int frames = total - done < ZELFON_EXPORT_PIECE ? (int)(total - done) : ZELFON_EXPORT_PIECE;
        set_side_job(&pending, song);
        render_piece(next_buffer, type, frames, song);
        if (pending.size) write_pending(&pending);  // no pass ran it
        pending.data = next_buffer;
        pending.size = (size_t)frames * kWavChannels * e.bytes_per_sample;
        std::swap(buffer, next_buffer);
        done += frames;
        if (done - reported > ZELFON_EXPORT_PROGRESS_FRAMES) {
            reported = done;
            int value = (int)((done & ~(int64_t)0xFF) / (total >> kProgressShift));
            if (progress) progress(callback_data, value);
        }
    }
    set_piece_hook(nullptr, nullptr, song);
    if (pending.size) write_pending(&pending);
    if (!close_wav_files(&e)) result = ZELFON_EXPORT_FILE_ERROR;
    mem_free(e.files);
    mem_free(e.convert);

    // Stop (which frees the track-state sets) and clean, then one more piece so that the
    // modules fall silent before the device renders again.
    zelfon_cell stop = {ZELFON_NOTE_STOP, 0, 0, 0, 0, 0};
    zelfon_cell clean = {ZELFON_NOTE_CLEAN, 0, 0, 0, 0, 0};
    if (zelfon_send_live_cell(&stop, 0, song) || zelfon_send_live_cell(&clean, 0, song)) {
        tarvik_log("zelfon_export_to_wav(): live ring full, the song may still be playing\n");
    }
    render_piece(buffer, type, ZELFON_EXPORT_PIECE, song);
    mem_free(buffer);
    mem_free(next_buffer);

    if (aborted) {
        tarvik_log("zelfon_export_to_wav(): aborted after %lld of %lld frames\n", (long long)done, (long long)total);
        return ZELFON_EXPORT_ABORTED;
    }
    if (result != ZELFON_EXPORT_OK) tarvik_log("zelfon_export_to_wav(): some files were not written\n");
    return result;
}

// ---- MIDI ----

constexpr int kMidiBufferStep = 1024;
constexpr uint32_t kMidiMaxDelta = 0x0FFFFFFF;  // the largest four-byte variable-length quantity
constexpr int kMidiNoteOfC0 = 12;  // semitone 0 (C0) is MIDI note 12, as the modules' MIDI out
constexpr int kMidiMaxTempo = 0xFFFFFF;
constexpr int kLinesPerBeatDefault = 4;

// A track's data, grown in steps of 1024 bytes, with the time of its last event.
struct midi_track {
    uint8_t* data;
    size_t size;
    int failed;  // memory ran out
    int64_t last_tick;
};

static void midi_put(midi_track* t, const void* bytes, size_t n) {
    if (t->failed || n == 0) return;
    size_t capacity = mem_get_size(t->data);
    if (t->size + n > capacity) {
        size_t grown = capacity;
        while (t->size + n > grown) grown += kMidiBufferStep;
        uint8_t* data = t->data ? (uint8_t*)mem_resize(t->data, grown) : (uint8_t*)mem_new(MEM_DYNAMIC, grown, kMidiTag);
        if (!data) {
            t->failed = 1;
            return;
        }
        t->data = data;
    }
    memcpy(t->data + t->size, bytes, n);
    t->size += n;
}

// A variable-length quantity: 7 bits per byte, most significant first, bit 7 = more follow.
static void midi_put_vlq(midi_track* t, uint32_t v) {
    uint8_t bytes[5];
    int n = 0;
    do {
        bytes[n++] = (uint8_t)(v & 0x7F);
        v >>= 7;
    } while (v);
    uint8_t out[5];
    for (int i = 0; i < n; i++) out[i] = (uint8_t)(bytes[n - 1 - i] | (i < n - 1 ? 0x80 : 0));
    midi_put(t, out, (size_t)n);
}

// Gaps longer than a four-byte quantity can hold are bridged by empty text events, each
// that far from the one before.
static void midi_put_delta(midi_track* t, int64_t tick) {
    static const uint8_t kEmptyText[3] = {0xFF, 0x01, 0x00};
    if (tick < t->last_tick) tick = t->last_tick;
    int64_t delta = tick - t->last_tick;
    for (; delta > kMidiMaxDelta; delta -= kMidiMaxDelta) {
        midi_put_vlq(t, kMidiMaxDelta);
        midi_put(t, kEmptyText, sizeof(kEmptyText));
    }
    midi_put_vlq(t, (uint32_t)delta);
    t->last_tick = tick;
}

static void midi_put_message(midi_track* t, int64_t tick, uint8_t status, uint8_t a, uint8_t b) {
    midi_put_delta(t, tick);
    uint8_t bytes[3] = {status, a, b};
    midi_put(t, bytes, 3);
}

static void midi_put_meta(midi_track* t, int64_t tick, uint8_t type, const void* data, size_t size) {
    midi_put_delta(t, tick);
    uint8_t head[2] = {0xFF, type};
    midi_put(t, head, 2);
    midi_put_vlq(t, (uint32_t)size);
    midi_put(t, data, size);
}

// Notes of the walk: for one module's track, or (track null) to mark the modules played.
struct midi_sink {
    int module;        // the module whose notes go to `track`
    int channel;
    midi_track* track;
    uint8_t* played;   // per module slot, or null
};

static void sink_note(midi_sink* sink, int module, int64_t tick, int key, int velocity) {
    if (sink->played && velocity > 0) sink->played[module] = 1;
    if (!sink->track || module != sink->module) return;
    if (velocity > 0) {
        midi_put_message(sink->track, tick, (uint8_t)(0x90 | sink->channel), (uint8_t)key, (uint8_t)velocity);
    } else {
        midi_put_message(sink->track, tick, (uint8_t)(0x80 | sink->channel), (uint8_t)key, 0x40);
    }
}

// A pattern under the current line: the module and the sounding key of each of its tracks.
struct midi_playing {
    int slot;
    int16_t module[ZELFON_MAX_TRACKS];  // −1 until a note names one
    int16_t key[ZELFON_MAX_TRACKS];     // −1 = silent
    int16_t key_module[ZELFON_MAX_TRACKS];
};

struct midi_walk {
    midi_playing playing[ZELFON_MAX_PLAYING_PATTERNS];
    int count;
    int next_sorted;
};

static void release_track(midi_playing* p, int t, int64_t tick, midi_sink* sink) {
    if (p->key[t] < 0) return;
    sink_note(sink, p->key_module[t], tick, p->key[t], 0);
    p->key[t] = -1;
}

static void release_pattern(midi_playing* p, int64_t tick, midi_sink* sink) {
    for (int t = 0; t < ZELFON_MAX_TRACKS; t++) release_track(p, t, tick, sink);
}

static bool holds_line(int slot, int line, const zelfon_song* song) {
    int x = song->pats_info[slot].x;
    return song->pats[slot] && line >= x && line < x + song->pats[slot]->lines;
}

// Moves the list of patterns to `line`: ended ones release their notes, new ones join from
// the play order (at most 64 at once, as in playback).
static void walk_patterns_to_line(midi_walk* w, int line, int64_t tick, midi_sink* sink, const zelfon_song* song) {
    int kept = 0;
    for (int i = 0; i < w->count; i++) {
        if (holds_line(w->playing[i].slot, line, song)) {
            w->playing[kept++] = w->playing[i];
        } else {
            release_pattern(&w->playing[i], tick, sink);
        }
    }
    w->count = kept;
    while (w->next_sorted < song->sorted_pats_count) {
        int slot = song->sorted_pats[w->next_sorted];
        if (song->pats_info[slot].x > line) break;
        w->next_sorted++;
        if (!holds_line(slot, line, song) || w->count >= ZELFON_MAX_PLAYING_PATTERNS) continue;
        midi_playing* p = &w->playing[w->count++];
        p->slot = slot;
        for (int t = 0; t < ZELFON_MAX_TRACKS; t++) {
            p->module[t] = -1;
            p->key[t] = -1;
            p->key_module[t] = -1;
        }
    }
}

static bool plays_note(const zelfon_cell* c) { return c->note >= 1 && c->note <= 127 && c->effect != 0x03; }

// The module a cell's note goes to, or −1 when it goes nowhere that sounds.
static int note_module(const zelfon_cell* c, const midi_playing* p, int t, const psynth_net* net) {
    int mod = c->module ? c->module - 1 : p->module[t];
    if (mod <= 0 || mod >= net->slots || !(net->modules[mod].flags & PSYNTH_FLAG_EXISTS)) return -1;
    return mod;
}

// One line: first every note that ends here, then every note that starts, so that a key
// ended and started again at the same moment is heard again.
static void walk_line(midi_walk* w, int line, int64_t tick, midi_sink* sink, const zelfon_song* song) {
    const psynth_net* net = song->net;
    for (int pass = 0; pass < 2; pass++) {
        for (int i = 0; i < w->count; i++) {
            midi_playing* p = &w->playing[i];
            const zelfon_pattern* pat = song->pats[p->slot];
            int row = line - song->pats_info[p->slot].x;
            int tracks = pat->channels < ZELFON_MAX_TRACKS ? pat->channels : ZELFON_MAX_TRACKS;
            for (int t = 0; t < tracks; t++) {
                const zelfon_cell* c = &pat->data[row * pat->data_xsize + t];
                int mod = plays_note(c) ? note_module(c, p, t, net) : -1;
                if (pass == 0) {
                    if (mod >= 0 || c->note == ZELFON_NOTE_OFF) release_track(p, t, tick, sink);
                    if (c->note == ZELFON_NOTE_ALL_OFF || c->note == ZELFON_NOTE_CLEAN) {
                        for (int j = 0; j < w->count; j++) release_pattern(&w->playing[j], tick, sink);
                    }
                } else if (mod >= 0) {
                    int velocity = c->vel ? ((c->vel - 1) * 2) >> 1 : 127;
                    velocity = velocity < 1 ? 1 : velocity > 127 ? 127 : velocity;
                    int key = c->note - 1 + kMidiNoteOfC0;
                    key = key > 127 ? 127 : key;
                    sink_note(sink, mod, tick, key, velocity);
                    p->module[t] = (int16_t)mod;
                    p->key[t] = (int16_t)key;
                    p->key_module[t] = (int16_t)mod;
                }
            }
        }
    }
}

// Walks the whole song (sorted first) and ends every note at its end.
static void walk_song(midi_sink* sink, zelfon_song* song) {
    static_assert(sizeof(midi_walk) < 16384, "the walk's state lives on the stack");
    midi_walk w;
    w.count = 0;
    w.next_sorted = 0;
    for (int line = 0; line < song->song_lines; line++) {
        int64_t tick = (int64_t)line * ZELFON_MIDI_TICKS_PER_LINE;
        walk_patterns_to_line(&w, line, tick, sink, song);
        walk_line(&w, line, tick, sink, song);
        // While nothing plays, the walk goes straight to the next pattern's first line (a
        // pattern far down the timeline costs no walk through the empty lines before it).
        if (w.count > 0) continue;
        if (w.next_sorted >= song->sorted_pats_count) break;
        int next = song->pats_info[song->sorted_pats[w.next_sorted]].x;
        if (next > line + 1) line = next - 1;
    }
    for (int i = 0; i < w.count; i++) {
        release_pattern(&w.playing[i], (int64_t)song->song_lines * ZELFON_MIDI_TICKS_PER_LINE, sink);
    }
}

// Microseconds per beat of `lines_per_beat` lines, from the engine's own tick length.
static int midi_tempo(int bpm, int speed, int lines_per_beat, int rate) {
    int64_t tick_length = psynth_tick_length(rate, bpm);  // 1/256 frame
    int64_t us = (tick_length * speed * lines_per_beat * 1000000 + 128ll * rate) / (256ll * rate);
    return us < 1 ? 1 : us > kMidiMaxTempo ? kMidiMaxTempo : (int)us;
}

static void midi_put_tempo(midi_track* t, int64_t tick, int tempo) {
    uint8_t bytes[3] = {(uint8_t)(tempo >> 16), (uint8_t)(tempo >> 8), (uint8_t)tempo};
    midi_put_meta(t, tick, 0x51, bytes, 3);
}

// The tempo track: the song's name, its tempo and every change of BPM or speed at its line.
static bool build_tempo_track(midi_track* t, int lines_per_beat, zelfon_song* song) {
    const int rate = song->net->sampling_rate;
    if (song->name && *song->name) midi_put_meta(t, 0, 0x03, song->name, strlen(song->name));
    int lines = song->song_lines > 0 ? song->song_lines : 1;
    zelfon_tempo_change* changes = nullptr;
    int count = 0;
    if (zelfon_get_song_tempo_changes(&changes, &count, song) != 0) return false;
    for (int i = 0; i < count && changes[i].line < lines; i++) {
        const zelfon_tempo_change* c = &changes[i];
        midi_put_tempo(t, (int64_t)c->line * ZELFON_MIDI_TICKS_PER_LINE, midi_tempo(c->bpm, c->speed, lines_per_beat, rate));
    }
    mem_free(changes);
    return true;
}

static void write_track(export_file* f, midi_track* t, int64_t end_tick) {
    midi_put_meta(t, end_tick, 0x2F, nullptr, 0);
    if (t->failed) return;
    uint8_t head[8];
    memcpy(head, "MTrk", 4);
    head[4] = (uint8_t)(t->size >> 24);
    head[5] = (uint8_t)(t->size >> 16);
    head[6] = (uint8_t)(t->size >> 8);
    head[7] = (uint8_t)t->size;
    export_file_write(f, head, sizeof(head));
    export_file_write(f, t->data, t->size);
}

int zelfon_export_to_wav(const char* path, int format, int mode, zelfon_export_progress progress,
                         void* callback_data, zelfon_song* song) {
    if (!wav_arguments_valid(path, format, mode, song)) {
        tarvik_log("zelfon_export_to_wav(): bad arguments (format %d, mode %d, path %s)\n", format, mode,
                   path ? path : "(none)");
        return ZELFON_EXPORT_BAD_ARGUMENT;
    }
    g_abort_song.store(nullptr);
    zelfon_stop(song);
    // The export renders on this thread: the sound stream's slots stay off the song
    // (the device plays silence) until it ends.
    sound_stream_lock();
    int code = export_stopped_song(path, format, mode, progress, callback_data, song);
    sound_stream_unlock();
    return code;
}

int zelfon_export_to_midi(const char* path, zelfon_song* song) {
    if (!path || !*path || !song || !song->net || !song->net->modules) {
        tarvik_log("zelfon_export_to_midi(): bad arguments\n");
        return ZELFON_EXPORT_BAD_ARGUMENT;
    }
    psynth_net* net = song->net;
    tarvik_mutex_lock(&net->mutex);
    zelfon_sort_patterns(song);
    tarvik_mutex_unlock(&net->mutex);
    int lines_per_beat = song->lines_per_beat ? song->lines_per_beat : kLinesPerBeatDefault;
    const int64_t end_tick = (int64_t)song->song_lines * ZELFON_MIDI_TICKS_PER_LINE;

    uint8_t* played = (uint8_t*)mem_new(MEM_DYNAMIC, (size_t)net->slots, kMidiTag);
    if (!played) {
        tarvik_log("zelfon_export_to_midi(): no memory\n");
        return ZELFON_EXPORT_NO_MEMORY;
    }
    mem_zero(played);
    midi_sink marks = {-1, 0, nullptr, played};
    walk_song(&marks, song);
    int tracks = 1;
    for (int m = 0; m < net->slots; m++) tracks += played[m];

    export_file f = {};
    if (!export_file_open(&f, path, kMidiTag)) {
        tarvik_log("zelfon_export_to_midi(): cannot open %s\n", path);
        export_file_finish(&f, "zelfon_export_to_midi");
        mem_free(played);
        return ZELFON_EXPORT_FILE_ERROR;
    }
    uint8_t header[14] = {'M', 'T', 'h', 'd', 0, 0, 0, 6, 0, 1};
    header[10] = (uint8_t)(tracks >> 8);
    header[11] = (uint8_t)tracks;
    int division = ZELFON_MIDI_TICKS_PER_LINE * lines_per_beat;
    header[12] = (uint8_t)(division >> 8);
    header[13] = (uint8_t)division;
    export_file_write(&f, header, sizeof(header));

    bool memory_ok = true;
    midi_track t = {};
    if (!build_tempo_track(&t, lines_per_beat, song)) t.failed = 1;
    write_track(&f, &t, end_tick);
    memory_ok &= !t.failed;
    for (int m = 0; m < net->slots && memory_ok; m++) {
        if (!played[m]) continue;
        t.size = 0;
        t.last_tick = 0;
        const char* name = net->modules[m].name;
        midi_put_meta(&t, 0, 0x03, name, strlen(name));
        midi_sink sink = {m, (m - 1) & 15, &t, nullptr};
        walk_song(&sink, song);
        write_track(&f, &t, end_tick);
        memory_ok &= !t.failed;
    }
    mem_free(t.data);
    mem_free(played);
    if (!memory_ok) {
        f.failed = 1;
        tarvik_log("zelfon_export_to_midi(): no memory for a track\n");
    }
    if (!export_file_finish(&f, "zelfon_export_to_midi")) return memory_ok ? ZELFON_EXPORT_FILE_ERROR : ZELFON_EXPORT_NO_MEMORY;
    return ZELFON_EXPORT_OK;
}

const char* zelfon_export_failure_reason(int result) {
    switch (result) {
    case ZELFON_EXPORT_TOO_LONG: return "the song is longer than a WAV file can hold (4 GB of sound)";
    case ZELFON_EXPORT_NO_MEMORY: return "there is not enough memory";
    case ZELFON_EXPORT_BAD_ARGUMENT: return "the export's settings do not fit the song";
    case ZELFON_EXPORT_ABORTED: return "the export was stopped";
    default: return "";
    }
}
