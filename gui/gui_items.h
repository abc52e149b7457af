// Named places on screen: widgets record their rectangle under an id as they are drawn,
// so that scripts (and tests) can click them by name.
#pragma once

// Records the last ImGui item's rectangle under `id` (copied; at most 63 characters).
void gui_item_name(const char* id);
// Records a rectangle under `id`.
void gui_item_name_rect(const char* id, float x0, float y0, float x1, float y1);
// The centre of the rectangle recorded under `id` in the last two frames. Returns 1 when found.
int gui_item_find(const char* id, float* x, float* y);
// Ages the records; items not drawn for two frames are forgotten. Once a frame.
void gui_items_new_frame();
