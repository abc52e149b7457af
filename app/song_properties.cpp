// Song properties: the name, tempo, speed and global volume. Changes apply at once.
#include <cstdio>
#include <cstring>
#include <imgui.h>

#include "app/studio_windows.h"
#include "song/edit.h"
#include "gui/gui_fields.h"
#include "gui/gui_items.h"


void studio_edit_song_properties(studio* st, const char* name, int bpm, int speed, int volume) {
    int result = zelfon_edit_song_properties(name, bpm, speed, volume, st->song);
    if (result == ZELFON_EDIT_OK) studio_song_changed(st);
    else studio_status(st, "The song's settings could not be changed (out of memory)");
}

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
    int bpm = song->bpm, speed = song->speed, volume = song->net->global_volume;
    ImGui::SetNextItemWidth(ImGui::GetFontSize() * 16);
    bool changed = ImGui::InputText("Name", name, sizeof name);
    gui_item_name("songprops.name");
    float width = ImGui::GetFontSize() * 8;
    changed |= gui_labelled_int_field("BPM", "songprops.bpm", &bpm, ZELFON_BPM_MIN, ZELFON_BPM_MAX, width) != 0;
    changed |= gui_labelled_int_field("Speed (ticks per line)", "songprops.speed", &speed, 1, 31, width) != 0;
    changed |= gui_labelled_int_field("Global volume", "songprops.volume", &volume, 0, 512, width) != 0;
    if (changed) studio_edit_song_properties(st, name, bpm, speed, volume);
    if (ImGui::Button("Close")) open = false;
    gui_item_name("songprops.close");
    ImGui::End();
    st->show_song_properties = open;
}
