// The DrumSynth: its controllers, the three drums on their keys with their pitch, noise,
// length and tone, the polyphony limit, and exact samples.
#include "synth_test_util.h"

namespace {

enum {
    VOLUME, POLYPHONY,
    BASS_VOLUME, BASS_LENGTH, BASS_TONE,
    HIHAT_VOLUME, HIHAT_LENGTH, HIHAT_TONE,
    SNARE_VOLUME, SNARE_LENGTH, SNARE_TONE,
};
constexpr int kRate = 44100;
constexpr int kBassKey = note_pitch(60);   // C5
constexpr int kSnareKey = note_pitch(62);  // D5
constexpr int kHatKey = note_pitch(66);    // F#5

class DrumSynthTest : public SynthFixture {
protected:
    void SetUp() override {
        SynthFixture::SetUp();
        ASSERT_GE(add_synth(psynth_drumsynth, kRate), 0);
    }
    std::vector<int> strike(int key, int frames, int velocity = 256) {
        return play({{0, PS_CMD_NOTE_ON, 1, key, velocity}}, frames);
    }
};

// Rising zero crossings per second.
double crossings_per_second(const std::vector<int>& x, int from, int to) {
    int n = 0;
    for (int i = from + 1; i < to; i++) n += x[i - 1] < 0 && x[i] >= 0;
    return (double)n * kRate / (to - from);
}

TEST_F(DrumSynthTest, DescribesItselfAndItsControllers) {
    const psynth_module& m = net.modules[mod];
    EXPECT_STREQ(m.name, "DrumSynth");
    EXPECT_EQ(m.flags & ~(PSYNTH_FLAG_EXISTS | PSYNTH_FLAG_INITIALIZED), PSYNTH_FLAG_GENERATOR);
    EXPECT_EQ(m.output_channels, 1);
    EXPECT_EQ(check_ctls(&net, mod, {{"Volume", "", 0, 512, 256, 0},        {"Polyphony", "ch.", 1, 16, 4, 0},
                                    {"Bass volume", "", 0, 512, 256, 0},   {"Bass length", "ms", 1, 2000, 300, 0},
                                    {"Bass tone", "", 0, 512, 256, 0},     {"Hihat volume", "", 0, 512, 256, 0},
                                    {"Hihat length", "ms", 1, 2000, 80, 0}, {"Hihat tone", "", 0, 512, 384, 0},
                                    {"Snare volume", "", 0, 512, 256, 0},  {"Snare length", "ms", 1, 2000, 200, 0},
                                    {"Snare tone", "", 0, 512, 320, 0}}), "");
}

TEST_F(DrumSynthTest, TheBassDrumFallsOntoItsPitchAndFollowsKeyAndTone) {
    set(BASS_LENGTH, 2000);
    std::vector<int> x = strike(kBassKey, 22050);
    double g1 = pitch_hz(note_pitch(31));  // G1, about 49 Hz
    EXPECT_GT(zero_crossing_hz(x, 0, 441, kRate), 2 * g1) << "starts high";
    EXPECT_NEAR(zero_crossing_hz(x, 8820, 22050, kRate), g1, g1 * 0.01);
    EXPECT_GE(peak(x, 0, 2000), 1950);
    EXPECT_LE(peak(x, 0, 2000), 2048);
    // C6 plays it an octave higher; C#5 a semitone; the tone moves it in semitones of 32.
    x = strike(note_pitch(72), 22050);
    EXPECT_NEAR(zero_crossing_hz(x, 8820, 22050, kRate), 2 * g1, g1 * 0.02);
    x = strike(note_pitch(61), 22050);
    EXPECT_NEAR(zero_crossing_hz(x, 8820, 22050, kRate), pitch_hz(note_pitch(32)), g1 * 0.01);
    set(BASS_TONE, 512);
    x = strike(kBassKey, 22050);
    EXPECT_NEAR(zero_crossing_hz(x, 8820, 22050, kRate), pitch_hz(note_pitch(39)), g1 * 0.02);
}

TEST_F(DrumSynthTest, TheSnareMixesItsBodyWithNoiseByItsTone) {
    set(SNARE_LENGTH, 1000);
    set(SNARE_TONE, 0);
    std::vector<int> body = strike(kSnareKey, 11025);
    double fs3 = pitch_hz(note_pitch(54));  // F#3, about 185 Hz
    EXPECT_NEAR(zero_crossing_hz(body, 4410, 11025, kRate), fs3, fs3 * 0.01);
    // The same key in every octave is a snare: E4 is the snare two semitones up, an octave down.
    std::vector<int> low = strike(note_pitch(52), 11025);
    EXPECT_NEAR(zero_crossing_hz(low, 4410, 11025, kRate), pitch_hz(note_pitch(44)), fs3 * 0.01);
    set(SNARE_TONE, 512);
    std::vector<int> noise = strike(kSnareKey, 11025);
    EXPECT_GT(crossings_per_second(noise, 4410, 11025), 5000);
    EXPECT_LT(amplitude_at(noise, 4410, 11025, fs3, kRate), 60) << "no body left";
    set(SNARE_TONE, 256);
    std::vector<int> mixed = strike(kSnareKey, 11025);
    double a_body = amplitude_at(body, 4410, 11025, fs3, kRate);
    EXPECT_NEAR(amplitude_at(mixed, 4410, 11025, fs3, kRate), a_body / 2, a_body * 0.1);
}

TEST_F(DrumSynthTest, TheHihatIsBrightNoiseThatEndsOnTime) {
    std::vector<int> x = strike(kHatKey, 8192);  // 80 ms: 3528 frames
    EXPECT_GT(crossings_per_second(x, 0, 2000), 8000);
    EXPECT_GT(peak(x, 0, 1000), 1000);
    EXPECT_EQ(peak(x, 3529, 8192), 0);
    EXPECT_EQ(silent, (std::vector<bool>{false, false, false, false, true, true, true, true}));
    // A darker tone lets lower noise through: fewer crossings. Every key from F to B is the hat.
    set(HIHAT_TONE, 0);
    std::vector<int> dark = play({{0, PS_CMD_NOTE_ON, 1, note_pitch(71)}}, 2000);
    EXPECT_LT(crossings_per_second(dark, 0, 2000), crossings_per_second(x, 0, 2000) * 0.8);
}

TEST_F(DrumSynthTest, LengthsVolumesAndOneShotNotes) {
    set(BASS_LENGTH, 20);  // 882 frames
    std::vector<int> x = play({{0, PS_CMD_NOTE_ON, 1, kBassKey}, {5, PS_CMD_NOTE_OFF, 1}}, 2048);
    EXPECT_GT(peak(x, 400, 600), 100) << "NOTE_OFF does not cut a drum";
    EXPECT_EQ(peak(x, 882, 2048), 0);
    EXPECT_EQ(silent, (std::vector<bool>{false, true}));
    set(BASS_LENGTH, 300);
    int full = peak(strike(kBassKey, 2000), 0, 2000);
    set(BASS_VOLUME, 128);
    EXPECT_NEAR(peak(strike(kBassKey, 2000), 0, 2000), full / 2, 4);
    set(VOLUME, 128);
    EXPECT_NEAR(peak(strike(kBassKey, 2000, 128), 0, 2000), full / 8, 4);
}

TEST_F(DrumSynthTest, PolyphonyLimitsTheDrumsThatSoundTogether) {
    std::vector<int> bass = strike(kBassKey, 4000);
    set(POLYPHONY, 1);
    std::vector<int> x = play({{0, PS_CMD_NOTE_ON, 1, kHatKey}, {1000, PS_CMD_NOTE_ON, 2, kBassKey}}, 4000);
    for (int i = 1000; i < 4000; i++) ASSERT_EQ(x[i], bass[i - 1000]) << "the bass drum took the hat's voice " << i;
    set(POLYPHONY, 2);
    x = play({{0, PS_CMD_NOTE_ON, 1, kBassKey}, {1000, PS_CMD_NOTE_ON, 2, kBassKey}}, 4000);
    for (int i = 1000; i < 4000; i++) ASSERT_EQ(x[i], bass[i] + bass[i - 1000]) << i;
}

TEST_F(DrumSynthTest, ExactSamples) {
    auto frames = [](const std::vector<int>& x) { return std::vector<int>{x[1], x[10], x[100], x[1000], x[5000]}; };
    EXPECT_EQ(frames(strike(kBassKey, 5001)), (std::vector<int>{113, 1082, -1837, -1620, 720}));
    EXPECT_EQ(frames(strike(kSnareKey, 5001)), (std::vector<int>{-203, 243, -599, 302, 179}));
    EXPECT_EQ(frames(strike(kHatKey, 5001)), (std::vector<int>{-151, -13, 283, 678, 0}));
    // A song renders the same noise every time: CLEAN restarts the seed.
    EXPECT_EQ(strike(kHatKey, 3000), strike(kHatKey, 3000));
}

}  // namespace
