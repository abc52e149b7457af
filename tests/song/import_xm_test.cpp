// XM import: the rich test song's Samplers, samples, timeline and converted cells, the
// frequency of a note, every cut of the file, and counts no real file holds.
#include <cmath>
#include <cstring>

#include "import_test_util.h"

namespace {

class ImportXmTest : public ImportTest {};

TEST_F(ImportXmTest, InstrumentsBecomeSamplersWithTheirSamplesAndEnvelopes) {
    ASSERT_EQ(import(tw_rich_file("xm")), 0) << report.error;
    EXPECT_EQ(report.format, ZELFON_IMPORT_FORMAT_XM);
    EXPECT_STREQ(song.name, "Rich test song");
    EXPECT_EQ(song.bpm, 140);
    EXPECT_EQ(song.speed, 4);
    std::vector<int> mods = samplers();
    ASSERT_EQ(mods.size(), 2u);
    EXPECT_STREQ(song.net->modules[mods[0]].name, "Lead");
    EXPECT_STREQ(song.net->modules[mods[1]].name, "Keys");
    EXPECT_TRUE(linked_to_output(mods[0]));
    EXPECT_TRUE(linked_to_output(mods[1]));
    EXPECT_EQ(report.instruments, 2);
    EXPECT_EQ(report.samples, 3);

    tw_song src = tw_rich_song();
    const psynth_sampler_sample* a = header(mods[0], 0);
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(a->length, 64u);
    EXPECT_EQ(a->loop_start, 16u);
    EXPECT_EQ(a->loop_length, 48u);
    EXPECT_EQ(a->type, PSYNTH_SAMPLER_LOOP_FORWARD);
    EXPECT_EQ(a->volume, 48);
    EXPECT_EQ(a->finetune, 16);
    EXPECT_EQ(a->relative_note, -3);
    EXPECT_EQ(a->panning, 100);
    EXPECT_STREQ(a->name, "Looped eight");
    EXPECT_EQ(frames(mods[0], 0), src.samples[0].frames);
    const psynth_sampler_sample* b = header(mods[1], 0);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(b->type, PSYNTH_SAMPLER_LOOP_PINGPONG | PSYNTH_SAMPLER_FORMAT_INT16 << PSYNTH_SAMPLER_FORMAT_SHIFT);
    EXPECT_EQ(b->loop_start, 100u);
    EXPECT_EQ(b->loop_length, 150u);
    EXPECT_EQ(frames(mods[1], 0), src.samples[1].frames);
    EXPECT_EQ(frames(mods[1], 1), src.samples[2].frames);

    const psynth_sampler_instrument* lead = instrument(mods[0]);
    EXPECT_EQ(lead->samples_num, 1);
    EXPECT_EQ(lead->volume_points_num, 4);
    EXPECT_EQ(lead->volume_points[2].x, 30);
    EXPECT_EQ(lead->volume_points[2].y, 32);
    EXPECT_EQ(lead->volume_type, PSYNTH_SAMPLER_ENV_ON | PSYNTH_SAMPLER_ENV_SUSTAIN);
    EXPECT_EQ(lead->volume_sustain, 1);
    EXPECT_EQ(lead->panning_type, PSYNTH_SAMPLER_ENV_ON | PSYNTH_SAMPLER_ENV_LOOP);
    EXPECT_EQ(lead->panning_loop_end, 2);
    EXPECT_EQ(lead->volume_table[10], 48 * 16);  // the tables are built
    EXPECT_EQ(lead->vibrato_sweep, 8);
    EXPECT_EQ(lead->vibrato_depth, 4);
    EXPECT_EQ(lead->vibrato_rate, 10);
    EXPECT_EQ(lead->volume_fadeout, 1024);
    const psynth_sampler_instrument* keys = instrument(mods[1]);
    EXPECT_EQ(keys->samples_num, 2);
    EXPECT_EQ(keys->sample_map[47], 0);
    EXPECT_EQ(keys->sample_map[48], 1);
}

TEST_F(ImportXmTest, OrdersBreaksAndLoopsUnrollOntoTheTimeline) {
    ASSERT_EQ(import(tw_rich_file("xm")), 0) << report.error;
    // Pattern 0; pattern 1 to its loop, the loop twice (the second a clone of the first),
    // the third time on to the break; pattern 0 from the break's row 4; pattern 0 again,
    // a clone of its first use.
    EXPECT_EQ(timeline(), (std::vector<std::string>{"0+16", "16+5", "21+2", "23+2 c", "25+4", "29+12", "41+16 c"}));
    EXPECT_EQ(song.pats_info[slot_at(41, true)].parent, slot_at(0));
    EXPECT_EQ(song.pats_info[slot_at(23, true)].parent, slot_at(21));
    EXPECT_EQ(report.patterns, 5);
    EXPECT_EQ(report.clones, 2);
    EXPECT_EQ(report.lines, 57);
    EXPECT_EQ(report.channels, 4);
}

TEST_F(ImportXmTest, JumpsBackAndMissingPatternsEndOrSkipWithAReport) {
    tw_song s = tw_tone_song(49, 0);
    s.rows = 4;
    s.patterns = 2;
    s.orders = {0, 7, 1, 0};  // there is no pattern 7
    s.cells.push_back({1, 2, 0, -1, 0, -1, 0xB, 0x01});  // back to order 1: the song would loop from there
    ASSERT_EQ(import(tw_write_xm(s)), 0) << report.error;
    EXPECT_EQ(timeline(), (std::vector<std::string>{"0+4", "4+3"}));
    EXPECT_EQ(report.losses[ZELFON_LOSS_MISSING_PATTERN], 1);
    EXPECT_EQ(report.losses[ZELFON_LOSS_FLOW], 1);
}

TEST_F(ImportXmTest, EndlessPatternLoopsAreCutNotFollowed) {
    // Eight loops nested over each other, each taken 15 times: far beyond any song.
    tw_song s = tw_tone_song(49, 0);
    s.channels = 8;
    s.rows = 9;
    s.cells.clear();
    for (int ch = 0; ch < 8; ch++) {
        s.cells.push_back({0, 0, ch, -1, 0, -1, 0xE, 0x60});
        s.cells.push_back({0, ch + 1, ch, -1, 0, -1, 0xE, 0x6F});
    }
    ASSERT_EQ(import(tw_write_xm(s)), 0) << report.error;
    EXPECT_EQ(report.losses[ZELFON_LOSS_SONG_CUT], 1);
    EXPECT_LE(report.lines, 1 << 17);
    EXPECT_GT(report.clones, 1000);
}

TEST_F(ImportXmTest, CellsCarryNotesVolumesPanningsAndEffects) {
    ASSERT_EQ(import(tw_rich_file("xm")), 0) << report.error;
    std::vector<int> mods = samplers();
    const int lead = mods[0] + 1, keys = mods[1] + 1;
    expect_cell(0, 0, {49, (uint8_t)expected_vel(32, 48), (uint16_t)lead, 0, 0, 0});
    expect_cell(0, 1, {61, 0, (uint16_t)keys, 0, kPanCtl, 192 * 128});
    expect_cell(0, 2, {37, 0, (uint16_t)keys, 0x08, 0, 0x0307});
    expect_cell(0, 3, {49, 0, (uint16_t)lead, 0x09, 0, 2});
    // Slides are spread over all 4 ticks of a line: 8 × 16 pitch units on 3 of them.
    expect_cell(1, 0, {0, 0, 0, 0x01, 0, 24});
    // Volume 2 up on 3 ticks, of a sample at 48: 8 velocity steps a tick.
    expect_cell(2, 0, {0, 0, 0, 0x0A, 0, 8 << 8});
    expect_cell(3, 0, {0, 0, 0, 0x0A, 0, 12});
    expect_cell(4, 0, {ZELFON_NOTE_OFF, 0, 0, 0, 0, 0});
    expect_cell(4, 1, {0, 1, 0, 0x1D, 0, 2});  // the cut: velocity 0 at tick 2
    expect_cell(5, 1, {61, 0, (uint16_t)keys, 0x1D, 0, 3});
    expect_cell(6, 2, {0, 0, 0, 0x19, 0, 2});
    expect_cell(7, 3, {0, 0, 0, 0x0F, 0, 3});
    expect_cell(8, 3, {0, 0, 0, 0x0F, 0, 150});
    // Tone portamento of 64 × 16 pitch units on 2 of the 3 ticks, without a new note-on.
    expect_cell(9, 0, {50, 0, (uint16_t)lead, 0x03, 0, 171});
    expect_cell(10, 0, {0, 0, 0, 0x1C, 0, 1});
    expect_cell(12, 3, {0, 0, 0, 0x11, 0, 2});
    expect_cell(13, 0, {0, 0, 0, 0x08, 0, 0x0407});
    expect_cell(29, 0, {ZELFON_NOTE_OFF, 0, 0, 0, 0, 0});

    // Pattern 0's rows from 4 on are written twice (its first use and the piece after the break).
    int others = 0;
    for (int k = 0; k < ZELFON_LOSS_KINDS; k++) others += report.losses[k];
    EXPECT_EQ(report.losses[ZELFON_LOSS_VIBRATO], 1);
    EXPECT_EQ(report.losses[ZELFON_LOSS_GLOBAL_VOLUME], 2);
    EXPECT_EQ(report.losses[ZELFON_LOSS_PANNING_IN_CELL], 2);
    EXPECT_EQ(others, 5);
    char text[512];
    EXPECT_EQ(zelfon_import_report_losses(&report, text, sizeof(text)), 3);
    EXPECT_NE(strstr(text, "1 x vibrato effects\n"), nullptr) << text;
}

TEST_F(ImportXmTest, NotePlaysAtTheRateOfItsRelativeNoteAndFinetune) {
    tw_song s = tw_tone_song(58, 0);
    s.samples[0].relative_note = 2;
    s.samples[0].finetune = 64;        // half a semitone
    ASSERT_EQ(import(tw_write_xm(s)), 0) << report.error;
    double expected = 8363.0 * std::exp2((57 + 2 + 0.5 - 48) / 12.0) / 32;
    EXPECT_NEAR(note_frequency(2), expected, expected * 0.003);
}

TEST_F(ImportXmTest, TempoTakesAFreeTrackRatherThanAChannelsEffect) {
    tw_song s = tw_tone_song(49, 0);
    s.channels = 2;
    s.cells.push_back({0, 1, 0, -1, 0, 0x62, 0xF, 0x07});  // a volume slide and speed 7 in one cell
    s.cells.push_back({0, 3, 1, 49, 1});
    ASSERT_EQ(import(tw_write_xm(s)), 0) << report.error;
    expect_cell(1, 0, {0, 0, 0, 0x0A, 0, (uint16_t)std::lround(2 * 6.0 / 7 * 256 / 64)});
    expect_cell(1, 1, {0, 0, 0, 0x0F, 0, 7});
    EXPECT_EQ(report.losses[ZELFON_LOSS_SECOND_EFFECT], 0);
}

TEST_F(ImportXmTest, NoteCutSilencesAtItsTick) {
    tw_song s = tw_tone_song(49, 0);
    s.cells.push_back({0, 1, 0, -1, 0, -1, 0xE, 0xC2});  // cut on line 1, tick 2: frame 5292 + 2 × 882
    ASSERT_EQ(import(tw_write_xm(s)), 0) << report.error;
    play(0);
    std::vector<int16_t> out = render(12000, 1001);
    auto part = [&](int from, int to) { return std::vector<int16_t>(out.begin() + 2 * from, out.begin() + 2 * to); };
    EXPECT_GT(count_loud(part(0, 7056), 1000), 1000);
    // The Sampler takes the velocity at its next tick and glides to it over one more.
    EXPECT_EQ(count_loud(part(7056 + 2 * 882, 12000), 0), 0);
}

TEST_F(ImportXmTest, EveryCutOfTheFileImportsOrFailsCleanly) { sweep_truncations(tw_rich_file("xm")); }

TEST_F(ImportXmTest, CountsBeyondTheFormatAreRefused) {
    tw_bytes file = tw_rich_file("xm");
    tw_bytes wide = file;
    wide[68] = 200;  // channels
    EXPECT_EQ(import(wide), ZELFON_IMPORT_TOO_LARGE);
    EXPECT_NE(strstr(report.error, "XM: "), nullptr);
    tw_song s = tw_rich_song();
    s.instruments[1].samples.assign(17, 0);
    EXPECT_EQ(import(tw_write_xm(s)), ZELFON_IMPORT_TOO_LARGE);
    EXPECT_STREQ(report.error, "XM: instrument 2 has 17 samples");
    tw_bytes garbage(2000, 0x5A);
    EXPECT_EQ(import(garbage), ZELFON_IMPORT_NOT_RECOGNIZED);
    EXPECT_EQ(zelfon_import_song("3:/no_such_file.xm", &song, &report), ZELFON_IMPORT_CANT_OPEN);
}

}  // namespace
