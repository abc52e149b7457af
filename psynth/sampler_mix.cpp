// The Sampler's mixing kernels. Each is specialised at compile time for the sample type,
// the channel count, interpolation, the volume ramp and the direction. Forward runs of
// integer samples also come in lanes of 4 (SSE2) or 8 frames (AVX2, chosen at run time).
#include "psynth/sampler_mix.h"

#include <cmath>
#include <cstring>
#include <type_traits>

#include "psynth/psynth_cpu.h"
#include "psynth/psynth_dsp.h"
#include "psynth/psynth_tables.h"
#include "psynth/sampler.h"

namespace {

constexpr int kChannels = PSYNTH_SAMPLER_MIX_CHANNELS;

// Play positions and steps are 16.16 fixed point: whole frames and a 16-bit fraction.
constexpr int kFracBits = PSYNTH_STEP_FRAC_BITS;
constexpr int64_t kFracMask = ((int64_t)1 << kFracBits) - 1;

// Interpolation weights: w1 = fraction >> 1 (0..32767), w0 = 32767 − w1, sum >> 15.
constexpr int kWeightBits = 15;
constexpr int kFracToWeightBits = kFracBits - kWeightBits;
constexpr int kWeightMax = (1 << kWeightBits) - 1;
constexpr float kWeightScale = 1.0f / (1 << kWeightBits);
constexpr int kInt8ToInt16Bits = 8;  // 8-bit frames are worth 256 times as much

// A frame adds ((volume >> 7) · value) >> 18 to each output.
constexpr int kMixGainBits = 7;
constexpr int kMixBits = 18;
constexpr float kFloatMix = 0.125f;  // float frames: round((volume >> 7) · value · 0.125)

// ---- Scalar kernels ----

template <class T>
int32_t int_value(T x) {
    return sizeof(T) == 1 ? (int32_t)x * (1 << kInt8ToInt16Bits) : (int32_t)x;
}

// The value of one channel at `at` (the current frame), blended with the next frame `CH` values on.
template <class T, int CH, bool INTERP>
inline auto frame_value(const T* at, int32_t w1) {
    if constexpr (std::is_same_v<T, float>) {
        if constexpr (INTERP) return (at[CH] * (float)w1 + at[0] * (float)(kWeightMax - w1)) * kWeightScale;
        else return at[0];
    } else {
        if constexpr (INTERP) return (int_value(at[CH]) * w1 + int_value(at[0]) * (kWeightMax - w1)) >> kWeightBits;
        else return int_value(at[0]);
    }
}

inline int32_t mix_value(int32_t gain, int32_t value) { return (int32_t)(((int64_t)gain * value) >> kMixBits); }
inline int32_t mix_value(int32_t gain, float value) {
    float x = (float)gain * value * kFloatMix;
    constexpr float kLimit = 1 << 30;  // far beyond 16 bits; keeps lround defined
    if (std::isnan(x)) return 0;
    x = x > kLimit ? kLimit : x < -kLimit ? -kLimit : x;
    return (int32_t)std::lround(x);
}

template <class T, int CH, bool INTERP, bool RAMP, bool BACK>
void mix_frames(psynth_sampler_mix_run* r) {
    const T* s = (const T*)r->frames;
    int64_t p = r->pos;
    const int64_t step = BACK ? -r->step : r->step;
    int32_t vl = r->volume[0], vr = r->volume[1];
    const int32_t il = r->inc[0], ir = r->inc[1];
    int32_t gl = vl >> kMixGainBits, gr = vr >> kMixGainBits;
    psynth_sample* out_l = r->out[0];
    psynth_sample* out_r = r->out[1];
    const int count = r->count;
    for (int f = 0; f < count; f++) {
        const T* at = s + (p >> kFracBits) * CH;
        const int32_t w1 = (int32_t)(p & kFracMask) >> kFracToWeightBits;
        if constexpr (RAMP) {
            vl += il;
            vr += ir;
            gl = vl >> kMixGainBits;
            gr = vr >> kMixGainBits;
        }
        const auto left = frame_value<T, CH, INTERP>(at, w1);
        out_l[f] = psynth_add_wrap(out_l[f], (int16_t)mix_value(gl, left));
        if constexpr (CH == 2) {
            out_r[f] = psynth_add_wrap(out_r[f], (int16_t)mix_value(gr, frame_value<T, CH, INTERP>(at + 1, w1)));
        } else {
            out_r[f] = psynth_add_wrap(out_r[f], (int16_t)mix_value(gr, left));  // mono feeds both sides
        }
        p += step;
    }
    r->volume[0] = vl;
    r->volume[1] = vr;
}

// ---- Lanes of frames ----

// The lane helpers are always inlined: no vector crosses a call, whatever the target.
#pragma GCC diagnostic ignored "-Wpsabi"

// floor(gain · value / 2^18) in 32-bit lanes, exact for any 32-bit gain and 16-bit value:
// gain = high · 2^15 + low, so gain · value = (high · value + (low · value >> 15)) · 2^15
// plus a remainder below 2^15, which the last shift by 3 cannot see.
constexpr int kGainSplitBits = 15;
constexpr int kGainLowMask = (1 << kGainSplitBits) - 1;
static_assert(kMixBits - kGainSplitBits == 3);

template <class V>
__attribute__((always_inline)) inline V mix_lanes(V gain, V value) {
    V high = gain >> kGainSplitBits;
    V low = gain & kGainLowMask;
    return (high * value + ((low * value) >> kGainSplitBits)) >> (kMixBits - kGainSplitBits);
}

template <int N>
__attribute__((always_inline)) inline void add_lanes(psynth_sample* out, typename psynth_lanes<N>::i32 mixed) {
    typename psynth_lanes<N>::i16 o;
    memcpy(&o, out, sizeof(o));
    // 16-bit wrap-around, as psynth_add_wrap: the sum is formed in 32 bits and truncated.
    o = __builtin_convertvector(__builtin_convertvector(o, typename psynth_lanes<N>::i32) + mixed, typename psynth_lanes<N>::i16);
    memcpy(out, &o, sizeof(o));
}

// Position arithmetic runs in 32-bit lanes from the run's first whole frame; runs whose
// positions would leave that range go to the scalar kernel.
constexpr int64_t kLanePositionLimit = (int64_t)1 << 30;

template <class T, int CH, bool INTERP, bool RAMP, int N>
__attribute__((always_inline)) inline void mix_forward_lanes(psynth_sampler_mix_run* r) {
    typedef typename psynth_lanes<N>::i32 V;
    const int count = r->count;
    const int64_t step = r->step;
    const int full = count / N * N;
    if (full == 0 || step < 0 || (r->pos & kFracMask) + step * count >= kLanePositionLimit) {
        mix_frames<T, CH, INTERP, RAMP, false>(r);
        return;
    }
    const T* s = (const T*)r->frames + (r->pos >> kFracBits) * CH;
    V lane;
    for (int j = 0; j < N; j++) lane[j] = j;
    V rel = (int32_t)(r->pos & kFracMask) + lane * (int32_t)step;
    const int32_t lanes_step = (int32_t)step * N;
    const int32_t il = r->inc[0], ir = r->inc[1];
    // Frame f mixes at volume + (f + 1) · increment when the ramp runs (it steps before the frame).
    V vl = r->volume[0] + (RAMP ? (lane + 1) * il : lane * 0);
    V vr = r->volume[1] + (RAMP ? (lane + 1) * ir : lane * 0);
    psynth_sample* out_l = r->out[0];
    psynth_sample* out_r = r->out[1];
    int64_t q = r->pos & kFracMask;  // the lanes' positions, walked one by one for the loads
    for (int f = 0; f < full; f += N) {
        V cur_l, next_l, cur_r, next_r;
        if constexpr (sizeof(T) == 2 && (INTERP || CH == 2)) {
            // 16-bit frames are loaded in pairs of values: (current, next) of a mono
            // sample, (left, right) of a stereo frame; the halves are split in the lanes.
            V a, b;
            for (int j = 0; j < N; j++, q += step) {
                const T* at = s + (q >> kFracBits) * CH;
                if constexpr (CH == 2 && INTERP) {
                    int64_t w;  // both frames at once
                    memcpy(&w, at, sizeof(w));
                    a[j] = (int32_t)w;
                    b[j] = (int32_t)(w >> 32);
                } else {
                    int32_t w;
                    memcpy(&w, at, sizeof(w));
                    a[j] = w;
                }
            }
            const V a_low = (a << 16) >> 16, a_high = a >> 16;
            if constexpr (CH == 1) {
                cur_l = a_low;
                next_l = a_high;
            } else {
                cur_l = a_low;
                cur_r = a_high;
                if constexpr (INTERP) {
                    next_l = (b << 16) >> 16;
                    next_r = b >> 16;
                }
            }
        } else {
            for (int j = 0; j < N; j++, q += step) {
                const T* at = s + (q >> kFracBits) * CH;
                cur_l[j] = int_value(at[0]);
                if constexpr (INTERP) next_l[j] = int_value(at[CH]);
                if constexpr (CH == 2) {
                    cur_r[j] = int_value(at[1]);
                    if constexpr (INTERP) next_r[j] = int_value(at[CH + 1]);
                }
            }
        }
        V left = cur_l, right = cur_l;  // mono feeds both sides
        if constexpr (CH == 2) right = cur_r;
        if constexpr (INTERP) {
            const V w1 = (rel & (int32_t)kFracMask) >> kFracToWeightBits;
            const V w0 = kWeightMax - w1;
            left = (next_l * w1 + cur_l * w0) >> kWeightBits;
            if constexpr (CH == 2) right = (next_r * w1 + cur_r * w0) >> kWeightBits;
        }
        if constexpr (CH == 1) right = left;
        add_lanes<N>(out_l + f, mix_lanes(vl >> kMixGainBits, left));
        // After the left store: with one output channel both sides land in the same buffer.
        add_lanes<N>(out_r + f, mix_lanes(vr >> kMixGainBits, right));
        rel += lanes_step;
        if constexpr (RAMP) {
            vl += il * N;
            vr += ir * N;
        }
    }
    // The remaining frames go through the scalar kernel from where the lanes stopped.
    psynth_sampler_mix_run rest = *r;
    rest.pos = r->pos + step * full;
    rest.count = count - full;
    if constexpr (RAMP) {
        rest.volume[0] = r->volume[0] + il * full;
        rest.volume[1] = r->volume[1] + ir * full;
    }
    rest.out[0] = out_l + full;
    rest.out[1] = out_r + full;
    mix_frames<T, CH, INTERP, RAMP, false>(&rest);
    r->volume[0] = rest.volume[0];
    r->volume[1] = rest.volume[1];
}

constexpr int kSse2Lanes = 4;
constexpr int kAvx2Lanes = 8;

template <class T, int CH, bool INTERP, bool RAMP>
void mix_forward_sse2(psynth_sampler_mix_run* r) {
    mix_forward_lanes<T, CH, INTERP, RAMP, kSse2Lanes>(r);
}

template <class T, int CH, bool INTERP, bool RAMP>
__attribute__((target("avx2"))) void mix_forward_avx2(psynth_sampler_mix_run* r) {
    mix_forward_lanes<T, CH, INTERP, RAMP, kAvx2Lanes>(r);
}

// ---- Choosing the kernels ----

template <class T, int CH, bool INTERP, bool RAMP>
psynth_sampler_mix_fn forward_kernel(int isa) {
    if constexpr (std::is_same_v<T, float>) {
        return mix_frames<T, CH, INTERP, RAMP, false>;
    } else {
        if (isa == PSYNTH_SAMPLER_MIX_AVX2) return mix_forward_avx2<T, CH, INTERP, RAMP>;
        if (isa == PSYNTH_SAMPLER_MIX_SSE2) return mix_forward_sse2<T, CH, INTERP, RAMP>;
        return mix_frames<T, CH, INTERP, RAMP, false>;
    }
}

template <class T, int CH, bool INTERP>
void pick(int isa, psynth_sampler_mix_fn k[2][2]) {
    k[0][0] = forward_kernel<T, CH, INTERP, false>(isa);
    k[0][1] = mix_frames<T, CH, INTERP, false, true>;
    k[1][0] = forward_kernel<T, CH, INTERP, true>(isa);
    k[1][1] = mix_frames<T, CH, INTERP, true, true>;
}

template <class T>
void pick(int channels, bool interp, int isa, psynth_sampler_mix_fn k[2][2]) {
    if (channels == 2) interp ? pick<T, 2, true>(isa, k) : pick<T, 2, false>(isa, k);
    else interp ? pick<T, 1, true>(isa, k) : pick<T, 1, false>(isa, k);
}

}  // namespace

bool psynth_sampler_mix_supported(int isa) {
    return isa == PSYNTH_SAMPLER_MIX_AVX2 ? psynth_cpu_has_avx2() : isa >= 0 && isa <= PSYNTH_SAMPLER_MIX_BEST;
}

void psynth_sampler_mix_kernels(int format, int channels, bool interp, int isa, psynth_sampler_mix_fn kernels[2][2]) {
    if (isa >= PSYNTH_SAMPLER_MIX_AVX2 && !psynth_cpu_has_avx2()) isa = PSYNTH_SAMPLER_MIX_SSE2;
    if (isa > PSYNTH_SAMPLER_MIX_AVX2) isa = PSYNTH_SAMPLER_MIX_AVX2;
    if (format == PSYNTH_SAMPLER_FORMAT_INT8) pick<int8_t>(channels, interp, isa, kernels);
    else if (format == PSYNTH_SAMPLER_FORMAT_INT16) pick<int16_t>(channels, interp, isa, kernels);
    else pick<float>(channels, interp, isa, kernels);
}
