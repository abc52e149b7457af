// XM files (extended modules): packed patterns, instruments of up to 16 delta-coded 8 or
// 16-bit samples with the very instrument model the Sampler keeps, so notes, relative
// notes, finetunes, envelopes, auto-vibrato and fade-outs carry over unchanged.
#include <cstring>

#include "song/tracker_module.h"

namespace {

constexpr char kMagic[] = "Extended Module: ";
constexpr size_t kMagicLength = sizeof(kMagic) - 1;
constexpr size_t kHeaderSizeAt = 60;
constexpr int kMaxInstrumentSamples = 16;
constexpr int kInstrumentHeaderMax = 263;  // the fields read; larger headers are skipped over
constexpr size_t kSampleHeaderBytes = 40;
constexpr int kKeyOff = 97;
constexpr int kEnvelopeMaxY = 64;
constexpr int kAdpcmMark = 0xAD;           // reserved byte of samples packed by one tracker

// Instrument header offsets (from the header's start).
enum : size_t {
    INS_NAME = 4,
    INS_SAMPLES = 27,
    INS_SAMPLE_HEADER_SIZE = 29,
    INS_MAP = 33,
    INS_VOLUME_POINTS = 129,
    INS_PANNING_POINTS = 177,
    INS_POINT_COUNTS = 225,   // volume, panning, then sustain and loop points, types
    INS_VIBRATO = 235,        // type, sweep, depth, rate
    INS_FADEOUT = 239,
};

// The volume column: set volume, slides, panning, tone portamento and vibrato.
void decode_volume_column(int v, tracker_fx_slot* fx) {
    int y = v & 15;
    fx->param = (uint8_t)y;
    switch (v >> 4) {
    case 0x1: case 0x2: case 0x3: case 0x4: fx->kind = TFX_SET_VOLUME; fx->param = (uint8_t)(v - 0x10); break;
    case 0x5: fx->kind = v == 0x50 ? TFX_SET_VOLUME : TFX_NONE; fx->param = 64; break;
    case 0x6: fx->kind = TFX_VOLSLIDE; break;
    case 0x7: fx->kind = TFX_VOLSLIDE; fx->param = (uint8_t)(y << 4); break;
    case 0x8: fx->kind = TFX_FINE_VOLSLIDE_DOWN; break;
    case 0x9: fx->kind = TFX_FINE_VOLSLIDE_UP; break;
    case 0xA: case 0xB: fx->kind = TFX_VIBRATO; break;
    case 0xC: fx->kind = TFX_SET_PAN; fx->param = (uint8_t)(y * 17); break;
    case 0xD: case 0xE: fx->kind = TFX_PANNING_SLIDE; break;
    case 0xF: fx->kind = TFX_TONE_PORTA; fx->param = (uint8_t)(y * 16); break;
    default: fx->kind = TFX_NONE; break;
    }
}

// Effects G and beyond, which MOD files do not have.
void decode_effect(tracker_module* m, int effect, int param, tracker_cell* cell) {
    if (effect < 16) {
        tracker_decode_mod_effect(m, effect, param, cell);
        return;
    }
    tracker_fx_slot* fx = &cell->fx[1];
    fx->param = (uint8_t)param;
    switch (effect) {
    case 'G' - 'A' + 10: case 'H' - 'A' + 10: fx->kind = TFX_GLOBAL_VOLUME; break;
    case 'K' - 'A' + 10: fx->kind = TFX_KEY_OFF; break;
    case 'L' - 'A' + 10: fx->kind = TFX_ENVELOPE_POSITION; break;
    case 'P' - 'A' + 10: fx->kind = TFX_PANNING_SLIDE; break;
    case 'R' - 'A' + 10: fx->kind = TFX_RETRIG; break;
    case 'T' - 'A' + 10: fx->kind = TFX_TREMOR; break;
    case 'X' - 'A' + 10:
        fx->param = (uint8_t)(param & 15);
        fx->kind = (param >> 4) == 1 ? TFX_EXTRA_FINE_PORTA_UP : (param >> 4) == 2 ? TFX_EXTRA_FINE_PORTA_DOWN : TFX_OTHER;
        break;
    default: fx->kind = TFX_OTHER; break;
    }
}

int read_pattern(tracker_reader* r, tracker_module* m, int p) {
    size_t start = r->pos;
    uint32_t header_length = tracker_u32le(r);
    tracker_u8(r);  // packing type, always 0
    int rows = tracker_u16le(r);
    uint16_t packed = tracker_u16le(r);
    if (r->cut || header_length < 9 || !tracker_has(r, header_length - 9)) return tracker_fail(m, ZELFON_IMPORT_DAMAGED, "pattern %d is cut short", p);
    tracker_seek(r, start + header_length);
    if (!tracker_has(r, packed)) return tracker_fail(m, ZELFON_IMPORT_DAMAGED, "pattern %d is cut short", p);
    int code = tracker_alloc_pattern(m, p, rows == 0 ? 64 : rows);
    if (code) return code;
    tracker_reader data = {r->data + r->pos, packed, 0, false};
    r->pos += packed;
    for (int row = 0; row < m->patterns[p].rows && data.pos < data.size; row++) {
        for (int c = 0; c < m->channels && data.pos < data.size; c++) {
            uint8_t what = tracker_u8(&data);
            uint8_t fields = (what & 0x80) ? what : 0x1F;
            uint8_t note = (what & 0x80) ? 0 : what;
            if ((what & 0x80) && (fields & 1)) note = tracker_u8(&data);
            int instrument = (fields & 2) ? tracker_u8(&data) : 0;
            int volume = (fields & 4) ? tracker_u8(&data) : 0;
            int effect = (fields & 8) ? tracker_u8(&data) : 0;
            int param = (fields & 16) ? tracker_u8(&data) : 0;
            tracker_cell* cell = tracker_cell_at(m, p, row, c);
            cell->note = note == kKeyOff ? TRACKER_NOTE_OFF : note <= 96 ? note : TRACKER_NOTE_NONE;
            cell->instrument = (uint8_t)instrument;
            decode_volume_column(volume, &cell->fx[0]);
            if (effect || param) decode_effect(m, effect, param, cell);
        }
    }
    return 0;
}

void read_envelope(tracker_module* m, const uint8_t* in, uint8_t count, psynth_sampler_env_point* points, uint8_t* out_count) {
    if (count > PSYNTH_SAMPLER_ENV_POINTS) {
        tracker_lose(m, ZELFON_LOSS_ENVELOPE);
        count = PSYNTH_SAMPLER_ENV_POINTS;
    }
    for (int i = 0; i < PSYNTH_SAMPLER_ENV_POINTS; i++) {
        uint16_t x = tracker_le16(in + 4 * i), y = tracker_le16(in + 4 * i + 2);
        if (i < count && x >= PSYNTH_SAMPLER_ENV_TICKS) {
            tracker_lose(m, ZELFON_LOSS_ENVELOPE);
            x = PSYNTH_SAMPLER_ENV_TICKS - 1;
        }
        points[i].x = x;
        points[i].y = y > kEnvelopeMaxY ? kEnvelopeMaxY : y;
    }
    *out_count = count;
}

// The instrument's fields into the Sampler's record (whose layout follows the same order).
void read_instrument_fields(tracker_module* m, const uint8_t* h, psynth_sampler_instrument* ins) {
    static const uint8_t kVibratoTypes[4] = {0, 2, 1, 1};  // sine, square, ramp down, ramp up (as down)
    memcpy(ins->sample_map, h + INS_MAP, sizeof(ins->sample_map));
    read_envelope(m, h + INS_VOLUME_POINTS, h[INS_POINT_COUNTS], ins->volume_points, &ins->volume_points_num);
    read_envelope(m, h + INS_PANNING_POINTS, h[INS_POINT_COUNTS + 1], ins->panning_points, &ins->panning_points_num);
    ins->volume_sustain = h[INS_POINT_COUNTS + 2];
    ins->volume_loop_start = h[INS_POINT_COUNTS + 3];
    ins->volume_loop_end = h[INS_POINT_COUNTS + 4];
    ins->panning_sustain = h[INS_POINT_COUNTS + 5];
    ins->panning_loop_start = h[INS_POINT_COUNTS + 6];
    ins->panning_loop_end = h[INS_POINT_COUNTS + 7];
    ins->volume_type = h[INS_POINT_COUNTS + 8] & 7;
    ins->panning_type = h[INS_POINT_COUNTS + 9] & 7;
    ins->vibrato_type = kVibratoTypes[h[INS_VIBRATO] & 3];
    ins->vibrato_sweep = h[INS_VIBRATO + 1];
    ins->vibrato_depth = h[INS_VIBRATO + 2];
    ins->vibrato_rate = h[INS_VIBRATO + 3];
    ins->volume_fadeout = tracker_le16(h + INS_FADEOUT);
}

void read_sample_header(tracker_reader* r, tracker_module* m, tracker_sample* ts) {
    psynth_sampler_sample* h = &ts->header;
    h->length = tracker_u32le(r);
    h->loop_start = tracker_u32le(r);
    h->loop_length = tracker_u32le(r);
    int volume = tracker_u8(r);
    h->volume = (uint8_t)(volume > 64 ? 64 : volume);
    h->finetune = (int8_t)tracker_u8(r);
    uint8_t type = tracker_u8(r);
    h->panning = tracker_u8(r);
    h->relative_note = (int8_t)tracker_u8(r);
    h->reserved = tracker_u8(r);
    uint8_t name[22];
    tracker_bytes(r, name, sizeof(name));
    tracker_name(h->name, sizeof(h->name), name, sizeof(name));
    int loop = type & 3;
    h->type = (uint8_t)(loop == 2 ? PSYNTH_SAMPLER_LOOP_PINGPONG : loop ? PSYNTH_SAMPLER_LOOP_FORWARD : PSYNTH_SAMPLER_LOOP_OFF);
    if (type & 0x10) {
        h->type |= PSYNTH_SAMPLER_FORMAT_INT16 << PSYNTH_SAMPLER_FORMAT_SHIFT;
        h->length /= 2;
        h->loop_start /= 2;
        h->loop_length /= 2;
    }
    if (type & 0x20) tracker_lose(m, ZELFON_LOSS_STEREO);
    ts->sets_pan = true;
}

// The sample's bytes in the file: stereo data holds a second channel after the first,
// packed data a 16-byte table and a nibble per frame.
size_t stored_bytes(const psynth_sampler_sample* h, bool stereo, bool packed) {
    size_t frame = (h->type & PSYNTH_SAMPLER_FORMAT_MASK) ? 2 : 1;
    if (packed) return 16 + (h->length + 1) / 2;
    return (size_t)h->length * frame * (stereo ? 2 : 1);
}

int read_instrument(tracker_reader* r, tracker_module* m, int i, int* pool) {
    size_t start = r->pos;
    uint32_t header_size = tracker_u32le(r);
    if (r->cut || header_size < 4 || !tracker_has(r, header_size - 4)) return tracker_fail(m, ZELFON_IMPORT_DAMAGED, "instrument %d is cut short", i + 1);
    uint8_t h[kInstrumentHeaderMax] = {};
    memcpy(h, r->data + start, header_size < sizeof(h) ? header_size : sizeof(h));
    tracker_seek(r, start + header_size);
    tracker_instrument* ti = &m->instruments[i];
    tracker_name(ti->ins.name, sizeof(ti->ins.name), h + INS_NAME, 22);
    int samples = tracker_le16(h + INS_SAMPLES);
    if (samples > kMaxInstrumentSamples) return tracker_fail(m, ZELFON_IMPORT_TOO_LARGE, "instrument %d has %d samples", i + 1, samples);
    if (samples == 0) return 0;
    read_instrument_fields(m, h, &ti->ins);
    uint32_t sample_header_size = (uint32_t)(h[INS_SAMPLE_HEADER_SIZE] | h[INS_SAMPLE_HEADER_SIZE + 1] << 8 |
                                             h[INS_SAMPLE_HEADER_SIZE + 2] << 16 | (uint32_t)h[INS_SAMPLE_HEADER_SIZE + 3] << 24);
    if (sample_header_size < kSampleHeaderBytes) sample_header_size = kSampleHeaderBytes;
    bool stereo[kMaxInstrumentSamples] = {}, packed[kMaxInstrumentSamples] = {};
    for (int k = 0; k < samples; k++) {
        size_t header_start = r->pos;
        if (!tracker_has(r, sample_header_size)) return tracker_fail(m, ZELFON_IMPORT_DAMAGED, "instrument %d is cut short", i + 1);
        tracker_sample* ts = &m->samples[*pool + k];
        uint8_t type = r->data[header_start + 14];
        stereo[k] = (type & 0x20) != 0;
        packed[k] = r->data[header_start + 17] == kAdpcmMark;
        read_sample_header(r, m, ts);
        tracker_seek(r, header_start + sample_header_size);
        ti->sample_of[k] = *pool + k;
    }
    ti->samples_num = samples;
    for (int k = 0; k < samples; k++) {
        tracker_sample* ts = &m->samples[*pool + k];
        size_t bytes = stored_bytes(&ts->header, stereo[k], packed[k]);
        size_t end = tracker_has(r, bytes) ? r->pos + bytes : r->size;
        if (packed[k]) {
            tracker_lose(m, ZELFON_LOSS_SAMPLES);
            ts->header.length = 0;
        }
        int code = tracker_read_sample_data(m, *pool + k, r, true, true);
        if (code) return code;
        tracker_seek(r, end);
    }
    *pool += samples;
    return 0;
}

}  // namespace

bool tracker_is_xm(const uint8_t* data, size_t size) { return size >= kMagicLength && !memcmp(data, kMagic, kMagicLength); }

int tracker_read_xm(tracker_reader* r, tracker_module* m) {
    tracker_name(m->name, sizeof(m->name), r->data + kMagicLength, r->size >= kMagicLength + 20 ? 20 : 0);
    tracker_seek(r, kHeaderSizeAt);
    uint32_t header_size = tracker_u32le(r);
    int orders = tracker_u16le(r);
    int restart = tracker_u16le(r);
    m->channels = tracker_u16le(r);
    m->patterns_num = tracker_u16le(r);
    int instruments = tracker_u16le(r);
    m->linear_slides = tracker_u16le(r) & 1;
    m->speed = tracker_u16le(r);
    m->bpm = tracker_u16le(r);
    uint8_t order_bytes[TRACKER_MAX_ORDERS];
    tracker_bytes(r, order_bytes, sizeof(order_bytes));
    if (r->cut) return tracker_fail(m, ZELFON_IMPORT_DAMAGED, "the header is cut short");
    if (m->channels < 1 || m->channels > TRACKER_MAX_CHANNELS || orders > TRACKER_MAX_ORDERS ||
        m->patterns_num > TRACKER_MAX_PATTERNS) {
        return tracker_fail(m, ZELFON_IMPORT_TOO_LARGE, "%d channels, %d orders and %d patterns are beyond the format",
                            m->channels, orders, m->patterns_num);
    }
    if (m->speed == 0) m->speed = 6;
    if (m->bpm == 0) m->bpm = 125;
    m->orders_num = orders;
    for (int o = 0; o < orders; o++) m->orders[o] = order_bytes[o];
    m->restart_order = restart < orders ? restart : 0;
    for (int c = 0; c < m->channels; c++) m->channel_pan[c] = 128;
    int code = tracker_alloc_tables(m, instruments, instruments * kMaxInstrumentSamples);
    if (code) return code;

    tracker_seek(r, kHeaderSizeAt + header_size);
    for (int p = 0; p < m->patterns_num; p++) {
        code = read_pattern(r, m, p);
        if (code) return code;
    }
    int pool = 0;
    for (int i = 0; i < instruments; i++) {
        code = read_instrument(r, m, i, &pool);
        if (code) return code;
    }
    return 0;
}
