// S3M import: unsigned 8 and 16-bit samples at their C-4 speeds, channel pannings,
// effect letters, breaks in decimal and every cut of the file.
#include <cmath>

#include "import_test_util.h"

namespace {

class ImportS3mTest : public ImportTest {};

TEST_F(ImportS3mTest, SamplesKeepTheirFramesAndPlayC4AtTheirSpeed) {
    ASSERT_EQ(import(tw_rich_file("s3m")), 0) << report.error;
    EXPECT_EQ(report.format, ZELFON_IMPORT_FORMAT_S3M);
    EXPECT_EQ(song.bpm, 140);
    EXPECT_EQ(song.speed, 4);
    std::vector<int> mods = samplers();
    ASSERT_EQ(mods.size(), 3u);
    tw_song src = tw_rich_song();
    const uint32_t rates[] = {11025, 22050, 16000};
    for (int i = 0; i < 3; i++) {
        EXPECT_STREQ(song.net->modules[mods[i]].name, src.samples[i].name.c_str());
        EXPECT_EQ(frames(mods[i], 0), src.samples[i].frames) << "sample " << i;
        const psynth_sampler_sample* h = header(mods[i], 0);
        double rate = 8363.0 * std::exp2((h->relative_note + h->finetune / 128.0) / 12);
        EXPECT_NEAR(rate, rates[i], rates[i] * 0.0003) << "sample " << i;
    }
    const psynth_sampler_sample* b = header(mods[1], 0);
    EXPECT_EQ(b->type, PSYNTH_SAMPLER_LOOP_FORWARD | PSYNTH_SAMPLER_FORMAT_INT16 << PSYNTH_SAMPLER_FORMAT_SHIFT);
    EXPECT_EQ(b->loop_start, 100u);
    EXPECT_EQ(b->loop_length, 150u);
}

TEST_F(ImportS3mTest, CellsTimelineAndEffects) {
    ASSERT_EQ(import(tw_rich_file("s3m")), 0) << report.error;
    EXPECT_EQ(timeline(), (std::vector<std::string>{"0+64", "64+9", "73+52", "125+64 c"}));
    std::vector<int> mods = samplers();
    // Channel 1's own panning (3 of 15) on its note; X20 a quarter to the right of left.
    expect_cell(0, 0, {49, (uint8_t)expected_vel(32, 48), (uint16_t)(mods[0] + 1), 0, kPanCtl, 3 * 17 * 128});
    expect_cell(0, 1, {61, 0, (uint16_t)(mods[1] + 1), 0, kPanCtl, 64 * 128});
    expect_cell(0, 2, {37, 0, (uint16_t)(mods[2] + 1), 0x08, 0, 0x0307});
    expect_cell(1, 0, {0, 0, 0, 0x0A, 0, (uint16_t)std::lround(3 * 3.0 / 4 * 256 / 48)});
    // A fine slide of 2 Amiga periods down at the period C-4 of this sample has.
    double period = 3546895.0 / 11025;
    EXPECT_EQ(cell(2, 0).effect, 0x12);
    EXPECT_NEAR(cell(2, 0).value, 12 * std::log2((period + 2) / period) * 256 / 4, 1.0);
    expect_cell(3, 0, {0, 0, 0, 0x0F, 0, 3});
    expect_cell(3, 1, {0, 0, 0, 0x0F, 0, 144});
    expect_cell(4, 2, {0, 0, 0, 0x19, 0, 2});
    expect_cell(6, 0, {0, 1, 0, 0, 0, 0});  // a note cut: velocity 0
    EXPECT_EQ(report.losses[ZELFON_LOSS_RETRIGGER_VOLUME], 1);
    EXPECT_EQ(report.losses[ZELFON_LOSS_VIBRATO], 1);
    EXPECT_EQ(report.losses[ZELFON_LOSS_PANNING_IN_CELL], 1);
}

TEST_F(ImportS3mTest, NotePlaysAtTheSampleSpeed) {
    ASSERT_EQ(import(tw_write_s3m(tw_tone_song(0x50, 11025))), 0) << report.error;  // C-5
    double expected = 2 * 11025.0 / 32;
    EXPECT_NEAR(note_frequency(2), expected, expected * 0.003);
}

TEST_F(ImportS3mTest, EveryCutOfTheFileImportsOrFailsCleanly) { sweep_truncations(tw_rich_file("s3m")); }

}  // namespace
