// A small rasteriser for the software renderer's frame: ImGui's solid rectangles and
// triangles and its glyphs drawn straight into 32-bit pixels, blended with straight alpha.
// A pixel is covered when its centre lies inside the shape (left and top edges in, right
// and bottom out), as SDL's triangles do, so the frame looks the same, only sooner.
#pragma once

#include <cstdint>

struct gui_raster_target {
    uint32_t* pixels;
    int pitch;            // in pixels
    int width, height;
    int r_shift, g_shift, b_shift;
    uint32_t alpha_bits;  // the target's alpha mask, set on every written pixel
    int clip_x0, clip_y0, clip_x1, clip_y1;  // pixels drawn: x0 <= x < x1, y0 <= y < y1
};

// Colours are ImGui's packed RGBA (IM_COL32): red in the low byte, alpha in the high one.

// Sets the clip to a rectangle within the target.
void gui_raster_clip(gui_raster_target* t, int x0, int y0, int x1, int y1);
// An axis-aligned rectangle between corners (x0, y0) and (x1, y1), x0 <= x1, y0 <= y1.
void gui_raster_fill_rect(gui_raster_target* t, float x0, float y0, float x1, float y1, uint32_t colour);
// A triangle of one colour, corners in either winding.
void gui_raster_triangle(gui_raster_target* t, const float* xy0, const float* xy1, const float* xy2, uint32_t colour);
// An axis-aligned rectangle textured from an 8-bit coverage map (the font atlas) of
// `map_width` × `map_height` texels: texels [u0, u1) × [v0, v1) in 0..1 are spread over the
// rectangle (nearest texel) and their coverage scales the colour's alpha.
void gui_raster_coverage_rect(gui_raster_target* t, float x0, float y0, float x1, float y1, const uint8_t* map,
                              int map_width, int map_height, float u0, float v0, float u1, float v1, uint32_t colour);
