// The window, its renderer and ImGui's context. Rotation draws the UI into a texture
// of the turned size and copies it onto the window at the angle; the mouse is mapped
// back through the same turn. ImGui allocates through the memory manager.
#include "gui/gui_window.h"

#include <SDL.h>
#include <cstring>
#include <imgui.h>
#include <imgui_impl_sdlrenderer.h>
#include <stb_image_write.h>

#include "engine/file.h"
#include "engine/log.h"
#include "engine/memory.h"
#include "gui/gui_fonts.h"
#include "gui/gui_input.h"
#include "gui/gui_render.h"
#include "gui/gui_theme.h"

namespace {

constexpr float kBaseDpi = 96.0f;
constexpr float kMinScale = 1.0f;
constexpr float kMaxScale = 3.0f;

char g_error[256];

void* imgui_alloc(size_t size, void*) { return mem_new(MEM_DYNAMIC, size, "imgui"); }
void imgui_free(void* ptr, void*) { mem_free(ptr); }

float clamp_scale(float s) { return s < kMinScale ? kMinScale : s > kMaxScale ? kMaxScale : s; }

int fail(const char* what) {
    snprintf(g_error, sizeof g_error, "%s: %s", what, SDL_GetError());
    tarvik_log("gui_window_open(): %s\n", g_error);
    return 1;
}

// Window pixel → UI pixel, undoing the clockwise turn of the frame.
void map_point(float* x, float* y, void* data) {
    const gui_window* w = (const gui_window*)data;
    int ww, wh;
    SDL_GetWindowSize(w->window, &ww, &wh);
    // The turned frame is centred in the window.
    float fx = *x, fy = *y;
    switch (w->rotate) {
    case 90: fx = *y - (wh - w->frame_width) / 2.0f; fy = ww - *x - (ww - w->frame_height) / 2.0f; break;
    case 180: fx = ww - *x; fy = wh - *y; break;
    case 270: fx = wh - *y - (wh - w->frame_width) / 2.0f; fy = *x - (ww - w->frame_height) / 2.0f; break;
    default: break;
    }
    *x = fx;
    *y = fy;
}

// Sizes the UI frame to the window and (re)creates the rotation texture.
void update_frame_size(gui_window* w) {
    int ww, wh;
    SDL_GetWindowSize(w->window, &ww, &wh);
    bool sideways = w->rotate == 90 || w->rotate == 270;
    int fw = sideways ? wh : ww, fh = sideways ? ww : wh;
    if (w->rotate == 0) {
        w->frame_width = fw;
        w->frame_height = fh;
        return;
    }
    if (w->frame && fw == w->frame_width && fh == w->frame_height) return;
    if (w->frame) SDL_DestroyTexture(w->frame);
    w->frame = SDL_CreateTexture(w->renderer, SDL_PIXELFORMAT_ARGB8888, SDL_TEXTUREACCESS_TARGET, fw, fh);
    w->frame_width = fw;
    w->frame_height = fh;
}

void write_to_file(void* context, void* data, int size) { v3_write(data, 1, (size_t)size, *(int*)context); }

int save_png(gui_window* w, const char* path) {
    int ww, wh;
    SDL_GetRendererOutputSize(w->renderer, &ww, &wh);
    uint8_t* pixels = (uint8_t*)mem_new(MEM_DYNAMIC, (size_t)ww * wh * 4, "gui_screenshot");
    if (!pixels) return 1;
    int result = SDL_RenderReadPixels(w->renderer, nullptr, SDL_PIXELFORMAT_ABGR8888, pixels, ww * 4);
    if (result == 0) {
        // A safe save, as every file we write.
        v3_save save;
        int h = v3_save_begin(path, &save);
        result = !h || !stbi_write_png_to_func(write_to_file, &h, ww, wh, 4, pixels, ww * 4);
        if (v3_save_end(&save, !result)) result = 1;
    }
    mem_free(pixels);
    if (result) tarvik_log("gui_window_screenshot(): cannot write %s\n", path);
    return result;
}

}  // namespace

const char* gui_window_error() { return g_error; }

float gui_window_scale_for_zoom(int zoom) {
    if (zoom >= 100) return clamp_scale(zoom / 100.0f);
    if (zoom > 0) return clamp_scale((float)zoom);
    float dpi = 0;
    if (SDL_GetDisplayDPI(0, &dpi, nullptr, nullptr) != 0 || dpi <= 0) return kMinScale;
    // Whole and half steps keep the fonts crisp.
    return clamp_scale((float)(int)(dpi / kBaseDpi * 2.0f + 0.25f) / 2.0f);
}

int gui_window_open(const gui_window_options* o, gui_window* w) {
    *w = gui_window();
    g_error[0] = 0;
    if (SDL_Init(SDL_INIT_VIDEO | SDL_INIT_EVENTS) != 0) return fail("no display");
    // A driver that shows nothing is a display only when asked for by name (tests).
    const char* driver = SDL_GetCurrentVideoDriver();
    const char* asked = SDL_getenv("SDL_VIDEODRIVER");
    bool invisible = driver && (!strcmp(driver, "offscreen") || !strcmp(driver, "dummy") || !strcmp(driver, "evdev"));
    if (invisible && !(asked && !strcmp(asked, driver))) {
        SDL_Quit();
        snprintf(g_error, sizeof g_error, "no display (only the %s video driver)", driver);
        tarvik_log("gui_window_open(): %s\n", g_error);
        return 1;
    }
    w->rotate = (o->rotate == 90 || o->rotate == 180 || o->rotate == 270) ? o->rotate : 0;
    w->touch = o->touchcontrol > 0;
    bool sideways = w->rotate == 90 || w->rotate == 270;
    uint32_t flags = SDL_WINDOW_RESIZABLE | SDL_WINDOW_ALLOW_HIGHDPI;
    if (o->noborder > 0) flags |= SDL_WINDOW_BORDERLESS;
    w->window = SDL_CreateWindow(o->name, SDL_WINDOWPOS_CENTERED, SDL_WINDOWPOS_CENTERED,
                                 sideways ? o->height : o->width, sideways ? o->width : o->height, flags);
    if (!w->window) {
        fail("cannot open the window");
        SDL_Quit();
        return 1;
    }
    if (!o->software) w->renderer = SDL_CreateRenderer(w->window, -1, SDL_RENDERER_ACCELERATED | SDL_RENDERER_PRESENTVSYNC);
    if (!w->renderer) {
        // The software renderer draws into the window's own pixels; SDL would otherwise put
        // an OpenGL texture behind them, which costs more than the drawing on GL in software.
        SDL_SetHint(SDL_HINT_FRAMEBUFFER_ACCELERATION, "0");
        w->renderer = SDL_CreateRenderer(w->window, -1, SDL_RENDERER_SOFTWARE);
        w->software = 1;
    }
    if (!w->renderer) {
        fail("no renderer");
        SDL_DestroyWindow(w->window);
        SDL_Quit();
        return 1;
    }
    SDL_RendererInfo info;
    if (SDL_GetRendererInfo(w->renderer, &info) == 0) {
        w->software = (info.flags & SDL_RENDERER_SOFTWARE) != 0;
        tarvik_log("gui_window_open(): renderer %s\n", info.name);
    }
    if (o->nocursor > 0) SDL_ShowCursor(SDL_DISABLE);
    SDL_StartTextInput();

    ImGui::SetAllocatorFunctions(imgui_alloc, imgui_free, nullptr);
    ImGui::CreateContext();
    ImGuiIO& io = ImGui::GetIO();
    io.IniFilename = nullptr;  // window places are kept in our profile, not imgui.ini
    io.ConfigWindowsMoveFromTitleBarOnly = true;
    gui_input_init();
    ImGui_ImplSDLRenderer_Init(w->renderer);
    update_frame_size(w);
    gui_window_set_style(w, gui_window_scale_for_zoom(o->zoom), GUI_THEME_DARK);
    w->last_frame_counter = SDL_GetPerformanceCounter();
    return 0;
}

void gui_window_close(gui_window* w) {
    if (!w->window) return;
    ImGui_ImplSDLRenderer_Shutdown();
    ImGui::DestroyContext();
    gui_fonts_free();
    if (w->frame) SDL_DestroyTexture(w->frame);
    SDL_DestroyRenderer(w->renderer);
    SDL_DestroyWindow(w->window);
    SDL_Quit();
    *w = gui_window();
}

void gui_window_set_style(gui_window* w, float scale, int theme) {
    w->scale = clamp_scale(scale);
    w->theme = theme;
    w->fonts_missing = gui_fonts_build(w->scale);
    gui_theme_apply_style(theme, w->scale, w->touch);
    if (w->software) {
        // Smoothed edges cost the software rasteriser a fringe of triangles on every shape
        // (a quarter of a frame); text keeps its own smoothing.
        ImGui::GetStyle().AntiAliasedFill = false;
        ImGui::GetStyle().AntiAliasedLines = false;
    }
    // The font texture is made again at the next frame.
    ImGui_ImplSDLRenderer_DestroyFontsTexture();
}

int gui_window_wait_event(SDL_Event* event, int timeout_ms) {
    if (timeout_ms <= 0) return SDL_PollEvent(event);
    return SDL_WaitEventTimeout(event, timeout_ms);
}

void gui_window_ui_to_window(const gui_window* w, float* x, float* y) {
    int ww, wh;
    SDL_GetWindowSize(w->window, &ww, &wh);
    float fx = *x, fy = *y;
    switch (w->rotate) {
    case 90: *x = ww - (fy + (ww - w->frame_height) / 2.0f); *y = fx + (wh - w->frame_width) / 2.0f; break;
    case 180: *x = ww - fx; *y = wh - fy; break;
    case 270: *x = fy + (ww - w->frame_height) / 2.0f; *y = wh - (fx + (wh - w->frame_width) / 2.0f); break;
    default: break;
    }
}

int gui_window_handle_event(gui_window* w, const SDL_Event* event) {
    if (event->type == SDL_WINDOWEVENT && event->window.event == SDL_WINDOWEVENT_SIZE_CHANGED) update_frame_size(w);
    return gui_input_event(event, map_point, w);
}

float gui_window_begin_frame(gui_window* w) {
    ImGuiIO& io = ImGui::GetIO();
    uint64_t now = SDL_GetPerformanceCounter();
    float dt = (float)((double)(now - w->last_frame_counter) / (double)SDL_GetPerformanceFrequency());
    w->last_frame_counter = now;
    if (w->fixed_frame_ms > 0) dt = w->fixed_frame_ms / 1000.0f;
    if (dt <= 0) dt = 1.0f / 1000.0f;
    io.DeltaTime = dt;
    update_frame_size(w);
    io.DisplaySize = ImVec2((float)w->frame_width, (float)w->frame_height);
    io.DisplayFramebufferScale = ImVec2(1.0f, 1.0f);
    ImGui_ImplSDLRenderer_NewFrame();
    gui_input_new_frame();
    if (!(io.ConfigFlags & ImGuiConfigFlags_NoMouseCursorChange)) {
        static SDL_Cursor* cursors[ImGuiMouseCursor_COUNT];
        ImGuiMouseCursor c = ImGui::GetMouseCursor();
        if (c >= 0 && c < ImGuiMouseCursor_COUNT) {
            static const SDL_SystemCursor kSystem[ImGuiMouseCursor_COUNT] = {
                SDL_SYSTEM_CURSOR_ARROW, SDL_SYSTEM_CURSOR_IBEAM, SDL_SYSTEM_CURSOR_SIZEALL, SDL_SYSTEM_CURSOR_SIZENS,
                SDL_SYSTEM_CURSOR_SIZEWE, SDL_SYSTEM_CURSOR_SIZENESW, SDL_SYSTEM_CURSOR_SIZENWSE, SDL_SYSTEM_CURSOR_HAND,
                SDL_SYSTEM_CURSOR_NO};
            if (!cursors[c]) cursors[c] = SDL_CreateSystemCursor(kSystem[c]);
            if (cursors[c]) SDL_SetCursor(cursors[c]);
        }
    }
    ImGui::NewFrame();
    return dt;
}

int gui_window_end_frame(gui_window* w, const char* screenshot_path) {
    ImGui::Render();
    // No clear: the application's first window covers the whole frame every time.
    SDL_SetRenderTarget(w->renderer, w->rotate ? w->frame : nullptr);
    // The software renderer draws into the window's surface, and so do we, straight.
    SDL_Surface* direct = w->software && !w->rotate ? SDL_GetWindowSurface(w->window) : nullptr;
    gui_render_draw_data(w->renderer, gui_render_can_draw_into(direct) ? direct : nullptr, ImGui::GetDrawData());
    if (w->rotate) {
        SDL_SetRenderTarget(w->renderer, nullptr);
        SDL_SetRenderDrawColor(w->renderer, 0, 0, 0, 255);
        SDL_RenderClear(w->renderer);
        int ww, wh;
        SDL_GetWindowSize(w->window, &ww, &wh);
        SDL_Rect dest = {(ww - w->frame_width) / 2, (wh - w->frame_height) / 2, w->frame_width, w->frame_height};
        SDL_RenderCopyEx(w->renderer, w->frame, nullptr, &dest, (double)w->rotate, nullptr, SDL_FLIP_NONE);
    }
    int result = screenshot_path ? save_png(w, screenshot_path) : 0;
    SDL_RenderPresent(w->renderer);
    return result;
}

int gui_window_refresh_rate(gui_window* w) {
    SDL_DisplayMode mode;
    int display = SDL_GetWindowDisplayIndex(w->window);
    if (display >= 0 && SDL_GetCurrentDisplayMode(display, &mode) == 0 && mode.refresh_rate > 0) return mode.refresh_rate;
    return 60;
}
