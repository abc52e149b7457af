// Editing actions: the exact cells and slots after each edit, after its undo and after
// its redo; clones sharing and coming back; refusals; the history's size and groups.
#include <cstring>

#include "edit_test_util.h"
#include "engine/memory.h"
#include "engine/profile.h"

namespace {

class SongEditTest : public EditFixture {};

zelfon_cell_rect rect(int slot, int track, int line, int tracks, int lines) { return {slot, track, line, tracks, lines}; }

// ---- Cells ----

TEST_F(SongEditTest, TypingIntoOneCellMergesIntoOneStepThatUndoesToTheEmptyCell) {
    int slot = add_pattern(0, 16, 4);
    bytes empty = saved();
    zelfon_edit_begin(&song);
    zelfon_cell c1 = note_cell(40, 2, 65);
    zelfon_cell c2 = note_cell(41, 2, 65);
    ASSERT_EQ(zelfon_edit_type_cell(slot, 1, 2, &c1, &song), ZELFON_EDIT_OK);
    ASSERT_EQ(zelfon_edit_type_cell(slot, 1, 2, &c2, &song), ZELFON_EDIT_OK);
    EXPECT_EQ(cell(slot, 1, 2), c2);
    bytes typed = saved();

    zelfon_edit_place place = {-9, -9, -9, -9};
    ASSERT_EQ(zelfon_undo(&place, &song), 1);
    EXPECT_EQ(place.slot, slot);
    EXPECT_EQ(place.track, 1);
    EXPECT_EQ(place.line, 2);
    EXPECT_EQ(saved(), empty);
    EXPECT_FALSE(zelfon_can_undo(&song));
    ASSERT_EQ(zelfon_redo(&place, &song), 1);
    EXPECT_EQ(cell(slot, 1, 2), c2);
    EXPECT_EQ(saved(), typed);
    EXPECT_FALSE(zelfon_can_redo(&song));

    // Another cell, or a new group, is a step of its own.
    ASSERT_EQ(zelfon_edit_type_cell(slot, 1, 3, &c1, &song), ZELFON_EDIT_OK);
    zelfon_edit_begin(&song);
    ASSERT_EQ(zelfon_edit_type_cell(slot, 1, 3, &c2, &song), ZELFON_EDIT_OK);
    ASSERT_EQ(zelfon_undo(nullptr, &song), 1);
    EXPECT_EQ(cell(slot, 1, 3), c1);
    ASSERT_EQ(zelfon_undo(nullptr, &song), 1);  // the first group: both cells of it
    EXPECT_EQ(saved(), empty);
    EXPECT_EQ(zelfon_undo(nullptr, &song), 0);
}

TEST_F(SongEditTest, SetCellsAndClearFieldsUndoAndRedoExactly) {
    int slot = add_pattern(0, 8, 4);
    bytes empty = saved();
    std::vector<zelfon_cell> block = numbered(2, 3);
    zelfon_edit_begin(&song);
    zelfon_cell_rect where = rect(slot, 1, 4, 2, 3);
    ASSERT_EQ(zelfon_edit_set_cells(&where, block.data(), &song), ZELFON_EDIT_OK);
    EXPECT_EQ(cells(slot, 1, 4, 2, 3), block);
    EXPECT_TRUE(zelfon_cell_is_empty(&cell(slot, 0, 4)));
    EXPECT_TRUE(zelfon_cell_is_empty(&cell(slot, 3, 4)));
    bytes set = saved();
    expect_undo_redo(empty, set);

    zelfon_edit_begin(&song);
    zelfon_cell_rect r = rect(slot, 1, 4, 2, 2);
    ASSERT_EQ(zelfon_edit_clear(&r, ZELFON_FIELD_VELOCITY | ZELFON_FIELD_EFFECT, &song), ZELFON_EDIT_OK);
    for (int l = 0; l < 3; l++) {
        for (int t = 0; t < 2; t++) {
            zelfon_cell want = block[l * 2 + t];
            if (l < 2) want.vel = want.effect = want.ctl = 0;
            EXPECT_EQ(cell(slot, 1 + t, 4 + l), want) << "track " << t << " line " << l;
        }
    }
    expect_undo_redo(set, saved());
    zelfon_edit_begin(&song);
    ASSERT_EQ(zelfon_edit_clear(&r, ZELFON_FIELD_ALL, &song), ZELFON_EDIT_OK);
    for (const zelfon_cell& c : cells(slot, 1, 4, 2, 2)) EXPECT_TRUE(zelfon_cell_is_empty(&c));
}

TEST_F(SongEditTest, PasteIsCutAtThePatternsEdgesAndPasteMixFillsOnlyEmptyFields) {
    int slot = add_pattern(0, 6, 4);
    std::vector<zelfon_cell> block = numbered(3, 4);
    bytes empty = saved();
    zelfon_edit_begin(&song);
    zelfon_cell_rect at = rect(slot, 2, 4, 0, 0);
    ASSERT_EQ(zelfon_edit_paste(&at, block.data(), 3, 4, 0, &song), ZELFON_EDIT_OK);
    // Two tracks and two lines fit.
    EXPECT_EQ(cells(slot, 2, 4, 2, 2), (std::vector<zelfon_cell>{block[0], block[1], block[3], block[4]}));
    EXPECT_TRUE(zelfon_cell_is_empty(&cell(slot, 1, 4)));
    expect_undo_redo(empty, saved());

    // Nothing fits: refused, nothing recorded.
    at = rect(slot, 4, 0, 0, 0);
    EXPECT_EQ(zelfon_edit_paste(&at, block.data(), 3, 4, 0, &song), ZELFON_EDIT_OUTSIDE);
    at = rect(slot, 0, 6, 0, 0);
    EXPECT_EQ(zelfon_edit_paste(&at, block.data(), 3, 4, 0, &song), ZELFON_EDIT_OUTSIDE);
    at = rect(slot, -1, 0, 0, 0);
    EXPECT_EQ(zelfon_edit_paste(&at, block.data(), 3, 4, 0, &song), ZELFON_EDIT_OUTSIDE);

    // Mix: a note alone in the destination keeps it; every empty field takes the source's.
    zelfon_cell partial = {7, 0, 0, 0x0F, 0, 0};
    zelfon_edit_begin(&song);
    ASSERT_EQ(zelfon_edit_type_cell(slot, 0, 0, &partial, &song), ZELFON_EDIT_OK);
    bytes before_mix = saved();
    zelfon_edit_begin(&song);
    at = rect(slot, 0, 0, 0, 0);
    ASSERT_EQ(zelfon_edit_paste(&at, block.data(), 3, 4, 1, &song), ZELFON_EDIT_OK);
    zelfon_cell want = block[0];
    want.note = 7;
    want.effect = 0x0F;
    want.ctl = 0;  // effect and controller travel together
    EXPECT_EQ(cell(slot, 0, 0), want);
    EXPECT_EQ(cell(slot, 1, 0), block[1]);
    EXPECT_EQ(cell(slot, 2, 3), block[3 * 3 + 2]);
    expect_undo_redo(before_mix, saved());
}

TEST_F(SongEditTest, TransposeMovesOnlyNotesAndKeepsThemWithinTheEditorsRange) {
    int slot = add_pattern(0, 4, 2);
    std::vector<zelfon_cell> block = {note_cell(1), note_cell(60), note_cell(118), note_cell(ZELFON_NOTE_OFF),
                                      note_cell(0, 0, 10), note_cell(120), note_cell(ZELFON_NOTE_PLAY), note_cell(3)};
    zelfon_cell_rect all = rect(slot, 0, 0, 2, 4);
    ASSERT_EQ(zelfon_edit_set_cells(&all, block.data(), &song), ZELFON_EDIT_OK);
    bytes before = saved();
    zelfon_edit_begin(&song);
    ASSERT_EQ(zelfon_edit_transpose(&all, 12, &song), ZELFON_EDIT_OK);
    std::vector<int> notes;
    for (const zelfon_cell& c : cells(slot, 0, 0, 2, 4)) notes.push_back(c.note);
    EXPECT_EQ(notes, (std::vector<int>{13, 72, 120, ZELFON_NOTE_OFF, 0, 120, ZELFON_NOTE_PLAY, 15}));
    EXPECT_EQ(cell(slot, 0, 2).vel, 10);
    expect_undo_redo(before, saved());

    zelfon_edit_begin(&song);
    ASSERT_EQ(zelfon_edit_transpose(&all, -100, &song), ZELFON_EDIT_OK);
    notes.clear();
    for (const zelfon_cell& c : cells(slot, 0, 0, 2, 4)) notes.push_back(c.note);
    EXPECT_EQ(notes, (std::vector<int>{1, 1, 20, ZELFON_NOTE_OFF, 0, 20, ZELFON_NOTE_PLAY, 1}));
}

TEST_F(SongEditTest, InterpolateDrawsVelocitiesAndValuesOnAStraightLineWhereBothEndsHoldOne) {
    int slot = add_pattern(0, 8, 3);
    zelfon_cell top0 = {0, 1, 0, 0, 5, 0x0000};       // velocity 1, controller 4 at 0
    zelfon_cell end0 = {0, 129, 0, 0, 5, 0x8000};     // velocity 129, value 0x8000
    zelfon_cell top1 = {30, 50, 0, 0x0A, 0, 0x0010};  // effect with a value, velocity
    zelfon_cell end1 = {31, 0, 0, 0, 0, 0x0000};      // neither: track 1 stays
    zelfon_cell top2 = {0, 0, 0, 0x01, 0, 100};
    zelfon_cell end2 = {0, 0, 0, 0x01, 0, 0};         // values falling
    std::vector<zelfon_cell> ends_top = {top0, top1, top2}, ends_bottom = {end0, end1, end2};
    zelfon_cell_rect top = rect(slot, 0, 1, 3, 1), bottom = rect(slot, 0, 5, 3, 1);
    ASSERT_EQ(zelfon_edit_set_cells(&top, ends_top.data(), &song), ZELFON_EDIT_OK);
    ASSERT_EQ(zelfon_edit_set_cells(&bottom, ends_bottom.data(), &song), ZELFON_EDIT_OK);
    bytes before = saved();
    zelfon_edit_begin(&song);
    zelfon_cell_rect r = rect(slot, 0, 1, 3, 5);
    ASSERT_EQ(zelfon_edit_interpolate(&r, &song), ZELFON_EDIT_OK);
    const int vel[5] = {1, 33, 65, 97, 129};
    const int value[5] = {0, 0x2000, 0x4000, 0x6000, 0x8000};
    const int falling[5] = {100, 75, 50, 25, 0};
    for (int l = 0; l < 5; l++) {
        EXPECT_EQ(cell(slot, 0, 1 + l).vel, vel[l]) << l;
        EXPECT_EQ(cell(slot, 0, 1 + l).value, value[l]) << l;
        EXPECT_EQ(cell(slot, 0, 1 + l).ctl, 5) << l;
        EXPECT_EQ(cell(slot, 2, 1 + l).value, falling[l]) << l;
        EXPECT_EQ(cell(slot, 2, 1 + l).effect, 0x01) << l;
    }
    for (int l = 1; l < 4; l++) EXPECT_TRUE(zelfon_cell_is_empty(&cell(slot, 1, 1 + l))) << l;
    expect_undo_redo(before, saved());
}

TEST_F(SongEditTest, InsertAndDeleteLineShiftOnlyTheChosenTracksBelowTheLine) {
    int slot = add_filled_pattern(0, 5, 3);
    std::vector<zelfon_cell> block = numbered(3, 5);
    bytes before = saved();
    zelfon_edit_begin(&song);
    ASSERT_EQ(zelfon_edit_insert_line(slot, 1, 2, 2, &song), ZELFON_EDIT_OK);
    for (int l = 0; l < 5; l++) {
        EXPECT_EQ(cell(slot, 0, l), block[l * 3]) << "track 0 stays, line " << l;
        for (int t = 1; t < 3; t++) {
            if (l < 2) EXPECT_EQ(cell(slot, t, l), block[l * 3 + t]);
            else if (l == 2) EXPECT_TRUE(zelfon_cell_is_empty(&cell(slot, t, l)));
            else EXPECT_EQ(cell(slot, t, l), block[(l - 1) * 3 + t]) << "track " << t << " line " << l;
        }
    }
    expect_undo_redo(before, saved());
    ASSERT_EQ(zelfon_undo(nullptr, &song), 1);

    zelfon_edit_begin(&song);
    ASSERT_EQ(zelfon_edit_delete_line(slot, 0, 1, 1, &song), ZELFON_EDIT_OK);
    EXPECT_EQ(cell(slot, 0, 0), block[0]);
    EXPECT_EQ(cell(slot, 0, 1), block[6]);
    EXPECT_EQ(cell(slot, 0, 3), block[12]);
    EXPECT_TRUE(zelfon_cell_is_empty(&cell(slot, 0, 4)));
    EXPECT_EQ(cell(slot, 1, 1), block[4]);
    expect_undo_redo(before, saved());

    EXPECT_EQ(zelfon_edit_insert_line(slot, 2, 2, 0, &song), ZELFON_EDIT_OUTSIDE);
    EXPECT_EQ(zelfon_edit_delete_line(slot, 0, 1, 5, &song), ZELFON_EDIT_OUTSIDE);
}

TEST_F(SongEditTest, EditsBeyondThePatternOrTheLimitsAreRefusedAndChangeNothing) {
    int slot = add_pattern(0, 8, 4);
    bytes before = saved();
    zelfon_cell c = note_cell(50);
    std::vector<zelfon_cell> block = numbered(2, 2);
    EXPECT_EQ(zelfon_edit_type_cell(slot, 4, 0, &c, &song), ZELFON_EDIT_OUTSIDE);
    EXPECT_EQ(zelfon_edit_type_cell(slot, 0, 8, &c, &song), ZELFON_EDIT_OUTSIDE);
    EXPECT_EQ(zelfon_edit_type_cell(slot, -1, 0, &c, &song), ZELFON_EDIT_OUTSIDE);
    EXPECT_EQ(zelfon_edit_type_cell(slot + 1, 0, 0, &c, &song), ZELFON_EDIT_NO_PATTERN);
    EXPECT_EQ(zelfon_edit_type_cell(-1, 0, 0, &c, &song), ZELFON_EDIT_NO_PATTERN);
    zelfon_cell_rect r = rect(slot, 3, 7, 2, 1);
    EXPECT_EQ(zelfon_edit_set_cells(&r, block.data(), &song), ZELFON_EDIT_OUTSIDE);
    r = rect(slot, 0, 0, 0, 1);
    EXPECT_EQ(zelfon_edit_clear(&r, ZELFON_FIELD_ALL, &song), ZELFON_EDIT_OUTSIDE);
    r = rect(slot, 0, 7, 1, 2);
    EXPECT_EQ(zelfon_edit_transpose(&r, 1, &song), ZELFON_EDIT_OUTSIDE);
    EXPECT_EQ(zelfon_edit_interpolate(&r, &song), ZELFON_EDIT_OUTSIDE);
    EXPECT_EQ(zelfon_edit_resize_pattern(slot, 8, ZELFON_MAX_TRACKS + 1, &song), ZELFON_EDIT_OUTSIDE);
    EXPECT_EQ(zelfon_edit_resize_pattern(slot, ZELFON_MAX_PATTERN_LINES + 1, 4, &song), ZELFON_EDIT_OUTSIDE);
    EXPECT_EQ(zelfon_edit_resize_pattern(slot, 0, 4, &song), ZELFON_EDIT_OUTSIDE);
    EXPECT_EQ(zelfon_edit_new_pattern(16, ZELFON_MAX_TRACKS + 1, 0, 0, 1, &song), -1);
    EXPECT_EQ(zelfon_edit_new_pattern(ZELFON_MAX_PATTERN_LINES + 1, 4, 0, 0, 1, &song), -1);
    EXPECT_EQ(zelfon_edit_clone_pattern(slot + 1, 0, 0, &song), -1);
    EXPECT_EQ(zelfon_edit_remove_pattern(slot + 1, &song), ZELFON_EDIT_NO_PATTERN);
    int missing = slot + 5;
    EXPECT_EQ(zelfon_edit_move_patterns(&missing, 1, 4, 0, &song), ZELFON_EDIT_NO_PATTERN);
    EXPECT_EQ(saved(), before);
    EXPECT_FALSE(zelfon_can_undo(&song));
}

// ---- Patterns ----

TEST_F(SongEditTest, NewPatternsAndClonesComeBackIntoTheirOwnSlotsAndClonesShareCells) {
    bytes empty = saved();
    zelfon_edit_begin(&song);
    int parent = zelfon_edit_new_pattern(16, 4, 32, 1, 5, &song);
    ASSERT_EQ(parent, 0);
    EXPECT_EQ(song.pats[0]->lines, 16);
    EXPECT_EQ(song.pats[0]->channels, 4);
    EXPECT_EQ(song.pats_info[0].x, 32);
    EXPECT_EQ(song.song_lines, 48);
    uint16_t icon[ZELFON_ICON_SIZE];
    zelfon_make_random_icon(icon, 5);
    EXPECT_EQ(memcmp(song.pats[0]->icon, icon, sizeof(icon)), 0);
    bytes one = saved();
    expect_undo_redo(empty, one);

    int other = zelfon_edit_new_pattern(8, 2, 0, 2, 6, &song);
    ASSERT_EQ(other, 1);
    zelfon_edit_begin(&song);
    ASSERT_EQ(zelfon_edit_remove_pattern(other, &song), ZELFON_EDIT_OK);
    zelfon_edit_begin(&song);
    int clone = zelfon_edit_clone_pattern(parent, 64, 3, &song);
    ASSERT_EQ(clone, 1);  // the first free slot
    EXPECT_EQ(song.pats[clone], song.pats[parent]);
    EXPECT_EQ(song.pats_info[clone].flags, (uint32_t)ZELFON_PATTERN_FLAG_CLONE);
    EXPECT_EQ(song.pats_info[clone].parent, parent);
    EXPECT_EQ(song.song_lines, 80);
    int clone_of_clone = zelfon_edit_clone_pattern(clone, 96, 3, &song);
    ASSERT_EQ(clone_of_clone, 2);
    EXPECT_EQ(song.pats_info[clone_of_clone].parent, parent);
    bytes cloned = saved();

    // An edit through a clone shows in the parent and every other clone.
    zelfon_edit_begin(&song);
    zelfon_cell c = note_cell(61);
    ASSERT_EQ(zelfon_edit_type_cell(clone, 3, 15, &c, &song), ZELFON_EDIT_OK);
    EXPECT_EQ(cell(parent, 3, 15), c);
    EXPECT_EQ(cell(clone_of_clone, 3, 15), c);
    expect_undo_redo(cloned, saved());
    ASSERT_EQ(zelfon_undo(nullptr, &song), 1);

    // Undoing the clones empties their slots; redoing puts them back into slots 1 and 2.
    ASSERT_EQ(zelfon_undo(nullptr, &song), 1);
    EXPECT_EQ(song.pats[1], nullptr);
    EXPECT_EQ(song.pats[2], nullptr);
    EXPECT_EQ(song.song_lines, 48);
    ASSERT_EQ(zelfon_redo(nullptr, &song), 1);
    EXPECT_EQ(song.pats[2], song.pats[0]);
    EXPECT_EQ(saved(), cloned);

    // The removed pattern whose slot the clone took comes back into that slot.
    ASSERT_EQ(zelfon_undo(nullptr, &song), 1);
    ASSERT_EQ(zelfon_undo(nullptr, &song), 1);
    ASSERT_NE(song.pats[other], nullptr);
    EXPECT_EQ(song.pats[other]->lines, 8);
    EXPECT_EQ(song.pats_info[other].flags, 0u);
    ASSERT_EQ(zelfon_redo(nullptr, &song), 1);
    ASSERT_EQ(zelfon_redo(nullptr, &song), 1);
    EXPECT_EQ(saved(), cloned);
}

TEST_F(SongEditTest, RemovingAParentTakesItsClonesAndOneUndoBringsThemAllBack) {
    int parent = add_filled_pattern(0, 8, 4);
    int keep = add_pattern(100, 4, 2);
    std::vector<zelfon_cell> block = numbered(4, 8);
    int c1 = zelfon_edit_clone_pattern(parent, 8, 1, &song);
    int c2 = zelfon_edit_clone_pattern(parent, 16, 2, &song);
    ASSERT_EQ(c1, 2);
    ASSERT_EQ(c2, 3);
    bytes before = saved();
    zelfon_edit_begin(&song);
    ASSERT_EQ(zelfon_edit_remove_pattern(parent, &song), ZELFON_EDIT_OK);
    EXPECT_EQ(song.pats[parent], nullptr);
    EXPECT_EQ(song.pats[c1], nullptr);
    EXPECT_EQ(song.pats[c2], nullptr);
    ASSERT_NE(song.pats[keep], nullptr);
    EXPECT_EQ(song.sorted_pats_count, 1);
    bytes removed = saved();

    zelfon_edit_place place;
    ASSERT_EQ(zelfon_undo(&place, &song), 1);
    EXPECT_EQ(place.slot, parent);
    EXPECT_EQ(saved(), before);
    EXPECT_EQ(song.pats[c1], song.pats[parent]);
    EXPECT_EQ(song.pats[c2], song.pats[parent]);
    EXPECT_EQ(song.pats_info[c2].x, 16);
    EXPECT_EQ(cells(c2, 0, 0, 4, 8), block);
    EXPECT_EQ(song.sorted_pats_count, 4);
    ASSERT_EQ(zelfon_redo(nullptr, &song), 1);
    EXPECT_EQ(saved(), removed);
    ASSERT_EQ(zelfon_undo(nullptr, &song), 1);

    // A clone alone leaves the parent and the other clone.
    zelfon_edit_begin(&song);
    ASSERT_EQ(zelfon_edit_remove_pattern(c1, &song), ZELFON_EDIT_OK);
    EXPECT_EQ(song.pats[c1], nullptr);
    EXPECT_EQ(song.pats[c2], song.pats[parent]);
    expect_undo_redo(before, saved());
}

TEST_F(SongEditTest, MakeUniqueGivesTheCloneACopyAndUndoSharesTheRecordAgain) {
    int parent = add_filled_pattern(0, 4, 2);
    std::vector<zelfon_cell> block = numbered(2, 4);
    int clone = zelfon_edit_clone_pattern(parent, 4, 0, &song);
    bytes before = saved();
    zelfon_edit_begin(&song);
    ASSERT_EQ(zelfon_edit_make_unique(clone, &song), ZELFON_EDIT_OK);
    ASSERT_NE(song.pats[clone], song.pats[parent]);
    EXPECT_EQ(song.pats_info[clone].flags & ZELFON_PATTERN_FLAG_CLONE, 0u);
    EXPECT_EQ(cells(clone, 0, 0, 2, 4), block);
    EXPECT_EQ(memcmp(song.pats[clone]->icon, song.pats[parent]->icon, sizeof(song.pats[0]->icon)), 0);
    EXPECT_NE(song.pats[clone]->icon_num, song.pats[parent]->icon_num);
    zelfon_cell c = note_cell(99);
    ASSERT_EQ(zelfon_edit_type_cell(clone, 0, 0, &c, &song), ZELFON_EDIT_OK);
    EXPECT_EQ(cell(parent, 0, 0), block[0]);  // the parent keeps its cells
    bytes unique = saved();

    ASSERT_EQ(zelfon_undo(nullptr, &song), 1);
    EXPECT_EQ(song.pats[clone], song.pats[parent]);
    EXPECT_EQ(song.pats_info[clone].parent, parent);
    EXPECT_EQ(saved(), before);
    ASSERT_EQ(zelfon_redo(nullptr, &song), 1);
    EXPECT_EQ(saved(), unique);

    // A pattern of its own stays as it is.
    zelfon_edit_begin(&song);
    ASSERT_EQ(zelfon_edit_make_unique(parent, &song), ZELFON_EDIT_OK);
    EXPECT_EQ(saved(), unique);
}

TEST_F(SongEditTest, MovingPatternsChangesTheirPlacesAndThePlayOrder) {
    int a = add_pattern(0, 8, 1);
    int b = add_pattern(16, 8, 1);
    int c = add_pattern(32, 8, 1);
    bytes before = saved();
    zelfon_edit_begin(&song);
    int both[2] = {a, b};
    ASSERT_EQ(zelfon_edit_move_patterns(both, 2, 40, -3, &song), ZELFON_EDIT_OK);
    EXPECT_EQ(song.pats_info[a].x, 40);
    EXPECT_EQ(song.pats_info[b].x, 56);
    EXPECT_EQ(song.pats_info[a].y, -3);
    EXPECT_EQ(song.pats_info[c].x, 32);
    ASSERT_EQ(song.sorted_pats_count, 3);
    EXPECT_EQ(std::vector<int>(song.sorted_pats, song.sorted_pats + 3), (std::vector<int>{c, a, b}));
    EXPECT_EQ(song.song_lines, 64);
    // A drag is many moves in one group.
    ASSERT_EQ(zelfon_edit_move_patterns(&c, 1, -40, 0, &song), ZELFON_EDIT_OK);
    EXPECT_EQ(song.pats_info[c].x, -8);
    bytes moved = saved();
    zelfon_edit_place place;
    ASSERT_EQ(zelfon_undo(&place, &song), 1);
    EXPECT_EQ(place.slot, c);
    EXPECT_EQ(saved(), before);
    EXPECT_EQ(std::vector<int>(song.sorted_pats, song.sorted_pats + 3), (std::vector<int>{a, b, c}));
    EXPECT_EQ(song.song_lines, 40);
    ASSERT_EQ(zelfon_redo(nullptr, &song), 1);
    EXPECT_EQ(saved(), moved);
}

TEST_F(SongEditTest, ResizingChangesEveryCloneAndUndoBringsBackTheCutCells) {
    int parent = add_filled_pattern(0, 4, 2);
    int clone = zelfon_edit_clone_pattern(parent, 10, 0, &song);
    std::vector<zelfon_cell> block = numbered(2, 4);
    bytes before = saved();
    zelfon_edit_begin(&song);
    ASSERT_EQ(zelfon_edit_resize_pattern(clone, 300, 5, &song), ZELFON_EDIT_OK);
    EXPECT_EQ(song.pats[parent]->lines, 300);
    EXPECT_EQ(song.pats[parent]->channels, 5);
    EXPECT_EQ(song.song_lines, 310);
    EXPECT_EQ(cells(parent, 0, 0, 2, 4), block);
    for (int t = 0; t < 5; t++) EXPECT_TRUE(zelfon_cell_is_empty(&cell(parent, t, 299)));
    EXPECT_TRUE(zelfon_cell_is_empty(&cell(parent, 4, 0)));
    zelfon_cell c = note_cell(77);
    ASSERT_EQ(zelfon_edit_type_cell(parent, 4, 299, &c, &song), ZELFON_EDIT_OK);
    expect_undo_redo(before, saved());
    ASSERT_EQ(zelfon_undo(nullptr, &song), 1);

    zelfon_edit_begin(&song);
    ASSERT_EQ(zelfon_edit_resize_pattern(parent, 2, 1, &song), ZELFON_EDIT_OK);
    EXPECT_EQ(song.pats[clone]->lines, 2);
    EXPECT_EQ(zelfon_edit_type_cell(parent, 1, 0, &c, &song), ZELFON_EDIT_OUTSIDE);
    bytes cut = saved();
    ASSERT_EQ(zelfon_undo(nullptr, &song), 1);
    EXPECT_EQ(cells(parent, 0, 0, 2, 4), block);
    EXPECT_EQ(saved(), before);
    ASSERT_EQ(zelfon_redo(nullptr, &song), 1);
    EXPECT_EQ(saved(), cut);
}

TEST_F(SongEditTest, LookChangesColoursAndIconAndRedrawsTheAtlas) {
    int slot = add_pattern(0, 4, 1);
    int clone = zelfon_edit_clone_pattern(slot, 8, 0, &song);
    bytes before = saved();
    const uint8_t fg[3] = {1, 2, 3}, bg[3] = {250, 251, 252};
    uint16_t icon[ZELFON_ICON_SIZE] = {};
    icon[0] = 0x8001;
    zelfon_edit_begin(&song);
    ASSERT_EQ(zelfon_edit_pattern_look(clone, fg, bg, icon, &song), ZELFON_EDIT_OK);
    EXPECT_EQ(memcmp(song.pats[slot]->fg, fg, 3), 0);
    EXPECT_EQ(memcmp(song.pats[slot]->bg, bg, 3), 0);
    EXPECT_EQ(memcmp(song.pats[slot]->icon, icon, sizeof(icon)), 0);
    int n = song.pats[slot]->icon_num;
    const uint8_t* row0 = &song.icons_atlas[(size_t)(n / 16) * 16 * ZELFON_ICON_ATLAS_WIDTH + (n % 16) * 16];
    EXPECT_EQ(row0[0], 0xFF);
    EXPECT_EQ(row0[1], 0);
    EXPECT_EQ(row0[15], 0xFF);
    EXPECT_EQ(row0[ZELFON_ICON_ATLAS_WIDTH], 0);  // row 1 is empty
    expect_undo_redo(before, saved());
}

TEST_F(SongEditTest, EditsWhilePlayingEndARemovedPatternsNotesAndFollowTheNewPlaces) {
    constexpr int kLineFrames = 5292;  // 125 BPM, speed 6, 44100 Hz
    int mod = add_logger();
    int a = add_pattern(0, 8, 1);
    int b = add_pattern(0, 8, 1);
    zelfon_cell low = note_cell(49, mod + 1), high = note_cell(61, mod + 1);
    ASSERT_EQ(zelfon_edit_type_cell(a, 0, 0, &low, &song), ZELFON_EDIT_OK);
    ASSERT_EQ(zelfon_edit_type_cell(b, 0, 0, &high, &song), ZELFON_EDIT_OK);
    play(0);
    render(2 * kLineFrames);
    ASSERT_EQ(events_of(mod, PS_CMD_NOTE_ON).size(), 2u);

    zelfon_edit_begin(&song);
    ASSERT_EQ(zelfon_edit_remove_pattern(a, &song), ZELFON_EDIT_OK);
    int moved = b;
    ASSERT_EQ(zelfon_edit_move_patterns(&moved, 1, 4, 0, &song), ZELFON_EDIT_OK);
    render(kLineFrames);
    std::vector<logged_event> offs = events_of(mod, PS_CMD_NOTE_OFF);
    ASSERT_EQ(offs.size(), 2u);  // a at once, b when line 2 left it
    EXPECT_EQ(offs[0].event.id, a << 16);
    EXPECT_EQ(offs[0].frame, 2 * kLineFrames);
    EXPECT_EQ(offs[1].event.id, b << 16);
    // Undo and redo between two pieces leave the render nothing stale; b plays at its new place.
    ASSERT_EQ(zelfon_undo(nullptr, &song), 1);
    ASSERT_EQ(zelfon_redo(nullptr, &song), 1);
    render(2 * kLineFrames);
    std::vector<logged_event> ons = events_of(mod, PS_CMD_NOTE_ON);
    ASSERT_EQ(ons.size(), 3u);
    EXPECT_EQ(ons[2].event.id, b << 16);
    EXPECT_EQ(ons[2].event.note, 60);
    EXPECT_EQ(ons[2].frame, 4 * kLineFrames);
}

// ---- Song settings ----

TEST_F(SongEditTest, SongPropertiesAreOneStepAndTheirBoundsAreKept) {
    bytes before = saved();
    zelfon_edit_begin(&song);
    ASSERT_EQ(zelfon_edit_song_properties("Night drive", 140, 3, 300, &song), ZELFON_EDIT_OK);
    EXPECT_STREQ(song.name, "Night drive");
    EXPECT_EQ(song.bpm, 140);
    EXPECT_EQ(song.speed, 3);
    EXPECT_EQ(song.net->global_volume, 300);
    bytes named = saved();
    zelfon_edit_place place = {0, 0, 0, 0};
    ASSERT_EQ(zelfon_undo(&place, &song), 1);
    EXPECT_EQ(place.slot, -1);
    EXPECT_EQ(song.name, nullptr);
    EXPECT_EQ(saved(), before);
    ASSERT_EQ(zelfon_redo(nullptr, &song), 1);
    EXPECT_EQ(saved(), named);

    zelfon_edit_begin(&song);
    ASSERT_EQ(zelfon_edit_song_properties("", ZELFON_BPM_MAX, 31, 0, &song), ZELFON_EDIT_OK);
    EXPECT_EQ(song.name, nullptr);
    expect_undo_redo(named, saved());
    ASSERT_EQ(zelfon_undo(nullptr, &song), 1);
    EXPECT_STREQ(song.name, "Night drive");

    EXPECT_EQ(zelfon_edit_song_properties("x", ZELFON_BPM_MIN - 1, 6, 256, &song), ZELFON_EDIT_OUTSIDE);
    EXPECT_EQ(zelfon_edit_song_properties("x", ZELFON_BPM_MAX + 1, 6, 256, &song), ZELFON_EDIT_OUTSIDE);
    EXPECT_EQ(zelfon_edit_song_properties("x", 125, 0, 256, &song), ZELFON_EDIT_OUTSIDE);
    EXPECT_EQ(zelfon_edit_song_properties("x", 125, 32, 256, &song), ZELFON_EDIT_OUTSIDE);
    EXPECT_EQ(zelfon_edit_song_properties("x", 125, 6, -1, &song), ZELFON_EDIT_OUTSIDE);
    EXPECT_EQ(zelfon_edit_song_properties("x", 125, 6, 513, &song), ZELFON_EDIT_OUTSIDE);
    EXPECT_EQ(saved(), named);
}

// ---- The history ----

TEST_F(SongEditTest, TheHistoryIsSizedFromTheProfileAndMadeAgainByEveryLoad) {
    EXPECT_EQ(song.history.data_size_limit, (uint32_t)ZELFON_UNDO_SIZE_DEFAULT / 2);
    ASSERT_EQ(profile_set_str_value("undosize", "65536", nullptr), 0);
    restart();
    profile_close(nullptr);
    EXPECT_EQ(song.history.data_size_limit, 32768u);
    EXPECT_EQ(song.history.actions_num_limit, 2048u);

    int slot = add_pattern(0, 4, 1);
    zelfon_cell c = note_cell(10);
    ASSERT_EQ(zelfon_edit_type_cell(slot, 0, 0, &c, &song), ZELFON_EDIT_OK);
    bytes file = saved();
    EXPECT_TRUE(zelfon_can_undo(&song));
    EXPECT_EQ(load("3:/edit.zelfon"), 0);
    EXPECT_FALSE(zelfon_can_undo(&song));
    EXPECT_EQ(song.history.data_size_limit, (uint32_t)ZELFON_UNDO_SIZE_DEFAULT / 2);
    EXPECT_EQ(saved(), file);
    // A file that cannot be opened changes nothing, the history neither.
    ASSERT_EQ(zelfon_edit_type_cell(slot, 0, 1, &c, &song), ZELFON_EDIT_OK);
    EXPECT_EQ(load("3:/no such song.zelfon"), ZELFON_LOAD_CANT_OPEN);
    EXPECT_TRUE(zelfon_can_undo(&song));
}

TEST_F(SongEditTest, ABudgetTooSmallForAHugePasteDropsTheHistoryButNeverTheEdit) {
    zelfon_edit_init_history(1000, &song);
    int slot = add_pattern(0, 256, ZELFON_MAX_TRACKS);
    zelfon_cell c = note_cell(10);
    zelfon_edit_begin(&song);
    ASSERT_EQ(zelfon_edit_type_cell(slot, 0, 0, &c, &song), ZELFON_EDIT_OK);
    EXPECT_TRUE(zelfon_can_undo(&song));
    std::vector<zelfon_cell> block = numbered(ZELFON_MAX_TRACKS, 256);
    zelfon_edit_begin(&song);
    zelfon_cell_rect at = rect(slot, 0, 0, 0, 0);
    ASSERT_EQ(zelfon_edit_paste(&at, block.data(), ZELFON_MAX_TRACKS, 256, 0, &song), ZELFON_EDIT_OK);
    EXPECT_EQ(cells(slot, 0, 0, ZELFON_MAX_TRACKS, 256), block);
    EXPECT_FALSE(zelfon_can_undo(&song));
    EXPECT_EQ(zelfon_undo(nullptr, &song), 0);
    EXPECT_EQ(song.history.data_size, 0u);
    EXPECT_EQ(cells(slot, 0, 0, ZELFON_MAX_TRACKS, 256), block);
}

// ---- Clipboard text ----

TEST_F(SongEditTest, CellsTravelAsTextAndBackExactly) {
    std::vector<zelfon_cell> block = numbered(3, 2);
    block[5] = {0xFF, 0x81, 0xFFFF, 0xAB, 0xCD, 0xFFFF};
    char* text = zelfon_cells_to_text(block.data(), 3, 2);
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text,
                 "Zelfon cells 3 2\n"
                 "01 01 0002 01 01 0000|02 01 0003 02 01 0100|03 01 0004 03 01 0200\n"
                 "09 02 0002 01 02 0001|0A 02 0003 02 02 0101|FF 81 FFFF AB CD FFFF\n");
    zelfon_cell* back = nullptr;
    int tracks = 0, lines = 0;
    ASSERT_EQ(zelfon_cells_from_text(text, &back, &tracks, &lines), ZELFON_EDIT_OK);
    EXPECT_EQ(tracks, 3);
    EXPECT_EQ(lines, 2);
    EXPECT_EQ(std::vector<zelfon_cell>(back, back + 6), block);
    mem_free(back);
    mem_free(text);

    // Line ends of another system and lower-case digits read the same.
    ASSERT_EQ(zelfon_cells_from_text("Zelfon cells 1 1\r\nff 00 0000 00 00 abcd\r\n", &back, &tracks, &lines), ZELFON_EDIT_OK);
    EXPECT_EQ(back[0], (zelfon_cell{0xFF, 0, 0, 0, 0, 0xABCD}));
    mem_free(back);
}

TEST_F(SongEditTest, TextThatIsNotCellsIsRefusedWithNothingAllocated) {
    const char* bad[] = {
        "",
        "hello world",
        "Zelfon cells 0 1\n\n",
        "Zelfon cells 33 1\n",
        "Zelfon cells 1 65537\n",
        "Zelfon cells 1 1\n",                                 // no cells
        "Zelfon cells 1 1\n01 01 0002 01 01 000\n",           // a digit short
        "Zelfon cells 1 1\n01 01 0002 01 01 00G0\n",          // not hex
        "Zelfon cells 2 1\n01 01 0002 01 01 0000\n",          // a cell short
        "Zelfon cells 1 2\n01 01 0002 01 01 0000|\n",         // a separator too many
        "Zelfon cells 1 1\n01 01 0002 01 01 0000",            // the line not ended
        "zelfon cells 1 1\n01 01 0002 01 01 0000\n",
    };
    mem_stats start = mem_get_stats();
    for (const char* text : bad) {
        zelfon_cell* cells = nullptr;
        int tracks = -1, lines = -1;
        EXPECT_EQ(zelfon_cells_from_text(text, &cells, &tracks, &lines), ZELFON_EDIT_NOT_A_PATTERN) << text;
        EXPECT_EQ(cells, nullptr) << text;
        EXPECT_EQ(tracks, -1) << text;
    }
    EXPECT_EQ(mem_get_stats().dynamic_in_use, start.dynamic_in_use);
    EXPECT_EQ(zelfon_cells_to_text(nullptr, 0, 1), nullptr);
}

}  // namespace
