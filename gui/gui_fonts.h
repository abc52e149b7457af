// The studio's fonts: DejaVu Sans for the interface and DejaVu Sans Mono for patterns
// and numbers, at the UI scale; ImGui's own font stands in when they are missing.
#pragma once

struct ImFont;

// Rebuilds ImGui's font atlas for `scale`. Returns 0, or 1 when the DejaVu fonts were not
// found (ImGui's built-in font is used for both). The folder is $ZELFON_FONT_DIR when set.
int gui_fonts_build(float scale);
// Frees the font files' memory (after ImGui's context is gone).
void gui_fonts_free();
// The monospaced font (the interface font when it is missing).
ImFont* gui_font_mono();
