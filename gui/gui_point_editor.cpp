#include "gui/gui_point_editor.h"

#include <imgui.h>

#include <algorithm>
#include <cstdio>

#include "gui/gui_items.h"
#include "gui/gui_theme.h"

namespace {

constexpr float kPointRadius = 4.0f;  // pixels, and the distance a click takes a point at

}  // namespace

gui_point_change gui_point_editor(const char* id, const gui_point* points, int count, int x_max, int y_max,
                                  const gui_point_marker* markers, int marker_count, bool enabled, const ImVec2& size,
                                  gui_point_editor_state* state) {
    gui_point_change change = {GUI_POINTS_NONE, -1, 0, 0};
    ImGui::InvisibleButton(id, size, ImGuiButtonFlags_MouseButtonLeft | ImGuiButtonFlags_MouseButtonRight);
    gui_item_name(id);
    ImVec2 a = ImGui::GetItemRectMin(), b = ImGui::GetItemRectMax();
    ImDrawList* draw = ImGui::GetWindowDrawList();
    draw->AddRectFilled(a, b, gui_colour_u32(GUI_COLOUR_BACKGROUND));
    auto screen = [&](int x, int y) {
        return ImVec2(a.x + (b.x - a.x - 1) * x / (float)x_max, b.y - 1 - (b.y - a.y - 1) * y / (float)y_max);
    };
    uint32_t line = gui_colour_u32(enabled ? GUI_COLOUR_SCOPE : GUI_COLOUR_TEXT_DIM);
    for (int m = 0; m < marker_count; m++) {
        int p = markers[m].point;
        if (p < 0 || p >= count) continue;
        ImVec2 at = screen(points[p].x, 0);
        draw->AddLine(ImVec2(at.x, a.y), ImVec2(at.x, b.y), gui_colour_u32(GUI_COLOUR_BORDER));
        char letter[2] = {markers[m].letter, 0};
        draw->AddText(ImVec2(at.x + 2, a.y + m * ImGui::GetFontSize()), gui_colour_u32(GUI_COLOUR_TEXT_DIM), letter);
    }
    int hovered = -1;
    ImVec2 mouse = ImGui::GetIO().MousePos;
    for (int i = 0; i < count; i++) {
        ImVec2 p = screen(points[i].x, points[i].y);
        if (i > 0) draw->AddLine(screen(points[i - 1].x, points[i - 1].y), p, line);
        float dx = mouse.x - p.x, dy = mouse.y - p.y;
        if (dx * dx + dy * dy <= (kPointRadius + 2) * (kPointRadius + 2)) hovered = i;
        draw->AddRectFilled(ImVec2(p.x - kPointRadius, p.y - kPointRadius), ImVec2(p.x + kPointRadius, p.y + kPointRadius),
                            gui_colour_u32(state->dragging == i ? GUI_COLOUR_ACCENT_HOVER : GUI_COLOUR_TEXT));
        char point_id[80];
        snprintf(point_id, sizeof point_id, "%s.point.%d", id, i);
        gui_item_name_rect(point_id, p.x - kPointRadius, p.y - kPointRadius, p.x + kPointRadius, p.y + kPointRadius);
    }
    // The point under the mouse (for a press) in the units of the axes.
    int mx = (int)((mouse.x - a.x) * x_max / (b.x - a.x - 1) + 0.5f);
    int my = (int)((b.y - 1 - mouse.y) * y_max / (b.y - a.y - 1) + 0.5f);
    mx = std::clamp(mx, 0, x_max), my = std::clamp(my, 0, y_max);
    if (ImGui::IsItemActivated() && ImGui::IsMouseClicked(ImGuiMouseButton_Left)) {
        state->dragging = hovered;
        if (hovered < 0) change = {GUI_POINTS_ADDED, -1, mx, my};
    } else if (state->dragging >= 0 && ImGui::IsItemActive() && ImGui::IsMouseDown(ImGuiMouseButton_Left)) {
        const gui_point& p = points[state->dragging];
        if (p.x != mx || p.y != my) change = {GUI_POINTS_MOVED, state->dragging, mx, my};
    } else if (!ImGui::IsMouseDown(ImGuiMouseButton_Left)) {
        state->dragging = -1;
    }
    if (ImGui::IsItemHovered() && ImGui::IsMouseClicked(ImGuiMouseButton_Right) && hovered >= 0) {
        change = {GUI_POINTS_REMOVED, hovered, 0, 0};
    }
    if (state->dragging >= count) state->dragging = -1;
    return change;
}
