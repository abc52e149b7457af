// The log window: the log printer's lines as they are written, newest at the bottom.
// The printer's listener copies each line into a fixed ring (it must not allocate: it
// may run on any thread, under the printer's mutex).
#include <cstdio>
#include <cstring>
#include <imgui.h>

#include "app/studio_windows.h"
#include "engine/log.h"
#include "gui/gui_items.h"

namespace {

void listen(const char* message, void* data) {
    studio_log* log = (studio_log*)data;
    tarvik_mutex_lock(&log->mutex);
    // One message may hold several lines; each becomes its own entry.
    const char* p = message;
    while (*p) {
        size_t len = strcspn(p, "\n");
        int slot = (log->first + log->count) % STUDIO_LOG_LINES;
        if (log->count == STUDIO_LOG_LINES) log->first = (log->first + 1) % STUDIO_LOG_LINES;
        else log->count++;
        snprintf(log->lines[slot], STUDIO_LOG_LINE_SIZE, "%.*s", (int)len, p);
        log->added++;
        p += len;
        if (*p) p++;
    }
    tarvik_mutex_unlock(&log->mutex);
}

}  // namespace

void studio_log_init(studio* st) {
    tarvik_mutex_create(&st->log.mutex);
    tarvik_log_set_listener(listen, &st->log);
}

void studio_log_close(studio* st) {
    tarvik_log_set_listener(nullptr, nullptr);
    tarvik_mutex_destroy(&st->log.mutex);
}

void studio_log_draw(studio* st) {
    if (!st->show_log) return;
    bool open = true;
    ImGui::SetNextWindowSize(ImVec2(ImGui::GetFontSize() * 36, ImGui::GetFontSize() * 20), ImGuiCond_FirstUseEver);
    studio_place_window(0.05f, 0.50f);
    if (ImGui::Begin("Log", &open)) {
        studio_log* log = &st->log;
        ImGui::BeginChild("##lines", ImVec2(0, 0), false, ImGuiWindowFlags_HorizontalScrollbar);
        tarvik_mutex_lock(&log->mutex);
        ImGuiListClipper clipper;
        clipper.Begin(log->count);
        while (clipper.Step()) {
            for (int i = clipper.DisplayStart; i < clipper.DisplayEnd; i++) {
                ImGui::TextUnformatted(log->lines[(log->first + i) % STUDIO_LOG_LINES]);
            }
        }
        bool grew = log->added != log->shown;
        log->shown = log->added;
        tarvik_mutex_unlock(&log->mutex);
        if (grew && ImGui::GetScrollY() >= ImGui::GetScrollMaxY() - ImGui::GetFontSize() * 2) ImGui::SetScrollHereY(1.0f);
        ImGui::EndChild();
        gui_item_name("log.lines");
    }
    ImGui::End();
    st->show_log = open;
}
