// The bundled demo song: built by code, about 48 seconds, every part audible, no clipping.
#include <algorithm>
#include <cstdlib>

#include "song/demo.h"
#include "song_test_util.h"

namespace {

class SongDemoTest : public SongFixture {
public:
    void make_demo() {
        zelfon_song_close(&song);
        ASSERT_EQ(zelfon_song_init(0, 44100, &song), 0);
        ASSERT_EQ(zelfon_make_demo_song(&song), 0);
    }
};

TEST_F(SongDemoTest, PlaysFortyEightSecondsOfEveryPartWithoutClipping) {
    make_demo();
    EXPECT_STREQ(song.name, "Zelfon demo");
    EXPECT_EQ(song.song_lines, 400);
    EXPECT_EQ(zelfon_get_song_length_frames(44100, &song), 400 * 5292);
    const char* parts[] = {"Drums", "Bass", "Chords", "Lead"};
    for (int m = 1; m <= 4; m++) EXPECT_STREQ(song.net->modules[m].name, parts[m - 1]);

    play();
    std::vector<int16_t> out = render(400 * 5292, 4096);
    int peak = 0;
    int silent_seconds = 0;
    for (size_t second = 0; second + 1 < out.size() / 88200; second++) {
        int second_peak = 0;
        for (size_t i = second * 88200; i < (second + 1) * 88200; i++) second_peak = std::max(second_peak, std::abs((int)out[i]));
        if (second_peak < 1000) silent_seconds++;
        peak = std::max(peak, second_peak);
    }
    EXPECT_EQ(silent_seconds, 0);
    EXPECT_LT(peak, 32767);
    EXPECT_GT(peak, 8000);
}

TEST_F(SongDemoTest, RendersTheSameEveryTime) {
    make_demo();
    play();
    std::vector<int16_t> first = render(10 * 44100, 1000);
    make_demo();
    play();
    EXPECT_TRUE(first == render(10 * 44100, 1000));
}

}  // namespace
