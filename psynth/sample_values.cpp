// Decoding of stored sample values: byte order, widths and G.711 companding. One switch
// per block chooses a tight loop for the whole block.
#include "psynth/sample_values.h"

#include <cstring>

namespace {

constexpr float kInt24Scale = 1.0f / 8388608.0f;      // 2^−23: full-scale 24-bit values become ±1
constexpr float kInt32Scale = 1.0f / 2147483648.0f;   // 2^−31
constexpr uint8_t kSignFlip = 0x80;                     // unsigned 8-bit ↔ signed: ±128

// G.711: a sign bit, a 3-bit segment (exponent) and a 4-bit step in the segment.
constexpr int kUlawBias = 0x84;  // 132: µ-law's segments start at bias − 132
constexpr uint8_t kAlawInvert = 0x55;
constexpr uint8_t kUlawInvert = 0xFF;
constexpr int kSegmentShift = 4;
constexpr int kSegmentMask = 0x07;
constexpr int kStepMask = 0x0F;
constexpr uint8_t kSignBit = 0x80;

uint32_t load(const uint8_t* p, int bytes, bool big) {
    uint32_t v = 0;
    if (big) {
        for (int i = 0; i < bytes; i++) v = v << 8 | p[i];
    } else {
        for (int i = bytes - 1; i >= 0; i--) v = v << 8 | p[i];
    }
    return v;
}

uint64_t load64(const uint8_t* p, bool big) {
    uint64_t hi = load(p + (big ? 0 : 4), 4, big), lo = load(p + (big ? 4 : 0), 4, big);
    return hi << 32 | lo;
}

template <class T>
void store(uint8_t* out, int64_t i, T v) { memcpy(out + i * (int64_t)sizeof(T), &v, sizeof(T)); }

}  // namespace

int16_t psynth_sample_ulaw(uint8_t b) {
    b ^= kUlawInvert;
    const int segment = (b >> kSegmentShift) & kSegmentMask;
    const int magnitude = (((b & kStepMask) << 3) + kUlawBias) << segment;
    return (int16_t)(b & kSignBit ? kUlawBias - magnitude : magnitude - kUlawBias);
}

int16_t psynth_sample_alaw(uint8_t b) {
    b ^= kAlawInvert;
    const int segment = (b >> kSegmentShift) & kSegmentMask;
    int magnitude = (b & kStepMask) << 4;
    magnitude = segment == 0 ? magnitude + 8 : (magnitude + 0x108) << (segment - 1);
    return (int16_t)(b & kSignBit ? magnitude : -magnitude);
}

bool psynth_sample_coding_ok(const psynth_sample_coding& c) {
    switch (c.encoding) {
    case PSYNTH_SAMPLE_INT: return c.bytes == 1 || c.bytes == 2 || c.bytes == 4;
    case PSYNTH_SAMPLE_UINT8:
    case PSYNTH_SAMPLE_ULAW:
    case PSYNTH_SAMPLE_ALAW: return c.bytes == 1;
    case PSYNTH_SAMPLE_INT24_FLOAT: return c.bytes == 3;
    case PSYNTH_SAMPLE_INT32_FLOAT: return c.bytes == 4;
    case PSYNTH_SAMPLE_FLOAT: return c.bytes == 4 || c.bytes == 8;
    }
    return false;
}

int psynth_sample_decoded_bits(const psynth_sample_coding& c) {
    switch (c.encoding) {
    case PSYNTH_SAMPLE_INT: return c.bytes * 8;
    case PSYNTH_SAMPLE_UINT8: return 8;
    case PSYNTH_SAMPLE_ULAW:
    case PSYNTH_SAMPLE_ALAW: return 16;
    default: return 32;
    }
}

bool psynth_sample_decode_is_copy(const psynth_sample_coding& c) {
    return (c.encoding == PSYNTH_SAMPLE_INT && (c.bytes == 1 || !c.big_endian)) ||
           (c.encoding == PSYNTH_SAMPLE_FLOAT && c.bytes == 4 && !c.big_endian);
}

void psynth_sample_decode(const psynth_sample_coding& c, const uint8_t* in, int64_t values, uint8_t* out) {
    const bool big = c.big_endian;
    switch (c.encoding) {
    case PSYNTH_SAMPLE_INT:
        if (psynth_sample_decode_is_copy(c)) {
            memcpy(out, in, (size_t)(values * c.bytes));
        } else if (c.bytes == 2) {
            for (int64_t i = 0; i < values; i++) store(out, i, (uint16_t)load(in + 2 * i, 2, true));
        } else {
            for (int64_t i = 0; i < values; i++) store(out, i, load(in + 4 * i, 4, true));
        }
        break;
    case PSYNTH_SAMPLE_UINT8:
        for (int64_t i = 0; i < values; i++) out[i] = in[i] ^ kSignFlip;  // b − 128 as a signed byte
        break;
    case PSYNTH_SAMPLE_INT24_FLOAT:
        for (int64_t i = 0; i < values; i++) {
            int32_t v = (int32_t)(load(in + 3 * i, 3, big) << 8) >> 8;  // sign-extend from 24 bits
            store(out, i, (float)v * kInt24Scale);
        }
        break;
    case PSYNTH_SAMPLE_INT32_FLOAT:
        for (int64_t i = 0; i < values; i++) store(out, i, (float)(int32_t)load(in + 4 * i, 4, big) * kInt32Scale);
        break;
    case PSYNTH_SAMPLE_FLOAT:
        if (c.bytes == 4) {
            if (!big) memcpy(out, in, (size_t)(values * 4));
            else for (int64_t i = 0; i < values; i++) store(out, i, load(in + 4 * i, 4, true));
        } else {
            for (int64_t i = 0; i < values; i++) {
                uint64_t bits = load64(in + 8 * i, big);
                double d;
                memcpy(&d, &bits, sizeof(d));
                store(out, i, (float)d);
            }
        }
        break;
    case PSYNTH_SAMPLE_ULAW:
        for (int64_t i = 0; i < values; i++) store(out, i, psynth_sample_ulaw(in[i]));
        break;
    case PSYNTH_SAMPLE_ALAW:
        for (int64_t i = 0; i < values; i++) store(out, i, psynth_sample_alaw(in[i]));
        break;
    }
}
