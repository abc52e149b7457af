// DC Blocker: identity, a constant decaying toward 0 (first values exact), a sine kept
// while its offset is removed, and silence: none in gives none out, and
// after the input stops one second of tail, then silence reported.
#include <cmath>
#include <cstdlib>

#include "effect_test_util.h"
#include "psynth/psynth_modules.h"

namespace {

class DcBlockerTest : public PsynthFixture {};

int constant_800(int c, int t) { return c == 0 ? 800 : -800; }
int sine_with_offset(int c, int t) { return 1000 + (int)std::lround(2000 * std::sin(2 * M_PI * 441 * t / 44100.0)); }

TEST_F(DcBlockerTest, AnswersItsIdentityAndControllers) {
    int fx = add_effect(&net, psynth_dcblocker, -1);
    EXPECT_EQ(check_effect_identity(&net, psynth_dcblocker, fx,
                                    {0, "DC Blocker",
                                     "DC Blocker.\nRemoves the constant offset\n(below about 5 Hz)", 0x7F, 0xA8, 0xFF}),
              "");
    EXPECT_EQ(check_ctls(&net, fx, {{"Mono", "off/on", 0, 1, 0, 1}}), "");
}

TEST_F(DcBlockerTest, ConstantInputDecaysTowardZero) {
    int src = add_signal_source(&net, constant_800);
    int fx = add_effect(&net, psynth_dcblocker, src);
    render_buffer(&net, 4096);
    const psynth_sample* left = net.modules[fx].output_buffers[0];
    const psynth_sample* right = net.modules[fx].output_buffers[1];
    // y = x − x' + (1 − 23/32768) y', floored: 800, then 800 − 800 × 23 / 32768.
    EXPECT_EQ(left[0], 800);
    EXPECT_EQ(left[1], 799);
    EXPECT_EQ(right[0], -800);
    for (int t = 1; t < 4096; t++) ASSERT_LE(left[t], left[t - 1]) << t;
    EXPECT_LT(left[4095], 800 / 4);  // about 3 time constants of 32 ms
    for (int b = 0; b < 5; b++) render_buffer(&net, 4096);  // half a second in all
    for (int t = 0; t < 4096; t++) {
        ASSERT_LE(std::abs(left[t]), 1) << t;
        ASSERT_LE(std::abs(right[t]), 1) << t;
    }
}

TEST_F(DcBlockerTest, KeepsTheSoundAndRemovesItsOffset) {
    int src = add_signal_source(&net, sine_with_offset);
    int fx = add_effect(&net, psynth_dcblocker, src);
    for (int b = 0; b < 11; b++) render_buffer(&net, 4000);  // one second to settle
    render_buffer(&net, 4000);  // 40 periods of 441 Hz
    long long sum = 0;
    int peak = 0;
    for (int t = 0; t < 4000; t++) {
        int y = net.modules[fx].output_buffers[0][t];
        sum += y;
        peak = std::max(peak, std::abs(y));
    }
    EXPECT_LE(std::abs(sum / 4000), 2);
    EXPECT_NEAR(peak, 2000, 20);
}

TEST_F(DcBlockerTest, SilenceInGivesSilenceOutAfterOneSecondOfTail) {
    int src = add_signal_source(&net, constant_800, 2, 0);
    int fx = add_effect(&net, psynth_dcblocker, src);
    render_buffer(&net, 4096);
    EXPECT_EQ(net.modules[fx].output_start[0], 4096);  // silent since INIT
    set_silent_from(&net, src, 8192);
    render_buffer(&net, 4096);
    EXPECT_EQ(net.modules[fx].output_start[0], 0);
    // The input stops: the offset's step down shows, then decays; the module renders
    // whole buffers until one second has passed, then reports silence.
    int tail_buffers = 0;
    do {
        render_buffer(&net, 4096);
        if (net.modules[fx].output_start[0] == 0) tail_buffers++;
        if (tail_buffers == 1) {
            EXPECT_LT(net.modules[fx].output_buffers[0][0], -700);
        }
    } while (net.modules[fx].output_start[0] == 0 && tail_buffers < 20);
    EXPECT_EQ(tail_buffers, (44100 + 4095) / 4096);
    EXPECT_EQ(net.modules[fx].output_start[0], 4096);
    EXPECT_EQ(net.modules[fx].output_start[1], 4096);
}

}  // namespace
