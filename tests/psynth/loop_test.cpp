// Loop: identity, pass-through while recording with Repeats 0, two repeats with their
// seam crossfades and the fade back into recording, the restart on a Repeats event, the
// loop length from SPEED_CHANGED, Volume and the mono switch.
#include <vector>

#include "effect_test_util.h"
#include "psynth/psynth_modules.h"

namespace {

class LoopTest : public PsynthFixture {};

enum { VOLUME, DELAY, STEREO, REPEATS };

int ramp(int c, int t) { return c == 0 ? 10 * t - 3000 : 2000 - 7 * t; }

// The description frame by frame: record or repeat, crossfade at the seams.
struct loop_reference {
    std::vector<int> buf[2];
    int p = 0, r = 0, f = 0;
    void run(int t0, int n, int L, int X, int repeats, int volume, int channels, std::vector<int> out[2]) {
        int sp = p, sr = r, sf = f;
        for (int c = 0; c < channels; c++) {
            p = sp, r = sr, f = sf;
            out[c].assign(n, 0);
            for (int k = 0; k < n; k++) {
                int e = buf[c][L - 1];
                int in = ramp(c, t0 + k);
                int w = X ? p * 256 / X : 0;
                int o;
                if (r == 0) {
                    buf[c][p] = in;
                    o = (f && p < X) ? wrap16(e * (256 - w) / 256 + in * w / 256) : in;
                } else {
                    o = p < X ? wrap16(e * (256 - w) / 256 + buf[c][p] * w / 256) : buf[c][p];
                }
                out[c][k] = volume == 256 ? o : o * volume / 256;
                if (++p == L) {
                    r++, p = 0, f = 0;
                    if (r > repeats) {
                        if (r < 2) r = 0;
                        else f = 1, r = 0;
                    }
                }
            }
        }
    }
};

TEST_F(LoopTest, AnswersItsIdentityAndControllers) {
    int fx = add_effect(&net, psynth_loop, -1);
    EXPECT_EQ(check_effect_identity(&net, psynth_loop, fx, {52, "Loop",
                                                      "Loop.\nMax delay is 2 lines",
                                                      0xFF, 0x7F, 0xC5, 0x410}),
              "");
    EXPECT_EQ(check_ctls(&net, fx, {{"Volume", "", 0, 256, 256, 0},
                                    {"Delay", "", 0, 256, 256, 0},
                                    {"Stereo", "off/on", 0, 1, 1, 1},
                                    {"Repeats", "", 0, 64, 0, 1}}),
              "");
}

TEST_F(LoopTest, RepeatsZeroPassesTheInputThroughWhileRecording) {
    int src = add_signal_source(&net, ramp);
    int fx = add_effect(&net, psynth_loop, src);
    for (int b = 0; b < 6; b++) {  // 24576 frames: past two 10584-frame loops
        render_buffer(&net, 4096);
        for (int c = 0; c < 2; c++) {
            ASSERT_EQ(check_frames(net.modules[fx].output_buffers[c], 0, 4096,
                                   [&](int t) { return wrap16(ramp(c, b * 4096 + t)); }), "")
                << "buffer " << b << " channel " << c;
        }
    }
}

TEST_F(LoopTest, TwoRepeatsThenRecordsAgainWithAOneMillisecondFade) {
    int src = add_signal_source(&net, ramp);
    int fx = add_effect(&net, psynth_loop, src);
    set_ctl(&net, fx, DELAY, 1);  // 5292 frames a line × 1/128: L = 41, fade X = 20
    set_ctl(&net, fx, REPEATS, 2);
    render_buffer(&net, 300);
    const psynth_sample* out = net.modules[fx].output_buffers[0];
    EXPECT_EQ(out[40], ramp(0, 40));  // recording
    EXPECT_EQ(out[41], -2600);        // first repeat starts on the loop's last sample
    EXPECT_EQ(out[51], -1300 + -1450);  // halfway: w = 128
    EXPECT_EQ(out[61], ramp(0, 20));    // past the fade: the recording itself
    EXPECT_EQ(out[82], -2600);          // second repeat
    EXPECT_EQ(out[122], ramp(0, 40));
    EXPECT_EQ(out[123], -2600);                     // recording again, fading in
    EXPECT_EQ(out[133], -1300 + (1330 - 3000) / 2);  // −2135
    EXPECT_EQ(out[143], ramp(0, 143));
    EXPECT_EQ(out[164], ramp(0, 163));  // first repeat of the new recording

    loop_reference ref;
    ref.buf[0].assign(14700, 0);
    ref.buf[1].assign(14700, 0);
    std::vector<int> want[2];
    ref.run(0, 300, 41, 20, 2, 256, 2, want);
    for (int b = 1; b < 5; b++) {
        int n = 300 + 17 * b;
        render_buffer(&net, n);
        ref.run(300 * b + 17 * b * (b - 1) / 2, n, 41, 20, 2, 256, 2, want);
        for (int c = 0; c < 2; c++) {
            ASSERT_EQ(check_frames(net.modules[fx].output_buffers[c], 0, n, [&](int i) { return want[c][i]; }), "")
                << "buffer " << b << " channel " << c;
        }
    }
}

TEST_F(LoopTest, ARepeatsEventRestartsTheLoopAndIsStoredRaw) {
    int src = add_signal_source(&net, ramp);
    int fx = add_effect(&net, psynth_loop, src);
    set_ctl(&net, fx, DELAY, 1);
    set_ctl(&net, fx, REPEATS, 2);
    render_buffer(&net, 60);  // frame 60: 19 frames into the first repeat
    queue_controller(&net, fx, REPEATS, 3, 10);
    render_buffer(&net, 100);
    EXPECT_EQ(*net.modules[fx].ctls[REPEATS].value, 3);
    const psynth_sample* out = net.modules[fx].output_buffers[0];
    EXPECT_EQ(out[9], ramp(0, 28));     // still repeating until the event
    EXPECT_EQ(out[10], ramp(0, 70));    // recording from the start of the loop
    EXPECT_EQ(out[50], ramp(0, 110));   // last recorded frame (position 40)
    EXPECT_EQ(out[51], ramp(0, 110));   // first repeat: w = 0, the loop's last sample
}

TEST_F(LoopTest, SpeedChangedSetsTheLoopLength) {
    int src = add_signal_source(&net, ramp);
    int fx = add_effect(&net, psynth_loop, src);
    set_ctl(&net, fx, REPEATS, 1);
    psynth_event e = {};
    e.command = PS_CMD_SPEED_CHANGED;
    psynth_event_set_speed(&e, 10 * 256, 4);  // 10-frame ticks, 4 per line: two lines = 80 frames
    psynth_handle_event(fx, &e, &net);
    set_ctl(&net, fx, VOLUME, 128);
    set_ctl(&net, fx, STEREO, 0);
    render_buffer(&net, 400);
    EXPECT_EQ(net.modules[fx].output_channels, 1);
    loop_reference ref;
    ref.buf[0].assign(14700, 0);
    std::vector<int> want[2];
    ref.run(0, 400, 80, 40, 1, 128, 1, want);
    EXPECT_EQ(net.modules[fx].output_buffers[0][80], gain256(ramp(0, 79), 128));
    EXPECT_EQ(check_frames(net.modules[fx].output_buffers[0], 0, 400, [&](int i) { return want[0][i]; }), "");
}

TEST_F(LoopTest, IdleUntilFedAndAgainAfterClean) {
    int src = add_signal_source(&net, ramp, 2, 0);
    int fx = add_effect(&net, psynth_loop, src);
    render_buffer(&net, 128);
    EXPECT_EQ(net.modules[fx].output_start[0], 128);
    set_silent_from(&net, src, 256 + 128);
    render_buffer(&net, 128);
    render_buffer(&net, 128);
    EXPECT_EQ(net.modules[fx].output_start[0], 0);
    render_buffer(&net, 128);  // no input: still playing
    EXPECT_EQ(net.modules[fx].output_start[0], 0);
    psynth_do_command(fx, PS_CMD_CLEAN, &net);
    render_buffer(&net, 128);
    EXPECT_EQ(net.modules[fx].output_start[0], 128);
}

}  // namespace
