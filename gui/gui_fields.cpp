// The text part of ImGui's stepped integer field is the item width less the two square
// step buttons and their spacing; it is named apart so scripts can click into it.
#include "gui/gui_fields.h"

#include <cstdio>
#include <imgui.h>

#include "gui/gui_items.h"

int gui_int_field(const char* id, int* value, int min, int max, float width, bool on_enter) {
    ImGui::PushID(id);
    ImGui::SetNextItemWidth(width);
    int v = *value;
    ImVec2 start = ImGui::GetCursorScreenPos();
    bool edited = ImGui::InputInt("##value", &v, 1, 10, on_enter ? ImGuiInputTextFlags_EnterReturnsTrue : 0);
    const ImGuiStyle& style = ImGui::GetStyle();
    float button = ImGui::GetFrameHeight();
    float text_width = width - 2 * (button + style.ItemInnerSpacing.x);
    gui_item_name_rect(id, start.x, start.y, start.x + text_width, start.y + button);
    char step_id[96];
    snprintf(step_id, sizeof step_id, "%s.minus", id);
    gui_item_name_rect(step_id, start.x + text_width + style.ItemInnerSpacing.x, start.y,
                       start.x + text_width + style.ItemInnerSpacing.x + button, start.y + button);
    snprintf(step_id, sizeof step_id, "%s.plus", id);
    gui_item_name_rect(step_id, start.x + width - button, start.y, start.x + width, start.y + button);
    ImGui::PopID();
    v = v < min ? min : v > max ? max : v;
    if (!edited || v == *value) return 0;
    *value = v;
    return 1;
}

int gui_labelled_int_field(const char* label, const char* id, int* value, int min, int max, float width, bool on_enter) {
    int changed = gui_int_field(id, value, min, max, width, on_enter);
    ImGui::SameLine();
    ImGui::TextUnformatted(label);
    return changed;
}
