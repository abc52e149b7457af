// The Sampler editor's waveform of a 10-minute stereo 16-bit sample (26.5 M frames, 106 MB)
// drawn 1000 × 200 pixels at several zooms: ImGui's frame, the draw list of min/max strokes
// (or lines when zoomed in) from the cached overview, and the software frame's rasteriser
// filling it, as the studio does each frame. `frames_per_pixel` 0 is the whole sample.
// Building the overview itself happens when a sample changes: BM_WaveformOverview.
#include <SDL.h>
#include <benchmark/benchmark.h>
#include <imgui.h>
#include <imgui_impl_sdlrenderer.h>

#include <vector>

#include "engine/memory.h"
#include "gui/gui_render.h"
#include "gui/gui_waveform.h"

namespace {

constexpr int64_t kFrames = 10 * 60 * 44100;
constexpr int kWidth = 1000, kHeight = 200;

const std::vector<int16_t>& ten_minutes() {
    static std::vector<int16_t> frames = [] {
        std::vector<int16_t> f((size_t)kFrames * 2);
        uint32_t seed = 1;
        for (int16_t& v : f) v = (int16_t)((seed = seed * 1664525 + 1013904223) >> 18);
        return f;
    }();
    return frames;
}

void BM_WaveformOverview(benchmark::State& state) {
    mem_init();
    gui_waveform w = {};
    for (auto _ : state) gui_waveform_set(&w, ten_minutes().data(), GUI_WAVEFORM_INT16, 2, kFrames);
    gui_waveform_free(&w);
    mem_deinit();
}
BENCHMARK(BM_WaveformOverview)->Unit(benchmark::kMillisecond);

void BM_WaveformDraw(benchmark::State& state) {
    mem_init();
    SDL_Surface* frame = SDL_CreateRGBSurfaceWithFormat(0, kWidth, kHeight, 32, SDL_PIXELFORMAT_RGB888);
    SDL_Renderer* renderer = SDL_CreateSoftwareRenderer(frame);
    ImGui::CreateContext();
    ImGuiIO& io = ImGui::GetIO();
    io.IniFilename = nullptr;
    io.DisplaySize = ImVec2(kWidth, kHeight);
    io.DeltaTime = 1.0f / 60;
    ImGui_ImplSDLRenderer_Init(renderer);
    gui_waveform w = {};
    gui_waveform_set(&w, ten_minutes().data(), GUI_WAVEFORM_INT16, 2, kFrames);
    double frames_per_pixel = state.range(0) ? state.range(0) / 16.0 : (double)kFrames / kWidth;
    double first = kFrames / 3.0;  // somewhere in the middle when zoomed in
    if (!state.range(0)) first = 0;
    for (auto _ : state) {
        ImGui_ImplSDLRenderer_NewFrame();
        ImGui::NewFrame();
        ImDrawList* draw = ImGui::GetBackgroundDrawList();
        gui_waveform_draw(draw, &w, ImVec2(0, 0), ImVec2(kWidth, kHeight), first, frames_per_pixel, IM_COL32(120, 210, 240, 255));
        ImGui::Render();
        gui_render_draw_data(renderer, frame, ImGui::GetDrawData());
        SDL_RenderFlush(renderer);
    }
    gui_waveform_free(&w);
    ImGui_ImplSDLRenderer_Shutdown();
    ImGui::DestroyContext();
    SDL_DestroyRenderer(renderer);
    SDL_FreeSurface(frame);
    mem_deinit();
}
// Sixteenths of a frame per pixel: 2 (zoomed in, lines), 16 (a frame a pixel), 1600, 160000; 0 the whole sample.
BENCHMARK(BM_WaveformDraw)->Arg(2)->Arg(16)->Arg(1600)->Arg(160000)->Arg(0)->Unit(benchmark::kMicrosecond);

}  // namespace
