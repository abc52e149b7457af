// Helpers of the editing tests: a fixture that saves the song to bytes, reads and fills
// rectangles of cells and checks an edit's undo and redo against the bytes around it.
#pragma once

#include <cstring>
#include <vector>

#include "song/edit.h"
#include "song_test_util.h"

inline bool operator==(const zelfon_cell& a, const zelfon_cell& b) { return memcmp(&a, &b, sizeof(a)) == 0; }

class EditFixture : public SongFixture {
protected:
    bytes saved() { return save("3:/edit.zelfon"); }
    // The cells of a rectangle, line by line.
    std::vector<zelfon_cell> cells(int slot, int track, int line, int tracks, int lines);
    // tracks × lines cells whose fields tell where they came from (note 1 + t + 8·l ...).
    static std::vector<zelfon_cell> numbered(int tracks, int lines, int first_note = 1);
    // A pattern at x filled with numbered(tracks, lines) by an edit; returns its slot.
    int add_filled_pattern(int x, int lines, int tracks);
    // Undoes and redoes once, expecting the song's bytes `before` and then `after`.
    void expect_undo_redo(const bytes& before, const bytes& after);
};
