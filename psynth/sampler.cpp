// The Sampler module's handler: voices started by notes play the instrument's samples
// through loops, envelopes, fade-out and auto-vibrato into the module's two outputs.
// Records and editor helpers are in sampler.h; the render holds the module's mutex (try-lock).
#include "psynth/sampler.h"

#include <cstring>

#include "engine/log.h"
#include "engine/memory.h"
#include "psynth/psynth_dsp.h"
#include "psynth/psynth_modules.h"
#include "psynth/psynth_tables.h"
#include "psynth/psynth_voices.h"
#include "psynth/sampler_mix.h"

namespace {

const char* const kName = "Sampler";
const char* const kInfo = "Sampler.\nSupported file formats: WAV, XI\n\nAvailable local controllers:\n * Pan";
const char* const kColor = "#FF9000";
constexpr int kChannels = PSYNTH_SAMPLER_MIX_CHANNELS;
constexpr uint32_t kFlags = PSYNTH_FLAG_GENERATOR | PSYNTH_FLAG_EFFECT | PSYNTH_FLAG_GET_SPEED_CHANGES;  // 0x418
static_assert(kFlags == 0x418);

// Play positions and steps are 16.16 fixed point in 64 bits: whole frames and a 16-bit fraction.
constexpr int kFracBits = PSYNTH_STEP_FRAC_BITS;
constexpr int64_t kFracOne = (int64_t)1 << kFracBits;
constexpr int64_t kFracMask = kFracOne - 1;

// Tick lengths and the voices' tick counters are in 1/256 frame.
constexpr int kSubframeBits = 8;
constexpr int kSubframes = 1 << kSubframeBits;
constexpr int kMinTickLength = kSubframes;  // a tick lasts at least one frame, so every piece advances
constexpr int kTickStartNow = INT32_MIN;    // tick counter of a new voice: run a tick before the first frame

// Current volumes are side volumes × 4096 (the mixing kernels scale frames by them).
constexpr int kVolumeBits = 12;
// Side volumes of sane records stay below 1100; the cap keeps garbage records (negative
// envelope tables, huge velocities) from overflowing the ramp.
constexpr int64_t kMaxSideVolume = (1 << 18) - 1;

// Volume chain of a tick.
constexpr int kEnvFull = PSYNTH_SAMPLER_ENV_MAX;  // e = 1024 without an envelope
constexpr int kEnvBits = 10;
constexpr int kEnvPointToTable = 1024;            // segment values carry 6 extra bits: y · 1024 >> 6 = y · 16
constexpr int kEnvTableBits = 6;
constexpr int kEnvPointScale = 16;
constexpr int kPanEnvBits = 2;                    // panning table 0..1024 → 0..256
constexpr int kFadeFull = 65536;
constexpr int kFadeBits = 16;
constexpr int kFadeoutScale = 2;                  // the fade drops by twice the instrument's fade-out per tick
constexpr int kFullVolume = 64;                   // instrument and sample volumes
constexpr int kVolumeShift = 6;
constexpr int kGainBits = PSYNTH_GAIN_SHIFT;      // "Volume" controller and velocity: 256 = unity
constexpr int kPanCentreSum = 384;                // four centred pans (4 · 128) less this leave the centre
constexpr int kPanRange = 256;
constexpr int kPanGainPerUnit = 4;
constexpr int kPanGainMax = 512;
constexpr int kLocalPanBits = 7;                  // local controller 0..32768 → 0..256

// Auto-vibrato.
enum : int { kVibSine = 0, kVibRampDown = 1, kVibSquare = 2 };
constexpr int kVibPositionMax = 255;
constexpr int kVibPositionWrap = 512;
constexpr int kVibSineBits = 8;
constexpr int kVibRampBits = 4;
constexpr int kVibRampPositionBits = 1;           // the ramp runs at half the position
constexpr int kVibRateScale = 2;                  // the position moves by twice the rate per tick
constexpr int kVibSquareLevel = 127;
constexpr int kVibSquareBits = 4;
constexpr int kVibSweepStep = 2;
constexpr int kVibPitchScale = 4;                 // vibrato units → 1/256 semitone

// Pitch of a note: (120 − n') · 64 in 1/64 semitone, then × 4 into 1/256.
constexpr int kTopNote = 120;
constexpr int kPeriodPerNote = 64;
constexpr int kPitchPerNote = 256;
constexpr int kPitchPerPeriod = 4;
constexpr int kPitchToPeriodBits = 2;             // pitch → period units, an arithmetic shift
constexpr int kFinetuneBits = 1;                  // finetunes (1/128 semitone) count half in periods

constexpr int kMaxNote = PSYNTH_SAMPLER_NOTES - 1;
constexpr int kSampleOffsetFull = 32768;  // SET_SAMPLE_OFFSET2's value for the whole length

// ---- Private data ----

struct sampler_voice {
    int64_t position;    // 16.16 frames
    int64_t step;        // 16.16 frames per output frame
    int32_t id;          // −1 = none
    int32_t velocity;
    int32_t pitch;       // 1/256 semitone, smaller = higher
    int32_t pitch_offset;  // event pitch − voice pitch, kept for SET_FREQ
    int32_t tick_counter;  // 1/256 frame since the last tick
    int32_t volume_env_pos;
    int32_t panning_env_pos;
    int32_t fade;          // 65536 = full
    int32_t vibrato_pos;   // −256..255
    int32_t vibrato_sweep;
    int32_t ramp_steps;
    int32_t ramp_inc[kChannels];
    int32_t volume[kChannels];  // current, × 4096
    int32_t target[kChannels];  // the last tick's side volumes
    int16_t local_pan;     // 0..256
    uint8_t active;
    uint8_t key_held;
    uint8_t first_tick;
    uint8_t backwards;     // ping-pong going down
    uint8_t sample;
    uint8_t note;          // map index 0..95
};

// A sample as the render found it, relinked at every render.
struct sampler_link {
    const psynth_sampler_sample* header;
    const uint8_t* data;
    uint32_t data_bytes;
};

struct sampler_recording {
    int16_t* ring;      // PSYNTH_SAMPLER_RECORD_FRAMES × channels; null while disarmed
    int channels;
    int every_second;
    int skip_next;      // with every_second: the next frame is dropped
    int first_block;    // the take's first block skips its leading silent frames
    uint32_t written;
};

struct sampler_data {
    int ctl[PSYNTH_SAMPLER_CTL_COUNT];
    int cursor;
    int idle;           // set while nothing has sounded since INIT, CLEAN or an empty render
    int tick_length;    // 1/256 frame
    const uint32_t* freq_table;  // shared; pitches become steps through psynth_pitch_to_step, which reads it
    const uint8_t* half_sine;
    tarvik_mutex mutex;
    sampler_recording rec;
    psynth_sampler_instrument* instrument;
    sampler_link links[PSYNTH_SAMPLER_SAMPLES];
    sampler_voice voices[PSYNTH_SAMPLER_VOICES];
};
static_assert(sizeof(sampler_data) <= PSYNTH_SAMPLER_DATA_SIZE, "the private data fits the announced block");

sampler_data* data_of(int mod_num, psynth_net* net) {
    return psynth_module_data<sampler_data>(mod_num, net, psynth_sampler);
}

int polyphony(const sampler_data* d) {
    int p = d->ctl[PSYNTH_SAMPLER_CTL_POLYPHONY];
    return p < 1 ? 1 : p > PSYNTH_SAMPLER_VOICES ? PSYNTH_SAMPLER_VOICES : p;
}

// The chunk if it holds at least `min_size` bytes, else null.
void* chunk_of_size(int mod_num, int chunk, int min_size, int* size, psynth_net* net) {
    int n = 0;
    void* p = psynth_get_chunk(mod_num, chunk, net);
    if (!p || psynth_get_chunk_info(mod_num, chunk, &n, nullptr, nullptr, net) || n < min_size) return nullptr;
    if (size) *size = n;
    return p;
}

psynth_sampler_instrument* instrument_chunk(int mod_num, psynth_net* net) {
    return (psynth_sampler_instrument*)chunk_of_size(mod_num, PSYNTH_SAMPLER_INSTRUMENT_CHUNK,
                                                     offsetof(psynth_sampler_instrument, sample_refs), nullptr, net);
}

const psynth_sampler_sample* header_chunk(int mod_num, int sample, psynth_net* net) {
    return (const psynth_sampler_sample*)chunk_of_size(mod_num, psynth_sampler_header_chunk(sample),
                                                       PSYNTH_SAMPLER_HEADER_FIELDS, nullptr, net);
}

int sample_format(uint8_t type) { return (type & PSYNTH_SAMPLER_FORMAT_MASK) >> PSYNTH_SAMPLER_FORMAT_SHIFT; }
int sample_channels(uint8_t type) { return type & PSYNTH_SAMPLER_STEREO ? 2 : 1; }
int format_bytes(int format) {
    return format == PSYNTH_SAMPLER_FORMAT_INT8 ? 1 : format == PSYNTH_SAMPLER_FORMAT_INT16 ? 2
         : format == PSYNTH_SAMPLER_FORMAT_FLOAT32 ? 4 : 0;
}

// The voice among the first Polyphony voices that carries `id`; null when none.
sampler_voice* find_voice(sampler_data* d, int id) { return psynth_voice_find(d->voices, polyphony(d), id); }

int64_t step_for_pitch(int pitch, int rate) {
    psynth_step s = psynth_pitch_to_step(pitch, rate);
    return ((int64_t)s.whole << kFracBits) | s.frac;
}

void end_voice(sampler_voice* v) {
    v->active = 0;
    v->id = -1;
}

void clear_voices(sampler_data* d) {
    for (sampler_voice& v : d->voices) end_voice(&v);
    d->idle = 1;
}

// ---- Envelopes ----

// One envelope of the instrument, with its point indices made safe to use.
struct envelope_view {
    const psynth_sampler_env_point* points;
    const int16_t* table;
    int count;
    int type;
    int sustain, loop_start, loop_end;  // point indices
};

int clamp_point(int index) { return index < PSYNTH_SAMPLER_ENV_POINTS ? index : PSYNTH_SAMPLER_ENV_POINTS - 1; }
int point_x(const envelope_view& env, int index) {
    int x = env.points[clamp_point(index)].x;
    return x < PSYNTH_SAMPLER_ENV_TICKS ? x : PSYNTH_SAMPLER_ENV_TICKS - 1;
}

envelope_view volume_envelope(const psynth_sampler_instrument* ins) {
    return {ins->volume_points, ins->volume_table, ins->volume_points_num, ins->volume_type,
            ins->volume_sustain, ins->volume_loop_start, ins->volume_loop_end};
}

envelope_view panning_envelope(const psynth_sampler_instrument* ins) {
    return {ins->panning_points, ins->panning_table, ins->panning_points_num, ins->panning_type,
            ins->panning_sustain, ins->panning_loop_start, ins->panning_loop_end};
}

// The table value at a voice's envelope position, after the loop jump and the hold at
// the last point; *at_end tells that the position stands on the last point.
int envelope_value(const envelope_view& env, int32_t* pos, bool* at_end) {
    if ((env.type & PSYNTH_SAMPLER_ENV_LOOP) && *pos >= point_x(env, env.loop_end)) *pos = point_x(env, env.loop_start);
    int last = env.count > 0 ? point_x(env, env.count - 1) : 0;
    *at_end = *pos >= last;
    if (*at_end) *pos = last;
    return env.table[*pos];
}

// The position moves on by one tick, except while the key holds it at the sustain point.
void envelope_advance(const envelope_view& env, int32_t* pos, bool key_held) {
    if ((env.type & PSYNTH_SAMPLER_ENV_SUSTAIN) && key_held && *pos == point_x(env, env.sustain)) return;
    (*pos)++;
}

// ---- Voices ----

// Everything a voice's render needs, gathered once per voice and render.
struct voice_context {
    const psynth_sampler_instrument* ins;
    const psynth_sampler_sample* header;
    const uint8_t* data;
    int64_t length;       // playable frames
    int loop_type;        // PSYNTH_SAMPLER_LOOP_*, OFF when the loop is empty or outside the data
    int64_t loop_start;   // frames
    int64_t loop_length;
    int64_t loop_end;
    int frame_bytes;
    psynth_sampler_mix_fn kernels[2][2];  // [ramp][backwards]
    bool volume_interp;
    int tick_length;
    int rate;
    int ctl_volume;
    int ctl_panning;
    const uint8_t* half_sine;
    psynth_sample* out[kChannels];
};

// Builds the context of a sample; false when it cannot be played.
bool make_context(const sampler_data* d, const sampler_link& link, psynth_net* net, voice_context* c) {
    if (!link.header || !link.data) return false;
    const psynth_sampler_sample* h = link.header;
    int format = sample_format(h->type);
    int bytes = format_bytes(format);
    if (!bytes) return false;
    int channels = sample_channels(h->type);
    c->header = h;
    c->data = link.data;
    c->frame_bytes = bytes * channels;
    // A header promising more frames than the data chunk holds plays what is there.
    int64_t data_frames = link.data_bytes / c->frame_bytes;
    c->length = h->length < data_frames ? h->length : data_frames;
    c->loop_type = h->type & PSYNTH_SAMPLER_LOOP_MASK;
    c->loop_start = h->loop_start;
    c->loop_length = h->loop_length;
    if (c->loop_start + c->loop_length > c->length) c->loop_length = c->length - c->loop_start;
    if (c->loop_type == PSYNTH_SAMPLER_LOOP_MASK) c->loop_type = PSYNTH_SAMPLER_LOOP_FORWARD;  // a loop, not ping-pong
    if (c->loop_length <= 0) c->loop_type = PSYNTH_SAMPLER_LOOP_OFF;
    c->loop_end = c->loop_start + c->loop_length;
    bool interp = d->ctl[PSYNTH_SAMPLER_CTL_SAMPLE_INTERP] != 0;  // "cubic" plays as linear
    psynth_sampler_mix_kernels(format, channels, interp, PSYNTH_SAMPLER_MIX_BEST, c->kernels);
    c->volume_interp = d->ctl[PSYNTH_SAMPLER_CTL_VOLUME_INTERP] != 0;
    c->tick_length = d->tick_length < kMinTickLength ? kMinTickLength : d->tick_length;
    c->rate = net->sampling_rate;
    c->ctl_volume = d->ctl[PSYNTH_SAMPLER_CTL_VOLUME];
    c->ctl_panning = d->ctl[PSYNTH_SAMPLER_CTL_PANNING];
    c->half_sine = d->half_sine;
    c->ins = d->instrument;
    return true;
}

// The loop's hold on a position before a frame is read. Forward loops wrap; ping-pong
// loops fold the distance travelled past an edge into the loop, turning on odd counts.
void apply_loop(const voice_context& c, int64_t* p, uint8_t* backwards) {
    if (c.loop_type != PSYNTH_SAMPLER_LOOP_PINGPONG) *backwards = 0;
    if (c.loop_type == PSYNTH_SAMPLER_LOOP_OFF) return;
    const int64_t start = c.loop_start << kFracBits;
    const int64_t len = c.loop_length << kFracBits;
    const int64_t end = c.loop_end << kFracBits;
    if (c.loop_type == PSYNTH_SAMPLER_LOOP_FORWARD) {
        if (*p >= end) *p -= len * ((*p - end) / len + 1);
        return;
    }
    if (!*backwards && *p >= end) {
        int64_t k = ((*p >> kFracBits) - c.loop_start) / c.loop_length;
        if (k & 1) {
            // Mirrored: whole frames and fraction negated together, so the fraction borrows a frame.
            *backwards = 1;
            *p = start + (k + 1) * len - (*p - start);
        } else {
            *p -= k * len;
        }
    } else if (*backwards && *p < start) {
        // The count is taken on the exact distance below the start, fraction included,
        // so that a step landing just under the start of a short loop folds back inside.
        int64_t below = start - *p;
        int64_t k = below / len;
        if (k & 1) {
            *p += (k + 1) * len;
        } else {
            *backwards = 0;
            *p = start + below - k * len;
        }
    }
}

// The frame blended with frame i when i + 1 is not the plain next one.
int64_t edge_next_frame(const voice_context& c, int64_t i) {
    if (c.loop_type == PSYNTH_SAMPLER_LOOP_OFF) return i + 1 >= c.length ? c.length - 1 : i + 1;
    if (i + 1 < c.loop_end) return i + 1;
    return c.loop_type == PSYNTH_SAMPLER_LOOP_PINGPONG ? i : c.loop_start;
}

// How many frames from position p read frames i and i + 1 with no edge rule and no loop
// turn: forward until i + 1 reaches the loop end (or the sample end), backwards while
// the position stays at or above the loop start.
int plain_frames(const voice_context& c, int64_t p, int64_t step, bool backwards, int max) {
    int64_t k;
    if (!backwards) {
        int64_t limit = ((c.loop_type == PSYNTH_SAMPLER_LOOP_OFF ? c.length : c.loop_end) - 1) << kFracBits;
        if (p >= limit) return 0;
        if (step <= 0) return max;
        k = (limit - p + step - 1) / step;
    } else {
        int64_t start = c.loop_start << kFracBits;
        if (p < start || (p >> kFracBits) + 1 >= c.loop_end) return 0;
        if (step <= 0) return max;
        k = (p - start) / step + 1;
    }
    return k < max ? (int)k : max;
}

// Mixes `frames` frames of a voice (no tick falls inside) into c.out from `at`.
// Returns false when the voice ended at the sample's end.
bool mix_piece(sampler_voice* v, const voice_context& c, int at, int frames) {
    int64_t p = v->position;
    const int64_t step = v->step;
    uint8_t backwards = v->backwards;
    int32_t ramp_steps = v->ramp_steps;
    psynth_sampler_mix_run run;
    run.step = step;
    run.volume[0] = v->volume[0];
    run.volume[1] = v->volume[1];
    run.inc[0] = v->ramp_inc[0];
    run.inc[1] = v->ramp_inc[1];
    bool alive = true;
    int f = 0;
    while (f < frames) {
        apply_loop(c, &p, &backwards);
        if ((p >> kFracBits) >= c.length) {
            alive = false;
            break;
        }
        bool ramp = c.volume_interp && ramp_steps > 0;
        int k = plain_frames(c, p, step, backwards, frames - f);
        if (ramp && k > ramp_steps) k = ramp_steps;
        run.out[0] = c.out[0] + at + f;
        run.out[1] = c.out[1] + at + f;
        if (k > 0) {
            run.frames = c.data;
            run.pos = p;
            run.count = k;
            c.kernels[ramp][backwards](&run);
        } else {
            // One frame at an edge: its two frames are copied side by side so that the
            // same kernel blends them.
            alignas(8) uint8_t pair[2 * sizeof(float) * kChannels];
            int64_t i = p >> kFracBits;
            memcpy(pair, c.data + i * c.frame_bytes, c.frame_bytes);
            memcpy(pair + c.frame_bytes, c.data + edge_next_frame(c, i) * c.frame_bytes, c.frame_bytes);
            run.frames = pair;
            run.pos = p & kFracMask;
            run.count = k = 1;
            c.kernels[ramp][0](&run);
        }
        p += backwards ? -k * step : k * step;
        if (ramp) ramp_steps -= k;
        f += k;
    }
    v->position = p;
    v->backwards = backwards;
    v->ramp_steps = ramp_steps;
    v->volume[0] = run.volume[0];
    v->volume[1] = run.volume[1];
    if (!alive) end_voice(v);
    return alive;
}

int vibrato_offset(sampler_voice* v, const voice_context& c, int depth) {
    const psynth_sampler_instrument* ins = c.ins;
    int pos = v->vibrato_pos;
    int s;
    switch (ins->vibrato_type) {
    case kVibSine:
        s = (c.half_sine[pos & kVibPositionMax] * depth) >> kVibSineBits;
        if (pos > 0) s = -s;
        break;
    case kVibRampDown:
        s = (((-pos) >> kVibRampPositionBits) * depth) >> kVibRampBits;
        break;
    case kVibSquare:
        s = (depth * kVibSquareLevel) >> kVibSquareBits;
        if (pos < 0) s = -s;
        break;
    default:
        s = 0;
        break;
    }
    int sweep = ins->vibrato_sweep;
    if (sweep > 0) {
        s = s * v->vibrato_sweep / sweep;
        v->vibrato_sweep += kVibSweepStep;
        if (v->vibrato_sweep > sweep) v->vibrato_sweep = sweep;
    }
    pos += kVibRateScale * ins->vibrato_rate;
    if (pos > kVibPositionMax) pos -= kVibPositionWrap;
    v->vibrato_pos = pos;
    return s;
}

int pan_gain(int pan) {
    int g = pan * kPanGainPerUnit;
    return g > kPanGainMax ? kPanGainMax : g;
}

// The per-tick update: envelopes and fade-out, panning, side volumes and their ramp,
// auto-vibrato. Returns false when the voice ended.
bool voice_tick(sampler_voice* v, const voice_context& c) {
    const psynth_sampler_instrument* ins = c.ins;
    const psynth_sampler_sample* h = c.header;
    const bool held = v->key_held;

    envelope_view venv = volume_envelope(ins);
    int e = kEnvFull;
    if (!(venv.type & PSYNTH_SAMPLER_ENV_ON)) {
        if (!held) {
            end_voice(v);
            return false;
        }
    } else {
        bool at_end;
        e = envelope_value(venv, &v->volume_env_pos, &at_end);
        if (!(venv.type & PSYNTH_SAMPLER_ENV_LOOP) && at_end && e == 0) {
            end_voice(v);
            return false;
        }
    }
    if (!held) {
        if (v->fade == 0) {
            end_voice(v);
            return false;
        }
        v->fade -= kFadeoutScale * ins->volume_fadeout;
        if (v->fade < 0) {
            v->fade = 0;  // this tick is silent; the next one ends the voice
            e = 0;
        } else if (v->fade != kFadeFull) {
            e = (e * v->fade) >> kFadeBits;
        }
    }
    envelope_advance(venv, &v->volume_env_pos, held);

    envelope_view penv = panning_envelope(ins);
    int env_pan = kPanRange / 2;
    if (penv.type & PSYNTH_SAMPLER_ENV_ON) {
        bool at_end;
        env_pan = envelope_value(penv, &v->panning_env_pos, &at_end) >> kPanEnvBits;
        envelope_advance(penv, &v->panning_env_pos, held);
    }

    int pan = env_pan + c.ctl_panning + v->local_pan - kPanCentreSum + h->panning;
    int gain[kChannels];
    if (pan < 0) {
        gain[0] = kPanGainMax;
        gain[1] = 0;
    } else if (pan > kPanRange) {
        gain[0] = 0;
        gain[1] = kPanGainMax;
    } else {
        gain[0] = pan_gain(kPanRange - pan);
        gain[1] = pan_gain(pan);
    }

    if (ins->volume < kFullVolume) e = (e * ins->volume) >> kVolumeShift;
    const int tick_frames = c.tick_length >> kSubframeBits;
    for (int ch = 0; ch < kChannels; ch++) {
        int64_t side = (((((int64_t)gain[ch] * e) >> kEnvBits) * h->volume) >> kVolumeShift) * c.ctl_volume >> kGainBits;
        side = (side * v->velocity) >> kGainBits;
        side = side > kMaxSideVolume ? kMaxSideVolume : side < 0 ? 0 : side;
        int32_t target = (int32_t)side;
        if (!c.volume_interp) {
            v->volume[ch] = target << kVolumeBits;
            continue;
        }
        // Glide across the tick from the last tick's volume to this one's.
        if (v->first_tick) v->target[ch] = target;
        v->ramp_inc[ch] = ((target - v->target[ch]) << kVolumeBits) / tick_frames;
        v->volume[ch] = v->target[ch] << kVolumeBits;
        v->target[ch] = target;
    }
    if (c.volume_interp) v->ramp_steps = tick_frames;

    int depth = ins->vibrato_depth;
    int s = depth > 0 ? vibrato_offset(v, c, depth) : 0;
    v->step = step_for_pitch(v->pitch + kVibPitchScale * s, c.rate);
    v->first_tick = 0;
    return true;
}

// Runs due ticks (the tick length may have shrunk below the counter). False when the voice ended.
bool run_due_ticks(sampler_voice* v, const voice_context& c) {
    while (v->tick_counter >= c.tick_length) {
        v->tick_counter -= c.tick_length;
        if (!voice_tick(v, c)) return false;
    }
    return true;
}

// Renders one voice over [at, at + frames), in pieces that end at its tick boundaries.
void render_voice(sampler_voice* v, const voice_context& c, int at, int frames) {
    if (v->tick_counter == kTickStartNow) {
        v->tick_counter = 0;
        if (!voice_tick(v, c)) return;
    }
    if (!run_due_ticks(v, c)) return;
    int done = 0;
    while (done < frames) {
        int piece = (c.tick_length - v->tick_counter + kSubframes - 1) >> kSubframeBits;
        if (piece > frames - done) piece = frames - done;
        if (!mix_piece(v, c, at + done, piece)) return;
        done += piece;
        v->tick_counter += piece << kSubframeBits;
        if (!run_due_ticks(v, c)) return;
    }
}

// ---- Commands ----

void record_block(sampler_data* d, const psynth_module* mod, int at, int frames) {
    sampler_recording* r = &d->rec;
    if (!r->ring) return;
    int channels = r->channels;
    bool skipping = r->first_block;
    r->first_block = 0;
    for (int i = at; i < at + frames; i++) {
        int16_t frame[kChannels] = {0, 0};
        for (int ch = 0; ch < channels && ch < mod->input_channels; ch++) {
            const psynth_sample* in = mod->input_buffers[ch];
            if (in && i >= mod->input_start[ch]) frame[ch] = in[i];
        }
        if (skipping) {
            if (frame[0] == 0 && frame[1] == 0) continue;
            skipping = false;
        }
        if (r->every_second) {
            r->skip_next ^= 1;
            if (!r->skip_next) continue;
        }
        int16_t* slot = r->ring + (size_t)(r->written % PSYNTH_SAMPLER_RECORD_FRAMES) * channels;
        for (int ch = 0; ch < channels; ch++) slot[ch] = frame[ch];
        r->written++;
    }
}

// Relinks the instrument and the samples that the first `count` voices play, each once;
// the other samples are relinked when a voice plays them.
void relink(int mod_num, sampler_data* d, int count, psynth_net* net) {
    d->instrument = instrument_chunk(mod_num, net);
    static_assert(PSYNTH_SAMPLER_SAMPLES <= 32, "one bit per sample");
    uint32_t linked = 0;  // voices only ever hold samples below 16 (NOTE_ON checks it)
    for (int i = 0; i < count; i++) {
        const int s = d->voices[i].sample;
        if (!d->voices[i].active || (linked & (1u << s))) continue;
        linked |= 1u << s;
        sampler_link& l = d->links[s];
        int size = 0;
        l.header = header_chunk(mod_num, s, net);
        l.data = (const uint8_t*)chunk_of_size(mod_num, psynth_sampler_data_chunk(s), 0, &size, net);
        l.data_bytes = (uint32_t)size;
    }
}

intptr_t render(int mod_num, sampler_data* d, psynth_net* net) {
    psynth_module* mod = &net->modules[mod_num];
    const int at = mod->render_offset;
    const int frames = mod->render_frames;
    if (at < 0 || frames <= 0 || at + frames > PSYNTH_BUFFER_SIZE || mod->output_channels < 1) return 0;
    if (tarvik_mutex_trylock(&d->mutex)) return 0;  // an editor is changing the samples
    record_block(d, mod, at, frames);
    const int count = polyphony(d);
    relink(mod_num, d, count, net);
    bool any = false;
    for (int i = 0; i < count; i++) any |= d->voices[i].active != 0;
    if (!any || !d->instrument) {
        tarvik_mutex_unlock(&d->mutex);
        return 0;
    }
    psynth_sample* out[kChannels] = {mod->output_buffers[0],
                                     mod->output_channels > 1 ? mod->output_buffers[1] : mod->output_buffers[0]};
    for (psynth_sample* o : out) memset(o + at, 0, sizeof(psynth_sample) * frames);
    d->idle = 1;
    for (int i = 0; i < count; i++) {
        sampler_voice* v = &d->voices[i];
        voice_context c;
        if (!v->active || !make_context(d, d->links[v->sample], net, &c)) continue;
        c.out[0] = out[0];
        c.out[1] = out[1];
        d->idle = 0;
        render_voice(v, c, at, frames);
    }
    tarvik_mutex_unlock(&d->mutex);
    return d->idle ? 0 : 1;
}

intptr_t note_on(int mod_num, sampler_data* d, const psynth_event* ev, psynth_net* net) {
    int vi = psynth_take_voice(d->voices, PSYNTH_SAMPLER_VOICES, polyphony(d), ev->id, d->idle != 0, &d->cursor);
    if (tarvik_mutex_trylock(&d->mutex)) return 0;
    int note = ev->note;
    int index = note < 0 ? 0 : note > kMaxNote ? kMaxNote : note;
    const psynth_sampler_instrument* ins = instrument_chunk(mod_num, net);
    int sample = ins ? ins->sample_map[index] : 0;
    const psynth_sampler_sample* h = nullptr;
    if (ins && ins->samples_num && sample < ins->samples_num && sample < PSYNTH_SAMPLER_SAMPLES) {
        h = header_chunk(mod_num, sample, net);
    }
    if (!h) {
        tarvik_mutex_unlock(&d->mutex);
        return 0;
    }
    int n = h->relative_note + ins->relative_note + (note < 0 ? 0 : note);
    if (n < 0) n = 0;
    // The event's pitch may differ from its note's (a bend, the module's own finetune and
    // relative note): the difference carries over into the period.
    int bend = ((kTopNote - note) * kPitchPerNote - ev->pitch) >> kPitchToPeriodBits;
    int period = (kTopNote - n) * kPeriodPerNote - (h->finetune >> kFinetuneBits) - (ins->finetune >> kFinetuneBits) - bend;
    tarvik_mutex_unlock(&d->mutex);

    sampler_voice* v = &d->voices[vi];
    memset(v, 0, sizeof(*v));
    v->active = 1;
    v->id = ev->id;
    v->velocity = ev->velocity;
    v->pitch = period * kPitchPerPeriod;
    v->pitch_offset = ev->pitch - v->pitch;
    v->step = step_for_pitch(v->pitch, net->sampling_rate);
    v->key_held = 1;
    v->fade = kFadeFull;
    v->first_tick = 1;
    v->local_pan = kPanRange / 2;
    v->tick_counter = kTickStartNow;
    v->sample = (uint8_t)sample;
    v->note = (uint8_t)index;
    d->idle = 0;
    return 1;
}

// SET_SAMPLE_OFFSET (frame in pitch) and SET_SAMPLE_OFFSET2 (0..32768 of the length in velocity).
intptr_t set_sample_offset(int mod_num, sampler_data* d, const psynth_event* ev, psynth_net* net) {
    sampler_voice* v = find_voice(d, ev->id);
    if (!v || tarvik_mutex_trylock(&d->mutex)) return 0;
    const psynth_sampler_sample* h = header_chunk(mod_num, v->sample, net);
    int64_t length = h ? h->length : 0;
    tarvik_mutex_unlock(&d->mutex);
    int64_t frame = ev->command == PS_CMD_SET_SAMPLE_OFFSET ? ev->pitch : length * ev->velocity / kSampleOffsetFull;
    if (frame < 0) frame = 0;
    if (frame >= length) frame = length > 0 ? length - 1 : 0;  // beyond the end: the last frame
    v->position = frame << kFracBits;
    return 1;
}

intptr_t set_local_controller(sampler_data* d, const psynth_event* ev) {
    sampler_voice* v = find_voice(d, ev->id);
    if (!v || ev->note != PSYNTH_SAMPLER_LOCAL_CTL_PAN) return 0;
    int value = ev->velocity > PSYNTH_CTL_MAX_VALUE ? PSYNTH_CTL_MAX_VALUE : ev->velocity;
    v->local_pan = (int16_t)(value >> kLocalPanBits);
    return 1;
}

intptr_t init(int mod_num, sampler_data* d, psynth_net* net) {
    memset(d, 0, sizeof(*d));
    static const char* const kNames[PSYNTH_SAMPLER_CTL_COUNT] = {
        "Volume", "Panning", "Sample interpolation", "Volume interpolation", "Polyphony"};
    static const char* const kUnits[PSYNTH_SAMPLER_CTL_COUNT] = {"", "", "off/linear/cubic", "off/linear", "ch."};
    static const int kMin[PSYNTH_SAMPLER_CTL_COUNT] = {0, 0, 0, 0, 1};
    static const int kMax[PSYNTH_SAMPLER_CTL_COUNT] = {512, 256, 2, 1, 16};
    static const int kDef[PSYNTH_SAMPLER_CTL_COUNT] = {256, 128, 2, 1, 8};
    static const int kType[PSYNTH_SAMPLER_CTL_COUNT] = {PSYNTH_CTL_NUMBER, PSYNTH_CTL_NUMBER, PSYNTH_CTL_SELECTOR,
                                                        PSYNTH_CTL_SELECTOR, PSYNTH_CTL_SELECTOR};
    for (int i = 0; i < PSYNTH_SAMPLER_CTL_COUNT; i++) {
        psynth_register_ctl(mod_num, kNames[i], kUnits[i], kMin[i], kMax[i], kDef[i], kType[i], &d->ctl[i], net);
    }
    clear_voices(d);
    d->cursor = 0;
    d->freq_table = psynth_get_freq_table();
    d->half_sine = psynth_get_half_sine_table();
    tarvik_mutex_create(&d->mutex);
    if (psynth_new_chunk(mod_num, PSYNTH_SAMPLER_INSTRUMENT_CHUNK, sizeof(psynth_sampler_instrument), 0, 0, net) == 0) {
        psynth_sampler_write_default_instrument((psynth_sampler_instrument*)psynth_get_chunk(mod_num, PSYNTH_SAMPLER_INSTRUMENT_CHUNK, net));
    } else {
        tarvik_log("psynth_sampler(): no memory for the instrument\n");
    }
    return 1;
}

// Songs from older versions carry shorter records; the grown tails are zero.
void grow_chunk(int mod_num, int chunk, int size, psynth_net* net) {
    int have = 0;
    if (!psynth_get_chunk(mod_num, chunk, net) || psynth_get_chunk_info(mod_num, chunk, &have, nullptr, nullptr, net)) return;
    if (have < size && !psynth_resize_chunk(mod_num, chunk, size, net)) {
        tarvik_log("psynth_sampler(): chunk %d cannot grow to %d bytes\n", chunk, size);
    }
}

intptr_t setup_finished(int mod_num, psynth_net* net) {
    grow_chunk(mod_num, PSYNTH_SAMPLER_INSTRUMENT_CHUNK, sizeof(psynth_sampler_instrument), net);
    for (int s = 0; s < PSYNTH_SAMPLER_SAMPLES; s++) {
        grow_chunk(mod_num, psynth_sampler_header_chunk(s), sizeof(psynth_sampler_sample), net);
        const psynth_sampler_sample* h = header_chunk(mod_num, s, net);
        int chunk = psynth_sampler_data_chunk(s);
        int rate = 0;
        int flags = h ? psynth_sampler_storage_flags(h->type) : 0;
        if (!flags || !psynth_get_chunk(mod_num, chunk, net)) continue;
        psynth_get_chunk_info(mod_num, chunk, nullptr, nullptr, &rate, net);
        psynth_set_chunk_info(mod_num, chunk, flags, rate, net);
    }
    return 1;
}

intptr_t close_module(sampler_data* d) {
    mem_free(d->rec.ring);
    d->rec.ring = nullptr;
    tarvik_mutex_destroy(&d->mutex);
    return 1;
}

}  // namespace

// ---- Editor-facing helpers ----

void psynth_sampler_build_envelope(const psynth_sampler_env_point* points, int count, int16_t* table) {
    memset(table, 0, sizeof(int16_t) * PSYNTH_SAMPLER_ENV_TICKS);
    if (count > PSYNTH_SAMPLER_ENV_POINTS) count = PSYNTH_SAMPLER_ENV_POINTS;
    for (int i = 0; i + 1 < count; i++) {
        int x0 = points[i].x, x1 = points[i + 1].x;
        int y0 = points[i].y, y1 = points[i + 1].y;
        if (x1 < x0) break;  // points must not go back in time: the rest stays 0
        int slope = x1 == x0 ? 0 : ((y1 - y0) * kEnvPointToTable) / (x1 - x0);
        int v = y0 * kEnvPointToTable;
        for (int x = x0; x <= x1 && x < PSYNTH_SAMPLER_ENV_TICKS; x++, v += slope) table[x] = (int16_t)(v >> kEnvTableBits);
        if (x1 < PSYNTH_SAMPLER_ENV_TICKS) table[x1] = (int16_t)(y1 * kEnvPointScale);
    }
}

void psynth_sampler_build_envelope_tables(psynth_sampler_instrument* ins) {
    psynth_sampler_build_envelope(ins->volume_points, ins->volume_points_num, ins->volume_table);
    psynth_sampler_build_envelope(ins->panning_points, ins->panning_points_num, ins->panning_table);
}

void psynth_sampler_write_default_instrument(psynth_sampler_instrument* ins) {
    static const psynth_sampler_env_point kVolume[4] = {{0, 0}, {32, 64}, {128, 32}, {256, 0}};
    static const psynth_sampler_env_point kPanning[4] = {{0, 32}, {64, 0}, {128, 64}, {180, 32}};
    ins->volume = kFullVolume;
    ins->panning = kPanRange / 2;
    memcpy(ins->volume_points, kVolume, sizeof(kVolume));
    memcpy(ins->panning_points, kPanning, sizeof(kPanning));
    ins->volume_points_num = 4;
    ins->panning_points_num = 4;
    ins->volume_sustain = 1;
    psynth_sampler_build_envelope_tables(ins);
}

int psynth_sampler_storage_flags(uint8_t type) {
    static const int kByFormat[4] = {PSYNTH_SAMPLER_STORAGE_INT8, PSYNTH_SAMPLER_STORAGE_INT16,
                                     PSYNTH_SAMPLER_STORAGE_FLOAT32, 0};
    int flags = kByFormat[sample_format(type)];
    if (flags && (type & PSYNTH_SAMPLER_STEREO)) flags |= PSYNTH_SAMPLER_STORAGE_STEREO;
    return flags;
}

tarvik_mutex* psynth_sampler_get_mutex(int mod_num, psynth_net* net) {
    sampler_data* d = data_of(mod_num, net);
    return d ? &d->mutex : nullptr;
}

int psynth_sampler_record(int mod_num, int on, int every_second_frame, psynth_net* net) {
    sampler_data* d = data_of(mod_num, net);
    if (!d) return 1;
    int channels = net->modules[mod_num].input_channels;
    channels = channels < 1 ? 1 : channels > kChannels ? kChannels : channels;
    int16_t* ring = nullptr;
    if (on) {
        ring = (int16_t*)mem_new(MEM_STORAGE, sizeof(int16_t) * PSYNTH_SAMPLER_RECORD_FRAMES * channels, "sampler_record");
        if (!ring) return 1;
    }
    // The ring changes hands under the mutex; it is allocated and freed outside it.
    tarvik_mutex_lock(&d->mutex);
    int16_t* old = d->rec.ring;
    d->rec = sampler_recording{};
    if (ring) {
        d->rec.ring = ring;
        d->rec.channels = channels;
        d->rec.every_second = every_second_frame != 0;
        d->rec.first_block = 1;
    }
    tarvik_mutex_unlock(&d->mutex);
    mem_free(old);
    return 0;
}

const int16_t* psynth_sampler_get_take(int mod_num, int* channels, uint32_t* frames_written, psynth_net* net) {
    sampler_data* d = data_of(mod_num, net);
    if (!d || !d->rec.ring) return nullptr;
    if (channels) *channels = d->rec.channels;
    if (frames_written) *frames_written = d->rec.written;
    return d->rec.ring;
}

// ---- The handler ----

intptr_t psynth_sampler(int mod_num, psynth_event* event, psynth_net* net) {
    switch (event->command) {
    case PS_CMD_GET_DATA_SIZE: return PSYNTH_SAMPLER_DATA_SIZE;
    case PS_CMD_GET_SYNTH_NAME: return (intptr_t)kName;
    case PS_CMD_GET_SYNTH_INFO: return (intptr_t)kInfo;
    case PS_CMD_GET_SYNTH_COLOR: return (intptr_t)kColor;
    case PS_CMD_GET_INPUTS_NUM:
    case PS_CMD_GET_OUTPUTS_NUM: return kChannels;
    case PS_CMD_GET_FLAGS: return kFlags;
    default: break;
    }
    sampler_data* d = data_of(mod_num, net);
    if (!d) return 0;
    switch (event->command) {
    case PS_CMD_INIT: return init(mod_num, d, net);
    case PS_CMD_SETUP_FINISHED: return setup_finished(mod_num, net);
    case PS_CMD_CLEAN:
        clear_voices(d);
        return 1;
    case PS_CMD_RENDER_REPLACE: return render(mod_num, d, net);
    case PS_CMD_NOTE_ON: return note_on(mod_num, d, event, net);
    case PS_CMD_SET_FREQ: {
        if (d->idle) return 0;
        if (sampler_voice* v = find_voice(d, event->id)) {
            v->pitch = event->pitch - v->pitch_offset;
            v->step = step_for_pitch(v->pitch, net->sampling_rate);  // vibrato joins at the next tick
        }
        return 1;
    }
    case PS_CMD_SET_VELOCITY: {
        if (d->idle) return 0;
        if (sampler_voice* v = find_voice(d, event->id)) v->velocity = event->velocity;
        return 1;
    }
    case PS_CMD_SET_SAMPLE_OFFSET:
    case PS_CMD_SET_SAMPLE_OFFSET2:
        return d->idle ? 0 : set_sample_offset(mod_num, d, event, net);
    case PS_CMD_NOTE_OFF:
        if (d->idle) return 0;
        for (sampler_voice& v : d->voices) {
            if (event->id != -1 && v.id == event->id) v.key_held = 0;
        }
        return 1;
    case PS_CMD_ALL_NOTES_OFF:
        for (sampler_voice& v : d->voices) {
            v.key_held = 0;
            v.id = -1;
        }
        return 1;
    case PS_CMD_SET_LOCAL_CONTROLLER: return set_local_controller(d, event);
    case PS_CMD_SPEED_CHANGED:
        d->tick_length = psynth_event_tick_length(event);
        return 1;
    case PS_CMD_CLOSE: return close_module(d);
    default: return 0;
    }
}
