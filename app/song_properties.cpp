// Song properties: the name, tempo, speed and global volume. Changes apply at once.
#include <cstdio>
#include <cstring>
#include <imgui.h>

#include "app/studio_windows.h"
#include "engine/memory.h"
#include "gui/gui_fields.h"
#include "gui/gui_items.h"


namespace {

int labelled_field(const char* label, const char* id, int* value, int min, int max, float width) {
    int changed = gui_int_field(id, value, min, max, width);
    ImGui::SameLine();
    ImGui::TextUnformatted(label);
    return changed;
}

}  // namespace

void studio_song_properties_draw(studio* st) {
    if (!st->show_song_properties) return;
    bool open = true;
    ImGui::SetNextWindowSize(ImVec2(ImGui::GetFontSize() * 22, 0), ImGuiCond_FirstUseEver);
    studio_place_window(0.08f, 0.12f);
    if (!ImGui::Begin("Song properties", &open, ImGuiWindowFlags_AlwaysAutoResize)) {
        ImGui::End();
        st->show_song_properties = open;
        return;
    }
    zelfon_song* song = st->song;
    char name[256];
    snprintf(name, sizeof name, "%s", song->name ? song->name : "");
    ImGui::SetNextItemWidth(ImGui::GetFontSize() * 16);
    if (ImGui::InputText("Name", name, sizeof name)) {
        char* copy = mem_strdup(name);
        if (copy) {
            mem_free(song->name);
            song->name = copy;
            studio_song_changed(st);
        }
    }
    gui_item_name("songprops.name");
    int bpm = song->bpm, speed = song->speed, volume = song->net->global_volume;
    float width = ImGui::GetFontSize() * 8;
    if (labelled_field("BPM", "songprops.bpm", &bpm, ZELFON_BPM_MIN, ZELFON_BPM_MAX, width)) {
        song->bpm = (uint16_t)bpm;
        studio_song_changed(st);
    }
    if (labelled_field("Speed (ticks per line)", "songprops.speed", &speed, 1, 31, width)) {
        song->speed = (uint8_t)speed;
        studio_song_changed(st);
    }
    if (labelled_field("Global volume", "songprops.volume", &volume, 0, 256, width)) {
        song->net->global_volume = volume;
        studio_song_changed(st);
    }
    if (ImGui::Button("Close")) open = false;
    gui_item_name("songprops.close");
    ImGui::End();
    st->show_song_properties = open;
}
