// Reverb: identity, the first reflection worked out by hand, long renders in every mode
// and at other rates against a plain frame-by-frame reference, the 179/256 feedback
// floor, Freeze holding the tail while taking new input, and the tail after silence.
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "effect_test_util.h"
#include "psynth/psynth_modules.h"

namespace {

class ReverbTest : public PsynthFixture {};

enum { DRY, WET, FEEDBACK, DAMP, WIDTH, FREEZE, MODE };

int impulse(int c, int t) { return t == 0 ? 1000 : 0; }
// Loud, with a DC offset on the left so the blocker has work, and negative swings.
int saws(int c, int t) { return c == 0 ? ((t * 37) % 4001) * 5 - 8000 + 1500 : ((t * 13) % 3001) * 7 - 10500; }
int burst(int c, int t) { return t < 3000 ? saws(c, t) : t == 30000 ? 6000 : 0; }

// A controller change as the net delivers it: the handler hears of it, the value is stored.
void change(psynth_net* net, int fx, int ctl, int value) {
    psynth_event e = {};
    e.command = PS_CMD_SET_LOCAL_CONTROLLER;
    e.note = (int16_t)ctl;
    EXPECT_EQ(psynth_reverb(fx, &e, net), 0);
    set_ctl(net, fx, ctl, value);
}

int32_t w32(int64_t x) { return (int32_t)x; }

// The description frame by frame: DC blocker, 8 combs and 4 allpasses per channel,
// mix and width. Divisions by 256 truncate, which is rounding toward zero.
struct reverb_reference {
    static constexpr int kComb[16] = {1116, 1188, 1277, 1356, 1422, 1491, 1557, 1617,
                                      1139, 1211, 1300, 1379, 1445, 1514, 1580, 1640};
    static constexpr int kAllpass[8] = {556, 441, 341, 225, 579, 464, 364, 248};
    int rate;
    std::vector<int32_t> comb[16], ap[8];
    int comb_len[16], comb_at[16] = {}, store[16] = {}, ap_len[8], ap_at[8] = {};
    int32_t acc[2] = {}, xp[2] = {}, yp[2] = {};
    int coef;
    int ctl[7] = {256, 64, 256, 128, 256, 0, 0};

    explicit reverb_reference(int r) : rate(r) {
        int scale = (int)(((int64_t)r * 2048) / 44100);
        for (int k = 0; k < 16; k++) {
            comb_len[k] = (kComb[k] * scale) >> 11;
            comb[k].assign(comb_len[k], 0);
        }
        for (int k = 0; k < 8; k++) {
            ap_len[k] = (kAllpass[k] * scale) >> 11;
            ap[k].assign(ap_len[k], 0);
        }
        coef = (int)std::lround(31.41592653 / r * 32768);
    }

    void frame(const int in[2], int out[2]) {
        bool mono = ctl[MODE] == 1 || ctl[MODE] == 3;
        bool lq = ctl[MODE] >= 2;
        int channels = mono ? 1 : 2;
        int fb = ctl[FREEZE] ? 256 : ((ctl[FEEDBACK] * 71) >> 8) + 179;
        int a = ctl[FREEZE] ? 256
                            : (int)std::lround((1.0 / rate) / (0.15915494 / ((256 - ctl[DAMP] + 1) * 128.0) + 1.0 / rate) * 256);
        int y[2];
        for (int c = 0; c < channels; c++) {
            acc[c] = w32((int64_t)acc[c] - xp[c]);
            xp[c] = in[c] * 32768;
            acc[c] = w32((int64_t)acc[c] + xp[c] - (int64_t)yp[c] * coef);
            yp[c] = acc[c] >> 15;
            y[c] = (int16_t)yp[c];
        }
        int x = channels == 2 ? (y[0] + y[1]) / 2 : y[0];
        int32_t sum[2];
        for (int c = 0; c < channels; c++) {
            int32_t s = 0;
            for (int j = 0; j < 8; j += lq ? 2 : 1) {
                int k = c * 8 + j;
                int32_t o = comb[k][comb_at[k]];
                store[k] = w32((int64_t)o * a + (int64_t)store[k] * (256 - a)) / 256;
                comb[k][comb_at[k]] = w32((int64_t)(w32((int64_t)store[k] * fb) / 256) + (int64_t)x * 4);
                s = w32((int64_t)s + o);
                comb_at[k] = (comb_at[k] + 1) % comb_len[k];
            }
            for (int j = 0; j < 4; j += lq ? 2 : 1) {
                int k = c * 4 + j;
                int32_t b = ap[k][ap_at[k]];
                ap[k][ap_at[k]] = w32((int64_t)(w32((int64_t)b * 128) / 256) + s);
                s = w32((int64_t)b - s);
                ap_at[k] = (ap_at[k] + 1) % ap_len[k];
            }
            sum[c] = s;
        }
        int wet = lq ? ctl[WET] * 2 : ctl[WET];
        int32_t o[2];
        for (int c = 0; c < channels; c++) {
            o[c] = w32((int64_t)(w32((int64_t)(sum[c] >> 6) * wet) / 256) + in[c] * ctl[DRY] / 256);
        }
        if (channels == 2 && ctl[WIDTH] < 256) {
            int w = ctl[WIDTH] / 2 + 128;
            int32_t l = w32((int64_t)(w32((int64_t)(256 - w) * o[1]) / 256) + w32((int64_t)w * o[0]) / 256);
            int32_t r = w32((int64_t)(w32((int64_t)(256 - w) * o[0]) / 256) + w32((int64_t)w * o[1]) / 256);
            o[0] = l;
            o[1] = r;
        }
        for (int c = 0; c < channels; c++) out[c] = (int16_t)o[c];
    }
};

// Renders `sizes` buffers of `fn` through the module and the reference side by side;
// before buffer b, settings(b, ref) may change controllers of both. "" or the first difference.
auto no_changes = [](int, reverb_reference*) {};
template <class Settings = decltype(no_changes)>
std::string compare_with_reference(psynth_net* net, int fx, reverb_reference* ref, signal_fn fn,
                                   std::initializer_list<int> sizes, Settings settings = no_changes) {
    return compare_render(net, fx, sizes, [&](int b) { settings(b, ref); }, [&](int t, int want[2]) {
        int in[2] = {fn(0, t), fn(1, t)};
        ref->frame(in, want);
    });
}

// change() for each {ctl, value}, and the same values in the reference.
void apply(psynth_net* net, int fx, std::initializer_list<std::pair<int, int>> settings, reverb_reference* ref) {
    for (auto [ctl, value] : settings) {
        change(net, fx, ctl, value);
        ref->ctl[ctl] = value;
    }
}

TEST_F(ReverbTest, AnswersItsIdentityAndControllers) {
    int fx = add_effect(&net, psynth_reverb, -1);
    EXPECT_EQ(check_effect_identity(&net, psynth_reverb, fx, {648, "Reverb",
                                                      "Reverb + DC Blocking Filter.\n(Based on FreeVerb)",
                                                      0xFF, 0xD3, 0x7F}),
              "");
    EXPECT_EQ(check_ctls(&net, fx, {{"Dry", "", 0, 256, 256, 0},
                                    {"Wet", "", 0, 256, 64, 0},
                                    {"Feedback", "", 0, 256, 256, 0},
                                    {"Damp", "", 0, 256, 128, 0},
                                    {"Width", "", 0, 256, 256, 0},
                                    {"Freeze", "", 0, 1, 0, 1},
                                    {"Mode", "HQ/HQmono/LQ/LQmono", 0, 3, 0, 1}}),
              "");
}

TEST_F(ReverbTest, FirstReflectionArrivesAfterTheShortestComb) {
    int src = add_signal_source(&net, impulse);
    int fx = add_effect(&net, psynth_reverb, src);
    set_ctl(&net, fx, DRY, 0);
    set_ctl(&net, fx, WET, 256);
    render_buffer(&net, 2048);
    const psynth_sample* left = net.modules[fx].output_buffers[0];
    const psynth_sample* right = net.modules[fx].output_buffers[1];
    // By hand: the impulse passes the DC blocker as 1000 and enters comb 0 as 4000; 1116
    // frames later it comes out through four allpasses whose lines are still empty
    // (− − − −: the sign is restored), and 4000 >> 6 = 62. Right: comb 8 at 1139.
    EXPECT_EQ(check_frames(left, 0, 1116, [](int) { return 0; }), "");
    EXPECT_EQ(left[1116], 62);
    // The next frame carries the blocker's −1 (× 4 = −4): −4 >> 6 is floored to −1.
    EXPECT_EQ(left[1117], -1);
    EXPECT_EQ(check_frames(right, 0, 1139, [](int) { return 0; }), "");
    EXPECT_EQ(right[1139], 62);
}

TEST_F(ReverbTest, StereoRenderMatchesTheFrameByFrameReference) {
    int fx = add_effect(&net, psynth_reverb, add_signal_source(&net, saws));
    reverb_reference ref(44100);
    const std::pair<int, int> steps[] = {{WET, 64},   {WET, 200}, {DAMP, 0},    {WIDTH, 100}, {DAMP, 256},
                                         {DRY, 77},   {FEEDBACK, 30}, {WIDTH, 0}, {WET, 256},   {WIDTH, 256}};
    EXPECT_EQ(compare_with_reference(&net, fx, &ref, saws, {4096, 1000, 3, 4096, 2777, 4096, 4096, 4096, 517, 4096},
                                     [&](int b, reverb_reference* r) { apply(&net, fx, {steps[b]}, r); }),
              "");
}

// The reference reads only the left input in the mono modes, and the right input of
// `saws` differs: a mono mode hearing the right input fails here.
TEST_F(ReverbTest, LqAndMonoModesMatchTheReference) {
    for (int mode = 1; mode <= 3; mode++) {
        int src = add_signal_source(&net, saws);
        int fx = add_effect(&net, psynth_reverb, src);
        reverb_reference ref(44100);
        apply(&net, fx, {{MODE, mode}, {WIDTH, 64}}, &ref);  // width is only heard in stereo
        EXPECT_EQ(compare_with_reference(&net, fx, &ref, saws, {4096, 999, 4096, 4096, 4096}), "") << "mode " << mode;
        EXPECT_EQ(net.modules[fx].output_channels, mode == 2 ? 2 : 1) << "mode " << mode;
        psynth_remove_synth(fx, &net);
        psynth_remove_synth(src, &net);
    }
}

TEST_F(ReverbTest, FeedbackZeroStillFeedsBack179) {
    int src = add_signal_source(&net, impulse);
    int fx = add_effect(&net, psynth_reverb, src);
    reverb_reference ref(44100);
    apply(&net, fx, {{FEEDBACK, 0}, {DRY, 0}, {WET, 256}}, &ref);
    EXPECT_EQ(compare_with_reference(&net, fx, &ref, impulse, {4096, 4096, 4096, 4096}), "");
    // With a true zero the tail would be gone after 1640 + 556 + 441 + 341 + 225 frames;
    // at 179/256 the last buffer (frames 12288..16383) still rings.
    int sounding = 0;
    for (int i = 0; i < 4096; i++) sounding += net.modules[fx].output_buffers[0][i] != 0;
    EXPECT_GT(sounding, 100);
}

// Sum of |sample| of the left output over one buffer.
long level(psynth_net* net, int fx, int n) {
    long s = 0;
    for (int i = 0; i < n; i++) s += std::abs(net->modules[fx].output_buffers[0][i]);
    return s;
}

TEST_F(ReverbTest, FreezeKeepsTheTailWhileAddingNewInput) {
    int src = add_signal_source(&net, burst);
    int fx = add_effect(&net, psynth_reverb, src);
    reverb_reference ref(44100);
    apply(&net, fx, {{DRY, 0}}, &ref);
    // Freeze arrives through the net as a controller event (32768 is the top of the range).
    EXPECT_EQ(compare_with_reference(&net, fx, &ref, burst, {4096, 4096, 4096, 4096, 4096, 4096, 4096, 4096, 4096},
                                     [&](int b, reverb_reference* r) {
                                         if (b == 1) {
                                             queue_controller(&net, fx, FREEZE, 32768);
                                             r->ctl[FREEZE] = 1;
                                         }
                                     }),
              "");
    EXPECT_EQ(*net.modules[fx].ctls[FREEZE].value, 1);
    // The impulse at frame 30000 entered the frozen combs: it is part of the reference above.
    long early = 0, late = 0;
    for (int b = 0; b < 100; b++) {
        render_buffer(&net, 4096);
        if (b == 0) early = level(&net, fx, 4096);
        if (b == 99) late = level(&net, fx, 4096);
    }
    // Nine seconds later the frozen tail is as loud as ever (no loss in the loop).
    EXPECT_GT(early, 100000);
    EXPECT_GT(late, early / 2);
    // Unfrozen, the same tail dies away.
    queue_controller(&net, fx, FREEZE, 0);
    for (int b = 0; b < 100; b++) render_buffer(&net, 4096);
    EXPECT_LT(level(&net, fx, 4096), early / 100);
}

TEST_F(ReverbTest, SilentUntilFedThenRendersTheTailUntilClean) {
    int src = add_signal_source(&net, saws, 2, 0);
    int fx = add_effect(&net, psynth_reverb, src);
    render_buffer(&net, 512);
    EXPECT_EQ(net.modules[fx].output_start[0], 512);  // silent since INIT: returns 0
    set_silent_from(&net, src, 1024);
    render_buffer(&net, 512);  // frames 512..1023 sound
    EXPECT_EQ(net.modules[fx].output_start[0], 0);
    for (int b = 0; b < 3; b++) {
        render_buffer(&net, 4096);  // no input: the tail keeps rendering
        EXPECT_EQ(net.modules[fx].output_start[0], 0);
    }
    EXPECT_NE(level(&net, fx, 4096), 0);
    // CLEAN empties the lines and makes it silent again until the next sound.
    psynth_do_command(fx, PS_CMD_CLEAN, &net);
    render_buffer(&net, 4096);
    EXPECT_EQ(net.modules[fx].output_start[0], 4096);
    // Fed again from a restarted source it sounds exactly like a fresh reverb.
    ((signal_source_data*)net.modules[src].data)->frame = 0;
    set_silent_from(&net, src, INT_MAX);
    reverb_reference ref(44100);
    EXPECT_EQ(compare_with_reference(&net, fx, &ref, saws, {4096, 4096}), "");
}

TEST_F(ReverbTest, OtherRatesScaleTheLinesAndTheBlocker) {
    for (int rate : {48000, 9001, 96000}) {
        restart_net(&net, rate);
        int fx = add_effect(&net, psynth_reverb, add_signal_source(&net, saws));
        reverb_reference ref(rate);
        EXPECT_EQ(compare_with_reference(&net, fx, &ref, saws, {4096, 4096, 4096, 1234}), "") << "rate " << rate;
    }
    // At 48000 Hz comb 0 is 1116 × (98304000 / 44100 = 2229) >> 11 = 1214 frames long.
    EXPECT_EQ(reverb_reference(48000).comb_len[0], 1214);
    EXPECT_EQ(reverb_reference(44100).coef, 23);
}

}  // namespace
