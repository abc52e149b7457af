// Flanger: identity, the comb's notches and peaks where a still delay puts them (with and
// without feedback), exact echoes of an impulse, the LFO moving the delay at its rate, and
// the tail that ends once the wet signal has died away.
#include "effect_test_util.h"
#include "psynth/lfo_wave.h"
#include "psynth/psynth_modules.h"

namespace {

class FlangerTest : public PsynthFixture {};

enum { DRY, WET, FEEDBACK, DELAY, LFO_FREQ, LFO_AMP, LFO_SHAPE, LFO_PHASE };
constexpr int kSpan = 44100 / 128;  // 344 frames of "Delay" 256
constexpr int kD = 1 + kSpan / 2;   // "Delay" 128: 173 frames

double g_hz = 100;
int tone(int c, int t) { return (int)std::lround(2000 * std::sin(2 * M_PI * g_hz * t / 44100.0)); }
int impulses(int c, int t) { return t == 0 || t == 30000 ? 1000 : 0; }

// A flanger with a still delay of kD frames fed by `fn`.
int add_still_flanger(psynth_net* net, signal_fn fn, int feedback, int silent_from = INT_MAX) {
    int fx = add_effect(net, psynth_flanger, add_signal_source(net, fn, 2, silent_from));
    set_ctl(net, fx, DELAY, 128);
    set_ctl(net, fx, LFO_AMP, 0);
    set_ctl(net, fx, FEEDBACK, feedback);
    return fx;
}

// Output over input amplitude of a tone at `hz` through a still flanger.
double comb_gain(psynth_net* net, double hz, int feedback) {
    g_hz = hz;
    int fx = add_still_flanger(net, tone, feedback);
    auto out = render_outputs(net, fx, 44100, 4096);
    psynth_remove_synth(fx, net);
    return amplitude_at(out[1], 22050, 44100, hz, 44100) / 2000;
}

TEST_F(FlangerTest, AnswersItsIdentityAndControllers) {
    int fx = add_effect(&net, psynth_flanger, -1);
    EXPECT_EQ(check_effect_identity(&net, psynth_flanger, fx, {0, "Flanger",
              "Flanger.\nShort delay swept by an LFO,\nwith feedback", 0x9F, 0x7F, 0xFF}), "");
    EXPECT_EQ(check_ctls(&net, fx, {{"Dry", "", 0, 256, 256, 0}, {"Wet", "", 0, 256, 256, 0},
                                    {"Feedback", "", 0, 255, 128, 0}, {"Delay", "", 0, 256, 64, 0},
                                    {"LFO freq", "Hz/100", 0, 1024, 50, 0}, {"LFO amp", "", 0, 256, 128, 0},
                                    {"LFO waveform", "sine/triangle/saw/square/random", 0, 4, 0, 1},
                                    {"Set LFO phase", "", 0, 256, 0, 0}}), "");
}

TEST_F(FlangerTest, StillDelayCutsNotchesWhereItsLengthPutsThem) {
    const double notch = 44100.0 / (2 * kD);  // 127.5 Hz, then every 255 Hz
    EXPECT_LT(comb_gain(&net, notch, 0), 0.02);
    EXPECT_LT(comb_gain(&net, 3 * notch, 0), 0.02);
    EXPECT_NEAR(comb_gain(&net, 2 * notch, 0), 2.0, 0.02);
    // Feedback 128 (one half): peaks 1 + 1/(1 − ½) = 3, notches 1 − 1/(1 + ½) = ⅓.
    EXPECT_NEAR(comb_gain(&net, 2 * notch, 128), 3.0, 0.05);
    EXPECT_NEAR(comb_gain(&net, notch, 128), 1.0 / 3, 0.03);
}

TEST_F(FlangerTest, ImpulseEchoesExactlyThroughTheFeedback) {
    int fx = add_still_flanger(&net, impulses, 128);
    set_ctl(&net, fx, WET, 200);
    auto out = render_outputs(&net, fx, 1000, 300);
    std::vector<int> want(1000, 0);
    want[0] = 1000;
    for (int k = 1, level = 1000; k <= 5; k++, level /= 2) want[k * kD] = level * 200 / 256;  // 781, 390, ...
    EXPECT_EQ(out[0], want);
    EXPECT_EQ(out[1], want);
}

TEST_F(FlangerTest, LfoMovesTheDelayAtItsRate) {
    // A square LFO at 1 Hz holds the delay at its top for half a second, then at its foot.
    int fx = add_effect(&net, psynth_flanger, add_signal_source(&net, impulses));
    set_ctl(&net, fx, DELAY, 0);
    set_ctl(&net, fx, LFO_FREQ, 100);
    set_ctl(&net, fx, LFO_SHAPE, PSYNTH_LFO_SQUARE);
    set_ctl(&net, fx, FEEDBACK, 0);
    auto out = render_outputs(&net, fx, 31000);
    EXPECT_EQ(out[0][1 + kSpan / 2], 1000);  // 1 + 172 frames ("LFO amp" 128)
    EXPECT_EQ(out[0][30001], 1000);          // in the second half: the one-frame minimum
    EXPECT_EQ(out[0][30000 + 1 + kSpan / 2], 0);
}

TEST_F(FlangerTest, TailEndsOnceTheWetSignalDiedAway) {
    for (int feedback : {0, 255}) {
        int fx = add_still_flanger(&net, impulses, feedback, 256);
        int silent = 0, buffers = 0;
        while (silent == 0 && buffers++ < 44100 * 60 / 4096) render_outputs(&net, fx, 4096, 4096, &silent);
        EXPECT_EQ(silent, 1) << feedback;
        // Without feedback: the echo at 173, a buffer of quiet wet signal, then silence.
        if (feedback == 0) { EXPECT_EQ(buffers, 3); }
        render_outputs(&net, fx, 4096 * 3, 4096, &silent);
        EXPECT_EQ(silent, 4) << feedback;
        psynth_remove_synth(fx, &net);
    }
}

}  // namespace
