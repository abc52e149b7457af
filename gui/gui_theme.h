// The studio's colours: one table with a dark and a light column, applied to ImGui's
// style and read by the custom drawings (meters, scopes, shading) by name.
#pragma once

#include <cstdint>

enum : int { GUI_THEME_DARK = 0, GUI_THEME_LIGHT = 1, GUI_THEMES = 2 };

enum gui_colour : int {
    GUI_COLOUR_BACKGROUND,
    GUI_COLOUR_PANEL,
    GUI_COLOUR_PANEL_HEADER,
    GUI_COLOUR_TEXT,
    GUI_COLOUR_TEXT_DIM,
    GUI_COLOUR_ACCENT,        // selection, active controls
    GUI_COLOUR_ACCENT_HOVER,
    GUI_COLOUR_FRAME,         // fields and sliders
    GUI_COLOUR_BORDER,
    GUI_COLOUR_BEAT_SHADE,    // every beat's line in the pattern editor
    GUI_COLOUR_PLAY_LINE,
    GUI_COLOUR_RECORD,        // edit mode on
    GUI_COLOUR_METER_LOW,
    GUI_COLOUR_METER_HIGH,
    GUI_COLOUR_METER_CLIP,
    GUI_COLOUR_SCOPE,
    GUI_COLOUR_WARNING,
    GUI_COLOURS
};

// Sets the theme whose colours gui_colour_u32 returns.
void gui_theme_select(int theme);
int gui_theme_current();
// The colour as ImGui's packed ABGR, with alpha 0..255 applied.
uint32_t gui_colour_u32(gui_colour colour, int alpha = 255);
// Writes the theme's colours and the sizes for `scale` (touch: larger hit areas) into
// ImGui's current style.
void gui_theme_apply_style(int theme, float scale, int touch);
// "dark" / "light" and back (−1 for an unknown name).
const char* gui_theme_name(int theme);
int gui_theme_from_name(const char* name);
