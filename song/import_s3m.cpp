// S3M files: up to 32 channels of packed patterns and samples at C-4 speeds (their rate
// on C-4, made here into a relative note and finetune). Also the decoding of the S3M
// effect letters, which IT files share.
#include <cstring>

#include "psynth/psynth_dsp.h"
#include "song/tracker_module.h"

namespace {

constexpr size_t kHeaderBytes = 0x60;
constexpr size_t kMagicAt = 0x2C;
constexpr size_t kCountsAt = 0x20;
constexpr size_t kChannelSettingsAt = 0x40;
constexpr size_t kOrdersAt = 0x60;
constexpr size_t kParagraph = 16;
constexpr int kChannels = 32;
constexpr int kRows = 64;
constexpr int kPanTableMark = 252;
constexpr uint8_t kOrderSkip = 254, kOrderEnd = 255;
constexpr uint8_t kNoteCut = 254, kNoteEmpty = 255;
constexpr int kMaxSpeed = 31;  // larger values would read as tempos here

// Dxy: D0y down, Dx0 up, DxF fine up, DFy fine down (D00 repeats the last).
void decode_volume_slide(int param, tracker_fx_slot* fx) {
    int x = param >> 4, y = param & 15;
    if (x == 0xF && y) {
        tracker_put_fx(fx, TFX_FINE_VOLSLIDE_DOWN, y);
    } else if (y == 0xF && x) {
        tracker_put_fx(fx, TFX_FINE_VOLSLIDE_UP, x);
    } else if (y) {
        tracker_put_fx(fx, TFX_VOLSLIDE, y);
    } else {
        tracker_put_fx(fx, TFX_VOLSLIDE, x << 4);
    }
}

// Exx/Fxx: xx a slide, EFx fine, EEx extra fine.
void decode_porta(int param, bool up, tracker_fx_slot* fx) {
    int x = param >> 4, y = param & 15;
    if (x == 0xF) {
        tracker_put_fx(fx, up ? TFX_FINE_PORTA_UP : TFX_FINE_PORTA_DOWN, y);
    } else if (x == 0xE) {
        tracker_put_fx(fx, up ? TFX_EXTRA_FINE_PORTA_UP : TFX_EXTRA_FINE_PORTA_DOWN, y);
    } else {
        tracker_put_fx(fx, up ? TFX_PORTA_UP : TFX_PORTA_DOWN, param);
    }
}

void decode_special(int param, bool it, tracker_fx_slot* fx) {
    int x = param >> 4, y = param & 15;
    switch (x) {
    case 0x0: tracker_put_fx(fx, TFX_FILTER, y); break;
    case 0x1: case 0x2: case 0x3: case 0x4: case 0x5: tracker_put_fx(fx, TFX_WAVEFORM, y); break;
    case 0x6: tracker_put_fx(fx, TFX_PATTERN_DELAY, y); break;
    case 0x7: case 0x9: tracker_put_fx(fx, TFX_SOUND_CONTROL, y); break;
    case 0x8: tracker_put_fx(fx, TFX_SET_PAN, y * 17); break;
    case 0xA: tracker_put_fx(fx, it ? TFX_HIGH_OFFSET : TFX_OTHER, y); break;
    case 0xB: tracker_put_fx(fx, TFX_PATTERN_LOOP, y); break;
    case 0xC: tracker_put_fx(fx, TFX_NOTE_CUT, y); break;
    case 0xD: tracker_put_fx(fx, TFX_NOTE_DELAY, y); break;
    case 0xE: tracker_put_fx(fx, TFX_PATTERN_DELAY, y); break;
    default: tracker_put_fx(fx, it ? TFX_MIDI : TFX_OTHER, y); break;
    }
}

uint8_t note_of(uint8_t n) {
    if (n == kNoteEmpty) return TRACKER_NOTE_NONE;
    if (n == kNoteCut) return TRACKER_NOTE_CUT;
    int octave = n >> 4, semitone = n & 15;
    return semitone < 12 && octave < 10 ? (uint8_t)(octave * 12 + semitone + 1) : TRACKER_NOTE_NONE;
}

uint16_t order_of(uint8_t o) { return o == kOrderEnd ? TRACKER_ORDER_END : o == kOrderSkip ? TRACKER_ORDER_SKIP : o; }

int read_sample(tracker_reader* r, tracker_module* m, int s, size_t at, bool is_signed) {
    tracker_seek(r, at);
    int type = tracker_u8(r);
    tracker_skip(r, 12);  // DOS file name
    uint32_t hi = tracker_u8(r);
    uint32_t data_at = (hi << 16 | tracker_u16le(r)) * (uint32_t)kParagraph;
    tracker_sample* ts = &m->samples[s];
    psynth_sampler_sample* h = &ts->header;
    h->length = tracker_u32le(r);
    uint32_t loop_begin = tracker_u32le(r), loop_end = tracker_u32le(r);
    int volume = tracker_u8(r);
    tracker_skip(r, 1);
    int pack = tracker_u8(r);
    int flags = tracker_u8(r);
    uint32_t c4_speed = tracker_u32le(r);
    tracker_skip(r, 12);
    uint8_t name[28];
    tracker_bytes(r, name, sizeof(name));
    if (r->cut) return tracker_fail(m, ZELFON_IMPORT_DAMAGED, "sample %d is cut short", s + 1);
    tracker_name(h->name, sizeof(h->name), name, sizeof(name));
    tracker_instrument_of_sample(m, s, s);
    if (type != 1 || pack != 0) {
        if (type > 1 || pack != 0) tracker_lose(m, ZELFON_LOSS_SAMPLES);  // AdLib instruments, packed data
        h->length = 0;
        return 0;
    }
    if (h->length > TRACKER_MAX_SAMPLE_FRAMES) return tracker_fail(m, ZELFON_IMPORT_TOO_LARGE, "sample %d is too long", s + 1);
    h->volume = (uint8_t)(volume > 64 ? 64 : volume);
    if ((flags & 1) && loop_end > loop_begin) {
        h->type = PSYNTH_SAMPLER_LOOP_FORWARD;
        h->loop_start = loop_begin;
        h->loop_length = loop_end - loop_begin;
    }
    if (flags & 4) h->type |= PSYNTH_SAMPLER_FORMAT_INT16 << PSYNTH_SAMPLER_FORMAT_SHIFT;
    if (flags & 2) tracker_lose(m, ZELFON_LOSS_STEREO);  // the left channel comes first
    tracker_rate_to_pitch(c4_speed, &h->relative_note, &h->finetune);
    tracker_seek(r, data_at);
    return tracker_read_sample_data(m, s, r, is_signed, false);
}

int read_pattern(tracker_reader* r, tracker_module* m, int p, size_t at, const bool* enabled) {
    int code = tracker_alloc_pattern(m, p, kRows);
    if (code || at == 0) return code;
    tracker_seek(r, at);
    size_t length = tracker_u16le(r);
    if (r->cut) return tracker_fail(m, ZELFON_IMPORT_DAMAGED, "pattern %d is cut short", p);
    size_t available = r->size - r->pos;
    tracker_reader data = {r->data + r->pos, length < available ? length : available, 0, false};
    for (int row = 0; row < kRows && data.pos < data.size;) {
        uint8_t what = tracker_u8(&data);
        if (what == 0) {
            row++;
            continue;
        }
        tracker_cell cell = {};
        if (what & 32) {
            cell.note = note_of(tracker_u8(&data));
            cell.instrument = tracker_u8(&data);
        }
        if (what & 64) {
            int volume = tracker_u8(&data);
            tracker_put_fx(&cell.fx[0], TFX_SET_VOLUME, volume > 64 ? 64 : volume);
        }
        if (what & 128) {
            int command = tracker_u8(&data);
            int param = tracker_u8(&data);
            tracker_decode_s3m_effect(m, command, param, false, &cell);
        }
        int c = what & 31;
        if (enabled[c]) *tracker_cell_at(m, p, row, c) = cell;
    }
    return 0;
}

}  // namespace

void tracker_decode_s3m_effect(tracker_module* m, int command, int param, bool it, tracker_cell* cell) {
    tracker_fx_slot* fx = &cell->fx[1];
    switch (command) {
    case 0: break;
    case 'A' - '@': if (param) tracker_put_fx(fx, TFX_SPEED, param > kMaxSpeed ? kMaxSpeed : param); break;
    case 'B' - '@': tracker_put_fx(fx, TFX_JUMP, param); break;
    case 'C' - '@': tracker_put_fx(fx, TFX_BREAK, it ? param : (param >> 4) * 10 + (param & 15)); break;
    case 'D' - '@': decode_volume_slide(param, fx); break;
    case 'E' - '@': decode_porta(param, false, fx); break;
    case 'F' - '@': decode_porta(param, true, fx); break;
    case 'G' - '@': tracker_put_fx(fx, TFX_TONE_PORTA, param); break;
    case 'H' - '@': case 'U' - '@': tracker_put_fx(fx, TFX_VIBRATO, param); break;
    case 'I' - '@': tracker_put_fx(fx, TFX_TREMOR, param); break;
    case 'J' - '@': if (param) tracker_put_fx(fx, TFX_ARPEGGIO, param); break;
    case 'K' - '@':
        decode_volume_slide(param, fx);
        tracker_lose(m, ZELFON_LOSS_VIBRATO);
        break;
    case 'L' - '@':
        // Portamento going on with a volume slide: the slide takes the free volume column.
        tracker_put_fx(fx, TFX_TONE_PORTA, 0);
        if (cell->fx[0].kind == TFX_NONE) {
            decode_volume_slide(param, &cell->fx[0]);
        } else {
            tracker_lose(m, ZELFON_LOSS_SECOND_EFFECT);
        }
        break;
    case 'M' - '@': case 'N' - '@': tracker_put_fx(fx, TFX_CHANNEL_VOLUME, param); break;
    case 'O' - '@': tracker_put_fx(fx, TFX_SAMPLE_OFFSET, param); break;
    case 'P' - '@': tracker_put_fx(fx, TFX_PANNING_SLIDE, param); break;
    case 'Q' - '@': tracker_put_fx(fx, TFX_RETRIG, param); break;
    case 'R' - '@': tracker_put_fx(fx, TFX_TREMOLO, param); break;
    case 'S' - '@': decode_special(param, it, fx); break;
    case 'T' - '@': tracker_put_fx(fx, param >= 0x20 ? TFX_TEMPO : it ? TFX_TEMPO_SLIDE : TFX_OTHER, param); break;
    case 'V' - '@': case 'W' - '@': tracker_put_fx(fx, TFX_GLOBAL_VOLUME, param); break;
    case 'X' - '@':
        if (it) {
            tracker_put_fx(fx, TFX_SET_PAN, param);
        } else if (param <= 0x80) {
            tracker_put_fx(fx, TFX_SET_PAN, param >= 0x80 ? 255 : param * 2);
        } else {
            tracker_put_fx(fx, TFX_SOUND_CONTROL, param);  // surround
        }
        break;
    case 'Y' - '@': tracker_put_fx(fx, TFX_PANBRELLO, param); break;
    case 'Z' - '@': tracker_put_fx(fx, TFX_MIDI, param); break;
    default: tracker_put_fx(fx, TFX_OTHER, param); break;
    }
}

bool tracker_is_s3m(const uint8_t* data, size_t size) { return size >= kHeaderBytes && !memcmp(data + kMagicAt, "SCRM", 4); }

int tracker_read_s3m(tracker_reader* r, tracker_module* m) {
    tracker_name(m->name, sizeof(m->name), r->data, 28);
    tracker_seek(r, kCountsAt);
    int orders = tracker_u16le(r);
    int samples = tracker_u16le(r);
    m->patterns_num = tracker_u16le(r);
    tracker_skip(r, 4);  // flags, tracker version
    bool is_signed = tracker_u16le(r) == 1;
    tracker_skip(r, 4);  // "SCRM"
    int global_volume = tracker_u8(r);
    m->speed = tracker_u8(r);
    m->bpm = tracker_u8(r);
    bool stereo = (tracker_u8(r) & 0x80) != 0;
    tracker_skip(r, 1);
    bool pan_table = tracker_u8(r) == kPanTableMark;
    uint8_t settings[kChannels];
    tracker_seek(r, kChannelSettingsAt);
    tracker_bytes(r, settings, sizeof(settings));
    if (orders > TRACKER_MAX_ORDERS || m->patterns_num > TRACKER_MAX_PATTERNS) {
        return tracker_fail(m, ZELFON_IMPORT_TOO_LARGE, "%d orders and %d patterns are beyond the format", orders, m->patterns_num);
    }
    if (m->speed == 0 || m->speed == 255) m->speed = 6;
    if (m->bpm < 33) m->bpm = 125;
    if (global_volume > 0 && global_volume < 64) m->global_volume = global_volume * PSYNTH_GAIN_UNITY / 64;
    m->channels = kChannels;
    m->orders_num = orders;
    tracker_seek(r, kOrdersAt);
    for (int o = 0; o < orders; o++) m->orders[o] = order_of(tracker_u8(r));
    uint16_t sample_at[TRACKER_MAX_INSTRUMENTS] = {}, pattern_at[TRACKER_MAX_PATTERNS] = {};
    int code = tracker_alloc_tables(m, samples, samples);
    if (code) return code;
    for (int s = 0; s < samples; s++) sample_at[s] = tracker_u16le(r);
    for (int p = 0; p < m->patterns_num; p++) pattern_at[p] = tracker_u16le(r);
    uint8_t pans[kChannels] = {};
    if (pan_table) tracker_bytes(r, pans, sizeof(pans));
    if (r->cut) return tracker_fail(m, ZELFON_IMPORT_DAMAGED, "the header is cut short");

    bool enabled[kChannels];
    for (int c = 0; c < kChannels; c++) {
        int setting = settings[c] & 0x7F;
        enabled[c] = !(settings[c] & 0x80) && setting < 16;
        m->channel_pan[c] = !stereo ? 128 : (pans[c] & 0x20) ? (pans[c] & 15) * 17 : setting < 8 ? 0x33 : 0xCC;
    }
    for (int s = 0; s < samples; s++) {
        code = read_sample(r, m, s, sample_at[s] * kParagraph, is_signed);
        if (code) return code;
    }
    for (int p = 0; p < m->patterns_num; p++) {
        code = read_pattern(r, m, p, pattern_at[p] * kParagraph, enabled);
        if (code) return code;
    }
    return 0;
}
