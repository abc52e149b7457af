// The Kicker: its controllers, the level and pitch of a kick, the falling sweep, the decay
// into silence, voices cut or summed by the polyphony, the anti-click fade, exact samples.
#include "synth_test_util.h"

namespace {

enum { VOLUME, WAVEFORM, ATTACK, RELEASE, BOOST, ACCELERATION, POLYPHONY, ANTI_CLICK };
constexpr int kRate = 44100;
constexpr int kC3 = note_pitch(36);

class KickerTest : public SynthFixture {
protected:
    void SetUp() override {
        SynthFixture::SetUp();
        ASSERT_GE(add_synth(psynth_kicker, kRate), 0);
    }
    std::vector<int> kick_at(const std::vector<int>& frames, int length) {
        std::vector<synth_ev> evs;
        for (size_t i = 0; i < frames.size(); i++) evs.push_back({frames[i], PS_CMD_NOTE_ON, (int)i, kC3});
        return play(evs, length);
    }
};

TEST_F(KickerTest, DescribesItselfAndItsControllers) {
    const psynth_module& m = net.modules[mod];
    EXPECT_STREQ(m.name, "Kicker");
    EXPECT_EQ(m.flags & ~(PSYNTH_FLAG_EXISTS | PSYNTH_FLAG_INITIALIZED), PSYNTH_FLAG_GENERATOR);
    EXPECT_EQ(m.input_channels, 0);
    EXPECT_EQ(m.output_channels, 1);
    EXPECT_EQ(check_ctls(&net, mod, {{"Volume", "", 0, 512, 256, 0},    {"Waveform", "triangle/square/sine", 0, 2, 2, 1},
                                    {"Attack", "ms", 0, 500, 0, 0},    {"Release", "ms", 1, 2000, 300, 0},
                                    {"Boost", "", 0, 1024, 0, 0},      {"Acceleration", "", 0, 1024, 256, 0},
                                    {"Polyphony", "ch.", 1, 4, 1, 0},  {"Anti-click", "off/on", 0, 1, 1, 1}}), "");
}

TEST_F(KickerTest, WithoutSweepAKickIsTheNoteAtHalfScale) {
    set(ACCELERATION, 0);
    set(RELEASE, 2000);
    std::vector<int> x = kick_at({0}, 4410);
    EXPECT_EQ(x[0], 0) << "starts on a zero crossing";
    EXPECT_NEAR(zero_crossing_hz(x, 0, 4410, kRate), pitch_hz(kC3), pitch_hz(kC3) * 0.002);
    EXPECT_GE(peak(x, 0, 400), 2000);
    EXPECT_LE(peak(x, 0, 400), 2048);
    // Volume and velocity scale it.
    set(VOLUME, 128);
    x = play({{0, PS_CMD_NOTE_ON, 1, kC3, 128}}, 400);
    EXPECT_NEAR(peak(x, 0, 400), 512, 8);
}

TEST_F(KickerTest, ThePitchFallsOntoTheNote) {
    set(RELEASE, 1000);
    std::vector<int> x = kick_at({0}, 22050);
    double early = zero_crossing_hz(x, 0, 441, kRate);
    double middle = zero_crossing_hz(x, 1323, 2646, kRate);
    double late = zero_crossing_hz(x, 8820, 17640, kRate);
    EXPECT_GT(early, 4 * pitch_hz(kC3)) << "three octaves up at the start";
    EXPECT_GT(middle, late * 1.1);
    EXPECT_NEAR(late, pitch_hz(kC3), pitch_hz(kC3) * 0.01);
    // Faster acceleration: lower sooner.
    set(ACCELERATION, 1024);
    x = kick_at({0}, 2646);
    EXPECT_LT(zero_crossing_hz(x, 1323, 2646, kRate), middle);
}

TEST_F(KickerTest, TheReleaseEndsInSilenceAndTheModuleSaysSo) {
    set(RELEASE, 50);  // 2205 frames
    std::vector<int> x = play({{0, PS_CMD_NOTE_ON, 1, kC3}, {10, PS_CMD_NOTE_OFF, 1}}, 4096);
    EXPECT_GT(peak(x, 1000, 1500), 100) << "NOTE_OFF does not cut a kick";
    EXPECT_LT(peak(x, 2100, 2205), 40) << "the level falls to zero";
    EXPECT_EQ(peak(x, 2206, 4096), 0);
    EXPECT_EQ(silent, (std::vector<bool>{false, false, false, true}));
}

TEST_F(KickerTest, PolyphonyCutsOrSumsKicks) {
    set(ANTI_CLICK, 0);
    std::vector<int> lone = kick_at({0}, 6000);
    // One voice: the second kick replaces the first.
    std::vector<int> cut = kick_at({0, 2000}, 6000);
    for (int i = 0; i < 2000; i++) ASSERT_EQ(cut[i], lone[i]) << i;
    for (int i = 2000; i < 6000; i++) ASSERT_EQ(cut[i], lone[i - 2000]) << i;
    // Two voices: they add.
    set(POLYPHONY, 2);
    std::vector<int> both = kick_at({0, 2000}, 6000);
    for (int i = 2000; i < 6000; i++) ASSERT_EQ(both[i], lone[i] + lone[i - 2000]) << i;
    // A third kick with two voices takes the voice after the cursor: the first kick stops.
    std::vector<int> three = kick_at({0, 2000, 4000}, 6000);
    for (int i = 4000; i < 6000; i++) ASSERT_EQ(three[i], lone[i - 2000] + lone[i - 4000]) << i;
}

TEST_F(KickerTest, AntiClickFadesACutKick) {
    set(ACCELERATION, 0);
    set(RELEASE, 2000);
    int quarter = (int)(kRate / pitch_hz(kC3) / 4);  // near the sine's top
    int at = quarter + (int)(2 * kRate / pitch_hz(kC3));
    std::vector<int> soft = kick_at({0, at}, at + 200);
    set(ANTI_CLICK, 0);
    std::vector<int> hard = kick_at({0, at}, at + 200);
    EXPECT_GT(hard[at - 1], 1900);
    EXPECT_EQ(hard[at], 0) << "without the fade the old kick stops dead";
    EXPECT_LT(std::abs(soft[at] - soft[at - 1]), 40);
    for (int i = at + 1; i < at + 88; i++) EXPECT_LT(std::abs(soft[i] - soft[i - 1]), 200) << i;
}

TEST_F(KickerTest, WaveformsAndBoostGiveExactSamples) {
    auto frames = [](const std::vector<int>& x) {
        return std::vector<int>{x[1], x[10], x[100], x[500], x[2000], x[10000]};
    };
    EXPECT_EQ(frames(kick_at({0}, 10001)), (std::vector<int>{303, 2037, 1688, -1192, -1403, 75}));
    set(BOOST, 1024);
    std::vector<int> boosted = kick_at({0}, 10001);
    EXPECT_EQ(frames(boosted), (std::vector<int>{1519, 2044, 2017, -1896, -1475, 122}));
    EXPECT_GE(peak(boosted, 0, 10001), 2040);
    EXPECT_LE(peak(boosted, 0, 10001), 2048) << "the boost clips at the waveform's top";
    set(BOOST, 0);
    set(WAVEFORM, 0);
    EXPECT_EQ(frames(kick_at({0}, 10001)), (std::vector<int>{193, 1938, 1273, -821, -1181, 51}));
    set(WAVEFORM, 1);
    set(ATTACK, 5);
    set(VOLUME, 300);
    EXPECT_EQ(frames(play({{0, PS_CMD_NOTE_ON, 1, kC3, 200}}, 10001)), (std::vector<int>{0, 3, 387, -1796, -1404, 127}));
}

}  // namespace
