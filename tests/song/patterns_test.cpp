// Pattern table: slot growth, creation limits, clones, track resizing, holes closed and
// re-opened, the play order, cell emptiness and the slot dump.
#include <cstring>
#include <string>
#include <vector>

#include "engine/memory.h"
#include "song_test_util.h"

namespace {

class SongPatternTest : public SongFixture {
protected:
    int make(int num, int x = 0, int lines = 16, int channels = 4) {
        return new_pattern_with_num(num, lines, channels, x, 0, 7, &song);
    }
};

TEST_F(SongPatternTest, NewPatternsFillTheTableWhichGrowsBySixteen) {
    EXPECT_EQ(zelfon_get_free_pattern_num(&song), 0);
    EXPECT_EQ(song.pats_capacity, 16);
    for (int i = 0; i < 16; i++) ASSERT_EQ(make(zelfon_get_free_pattern_num(&song)), i);
    EXPECT_EQ(song.pats_capacity, 16);
    EXPECT_EQ(zelfon_get_free_pattern_num(&song), 16);
    EXPECT_EQ(song.pats_capacity, 32);
    EXPECT_EQ(make(40), 40);
    EXPECT_EQ(song.pats_capacity, 48);
    EXPECT_EQ(song.pats[17], nullptr);

    const zelfon_pattern* p = song.pats[40];
    EXPECT_EQ(p->data_xsize, 4);
    EXPECT_EQ(p->data_ysize, 16);
    EXPECT_EQ(p->ysize, 32);
    EXPECT_EQ(p->icon_num, 16);  // drawn on creation: the 17th icon
    const zelfon_pattern_info& info = song.pats_info[40];
    EXPECT_EQ(info.flags, 0u);
    EXPECT_EQ(info.track_set, -1);
    EXPECT_EQ(info.sounding_tracks, 0u);

    // Hostile sizes are clamped rather than trusted.
    ASSERT_EQ(new_pattern_with_num(41, -5, 1000, 0, 0, 1, &song), 41);
    EXPECT_EQ(song.pats[41]->lines, 1);
    EXPECT_EQ(song.pats[41]->data_xsize, ZELFON_MAX_TRACKS);
    ASSERT_EQ(new_pattern_with_num(42, 4, 0, 0, 0, 1, &song), 42);
    EXPECT_EQ(song.pats[42]->channels, 1);
    EXPECT_EQ(new_pattern_with_num(-1, 4, 4, 0, 0, 1, &song), -1);
}

TEST_F(SongPatternTest, RemovingAParentTakesItsClonesAndRemovingACloneDoesNot) {
    int parent = make(0);
    int clone1 = zelfon_clone_pattern(parent, 64, 1, &song);
    // A clone of a clone gets the slot that holds the record as a parent, whatever number
    // the clone it was made from carries.
    song.pats_info[clone1].parent = 7;
    int clone2 = zelfon_clone_pattern(clone1, 128, 2, &song);
    ASSERT_EQ(clone1, 1);
    ASSERT_EQ(clone2, 2);
    EXPECT_EQ(song.pats[clone2], song.pats[parent]);
    EXPECT_EQ(song.pats_info[clone2].flags, (uint32_t)ZELFON_PATTERN_FLAG_CLONE);
    EXPECT_EQ(song.pats_info[clone2].parent, parent);
    EXPECT_EQ(song.pats_info[clone2].x, 128);
    EXPECT_EQ(song.pats_info[clone2].track_set, -1);

    zelfon_remove_pattern(clone1, &song);
    EXPECT_EQ(song.pats[clone1], nullptr);
    EXPECT_NE(song.pats[parent], nullptr);
    EXPECT_EQ(song.pats[clone2], song.pats[parent]);
    EXPECT_EQ(song.icons_usage[0], 1);

    zelfon_remove_pattern(parent, &song);
    EXPECT_EQ(song.pats[parent], nullptr);
    EXPECT_EQ(song.pats[clone2], nullptr);
    EXPECT_EQ(song.icons_usage[0], 0);
    zelfon_remove_pattern(99, &song);  // ignored
}

TEST_F(SongPatternTest, MoreTracksRestrideEveryCellAndStorageNeverShrinks) {
    int slot = make(0, 0, 3, 2);
    auto mark = [](int track, int line) { return (uint8_t)(10 * line + track + 1); };
    for (int line = 0; line < 3; line++)
        for (int track = 0; track < 2; track++) zelfon_get_cell(slot, track, line, &song)->note = mark(track, line);

    ASSERT_EQ(zelfon_set_pattern_channels(slot, 5, &song), 0);
    zelfon_pattern* p = song.pats[slot];
    EXPECT_EQ(p->data_xsize, 5);
    EXPECT_EQ(mem_get_size(p->data), 15 * sizeof(zelfon_cell));
    for (int line = 0; line < 3; line++) {
        for (int track = 0; track < 5; track++) {
            const zelfon_cell* c = zelfon_get_cell(slot, track, line, &song);
            if (track < 2) EXPECT_EQ(c->note, mark(track, line)) << track << "," << line;
            else EXPECT_TRUE(zelfon_cell_is_empty(c)) << track << "," << line;
        }
    }

    ASSERT_EQ(zelfon_set_pattern_channels(slot, 3, &song), 0);
    EXPECT_EQ(p->channels, 3);
    EXPECT_EQ(p->data_xsize, 5);
    EXPECT_EQ(zelfon_get_cell(slot, 1, 2, &song)->note, mark(1, 2));
    EXPECT_NE(zelfon_get_cell(slot, 4, 2, &song), nullptr);
    EXPECT_EQ(zelfon_get_cell(slot, 5, 0, &song), nullptr);
    EXPECT_EQ(zelfon_get_cell(slot, 0, 3, &song), nullptr);
    EXPECT_EQ(zelfon_get_cell(slot, -1, 0, &song), nullptr);
}

TEST_F(SongPatternTest, HolesClosedThenRestoredGiveBackTheSameSlots) {
    // Slots: 0 A, 1 -, 2 B, 3 -, 4 -, 5 clone of B, 6 C, then empty to the end.
    for (int slot : {0, 2, 6, 1, 3, 4}) make(slot);
    ASSERT_EQ(zelfon_clone_pattern(2, 0, 0, &song), 5);
    for (int slot : {1, 3, 4}) zelfon_remove_pattern(slot, &song);
    song.editor_pats = (int*)mem_new(MEM_DYNAMIC, 4 * sizeof(int), "test");
    int editor[4] = {2, 5, 6, 0};
    memcpy(song.editor_pats, editor, sizeof(editor));
    song.editor_pats_count = 4;
    song.current_pattern = 2;  // just past the first hole
    zelfon_pattern* before[16];
    memcpy(before, song.pats, sizeof(before));

    int* holes = nullptr;
    int holes_size = -1;
    ASSERT_EQ(zelfon_optimize_patterns_and_save_holes(&holes, &holes_size, &song), 0);
    ASSERT_EQ(holes_size, 4 * (int)sizeof(int));
    EXPECT_EQ(mem_get_size(holes), 16 * 2 * sizeof(int));  // room for 16 pairs
    EXPECT_EQ((std::vector<int>(holes, holes + 4)), (std::vector<int>{1, 1, 2, 2}));
    EXPECT_EQ((std::vector<zelfon_pattern*>(song.pats, song.pats + 5)), (std::vector<zelfon_pattern*>{before[0], before[2], before[5], before[6], nullptr}));
    EXPECT_EQ(song.pats_info[2].parent, 1);
    EXPECT_EQ((std::vector<int>(song.editor_pats, song.editor_pats + 4)), (std::vector<int>{1, 2, 3, 0}));
    EXPECT_EQ(song.current_pattern, 1);

    zelfon_restore_holes(holes, holes_size, &song);
    mem_free(holes);
    for (int i = 0; i < 16; i++) EXPECT_EQ(song.pats[i], before[i]) << "slot " << i;
    EXPECT_EQ(song.pats_info[5].flags, (uint32_t)ZELFON_PATTERN_FLAG_CLONE);
    EXPECT_EQ(song.pats_info[5].parent, 2);
    EXPECT_EQ((std::vector<int>(song.editor_pats, song.editor_pats + 4)), (std::vector<int>{2, 5, 6, 0}));
    EXPECT_EQ(song.current_pattern, 2);

    // Without an output array it only closes the holes.
    ASSERT_EQ(zelfon_optimize_patterns_and_save_holes(nullptr, nullptr, &song), 0);
    EXPECT_EQ(song.pats[3], before[6]);
}

TEST_F(SongPatternTest, PlayOrderIsByStartThenShorterFirst) {
    zelfon_sort_patterns(&song);
    EXPECT_EQ(song.sorted_pats_count, 0);
    EXPECT_EQ(song.song_lines, 0);

    make(0, -40, 16);  // ends before line 0
    zelfon_sort_patterns(&song);
    EXPECT_EQ(song.sorted_pats_count, 1);
    EXPECT_EQ(song.song_lines, 0);

    make(1, 8, 16);
    make(2, 0, 32);
    make(3, 0, 8);
    zelfon_sort_patterns(&song);
    ASSERT_EQ(song.sorted_pats_count, 4);
    EXPECT_EQ((std::vector<int>(song.sorted_pats, song.sorted_pats + 4)), (std::vector<int>{0, 3, 2, 1}));
    EXPECT_EQ(song.song_lines, 32);
}

TEST_F(SongPatternTest, CellIsEmptyOnlyWithoutContentAndModuleLowByteCounts) {
    const zelfon_cell empty[] = {{0, 0, 0, 0, 0, 0}, {0, 0, 256, 0, 0, 0}, {0, 0, 512, 0, 0, 0}};
    for (const zelfon_cell& c : empty) EXPECT_TRUE(zelfon_cell_is_empty(&c));
    const zelfon_cell full[] = {{1, 0, 0, 0, 0, 0}, {0, 1, 0, 0, 0, 0}, {0, 0, 257, 0, 0, 0},
                                {0, 0, 0, 1, 0, 0}, {0, 0, 0, 0, 1, 0}, {0, 0, 0, 0, 0, 1}};
    for (const zelfon_cell& c : full) EXPECT_FALSE(zelfon_cell_is_empty(&c));
}

TEST_F(SongPatternTest, DumpLogsOneLinePerSlot) {
    new_pattern_with_num(0, 4, 1, 3, -2, 1, &song);
    zelfon_clone_pattern(0, 12345, 7, &song);
    std::string before = log_text();
    zelfon_dump_patterns(&song);
    std::string expected = "000 x:0003 y:-002 \n001 x:12345 y:0007 CLONE (parent 0) \n";
    for (int i = 2; i < 16; i++) expected += (i < 10 ? "00" : "0") + std::to_string(i) + " x:0000 y:0000 EMPTY \n";
    EXPECT_EQ(log_text(), before + expected);
}

}  // namespace
