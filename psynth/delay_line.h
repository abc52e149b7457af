// The circular buffer behind Echo, Delay, Loop, Flanger and Vibrato: one memory block
// holding a left and a right line of `length` samples each, allocated zeroed at INIT and
// freed at CLOSE, so a module keeps a single pointer and never allocates while rendering.
#pragma once

#include <cstring>

#include "engine/memory.h"
#include "psynth/psynth_dsp.h"
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

// ---- Fractional reads (the modulated delays: Flanger, Vibrato) ----

constexpr int PSYNTH_DELAY_FRAC_BITS = 16;  // a modulated delay is counted in 1/65536 frame

// The sample `delay` (16.16 frames, 1 ≤ delay < length − 1) before position p, linearly
// interpolated between its two neighbours; the fraction's product is taken toward zero,
// so the result always lies between them.
inline psynth_sample psynth_delay_line_read_frac(const psynth_sample* line, int length, int p, uint32_t delay) {
    int whole = (int)(delay >> PSYNTH_DELAY_FRAC_BITS);
    int32_t frac = (int32_t)(delay & ((1u << PSYNTH_DELAY_FRAC_BITS) - 1));
    int i = p - whole;
    if (i < 0) i += length;
    int j = i == 0 ? length - 1 : i - 1;
    int32_t a = line[i];
    int32_t b = line[j];
    return (psynth_sample)(a + psynth_shr_toward_zero((int64_t)(b - a) * frac, PSYNTH_DELAY_FRAC_BITS));
}
