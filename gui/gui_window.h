// The studio's one window: an SDL2 window and renderer with Dear ImGui on top, the
// window options (border, rotation, touch sizes, UI scale, cursor), the frame loop's
// waiting and pacing, and screenshots. Knows nothing of songs.
//
// Error convention: gui_window_open returns 0, or non-zero with the reason in
// gui_window_error() (no display, no renderer). Everything else runs on the main thread.
#pragma once

#include <cstdint>

struct SDL_Window;
struct SDL_Renderer;
struct SDL_Texture;
union SDL_Event;

struct gui_window_options {
    const char* name;   // title
    int width, height;  // initial size in pixels
    int noborder;       // > 0: no window frame
    int rotate;         // 0, 90, 180 or 270 degrees clockwise
    int touchcontrol;   // > 0: larger hit areas
    int zoom;           // 0: from the display's DPI; 1..3: that scale; 100..300: per cent
    int nocursor;       // > 0: the pointer is hidden
    int software;       // non-zero: never ask for an accelerated renderer
};

struct gui_window {
    SDL_Window* window;
    SDL_Renderer* renderer;
    SDL_Texture* frame;  // the UI is drawn here when rotated, then turned onto the window
    int frame_width, frame_height;  // the UI's size (the window's, or swapped at 90/270)
    int rotate;
    float scale;         // UI scale 1.0..3.0
    int touch;
    int software;        // the renderer is the software one
    int theme;           // GUI_THEME_*
    int fixed_frame_ms;  // > 0: every frame lasts this long (scripted runs)
    uint64_t last_frame_counter;
    int fonts_missing;   // DejaVu fonts were not found: ImGui's own font is used
};

// Opens the window and renderer and sets up ImGui (allocations through the memory
// manager, fonts, theme). Returns 0, or non-zero (see gui_window_error).
int gui_window_open(const gui_window_options* options, gui_window* w);
// Closes ImGui, the renderer, the window and SDL's video.
void gui_window_close(gui_window* w);
// Why the last open failed.
const char* gui_window_error();

// Sets the UI scale (clamped to 1..3) and the theme, rebuilding fonts and style.
void gui_window_set_style(gui_window* w, float scale, int theme);
// The scale a "zoom" option asks for (0: from the display's DPI).
float gui_window_scale_for_zoom(int zoom);

// Waits for the next event at most `timeout_ms` (0: only polls). Returns 1 with an event.
int gui_window_wait_event(SDL_Event* event, int timeout_ms);
// Feeds one event to ImGui (mouse mapped through the rotation). Returns 1 when it asks
// for a redraw.
int gui_window_handle_event(gui_window* w, const SDL_Event* event);
// UI pixel → window pixel (the turn of the frame), for scripted clicks on named items.
void gui_window_ui_to_window(const gui_window* w, float* x, float* y);
// Starts an ImGui frame. Returns the seconds since the last frame.
float gui_window_begin_frame(gui_window* w);
// Renders the frame and presents it (turned when rotated). The frame is not cleared first:
// the application draws a window over all of it. With a path, what the window
// shows is also written there as a PNG through the file layer. Returns 0, non-zero when
// the screenshot failed.
int gui_window_end_frame(gui_window* w, const char* screenshot_path);
// Refresh rate of the window's display in Hz (60 when unknown).
int gui_window_refresh_rate(gui_window* w);
