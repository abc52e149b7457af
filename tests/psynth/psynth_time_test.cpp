// CPU load per module and the scope position of "now" from the time ring.
#include "test_modules.h"

#include "engine/thread.h"

namespace {

class PsynthTimeTest : public PsynthFixture {};

TEST_F(PsynthTimeTest, CpuLoadIsTimeSpentOverTimeRendered) {
    int a = add_constant_source(&net, 100);
    int b = add_constant_source(&net, 100);
    const int tps = (int)tarvik_time_ticks_per_second();
    // 10 ms spent on 441 frames (10 ms at 44100 Hz): 100 %; 2.5 ms on the same: 25 %.
    net.modules[a].cpu_time = tps / 100;
    net.modules[a].cpu_frames = 441;
    net.modules[b].cpu_time = tps / 400;
    net.modules[b].cpu_frames = 441;
    psynth_compute_cpu_usage(&net);
    EXPECT_EQ(net.modules[a].cpu_load, 100);
    EXPECT_EQ(net.modules[b].cpu_load, 25);
    EXPECT_EQ(net.modules[0].cpu_load, 0);  // nothing rendered
    EXPECT_EQ(net.cpu_total, 125);
    EXPECT_EQ(net.modules[a].cpu_frames, 0);  // a measurement starts the next one
}

TEST_F(PsynthTimeTest, ScopePositionFollowsTheNewestBufferAlreadyHeard) {
    int m = add_constant_source(&net, 100);
    const tarvik_ticks now = tarvik_time_ticks();
    const tarvik_ticks tps = tarvik_time_ticks_per_second();
    net.scope_position = 1000;
    psynth_begin_device_buffer(now - tps / 2, &net);  // heard half a second ago
    net.scope_position = 5000;
    psynth_begin_device_buffer(now + tps, &net);      // not heard yet: ignored
    int pos = psynth_get_scope_position(m, 0, nullptr, nullptr, &net);
    // 1000 + 22050 frames, give or take the frames elapsed while the test ran.
    EXPECT_GE(pos, 1000 + 22050);
    EXPECT_LT(pos, 1000 + 22050 + 4410);
}

}  // namespace
