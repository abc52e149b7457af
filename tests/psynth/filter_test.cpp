// Filter: identity, a straightforward reference of the filter for every type and mode,
// the Response extremes, Mix 0 with frozen states, one second of tail, the one-shot
// Impulse, the LFO swing bounds and the "Set LFO phase" event.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "effect_test_util.h"
#include "psynth/psynth_modules.h"
#include "psynth/psynth_tables.h"

namespace {

class FilterTest : public PsynthFixture {};

enum { VOLUME, FREQ, RESONANCE, TYPE, RESPONSE, MODE, IMPULSE, MIX, LFO_FREQ, LFO_POWER, LFO_PHASE };
// Private data after the 11 controllers (documented in filter.cpp): 2 × (band, low,
// term), step counter, LFO phase, smoothed volume, frequency, resonance, tail, tail length.
enum { RAW_STEP = 17, RAW_PHASE, RAW_VOLUME, RAW_FREQ, RAW_RES, RAW_TAIL, RAW_TAIL_LENGTH };

int square(int c, int t) { return ((t / 37) % 2 ? 3000 : -2500) + (c ? 400 : 0); }

int64_t tz(int64_t x, int bits) { return x / ((int64_t)1 << bits); }  // toward zero

// The filter as described, without smoothing (Response 256 reaches each target within a
// step, and these tests change no controller mid-step).
struct svf_reference {
    int64_t low[2] = {0, 0}, band[2] = {0, 0}, saved[2] = {0, 0};
    int64_t term(int type, int64_t l, int64_t h, int64_t b) {
        return type == 0 ? l : type == 1 ? h : type == 2 ? b : h + l;
    }
    int64_t step(int c, int64_t x, int64_t f, int64_t q) {
        low[c] += tz(f * band[c], 10);
        int64_t h = x - tz(q * band[c], 10) - low[c];
        band[c] += tz(f * h, 10);
        return h;
    }
    int sample(int c, int in, int type, bool hq, int freq, int res, int vol, int mix) {
        int64_t f = hq ? (((int64_t)freq << 15) / (44100 * 2)) * 6433 >> 15 : (((int64_t)(freq / 2) << 15) / 44100) * 6433 >> 15;
        if (f > 1023) f = 1023;
        int64_t q = 1536 - res;
        int64_t g = (vol * mix) >> 8;
        if (mix == 0) return in * vol / 256;
        int64_t x = in * 32, o;
        if (hq) {
            int64_t prev = type == 0 ? low[c] : type == 2 ? band[c] : saved[c];
            int64_t h = step(c, x, f, q);
            int64_t sum = term(type, low[c], h, band[c]) + prev;
            h = step(c, x, f, q);
            saved[c] = term(type, low[c], h, band[c]);
            o = tz((sum >> 6) * g, 8);
        } else {
            int64_t h = step(c, x, f, q);
            o = tz((term(type, low[c], h, band[c]) >> 5) * g, 8);
        }
        if (mix < 256) o += tz((int64_t)in * (((256 - mix) * vol) >> 8), 8);
        return wrap16((int)o);
    }
};

int32_t* raw(psynth_net* net, int fx) { return (int32_t*)net->modules[fx].data; }

TEST_F(FilterTest, AnswersItsIdentityAndControllers) {
    int fx = add_effect(&net, psynth_filter, -1);
    EXPECT_EQ(check_effect_identity(&net, psynth_filter, fx, {100, "Filter",
                                                      "State Variable Filter\n(Chamberlin version)\nDouble Sampled\n\nUse low \"response\" values\n"
                                                      "for smooth frequency, resonance\nor volume change",
                                                      0x7F, 0xD9, 0xFF}),
              "");
    EXPECT_EQ(check_ctls(&net, fx, {{"Volume", "", 0, 256, 256, 0},
                                    {"Freq", "Hz", 0, 14000, 14000, 0},
                                    {"Resonance", "", 0, 1530, 0, 0},
                                    {"Type", "l/h/b/n", 0, 3, 0, 1},
                                    {"Response", "", 0, 256, 256, 0},
                                    {"Mode", "HQ/HQmono/LQ/LQmono", 0, 3, 0, 1},
                                    {"Impulse", "Hz", 0, 14000, 0, 0},
                                    {"Mix", "", 0, 256, 256, 0},
                                    {"LFO freq", "", 0, 1024, 8, 0},
                                    {"LFO power", "", 0, 256, 0, 0},
                                    {"Set LFO phase", "", 0, 256, 0, 0}}),
              "");
    EXPECT_EQ(raw(&net, fx)[RAW_FREQ], 14000 * 256);
    EXPECT_EQ(raw(&net, fx)[RAW_VOLUME], 256 * 256);
    EXPECT_EQ(raw(&net, fx)[RAW_TAIL], 44100);
}

// Every type in every mode, with resonance and a partial mix, against the reference.
TEST_F(FilterTest, EveryTypeAndModeMatchesTheReference) {
    for (int mode = 0; mode < 4; mode++) {
        for (int type = 0; type < 4; type++) {
            SCOPED_TRACE("mode " + std::to_string(mode) + " type " + std::to_string(type));
            restart_net(&net);
            int fx = add_effect(&net, psynth_filter, add_signal_source(&net, square));
            set_ctls(&net, fx, {{FREQ, 3000}, {RESONANCE, 900}, {TYPE, type}, {MODE, mode}, {MIX, 200}});
            // The first control step still runs at 14000 Hz and resonance 0.
            svf_reference ref;
            bool hq = mode < 2;
            int channels = mode % 2 ? 1 : 2;
            for (int b = 0; b < 3; b++) {
                render_buffer(&net, 1000);
                EXPECT_EQ(net.modules[fx].output_channels, channels);
                for (int c = 0; c < channels; c++) {
                    for (int k = 0; k < 1000; k++) {
                        int t = b * 1000 + k;
                        bool first = t < 220;
                        int want = ref.sample(c, square(c, t), type, hq, first ? 14000 : 3000, first ? 0 : 900, 256, 200);
                        ASSERT_EQ(net.modules[fx].output_buffers[c][k], want) << "channel " << c << " frame " << t;
                    }
                }
            }
        }
    }
}

TEST_F(FilterTest, ResponseZeroFreezesFrequencyButARisingVolumeStillJumps) {
    int fx = add_effect(&net, psynth_filter, add_signal_source(&net, square));
    set_ctls(&net, fx, {{RESPONSE, 0}, {FREQ, 500}, {RESONANCE, 700}, {VOLUME, 100}});
    render_buffer(&net, 1000);
    EXPECT_EQ(raw(&net, fx)[RAW_FREQ], 14000 * 256);
    EXPECT_EQ(raw(&net, fx)[RAW_RES], 0);
    EXPECT_EQ(raw(&net, fx)[RAW_VOLUME], 256 * 256);  // falling: frozen
    raw(&net, fx)[RAW_VOLUME] = 50 * 256;
    render_buffer(&net, 220);
    EXPECT_EQ(raw(&net, fx)[RAW_VOLUME], 100 * 256);  // rising: one step
    set_ctl(&net, fx, RESPONSE, 256);
    render_buffer(&net, 440);
    EXPECT_EQ(raw(&net, fx)[RAW_FREQ], 500 * 256);  // 14000 Hz per step: within one
    EXPECT_EQ(raw(&net, fx)[RAW_RES], 700 * 256);
    EXPECT_EQ(raw(&net, fx)[RAW_VOLUME], 100 * 256);
    set_ctls(&net, fx, {{RESPONSE, 1}, {FREQ, 1000}, {VOLUME, 99}});
    render_buffer(&net, 440);  // two steps of 1 × 14000 and 1 × 256
    EXPECT_EQ(raw(&net, fx)[RAW_FREQ], 500 * 256 + 2 * 14000);
    EXPECT_EQ(raw(&net, fx)[RAW_VOLUME], 99 * 256);
}

TEST_F(FilterTest, MixZeroPassesTheInputWithVolumeAndFreezesTheStates) {
    int fx = add_effect(&net, psynth_filter, add_signal_source(&net, square));
    set_ctl(&net, fx, FREQ, 14000);
    svf_reference ref;
    render_buffer(&net, 220);
    for (int k = 0; k < 220; k++) ref.sample(0, square(0, k), 0, true, 14000, 0, 256, 256);
    int32_t saved[6];
    memcpy(saved, raw(&net, fx) + 11, sizeof(saved));
    set_ctls(&net, fx, {{MIX, 0}, {VOLUME, 200}, {RESPONSE, 256}});
    render_buffer(&net, 220);  // volume still 256 in this step
    EXPECT_EQ(check_frames(net.modules[fx].output_buffers[0], 0, 220, [](int k) { return square(0, 220 + k); }), "");
    render_buffer(&net, 220);
    EXPECT_EQ(check_frames(net.modules[fx].output_buffers[0], 0, 220,
                           [](int k) { return square(0, 440 + k) * 200 / 256; }), "");
    EXPECT_EQ(memcmp(saved, raw(&net, fx) + 11, sizeof(saved)), 0);
    set_ctls(&net, fx, {{MIX, 256}, {VOLUME, 256}});
    render_buffer(&net, 220);
    render_buffer(&net, 220);  // volume back at 256 from this step on
    for (int k = 0; k < 220; k++) ref.sample(0, square(0, 660 + k), 0, true, 14000, 0, 200, 256);
    EXPECT_EQ(check_frames(net.modules[fx].output_buffers[0], 0, 220, [&](int k) {
        return ref.sample(0, square(0, 880 + k), 0, true, 14000, 0, 256, 256);
    }), "");
}

TEST_F(FilterTest, SilentUntilInputThenRingsForOneSecond) {
    int src = add_signal_source(&net, square, 2, 0);
    int fx = add_effect(&net, psynth_filter, src);
    render_buffer(&net, 2205);
    EXPECT_EQ(net.modules[fx].output_start[0], 2205);
    set_silent_from(&net, src, 2 * 2205);
    render_buffer(&net, 2205);
    EXPECT_EQ(net.modules[fx].output_start[0], 0);
    for (int b = 0; b < 20; b++) {  // 20 × 2205 frames = one second of tail
        render_buffer(&net, 2205);
        ASSERT_EQ(net.modules[fx].output_start[0], 0) << b;
    }
    int32_t band = raw(&net, fx)[11];
    render_buffer(&net, 2205);
    EXPECT_EQ(net.modules[fx].output_start[0], 2205);
    EXPECT_EQ(raw(&net, fx)[11], band);  // silent renders leave the state alone
    psynth_do_command(fx, PS_CMD_CLEAN, &net);
    EXPECT_EQ(raw(&net, fx)[RAW_TAIL], 44100);
}

TEST_F(FilterTest, ImpulseThrowsTheCutoffOnce) {
    int fx = add_effect(&net, psynth_filter, add_signal_source(&net, square));
    set_ctls(&net, fx, {{RESPONSE, 0}, {IMPULSE, 700}});
    render_buffer(&net, 300);
    EXPECT_EQ(*net.modules[fx].ctls[IMPULSE].value, 0);
    EXPECT_EQ(raw(&net, fx)[RAW_FREQ], 700 * 256);
    svf_reference ref;
    EXPECT_EQ(check_frames(net.modules[fx].output_buffers[0], 0, 300, [&](int k) {
        return ref.sample(0, square(0, k), 0, true, 700, 0, 256, 256);
    }), "");
    set_ctls(&net, fx, {{RESPONSE, 256}, {FREQ, 2000}});
    render_buffer(&net, 300);
    EXPECT_EQ(raw(&net, fx)[RAW_FREQ], 2000 * 256);  // nothing throws it back to 700
}

TEST_F(FilterTest, LfoAtFullPowerSwingsBetween28And13972) {
    int fx = add_effect(&net, psynth_filter, add_signal_source(&net, square));
    // 32 steps per period: phases hit 2048 and 6144.
    set_ctls(&net, fx, {{FREQ, 0}, {LFO_POWER, 256}, {LFO_FREQ, 256}});
    int lo = 1 << 30, hi = -1;
    for (int s = 0; s < 32; s++) {
        render_buffer(&net, 220);
        int f = raw(&net, fx)[RAW_FREQ] >> 8;
        lo = std::min(lo, f);
        hi = std::max(hi, f);
    }
    EXPECT_EQ(lo, 28);
    EXPECT_EQ(hi, 13972);
    EXPECT_EQ(raw(&net, fx)[RAW_PHASE], 0);
    queue_controller(&net, fx, LFO_PHASE, 16384);
    render_buffer(&net, 100);
    EXPECT_EQ(raw(&net, fx)[RAW_PHASE], 4096);
    EXPECT_EQ(*net.modules[fx].ctls[LFO_PHASE].value, 128);  // the net stores it too
}

}  // namespace
