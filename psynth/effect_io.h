// Input checks shared by the effect modules: whether a render request reaches sound
// on an input, and an input's requested frames with their leading silence made zero,
// so that the render loops read every frame of the request directly.
#pragma once

#include <cstring>

#include "psynth/psynth_net.h"

// True when the module has its first input and first output buffer (a render needs both).
inline bool psynth_effect_has_buffers(const psynth_module* mod) {
    return mod->input_buffers[0] && mod->output_buffers[0];
}

// True when one of the input channels [0, channels) holds sound before frame `end`.
inline bool psynth_effect_has_input(const psynth_module* mod, int channels, int end) {
    for (int c = 0; c < channels && c < PSYNTH_MAX_CHANNELS; c++) {
        if (mod->input_buffers[c] && mod->input_start[c] < end) return true;
    }
    return false;
}

// Input channel c over [from, to): frames before the channel's start are zeroed in the
// module's own input buffer (the net refills it every pass, so this is free to write).
inline const psynth_sample* psynth_effect_input(psynth_module* mod, int c, int from, int to) {
    psynth_sample* in = mod->input_buffers[c];
    int silent_end = mod->input_start[c] < to ? mod->input_start[c] : to;
    if (silent_end > from) memset(in + from, 0, sizeof(psynth_sample) * (size_t)(silent_end - from));
    return in;
}

// The idle rule of the feedback effects: sound on an input wakes the module; without
// input it keeps rendering its tail until CLEAN sets idle again. True when it renders.
inline bool psynth_effect_wake(bool has_input, uint8_t* idle) {
    if (has_input) *idle = 0;
    return !*idle;
}
