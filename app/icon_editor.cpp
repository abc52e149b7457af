// The icon editor: a pattern's 16 × 16 icon, a click toggles a pixel; clear, invert,
// mirror and random. Each change is one undoable edit of the pattern's look, which its
// clones share.
#include <SDL.h>
#include <cstdio>
#include <cstring>
#include <imgui.h>

#include "app/studio_windows.h"
#include "gui/gui_items.h"
#include "gui/gui_theme.h"
#include "song/edit.h"

namespace {

constexpr uint16_t kLeftmost = 0x8000;  // bit 15 of a row is its leftmost pixel

void apply(studio* st, int slot) {
    zelfon_pattern* p = st->song->pats[slot];
    zelfon_edit_begin(st->song);
    if (zelfon_edit_pattern_look(slot, p->fg, p->bg, st->timeline.icon, st->song) == ZELFON_EDIT_OK) studio_song_changed(st);
}

uint16_t mirrored(uint16_t row) {
    uint16_t out = 0;
    for (int b = 0; b < 16; b++) {
        if (row & (1u << b)) out |= (uint16_t)(1u << (15 - b));
    }
    return out;
}

}  // namespace

void studio_icon_editor_draw(studio* st) {
    studio_timeline* t = &st->timeline;
    int slot = t->icon_editor_slot;
    zelfon_song* song = st->song;
    if (slot < 0) return;
    if (slot >= song->pats_capacity || !song->pats[slot]) {
        t->icon_editor_slot = -1;
        return;
    }
    bool open = true;
    studio_place_window(0.35f, 0.25f);
    char title[48];
    snprintf(title, sizeof title, "Icon of pattern %03d###icon_editor", slot);
    if (ImGui::Begin(title, &open, ImGuiWindowFlags_AlwaysAutoResize)) {
        const zelfon_pattern* p = song->pats[slot];
        float cell = 14.0f * st->win.scale;
        ImVec2 origin = ImGui::GetCursorScreenPos();
        ImGui::InvisibleButton("##pixels", ImVec2(cell * 16, cell * 16));
        gui_item_name("icon.pixels");
        ImDrawList* draw = ImGui::GetWindowDrawList();
        bool changed = false;
        if (ImGui::IsItemClicked(0)) {
            ImVec2 m = ImGui::GetMousePos();
            int x = (int)((m.x - origin.x) / cell), y = (int)((m.y - origin.y) / cell);
            if (x >= 0 && x < 16 && y >= 0 && y < 16) {
                t->icon[y] ^= (uint16_t)(kLeftmost >> x);
                changed = true;
            }
        }
        for (int y = 0; y < 16; y++) {
            for (int x = 0; x < 16; x++) {
                ImVec2 a(origin.x + x * cell, origin.y + y * cell), b(a.x + cell - 1, a.y + cell - 1);
                bool on = t->icon[y] & (kLeftmost >> x);
                draw->AddRectFilled(a, b, on ? IM_COL32(p->fg[0], p->fg[1], p->fg[2], 255) : IM_COL32(p->bg[0], p->bg[1], p->bg[2], 255));
                char id[32];
                snprintf(id, sizeof id, "icon.pixel.%d.%d", x, y);
                gui_item_name_rect(id, a.x, a.y, b.x, b.y);
            }
        }
        if (ImGui::Button("Clear")) {
            memset(t->icon, 0, sizeof t->icon);
            changed = true;
        }
        gui_item_name("icon.clear");
        ImGui::SameLine();
        if (ImGui::Button("Invert")) {
            for (uint16_t& row : t->icon) row = (uint16_t)~row;
            changed = true;
        }
        gui_item_name("icon.invert");
        ImGui::SameLine();
        if (ImGui::Button("Mirror")) {
            for (uint16_t& row : t->icon) row = mirrored(row);
            changed = true;
        }
        gui_item_name("icon.mirror");
        ImGui::SameLine();
        if (ImGui::Button("Random")) {
            zelfon_make_random_icon(t->icon, SDL_GetTicks() * 2654435761u);
            changed = true;
        }
        gui_item_name("icon.random");
        if (changed) apply(st, slot);
    }
    ImGui::End();
    if (!open) t->icon_editor_slot = -1;
}
