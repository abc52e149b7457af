// Tables every module shares: the frequency table that turns a pitch into a
// playback rate, the vibrato half-sine, and the pitch-to-step conversion.
#pragma once

#include <cstdint>

constexpr int PSYNTH_FREQ_TABLE_SIZE = 768;   // one octave in 1/64 semitone
constexpr int PSYNTH_FREQ_AT_PITCH_0 = 535232; // Hz × 64 at pitch 0 (8363 × 64)
constexpr int PSYNTH_STEP_FRAC_BITS = 16;

// Entry i = floor(535232 · 2^(−i/768)).
const uint32_t* psynth_get_freq_table();
// 256 entries, close to 255 · sin(π·i/256).
const uint8_t* psynth_get_half_sine_table();

// A step through a sample per output frame: whole frames and a 16-bit fraction.
struct psynth_step {
    uint32_t whole;
    uint32_t frac;
};

// Playback frequency (× 64) for a pitch in 1/256 semitone (smaller is higher).
uint64_t psynth_pitch_to_freq(int pitch);
// The step for a pitch at the net's sampling rate.
psynth_step psynth_pitch_to_step(int pitch, int sampling_rate);
// Phase advance per frame of an oscillator whose period is 2^32, for a pitch at the net's
// sampling rate; held below half a period (nothing above half the sampling rate).
uint32_t psynth_pitch_to_phase_step(int pitch, int sampling_rate);
