// Modulator: identity, exact ring-modulation products in link order, phase modulation
// delaying the carrier by what the modulator sets (interpolated between frames), and
// silence: silent when either source is missing in amplitude mode, and in the phase modes
// one line length of tail after the carrier stops.
#include "effect_test_util.h"
#include "psynth/psynth_modules.h"

namespace {

enum { VOLUME, TYPE, MAX_DELAY };
enum { AMPLITUDE, PHASE, PHASE_ABS };

int mod_wave(int c, int t) { return c == 0 ? ((t * 37) % 8001) - 4000 : ((t * 11) % 6001) - 3000; }
int carrier(int c, int t) { return c == 0 ? ((t * 13) % 20001) - 10000 : 700 - 3 * (t % 1000); }
int plus_full(int c, int t) { return 4096; }
int minus_full(int c, int t) { return -4096; }
int half_full(int c, int t) { return 2048; }
int loud(int c, int t) { return 20000; }

class ModulatorTest : public PsynthFixture {
protected:
    // The modulator's source linked first, the carrier's second.
    void build(signal_fn modulation, signal_fn carried, int carrier_silent_from = INT_MAX) {
        msrc = add_signal_source(&net, modulation);
        fx = add_effect(&net, psynth_modulator, msrc);
        csrc = add_signal_source(&net, carried, 2, carrier_silent_from);
        psynth_make_link(fx, csrc, &net);
    }
    int msrc = -1, csrc = -1, fx = -1;
};

int ring_value(int m, int x, int volume) { return wrap16((int)((long long)m * x * volume / (1 << 20))); }

TEST_F(ModulatorTest, AnswersItsIdentityAndControllers) {
    int fx = add_effect(&net, psynth_modulator, -1);
    EXPECT_EQ(check_effect_identity(&net, psynth_modulator, fx,
                                    {0, "Modulator",
                                     "Modulator.\nThe first linked module modulates\nthe second (amplitude or phase)",
                                     0xC5, 0x7F, 0xFF, PSYNTH_FLAG_EFFECT | PSYNTH_FLAG_NO_INPUT_MIXING}),
              "");
    EXPECT_EQ(check_ctls(&net, fx, {{"Volume", "", 0, 512, 256, 0},
                                    {"Type", "amplitude/phase/phase abs", 0, 2, 0, 1},
                                    {"Max phase delay", "", 0, 256, 32, 0},
                                    {"Mono", "off/on", 0, 1, 0, 1}}),
              "");
}

TEST_F(ModulatorTest, RingModulationGivesExactProducts) {
    build(mod_wave, carrier);
    psynth_make_link(fx, add_signal_source(&net, loud), &net);  // a third linked module is not heard
    const int sizes[] = {4096, 1000, 3};
    int t = 0;
    for (int b = 0; b < 3; b++) {
        int volume = b == 0 ? 256 : 300;
        set_ctl(&net, fx, VOLUME, volume);
        render_buffer(&net, sizes[b]);
        for (int c = 0; c < 2; c++) {
            ASSERT_EQ(check_frames(net.modules[fx].output_buffers[c], 0, sizes[b],
                                   [&](int i) { return ring_value(mod_wave(c, t + i), carrier(c, t + i), volume); }),
                      "")
                << "buffer " << b << " channel " << c;
        }
        t += sizes[b];
    }
    EXPECT_EQ(net.modules[fx].output_buffers[0][0], ring_value(mod_wave(0, 5096), carrier(0, 5096), 300));
}

TEST_F(ModulatorTest, AmplitudeModeIsSilentWithoutBothSources) {
    build(half_full, carrier);
    render_buffer(&net, 100);
    EXPECT_EQ(net.modules[fx].output_buffers[0][99], carrier(0, 99) / 2);
    set_silent_from(&net, msrc, 0);
    render_buffer(&net, 100);
    EXPECT_EQ(net.modules[fx].output_start[0], 100);
    EXPECT_EQ(net.modules[fx].output_start[1], 100);
    set_silent_from(&net, msrc, INT_MAX);
    psynth_make_link(fx, csrc, &net);  // unlinked: nothing to modulate
    render_buffer(&net, 100);
    EXPECT_EQ(net.modules[fx].output_start[0], 100);
}

TEST_F(ModulatorTest, PhaseModulationDelaysTheCarrier) {
    build(minus_full, carrier);
    set_ctl(&net, fx, TYPE, PHASE);
    set_ctl(&net, fx, MAX_DELAY, 256);
    render_buffer(&net, 4096);  // −full scale: no delay
    EXPECT_EQ(check_frames(net.modules[fx].output_buffers[0], 0, 4096, [](int t) { return carrier(0, t); }), "");

    // +full scale: the whole line less its two spare frames, 44100 / 64 = 689 frames.
    ((signal_source_data*)net.modules[msrc].data)->fn = plus_full;
    psynth_do_command(fx, PS_CMD_CLEAN, &net);
    ((signal_source_data*)net.modules[csrc].data)->frame = 0;
    for (int b = 0; b < 3; b++) {
        render_buffer(&net, 4096);
        for (int c = 0; c < 2; c++) {
            ASSERT_EQ(check_frames(net.modules[fx].output_buffers[c], 0, 4096,
                                   [&](int i) {
                                       int t = b * 4096 + i - 689;
                                       return t < 0 ? 0 : carrier(c, t);
                                   }),
                      "")
                << "buffer " << b << " channel " << c;
        }
    }
}

TEST_F(ModulatorTest, PhaseAbsInterpolatesBetweenFrames) {
    build(half_full, carrier);
    set_ctl(&net, fx, TYPE, PHASE_ABS);
    set_ctl(&net, fx, MAX_DELAY, 256);
    set_ctl(&net, fx, VOLUME, 200);
    // |2048| of 4096: half of 689 frames, 344.5: halfway between two frames.
    auto x = [](int c, int t) { return t < 0 ? 0 : carrier(c, t); };
    for (int b = 0; b < 2; b++) {
        render_buffer(&net, 4096);
        for (int c = 0; c < 2; c++) {
            ASSERT_EQ(check_frames(net.modules[fx].output_buffers[c], 0, 4096,
                                   [&](int i) {
                                       int t = b * 4096 + i;
                                       int y = (x(c, t - 344) * 128 + x(c, t - 345) * 128) / 256;
                                       return y * 200 / 256;
                                   }),
                      "")
                << "buffer " << b << " channel " << c;
        }
    }
}

TEST_F(ModulatorTest, PhaseModeDrainsItsLineThenFallsSilent) {
    build(plus_full, carrier, 4096);
    set_ctl(&net, fx, TYPE, PHASE);
    set_ctl(&net, fx, MAX_DELAY, 256);
    render_buffer(&net, 4096);
    render_buffer(&net, 4096);  // the carrier has stopped: the last 689 frames come out
    EXPECT_EQ(net.modules[fx].output_start[0], 0);
    EXPECT_EQ(check_frames(net.modules[fx].output_buffers[0], 0, 4096,
                           [](int i) { return i < 689 ? carrier(0, 4096 + i - 689) : 0; }),
              "");
    render_buffer(&net, 4096);
    EXPECT_EQ(net.modules[fx].output_start[0], 4096);
    EXPECT_EQ(net.modules[fx].output_start[1], 4096);
}

}  // namespace
