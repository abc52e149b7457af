// The Sampler's mixing kernels. Each is specialised at compile time for the sample type,
// the channel count, interpolation, the volume ramp and the direction. Forward runs of
// integer samples also come in lanes of 4 (SSE2) or 8 frames (AVX2, chosen at run time).
#include "psynth/sampler_mix.h"

#include <immintrin.h>

#include <cmath>
#include <cstring>
#include <type_traits>

#include "psynth/psynth_cpu.h"
#include "psynth/psynth_dsp.h"
#include "psynth/psynth_tables.h"
#include "psynth/sampler.h"

namespace {

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

// A volume one ramp step on. Sums wrap rather than overflow: a garbage ramp may leave 32
// bits, and so may the lanes' steps of several frames where each frame's step would not.
inline int32_t ramp_step(int32_t volume, int64_t inc) { return (int32_t)((uint32_t)volume + (uint32_t)inc); }

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
            vl = ramp_step(vl, il);
            vr = ramp_step(vr, ir);
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

// The lane helpers are inlined: no vector crosses a call, whatever the target.
#pragma GCC diagnostic ignored "-Wpsabi"

// Σ of the products of the 16-bit halves of a and b in each 32-bit lane (pmaddwd) into *sum.
template <int N>
void madd_halves(const typename psynth_lanes<N>::i32& a, const typename psynth_lanes<N>::i32& b, typename psynth_lanes<N>::i32* sum);
template <>
__attribute__((always_inline)) inline void madd_halves<4>(const psynth_lanes<4>::i32& a, const psynth_lanes<4>::i32& b,
                                                          psynth_lanes<4>::i32* sum) {
    *sum = (psynth_lanes<4>::i32)_mm_madd_epi16((__m128i)a, (__m128i)b);
}
// The AVX2 one is called from the baseline helpers that the AVX2 kernels inline, so it
// takes no vector by value, and it is not always_inline: the kernels are flattened, which
// takes it in once they hold the helpers.
template <>
__attribute__((target("avx2"))) inline void madd_halves<8>(const psynth_lanes<8>::i32& a, const psynth_lanes<8>::i32& b,
                                                           psynth_lanes<8>::i32* sum) {
    *sum = (psynth_lanes<8>::i32)_mm256_madd_epi16((__m256i)a, (__m256i)b);
}

// floor((volume >> 7) · value / 2^18) in 32-bit lanes, exact for any 32-bit volume and
// 16-bit value: the gain (volume >> 7) is high · 2^15 + low, high of 10 bits and low of 15,
// so gain · value = (high · value + (low · value >> 15)) · 2^15 plus a remainder below
// 2^15, which the last shift by 3 cannot see. Both products are of 16-bit halves.
constexpr int kGainSplitBits = 15;
constexpr int kGainLowMask = (1 << kGainSplitBits) - 1;
static_assert(kMixBits - kGainSplitBits == 3 && 32 - kMixGainBits - kGainSplitBits <= 16);

template <int N>
__attribute__((always_inline)) inline typename psynth_lanes<N>::i32 mix_lanes(typename psynth_lanes<N>::i32 volume,
                                                                             typename psynth_lanes<N>::i32 value) {
    typedef typename psynth_lanes<N>::i32 V;
    const V gain = volume >> kMixGainBits;
    const V value16 = value & 0xFFFF;  // its upper halves are 0, and so are their products
    V high, low;
    madd_halves<N>(gain >> kGainSplitBits, value16, &high);
    madd_halves<N>(gain & kGainLowMask, value16, &low);
    return (high + (low >> kGainSplitBits)) >> (kMixBits - kGainSplitBits);
}

// Adds both sides' mixed lanes into their outputs with psynth_add_wrap's 16-bit
// wrap-around. Sums of 16-bit truncations wrap as the truncated sum does, in any order, so
// one output shared by both sides takes the two at once.
template <int N>
__attribute__((always_inline)) inline void add_sides(psynth_sample* dl, psynth_sample* dr, typename psynth_lanes<N>::i32 left,
                                                     typename psynth_lanes<N>::i32 right) {
    typedef typename psynth_lanes<N>::u16 W;
    const W l = __builtin_convertvector(left, W), r = __builtin_convertvector(right, W);
    W o;
    memcpy(&o, dl, sizeof(o));
    if (dl == dr) {
        o += l + r;
        memcpy(dl, &o, sizeof(o));
        return;
    }
    o += l;
    memcpy(dl, &o, sizeof(o));
    memcpy(&o, dr, sizeof(o));
    o += r;
    memcpy(dr, &o, sizeof(o));
}

// Position arithmetic runs in 32-bit lanes from the run's first whole frame; runs whose
// lanes' positions (up to the end of their last pass) would leave that range go to the
// scalar kernel.
constexpr int64_t kLanePositionLimit = (int64_t)1 << 30;

// The lanes' frames of each side: with interpolation the (current, next) values as the
// 16-bit halves of each lane (8-bit values scaled to 16 bits fit too), for a multiply-add
// by the weights; without, the current values.
template <int N>
struct lane_frames {
    typename psynth_lanes<N>::i32 cur_l, cur_r;
    typename psynth_lanes<N>::i32 pairs_l, pairs_r;
};

template <int N>
__attribute__((always_inline)) inline typename psynth_lanes<N>::i32 halves(typename psynth_lanes<N>::i32 low,
                                                                          typename psynth_lanes<N>::i32 high) {
    return (low & 0xFFFF) | (high << 16);
}

// Loads the frames of the first `valid` lanes from position q on (walked by `step`); the
// other lanes read the run's first frame, which is always inside the sample.
template <class T, int CH, bool INTERP, int N>
__attribute__((always_inline)) inline lane_frames<N> load_lanes(const T* s, int64_t* q, int64_t step, int valid) {
    typedef typename psynth_lanes<N>::i32 V;
    lane_frames<N> v = {};
    if constexpr (sizeof(T) == 2 && (INTERP || CH == 2)) {
        // 16-bit frames are loaded 32 bits at a time: (current, next) of a mono sample,
        // (left, right) of a stereo frame.
        V a, b;
        for (int j = 0; j < N; j++) {
            const T* at = j < valid ? s + (*q >> kFracBits) * CH : s;
            if (j < valid) *q += step;
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
        if constexpr (CH == 1) {
            v.pairs_l = a;
        } else if constexpr (INTERP) {
            v.pairs_l = halves<N>(a, b);
            v.pairs_r = halves<N>(a >> 16, b >> 16);
        } else {
            v.cur_l = (a << 16) >> 16;
            v.cur_r = a >> 16;
        }
    } else {
        V next_l, next_r;
        for (int j = 0; j < N; j++) {
            const T* at = j < valid ? s + (*q >> kFracBits) * CH : s;
            if (j < valid) *q += step;
            v.cur_l[j] = int_value(at[0]);
            if constexpr (INTERP) next_l[j] = int_value(at[CH]);
            if constexpr (CH == 2) {
                v.cur_r[j] = int_value(at[1]);
                if constexpr (INTERP) next_r[j] = int_value(at[CH + 1]);
            }
        }
        if constexpr (INTERP) {
            v.pairs_l = halves<N>(v.cur_l, next_l);
            if constexpr (CH == 2) v.pairs_r = halves<N>(v.cur_r, next_r);
        }
    }
    return v;
}

template <class T, int CH, bool INTERP, bool RAMP, int N>
__attribute__((always_inline)) inline void mix_forward_lanes(psynth_sampler_mix_run* r) {
    typedef typename psynth_lanes<N>::i32 V;
    typedef typename psynth_lanes<N>::u32 U;
    const int count = r->count;
    const int64_t step = r->step;
    const int covered = (count + N - 1) / N * N;
    if (step < 0 || (r->pos & kFracMask) + step * covered >= kLanePositionLimit) {
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
    const U ramp_lanes = RAMP ? (U)(lane + 1) : (U)(lane * 0);
    U vl = (uint32_t)r->volume[0] + ramp_lanes * (uint32_t)il;  // unsigned: see ramp_step
    U vr = (uint32_t)r->volume[1] + ramp_lanes * (uint32_t)ir;
    psynth_sample* out_l = r->out[0];
    psynth_sample* out_r = r->out[1];
    int64_t q = r->pos & kFracMask;  // the lanes' positions, walked one by one for the loads
    // Mixes the next N frames (the first `valid` of them real) into dl and dr.
    auto mix_lane_frames = [&](int valid, psynth_sample* dl, psynth_sample* dr) __attribute__((always_inline)) {
        const lane_frames<N> v = load_lanes<T, CH, INTERP, N>(s, &q, step, valid);
        V left = v.cur_l, right = v.cur_r;
        if constexpr (INTERP) {
            const V w1 = (rel & (int32_t)kFracMask) >> kFracToWeightBits;
            const V w0 = kWeightMax - w1;
            const V weights = w0 | (w1 << 16);  // both below 2^15: the sums stay in 32 bits
            madd_halves<N>(v.pairs_l, weights, &left);
            left >>= kWeightBits;
            if constexpr (CH == 2) {
                madd_halves<N>(v.pairs_r, weights, &right);
                right >>= kWeightBits;
            }
        }
        if constexpr (CH == 1) right = left;  // mono feeds both sides
        add_sides<N>(dl, dr, mix_lanes<N>((V)vl, left), mix_lanes<N>((V)vr, right));
        rel += lanes_step;
        if constexpr (RAMP) {
            vl += (uint32_t)il * N;
            vr += (uint32_t)ir * N;
        }
    };
    int f = 0;
    for (; f + N <= count; f += N) mix_lane_frames(N, out_l + f, out_r + f);
    // The last frames are mixed in lanes too, into a copy of their outputs.
    if (const int rest = count - f) {
        psynth_sample tail_l[N], tail_r[N];
        psynth_sample* tr = out_r == out_l ? tail_l : tail_r;
        memcpy(tail_l, out_l + f, sizeof(psynth_sample) * rest);
        memcpy(tr, out_r + f, sizeof(psynth_sample) * rest);
        mix_lane_frames(rest, tail_l, tr);
        memcpy(out_l + f, tail_l, sizeof(psynth_sample) * rest);
        memcpy(out_r + f, tr, sizeof(psynth_sample) * rest);
    }
    if constexpr (RAMP) {
        r->volume[0] = ramp_step(r->volume[0], (int64_t)il * count);
        r->volume[1] = ramp_step(r->volume[1], (int64_t)ir * count);
    }
}

constexpr int kSse2Lanes = 4;
constexpr int kAvx2Lanes = 8;

template <class T, int CH, bool INTERP, bool RAMP>
void mix_forward_sse2(psynth_sampler_mix_run* r) {
    mix_forward_lanes<T, CH, INTERP, RAMP, kSse2Lanes>(r);
}

template <class T, int CH, bool INTERP, bool RAMP>
__attribute__((target("avx2"), flatten)) void mix_forward_avx2(psynth_sampler_mix_run* r) {
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
