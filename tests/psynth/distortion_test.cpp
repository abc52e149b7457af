// Distortion: identity, quiet sounds passing unchanged, exact values of the four shapers
// under drive, the bit depth leaving 2^bits levels, the sample-rate reduction holding
// values, repeatable noise, and silence in giving silence out.
#include <algorithm>
#include <set>
#include <vector>

#include "effect_test_util.h"
#include "psynth/psynth_modules.h"

namespace {

enum { VOLUME, TYPE, POWER, BITS, RATE, NOISE };

// Left: a ramp over twice the full scale each way; right: a quieter, falling ramp.
int ramps(int c, int t) { return c == 0 ? -8192 + 4 * t : 3000 - t; }
int zero(int c, int t) { return 0; }

class DistortionTest : public PsynthFixture {
protected:
    void build(signal_fn fn = ramps) {
        src = add_signal_source(&net, fn);
        fx = add_effect(&net, psynth_distortion, src);
    }
    const psynth_sample* render(int c = 0) {
        ((signal_source_data*)net.modules[src].data)->frame = 0;
        render_buffer(&net, 4096);
        return net.modules[fx].output_buffers[c];
    }
    int src = -1, fx = -1;
};

TEST_F(DistortionTest, AnswersItsIdentityAndControllers) {
    int fx = add_effect(&net, psynth_distortion, -1);
    EXPECT_EQ(check_effect_identity(&net, psynth_distortion, fx,
                                    {0, "Distortion",
                                     "Distortion.\nClipping, saturation, folding,\nbit depth and sample rate\nreduction, noise",
                                     0xFF, 0x7F, 0x7F}),
              "");
    EXPECT_EQ(check_ctls(&net, fx, {{"Volume", "", 0, 256, 256, 0},
                                    {"Type", "clip/sat/fold/wrap", 0, 3, 0, 1},
                                    {"Power", "", 0, 256, 0, 0},
                                    {"Bit depth", "bits", 1, 16, 16, 0},
                                    {"Sample rate", "Hz", 1, 48000, 48000, 0},
                                    {"Noise", "", 0, 256, 0, 0},
                                    {"Mono", "off/on", 0, 1, 0, 1}}),
              "");
}

TEST_F(DistortionTest, ShapersGiveExactValues) {
    build();
    // Defaults: clipped at the full scale, quieter sounds unchanged.
    EXPECT_EQ(check_frames(render(0), 0, 4096, [](int t) { return std::clamp(ramps(0, t), -4096, 4095); }), "");
    EXPECT_EQ(check_frames(net.modules[fx].output_buffers[1], 0, 4096, [](int t) { return ramps(1, t); }), "");
    set_ctl(&net, fx, POWER, 256);  // × 16
    set_ctl(&net, fx, VOLUME, 100);
    EXPECT_EQ(check_frames(render(1), 0, 4096,
                           [](int t) { return std::clamp(ramps(1, t) * 16, -4096, 4095) * 100 / 256; }),
              "");
    set_ctl(&net, fx, POWER, 0);
    set_ctl(&net, fx, VOLUME, 256);
    set_ctl(&net, fx, TYPE, 2);  // fold: reflected at ±4096
    const psynth_sample* out = render(0);
    EXPECT_EQ(out[(5000 + 8192) / 4], 3192);
    EXPECT_EQ(out[(-5000 + 8192) / 4], -3192);
    EXPECT_EQ(out[0], 0);  // −8192 folds twice
    set_ctl(&net, fx, TYPE, 3);  // wrap: +4096 turns to −4096
    out = render(0);
    EXPECT_EQ(out[(5000 + 8192) / 4], 5000 - 8192);
    EXPECT_EQ(out[(-5000 + 8192) / 4], -5000 + 8192);
    EXPECT_EQ(out[(4092 + 8192) / 4], 4092);
    set_ctl(&net, fx, TYPE, 1);  // sat: v − 4v³/(27 × 4096²) on v within ±6144
    out = render(0);
    for (int x : {-8192, -6144, -4096, -1000, 0, 1000, 4096, 6144, 8188}) {
        long long v = std::clamp(x, -6144, 6144);
        int want = std::min((int)(v - v * v * v * 4 / (27LL << 24)), 4095);
        EXPECT_EQ(out[(x + 8192) / 4], want) << x;
    }
    EXPECT_EQ(out[(6144 + 8192) / 4], 4095);  // flat from 1.5 × full scale
}

TEST_F(DistortionTest, BitDepthLeavesTwoToTheBitsLevels) {
    build();
    for (int bits : {1, 3, 8}) {
        set_ctl(&net, fx, BITS, bits);
        const psynth_sample* out = render(0);
        std::set<int> levels(out, out + 4096);
        EXPECT_EQ((int)levels.size(), 1 << bits) << bits;
        int step = 8192 >> bits;
        EXPECT_EQ(*levels.begin(), -4096);
        EXPECT_EQ(*levels.rbegin(), 4096 - step);
        for (int level : levels) EXPECT_EQ(level % step, 0) << level;
    }
    set_ctl(&net, fx, BITS, 13);  // the net's own resolution: unchanged
    EXPECT_EQ(check_frames(render(1), 0, 4096, [](int t) { return ramps(1, t); }), "");
}

TEST_F(DistortionTest, SampleRateReductionHoldsValues) {
    build();
    set_ctl(&net, fx, RATE, 11025);  // a new value every 4 frames
    const psynth_sample* out = render(1);
    EXPECT_EQ(check_frames(out, 0, 4096, [](int t) { return t < 3 ? 0 : ramps(1, (t + 1) / 4 * 4 - 1); }), "");
    set_ctl(&net, fx, RATE, 48000);  // above the net's rate: every frame
    EXPECT_EQ(check_frames(render(1), 0, 4096, [](int t) { return ramps(1, t); }), "");
}

TEST_F(DistortionTest, NoiseIsBoundedAndRepeatsAfterClean) {
    build(zero);
    set_ctl(&net, fx, NOISE, 128);  // up to ±2048
    const psynth_sample* out = render(0);
    std::vector<int> first(out, out + 4096);
    EXPECT_EQ(net.modules[fx].output_start[0], 0);
    EXPECT_LE(*std::max_element(first.begin(), first.end()), 2048);
    EXPECT_GE(*std::min_element(first.begin(), first.end()), -2048);
    EXPECT_GT(std::set<int>(first.begin(), first.end()).size(), 1000u);
    psynth_do_command(fx, PS_CMD_CLEAN, &net);
    EXPECT_EQ(check_frames(render(0), 0, 4096, [&](int t) { return first[t]; }), "");
}

TEST_F(DistortionTest, SilenceInGivesSilenceOutEvenWithNoise) {
    build();
    set_ctl(&net, fx, NOISE, 256);
    set_silent_from(&net, src, 0);
    render(0);
    EXPECT_EQ(net.modules[fx].output_start[0], 4096);
    EXPECT_EQ(net.modules[fx].output_start[1], 4096);
}

}  // namespace
