// The byte reader and the helpers the tracker readers share: names, pitches from sample
// rates, tables of patterns, instruments and samples, and sample data decoding.
#include "song/tracker_module.h"

#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "engine/memory.h"

namespace {

constexpr int kFinetuneSteps = 128;  // finetune units per semitone

}  // namespace

// ---- Byte reader ----

static const uint8_t* take(tracker_reader* r, size_t n) {
    if (!tracker_has(r, n)) {
        r->cut = true;
        r->pos = r->size;
        return nullptr;
    }
    const uint8_t* p = r->data + r->pos;
    r->pos += n;
    return p;
}

uint8_t tracker_u8(tracker_reader* r) {
    const uint8_t* p = take(r, 1);
    return p ? p[0] : 0;
}

uint16_t tracker_u16le(tracker_reader* r) {
    const uint8_t* p = take(r, 2);
    return p ? (uint16_t)(p[0] | p[1] << 8) : 0;
}

uint16_t tracker_u16be(tracker_reader* r) {
    const uint8_t* p = take(r, 2);
    return p ? (uint16_t)(p[0] << 8 | p[1]) : 0;
}

uint32_t tracker_u32le(tracker_reader* r) {
    const uint8_t* p = take(r, 4);
    return p ? (uint32_t)(p[0] | p[1] << 8 | p[2] << 16 | (uint32_t)p[3] << 24) : 0;
}

void tracker_bytes(tracker_reader* r, void* out, size_t n) {
    const uint8_t* p = take(r, n);
    if (p) {
        memcpy(out, p, n);
    } else {
        memset(out, 0, n);
    }
}

void tracker_skip(tracker_reader* r, size_t n) { take(r, n); }

void tracker_seek(tracker_reader* r, size_t pos) {
    if (pos > r->size) {
        r->cut = true;
        r->pos = r->size;
    } else {
        r->pos = pos;
    }
}

// ---- Report ----

int tracker_fail(tracker_module* m, int code, const char* format, ...) {
    zelfon_import_report* report = m->report;
    int n = snprintf(report->error, sizeof(report->error), "%s: ", zelfon_import_format_name(m->format));
    va_list args;
    va_start(args, format);
    if (n > 0 && (size_t)n < sizeof(report->error)) vsnprintf(report->error + n, sizeof(report->error) - n, format, args);
    va_end(args);
    return code;
}

void tracker_lose(tracker_module* m, int kind, int count) {
    if (kind >= 0 && kind < ZELFON_LOSS_KINDS) m->report->losses[kind] += count;
}

void tracker_name(char* out, size_t out_size, const uint8_t* in, size_t n) {
    size_t len = 0;
    for (size_t i = 0; i < n && in[i] && len + 1 < out_size; i++) {
        out[len++] = (in[i] >= 32 && in[i] < 127) ? (char)in[i] : ' ';
    }
    while (len > 0 && out[len - 1] == ' ') len--;
    out[len] = 0;
}

// ---- Pitch ----

void tracker_rate_to_pitch(double rate, int8_t* relative_note, int8_t* finetune) {
    if (!(rate > 0)) rate = TRACKER_C4_RATE;
    double semitones = 12.0 * std::log2(rate / TRACKER_C4_RATE);
    int steps = (int)std::lround(semitones * kFinetuneSteps);
    int note = (int)std::floor((steps + kFinetuneSteps / 2) / (double)kFinetuneSteps);
    int fine = steps - note * kFinetuneSteps;  // −64..63
    if (note > 127) note = 127;
    if (note < -128) note = -128;
    *relative_note = (int8_t)note;
    *finetune = (int8_t)fine;
}

double tracker_sample_rate(const psynth_sampler_sample* h) {
    return TRACKER_C4_RATE * std::exp2((h->relative_note + h->finetune / (double)kFinetuneSteps) / 12.0);
}

// ---- Tables ----

int tracker_alloc_tables(tracker_module* m, int instruments, int samples) {
    if (instruments > TRACKER_MAX_INSTRUMENTS || samples > TRACKER_MAX_SAMPLES) {
        return tracker_fail(m, ZELFON_IMPORT_TOO_LARGE, "%d instruments and %d samples are too many", instruments, samples);
    }
    if (instruments > 0) {
        m->instruments = (tracker_instrument*)mem_new_dynamic(sizeof(tracker_instrument) * instruments, "tracker_ins");
        if (!m->instruments) return tracker_fail(m, ZELFON_IMPORT_NO_MEMORY, "out of memory");
        memset(m->instruments, 0, sizeof(tracker_instrument) * instruments);
        for (int i = 0; i < instruments; i++) psynth_sampler_write_default_instrument(&m->instruments[i].ins);
    }
    if (samples > 0) {
        m->samples = (tracker_sample*)mem_new_dynamic(sizeof(tracker_sample) * samples, "tracker_samples");
        if (!m->samples) return tracker_fail(m, ZELFON_IMPORT_NO_MEMORY, "out of memory");
        memset(m->samples, 0, sizeof(tracker_sample) * samples);
        for (int s = 0; s < samples; s++) m->samples[s].header.panning = 128;
    }
    m->instruments_num = instruments;
    m->samples_num = samples;
    return 0;
}

int tracker_alloc_pattern(tracker_module* m, int p, int rows) {
    if (p < 0 || p >= TRACKER_MAX_PATTERNS || rows < 1 || rows > TRACKER_MAX_ROWS) {
        return tracker_fail(m, ZELFON_IMPORT_TOO_LARGE, "pattern %d has %d rows", p, rows);
    }
    size_t bytes = sizeof(tracker_cell) * rows * m->channels;
    m->patterns[p].cells = (tracker_cell*)mem_new_dynamic(bytes, "tracker_pattern");
    if (!m->patterns[p].cells) return tracker_fail(m, ZELFON_IMPORT_NO_MEMORY, "out of memory");
    memset(m->patterns[p].cells, 0, bytes);
    m->patterns[p].rows = rows;
    return 0;
}

tracker_cell* tracker_cell_at(tracker_module* m, int p, int row, int channel) {
    tracker_pattern* pat = &m->patterns[p];
    if (!pat->cells || row < 0 || row >= pat->rows || channel < 0 || channel >= m->channels) return nullptr;
    return &pat->cells[row * m->channels + channel];
}

void tracker_instrument_of_sample(tracker_module* m, int i, int s) {
    tracker_instrument* ti = &m->instruments[i];
    memcpy(ti->ins.name, m->samples[s].header.name, sizeof(ti->ins.name));
    ti->samples_num = 1;
    ti->sample_of[0] = s;
}

// ---- Sample data ----

void tracker_fix_loop(psynth_sampler_sample* h) {
    if (h->loop_start >= h->length) h->loop_start = 0, h->loop_length = 0;
    if (h->loop_length > h->length - h->loop_start) h->loop_length = h->length - h->loop_start;
    if (h->loop_length < 2) {
        h->loop_length = 0;
        h->type &= (uint8_t)~PSYNTH_SAMPLER_LOOP_MASK;
    }
    if (!(h->type & PSYNTH_SAMPLER_LOOP_MASK)) h->loop_start = 0, h->loop_length = 0;
}

int tracker_read_sample_data(tracker_module* m, int s, tracker_reader* r, bool is_signed, bool delta) {
    psynth_sampler_sample* h = &m->samples[s].header;
    bool wide = ((h->type & PSYNTH_SAMPLER_FORMAT_MASK) >> PSYNTH_SAMPLER_FORMAT_SHIFT) == PSYNTH_SAMPLER_FORMAT_INT16;
    size_t frame_bytes = wide ? 2 : 1;
    size_t available = r->pos < r->size ? (r->size - r->pos) / frame_bytes : 0;
    if (h->length > available) {
        tracker_lose(m, ZELFON_LOSS_SAMPLE_CUT);
        h->length = (uint32_t)available;
    }
    if (h->length == 0) {
        tracker_fix_loop(h);
        return 0;
    }
    m->samples[s].data = mem_new_dynamic(h->length * frame_bytes, "tracker_sample");
    if (!m->samples[s].data) return tracker_fail(m, ZELFON_IMPORT_NO_MEMORY, "out of memory for sample %d", s + 1);
    const uint8_t* in = r->data + r->pos;
    r->pos += h->length * frame_bytes;
    if (wide) {
        int16_t* out = (int16_t*)m->samples[s].data;
        uint16_t acc = 0;
        for (uint32_t i = 0; i < h->length; i++) {
            uint16_t v = (uint16_t)(in[2 * i] | in[2 * i + 1] << 8);
            if (!is_signed) v ^= 0x8000;
            acc = delta ? (uint16_t)(acc + v) : v;
            out[i] = (int16_t)acc;
        }
    } else {
        int8_t* out = (int8_t*)m->samples[s].data;
        uint8_t acc = 0;
        for (uint32_t i = 0; i < h->length; i++) {
            uint8_t v = is_signed ? in[i] : (uint8_t)(in[i] ^ 0x80);
            acc = delta ? (uint8_t)(acc + v) : v;
            out[i] = (int8_t)acc;
        }
    }
    tracker_fix_loop(h);
    return 0;
}

void tracker_free(tracker_module* m) {
    for (int p = 0; p < TRACKER_MAX_PATTERNS; p++) {
        mem_free(m->patterns[p].cells);
        m->patterns[p].cells = nullptr;
    }
    for (int s = 0; s < m->samples_num; s++) mem_free(m->samples[s].data);
    mem_free(m->samples);
    mem_free(m->instruments);
    m->samples = nullptr;
    m->instruments = nullptr;
    m->samples_num = 0;
    m->instruments_num = 0;
}
