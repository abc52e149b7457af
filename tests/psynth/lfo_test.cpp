// LFO: identity, the tremolo rate and the depth's lowest and highest gain, panning moving
// the sound between the sides, the mono switch, the phase set by an event, exact samples
// of a sine tremolo, and silence in giving silence out.
#include <algorithm>

#include "effect_test_util.h"
#include "psynth/lfo_wave.h"
#include "psynth/psynth_modules.h"

namespace {

class LfoTest : public PsynthFixture {};

enum { VOLUME, TYPE, SHAPE, FREQ, DEPTH, PHASE, MONO };

int constant_1000(int c, int t) { return c == 0 ? 1000 : -2000; }
int ramp(int c, int t) { return (t * 7) % 6000 - 3000; }

TEST_F(LfoTest, AnswersItsIdentityAndControllers) {
    int fx = add_effect(&net, psynth_lfo, -1);
    EXPECT_EQ(check_effect_identity(&net, psynth_lfo, fx, {0, "LFO",
              "LFO.\nAmplitude (tremolo) or panning\nmodulation by a low-frequency oscillator", 0xFF, 0xE9, 0x7F}), "");
    EXPECT_EQ(check_ctls(&net, fx, {{"Volume", "", 0, 256, 256, 0}, {"Type", "amplitude/panning", 0, 1, 0, 1},
                                    {"Shape", "sine/triangle/saw/square/random", 0, 4, 0, 1},
                                    {"Freq", "Hz/100", 0, 4096, 256, 0}, {"Depth", "", 0, 256, 256, 0},
                                    {"Set phase", "", 0, 256, 0, 0}, {"Mono", "off/on", 0, 1, 0, 1}}), "");
}

TEST_F(LfoTest, TremoloRateAndDepthGiveTheExpectedCyclesAndGains) {
    int fx = add_effect(&net, psynth_lfo, add_signal_source(&net, constant_1000));
    set_ctl(&net, fx, FREQ, 400);  // 4 Hz: eight troughs in two seconds
    auto out = render_outputs(&net, fx, 88200);
    int troughs = 0;
    for (size_t t = 1; t < out[0].size(); t++) troughs += out[0][t - 1] >= 250 && out[0][t] < 250;
    EXPECT_EQ(troughs, 8);
    EXPECT_EQ(out[0][0], 500);  // the sine starts at 0: half way down with Depth 256
    EXPECT_EQ(*std::max_element(out[0].begin(), out[0].end()), 999);
    EXPECT_EQ(*std::min_element(out[0].begin(), out[0].end()), 0);
    // A square swings exactly between Volume and Volume × (256 − Depth) / 256.
    set_ctl(&net, fx, SHAPE, PSYNTH_LFO_SQUARE);
    set_ctl(&net, fx, DEPTH, 64);
    set_ctl(&net, fx, VOLUME, 200);
    psynth_do_command(fx, PS_CMD_CLEAN, &net);
    out = render_outputs(&net, fx, 11025);  // a whole cycle
    EXPECT_EQ(*std::max_element(out[0].begin(), out[0].end()), 1000 * 200 / 256);
    EXPECT_EQ(*std::min_element(out[0].begin(), out[0].end()), 1000 * 200 / 256 * 192 / 256);
    EXPECT_EQ(out[1][11024], -2000 * 200 / 256 * 192 / 256);
}

TEST_F(LfoTest, PanningMovesTheSoundBetweenTheSidesAndMonoSetsTheChannels) {
    int fx = add_effect(&net, psynth_lfo, add_signal_source(&net, constant_1000));
    set_ctl(&net, fx, TYPE, 1);
    set_ctl(&net, fx, FREQ, 100);  // one cycle per second: right first, then left
    auto out = render_outputs(&net, fx, 44100);
    EXPECT_EQ(out[0][0], 1000);
    EXPECT_EQ(out[0][11025], 0);
    EXPECT_EQ(out[1][11025], -2000);
    EXPECT_EQ(out[0][33075], 1000);
    EXPECT_EQ(out[1][33075], 0);
    // Mono: panning spreads the first input over both outputs; amplitude gives one output.
    set_ctl(&net, fx, MONO, 1);
    out = render_outputs(&net, fx, 11025);
    EXPECT_EQ(out[1][11024], 1000);
    set_ctl(&net, fx, TYPE, 0);
    render_outputs(&net, fx, 16);
    EXPECT_EQ(net.modules[fx].output_channels, 1);
}

TEST_F(LfoTest, SetPhaseEventRestartsTheCycleAndSineGivesExactSamples) {
    int fx = add_effect(&net, psynth_lfo, add_signal_source(&net, ramp));
    set_ctl(&net, fx, FREQ, 1000);
    set_ctl(&net, fx, DEPTH, 200);
    set_ctl(&net, fx, VOLUME, 240);
    auto out = render_outputs(&net, fx, 4410, 1000);
    // Frame 0: lfo 0, gain (65536 − 200 × 128) × 240 / 256 = 37440 / 65536 of −3000 → −1713.
    // A quarter cycle on (frame 1102) the gain is 240/256; at three quarters 13440 / 65536.
    const int want[][2] = {{0, -1713}, {1, -1711}, {1102, -1205}, {2205, 248}, {3307, 440}, {4409, -1219}};
    for (const auto& w : want) EXPECT_EQ(out[0][w[0]], w[1]) << "frame " << w[0];
    set_ctl(&net, fx, SHAPE, PSYNTH_LFO_SQUARE);
    set_ctl(&net, fx, FREQ, 1);  // so slow that the phase stays where it is set
    queue_controller(&net, fx, PHASE, 16384, 10);  // half a cycle, from frame 10 on
    out = render_outputs(&net, fx, 100);
    EXPECT_EQ(out[0][9], gain256(ramp(0, 4419), 240));
    EXPECT_EQ(out[0][10], gain256(ramp(0, 4420), 240) * 56 / 256);
}

TEST_F(LfoTest, SilentInputGivesSilentOutput) {
    int fx = add_effect(&net, psynth_lfo, add_signal_source(&net, constant_1000, 2, 1024));
    int silent = 0;
    render_outputs(&net, fx, 4096, 1024, &silent);
    EXPECT_EQ(silent, 3);
    EXPECT_EQ(net.modules[fx].output_start[1], 1024);
}

}  // namespace
