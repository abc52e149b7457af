// The net a new song starts with: a plucked Generator tone feeding OUT.
#include "test_modules.h"

#include <algorithm>
#include <cstdlib>

namespace {

class PsynthStarterNetTest : public PsynthFixture {};

int peak(const psynth_sample* buf, int frames) {
    int p = 0;
    for (int i = 0; i < frames; i++) p = std::max(p, std::abs((int)buf[i]));
    return p;
}

TEST_F(PsynthStarterNetTest, GeneratorPlucksADecayingNoteIntoOut) {
    psynth_close(&net);
    psynth_init(1, 44100, 125, 6, &net);
    ASSERT_TRUE(net.modules[1].flags & PSYNTH_FLAG_EXISTS);
    EXPECT_STREQ(net.modules[1].name, "Generator");
    EXPECT_EQ(net.modules[1].x, 128);
    EXPECT_EQ(net.modules[1].y, 512);
    EXPECT_EQ(*net.modules[1].ctls[4].value, 512);
    EXPECT_EQ(*net.modules[1].ctls[7].value, 0);
    ASSERT_GE(net.modules[0].input_links_capacity, 1);
    EXPECT_EQ(net.modules[0].input_links[0], 1);

    psynth_event note = {};
    note.command = PS_CMD_NOTE_ON;
    note.id = 1;
    note.note = 48;
    note.velocity = 256;
    note.pitch = (120 - 48) * 256;
    psynth_add_event(1, &note, &net);
    render_buffer(&net, 4096);
    const psynth_sample* left = net.modules[0].input_buffers[0];
    int first = peak(left, 4096);
    EXPECT_GT(first, 0);
    int last = first;
    bool silent = false;
    for (int b = 0; b < 12 && !silent; b++) {  // the note is never released: it must still end
        render_buffer(&net, 4096);
        int p = net.modules[0].input_start[0] >= 4096 ? 0 : peak(left, 4096);
        EXPECT_LE(p, last) << "buffer " << b;
        last = p;
        silent = p == 0;
    }
    EXPECT_TRUE(silent);
}

}  // namespace
