// Help > About: the program's name, its version and where its log and settings live.
#include <imgui.h>

#include "app/studio_windows.h"
#include "engine/file.h"
#include "engine/log.h"
#include "engine/memory.h"
#include "gui/gui_items.h"

void studio_about_draw(studio* st) {
    if (!st->show_about) return;
    bool open = true;
    studio_place_window(0.30f, 0.35f);
    if (ImGui::Begin("About Zelfon", &open, ImGuiWindowFlags_AlwaysAutoResize)) {
        ImGui::TextUnformatted("Zelfon 1.6.4 - a modular music studio");
        ImGui::TextDisabled("A tracker joined with a sound net, rendered in 16-bit fixed point.");
        char* log = v3_make_filename(TARVIK_LOG_FILE);
        char* settings = v3_make_filename("2:/");
        ImGui::Text("Log: %s", log ? log : "-");
        ImGui::Text("Settings: %s", settings ? settings : "-");
        mem_free(log);
        mem_free(settings);
        if (ImGui::Button("Close")) open = false;
        gui_item_name("about.close");
    }
    ImGui::End();
    st->show_about = open;
}
