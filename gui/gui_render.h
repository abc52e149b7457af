// Draws ImGui's lists. With an accelerated renderer, through SDL's geometry call. With the
// software one, straight into the window's pixels: ImGui's solid rectangles, triangles and
// glyphs are rasterised here (SDL's general triangle path costs several times as much),
// and anything else (other textures, colour gradients) still goes through SDL in order.
#pragma once

struct SDL_Renderer;
struct SDL_Surface;
struct ImDrawData;

// `frame`: the software renderer's target (the window's surface) when it can be drawn
// into directly (32-bit pixels, 8-bit channels), else null.
void gui_render_draw_data(SDL_Renderer* renderer, SDL_Surface* frame, ImDrawData* data);
// Whether a surface has pixels gui_render_draw_data can draw into.
bool gui_render_can_draw_into(const SDL_Surface* surface);
