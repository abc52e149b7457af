// Flanger: identity, the comb's notches and peaks where a still delay puts them (with and
// without feedback), exact echoes of an impulse, the LFO moving the delay at its rate,
// the "Set LFO phase" event, and the tail that ends once the wet signal has died away.
#include "effect_test_util.h"
#include "psynth/lfo_wave.h"
#include "psynth/psynth_modules.h"

namespace {

class FlangerTest : public PsynthFixture {};

enum { DRY, WET, FEEDBACK, DELAY, LFO_FREQ, LFO_AMP, LFO_SHAPE, LFO_PHASE };
constexpr int kSpan = 44100 / 128;   // 344 frames of "Delay" 256
constexpr int kLine = 2 * kSpan + 4;  // 692
constexpr int kD = 1 + kSpan / 2;     // "Delay" 128: 173 frames

double g_hz = 100;
int tone(int c, int t) { return (int)std::lround(2000 * std::sin(2 * M_PI * g_hz * t / 44100.0)); }
int impulse(int c, int t) { return t == 0 ? 1000 : 0; }
int impulses(int c, int t) { return t == 0 || t == 30000 ? 1000 : 0; }

// A flanger with a still delay of kD frames fed by `fn`.
int add_still_flanger(psynth_net* net, signal_fn fn, int feedback, int silent_from = INT_MAX) {
    int src = add_signal_source(net, fn, 2, silent_from);
    int fx = add_effect(net, psynth_flanger, src);
    set_ctl(net, fx, DELAY, 128);
    set_ctl(net, fx, LFO_AMP, 0);
    set_ctl(net, fx, FEEDBACK, feedback);
    return fx;
}

// Output amplitude over input amplitude of a tone at `hz` through a still flanger.
double comb_gain(psynth_net* net, double hz, int feedback) {
    g_hz = hz;
    int fx = add_still_flanger(net, tone, feedback);
    auto out = render_outputs(net, fx, 44100, 4096);
    psynth_remove_synth(fx, net);
    return tone_amplitude(out[1], 22050, 44100, hz) / 2000;
}

TEST_F(FlangerTest, AnswersItsIdentityAndControllers) {
    int fx = add_effect(&net, psynth_flanger, -1);
    EXPECT_EQ(check_effect_identity(&net, psynth_flanger, fx, {handler_data_size(psynth_flanger), "Flanger",
                                                               "Flanger.\nShort delay swept by an LFO,\nwith feedback",
                                                               0x9F, 0x7F, 0xFF}),
              "");
    EXPECT_EQ(check_ctls(&net, fx, {{"Dry", "", 0, 256, 256, 0},
                                    {"Wet", "", 0, 256, 256, 0},
                                    {"Feedback", "", 0, 255, 128, 0},
                                    {"Delay", "", 0, 256, 64, 0},
                                    {"LFO freq", "Hz/100", 0, 1024, 50, 0},
                                    {"LFO amp", "", 0, 256, 128, 0},
                                    {"LFO waveform", "sine/triangle/saw/square/random", 0, 4, 0, 1},
                                    {"Set LFO phase", "", 0, 256, 0, 0}}),
              "");
    EXPECT_EQ(psynth_find_module_type("Flanger"), psynth_flanger);
}

TEST_F(FlangerTest, StillDelayCutsNotchesWhereItsLengthPutsThem) {
    const double notch = 44100.0 / (2 * kD);  // 127.5 Hz, then every 255 Hz
    EXPECT_LT(comb_gain(&net, notch, 0), 0.02);
    EXPECT_LT(comb_gain(&net, 3 * notch, 0), 0.02);
    EXPECT_NEAR(comb_gain(&net, 2 * notch, 0), 2.0, 0.02);
    EXPECT_NEAR(comb_gain(&net, 1.5 * notch, 0), std::sqrt(2.0), 0.03);
    // Feedback 128 (one half): peaks 1 + 1/(1 − ½) = 3, notches 1 − 1/(1 + ½) = ⅓.
    EXPECT_NEAR(comb_gain(&net, 2 * notch, 128), 3.0, 0.05);
    EXPECT_NEAR(comb_gain(&net, notch, 128), 1.0 / 3, 0.03);
}

TEST_F(FlangerTest, ImpulseEchoesExactlyThroughTheFeedback) {
    int fx = add_still_flanger(&net, impulse, 128);
    set_ctl(&net, fx, WET, 200);
    auto out = render_outputs(&net, fx, 1000, 300);
    std::vector<int> want(1000, 0);
    want[0] = 1000;
    want[kD] = 1000 * 200 / 256;         // 781
    want[2 * kD] = 500 * 200 / 256;      // 390
    want[3 * kD] = 250 * 200 / 256;      // 195
    want[4 * kD] = 125 * 200 / 256;      // 97
    want[5 * kD] = 62 * 200 / 256;       // 48
    EXPECT_EQ(out[0], want);
    EXPECT_EQ(out[1], want);
}

TEST_F(FlangerTest, LfoMovesTheDelayAtItsRate) {
    // A square LFO at 1 Hz holds the delay at its top for half a second, then at its foot.
    int src = add_signal_source(&net, impulses);
    int fx = add_effect(&net, psynth_flanger, src);
    set_ctl(&net, fx, DELAY, 0);
    set_ctl(&net, fx, LFO_AMP, 128);
    set_ctl(&net, fx, LFO_FREQ, 100);
    set_ctl(&net, fx, LFO_SHAPE, PSYNTH_LFO_SQUARE);
    set_ctl(&net, fx, FEEDBACK, 0);
    auto out = render_outputs(&net, fx, 31000);
    EXPECT_EQ(out[0][1 + kSpan / 2], 1000);  // 1 + 172 frames
    EXPECT_EQ(out[0][30001], 1000);          // in the second half: the one-frame minimum
    EXPECT_EQ(out[0][30000 + 1 + kSpan / 2], 0);
}

TEST_F(FlangerTest, SetLfoPhaseEventMovesTheDelayAtOnce) {
    int src = add_signal_source(&net, impulse);
    int fx = add_effect(&net, psynth_flanger, src);
    set_ctl(&net, fx, DELAY, 0);
    set_ctl(&net, fx, LFO_AMP, 256);
    set_ctl(&net, fx, LFO_FREQ, 1);  // so slow that the delay stays where the phase puts it
    set_ctl(&net, fx, LFO_SHAPE, PSYNTH_LFO_SQUARE);
    set_ctl(&net, fx, FEEDBACK, 0);
    // Half a cycle at frame 10: the delay falls from 345 frames to 1 and the impulse,
    // already past that, is never heard again.
    queue_controller(&net, fx, LFO_PHASE, 16384, 10);
    auto out = render_outputs(&net, fx, 1000);
    std::vector<int> want(1000, 0);
    want[0] = 1000;
    EXPECT_EQ(out[0], want);
    EXPECT_EQ(*net.modules[fx].ctls[LFO_PHASE].value, 128);
    // Without the event the echo comes 345 frames late.
    int fx2 = add_effect(&net, psynth_flanger, src);
    set_ctl(&net, fx2, DELAY, 0);
    set_ctl(&net, fx2, LFO_AMP, 256);
    set_ctl(&net, fx2, LFO_SHAPE, PSYNTH_LFO_SQUARE);
    psynth_do_command(src, PS_CMD_CLEAN, &net);
    ((signal_source_data*)net.modules[src].data)->frame = 0;
    out = render_outputs(&net, fx2, 1000);
    EXPECT_EQ(out[0][1 + 2 * kSpan / 2], 1000);
}

TEST_F(FlangerTest, SweepVariesTheLevelOfAToneOverACycle) {
    g_hz = 400;
    int src = add_signal_source(&net, tone);
    int fx = add_effect(&net, psynth_flanger, src);
    set_ctl(&net, fx, LFO_FREQ, 200);  // a 0.5 s cycle
    auto out = render_outputs(&net, fx, 22050);
    double lowest = 1e9, highest = 0;
    for (int w = 2205; w + 441 <= 22050; w += 441) {
        double a = tone_amplitude(out[0], w, w + 441, 400);
        lowest = std::min(lowest, a);
        highest = std::max(highest, a);
    }
    EXPECT_GT(highest, 3000);
    EXPECT_LT(lowest, 1000);
}

TEST_F(FlangerTest, TailEndsOnceTheWetSignalDiedAway) {
    for (int feedback : {0, 128, 255}) {
        int fx = add_still_flanger(&net, impulse, feedback, 256);
        int silent = 0, buffers = 0;
        while (silent == 0 && buffers < 44100 * 60 / 4096) {
            render_outputs(&net, fx, 4096, 4096, &silent);
            buffers++;
        }
        EXPECT_EQ(silent, 1) << feedback;
        // Without feedback: the echo at 173, a buffer of quiet wet signal, then silence.
        if (feedback == 0) {
            EXPECT_EQ(buffers, 3);
        }
        silent = 0;
        render_outputs(&net, fx, 4096 * 3, 4096, &silent);
        EXPECT_EQ(silent, 3) << feedback;
        psynth_remove_synth(fx, &net);
    }
}

}  // namespace
