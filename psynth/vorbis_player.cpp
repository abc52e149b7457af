// The Vorbis player: a polyphonic instrument of the sound net that plays an Ogg Vorbis file
// held in data chunk 0. The file is decoded with Tremor once, on the GUI thread, into one
// block of 16-bit frames; each voice plays that block at its own interpolated position.
//
// Controllers (registered at INIT in this order; values in the module's own units):
//
// | # | name             | units         | min  | max | default | kind     |
// |---|------------------|---------------|------|-----|---------|----------|
// | 0 | "Volume"         | ""            | 0    | 512 | 256     | number   |
// | 1 | "Original speed" | "off/on"      | 0    | 1   | 0       | selector |
// | 2 | "Finetune"       | ""            | -256 | 256 | 0       | number   |
// | 3 | "Repeat"         | "off/on"      | 0    | 1   | 0       | selector |
// | 4 | "Polyphony"      | "ch."         | 1    | 16  | 8       | number   |
// | 5 | "Channels"       | "stereo/mono" | 0    | 1   | 0       | selector |
//
// Volume: 256 is unity: at full velocity (256) the file's full scale is the device's.
// Original speed: on, every note plays the file at its own speed; off, a note's pitch
//   relative to C5 sets the speed through the shared frequency table (C6 twice as fast).
//   The file's own sampling rate is always taken into account.
// Finetune: 1/256 semitone, upwards; it also tunes the original speed.
// Repeat: on, a note loops the whole file until it is released; off, it plays once and the
//   voice ends at the end of the file.
// Polyphony: voices a note may take; voices above a lowered limit are released.
// Channels: stereo gives two outputs (a mono file feeds both), mono one (a stereo file is
//   averaged).
//
// Data chunk 0: the Ogg Vorbis file's bytes, as loaded (storage flags 0: bytes; chunk rate:
// the file's sampling rate). SETUP_FINISHED decodes it; a chunk that is not a playable Ogg
// Vorbis file is logged and leaves the module silent.
// Decoding: the whole file goes into one block at load, up to PSYNTH_VORBIS_MAX_DECODED_BYTES
// (the rest of a longer file is left out, with a message in the log). Short sounds and whole
// songs then start at once on any note, any number of voices play one file without a decoder
// each, and the render never decodes, seeks or allocates.
// Voices: NOTE_ON takes, among the first Polyphony voices, a free one from the cursor on, else a
// releasing one, else the one after the cursor; a voice already holding the event's id is
// released first. NOTE_OFF fades the voice out over 10 ms so that it stops without a click; a
// volume or velocity change glides over 64 frames. Voices are summed with saturation.
// SET_SAMPLE_OFFSET moves a voice to a frame of the file (in the event's pitch field),
// SET_SAMPLE_OFFSET2 to a share of its length (0..32768 in the velocity field).
#include "psynth/vorbis_player.h"

#include <tremor/ivorbisfile.h>

#include <cstdio>
#include <cstring>

#include "engine/file.h"
#include "engine/log.h"
#include "engine/memory.h"
#include "psynth/psynth_dsp.h"
#include "psynth/psynth_modules.h"
#include "psynth/psynth_tables.h"
#include "psynth/psynth_voices.h"

namespace {

const char* const kName = "Vorbis player";
const char* const kInfo =
    "Vorbis player.\nPlays an Ogg Vorbis file. A note's pitch against C5 sets the speed, "
    "unless \"Original speed\" is on.";
const char* const kColor = "#7FD0FF";

constexpr int kMaxVoices = PSYNTH_VOICES_MAX;
constexpr int kMaxChannels = 2;
constexpr int kVolumeMax = 512;
constexpr int kFinetuneRange = 256;

// Play positions and steps: 32.32 fixed point frames.
constexpr int kPosFracBits = 32;
constexpr uint64_t kMaxStepFrames = 64;       // six octaves above the file's speed
constexpr int kWeightShift = 17;              // position fraction → 15-bit interpolation weight
constexpr int kWeightBits = 15;

// Gains: 1 << 20 is unity (volume 256 × velocity 256 × 16), so that a 64-frame glide
// keeps its fraction; the mix uses the top bits, 4096 for unity.
constexpr int kGainShift = 4;
constexpr int kGainToMixBits = 8;
// A 16-bit file frame × mix gain (4096 unity) >> 15 gives 13.3: full scale stays full scale.
constexpr int kMixBits = 15;
constexpr int kGlideFrames = 64;
constexpr int kReleaseMsPerSecond = 100;      // a release lasts 1/100 s

// Decoding.
constexpr int kReadBytes = 8192;              // ov_read's piece
constexpr int64_t kFramesPerFileByte = 8;     // the decoded block's first size: a 44 kbit/s stream at 44100 Hz
constexpr int kSampleBytes = 2;
constexpr int kMinRate = 1000;
constexpr int kMaxRate = 384000;
constexpr int kMaxHoles = 64;                 // gaps in a damaged stream skipped before giving up

enum vp_ctl : int {
    CTL_VOLUME = PSYNTH_VORBIS_CTL_VOLUME,
    CTL_ORIGINAL_SPEED = PSYNTH_VORBIS_CTL_ORIGINAL_SPEED,
    CTL_FINETUNE = PSYNTH_VORBIS_CTL_FINETUNE,
    CTL_REPEAT = PSYNTH_VORBIS_CTL_REPEAT,
    CTL_POLYPHONY = PSYNTH_VORBIS_CTL_POLYPHONY,
    CTL_CHANNELS = PSYNTH_VORBIS_CTL_CHANNELS,
    CTL_COUNT = PSYNTH_VORBIS_CTL_COUNT
};
enum : int { CHANNELS_STEREO = 0, CHANNELS_MONO = 1 };

// ---- Records ----

struct vp_voice {
    uint64_t pos;     // 32.32 frames into the decoded file
    int32_t gain;     // current gain (1 << 20 unity)
    int32_t target;   // where the glide or release ends
    int32_t delta;    // per frame while `ramp` > 0
    int32_t ramp;     // frames left in the glide or release
    int32_t id;       // the event id that owns it, −1 = none
    int32_t pitch;    // the event's pitch
    int32_t velocity; // 0..256
    uint8_t active;
    uint8_t released;
};

// The decoded file: frames × channels values and one guard frame, which the render sets to
// what follows the last frame (the first frame with Repeat, else silence).
struct vp_sound {
    int16_t* frames;  // null when nothing is decoded
    int64_t count;
    int channels;
    int rate;
};

struct vp_data {
    int ctl[CTL_COUNT];
    vp_voice voices[kMaxVoices];
    int cursor;
    vp_sound sound;
};

// ---- Small helpers ----

// Null also for a slot that holds another kind of module: the public functions below take
// any module number.
vp_data* data_of(int mod_num, psynth_net* net) {
    return psynth_module_data<vp_data>(mod_num, net, psynth_vorbis_player);
}

// x >> 15 rounding toward zero (as psynth_shr_toward_zero), without a branch: a 16-bit
// frame times a mix gain fits 32 bits.
int32_t mix_shift(int32_t x) { return (x + ((x >> 31) & ((1 << kMixBits) - 1))) >> kMixBits; }

// ---- Decoding (GUI thread) ----

// The Ogg file in memory, read through Tremor's callbacks.
struct memory_source {
    const uint8_t* bytes;
    size_t size;
    size_t pos;
};

size_t source_read(void* ptr, size_t size, size_t nmemb, void* datasource) {
    memory_source* s = (memory_source*)datasource;
    if (size == 0) return 0;
    size_t whole = (s->size - s->pos) / size;
    size_t n = nmemb < whole ? nmemb : whole;
    memcpy(ptr, s->bytes + s->pos, n * size);
    s->pos += n * size;
    return n;
}

int source_seek(void* datasource, ogg_int64_t offset, int whence) {
    memory_source* s = (memory_source*)datasource;
    int64_t base = whence == SEEK_SET ? 0 : whence == SEEK_CUR ? (int64_t)s->pos : (int64_t)s->size;
    int64_t to = base + offset;
    if (to < 0 || to > (int64_t)s->size) return -1;
    s->pos = (size_t)to;
    return 0;
}

int source_close(void*) { return 0; }

long source_tell(void* datasource) { return (long)((memory_source*)datasource)->pos; }

// Where the right channel of a file of `channels` channels sits in Vorbis's channel order
// (L R; L C R; FL FR RL RR; FL C FR ...).
int right_channel_index(int channels) { return channels == 2 || channels == 4 ? 1 : 2; }

// Decodes the Ogg Vorbis file `bytes` into `out` (a new block the caller owns).
// Returns 0 or a PSYNTH_VORBIS_ERROR_* code, logging why.
int decode_file(const uint8_t* bytes, size_t size, vp_sound* out) {
    *out = vp_sound{};
    if (!bytes || size == 0) {
        tarvik_log("psynth_vorbis_player(): empty file\n");
        return PSYNTH_VORBIS_ERROR_NOT_VORBIS;
    }
    memory_source source = {bytes, size, 0};
    ov_callbacks callbacks = {source_read, source_seek, source_close, source_tell};
    OggVorbis_File vf;
    int err = ov_open_callbacks(&source, &vf, nullptr, 0, callbacks);
    if (err < 0) {
        tarvik_log("psynth_vorbis_player(): not an Ogg Vorbis file (error %d)\n", err);
        return PSYNTH_VORBIS_ERROR_NOT_VORBIS;  // Tremor has cleared the record itself
    }
    const vorbis_info* vi = ov_info(&vf, -1);
    if (!vi || vi->channels < 1 || vi->rate < kMinRate || vi->rate > kMaxRate) {
        tarvik_log("psynth_vorbis_player(): unplayable stream (%d channels, %ld Hz)\n", vi ? vi->channels : 0,
                   vi ? vi->rate : 0L);
        ov_clear(&vf);
        return PSYNTH_VORBIS_ERROR_NOT_VORBIS;
    }
    const int in_channels = vi->channels;
    const long rate = vi->rate;
    const int channels = in_channels >= kMaxChannels ? kMaxChannels : 1;
    const int right = right_channel_index(in_channels);
    const int64_t frame_bytes = (int64_t)channels * kSampleBytes;
    const int64_t max_frames = PSYNTH_VORBIS_MAX_DECODED_BYTES / frame_bytes - 1;
    int64_t total = ov_pcm_total(&vf, -1);
    if (total <= 0) {
        tarvik_log("psynth_vorbis_player(): the stream holds no sound\n");
        ov_clear(&vf);
        return PSYNTH_VORBIS_ERROR_EMPTY;
    }
    if (total > max_frames) {
        tarvik_log("psynth_vorbis_player(): %lld frames; only the first %lld are kept\n", (long long)total,
                   (long long)max_frames);
        total = max_frames;
    }
    // The block grows with what decodes, not with what the last page claims: a small
    // damaged file cannot take the decoding limit's memory.
    int64_t capacity = (int64_t)size * kFramesPerFileByte + kReadBytes;
    if (capacity > total) capacity = total;
    int16_t* frames = (int16_t*)mem_new(MEM_STORAGE, (size_t)((capacity + 1) * frame_bytes), "vorbis_decode");
    if (!frames) {
        ov_clear(&vf);
        return PSYNTH_VORBIS_ERROR_MEMORY;
    }

    int64_t count = 0;
    int holes = 0;
    int16_t piece[kReadBytes / kSampleBytes];
    while (count < total) {
        int link = 0;
        long got = ov_read(&vf, (char*)piece, (int)sizeof(piece), &link);
        if (got == 0) break;
        if (got == OV_HOLE && ++holes <= kMaxHoles) continue;  // a gap in the stream: go on after it
        if (got < 0) {
            tarvik_log("psynth_vorbis_player(): damaged stream after %lld frames (error %ld)\n", (long long)count, got);
            break;
        }
        const vorbis_info* now = ov_info(&vf, link);
        if (!now || now->channels != in_channels || now->rate != rate) {
            tarvik_log("psynth_vorbis_player(): the stream changes its format after %lld frames\n", (long long)count);
            break;
        }
        int64_t n = got / (in_channels * kSampleBytes);
        if (n > total - count) n = total - count;
        if (count + n > capacity) {
            const int64_t larger = 2 * capacity > total ? total : 2 * capacity;
            int16_t* grown = (int16_t*)mem_resize(frames, (size_t)((larger + 1) * frame_bytes));
            if (!grown) {
                tarvik_log("psynth_vorbis_player(): no memory after %lld frames; the rest is left out\n", (long long)count);
                break;
            }
            frames = grown;
            capacity = larger;
        }
        int16_t* to = frames + count * channels;
        for (int64_t i = 0; i < n; i++) {
            const int16_t* from = piece + i * in_channels;
            to[i * channels] = from[0];
            if (channels == kMaxChannels) to[i * channels + 1] = from[right];
        }
        count += n;
    }
    ov_clear(&vf);
    if (count == 0) {
        mem_free(frames);
        tarvik_log("psynth_vorbis_player(): the stream holds no sound\n");
        return PSYNTH_VORBIS_ERROR_EMPTY;
    }
    if (count < capacity) {
        // A stream cut short: give back what its last page promised.
        int16_t* smaller = (int16_t*)mem_resize(frames, (size_t)((count + 1) * frame_bytes));
        if (smaller) frames = smaller;
    }
    memset(frames + count * channels, 0, (size_t)frame_bytes);
    out->frames = frames;
    out->count = count;
    out->channels = channels;
    out->rate = (int)rate;
    return PSYNTH_VORBIS_OK;
}

// Puts a decoded file in place and stops every voice; returns the old block for the caller
// to free. With the net's mutex held (the render reads the block).
int16_t* install_sound(vp_data* d, const vp_sound& sound) {
    int16_t* old = d->sound.frames;
    d->sound = sound;
    for (vp_voice& v : d->voices) {
        v.active = 0;
        v.id = -1;
    }
    return old;
}

// Decodes chunk 0 into the module (after loading a song or module file).
void decode_chunk(int mod_num, vp_data* d, psynth_net* net) {
    vp_sound sound = {};
    const uint8_t* bytes = (const uint8_t*)psynth_get_chunk(mod_num, PSYNTH_VORBIS_FILE_CHUNK, net);
    if (bytes) {
        int size = 0;
        psynth_get_chunk_info(mod_num, PSYNTH_VORBIS_FILE_CHUNK, &size, nullptr, nullptr, net);
        int err = decode_file(bytes, (size_t)(size > 0 ? size : 0), &sound);
        if (err) tarvik_log("psynth_vorbis_player(): module %d stays silent (error %d)\n", mod_num, err);
    }
    mem_free(install_sound(d, sound));
}

// ---- Pitch ----

// 32.32 frames of the file per output frame for a pitch `delta` (1/256 semitone, smaller is
// higher) away from the file's own speed: f(delta) / f(0) from the shared frequency table,
// times the file's rate over the net's. Integer only: f ≤ 2^40 and the rates < 2^19.
uint64_t step_for(int delta, int file_rate, int net_rate) {
    if (net_rate <= 0 || file_rate <= 0) return 0;
    const uint64_t a = psynth_pitch_to_freq(delta) * (uint64_t)file_rate;
    const uint64_t b = (uint64_t)PSYNTH_FREQ_AT_PITCH_0 * (uint64_t)net_rate;
    const uint64_t whole = a / b;
    if (whole >= kMaxStepFrames) return kMaxStepFrames << kPosFracBits;
    uint64_t rem = a % b;
    const uint64_t hi = (rem << 16) / b;  // the fraction in two 16-bit halves: rem < 2^40
    rem = (rem << 16) % b;
    const uint64_t lo = (rem << 16) / b;
    const uint64_t step = whole << kPosFracBits | hi << 16 | lo;
    return step ? step : 1;
}

uint64_t voice_step(const vp_voice* v, const vp_data* d, int net_rate) {
    int delta = d->ctl[CTL_ORIGINAL_SPEED] ? 0 : v->pitch - PSYNTH_VORBIS_BASE_PITCH;
    delta -= psynth_clamp(d->ctl[CTL_FINETUNE], -kFinetuneRange, kFinetuneRange);
    return step_for(delta, d->sound.rate, net_rate);
}

// ---- Gains ----

int32_t gain_target(const vp_voice* v, const vp_data* d) {
    return psynth_clamp(d->ctl[CTL_VOLUME], 0, kVolumeMax) * v->velocity << kGainShift;
}

void start_ramp(vp_voice* v, int32_t target, int frames) {
    v->target = target;
    v->ramp = frames;
    v->delta = (target - v->gain) / frames;
}

void release_voice(vp_voice* v, int net_rate) {
    if (!v->active || v->released) return;
    v->released = 1;
    int frames = net_rate / kReleaseMsPerSecond;
    start_ramp(v, 0, frames > 0 ? frames : 1);
}

// ---- Render ----

struct mix_run {
    const int16_t* frames;
    uint64_t pos;
    uint64_t step;
    int32_t gain;
    int32_t delta;
    psynth_sample* out_l;
    psynth_sample* out_r;
};

// Mixes frames [from, to) of one voice; the position stays inside the file (the guard frame
// holds what follows the last one), so the loop checks nothing.
template <int kSrc, int kOut, bool kRamp>
void mix_frames(mix_run* r, int from, int to) {
    const int16_t* frames = r->frames;
    uint64_t pos = r->pos;
    const uint64_t step = r->step;
    int32_t gain = r->gain;
    const int32_t delta = r->delta;
    psynth_sample* out_l = r->out_l;
    psynth_sample* out_r = r->out_r;
    for (int i = from; i < to; i++) {
        const int16_t* f = frames + (pos >> kPosFracBits) * kSrc;
        const int32_t w = (int32_t)((uint32_t)pos >> kWeightShift);
        int32_t l = f[0] + (((f[kSrc] - f[0]) * w) >> kWeightBits);
        int32_t r2 = l;
        if constexpr (kSrc == 2) r2 = f[1] + (((f[3] - f[1]) * w) >> kWeightBits);
        const int32_t g = gain >> kGainToMixBits;
        if constexpr (kOut == 1) {
            int32_t m = kSrc == 2 ? (l + r2) >> 1 : l;
            out_l[i] = psynth_add_saturated(out_l[i], mix_shift(m * g));
        } else {
            out_l[i] = psynth_add_saturated(out_l[i], mix_shift(l * g));
            out_r[i] = psynth_add_saturated(out_r[i], mix_shift(r2 * g));
        }
        pos += step;
        if constexpr (kRamp) gain += delta;
    }
    r->pos = pos;
    r->gain = gain;
}

typedef void (*mix_fn)(mix_run*, int, int);

template <int kSrc, int kOut>
mix_fn pick(bool ramp) {
    return ramp ? mix_frames<kSrc, kOut, true> : mix_frames<kSrc, kOut, false>;
}

mix_fn pick_mix(int src, int out, bool ramp) {
    if (src == 2) return out == 2 ? pick<2, 2>(ramp) : pick<2, 1>(ramp);
    return out == 2 ? pick<1, 2>(ramp) : pick<1, 1>(ramp);
}

void end_voice(vp_voice* v) {
    v->active = 0;
    v->id = -1;
}

// One voice over [from, to): in runs that end at the end of the file or of a glide.
void render_voice(vp_voice* v, const vp_data* d, uint64_t step, int outs, psynth_sample* out_l,
                  psynth_sample* out_r, int from, int to) {
    const vp_sound& s = d->sound;
    const uint64_t end = (uint64_t)s.count << kPosFracBits;
    const bool repeat = d->ctl[CTL_REPEAT] != 0;
    mix_run r = {s.frames, v->pos, step, v->gain, v->delta, out_l, out_r};
    int i = from;
    while (i < to) {
        if (r.pos >= end) {
            if (!repeat) {
                end_voice(v);
                break;
            }
            r.pos %= end;
        }
        uint64_t left = (end - r.pos + step - 1) / step;  // frames before the position passes the end
        int n = left < (uint64_t)(to - i) ? (int)left : to - i;
        bool ramp = v->ramp > 0;
        if (ramp && n > v->ramp) n = v->ramp;
        pick_mix(s.channels, outs, ramp)(&r, i, i + n);
        i += n;
        if (ramp && (v->ramp -= n) == 0) {
            r.gain = v->target;
            if (v->released) {
                end_voice(v);
                break;
            }
        }
    }
    v->pos = r.pos;
    v->gain = r.gain;
}

int voice_limit(const vp_data* d) { return psynth_clamp(d->ctl[CTL_POLYPHONY], 1, kMaxVoices); }

intptr_t render(int mod_num, vp_data* d, psynth_net* net) {
    psynth_module* mod = &net->modules[mod_num];
    int from, to;
    if (!psynth_render_span(mod, &from, &to)) return 0;
    const int outs = d->ctl[CTL_CHANNELS] == CHANNELS_MONO ? 1 : kMaxChannels;
    psynth_set_number_of_outputs(mod_num, outs, net);
    psynth_sample* out_l = mod->output_buffers[0];
    psynth_sample* out_r = outs == kMaxChannels ? mod->output_buffers[1] : nullptr;
    if (!out_l || (outs == kMaxChannels && !out_r)) return 0;
    if (!d->sound.frames) return 0;
    if (!psynth_voices_sounding(d->voices, kMaxVoices)) return 0;

    psynth_clear_span(out_l, from, to);
    if (out_r) psynth_clear_span(out_r, from, to);
    // What the interpolation of the last frame blends with.
    const vp_sound& s = d->sound;
    for (int c = 0; c < s.channels; c++) s.frames[s.count * s.channels + c] = d->ctl[CTL_REPEAT] ? s.frames[c] : 0;

    const int limit = voice_limit(d);
    for (int i = 0; i < kMaxVoices; i++) {
        vp_voice* v = &d->voices[i];
        if (!v->active) continue;
        if (i >= limit) release_voice(v, net->sampling_rate);
        if (!v->released) {
            int32_t target = gain_target(v, d);
            if (target != v->target) start_ramp(v, target, kGlideFrames);
        }
        render_voice(v, d, voice_step(v, d, net->sampling_rate), outs, out_l, out_r, from, to);
    }
    return 1;
}

// ---- Notes ----

vp_voice* voice_with_id(vp_data* d, int id) { return psynth_voice_find(d->voices, kMaxVoices, id); }

intptr_t note_on(const psynth_event* e, vp_data* d, psynth_net* net) {
    if (!d->sound.frames) return 0;
    // The id moves to the new note: its old voice fades out and may itself be picked.
    psynth_voice_hand_over_id(d->voices, kMaxVoices, -1, e->id,
                              [net](vp_voice& old) { release_voice(&old, net->sampling_rate); });
    vp_voice* v = &d->voices[psynth_voice_pick(d->voices, voice_limit(d), &d->cursor,
                                                [](const vp_voice& x) { return x.released != 0; })];
    *v = vp_voice{};
    v->active = 1;
    v->id = e->id;
    v->pitch = e->pitch;
    v->velocity = psynth_clamp(e->velocity, 0, PSYNTH_VELOCITY_MAX);
    v->gain = v->target = gain_target(v, d);
    return 1;
}

// SET_SAMPLE_OFFSET (the frame in pitch) and SET_SAMPLE_OFFSET2 (0..32768 of the length in velocity).
intptr_t set_offset(const psynth_event* e, vp_data* d) {
    vp_voice* v = voice_with_id(d, e->id);
    if (!v || d->sound.count <= 0) return 0;
    int64_t frame = e->command == PS_CMD_SET_SAMPLE_OFFSET ? e->pitch
                                                           : d->sound.count * e->velocity / PSYNTH_CTL_MAX_VALUE;
    if (frame < 0) frame = 0;
    if (frame >= d->sound.count) frame = d->sound.count - 1;
    v->pos = (uint64_t)frame << kPosFracBits;
    return 1;
}

void init(int mod_num, vp_data* d, psynth_net* net) {
    memset(d, 0, sizeof(*d));
    static const psynth_ctl_row rows[CTL_COUNT] = {
        {"Volume", "", 0, kVolumeMax, PSYNTH_GAIN_UNITY},
        {"Original speed", "off/on", 0, 1, 0, PSYNTH_CTL_SELECTOR},
        {"Finetune", "", -kFinetuneRange, kFinetuneRange, 0},
        {"Repeat", "off/on", 0, 1, 0, PSYNTH_CTL_SELECTOR},
        {"Polyphony", "ch.", 1, kMaxVoices, 8},
        {"Channels", "stereo/mono", 0, 1, CHANNELS_STEREO, PSYNTH_CTL_SELECTOR},
    };
    psynth_register_ctl_rows(mod_num, rows, d->ctl, net);
    psynth_voices_clear(d->voices, kMaxVoices, &d->cursor);
}

}  // namespace

// ---- Loading ----

int psynth_vorbis_player_load(int mod_num, const char* path, psynth_net* net) {
    vp_data* d = data_of(mod_num, net);
    if (!d) return PSYNTH_VORBIS_ERROR_MODULE;
    int fd = path ? v3_open(path, "rb") : 0;
    if (!fd) {
        tarvik_log("psynth_vorbis_player_load(): can't open %s\n", path ? path : "(null)");
        return PSYNTH_VORBIS_ERROR_CANT_OPEN;
    }
    v3_seek(fd, 0, V3_SEEK_END);
    int64_t size = v3_tell(fd);
    v3_seek(fd, 0, V3_SEEK_SET);
    if (size > PSYNTH_VORBIS_MAX_FILE_BYTES) {
        v3_close(fd);
        tarvik_log("psynth_vorbis_player_load(): %s is too large (%lld bytes)\n", path, (long long)size);
        return PSYNTH_VORBIS_ERROR_TOO_LARGE;
    }
    uint8_t* bytes = size > 0 ? (uint8_t*)mem_new(MEM_STORAGE, (size_t)size, "vorbis_load") : nullptr;
    if (size > 0 && !bytes) {
        v3_close(fd);
        return PSYNTH_VORBIS_ERROR_MEMORY;
    }
    bool read = size < 0 || (size > 0 && v3_read(bytes, 1, (size_t)size, fd) != (size_t)size);
    v3_close(fd);
    if (read) {
        mem_free(bytes);
        tarvik_log("psynth_vorbis_player_load(): can't read %s\n", path);
        return PSYNTH_VORBIS_ERROR_CANT_OPEN;
    }
    vp_sound sound;
    int err = decode_file(bytes, (size_t)size, &sound);
    if (err) {
        mem_free(bytes);
        tarvik_log("psynth_vorbis_player_load(): %s not loaded (error %d)\n", path, err);
        return err;
    }
    // The chunk and the decoded frames change together, between two render passes.
    tarvik_mutex_lock(&net->mutex);
    int16_t* old = sound.frames;
    if (psynth_new_chunk(mod_num, PSYNTH_VORBIS_FILE_CHUNK, (int)size, 0, sound.rate, net) == 0) {
        memcpy(psynth_get_chunk(mod_num, PSYNTH_VORBIS_FILE_CHUNK, net), bytes, (size_t)size);
        old = install_sound(d, sound);
        err = PSYNTH_VORBIS_OK;
    } else {
        err = PSYNTH_VORBIS_ERROR_MEMORY;
    }
    tarvik_mutex_unlock(&net->mutex);
    mem_free(old);
    mem_free(bytes);
    return err;
}

int psynth_vorbis_player_get_info(int mod_num, psynth_vorbis_info* info, psynth_net* net) {
    const vp_data* d = data_of(mod_num, net);
    if (!d || !d->sound.frames) return 1;
    if (info) *info = {d->sound.count, d->sound.channels, d->sound.rate};
    return 0;
}

// ---- The handler ----

intptr_t psynth_vorbis_player(int mod_num, psynth_event* event, psynth_net* net) {
    switch (event->command) {
    case PS_CMD_GET_DATA_SIZE: return sizeof(vp_data);
    case PS_CMD_GET_SYNTH_NAME: return (intptr_t)kName;
    case PS_CMD_GET_SYNTH_INFO: return (intptr_t)kInfo;
    case PS_CMD_GET_SYNTH_COLOR: return (intptr_t)kColor;
    case PS_CMD_GET_INPUTS_NUM: return 0;
    case PS_CMD_GET_OUTPUTS_NUM: return kMaxChannels;
    case PS_CMD_GET_FLAGS: return PSYNTH_FLAG_GENERATOR;
    default: break;
    }
    vp_data* d = data_of(mod_num, net);
    if (!d) return 0;
    switch (event->command) {
    case PS_CMD_INIT:
        init(mod_num, d, net);
        return 1;
    case PS_CMD_SETUP_FINISHED:
        decode_chunk(mod_num, d, net);
        psynth_set_number_of_outputs(mod_num, d->ctl[CTL_CHANNELS] == CHANNELS_MONO ? 1 : kMaxChannels, net);
        return 1;
    case PS_CMD_CLEAN:
        psynth_voices_clear(d->voices, kMaxVoices, &d->cursor);
        return 1;
    case PS_CMD_RENDER_REPLACE: return render(mod_num, d, net);
    case PS_CMD_NOTE_ON: return note_on(event, d, net);
    case PS_CMD_SET_FREQ: {
        vp_voice* v = voice_with_id(d, event->id);
        if (v) v->pitch = event->pitch;
        return 1;
    }
    case PS_CMD_SET_VELOCITY: {
        vp_voice* v = voice_with_id(d, event->id);
        if (v) v->velocity = psynth_clamp(event->velocity, 0, PSYNTH_VELOCITY_MAX);
        return 1;
    }
    case PS_CMD_SET_SAMPLE_OFFSET:
    case PS_CMD_SET_SAMPLE_OFFSET2: return set_offset(event, d);
    case PS_CMD_NOTE_OFF: {
        vp_voice* v = voice_with_id(d, event->id);
        if (v) release_voice(v, net->sampling_rate);
        return 1;
    }
    case PS_CMD_ALL_NOTES_OFF:
        for (vp_voice& v : d->voices) {
            release_voice(&v, net->sampling_rate);
            v.id = -1;
        }
        return 1;
    case PS_CMD_CLOSE:
        mem_free(install_sound(d, vp_sound{}));
        return 1;
    default: return 0;
    }
}
