// The box is an ImGui modal popup; its buttons are named "msgbox.button.N" for scripts.
#include "gui/gui_message_box.h"

#include <cstdio>
#include <cstring>
#include <imgui.h>

#include "gui/gui_items.h"

namespace {

constexpr const char* kPopupId = "Zelfon##message";
constexpr int kMaxButtons = 8;

int split_buttons(const char* list, char names[kMaxButtons][GUI_MESSAGE_BUTTONS_SIZE]) {
    int n = 0;
    const char* p = list;
    while (n < kMaxButtons) {
        size_t len = strcspn(p, ";");
        snprintf(names[n++], GUI_MESSAGE_BUTTONS_SIZE, "%.*s", (int)len, p);
        if (!p[len]) break;
        p += len + 1;
    }
    return n;
}

void pop(gui_message_boxes* boxes) {
    memmove(&boxes->queue[0], &boxes->queue[1], sizeof boxes->queue[0] * (boxes->count - 1));
    boxes->count--;
    boxes->opened = 0;
    gui_items_forget("msgbox.");
}

}  // namespace

int gui_message_box_show(gui_message_boxes* boxes, const char* text, const char* buttons, gui_message_answer answer,
                         void* data) {
    const char* list = buttons && *buttons ? buttons : "OK";
    if (boxes->count == GUI_MESSAGE_BOX_QUEUE) {
        char names[kMaxButtons][GUI_MESSAGE_BUTTONS_SIZE];
        if (answer) answer(split_buttons(list, names) - 1, data);
        return 1;
    }
    gui_message_box_entry* e = &boxes->queue[boxes->count++];
    snprintf(e->text, sizeof e->text, "%s", text && text[0] == '!' ? text + 1 : text ? text : "");
    snprintf(e->buttons, sizeof e->buttons, "%s", list);
    e->answer = answer;
    e->data = data;
    return 0;
}

int gui_message_box_open(const gui_message_boxes* boxes) { return boxes->count > 0; }

void gui_message_boxes_draw(gui_message_boxes* boxes) {
    if (!boxes->count) return;
    if (!boxes->opened) ImGui::OpenPopup(kPopupId);
    boxes->opened++;
    ImGuiIO& io = ImGui::GetIO();
    ImGui::SetNextWindowPos(ImVec2(io.DisplaySize.x / 2, io.DisplaySize.y / 2), ImGuiCond_Appearing, ImVec2(0.5f, 0.5f));
    if (!ImGui::BeginPopupModal(kPopupId, nullptr, ImGuiWindowFlags_AlwaysAutoResize | ImGuiWindowFlags_NoSavedSettings)) {
        boxes->opened = 0;  // closed from outside: open it again next frame
        return;
    }
    gui_message_box_entry e = boxes->queue[0];
    ImGui::PushTextWrapPos(ImGui::GetFontSize() * 30.0f);
    ImGui::TextUnformatted(e.text);
    ImGui::PopTextWrapPos();
    gui_item_name("msgbox.text");
    ImGui::Spacing();
    char names[kMaxButtons][GUI_MESSAGE_BUTTONS_SIZE];
    int n = split_buttons(e.buttons, names);
    int chosen = -1;
    for (int b = 0; b < n; b++) {
        if (b) ImGui::SameLine();
        char label[GUI_MESSAGE_BUTTONS_SIZE + 16];
        snprintf(label, sizeof label, "%.127s##msg%d", names[b], b);
        if (ImGui::Button(label, ImVec2(ImGui::GetFontSize() * 6.0f, 0))) chosen = b;
        char id[32];
        snprintf(id, sizeof id, "msgbox.button.%d", b);
        gui_item_name(id);
    }
    // The key that opened the box (Enter in a dialog) must not answer it in the same frame.
    bool keys = boxes->opened > 1;
    if (keys && chosen < 0 && ImGui::IsKeyPressed(ImGui::GetKeyIndex(ImGuiKey_Enter), false)) chosen = 0;
    if (keys && chosen < 0 && ImGui::IsKeyPressed(ImGui::GetKeyIndex(ImGuiKey_Escape), false)) chosen = n - 1;
    if (chosen >= 0) ImGui::CloseCurrentPopup();
    ImGui::EndPopup();
    if (chosen >= 0) {
        pop(boxes);
        if (e.answer) e.answer(chosen, e.data);
    }
}
