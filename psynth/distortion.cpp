// Distortion: drives the input into a waveshaper (hard clipping, soft saturation, wave
// folding or wrap-around at full scale), optionally with noise, then reduces the sample
// rate (sample and hold) and the bit depth, and sets the output volume.
//
// | # | name          | units                | min | max   | default | kind     |
// |---|---------------|----------------------|-----|-------|---------|----------|
// | 0 | "Volume"      | ""                   | 0   | 256   | 256     | number   |
// | 1 | "Type"        | "clip/sat/fold/wrap" | 0   | 3     | 0       | selector |
// | 2 | "Power"       | ""                   | 0   | 256   | 0       | number   |
// | 3 | "Bit depth"   | "bits"               | 1   | 16    | 16      | number   |
// | 4 | "Sample rate" | "Hz"                 | 1   | 48000 | 48000   | number   |
// | 5 | "Noise"       | ""                   | 0   | 256   | 0       | number   |
// | 6 | "Mono"        | "off/on"             | 0   | 1     | 0       | selector |
//
// Per frame: x × (1 + "Power" × 15/256) (up to × 16), plus noise of up to ±full scale,
// then the shaper, whose output always lies within the full scale −4096..4095:
//   clip — limited to the full scale; sat — v − 4v³/27 on v limited to ±1.5 × full scale
//   (unity slope for quiet sounds, flat at full scale); fold — reflected back at ±full
//   scale; wrap — wraps around from +full scale to −full scale.
// The held sample is renewed "Sample rate" times per second (every frame at 48000, the
// maximum, or at any value not below the net's rate). "Bit depth" b below 13 floors the
// sample to a multiple of 2^(13 − b), so that the full scale holds 2^b levels as a b-bit
// converter would; the net holds 13 bits per full scale, so 13..16 bits leave the sample
// as it is. "Volume" comes last (toward zero). Quiet sounds pass unchanged at the
// defaults. Without input it is silent; the noise restarts from the same seed at INIT
// and CLEAN.
#include <cstdint>

#include "engine/random.h"
#include "psynth/effect_io.h"
#include "psynth/psynth_dsp.h"
#include "psynth/psynth_modules.h"

namespace {

constexpr int kChannels = 2;
constexpr int kDriveSpan = 15;                      // "Power" 256 drives × 16
constexpr int kFullScale = PSYNTH_FULL_SCALE;
constexpr int kFullScaleBits = PSYNTH_FULL_SCALE_SHIFT + 1;  // −4096..4095: 13 bits
constexpr int kSatLimit = kFullScale * 3 / 2;       // the saturation curve is flat from 1.5 × full scale
constexpr int64_t kSatDivisor = 27LL << (2 * PSYNTH_FULL_SCALE_SHIFT);  // 4v³ / (27 × 4096²)
constexpr int kFoldPeriod = 4 * kFullScale;
constexpr int kPhaseShift = 16;                     // the hold phase counts 1/65536 of a frame
constexpr int kPhaseOne = 1 << kPhaseShift;
constexpr int kNoiseCenter = 16384;                 // tarvik_random gives 0..32767
constexpr int kNoiseShift = 10;                     // (r − 16384) × "Noise" >> 10: ±4096 at 256
constexpr uint32_t kNoiseSeed = 12345;
constexpr int kRateMax = 48000;                     // "Sample rate" at its maximum: no reduction

enum distortion_ctl : int { CTL_VOLUME, CTL_TYPE, CTL_POWER, CTL_BITS, CTL_RATE, CTL_NOISE, CTL_MONO, CTL_COUNT };
enum distortion_type : int { TYPE_CLIP, TYPE_SAT, TYPE_FOLD, TYPE_WRAP };

struct distortion_data {
    int ctl[CTL_COUNT];
    int32_t held[kChannels];  // the sample the hold keeps
    int32_t phase;            // of the hold, shared by both channels
    uint32_t seed;            // of the noise
    int32_t rate;
};

void clear_states(distortion_data* d) {
    for (int32_t& h : d->held) h = 0;
    d->phase = 0;
    d->seed = kNoiseSeed;
}

void init(int mod_num, distortion_data* d, psynth_net* net) {
    int* v = d->ctl;
    psynth_register_ctl(mod_num, "Volume", "", 0, 256, 256, PSYNTH_CTL_NUMBER, &v[CTL_VOLUME], net);
    psynth_register_ctl(mod_num, "Type", "clip/sat/fold/wrap", 0, 3, 0, PSYNTH_CTL_SELECTOR, &v[CTL_TYPE], net);
    psynth_register_ctl(mod_num, "Power", "", 0, 256, 0, PSYNTH_CTL_NUMBER, &v[CTL_POWER], net);
    psynth_register_ctl(mod_num, "Bit depth", "bits", 1, 16, 16, PSYNTH_CTL_NUMBER, &v[CTL_BITS], net);
    psynth_register_ctl(mod_num, "Sample rate", "Hz", 1, kRateMax, kRateMax, PSYNTH_CTL_NUMBER, &v[CTL_RATE], net);
    psynth_register_ctl(mod_num, "Noise", "", 0, 256, 0, PSYNTH_CTL_NUMBER, &v[CTL_NOISE], net);
    psynth_register_ctl(mod_num, "Mono", "off/on", 0, 1, 0, PSYNTH_CTL_SELECTOR, &v[CTL_MONO], net);
    d->rate = net->sampling_rate;
    clear_states(d);
}

// The waveshaper: any driven value into −4096..4095.
inline int32_t shape(int type, int32_t x) {
    switch (type) {
    case TYPE_SAT: {
        int64_t v = psynth_clamp(x, -kSatLimit, kSatLimit);
        x = (int32_t)(v - v * v * v * 4 / kSatDivisor);  // division toward zero: symmetric
        break;
    }
    case TYPE_FOLD: {
        int32_t m = (x + kFullScale) % kFoldPeriod;
        if (m < 0) m += kFoldPeriod;
        x = m < 2 * kFullScale ? m - kFullScale : 3 * kFullScale - m;
        break;
    }
    case TYPE_WRAP: return ((x + kFullScale) & (2 * kFullScale - 1)) - kFullScale;
    default: break;
    }
    return psynth_clamp(x, -kFullScale, kFullScale - 1);
}

struct distortion_params {
    int type;
    int32_t drive;        // 1/256
    int32_t noise;
    int32_t phase_step;   // of the hold; kPhaseOne or more: every frame
    int quantize_shift;   // 0: the bit depth is kept
    int32_t volume;
};

// One channel over [from, to); the hold's phase and the noise seed move on.
void distort(const distortion_params& p, int32_t* held, int32_t* phase, uint32_t* seed,
             const psynth_sample* in, psynth_sample* out, int from, int to) {
    int32_t h = *held, ph = *phase;
    for (int i = from; i < to; i++) {
        ph += p.phase_step;
        if (ph >= kPhaseOne) {
            ph &= kPhaseOne - 1;
            int32_t x = psynth_div256_toward_zero(in[i] * p.drive);
            if (p.noise) x += ((tarvik_random(seed) - kNoiseCenter) * p.noise) >> kNoiseShift;
            h = shape(p.type, x);
            h = (h >> p.quantize_shift) * (1 << p.quantize_shift);  // floored to the step
        }
        out[i] = psynth_apply_gain((psynth_sample)h, p.volume);
    }
    *held = h;
    *phase = ph;
}

intptr_t render(int mod_num, distortion_data* d, psynth_net* net) {
    psynth_module* mod = &net->modules[mod_num];
    int channels = psynth_effect_set_mono(mod_num, d->ctl[CTL_MONO] != 0, kChannels, net);
    if (!psynth_effect_has_buffers(mod, channels)) return 0;
    int from = mod->render_offset;
    int to = from + mod->render_frames;
    if (!psynth_effect_has_input(mod, channels, to)) return 0;

    distortion_params p;
    p.type = d->ctl[CTL_TYPE];
    p.drive = PSYNTH_GAIN_UNITY + d->ctl[CTL_POWER] * kDriveSpan;
    p.noise = d->ctl[CTL_NOISE];
    p.phase_step = d->ctl[CTL_RATE] >= d->rate || d->ctl[CTL_RATE] >= kRateMax ? kPhaseOne
                                               : (int32_t)(((int64_t)d->ctl[CTL_RATE] << kPhaseShift) / d->rate);
    p.quantize_shift = d->ctl[CTL_BITS] < kFullScaleBits ? kFullScaleBits - d->ctl[CTL_BITS] : 0;
    p.volume = d->ctl[CTL_VOLUME];
    int32_t end_phase = d->phase;
    for (int c = 0; c < channels; c++) {
        end_phase = d->phase;
        distort(p, &d->held[c], &end_phase, &d->seed, psynth_effect_input(mod, c, from, to),
                mod->output_buffers[c], from, to);
    }
    d->phase = end_phase;
    return 1;
}

}  // namespace

intptr_t psynth_distortion(int mod_num, psynth_event* event, psynth_net* net) {
    switch (event->command) {
    case PS_CMD_GET_DATA_SIZE: return sizeof(distortion_data);
    case PS_CMD_GET_SYNTH_NAME: return (intptr_t) "Distortion";
    case PS_CMD_GET_SYNTH_INFO:
        return (intptr_t) "Distortion.\nClipping, saturation, folding,\nbit depth and sample rate\nreduction, noise";
    case PS_CMD_GET_SYNTH_COLOR: return (intptr_t) "#FF7F7F";
    case PS_CMD_GET_INPUTS_NUM: return kChannels;
    case PS_CMD_GET_OUTPUTS_NUM: return kChannels;
    case PS_CMD_GET_FLAGS: return PSYNTH_FLAG_EFFECT;
    default: break;
    }
    distortion_data* d = psynth_module_data<distortion_data>(mod_num, net);
    if (!d) return 0;
    switch (event->command) {
    case PS_CMD_INIT:
        init(mod_num, d, net);
        return 1;
    case PS_CMD_CLEAN:
        clear_states(d);
        return 1;
    case PS_CMD_RENDER_REPLACE: return render(mod_num, d, net);
    case PS_CMD_CLOSE: return 1;
    default: return 0;
    }
}
