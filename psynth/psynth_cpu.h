// What the CPU runs, for the kernels that come in several instruction sets: SSE2 is the
// x86-64 baseline; wider code is chosen at run time when the CPU has it.
#pragma once

#include <cstdint>

// True when the CPU runs AVX2 code (and it is not switched off). Found once at start-up;
// any thread, no lock.
bool psynth_cpu_has_avx2();
// With `on`, the kernels keep to the baseline (SSE2) even on a CPU with AVX2, so that tests
// and benchmarks can check both. Set it while nothing renders.
void psynth_cpu_baseline_only(bool on);

// Vectors of N 32-bit (or 16-bit) lanes in the compiler's vector types: one kernel body
// becomes SSE2 code in baseline functions and AVX2 code in functions built for that target.
template <int N>
struct psynth_lanes {
    typedef int32_t i32 __attribute__((vector_size(4 * N)));
    typedef uint32_t u32 __attribute__((vector_size(4 * N)));
    typedef int16_t i16 __attribute__((vector_size(2 * N)));
    typedef uint16_t u16 __attribute__((vector_size(2 * N)));
};
