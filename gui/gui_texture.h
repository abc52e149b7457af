// Images the studio draws itself, kept on the renderer as textures for ImGui.
#pragma once

#include <cstdint>

#include "gui/gui_window.h"

// Writes `pixels` (one byte each, 0..255, `width` × `height`) into a white texture whose
// alpha they give, making or remaking the texture when its size changed. Returns the
// texture (an ImTextureID), or null when none can be made.
void* gui_texture_alpha(gui_window* w, void* texture, const uint8_t* pixels, int width, int height);
// Frees a texture made above (null is ignored).
void gui_texture_free(void* texture);
