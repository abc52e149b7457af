// The software frame: shapes drawn straight into the pixels and shapes SDL draws keep
// ImGui's order.
#include "gui/gui_render.h"

#include <SDL.h>
#include <gtest/gtest.h>
#include <imgui.h>
#include <imgui_impl_sdlrenderer.h>

namespace {

TEST(GuiRender, DirectAndSdlDrawnShapesKeepTheirOrder) {
    SDL_Surface* frame = SDL_CreateRGBSurfaceWithFormat(0, 8, 8, 32, SDL_PIXELFORMAT_RGB888);
    ASSERT_NE(frame, nullptr);
    ASSERT_TRUE(gui_render_can_draw_into(frame));
    SDL_Renderer* renderer = SDL_CreateSoftwareRenderer(frame);
    ASSERT_NE(renderer, nullptr);
    ImGui::CreateContext();
    ImGuiIO& io = ImGui::GetIO();
    io.IniFilename = nullptr;
    io.DisplaySize = ImVec2(8, 8);
    io.DeltaTime = 1.0f / 60;
    ImGui_ImplSDLRenderer_Init(renderer);
    ImGui_ImplSDLRenderer_NewFrame();  // makes the font texture
    ImGui::NewFrame();
    ImDrawList* draw = ImGui::GetForegroundDrawList();
    draw->AddRectFilled(ImVec2(0, 0), ImVec2(8, 8), IM_COL32(255, 0, 0, 255));
    // A gradient is SDL's to draw; the white box after it must still cover its right half.
    draw->AddRectFilledMultiColor(ImVec2(0, 0), ImVec2(4, 8), IM_COL32(0, 255, 0, 255), IM_COL32(0, 255, 0, 255),
                                  IM_COL32(0, 0, 255, 255), IM_COL32(0, 0, 255, 255));
    draw->AddRectFilled(ImVec2(2, 0), ImVec2(6, 8), IM_COL32(255, 255, 255, 255));
    ImGui::Render();
    gui_render_draw_data(renderer, frame, ImGui::GetDrawData());
    SDL_RenderFlush(renderer);
    auto pixel = [&](int x, int y) { return ((const uint32_t*)frame->pixels)[y * frame->pitch / 4 + x] & 0xFFFFFF; };
    EXPECT_EQ(pixel(3, 4), 0xFFFFFFu);
    EXPECT_EQ(pixel(7, 4), 0xFF0000u);
    uint32_t gradient = pixel(1, 4);
    EXPECT_NE(gradient, 0xFF0000u);
    EXPECT_NE(gradient, 0xFFFFFFu);
    EXPECT_EQ(gradient & 0xFF0000, 0u);  // green to blue: no red
    ImGui_ImplSDLRenderer_Shutdown();
    ImGui::DestroyContext();
    SDL_DestroyRenderer(renderer);
    SDL_FreeSurface(frame);
}

}  // namespace
