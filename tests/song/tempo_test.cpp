// Tempo over the timeline: which tempo effects become tempo changes, and the song's
// length in frames with its fraction of a frame carried from line to line.
#include <tuple>
#include <vector>

#include "engine/memory.h"
#include "song_test_util.h"

namespace {

class SongTempoTest : public SongFixture {};

constexpr int kTempo = 0x0F;

TEST_F(SongTempoTest, ChangesComeFromTempoEffectsFromLineZeroOn) {
    int a = add_pattern(-2, 6, 2);
    cell(a, 0, 0) = note_cell(0, 0, 0, kTempo, 100);  // line −2: before the song, ignored
    cell(a, 1, 1) = note_cell(0, 0, 0, kTempo, 3);    // line −1: ignored
    cell(a, 1, 2) = note_cell(0, 0, 0, kTempo, 32);   // line 0: the lowest BPM
    cell(a, 0, 3) = note_cell(0, 0, 0, kTempo, 31);   // line 1: the highest speed
    cell(a, 0, 4) = note_cell(0, 0, 0, kTempo, 0);    // line 2: speed 0 means 1
    cell(a, 1, 5) = note_cell(0, 0, 0, kTempo, 20000);  // line 3: BPM capped
    int b = add_pattern(4, 3, 2);
    cell(b, 0, 0) = note_cell(0, 0, 0, kTempo, 9);    // line 4
    cell(b, 0, 1) = note_cell(0, 0, 0, kTempo, 1);    // line 5: speed 1
    cell(b, 0, 2) = note_cell(0, 0, 0, 0x0E, 50);     // line 6: not a tempo effect
    cell(b, 1, 2) = note_cell(0, 0, 0, kTempo, 200);  // line 6: track beyond the tracks in use
    ASSERT_EQ(zelfon_set_pattern_channels(b, 1, &song), 0);
    zelfon_sort_patterns(&song);
    ASSERT_EQ(song.song_lines, 7);

    zelfon_tempo_change* changes = nullptr;
    int count = 0;
    ASSERT_EQ(zelfon_get_song_tempo_changes(&changes, &count, &song), 0);
    std::vector<std::tuple<int, int, int>> got;
    for (int i = 0; i < count; i++) got.emplace_back(changes[i].line, changes[i].bpm, changes[i].speed);
    // Only the lines where the tempo changes: line 2's speed 1 and line 5's speed 1 are
    // changes, line 6 (no tempo effect in use) is not.
    EXPECT_EQ(got, (std::vector<std::tuple<int, int, int>>{{0, 32, 6}, {1, 32, 31}, {2, 32, 1}, {3, 16000, 1}, {4, 16000, 9}, {5, 16000, 1}}));
    for (auto [line, bpm, speed] : {std::tuple{0, 32, 6}, {3, 16000, 1}, {4, 16000, 9}, {6, 16000, 1}, {1 << 30, 16000, 1}}) {
        const zelfon_tempo_change* c = zelfon_tempo_at(changes, count, line);
        EXPECT_EQ(std::tuple(c->bpm, c->speed), std::tuple(bpm, speed)) << line;
    }
    mem_free(changes);
}

// Effects on one line overwrite each other in slot order, then by line and track; an effect
// that sets the tempo already in force is no change.
TEST_F(SongTempoTest, LaterEffectsOnALineWinAndRepeatsAreNoChanges) {
    int a = add_pattern(2, 2, 2);
    int b = add_pattern(0, 4, 1);
    cell(a, 0, 0) = note_cell(0, 0, 0, kTempo, 100);  // line 2: track 1 overwrites track 0,
    cell(a, 1, 0) = note_cell(0, 0, 0, kTempo, 90);
    cell(b, 0, 2) = note_cell(0, 0, 0, kTempo, 80);   // and the later slot overwrites both
    cell(b, 0, 3) = note_cell(0, 0, 0, kTempo, 80);   // line 3: the same tempo again
    zelfon_tempo_change* changes = nullptr;
    int count = 0;
    ASSERT_EQ(zelfon_get_song_tempo_changes(&changes, &count, &song), 0);
    ASSERT_EQ(count, 2);
    EXPECT_EQ(std::tuple(changes[1].line, changes[1].bpm, changes[1].speed), std::tuple(2, 80, 6));
    mem_free(changes);
}

TEST_F(SongTempoTest, LengthInFramesCarriesTheFractionAcrossATempoChange) {
    EXPECT_EQ(zelfon_get_song_length_frames(44100, &song), 0);
    EXPECT_EQ(song.sorted_pats_count, 0);

    int slot = add_pattern(0, 8, 1);
    cell(slot, 0, 4) = note_cell(0, 0, 0, kTempo, 97);
    // 125 BPM, speed 6: T = (44100·15360/125)/24 = 225792, a line is 6T/256 = 5292 frames exactly.
    // 97 BPM: T = (677376000/97 = 6983257)/24 = 290969; 6T = 1745814 = 6819·256 + 150, so the
    // four lines carry 150, 300 (one frame, 44 left), 194, 344 (one frame, 88 left).
    ASSERT_EQ(psynth_tick_length(44100, 97), 290969);
    EXPECT_EQ(zelfon_get_song_length_frames(44100, &song), 4 * 5292 + 4 * 6819 + 2);
}

}  // namespace
