// The tracker file writers: each format's header, packed patterns, instruments and
// samples laid out byte by byte as the format's public description has them.
#include "tracker_writers.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numbers>

namespace {

struct writer {
    tw_bytes b;
    size_t size() const { return b.size(); }
    void u8(int v) { b.push_back((uint8_t)v); }
    void u16le(int v) { u8(v & 255), u8((v >> 8) & 255); }
    void u16be(int v) { u8((v >> 8) & 255), u8(v & 255); }
    void u32le(uint32_t v) { u16le((int)(v & 0xFFFF)), u16le((int)(v >> 16)); }
    void text(const std::string& s, size_t n) {
        for (size_t i = 0; i < n; i++) u8(i < s.size() ? s[i] : 0);
    }
    void zeros(size_t n) { b.insert(b.end(), n, 0); }
    void align(size_t n) { zeros((n - b.size() % n) % n); }
    void put16le(size_t at, int v) { b[at] = (uint8_t)v, b[at + 1] = (uint8_t)(v >> 8); }
    void put32le(size_t at, uint32_t v) { put16le(at, (int)(v & 0xFFFF)), put16le(at + 2, (int)(v >> 16)); }
    void append(const tw_bytes& more) { b.insert(b.end(), more.begin(), more.end()); }
};

// The song's cells by pattern, row and channel (a song may hold many thousands).
struct cell_grid {
    int rows, channels;
    std::vector<const tw_cell*> cells;
    cell_grid(const tw_song& s, int pattern_rows) : rows(pattern_rows), channels(s.channels) {
        cells.assign((size_t)s.patterns * rows * channels, nullptr);
        for (const tw_cell& c : s.cells) {
            if (c.pattern >= 0 && c.pattern < s.patterns && c.row >= 0 && c.row < rows && c.channel >= 0 && c.channel < channels) cells[((size_t)c.pattern * rows + c.row) * channels + c.channel] = &c;
        }
    }
    const tw_cell* at(int pattern, int row, int channel) const { return cells[((size_t)pattern * rows + row) * channels + channel]; }
};

int note_map_sample(const tw_instrument& ins, int note) {
    return note < (int)ins.note_map.size() ? ins.note_map[note] : 0;
}

// ---- XM ----

void xm_envelope(writer* w, const tw_envelope& e, int y_offset) {
    for (int i = 0; i < 12; i++) {
        w->u16le(i < (int)e.points.size() ? e.points[i].x : 0);
        w->u16le(i < (int)e.points.size() ? e.points[i].y + y_offset : 0);
    }
}

int xm_envelope_type(const tw_envelope& e) {
    return (e.on ? 1 : 0) | (e.sustain >= 0 ? 2 : 0) | (e.loop_start >= 0 ? 4 : 0);
}

void xm_pattern(writer* w, const tw_song& s, const cell_grid& grid, int p) {
    writer data;
    for (int row = 0; row < s.rows; row++) {
        for (int ch = 0; ch < s.channels; ch++) {
            const tw_cell* c = grid.at(p, row, ch);
            if (!c) {
                data.u8(0x80);
                continue;
            }
            // Every other cell unpacked, so that both forms are read.
            if ((row + ch) % 2 == 0) {
                data.u8(c->note < 0 ? 0 : c->note);
                data.u8(c->instrument), data.u8(c->volume < 0 ? 0 : c->volume);
                data.u8(c->effect < 0 ? 0 : c->effect), data.u8(c->param);
                continue;
            }
            int mask = 0x80 | (c->note >= 0 ? 1 : 0) | (c->instrument ? 2 : 0) | (c->volume >= 0 ? 4 : 0) |
                       (c->effect > 0 ? 8 : 0) | (c->effect >= 0 && c->param ? 16 : 0);
            data.u8(mask);
            if (mask & 1) data.u8(c->note);
            if (mask & 2) data.u8(c->instrument);
            if (mask & 4) data.u8(c->volume);
            if (mask & 8) data.u8(c->effect);
            if (mask & 16) data.u8(c->param);
        }
    }
    w->u32le(9);
    w->u8(0);
    w->u16le(s.rows);
    w->u16le((int)data.size());
    w->append(data.b);
}

void xm_instrument(writer* w, const tw_song& s, const tw_instrument& ins) {
    size_t start = w->size();
    w->u32le(ins.samples.empty() ? 29 : 263);
    w->text(ins.name, 22);
    w->u8(0);
    w->u16le((int)ins.samples.size());
    if (ins.samples.empty()) return;
    w->u32le(40);
    for (int n = 0; n < 96; n++) w->u8(note_map_sample(ins, n));
    xm_envelope(w, ins.volume, 0);
    xm_envelope(w, ins.panning, 0);
    w->u8((int)ins.volume.points.size()), w->u8((int)ins.panning.points.size());
    w->u8(std::max(ins.volume.sustain, 0)), w->u8(std::max(ins.volume.loop_start, 0)), w->u8(std::max(ins.volume.loop_end, 0));
    w->u8(std::max(ins.panning.sustain, 0)), w->u8(std::max(ins.panning.loop_start, 0)), w->u8(std::max(ins.panning.loop_end, 0));
    w->u8(xm_envelope_type(ins.volume)), w->u8(xm_envelope_type(ins.panning));
    w->u8(ins.vibrato_type), w->u8(ins.vibrato_sweep), w->u8(ins.vibrato_depth), w->u8(ins.vibrato_rate);
    w->u16le(ins.fadeout);
    w->zeros(start + 263 - w->size());
    for (int k : ins.samples) {
        const tw_sample& smp = s.samples[k];
        int bytes = smp.wide ? 2 : 1;
        w->u32le((uint32_t)smp.frames.size() * bytes);
        w->u32le(smp.loop_start * bytes);
        w->u32le(smp.loop_length * bytes);
        w->u8(smp.volume), w->u8(smp.finetune & 255);
        w->u8(smp.loop | (smp.wide ? 0x10 : 0));
        w->u8(smp.panning < 0 ? 128 : smp.panning);
        w->u8(smp.relative_note & 255), w->u8(0);
        w->text(smp.name, 22);
    }
    for (int k : ins.samples) {
        const tw_sample& smp = s.samples[k];
        int previous = 0;
        for (int16_t v : smp.frames) {
            int delta = v - previous;
            previous = v;
            if (smp.wide) {
                w->u16le(delta & 0xFFFF);
            } else {
                w->u8(delta & 255);
            }
        }
    }
}

// ---- IT compression ----

// Writes the bits of a compressed block from the lowest bit up.
struct bit_writer {
    tw_bytes bytes;
    int bit = 0;
    void put(uint32_t v, int n) {
        for (int i = 0; i < n; i++, bit++) {
            if ((bit & 7) == 0) bytes.push_back(0);
            bytes.back() |= (uint8_t)(((v >> i) & 1) << (bit & 7));
        }
    }
};

// Whether a signed value can be sent at `width` without meeting a width-change code.
bool it_fits(int v, int width, int top, int value_bits) {
    if (width == top) return true;
    int lo = -(1 << (width - 1)), hi = (1 << (width - 1)) - 1;
    if (v < lo || v > hi) return false;
    uint32_t code = (uint32_t)v & ((1u << width) - 1);
    if (width < 7) return code != 1u << (width - 1);
    uint32_t border = ((value_bits == 16 ? 0xFFFFu : 0xFFu) >> (top - width)) - (value_bits == 16 ? 8 : 4);
    return !(code > border && code <= border + (value_bits == 16 ? 16 : 8));
}

void it_change_width(bit_writer* bw, int* width, int to, int top, int value_bits) {
    int c = to < *width ? to : to - 1;
    if (*width < 7) {
        bw->put(1u << (*width - 1), *width);
        bw->put(c - 1, value_bits == 16 ? 4 : 3);
    } else if (*width < top) {
        uint32_t border = ((value_bits == 16 ? 0xFFFFu : 0xFFu) >> (top - *width)) - (value_bits == 16 ? 8 : 4);
        bw->put(border + c, *width);
    } else {
        bw->put((1u << (top - 1)) | (to - 1), top);
    }
    *width = to;
}

tw_bytes it_compress(const tw_sample& smp) {
    const int value_bits = smp.wide ? 16 : 8, top = smp.wide ? 17 : 9;
    const size_t block = smp.wide ? 0x4000 : 0x8000;
    tw_bytes out;
    for (size_t first = 0; first < smp.frames.size(); first += block) {
        size_t count = std::min(block, smp.frames.size() - first);
        bit_writer bw;
        int width = top;
        int previous = 0, previous_delta = 0;
        for (size_t i = 0; i < count; i++) {
            int v = smp.frames[first + i];
            int delta = v - previous;
            previous = v;
            int code = smp.compression == TW_IT215 ? delta - previous_delta : delta;
            previous_delta = delta;
            // Wrapped into the value's range, as the decoder's sums wrap.
            code = value_bits == 16 ? (int16_t)code : (int8_t)code;
            int need = 1;
            while (!it_fits(code, need, top, value_bits)) need++;
            if (!it_fits(code, width, top, value_bits) || need + 2 < width) it_change_width(&bw, &width, need, top, value_bits);
            // At the widest, the value's own bits only: the top bit would announce a width.
            int bits = width == top ? value_bits : width;
            bw.put((uint32_t)code & ((1u << bits) - 1), width);
        }
        out.push_back((uint8_t)(bw.bytes.size() & 255));
        out.push_back((uint8_t)(bw.bytes.size() >> 8));
        out.insert(out.end(), bw.bytes.begin(), bw.bytes.end());
    }
    return out;
}

// ---- IT ----

struct it_memory {
    int mask = -1, note = -1, instrument = -1, volume = -1, effect = -1, param = -1;
};

// Packs a pattern reusing masks and last values where the channel allows it.
tw_bytes it_pattern(const tw_song& s, const cell_grid& grid, int p) {
    writer data;
    std::vector<it_memory> last(64);
    for (int row = 0; row < s.rows; row++) {
        for (int ch = 0; ch < s.channels; ch++) {
            const tw_cell* c = grid.at(p, row, ch);
            if (!c) continue;
            it_memory& m = last[ch];
            int mask = 0;
            if (c->note >= 0) mask |= c->note == m.note ? 0x10 : 0x01;
            if (c->instrument) mask |= c->instrument == m.instrument ? 0x20 : 0x02;
            if (c->volume >= 0) mask |= c->volume == m.volume ? 0x40 : 0x04;
            if (c->effect > 0) mask |= (c->effect == m.effect && c->param == m.param) ? 0x80 : 0x08;
            data.u8(mask == m.mask ? ch + 1 : (ch + 1) | 0x80);
            if (mask != m.mask) data.u8(mask);
            if (mask & 1) data.u8(c->note);
            if (mask & 2) data.u8(c->instrument);
            if (mask & 4) data.u8(c->volume);
            if (mask & 8) data.u8(c->effect), data.u8(c->param);
            m.mask = mask;
            if (c->note >= 0) m.note = c->note;
            if (c->instrument) m.instrument = c->instrument;
            if (c->volume >= 0) m.volume = c->volume;
            if (c->effect > 0) m.effect = c->effect, m.param = c->param;
        }
        data.u8(0);
    }
    return data.b;
}

void it_envelope(writer* w, const tw_envelope& e, int y_offset) {
    w->u8((e.on ? 1 : 0) | (e.loop_start >= 0 ? 2 : 0) | (e.sustain >= 0 ? 4 : 0));
    w->u8((int)e.points.size());
    w->u8(std::max(e.loop_start, 0)), w->u8(std::max(e.loop_end, 0));
    w->u8(std::max(e.sustain, 0)), w->u8(std::max(e.sustain, 0));
    for (int i = 0; i < 25; i++) {
        bool has = i < (int)e.points.size();
        w->u8(has ? (e.points[i].y - y_offset) & 255 : 0);
        w->u16le(has ? e.points[i].x : 0);
    }
    w->u8(0);
}

void it_instrument(writer* w, const tw_instrument& ins) {
    w->text("IMPI", 4);
    w->zeros(13);
    w->u8(0), w->u8(0), w->u8(0);  // new-note action, duplicate check and action
    w->u16le(ins.fadeout);
    w->u8(0), w->u8(60);
    w->u8(128), w->u8(32 | 128);  // global volume, default pan unused
    w->u8(0), w->u8(0);
    w->u16le(0x0214);
    w->u8((int)ins.samples.size()), w->u8(0);
    w->text(ins.name, 26);
    w->u8(0), w->u8(0), w->u8(0), w->u8(0), w->u16le(0);
    for (int n = 0; n < 120; n++) {
        w->u8(n);
        w->u8(ins.samples[note_map_sample(ins, n)] + 1);
    }
    it_envelope(w, ins.volume, 0);
    it_envelope(w, ins.panning, 32);
    it_envelope(w, tw_envelope{}, 0);
    w->zeros(4);
}

}  // namespace

tw_bytes tw_write_xm(const tw_song& s) {
    writer w;
    w.text("Extended Module: ", 17);
    w.text(s.name, 20);
    w.u8(0x1A);
    w.text("Zelfon test writer", 20);
    w.u16le(0x0104);
    w.u32le(276);
    w.u16le((int)s.orders.size()), w.u16le(0);
    w.u16le(s.channels), w.u16le(s.patterns), w.u16le((int)s.instruments.size());
    w.u16le(s.linear ? 1 : 0), w.u16le(s.speed), w.u16le(s.bpm);
    for (int o = 0; o < 256; o++) w.u8(o < (int)s.orders.size() ? s.orders[o] : 0);
    cell_grid grid(s, s.rows);
    for (int p = 0; p < s.patterns; p++) xm_pattern(&w, s, grid, p);
    for (const tw_instrument& ins : s.instruments) xm_instrument(&w, s, ins);
    return w.b;
}

tw_bytes tw_write_mod(const tw_song& s, const char* signature) {
    writer w;
    w.text(s.name, 20);
    for (int i = 0; i < 31; i++) {
        const tw_sample* smp = i < (int)s.samples.size() ? &s.samples[i] : nullptr;
        w.text(smp ? smp->name : "", 22);
        w.u16be(smp ? (int)smp->frames.size() / 2 : 0);
        w.u8(smp ? smp->finetune & 15 : 0);
        w.u8(smp ? smp->volume : 0);
        w.u16be(smp && smp->loop ? (int)smp->loop_start / 2 : 0);
        w.u16be(smp && smp->loop ? (int)smp->loop_length / 2 : 1);
    }
    w.u8((int)s.orders.size()), w.u8(127);
    for (int o = 0; o < 128; o++) w.u8(o < (int)s.orders.size() ? s.orders[o] : 0);
    w.text(signature, 4);
    cell_grid grid(s, 64);
    for (int p = 0; p < s.patterns; p++) {
        for (int row = 0; row < 64; row++) {
            for (int ch = 0; ch < s.channels; ch++) {
                const tw_cell* c = grid.at(p, row, ch);
                int period = c && c->note > 0 ? c->note : 0, ins = c ? c->instrument : 0;
                w.u8((ins & 0xF0) | (period >> 8));
                w.u8(period & 255);
                w.u8((ins & 15) << 4 | (c && c->effect > 0 ? c->effect : 0));
                w.u8(c ? c->param : 0);
            }
        }
    }
    for (const tw_sample& smp : s.samples) {
        for (int16_t v : smp.frames) w.u8(v & 255);
    }
    return w.b;
}

tw_bytes tw_write_s3m(const tw_song& s) {
    writer w;
    int orders = ((int)s.orders.size() + 2) & ~1;  // even, with an end mark
    w.text(s.name, 28);
    w.u8(0x1A), w.u8(16), w.u16le(0);
    w.u16le(orders), w.u16le((int)s.samples.size()), w.u16le(s.patterns);
    w.u16le(0), w.u16le(0x1320), w.u16le(2);  // flags, tracker, unsigned samples
    w.text("SCRM", 4);
    w.u8(64), w.u8(s.speed), w.u8(s.bpm), w.u8(0xB0), w.u8(16), w.u8(252);
    w.zeros(10);
    for (int ch = 0; ch < 32; ch++) w.u8(ch < s.channels ? (ch % 2 ? 8 + ch / 2 : ch / 2) : 255);
    for (int o = 0; o < orders; o++) w.u8(o < (int)s.orders.size() ? s.orders[o] : 255);
    size_t pointers = w.size();
    w.zeros(2 * (s.samples.size() + s.patterns));
    for (int ch = 0; ch < 32; ch++) w.u8(ch < s.channels ? 0x20 | (ch % 2 ? 12 : 3) : 0);
    std::vector<size_t> header_at;
    cell_grid grid(s, 64);
    for (size_t i = 0; i < s.samples.size(); i++) {
        w.align(16);
        w.put16le(pointers + 2 * i, (int)(w.size() / 16));
        header_at.push_back(w.size());
        const tw_sample& smp = s.samples[i];
        w.u8(1);
        w.text(smp.name, 12);
        w.zeros(3);  // data paragraph, written below
        w.u32le((uint32_t)smp.frames.size());
        w.u32le(smp.loop_start), w.u32le(smp.loop_start + smp.loop_length);
        w.u8(smp.volume), w.u8(0), w.u8(0);
        w.u8((smp.loop ? 1 : 0) | (smp.wide ? 4 : 0));
        w.u32le(smp.rate);
        w.zeros(12);
        w.text(smp.name, 28);
        w.text("SCRS", 4);
    }
    for (int p = 0; p < s.patterns; p++) {
        w.align(16);
        w.put16le(pointers + 2 * (s.samples.size() + p), (int)(w.size() / 16));
        writer data;
        for (int row = 0; row < 64; row++) {
            for (int ch = 0; ch < s.channels; ch++) {
                const tw_cell* c = grid.at(p, row, ch);
                if (!c) continue;
                int what = ch | (c->note >= 0 || c->instrument ? 32 : 0) | (c->volume >= 0 ? 64 : 0) | (c->effect > 0 ? 128 : 0);
                data.u8(what);
                if (what & 32) data.u8(c->note >= 0 ? c->note : 255), data.u8(c->instrument);
                if (what & 64) data.u8(c->volume);
                if (what & 128) data.u8(c->effect), data.u8(c->param);
            }
            data.u8(0);
        }
        w.u16le((int)data.size() + 2);
        w.append(data.b);
    }
    for (size_t i = 0; i < s.samples.size(); i++) {
        w.align(16);
        size_t paragraph = w.size() / 16;
        w.b[header_at[i] + 13] = (uint8_t)(paragraph >> 16);
        w.put16le(header_at[i] + 14, (int)(paragraph & 0xFFFF));
        for (int16_t v : s.samples[i].frames) {
            if (s.samples[i].wide) {
                w.u16le((v ^ 0x8000) & 0xFFFF);
            } else {
                w.u8((v ^ 0x80) & 255);
            }
        }
    }
    return w.b;
}

tw_bytes tw_write_it(const tw_song& s, bool instrument_mode) {
    writer w;
    int orders = (int)s.orders.size() + 1;
    int instruments = instrument_mode ? (int)s.instruments.size() : 0;
    w.text("IMPM", 4);
    w.text(s.name, 26);
    w.u16le(0x0410);
    w.u16le(orders), w.u16le(instruments), w.u16le((int)s.samples.size()), w.u16le(s.patterns);
    w.u16le(0x0214), w.u16le(0x0214);
    w.u16le(1 | (instrument_mode ? 4 : 0) | (s.linear ? 8 : 0)), w.u16le(0);
    w.u8(128), w.u8(48), w.u8(s.speed), w.u8(s.bpm), w.u8(128), w.u8(0);
    w.u16le(0), w.u32le(0), w.u32le(0);
    for (int ch = 0; ch < 64; ch++) w.u8(ch < s.channels ? (ch % 2 ? 48 : 16) : 32 | 128);
    for (int ch = 0; ch < 64; ch++) w.u8(64);
    for (int o = 0; o < orders; o++) w.u8(o < (int)s.orders.size() ? s.orders[o] : 255);
    size_t pointers = w.size();
    w.zeros(4 * (instruments + s.samples.size() + s.patterns));
    for (int i = 0; i < instruments; i++) {
        w.put32le(pointers + 4 * i, (uint32_t)w.size());
        it_instrument(&w, s.instruments[i]);
    }
    std::vector<size_t> header_at;
    cell_grid grid(s, s.rows);
    for (size_t i = 0; i < s.samples.size(); i++) {
        const tw_sample& smp = s.samples[i];
        w.put32le(pointers + 4 * (instruments + i), (uint32_t)w.size());
        header_at.push_back(w.size());
        w.text("IMPS", 4);
        w.zeros(13);
        w.u8(64);
        w.u8(1 | (smp.wide ? 2 : 0) | (smp.compression ? 8 : 0) | (smp.loop ? 16 : 0) | (smp.loop == TW_LOOP_PINGPONG ? 64 : 0));
        w.u8(smp.volume);
        w.text(smp.name, 26);
        w.u8(1 | (smp.compression == TW_IT215 ? 4 : 0));
        w.u8(smp.panning < 0 ? 32 : (smp.panning / 4) | 128);  // 0..64
        w.u32le((uint32_t)smp.frames.size());
        w.u32le(smp.loop_start), w.u32le(smp.loop_start + smp.loop_length);
        w.u32le(smp.rate);
        w.u32le(0), w.u32le(0);
        w.u32le(0);  // data position, written below
        w.u8(0), w.u8(0), w.u8(0), w.u8(0);
    }
    for (int p = 0; p < s.patterns; p++) {
        w.put32le(pointers + 4 * (instruments + s.samples.size() + p), (uint32_t)w.size());
        tw_bytes data = it_pattern(s, grid, p);
        w.u16le((int)data.size()), w.u16le(s.rows), w.zeros(4);
        w.append(data);
    }
    for (size_t i = 0; i < s.samples.size(); i++) {
        const tw_sample& smp = s.samples[i];
        w.put32le(header_at[i] + 0x48, (uint32_t)w.size());
        if (smp.compression) {
            w.append(it_compress(smp));
            continue;
        }
        for (int16_t v : smp.frames) {
            if (smp.wide) {
                w.u16le(v & 0xFFFF);
            } else {
                w.u8(v & 255);
            }
        }
    }
    return w.b;
}

std::vector<int16_t> tw_sine(int frames, int amplitude) {
    std::vector<int16_t> out(frames);
    for (int i = 0; i < frames; i++) out[i] = (int16_t)std::lround(amplitude * std::sin(2 * std::numbers::pi * i / frames));
    return out;
}

std::vector<int16_t> tw_rough(int frames, int amplitude, uint32_t seed) {
    std::vector<int16_t> out(frames);
    for (int i = 0; i < frames; i++) {
        seed = seed * 1103515245 + 12345;
        int span = i % 24 < 8 ? amplitude : i % 24 < 16 ? 3 : amplitude / 16 + 1;  // big, tiny and middle steps
        out[i] = (int16_t)((int)((seed >> 16) % (2 * span + 1)) - span);
    }
    return out;
}

tw_song tw_tone_song(int note, uint32_t rate) {
    tw_song s;
    s.name = "Tone";
    s.channels = 1;
    s.orders = {0};
    s.rows = 64;
    tw_sample smp;
    smp.name = "Sine";
    smp.frames = tw_sine(32, 120);
    smp.loop = TW_LOOP_FORWARD;
    smp.loop_length = 32;
    smp.rate = rate;
    s.samples.push_back(smp);
    tw_instrument ins;
    ins.name = "Sine";
    ins.samples = {0};
    s.instruments.push_back(ins);
    s.cells.push_back({0, 0, 0, note, 1});
    return s;
}

tw_song tw_rich_song() {
    tw_song s;
    s.name = "Rich test song";
    s.channels = 4;
    s.speed = 4;
    s.bpm = 140;
    s.patterns = 2;
    s.rows = 16;
    s.orders = {0, 1, 0, 0};
    tw_sample a;
    a.name = "Looped eight";
    a.frames = tw_sine(64, 100);
    a.loop = TW_LOOP_FORWARD;
    a.loop_start = 16;
    a.loop_length = 48;
    a.volume = 48;
    a.finetune = 16;
    a.relative_note = -3;
    a.panning = 100;
    a.rate = 11025;
    tw_sample b;
    b.name = "Pong sixteen";
    b.frames = tw_rough(300, 20000, 7);
    b.wide = true;
    b.loop = TW_LOOP_PINGPONG;
    b.loop_start = 100;
    b.loop_length = 150;
    b.volume = 64;
    b.rate = 22050;
    b.compression = TW_IT215;
    tw_sample c;
    c.name = "Rough eight";
    c.frames = tw_rough(200, 100, 3);
    c.volume = 40;
    c.rate = 16000;
    c.compression = TW_IT214;
    s.samples = {a, b, c};
    tw_instrument lead;
    lead.name = "Lead";
    lead.samples = {0};
    lead.volume = {{{0, 64}, {10, 48}, {30, 32}, {60, 0}}, true, 1, -1, -1};
    lead.panning = {{{0, 32}, {20, 10}, {40, 54}}, true, -1, 0, 2};
    lead.vibrato_type = 0, lead.vibrato_sweep = 8, lead.vibrato_depth = 4, lead.vibrato_rate = 10;
    lead.fadeout = 1024;
    tw_instrument keys;
    keys.name = "Keys";
    keys.samples = {1, 2};
    keys.note_map.assign(96, 0);
    for (int n = 48; n < 96; n++) keys.note_map[n] = 1;
    s.instruments = {lead, keys};
    return s;
}

namespace {

// The cells of the rich XM song, also those of the IT songs with IT's own letters.
void add_xm_cells(tw_song* s) {
    s->cells = {
        {0, 0, 0, 49, 1, 0x10 + 32},           // C-4, volume 32
        {0, 0, 1, 61, 2, -1, 0x8, 0xC0},       // C-5, panning 192
        {0, 0, 2, 37, 2, -1, 0x0, 0x37},       // C-3, arpeggio
        {0, 0, 3, 49, 1, -1, 0x9, 0x02},       // sample offset 512
        {0, 1, 0, -1, 0, -1, 0x1, 0x08},       // portamento up
        {0, 2, 0, -1, 0, -1, 0xA, 0x20},       // volume slide up
        {0, 3, 0, -1, 0, 0x63, 0x4, 0x44},     // volume slide down, vibrato
        {0, 4, 0, 97},                         // key off
        {0, 4, 1, -1, 0, -1, 0xE, 0xC2},       // note cut at tick 2
        {0, 5, 1, 61, 2, -1, 0xE, 0xD3},       // note delay 3
        {0, 6, 2, -1, 0, -1, 0xE, 0x92},       // retrigger every 2 ticks
        {0, 7, 3, -1, 0, -1, 0xF, 0x03},       // speed 3
        {0, 8, 3, -1, 0, -1, 0xF, 150},        // 150 BPM
        {0, 9, 0, 50, 0, 0xF4},                // tone portamento to C#4
        {0, 10, 0, -1, 0, -1, 0x14, 0x01},     // key off at tick 1
        {0, 11, 2, -1, 0, -1, 0x10, 0x20},     // global volume
        {0, 12, 3, -1, 0, -1, 0x21, 0x12},     // extra fine portamento up
        {0, 13, 0, -1, 0, 0xC8, 0x0, 0x47},    // panning and arpeggio in one cell
        {1, 0, 0, 49, 1},
        {1, 3, 1, -1, 0, -1, 0xE, 0x60},       // pattern loop start
        {1, 4, 1, -1, 0, -1, 0xE, 0x63},       // loop three times
        {1, 6, 2, -1, 0, -1, 0xD, 0x04},       // break to row 4
    };
}

void add_mod_cells(tw_song* s) {
    s->cells = {
        {0, 0, 0, 428, 1, -1, 0xC, 32},        // C-2, volume 32
        {0, 0, 1, 214, 2},                     // C-3
        {0, 0, 2, 856, 1, -1, 0x0, 0x47},      // C-1, arpeggio
        {0, 0, 3, 428, 2, -1, 0x9, 0x01},      // sample offset
        {0, 1, 0, -1, 0, -1, 0x1, 0x04},       // portamento up
        {0, 2, 0, -1, 0, -1, 0xE, 0xB4},       // fine volume slide down
        {0, 3, 1, -1, 0, -1, 0xF, 0x7D},       // 125 BPM
        {0, 5, 2, -1, 0, -1, 0x7, 0x44},       // tremolo
        {1, 0, 0, 428, 1},
        {1, 10, 3, -1, 0, -1, 0xD, 0x12},      // break to row 12 (decimal)
    };
}

void add_s3m_cells(tw_song* s) {
    s->cells = {
        {0, 0, 0, 0x40, 1, 32},                // C-4, volume 32
        {0, 0, 1, 0x50, 2, -1, 'X' - '@', 0x20},  // C-5, panning 64
        {0, 0, 2, 0x30, 3, -1, 'J' - '@', 0x37},  // C-3, arpeggio
        {0, 1, 0, -1, 0, -1, 'D' - '@', 0x03},    // volume slide down
        {0, 2, 0, -1, 0, -1, 'E' - '@', 0xF2},    // fine portamento down
        {0, 3, 0, -1, 0, -1, 'A' - '@', 0x03},    // speed 3
        {0, 3, 1, -1, 0, -1, 'T' - '@', 0x90},    // 144 BPM
        {0, 4, 2, -1, 0, -1, 'Q' - '@', 0x42},    // retrigger with a volume change
        {0, 5, 2, -1, 0, -1, 'H' - '@', 0x44},    // vibrato
        {0, 6, 0, 254},                           // note cut
        {1, 0, 0, 0x40, 1},
        {1, 8, 1, -1, 0, -1, 'C' - '@', 0x12},    // break to row 12 (decimal)
    };
}

void add_it_cells(tw_song* s) {
    s->cells = {
        {0, 0, 0, 60, 1, 32},                     // C-5, volume 32
        {0, 0, 1, 72, 2, -1, 'O' - '@', 0x01},    // C-6, sample offset
        {0, 0, 2, 36, 2, 128 + 48},               // C-3, panning 48
        {0, 1, 0, -1, 0, 108},                    // portamento down 12 in the volume column
        {0, 2, 0, -1, 0, -1, 'T' - '@', 0x10},    // tempo slide
        {0, 3, 0, 255},                           // note off
        {0, 4, 1, 254},                           // note cut
        {0, 5, 2, 60, 2, -1, 'S' - '@', 0xD2},    // note delay 2
        {0, 6, 2, 60, 2, -1, 'S' - '@', 0xD2},    // the same cell again: masks and values reused
        {1, 0, 0, 60, 1},
        {1, 2, 1, -1, 0, -1, 'C' - '@', 0x0C},    // break to row 12 (hexadecimal)
    };
}

}  // namespace

tw_bytes tw_rich_file(const char* format) {
    tw_song s = tw_rich_song();
    std::string f = format;
    if (f == "xm") {
        add_xm_cells(&s);
        return tw_write_xm(s);
    }
    if (f == "mod") {
        // Amiga samples: 8-bit, even loops, finetune in eighths of a semitone.
        s.samples[0].finetune = -2;
        s.samples = {s.samples[0], s.samples[2]};
        s.channels = 4;
        add_mod_cells(&s);
        return tw_write_mod(s);
    }
    if (f == "s3m") {
        s.samples[1].loop = TW_LOOP_FORWARD;
        add_s3m_cells(&s);
        return tw_write_s3m(s);
    }
    add_it_cells(&s);
    // Fourteen volume envelope nodes: two more than a Sampler keeps.
    tw_envelope& volume = s.instruments[1].volume;
    volume.on = true;
    for (int i = 0; i < 14; i++) volume.points.push_back({i * 8, 64 - i * 4});
    return tw_write_it(s, f == "it");
}
