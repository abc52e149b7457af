// Fixed-point helpers shared by the net and every module, so that each rounding
// rule is written once. Samples are 16-bit (13.3); gains use 256 as unity.
#pragma once

#include <cmath>
#include <cstdint>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

constexpr int PSYNTH_GAIN_SHIFT = 8;
constexpr int PSYNTH_GAIN_UNITY = 1 << PSYNTH_GAIN_SHIFT;
// A sample of 4096 is the sound device's full scale (level 1.0).
constexpr int PSYNTH_FULL_SCALE_SHIFT = 12;
constexpr int PSYNTH_FULL_SCALE = 1 << PSYNTH_FULL_SCALE_SHIFT;

// x / 256 rounding toward zero: negative values are biased by 255 before the shift.
inline int32_t psynth_div256_toward_zero(int32_t x) {
    return x < 0 ? (x + (PSYNTH_GAIN_UNITY - 1)) >> PSYNTH_GAIN_SHIFT : x >> PSYNTH_GAIN_SHIFT;
}

// sample × gain / 256 (toward zero), wrapped to 16 bits: nothing clips inside the net.
inline int16_t psynth_apply_gain(int16_t sample, int32_t gain) {
    return (int16_t)psynth_div256_toward_zero((int32_t)sample * gain);
}

// psynth_apply_gain over buf[from .. to). A gain that fits 16 bits multiplies 16 by 16 bits
// in eight lanes at once (the products are the same), the rest one by one.
inline void psynth_apply_gain_range(int16_t* buf, int from, int to, int32_t gain) {
    int i = from;
#if defined(__SSE2__)
    if (gain >= INT16_MIN && gain <= INT16_MAX) {
        const __m128i g = _mm_set1_epi16((int16_t)gain);
        const __m128i bias = _mm_set1_epi32(PSYNTH_GAIN_UNITY - 1);
        // x / 256 toward zero, wrapped to 16 bits (the low half kept, sign-extended for the pack)
        auto divide = [&](__m128i p) {
            p = _mm_srai_epi32(_mm_add_epi32(p, _mm_and_si128(_mm_srai_epi32(p, 31), bias)), PSYNTH_GAIN_SHIFT);
            return _mm_srai_epi32(_mm_slli_epi32(p, 16), 16);
        };
        for (; i + 8 <= to; i += 8) {
            const __m128i x = _mm_loadu_si128((const __m128i*)(buf + i));
            const __m128i lo = _mm_mullo_epi16(x, g), hi = _mm_mulhi_epi16(x, g);
            const __m128i p0 = divide(_mm_unpacklo_epi16(lo, hi)), p1 = divide(_mm_unpackhi_epi16(lo, hi));
            _mm_storeu_si128((__m128i*)(buf + i), _mm_packs_epi32(p0, p1));
        }
    }
#endif
    for (; i < to; i++) buf[i] = psynth_apply_gain(buf[i], gain);
}

// 16-bit wrap-around sum of two samples.
inline int16_t psynth_add_wrap(int16_t a, int16_t b) {
    return (int16_t)(uint16_t)((uint16_t)a + (uint16_t)b);
}

// ---- Helpers of the effect modules ----

// x >> bits rounding toward zero: the rule for every shifted product of a sample,
// so that a negative signal is scaled exactly like its mirror image.
inline int64_t psynth_shr_toward_zero(int64_t x, int bits) {
    return x < 0 ? -((-x) >> bits) : x >> bits;
}

// A 32-bit value truncated to a 16-bit sample (wraps: nothing clips inside the net).
inline int16_t psynth_wrap16(int32_t x) { return (int16_t)(uint16_t)(uint32_t)x; }

// Moves `value` toward `target` by at most `step`, never past the target.
// Used by the control-rate smoothing of effect parameters.
inline int32_t psynth_glide_toward(int32_t value, int32_t target, int32_t step) {
    if (value < target) return target - value > step ? value + step : target;
    if (value > target) return value - target > step ? value - step : target;
    return value;
}

// ---- 32-bit integer arithmetic (Reverb, Compressor) ----

// A value truncated to 32 bits (wraps). Products and sums are formed in 64 bits and
// brought back here before any shift, which gives exactly the 32-bit wrap-around
// results without undefined overflow.
inline int32_t psynth_wrap32(int64_t x) { return (int32_t)x; }

// x × gain / 256 toward zero, the product wrapped at 32 bits first: the rule for a
// 32-bit state scaled by a coefficient with 256 as unity.
inline int32_t psynth_gain32(int32_t x, int32_t gain) {
    return psynth_div256_toward_zero(psynth_wrap32((int64_t)x * gain));
}

// ---- Integer square root (the Compressor's RMS level) ----

// floor(√x) for any 64-bit value, exact: worked out two bits of x at a time with no
// floating point, so the level of a sum of squares is the same on every machine.
inline uint32_t psynth_isqrt64(uint64_t x) {
    uint64_t root = 0;
    uint64_t bit = (uint64_t)1 << 62;  // the highest power of four in 64 bits
    while (bit > x) bit >>= 2;
    while (bit) {
        if (x >= root + bit) {
            x -= root + bit;
            root = (root >> 1) + bit;
        } else {
            root >>= 1;
        }
        bit >>= 2;
    }
    return (uint32_t)root;
}

// ---- DC blocker ----
// y[n] = x[n] − x[n−1] + (1 − c/32768) · y[n−1] in 17.15 fixed point, kept as an
// accumulator so the fraction of each step carries into the next.

constexpr int PSYNTH_DC_SHIFT = 15;
constexpr double PSYNTH_DC_POLE_HZ_2PI = 31.41592653;  // 2π × 5 Hz: where the blocker cuts

struct psynth_dc_blocker {
    int32_t acc;     // the output × 32768 with its fraction
    int32_t x_prev;  // previous input × 32768
    int32_t y_prev;  // previous output
};

// The feedback coefficient c for a sampling rate: round(2π·5 / rate × 32768) (23 at 44100).
inline int32_t psynth_dc_blocker_coef(int sampling_rate) {
    if (sampling_rate < 1) sampling_rate = 1;
    return (int32_t)std::lround(PSYNTH_DC_POLE_HZ_2PI / sampling_rate * (1 << PSYNTH_DC_SHIFT));
}

// One sample through the blocker; the accumulator wraps at 32 bits, y is floored.
inline int32_t psynth_dc_block(psynth_dc_blocker* st, int32_t x, int32_t coef) {
    int32_t acc = psynth_wrap32((int64_t)st->acc - st->x_prev);
    st->x_prev = psynth_wrap32((int64_t)x << PSYNTH_DC_SHIFT);
    acc = psynth_wrap32((int64_t)acc + st->x_prev - (int64_t)st->y_prev * coef);
    st->acc = acc;
    st->y_prev = acc >> PSYNTH_DC_SHIFT;
    return st->y_prev;
}

// The blocker over samples [from, to) of `in` into `out` (16-bit, wrapping); the state
// is held in locals for the loop and stored back once.
inline void psynth_dc_block_run(psynth_dc_blocker* st, int32_t coef, const int16_t* in, int16_t* out, int from,
                                int to) {
    psynth_dc_blocker b = *st;
    for (int i = from; i < to; i++) out[i] = psynth_wrap16(psynth_dc_block(&b, in[i], coef));
    *st = b;
}


// ---- Saturation ----

// x limited to lo..hi.
inline int32_t psynth_clamp(int32_t x, int32_t lo, int32_t hi) { return x < lo ? lo : x > hi ? hi : x; }

// A 64-bit value saturated to the 16-bit sample range (the Amplifier's gain stages
// saturate rather than wrap, so a boosted signal clips instead of turning into noise).
inline int16_t psynth_saturate16(int64_t x) {
    return (int16_t)(x < INT16_MIN ? INT16_MIN : x > INT16_MAX ? INT16_MAX : x);
}
