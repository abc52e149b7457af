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
