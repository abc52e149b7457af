// The fixed inner rate of the FM synthesizer and ANS: they compute their sound at
// 44100 Hz and, when the net runs at another rate, pass it through per-channel rings
// of 4096 frames read by a linear resampler, so their sound is the same at every rate.
//
// The writer keeps two or three inner frames ahead of the read position; the write
// index is 16-bit and wraps together with the whole part of the 16.16 read position.
#pragma once

#include <cstdint>
#include <cstring>

#include "psynth/psynth_net.h"

constexpr int PSYNTH_INNER_RATE = 44100;
constexpr int PSYNTH_INNER_RING = 4096;  // inner frames per ring (a power of two)
constexpr int PSYNTH_INNER_CHANNELS = 2;

struct psynth_inner_rate {
    int16_t ring[PSYNTH_INNER_CHANNELS][PSYNTH_INNER_RING];
    uint32_t read_pos;     // 16.16 inner frames
    uint16_t write_index;  // inner frames written
    uint16_t in_use;       // set once sound went through the rings; cleared by a flush
};

namespace psynth_inner_detail {
constexpr int kFracBits = 16;
constexpr uint32_t kFracMask = (1u << kFracBits) - 1;
constexpr uint32_t kWeightMax = 65535;  // weights are f and 65535 − f
constexpr int kRingMask = PSYNTH_INNER_RING - 1;
constexpr int kLead = 2;                // inner frames the writer keeps ahead of the reader
// Inner frames a call may leave unread in a ring: the reader's two frames, the lead
// and the extra frame of an exact step all fit below the ring's size.
constexpr int kMaxUnread = PSYNTH_INNER_RING - 4;
}  // namespace psynth_inner_detail

// Forgets everything in the rings (INIT, CLEAN). Sound or GUI thread.
inline void psynth_inner_rate_clear(psynth_inner_rate* ir) { memset(ir, 0, sizeof(*ir)); }

// 44100 / rate in 16.16: the read position's advance per output frame. rate > 0.
inline uint32_t psynth_inner_rate_step(int rate) {
    return (uint32_t)(((uint64_t)PSYNTH_INNER_RATE << psynth_inner_detail::kFracBits) / (uint64_t)rate);
}

// Inner frames to compute before `frames` output frames can be read:
// ((step · frames + read position) >> 16) − write index, plus 2 (plus 1 more when
// step · frames is a whole number of frames). Never negative: a short request at a
// high rate may need nothing new.
inline int psynth_inner_rate_frames(const psynth_inner_rate* ir, uint32_t step, int frames) {
    using namespace psynth_inner_detail;
    uint32_t advance = step * (uint32_t)frames;
    int ahead = (int16_t)(uint16_t)(((advance + ir->read_pos) >> kFracBits) - ir->write_index);
    int count = ahead + kLead + ((advance & kFracMask) == 0 ? 1 : 0);
    return count < 0 ? 0 : count;
}

// Renders `frames` output frames (rate ≠ 44100) into out[c] (c < channels) through the
// rings. `produce(int16_t* dst[2], int n)` must write the next n inner frames of each of
// the `channels` channels, continuing from the frames it wrote before; it is called for
// the run up to the ring's end and then for the rest. Long requests at rates below
// 44100 are cut so that the unread frames never outgrow a ring. Sound thread.
template <class Produce>
void psynth_inner_rate_render(psynth_inner_rate* ir, uint32_t step, int channels,
                              psynth_sample* const* out, int frames, Produce produce) {
    using namespace psynth_inner_detail;
    if (channels > PSYNTH_INNER_CHANNELS) channels = PSYNTH_INNER_CHANNELS;
    const int piece_max = (int)(((uint64_t)kMaxUnread << kFracBits) / (step ? step : 1));
    for (int done = 0; done < frames;) {
        int n = frames - done;
        if (n > piece_max) n = piece_max > 0 ? piece_max : 1;
        const int count = psynth_inner_rate_frames(ir, step, n);
        for (int written = 0; written < count;) {
            int at = (ir->write_index + written) & kRingMask;
            int run = PSYNTH_INNER_RING - at;
            if (run > count - written) run = count - written;
            int16_t* dst[PSYNTH_INNER_CHANNELS] = {ir->ring[0] + at, ir->ring[1] + at};
            produce(dst, run);
            written += run;
        }
        for (int c = 0; c < channels; c++) {
            const int16_t* ring = ir->ring[c];
            psynth_sample* o = out[c] + done;
            uint32_t r = ir->read_pos;
            for (int k = 0; k < n; k++, r += step) {
                const uint32_t i = r >> kFracBits;
                const int32_t f = (int32_t)(r & kFracMask);
                const int32_t a = ring[i & kRingMask], b = ring[(i + 1) & kRingMask];
                o[k] = (psynth_sample)((b * f + a * (int32_t)(kWeightMax - f)) >> kFracBits);
            }
        }
        ir->write_index = (uint16_t)(ir->write_index + count);
        ir->read_pos += step * (uint32_t)n;
        ir->in_use = 1;
        done += n;
    }
}

// The last block after the sound stopped: zeros are fed for these frames so that what
// the rings still held comes out, then the rings start over at index 0. Sound thread.
inline void psynth_inner_rate_flush(psynth_inner_rate* ir, uint32_t step, int channels,
                                    psynth_sample* const* out, int frames) {
    psynth_inner_rate_render(ir, step, channels, out, frames, [channels](int16_t* const* dst, int n) {
        for (int c = 0; c < channels && c < PSYNTH_INNER_CHANNELS; c++) memset(dst[c], 0, sizeof(int16_t) * n);
    });
    ir->read_pos = 0;
    ir->write_index = 0;
    ir->in_use = 0;
}
