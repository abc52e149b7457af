// Delay: identity, the tap limit one sample short of the line, the tap of 0, wet gains
// with inverted amplitude and an odd dry gain, the Mono switch feeding a stereo module
// downstream, and the tail of one line length after the input stops.
#include "effect_test_util.h"
#include "psynth/psynth_modules.h"

namespace {

class DelayTest : public PsynthFixture {};

enum { DRY, WET, DELAY_L, DELAY_R, VOLUME_L, VOLUME_R, MONO, INVERSE };
constexpr int kLine = 44100 / 64;  // 689 samples

int ramp(int c, int t) { return c == 0 ? t - 2000 : 3 * t - 700; }
int constant_100(int c, int t) { return 100; }

TEST_F(DelayTest, AnswersItsIdentityAndControllers) {
    int fx = add_effect(&net, psynth_delay, -1);
    EXPECT_EQ(check_effect_identity(&net, psynth_delay, fx, {52, "Delay",
                                                      "Delay.\nMax delay is 1/64 second",
                                                      0x7F, 0xFF, 0xDB}),
              "");
    EXPECT_EQ(check_ctls(&net, fx, {{"Dry", "", 0, 512, 256, 0},
                                    {"Wet", "", 0, 512, 256, 0},
                                    {"Delay L", "", 0, 256, 128, 0},
                                    {"Delay R", "", 0, 256, 160, 0},
                                    {"Volume L", "", 0, 256, 256, 0},
                                    {"Volume R", "", 0, 256, 256, 0},
                                    {"Mono", "off/on", 0, 1, 0, 1},
                                    {"Inverse amplitude", "off/on", 0, 1, 0, 1}}),
              "");
}

TEST_F(DelayTest, FullDelayIsOneSampleShortOfTheLineAndZeroIsTheSampleJustWritten) {
    int src = add_signal_source(&net, ramp);
    int fx = add_effect(&net, psynth_delay, src);
    set_ctl(&net, fx, DELAY_L, 256);
    set_ctl(&net, fx, DELAY_R, 0);
    set_ctl(&net, fx, DRY, 0);
    render_buffer(&net, 1000);
    render_buffer(&net, 1000);  // frames 1000..1999
    const psynth_sample* left = net.modules[fx].output_buffers[0];
    const psynth_sample* right = net.modules[fx].output_buffers[1];
    EXPECT_EQ(check_frames(left, 0, 1000, [](int i) { return ramp(0, 1000 + i - (kLine - 1)); }), "");
    EXPECT_EQ(left[0], 1000 - 688 - 2000);
    EXPECT_EQ(check_frames(right, 0, 1000, [](int i) { return ramp(1, 1000 + i); }), "");
}

TEST_F(DelayTest, WetGainsInverseAndOddDryRoundTowardZero) {
    int src = add_signal_source(&net, ramp);
    int fx = add_effect(&net, psynth_delay, src);
    set_ctl(&net, fx, WET, 300);
    set_ctl(&net, fx, VOLUME_L, 200);  // wet L = 300 × 200 / 256 = 234
    set_ctl(&net, fx, VOLUME_R, 0);    // wet R = 0: no wet signal at all
    set_ctl(&net, fx, DRY, 300);
    set_ctl(&net, fx, INVERSE, 1);
    render_buffer(&net, 2048);
    const int tap = kLine * 128 >> 8;  // 344
    const psynth_sample* left = net.modules[fx].output_buffers[0];
    const psynth_sample* right = net.modules[fx].output_buffers[1];
    EXPECT_EQ(left[0], -2000 * 300 / 256);  // −2343 (toward zero, not −2344)
    EXPECT_EQ(left[tap], -(-2000 * 234 / 256) + (tap - 2000) * 300 / 256);
    EXPECT_EQ(check_frames(left, 0, 2048, [&](int t) {
        int wet = t >= tap ? -gain256(ramp(0, t - tap), 234) : 0;
        return wrap16(wet + gain256(ramp(0, t), 300));
    }), "");
    EXPECT_EQ(check_frames(right, 0, 2048, [](int t) { return gain256(ramp(1, t), 300); }), "");
}

TEST_F(DelayTest, MonoFeedsBothChannelsOfAStereoModuleDownstream) {
    int src = add_signal_source(&net, ramp);
    int fx = psynth_add_synth(-1, psynth_delay, nullptr, 0, 0, 0, 125, 6, &net);
    int pass = add_pass_effect(&net, 2);
    psynth_make_link(fx, src, &net);
    psynth_make_link(pass, fx, &net);
    psynth_make_link(0, pass, &net);
    set_ctl(&net, fx, MONO, 1);
    set_ctl(&net, fx, DELAY_L, 0);
    set_ctl(&net, fx, WET, 0);
    render_buffer(&net, 512);
    EXPECT_EQ(net.modules[fx].output_channels, 1);
    for (int c = 0; c < 2; c++) {
        EXPECT_EQ(net.modules[pass].input_start[c], 0);
        EXPECT_EQ(check_frames(net.modules[pass].input_buffers[c], 0, 512, [](int t) { return ramp(0, t); }), "")
            << "channel " << c;
    }
    // Back to stereo: the count changes at this render, so the net mixes the Delay's right
    // input (channels below its output count) from the next buffer on.
    set_ctl(&net, fx, MONO, 0);
    render_buffer(&net, 512);
    EXPECT_EQ(net.modules[fx].output_channels, 2);
    render_buffer(&net, 512);
    EXPECT_EQ(check_frames(net.modules[pass].input_buffers[1], 0, 512, [](int t) { return ramp(1, 1024 + t); }), "");
}

TEST_F(DelayTest, RendersOneLineOfTailAfterTheInputStops) {
    int src = add_signal_source(&net, constant_100, 2, 256);
    int fx = add_effect(&net, psynth_delay, src);
    set_ctl(&net, fx, DELAY_L, 64);  // 172 frames
    render_buffer(&net, 256);
    EXPECT_EQ(net.modules[fx].output_start[0], 0);
    // Tail counter 0 → 256 → 512 → 768: three renders, then 768 ≥ 689 and it falls silent.
    render_buffer(&net, 256);
    EXPECT_EQ(net.modules[fx].output_start[0], 0);
    EXPECT_EQ(check_frames(net.modules[fx].output_buffers[0], 0, 256,
                           [](int t) { return t < 172 ? 100 : 0; }), "");
    render_buffer(&net, 256);
    EXPECT_EQ(net.modules[fx].output_start[0], 0);
    render_buffer(&net, 256);
    EXPECT_EQ(net.modules[fx].output_start[0], 0);
    render_buffer(&net, 256);
    EXPECT_EQ(net.modules[fx].output_start[0], 256);
    psynth_do_command(fx, PS_CMD_CLEAN, &net);
    render_buffer(&net, 256);
    EXPECT_EQ(net.modules[fx].output_start[0], 256);  // CLEAN leaves it silent
}

}  // namespace
