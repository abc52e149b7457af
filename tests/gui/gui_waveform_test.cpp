// The waveform's overview: every range it reads from blocks covers what scanning the frames
// gives (exact when the range starts and ends on blocks), in every format.
#include "gui/gui_waveform.h"

#include <gtest/gtest.h>

#include <vector>

#include "engine/memory.h"

namespace {

struct scanned {
    int low = 32767, high = -32768;
};

scanned scan(const std::vector<int16_t>& frames, int channels, int c, int64_t from, int64_t to) {
    scanned s;
    for (int64_t f = from; f < to; f++) {
        s.low = std::min<int>(s.low, frames[f * channels + c]);
        s.high = std::max<int>(s.high, frames[f * channels + c]);
    }
    return s;
}

TEST(GuiWaveform, OverviewRangesMatchTheFrames) {
    mem_init();
    const int64_t length = 10 * GUI_WAVEFORM_BLOCK + 77;  // a last block that is short
    std::vector<int16_t> frames(length * 2);
    uint32_t seed = 1;
    for (int16_t& f : frames) f = (int16_t)((seed = seed * 1664525 + 1013904223) >> 16);
    gui_waveform w = {};
    ASSERT_EQ(gui_waveform_set(&w, frames.data(), GUI_WAVEFORM_INT16, 2, length), 0);
    EXPECT_EQ(w.blocks, 11);
    for (int c = 0; c < 2; c++) {
        // Short ranges are scanned; long ones on block edges read the blocks: both exact.
        for (auto [from, to] : {std::pair<int64_t, int64_t>{5, 9}, {0, length}, {GUI_WAVEFORM_BLOCK, 9 * GUI_WAVEFORM_BLOCK},
                                {3 * GUI_WAVEFORM_BLOCK, length}}) {
            int low, high;
            gui_waveform_range(&w, c, from, to, &low, &high);
            scanned s = scan(frames, 2, c, from, to);
            EXPECT_EQ(low, s.low) << from << ".." << to;
            EXPECT_EQ(high, s.high) << from << ".." << to;
        }
        // A long range off the edges reads whole blocks: it covers the frames' range.
        int low, high;
        gui_waveform_range(&w, c, 100, 7 * GUI_WAVEFORM_BLOCK + 3, &low, &high);
        scanned s = scan(frames, 2, c, 100, 7 * GUI_WAVEFORM_BLOCK + 3);
        EXPECT_LE(low, s.low);
        EXPECT_GE(high, s.high);
    }
    gui_waveform_free(&w);
    EXPECT_EQ(w.block_low, nullptr);
    EXPECT_FALSE(mem_free_all());
    mem_deinit();
}

TEST(GuiWaveform, EightBitAndFloatFramesComeOnTheSixteenBitScale) {
    mem_init();
    const int8_t bytes[4] = {-128, 127, 0, 1};
    const float floats[3] = {-1.0f, 0.5f, 2.0f};  // beyond full scale: clamped
    gui_waveform w = {};
    ASSERT_EQ(gui_waveform_set(&w, bytes, GUI_WAVEFORM_INT8, 1, 4), 0);
    int low, high;
    gui_waveform_range(&w, 0, 0, 4, &low, &high);
    EXPECT_EQ(low, -32768);
    EXPECT_EQ(high, 127 * 256);
    ASSERT_EQ(gui_waveform_set(&w, floats, GUI_WAVEFORM_FLOAT32, 1, 3), 0);
    gui_waveform_range(&w, 0, 0, 3, &low, &high);
    EXPECT_EQ(low, -32767);
    EXPECT_EQ(high, 32767);
    // Nothing to show: an empty waveform, no overview.
    ASSERT_EQ(gui_waveform_set(&w, nullptr, GUI_WAVEFORM_INT16, 1, 0), 0);
    EXPECT_EQ(w.blocks, 0);
    gui_waveform_free(&w);
    EXPECT_FALSE(mem_free_all());
    mem_deinit();
}

}  // namespace
