// Input checks shared by the effect modules: whether a render request reaches sound
// on an input, and an input's requested frames with their leading silence made zero,
// so that the render loops read every frame of the request directly; the idle and tail
// rules, the mono switch, and the reading of linked modules' outputs for the modules
// that take their inputs one by one (flag 0x2000).
#pragma once

#include <cstring>

#include "psynth/psynth_net.h"

// True when each of the first `channels` channels has its input and its output buffer (a
// render needs them).
inline bool psynth_effect_has_buffers(const psynth_module* mod, int channels = 1) {
    for (int c = 0; c < channels; c++) {
        if (!mod->input_buffers[c] || !mod->output_buffers[c]) return false;
    }
    return true;
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

// The tail rule of the effects whose state rings on after the input stops: sound on an
// input restarts the count; without input the module renders `length` more frames (in
// whole requests of `frames`), then stays silent. True when it renders.
inline bool psynth_effect_tail(bool has_input, int32_t* tail, int32_t length, int frames) {
    if (has_input) {
        *tail = 0;
        return true;
    }
    if (*tail < length) {
        *tail += frames;
        return true;
    }
    return false;
}

// The mono switch: one output channel when `mono` is set, else `channels`. Sets the
// module's output count (the net feeds a single output to both sides downstream) and
// returns the number of channels to process.
inline int psynth_effect_set_mono(int mod_num, bool mono, int channels, psynth_net* net) {
    psynth_set_number_of_outputs(mod_num, mono ? 1 : channels, net);
    return mono ? 1 : channels;
}

// ---- Linked modules read one by one ----

inline bool psynth_linked_module_exists(int src, const psynth_net* net) {
    return src >= 0 && src < net->slots && (net->modules[src].flags & PSYNTH_FLAG_EXISTS);
}

// The module index of the n-th (from 1) module linked into `mod`, in link order, or −1.
inline int psynth_nth_linked_module(const psynth_module* mod, int n, const psynth_net* net) {
    if (n < 1) return -1;
    for (int i = 0; i < mod->input_links_capacity; i++) {
        int src = mod->input_links[i];
        if (psynth_linked_module_exists(src, net) && --n == 0) return src;
    }
    return -1;
}

// A source's output channel c as rendered in this pass: the buffer and where its sound
// starts (frames before it are silence). A mono source feeds every channel. Null (start
// 4096) when it brings nothing.
inline const psynth_sample* psynth_source_output(const psynth_module* src, int c, int* start) {
    *start = PSYNTH_BUFFER_SIZE;
    if (!(src->render_state & PSYNTH_RENDER_DONE) || src->output_channels < 1) return nullptr;
    int sc = c < src->output_channels ? c : src->output_channels - 1;
    if (sc >= PSYNTH_MAX_CHANNELS || !src->output_buffers[sc]) return nullptr;
    *start = src->output_start[sc];
    return src->output_buffers[sc];
}

// Copies a source's output channel c over [from, to) into `dest`, zeros before the
// source's start. `src` may be −1 (nothing linked). True when it sounds there.
inline bool psynth_source_input(int src, int c, int from, int to, psynth_sample* dest, const psynth_net* net) {
    int start = PSYNTH_BUFFER_SIZE;
    const psynth_sample* out =
        psynth_linked_module_exists(src, net) ? psynth_source_output(&net->modules[src], c, &start) : nullptr;
    int f = !out ? to : start > from ? (start < to ? start : to) : from;
    if (f > from) memset(dest + from, 0, sizeof(psynth_sample) * (size_t)(f - from));
    if (f < to) memcpy(dest + f, out + f, sizeof(psynth_sample) * (size_t)(to - f));
    return f < to;
}
