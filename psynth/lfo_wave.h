// The low-frequency oscillator shared by the modulation effects (Flanger, LFO, Vibrato):
// a 32-bit phase that wraps once per cycle, read as a sine (from the shared half-sine
// table), triangle, rising saw, square or sample-and-hold random value. Every function
// works only on the caller's record (and the module's controller table): any thread (the
// render thread in steady state), no locks.
#pragma once

#include <cstdint>

#include "psynth/psynth_net.h"
#include "psynth/psynth_tables.h"

constexpr int32_t PSYNTH_LFO_ONE = 32768;   // an LFO value swings between −32768 and +32768
constexpr int PSYNTH_LFO_HZ100 = 100;       // frequencies are given in Hz/100
constexpr int PSYNTH_LFO_PHASE_CTL_SHIFT = 24;  // a "set phase" value 0..256 is a whole cycle
constexpr uint32_t PSYNTH_LFO_SEED = 0x5EED1F0u;  // the random shape starts here at every reset

// The shapes, numbered as the modules' selector controllers name them.
enum psynth_lfo_shape : int {
    PSYNTH_LFO_SINE,
    PSYNTH_LFO_TRIANGLE,
    PSYNTH_LFO_SAW,
    PSYNTH_LFO_SQUARE,
    PSYNTH_LFO_RANDOM,
    PSYNTH_LFO_SHAPES
};
// Units label of a shape selector controller (0..PSYNTH_LFO_SHAPES − 1).
constexpr const char* PSYNTH_LFO_SHAPE_NAMES = "sine/triangle/saw/square/random";

struct psynth_lfo_osc {
    uint32_t phase;  // position in the cycle: 2^32 is one whole cycle
    uint32_t step;   // phase added per frame
    uint32_t seed;   // generator of the random shape
    int32_t held;    // the random shape's value for the current cycle
};

// The per-frame phase step of `hz100` Hz/100 at `rate` frames per second (0 for a bad rate).
inline uint32_t psynth_lfo_step(int hz100, int rate) {
    if (rate <= 0 || hz100 <= 0) return 0;
    return (uint32_t)(((uint64_t)hz100 << 32) / ((uint64_t)rate * PSYNTH_LFO_HZ100));
}

// The next random value, −32768..32767 (a linear congruential generator: the same after
// every reset, so a song sounds the same on every play).
inline int32_t psynth_lfo_draw(psynth_lfo_osc* lfo) {
    lfo->seed = lfo->seed * 1664525u + 1013904223u;
    return (int32_t)(lfo->seed >> 16) - PSYNTH_LFO_ONE;
}

// Restarts the oscillator at `phase` with the random shape's sequence from its beginning.
inline void psynth_lfo_reset(psynth_lfo_osc* lfo, uint32_t phase) {
    lfo->phase = phase;
    lfo->seed = PSYNTH_LFO_SEED;
    lfo->held = psynth_lfo_draw(lfo);
}

// The phase for a "set phase" controller value 0..256 (256 is the start again).
inline uint32_t psynth_lfo_phase_of_ctl(int value) {
    return (uint32_t)value << PSYNTH_LFO_PHASE_CTL_SHIFT;
}

// The oscillator's value at its current phase, −32768..+32768, for `shape` (an unknown
// shape reads as the sine). Sine: the half-sine table interpolated between entries.
inline int32_t psynth_lfo_value(const psynth_lfo_osc* lfo, int shape) {
    uint32_t ph = lfo->phase;
    switch (shape) {
    case PSYNTH_LFO_TRIANGLE: {
        // 0 → +1 over the first quarter, down to −1 at three quarters, back to 0.
        int32_t q = (int32_t)(ph >> 16);  // 0..65535
        if (q < 16384) return q * 2;
        if (q < 49152) return (32768 - q) * 2;
        return (q - 65536) * 2;
    }
    case PSYNTH_LFO_SAW: return (int32_t)(ph >> 16) - PSYNTH_LFO_ONE;
    case PSYNTH_LFO_SQUARE: return ph < 0x80000000u ? PSYNTH_LFO_ONE : -PSYNTH_LFO_ONE;
    case PSYNTH_LFO_RANDOM: return lfo->held;
    default: {
        // 256 table entries per half cycle, 8 more bits between them.
        const uint8_t* table = psynth_get_half_sine_table();
        uint32_t index = (ph >> 23) & 255;
        int32_t frac = (int32_t)((ph >> 15) & 255);
        int32_t a = table[index];
        int32_t b = index == 255 ? 0 : table[index + 1];
        int32_t s = a * 256 + (b - a) * frac;  // 0..65280
        int32_t v = (int32_t)(((int64_t)s * 32896) >> 16);  // 65280 → 32767: full scale
        return ph < 0x80000000u ? v : -v;
    }
    }
}

// A SET_GLOBAL_CONTROLLER event for the module's "set phase" controller `ctl` restarts the
// oscillator at that phase; other events leave it alone. The net stores the value as well.
inline void psynth_lfo_phase_event(psynth_lfo_osc* lfo, const psynth_event* e, int ctl, const psynth_module* mod) {
    if ((uint16_t)e->note != ctl) return;
    psynth_lfo_reset(lfo, psynth_lfo_phase_of_ctl(psynth_ctl_value_from_normalized(&mod->ctls[ctl], e->velocity)));
}

// Moves the oscillator on by `frames`; every wrap of the phase draws the random shape's
// next value, so the sequence does not depend on how the frames were cut into blocks.
inline void psynth_lfo_advance(psynth_lfo_osc* lfo, int frames) {
    uint64_t total = (uint64_t)lfo->phase + (uint64_t)lfo->step * (uint64_t)(frames < 0 ? 0 : frames);
    lfo->phase = (uint32_t)total;
    for (uint64_t wraps = total >> 32; wraps > 0; wraps--) lfo->held = psynth_lfo_draw(lfo);
}
