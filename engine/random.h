// The program's pseudo-random generator: a 32-bit linear congruential generator
// whose sequence is the same on every machine (songs with random effects replay alike).
#pragma once

#include <cstdint>

// Advances *seed and returns the next number, 0..32767.
inline int tarvik_random(uint32_t* seed) {
    *seed = *seed * 1103515245u + 12345u;
    return (int)((*seed >> 16) & 32767);
}
