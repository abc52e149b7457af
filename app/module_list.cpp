// The sound net's pane as a plain list until the net editor arrives: every module with
// its type and the modules that feed it. A click selects the module that note keys and
// the MIDI keyboard play.
#include <cstdio>
#include <imgui.h>

#include "app/studio_windows.h"
#include "gui/gui_items.h"
#include "psynth/psynth_modules.h"

void studio_module_list_draw(studio* st) {
    psynth_net* net = st->song->net;
    ImGuiTableFlags flags = ImGuiTableFlags_ScrollY | ImGuiTableFlags_RowBg | ImGuiTableFlags_BordersInnerV | ImGuiTableFlags_SizingFixedFit;
    if (!ImGui::BeginTable("##modules", 4, flags)) return;
    ImGui::TableSetupScrollFreeze(0, 1);
    ImGui::TableSetupColumn("#");
    ImGui::TableSetupColumn("Name");
    ImGui::TableSetupColumn("Type");
    ImGui::TableSetupColumn("Fed by", ImGuiTableColumnFlags_WidthStretch);
    ImGui::TableHeadersRow();
    for (int m = 0; m < net->slots; m++) {
        const psynth_module* mod = &net->modules[m];
        if (!(mod->flags & PSYNTH_FLAG_EXISTS)) continue;
        ImGui::TableNextRow();
        ImGui::TableNextColumn();
        char label[32];
        snprintf(label, sizeof label, "%02d##mod%d", m, m);
        if (ImGui::Selectable(label, st->selected_module == m, ImGuiSelectableFlags_SpanAllColumns) && m > 0) {
            st->selected_module = m;
        }
        char id[32];
        snprintf(id, sizeof id, "net.module.%d", m);
        gui_item_name(id);
        ImGui::TableNextColumn();
        ImVec4 colour(mod->color[0] / 255.0f, mod->color[1] / 255.0f, mod->color[2] / 255.0f, 1.0f);
        ImGui::TextColored(colour, "%s", mod->name);
        ImGui::TableNextColumn();
        const char* type = (mod->flags & PSYNTH_FLAG_OUTPUT) ? "Output" : psynth_get_module_type_name(mod->handler);
        ImGui::TextDisabled("%s", type ? type : "?");
        ImGui::TableNextColumn();
        char links[256] = "";
        int n = 0;
        for (int i = 0; i < mod->input_links_capacity && n < (int)sizeof links - 8; i++) {
            if (mod->input_links[i] >= 0) n += snprintf(links + n, sizeof links - n, "%s%02d", n ? " " : "", mod->input_links[i]);
        }
        ImGui::TextUnformatted(links);
    }
    ImGui::EndTable();
}
