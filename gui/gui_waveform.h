// A sample's waveform at any zoom: one vertical stroke per pixel column from the lowest to
// the highest value under it. An overview keeps the lowest and highest value of every block
// of GUI_WAVEFORM_BLOCK frames, so a column over many frames reads blocks instead of
// frames: drawing costs what the pixels cost, whatever the sample's length.
//
// Error convention: gui_waveform_set returns 0, or 1 when the overview's memory ran out
// (the waveform is then empty). Values are on the 16-bit scale whatever the frames' format.
#pragma once

#include <cstdint>

struct ImDrawList;
struct ImVec2;

constexpr int GUI_WAVEFORM_BLOCK = 256;
constexpr int GUI_WAVEFORM_MAX_CHANNELS = 2;
enum : int { GUI_WAVEFORM_INT8 = 0, GUI_WAVEFORM_INT16 = 1, GUI_WAVEFORM_FLOAT32 = 2 };

struct gui_waveform {
    const void* frames;  // interleaved; not owned: it must outlive the waveform's use
    int format;          // GUI_WAVEFORM_*
    int channels;
    int64_t length;      // frames
    int64_t blocks;
    int16_t* block_low;  // [channel * blocks + block]
    int16_t* block_high;
};

// Takes the frames and builds the overview (an earlier one is freed).
int gui_waveform_set(gui_waveform* w, const void* frames, int format, int channels, int64_t length);
void gui_waveform_free(gui_waveform* w);
// The lowest and highest value of channel `c` over frames [from, to) (from < to, within the
// sample). Ranges of four blocks and more are read from the overview, widened to whole blocks.
void gui_waveform_range(const gui_waveform* w, int c, int64_t from, int64_t to, int* low, int* high);
// Draws the channels one above the other in the rectangle a..b, from frame `first` at
// `frames_per_pixel` (below 1: zoomed in, the frames joined by lines).
void gui_waveform_draw(ImDrawList* draw, const gui_waveform* w, const ImVec2& a, const ImVec2& b, double first,
                       double frames_per_pixel, uint32_t colour);
