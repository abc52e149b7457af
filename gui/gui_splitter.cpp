// An invisible button the size of the bar; its drag moves the pane's edge.
#include "gui/gui_splitter.h"

#include <imgui.h>

#include "gui/gui_items.h"
#include "gui/gui_theme.h"

int gui_splitter(const char* id, int vertical, float thickness, float length, float* size, float min, float max) {
    ImVec2 bar = vertical ? ImVec2(thickness, length) : ImVec2(length, thickness);
    ImGui::InvisibleButton(id, bar);
    gui_item_name(id);
    bool active = ImGui::IsItemActive();
    bool hovered = ImGui::IsItemHovered();
    if (active || hovered) ImGui::SetMouseCursor(vertical ? ImGuiMouseCursor_ResizeEW : ImGuiMouseCursor_ResizeNS);
    if (active) {
        ImVec2 delta = ImGui::GetIO().MouseDelta;
        *size += vertical ? delta.x : delta.y;
        if (*size < min) *size = min;
        if (*size > max) *size = max;
    }
    ImVec2 a = ImGui::GetItemRectMin(), b = ImGui::GetItemRectMax();
    ImGui::GetWindowDrawList()->AddRectFilled(a, b, gui_colour_u32(active ? GUI_COLOUR_ACCENT : hovered ? GUI_COLOUR_ACCENT_HOVER : GUI_COLOUR_BORDER,
                                                                  active || hovered ? 255 : 160));
    return active ? 1 : 0;
}
