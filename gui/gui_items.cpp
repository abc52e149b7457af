// A small fixed table: a frame of the studio names a few hundred items at most.
#include "gui/gui_items.h"

#include <cstdio>
#include <cstring>
#include <imgui.h>

namespace {

constexpr int kItems = 1024;
constexpr int kIdSize = 64;

struct named_item {
    char id[kIdSize];
    float x0, y0, x1, y1;
    unsigned frame;
    bool moved;  // its rectangle differs from the frame before (a window still settling)
};

named_item g_items[kItems];
unsigned g_frame = 1;

named_item* slot_for(const char* id) {
    named_item* oldest = &g_items[0];
    for (named_item& item : g_items) {
        if (!strcmp(item.id, id)) return &item;
        if (item.frame < oldest->frame) oldest = &item;
    }
    return oldest;
}

}  // namespace

void gui_item_name_rect(const char* id, float x0, float y0, float x1, float y1) {
    named_item* item = slot_for(id);
    bool same = !strcmp(item->id, id) && item->frame + 1 >= g_frame;
    item->moved = !same || item->x0 != x0 || item->y0 != y0 || item->x1 != x1 || item->y1 != y1;
    snprintf(item->id, kIdSize, "%s", id);
    item->x0 = x0, item->y0 = y0, item->x1 = x1, item->y1 = y1;
    item->frame = g_frame;
}

void gui_item_name(const char* id) {
    ImVec2 a = ImGui::GetItemRectMin(), b = ImGui::GetItemRectMax();
    gui_item_name_rect(id, a.x, a.y, b.x, b.y);
}

int gui_item_find_at(const char* id, float fx, float fy, float* x, float* y) {
    for (const named_item& item : g_items) {
        // Only items drawn in the last frame at the place they had the frame before.
        if (item.frame + 1 < g_frame || item.moved || strcmp(item.id, id)) continue;
        *x = item.x0 + (item.x1 - item.x0) * fx;
        *y = item.y0 + (item.y1 - item.y0) * fy;
        return 1;
    }
    return 0;
}

int gui_item_find(const char* id, float* x, float* y) { return gui_item_find_at(id, 0.5f, 0.5f, x, y); }

void gui_items_new_frame() { g_frame++; }

void gui_items_forget(const char* prefix) {
    size_t n = strlen(prefix);
    for (named_item& item : g_items) {
        if (!strncmp(item.id, prefix, n)) item.id[0] = 0;
    }
}
