// Amplifier: identity, the defaults passing the input through, exact values of
// inversion, absolute value, balance, stereo width, the gain product, the DC offset and
// saturation, and silence in giving silence out.
#include <algorithm>
#include <cstdlib>

#include "effect_test_util.h"
#include "psynth/psynth_modules.h"

namespace {

class AmplifierTest : public PsynthFixture {
protected:
    // A ramp source through an Amplifier into OUT; `src` and `fx` are set.
    void build(signal_fn fn = ramps) {
        src = add_signal_source(&net, fn);
        fx = add_effect(&net, psynth_amplifier, src);
    }
    // "" when each channel c of one 4096-frame render equals want(c, l, r) of the inputs.
    template <class F>
    std::string render_and_check(F want) {
        ((signal_source_data*)net.modules[src].data)->frame = 0;
        render_buffer(&net, 4096);
        for (int c = 0; c < 2; c++) {
            std::string diff = check_frames(net.modules[fx].output_buffers[c], 0, 4096, [&](int t) {
                return want(c, ramps(0, t), ramps(1, t));
            });
            if (!diff.empty()) return "channel " + std::to_string(c) + ", " + diff;
        }
        return "";
    }
    static int ramps(int c, int t) { return c == 0 ? -301 + 7 * t : 500 - 3 * t; }

    int src = -1, fx = -1;
};

enum { VOLUME, BALANCE, DC_OFFSET, INVERSE, WIDTH, ABSOLUTE, FINE, GAIN };

int pick(int c, int l, int r) { return c == 0 ? l : r; }
int sat(long long v) { return (int)std::clamp(v, -32768LL, 32767LL); }

TEST_F(AmplifierTest, AnswersItsIdentityAndControllers) {
    int fx = add_effect(&net, psynth_amplifier, -1);
    EXPECT_EQ(check_effect_identity(&net, psynth_amplifier, fx,
                                    {(int)sizeof(int) * 8, "Amplifier",
                                     "Amplifier.\nVolume, balance, DC offset,\ninversion, stereo width\nand absolute value",
                                     0xFF, 0xEE, 0x7F}),
              "");
    EXPECT_EQ(check_ctls(&net, fx, {{"Volume", "", 0, 1024, 256, 0},
                                    {"Balance", "", 0, 256, 128, 0},
                                    {"DC offset", "", 0, 256, 128, 0},
                                    {"Inverse", "off/on", 0, 1, 0, 1},
                                    {"Stereo width", "", 0, 512, 256, 0},
                                    {"Absolute", "off/on", 0, 1, 0, 1},
                                    {"Fine volume", "", 0, 32768, 32768, 0},
                                    {"Gain", "", 1, 256, 1, 0}}),
              "");
}

TEST_F(AmplifierTest, DefaultsPassTheInputAndSwitchesGiveExactValues) {
    build();
    EXPECT_EQ(render_and_check(pick), "");
    set_ctl(&net, fx, INVERSE, 1);
    EXPECT_EQ(render_and_check([](int c, int l, int r) { return -pick(c, l, r); }), "");
    set_ctl(&net, fx, ABSOLUTE, 1);  // absolute first, then inverted: −|x|
    EXPECT_EQ(render_and_check([](int c, int l, int r) { return -std::abs(pick(c, l, r)); }), "");
    set_ctl(&net, fx, INVERSE, 0);
    EXPECT_EQ(render_and_check([](int c, int l, int r) { return std::abs(pick(c, l, r)); }), "");
}

TEST_F(AmplifierTest, BalanceLowersOneSide) {
    build();
    set_ctl(&net, fx, BALANCE, 0);
    EXPECT_EQ(render_and_check([](int c, int l, int r) { return c == 0 ? l : 0; }), "");
    set_ctl(&net, fx, BALANCE, 64);  // right × 128/256, toward zero
    EXPECT_EQ(render_and_check([](int c, int l, int r) { return c == 0 ? l : r * 128 / 256; }), "");
    set_ctl(&net, fx, BALANCE, 200);  // left × 112/256
    EXPECT_EQ(render_and_check([](int c, int l, int r) { return c == 0 ? l * 112 / 256 : r; }), "");
    set_ctl(&net, fx, BALANCE, 256);
    EXPECT_EQ(render_and_check([](int c, int l, int r) { return c == 0 ? 0 : r; }), "");
}

TEST_F(AmplifierTest, StereoWidthScalesTheSide) {
    build();
    set_ctl(&net, fx, WIDTH, 0);  // both sides the mid, toward zero
    EXPECT_EQ(render_and_check([](int c, int l, int r) { return (l + r) / 2; }), "");
    set_ctl(&net, fx, WIDTH, 512);  // twice the side
    EXPECT_EQ(render_and_check([](int c, int l, int r) {
                  return sat(c == 0 ? ((l + r) * 256 + (l - r) * 512) / 512 : ((l + r) * 256 - (l - r) * 512) / 512);
              }),
              "");
}

TEST_F(AmplifierTest, GainsMultiplyAndTheResultSaturates) {
    build();
    set_ctl(&net, fx, VOLUME, 512);
    set_ctl(&net, fx, FINE, 16384);  // × 2 × 1/2
    EXPECT_EQ(render_and_check(pick), "");
    set_ctl(&net, fx, VOLUME, 300);
    set_ctl(&net, fx, FINE, 20000);
    set_ctl(&net, fx, GAIN, 3);
    EXPECT_EQ(render_and_check([](int c, int l, int r) {
                  return sat((long long)pick(c, l, r) * 300 * 3 * 256 * 20000 / (1LL << 31));
              }),
              "");
    set_ctl(&net, fx, VOLUME, 256);
    set_ctl(&net, fx, FINE, 32768);
    set_ctl(&net, fx, GAIN, 1);
    set_ctl(&net, fx, DC_OFFSET, 192);  // + 64 × 32
    EXPECT_EQ(render_and_check([](int c, int l, int r) { return sat(pick(c, l, r) + 2048); }), "");
}

TEST_F(AmplifierTest, SilenceInGivesSilenceOut) {
    build();
    set_ctl(&net, fx, DC_OFFSET, 256);
    set_silent_from(&net, src, 0);
    render_buffer(&net, 1000);
    EXPECT_EQ(net.modules[fx].output_start[0], 1000);
    EXPECT_EQ(net.modules[fx].output_start[1], 1000);
    EXPECT_EQ(check_frames(net.modules[0].input_buffers[0], 0, 1000, [](int) { return 0; }), "");
}

}  // namespace
