// Helpers of the editing tests: a fixture that saves the song to bytes, reads and fills
// rectangles of cells and checks an edit's undo and redo against the bytes around it, and
// the random walk of edits, undos and redos that the random tests share.
#pragma once

#include <cstring>
#include <functional>
#include <random>
#include <string>
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
    // A Sampler at x, y with one 16-bit sample of `frames` frames (a ramp) in its data chunks,
    // after SETUP_FINISHED; returns its module number.
    int add_sampler_with_sample(int x, int y, int frames = 100);
    // Undoes and redoes once, expecting the song's bytes `before` and then `after`.
    void expect_undo_redo(const bytes& before, const bytes& after);
};

// What a random walk did.
struct edit_walk_counts {
    int undos = 0;
    int redos = 0;
    int edits = 0;    // edits that were recorded
    int dropped = 0;  // groups the history dropped to stay within its budget
};

class RandomEditFixture : public EditFixture {
protected:
    std::mt19937 rng{16};

    int pick(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); }
    // True when the newest action before the cursor belongs to the group begun last: the
    // edit was recorded (whatever older groups left to make room).
    bool newest_group_is_current();
    // `steps` random steps on a history of `undo_size` bytes: undo, redo or random_edit()
    // (which begins its own group and returns its name), checking after every step that the
    // song's bytes are exactly those of the history's place.
    edit_walk_counts walk(int steps, uint32_t undo_size, const std::function<std::string()>& random_edit);
};
