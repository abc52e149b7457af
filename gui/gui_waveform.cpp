#include "gui/gui_waveform.h"

#include <imgui.h>

#include <algorithm>
#include <cmath>

#include "engine/memory.h"

namespace {

constexpr int kOverviewFromBlocks = 4;  // ranges this many blocks long read the overview

int value_at(const gui_waveform* w, int64_t frame, int c) {
    int64_t i = frame * w->channels + c;
    switch (w->format) {
    case GUI_WAVEFORM_INT8: return ((const int8_t*)w->frames)[i] * 256;
    case GUI_WAVEFORM_INT16: return ((const int16_t*)w->frames)[i];
    default: {
        float v = ((const float*)w->frames)[i] * 32767.0f;
        return (int)std::clamp(v, -32768.0f, 32767.0f);
    }
    }
}

void scan_frames(const gui_waveform* w, int c, int64_t from, int64_t to, int* low, int* high) {
    int lo = 32767, hi = -32768;
    for (int64_t f = from; f < to; f++) {
        int v = value_at(w, f, c);
        lo = std::min(lo, v);
        hi = std::max(hi, v);
    }
    *low = lo, *high = hi;
}

}  // namespace

void gui_waveform_free(gui_waveform* w) {
    mem_free(w->block_low);
    mem_free(w->block_high);
    *w = gui_waveform();
}

int gui_waveform_set(gui_waveform* w, const void* frames, int format, int channels, int64_t length) {
    gui_waveform_free(w);
    if (!frames || length <= 0 || channels < 1 || channels > GUI_WAVEFORM_MAX_CHANNELS) return 0;
    int64_t blocks = (length + GUI_WAVEFORM_BLOCK - 1) / GUI_WAVEFORM_BLOCK;
    size_t bytes = sizeof(int16_t) * (size_t)(blocks * channels);
    w->block_low = (int16_t*)mem_new(MEM_DYNAMIC, bytes, "gui_waveform_set");
    w->block_high = (int16_t*)mem_new(MEM_DYNAMIC, bytes, "gui_waveform_set");
    if (!w->block_low || !w->block_high) {
        gui_waveform_free(w);
        return 1;
    }
    *w = gui_waveform{frames, format, channels, length, blocks, w->block_low, w->block_high};
    for (int c = 0; c < channels; c++) {
        for (int64_t b = 0; b < blocks; b++) {
            int lo, hi;
            scan_frames(w, c, b * GUI_WAVEFORM_BLOCK, std::min(length, (b + 1) * GUI_WAVEFORM_BLOCK), &lo, &hi);
            w->block_low[c * blocks + b] = (int16_t)lo;
            w->block_high[c * blocks + b] = (int16_t)hi;
        }
    }
    return 0;
}

void gui_waveform_range(const gui_waveform* w, int c, int64_t from, int64_t to, int* low, int* high) {
    if (to - from < kOverviewFromBlocks * GUI_WAVEFORM_BLOCK) {
        scan_frames(w, c, from, to, low, high);
        return;
    }
    int64_t first = from / GUI_WAVEFORM_BLOCK, last = (to + GUI_WAVEFORM_BLOCK - 1) / GUI_WAVEFORM_BLOCK;
    const int16_t* lows = w->block_low + c * w->blocks;
    const int16_t* highs = w->block_high + c * w->blocks;
    int lo = 32767, hi = -32768;
    for (int64_t b = first; b < last; b++) {
        lo = std::min(lo, (int)lows[b]);
        hi = std::max(hi, (int)highs[b]);
    }
    *low = lo, *high = hi;
}

void gui_waveform_draw(ImDrawList* draw, const gui_waveform* w, const ImVec2& a, const ImVec2& b, double first,
                       double frames_per_pixel, uint32_t colour) {
    if (w->length <= 0 || frames_per_pixel <= 0) return;
    int columns = (int)(b.x - a.x);
    float lane = (b.y - a.y) / w->channels;
    for (int c = 0; c < w->channels; c++) {
        float top = a.y + lane * c, mid = top + lane / 2, scale = (lane / 2 - 1) / 32768.0f;
        auto y_of = [&](int v) { return mid - v * scale; };
        if (frames_per_pixel < 1) {
            // Zoomed in: each frame a point, joined.
            int64_t f0 = std::max<int64_t>(0, (int64_t)first), f1 = std::min<int64_t>(w->length - 1, (int64_t)(first + columns * frames_per_pixel) + 1);
            for (int64_t f = f0; f < f1; f++) {
                float x0 = a.x + (float)((f - first) / frames_per_pixel), x1 = a.x + (float)((f + 1 - first) / frames_per_pixel);
                draw->AddLine(ImVec2(x0, y_of(value_at(w, f, c))), ImVec2(x1, y_of(value_at(w, f + 1, c))), colour);
            }
            continue;
        }
        for (int x = 0; x < columns; x++) {
            int64_t from = (int64_t)(first + x * frames_per_pixel);
            int64_t to = (int64_t)(first + (x + 1) * frames_per_pixel);
            if (to <= from) to = from + 1;
            if (from < 0 || to > w->length) continue;
            int lo, hi;
            gui_waveform_range(w, c, from, to, &lo, &hi);
            float y0 = y_of(hi), y1 = y_of(lo);
            if (y1 - y0 < 1) y1 = y0 + 1;
            draw->AddRectFilled(ImVec2(a.x + x, y0), ImVec2(a.x + x + 1, y1), colour);
        }
    }
}
