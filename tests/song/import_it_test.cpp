// IT import: instrument and sample mode, IT 2.14 and 2.15 compressed samples byte for
// byte, envelopes beyond the Sampler's 12 points, the volume column, packed patterns that
// reuse masks and values, note frequencies and every cut of the file.
#include <cmath>
#include <cstring>

#include "import_test_util.h"

namespace {

class ImportItTest : public ImportTest {};

TEST_F(ImportItTest, CompressedAndPlainSamplesComeOutFrameForFrame) {
    ASSERT_EQ(import(tw_rich_file("it")), 0) << report.error;
    EXPECT_EQ(report.format, ZELFON_IMPORT_FORMAT_IT);
    std::vector<int> mods = samplers();
    ASSERT_EQ(mods.size(), 2u);
    EXPECT_STREQ(song.net->modules[mods[0]].name, "Lead");
    EXPECT_STREQ(song.net->modules[mods[1]].name, "Keys");
    tw_song src = tw_rich_song();
    EXPECT_EQ(frames(mods[0], 0), src.samples[0].frames);          // plain 8-bit
    EXPECT_EQ(frames(mods[1], 0), src.samples[1].frames);          // IT 2.15, 16-bit
    EXPECT_EQ(frames(mods[1], 1), src.samples[2].frames);          // IT 2.14, 8-bit
    const psynth_sampler_sample* b = header(mods[1], 0);
    EXPECT_EQ(b->type, PSYNTH_SAMPLER_LOOP_PINGPONG | PSYNTH_SAMPLER_FORMAT_INT16 << PSYNTH_SAMPLER_FORMAT_SHIFT);
    EXPECT_EQ(b->loop_start, 100u);
    EXPECT_EQ(b->loop_length, 150u);
    EXPECT_EQ(header(mods[0], 0)->panning, 100);
    EXPECT_EQ(header(mods[0], 0)->volume, 48);
    // C-5 plays at the C-5 speed, so C-4 at half of it.
    double rate = 8363.0 * std::exp2((b->relative_note + b->finetune / 128.0) / 12);
    EXPECT_NEAR(rate, 22050 / 2.0, 11025 * 0.0003);
}

TEST_F(ImportItTest, LongSamplesSpanSeveralCompressedBlocks) {
    tw_song s = tw_tone_song(60, 22050);
    s.samples[0].frames = tw_rough(0x8000 + 5000, 100, 11);
    s.samples[0].compression = TW_IT214;
    tw_sample wide = s.samples[0];
    wide.frames = tw_rough(0x4000 + 3000, 30000, 12);
    wide.wide = true;
    wide.compression = TW_IT215;
    s.samples.push_back(wide);
    ASSERT_EQ(import(tw_write_it(s, false)), 0) << report.error;
    std::vector<int> mods = samplers();
    ASSERT_EQ(mods.size(), 2u);
    EXPECT_EQ(frames(mods[0], 0), s.samples[0].frames);
    EXPECT_EQ(frames(mods[1], 0), s.samples[1].frames);
}

TEST_F(ImportItTest, InstrumentsMapNotesEnvelopesAndFadeOut) {
    ASSERT_EQ(import(tw_rich_file("it")), 0) << report.error;
    std::vector<int> mods = samplers();
    const psynth_sampler_instrument* lead = instrument(mods[0]);
    EXPECT_EQ(lead->volume_type, PSYNTH_SAMPLER_ENV_ON | PSYNTH_SAMPLER_ENV_SUSTAIN);
    EXPECT_EQ(lead->volume_sustain, 1);
    EXPECT_EQ(lead->volume_points[1].x, 10);
    EXPECT_EQ(lead->volume_points[1].y, 48);
    EXPECT_EQ(lead->panning_points[1].y, 10);  // −22 around the centre
    EXPECT_EQ(lead->panning_type, PSYNTH_SAMPLER_ENV_ON | PSYNTH_SAMPLER_ENV_LOOP);
    EXPECT_EQ(lead->volume_fadeout, 1024 * 32);
    const psynth_sampler_instrument* keys = instrument(mods[1]);
    EXPECT_EQ(keys->samples_num, 2);
    EXPECT_EQ(keys->sample_map[47], 0);
    EXPECT_EQ(keys->sample_map[48], 1);
    EXPECT_EQ(keys->volume_points_num, 12);  // of 14
    EXPECT_EQ(keys->volume_points[11].x, 88);
    EXPECT_EQ(report.losses[ZELFON_LOSS_ENVELOPE], 1);
}

TEST_F(ImportItTest, CellsTimelineAndVolumeColumn) {
    ASSERT_EQ(import(tw_rich_file("it")), 0) << report.error;
    // Pattern 1 breaks at row 2 to row 12 (hexadecimal C) of pattern 0.
    EXPECT_EQ(timeline(), (std::vector<std::string>{"0+16", "16+3", "19+4", "23+16 c"}));
    std::vector<int> mods = samplers();
    const uint16_t lead = (uint16_t)(mods[0] + 1), keys = (uint16_t)(mods[1] + 1);
    // C-5 keeps its number; the sample's own panning is the channel's, so none is written.
    expect_cell(0, 0, {61, (uint8_t)expected_vel(32, 48), lead, 0, 0, 0});
    expect_cell(0, 1, {73, 0, keys, 0x09, 0, 1});
    expect_cell(0, 2, {37, 0, keys, 0, kPanCtl, 48 * 4 * 128});
    // Portamento down 12 from the volume column: 12 × 16 pitch units on 3 of 4 ticks.
    expect_cell(1, 0, {0, 0, 0, 0x02, 0, 36});
    expect_cell(3, 0, {ZELFON_NOTE_OFF, 0, 0, 0, 0, 0});
    expect_cell(4, 1, {0, 1, 0, 0, 0, 0});  // a note cut: velocity 0
    expect_cell(5, 2, {61, 0, keys, 0x1D, 0, 2});
    expect_cell(6, 2, {61, 0, keys, 0x1D, 0, 2});
    EXPECT_EQ(report.losses[ZELFON_LOSS_TEMPO_SLIDE], 1);
    EXPECT_EQ(report.losses[ZELFON_LOSS_NOTE_CUT], 0);
    EXPECT_EQ(report.losses[ZELFON_LOSS_PANNING_IN_CELL], 3);
}

TEST_F(ImportItTest, SampleModeMakesASamplerOfEachSample) {
    ASSERT_EQ(import(tw_rich_file("it-samples")), 0) << report.error;
    std::vector<int> mods = samplers();
    ASSERT_EQ(mods.size(), 3u);
    tw_song src = tw_rich_song();
    for (int i = 0; i < 3; i++) {
        EXPECT_STREQ(song.net->modules[mods[i]].name, src.samples[i].name.c_str());
        EXPECT_EQ(frames(mods[i], 0), src.samples[i].frames);
    }
    EXPECT_EQ(cell(0, 1).module, mods[1] + 1);
}

TEST_F(ImportItTest, NotesPlayAtTheC5Speed) {
    for (int note : {60, 48}) {
        restart();  // nothing renders here to take a stop, so each note gets a song of its own
        ASSERT_EQ(import(tw_write_it(tw_tone_song(note, 22050), false)), 0) << report.error;
        double expected = 22050.0 / 32 * std::exp2((note - 60) / 12.0);
        EXPECT_NEAR(note_frequency(2), expected, expected * 0.003) << "note " << note;
    }
}

TEST_F(ImportItTest, EveryCutOfTheFileImportsOrFailsCleanly) {
    sweep_truncations(tw_rich_file("it"));
    sweep_truncations(tw_rich_file("it-samples"));
}

TEST_F(ImportItTest, CountsBeyondTheFormatAreRefused) {
    tw_bytes file = tw_rich_file("it");
    file[0x20] = 0x2C, file[0x21] = 0x01;  // 300 orders
    EXPECT_EQ(import(file), ZELFON_IMPORT_TOO_LARGE);
    EXPECT_NE(strstr(report.error, "IT: 300 orders"), nullptr) << report.error;
}

}  // namespace
