// MOD import: samples and their Amiga pitches, the channels' L R R L pannings, the
// signatures of 4 to 32 channels, breaks in decimal, every cut of the file.
#include <cmath>
#include <cstring>

#include "import_test_util.h"

namespace {

constexpr double kAmigaClock = 3546895.0;

class ImportModTest : public ImportTest {};

TEST_F(ImportModTest, SamplesBecomeSamplersAtTheirAmigaRates) {
    ASSERT_EQ(import(tw_rich_file("mod")), 0) << report.error;
    EXPECT_EQ(report.format, ZELFON_IMPORT_FORMAT_MOD);
    std::vector<int> mods = samplers();
    ASSERT_EQ(mods.size(), 2u);
    EXPECT_STREQ(song.net->modules[mods[0]].name, "Looped eight");
    tw_song src = tw_rich_song();
    const psynth_sampler_sample* a = header(mods[0], 0);
    EXPECT_EQ(a->length, 64u);
    EXPECT_EQ(a->loop_start, 16u);
    EXPECT_EQ(a->loop_length, 48u);
    EXPECT_EQ(a->volume, 48);
    EXPECT_EQ(frames(mods[0], 0), src.samples[0].frames);
    EXPECT_EQ(frames(mods[1], 0), src.samples[2].frames);
    // C-2 (period 428) with finetune −2 eighths is C-4 at that period's rate.
    double rate = 8363.0 * std::exp2((a->relative_note + a->finetune / 128.0) / 12);
    double want = kAmigaClock / 428 * std::exp2(-2 / 96.0);
    EXPECT_NEAR(rate, want, want * 0.0003);
}

TEST_F(ImportModTest, CellsTimelineAndChannelPannings) {
    ASSERT_EQ(import(tw_rich_file("mod")), 0) << report.error;
    // Pattern 1 breaks at row 10 to row 12 (written in decimal digits) of pattern 0.
    EXPECT_EQ(timeline(), (std::vector<std::string>{"0+64", "64+11", "75+52", "127+64 c"}));
    std::vector<int> mods = samplers();
    const uint16_t looped = (uint16_t)(mods[0] + 1), rough = (uint16_t)(mods[1] + 1);
    // Channels 1 and 4 are left, 2 and 3 right; the effects of 3 and 4 keep their cells.
    expect_cell(0, 0, {49, (uint8_t)expected_vel(32, 48), looped, 0, kPanCtl, 0});
    expect_cell(0, 1, {61, 0, rough, 0, kPanCtl, 255 * 128});
    expect_cell(0, 2, {37, 0, looped, 0x08, 0, 0x0407});
    expect_cell(0, 3, {49, 0, rough, 0x09, 0, 1});
    // Amiga slides: 4 periods a tick at C-4's period, in pitch units, over 5 of 6 ticks.
    double period = 428 * std::exp2(2 / 96.0);
    int per_tick = (int)std::lround(12 * std::log2(period / (period - 4)) * 256);
    expect_cell(1, 0, {0, 0, 0, 0x01, 0, (uint16_t)std::lround(per_tick * 5.0 / 6 / 4)});
    expect_cell(2, 0, {0, (uint8_t)expected_vel(28, 48), 0, 0, 0, 0});
    expect_cell(3, 1, {0, 0, 0, 0x0F, 0, 125});
    EXPECT_EQ(report.losses[ZELFON_LOSS_PANNING_IN_CELL], 2);
    EXPECT_EQ(report.losses[ZELFON_LOSS_TREMOLO], 1);
}

TEST_F(ImportModTest, SignaturesGiveTheirChannelCounts) {
    const struct {
        const char* signature;
        int channels;
    } kinds[] = {{"M.K.", 4}, {"FLT4", 4}, {"6CHN", 6}, {"8CHN", 8}, {"CD81", 8}, {"16CH", 16}, {"32CH", 32}};
    for (const auto& k : kinds) {
        tw_song s = tw_tone_song(428, 0);
        s.channels = k.channels;
        for (int ch = 0; ch < k.channels; ch++) s.cells.push_back({0, 1, ch, 214, 1});
        ASSERT_EQ(import(tw_write_mod(s, k.signature)), 0) << k.signature << ": " << report.error;
        EXPECT_EQ(report.channels, k.channels) << k.signature;
        EXPECT_EQ(cell(1, k.channels - 1).note, 61) << k.signature;
    }
    tw_song s = tw_tone_song(428, 0);
    s.channels = 4;
    tw_bytes unknown = tw_write_mod(s, "ABCD");
    EXPECT_EQ(import(unknown), ZELFON_IMPORT_NOT_RECOGNIZED);
}

TEST_F(ImportModTest, PeriodPlaysAtItsAmigaFrequency) {
    tw_song s = tw_tone_song(428, 0);
    s.channels = 4;  // as "M.K." says
    s.samples[0].finetune = 4;
    ASSERT_EQ(import(tw_write_mod(s)), 0) << report.error;
    double expected = kAmigaClock / 428 * std::exp2(4 / 96.0) / 32;
    EXPECT_NEAR(note_frequency(2), expected, expected * 0.003);
}

TEST_F(ImportModTest, EveryCutOfTheFileImportsOrFailsCleanly) { sweep_truncations(tw_rich_file("mod")); }

}  // namespace
