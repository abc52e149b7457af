// Fixed-point helpers shared by the net and every module, so that each rounding
// rule is written once. Samples are 16-bit (13.3); gains use 256 as unity.
#pragma once

#include <cstdint>

constexpr int PSYNTH_GAIN_SHIFT = 8;
constexpr int PSYNTH_GAIN_UNITY = 1 << PSYNTH_GAIN_SHIFT;

// x / 256 rounding toward zero: negative values are biased by 255 before the shift.
inline int32_t psynth_div256_toward_zero(int32_t x) {
    return x < 0 ? (x + (PSYNTH_GAIN_UNITY - 1)) >> PSYNTH_GAIN_SHIFT : x >> PSYNTH_GAIN_SHIFT;
}

// sample × gain / 256 (toward zero), wrapped to 16 bits: nothing clips inside the net.
inline int16_t psynth_apply_gain(int16_t sample, int32_t gain) {
    return (int16_t)psynth_div256_toward_zero((int32_t)sample * gain);
}

// 16-bit wrap-around sum of two samples.
inline int16_t psynth_add_wrap(int16_t a, int16_t b) {
    return (int16_t)(uint16_t)((uint16_t)a + (uint16_t)b);
}
