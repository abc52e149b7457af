// The desktop: one window-sized ImGui window with the menu bar (built from the action
// table), the transport, the timeline and net panes side by side above the pattern pane,
// split by bars the musician drags (remembered in the profile), and the status line.
#include <SDL.h>
#include <cstdio>
#include <cstring>
#include <imgui.h>

#include "app/studio_windows.h"
#include "gui/gui_items.h"
#include "gui/gui_splitter.h"
#include "gui/gui_theme.h"

namespace {

constexpr const char* kMenus[] = {"File", "Edit", "Song", "View", "Help"};
constexpr float kSplitterThickness = 5.0f;

bool action_checked(const studio* st, int id) {
    switch (id) {
    case APP_EDIT_MODE: return st->edit_mode;
    case APP_FOLLOW: return st->follow;
    case APP_CPU_MONITOR: return st->show_cpu_monitor;
    case APP_LOG: return st->show_log;
    case APP_STOP_AT_END: return st->stop_at_end;
    default: return false;
    }
}

void menu_id(char* out, size_t size, const char* menu, const char* action) {
    snprintf(out, size, "menu.%s.%s", menu, action);
    for (char* c = out; *c; c++) *c = (char)(*c >= 'A' && *c <= 'Z' ? *c - 'A' + 'a' : *c);
}

void draw_recent_menu(studio* st) {
    if (!ImGui::BeginMenu("Open Recent")) return;
    gui_item_name("menu.file.recent");
    bool any = false;
    for (int i = 0; i < STUDIO_RECENT_FILES; i++) {
        if (!st->recent[i][0]) continue;
        any = true;
        char label[STUDIO_PATH_SIZE + 16];
        snprintf(label, sizeof label, "%s##recent%d", st->recent[i], i);
        if (ImGui::MenuItem(label)) studio_files_open_path(st, st->recent[i]);
        char id[32];
        snprintf(id, sizeof id, "menu.file.recent.%d", i);
        gui_item_name(id);
    }
    if (!any) ImGui::TextDisabled("(none yet)");
    ImGui::EndMenu();
}

void draw_menu_bar(studio* st) {
    if (!ImGui::BeginMenuBar()) return;
    for (const char* menu : kMenus) {
        bool open = ImGui::BeginMenu(menu);
        char id[64];
        menu_id(id, sizeof id, menu, "");
        id[strlen(id) - 1] = 0;  // "menu.file"
        gui_item_name(id);
        if (!open) continue;
        for (int a = 0; a < APP_ACTIONS; a++) {
            const app_action* action = app_action_get(a);
            if (!action->menu || strcmp(action->menu, menu)) continue;
            if (a == APP_QUIT || a == APP_IMPORT || a == APP_PREFERENCES || a == APP_CUT || a == APP_TRANSPOSE_UP) ImGui::Separator();
            char keys[96];
            app_key_binding_format(&st->keys[a], keys, sizeof keys);
            if (ImGui::MenuItem(action->label, keys, action_checked(st, a))) app_action_run(st, a);
            menu_id(id, sizeof id, menu, action->name);
            gui_item_name(id);
            if (a == APP_OPEN) draw_recent_menu(st);
        }
        ImGui::EndMenu();
    }
    ImGui::EndMenuBar();
}

void draw_pane(const char* id, const char* title, float width, float height, void (*draw)(studio*), studio* st) {
    ImGui::BeginChild(id, ImVec2(width, height), true);
    ImGui::TextColored(ImGui::ColorConvertU32ToFloat4(gui_colour_u32(GUI_COLOUR_TEXT_DIM)), "%s", title);
    draw(st);
    ImGui::EndChild();
}

void draw_status_line(studio* st) {
    ImGui::Separator();
    bool message = st->status[0] && SDL_TICKS_PASSED(st->status_until_ms, SDL_GetTicks()) == 0;
    if (!st->sound_ok) {
        ImGui::TextColored(ImGui::ColorConvertU32ToFloat4(gui_colour_u32(GUI_COLOUR_WARNING)), "No sound device: Zelfon runs silent.");
        gui_item_name("status.sound");
        ImGui::SameLine();
    }
    if (message) ImGui::TextUnformatted(st->status);
    else ImGui::TextDisabled("%s", st->song_path[0] ? st->song_path : "Untitled song");
    gui_item_name("status.text");
}

}  // namespace

void studio_place_window(float x, float y) {
    ImVec2 size = ImGui::GetIO().DisplaySize;
    ImGui::SetNextWindowPos(ImVec2(size.x * x, size.y * y), ImGuiCond_FirstUseEver);
}

void studio_desktop_draw(studio* st) {
    ImGuiIO& io = ImGui::GetIO();
    ImGui::SetNextWindowPos(ImVec2(0, 0));
    ImGui::SetNextWindowSize(io.DisplaySize);
    ImGui::PushStyleVar(ImGuiStyleVar_WindowRounding, 0.0f);
    ImGuiWindowFlags flags = ImGuiWindowFlags_NoDecoration | ImGuiWindowFlags_MenuBar | ImGuiWindowFlags_NoMove |
                             ImGuiWindowFlags_NoBringToFrontOnFocus | ImGuiWindowFlags_NoSavedSettings |
                             ImGuiWindowFlags_NoScrollWithMouse;
    ImGui::Begin("##desktop", nullptr, flags);
    ImGui::PopStyleVar();
    draw_menu_bar(st);
    studio_transport_draw(st);

    float status_height = ImGui::GetFrameHeightWithSpacing() + ImGui::GetStyle().ItemSpacing.y;
    ImVec2 area = ImGui::GetContentRegionAvail();
    area.y -= status_height;
    float gap = kSplitterThickness * st->win.scale;
    float min_pane = ImGui::GetFontSize() * 4;
    float top = st->split_y * area.y, left = st->split_x * area.x;
    top = top < min_pane ? min_pane : top > area.y - min_pane ? area.y - min_pane : top;
    left = left < min_pane ? min_pane : left > area.x - min_pane ? area.x - min_pane : left;

    ImGui::PushStyleVar(ImGuiStyleVar_ItemSpacing, ImVec2(0, 0));
    draw_pane("##timeline", "Timeline", left, top, studio_timeline_draw, st);
    ImGui::SameLine();
    if (gui_splitter("split.vertical", 1, gap, top, &left, min_pane, area.x - min_pane)) st->split_x = left / area.x;
    ImGui::SameLine();
    draw_pane("##net", "Sound net", area.x - left - gap, top, studio_net_editor_draw, st);
    if (gui_splitter("split.horizontal", 0, gap, area.x, &top, min_pane, area.y - min_pane)) st->split_y = top / area.y;
    draw_pane("##pattern", "Pattern", area.x, area.y - top - gap, studio_pattern_editor_draw, st);
    ImGui::PopStyleVar();
    draw_status_line(st);
    ImGui::End();
}
