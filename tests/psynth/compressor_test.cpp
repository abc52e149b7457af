// Compressor: identity, the integer square root, the constant 1 ms delay, attack 0 and
// the silencing points of "Slope" 100 and 200 worked out by hand, side-chain selection,
// and long renders in both detector modes and at other rates against a plain
// frame-by-frame reference.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>

#include "effect_test_util.h"
#include "psynth/psynth_dsp.h"
#include "psynth/psynth_modules.h"

namespace {

class CompressorTest : public PsynthFixture {};

enum { VOLUME, THRESHOLD, SLOPE, ATTACK, RELEASE, MODE, SIDE_CHAIN };

// The description followed one frame at a time: line, output, detector, glide, period end.
struct compressor_reference {
    int period, delay;
    int ctl[7] = {256, 256, 100, 1, 300, 0, 0};
    int16_t line[2][512] = {};
    int w = 0, pos = 0, peak = 0, count = 0;
    int64_t sum = 0;
    float level = 0;
    int32_t gain = 1 << 24, inc = 0;

    explicit compressor_reference(int rate) : period(rate * 256 / 1000), delay(rate / 1000) {}

    static int64_t root(int64_t v) {
        int64_t r = (int64_t)std::sqrt((double)v);
        while (r * r > v) r--;
        while ((r + 1) * (r + 1) <= v) r++;
        return r;
    }
    static float keep(int ms) { return ms == 0 ? 0.0f : (float)std::exp(-1.0 / ms); }

    void frame(const int heard[2], const int measured[2], int out[2]) {
        for (int c = 0; c < 2; c++) {
            line[c][w] = (int16_t)heard[c];
            int x = line[c][(w - delay + 512) % 512];
            int v = (int)std::floor(x * ctl[VOLUME] / 256.0);
            int m = (int)std::floor(gain / 4096.0);
            out[c] = wrap16((int)std::floor((double)v * m / 4096.0));
            if (ctl[MODE]) {
                sum += (int64_t)measured[c] * measured[c];
                count++;
            } else {
                peak = std::max(peak, std::abs(measured[c]));
            }
        }
        gain += inc;
        w = (w + 1) % 512;
        pos += 256;
        if (pos >= period) {
            pos -= period;
            end_of_period();
        }
    }

    void end_of_period() {
        float l = ctl[MODE] ? root(sum / count) / 4096.0f : peak / 4096.0f;
        peak = count = 0;
        sum = 0;
        float c = keep(l > level ? ctl[ATTACK] : ctl[RELEASE]);
        level = (1 - c) * l + c * level;
        float t = ctl[THRESHOLD] / 256.0f;
        float g = level > t ? std::max(0.0f, (t - level) * ctl[SLOPE] * 0.01f + 1) : 1.0f;
        inc = ((int32_t)(g * 16777216.0f) - gain) / (period / 256);
    }
};

// Loud and quiet stretches of a sawtooth, so that the gain falls and recovers.
int swells(int c, int t) {
    static const int kAmp[] = {2000, 9000, 14000, 500, 6000, 12000, 300, 7000};
    int amp = kAmp[(t / 700) % 8];
    return (((t * 37 + c * 11) % 401) - 200) * amp / 200;
}
int quiet_saw(int c, int t) { return ((t * 7 + c * 500) % 3000) - 1500; }
template <int V>
int constant(int, int) { return V; }
int pad(int c, int t) { return ((t * 13 + c * 100) % 1001) - 500; }
int kicks(int c, int t) { return (t % 3000) < 600 ? ((t * 29 + c) % 2001 - 1000) * 12 : 0; }
int pad_plus_kicks(int c, int t) { return pad(c, t) + kicks(c, t); }

typedef int (*signal2)(int, int);

// Renders buffers of `sizes` through the module and the reference (heard, measured);
// before buffer b, settings(b, ref) may change controllers of both. "" or the first difference.
auto no_changes = [](int, compressor_reference*) {};
template <class Settings = decltype(no_changes)>
std::string compare_with_reference(psynth_net* net, int fx, compressor_reference* ref, signal2 heard,
                                   signal2 measured, std::initializer_list<int> sizes,
                                   Settings settings = no_changes) {
    return compare_render(net, fx, sizes, [&](int b) { settings(b, ref); }, [&](int t, int want[2]) {
        int h[2] = {heard(0, t), heard(1, t)}, m[2] = {measured(0, t), measured(1, t)};
        ref->frame(h, m, want);
    });
}

struct setting { int ctl, value; };

// Sets controllers of the module and, when given, the same ones of the reference.
void apply(psynth_net* net, int fx, std::initializer_list<setting> settings, compressor_reference* ref = nullptr) {
    for (const setting& s : settings) {
        set_ctl(net, fx, s.ctl, s.value);
        if (ref) ref->ctl[s.ctl] = s.value;
    }
}

// A fresh net with a constant source through a compressor of "Attack" 0 and `slope`,
// rendered for 4096 frames; returns the compressor's output channel `c`.
const psynth_sample* compress_constant(psynth_net* net, signal2 fn, int slope, int c) {
    restart_net(net);
    int fx = add_effect(net, psynth_compressor, add_signal_source(net, fn));
    apply(net, fx, {{ATTACK, 0}, {SLOPE, slope}});
    render_buffer(net, 4096);
    return net->modules[fx].output_buffers[c];
}

TEST_F(CompressorTest, AnswersItsIdentityAndControllers) {
    int fx = add_effect(&net, psynth_compressor, -1);
    EXPECT_EQ(check_effect_identity(&net, psynth_compressor, fx, {4192, "Compressor",
                                                      "Dynamic range compressor.\nThreshold 256 = 0 dB.",
                                                      0xFF, 0x30, 0x00}),
              "");
    EXPECT_EQ(check_ctls(&net, fx, {{"Volume", "", 0, 512, 256, 0},
                                    {"Threshold", "", 0, 512, 256, 0},
                                    {"Slope", "%", 0, 200, 100, 0},
                                    {"Attack", "ms", 0, 500, 1, 0},
                                    {"Release", "ms", 1, 1000, 300, 0},
                                    {"Peak/RMS", "", 0, 1, 0, 1},
                                    {"Side chain input", "", 0, 32, 0, 1}}),
              "");
}

TEST_F(CompressorTest, IntegerSquareRootIsTheFloorOfTheRoot) {
    struct { uint64_t v, root; } cases[] = {
        {0, 0}, {1, 1}, {3, 1}, {4, 2}, {1073741823, 32767} /* 32768² − 1 */, {1073741824, 32768},
        {UINT64_MAX, 4294967295u}, {18446744065119617025ull, 4294967295u} /* (2³² − 1)² */,
        {18446744065119617024ull, 4294967294u}};
    for (const auto& k : cases) EXPECT_EQ(psynth_isqrt64(k.v), k.root) << k.v;
    for (uint64_t r = 1; r < 200000; r += 997) {
        EXPECT_EQ(psynth_isqrt64(r * r), r);
        EXPECT_EQ(psynth_isqrt64(r * r - 1), r - 1);
        EXPECT_EQ(psynth_isqrt64(r * r + 2 * r), r);  // (r + 1)² − 1
    }
}

TEST_F(CompressorTest, OutputIsAlwaysDelayedByOneMillisecond) {
    for (int rate : {44100, 48000, 22050, 9001}) {
        restart_net(&net, rate);
        int fx = add_effect(&net, psynth_compressor, add_signal_source(&net, quiet_saw, 2, 5000));
        const int delay = rate / 1000;
        int t = 0;
        for (int n : {1000, 37, 4096, 100}) {  // the source is silent from the fourth (5133)
            render_buffer(&net, n);
            for (int c = 0; c < 2; c++) {
                EXPECT_EQ(check_frames(net.modules[fx].output_buffers[c], 0, n, [&](int k) {
                              int s = t + k - delay;
                              return s >= 0 && s < 5133 ? quiet_saw(c, s) : 0;
                          }),
                          "")
                    << "rate " << rate << " channel " << c << " from frame " << t;
            }
            t += n;
        }
    }
}

TEST_F(CompressorTest, AttackZeroFollowsRisingInputAtOnce) {
    const psynth_sample* out = compress_constant(&net, constant<8000>, 100, 0);
    // By hand, 44100 Hz: a period is 11289/256 frames, the first one ends after frame 44.
    // Its level 8000/4096 = 1.953125 is taken whole, g = 1 − 0.953125 = 0.046875, the
    // target 786432 and the increment (786432 − 2^24) / 44 = −363426 from frame 45 on.
    EXPECT_EQ(check_frames(out, 0, 44, [](int) { return 0; }), "");
    EXPECT_EQ(out[44], 8000);
    EXPECT_EQ(out[45], 8000);
    EXPECT_EQ(out[46], 7826);  // gain 16413790 >> 12 = 4007; 8000 × 4007 >> 12
    EXPECT_EQ(out[88], 546);   // 43 steps: 1149898 >> 12 = 280
    // The level stays, the gain stops at 786472 (>> 12 = 192): 8000 × 192 >> 12 = 375.
    EXPECT_EQ(check_frames(out, 89, 4096, [](int) { return 375; }), "");
}

TEST_F(CompressorTest, SlopeSetsTheLevelThatIsSilenced) {
    // "Slope" 100, level 2.0: g = (1 − 2) × 1 + 1 = 0, step −2^24 / 44 = −381300. 43 steps
    // leave 381316 (>> 12 = 93: 8192 × 93 >> 12 = 186); the 44th leaves 16, a multiplier of 0.
    const psynth_sample* out = compress_constant(&net, constant<8192>, 100, 1);
    EXPECT_EQ(out[45], 8192);
    EXPECT_EQ(out[88], 186);
    EXPECT_EQ(check_frames(out, 89, 4096, [](int) { return 0; }), "");
    // Just below twice the threshold something is left.
    EXPECT_GT(compress_constant(&net, constant<7800>, 100, 1)[4095], 0);

    // "Slope" 200, level 1.5: g = (1 − 1.5) × 200 % + 1 = 0, the same glide: 6144 × 93 >> 12.
    out = compress_constant(&net, constant<6144>, 200, 0);
    EXPECT_EQ(out[88], 139);
    EXPECT_EQ(check_frames(out, 89, 4096, [](int) { return 0; }), "");
    // "Slope" 100 only halves the same level: g = 0.5, 2^23 after the glide.
    EXPECT_EQ(compress_constant(&net, constant<6144>, 100, 0)[4095], 3072);
}

// Side chain n ≥ 3 (beyond the two linked modules) measures what is heard.
TEST_F(CompressorTest, SideChainBeyondTheLinkedModulesActsAsZero) {
    for (int n : {3, 32}) {
        restart_net(&net);
        int b = add_signal_source(&net, kicks);
        int fx = add_effect(&net, psynth_compressor, add_signal_source(&net, pad));
        psynth_make_link(fx, b, &net);
        compressor_reference ref(44100);
        apply(&net, fx, {{SIDE_CHAIN, n}, {THRESHOLD, 100}}, &ref);
        EXPECT_EQ(compare_with_reference(&net, fx, &ref, pad_plus_kicks, pad_plus_kicks, {4096, 3001, 4096}), "")
            << "side chain " << n;
    }
}

TEST_F(CompressorTest, SideChainMeasuresTheChosenModuleAndLeavesItUnheard) {
    int a = add_signal_source(&net, pad);
    int b = add_signal_source(&net, kicks);
    int fx = add_effect(&net, psynth_compressor, a);
    psynth_make_link(fx, b, &net);
    compressor_reference ref(44100);
    apply(&net, fx, {{THRESHOLD, 100}, {SLOPE, 150}, {RELEASE, 1}, {SIDE_CHAIN, 2}}, &ref);
    EXPECT_EQ(compare_with_reference(&net, fx, &ref, pad, kicks, {4096, 4096, 777, 4096}), "");
    // The pad ducks under the kicks: its peak in a kick is far below its peak between them.
    render_buffer(&net, 4096);  // frames 13065..17160: a kick at 15000..15599
    int in_kick = 0, between = 0;
    for (int k = 0; k < 4096; k++) {
        int t = 13065 + k, v = std::abs(net.modules[fx].output_buffers[0][k]);
        if (t >= 15100 && t < 15600) in_kick = std::max(in_kick, v);
        if (t >= 16000) between = std::max(between, v);
    }
    EXPECT_LT(in_kick * 4, between);

    // The other way round: the kicks are heard, measured on the pad (never above its threshold).
    restart_net(&net);
    a = add_signal_source(&net, pad);
    b = add_signal_source(&net, kicks, 2, 8192);  // silent buffers: no output at all
    fx = add_effect(&net, psynth_compressor, a);
    psynth_make_link(fx, b, &net);
    compressor_reference ref2(44100);
    apply(&net, fx, {{SIDE_CHAIN, 1}, {THRESHOLD, 10}, {ATTACK, 0}}, &ref2);
    auto kicks_until_8192 = [](int c, int t) { return t < 8192 ? kicks(c, t) : 0; };
    EXPECT_EQ(compare_with_reference(&net, fx, &ref2, kicks_until_8192, pad, {4096, 4096, 4096, 4096}), "");
}

// The side chain alone wakes the module, and in RMS mode its silent frames still count.
TEST_F(CompressorTest, SideChainAloneWakesItAndItsSilenceCountsInRms) {
    int side = add_signal_source(&net, pad, 2, 8192);  // silent from the third buffer
    int heard = add_signal_source(&net, swells);        // runs unheard until linked in the second buffer
    int fx = add_effect(&net, psynth_compressor, side);
    compressor_reference ref(44100);
    apply(&net, fx, {{SIDE_CHAIN, 1}, {MODE, 1}, {THRESHOLD, 20}, {ATTACK, 0}}, &ref);
    auto heard_from_4096 = [](int c, int t) { return t < 4096 ? 0 : swells(c, t); };
    auto pad_until_8192 = [](int c, int t) { return t < 8192 ? pad(c, t) : 0; };
    EXPECT_EQ(compare_with_reference(&net, fx, &ref, heard_from_4096, pad_until_8192, {4096, 4096, 4096, 4096},
                                     [&](int b, compressor_reference*) {
                                         if (b == 1) psynth_make_link(fx, heard, &net);
                                     }),
              "");
}

TEST_F(CompressorTest, PeakRenderMatchesTheFrameByFrameReference) {
    int fx = add_effect(&net, psynth_compressor, add_signal_source(&net, swells, 2, 30000));
    compressor_reference ref(44100);
    auto swells_until_30000 = [](int c, int t) { return t < 30000 ? swells(c, t) : 0; };
    const setting steps[] = {{THRESHOLD, 128}, {SLOPE, 60},   {ATTACK, 5},      {VOLUME, 300},
                             {RELEASE, 20},    {SLOPE, 200},  {VOLUME, 77},     {ATTACK, 0},
                             {THRESHOLD, 400}, {RELEASE, 1000}, {VOLUME, 512}};
    EXPECT_EQ(compare_with_reference(&net, fx, &ref, swells_until_30000, swells_until_30000,
                                     {4096, 1000, 3, 4096, 2777, 4096, 4096, 4096, 517, 4096, 4096},
                                     [&](int b, compressor_reference* r) { apply(&net, fx, {steps[b]}, r); }),
              "");
}

TEST_F(CompressorTest, RmsRenderMatchesTheReferenceAtOtherRates) {
    for (int rate : {44100, 48000, 22050, 9001, 96000}) {
        restart_net(&net, rate);
        int fx = add_effect(&net, psynth_compressor, add_signal_source(&net, swells));
        compressor_reference ref(rate);
        apply(&net, fx, {{MODE, 1}, {THRESHOLD, 150}, {ATTACK, 3}, {RELEASE, 40}, {SLOPE, 80}}, &ref);
        EXPECT_EQ(compare_with_reference(&net, fx, &ref, swells, swells, {4096, 4096, 1111, 4096, 4096}), "")
            << "rate " << rate;
    }
}

TEST_F(CompressorTest, SilentUntilInputAndCleanRestoresUnityGain) {
    int src = add_signal_source(&net, constant<8192>, 2, 0);
    int fx = add_effect(&net, psynth_compressor, src);
    render_buffer(&net, 512);
    EXPECT_EQ(net.modules[fx].output_start[0], 512);  // nothing sounded: taken as silent

    // Compress to nothing, then CLEAN: the line empties and the gain is unity again.
    set_silent_from(&net, src, INT_MAX);
    set_ctl(&net, fx, ATTACK, 0);
    render_buffer(&net, 4096);
    EXPECT_EQ(net.modules[fx].output_buffers[0][4095], 0);
    psynth_do_command(fx, PS_CMD_CLEAN, &net);
    signal_source_data* s = (signal_source_data*)net.modules[src].data;
    s->fn = quiet_saw;
    s->frame = 0;
    render_buffer(&net, 1000);
    for (int c = 0; c < 2; c++) {
        EXPECT_EQ(check_frames(net.modules[fx].output_buffers[c], 0, 1000,
                               [&](int k) { return k < 44 ? 0 : quiet_saw(c, k - 44); }),
                  "")
            << "channel " << c;
    }
}

}  // namespace
