// Amplifier: the utility gain stage of the net. Volume, a fine volume and a coarse gain
// multiply together; balance, stereo width, absolute value, inversion and a DC offset
// shape the stereo pair on the way. It has no state, so silence in gives silence out.
//
// | # | name           | units    | min | max   | default | kind     |
// |---|----------------|----------|-----|-------|---------|----------|
// | 0 | "Volume"       | ""       | 0   | 1024  | 256     | number   |
// | 1 | "Balance"      | ""       | 0   | 256   | 128     | number   |
// | 2 | "DC offset"    | ""       | 0   | 256   | 128     | number   |
// | 3 | "Inverse"      | "off/on" | 0   | 1     | 0       | selector |
// | 4 | "Stereo width" | ""       | 0   | 512   | 256     | number   |
// | 5 | "Absolute"     | "off/on" | 0   | 1     | 0       | selector |
// | 6 | "Fine volume"  | ""       | 0   | 32768 | 32768   | number   |
// | 7 | "Gain"         | ""       | 1   | 256   | 1       | number   |
//
// Order per frame: width (mid/side: 0 mono, 256 as is, 512 twice the side), then
// Volume/256 × Gain × balance/256 × Fine volume/32768 as one product brought back toward
// zero, then absolute value, then inversion (both on give −|x|), then the DC offset
// ((value − 128) × 32: ±full scale), and the result saturates at the 16-bit range rather
// than wrapping, so that a boosted signal clips as a musician expects. Balance 128 leaves
// both sides at unity; below it the right side falls to 0 at 0, above it the left side
// falls to 0 at 256. Without input the module stays silent: the DC offset needs a signal.
#include <cstdint>

#include "psynth/effect_io.h"
#include "psynth/psynth_dsp.h"
#include "psynth/psynth_modules.h"

namespace {

constexpr int kChannels = 2;
constexpr int kFineShift = 15;                  // "Fine volume" 32768 is unity
constexpr int kProductShift = 2 * PSYNTH_GAIN_SHIFT + kFineShift;  // volume and balance /256, fine /32768
constexpr int kBalanceCenter = 128;
constexpr int kOffsetCenter = 128;
constexpr int kOffsetStep = PSYNTH_FULL_SCALE / kOffsetCenter;  // 128 steps reach full scale
constexpr int kWidthShift = PSYNTH_GAIN_SHIFT + 1;               // mid × 256 + side × width, / 512

enum amplifier_ctl : int {
    CTL_VOLUME, CTL_BALANCE, CTL_DC_OFFSET, CTL_INVERSE, CTL_WIDTH, CTL_ABSOLUTE, CTL_FINE, CTL_GAIN, CTL_COUNT
};

struct amplifier_data {
    int ctl[CTL_COUNT];
};

void init(int mod_num, amplifier_data* d, psynth_net* net) {
    int* v = d->ctl;
    psynth_register_ctl(mod_num, "Volume", "", 0, 1024, 256, PSYNTH_CTL_NUMBER, &v[CTL_VOLUME], net);
    psynth_register_ctl(mod_num, "Balance", "", 0, 256, 128, PSYNTH_CTL_NUMBER, &v[CTL_BALANCE], net);
    psynth_register_ctl(mod_num, "DC offset", "", 0, 256, 128, PSYNTH_CTL_NUMBER, &v[CTL_DC_OFFSET], net);
    psynth_register_ctl(mod_num, "Inverse", "off/on", 0, 1, 0, PSYNTH_CTL_SELECTOR, &v[CTL_INVERSE], net);
    psynth_register_ctl(mod_num, "Stereo width", "", 0, 512, 256, PSYNTH_CTL_NUMBER, &v[CTL_WIDTH], net);
    psynth_register_ctl(mod_num, "Absolute", "off/on", 0, 1, 0, PSYNTH_CTL_SELECTOR, &v[CTL_ABSOLUTE], net);
    psynth_register_ctl(mod_num, "Fine volume", "", 0, 32768, 32768, PSYNTH_CTL_NUMBER, &v[CTL_FINE], net);
    psynth_register_ctl(mod_num, "Gain", "", 1, 256, 1, PSYNTH_CTL_NUMBER, &v[CTL_GAIN], net);
}

// The side gains of a balance value: both 256 at the centre, one side falling to 0.
void balance_gains(int balance, int32_t gain[kChannels]) {
    gain[0] = balance <= kBalanceCenter ? PSYNTH_GAIN_UNITY : (PSYNTH_GAIN_UNITY - balance) * 2;
    gain[1] = balance >= kBalanceCenter ? PSYNTH_GAIN_UNITY : balance * 2;
}

// One channel's sample after the gains, absolute value, inversion and offset.
inline psynth_sample shape(int32_t x, int64_t multiplier, bool absolute, bool inverse, int32_t offset) {
    int64_t y = psynth_shr_toward_zero(x * multiplier, kProductShift);
    if (absolute && y < 0) y = -y;
    if (inverse) y = -y;
    return psynth_saturate16(y + offset);
}

intptr_t render(int mod_num, amplifier_data* d, psynth_net* net) {
    psynth_module* mod = &net->modules[mod_num];
    if (!psynth_effect_has_buffers(mod, kChannels)) return 0;
    int from = mod->render_offset;
    int to = from + mod->render_frames;
    if (!psynth_effect_has_input(mod, kChannels, to)) return 0;
    const psynth_sample* l_in = psynth_effect_input(mod, 0, from, to);
    const psynth_sample* r_in = psynth_effect_input(mod, 1, from, to);
    psynth_sample* l_out = mod->output_buffers[0];
    psynth_sample* r_out = mod->output_buffers[1];

    int32_t balance[kChannels];
    balance_gains(d->ctl[CTL_BALANCE], balance);
    const int64_t common = (int64_t)d->ctl[CTL_VOLUME] * d->ctl[CTL_GAIN] * d->ctl[CTL_FINE];
    // At most 2^41, so a sample (widened to 18 bits by the width) times it fits 64 bits.
    const int64_t ml = common * balance[0];
    const int64_t mr = common * balance[1];
    const bool absolute = d->ctl[CTL_ABSOLUTE] != 0;
    const bool inverse = d->ctl[CTL_INVERSE] != 0;
    const int32_t offset = (d->ctl[CTL_DC_OFFSET] - kOffsetCenter) * kOffsetStep;
    const int32_t width = d->ctl[CTL_WIDTH];
    for (int i = from; i < to; i++) {
        int32_t l = l_in[i], r = r_in[i];
        if (width != PSYNTH_GAIN_UNITY) {
            int32_t mid = (l + r) * PSYNTH_GAIN_UNITY, side = (l - r) * width;
            l = (int32_t)psynth_shr_toward_zero(mid + side, kWidthShift);
            r = (int32_t)psynth_shr_toward_zero(mid - side, kWidthShift);
        }
        l_out[i] = shape(l, ml, absolute, inverse, offset);
        r_out[i] = shape(r, mr, absolute, inverse, offset);
    }
    return 1;
}

}  // namespace

intptr_t psynth_amplifier(int mod_num, psynth_event* event, psynth_net* net) {
    switch (event->command) {
    case PS_CMD_GET_DATA_SIZE: return sizeof(amplifier_data);
    case PS_CMD_GET_SYNTH_NAME: return (intptr_t) "Amplifier";
    case PS_CMD_GET_SYNTH_INFO:
        return (intptr_t) "Amplifier.\nVolume, balance, DC offset,\ninversion, stereo width\nand absolute value";
    case PS_CMD_GET_SYNTH_COLOR: return (intptr_t) "#FFEE7F";
    case PS_CMD_GET_INPUTS_NUM: return kChannels;
    case PS_CMD_GET_OUTPUTS_NUM: return kChannels;
    case PS_CMD_GET_FLAGS: return PSYNTH_FLAG_EFFECT;
    default: break;
    }
    amplifier_data* d = psynth_module_data<amplifier_data>(mod_num, net);
    if (!d) return 0;
    switch (event->command) {
    case PS_CMD_INIT:
        init(mod_num, d, net);
        return 1;
    case PS_CMD_CLEAN: return 1;
    case PS_CMD_RENDER_REPLACE: return render(mod_num, d, net);
    case PS_CMD_CLOSE: return 1;
    default: return 0;
    }
}
