// The SpectraVoice: its controllers and partials chunk, the level and pitch of a partial,
// energy at each partial's frequency and the spread of a wide one, partials left out above
// half the sampling rate, the release into silence, polyphony, editing partials through
// controllers while a note sounds, and exact samples.
#include <array>
#include <cstring>

#include "synth_test_util.h"

namespace {

enum { VOLUME, PANNING, ATTACK, RELEASE, POLYPHONY, PARTIAL, PARTIAL_FREQ, PARTIAL_VOLUME, PARTIAL_WIDTH };
// 4 × 8363 Hz: C5 (16726 / 32 = 522.7 Hz) lasts 64 frames, so the 16-period table loops
// every 1024 frames and windows of 1024 frames separate partials 1/16 harmonic apart.
constexpr int kRate = 33452;
constexpr int kC5 = note_pitch(60);
constexpr double kC5Hz = 522.6875;
constexpr int kLoop = 1024;

class SpectraVoiceTest : public SynthFixture {
protected:
    void SetUp() override {
        SynthFixture::SetUp();
        ASSERT_GE(add_synth(psynth_spectravoice, kRate), 0);
    }
    uint16_t* partials() { return (uint16_t*)psynth_get_chunk(mod, 0, &net); }
    // Writes the partials (frequency, volume, width triples; the rest silent) as the editor does.
    void set_partials(const std::vector<std::array<int, 3>>& list) {
        memset(partials(), 0, 96);
        for (size_t i = 0; i < list.size(); i++) {
            for (int k = 0; k < 3; k++) partials()[3 * i + k] = (uint16_t)list[i][k];
        }
        psynth_do_command(mod, PS_CMD_SETUP_FINISHED, &net);
    }
    double amp(const std::vector<int>& x, int from, double harmonic) {
        return amplitude_at(x, from, from + kLoop, kC5Hz * harmonic, kRate);
    }
};

TEST_F(SpectraVoiceTest, DescribesItselfItsControllersAndThePartials) {
    const psynth_module& m = net.modules[mod];
    EXPECT_STREQ(m.name, "SpectraVoice");
    EXPECT_EQ(m.flags & ~(PSYNTH_FLAG_EXISTS | PSYNTH_FLAG_INITIALIZED), PSYNTH_FLAG_GENERATOR);
    EXPECT_EQ(m.output_channels, 2);
    EXPECT_EQ(check_ctls(&net, mod, {{"Volume", "", 0, 512, 256, 0},       {"Panning", "", 0, 256, 128, 0},
                                    {"Attack", "ms", 0, 4000, 20, 0},     {"Release", "ms", 0, 4000, 300, 0},
                                    {"Polyphony", "ch.", 1, 16, 8, 0},    {"Partial", "", 1, 16, 1, 0},
                                    {"Partial freq", "1/16 harm.", 0, 1024, 16, 0},
                                    {"Partial volume", "", 0, 256, 256, 0},
                                    {"Partial width", "1/16 harm.", 0, 8, 0, 0}}), "");
    // Chunk 0: 16 × (frequency, volume, width), 16-bit data; a soft organ on harmonics 1-4.
    int size = 0, flags = 0;
    ASSERT_EQ(psynth_get_chunk_info(mod, 0, &size, &flags, nullptr, &net), 0);
    EXPECT_EQ(size, 96);
    EXPECT_EQ(flags, 2);
    std::vector<int> head(partials(), partials() + 15);
    EXPECT_EQ(head, (std::vector<int>{16, 256, 0, 32, 128, 1, 48, 85, 1, 64, 64, 2, 80, 0, 0}));
}

TEST_F(SpectraVoiceTest, ALonePartialIsTheNoteAtHalfScale) {
    set_partials({{16, 256, 0}});
    std::vector<int> right;
    std::vector<int> x = play({{0, PS_CMD_NOTE_ON, 1, kC5}}, 4 * kLoop);
    EXPECT_NEAR(zero_crossing_hz(x, kLoop, 4 * kLoop, kRate), kC5Hz, 0.5);
    EXPECT_NEAR(amp(x, 2 * kLoop, 1), 2048, 8);
    EXPECT_LE(peak(x, 0, 4 * kLoop), 2048);
    right = play({{0, PS_CMD_NOTE_ON, 1, kC5}}, 4 * kLoop, 1);
    EXPECT_EQ(right, x) << "centre panning: both sides alike";
    set(PANNING, 192);
    set(VOLUME, 128);
    x = play({{0, PS_CMD_NOTE_ON, 1, kC5, 128}}, 4 * kLoop);
    EXPECT_NEAR(amp(x, 2 * kLoop, 1), 2048 / 4 / 2, 4) << "volume, velocity and panning scale it";
}

TEST_F(SpectraVoiceTest, PartialsPutEnergyAtTheirFrequencies) {
    set_partials({{16, 256, 0}, {40, 128, 0}, {0, 256, 0}});
    std::vector<int> x = play({{0, PS_CMD_NOTE_ON, 1, kC5}}, 3 * kLoop);
    EXPECT_NEAR(amp(x, 2 * kLoop, 1), 2048, 8);
    EXPECT_NEAR(amp(x, 2 * kLoop, 2.5), 1024, 8);
    EXPECT_LT(amp(x, 2 * kLoop, 2), 4);
    EXPECT_LT(amp(x, 2 * kLoop, 3), 4);
    // A width of 2 spreads the second partial over five lines 1/16 harmonic apart with
    // weights 1, 2, 3, 2, 1, keeping its power.
    set_partials({{16, 256, 0}, {40, 128, 2}});
    x = play({{0, PS_CMD_NOTE_ON, 1, kC5}}, 3 * kLoop);
    double power = 0;
    for (int j = -2; j <= 2; j++) {
        double a = amp(x, 2 * kLoop, 2.5 + j / 16.0);
        EXPECT_NEAR(a, 1024 * std::sqrt((3 - std::abs(j)) / 9.0), 8) << j;
        power += a * a;
    }
    EXPECT_NEAR(std::sqrt(power), 1024, 10);
}

TEST_F(SpectraVoiceTest, PartialsAboveHalfTheRateAreLeftOut) {
    set_partials({{64, 256, 0}});  // the fourth harmonic
    std::vector<int> c7 = play({{0, PS_CMD_NOTE_ON, 1, note_pitch(96 - 12)}}, 2 * kLoop);
    EXPECT_GT(peak(c7, kLoop, 2 * kLoop), 2000);
    // C8's fourth harmonic is exactly half the rate.
    std::vector<int> c8 = play({{0, PS_CMD_NOTE_ON, 1, note_pitch(96)}}, 2 * kLoop);
    EXPECT_EQ(peak(c8, 0, 2 * kLoop), 0);
    // The same partials with the fundamental: C8 plays only that.
    set_partials({{16, 256, 0}, {64, 256, 0}});
    c8 = play({{0, PS_CMD_NOTE_ON, 1, note_pitch(96)}}, 2 * kLoop);
    EXPECT_NEAR(amplitude_at(c8, kLoop, 2 * kLoop, 4 * kC5Hz * 2, kRate), 2048, 8);
}

TEST_F(SpectraVoiceTest, TheReleaseEndsInSilenceAndTheModuleSaysSo) {
    set(RELEASE, 50);  // 1672 frames
    std::vector<int> x = play({{0, PS_CMD_NOTE_ON, 1, kC5}, {1000, PS_CMD_NOTE_OFF, 1}}, 4 * kLoop);
    EXPECT_GT(peak(x, 900, 1000), 2000);
    EXPECT_GT(peak(x, 1600, 1700), 1000) << "falls at the release's slope";
    EXPECT_EQ(peak(x, 1000 + 1673, 4 * kLoop), 0);
    EXPECT_EQ(silent, (std::vector<bool>{false, false, false, true}));
    // ALL_NOTES_OFF releases too; CLEAN silences at once.
    x = play({{0, PS_CMD_NOTE_ON, 1, kC5}, {1000, PS_CMD_ALL_NOTES_OFF}}, 4 * kLoop);
    EXPECT_EQ(silent, (std::vector<bool>{false, false, false, true}));
}

TEST_F(SpectraVoiceTest, PolyphonyStealsTheVoiceAfterTheCursor) {
    set_partials({{16, 256, 0}});
    set(POLYPHONY, 2);
    const int c5 = kC5, e5 = note_pitch(64), g5 = note_pitch(67);
    std::vector<int> x = play(
        {{0, PS_CMD_NOTE_ON, 1, c5}, {0, PS_CMD_NOTE_ON, 2, e5}, {4 * kLoop, PS_CMD_NOTE_ON, 3, g5}}, 8 * kLoop);
    auto level = [&](int pitch, int from) {
        return amplitude_at(x, from, from + 3 * kLoop, pitch_hz(pitch), kRate, true);
    };
    EXPECT_NEAR(level(c5, kLoop), 2048, 20);
    EXPECT_NEAR(level(e5, kLoop), 2048, 20);
    EXPECT_LT(level(g5, kLoop), 20);
    EXPECT_LT(level(c5, 5 * kLoop), 20) << "the first note's voice was taken";
    EXPECT_NEAR(level(e5, 5 * kLoop), 2048, 20);
    EXPECT_NEAR(level(g5, 5 * kLoop), 2048, 20);
}

TEST_F(SpectraVoiceTest, ControllersEditThePartialsOfSoundingNotes) {
    set_partials({{16, 256, 0}, {32, 128, 1}});
    auto ctl_event = [](int frame, int ctl, int value) { return synth_ev{frame, PS_CMD_SET_GLOBAL_CONTROLLER, -1, ctl, value}; };
    // Choosing partial 2 (value 2185 of 32768 → 1 + 15 · 2185 / 32768 = 2) shows it.
    play({ctl_event(0, PARTIAL, 2185)}, 16);
    EXPECT_EQ(get(PARTIAL), 2);
    EXPECT_EQ((std::vector<int>{get(PARTIAL_FREQ), get(PARTIAL_VOLUME), get(PARTIAL_WIDTH)}), (std::vector<int>{32, 128, 1}));
    // Moving partial 2 up to 3 × the note while the note sounds rebuilds its table.
    std::vector<int> x = play({{0, PS_CMD_NOTE_ON, 1, kC5}, ctl_event(2 * kLoop, PARTIAL_FREQ, 1536)}, 4 * kLoop);
    EXPECT_EQ(get(PARTIAL_FREQ), 48);
    EXPECT_EQ(partials()[3], 48);
    EXPECT_NEAR(amp(x, kLoop, 2.0), 128 * 8 * std::sqrt(0.5), 8);
    EXPECT_LT(amp(x, 3 * kLoop, 2.0), 4);
    EXPECT_NEAR(amp(x, 3 * kLoop, 3.0), 1024 * std::sqrt(0.5), 8);
    // SETUP_FINISHED shows the chosen partial from the chunk.
    partials()[4] = 99;
    psynth_do_command(mod, PS_CMD_SETUP_FINISHED, &net);
    EXPECT_EQ(get(PARTIAL_VOLUME), 99);
}

TEST_F(SpectraVoiceTest, ExactSamples) {
    std::vector<int> x = play({{0, PS_CMD_NOTE_ON, 1, kC5, 200}}, 4000);
    EXPECT_EQ((std::vector<int>{x[1], x[10], x[100], x[1000], x[3999]}), (std::vector<int>{1, 20, 235, -1255, 1617}));
}

}  // namespace
