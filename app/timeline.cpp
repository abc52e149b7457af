// The timeline: the song's patterns as blocks at (start line, row) with their icons and
// colours, clones marked; moved, resized, cloned, made and deleted with the mouse and
// keys; a rubber band selects several; zoom and pan; the playing line, the song's end, and
// a ruler that plays from the clicked line. Every change goes through the editing actions.
#include <SDL.h>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <imgui.h>

#include "app/studio_windows.h"
#include "engine/memory.h"
#include "gui/gui_fields.h"
#include "gui/gui_items.h"
#include "gui/gui_texture.h"
#include "gui/gui_theme.h"
#include "song/edit.h"
#include "song/playback.h"

namespace {

constexpr float kMinZoom = 0.25f;   // pixels per line
constexpr float kMaxZoom = 48.0f;
constexpr float kDefaultZoom = 4.0f;
constexpr float kEdgeGrab = 5.0f;   // pixels of a block's right edge that resize it
constexpr int kNewPatternLines = 64;
constexpr int kNewPatternTracks = 4;

struct canvas {
    ImVec2 origin;  // top-left of the canvas
    ImVec2 size;
    float ruler;    // height of the ruler above the rows
    float row_height;
    float zoom;
    float view_line, view_row;
};

float line_x(const canvas& c, float line) { return c.origin.x + (line - c.view_line) * c.zoom; }
float row_y(const canvas& c, float row) { return c.origin.y + c.ruler + (row - c.view_row) * c.row_height; }
float line_at(const canvas& c, float x) { return (x - c.origin.x) / c.zoom + c.view_line; }
float row_at(const canvas& c, float y) { return (y - c.origin.y - c.ruler) / c.row_height + c.view_row; }

bool exists(const zelfon_song* song, int slot) { return slot >= 0 && slot < song->pats_capacity && song->pats[slot]; }

bool is_selected(const studio_timeline* t, int slot) {
    for (int i = 0; i < t->selected_count; i++) {
        if (t->selected[i] == slot) return true;
    }
    return false;
}

void select_slot(studio_timeline* t, int slot, bool add) {
    if (!add) t->selected_count = 0;
    if (is_selected(t, slot) || t->selected_count == STUDIO_TIMELINE_SELECTION) return;
    t->selected[t->selected_count++] = slot;
}

// Forgets selected slots that no longer hold a pattern (after undo, load, delete).
void prune_selection(studio* st) {
    studio_timeline* t = &st->timeline;
    int kept = 0;
    for (int i = 0; i < t->selected_count; i++) {
        if (exists(st->song, t->selected[i])) t->selected[kept++] = t->selected[i];
    }
    t->selected_count = kept;
}

void block_rect(const canvas& c, const zelfon_song* song, int slot, int dl, int dr, ImVec2* a, ImVec2* b) {
    const zelfon_pattern_info* info = &song->pats_info[slot];
    *a = ImVec2(line_x(c, (float)(info->x + dl)), row_y(c, (float)(info->y + dr)));
    *b = ImVec2(line_x(c, (float)(info->x + dl + song->pats[slot]->lines)), a->y + c.row_height - 2);
}

// The topmost pattern under the point (the last drawn), or −1; `edge`: on its right edge.
int pattern_at(const canvas& c, const zelfon_song* song, ImVec2 m, bool* edge) {
    for (int i = song->sorted_pats_count - 1; i >= 0; i--) {
        int slot = song->sorted_pats[i];
        ImVec2 a, b;
        block_rect(c, song, slot, 0, 0, &a, &b);
        if (m.x < a.x || m.x > b.x + 1 || m.y < a.y || m.y > b.y) continue;
        *edge = m.x > b.x - kEdgeGrab;
        return slot;
    }
    return -1;
}

int snap(const studio* st, float lines) {
    int beat = st->song->lines_per_beat ? st->song->lines_per_beat : 4;
    // Whole beats, or single lines with Shift held.
    if (ImGui::GetIO().KeyShift) return (int)std::lround(lines);
    return (int)std::lround(lines / beat) * beat;
}

void draw_grid(const studio* st, const canvas& c, ImDrawList* draw) {
    int bar = (st->song->lines_per_beat ? st->song->lines_per_beat : 4) * 4;
    int step = bar;
    while (step * c.zoom < 24) step *= 2;  // keep the labels apart
    int first = (int)std::floor(c.view_line / step) * step;
    for (int l = first; line_x(c, (float)l) < c.origin.x + c.size.x; l += step) {
        float x = line_x(c, (float)l);
        draw->AddLine(ImVec2(x, c.origin.y + c.ruler), ImVec2(x, c.origin.y + c.size.y), gui_colour_u32(GUI_COLOUR_BORDER, 90));
        char label[16];
        snprintf(label, sizeof label, "%d", l);
        draw->AddText(ImVec2(x + 2, c.origin.y), gui_colour_u32(GUI_COLOUR_TEXT_DIM), label);
    }
}

void draw_blocks(studio* st, const canvas& c, ImDrawList* draw) {
    zelfon_song* song = st->song;
    studio_timeline* t = &st->timeline;
    if (song->icons_atlas) {
        int height = (int)(mem_get_size(song->icons_usage) / ZELFON_ICONS_STEP) * ZELFON_ICON_SIZE;
        t->atlas_texture = gui_texture_alpha(&st->win, t->atlas_texture, song->icons_atlas, ZELFON_ICON_ATLAS_WIDTH, height);
        t->atlas_height = height;
    }
    bool dragging = t->drag == STUDIO_DRAG_MOVE || t->drag == STUDIO_DRAG_CLONE;
    for (int i = 0; i < song->sorted_pats_count; i++) {
        int slot = song->sorted_pats[i];
        const zelfon_pattern* p = song->pats[slot];
        ImVec2 a, b;
        block_rect(c, song, slot, 0, 0, &a, &b);
        if (t->drag == STUDIO_DRAG_RESIZE && is_selected(t, slot)) b.x += t->drag_lines * c.zoom;
        if (b.x < c.origin.x || a.x > c.origin.x + c.size.x || b.y < c.origin.y || a.y > c.origin.y + c.size.y) continue;
        bool clone = song->pats_info[slot].flags & ZELFON_PATTERN_FLAG_CLONE;
        bool sel = is_selected(t, slot);
        draw->AddRectFilled(a, b, IM_COL32(p->bg[0], p->bg[1], p->bg[2], 255), 3.0f);
        if (clone) {
            // Clones carry stripes: the same music as their parent.
            draw->PushClipRect(a, b, true);
            for (float x = a.x - (b.y - a.y); x < b.x; x += 8) {
                draw->AddLine(ImVec2(x, b.y), ImVec2(x + (b.y - a.y), a.y), IM_COL32(p->fg[0], p->fg[1], p->fg[2], 60));
            }
            draw->PopClipRect();
        }
        draw->AddRect(a, b, sel ? gui_colour_u32(GUI_COLOUR_ACCENT_HOVER) : IM_COL32(p->fg[0], p->fg[1], p->fg[2], 180), 3.0f, 0, sel ? 2.0f : 1.0f);
        ImU32 fg = IM_COL32(p->fg[0], p->fg[1], p->fg[2], 255);
        float x = a.x + 3;
        if (t->atlas_texture && p->icon_num >= 0 && b.x - a.x > 20) {
            float u0 = (float)((p->icon_num % 16) * 16) / ZELFON_ICON_ATLAS_WIDTH, v0 = (float)((p->icon_num / 16) * 16) / t->atlas_height;
            float u1 = u0 + 16.0f / ZELFON_ICON_ATLAS_WIDTH, v1 = v0 + 16.0f / t->atlas_height;
            draw->AddImage(t->atlas_texture, ImVec2(x, a.y + 2), ImVec2(x + 16, a.y + 18), ImVec2(u0, v0), ImVec2(u1, v1), fg);
            x += 19;
        }
        char label[32];
        snprintf(label, sizeof label, clone ? "%03d<%03d" : "%03d", slot, song->pats_info[slot].parent);
        if (b.x - x > ImGui::CalcTextSize(label).x) draw->AddText(ImVec2(x, a.y + 2), fg, label);
        char id[32];
        snprintf(id, sizeof id, "timeline.pattern.%d", slot);
        gui_item_name_rect(id, a.x, a.y, b.x - kEdgeGrab, b.y);
        snprintf(id, sizeof id, "timeline.edge.%d", slot);
        gui_item_name_rect(id, b.x - kEdgeGrab + 1, a.y, b.x, b.y);
        if (dragging && sel) {
            ImVec2 ga, gb;
            block_rect(c, song, slot, t->drag_lines, t->drag_rows, &ga, &gb);
            draw->AddRect(ga, gb, gui_colour_u32(GUI_COLOUR_ACCENT_HOVER), 3.0f, 0, 2.0f);
        }
    }
}

void draw_markers(studio* st, const canvas& c, ImDrawList* draw) {
    float end = line_x(c, (float)st->song->song_lines);
    draw->AddLine(ImVec2(end, c.origin.y), ImVec2(end, c.origin.y + c.size.y), gui_colour_u32(GUI_COLOUR_RECORD, 200), 2.0f);
    draw->AddText(ImVec2(end + 3, c.origin.y + c.ruler), gui_colour_u32(GUI_COLOUR_RECORD), "end");
    if (studio_is_playing(st)) {
        float x = line_x(c, (float)studio_playing_line(st));
        draw->AddLine(ImVec2(x, c.origin.y), ImVec2(x, c.origin.y + c.size.y), gui_colour_u32(GUI_COLOUR_PLAY_LINE), 2.0f);
    }
    float cx = line_x(c, (float)st->timeline.cursor_line), cy = row_y(c, (float)st->timeline.cursor_row);
    draw->AddRect(ImVec2(cx - 1, cy), ImVec2(cx + 1, cy + c.row_height), gui_colour_u32(GUI_COLOUR_TEXT, 160));
}

void finish_drag(studio* st) {
    studio_timeline* t = &st->timeline;
    zelfon_song* song = st->song;
    int result = ZELFON_EDIT_OK;
    switch (t->drag) {
    case STUDIO_DRAG_MOVE:
        if (!t->drag_lines && !t->drag_rows) break;
        zelfon_edit_begin(song);
        result = zelfon_edit_move_patterns(t->selected, t->selected_count, t->drag_lines, t->drag_rows, song);
        break;
    case STUDIO_DRAG_CLONE: {
        zelfon_edit_begin(song);
        int clones[STUDIO_TIMELINE_SELECTION], n = 0;
        for (int i = 0; i < t->selected_count; i++) {
            int s = t->selected[i];
            int c = zelfon_edit_clone_pattern(s, song->pats_info[s].x + t->drag_lines, song->pats_info[s].y + t->drag_rows, song);
            if (c >= 0) clones[n++] = c;
            else result = ZELFON_EDIT_NO_MEMORY;
        }
        memcpy(t->selected, clones, sizeof(int) * n);
        t->selected_count = n;
        break;
    }
    case STUDIO_DRAG_RESIZE: {
        if (!t->drag_lines || !t->selected_count) break;
        int s = t->selected[0];
        int lines = song->pats[s]->lines + t->drag_lines;
        zelfon_edit_begin(song);
        result = zelfon_edit_resize_pattern(s, lines < 1 ? 1 : lines, song->pats[s]->channels, song);
        break;
    }
    default: break;
    }
    if (result == ZELFON_EDIT_OK) studio_song_changed(st);
    else studio_status(st, result == ZELFON_EDIT_OUTSIDE ? "Beyond the pattern limits: nothing changed" : "Not enough memory: nothing changed");
    t->drag = STUDIO_DRAG_NONE;
    t->drag_lines = t->drag_rows = 0;
}

void band_select(studio* st, const canvas& c, ImVec2 a, ImVec2 b) {
    ImVec2 lo(a.x < b.x ? a.x : b.x, a.y < b.y ? a.y : b.y), hi(a.x < b.x ? b.x : a.x, a.y < b.y ? b.y : a.y);
    zelfon_song* song = st->song;
    for (int i = 0; i < song->sorted_pats_count; i++) {
        int slot = song->sorted_pats[i];
        ImVec2 pa, pb;
        block_rect(c, song, slot, 0, 0, &pa, &pb);
        if (pb.x >= lo.x && pa.x <= hi.x && pb.y >= lo.y && pa.y <= hi.y) select_slot(&st->timeline, slot, true);
    }
}

// `hovered`: the pointer is over the canvas (its button holds the mouse while dragging).
void handle_mouse(studio* st, const canvas& c, bool hovered) {
    studio_timeline* t = &st->timeline;
    ImGuiIO& io = ImGui::GetIO();
    ImVec2 m = io.MousePos;
    if (hovered && (ImGui::IsMouseClicked(0) || ImGui::IsMouseClicked(1) || ImGui::IsMouseClicked(2))) st->focus = STUDIO_FOCUS_TIMELINE;
    if (hovered && io.MouseWheel != 0) {
        if (io.KeyCtrl) {
            float anchor = line_at(c, m.x);
            t->zoom *= io.MouseWheel > 0 ? 1.25f : 0.8f;
            t->zoom = t->zoom < kMinZoom ? kMinZoom : t->zoom > kMaxZoom ? kMaxZoom : t->zoom;
            t->view_line = anchor - (m.x - c.origin.x) / t->zoom;
        } else if (io.KeyShift) {
            t->view_line -= io.MouseWheel * 32 / t->zoom;
        } else {
            t->view_row -= io.MouseWheel;
        }
    }
    if (hovered && ImGui::IsMouseClicked(2)) t->drag = STUDIO_DRAG_PAN;
    if (t->drag == STUDIO_DRAG_PAN) {
        t->view_line -= io.MouseDelta.x / t->zoom;
        t->view_row -= io.MouseDelta.y / c.row_height;
        if (!ImGui::IsMouseDown(2)) t->drag = STUDIO_DRAG_NONE;
        return;
    }
    if (hovered && m.y < c.origin.y + c.ruler && ImGui::IsMouseClicked(0)) {
        // The ruler: play from the clicked line.
        int line = (int)line_at(c, m.x);
        if (st->sound_ok) zelfon_play(line < 0 ? 0 : line, st->song);
        return;
    }
    bool edge = false;
    int slot = hovered ? pattern_at(c, st->song, m, &edge) : -1;
    if (slot >= 0 && edge) ImGui::SetMouseCursor(ImGuiMouseCursor_ResizeEW);
    if (hovered && ImGui::IsMouseDoubleClicked(0) && slot >= 0) {
        st->current_pattern = slot;
        st->cursor_line = 0;
        st->focus = STUDIO_FOCUS_PATTERN;
        t->drag = STUDIO_DRAG_NONE;
        return;
    }
    if (hovered && ImGui::IsMouseClicked(0)) {
        t->press_x = m.x;
        t->press_y = m.y;
        t->drag_lines = t->drag_rows = 0;
        t->cursor_line = snap(st, line_at(c, m.x));
        t->cursor_row = (int)std::floor(row_at(c, m.y));
        if (slot < 0) {
            if (!io.KeyShift) t->selected_count = 0;
            t->drag = STUDIO_DRAG_BAND;
        } else {
            if (!is_selected(t, slot)) select_slot(t, slot, io.KeyShift);
            st->current_pattern = slot;
            t->drag = edge ? STUDIO_DRAG_RESIZE : io.KeyCtrl ? STUDIO_DRAG_CLONE : STUDIO_DRAG_MOVE;
            if (edge) select_slot(t, slot, false);
        }
    }
    if (hovered && ImGui::IsMouseClicked(1) && slot >= 0) {
        if (!is_selected(t, slot)) select_slot(t, slot, false);
        t->menu_slot = slot;
        ImGui::OpenPopup("##timeline_menu");
    }
    if (t->drag != STUDIO_DRAG_NONE && ImGui::IsMouseDown(0)) {
        t->drag_lines = snap(st, (m.x - t->press_x) / c.zoom);
        t->drag_rows = (int)std::lround((m.y - t->press_y) / c.row_height);
        if (t->drag == STUDIO_DRAG_BAND) {
            ImGui::GetWindowDrawList()->AddRect(ImVec2(t->press_x, t->press_y), m, gui_colour_u32(GUI_COLOUR_ACCENT_HOVER));
            ImGui::GetWindowDrawList()->AddRectFilled(ImVec2(t->press_x, t->press_y), m, gui_colour_u32(GUI_COLOUR_ACCENT, 40));
        }
    }
    if (t->drag != STUDIO_DRAG_NONE && !ImGui::IsMouseDown(0)) {
        if (t->drag == STUDIO_DRAG_BAND) {
            band_select(st, c, ImVec2(t->press_x, t->press_y), m);
            t->drag = STUDIO_DRAG_NONE;
        } else {
            finish_drag(st);
        }
    }
}

void draw_menu(studio* st) {
    if (!ImGui::BeginPopup("##timeline_menu")) return;
    studio_timeline* t = &st->timeline;
    zelfon_song* song = st->song;
    int slot = t->menu_slot;
    if (!exists(song, slot)) {
        ImGui::EndPopup();
        return;
    }
    zelfon_pattern* p = song->pats[slot];
    bool clone = song->pats_info[slot].flags & ZELFON_PATTERN_FLAG_CLONE;
    ImGui::TextDisabled("Pattern %03d%s", slot, clone ? " (clone)" : "");
    if (ImGui::MenuItem("Play in a Loop")) {
        st->current_pattern = slot;
        studio_play_pattern(st);
    }
    gui_item_name("timeline.menu.loop");
    if (ImGui::MenuItem("Clone", "Ctrl+D")) studio_timeline_clone_selection(st);
    gui_item_name("timeline.menu.clone");
    if (ImGui::MenuItem("Make Unique", nullptr, false, clone)) {
        zelfon_edit_begin(song);
        if (zelfon_edit_make_unique(slot, song) == ZELFON_EDIT_OK) studio_song_changed(st);
    }
    gui_item_name("timeline.menu.unique");
    if (ImGui::MenuItem("Icon Editor...")) {
        t->icon_editor_slot = slot;
        memcpy(t->icon, p->icon, sizeof t->icon);
    }
    gui_item_name("timeline.menu.icon");
    if (ImGui::MenuItem("Delete", "Delete")) studio_delete_key(st);
    gui_item_name("timeline.menu.delete");
    ImGui::Separator();
    int lines = p->lines, tracks = p->channels;
    // Applied when Enter confirms them: a pattern does not shrink to "2" on the way to "256".
    float width = ImGui::GetFontSize() * 7;
    bool resized = gui_labelled_int_field("Lines", "timeline.menu.lines", &lines, 1, ZELFON_MAX_PATTERN_LINES, width, true);
    resized |= gui_labelled_int_field("Tracks", "timeline.menu.tracks", &tracks, 1, ZELFON_MAX_TRACKS, width, true) != 0;
    if (resized) {
        zelfon_edit_begin(song);
        if (zelfon_edit_resize_pattern(slot, lines, tracks, song) == ZELFON_EDIT_OK) studio_song_changed(st);
    }
    float fg[3] = {p->fg[0] / 255.0f, p->fg[1] / 255.0f, p->fg[2] / 255.0f};
    float bg[3] = {p->bg[0] / 255.0f, p->bg[1] / 255.0f, p->bg[2] / 255.0f};
    bool fg_changed = ImGui::ColorEdit3("Foreground", fg, ImGuiColorEditFlags_NoInputs);
    if (ImGui::IsItemActivated()) zelfon_edit_begin(song);
    bool bg_changed = ImGui::ColorEdit3("Background", bg, ImGuiColorEditFlags_NoInputs);
    if (ImGui::IsItemActivated()) zelfon_edit_begin(song);
    if (fg_changed || bg_changed) {
        uint8_t f[3], b[3];
        for (int i = 0; i < 3; i++) {
            f[i] = (uint8_t)(fg[i] * 255.0f + 0.5f);
            b[i] = (uint8_t)(bg[i] * 255.0f + 0.5f);
        }
        if (zelfon_edit_pattern_look(slot, f, b, p->icon, song) == ZELFON_EDIT_OK) studio_song_changed(st);
    }
    ImGui::EndPopup();
}

}  // namespace

void studio_timeline_draw(studio* st) {
    studio_timeline* t = &st->timeline;
    if (t->zoom <= 0) {
        t->zoom = kDefaultZoom;
        t->icon_editor_slot = -1;
    }
    prune_selection(st);
    ImGui::BeginChild("##timeline_canvas", ImVec2(0, 0), false, ImGuiWindowFlags_NoScrollbar | ImGuiWindowFlags_NoScrollWithMouse | ImGuiWindowFlags_NoNav);
    canvas c;
    c.origin = ImGui::GetCursorScreenPos();
    c.size = ImGui::GetContentRegionAvail();
    c.ruler = ImGui::GetTextLineHeightWithSpacing();
    c.row_height = 22.0f * st->win.scale;
    c.zoom = t->zoom;
    c.view_line = t->view_line;
    c.view_row = t->view_row;
    ImGui::InvisibleButton("##canvas", ImVec2(c.size.x > 1 ? c.size.x : 1, c.size.y > 1 ? c.size.y : 1),
                           ImGuiButtonFlags_MouseButtonLeft | ImGuiButtonFlags_MouseButtonRight | ImGuiButtonFlags_MouseButtonMiddle);
    gui_item_name("timeline.canvas");
    bool hovered = ImGui::IsItemHovered() || ImGui::IsItemActive();
    gui_item_name_rect("timeline.ruler", c.origin.x, c.origin.y, c.origin.x + c.size.x, c.origin.y + c.ruler);
    ImDrawList* draw = ImGui::GetWindowDrawList();
    draw->PushClipRect(c.origin, ImVec2(c.origin.x + c.size.x, c.origin.y + c.size.y), true);
    draw->AddRectFilled(c.origin, ImVec2(c.origin.x + c.size.x, c.origin.y + c.ruler), gui_colour_u32(GUI_COLOUR_PANEL_HEADER));
    draw_grid(st, c, draw);
    draw_blocks(st, c, draw);
    draw_markers(st, c, draw);
    handle_mouse(st, c, hovered);
    draw->PopClipRect();
    // The playing line stays in view while following.
    if (st->follow && studio_is_playing(st)) {
        float x = line_x(c, (float)studio_playing_line(st));
        if (x < c.origin.x || x > c.origin.x + c.size.x * 0.9f) t->view_line = studio_playing_line(st) - c.size.x * 0.1f / t->zoom;
    }
    draw_menu(st);
    ImGui::EndChild();
}

void studio_timeline_fit(studio* st) {
    if (st->focus == STUDIO_FOCUS_NET) {
        studio_net_fit(st);
        return;
    }
    studio_timeline* t = &st->timeline;
    zelfon_song* song = st->song;
    int first = 0, last = song->song_lines > 0 ? song->song_lines : 64, top = 0;
    for (int i = 0; i < song->sorted_pats_count; i++) {
        const zelfon_pattern_info* info = &song->pats_info[song->sorted_pats[i]];
        if (info->x < first) first = info->x;
        if (info->y < top) top = info->y;
    }
    float width = ImGui::GetIO().DisplaySize.x * st->split_x - 20;
    t->zoom = width / (float)(last - first + 8);
    t->zoom = t->zoom < kMinZoom ? kMinZoom : t->zoom > kMaxZoom ? kMaxZoom : t->zoom;
    t->view_line = (float)first - 4 / t->zoom;
    t->view_row = (float)top;
}

void studio_timeline_clone_selection(studio* st) {
    studio_timeline* t = &st->timeline;
    zelfon_song* song = st->song;
    if (!t->selected_count) return;
    zelfon_edit_begin(song);
    int clones[STUDIO_TIMELINE_SELECTION], n = 0;
    for (int i = 0; i < t->selected_count; i++) {
        int s = t->selected[i];
        // Right after the pattern, on its row.
        int c = zelfon_edit_clone_pattern(s, song->pats_info[s].x + song->pats[s]->lines, song->pats_info[s].y, song);
        if (c >= 0) clones[n++] = c;
    }
    memcpy(t->selected, clones, sizeof(int) * n);
    t->selected_count = n;
    if (n) studio_song_changed(st);
    if (n) st->current_pattern = clones[0];
}

void studio_delete_key(studio* st) {
    if (st->focus == STUDIO_FOCUS_NET) {
        studio_net_delete(st);
        return;
    }
    if (st->focus != STUDIO_FOCUS_TIMELINE) {
        studio_pattern_clear(st, 0);
        return;
    }
    studio_timeline* t = &st->timeline;
    if (!t->selected_count) return;
    zelfon_edit_begin(st->song);
    for (int i = 0; i < t->selected_count; i++) {
        if (exists(st->song, t->selected[i])) zelfon_edit_remove_pattern(t->selected[i], st->song);
    }
    t->selected_count = 0;
    studio_song_changed(st);
    if (!exists(st->song, st->current_pattern)) st->current_pattern = -1;
}

void studio_insert_key(studio* st) {
    if (st->focus != STUDIO_FOCUS_TIMELINE) {
        studio_pattern_insert_line(st, 1);
        return;
    }
    studio_timeline* t = &st->timeline;
    zelfon_edit_begin(st->song);
    int slot = zelfon_edit_new_pattern(kNewPatternLines, kNewPatternTracks, t->cursor_line, t->cursor_row, SDL_GetTicks(), st->song);
    if (slot < 0) {
        studio_status(st, "Not enough memory for a new pattern");
        return;
    }
    studio_song_changed(st);
    select_slot(t, slot, false);
    st->current_pattern = slot;
    st->cursor_line = 0;
}
