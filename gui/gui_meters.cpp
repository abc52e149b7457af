// Meters fall by 20 dB a second after a one-second hold, as studio meters do.
#include "gui/gui_meters.h"

#include <cmath>
#include <imgui.h>

#include "gui/gui_items.h"
#include "gui/gui_theme.h"

namespace {

constexpr float kFloorDb = -48.0f;
constexpr float kFallDbPerSecond = 20.0f;
constexpr int kHoldUpdates = 30;

float db_of(float level) { return level > 1e-6f ? 20.0f * std::log10(level) : -120.0f; }

}  // namespace

void gui_level_update(gui_level_state* s, const float* frames, int count, float seconds) {
    for (int c = 0; c < 2; c++) {
        float peak = 0;
        for (int i = 0; i < count; i++) peak = std::fmax(peak, std::fabs(frames[i * 2 + c]));
        float fallen = s->level[c] * std::pow(10.0f, -kFallDbPerSecond * seconds / 20.0f);
        s->level[c] = std::fmax(peak, fallen);
        if (peak >= s->hold[c] || --s->hold_frames[c] <= 0) {
            s->hold[c] = std::fmax(peak, s->level[c]);
            s->hold_frames[c] = kHoldUpdates;
        }
    }
}

void gui_level_meter(const char* id, const gui_level_state* s, float width, float height) {
    ImGui::InvisibleButton(id, ImVec2(width, height));
    gui_item_name(id);
    ImVec2 a = ImGui::GetItemRectMin();
    ImDrawList* draw = ImGui::GetWindowDrawList();
    draw->AddRectFilled(a, ImVec2(a.x + width, a.y + height), gui_colour_u32(GUI_COLOUR_BACKGROUND));
    float bar = (height - 1) / 2;
    for (int c = 0; c < 2; c++) {
        float y0 = a.y + c * (bar + 1), y1 = y0 + bar;
        auto x_of = [&](float level) {
            float t = (db_of(level) - kFloorDb) / -kFloorDb;
            return a.x + width * (t < 0 ? 0 : t > 1 ? 1 : t);
        };
        float x = x_of(s->level[c]);
        float yellow = x_of(0.5f), red = x_of(0.98f);
        draw->AddRectFilled(ImVec2(a.x, y0), ImVec2(std::fmin(x, yellow), y1), gui_colour_u32(GUI_COLOUR_METER_LOW));
        if (x > yellow) draw->AddRectFilled(ImVec2(yellow, y0), ImVec2(std::fmin(x, red), y1), gui_colour_u32(GUI_COLOUR_METER_HIGH));
        if (x > red) draw->AddRectFilled(ImVec2(red, y0), ImVec2(x, y1), gui_colour_u32(GUI_COLOUR_METER_CLIP));
        float hx = x_of(s->hold[c]);
        if (hx > a.x) draw->AddLine(ImVec2(hx, y0), ImVec2(hx, y1), gui_colour_u32(s->hold[c] >= 1.0f ? GUI_COLOUR_METER_CLIP : GUI_COLOUR_TEXT));
    }
}

void gui_scope(const char* id, const float* frames, int count, float width, float height) {
    ImGui::InvisibleButton(id, ImVec2(width, height));
    gui_item_name(id);
    ImVec2 a = ImGui::GetItemRectMin();
    ImDrawList* draw = ImGui::GetWindowDrawList();
    draw->AddRectFilled(a, ImVec2(a.x + width, a.y + height), gui_colour_u32(GUI_COLOUR_BACKGROUND));
    float mid = a.y + height / 2;
    draw->AddLine(ImVec2(a.x, mid), ImVec2(a.x + width, mid), gui_colour_u32(GUI_COLOUR_BORDER, 120));
    if (count < 2) return;
    // One point a pixel column: the frame under that column.
    int columns = (int)width;
    ImVec2 previous;
    for (int x = 0; x < columns; x++) {
        int i = (int)((int64_t)x * (count - 1) / (columns > 1 ? columns - 1 : 1));
        float v = (frames[i * 2] + frames[i * 2 + 1]) / 2;
        v = v > 1 ? 1 : v < -1 ? -1 : v;
        ImVec2 p(a.x + x, mid - v * (height / 2 - 1));
        if (x) draw->AddLine(previous, p, gui_colour_u32(GUI_COLOUR_SCOPE));
        previous = p;
    }
}
