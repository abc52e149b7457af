// The editing tests' fixture.
#include "edit_test_util.h"

std::vector<zelfon_cell> EditFixture::cells(int slot, int track, int line, int tracks, int lines) {
    std::vector<zelfon_cell> out;
    for (int l = line; l < line + lines; l++) {
        for (int t = track; t < track + tracks; t++) out.push_back(cell(slot, t, l));
    }
    return out;
}

std::vector<zelfon_cell> EditFixture::numbered(int tracks, int lines, int first_note) {
    std::vector<zelfon_cell> out;
    for (int l = 0; l < lines; l++) {
        for (int t = 0; t < tracks; t++) {
            out.push_back(zelfon_cell{(uint8_t)(first_note + t + 8 * l), (uint8_t)(1 + l), (uint16_t)(2 + t), (uint8_t)(t + 1),
                                      (uint8_t)(l + 1), (uint16_t)(0x100 * t + l)});
        }
    }
    return out;
}

int EditFixture::add_filled_pattern(int x, int lines, int tracks) {
    int slot = add_pattern(x, lines, tracks);
    std::vector<zelfon_cell> block = numbered(tracks, lines);
    zelfon_cell_rect all = {slot, 0, 0, tracks, lines};
    EXPECT_EQ(zelfon_edit_set_cells(&all, block.data(), &song), ZELFON_EDIT_OK);
    return slot;
}

void EditFixture::expect_undo_redo(const bytes& before, const bytes& after) {
    ASSERT_TRUE(zelfon_can_undo(&song));
    ASSERT_EQ(zelfon_undo(nullptr, &song), 1);
    EXPECT_EQ(saved(), before) << "undo did not give back the song before the edit";
    ASSERT_EQ(zelfon_redo(nullptr, &song), 1);
    EXPECT_EQ(saved(), after) << "redo did not give back the song after the edit";
}
