// The Sampler editor's commands: each makes the new content of the chunks it changes (a
// copy of the frames, header or instrument, changed through psynth/sample_edit.h) and
// hands it to zelfon_sampler_commit, which puts it in as one undoable edit.
#include "song/edit_sampler.h"

#include <cmath>
#include <cstdio>
#include <cstring>

#include "engine/file.h"
#include "engine/log.h"
#include "engine/memory.h"
#include "psynth/sample_edit.h"
#include "psynth/sample_file.h"
#include "song/edit_actions.h"

namespace {

constexpr int kVolumeMax = 64;
constexpr int kByteMax = 255;
constexpr int kRelativeNoteMin = -96;
constexpr int kRelativeNoteMax = 95;
constexpr int kFinetuneMin = -128;
constexpr int kFinetuneMax = 127;
constexpr int kEnvXMax = PSYNTH_SAMPLER_ENV_TICKS - 1;
constexpr int kEnvYMax = 64;
constexpr int kVibratoTypes = 4;
constexpr int kFadeoutMax = 65535;
constexpr int kRateMax = 1000000;
constexpr const char* kRecordingName = "recording";
constexpr int kCentrePanning = 128;

// Merge keys of the edits whose runs merge (par3 of their actions): kind << 8 | detail.
enum : uint32_t {
    kKeyHeader = 1 << 8,      // | slot
    kKeyLoop = 2 << 8,        // | slot
    kKeyEnvPoint = 3 << 8,    // | env << 4 | point
    kKeyVibrato = 4 << 8,
    kKeyFadeout = 5 << 8,
    kKeyInstrument = 6 << 8,
};

// A sample of the module as it is now.
struct slot_sample {
    const psynth_sampler_sample* header;
    psynth_sample_frames frames;  // its data (read only), as many frames as header and chunk both hold
    int flags;
    int rate;                     // the chunk's, 44100 when it has none
};

psynth_net* net_of(const zelfon_song* song) { return song->net; }

bool is_sampler(int mod, const zelfon_song* song) {
    return zelfon_edit_synth(mod, song) && psynth_sampler_get_mutex(mod, net_of(song));
}

int find_sample(int mod, int slot, const zelfon_song* song, slot_sample* s) {
    if (!is_sampler(mod, song)) return ZELFON_EDIT_NO_MODULE;
    if (slot < 0 || slot >= PSYNTH_SAMPLER_SAMPLES) return ZELFON_EDIT_NO_SAMPLE;
    psynth_net* net = net_of(song);
    int header_size = 0, size = 0;
    s->header = (const psynth_sampler_sample*)psynth_get_chunk(mod, psynth_sampler_header_chunk(slot), net);
    uint8_t* data = (uint8_t*)psynth_get_chunk(mod, psynth_sampler_data_chunk(slot), net);
    psynth_get_chunk_info(mod, psynth_sampler_header_chunk(slot), &header_size, nullptr, nullptr, net);
    psynth_get_chunk_info(mod, psynth_sampler_data_chunk(slot), &size, &s->flags, &s->rate, net);
    if (!s->header || header_size < (int)sizeof(psynth_sampler_sample) || !data) return ZELFON_EDIT_NO_SAMPLE;
    const int format = (s->header->type & PSYNTH_SAMPLER_FORMAT_MASK) >> PSYNTH_SAMPLER_FORMAT_SHIFT;
    s->frames = {data, format, s->header->type & PSYNTH_SAMPLER_STEREO ? 2 : 1, 0};
    const int fb = psynth_sample_frame_bytes(s->frames);
    if (!fb) return ZELFON_EDIT_NO_SAMPLE;
    s->frames.frames = s->header->length < (uint32_t)(size / fb) ? s->header->length : size / fb;
    if (s->rate <= 0) s->rate = PSYNTH_SAMPLE_DEFAULT_RATE;
    return ZELFON_EDIT_OK;
}

int check_selection(const slot_sample& s, int start, int length) {
    return start >= 0 && length > 0 && (int64_t)start + length <= s.frames.frames ? ZELFON_EDIT_OK : ZELFON_EDIT_OUTSIDE;
}

// A new data block of `frames` frames shaped like sample s (format, channels), zeroed.
psynth_sample_frames new_frames(const psynth_sample_frames& like, int64_t frames) {
    psynth_sample_frames f = {nullptr, like.format, like.channels, frames};
    const int64_t bytes = frames * psynth_sample_frame_bytes(like);
    if (bytes <= INT32_MAX) f.data = (uint8_t*)mem_new(MEM_DYNAMIC, (size_t)bytes, "sampler_edit");
    if (f.data) memset(f.data, 0, (size_t)bytes);
    return f;
}

// Commits a sample's new header and frames (data null: the header alone).
int commit_sample(int mod, int slot, uint32_t key, const psynth_sampler_sample& header, uint8_t* data, int flags, int rate,
                  zelfon_song* song) {
    auto* h = (psynth_sampler_sample*)mem_new(MEM_DYNAMIC, sizeof(header), "sampler_edit");
    if (!h) {
        mem_free(data);
        return ZELFON_EDIT_NO_MEMORY;
    }
    *h = header;
    int header_flags = 0, header_rate = 0;
    psynth_get_chunk_info(mod, psynth_sampler_header_chunk(slot), nullptr, &header_flags, &header_rate, net_of(song));
    zelfon_chunk_block blocks[2] = {{psynth_sampler_header_chunk(slot), h, header_flags, header_rate},
                                    {psynth_sampler_data_chunk(slot), data, flags, rate}};
    return zelfon_sampler_commit(mod, slot, key, blocks, data ? 2 : 1, song);
}

// Where frame p of a sample lands when `removed` frames at `at` give way to `inserted` ones
// (a frame inside the removed run lands at `at`).
int64_t moved(int64_t p, int64_t at, int64_t removed, int64_t inserted) {
    if (p < at) return p;
    if (p < at + removed) return at;
    return p - removed + inserted;
}

// The header's loop after such a change; a loop that shrinks to nothing is switched off.
void move_loop(psynth_sampler_sample* h, int64_t at, int64_t removed, int64_t inserted, int64_t frames) {
    int64_t start = moved(h->loop_start, at, removed, inserted);
    int64_t end = moved((int64_t)h->loop_start + h->loop_length, at, removed, inserted);
    end = end > frames ? frames : end;
    if (end <= start) {
        h->loop_start = 0;
        h->loop_length = 0;
        h->type &= ~PSYNTH_SAMPLER_LOOP_MASK;
        return;
    }
    h->loop_start = (uint32_t)start;
    h->loop_length = (uint32_t)(end - start);
}

// Replaces `removed` frames at `at` with the frames of `insert` (converted), or with
// nothing: the common ground of cut and paste.
int splice(int mod, int slot, const slot_sample& s, int64_t at, int64_t removed, const psynth_sample_frames* insert,
           zelfon_song* song) {
    const int64_t inserted = insert ? insert->frames : 0;
    const int64_t frames = s.frames.frames - removed + inserted;
    psynth_sample_frames out = new_frames(s.frames, frames);
    if (!out.data) return ZELFON_EDIT_NO_MEMORY;
    psynth_sample_convert(s.frames, 0, out, 0, at);
    if (insert) psynth_sample_convert(*insert, 0, out, at, inserted);
    psynth_sample_convert(s.frames, at + removed, out, at + inserted, s.frames.frames - at - removed);
    psynth_sampler_sample h = *s.header;
    h.length = (uint32_t)frames;
    move_loop(&h, at, removed, inserted, frames);
    return commit_sample(mod, slot, 0, h, out.data, s.flags, s.rate, song);
}

// The instrument record as it is now, copied for an edit (null: NO_MODULE or NO_MEMORY in *code).
psynth_sampler_instrument* instrument_copy(int mod, const zelfon_song* song, int* code) {
    *code = ZELFON_EDIT_NO_MODULE;
    if (!is_sampler(mod, song)) return nullptr;
    int size = 0;
    const void* now = psynth_get_chunk(mod, PSYNTH_SAMPLER_INSTRUMENT_CHUNK, net_of(song));
    psynth_get_chunk_info(mod, PSYNTH_SAMPLER_INSTRUMENT_CHUNK, &size, nullptr, nullptr, net_of(song));
    *code = ZELFON_EDIT_NO_MEMORY;
    auto* ins = (psynth_sampler_instrument*)mem_new(MEM_DYNAMIC, sizeof(psynth_sampler_instrument), "sampler_edit");
    if (!ins) return nullptr;
    memset(ins, 0, sizeof(*ins));
    if (now && size >= (int)sizeof(*ins)) memcpy(ins, now, sizeof(*ins));
    else psynth_sampler_write_default_instrument(ins);
    *code = ZELFON_EDIT_OK;
    return ins;
}

int commit_instrument(int mod, uint32_t key, psynth_sampler_instrument* ins, zelfon_song* song) {
    psynth_sampler_build_envelope_tables(ins);
    zelfon_chunk_block b = {PSYNTH_SAMPLER_INSTRUMENT_CHUNK, ins, 0, 0};
    return zelfon_sampler_commit(mod, -1, key, &b, 1, song);
}

// A new sample of its own in `slot`: header, frames and the instrument's sample count.
int commit_new_sample(int mod, int slot, const psynth_sampler_sample& header, uint8_t* data, int rate, zelfon_song* song) {
    int code;
    psynth_sampler_instrument* ins = instrument_copy(mod, song, &code);
    auto* h = (psynth_sampler_sample*)mem_new(MEM_DYNAMIC, sizeof(header), "sampler_edit");
    if (!ins || !h) {
        mem_free(ins);
        mem_free(h);
        mem_free(data);
        return ins ? ZELFON_EDIT_NO_MEMORY : code;
    }
    *h = header;
    if (ins->samples_num < slot + 1) ins->samples_num = (uint16_t)(slot + 1);
    zelfon_chunk_block blocks[3] = {{PSYNTH_SAMPLER_INSTRUMENT_CHUNK, ins, 0, 0},
                                    {psynth_sampler_header_chunk(slot), h, 0, 0},
                                    {psynth_sampler_data_chunk(slot), data, psynth_sampler_storage_flags(header.type), rate}};
    return zelfon_sampler_commit(mod, slot, 0, blocks, 3, song);
}

// A processing command on a copy of the whole sample: `process(frames)` changes the copy;
// returning non-zero drops the edit (nothing to change).
template <class F>
int process_copy(int mod, int slot, int start, int length, zelfon_song* song, F process) {
    slot_sample s;
    if (int code = find_sample(mod, slot, song, &s)) return code;
    if (int code = check_selection(s, start, length)) return code;
    psynth_sample_frames copy = new_frames(s.frames, s.frames.frames);
    if (!copy.data) return ZELFON_EDIT_NO_MEMORY;
    psynth_sample_convert(s.frames, 0, copy, 0, s.frames.frames);
    if (process(copy)) {
        mem_free(copy.data);
        return ZELFON_EDIT_OK;
    }
    return commit_sample(mod, slot, 0, *s.header, copy.data, s.flags, s.rate, song);
}

// Resamples the whole sample to `frames` frames at chunk rate `rate`, raising its pitch by
// the stretch so that it sounds the same.
int resample(int mod, int slot, const slot_sample& s, int64_t frames, int rate, zelfon_song* song) {
    if (frames <= 0 || frames > INT32_MAX) return ZELFON_EDIT_OUTSIDE;
    psynth_sample_frames out = new_frames(s.frames, frames);
    if (!out.data) return ZELFON_EDIT_NO_MEMORY;
    if (psynth_sample_resample(s.frames, out)) {
        mem_free(out.data);
        return ZELFON_EDIT_NO_MEMORY;
    }
    const double ratio = (double)frames / (double)s.frames.frames;
    psynth_sampler_sample h = *s.header;
    h.length = (uint32_t)frames;
    const int64_t loop_start = std::llround(h.loop_start * ratio);
    const int64_t loop_end = std::llround(((double)h.loop_start + h.loop_length) * ratio);
    h.loop_start = (uint32_t)(loop_start < frames ? loop_start : 0);
    h.loop_length = (uint32_t)(loop_end > frames ? frames - h.loop_start : loop_end > (int64_t)h.loop_start ? loop_end - h.loop_start : 0);
    psynth_sample_set_pitch_periods(
        psynth_sample_pitch_periods(h.relative_note, h.finetune) + psynth_sample_periods_for_ratio(ratio), &h.relative_note,
        &h.finetune);
    return commit_sample(mod, slot, 0, h, out.data, s.flags, rate, song);
}

bool in_range(int v, int lo, int hi) { return v >= lo && v <= hi; }

psynth_sampler_env_point* env_points(psynth_sampler_instrument* ins, int env) {
    return env == ZELFON_SAMPLER_ENV_VOLUME ? ins->volume_points : ins->panning_points;
}
uint8_t* env_count(psynth_sampler_instrument* ins, int env) {
    return env == ZELFON_SAMPLER_ENV_VOLUME ? &ins->volume_points_num : &ins->panning_points_num;
}
uint8_t* env_type(psynth_sampler_instrument* ins, int env) {
    return env == ZELFON_SAMPLER_ENV_VOLUME ? &ins->volume_type : &ins->panning_type;
}

// The sustain, loop start and loop end point indices of an envelope.
void markers_of(psynth_sampler_instrument* ins, int env, uint8_t* m[3]) {
    const bool volume = env == ZELFON_SAMPLER_ENV_VOLUME;
    m[0] = volume ? &ins->volume_sustain : &ins->panning_sustain;
    m[1] = volume ? &ins->volume_loop_start : &ins->panning_loop_start;
    m[2] = volume ? &ins->volume_loop_end : &ins->panning_loop_end;
}

// Calls f on each marker of an envelope with `point` and the envelope's point count.
void each_marker(psynth_sampler_instrument* ins, int env, void (*f)(uint8_t* marker, int point, int count), int point) {
    uint8_t* m[3];
    markers_of(ins, env, m);
    for (uint8_t* marker : m) f(marker, point, *env_count(ins, env));
}

struct load_call {
    int mod, slot, flags, format, channels, raw;
    const char* path;
    psynth_net* net;
};

int run_load(void* context) {
    const load_call* c = (const load_call*)context;
    return c->raw ? psynth_sample_load_raw(c->path, c->format, c->channels, c->mod, c->slot, c->net)
                  : psynth_sample_load(c->path, c->mod, c->slot, c->flags, c->net);
}

constexpr int kLoadChunks = 1 + 2 * PSYNTH_SAMPLER_SAMPLES;

// The chunks a load into `slot` may change: the instrument and the slot's two, or with
// slot −1 every chunk. Returns their count.
int chunks_of_load(int slot, int* chunks) {
    int count = 0;
    chunks[count++] = PSYNTH_SAMPLER_INSTRUMENT_CHUNK;
    for (int s = 0; s < PSYNTH_SAMPLER_SAMPLES; s++) {
        if (slot >= 0 && s != slot) continue;
        chunks[count++] = psynth_sampler_header_chunk(s);
        chunks[count++] = psynth_sampler_data_chunk(s);
    }
    return count;
}

// Runs a loader as one edit of the chunks it may change (chunks_of_load).
int record_load(int mod, int slot, load_call* call, zelfon_song* song) {
    if (!is_sampler(mod, song)) return ZELFON_EDIT_NO_MODULE;
    if (slot < PSYNTH_SAMPLE_SLOT_INSTRUMENT || slot >= PSYNTH_SAMPLER_SAMPLES) return ZELFON_EDIT_OUTSIDE;
    int chunks[kLoadChunks];
    const int count = chunks_of_load(slot, chunks);
    int result = 0;
    if (int code = zelfon_sampler_record_change(mod, slot, chunks, count, run_load, call, &result, song)) return code;
    return result ? ZELFON_EDIT_LOAD_FAILED : ZELFON_EDIT_OK;
}

}  // namespace

// ---- Frames ----

zelfon_sample_clip* zelfon_sample_copy(int mod, int slot, int start, int length, const zelfon_song* song) {
    slot_sample s;
    if (find_sample(mod, slot, song, &s) || check_selection(s, start, length)) return nullptr;
    const int fb = psynth_sample_frame_bytes(s.frames);
    auto* c = (zelfon_sample_clip*)mem_new(MEM_DYNAMIC, sizeof(zelfon_sample_clip) + (size_t)length * fb, "zelfon_sample_copy");
    if (!c) return nullptr;
    c->header = *s.header;
    c->header.length = (uint32_t)length;
    c->header.loop_start = 0;
    c->header.loop_length = 0;
    c->header.type &= ~PSYNTH_SAMPLER_LOOP_MASK;
    c->rate = s.rate;
    c->reserved = 0;
    memcpy(zelfon_sample_clip_frames(c), s.frames.data + (size_t)start * fb, (size_t)length * fb);
    return c;
}

int zelfon_edit_sample_cut(int mod, int slot, int start, int length, zelfon_sample_clip** clip, zelfon_song* song) {
    slot_sample s;
    if (int code = find_sample(mod, slot, song, &s)) return code;
    if (int code = check_selection(s, start, length)) return code;
    zelfon_sample_clip* c = clip ? zelfon_sample_copy(mod, slot, start, length, song) : nullptr;
    if (clip && !c) return ZELFON_EDIT_NO_MEMORY;
    const int code = splice(mod, slot, s, start, length, nullptr, song);
    if (clip && code == ZELFON_EDIT_OK) *clip = c;
    else mem_free(c);
    return code;
}

int zelfon_edit_sample_paste(int mod, int slot, int at, int replace, const zelfon_sample_clip* clip, zelfon_song* song) {
    if (!clip || clip->header.length == 0) return ZELFON_EDIT_OUTSIDE;
    const int format = (clip->header.type & PSYNTH_SAMPLER_FORMAT_MASK) >> PSYNTH_SAMPLER_FORMAT_SHIFT;
    const psynth_sample_frames from = {zelfon_sample_clip_frames((zelfon_sample_clip*)clip), format,
                                       clip->header.type & PSYNTH_SAMPLER_STEREO ? 2 : 1, clip->header.length};
    const int64_t bytes = from.frames * psynth_sample_frame_bytes(from);
    if (!psynth_sample_frame_bytes(from) || mem_get_size(clip) < sizeof(*clip) + (size_t)bytes) return ZELFON_EDIT_OUTSIDE;
    slot_sample s;
    const int code = find_sample(mod, slot, song, &s);
    if (code == ZELFON_EDIT_NO_SAMPLE && slot >= 0 && slot < PSYNTH_SAMPLER_SAMPLES && at == 0 && replace == 0) {
        uint8_t* data = (uint8_t*)mem_new(MEM_DYNAMIC, (size_t)bytes, "sampler_edit");
        if (!data) return ZELFON_EDIT_NO_MEMORY;
        memcpy(data, from.data, (size_t)bytes);
        return commit_new_sample(mod, slot, clip->header, data, clip->rate, song);
    }
    if (code) return code;
    if (at < 0 || replace < 0 || (int64_t)at + replace > s.frames.frames) return ZELFON_EDIT_OUTSIDE;
    if (s.frames.frames - replace + from.frames > INT32_MAX) return ZELFON_EDIT_OUTSIDE;
    return splice(mod, slot, s, at, replace, &from, song);
}

int zelfon_edit_sample_crop(int mod, int slot, int start, int length, zelfon_song* song) {
    slot_sample s;
    if (int code = find_sample(mod, slot, song, &s)) return code;
    if (int code = check_selection(s, start, length)) return code;
    psynth_sample_frames out = new_frames(s.frames, length);
    if (!out.data) return ZELFON_EDIT_NO_MEMORY;
    psynth_sample_convert(s.frames, start, out, 0, length);
    psynth_sampler_sample h = *s.header;
    h.length = (uint32_t)length;
    move_loop(&h, 0, start, 0, s.frames.frames - start);  // the frames before the selection go
    move_loop(&h, length, s.frames.frames - start - length, 0, length);  // and those after it
    return commit_sample(mod, slot, 0, h, out.data, s.flags, s.rate, song);
}

int zelfon_edit_sample_reverse(int mod, int slot, int start, int length, zelfon_song* song) {
    return process_copy(mod, slot, start, length, song, [&](const psynth_sample_frames& f) {
        psynth_sample_reverse(f, start, length);
        return 0;
    });
}

int zelfon_edit_sample_normalize(int mod, int slot, int start, int length, zelfon_song* song) {
    return process_copy(mod, slot, start, length, song,
                        [&](const psynth_sample_frames& f) { return psynth_sample_normalize(f, start, length); });
}

int zelfon_edit_sample_fade(int mod, int slot, int start, int length, int fade_in, zelfon_song* song) {
    return process_copy(mod, slot, start, length, song, [&](const psynth_sample_frames& f) {
        psynth_sample_fade(f, start, length, fade_in != 0);
        return 0;
    });
}

int zelfon_edit_sample_set_rate(int mod, int slot, int rate, zelfon_song* song) {
    slot_sample s;
    if (int code = find_sample(mod, slot, song, &s)) return code;
    if (!in_range(rate, 1, kRateMax)) return ZELFON_EDIT_OUTSIDE;
    psynth_sampler_sample h = *s.header;
    psynth_sample_set_pitch_periods(psynth_sample_pitch_periods(h.relative_note, h.finetune) +
                                        psynth_sample_periods_for_ratio((double)rate / s.rate),
                                    &h.relative_note, &h.finetune);
    // The frames stay: a copy of them goes in with the new rate.
    int size = 0;
    psynth_get_chunk_info(mod, psynth_sampler_data_chunk(slot), &size, nullptr, nullptr, net_of(song));
    uint8_t* data = (uint8_t*)mem_new(MEM_DYNAMIC, (size_t)size, "sampler_edit");
    if (!data) return ZELFON_EDIT_NO_MEMORY;
    memcpy(data, s.frames.data, (size_t)size);
    return commit_sample(mod, slot, 0, h, data, s.flags, rate, song);
}

int zelfon_edit_sample_resample_rate(int mod, int slot, int rate, zelfon_song* song) {
    slot_sample s;
    if (int code = find_sample(mod, slot, song, &s)) return code;
    if (!in_range(rate, 1, kRateMax) || s.frames.frames == 0) return ZELFON_EDIT_OUTSIDE;
    return resample(mod, slot, s, std::llround((double)s.frames.frames * rate / s.rate), rate, song);
}

int zelfon_edit_sample_resample_length(int mod, int slot, int frames, zelfon_song* song) {
    slot_sample s;
    if (int code = find_sample(mod, slot, song, &s)) return code;
    if (frames <= 0 || s.frames.frames == 0) return ZELFON_EDIT_OUTSIDE;
    const int64_t rate = std::llround((double)s.rate * frames / (double)s.frames.frames);
    return resample(mod, slot, s, frames, (int)(rate < 1 ? 1 : rate > kRateMax ? kRateMax : rate), song);
}

// ---- Sample header ----

int zelfon_edit_sample_loop(int mod, int slot, int start, int length, int type, zelfon_song* song) {
    slot_sample s;
    if (int code = find_sample(mod, slot, song, &s)) return code;
    if (type < PSYNTH_SAMPLER_LOOP_OFF || type > PSYNTH_SAMPLER_LOOP_PINGPONG || start < 0 || length < 0 ||
        (int64_t)start + length > s.frames.frames || (type != PSYNTH_SAMPLER_LOOP_OFF && length == 0)) {
        return ZELFON_EDIT_OUTSIDE;
    }
    psynth_sampler_sample h = *s.header;
    h.loop_start = (uint32_t)start;
    h.loop_length = (uint32_t)length;
    h.type = (uint8_t)((h.type & ~PSYNTH_SAMPLER_LOOP_MASK) | type);
    return commit_sample(mod, slot, kKeyLoop | (uint32_t)slot, h, nullptr, 0, 0, song);
}

int zelfon_edit_sample_header(int mod, int slot, int volume, int panning, int relative_note, int finetune,
                              zelfon_song* song) {
    slot_sample s;
    if (int code = find_sample(mod, slot, song, &s)) return code;
    if (!in_range(volume, 0, kVolumeMax) || !in_range(panning, 0, kByteMax) ||
        !in_range(relative_note, kRelativeNoteMin, kRelativeNoteMax) || !in_range(finetune, kFinetuneMin, kFinetuneMax)) {
        return ZELFON_EDIT_OUTSIDE;
    }
    psynth_sampler_sample h = *s.header;
    h.volume = (uint8_t)volume;
    h.panning = (uint8_t)panning;
    h.relative_note = (int8_t)relative_note;
    h.finetune = (int8_t)finetune;
    return commit_sample(mod, slot, kKeyHeader | (uint32_t)slot, h, nullptr, 0, 0, song);
}

int zelfon_edit_sample_name(int mod, int slot, const char* name, zelfon_song* song) {
    slot_sample s;
    if (int code = find_sample(mod, slot, song, &s)) return code;
    psynth_sampler_sample h = *s.header;
    memset(h.name, 0, sizeof(h.name));
    if (name) memcpy(h.name, name, strnlen(name, sizeof(h.name)));
    return commit_sample(mod, slot, 0, h, nullptr, 0, 0, song);
}

// ---- Instrument ----

int zelfon_edit_sampler_note_map(int mod, int first, int last, int sample, zelfon_song* song) {
    if (!in_range(first, 0, PSYNTH_SAMPLER_NOTES - 1) || !in_range(last, first, PSYNTH_SAMPLER_NOTES - 1) ||
        !in_range(sample, 0, PSYNTH_SAMPLER_SAMPLES - 1)) {
        return is_sampler(mod, song) ? ZELFON_EDIT_OUTSIDE : ZELFON_EDIT_NO_MODULE;
    }
    int code;
    psynth_sampler_instrument* ins = instrument_copy(mod, song, &code);
    if (!ins) return code;
    memset(ins->sample_map + first, sample, (size_t)(last - first + 1));
    return commit_instrument(mod, 0, ins, song);
}

int zelfon_edit_sampler_env_add(int mod, int env, int x, int y, int* index, zelfon_song* song) {
    int code;
    psynth_sampler_instrument* ins = instrument_copy(mod, song, &code);
    if (!ins) return code;
    psynth_sampler_env_point* p = env_points(ins, env);
    uint8_t* count = env_count(ins, env);
    int at = 0;
    while (at < *count && p[at].x < x) at++;
    if ((env != ZELFON_SAMPLER_ENV_VOLUME && env != ZELFON_SAMPLER_ENV_PANNING) || !in_range(x, 0, kEnvXMax) ||
        !in_range(y, 0, kEnvYMax) || *count >= PSYNTH_SAMPLER_ENV_POINTS || (at < *count && p[at].x == x)) {
        mem_free(ins);
        return ZELFON_EDIT_OUTSIDE;
    }
    memmove(p + at + 1, p + at, sizeof(*p) * (size_t)(*count - at));
    p[at] = {(uint16_t)x, (uint16_t)y};
    (*count)++;
    each_marker(ins, env, [](uint8_t* m, int point, int) { if (*m >= point) (*m)++; }, at);
    if (index) *index = at;
    return commit_instrument(mod, 0, ins, song);
}

int zelfon_edit_sampler_env_move(int mod, int env, int point, int x, int y, zelfon_song* song) {
    int code;
    psynth_sampler_instrument* ins = instrument_copy(mod, song, &code);
    if (!ins) return code;
    psynth_sampler_env_point* p = env_points(ins, env);
    const int count = *env_count(ins, env);
    if ((env != ZELFON_SAMPLER_ENV_VOLUME && env != ZELFON_SAMPLER_ENV_PANNING) || !in_range(point, 0, count - 1) ||
        !in_range(y, 0, kEnvYMax)) {
        mem_free(ins);
        return ZELFON_EDIT_OUTSIDE;
    }
    const int lo = point == 0 ? 0 : p[point - 1].x + 1;
    const int hi = point == 0 ? 0 : point + 1 < count ? p[point + 1].x - 1 : kEnvXMax;
    p[point] = {(uint16_t)(x < lo ? lo : x > hi ? hi : x), (uint16_t)y};
    return commit_instrument(mod, kKeyEnvPoint | (uint32_t)(env << 4 | point), ins, song);
}

int zelfon_edit_sampler_env_remove(int mod, int env, int point, zelfon_song* song) {
    int code;
    psynth_sampler_instrument* ins = instrument_copy(mod, song, &code);
    if (!ins) return code;
    psynth_sampler_env_point* p = env_points(ins, env);
    uint8_t* count = env_count(ins, env);
    if ((env != ZELFON_SAMPLER_ENV_VOLUME && env != ZELFON_SAMPLER_ENV_PANNING) || !in_range(point, 1, *count - 1)) {
        mem_free(ins);
        return ZELFON_EDIT_OUTSIDE;
    }
    memmove(p + point, p + point + 1, sizeof(*p) * (size_t)(*count - point - 1));
    (*count)--;
    p[*count] = {0, 0};
    each_marker(ins, env, [](uint8_t* m, int removed, int left) {
        if (*m > removed) (*m)--;
        if (*m >= left) *m = (uint8_t)(left - 1);
    }, point);
    return commit_instrument(mod, 0, ins, song);
}

int zelfon_edit_sampler_env_markers(int mod, int env, int type, int sustain, int loop_start, int loop_end,
                                    zelfon_song* song) {
    int code;
    psynth_sampler_instrument* ins = instrument_copy(mod, song, &code);
    if (!ins) return code;
    const int count = *env_count(ins, env);
    const int all = PSYNTH_SAMPLER_ENV_ON | PSYNTH_SAMPLER_ENV_SUSTAIN | PSYNTH_SAMPLER_ENV_LOOP;
    if ((env != ZELFON_SAMPLER_ENV_VOLUME && env != ZELFON_SAMPLER_ENV_PANNING) || (type & ~all) ||
        !in_range(sustain, 0, count - 1) || !in_range(loop_start, 0, count - 1) || !in_range(loop_end, loop_start, count - 1)) {
        mem_free(ins);
        return ZELFON_EDIT_OUTSIDE;
    }
    *env_type(ins, env) = (uint8_t)type;
    uint8_t* m[3];
    markers_of(ins, env, m);
    *m[0] = (uint8_t)sustain;
    *m[1] = (uint8_t)loop_start;
    *m[2] = (uint8_t)loop_end;
    return commit_instrument(mod, 0, ins, song);
}

int zelfon_edit_sampler_vibrato(int mod, int type, int sweep, int depth, int rate, zelfon_song* song) {
    int code;
    psynth_sampler_instrument* ins = instrument_copy(mod, song, &code);
    if (!ins) return code;
    if (!in_range(type, 0, kVibratoTypes - 1) || !in_range(sweep, 0, kByteMax) || !in_range(depth, 0, kByteMax) ||
        !in_range(rate, 0, kByteMax)) {
        mem_free(ins);
        return ZELFON_EDIT_OUTSIDE;
    }
    ins->vibrato_type = (uint8_t)type;
    ins->vibrato_sweep = (uint8_t)sweep;
    ins->vibrato_depth = (uint8_t)depth;
    ins->vibrato_rate = (uint8_t)rate;
    return commit_instrument(mod, kKeyVibrato, ins, song);
}

int zelfon_edit_sampler_fadeout(int mod, int fadeout, zelfon_song* song) {
    int code;
    psynth_sampler_instrument* ins = instrument_copy(mod, song, &code);
    if (!ins) return code;
    if (!in_range(fadeout, 0, kFadeoutMax)) {
        mem_free(ins);
        return ZELFON_EDIT_OUTSIDE;
    }
    ins->volume_fadeout = (uint16_t)fadeout;
    return commit_instrument(mod, kKeyFadeout, ins, song);
}

int zelfon_edit_sampler_instrument(int mod, int volume, int panning, int relative_note, int finetune,
                                   zelfon_song* song) {
    int code;
    psynth_sampler_instrument* ins = instrument_copy(mod, song, &code);
    if (!ins) return code;
    if (!in_range(volume, 0, kVolumeMax) || !in_range(panning, 0, kByteMax) ||
        !in_range(relative_note, kRelativeNoteMin, kRelativeNoteMax) || !in_range(finetune, kFinetuneMin, kFinetuneMax)) {
        mem_free(ins);
        return ZELFON_EDIT_OUTSIDE;
    }
    ins->volume = (uint8_t)volume;
    ins->panning = (uint8_t)panning;
    ins->relative_note = (int8_t)relative_note;
    ins->finetune = (int8_t)finetune;
    return commit_instrument(mod, kKeyInstrument, ins, song);
}

// ---- Files and new samples ----

int zelfon_edit_sampler_load(int mod, int slot, const char* path, int flags, zelfon_song* song) {
    load_call call = {mod, slot, flags, 0, 0, 0, path, net_of(song)};
    return record_load(mod, slot, &call, song);
}

int zelfon_edit_sampler_load_raw(int mod, int slot, const char* path, int format, int channels, zelfon_song* song) {
    load_call call = {mod, slot, 0, format, channels, 1, path, net_of(song)};
    return record_load(mod, slot, &call, song);
}

int zelfon_edit_sample_new(int mod, int slot, int frames, int bits, int channels, int rate, zelfon_song* song) {
    struct new_call {
        load_call base;
        int frames, bits, rate;
    } call = {{mod, slot, 0, 0, channels, 0, nullptr, net_of(song)}, frames, bits, rate};
    if (!is_sampler(mod, song)) return ZELFON_EDIT_NO_MODULE;
    if (frames < 0 || (bits != 8 && bits != 16 && bits != 32) || (channels != 1 && channels != 2) || !in_range(rate, 1, kRateMax) ||
        slot < PSYNTH_SAMPLE_SLOT_INSTRUMENT || slot >= PSYNTH_SAMPLER_SAMPLES) {
        return ZELFON_EDIT_OUTSIDE;
    }
    int chunks[kLoadChunks];
    const int count = chunks_of_load(slot, chunks);
    int result = 0;
    const int code = zelfon_sampler_record_change(
        mod, slot, chunks, count,
        [](void* context) {
            const new_call* c = (const new_call*)context;
            return psynth_sample_new(c->frames, c->bits, c->base.channels, c->rate, c->base.mod, c->base.slot, c->base.net);
        },
        &call, &result, song);
    return code ? code : result ? ZELFON_EDIT_NO_MEMORY : ZELFON_EDIT_OK;
}

int zelfon_sampler_save_wav(int mod, int slot, const char* path, const zelfon_song* song) {
    if (!is_sampler(mod, song)) return ZELFON_EDIT_NO_MODULE;
    return psynth_sample_save_wav(path, mod, slot, net_of(song)) ? ZELFON_EDIT_NO_SAMPLE : ZELFON_EDIT_OK;
}

int zelfon_sampler_save_xi(int mod, const char* path, const zelfon_song* song) {
    if (!is_sampler(mod, song)) return ZELFON_EDIT_NO_MODULE;
    return psynth_sample_save_xi(path, mod, net_of(song)) ? ZELFON_EDIT_NO_SAMPLE : ZELFON_EDIT_OK;
}

// ---- Recording ----

namespace {

constexpr int kPathSize = 64;
constexpr const char* kRecordingFile = "3:/sampler_%d_recording";
constexpr const char* kRecordingWriteError = "Sample recording error: can't write to file\n";
constexpr const char* kRecordingLost = "Sample recording error: frames lost\n";

void recording_path(int mod, char* path) { snprintf(path, kPathSize, kRecordingFile, mod); }

int64_t file_size(const char* path) {
    int h = v3_open(path, "rb");
    if (!h) return 0;
    v3_seek(h, 0, V3_SEEK_END);
    const int64_t size = v3_tell(h);
    v3_close(h);
    return size;
}

}  // namespace

int zelfon_sampler_record(int mod, int on, int every_second_frame, zelfon_song* song) {
    if (!is_sampler(mod, song)) return ZELFON_EDIT_NO_MODULE;
    char path[kPathSize];
    recording_path(mod, path);
    v3_remove(path);
    return psynth_sampler_record(mod, on, every_second_frame, net_of(song)) ? ZELFON_EDIT_NO_MEMORY : ZELFON_EDIT_OK;
}

int zelfon_sampler_record_drain(int mod, zelfon_song* song) {
    if (!is_sampler(mod, song)) return ZELFON_EDIT_NO_MODULE;
    psynth_net* net = net_of(song);
    tarvik_mutex* mutex = psynth_sampler_get_mutex(mod, net);
    int channels = 0;
    tarvik_mutex_lock(mutex);
    const bool armed = psynth_sampler_get_take(mod, &channels, nullptr, net) != nullptr;
    tarvik_mutex_unlock(mutex);
    if (!armed) return ZELFON_EDIT_NO_SAMPLE;
    // The block is made before the lock: the ring is copied out under it, written after.
    const size_t frame_bytes = sizeof(int16_t) * (size_t)channels;
    auto* copy = (int16_t*)mem_new(MEM_DYNAMIC, frame_bytes * PSYNTH_SAMPLER_RECORD_FRAMES, "sampler_drain");
    if (!copy) return ZELFON_EDIT_NO_MEMORY;
    char path[kPathSize];
    recording_path(mod, path);
    const int64_t drained = file_size(path) / (int64_t)frame_bytes;  // the frames the file holds
    uint32_t written = 0;
    tarvik_mutex_lock(mutex);
    const int16_t* ring = psynth_sampler_get_take(mod, nullptr, &written, net);
    int64_t first = drained, count = ring ? (int64_t)written - drained : 0;
    if (count > PSYNTH_SAMPLER_RECORD_FRAMES) {  // the ring went round more than once since
        first = (int64_t)written - PSYNTH_SAMPLER_RECORD_FRAMES;
        count = PSYNTH_SAMPLER_RECORD_FRAMES;
    }
    for (int64_t f = 0; f < count; f++) {
        memcpy(copy + f * channels, ring + ((first + f) % PSYNTH_SAMPLER_RECORD_FRAMES) * channels, frame_bytes);
    }
    tarvik_mutex_unlock(mutex);
    if (first != drained) tarvik_log("%s", kRecordingLost);
    int code = ZELFON_EDIT_OK;
    if (count > 0) {
        int h = v3_open(path, "ab");
        bool ok = h && v3_write(copy, frame_bytes, (size_t)count, h) == (size_t)count;
        if (h && v3_close(h)) ok = false;
        if (!ok) {
            tarvik_log("%s", kRecordingWriteError);
            code = ZELFON_EDIT_LOAD_FAILED;
        }
    }
    mem_free(copy);
    return code;
}

int zelfon_edit_sample_from_recording(int mod, int slot, int rate, zelfon_song* song) {
    if (!is_sampler(mod, song)) return ZELFON_EDIT_NO_MODULE;
    if (slot < 0 || slot >= PSYNTH_SAMPLER_SAMPLES || !in_range(rate, 1, kRateMax)) return ZELFON_EDIT_OUTSIDE;
    psynth_net* net = net_of(song);
    int channels = 0;
    tarvik_mutex_lock(psynth_sampler_get_mutex(mod, net));
    const bool armed = psynth_sampler_get_take(mod, &channels, nullptr, net) != nullptr;
    tarvik_mutex_unlock(psynth_sampler_get_mutex(mod, net));
    if (!armed) return ZELFON_EDIT_NO_SAMPLE;
    if (int code = zelfon_sampler_record_drain(mod, song)) return code;
    char path[kPathSize];
    recording_path(mod, path);
    const int64_t bytes = file_size(path);
    const int64_t frames = bytes / (int64_t)(sizeof(int16_t) * channels);
    if (frames == 0) return ZELFON_EDIT_NO_SAMPLE;
    if (bytes > INT32_MAX) return ZELFON_EDIT_NO_MEMORY;
    uint8_t* data = (uint8_t*)mem_new(MEM_DYNAMIC, (size_t)bytes, "sampler_recording");
    if (!data) return ZELFON_EDIT_NO_MEMORY;
    int h = v3_open(path, "rb");
    const bool ok = h && v3_read(data, 1, (size_t)bytes, h) == (size_t)bytes;
    if (h) v3_close(h);
    if (!ok) {
        mem_free(data);
        return ZELFON_EDIT_LOAD_FAILED;
    }
    psynth_sampler_record(mod, 0, 0, net);
    v3_remove(path);
    psynth_sampler_sample header = {};
    header.length = (uint32_t)frames;
    header.volume = kVolumeMax;
    header.panning = kCentrePanning;
    header.type = (uint8_t)(PSYNTH_SAMPLER_FORMAT_INT16 << PSYNTH_SAMPLER_FORMAT_SHIFT | (channels == 2 ? PSYNTH_SAMPLER_STEREO : 0));
    header.finetune = (int8_t)psynth_sample_finetune_for_rate(rate);
    memcpy(header.name, kRecordingName, strlen(kRecordingName));
    return commit_new_sample(mod, slot, header, data, rate, song);
}
