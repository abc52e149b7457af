// The timeline's pane as a plain list until the timeline editor arrives: every pattern
// in play order with its place, size and clone parent. A click makes it the current
// pattern (what "play pattern" loops and the pattern pane shows).
#include <cstdio>
#include <imgui.h>

#include "app/studio_windows.h"
#include "gui/gui_items.h"

void studio_pattern_list_draw(studio* st) {
    zelfon_song* song = st->song;
    ImGuiTableFlags flags = ImGuiTableFlags_ScrollY | ImGuiTableFlags_RowBg | ImGuiTableFlags_BordersInnerV | ImGuiTableFlags_SizingFixedFit;
    if (!ImGui::BeginTable("##patterns", 6, flags)) return;
    ImGui::TableSetupScrollFreeze(0, 1);
    ImGui::TableSetupColumn("Pattern");
    ImGui::TableSetupColumn("Line");
    ImGui::TableSetupColumn("Row");
    ImGui::TableSetupColumn("Lines");
    ImGui::TableSetupColumn("Tracks");
    ImGui::TableSetupColumn("Clone of", ImGuiTableColumnFlags_WidthStretch);
    ImGui::TableHeadersRow();
    bool playing = studio_is_playing(st);
    int line = playing ? studio_playing_line(st) : -1;
    for (int i = 0; i < song->sorted_pats_count; i++) {
        int slot = song->sorted_pats[i];
        const zelfon_pattern* p = song->pats[slot];
        const zelfon_pattern_info* info = &song->pats_info[slot];
        if (!p) continue;
        ImGui::TableNextRow();
        ImGui::TableNextColumn();
        char label[32];
        snprintf(label, sizeof label, "%03d##pat%d", slot, slot);
        bool sounding = line >= info->x && line < info->x + p->lines;
        if (sounding) ImGui::TableSetBgColor(ImGuiTableBgTarget_RowBg1, ImGui::GetColorU32(ImGuiCol_PlotHistogram, 0.35f));
        if (ImGui::Selectable(label, st->current_pattern == slot, ImGuiSelectableFlags_SpanAllColumns)) {
            st->current_pattern = slot;
            st->cursor_line = 0;
        }
        char id[32];
        snprintf(id, sizeof id, "timeline.pattern.%d", slot);
        gui_item_name(id);
        ImGui::TableNextColumn();
        ImGui::Text("%d", info->x);
        ImGui::TableNextColumn();
        ImGui::Text("%d", info->y);
        ImGui::TableNextColumn();
        ImGui::Text("%d", p->lines);
        ImGui::TableNextColumn();
        ImGui::Text("%d", p->channels);
        ImGui::TableNextColumn();
        if (info->flags & ZELFON_PATTERN_FLAG_CLONE) ImGui::Text("%03d", info->parent);
    }
    ImGui::EndTable();
}
