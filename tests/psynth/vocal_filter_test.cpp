// Vocal filter: identity, the strongest response of a tone sweep lying at the vowel's
// first formant, formant count and bandwidth, exact samples of an impulse, and one second
// of tail after the input stops.
#include "effect_test_util.h"
#include "psynth/psynth_modules.h"

namespace {

class VocalFilterTest : public PsynthFixture {};

enum { VOLUME, VOWEL, VOICE, BANDWIDTH, FORMANTS };
enum { A, E, I, O, U };
enum { SOPRANO, ALTO, TENOR, BASS };

double g_hz = 100;
int tone(int c, int t) { return (int)std::lround(2000 * std::sin(2 * M_PI * g_hz * t / 44100.0)); }
int impulse(int c, int t) { return t == 0 ? 1000 : 0; }

// Output over input amplitude of a steady tone at `hz` through a fresh vocal filter.
double response(psynth_net* net, int voice, int vowel, double hz, int bandwidth = 128, int formants = 5) {
    g_hz = hz;
    int src = add_signal_source(net, tone);
    int fx = add_effect(net, psynth_vocal_filter, src);
    const int settings[][2] = {{VOICE, voice}, {VOWEL, vowel}, {BANDWIDTH, bandwidth}, {FORMANTS, formants}};
    for (const auto& s : settings) set_ctl(net, fx, s[0], s[1]);
    auto out = render_outputs(net, fx, 8192, 4096);
    psynth_remove_synth(fx, net);
    psynth_remove_synth(src, net);
    return amplitude_at(out[0], 4096, 8192, hz, 44100) / 2000;
}

TEST_F(VocalFilterTest, AnswersItsIdentityAndControllers) {
    int fx = add_effect(&net, psynth_vocal_filter, -1);
    EXPECT_EQ(check_effect_identity(&net, psynth_vocal_filter, fx, {0,
              "Vocal filter", "Vocal filter.\nFormants of the vowels a, e, i, o, u\nfor soprano, alto, tenor and bass",
              0xFF, 0x7F, 0xA8}), "");
    EXPECT_EQ(check_ctls(&net, fx, {{"Volume", "", 0, 512, 256, 0}, {"Vowel", "a/e/i/o/u", 0, 4, 0, 1},
                                    {"Voice", "soprano/alto/tenor/bass", 0, 3, 0, 1},
                                    {"Bandwidth", "", 0, 256, 128, 0}, {"Formants", "", 1, 5, 5, 1},
                                    {"Mono", "off/on", 0, 1, 0, 1}}), "");
}

TEST_F(VocalFilterTest, StrongestResponseLiesAtTheFirstFormant) {
    const int cases[][5] = {{BASS, A, 600, 300, 850}, {BASS, I, 250, 150, 600}, {TENOR, O, 400, 250, 650},
                            {ALTO, E, 400, 250, 1000}, {SOPRANO, A, 800, 500, 1000}};  // voice, vowel, F1, range
    for (const auto& c : cases) {
        int best = 0;
        double best_gain = 0;
        for (int hz = c[3]; hz <= c[4]; hz += 10) {
            double g = response(&net, c[0], c[1], hz);
            if (g > best_gain) best_gain = g, best = hz;
        }
        EXPECT_NEAR(best, c[2], 20) << "voice " << c[0] << " vowel " << c[1];
        EXPECT_NEAR(best_gain, 1.0, 0.1);  // a tone at the first formant passes at the volume
    }
    EXPECT_GT(response(&net, BASS, I, 250), 5 * response(&net, BASS, A, 250));
}

TEST_F(VocalFilterTest, FormantCountAndBandwidth) {
    // Bass "a": the second formant (1040 Hz, −7 dB) stands above the valley at 820 Hz,
    // and is gone with one formant only.
    EXPECT_GT(response(&net, BASS, A, 1040), 2 * response(&net, BASS, A, 820));
    EXPECT_LT(response(&net, BASS, A, 1040, 128, 1), 0.15);
    // Wider bands pass more beside the formant, narrower ones less.
    double normal = response(&net, BASS, I, 330);
    EXPECT_GT(response(&net, BASS, I, 330, 192), 1.5 * normal);
    EXPECT_LT(response(&net, BASS, I, 330, 64), normal / 1.5);
}

TEST_F(VocalFilterTest, ImpulseGivesExactSamplesAndOneSecondOfTail) {
    int fx = add_effect(&net, psynth_vocal_filter, add_signal_source(&net, impulse, 2, 4096));
    const int settings[][2] = {{VOICE, TENOR}, {VOWEL, O}, {FORMANTS, 2}, {VOLUME, 300}};
    for (const auto& s : settings) set_ctl(&net, fx, s[0], s[1]);
    int silent = 0;
    auto out = render_outputs(&net, fx, 4096 * 13, 4096, &silent);
    // Frame 0 by hand: b0 = round((1 − r²) / 2 × 2^24) with r = exp(−π·40/44100) gives
    // 47672, and with r = exp(−π·80/44100) and −10 dB 30065; x = 1000 × 256, so the two
    // resonators give 727 and 458, and (727 + 458) × 300 / 65536 = 5.
    const int want[][2] = {{0, 5}, {1, 10}, {2, 10}, {3, 10}, {4, 9}, {7, 8}, {20, 0}, {40, -4}, {63, -2}};
    for (const auto& w : want) EXPECT_EQ(out[0][w[0]], w[1]) << "frame " << w[0];
    EXPECT_EQ(out[1], out[0]);
    // Input in buffer 0; the tail reaches one second (44100) after 11 more buffers.
    EXPECT_EQ(silent, 1);
}

}  // namespace
