// The sample editor's arithmetic: exact values of reverse, normalize, fades and format
// conversion in every format, the pitch bookkeeping, and resampling that keeps a sine's
// pitch within a cent once the relative note and finetune are moved.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <tuple>
#include <vector>

#include "engine/memory.h"
#include "psynth/sample_edit.h"
#include "psynth/sampler.h"

namespace {

template <class T>
psynth_sample_frames frames_of(std::vector<T>& v, int format, int channels) {
    return {(uint8_t*)v.data(), format, channels, (int64_t)v.size() / channels};
}

class SampleEditTest : public ::testing::Test {
protected:
    void SetUp() override { mem_init(); }
    void TearDown() override {
        EXPECT_EQ(mem_get_stats().dynamic_in_use, 0);  // resampling frees its buffers
        mem_free_all();
        mem_deinit();
    }
};

TEST_F(SampleEditTest, ReverseFadeAndNormalizeGiveExactValues) {
    std::vector<int16_t> s = {100, -200, 300, -400, 500, 7, 8};
    psynth_sample_reverse(frames_of(s, PSYNTH_SAMPLER_FORMAT_INT16, 1), 1, 4);
    EXPECT_EQ(s, (std::vector<int16_t>{100, 500, -400, 300, -200, 7, 8}));
    std::vector<int8_t> st = {1, 2, 3, 4, 5, 6};  // stereo frames stay whole
    psynth_sample_reverse(frames_of(st, PSYNTH_SAMPLER_FORMAT_INT8, 2), 0, 3);
    EXPECT_EQ(st, (std::vector<int8_t>{5, 6, 3, 4, 1, 2}));

    // Fades: gain i ÷ (n − 1), truncated toward zero.
    std::vector<int16_t> f = {1000, 1000, -1000, 1000, 999, 5};
    psynth_sample_fade(frames_of(f, PSYNTH_SAMPLER_FORMAT_INT16, 1), 0, 4, true);
    EXPECT_EQ(f, (std::vector<int16_t>{0, 333, -666, 1000, 999, 5}));
    psynth_sample_fade(frames_of(f, PSYNTH_SAMPLER_FORMAT_INT16, 1), 3, 3, false);
    EXPECT_EQ(f, (std::vector<int16_t>{0, 333, -666, 1000, 499, 0}));
    psynth_sample_fade(frames_of(f, PSYNTH_SAMPLER_FORMAT_INT16, 1), 3, 1, true);  // one frame: silence
    EXPECT_EQ(f[3], 0);
    std::vector<float> ff = {1.0f, 1.0f, 1.0f, -0.5f, -0.5f, -0.5f};
    psynth_sample_fade(frames_of(ff, PSYNTH_SAMPLER_FORMAT_FLOAT32, 2), 0, 3, false);
    EXPECT_EQ(ff, (std::vector<float>{1.0f, 1.0f, 0.5f, -0.25f, 0.0f, 0.0f}));

    // Normalize: value × full ÷ peak, to nearest with ties away from zero.
    std::vector<int16_t> n = {0, 3, -6, 4, 9999};
    EXPECT_EQ(psynth_sample_normalize(frames_of(n, PSYNTH_SAMPLER_FORMAT_INT16, 1), 0, 4), 0);
    EXPECT_EQ(n, (std::vector<int16_t>{0, 16384, -32767, 21845, 9999}));  // 16383.5 → 16384, 21844.67 → 21845
    std::vector<int8_t> n8 = {-128, 64, 1};
    EXPECT_EQ(psynth_sample_normalize(frames_of(n8, PSYNTH_SAMPLER_FORMAT_INT8, 1), 0, 3), 0);
    EXPECT_EQ(n8, (std::vector<int8_t>{-127, 64, 1}));  // 64 × 127 / 128 = 63.5 → 64
    std::vector<float> nf = {0.25f, -0.5f};
    EXPECT_EQ(psynth_sample_normalize(frames_of(nf, PSYNTH_SAMPLER_FORMAT_FLOAT32, 1), 0, 2), 0);
    EXPECT_EQ(nf, (std::vector<float>{0.5f, -1.0f}));
    std::vector<int16_t> quiet = {0, 0};
    EXPECT_EQ(psynth_sample_normalize(frames_of(quiet, PSYNTH_SAMPLER_FORMAT_INT16, 1), 0, 2), 1);
}

TEST_F(SampleEditTest, ConversionBetweenFormatsAndChannels) {
    std::vector<int8_t> a8 = {-128, 127, 1, -1};
    std::vector<int16_t> a16(4);
    psynth_sample_convert(frames_of(a8, PSYNTH_SAMPLER_FORMAT_INT8, 1), 0, frames_of(a16, PSYNTH_SAMPLER_FORMAT_INT16, 1), 0, 4);
    EXPECT_EQ(a16, (std::vector<int16_t>{-32768, 32512, 256, -256}));
    std::vector<int16_t> b16 = {-32768, 32767, 255, -1};
    psynth_sample_convert(frames_of(b16, PSYNTH_SAMPLER_FORMAT_INT16, 1), 0, frames_of(a8, PSYNTH_SAMPLER_FORMAT_INT8, 1), 0, 4);
    EXPECT_EQ(a8, (std::vector<int8_t>{-128, 127, 0, -1}));  // shifted: floors
    std::vector<float> f = {1.5f, -1.0f, 0.5f, -0.00002f};
    psynth_sample_convert(frames_of(f, PSYNTH_SAMPLER_FORMAT_FLOAT32, 1), 0, frames_of(a16, PSYNTH_SAMPLER_FORMAT_INT16, 1), 0, 4);
    EXPECT_EQ(a16, (std::vector<int16_t>{32767, -32768, 16384, -1}));  // clamped, rounded
    psynth_sample_convert(frames_of(a16, PSYNTH_SAMPLER_FORMAT_INT16, 1), 0, frames_of(f, PSYNTH_SAMPLER_FORMAT_FLOAT32, 1), 0, 4);
    EXPECT_EQ(f, (std::vector<float>{32767 / 32768.0f, -1.0f, 0.5f, -1 / 32768.0f}));
    // Stereo into mono: the mean, truncated toward zero; mono into stereo: both sides.
    std::vector<int16_t> st = {100, 201, -100, -201};
    std::vector<int16_t> mono(2);
    psynth_sample_convert(frames_of(st, PSYNTH_SAMPLER_FORMAT_INT16, 2), 0, frames_of(mono, PSYNTH_SAMPLER_FORMAT_INT16, 1), 0, 2);
    EXPECT_EQ(mono, (std::vector<int16_t>{150, -150}));
    std::vector<int8_t> st8(4);
    psynth_sample_convert(frames_of(mono, PSYNTH_SAMPLER_FORMAT_INT16, 1), 0, frames_of(st8, PSYNTH_SAMPLER_FORMAT_INT8, 2), 0, 2);
    EXPECT_EQ(st8, (std::vector<int8_t>{0, 0, -1, -1}));
}

TEST_F(SampleEditTest, PitchPeriodsOfRelativeNoteAndFinetune) {
    EXPECT_EQ(psynth_sample_pitch_periods(0, 0), 0);
    EXPECT_EQ(psynth_sample_pitch_periods(12, 100), 12 * 64 + 50);
    EXPECT_EQ(psynth_sample_pitch_periods(-1, -3), -64 - 2);  // finetune counts half, floored as the Sampler does
    int8_t note, fine;
    for (auto [periods, want_note, want_fine] : {std::tuple{0, 0, 0}, {50, 1, -28}, {31, 0, 62}, {32, 1, -64}, {-33, -1, 62},
                                                 {768, 12, 0}, {100000, 95, 62}, {-100000, -96, -64}}) {
        psynth_sample_set_pitch_periods(periods, &note, &fine);
        EXPECT_EQ(std::tuple((int)note, (int)fine), std::tuple(want_note, want_fine)) << periods;
    }
    EXPECT_EQ(psynth_sample_periods_for_ratio(2.0), 768);
    EXPECT_EQ(psynth_sample_periods_for_ratio(0.5), -768);
    EXPECT_EQ(psynth_sample_periods_for_ratio(48000.0 / 44100.0), 94);  // 93.9 periods
}

// The frequency of a sine in cycles per frame, from its first and last rising zero
// crossings (interpolated between frames), skipping `margin` frames at each end.
double cycles_per_frame(const psynth_sample_frames& s, int margin) {
    std::vector<double> v;
    for (int64_t i = 0; i < s.frames; i++) {
        if (s.format == PSYNTH_SAMPLER_FORMAT_INT16) v.push_back(((const int16_t*)s.data)[i]);
        else v.push_back(((const float*)s.data)[i]);
    }
    double first = -1, last = -1;
    int crossings = 0;
    for (int64_t i = margin; i + 1 < s.frames - margin; i++) {
        if (v[i] < 0 && v[i + 1] >= 0) {
            double at = i + v[i] / (v[i] - v[i + 1]);
            if (first < 0) first = at;
            else crossings++;
            last = at;
        }
    }
    return crossings / (last - first);
}

// A sine resampled to another length, with the periods that the stretch asks for added,
// plays at the pitch it had: within 1 cent.
TEST_F(SampleEditTest, ResamplingWithThePitchCorrectionKeepsThePitch) {
    const int frames = 20000;
    const double cycles = 0.013;
    for (int format : {PSYNTH_SAMPLER_FORMAT_INT16, PSYNTH_SAMPLER_FORMAT_FLOAT32}) {
        std::vector<uint8_t> in(frames * 4);
        psynth_sample_frames s = {in.data(), format, 1, frames};
        for (int i = 0; i < frames; i++) {
            double x = 0.8 * std::sin(2 * M_PI * cycles * i);
            if (format == PSYNTH_SAMPLER_FORMAT_INT16) ((int16_t*)in.data())[i] = (int16_t)std::lround(x * 32767);
            else ((float*)in.data())[i] = (float)x;
        }
        for (int out_frames : {44100 * frames / 48000, 27777, 40000, 9001}) {
            std::vector<uint8_t> out(out_frames * 4);
            psynth_sample_frames o = {out.data(), format, 1, out_frames};
            ASSERT_EQ(psynth_sample_resample(s, o), 0);
            const double ratio = (double)out_frames / frames;
            // Played at a step raised by the periods: 2^(periods ÷ 768) frames per frame.
            const double played = cycles_per_frame(o, 200) * std::pow(2.0, psynth_sample_periods_for_ratio(ratio) / 768.0);
            const double cents = 1200 * std::log2(played / cycles);
            EXPECT_LT(std::fabs(cents), 1.0) << format << " to " << out_frames << " frames";
        }
    }
    std::vector<int16_t> one = {5};
    EXPECT_EQ(psynth_sample_resample(frames_of(one, PSYNTH_SAMPLER_FORMAT_INT16, 1),
                                     psynth_sample_frames{nullptr, PSYNTH_SAMPLER_FORMAT_INT16, 1, 0}),
              1);
}

}  // namespace
