// The net a new song starts with: a plucked Generator tone through an Echo into OUT.
#include "test_modules.h"

#include <algorithm>
#include <cstdlib>
#include <vector>

namespace {

class PsynthStarterNetTest : public PsynthFixture {};

int peak(const psynth_sample* buf, int frames) {
    int p = 0;
    for (int i = 0; i < frames; i++) p = std::max(p, std::abs((int)buf[i]));
    return p;
}

TEST_F(PsynthStarterNetTest, GeneratorPlucksADecayingNoteIntoOutThroughTheEcho) {
    psynth_close(&net);
    psynth_init(1, 44100, 125, 6, &net);
    ASSERT_TRUE(net.modules[1].flags & PSYNTH_FLAG_EXISTS);
    EXPECT_STREQ(net.modules[1].name, "Generator");
    EXPECT_EQ(net.modules[1].x, 128);
    EXPECT_EQ(net.modules[1].y, 512);
    EXPECT_EQ(*net.modules[1].ctls[4].value, 512);
    EXPECT_EQ(*net.modules[1].ctls[7].value, 0);
    ASSERT_TRUE(net.modules[2].flags & PSYNTH_FLAG_EXISTS);
    EXPECT_STREQ(net.modules[2].name, "Echo");
    EXPECT_EQ(net.modules[2].x, 512);
    EXPECT_EQ(net.modules[2].y, 512);
    ASSERT_GE(net.modules[0].input_links_capacity, 1);
    EXPECT_EQ(net.modules[0].input_links[0], 2);
    ASSERT_GE(net.modules[2].input_links_capacity, 1);
    EXPECT_EQ(net.modules[2].input_links[0], 1);
    ASSERT_GE(net.modules[1].output_links_capacity, 1);
    EXPECT_EQ(net.modules[1].output_links[0], 2);

    psynth_event note = {};
    note.command = PS_CMD_NOTE_ON;
    note.id = 1;
    note.note = 48;
    note.velocity = 256;
    note.pitch = (120 - 48) * 256;
    psynth_add_event(1, &note, &net);
    // For the Echo's first second its ring is empty and Dry is 256: it passes the note on
    // unchanged. Keep the note's first buffer to check the echo arriving later.
    const psynth_sample* gen = net.modules[1].output_buffers[0];
    const psynth_sample* echo = net.modules[2].output_buffers[0];
    render_buffer(&net, 4096);
    std::vector<int> first(gen, gen + 4096);
    EXPECT_GT(peak(gen, 4096), 0);
    EXPECT_GT(peak(net.modules[0].input_buffers[0], 4096), 0);
    EXPECT_EQ(check_frames(echo, 0, 4096, [&](int i) { return first[i]; }), "");
    bool silent = false;
    int last = peak(gen, 4096);
    for (int b = 1; b < 11; b++) {  // the note is never released: it must still end
        render_buffer(&net, 4096);
        int gen_peak = net.modules[1].output_start[0] >= 4096 ? 0 : peak(gen, 4096);
        EXPECT_LE(gen_peak, last) << "buffer " << b;
        last = gen_peak;
        silent |= gen_peak == 0;
        if (b < 10) {
            ASSERT_EQ(check_frames(echo, 0, 4096, [&](int i) {
                return net.modules[1].output_start[0] <= i ? (int)gen[i] : 0;
            }), "") << "buffer " << b;
        }
    }
    EXPECT_TRUE(silent);
    // Buffer 10 holds frames 40960..45055: one second (44100 frames) after the note's start
    // its echo arrives at Wet 128, halved toward zero.
    int at = 44100 - 40960;
    for (int k = 0; k < 4096 - at; k++) {
        ASSERT_EQ(echo[at + k], first[k] * 128 / 256) << "frame " << 44100 + k;
    }
}

}  // namespace
