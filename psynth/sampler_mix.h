// The Sampler's mixing kernels: one run of frames of a voice, read with or without linear
// interpolation, scaled by the side volumes (gliding when a ramp runs) and added into the
// two outputs. Scalar kernels for every case; SIMD kernels (SSE2, AVX2 when the CPU has
// it) for forward runs of 8- and 16-bit samples, giving exactly the scalar integers.
#pragma once

#include <cstdint>

#include "psynth/psynth_net.h"

constexpr int PSYNTH_SAMPLER_MIX_CHANNELS = 2;

// A run of frames mixed with no edge inside: every frame reads frame i (and i + 1).
struct psynth_sampler_mix_run {
    const void* frames;
    int64_t pos;   // 16.16 from `frames`
    int64_t step;  // 16.16, subtracted when going backwards
    int count;
    int32_t volume[PSYNTH_SAMPLER_MIX_CHANNELS];  // current volumes × 4096, updated by the ramp
    int32_t inc[PSYNTH_SAMPLER_MIX_CHANNELS];
    psynth_sample* out[PSYNTH_SAMPLER_MIX_CHANNELS];  // may be the same buffer twice
};
typedef void (*psynth_sampler_mix_fn)(psynth_sampler_mix_run* run);

// Instruction sets the kernels come in; BEST is the widest this CPU runs.
enum : int {
    PSYNTH_SAMPLER_MIX_SCALAR = 0,
    PSYNTH_SAMPLER_MIX_SSE2,
    PSYNTH_SAMPLER_MIX_AVX2,
    PSYNTH_SAMPLER_MIX_BEST,
};

// The kernels [ramp][backwards] for a sample format (PSYNTH_SAMPLER_FORMAT_*), 1 or 2
// channels and interpolation on or off, in instruction set `isa` (an unsupported one
// falls back to the next narrower). Any thread.
void psynth_sampler_mix_kernels(int format, int channels, bool interp, int isa, psynth_sampler_mix_fn kernels[2][2]);
// True when this CPU runs the kernels of `isa`.
bool psynth_sampler_mix_supported(int isa);
