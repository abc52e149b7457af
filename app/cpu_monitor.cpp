// The CPU monitor: the render's load over the last minute, per module from the net's
// accounting, underruns, the device buffer and the latency it gives.
#include <cstdio>
#include <imgui.h>

#include "app/studio_windows.h"
#include "engine/sound.h"
#include "gui/gui_items.h"

void studio_cpu_monitor_draw(studio* st) {
    if (!st->show_cpu_monitor) return;
    bool open = true;
    ImGui::SetNextWindowSize(ImVec2(ImGui::GetFontSize() * 26, ImGui::GetFontSize() * 22), ImGuiCond_FirstUseEver);
    studio_place_window(0.55f, 0.15f);
    if (ImGui::Begin("CPU monitor", &open)) {
        char overlay[32];
        snprintf(overlay, sizeof overlay, "%d%% now", st->cpu_load);
        ImGui::PlotLines("##load", st->cpu_history, STUDIO_CPU_HISTORY, st->cpu_history_pos, overlay, 0.0f, 100.0f,
                         ImVec2(-1, ImGui::GetFontSize() * 5));
        gui_item_name("cpu.plot");
        if (st->sound_ok) {
            int median, p99, max;
            sound_stream_load(&median, &p99, &max);
            ImGui::Text("Buffer %d frames at %d Hz: %.1f ms latency", g_snd.buffer, st->rate, 1000.0 * g_snd.buffer / st->rate);
            ImGui::Text("Underruns %u   refill share: median %.1f%%, 99%% %.1f%%, max %.1f%%", st->underruns, median / 10.0,
                        p99 / 10.0, max / 10.0);
        } else {
            ImGui::TextDisabled("No sound device is open.");
        }
        ImGui::Separator();
        const psynth_net* net = st->song->net;
        if (ImGui::BeginTable("##modules_cpu", 2, ImGuiTableFlags_RowBg | ImGuiTableFlags_ScrollY)) {
            for (int m = 0; m < net->slots; m++) {
                const psynth_module* mod = &net->modules[m];
                if (!(mod->flags & PSYNTH_FLAG_EXISTS)) continue;
                ImGui::TableNextRow();
                ImGui::TableNextColumn();
                ImGui::Text("%02d %s", m, mod->name);
                ImGui::TableNextColumn();
                ImGui::Text("%3d%%", mod->cpu_load);
            }
            ImGui::EndTable();
        }
    }
    ImGui::End();
    st->show_cpu_monitor = open;
}
