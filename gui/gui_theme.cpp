// The colour table of both themes and how it maps onto ImGui's style.
#include "gui/gui_theme.h"

#include <cstring>
#include <imgui.h>

namespace {

struct rgb {
    uint8_t r, g, b;
};

// One row a colour: dark, light.
const rgb kColours[GUI_COLOURS][GUI_THEMES] = {
    /* BACKGROUND   */ {{24, 26, 30}, {226, 228, 232}},
    /* PANEL        */ {{34, 37, 43}, {242, 243, 246}},
    /* PANEL_HEADER */ {{48, 52, 60}, {208, 212, 220}},
    /* TEXT         */ {{222, 226, 232}, {24, 26, 30}},
    /* TEXT_DIM     */ {{130, 138, 150}, {110, 116, 126}},
    /* ACCENT       */ {{64, 150, 220}, {30, 110, 200}},
    /* ACCENT_HOVER */ {{92, 172, 236}, {70, 140, 220}},
    /* FRAME        */ {{44, 48, 56}, {255, 255, 255}},
    /* BORDER       */ {{64, 70, 80}, {170, 176, 186}},
    /* BEAT_SHADE   */ {{42, 46, 54}, {228, 232, 238}},
    /* PLAY_LINE    */ {{90, 200, 120}, {30, 150, 70}},
    /* RECORD       */ {{220, 70, 60}, {200, 40, 30}},
    /* METER_LOW    */ {{70, 190, 100}, {40, 160, 70}},
    /* METER_HIGH   */ {{230, 200, 60}, {210, 170, 20}},
    /* METER_CLIP   */ {{230, 60, 50}, {210, 40, 30}},
    /* SCOPE        */ {{120, 210, 240}, {20, 100, 170}},
    /* WARNING      */ {{240, 170, 60}, {190, 110, 0}},
};

const char* const kThemeNames[GUI_THEMES] = {"dark", "light"};

int g_theme = GUI_THEME_DARK;

ImVec4 vec(gui_colour c, float alpha = 1.0f) {
    const rgb& v = kColours[c][g_theme];
    return ImVec4(v.r / 255.0f, v.g / 255.0f, v.b / 255.0f, alpha);
}

}  // namespace

void gui_theme_select(int theme) { g_theme = theme == GUI_THEME_LIGHT ? GUI_THEME_LIGHT : GUI_THEME_DARK; }

int gui_theme_current() { return g_theme; }

uint32_t gui_colour_u32(gui_colour colour, int alpha) {
    const rgb& v = kColours[colour][g_theme];
    return IM_COL32(v.r, v.g, v.b, alpha);
}

const char* gui_theme_name(int theme) { return kThemeNames[theme == GUI_THEME_LIGHT ? 1 : 0]; }

int gui_theme_from_name(const char* name) {
    for (int t = 0; t < GUI_THEMES; t++) {
        if (name && !strcmp(name, kThemeNames[t])) return t;
    }
    return -1;
}

void gui_theme_apply_style(int theme, float scale, int touch) {
    gui_theme_select(theme);
    ImGuiStyle& style = ImGui::GetStyle();
    style = ImGuiStyle();
    style.WindowRounding = 3.0f;
    style.FrameRounding = 2.0f;
    style.GrabRounding = 2.0f;
    style.ScrollbarRounding = 2.0f;
    style.WindowBorderSize = 1.0f;
    style.FramePadding = ImVec2(5.0f, 3.0f);
    style.ItemSpacing = ImVec2(6.0f, 4.0f);
    if (touch) {
        // Fingers need bigger targets than a pointer.
        style.FramePadding = ImVec2(10.0f, 8.0f);
        style.ItemSpacing = ImVec2(10.0f, 8.0f);
        style.TouchExtraPadding = ImVec2(6.0f, 6.0f);
        style.ScrollbarSize = 24.0f;
        style.GrabMinSize = 20.0f;
    }
    style.ScaleAllSizes(scale);

    ImVec4* c = style.Colors;
    c[ImGuiCol_Text] = vec(GUI_COLOUR_TEXT);
    c[ImGuiCol_TextDisabled] = vec(GUI_COLOUR_TEXT_DIM);
    c[ImGuiCol_WindowBg] = vec(GUI_COLOUR_PANEL);
    c[ImGuiCol_ChildBg] = vec(GUI_COLOUR_PANEL, 0.0f);
    c[ImGuiCol_PopupBg] = vec(GUI_COLOUR_PANEL, 0.98f);
    c[ImGuiCol_Border] = vec(GUI_COLOUR_BORDER);
    c[ImGuiCol_FrameBg] = vec(GUI_COLOUR_FRAME);
    c[ImGuiCol_FrameBgHovered] = vec(GUI_COLOUR_ACCENT, 0.35f);
    c[ImGuiCol_FrameBgActive] = vec(GUI_COLOUR_ACCENT, 0.55f);
    c[ImGuiCol_TitleBg] = vec(GUI_COLOUR_PANEL_HEADER);
    c[ImGuiCol_TitleBgActive] = vec(GUI_COLOUR_PANEL_HEADER);
    c[ImGuiCol_TitleBgCollapsed] = vec(GUI_COLOUR_PANEL_HEADER, 0.7f);
    c[ImGuiCol_MenuBarBg] = vec(GUI_COLOUR_PANEL_HEADER);
    c[ImGuiCol_ScrollbarBg] = vec(GUI_COLOUR_BACKGROUND, 0.6f);
    c[ImGuiCol_ScrollbarGrab] = vec(GUI_COLOUR_BORDER);
    c[ImGuiCol_ScrollbarGrabHovered] = vec(GUI_COLOUR_ACCENT_HOVER, 0.8f);
    c[ImGuiCol_ScrollbarGrabActive] = vec(GUI_COLOUR_ACCENT);
    c[ImGuiCol_CheckMark] = vec(GUI_COLOUR_ACCENT);
    c[ImGuiCol_SliderGrab] = vec(GUI_COLOUR_ACCENT);
    c[ImGuiCol_SliderGrabActive] = vec(GUI_COLOUR_ACCENT_HOVER);
    c[ImGuiCol_Button] = vec(GUI_COLOUR_PANEL_HEADER);
    c[ImGuiCol_ButtonHovered] = vec(GUI_COLOUR_ACCENT, 0.6f);
    c[ImGuiCol_ButtonActive] = vec(GUI_COLOUR_ACCENT);
    c[ImGuiCol_Header] = vec(GUI_COLOUR_ACCENT, 0.45f);
    c[ImGuiCol_HeaderHovered] = vec(GUI_COLOUR_ACCENT, 0.65f);
    c[ImGuiCol_HeaderActive] = vec(GUI_COLOUR_ACCENT);
    c[ImGuiCol_Separator] = vec(GUI_COLOUR_BORDER);
    c[ImGuiCol_SeparatorHovered] = vec(GUI_COLOUR_ACCENT_HOVER);
    c[ImGuiCol_SeparatorActive] = vec(GUI_COLOUR_ACCENT);
    c[ImGuiCol_ResizeGrip] = vec(GUI_COLOUR_BORDER, 0.5f);
    c[ImGuiCol_ResizeGripHovered] = vec(GUI_COLOUR_ACCENT_HOVER);
    c[ImGuiCol_ResizeGripActive] = vec(GUI_COLOUR_ACCENT);
    c[ImGuiCol_Tab] = vec(GUI_COLOUR_PANEL_HEADER);
    c[ImGuiCol_TabHovered] = vec(GUI_COLOUR_ACCENT, 0.7f);
    c[ImGuiCol_TabActive] = vec(GUI_COLOUR_ACCENT, 0.8f);
    c[ImGuiCol_TabUnfocused] = vec(GUI_COLOUR_PANEL_HEADER);
    c[ImGuiCol_TabUnfocusedActive] = vec(GUI_COLOUR_ACCENT, 0.5f);
    c[ImGuiCol_PlotLines] = vec(GUI_COLOUR_SCOPE);
    c[ImGuiCol_PlotHistogram] = vec(GUI_COLOUR_METER_LOW);
    c[ImGuiCol_TableHeaderBg] = vec(GUI_COLOUR_PANEL_HEADER);
    c[ImGuiCol_TableBorderStrong] = vec(GUI_COLOUR_BORDER);
    c[ImGuiCol_TableBorderLight] = vec(GUI_COLOUR_BORDER, 0.5f);
    c[ImGuiCol_TableRowBg] = vec(GUI_COLOUR_PANEL, 0.0f);
    c[ImGuiCol_TableRowBgAlt] = vec(GUI_COLOUR_BEAT_SHADE, 0.6f);
    c[ImGuiCol_TextSelectedBg] = vec(GUI_COLOUR_ACCENT, 0.4f);
    c[ImGuiCol_ModalWindowDimBg] = ImVec4(0.0f, 0.0f, 0.0f, 0.45f);
    c[ImGuiCol_NavHighlight] = vec(GUI_COLOUR_ACCENT);
}
