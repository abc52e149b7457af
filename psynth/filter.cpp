// Filter: a state variable filter (Chamberlin form), stepped twice per sample in the
// HQ modes, with low/high/band-pass and notch outputs, cutoff, resonance and volume
// smoothed every 5 ms, a dry/wet mix, an LFO on the cutoff and a one-shot "Impulse".
//
// | #  | name            | units                 | min | max   | default | kind     |
// |----|-----------------|-----------------------|-----|-------|---------|----------|
// | 0  | "Volume"        | ""                    | 0   | 256   | 256     | number   |
// | 1  | "Freq"          | "Hz"                  | 0   | 14000 | 14000   | number   |
// | 2  | "Resonance"     | ""                    | 0   | 1530  | 0       | number   |
// | 3  | "Type"          | "l/h/b/n"             | 0   | 3     | 0       | selector |
// | 4  | "Response"      | ""                    | 0   | 256   | 256     | number   |
// | 5  | "Mode"          | "HQ/HQmono/LQ/LQmono" | 0   | 3     | 0       | selector |
// | 6  | "Impulse"       | "Hz"                  | 0   | 14000 | 0       | number   |
// | 7  | "Mix"           | ""                    | 0   | 256   | 256     | number   |
// | 8  | "LFO freq"      | ""                    | 0   | 1024  | 8       | number   |
// | 9  | "LFO power"     | ""                    | 0   | 256   | 0       | number   |
// | 10 | "Set LFO phase" | ""                    | 0   | 256   | 0       | number   |
//
// The LQ modes take the HQ coefficient of half the frequency but step once per sample,
// so their cutoff lies an octave below the HQ cutoff for the same "Freq"; this is the
// module's sound and stays. A falling volume follows "Response", a rising one is reached
// within one control step whatever the response; this asymmetry is also intended.
// After its input falls silent the filter rings out for one second, then is silent.
// Rounding: products of a sample or state and a coefficient or gain are brought back
// toward zero; a plain value shifted down (the term >> 5, the HQ sum >> 6) is floored.
#include <cstdint>

#include "psynth/effect_io.h"
#include "psynth/psynth_dsp.h"
#include "psynth/psynth_modules.h"
#include "psynth/psynth_tables.h"

namespace {

constexpr int kDataSize = 100;
constexpr int kChannels = 2;
constexpr int kFreqMax = 14000;
constexpr int kResMax = 1530;
constexpr int kSmoothShift = 8;         // smoothed values are held × 256
constexpr int kControlRateDivisor = 200;  // a control step is 5 ms
constexpr int kCoefShift = 10;          // f and q are in 1/1024
constexpr int kCoefMax = 1023;
constexpr int kTwoPi1024 = 6433;        // 2π × 1024
constexpr int kCoefFracShift = 15;
constexpr int kDampUnity = 1536;        // q = 1536 − resonance
constexpr int kInputShift = 5;          // x = input × 32 inside the filter
constexpr int kHqSumShift = 6;          // two half-step terms, each × 32
constexpr int kLfoPhaseMask = 0x1FFF;   // 8192 steps per LFO period
constexpr int kLfoHalf = 4096;
constexpr int kLfoTableShift = 4;       // phase → half-sine entry
constexpr int kLfoTableMask = 255;
constexpr int kLfoSwing = 7000;         // half of the 0..14000 range
constexpr int kLfoEventShift = 2;       // "Set LFO phase" event value 0..32768 → 0..8191

enum filter_ctl : int {
    CTL_VOLUME,
    CTL_FREQ,
    CTL_RESONANCE,
    CTL_TYPE,
    CTL_RESPONSE,
    CTL_MODE,
    CTL_IMPULSE,
    CTL_MIX,
    CTL_LFO_FREQ,
    CTL_LFO_POWER,
    CTL_LFO_PHASE,
    CTL_COUNT
};
enum filter_type : int { TYPE_LOW, TYPE_HIGH, TYPE_BAND, TYPE_NOTCH };
enum filter_mode : int { MODE_HQ, MODE_HQ_MONO, MODE_LQ, MODE_LQ_MONO };

struct filter_channel {
    int32_t band;
    int32_t low;
    int32_t term;  // the output term after the previous frame's second half-step (HQ)
};

// The shared half-sine table is read through psynth_get_half_sine_table(), not kept
// in the record, so that the record fits its 100 bytes with 64-bit pointers.
struct filter_data {
    int ctl[CTL_COUNT];
    filter_channel ch[kChannels];
    int32_t step_frames;  // frames rendered since the last smoothing step
    int32_t lfo_phase;    // 0..8191
    int32_t volume;       // smoothed, × 256
    int32_t freq;
    int32_t resonance;
    int32_t tail;         // frames rendered since the input fell silent
    int32_t tail_length;  // one second
};
static_assert(sizeof(filter_data) <= kDataSize, "the Filter's state fits its private data size");

void clear_states(filter_data* d) {
    for (filter_channel& c : d->ch) c = filter_channel{};
    d->step_frames = 0;
    d->tail = d->tail_length;
}

void init(int mod_num, filter_data* d, psynth_net* net) {
    int* v = d->ctl;
    psynth_register_ctl(mod_num, "Volume", "", 0, 256, 256, PSYNTH_CTL_NUMBER, &v[CTL_VOLUME], net);
    psynth_register_ctl(mod_num, "Freq", "Hz", 0, kFreqMax, kFreqMax, PSYNTH_CTL_NUMBER, &v[CTL_FREQ], net);
    psynth_register_ctl(mod_num, "Resonance", "", 0, kResMax, 0, PSYNTH_CTL_NUMBER, &v[CTL_RESONANCE], net);
    psynth_register_ctl(mod_num, "Type", "l/h/b/n", 0, 3, 0, PSYNTH_CTL_SELECTOR, &v[CTL_TYPE], net);
    psynth_register_ctl(mod_num, "Response", "", 0, 256, 256, PSYNTH_CTL_NUMBER, &v[CTL_RESPONSE], net);
    psynth_register_ctl(mod_num, "Mode", "HQ/HQmono/LQ/LQmono", 0, 3, 0, PSYNTH_CTL_SELECTOR, &v[CTL_MODE], net);
    psynth_register_ctl(mod_num, "Impulse", "Hz", 0, kFreqMax, 0, PSYNTH_CTL_NUMBER, &v[CTL_IMPULSE], net);
    psynth_register_ctl(mod_num, "Mix", "", 0, 256, 256, PSYNTH_CTL_NUMBER, &v[CTL_MIX], net);
    psynth_register_ctl(mod_num, "LFO freq", "", 0, 1024, 8, PSYNTH_CTL_NUMBER, &v[CTL_LFO_FREQ], net);
    psynth_register_ctl(mod_num, "LFO power", "", 0, 256, 0, PSYNTH_CTL_NUMBER, &v[CTL_LFO_POWER], net);
    psynth_register_ctl(mod_num, "Set LFO phase", "", 0, 256, 0, PSYNTH_CTL_NUMBER, &v[CTL_LFO_PHASE], net);
    d->volume = 256 << kSmoothShift;
    d->freq = kFreqMax << kSmoothShift;
    d->resonance = 0;
    d->lfo_phase = 0;
    d->tail_length = net->sampling_rate;
    clear_states(d);
}

// The cutoff the smoothing moves toward: "Freq", swung by the LFO and slid so that the
// swing stays inside 0..14000.
int32_t target_freq(const filter_data* d) {
    int32_t f = d->ctl[CTL_FREQ];
    int32_t power = d->ctl[CTL_LFO_POWER];
    if (power == 0) return f;
    const uint8_t* table = psynth_get_half_sine_table();
    int32_t phase = d->lfo_phase;
    int32_t s = phase < kLfoHalf ? table[phase >> kLfoTableShift] : -table[(phase >> kLfoTableShift) & kLfoTableMask];
    int32_t depth = (power * kLfoSwing) >> 8;
    int32_t slide = 0;
    if (f - depth < 0) slide = depth - f;
    else if (f + depth > kFreqMax) slide = kFreqMax - (f + depth);
    int32_t swing = (int32_t)psynth_shr_toward_zero(
        psynth_shr_toward_zero((int64_t)s * kLfoSwing, 8) * power, 8);
    return f + swing + slide;
}

// One control step: frequency and resonance move by "Response" per step; the volume
// falls by "Response" but rises straight to its target.
void smoothing_step(filter_data* d, int32_t target) {
    int32_t r = d->ctl[CTL_RESPONSE];
    if (target != d->freq >> kSmoothShift) {
        d->freq = psynth_glide_toward(d->freq, target << kSmoothShift, r * kFreqMax);
    }
    int32_t res = d->ctl[CTL_RESONANCE];
    if (res != d->resonance >> kSmoothShift) {
        d->resonance = psynth_glide_toward(d->resonance, res << kSmoothShift, r * kResMax);
    }
    int32_t vol = d->ctl[CTL_VOLUME];
    if (vol < d->volume >> kSmoothShift) {
        d->volume = psynth_glide_toward(d->volume, vol << kSmoothShift, r << kSmoothShift);
    } else if (vol > d->volume >> kSmoothShift) {
        d->volume = psynth_glide_toward(d->volume, vol << kSmoothShift, vol << kSmoothShift);
    }
}

// The output term of the filter type after a step.
inline int32_t type_term(int type, int32_t low, int32_t high, int32_t band) {
    switch (type) {
    case TYPE_LOW: return low;
    case TYPE_HIGH: return high;
    case TYPE_BAND: return band;
    default: return (int32_t)((int64_t)high + low);  // wraps at 32 bits like every state
    }
}

// One Chamberlin step on x (products in 1/1024, toward zero; states wrap at 32 bits).
inline int32_t svf_step(int32_t x, int32_t f, int32_t q, int32_t* low, int32_t* band) {
    int32_t l = (int32_t)(*low + psynth_shr_toward_zero((int64_t)f * *band, kCoefShift));
    int32_t h = (int32_t)(x - psynth_shr_toward_zero((int64_t)q * *band, kCoefShift) - l);
    *band = (int32_t)(*band + psynth_shr_toward_zero((int64_t)f * h, kCoefShift));
    *low = l;
    return h;
}

// Filters one channel over [from, to) with the piece's coefficients and gains.
void filter_piece(filter_channel* st, bool hq, int type, int32_t f, int32_t q, int32_t wet,
                  int32_t dry, const psynth_sample* in, psynth_sample* out, int from, int to) {
    int32_t low = st->low, band = st->band, saved = st->term;
    for (int i = from; i < to; i++) {
        int32_t x = in[i] * (1 << kInputShift);
        int32_t o;
        if (hq) {
            int32_t previous = type == TYPE_LOW ? low : type == TYPE_BAND ? band : saved;
            int32_t h = svf_step(x, f, q, &low, &band);
            int32_t sum = (int32_t)((int64_t)type_term(type, low, h, band) + previous);
            h = svf_step(x, f, q, &low, &band);
            saved = type_term(type, low, h, band);
            o = (int32_t)psynth_shr_toward_zero((int64_t)(sum >> kHqSumShift) * wet, 8);
        } else {
            int32_t h = svf_step(x, f, q, &low, &band);
            int32_t term = type_term(type, low, h, band);
            o = (int32_t)psynth_shr_toward_zero((int64_t)(term >> kInputShift) * wet, 8);
        }
        if (dry) o += psynth_apply_gain(in[i], dry);
        out[i] = psynth_wrap16(o);
    }
    st->low = low;
    st->band = band;
    st->term = saved;
}

intptr_t render(int mod_num, filter_data* d, psynth_net* net) {
    psynth_module* mod = &net->modules[mod_num];
    if (!psynth_effect_has_buffers(mod)) return 0;
    int mode = d->ctl[CTL_MODE];
    int channels = (mode == MODE_HQ_MONO || mode == MODE_LQ_MONO) ? 1 : kChannels;
    psynth_set_number_of_outputs(mod_num, channels, net);
    int from = mod->render_offset;
    int to = from + mod->render_frames;
    int inputs = psynth_get_number_of_inputs(mod_num, net);
    if (inputs >= 1 && psynth_effect_has_input(mod, inputs, to)) {
        d->tail = 0;
    } else if (d->tail < d->tail_length) {
        d->tail += to - from;
    } else {
        return 0;
    }
    if (d->ctl[CTL_IMPULSE] != 0) {
        d->freq = d->ctl[CTL_IMPULSE] << kSmoothShift;
        d->ctl[CTL_IMPULSE] = 0;
    }
    const psynth_sample* in[kChannels] = {};
    for (int c = 0; c < channels; c++) {
        if (!mod->input_buffers[c] || !mod->output_buffers[c]) return 0;
        in[c] = psynth_effect_input(mod, c, from, to);
    }

    const int rate = net->sampling_rate;
    const int step_length = rate / kControlRateDivisor > 0 ? rate / kControlRateDivisor : 1;
    const bool hq = mode == MODE_HQ || mode == MODE_HQ_MONO;
    int i = from;
    while (i < to) {
        int n = step_length - d->step_frames;
        if (n > to - i) n = to - i;
        if (n < 1) n = 1;
        int32_t target = target_freq(d);
        int32_t f = hq ? (int32_t)(((int64_t)(((d->freq >> 8) << kCoefFracShift) / (rate * 2)) * kTwoPi1024) >> kCoefFracShift)
                       : (int32_t)(((int64_t)(((d->freq >> 9) << kCoefFracShift) / rate) * kTwoPi1024) >> kCoefFracShift);
        if (f > kCoefMax) f = kCoefMax;
        int32_t q = kDampUnity - (d->resonance >> kSmoothShift);
        int32_t v = d->volume >> kSmoothShift;
        int32_t mix = d->ctl[CTL_MIX];
        int32_t wet = (v * mix) >> 8;
        for (int c = 0; c < channels; c++) {
            psynth_sample* out = mod->output_buffers[c];
            if (mix == 0) {
                for (int k = i; k < i + n; k++) out[k] = psynth_apply_gain(in[c][k], v);
                continue;
            }
            int32_t dry = mix < 256 ? ((256 - mix) * v) >> 8 : 0;
            filter_piece(&d->ch[c], hq, d->ctl[CTL_TYPE], f, q, wet, dry, in[c], out, i, i + n);
        }
        i += n;
        d->step_frames += n;
        if (d->step_frames >= step_length) {
            d->step_frames = 0;
            smoothing_step(d, target);
            d->lfo_phase = (d->lfo_phase + d->ctl[CTL_LFO_FREQ]) & kLfoPhaseMask;
        }
    }
    return 1;
}

}  // namespace

intptr_t psynth_filter(int mod_num, psynth_event* event, psynth_net* net) {
    switch (event->command) {
    case PS_CMD_GET_DATA_SIZE: return kDataSize;
    case PS_CMD_GET_SYNTH_NAME: return (intptr_t) "Filter";
    case PS_CMD_GET_SYNTH_INFO:
        return (intptr_t) "State Variable Filter\n(Chamberlin version)\nDouble Sampled\n\n"
                          "Use low \"response\" values\nfor smooth frequency, resonance\nor volume change";
    case PS_CMD_GET_SYNTH_COLOR: return (intptr_t) "#7FD9FF";
    case PS_CMD_GET_INPUTS_NUM: return kChannels;
    case PS_CMD_GET_OUTPUTS_NUM: return kChannels;
    case PS_CMD_GET_FLAGS: return PSYNTH_FLAG_EFFECT;
    default: break;
    }
    filter_data* d = psynth_module_data<filter_data>(mod_num, net);
    if (!d) return 0;
    switch (event->command) {
    case PS_CMD_INIT:
        init(mod_num, d, net);
        return 1;
    case PS_CMD_CLEAN:
        clear_states(d);
        return 1;
    case PS_CMD_RENDER_REPLACE: return render(mod_num, d, net);
    case PS_CMD_SET_GLOBAL_CONTROLLER:
        if ((uint16_t)event->note == CTL_LFO_PHASE) {
            d->lfo_phase = (event->velocity >> kLfoEventShift) & kLfoPhaseMask;
        }
        return 0;  // the net stores the value as well
    case PS_CMD_CLOSE: return 1;
    default: return 0;
    }
}
