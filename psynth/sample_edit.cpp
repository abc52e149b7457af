// The sample editor's arithmetic. Values are handled in their own format wherever the
// result must be exact (reverse, fades and normalizing of integers); resampling goes
// through floats because libsamplerate works on them.
#include "psynth/sample_edit.h"

#include <samplerate.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "engine/memory.h"
#include "psynth/sampler.h"

namespace {

constexpr int kInt8Full = 127;
constexpr int kInt16Full = 32767;
constexpr float kInt8Scale = 128.0f;    // an 8-bit value v is the float v / 128
constexpr float kInt16Scale = 32768.0f;
constexpr int kByteShift = 8;           // 8-bit ↔ 16-bit
constexpr int kRelativeNoteMin = -96;
constexpr int kRelativeNoteMax = 95;
constexpr int kFinetuneBits = 1;        // a finetune (1/128 semitone) counts half in periods

int64_t int_at(const psynth_sample_frames& s, int64_t i) {
    if (s.format == PSYNTH_SAMPLER_FORMAT_INT8) return ((const int8_t*)s.data)[i];
    int16_t v;
    memcpy(&v, s.data + 2 * i, 2);
    return v;
}

void put_int(const psynth_sample_frames& s, int64_t i, int64_t v) {
    if (s.format == PSYNTH_SAMPLER_FORMAT_INT8) {
        ((int8_t*)s.data)[i] = (int8_t)v;
        return;
    }
    int16_t w = (int16_t)v;
    memcpy(s.data + 2 * i, &w, 2);
}

float float_at(const psynth_sample_frames& s, int64_t i) {
    float f;
    memcpy(&f, s.data + 4 * i, 4);
    return f;
}

void put_float(const psynth_sample_frames& s, int64_t i, float f) { memcpy(s.data + 4 * i, &f, 4); }

bool is_float(const psynth_sample_frames& s) { return s.format == PSYNTH_SAMPLER_FORMAT_FLOAT32; }

// One value of `s` as a float (integers scaled to ±1).
float to_float(const psynth_sample_frames& s, int64_t i) {
    if (is_float(s)) return float_at(s, i);
    return (float)int_at(s, i) / (s.format == PSYNTH_SAMPLER_FORMAT_INT8 ? kInt8Scale : kInt16Scale);
}

// A float stored into `s`: integers rounded to nearest and clamped.
void from_float(const psynth_sample_frames& s, int64_t i, float f) {
    if (is_float(s)) {
        put_float(s, i, f);
        return;
    }
    const bool int8 = s.format == PSYNTH_SAMPLER_FORMAT_INT8;
    const double full = int8 ? kInt8Scale : kInt16Scale;
    double v = std::round((double)f * full);
    v = v < -full ? -full : v > full - 1 ? full - 1 : v;
    put_int(s, i, (int64_t)v);
}

// Value `channel` of frame `frame` of `from` stored as value `i` of `to` (same channel
// count or mono), converting the format.
void convert_value(const psynth_sample_frames& from, int64_t v, const psynth_sample_frames& to, int64_t i) {
    if (is_float(from) || is_float(to)) {
        from_float(to, i, to_float(from, v));
        return;
    }
    int64_t x = int_at(from, v);
    if (from.format == PSYNTH_SAMPLER_FORMAT_INT8 && to.format == PSYNTH_SAMPLER_FORMAT_INT16) x *= 1 << kByteShift;
    if (from.format == PSYNTH_SAMPLER_FORMAT_INT16 && to.format == PSYNTH_SAMPLER_FORMAT_INT8) x >>= kByteShift;
    put_int(to, i, x);
}

}  // namespace

int psynth_sample_value_bytes(int format) {
    return format == PSYNTH_SAMPLER_FORMAT_INT8 ? 1 : format == PSYNTH_SAMPLER_FORMAT_INT16 ? 2 : format == PSYNTH_SAMPLER_FORMAT_FLOAT32 ? 4 : 0;
}

int psynth_sample_frame_bytes(const psynth_sample_frames& s) { return psynth_sample_value_bytes(s.format) * s.channels; }

void psynth_sample_reverse(const psynth_sample_frames& s, int64_t start, int64_t length) {
    const int fb = psynth_sample_frame_bytes(s);
    uint8_t t[8];
    for (int64_t a = start, b = start + length - 1; a < b; a++, b--) {
        memcpy(t, s.data + a * fb, (size_t)fb);
        memcpy(s.data + a * fb, s.data + b * fb, (size_t)fb);
        memcpy(s.data + b * fb, t, (size_t)fb);
    }
}

int psynth_sample_normalize(const psynth_sample_frames& s, int64_t start, int64_t length) {
    const int64_t first = start * s.channels, end = (start + length) * s.channels;
    if (is_float(s)) {
        float peak = 0;
        for (int64_t i = first; i < end; i++) peak = std::fmax(peak, std::fabs(float_at(s, i)));
        if (!(peak > 0) || std::isinf(peak)) return 1;
        for (int64_t i = first; i < end; i++) put_float(s, i, float_at(s, i) / peak);
        return 0;
    }
    int64_t peak = 0;
    for (int64_t i = first; i < end; i++) peak = std::max<int64_t>(peak, std::llabs(int_at(s, i)));
    if (peak == 0) return 1;
    const int64_t full = s.format == PSYNTH_SAMPLER_FORMAT_INT8 ? kInt8Full : kInt16Full;
    for (int64_t i = first; i < end; i++) {
        const int64_t v = int_at(s, i);
        const int64_t magnitude = (2 * (int64_t)std::llabs(v) * full + peak) / (2 * peak);  // to nearest, ties away from zero
        put_int(s, i, v < 0 ? -magnitude : magnitude);
    }
    return 0;
}

void psynth_sample_fade(const psynth_sample_frames& s, int64_t start, int64_t length, bool fade_in) {
    const int64_t last = length - 1;
    for (int64_t f = 0; f < length; f++) {
        const int64_t gain = last == 0 ? 0 : fade_in ? f : last - f;
        for (int c = 0; c < s.channels; c++) {
            const int64_t i = (start + f) * s.channels + c;
            if (is_float(s)) put_float(s, i, last == 0 ? 0.0f : float_at(s, i) * (float)gain / (float)last);
            else put_int(s, i, last == 0 ? 0 : int_at(s, i) * gain / last);
        }
    }
}

void psynth_sample_convert(const psynth_sample_frames& from, int64_t from_frame, const psynth_sample_frames& to,
                           int64_t to_frame, int64_t frames) {
    if (from.format == to.format && from.channels == to.channels) {
        const int fb = psynth_sample_frame_bytes(from);
        memmove(to.data + to_frame * fb, from.data + from_frame * fb, (size_t)(frames * fb));
        return;
    }
    // Stereo into mono: the mean of the sides in the source's own format, then converted.
    uint8_t mixed[4];
    const psynth_sample_frames one = {mixed, from.format, 1, 1};
    for (int64_t f = 0; f < frames; f++) {
        const int64_t src = (from_frame + f) * from.channels;
        for (int c = 0; c < to.channels; c++) {
            const int64_t dest = (to_frame + f) * to.channels + c;
            if (from.channels == to.channels || from.channels == 1) {
                convert_value(from, src + (from.channels == 1 ? 0 : c), to, dest);
            } else if (is_float(from)) {
                put_float(one, 0, (float_at(from, src) + float_at(from, src + 1)) * 0.5f);
                convert_value(one, 0, to, dest);
            } else {
                put_int(one, 0, (int_at(from, src) + int_at(from, src + 1)) / 2);
                convert_value(one, 0, to, dest);
            }
        }
    }
}

int psynth_sample_resample(const psynth_sample_frames& in, const psynth_sample_frames& out) {
    if (in.frames <= 0 || out.frames <= 0 || in.channels != out.channels || in.format != out.format) return 1;
    const int64_t in_values = in.frames * in.channels, out_values = out.frames * out.channels;
    float* a = (float*)mem_new(MEM_DYNAMIC, (size_t)in_values * sizeof(float), "sample_resample");
    float* b = (float*)mem_new(MEM_DYNAMIC, (size_t)out_values * sizeof(float), "sample_resample");
    int result = 1;
    if (a && b) {
        for (int64_t i = 0; i < in_values; i++) a[i] = to_float(in, i);
        SRC_DATA d = {};
        d.data_in = a;
        d.data_out = b;
        d.input_frames = (long)in.frames;
        d.output_frames = (long)out.frames;
        d.src_ratio = (double)out.frames / (double)in.frames;
        if (src_simple(&d, SRC_SINC_BEST_QUALITY, in.channels) == 0) {
            // The converter may give a few frames less than asked: silence fills them.
            for (int64_t i = (int64_t)d.output_frames_gen * out.channels; i < out_values; i++) b[i] = 0;
            for (int64_t i = 0; i < out_values; i++) from_float(out, i, b[i]);
            result = 0;
        }
    }
    mem_free(a);
    mem_free(b);
    return result;
}

int psynth_sample_pitch_periods(int relative_note, int finetune) {
    return relative_note * PSYNTH_SAMPLE_PERIODS_PER_SEMITONE + (finetune >> kFinetuneBits);
}

void psynth_sample_set_pitch_periods(int periods, int8_t* relative_note, int8_t* finetune) {
    const int half = PSYNTH_SAMPLE_PERIODS_PER_SEMITONE / 2;
    int note = (int)std::floor((periods + half) / (double)PSYNTH_SAMPLE_PERIODS_PER_SEMITONE);
    note = note < kRelativeNoteMin ? kRelativeNoteMin : note > kRelativeNoteMax ? kRelativeNoteMax : note;
    int rest = periods - note * PSYNTH_SAMPLE_PERIODS_PER_SEMITONE;
    rest = rest < -half ? -half : rest > half - 1 ? half - 1 : rest;
    *relative_note = (int8_t)note;
    *finetune = (int8_t)(rest << kFinetuneBits);
}

int psynth_sample_periods_for_ratio(double ratio) {
    return (int)std::lround(PSYNTH_SAMPLE_PERIODS_PER_OCTAVE * std::log2(ratio));
}
