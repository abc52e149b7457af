// Pattern icons: numbers handed out first-unused with the atlas doubling when full,
// pixels drawn at the icon's place in the atlas, and the random symmetric icon.
#include <set>

#include "engine/memory.h"
#include "song_test_util.h"

namespace {

class SongIconTest : public SongFixture {};

TEST_F(SongIconTest, NumbersAreFirstUnusedAndTheAtlasDoublesWhenFull) {
    ASSERT_EQ(song.icons_count, 16);
    for (int n = 0; n < 16; n++) ASSERT_EQ(zelfon_get_free_icon_number(&song), n);
    zelfon_release_icon_number(5, &song);
    zelfon_release_icon_number(99, &song);  // ignored
    EXPECT_EQ(zelfon_get_free_icon_number(&song), 5);
    EXPECT_EQ(mem_get_size(song.icons_atlas), 256u * 16);

    EXPECT_EQ(zelfon_get_free_icon_number(&song), 16);
    EXPECT_EQ(song.icons_count, 32);
    EXPECT_EQ(mem_get_size(song.icons_usage), 32u);
    EXPECT_EQ(mem_get_size(song.icons_atlas), 256u * 32);  // 256 × 32 pixels
    EXPECT_EQ(song.icons_usage[16], 1);
    EXPECT_EQ(song.icons_usage[17], 0);
    for (int n = 17; n < 32; n++) ASSERT_EQ(zelfon_get_free_icon_number(&song), n);
    EXPECT_EQ(zelfon_get_free_icon_number(&song), 32);
    EXPECT_EQ(song.icons_count, 64);
}

TEST_F(SongIconTest, IconIsDrawnAtItsPlaceInTheAtlas) {
    int slot = -1;
    for (int i = 0; i < 18; i++) slot = add_pattern(0, 4);
    zelfon_pattern* p = song.pats[slot];
    ASSERT_EQ(p->icon_num, 17);  // second atlas row, second column: pixels from (16, 16)
    for (uint16_t& row : p->icon) row = 0;
    p->icon[0] = 0x8001;
    p->icon[3] = 0x00F0;
    zelfon_draw_pattern_icon(slot, &song);
    auto pixel = [&](int x, int y) { return song.icons_atlas[(16 + y) * 256 + 16 + x]; };
    for (int y = 0; y < 16; y++) {
        for (int x = 0; x < 16; x++) {
            bool on = (y == 0 && (x == 0 || x == 15)) || (y == 3 && x >= 8 && x <= 11);
            ASSERT_EQ(pixel(x, y), on ? 0xFF : 0) << x << "," << y;
        }
    }
    zelfon_remove_pattern(slot, &song);
    EXPECT_EQ(song.icons_usage[17], 0);
}

TEST_F(SongIconTest, RandomIconIsSymmetricAndFollowsTheSeed) {
    // Seed 1: the generator's first number is 16838; 16838 × 233 = 0x3BDD36, low half 0xDD36;
    // its right half 0x36 mirrored onto the left gives 0x6C36.
    uint16_t icon[16];
    zelfon_make_random_icon(icon, 1);
    EXPECT_EQ(icon[0], 0x6C36);

    std::set<std::vector<uint16_t>> distinct;
    for (uint32_t seed = 0; seed < 64; seed++) {
        uint16_t a[16], b[16];
        zelfon_make_random_icon(a, seed);
        zelfon_make_random_icon(b, seed);
        EXPECT_EQ(std::vector<uint16_t>(a, a + 16), std::vector<uint16_t>(b, b + 16));
        for (int row = 0; row < 16; row++)
            for (int k = 0; k < 8; k++) ASSERT_EQ((a[row] >> (15 - k)) & 1, (a[row] >> k) & 1) << seed << " " << row;
        distinct.insert(std::vector<uint16_t>(a, a + 16));
    }
    EXPECT_EQ(distinct.size(), 64u);

    int slot = add_pattern(0, 4);  // the fixture's patterns use seed 1
    EXPECT_EQ(std::vector<uint16_t>(song.pats[slot]->icon, song.pats[slot]->icon + 16), std::vector<uint16_t>(icon, icon + 16));
}

}  // namespace
