// Named places on screen: widgets record their rectangle under an id as they are drawn,
// so that scripts (and tests) can click them by name.
#pragma once

// Records the last ImGui item's rectangle under `id` (copied; at most 63 characters).
void gui_item_name(const char* id);
// Records a rectangle under `id`.
void gui_item_name_rect(const char* id, float x0, float y0, float x1, float y1);
// The centre of the rectangle recorded under `id` in the last frame, when it stood at the
// same place the frame before (windows that just appeared settle first). Returns 1 when found.
int gui_item_find(const char* id, float* x, float* y);
// The same for the point at fractions fx, fy (0..1) of the rectangle's width and height.
int gui_item_find_at(const char* id, float fx, float fy, float* x, float* y);
// Forgets every item whose id starts with `prefix` (a window that closed: a new one in
// its place must be drawn before scripts find its items).
void gui_items_forget(const char* prefix);
// Ages the records; items not drawn for two frames are forgotten. Once a frame.
void gui_items_new_frame();
