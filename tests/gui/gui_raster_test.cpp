// The software frame's rasteriser: which pixels each shape covers and the exact blend.
#include "gui/gui_raster.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

constexpr uint32_t kRed = 0xFF0000FF;  // ImGui's packing: red in the low byte

struct canvas {
    std::vector<uint32_t> pixels;
    gui_raster_target target;
    explicit canvas(int width, int height, uint32_t fill = 0) : pixels((size_t)width * height, fill) {
        // 0xAARRGGBB pixels, as the window's surface has them.
        target = gui_raster_target{pixels.data(), width, width, height, 16, 8, 0, 0xFF000000u, 0, 0, 0, 0};
        gui_raster_clip(&target, 0, 0, width, height);
    }
    uint32_t at(int x, int y) const { return pixels[(size_t)y * target.width + x]; }
    int count(uint32_t value) const {
        int n = 0;
        for (uint32_t p : pixels) n += p == value;
        return n;
    }
};

TEST(GuiRaster, RectanglesCoverThePixelsWhoseCentresTheyHold) {
    canvas c(8, 8);
    gui_raster_fill_rect(&c.target, 1, 2, 3, 4, kRed);
    EXPECT_EQ(c.count(0xFFFF0000), 4);
    EXPECT_EQ(c.at(1, 2), 0xFFFF0000u);
    EXPECT_EQ(c.at(2, 3), 0xFFFF0000u);
    // ImGui's one-pixel line at a half pixel, a rounding error thinner than a pixel: one row.
    canvas line(8, 8);
    gui_raster_fill_rect(&line.target, 0.5f, 4.5001f, 6.5f, 5.4999f, kRed);
    EXPECT_EQ(line.count(0xFFFF0000), 6);
    EXPECT_EQ(line.at(1, 4), 0xFFFF0000u);
    // The clip holds, and shapes past the target's edges are cut.
    canvas clipped(8, 8);
    gui_raster_clip(&clipped.target, 2, 2, 4, 100);
    gui_raster_fill_rect(&clipped.target, -10, -10, 100, 100, kRed);
    EXPECT_EQ(clipped.count(0xFFFF0000), 2 * 6);
}

TEST(GuiRaster, TranslucentColoursBlendWithStraightAlpha) {
    canvas c(2, 1, 0xFF0000FF);  // blue
    gui_raster_fill_rect(&c.target, 0, 0, 1, 1, 0x800000FF);  // red at 128/255
    // (255·128 + 0·127 + 127) / 255 = 128 red; (0·128 + 255·127 + 127) / 255 = 127 blue.
    EXPECT_EQ(c.at(0, 0), 0xFF800000u | 127u);
    EXPECT_EQ(c.at(1, 0), 0xFF0000FFu);
    gui_raster_fill_rect(&c.target, 1, 0, 2, 1, 0x000000FF);  // fully transparent: nothing
    EXPECT_EQ(c.at(1, 0), 0xFF0000FFu);
}

TEST(GuiRaster, TrianglesInEitherWinding) {
    const float a[2] = {0, 0}, b[2] = {4, 0}, d[2] = {0, 4};
    canvas c(4, 4), reversed(4, 4);
    gui_raster_triangle(&c.target, a, b, d, kRed);
    gui_raster_triangle(&reversed.target, d, b, a, kRed);
    // Rows of 3, 2 and 1 pixels: the diagonal's centres stay out.
    EXPECT_EQ(c.count(0xFFFF0000), 6);
    EXPECT_EQ(c.at(2, 0), 0xFFFF0000u);
    EXPECT_EQ(c.at(3, 0), 0u);
    EXPECT_EQ(c.at(0, 2), 0xFFFF0000u);
    EXPECT_EQ(c.at(1, 2), 0u);
    EXPECT_EQ(c.pixels, reversed.pixels);
    // A flat triangle draws nothing.
    const float e[2] = {2, 0};
    canvas flat(4, 4);
    gui_raster_triangle(&flat.target, a, b, e, kRed);
    EXPECT_EQ(flat.count(0), 16);
}

TEST(GuiRaster, CoverageMapsScaleTheColoursAlpha) {
    const uint8_t map[4] = {0, 255, 128, 64};  // 2 × 2 texels
    canvas c(2, 2);
    gui_raster_coverage_rect(&c.target, 0, 0, 2, 2, map, 2, 2, 0, 0, 1, 1, 0xFFFFFFFF);
    EXPECT_EQ(c.at(0, 0), 0u);  // no coverage: the pixel is left alone
    EXPECT_EQ(c.at(1, 0), 0xFFFFFFFFu);
    EXPECT_EQ(c.at(0, 1), 0xFF808080u);
    EXPECT_EQ(c.at(1, 1), 0xFF404040u);
    // Twice the size: each texel covers 2 × 2 pixels; half the colour's alpha halves coverage.
    canvas big(4, 4);
    gui_raster_coverage_rect(&big.target, 0, 0, 4, 4, map, 2, 2, 0, 0, 1, 1, 0x80FFFFFF);
    EXPECT_EQ(big.at(2, 0), 0xFF808080u);
    EXPECT_EQ(big.at(3, 1), 0xFF808080u);
    EXPECT_EQ(big.at(1, 1), 0u);
    EXPECT_EQ(big.count(0xFF808080u), 4);
}

}  // namespace
