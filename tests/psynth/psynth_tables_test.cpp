// The shared frequency and half-sine tables and the pitch-to-step conversion.
#include <gtest/gtest.h>

#include <cmath>

#include "psynth/psynth_tables.h"

TEST(PsynthTablesTest, FrequencyTableEntries) {
    const uint32_t* t = psynth_get_freq_table();
    EXPECT_EQ(t[0], 535232u);
    EXPECT_EQ(t[384], 378466u);  // half an octave: 535232 / sqrt(2) = 378466.4
    EXPECT_EQ(t[767], (uint32_t)std::floor(535232 * std::pow(2.0, -767.0 / 768)));
    for (int i = 1; i < PSYNTH_FREQ_TABLE_SIZE; i++) ASSERT_LT(t[i], t[i - 1]) << i;
}

TEST(PsynthTablesTest, HalfSineIsTheFixedTable) {
    const uint8_t* s = psynth_get_half_sine_table();
    EXPECT_EQ(s[0], 0);
    EXPECT_EQ(s[8], 25);
    EXPECT_EQ(s[64], 180);
    EXPECT_EQ(s[125], 255);
    EXPECT_EQ(s[136], 254);
    EXPECT_EQ(s[255], 3);
    int sum = 0;
    for (int i = 0; i < 256; i++) sum += s[i];
    EXPECT_EQ(sum, 41613);  // the sum of the published values
}

TEST(PsynthTablesTest, PitchToStepAcrossOctaves) {
    // Pitch 0 plays at 535232 / 64 = 8363 Hz: at 8363 frames per second the step is 64 exactly.
    psynth_step s = psynth_pitch_to_step(0, 8363);
    EXPECT_EQ(s.whole, 64u);
    EXPECT_EQ(s.frac, 0u);
    EXPECT_EQ(psynth_pitch_to_freq(3072), 535232u / 2);      // an octave lower
    EXPECT_EQ(psynth_pitch_to_freq(-3), 535232u);            // −3..−1 still read entry 0
    EXPECT_EQ(psynth_pitch_to_freq(-3072), 535232u * 2);     // an octave higher
    EXPECT_EQ(psynth_pitch_to_freq(-4), (uint64_t)psynth_get_freq_table()[767] << 1);
    // Fraction: 16384ths of the remainder, times four.
    s = psynth_pitch_to_step(3072, 44100);  // 267616 / 44100 = 6 rem 3016
    EXPECT_EQ(s.whole, 6u);
    EXPECT_EQ(s.frac, (3016u * 16384 / 44100) * 4);
    // Absurd pitches stay finite.
    EXPECT_EQ(psynth_pitch_to_freq(1 << 30), 0u);
    EXPECT_GT(psynth_pitch_to_freq(-(1 << 30)), 0u);
}
