// A long random walk of edits with undo and redo at random points, checked after every
// step against the song's saved bytes: undo gives back exactly the bytes before the edit,
// redo exactly the bytes after it, and a refused edit changes nothing.
#include <string>

#include "edit_test_util.h"

namespace {

constexpr int kSteps = 2000;
constexpr int kMaxLines = 48;
constexpr int kMaxTracks = 8;
constexpr int kMaxPatterns = 12;
constexpr uint32_t kUndoSize = 1 << 16;  // small enough that the oldest groups leave on the way

class SongEditRandomTest : public RandomEditFixture {
protected:
    // An occupied slot, or −1 (now and then an empty or unknown one, to be refused).
    int any_slot() {
        std::vector<int> used;
        for (int i = 0; song.pats && i < song.pats_capacity; i++) {
            if (song.pats[i]) used.push_back(i);
        }
        if (used.empty() || pick(0, 30) == 0) return pick(-1, 20);
        return used[pick(0, (int)used.size() - 1)];
    }

    zelfon_cell random_cell() {
        return zelfon_cell{(uint8_t)pick(0, 130), (uint8_t)pick(0, 129), (uint16_t)pick(0, 3), (uint8_t)pick(0, 3),
                           (uint8_t)pick(0, 2), (uint16_t)pick(0, 0xFFFF)};
    }

    // A rectangle mostly inside the slot's pattern, sometimes reaching beyond it.
    zelfon_cell_rect random_rect(int slot) {
        int lines = kMaxLines, tracks = kMaxTracks;
        if (slot >= 0 && slot < song.pats_capacity && song.pats[slot]) {
            lines = song.pats[slot]->lines;
            tracks = song.pats[slot]->channels;
        }
        int track = pick(0, tracks), line = pick(0, lines);
        return {slot, track, line, pick(1, tracks + 1 - track), pick(1, lines + 1 - line)};
    }

    // One random edit in a group of its own; returns its name for failure messages.
    std::string random_edit() {
        zelfon_edit_begin(&song);
        int slot = any_slot();
        zelfon_cell_rect r = random_rect(slot);
        std::vector<zelfon_cell> cells((size_t)r.tracks * r.lines);
        for (zelfon_cell& c : cells) c = random_cell();
        int count = 0;
        for (int i = 0; song.pats && i < song.pats_capacity; i++) count += song.pats[i] != nullptr;
        switch (pick(0, 15)) {
        case 0: {
            zelfon_cell c = random_cell();
            zelfon_edit_type_cell(slot, r.track, r.line, &c, &song);
            return "type";
        }
        case 1: zelfon_edit_set_cells(&r, cells.data(), &song); return "set";
        case 2: zelfon_edit_clear(&r, (uint32_t)pick(1, ZELFON_FIELD_ALL), &song); return "clear";
        case 3: zelfon_edit_paste(&r, cells.data(), r.tracks, r.lines, pick(0, 1), &song); return "paste";
        case 4: zelfon_edit_transpose(&r, pick(-24, 24), &song); return "transpose";
        case 5: zelfon_edit_interpolate(&r, &song); return "interpolate";
        case 6: zelfon_edit_insert_line(slot, r.track, r.tracks, r.line, &song); return "insert line";
        case 7: zelfon_edit_delete_line(slot, r.track, r.tracks, r.line, &song); return "delete line";
        case 8:
            if (count < kMaxPatterns) zelfon_edit_new_pattern(pick(1, kMaxLines), pick(1, kMaxTracks), pick(-8, 200), pick(0, 9), (uint32_t)pick(0, 99), &song);
            return "new pattern";
        case 9: zelfon_edit_remove_pattern(slot, &song); return "remove";
        case 10:
            if (count < kMaxPatterns) zelfon_edit_clone_pattern(slot, pick(-8, 200), pick(0, 9), &song);
            return "clone";
        case 11: zelfon_edit_make_unique(slot, &song); return "make unique";
        case 12: {
            int slots[3] = {slot, any_slot(), any_slot()};
            zelfon_edit_move_patterns(slots, pick(1, 3), pick(-20, 20), pick(-2, 2), &song);
            return "move";
        }
        case 13: zelfon_edit_resize_pattern(slot, pick(0, kMaxLines + 8), pick(0, kMaxTracks + 1), &song); return "resize";
        case 14: {
            uint8_t fg[3] = {(uint8_t)pick(0, 255), 2, 3}, bg[3] = {4, (uint8_t)pick(0, 255), 6};
            uint16_t icon[ZELFON_ICON_SIZE];
            for (uint16_t& row : icon) row = (uint16_t)pick(0, 0xFFFF);
            zelfon_edit_pattern_look(slot, fg, bg, icon, &song);
            return "look";
        }
        default: {
            const char* names[3] = {nullptr, "", "Walk"};
            zelfon_edit_song_properties(names[pick(0, 2)], pick(20, 300), pick(0, 33), pick(-2, 520), &song);
            return "song properties";
        }
        }
    }
};

TEST_F(SongEditRandomTest, EveryEditUndoesAndRedoesToTheExactBytesAroundIt) {
    edit_walk_counts n = walk(kSteps, kUndoSize, [this] { return random_edit(); });
    EXPECT_GT(n.undos, 250);
    EXPECT_GT(n.redos, 50);
    EXPECT_GT(n.dropped, 0);
    EXPECT_GT(n.edits, 600);
}

}  // namespace
