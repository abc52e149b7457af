#include "gui/gui_raster.h"

#include <algorithm>
#include <cmath>

namespace {

// The first pixel whose centre lies at or after an edge. Edges a rounding error past a
// centre still count as on it: ImGui's one-pixel lines come out 0.9998 pixels thick.
int first_pixel(float edge) { return (int)std::ceil(edge - 0.5f - 1.0f / 64); }

struct rgba {
    uint32_t r, g, b, a;
};
rgba unpack(uint32_t colour) { return {colour & 0xFF, (colour >> 8) & 0xFF, (colour >> 16) & 0xFF, colour >> 24}; }

uint32_t pack(const gui_raster_target* t, uint32_t r, uint32_t g, uint32_t b) {
    return (r << t->r_shift) | (g << t->g_shift) | (b << t->b_shift) | t->alpha_bits;
}

// Straight-alpha "over": the colour at coverage `a` (0..255) on the pixel.
uint32_t blend(const gui_raster_target* t, uint32_t pixel, const rgba& c, uint32_t a) {
    uint32_t keep = 255 - a;
    uint32_t r = (c.r * a + ((pixel >> t->r_shift) & 0xFF) * keep + 127) / 255;
    uint32_t g = (c.g * a + ((pixel >> t->g_shift) & 0xFF) * keep + 127) / 255;
    uint32_t b = (c.b * a + ((pixel >> t->b_shift) & 0xFF) * keep + 127) / 255;
    return pack(t, r, g, b);
}

// One row's pixels x0 <= x < x1 (already clipped) in one colour.
void span(gui_raster_target* t, int y, int x0, int x1, const rgba& c, uint32_t solid) {
    uint32_t* row = t->pixels + (size_t)y * t->pitch;
    if (c.a == 255) {
        std::fill(row + x0, row + x1, solid);
        return;
    }
    for (int x = x0; x < x1; x++) row[x] = blend(t, row[x], c, c.a);
}

// The x where the edge p→q crosses the line at height y (p.y != q.y).
float cross_x(const float* p, const float* q, float y) { return p[0] + (y - p[1]) * (q[0] - p[0]) / (q[1] - p[1]); }

}  // namespace

void gui_raster_clip(gui_raster_target* t, int x0, int y0, int x1, int y1) {
    t->clip_x0 = std::max(x0, 0);
    t->clip_y0 = std::max(y0, 0);
    t->clip_x1 = std::min(x1, t->width);
    t->clip_y1 = std::min(y1, t->height);
}

void gui_raster_fill_rect(gui_raster_target* t, float x0, float y0, float x1, float y1, uint32_t colour) {
    rgba c = unpack(colour);
    if (c.a == 0) return;
    int px0 = std::max(first_pixel(x0), t->clip_x0), px1 = std::min(first_pixel(x1), t->clip_x1);
    int py0 = std::max(first_pixel(y0), t->clip_y0), py1 = std::min(first_pixel(y1), t->clip_y1);
    if (px0 >= px1) return;
    uint32_t solid = pack(t, c.r, c.g, c.b);
    for (int y = py0; y < py1; y++) span(t, y, px0, px1, c, solid);
}

void gui_raster_triangle(gui_raster_target* t, const float* a, const float* b, const float* c, uint32_t colour) {
    rgba col = unpack(colour);
    if (col.a == 0) return;
    // Top to bottom: a, b, c.
    if (b[1] < a[1]) std::swap(a, b);
    if (c[1] < b[1]) std::swap(b, c);
    if (b[1] < a[1]) std::swap(a, b);
    if (c[1] == a[1]) return;
    int y0 = std::max(first_pixel(a[1]), t->clip_y0), y1 = std::min(first_pixel(c[1]), t->clip_y1);
    uint32_t solid = pack(t, col.r, col.g, col.b);
    for (int y = y0; y < y1; y++) {
        float centre = y + 0.5f;
        float xa = cross_x(a, c, centre);
        float xb = centre < b[1] ? cross_x(a, b, centre) : cross_x(b, c, centre);
        if (xb < xa) std::swap(xa, xb);
        int x0 = std::max(first_pixel(xa), t->clip_x0), x1 = std::min(first_pixel(xb), t->clip_x1);
        if (x0 < x1) span(t, y, x0, x1, col, solid);
    }
}

void gui_raster_coverage_rect(gui_raster_target* t, float x0, float y0, float x1, float y1, const uint8_t* map,
                              int map_width, int map_height, float u0, float v0, float u1, float v1, uint32_t colour) {
    rgba c = unpack(colour);
    if (c.a == 0 || x1 <= x0 || y1 <= y0) return;
    int px0 = std::max(first_pixel(x0), t->clip_x0), px1 = std::min(first_pixel(x1), t->clip_x1);
    int py0 = std::max(first_pixel(y0), t->clip_y0), py1 = std::min(first_pixel(y1), t->clip_y1);
    // Texels per pixel, in texel units.
    float tx_step = (u1 - u0) * map_width / (x1 - x0), ty_step = (v1 - v0) * map_height / (y1 - y0);
    for (int y = py0; y < py1; y++) {
        int ty = (int)(v0 * map_height + (y + 0.5f - y0) * ty_step);
        ty = std::clamp(ty, 0, map_height - 1);
        const uint8_t* texels = map + (size_t)ty * map_width;
        uint32_t* row = t->pixels + (size_t)y * t->pitch;
        for (int x = px0; x < px1; x++) {
            int tx = std::clamp((int)(u0 * map_width + (x + 0.5f - x0) * tx_step), 0, map_width - 1);
            uint32_t a = (texels[tx] * c.a + 127) / 255;
            if (a) row[x] = blend(t, row[x], c, a);
        }
    }
}
