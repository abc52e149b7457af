// Echo: identity, the one-second ring, Delay 0, constant and single echoes without
// feedback loss or with none, the half-ring offset of the right channel, the idle rule,
// and long renders against a plain frame-by-frame reference.
#include <algorithm>
#include <vector>

#include "effect_test_util.h"
#include "psynth/psynth_modules.h"

namespace {

class EchoTest : public PsynthFixture {};

enum { DRY, WET, FEEDBACK, DELAY, STEREO };

int ramp_mixed(int c, int t) { return c == 0 ? -301 + 7 * t : 500 - 3 * t; }
int impulse(int c, int t) { return t == 0 ? 1000 : 0; }
int constant_800(int c, int t) { return 800; }
int saw(int c, int t) { return c == 0 ? ((t * 37) % 2001) - 1000 : ((t * 13) % 3001) - 1500; }

TEST_F(EchoTest, AnswersItsIdentityAndControllers) {
    int fx = add_effect(&net, psynth_echo, -1);
    EXPECT_EQ(check_effect_identity(&net, psynth_echo, fx, {44, "Echo",
                                                      "Echo.\nMax delay is one second",
                                                      0xFF, 0xA3, 0x7F}),
              "");
    EXPECT_EQ(check_ctls(&net, fx, {{"Dry", "", 0, 256, 256, 0},
                                    {"Wet", "", 0, 256, 128, 0},
                                    {"Feedback", "", 0, 256, 128, 0},
                                    {"Delay", "", 0, 256, 256, 0},
                                    {"Stereo", "off/on", 0, 1, 1, 1}}),
              "");
}

TEST_F(EchoTest, DelayZeroWorksOnPositionZeroEveryFrame) {
    int src = add_signal_source(&net, ramp_mixed);
    int fx = add_effect(&net, psynth_echo, src);
    set_ctl(&net, fx, DELAY, 0);
    render_buffer(&net, 4096);
    const psynth_sample* left = net.modules[fx].output_buffers[0];
    const psynth_sample* right = net.modules[fx].output_buffers[1];
    // By hand: out = (what the last frame left) × 128/256 toward zero + input.
    EXPECT_EQ(left[0], -301);
    EXPECT_EQ(left[1], -150 + -294);
    EXPECT_EQ(left[2], -222 + -287);
    EXPECT_EQ(right[0], 500);
    EXPECT_EQ(right[1], 250 + 497);
    int b[2] = {0, 0};
    for (int t = 0; t < 4096; t++) {
        for (int c = 0; c < 2; c++) {
            int in = ramp_mixed(c, t);
            int want = wrap16(gain256(b[c], 128) + in);
            b[c] = wrap16(gain256(b[c], 128) + in);
            ASSERT_EQ(net.modules[fx].output_buffers[c][t], want) << "channel " << c << " frame " << t;
        }
    }
}

TEST_F(EchoTest, FullFeedbackKeepsTheEchoAtConstantLevel) {
    int src = add_signal_source(&net, constant_800, 2, 172);
    int fx = add_effect(&net, psynth_echo, src);
    set_ctl(&net, fx, DELAY, 1);  // 44100 × 1 >> 8 = 172 frames
    set_ctl(&net, fx, WET, 256);
    set_ctl(&net, fx, FEEDBACK, 256);
    set_ctl(&net, fx, DRY, 0);
    render_buffer(&net, 172);
    EXPECT_EQ(check_frames(net.modules[fx].output_buffers[0], 0, 172, [](int) { return 0; }), "");
    for (int b = 0; b < 40; b++) {
        render_buffer(&net, b % 2 ? 4096 : 172);
        int n = b % 2 ? 4096 : 172;
        ASSERT_EQ(net.modules[fx].output_start[0], 0);
        ASSERT_EQ(check_frames(net.modules[fx].output_buffers[0], 0, n, [](int) { return 800; }), "");
        ASSERT_EQ(check_frames(net.modules[fx].output_buffers[1], 0, n, [](int) { return 800; }), "");
    }
}

TEST_F(EchoTest, NoFeedbackLeavesOneEchoThenKeepsRunning) {
    int src = add_signal_source(&net, constant_800, 2, 172);
    int fx = add_effect(&net, psynth_echo, src);
    set_ctl(&net, fx, DELAY, 1);
    set_ctl(&net, fx, WET, 256);
    set_ctl(&net, fx, FEEDBACK, 0);
    render_buffer(&net, 172);
    EXPECT_EQ(net.modules[fx].output_buffers[0][0], 800);  // dry 256: the input itself
    render_buffer(&net, 172);
    EXPECT_EQ(check_frames(net.modules[fx].output_buffers[0], 0, 172, [](int) { return 800; }), "");
    render_buffer(&net, 172);
    EXPECT_EQ(net.modules[fx].output_start[0], 0);  // not idle: it renders, silently
    EXPECT_EQ(check_frames(net.modules[fx].output_buffers[0], 0, 172, [](int) { return 0; }), "");
}

TEST_F(EchoTest, RightEchoIsOffsetByHalfTheDelay) {
    int src = add_signal_source(&net, impulse);
    int fx = add_effect(&net, psynth_echo, src);
    set_ctl(&net, fx, DELAY, 2);  // 344 frames
    set_ctl(&net, fx, WET, 256);
    set_ctl(&net, fx, DRY, 0);
    render_buffer(&net, 1024);
    const psynth_sample* left = net.modules[fx].output_buffers[0];
    const psynth_sample* right = net.modules[fx].output_buffers[1];
    for (int t = 0; t < 1024; t++) {
        int l = t == 344 ? 1000 : t == 688 ? 500 : 0;
        int r = t == 172 ? 1000 : t == 516 ? 500 : t == 860 ? 250 : 0;
        ASSERT_EQ(left[t], l) << t;
        ASSERT_EQ(right[t], r) << t;
    }
    set_ctl(&net, fx, STEREO, 0);
    psynth_do_command(fx, PS_CMD_CLEAN, &net);
    ((signal_source_data*)net.modules[src].data)->frame = 0;
    render_buffer(&net, 1024);
    EXPECT_EQ(right[172], 0);
    EXPECT_EQ(right[344], 1000);
}

TEST_F(EchoTest, IdleUntilFedThenRendersItsTailUntilClean) {
    int src = add_signal_source(&net, constant_800, 2, 0);
    int fx = add_effect(&net, psynth_echo, src);
    render_buffer(&net, 256);
    EXPECT_EQ(net.modules[fx].output_start[0], 256);  // silent: idle since INIT
    set_silent_from(&net, src, 512);
    render_buffer(&net, 256);  // frames 256..511 sound
    EXPECT_EQ(net.modules[fx].output_start[0], 0);
    render_buffer(&net, 256);  // no input any more: the echo keeps running
    EXPECT_EQ(net.modules[fx].output_start[0], 0);
    psynth_do_command(fx, PS_CMD_CLEAN, &net);
    render_buffer(&net, 256);
    EXPECT_EQ(net.modules[fx].output_start[0], 256);
}

// The description frame by frame: read, attenuate, add the input (right: half a ring on).
struct echo_reference {
    std::vector<int> line[2];
    int p = 0;
    void run(int from_t, int n, int dry, int wet, int fb, int delay, int stereo,
             std::vector<int> out[2]) {
        int len = (int)line[0].size();
        int ring = std::min(len, (len * delay) >> 8);
        int start = p;
        for (int c = 0; c < 2; c++) {
            int q = start;
            out[c].assign(n, 0);
            for (int k = 0; k < n; k++) {
                int in = saw(c, from_t + k);
                int b = line[c][q];
                int o = gain256(b, wet);
                line[c][q] = gain256(b, fb);
                int at = (c == 1 && stereo) ? q + ring / 2 : q;
                if (at >= ring) at -= ring;
                line[c][at] = wrap16(line[c][at] + in);
                out[c][k] = wrap16(o + gain256(in, dry));
                q = q + 1 >= ring ? 0 : q + 1;
            }
            p = q;
        }
    }
};

TEST_F(EchoTest, LongRenderMatchesTheFrameByFrameDescription) {
    int src = add_signal_source(&net, saw);
    int fx = add_effect(&net, psynth_echo, src);
    echo_reference ref;
    ref.line[0].assign(44100, 0);
    ref.line[1].assign(44100, 0);
    const int sizes[] = {1000, 777, 4096, 3, 2500, 4096, 4096};
    int t = 0;
    for (int b = 0; b < 7; b++) {
        int dry = b < 3 ? 200 : 256, wet = 100 + b * 20, fb = 200, delay = 3, stereo = b % 2;
        set_ctl(&net, fx, DRY, dry);
        set_ctl(&net, fx, WET, wet);
        set_ctl(&net, fx, FEEDBACK, fb);
        set_ctl(&net, fx, DELAY, delay);
        set_ctl(&net, fx, STEREO, stereo);
        render_buffer(&net, sizes[b]);
        std::vector<int> want[2];
        ref.run(t, sizes[b], dry, wet, fb, delay, stereo, want);
        for (int c = 0; c < 2; c++) {
            ASSERT_EQ(check_frames(net.modules[fx].output_buffers[c], 0, sizes[b],
                                   [&](int i) { return want[c][i]; }),
                      "")
                << "buffer " << b << " channel " << c;
        }
        t += sizes[b];
    }
}

}  // namespace
