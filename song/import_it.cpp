// IT files: up to 64 channels of packed patterns, samples at C-5 speeds (plain, or
// compressed as IT 2.14 and 2.15 store them) and, in instrument mode, instruments whose
// note map gathers up to 16 of those samples into one Sampler with its envelopes.
#include <cstring>

#include "engine/memory.h"
#include "psynth/psynth_dsp.h"
#include "song/tracker_module.h"

namespace {

constexpr size_t kCountsAt = 0x20;
constexpr size_t kChannelPanAt = 0x40;
constexpr size_t kOrdersAt = 0xC0;
constexpr int kChannels = 64;
constexpr int kKeyboardNotes = 120;
constexpr int kEnvelopeNodes = 25;
constexpr int kGlobalVolumeMax = 128;
constexpr int kFadeoutScale = 32;       // IT fade-out steps of 1/1024 into the Sampler's 1/32768
constexpr int kNewInstrumentVersion = 0x200;
constexpr int kChannelSurround = 100;
constexpr int kChannelDisabled = 0x80;
constexpr uint8_t kOrderSkip = 254, kOrderEnd = 255;
constexpr uint8_t kNoteOff = 255, kNoteCut = 254;

// Header flags.
enum : int { IT_INSTRUMENTS = 4, IT_LINEAR = 8, IT_OLD_EFFECTS = 16 };
// Sample flags.
enum : int {
    SMP_DATA = 1, SMP_16BIT = 2, SMP_STEREO = 4, SMP_COMPRESSED = 8,
    SMP_LOOP = 16, SMP_SUSTAIN_LOOP = 32, SMP_PINGPONG = 64,
};
// Sample conversion flags.
enum : int { CVT_SIGNED = 1, CVT_DELTA = 4 };
// Envelope flags.
enum : int { ENV_ON = 1, ENV_LOOP = 2, ENV_SUSTAIN_LOOP = 4, ENV_FILTER = 0x80 };

// Instrument offsets.
enum : size_t {
    INS_OLD_FLAGS = 0x11,
    INS_OLD_FADEOUT = 0x18,
    INS_FADEOUT = 0x14,
    INS_GLOBAL_VOLUME = 0x18,
    INS_NAME = 0x20,
    INS_FILTER_CUTOFF = 0x3A,
    INS_FILTER_RESONANCE = 0x3B,
    INS_KEYBOARD = 0x40,
    INS_ENVELOPES = 0x130,
    INS_BYTES = 0x226,
    ENV_BYTES = 82,
};

// ---- Compressed samples ----

// The bit stream of one compressed block, read from its lowest bit up.
struct bit_reader {
    const uint8_t* data;
    size_t size;
    size_t bit;
};

uint32_t read_bits(bit_reader* b, int n) {
    uint32_t v = 0;
    for (int i = 0; i < n; i++, b->bit++) {
        size_t byte = b->bit >> 3;
        if (byte >= b->size) return v;
        v |= (uint32_t)((b->data[byte] >> (b->bit & 7)) & 1) << i;
    }
    return v;
}

// Decodes `frames` frames of 8 or 16-bit data in blocks, each with its own byte count.
// IT 2.15 data is delta-coded twice. Returns the frames decoded before the data ran out.
uint32_t decompress(tracker_reader* r, void* out, uint32_t frames, bool wide, bool it215) {
    const uint32_t block_frames = wide ? 0x4000 : 0x8000;
    const int top = wide ? 17 : 9;              // widest code; the width starts there
    const int width_bits = wide ? 4 : 3;        // bits of a new width in the narrowest codes
    const int value_bits = wide ? 16 : 8;
    uint32_t done = 0;
    while (done < frames) {
        uint16_t bytes = tracker_u16le(r);
        if (r->cut || !tracker_has(r, bytes)) break;
        bit_reader b = {r->data + r->pos, bytes, 0};
        r->pos += bytes;
        uint32_t count = frames - done < block_frames ? frames - done : block_frames;
        int width = top;
        uint32_t d1 = 0, d2 = 0;
        for (uint32_t i = 0; i < count && (b.bit >> 3) < b.size;) {
            uint32_t v = read_bits(&b, width);
            if (width < 7) {
                if (v == 1u << (width - 1)) {
                    int w = (int)read_bits(&b, width_bits) + 1;
                    width = w < width ? w : w + 1;
                    continue;
                }
            } else if (width < top) {
                uint32_t border = ((wide ? 0xFFFFu : 0xFFu) >> (top - width)) - (wide ? 8 : 4);
                if (v > border && v <= border + (wide ? 16 : 8)) {
                    int w = (int)(v - border);
                    width = w < width ? w : w + 1;
                    continue;
                }
            } else if (width == top) {
                if (v & (1u << (top - 1))) {
                    width = (int)((v + 1) & 0xFF);
                    if (width < 1 || width > top) break;  // damaged block
                    continue;
                }
            } else {
                break;
            }
            // A value of `width` bits, sign-extended.
            int shift = 32 - (width < value_bits ? width : value_bits);
            int32_t delta = (int32_t)(v << shift) >> shift;
            // The sums wrap as the 8 or 16-bit values they stand for.
            d1 += (uint32_t)delta;
            d2 += d1;
            uint32_t value = it215 ? d2 : d1;
            if (wide) {
                ((int16_t*)out)[done + i] = (int16_t)value;
            } else {
                ((int8_t*)out)[done + i] = (int8_t)value;
            }
            i++;
        }
        done += count;
    }
    return done < frames ? done : frames;
}

// ---- Samples ----

struct sample_vibrato {
    uint8_t speed, depth, sweep, type;
};

int read_sample_data(tracker_reader* r, tracker_module* m, int s, int flags, int cvt, uint32_t at) {
    psynth_sampler_sample* h = &m->samples[s].header;
    tracker_seek(r, at);
    if (!(flags & SMP_COMPRESSED)) return tracker_read_sample_data(m, s, r, cvt & CVT_SIGNED, false);
    // Compressed blocks need at least a bit a frame: a longer claim is damage.
    bool wide = flags & SMP_16BIT;
    uint64_t most = (uint64_t)(r->size - r->pos) * 8;
    if (h->length > most) {
        tracker_lose(m, ZELFON_LOSS_SAMPLE_CUT);
        h->length = (uint32_t)most;
    }
    if (h->length == 0) {
        tracker_fix_loop(h);
        return 0;
    }
    void* data = mem_new_dynamic((size_t)h->length * (wide ? 2 : 1), "tracker_sample");
    if (!data) return tracker_fail(m, ZELFON_IMPORT_NO_MEMORY, "out of memory for sample %d", s + 1);
    memset(data, 0, (size_t)h->length * (wide ? 2 : 1));
    m->samples[s].data = data;
    uint32_t got = decompress(r, data, h->length, wide, cvt & CVT_DELTA);
    if (got < h->length) {
        tracker_lose(m, ZELFON_LOSS_SAMPLE_CUT);
        h->length = got;
    }
    tracker_fix_loop(h);
    return 0;
}

int read_sample(tracker_reader* r, tracker_module* m, int s, uint32_t at, sample_vibrato* vibrato) {
    tracker_seek(r, at);
    uint8_t magic[4];
    tracker_bytes(r, magic, 4);
    tracker_skip(r, 13);  // DOS file name
    int global_volume = tracker_u8(r);
    int flags = tracker_u8(r);
    int volume = tracker_u8(r);
    uint8_t name[26];
    tracker_bytes(r, name, sizeof(name));
    int cvt = tracker_u8(r);
    int pan = tracker_u8(r);
    tracker_sample* ts = &m->samples[s];
    psynth_sampler_sample* h = &ts->header;
    h->length = tracker_u32le(r);
    uint32_t loop_begin = tracker_u32le(r), loop_end = tracker_u32le(r);
    uint32_t c5_speed = tracker_u32le(r);
    tracker_skip(r, 8);  // sustain loop
    uint32_t data_at = tracker_u32le(r);
    vibrato->speed = tracker_u8(r);
    vibrato->depth = tracker_u8(r);
    vibrato->sweep = tracker_u8(r);
    vibrato->type = tracker_u8(r);
    if (r->cut || memcmp(magic, "IMPS", 4) != 0) return tracker_fail(m, ZELFON_IMPORT_DAMAGED, "sample %d is damaged or cut short", s + 1);
    tracker_name(h->name, sizeof(h->name), name, sizeof(name));
    if (!(flags & SMP_DATA)) {
        h->length = 0;
        return 0;
    }
    if (h->length > TRACKER_MAX_SAMPLE_FRAMES) return tracker_fail(m, ZELFON_IMPORT_TOO_LARGE, "sample %d is too long", s + 1);
    if (global_volume > 64) global_volume = 64;
    if (volume > 64) volume = 64;
    h->volume = (uint8_t)(volume * global_volume / 64);
    if (pan & 0x80) {
        int p = (pan & 0x7F) * 4;
        h->panning = (uint8_t)(p > 255 ? 255 : p);
        ts->sets_pan = true;
    }
    if ((flags & SMP_LOOP) && loop_end > loop_begin) {
        h->type = (flags & SMP_PINGPONG) ? PSYNTH_SAMPLER_LOOP_PINGPONG : PSYNTH_SAMPLER_LOOP_FORWARD;
        h->loop_start = loop_begin;
        h->loop_length = loop_end - loop_begin;
    }
    if (flags & SMP_SUSTAIN_LOOP) tracker_lose(m, ZELFON_LOSS_SUSTAIN_LOOP);
    if (flags & SMP_STEREO) tracker_lose(m, ZELFON_LOSS_STEREO);  // the left channel comes first
    if (flags & SMP_16BIT) h->type |= PSYNTH_SAMPLER_FORMAT_INT16 << PSYNTH_SAMPLER_FORMAT_SHIFT;
    // C-5 plays at the sample's speed; notes keep their numbers, so C-4 plays an octave lower.
    tracker_rate_to_pitch(c5_speed / 2.0, &h->relative_note, &h->finetune);
    return read_sample_data(r, m, s, flags, cvt, data_at);
}

void apply_vibrato(const sample_vibrato* v, psynth_sampler_instrument* ins) {
    static const uint8_t kTypes[4] = {0, 1, 2, 0};  // sine, ramp down, square, random (as sine)
    ins->vibrato_type = kTypes[v->type & 3];
    ins->vibrato_depth = (uint8_t)(v->depth / 4 > 15 ? 15 : v->depth / 4);
    ins->vibrato_rate = (uint8_t)(v->speed > 63 ? 63 : v->speed);
    int sweep = v->sweep ? v->depth * 256 / v->sweep : 0;
    ins->vibrato_sweep = (uint8_t)(sweep > 255 ? 255 : sweep);
}

// ---- Instruments ----

// One envelope: at most 12 of its 25 nodes and 512 ticks; a sustain loop becomes a
// sustain at its first node.
void read_envelope(tracker_module* m, const uint8_t* e, int y_offset, psynth_sampler_env_point* points, uint8_t* count,
                   uint8_t* type, uint8_t* sustain, uint8_t* loop_start, uint8_t* loop_end) {
    int flags = e[0], nodes = e[1];
    if (nodes > kEnvelopeNodes) nodes = kEnvelopeNodes;
    if (nodes > PSYNTH_SAMPLER_ENV_POINTS) {
        tracker_lose(m, ZELFON_LOSS_ENVELOPE);
        nodes = PSYNTH_SAMPLER_ENV_POINTS;
    }
    for (int i = 0; i < nodes; i++) {
        int y = (int8_t)e[6 + 3 * i] + y_offset;
        int x = tracker_le16(e + 7 + 3 * i);
        if (x >= PSYNTH_SAMPLER_ENV_TICKS) {
            tracker_lose(m, ZELFON_LOSS_ENVELOPE);
            x = PSYNTH_SAMPLER_ENV_TICKS - 1;
        }
        points[i].x = (uint16_t)x;
        points[i].y = (uint16_t)(y < 0 ? 0 : y > 64 ? 64 : y);
    }
    *count = (uint8_t)nodes;
    *type = 0;
    if (!(flags & ENV_ON)) return;
    *type = PSYNTH_SAMPLER_ENV_ON;
    if (flags & ENV_LOOP) {
        *type |= PSYNTH_SAMPLER_ENV_LOOP;
        *loop_start = e[2];
        *loop_end = e[3];
    }
    if (flags & ENV_SUSTAIN_LOOP) {
        *type |= PSYNTH_SAMPLER_ENV_SUSTAIN;
        *sustain = e[4];
        if (e[4] != e[5]) tracker_lose(m, ZELFON_LOSS_ENVELOPE);
    }
}

// The keyboard's samples become the instrument's own (at most 16); transpositions are lost.
void read_keyboard(tracker_module* m, const uint8_t* kb, tracker_instrument* ti, int samples) {
    bool transposed = false, too_many = false;
    memset(ti->ins.sample_map, 0xFF, sizeof(ti->ins.sample_map));
    for (int n = 0; n < kKeyboardNotes; n++) {
        int note = kb[2 * n], sample = kb[2 * n + 1];
        if (sample == 0 || sample > samples) continue;
        if (note != n) transposed = true;
        int k = 0;
        while (k < ti->samples_num && ti->sample_of[k] != sample - 1) k++;
        if (k == ti->samples_num) {
            if (k == PSYNTH_SAMPLER_SAMPLES) {
                too_many = true;
                continue;
            }
            ti->sample_of[ti->samples_num++] = sample - 1;
        }
        if (n < PSYNTH_SAMPLER_NOTES) ti->ins.sample_map[n] = (uint8_t)k;
    }
    if (transposed) tracker_lose(m, ZELFON_LOSS_NOTE_MAP);
    if (too_many) tracker_lose(m, ZELFON_LOSS_SAMPLES);
}

int read_instrument(tracker_reader* r, tracker_module* m, int i, uint32_t at, bool new_format, const sample_vibrato* vibratos) {
    tracker_seek(r, at);
    if (!tracker_has(r, INS_BYTES) || memcmp(r->data + at, "IMPI", 4) != 0) {
        return tracker_fail(m, ZELFON_IMPORT_DAMAGED, "instrument %d is damaged or cut short", i + 1);
    }
    const uint8_t* h = r->data + at;
    tracker_instrument* ti = &m->instruments[i];
    psynth_sampler_instrument* ins = &ti->ins;
    tracker_name(ins->name, sizeof(ins->name), h + INS_NAME, 26);
    read_keyboard(m, h + INS_KEYBOARD, ti, m->samples_num);
    if (ti->samples_num > 0) apply_vibrato(&vibratos[ti->sample_of[0]], ins);
    if (!new_format) {
        int fadeout = tracker_le16(h + INS_OLD_FADEOUT) * kFadeoutScale * 2;  // old instruments fade in 1/512 steps
        ins->volume_fadeout = (uint16_t)(fadeout > 0xFFFF ? 0xFFFF : fadeout);
        if (h[INS_OLD_FLAGS] & ENV_ON) tracker_lose(m, ZELFON_LOSS_ENVELOPE);
        return 0;
    }
    int fadeout = tracker_le16(h + INS_FADEOUT) * kFadeoutScale;
    ins->volume_fadeout = (uint16_t)(fadeout > 0xFFFF ? 0xFFFF : fadeout);
    int volume = h[INS_GLOBAL_VOLUME];
    ins->volume = (uint8_t)((volume > kGlobalVolumeMax ? kGlobalVolumeMax : volume) / 2);
    if ((h[INS_FILTER_CUTOFF] & 0x80) || (h[INS_FILTER_RESONANCE] & 0x80)) tracker_lose(m, ZELFON_LOSS_FILTER);
    const uint8_t* env = h + INS_ENVELOPES;
    read_envelope(m, env, 0, ins->volume_points, &ins->volume_points_num, &ins->volume_type, &ins->volume_sustain,
                  &ins->volume_loop_start, &ins->volume_loop_end);
    read_envelope(m, env + ENV_BYTES, 32, ins->panning_points, &ins->panning_points_num, &ins->panning_type,
                  &ins->panning_sustain, &ins->panning_loop_start, &ins->panning_loop_end);
    int pitch_flags = env[2 * ENV_BYTES];
    if (pitch_flags & ENV_ON) tracker_lose(m, (pitch_flags & ENV_FILTER) ? ZELFON_LOSS_FILTER : ZELFON_LOSS_ENVELOPE);
    return 0;
}

// ---- Patterns ----

// The volume column: volume, fine and plain slides, portamentos, panning, vibrato.
void decode_volume_column(int v, tracker_fx_slot* fx) {
    static const uint8_t kTonePortaSpeeds[10] = {0, 1, 4, 8, 16, 32, 64, 96, 128, 255};
    if (v <= 64) tracker_put_fx(fx, TFX_SET_VOLUME, v);
    else if (v <= 74) tracker_put_fx(fx, TFX_FINE_VOLSLIDE_UP, v - 65);
    else if (v <= 84) tracker_put_fx(fx, TFX_FINE_VOLSLIDE_DOWN, v - 75);
    else if (v <= 94) tracker_put_fx(fx, TFX_VOLSLIDE, (v - 85) << 4);
    else if (v <= 104) tracker_put_fx(fx, TFX_VOLSLIDE, v - 95);
    else if (v <= 114) tracker_put_fx(fx, TFX_PORTA_DOWN, (v - 105) * 4);
    else if (v <= 124) tracker_put_fx(fx, TFX_PORTA_UP, (v - 115) * 4);
    else if (v >= 128 && v <= 192) tracker_put_fx(fx, TFX_SET_PAN, (v - 128) * 4 > 255 ? 255 : (v - 128) * 4);
    else if (v >= 193 && v <= 202) tracker_put_fx(fx, TFX_TONE_PORTA, kTonePortaSpeeds[v - 193]);
    else if (v >= 203 && v <= 212) tracker_put_fx(fx, TFX_VIBRATO, v - 203);
}

uint8_t note_of(int n) {
    if (n < TRACKER_NOTE_MAX) return (uint8_t)(n + 1);
    if (n == kNoteOff) return TRACKER_NOTE_OFF;
    if (n == kNoteCut) return TRACKER_NOTE_CUT;
    return TRACKER_NOTE_FADE;
}

// What a channel's last cell left for the masks that repeat it.
struct channel_memory {
    uint8_t mask, note, instrument, volume, command, param;
};

int read_pattern(tracker_reader* r, tracker_module* m, int p, uint32_t at, const bool* enabled) {
    if (at == 0) return tracker_alloc_pattern(m, p, 64);
    tracker_seek(r, at);
    size_t length = tracker_u16le(r);
    int rows = tracker_u16le(r);
    tracker_skip(r, 4);
    if (r->cut) return tracker_fail(m, ZELFON_IMPORT_DAMAGED, "pattern %d is cut short", p);
    int code = tracker_alloc_pattern(m, p, rows);
    if (code) return code;
    size_t available = r->size - r->pos;
    tracker_reader data = {r->data + r->pos, length < available ? length : available, 0, false};
    channel_memory last[kChannels] = {};
    for (int row = 0; row < rows && data.pos < data.size;) {
        int what = tracker_u8(&data);
        if (what == 0) {
            row++;
            continue;
        }
        int c = (what - 1) & 63;
        channel_memory* cm = &last[c];
        if (what & 0x80) cm->mask = tracker_u8(&data);
        if (cm->mask & 1) cm->note = tracker_u8(&data);
        if (cm->mask & 2) cm->instrument = tracker_u8(&data);
        if (cm->mask & 4) cm->volume = tracker_u8(&data);
        if (cm->mask & 8) {
            cm->command = tracker_u8(&data);
            cm->param = tracker_u8(&data);
        }
        if (!enabled[c]) continue;
        tracker_cell* cell = tracker_cell_at(m, p, row, c);
        if (cm->mask & 0x11) cell->note = note_of(cm->note);
        if (cm->mask & 0x22) cell->instrument = cm->instrument;
        if (cm->mask & 0x44) decode_volume_column(cm->volume, &cell->fx[0]);
        if (cm->mask & 0x88) tracker_decode_s3m_effect(m, cm->command, cm->param, true, cell);
    }
    return 0;
}

}  // namespace

bool tracker_is_it(const uint8_t* data, size_t size) { return size >= 4 && !memcmp(data, "IMPM", 4); }

int tracker_read_it(tracker_reader* r, tracker_module* m) {
    tracker_name(m->name, sizeof(m->name), r->data + 4, r->size >= 30 ? 26 : 0);
    tracker_seek(r, kCountsAt);
    int orders = tracker_u16le(r);
    int instruments = tracker_u16le(r);
    int samples = tracker_u16le(r);
    m->patterns_num = tracker_u16le(r);
    tracker_skip(r, 2);  // made with
    int compatible = tracker_u16le(r);
    int flags = tracker_u16le(r);
    tracker_skip(r, 2);
    int global_volume = tracker_u8(r);
    tracker_skip(r, 1);  // mixing volume
    m->speed = tracker_u8(r);
    m->bpm = tracker_u8(r);
    uint8_t pans[kChannels], volumes[kChannels];
    tracker_seek(r, kChannelPanAt);
    tracker_bytes(r, pans, sizeof(pans));
    tracker_bytes(r, volumes, sizeof(volumes));
    if (r->cut) return tracker_fail(m, ZELFON_IMPORT_DAMAGED, "the header is cut short");
    if (orders > TRACKER_MAX_ORDERS || m->patterns_num > TRACKER_MAX_PATTERNS || samples > TRACKER_MAX_INSTRUMENTS ||
        instruments > TRACKER_MAX_INSTRUMENTS) {
        return tracker_fail(m, ZELFON_IMPORT_TOO_LARGE, "%d orders, %d patterns and %d samples are beyond the format", orders,
                            m->patterns_num, samples);
    }
    bool instrument_mode = flags & IT_INSTRUMENTS;
    m->linear_slides = flags & IT_LINEAR;
    if (flags & IT_OLD_EFFECTS) tracker_lose(m, ZELFON_LOSS_UNUSUAL_FLAG);
    if (m->speed == 0) m->speed = 6;
    if (m->bpm < 31) m->bpm = 125;
    m->global_volume = (global_volume > kGlobalVolumeMax ? kGlobalVolumeMax : global_volume) * PSYNTH_GAIN_UNITY / kGlobalVolumeMax;
    m->channels = kChannels;
    bool enabled[kChannels];
    for (int c = 0; c < kChannels; c++) {
        enabled[c] = !(pans[c] & kChannelDisabled);
        int pan = pans[c] & 0x7F;
        if (pan == kChannelSurround) tracker_lose(m, ZELFON_LOSS_SOUND_CONTROL);
        m->channel_pan[c] = (uint8_t)(pan > 64 ? 128 : pan * 4 > 255 ? 255 : pan * 4);
        if (enabled[c] && volumes[c] < 64) tracker_lose(m, ZELFON_LOSS_CHANNEL_VOLUME);
    }
    m->orders_num = orders;
    tracker_seek(r, kOrdersAt);
    for (int o = 0; o < orders; o++) {
        uint8_t v = tracker_u8(r);
        m->orders[o] = v == kOrderEnd ? TRACKER_ORDER_END : v == kOrderSkip ? TRACKER_ORDER_SKIP : v;
    }
    uint32_t instrument_at[TRACKER_MAX_INSTRUMENTS] = {}, sample_at[TRACKER_MAX_INSTRUMENTS] = {};
    uint32_t pattern_at[TRACKER_MAX_PATTERNS] = {};
    for (int i = 0; i < instruments; i++) instrument_at[i] = tracker_u32le(r);
    for (int s = 0; s < samples; s++) sample_at[s] = tracker_u32le(r);
    for (int p = 0; p < m->patterns_num; p++) pattern_at[p] = tracker_u32le(r);
    if (r->cut) return tracker_fail(m, ZELFON_IMPORT_DAMAGED, "the header is cut short");

    int code = tracker_alloc_tables(m, instrument_mode ? instruments : samples, samples);
    if (code) return code;
    sample_vibrato vibratos[TRACKER_MAX_INSTRUMENTS] = {};
    for (int s = 0; s < samples; s++) {
        code = read_sample(r, m, s, sample_at[s], &vibratos[s]);
        if (code) return code;
    }
    if (instrument_mode) {
        for (int i = 0; i < instruments; i++) {
            code = read_instrument(r, m, i, instrument_at[i], compatible >= kNewInstrumentVersion, vibratos);
            if (code) return code;
        }
    } else {
        for (int s = 0; s < samples; s++) {
            tracker_instrument_of_sample(m, s, s);
            apply_vibrato(&vibratos[s], &m->instruments[s].ins);
        }
    }
    for (int p = 0; p < m->patterns_num; p++) {
        code = read_pattern(r, m, p, pattern_at[p], enabled);
        if (code) return code;
    }
    return 0;
}
