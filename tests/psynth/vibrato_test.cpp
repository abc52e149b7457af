// Vibrato: identity, the delay swing counted over two seconds (rate and depth), a still
// delay giving exact samples, and one line length of tail.
#include <algorithm>

#include "effect_test_util.h"
#include "psynth/psynth_modules.h"

namespace {

class VibratoTest : public PsynthFixture {};

enum { VOLUME, AMPLITUDE, FREQ };
constexpr int kSwing = 44100 / 128;  // 344 frames
constexpr int kCentre = kSwing + 2;  // 346

int ramp(int c, int t) { return (t & 0x3FFF) - 8192 + (c ? 7 : 0); }

TEST_F(VibratoTest, AnswersItsIdentityAndControllers) {
    int fx = add_effect(&net, psynth_vibrato, -1);
    EXPECT_EQ(check_effect_identity(&net, psynth_vibrato, fx, {0, "Vibrato",
              "Vibrato.\nPitch vibrato by a modulated delay", 0xB4, 0xFF, 0x7F}), "");
    EXPECT_EQ(check_ctls(&net, fx, {{"Volume", "", 0, 256, 256, 0}, {"Amplitude", "", 0, 256, 64, 0},
                                    {"Freq", "Hz/100", 0, 2048, 500, 0}, {"Mono", "off/on", 0, 1, 0, 1}}), "");
}

TEST_F(VibratoTest, DelaySwingsAtTheSetRateAndDepth) {
    int fx = add_effect(&net, psynth_vibrato, add_signal_source(&net, ramp));
    set_ctl(&net, fx, AMPLITUDE, 256);
    set_ctl(&net, fx, FREQ, 300);  // 3 Hz
    auto out = render_outputs(&net, fx, 88200);
    // A ramp read d frames late is the ramp minus d (its wrap every 16384 frames is skipped).
    std::vector<int> delay;
    for (int t = 1000; t < 88200; t++) {
        int d = (ramp(0, t) - out[0][t]) & 0x3FFF;
        if (d < 1000) delay.push_back(d);
    }
    EXPECT_EQ(*std::min_element(delay.begin(), delay.end()), kCentre - kSwing);
    EXPECT_GE(*std::max_element(delay.begin(), delay.end()), kCentre + kSwing - 1);  // the sine's top is 32767/32768
    int crests = 0;
    for (size_t i = 1; i < delay.size(); i++) crests += delay[i - 1] < kCentre + 200 && delay[i] >= kCentre + 200;
    EXPECT_EQ(crests, 6);  // at 1/12 s + k/3 s
    EXPECT_EQ(out[1][5000] - out[0][5000], 7);  // the right channel swings alike
}

TEST_F(VibratoTest, StillDelayGivesExactSamples) {
    int fx = add_effect(&net, psynth_vibrato, add_signal_source(&net, ramp));
    set_ctl(&net, fx, AMPLITUDE, 0);
    set_ctl(&net, fx, VOLUME, 200);
    auto out = render_outputs(&net, fx, 2000, 700);
    for (int c = 0; c < 2; c++) {
        std::vector<int> want;
        for (int t = 0; t < 2000; t++) want.push_back(t < kCentre ? 0 : gain256(ramp(c, t - kCentre), 200));
        EXPECT_EQ(out[c], want) << "channel " << c;
    }
}

TEST_F(VibratoTest, RendersOneLineOfTailAfterTheInputStops) {
    int fx = add_effect(&net, psynth_vibrato, add_signal_source(&net, ramp, 2, 512));
    set_ctl(&net, fx, AMPLITUDE, 0);
    int silent = 0;
    auto out = render_outputs(&net, fx, 512 * 4, 512, &silent);
    // Tail 0 → 512 → 1024 (≥ the line's 693 frames): two buffers of tail, then silence.
    EXPECT_EQ(silent, 1);
    EXPECT_EQ(out[0][512 + kCentre - 1], ramp(0, 511));  // the last input still comes out of the line
    EXPECT_EQ(out[0][512 + kCentre], 0);
}

}  // namespace
