// Compressor: a stereo dynamic range compressor. The sound passes through a 1 ms
// look-ahead line while its level is measured (peak or RMS) over 1 ms periods; at the end
// of each period a gain is chosen and reached by a per-frame glide over the next period.
//
// | # | name               | units | min | max  | default | kind     |
// |---|--------------------|-------|-----|------|---------|----------|
// | 0 | "Volume"           | ""    | 0   | 512  | 256     | number   |
// | 1 | "Threshold"        | ""    | 0   | 512  | 256     | number   |
// | 2 | "Slope"            | "%"   | 0   | 200  | 100     | number   |
// | 3 | "Attack"           | "ms"  | 0   | 500  | 1       | number   |
// | 4 | "Release"          | "ms"  | 1   | 1000 | 300     | number   |
// | 5 | "Peak/RMS"         | ""    | 0   | 1    | 0       | selector |
// | 6 | "Side chain input" | ""    | 0   | 32   | 0       | selector |
//
// The reduction is linear in amplitude: above the threshold (256 = level 1.0, a sample of
// 4096) the gain falls by "Slope" per cent of the excess, so "Slope" 100 silences a level
// twice the threshold of 256. "Side chain input" n (1..number of linked modules) measures
// the n-th linked module instead of the input and leaves it out of what is heard.
// Rounding: the output products are floored shifts ((x × Volume) >> 8, gain >> 12, >> 12);
// the gain target is truncated to 2^24 units and its increment divided toward zero.
#include <cmath>
#include <cstdint>
#include <cstring>

#include "psynth/delay_line.h"
#include "psynth/effect_io.h"
#include "psynth/psynth_dsp.h"
#include "psynth/psynth_modules.h"

namespace {

constexpr int kDataSize = 4192;  // the private data size every saved Compressor expects
constexpr int kChannels = 2;
constexpr int kRingSize = 512;               // look-ahead line per channel (power of two)
constexpr int kRingMask = kRingSize - 1;
constexpr int kHistorySize = 2048;           // level and gain bytes kept for the plot
constexpr int kSubframeBits = 8;             // the period is counted in 1/256 frame
constexpr int kSubframes = 1 << kSubframeBits;
constexpr int kMsPerSecond = 1000;
constexpr int kGainBits = 24;                // the gain: 2^24 = unity
constexpr int32_t kGainUnity = 1 << kGainBits;
constexpr int kGainMultiplierShift = 12;     // gain >> 12: unity 4096 as the sample multiplier
constexpr int kProductShift = 12;            // sample × multiplier >> 12
constexpr int kVolumeShift = 8;              // "Volume" 256 = unity
constexpr float kLevelOne = 4096.0f;         // the sample value of level 1.0
constexpr float kThresholdOne = 256.0f;      // the "Threshold" value of level 1.0
constexpr float kPercent = 0.01f;            // "Slope" is in per cent
constexpr float kHistoryOne = 128.0f;        // a history byte of 128 is 1.0
constexpr int kHistoryMax = 255;
constexpr int kTimeTableSize = 1001;         // smoothing coefficients for 0..1000 ms

enum compressor_ctl : int {
    CTL_VOLUME, CTL_THRESHOLD, CTL_SLOPE, CTL_ATTACK, CTL_RELEASE, CTL_MODE, CTL_SIDE_CHAIN, CTL_COUNT
};

struct compressor_data {
    int ctl[CTL_COUNT];
    int32_t period;       // 1 ms in 1/256 frame (at least one frame)
    int32_t position;     // 1/256 frame into the current period
    int32_t delay;        // the look-ahead: rate ÷ 1000 frames
    int32_t write_index;  // shared by both lines, kept within the ring
    int32_t peak;         // detector: the largest |x| of the period
    int32_t count;        // detector: values summed in `sum`
    int64_t sum;          // detector: the sum of x² of the period
    float level;          // the smoothed level E, 1.0 = a sample of 4096
    int32_t gain;         // 2^24 = unity
    int32_t gain_inc;     // added every frame
    psynth_sample* rings; // both look-ahead lines in one block (delay_line.h)
    int32_t history_index;
    uint8_t silent;       // set until an input sounds (again after CLEAN)
    uint8_t history_level[kHistorySize];  // min(255, round(E × 128)) per period
    uint8_t history_gain[kHistorySize];   // min(255, round(g × 128)) per period
};
static_assert(sizeof(compressor_data) <= kDataSize, "the Compressor's state fits its private data size");

// Entry i: the share of the old level kept per 1 ms period for a time constant of i ms,
// exp(−1/i); entry 0 keeps nothing. Built once, on the first INIT (thread-safe static).
const float* time_table() {
    static const struct table {
        float v[kTimeTableSize];
        table() {
            v[0] = 0.0f;
            for (int i = 1; i < kTimeTableSize; i++) v[i] = (float)std::exp(-1.0 / i);
        }
    } t;
    return t.v;
}

// Detector, level and gain back to rest; the gain is unity, not 0.
void clear_states(compressor_data* d) {
    psynth_delay_line_clear(d->rings);
    d->position = 0;
    d->write_index = 0;
    d->peak = 0;
    d->count = 0;
    d->sum = 0;
    d->level = 0.0f;
    d->gain = kGainUnity;
    d->gain_inc = 0;
    d->silent = 1;
}

void init(int mod_num, compressor_data* d, psynth_net* net) {
    int* v = d->ctl;
    psynth_register_ctl(mod_num, "Volume", "", 0, 512, 256, PSYNTH_CTL_NUMBER, &v[CTL_VOLUME], net);
    psynth_register_ctl(mod_num, "Threshold", "", 0, 512, 256, PSYNTH_CTL_NUMBER, &v[CTL_THRESHOLD], net);
    psynth_register_ctl(mod_num, "Slope", "%", 0, 200, 100, PSYNTH_CTL_NUMBER, &v[CTL_SLOPE], net);
    psynth_register_ctl(mod_num, "Attack", "ms", 0, 500, 1, PSYNTH_CTL_NUMBER, &v[CTL_ATTACK], net);
    psynth_register_ctl(mod_num, "Release", "ms", 1, 1000, 300, PSYNTH_CTL_NUMBER, &v[CTL_RELEASE], net);
    psynth_register_ctl(mod_num, "Peak/RMS", "", 0, 1, 0, PSYNTH_CTL_SELECTOR, &v[CTL_MODE], net);
    psynth_register_ctl(mod_num, "Side chain input", "", 0, 32, 0, PSYNTH_CTL_SELECTOR, &v[CTL_SIDE_CHAIN], net);
    time_table();
    int64_t period = (int64_t)net->sampling_rate * kSubframes / kMsPerSecond;
    d->period = period < kSubframes ? kSubframes : (int32_t)period;
    int32_t delay = net->sampling_rate / kMsPerSecond;
    d->delay = delay < 0 ? 0 : delay > kRingMask ? kRingMask : delay;  // 1 ms fits the ring below 512 kHz
    d->rings = psynth_delay_line_new(kRingSize, "psynth_compressor");
    clear_states(d);
    memset(d->history_level, 0, sizeof(d->history_level));
    memset(d->history_gain, 0, sizeof(d->history_gain));
    d->history_index = 0;
}

// ---- Side chain ----

// Rebuilds the heard input over [from, to) from every linked module except `side`: the
// first with sound is copied (zeros before its start), the rest are added. True when
// one of them sounds there.
bool rebuild_input(psynth_module* mod, int side, int from, int to, const psynth_net* net) {
    bool sounds = false;
    for (int c = 0; c < kChannels; c++) {
        psynth_sample* in = mod->input_buffers[c];
        bool first = true;
        for (int i = 0; i < mod->input_links_capacity; i++) {
            int src = mod->input_links[i];
            if (src == side || !psynth_linked_module_exists(src, net)) continue;
            int start;
            const psynth_sample* out = psynth_source_output(&net->modules[src], c, &start);
            if (!out || start >= to) continue;
            int f = start > from ? start : from;
            if (first) {
                if (f > from) memset(in + from, 0, sizeof(psynth_sample) * (size_t)(f - from));
                memcpy(in + f, out + f, sizeof(psynth_sample) * (size_t)(to - f));
                first = false;
            } else {
                for (int k = f; k < to; k++) in[k] = psynth_add_wrap(in[k], out[k]);
            }
        }
        if (first) memset(in + from, 0, sizeof(psynth_sample) * (size_t)(to - from));
        sounds |= !first;
    }
    return sounds;
}

// ---- Rendering ----

// The signal the detector measures on one channel: values before `start` count as 0.
struct measured_channel {
    const psynth_sample* buf;  // null: silence
    int start;
};

// One piece [from, to) inside a period: each channel enters its line, leaves it 1 ms
// later scaled by the gliding gain, and its measured signal feeds the detector.
void run_piece(compressor_data* d, const psynth_sample* const in[], const measured_channel ms[],
               psynth_sample* const out[], int from, int to) {
    const int32_t volume = d->ctl[CTL_VOLUME];
    const int32_t delay = d->delay;
    const int32_t inc = d->gain_inc;
    const bool rms = d->ctl[CTL_MODE] != 0;
    int32_t peak = d->peak, count = d->count;
    int64_t sum = d->sum;
    int32_t end_index = d->write_index, end_gain = d->gain;
    for (int c = 0; c < kChannels; c++) {
        psynth_sample* ring = psynth_delay_line_channel(d->rings, kRingSize, c);
        const psynth_sample* x_in = in[c];
        psynth_sample* y = out[c];
        int32_t w = d->write_index, gain = d->gain;
        for (int i = from; i < to; i++) {
            ring[w] = x_in[i];
            int32_t x = ring[(w - delay) & kRingMask];
            // "Volume" 256 leaves x as it is, so one formula serves every volume.
            int32_t v = (x * volume) >> kVolumeShift;
            y[i] = psynth_wrap16((int32_t)(((int64_t)v * (gain >> kGainMultiplierShift)) >> kProductShift));
            gain = psynth_wrap32((int64_t)gain + inc);
            w = (w + 1) & kRingMask;
        }
        end_index = w;
        end_gain = gain;
        const measured_channel m = ms[c];
        int first = m.buf ? (m.start > from ? (m.start < to ? m.start : to) : from) : to;
        if (rms) {
            count += to - from;  // the silent values count too
            for (int i = first; i < to; i++) sum += (int32_t)m.buf[i] * m.buf[i];
        } else {
            for (int i = first; i < to; i++) {
                int32_t a = m.buf[i] < 0 ? -(int32_t)m.buf[i] : m.buf[i];
                if (a > peak) peak = a;
            }
        }
    }
    d->write_index = end_index;
    d->gain = end_gain;
    d->peak = peak;
    d->count = count;
    d->sum = sum;
}

// The end of a 1 ms period: the period's level, its smoothing, the new gain target and
// the increment that reaches it over the next period; one history entry.
void end_period(compressor_data* d) {
    const float* table = time_table();
    float level;
    if (d->ctl[CTL_MODE]) {
        uint64_t mean = d->count > 0 ? (uint64_t)d->sum / (uint64_t)d->count : 0;
        level = (float)psynth_isqrt64(mean) / kLevelOne;
    } else {
        level = (float)d->peak / kLevelOne;
    }
    d->peak = 0;
    d->sum = 0;
    d->count = 0;
    int ms = level > d->level ? d->ctl[CTL_ATTACK] : d->ctl[CTL_RELEASE];
    float c = table[ms < 0 ? 0 : ms >= kTimeTableSize ? kTimeTableSize - 1 : ms];
    float e = (1.0f - c) * level + c * d->level;
    d->level = e;
    float threshold = (float)d->ctl[CTL_THRESHOLD] / kThresholdOne;
    float g = 1.0f;
    if (e > threshold) {
        g = (threshold - e) * (float)d->ctl[CTL_SLOPE] * kPercent + 1.0f;
        if (g < 0.0f) g = 0.0f;
    }
    int32_t target = (int32_t)(g * (float)kGainUnity);
    int32_t frames = d->period >> kSubframeBits;
    d->gain_inc = (int32_t)(((int64_t)target - d->gain) / frames);
    long e_byte = std::lround(e * kHistoryOne), g_byte = std::lround(g * kHistoryOne);
    d->history_level[d->history_index] = (uint8_t)(e_byte > kHistoryMax ? kHistoryMax : e_byte);
    d->history_gain[d->history_index] = (uint8_t)(g_byte > kHistoryMax ? kHistoryMax : g_byte);
    d->history_index = (d->history_index + 1) % kHistorySize;
}

intptr_t render(int mod_num, compressor_data* d, psynth_net* net) {
    psynth_module* mod = &net->modules[mod_num];
    if (!d->rings) return 0;
    if (!psynth_effect_has_buffers(mod, kChannels)) return 0;
    const int from = mod->render_offset;
    const int to = from + mod->render_frames;
    const int side = psynth_nth_linked_module(mod, d->ctl[CTL_SIDE_CHAIN], net);

    const psynth_sample* in[kChannels];
    measured_channel measured[kChannels];
    bool sounds;
    if (side >= 0) {
        sounds = rebuild_input(mod, side, from, to, net);
        for (int c = 0; c < kChannels; c++) {
            in[c] = mod->input_buffers[c];
            measured[c].buf = psynth_source_output(&net->modules[side], c, &measured[c].start);
            if (measured[c].buf && measured[c].start < to) sounds = true;
        }
    } else {
        sounds = psynth_effect_has_input(mod, kChannels, to);
        for (int c = 0; c < kChannels; c++) {
            in[c] = psynth_effect_input(mod, c, from, to);
            measured[c] = {in[c], from};
        }
    }
    if (!psynth_effect_wake(sounds, &d->silent)) return 0;

    psynth_sample* const out[kChannels] = {mod->output_buffers[0], mod->output_buffers[1]};
    for (int done = from; done < to;) {
        int piece = (d->period - d->position + kSubframes - 1) >> kSubframeBits;
        if (piece < 1) piece = 1;
        if (piece > to - done) piece = to - done;
        run_piece(d, in, measured, out, done, done + piece);
        d->position += piece << kSubframeBits;
        if (d->position >= d->period) {
            d->position -= d->period;
            end_period(d);
        }
        done += piece;
    }
    return 1;
}

}  // namespace

intptr_t psynth_compressor(int mod_num, psynth_event* event, psynth_net* net) {
    switch (event->command) {
    case PS_CMD_GET_DATA_SIZE: return kDataSize;
    case PS_CMD_GET_SYNTH_NAME: return (intptr_t) "Compressor";
    case PS_CMD_GET_SYNTH_INFO: return (intptr_t) "Dynamic range compressor.\nThreshold 256 = 0 dB.";
    case PS_CMD_GET_SYNTH_COLOR: return (intptr_t) "#FF3000";
    case PS_CMD_GET_INPUTS_NUM: return kChannels;
    case PS_CMD_GET_OUTPUTS_NUM: return kChannels;
    case PS_CMD_GET_FLAGS: return PSYNTH_FLAG_EFFECT;
    default: break;
    }
    compressor_data* d = psynth_module_data<compressor_data>(mod_num, net);
    if (!d) return 0;
    switch (event->command) {
    case PS_CMD_INIT:
        init(mod_num, d, net);
        return 1;
    case PS_CMD_CLEAN:
        clear_states(d);
        return 1;
    case PS_CMD_RENDER_REPLACE: return render(mod_num, d, net);
    case PS_CMD_CLOSE:
        psynth_delay_line_free(d->rings);
        d->rings = nullptr;
        return 1;
    default: return 0;
    }
}

int psynth_compressor_history(int mod_num, psynth_compressor_view* view, psynth_net* net) {
    if (mod_num < 0 || mod_num >= net->slots || net->modules[mod_num].handler != psynth_compressor) return 1;
    const compressor_data* d = psynth_module_data<compressor_data>(mod_num, net);
    if (!d) return 1;
    *view = psynth_compressor_view{d->history_level, d->history_gain, kHistorySize, d->history_index};
    return 0;
}
