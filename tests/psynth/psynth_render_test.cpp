// The render pass: start positions, mixing into inputs and into the Output module,
// global volume, mute and solo, cycles, scope rings and the capture buffer.
#include <gtest/gtest.h>

#include "psynth/psynth_net.h"
#include "test_modules.h"

namespace {

// Global volume 256 is exactly unity: the mix reaches OUT untouched.
class PsynthRenderTest : public PsynthFixture {
protected:
    void SetUp() override {
        PsynthFixture::SetUp();
        net.global_volume = 256;
    }
};

int add_ramp(psynth_net* net, int base, int outputs = 1, uint32_t flags = 0) {
    test_module_config cfg;
    cfg.base = base;
    cfg.outputs = outputs;
    cfg.flags = flags;
    return add_test_module(net, cfg);
}

auto ramp(int base, int channel = 0) {
    return [=](int i) { return (int)ramp_value(base, channel, i); };
}
auto constant(int value) {
    return [=](int) { return value; };
}

TEST_F(PsynthRenderTest, SilentSourceGetsStartNAndAddsNothing) {
    int silent = add_ramp(&net, 5000);
    int sound = add_ramp(&net, 10);
    int uninit = add_ramp(&net, 7000);
    for (int m : {silent, sound, uninit}) psynth_make_link(0, m, &net);
    render_buffer(&net, 256);
    EXPECT_EQ(check_frames(net.modules[0].input_buffers[0], 0, 256,
                           [](int i) { return 12010 + 3 * i; }), "");

    // The silent source is linked first, so it is the copied one; its stale samples must not count.
    test_data(&net, silent)->config.mode = TEST_RENDER_SILENT;
    net.modules[uninit].flags &= ~PSYNTH_FLAG_INITIALIZED;
    render_buffer(&net, 256);
    EXPECT_EQ(net.modules[silent].output_start[0], 256);
    EXPECT_EQ(render_pieces(&net, silent), "0+256 0+256");
    EXPECT_EQ(render_pieces(&net, uninit), "0+256");  // not rendered without INIT
    EXPECT_EQ(net.modules[uninit].output_start[0], 256);
    EXPECT_EQ(check_frames(net.modules[uninit].output_buffers[0], 0, 256, constant(0)), "");
    for (int c = 0; c < 2; c++) {
        EXPECT_EQ(net.modules[0].input_start[c], 0);
        EXPECT_EQ(check_frames(net.modules[0].input_buffers[c], 0, 256, ramp(10)), "") << "channel " << c;
    }
    EXPECT_EQ(test_data(&net, sound)->bad_requests, 0);
}

TEST_F(PsynthRenderTest, LeadingSilenceAndSilentPiecesAfterSound) {
    int late = add_ramp(&net, 0);
    int early = add_ramp(&net, 2000);
    psynth_make_link(0, late, &net);
    render_buffer(&net, 256);  // both write everything: stale data for the second pass

    test_data(&net, late)->config.silent_below = 100;
    test_data(&net, early)->config.silent_from = 100;
    queue_event(&net, late, PS_CMD_NOTE_ON, 100, 1);
    queue_event(&net, early, PS_CMD_NOTE_ON, 100, 1);
    render_buffer(&net, 256);

    const psynth_module& l = net.modules[late];
    EXPECT_EQ(l.output_start[0], 100);
    EXPECT_EQ(check_frames(l.output_buffers[0], 0, 100, constant(0)), "");
    EXPECT_EQ(check_frames(l.output_buffers[0], 100, 256, ramp(0)), "");
    const psynth_module& e = net.modules[early];
    EXPECT_EQ(e.output_start[0], 0);
    EXPECT_EQ(check_frames(e.output_buffers[0], 0, 100, ramp(2000)), "");
    EXPECT_EQ(check_frames(e.output_buffers[0], 100, 256, constant(0)), "");

    // The Output module takes the source's start and keeps silence before it.
    EXPECT_EQ(net.modules[0].input_start[0], 100);
    EXPECT_EQ(check_frames(net.modules[0].input_buffers[0], 0, 100, constant(0)), "");
    EXPECT_EQ(check_frames(net.modules[0].input_buffers[0], 100, 256, ramp(0)), "");
}

TEST_F(PsynthRenderTest, MonoSourceFeedsBothChannelsOfStereoEffect) {
    int source = add_ramp(&net, 20000);
    int effect = add_pass_effect(&net, 2);
    psynth_make_link(effect, source, &net);
    psynth_make_link(0, effect, &net);
    render_buffer(&net, 300);
    for (int c = 0; c < 2; c++) {
        SCOPED_TRACE(c);
        EXPECT_EQ(net.modules[effect].input_start[c], 0);
        EXPECT_EQ(check_frames(net.modules[effect].input_buffers[c], 0, 300, ramp(20000)), "");
        EXPECT_EQ(check_frames(net.modules[effect].output_buffers[c], 0, 300, ramp(20000)), "");
        EXPECT_EQ(check_frames(net.modules[0].input_buffers[c], 0, 300, ramp(20000)), "");
    }
}

TEST_F(PsynthRenderTest, SourcesSumWithWrapAround) {
    int delayed = add_constant_source(&net, 30000);
    int full = add_constant_source(&net, 30000);
    int effect = add_pass_effect(&net, 1);
    for (int dest : {0, effect}) {
        psynth_make_link(dest, delayed, &net);
        psynth_make_link(dest, full, &net);
    }
    render_buffer(&net, 200);
    EXPECT_EQ(check_frames(net.modules[0].input_buffers[0], 0, 200, constant(-5536)), "");

    // The first source now starts at 64: the stale sum before it must be cleared, not added to.
    test_data(&net, delayed)->config.silent_below = 64;
    queue_event(&net, delayed, PS_CMD_NOTE_ON, 64, 3);
    render_buffer(&net, 200);
    EXPECT_EQ(net.modules[delayed].output_start[0], 64);
    for (const psynth_sample* mix : {net.modules[0].input_buffers[0], net.modules[0].input_buffers[1],
                                     net.modules[effect].input_buffers[0]}) {
        EXPECT_EQ(check_frames(mix, 0, 64, constant(30000)), "");
        EXPECT_EQ(check_frames(mix, 64, 200, constant(-5536)), "");  // 60000 wraps
    }
    EXPECT_EQ(net.modules[0].input_start[0], 0);
    EXPECT_EQ(net.modules[effect].input_start[0], 0);
}

TEST_F(PsynthRenderTest, GlobalVolumeRoundsTowardZero) {
    net.global_volume = 52;  // the default
    int source = add_ramp(&net, -200);  // -200 .. 199
    psynth_make_link(0, source, &net);
    render_buffer(&net, 400);
    const psynth_sample* out = net.modules[0].input_buffers[0];
    EXPECT_EQ(out[199], 0);    // -1 × 52 / 256
    EXPECT_EQ(out[195], -1);   // -5 × 52 / 256 = -1.02
    EXPECT_EQ(out[100], -20);  // -100 × 52 / 256 = -20.3
    EXPECT_EQ(out[300], 20);
    EXPECT_EQ(check_frames(out, 0, 400, [](int i) { return (i - 200) * 52 / 256; }), "");
}

TEST_F(PsynthRenderTest, MuteStillRendersButSilencesOutputs) {
    int muted = add_ramp(&net, 100);
    psynth_make_link(0, muted, &net);
    net.modules[muted].flags |= PSYNTH_FLAG_MUTE;
    queue_event(&net, muted, PS_CMD_NOTE_ON, 50, 4);
    render_buffer(&net, 128);
    EXPECT_EQ(received_sequence(&net, muted, 1), "R(0,50) NOTE_ON@50#4 R(50,78)");
    EXPECT_EQ(check_frames(net.modules[muted].output_buffers[0], 0, 128, constant(0)), "");
    EXPECT_TRUE(net.modules[muted].render_state & PSYNTH_RENDER_WAS_MUTED);
    EXPECT_EQ(check_frames(net.modules[0].input_buffers[0], 0, 128, constant(0)), "");
}

TEST_F(PsynthRenderTest, SoloSilencesOtherSourcesButNotEffects) {
    int soloed = add_ramp(&net, 0, 1, PSYNTH_FLAG_GENERATOR);
    int other = add_ramp(&net, 3000, 1, PSYNTH_FLAG_GENERATOR);
    int effect = add_ramp(&net, 6000, 1, PSYNTH_FLAG_EFFECT);
    int plain = add_ramp(&net, 9000);
    net.modules[soloed].flags |= PSYNTH_FLAG_SOLO;
    render_buffer(&net, 64);
    EXPECT_EQ(net.solo_active, 1);
    EXPECT_EQ(check_frames(net.modules[soloed].output_buffers[0], 0, 64, ramp(0)), "");
    EXPECT_EQ(check_frames(net.modules[other].output_buffers[0], 0, 64, constant(0)), "");
    EXPECT_EQ(render_pieces(&net, other), "0+64");
    EXPECT_EQ(check_frames(net.modules[effect].output_buffers[0], 0, 64, ramp(6000)), "");
    EXPECT_EQ(check_frames(net.modules[plain].output_buffers[0], 0, 64, ramp(9000)), "");
    EXPECT_TRUE(net.modules[soloed].render_state & PSYNTH_RENDER_WAS_SOLOED);
    EXPECT_FALSE(net.modules[other].render_state & PSYNTH_RENDER_WAS_SOLOED);

    net.modules[soloed].flags &= ~PSYNTH_FLAG_SOLO;
    render_buffer(&net, 64);
    EXPECT_EQ(net.solo_active, 0);
    EXPECT_EQ(check_frames(net.modules[other].output_buffers[0], 0, 64, ramp(3000)), "");
}

TEST_F(PsynthRenderTest, PassedMuteTakesTheSourcesLastPassState) {
    // passing (flag 0x1000, muted) -> fed -> OUT; keeping (muted, no 0x1000) -> kept -> OUT.
    int passing = add_ramp(&net, 0, 1, PSYNTH_FLAG_PASS_MUTE_SOLO);
    test_module_config cfg;
    cfg.inputs = 1;
    cfg.base = 500;
    int fed = add_test_module(&net, cfg);
    int keeping = add_ramp(&net, 0);
    int kept = add_test_module(&net, cfg);
    psynth_make_link(fed, passing, &net);
    psynth_make_link(kept, keeping, &net);
    psynth_make_link(0, fed, &net);
    psynth_make_link(0, kept, &net);
    net.modules[passing].flags |= PSYNTH_FLAG_MUTE;
    net.modules[keeping].flags |= PSYNTH_FLAG_MUTE;

    // The Output module reaches `fed` before `passing` has been rendered in this pass,
    // so the first pass still sees the unmuted state of the pass before.
    render_buffer(&net, 64);
    EXPECT_EQ(check_frames(net.modules[passing].output_buffers[0], 0, 64, constant(0)), "");
    EXPECT_EQ(check_frames(net.modules[fed].output_buffers[0], 0, 64, ramp(500)), "");
    render_buffer(&net, 64);
    EXPECT_EQ(check_frames(net.modules[fed].output_buffers[0], 0, 64, constant(0)), "");
    EXPECT_TRUE(net.modules[fed].render_state & PSYNTH_RENDER_WAS_MUTED);
    EXPECT_EQ(check_frames(net.modules[kept].output_buffers[0], 0, 64, ramp(500)), "");
    EXPECT_FALSE(net.modules[kept].render_state & PSYNTH_RENDER_WAS_MUTED);

    net.modules[passing].flags = (net.modules[passing].flags & ~PSYNTH_FLAG_MUTE) | PSYNTH_FLAG_SOLO;
    render_buffer(&net, 64);
    render_buffer(&net, 64);
    EXPECT_TRUE(net.modules[fed].render_state & PSYNTH_RENDER_WAS_SOLOED);
    EXPECT_FALSE(net.modules[fed].render_state & PSYNTH_RENDER_WAS_MUTED);
    EXPECT_EQ(check_frames(net.modules[fed].output_buffers[0], 0, 64, ramp(500)), "");
}

TEST_F(PsynthRenderTest, NoInputMixingComputesStartsOnly) {
    test_module_config cfg;
    cfg.silent_below = 100;
    int source = add_test_module(&net, cfg);
    cfg = test_module_config{};
    cfg.inputs = 1;
    cfg.flags = PSYNTH_FLAG_NO_INPUT_MIXING;
    int reader = add_test_module(&net, cfg);
    psynth_make_link(reader, source, &net);
    for (int i = 0; i < PSYNTH_BUFFER_SIZE; i++) net.modules[reader].input_buffers[0][i] = 7;
    queue_event(&net, source, PS_CMD_NOTE_ON, 100, 1);
    render_buffer(&net, 256);
    EXPECT_EQ(net.modules[reader].input_start[0], 100);
    EXPECT_EQ(check_frames(net.modules[reader].input_buffers[0], 0, PSYNTH_BUFFER_SIZE, constant(7)), "");
}

TEST_F(PsynthRenderTest, UnfedEffectInputsAreCleared) {
    int source = add_ramp(&net, 40);
    int effect = add_pass_effect(&net, 1);
    psynth_make_link(effect, source, &net);
    psynth_make_link(0, effect, &net);
    render_buffer(&net, 128);
    EXPECT_EQ(check_frames(net.modules[0].input_buffers[0], 0, 128, ramp(40)), "");

    psynth_make_link(effect, source, &net);  // unlink: the effect's input holds last pass's sound
    render_buffer(&net, 128);
    const psynth_module& e = net.modules[effect];
    EXPECT_EQ(e.input_start[0], 128);
    EXPECT_EQ(check_frames(e.input_buffers[0], 0, 128, constant(0)), "");
    EXPECT_EQ(e.output_start[0], 128);
    EXPECT_EQ(net.modules[0].input_start[0], 128);
    EXPECT_EQ(check_frames(net.modules[0].input_buffers[0], 0, 128, constant(0)), "");
}

TEST_F(PsynthRenderTest, CycleRendersEveryModuleOnce) {
    int source = add_ramp(&net, 1);
    int a = add_pass_effect(&net, 1);
    int b = add_pass_effect(&net, 1);
    int lone = add_ramp(&net, 0);  // linked to nothing: rendered all the same
    psynth_make_link(a, source, &net);
    psynth_make_link(b, a, &net);
    // make_link would toggle a -> b off again, so the closing link is added side by side.
    psynth_add_input_link(a, b, &net);
    psynth_add_output_link(b, a, &net);
    psynth_make_link(0, b, &net);
    ASSERT_EQ(net.modules[a].input_links_capacity, 2);
    ASSERT_EQ(net.modules[a].input_links[1], b);

    // Twice: in the second pass b's output holds sound, which the closing link must not bring back.
    render_buffer(&net, 256);
    render_buffer(&net, 256);
    for (int m : {source, a, b, lone}) {
        EXPECT_EQ(render_pieces(&net, m), "0+256 0+256") << "module " << m;
        EXPECT_EQ(net.modules[m].render_state & (PSYNTH_RENDER_BUSY | PSYNTH_RENDER_DONE), PSYNTH_RENDER_DONE);
    }
    EXPECT_EQ(net.modules[0].render_state & (PSYNTH_RENDER_BUSY | PSYNTH_RENDER_DONE), 0);
    EXPECT_EQ(check_frames(net.modules[a].input_buffers[0], 0, 256, ramp(1)), "");
    EXPECT_EQ(check_frames(net.modules[0].input_buffers[0], 0, 256, ramp(1)), "");
}

TEST_F(PsynthRenderTest, ScopeRingsAndCaptureFollowThePassWhileRead) {
    int m = add_ramp(&net, 0, 2);
    psynth_make_link(0, m, &net);
    psynth_set_capture_module(m, &net);
    const psynth_module& mod = net.modules[m];
    // Nobody reads: the rings and the capture stay as they were, the position moves on.
    render_buffer(&net, 512);
    EXPECT_EQ(net.scope_position, 512);
    EXPECT_EQ(check_frames(mod.scope_rings[0], 0, 512, constant(0)), "");
    EXPECT_EQ(net.capture_fill, 0);

    psynth_scope_readers_add(&net);
    psynth_scope_readers_add(&net);
    psynth_scope_readers_remove(&net);  // one reader is left
    net.scope_position = 0;
    render_buffer(&net, 1024);
    EXPECT_EQ(net.scope_position, 1024);
    EXPECT_EQ(check_frames(mod.scope_rings[0], 0, 1024, ramp(0, 0)), "");
    EXPECT_EQ(check_frames(mod.scope_rings[1], 0, 1024, ramp(0, 1)), "");
    EXPECT_EQ(check_frames(net.modules[0].scope_rings[1], 0, 1024, ramp(0, 1)), "");  // OUT: its inputs
    EXPECT_EQ(check_frames(net.capture, 0, 1024, [](int i) { return i + 500; }), "");  // (a + b) / 2
    EXPECT_EQ(net.capture_fill, 1024);
    EXPECT_EQ(net.capture_full, 0);

    render_buffer(&net, 1024);
    EXPECT_EQ(net.capture_full, 1);
    EXPECT_EQ(net.capture_fill, 0);
    EXPECT_EQ(check_frames(net.capture, 1024, 2048, [](int i) { return i - 1024 + 500; }), "");

    // A channel that does not start at 0 shows as zeros; a full capture is left alone.
    test_data(&net, m)->config.silent_below = 10;
    queue_event(&net, m, PS_CMD_NOTE_ON, 10, 1);
    render_buffer(&net, 1024);
    EXPECT_EQ(mod.output_start[0], 10);
    EXPECT_EQ(check_frames(mod.scope_rings[0], 2048, 3072, constant(0)), "");
    EXPECT_EQ(check_frames(net.capture, 0, 1024, [](int i) { return i + 500; }), "");

    test_data(&net, m)->config.silent_below = 0;
    net.scope_position = PSYNTH_SCOPE_SIZE - 100;
    render_buffer(&net, 256);
    EXPECT_EQ(net.scope_position, 156);
    EXPECT_EQ(check_frames(mod.scope_rings[0], PSYNTH_SCOPE_SIZE - 100, PSYNTH_SCOPE_SIZE,
                           [](int i) { return i - (PSYNTH_SCOPE_SIZE - 100); }), "");
    EXPECT_EQ(check_frames(mod.scope_rings[0], 0, 156, [](int i) { return i + 100; }), "");

    psynth_sample* ring = nullptr;
    int ring_size = 0;
    psynth_get_scope_position(m, 1, &ring, &ring_size, &net);
    EXPECT_EQ(ring, mod.scope_rings[1]);
    EXPECT_EQ(ring_size, PSYNTH_SCOPE_SIZE);

    psynth_scope_readers_remove(&net);
    render_buffer(&net, 256);
    EXPECT_EQ(check_frames(mod.scope_rings[0], 156, 412, ramp(0, 0)), "");  // the first read pass, left as it was
}

}  // namespace
