// The Sampler's SIMD mixing kernels against the scalar ones: for every integer format,
// channel count, interpolation and ramp setting, runs of random lengths (shorter than one
// pass of lanes too), positions, steps and volumes (gains far beyond a real record's
// included) must leave exactly the same samples in both outputs, one output shared by
// both sides, and the same final volumes.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "engine/random.h"
#include "psynth/sampler.h"
#include "psynth/sampler_mix.h"

namespace {

constexpr int kFrames = 2048;
constexpr int kOut = 700;

uint32_t random32(uint32_t* seed) { return (uint32_t)tarvik_random(seed) << 17 ^ (uint32_t)tarvik_random(seed) << 2 ^ tarvik_random(seed); }

struct mix_case {
    std::vector<uint8_t> frames;
    std::vector<psynth_sample> left, right;
    psynth_sampler_mix_run run;
};

// A run that stays inside the sample: 1..max_count frames from `pos` at `step`.
mix_case make_case(int bytes, int channels, bool shared_out, int max_count, uint32_t* seed) {
    mix_case c;
    c.frames.resize((size_t)kFrames * bytes * channels);
    for (auto& b : c.frames) b = (uint8_t)random32(seed);
    c.left.resize(kOut);
    c.right.resize(kOut);
    for (int i = 0; i < kOut; i++) {
        c.left[i] = (psynth_sample)random32(seed);
        c.right[i] = (psynth_sample)random32(seed);
    }
    psynth_sampler_mix_run& r = c.run;
    r.frames = c.frames.data();
    r.count = 1 + (int)(random32(seed) % (uint32_t)max_count);
    int64_t max_step = ((int64_t)(kFrames - 2) << 16) / r.count;
    r.step = (int64_t)(random32(seed) % (uint32_t)(max_step < (3 << 16) ? max_step : (3 << 16)));
    if (random32(seed) % 8 == 0) r.step = max_step;  // long strides
    int64_t span = r.step * r.count;
    r.pos = (int64_t)(random32(seed) % (uint32_t)(((int64_t)(kFrames - 2) << 16) - span + 1));
    if (random32(seed) % 4 == 0) r.pos = ((int64_t)(kFrames - 2) << 16) - r.step * (r.count - 1);  // ends on the last two frames
    for (int ch = 0; ch < 2; ch++) {
        bool wild = random32(seed) % 4 == 0;  // volumes a garbage record could give
        r.volume[ch] = wild ? (int32_t)random32(seed) / 2 : (int32_t)(random32(seed) % (1u << 30));
        int32_t room = wild ? 1 << 20 : (1 << 24) / r.count;
        r.inc[ch] = (int32_t)(random32(seed) % (2u * (uint32_t)room)) - room;
    }
    if (r.count == 1 && random32(seed) % 2) {
        // One frame of a garbage record: a stride of thousands of frames and a ramp that
        // would leave 32 bits within a pass of lanes.
        r.step = (int64_t)1 << 29;
        r.inc[0] = 1 << 30;
        r.inc[1] = -(1 << 30);
    }
    r.out[0] = c.left.data();
    r.out[1] = shared_out ? c.left.data() : c.right.data();
    return c;
}

std::string first_difference(const mix_case& got, const mix_case& want) {
    for (int i = 0; i < kOut; i++) {
        if (got.left[i] != want.left[i]) return "left frame " + std::to_string(i);
        if (got.right[i] != want.right[i]) return "right frame " + std::to_string(i);
    }
    for (int ch = 0; ch < 2; ch++) {
        if (got.run.volume[ch] != want.run.volume[ch]) return "final volume " + std::to_string(ch);
    }
    return "";
}

TEST(SamplerMixTest, SimdKernelsGiveExactlyTheScalarIntegers) {
    uint32_t seed = 2024;
    int checked = 0;
    for (int format : {PSYNTH_SAMPLER_FORMAT_INT8, PSYNTH_SAMPLER_FORMAT_INT16}) {
        const int bytes = format == PSYNTH_SAMPLER_FORMAT_INT8 ? 1 : 2;
        for (int channels : {1, 2}) {
            for (bool interp : {false, true}) {
                psynth_sampler_mix_fn scalar[2][2];
                psynth_sampler_mix_kernels(format, channels, interp, PSYNTH_SAMPLER_MIX_SCALAR, scalar);
                for (int isa : {PSYNTH_SAMPLER_MIX_SSE2, PSYNTH_SAMPLER_MIX_AVX2}) {
                    if (!psynth_sampler_mix_supported(isa)) continue;
                    psynth_sampler_mix_fn simd[2][2];
                    psynth_sampler_mix_kernels(format, channels, interp, isa, simd);
                    for (int ramp = 0; ramp < 2; ramp++) {
                        for (int n = 0; n < 60; n++) {
                            // Every third run is short: a part of one pass of lanes, or a pass and a part.
                            mix_case want = make_case(bytes, channels, n % 5 == 0, n % 3 == 0 ? 20 : kOut - 1, &seed);
                            mix_case got = want;
                            got.run.frames = got.frames.data();
                            got.run.out[0] = got.left.data();
                            got.run.out[1] = n % 5 == 0 ? got.left.data() : got.right.data();
                            scalar[ramp][0](&want.run);
                            simd[ramp][0](&got.run);
                            ASSERT_EQ(first_difference(got, want), "")
                                << "format " << format << ", " << channels << " ch, interp " << interp << ", isa "
                                << isa << ", ramp " << ramp << ", case " << n << ": " << want.run.count << " frames";
                            checked++;
                        }
                    }
                }
            }
        }
    }
    EXPECT_GE(checked, 480);
}

}  // namespace
