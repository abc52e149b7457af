// 3Band Equalizer: identity, unity gains giving the input back exactly, band gains
// measured by correlation with a sine at chosen frequencies, and
// silence: none in gives none out, and one second of tail after the input stops.
#include <cmath>

#include "effect_test_util.h"
#include "psynth/psynth_modules.h"

namespace {

enum { LOW, MIDDLE, HIGH, LOW_CUTOFF, HIGH_CUTOFF };

double g_freq = 1000;  // of the test sine
constexpr int kAmp = 2000;

int sine(int c, int t) { return (int)std::lround(kAmp * std::sin(2 * M_PI * g_freq * t / 44100.0)); }
int saw(int c, int t) { return c == 0 ? ((t * 37) % 2001) - 1000 : ((t * 13) % 30001) - 15000; }

class EqualizerTest : public PsynthFixture {
protected:
    void build(signal_fn fn) {
        src = add_signal_source(&net, fn);
        fx = add_effect(&net, psynth_equalizer, src);
    }

    // Gain in dB of the left output at `hz`: a sine is played for half a second to settle,
    // then the output's correlation with sine and cosine over 0.5 s gives its amplitude.
    double gain_db(double hz) {
        g_freq = hz;
        psynth_do_command(fx, PS_CMD_CLEAN, &net);
        ((signal_source_data*)net.modules[src].data)->frame = 0;
        double s = 0, c = 0;
        for (int b = 0; b < 12; b++) {
            render_buffer(&net, 3675);
            if (b < 6) continue;
            for (int i = 0; i < 3675; i++) {
                double phase = 2 * M_PI * hz * (b * 3675 + i) / 44100.0;
                s += net.modules[fx].output_buffers[0][i] * std::sin(phase);
                c += net.modules[fx].output_buffers[0][i] * std::cos(phase);
            }
        }
        double amplitude = 2 * std::sqrt(s * s + c * c) / (6 * 3675);
        return 20 * std::log10(amplitude / kAmp);
    }

    int src = -1, fx = -1;
};

TEST_F(EqualizerTest, AnswersItsIdentityAndControllers) {
    int fx = add_effect(&net, psynth_equalizer, -1);
    EXPECT_EQ(check_effect_identity(&net, psynth_equalizer, fx,
                                    {0, "3Band Equalizer",
                                     "3Band Equalizer.\nLow, middle and high levels\nwith adjustable crossovers",
                                     0x9F, 0xFF, 0x7F}),
              "");
    EXPECT_EQ(check_ctls(&net, fx, {{"Low", "", 0, 512, 256, 0},
                                    {"Middle", "", 0, 512, 256, 0},
                                    {"High", "", 0, 512, 256, 0},
                                    {"Low cutoff", "Hz", 10, 4000, 800, 0},
                                    {"High cutoff", "Hz", 100, 20000, 5000, 0},
                                    {"Mono", "off/on", 0, 1, 0, 1}}),
              "");
}

TEST_F(EqualizerTest, UnityGainsGiveTheInputBack) {
    build(saw);
    set_ctl(&net, fx, LOW_CUTOFF, 3000);  // crossed over: the bands still add up
    set_ctl(&net, fx, HIGH_CUTOFF, 200);
    const int sizes[] = {1000, 4096, 3, 2500};
    int t = 0;
    for (int n : sizes) {
        render_buffer(&net, n);
        for (int c = 0; c < 2; c++) {
            ASSERT_EQ(check_frames(net.modules[fx].output_buffers[c], 0, n, [&](int i) { return saw(c, t + i); }), "")
                << "channel " << c << " at " << t;
        }
        t += n;
    }
}

TEST_F(EqualizerTest, BandGainsAtChosenFrequencies) {
    build(sine);
    EXPECT_NEAR(gain_db(50), 0, 0.1);
    set_ctl(&net, fx, LOW, 0);  // low band cut at the 800 Hz crossover
    EXPECT_LE(gain_db(50), -20);
    EXPECT_NEAR(gain_db(5000), 0, 1);
    set_ctl(&net, fx, LOW, 512);  // +6 dB
    EXPECT_NEAR(gain_db(50), 6, 0.3);
    set_ctl(&net, fx, LOW, 256);
    set_ctl(&net, fx, HIGH, 0);
    set_ctl(&net, fx, HIGH_CUTOFF, 1000);
    EXPECT_LE(gain_db(15000), -20);
    EXPECT_NEAR(gain_db(100), 0, 0.5);
    set_ctl(&net, fx, HIGH, 256);
    set_ctl(&net, fx, HIGH_CUTOFF, 5000);
    set_ctl(&net, fx, LOW_CUTOFF, 200);
    set_ctl(&net, fx, MIDDLE, 0);  // a notch between the crossovers
    EXPECT_LE(gain_db(1000), -15);
    EXPECT_GE(gain_db(30), -1);
}

TEST_F(EqualizerTest, SilenceInGivesSilenceOutAfterOneSecondOfTail) {
    build(saw);
    set_silent_from(&net, src, 0);
    render_buffer(&net, 4096);
    EXPECT_EQ(net.modules[fx].output_start[0], 4096);
    set_silent_from(&net, src, 8192);
    render_buffer(&net, 4096);
    EXPECT_EQ(net.modules[fx].output_start[0], 0);
    int tail_buffers = 0;
    do {
        render_buffer(&net, 4096);
        if (net.modules[fx].output_start[0] == 0) tail_buffers++;
    } while (net.modules[fx].output_start[0] == 0 && tail_buffers < 20);
    EXPECT_EQ(tail_buffers, (44100 + 4095) / 4096);
    EXPECT_EQ(net.modules[fx].output_start[1], 4096);
}

}  // namespace
