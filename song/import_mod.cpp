// MOD files (4 to 32 channels, 31 samples, the common signatures at byte 1080): notes
// are Amiga periods, C-2 (period 428) becoming C-4 at the rate that period plays at.
// Also the decoding of the MOD effect letters, which XM files share.
#include <cmath>
#include <cstring>

#include "song/tracker_module.h"

namespace {

constexpr int kSamples = 31;
constexpr int kOrders = 128;
constexpr int kRows = 64;
constexpr size_t kSongLengthAt = 950;
constexpr size_t kOrdersAt = 952;
constexpr size_t kSignatureAt = 1080;
constexpr size_t kPatternsAt = 1084;
constexpr int kMiddlePeriod = 428;            // C-2 of the Amiga, our C-4
constexpr int kMiddleNote = 49;               // C-4 as a cell note
constexpr double kFinetuneSteps = 96.0;       // finetune units per octave (1/8 semitone)

bool is_digit(uint8_t c) { return c >= '0' && c <= '9'; }

// Channels a signature announces, 0 for none of the known ones.
int channels_of(const uint8_t* s) {
    static const char* const four[] = {"M.K.", "M!K!", "M&K!", "FLT4", "N.T."};
    for (const char* sig : four) {
        if (!memcmp(s, sig, 4)) return 4;
    }
    if (!memcmp(s, "CD81", 4) || !memcmp(s, "OKTA", 4) || !memcmp(s, "OCTA", 4)) return 8;
    if (is_digit(s[0]) && !memcmp(s + 1, "CHN", 3)) return s[0] - '0';
    if (!memcmp(s, "TDZ", 3) && is_digit(s[3])) return s[3] - '0';
    if (is_digit(s[0]) && is_digit(s[1]) && (!memcmp(s + 2, "CH", 2) || !memcmp(s + 2, "CN", 2))) {
        return (s[0] - '0') * 10 + (s[1] - '0');
    }
    return 0;
}

int valid_channels(const uint8_t* data, size_t size) {
    if (size < kPatternsAt) return 0;
    int channels = channels_of(data + kSignatureAt);
    return channels >= 1 && channels <= 32 ? channels : 0;
}

uint8_t note_of_period(int period) {
    if (period <= 0) return TRACKER_NOTE_NONE;
    int note = kMiddleNote + (int)std::lround(12.0 * std::log2((double)kMiddlePeriod / period));
    return (uint8_t)(note < 1 ? 1 : note > TRACKER_NOTE_MAX ? TRACKER_NOTE_MAX : note);
}

}  // namespace

void tracker_decode_mod_effect(tracker_module* m, int effect, int param, tracker_cell* cell) {
    tracker_fx_slot* fx = &cell->fx[1];
    int x = param >> 4, y = param & 15;
    switch (effect) {
    case 0x0: if (param) tracker_put_fx(fx, TFX_ARPEGGIO, param); break;
    case 0x1: tracker_put_fx(fx, TFX_PORTA_UP, param); break;
    case 0x2: tracker_put_fx(fx, TFX_PORTA_DOWN, param); break;
    case 0x3: tracker_put_fx(fx, TFX_TONE_PORTA, param); break;
    case 0x4: tracker_put_fx(fx, TFX_VIBRATO, param); break;
    case 0x5:
    case 0x6:
        // Portamento or vibrato going on, with a volume slide: the slide takes the free
        // volume column when there is one.
        tracker_put_fx(fx, effect == 0x5 ? TFX_TONE_PORTA : TFX_VIBRATO, 0);
        if (cell->fx[0].kind == TFX_NONE) {
            tracker_put_fx(&cell->fx[0], TFX_VOLSLIDE, param);
        } else {
            tracker_lose(m, ZELFON_LOSS_SECOND_EFFECT);
        }
        break;
    case 0x7: tracker_put_fx(fx, TFX_TREMOLO, param); break;
    case 0x8: tracker_put_fx(fx, TFX_SET_PAN, param); break;
    case 0x9: tracker_put_fx(fx, TFX_SAMPLE_OFFSET, param); break;
    case 0xA: tracker_put_fx(fx, TFX_VOLSLIDE, param); break;
    case 0xB: tracker_put_fx(fx, TFX_JUMP, param); break;
    case 0xC: tracker_put_fx(fx, TFX_SET_VOLUME, param > 64 ? 64 : param); break;
    case 0xD: tracker_put_fx(fx, TFX_BREAK, x * 10 + y); break;  // decimal digits
    case 0xE:
        switch (x) {
        case 0x0: tracker_put_fx(fx, TFX_FILTER, y); break;
        case 0x1: tracker_put_fx(fx, TFX_FINE_PORTA_UP, y); break;
        case 0x2: tracker_put_fx(fx, TFX_FINE_PORTA_DOWN, y); break;
        case 0x3: case 0x4: case 0x5: case 0x7: tracker_put_fx(fx, TFX_WAVEFORM, y); break;
        case 0x6: tracker_put_fx(fx, TFX_PATTERN_LOOP, y); break;
        case 0x8: tracker_put_fx(fx, TFX_SET_PAN, y * 17); break;
        case 0x9: if (y) tracker_put_fx(fx, TFX_RETRIG, y); break;
        case 0xA: tracker_put_fx(fx, TFX_FINE_VOLSLIDE_UP, y); break;
        case 0xB: tracker_put_fx(fx, TFX_FINE_VOLSLIDE_DOWN, y); break;
        case 0xC: tracker_put_fx(fx, TFX_NOTE_CUT, y); break;
        case 0xD: tracker_put_fx(fx, TFX_NOTE_DELAY, y); break;
        case 0xE: tracker_put_fx(fx, TFX_PATTERN_DELAY, y); break;
        default: tracker_put_fx(fx, TFX_OTHER, y); break;
        }
        break;
    case 0xF: tracker_put_fx(fx, param < 32 ? TFX_SPEED : TFX_TEMPO, param); break;
    default: tracker_put_fx(fx, TFX_OTHER, param); break;
    }
}

bool tracker_is_mod(const uint8_t* data, size_t size) { return valid_channels(data, size) > 0; }

int tracker_read_mod(tracker_reader* r, tracker_module* m) {
    m->channels = valid_channels(r->data, r->size);
    for (int c = 0; c < m->channels; c++) m->channel_pan[c] = (c % 4 == 0 || c % 4 == 3) ? 0 : 255;  // L R R L
    tracker_name(m->name, sizeof(m->name), r->data, 20);
    int code = tracker_alloc_tables(m, kSamples, kSamples);
    if (code) return code;

    tracker_seek(r, 20);
    for (int s = 0; s < kSamples; s++) {
        tracker_sample* ts = &m->samples[s];
        psynth_sampler_sample* h = &ts->header;
        uint8_t name[22];
        tracker_bytes(r, name, sizeof(name));
        tracker_name(h->name, sizeof(h->name), name, sizeof(name));
        h->length = tracker_u16be(r) * 2u;
        int finetune = tracker_u8(r) & 15;
        if (finetune > 7) finetune -= 16;
        int volume = tracker_u8(r);
        h->volume = (uint8_t)(volume > 64 ? 64 : volume);
        h->loop_start = tracker_u16be(r) * 2u;
        h->loop_length = tracker_u16be(r) * 2u;
        if (h->loop_length > 2) h->type = PSYNTH_SAMPLER_LOOP_FORWARD;
        tracker_rate_to_pitch(TRACKER_AMIGA_CLOCK / kMiddlePeriod * std::exp2(finetune / kFinetuneSteps), &h->relative_note, &h->finetune);
        tracker_instrument_of_sample(m, s, s);
    }
    int song_length = r->data[kSongLengthAt];
    m->orders_num = song_length < 1 ? 1 : song_length > kOrders ? kOrders : song_length;
    int patterns = 0;
    for (int o = 0; o < kOrders; o++) {
        int p = r->data[kOrdersAt + o];
        if (o < m->orders_num) m->orders[o] = (uint16_t)p;
        if (p + 1 > patterns) patterns = p + 1;
    }
    size_t pattern_bytes = (size_t)kRows * m->channels * 4;
    if (kPatternsAt + patterns * pattern_bytes > r->size) return tracker_fail(m, ZELFON_IMPORT_DAMAGED, "the file ends inside pattern data");
    m->patterns_num = patterns;
    tracker_seek(r, kPatternsAt);
    for (int p = 0; p < patterns; p++) {
        code = tracker_alloc_pattern(m, p, kRows);
        if (code) return code;
        for (int row = 0; row < kRows; row++) {
            for (int c = 0; c < m->channels; c++) {
                uint8_t b[4];
                tracker_bytes(r, b, 4);
                tracker_cell* cell = tracker_cell_at(m, p, row, c);
                cell->instrument = (uint8_t)((b[0] & 0xF0) | b[2] >> 4);
                cell->note = note_of_period((b[0] & 0x0F) << 8 | b[1]);
                tracker_decode_mod_effect(m, b[2] & 0x0F, b[3], cell);
            }
        }
    }
    for (int s = 0; s < kSamples; s++) {
        code = tracker_read_sample_data(m, s, r, true, false);
        if (code) return code;
    }
    return 0;
}
