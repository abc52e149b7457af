// The shared frequency and half-sine tables and the pitch-to-step conversion.
#include "psynth/psynth_tables.h"

#include <cmath>

namespace {

struct freq_table {
    uint32_t entries[PSYNTH_FREQ_TABLE_SIZE];
    freq_table() {
        for (int i = 0; i < PSYNTH_FREQ_TABLE_SIZE; i++) {
            entries[i] = (uint32_t)std::floor(PSYNTH_FREQ_AT_PITCH_0 * std::pow(2.0, -(double)i / PSYNTH_FREQ_TABLE_SIZE));
        }
    }
};

const uint8_t kHalfSine[256] = {
    0, 3, 6, 9, 12, 15, 18, 21, 25, 28, 31, 34, 37, 40, 43, 46, 49, 52, 56, 59, 62, 65, 68, 71, 74, 77, 80, 83, 86, 89, 92, 95,
    97, 100, 103, 106, 109, 112, 115, 117, 120, 123, 126, 128, 131, 134, 136, 139, 142, 144, 147, 149, 152, 154, 157, 159, 162, 164, 167, 169, 171, 174, 176, 178,
    180, 183, 185, 187, 189, 191, 193, 195, 197, 199, 201, 203, 205, 207, 209, 211, 212, 214, 216, 217, 219, 221, 222, 224, 225, 227, 228, 229, 231, 232, 233, 235,
    236, 237, 238, 239, 240, 242, 243, 243, 244, 245, 246, 247, 248, 249, 249, 250, 251, 251, 252, 252, 253, 253, 254, 254, 254, 255, 255, 255, 255, 255, 255, 255,
    255, 255, 255, 255, 255, 255, 255, 255, 254, 254, 254, 253, 253, 252, 252, 251, 251, 250, 249, 249, 248, 247, 246, 245, 245, 244, 243, 242, 241, 240, 238, 237,
    236, 235, 234, 232, 231, 230, 228, 227, 225, 224, 222, 221, 219, 218, 216, 214, 213, 211, 209, 207, 205, 203, 201, 200, 198, 196, 194, 191, 189, 187, 185, 183,
    181, 179, 176, 174, 172, 169, 167, 165, 162, 160, 157, 155, 152, 150, 147, 145, 142, 139, 137, 134, 131, 129, 126, 123, 120, 118, 115, 112, 109, 106, 104, 101,
    98, 95, 92, 89, 86, 83, 80, 77, 74, 71, 68, 65, 62, 59, 56, 53, 50, 47, 44, 41, 37, 34, 31, 28, 25, 22, 19, 16, 12, 9, 6, 3,
};

constexpr int kPitchPerEntry = 4;                 // the table is in 1/64 semitone, pitch in 1/256
constexpr int kPitchPerOctave = PSYNTH_FREQ_TABLE_SIZE * kPitchPerEntry;  // 3072
constexpr int kHighPitchBase = 30720;             // table index offset for pitches above pitch 0
constexpr int kHighOctaves = 40;
constexpr uint64_t kMaxFreq = (uint64_t)1 << 40;  // far above any audible rate; keeps steps finite

// psynth_pitch_to_freq gives 32 × the note's frequency in Hz (C5, pitch 15360: 16726 =
// 32 × 522.7 Hz), so the phase step per frame is freq × 2^32 / 32 / rate.
constexpr int kFreqPerHzShift = 5;
constexpr int kFreqToStepShift = 32 - kFreqPerHzShift;
constexpr uint32_t kMaxPhaseStep = 0x7FFFFFFFu;  // just below half a period

}  // namespace

const uint32_t* psynth_get_freq_table() {
    static const freq_table table;  // built once, thread-safe
    return table.entries;
}

const uint8_t* psynth_get_half_sine_table() { return kHalfSine; }

uint64_t psynth_pitch_to_freq(int pitch) {
    const uint32_t* table = psynth_get_freq_table();
    int q = pitch / kPitchPerEntry;
    if (pitch >= -3) {
        int shift = pitch / kPitchPerOctave;
        return shift < 32 ? table[q % PSYNTH_FREQ_TABLE_SIZE] >> shift : 0;
    }
    int high = q + kHighPitchBase;  // pitches above pitch 0: shift the table up by octaves
    if (high < 0) return kMaxFreq;
    int shift = kHighOctaves - high / PSYNTH_FREQ_TABLE_SIZE;
    uint64_t f = (uint64_t)table[high % PSYNTH_FREQ_TABLE_SIZE] << shift;
    return f > kMaxFreq ? kMaxFreq : f;
}

psynth_step psynth_pitch_to_step(int pitch, int sampling_rate) {
    psynth_step step = {0, 0};
    if (sampling_rate <= 0) return step;
    uint64_t f = psynth_pitch_to_freq(pitch);
    step.whole = (uint32_t)(f / (uint64_t)sampling_rate);
    step.frac = (uint32_t)(((f % (uint64_t)sampling_rate) * 16384 / (uint64_t)sampling_rate) * 4);
    return step;
}

uint32_t psynth_pitch_to_phase_step(int pitch, int sampling_rate) {
    if (sampling_rate <= 0) return 0;
    uint64_t freq = psynth_pitch_to_freq(pitch);
    // At or above half the rate the step would be at least half a period.
    if (freq >= ((uint64_t)sampling_rate << (kFreqPerHzShift - 1))) return kMaxPhaseStep;
    return (uint32_t)((freq << kFreqToStepShift) / (uint64_t)sampling_rate);
}
