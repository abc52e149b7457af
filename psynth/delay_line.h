// The circular buffer behind Echo, Delay and Loop: one memory block holding a left and
// a right line of `length` samples each, allocated zeroed at INIT and freed at CLOSE, so
// a module keeps a single pointer and never allocates while rendering.
#pragma once

#include <cstring>

#include "engine/memory.h"
#include "psynth/psynth_net.h"

constexpr int PSYNTH_DELAY_LINE_CHANNELS = 2;

// A zeroed block for both lines (at least one sample each), or null when memory ran out.
// GUI thread (INIT).
inline psynth_sample* psynth_delay_line_new(int length, const char* tag) {
    if (length < 1) length = 1;
    size_t bytes = sizeof(psynth_sample) * (size_t)length * PSYNTH_DELAY_LINE_CHANNELS;
    psynth_sample* block = (psynth_sample*)mem_new(MEM_DYNAMIC, bytes, tag);
    if (block) memset(block, 0, bytes);
    return block;
}

// The line of channel c (0 left, 1 right) inside the block.
inline psynth_sample* psynth_delay_line_channel(psynth_sample* block, int length, int c) {
    return block + (size_t)c * (size_t)(length < 1 ? 1 : length);
}

// Silences both lines (CLEAN); null is ignored.
inline void psynth_delay_line_clear(psynth_sample* block) { mem_zero(block); }

// Frees the block (CLOSE); null is ignored.
inline void psynth_delay_line_free(psynth_sample* block) { mem_free(block); }

// Position p + 1 wrapped at `length` (0 when length is 0 or 1).
inline int psynth_delay_line_next(int p, int length) { return p + 1 >= length ? 0 : p + 1; }
