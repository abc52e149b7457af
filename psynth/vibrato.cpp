// Vibrato: pitch vibrato by a modulated delay. The input runs through a short line read
// at a delay that a sine LFO (lfo_wave.h) swings around a fixed centre; a delay that
// grows lowers the pitch, one that shrinks raises it.
//
// | # | name        | units    | min | max  | default | kind     |
// |---|-------------|----------|-----|------|---------|----------|
// | 0 | "Volume"    | ""       | 0   | 256  | 256     | number   |
// | 1 | "Amplitude" | ""       | 0   | 256  | 64      | number   |
// | 2 | "Freq"      | "Hz/100" | 0   | 2048 | 500     | number   |
// | 3 | "Mono"      | "off/on" | 0   | 1    | 0       | selector |
//
// "Amplitude" 256 swings the delay by ±1/128 second around a centre of 1/128 second and
// two frames; the centre never moves, so changing the amplitude does not bend the pitch
// and the signal is always late by the same 7.9 ms (at 44100 Hz). The pitch swing is
// ±(2π × freq × swing) of the frequency: the defaults (±86 frames at 5 Hz) give about
// ±6 %, a semitone. The reads are linearly interpolated between frames. "Mono" turns
// the module into one channel. Without input it renders one line length of tail.
#include <algorithm>
#include <cstdint>

#include "psynth/delay_line.h"
#include "psynth/effect_io.h"
#include "psynth/lfo_wave.h"
#include "psynth/psynth_dsp.h"
#include "psynth/psynth_modules.h"

namespace {

constexpr int kChannels = 2;
constexpr int kSwingDivisor = 128;  // the widest swing is 1/128 second either way
constexpr int kCentreMargin = 2;    // the shortest delay: two frames
constexpr int kLineMargin = 3;      // the interpolated read needs a frame beyond the longest delay

enum vibrato_ctl : int { CTL_VOLUME, CTL_AMPLITUDE, CTL_FREQ, CTL_MONO, CTL_COUNT };

struct vibrato_data {
    int ctl[CTL_COUNT];
    psynth_lfo_osc lfo;
    psynth_sample* line;  // both lines in one block (delay_line.h)
    int32_t length;       // samples per channel line
    int32_t position;     // write position, shared by both channels
    int32_t swing;        // the widest swing in frames (Amplitude 256)
    int32_t tail;         // frames rendered since the input fell silent
};

void init(int mod_num, vibrato_data* d, psynth_net* net) {
    int* v = d->ctl;
    psynth_register_ctl(mod_num, "Volume", "", 0, 256, 256, PSYNTH_CTL_NUMBER, &v[CTL_VOLUME], net);
    psynth_register_ctl(mod_num, "Amplitude", "", 0, 256, 64, PSYNTH_CTL_NUMBER, &v[CTL_AMPLITUDE], net);
    psynth_register_ctl(mod_num, "Freq", "Hz/100", 0, 2048, 500, PSYNTH_CTL_NUMBER, &v[CTL_FREQ], net);
    psynth_register_ctl(mod_num, "Mono", "off/on", 0, 1, 0, PSYNTH_CTL_SELECTOR, &v[CTL_MONO], net);
    d->swing = net->sampling_rate / kSwingDivisor;
    d->length = 2 * d->swing + kCentreMargin + kLineMargin;
    d->line = psynth_delay_line_new(d->length, "psynth_vibrato");
    d->position = 0;
    d->tail = d->length;
    psynth_lfo_reset(&d->lfo, 0);
}

void clean(vibrato_data* d) {
    psynth_delay_line_clear(d->line);
    d->position = 0;
    d->tail = d->length;
    psynth_lfo_reset(&d->lfo, 0);
}

// One channel over [from, to) with the LFO state `lfo` (each channel starts from the same
// state; the caller keeps the last one). Returns the write position after the last frame.
int32_t render_channel(psynth_sample* line, int32_t length, int32_t p, psynth_lfo_osc* lfo, uint32_t centre,
                       int64_t swing, int volume, const psynth_sample* in, psynth_sample* out, int from, int to) {
    for (int i = from; i < to; i++) {
        line[p] = in[i];
        int32_t m = psynth_lfo_value(lfo, PSYNTH_LFO_SINE);
        psynth_lfo_advance(lfo, 1);
        uint32_t delay = centre + (uint32_t)(int32_t)psynth_shr_toward_zero(swing * m, 15);
        psynth_sample o = psynth_delay_line_read_frac(line, length, p, delay);
        out[i] = volume == PSYNTH_GAIN_UNITY ? o : psynth_apply_gain(o, volume);
        p = psynth_delay_line_next(p, length);
    }
    return p;
}

intptr_t render(int mod_num, vibrato_data* d, psynth_net* net) {
    psynth_module* mod = &net->modules[mod_num];
    if (!psynth_effect_has_buffers(mod) || !d->line) return 0;
    int channels = psynth_effect_set_mono(mod_num, d->ctl[CTL_MONO] != 0, kChannels, net);
    int from = mod->render_offset;
    int to = from + mod->render_frames;
    int freq = std::clamp(d->ctl[CTL_FREQ], 0, 2048);  // a damaged song file may hold any value
    d->lfo.step = psynth_lfo_step(freq, net->sampling_rate);
    if (!psynth_effect_tail(psynth_effect_has_input(mod, channels, to), &d->tail, d->length, to - from)) {
        psynth_lfo_advance(&d->lfo, to - from);  // the LFO runs on in silence
        return 0;
    }

    int amplitude = std::clamp(d->ctl[CTL_AMPLITUDE], 0, 256);
    int volume = std::clamp(d->ctl[CTL_VOLUME], 0, 256);
    // The swing in 1/65536 frame, applied as swing × lfo / 32768.
    int64_t swing = ((int64_t)d->swing * amplitude) << (PSYNTH_DELAY_FRAC_BITS - PSYNTH_GAIN_SHIFT);
    uint32_t centre = (uint32_t)(d->swing + kCentreMargin) << PSYNTH_DELAY_FRAC_BITS;
    psynth_lfo_osc start = d->lfo;
    int32_t end_position = d->position;
    bool rendered = false;
    for (int c = 0; c < channels; c++) {
        if (!mod->input_buffers[c] || !mod->output_buffers[c]) continue;
        psynth_lfo_osc lfo = start;
        const psynth_sample* in = psynth_effect_input(mod, c, from, to);
        end_position = render_channel(psynth_delay_line_channel(d->line, d->length, c), d->length, d->position,
                                      &lfo, centre, swing, volume, in, mod->output_buffers[c], from, to);
        d->lfo = lfo;
        rendered = true;
    }
    if (!rendered) psynth_lfo_advance(&d->lfo, to - from);
    d->position = end_position;
    return 1;
}

}  // namespace

intptr_t psynth_vibrato(int mod_num, psynth_event* event, psynth_net* net) {
    switch (event->command) {
    case PS_CMD_GET_DATA_SIZE: return sizeof(vibrato_data);
    case PS_CMD_GET_SYNTH_NAME: return (intptr_t) "Vibrato";
    case PS_CMD_GET_SYNTH_INFO: return (intptr_t) "Vibrato.\nPitch vibrato by a modulated delay";
    case PS_CMD_GET_SYNTH_COLOR: return (intptr_t) "#B4FF7F";
    case PS_CMD_GET_INPUTS_NUM: return kChannels;
    case PS_CMD_GET_OUTPUTS_NUM: return kChannels;
    case PS_CMD_GET_FLAGS: return PSYNTH_FLAG_EFFECT;
    default: break;
    }
    vibrato_data* d = psynth_module_data<vibrato_data>(mod_num, net);
    if (!d) return 0;
    switch (event->command) {
    case PS_CMD_INIT:
        init(mod_num, d, net);
        return 1;
    case PS_CMD_CLEAN:
        clean(d);
        return 1;
    case PS_CMD_RENDER_REPLACE: return render(mod_num, d, net);
    case PS_CMD_CLOSE:
        psynth_delay_line_free(d->line);
        d->line = nullptr;
        return 1;
    default: return 0;
    }
}
