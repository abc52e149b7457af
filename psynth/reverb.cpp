// Reverb: a stereo reverberator of eight damped comb filters and four allpasses per
// channel (the right channel's lines 23 samples longer), fed through a DC blocker, all
// in 32-bit integer arithmetic. Its lines live in one block allocated at INIT.
//
// | # | name       | units                 | min | max | default | kind     |
// |---|------------|-----------------------|-----|-----|---------|----------|
// | 0 | "Dry"      | ""                    | 0   | 256 | 256     | number   |
// | 1 | "Wet"      | ""                    | 0   | 256 | 64      | number   |
// | 2 | "Feedback" | ""                    | 0   | 256 | 256     | number   |
// | 3 | "Damp"     | ""                    | 0   | 256 | 128     | number   |
// | 4 | "Width"    | ""                    | 0   | 256 | 256     | number   |
// | 5 | "Freeze"   | ""                    | 0   | 1   | 0       | selector |
// | 6 | "Mode"     | "HQ/HQmono/LQ/LQmono" | 0   | 3   | 0       | selector |
//
// "Feedback" 0 still feeds back 179/256: the combs never go dry. "Freeze" sets the
// feedback to unity without damping but keeps adding the input, so a frozen tail grows
// with new sound rather than muting it; both are the module's sound and stay. Once it
// has sounded the reverb renders its tail until CLEAN, even over silent input.
// Rounding: every product with a /256 coefficient or gain is brought back toward zero
// (psynth_gain32); the plain shifts (DC blocker >> 15, the sums >> 6) are floored.
// All states wrap at 32 bits.
#include <cmath>
#include <cstdint>
#include <cstring>

#include "engine/memory.h"
#include "psynth/effect_io.h"
#include "psynth/psynth_cpu.h"
#include "psynth/psynth_dsp.h"
#include "psynth/psynth_modules.h"

namespace {

constexpr int kDataSize = 648;  // the private data size every saved Reverb expects
constexpr int kChannels = 2;
constexpr int kCombsPerChannel = 8;
constexpr int kAllpassesPerChannel = 4;
constexpr int kCombs = kCombsPerChannel * kChannels;
constexpr int kAllpasses = kAllpassesPerChannel * kChannels;
constexpr int kCombCapacity = 17000;    // serves any rate up to about 10 × 44100 Hz
constexpr int kAllpassCapacity = 6000;
constexpr int kReferenceRate = 44100;   // the rate the line lengths are given for
constexpr int kLengthScaleShift = 11;   // rate ÷ 44100 in 1/2048
constexpr int kFeedbackBase = 179;      // "Feedback" 0: about 0.70
constexpr int kFeedbackSpan = 71;       // "Feedback" 256: 250, about 0.98
constexpr int kAllpassFeedback = 128;   // 0.5
constexpr int kCombInputShift = 2;      // the input enters each comb × 4
constexpr int kSumShift = 6;            // comb sums back to sample scale
constexpr int kDampHzStep = 128;        // cut-off (257 − "Damp") × 128 Hz
constexpr double kOneOverTwoPi = 0.15915494;
constexpr int kLqStride = 2;            // LQ modes use every second line

const int32_t kCombLengths[kCombs] = {1116, 1188, 1277, 1356, 1422, 1491, 1557, 1617,
                                      1139, 1211, 1300, 1379, 1445, 1514, 1580, 1640};
const int32_t kAllpassLengths[kAllpasses] = {556, 441, 341, 225, 579, 464, 364, 248};

// One block holds the lines and the render scratch, in this order (int32 values).
constexpr size_t kAllpassLinesAt = (size_t)kCombs * kCombCapacity;
constexpr size_t kScratchAt = kAllpassLinesAt + (size_t)kAllpasses * kAllpassCapacity;
constexpr size_t kScratchLines = 1 + kChannels;  // comb input, left sum, right sum
constexpr size_t kBlockValues = kScratchAt + kScratchLines * PSYNTH_BUFFER_SIZE;

enum reverb_ctl : int { CTL_DRY, CTL_WET, CTL_FEEDBACK, CTL_DAMP, CTL_WIDTH, CTL_FREEZE, CTL_MODE, CTL_COUNT };
enum reverb_mode : int { MODE_HQ, MODE_HQ_MONO, MODE_LQ, MODE_LQ_MONO };

struct reverb_comb {
    int32_t length;
    int32_t index;
    int32_t store;  // the damping low-pass state
};

struct reverb_allpass {
    int32_t length;
    int32_t index;
};

// Every comb shares one feedback and one damping coefficient, so they are kept once.
struct reverb_data {
    int ctl[CTL_COUNT];
    int32_t* block;  // comb lines, allpass lines, scratch (kBlockValues)
    reverb_comb comb[kCombs];
    reverb_allpass allpass[kAllpasses];
    psynth_dc_blocker dc[kChannels];
    int32_t dc_coef;
    int32_t feedback;  // /256
    int32_t damp;      // a, /256: the share of the new comb output in the low-pass
    int32_t rate;
    uint8_t params_changed;
    uint8_t silent;    // set until an input sounds (again after CLEAN)
};
static_assert(sizeof(reverb_data) <= kDataSize, "the Reverb's state fits its private data size");

// A line length given for 44100 Hz at the net's rate, within 1..capacity.
int32_t scaled_length(int32_t length, int rate, int32_t capacity) {
    int64_t scale = ((int64_t)rate << kLengthScaleShift) / kReferenceRate;
    int64_t n = (length * scale) >> kLengthScaleShift;
    return n < 1 ? 1 : n > capacity ? capacity : (int32_t)n;
}

int32_t* comb_line(reverb_data* d, int k) { return d->block + (size_t)k * kCombCapacity; }
int32_t* allpass_line(reverb_data* d, int k) { return d->block + kAllpassLinesAt + (size_t)k * kAllpassCapacity; }
int32_t* scratch(reverb_data* d, int n) { return d->block + kScratchAt + (size_t)n * PSYNTH_BUFFER_SIZE; }

void clear_states(reverb_data* d) {
    if (d->block) memset(d->block, 0, sizeof(int32_t) * kScratchAt);
    for (reverb_comb& c : d->comb) c.index = c.store = 0;
    for (reverb_allpass& a : d->allpass) a.index = 0;
    for (psynth_dc_blocker& b : d->dc) b = psynth_dc_blocker{};
    d->silent = 1;
}

void init(int mod_num, reverb_data* d, psynth_net* net) {
    int* v = d->ctl;
    psynth_register_ctl(mod_num, "Dry", "", 0, 256, 256, PSYNTH_CTL_NUMBER, &v[CTL_DRY], net);
    psynth_register_ctl(mod_num, "Wet", "", 0, 256, 64, PSYNTH_CTL_NUMBER, &v[CTL_WET], net);
    psynth_register_ctl(mod_num, "Feedback", "", 0, 256, 256, PSYNTH_CTL_NUMBER, &v[CTL_FEEDBACK], net);
    psynth_register_ctl(mod_num, "Damp", "", 0, 256, 128, PSYNTH_CTL_NUMBER, &v[CTL_DAMP], net);
    psynth_register_ctl(mod_num, "Width", "", 0, 256, 256, PSYNTH_CTL_NUMBER, &v[CTL_WIDTH], net);
    psynth_register_ctl(mod_num, "Freeze", "", 0, 1, 0, PSYNTH_CTL_SELECTOR, &v[CTL_FREEZE], net);
    psynth_register_ctl(mod_num, "Mode", "HQ/HQmono/LQ/LQmono", 0, 3, 0, PSYNTH_CTL_SELECTOR, &v[CTL_MODE], net);
    d->rate = net->sampling_rate;
    d->block = (int32_t*)mem_new(MEM_DYNAMIC, sizeof(int32_t) * kBlockValues, "psynth_reverb");
    for (int k = 0; k < kCombs; k++) d->comb[k].length = scaled_length(kCombLengths[k], d->rate, kCombCapacity);
    for (int k = 0; k < kAllpasses; k++) {
        d->allpass[k].length = scaled_length(kAllpassLengths[k], d->rate, kAllpassCapacity);
    }
    d->dc_coef = psynth_dc_blocker_coef(d->rate);
    clear_states(d);
    d->params_changed = 1;
}

// Feedback and damping from the controllers: a is the coefficient of a one-pole
// low-pass at (257 − "Damp") × 128 Hz; a frozen comb loops at unity with no damping.
void update_params(reverb_data* d) {
    if (d->ctl[CTL_FREEZE]) {
        d->feedback = PSYNTH_GAIN_UNITY;
        d->damp = PSYNTH_GAIN_UNITY;
    } else {
        d->feedback = ((d->ctl[CTL_FEEDBACK] * kFeedbackSpan) >> PSYNTH_GAIN_SHIFT) + kFeedbackBase;
        double dt = 1.0 / (d->rate > 0 ? d->rate : 1);
        double rc = kOneOverTwoPi / ((PSYNTH_GAIN_UNITY - d->ctl[CTL_DAMP] + 1) * kDampHzStep);
        d->damp = (int32_t)std::lround(dt / (rc + dt) * PSYNTH_GAIN_UNITY);
    }
    d->params_changed = 0;
}

// ---- Combs ----
// A channel's combs are independent low-pass feedback loops, so they run side by side in
// the lanes of a vector: a channel's 8 combs, or the 4 of the LQ modes. The frames go in
// stretches that end where the first of the lines wraps, so the inner loop tests no index;
// the sums wrap at 32 bits, so the order in which the combs add into them does not matter.

// The lane functions are always inlined: no vector crosses a call, whatever the target.
#pragma GCC diagnostic ignored "-Wpsabi"

constexpr int kMaxCombLanes = kCombsPerChannel;

// x / 256 toward zero in 32-bit lanes, as psynth_div256_toward_zero.
template <class S>
__attribute__((always_inline)) inline S div256_toward_zero_lanes(S x) {
    return (x + ((x >> 31) & (PSYNTH_GAIN_UNITY - 1))) >> PSYNTH_GAIN_SHIFT;
}

// One frame of the combs in lanes: o the values read from their lines, `input` the comb
// input × 4; updates the low-pass states and returns what goes back into the lines.
// Products wrap at 32 bits, as psynth_wrap32 does.
template <class S, class U>
__attribute__((always_inline)) inline S comb_lanes_step(S o, S* store, uint32_t a, uint32_t keep, uint32_t feedback,
                                                        uint32_t input) {
    *store = div256_toward_zero_lanes((S)((U)o * a + (U)*store * keep));
    return (S)((U)div256_toward_zero_lanes((S)((U)*store * feedback)) + input);
}

// The lines of one channel's combs and their state, taken out of the records for a run.
struct comb_run_state {
    reverb_comb* combs[kMaxCombLanes];
    int32_t* lines[kMaxCombLanes];
    int32_t index[kMaxCombLanes];
    int32_t store[kMaxCombLanes];
    int count;
};

// Calls stretch_run(at, i, stretch) for stretches of frames between line wraps; at[g] is
// comb g's line at its index for frame i.
template <class F>
__attribute__((always_inline)) inline void run_in_stretches(comb_run_state* st, int n, F stretch_run) {
    for (int i = 0; i < n;) {
        int stretch = n - i;
        int32_t* at[kMaxCombLanes];
        for (int g = 0; g < st->count; g++) {
            int left = st->combs[g]->length - st->index[g];
            if (left < 1) left = 1;  // a line shortened under its index: one frame, then it wraps
            if (stretch > left) stretch = left;
            at[g] = st->lines[g] + st->index[g];
        }
        stretch_run(at, i, stretch);
        for (int g = 0; g < st->count; g++) {
            st->index[g] += stretch;
            if (st->index[g] >= st->combs[g]->length) st->index[g] = 0;
        }
        i += stretch;
    }
}

// All N combs of the run state in the lanes of one vector.
template <int N>
__attribute__((always_inline)) inline void comb_lanes_run(comb_run_state* st, const int32_t* x, int32_t* sum, int n,
                                                          int32_t feedback, int32_t a) {
    typedef typename psynth_lanes<N>::i32 S;
    typedef typename psynth_lanes<N>::u32 U;
    S store;
    for (int g = 0; g < N; g++) store[g] = st->store[g];
    const uint32_t keep = (uint32_t)(PSYNTH_GAIN_UNITY - a);
    run_in_stretches(st, n, [&](int32_t* const* at, int i, int stretch) {
        for (int f = 0; f < stretch; f++) {
            S o;
            uint32_t s = (uint32_t)sum[i + f];
            for (int g = 0; g < N; g++) {
                o[g] = at[g][f];
                s += (uint32_t)o[g];
            }
            S back = comb_lanes_step<S, U>(o, &store, (uint32_t)a, keep, (uint32_t)feedback,
                                           (uint32_t)x[i + f] << kCombInputShift);
            for (int g = 0; g < N; g++) at[g][f] = back[g];
            sum[i + f] = (int32_t)s;
        }
    });
    for (int g = 0; g < N; g++) st->store[g] = store[g];
}

template <int N>
void comb_lanes_sse2(comb_run_state* st, const int32_t* x, int32_t* sum, int n, int32_t feedback, int32_t a) {
    comb_lanes_run<N>(st, x, sum, n, feedback, a);
}

template <int N>
__attribute__((target("avx2"))) void comb_lanes_avx2(comb_run_state* st, const int32_t* x, int32_t* sum, int n,
                                                     int32_t feedback, int32_t a) {
    comb_lanes_run<N>(st, x, sum, n, feedback, a);
}

// The combs of one channel (every `stride`-th from `first`: 8, or 4 in the LQ modes) over n frames.
void combs_run(reverb_data* d, int first, int count, int stride, const int32_t* x, int32_t* sum, int n) {
    comb_run_state st = {};
    st.count = count;
    for (int g = 0; g < count; g++) {
        int k = first + g * stride;
        st.combs[g] = &d->comb[k];
        st.lines[g] = comb_line(d, k);
        st.index[g] = d->comb[k].index;
        st.store[g] = d->comb[k].store;
    }
    const bool avx2 = psynth_cpu_has_avx2();
    if (count == kCombsPerChannel) {
        (avx2 ? comb_lanes_avx2<kCombsPerChannel> : comb_lanes_sse2<kCombsPerChannel>)(&st, x, sum, n, d->feedback, d->damp);
    } else {
        (avx2 ? comb_lanes_avx2<kCombsPerChannel / kLqStride> : comb_lanes_sse2<kCombsPerChannel / kLqStride>)(
            &st, x, sum, n, d->feedback, d->damp);
    }
    for (int g = 0; g < count; g++) {
        st.combs[g]->index = st.index[g];
        st.combs[g]->store = st.store[g];
    }
}

// One allpass over n frames, in place on sum[]: in stretches between line wraps, within
// which every frame has a line entry of its own, so the loop vectorises.
void allpass_run(reverb_allpass* f, int32_t* line, int32_t* sum, int n) {
    int32_t index = f->index;
    for (int i = 0; i < n;) {
        int stretch = f->length - index;
        if (stretch < 1) stretch = 1;  // a line shortened under its index: one frame, then it wraps
        if (stretch > n - i) stretch = n - i;
        int32_t* __restrict at = line + index;
        int32_t* __restrict s = sum + i;
        for (int k = 0; k < stretch; k++) {
            int32_t b = at[k];
            at[k] = psynth_wrap32((int64_t)psynth_gain32(b, kAllpassFeedback) + s[k]);
            s[k] = psynth_wrap32((int64_t)b - s[k]);
        }
        index += stretch;
        if (index >= f->length) index = 0;
        i += stretch;
    }
    f->index = index;
}

// Wet sum plus dry input for one frame: ((sum >> 6) × wet + input × dry) / 256, each toward zero.
inline int32_t mix(int32_t sum, int32_t wet, psynth_sample dry_in, int32_t dry) {
    return psynth_wrap32((int64_t)psynth_gain32(sum >> kSumShift, wet) + psynth_gain32(dry_in, dry));
}

intptr_t render(int mod_num, reverb_data* d, psynth_net* net) {
    psynth_module* mod = &net->modules[mod_num];
    if (!psynth_effect_has_buffers(mod) || !d->block) return 0;
    int mode = d->ctl[CTL_MODE];
    bool mono = mode == MODE_HQ_MONO || mode == MODE_LQ_MONO;
    psynth_set_number_of_outputs(mod_num, mono ? 1 : kChannels, net);
    int channels = psynth_get_number_of_outputs(mod_num, net) == kChannels ? kChannels : 1;
    if (!psynth_effect_has_buffers(mod, channels)) return 0;
    int from = mod->render_offset;
    int to = from + mod->render_frames;
    if (!psynth_effect_wake(psynth_effect_has_input(mod, channels, to), &d->silent)) return 0;
    if (d->params_changed) update_params(d);

    const psynth_sample* in[kChannels] = {};
    psynth_sample* out[kChannels] = {};
    for (int c = 0; c < channels; c++) {
        in[c] = psynth_effect_input(mod, c, from, to);
        out[c] = mod->output_buffers[c];
        psynth_dc_block_run(&d->dc[c], d->dc_coef, in[c], out[c], from, to);
    }
    const int n = to - from;
    int32_t* x = scratch(d, 0);
    if (channels == kChannels) {
        for (int i = 0; i < n; i++) x[i] = ((int32_t)out[0][from + i] + out[1][from + i]) / 2;
    } else {
        for (int i = 0; i < n; i++) x[i] = out[0][from + i];
    }
    const bool lq = mode == MODE_LQ || mode == MODE_LQ_MONO;
    const int stride = lq ? kLqStride : 1;
    int32_t* sum[kChannels] = {scratch(d, 1), scratch(d, 2)};
    for (int c = 0; c < channels; c++) {
        memset(sum[c], 0, sizeof(int32_t) * (size_t)n);
        combs_run(d, c * kCombsPerChannel, kCombsPerChannel / stride, stride, x, sum[c], n);
        for (int k = c * kAllpassesPerChannel; k < (c + 1) * kAllpassesPerChannel; k += stride) {
            allpass_run(&d->allpass[k], allpass_line(d, k), sum[c], n);
        }
    }

    const int32_t wet = lq ? d->ctl[CTL_WET] * 2 : d->ctl[CTL_WET];
    const int32_t dry = d->ctl[CTL_DRY];
    if (channels == 1) {
        for (int i = 0; i < n; i++) out[0][from + i] = psynth_wrap16(mix(sum[0][i], wet, in[0][from + i], dry));
        return 1;
    }
    const int32_t width = d->ctl[CTL_WIDTH];
    const int32_t w = width / 2 + PSYNTH_GAIN_UNITY / 2;
    for (int i = 0; i < n; i++) {
        int32_t l = mix(sum[0][i], wet, in[0][from + i], dry);
        int32_t r = mix(sum[1][i], wet, in[1][from + i], dry);
        if (width < PSYNTH_GAIN_UNITY) {
            int32_t l2 = psynth_wrap32((int64_t)psynth_gain32(r, PSYNTH_GAIN_UNITY - w) + psynth_gain32(l, w));
            r = psynth_wrap32((int64_t)psynth_gain32(l, PSYNTH_GAIN_UNITY - w) + psynth_gain32(r, w));
            l = l2;
        }
        out[0][from + i] = psynth_wrap16(l);
        out[1][from + i] = psynth_wrap16(r);
    }
    return 1;
}

}  // namespace

intptr_t psynth_reverb(int mod_num, psynth_event* event, psynth_net* net) {
    switch (event->command) {
    case PS_CMD_GET_DATA_SIZE: return kDataSize;
    case PS_CMD_GET_SYNTH_NAME: return (intptr_t) "Reverb";
    case PS_CMD_GET_SYNTH_INFO: return (intptr_t) "Reverb + DC Blocking Filter.\n(Based on FreeVerb)";
    case PS_CMD_GET_SYNTH_COLOR: return (intptr_t) "#FFD37F";
    case PS_CMD_GET_INPUTS_NUM: return kChannels;
    case PS_CMD_GET_OUTPUTS_NUM: return kChannels;
    case PS_CMD_GET_FLAGS: return PSYNTH_FLAG_EFFECT;
    default: break;
    }
    reverb_data* d = psynth_module_data<reverb_data>(mod_num, net);
    if (!d) return 0;
    switch (event->command) {
    case PS_CMD_INIT:
        init(mod_num, d, net);
        return 1;
    case PS_CMD_SETUP_FINISHED:
        d->params_changed = 1;  // controller values may have been loaded directly
        return 1;
    case PS_CMD_CLEAN:
        clear_states(d);
        return 1;
    case PS_CMD_RENDER_REPLACE: return render(mod_num, d, net);
    case PS_CMD_SET_LOCAL_CONTROLLER:
    case PS_CMD_SET_GLOBAL_CONTROLLER:
        d->params_changed = 1;
        return 0;  // the net stores the value
    case PS_CMD_CLOSE:
        mem_free(d->block);
        d->block = nullptr;
        return 1;
    default: return 0;
    }
}
