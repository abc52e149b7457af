// The listing is read when the folder changes (not every frame); sizes and dates come
// from the file layer. Items are named "filedlg.*" for scripts.
#include "gui/gui_file_dialog.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <imgui.h>
#include <strings.h>

#include "engine/file.h"
#include "engine/memory.h"
#include "gui/gui_items.h"

namespace {

constexpr const char* kPopupId = "##filedialog";

void join(char* out, size_t size, const char* folder, const char* name) {
    snprintf(out, size, "%s%s%s", folder, folder[0] && folder[strlen(folder) - 1] == '/' ? "" : "/", name);
}

int compare_entries(const void* a, const void* b) {
    const gui_file_entry* x = (const gui_file_entry*)a;
    const gui_file_entry* y = (const gui_file_entry*)b;
    if (x->is_dir != y->is_dir) return y->is_dir - x->is_dir;
    return strcasecmp(x->name, y->name);
}

int add_entry(gui_file_dialog* d, const char* name, int is_dir) {
    size_t capacity = mem_get_size(d->entries) / sizeof(gui_file_entry);
    if ((size_t)d->count == capacity) {
        void* grown = mem_resize(d->entries, (capacity + 64) * sizeof(gui_file_entry));
        if (!grown) return 1;
        d->entries = (gui_file_entry*)grown;
    }
    gui_file_entry* e = &d->entries[d->count++];
    snprintf(e->name, sizeof e->name, "%s", name);
    e->is_dir = is_dir;
    char path[GUI_FILE_PATH_SIZE + GUI_FILE_NAME_SIZE];
    join(path, sizeof path, d->folder, name);
    e->size = is_dir ? 0 : v3_get_file_size(path);
    e->time = v3_get_file_time(path);
    return 0;
}

void read_folder(gui_file_dialog* d) {
    d->count = 0;
    d->selected = -1;
    d->error[0] = 0;
    v3_find_item item = {};
    item.path = d->folder;
    item.mask = d->show_all ? "" : d->mask;
    if (strcmp(d->folder, "/")) add_entry(d, "..", 1);
    if (v3_find_first(&item)) {
        do {
            if (!strcmp(item.name, ".") || !strcmp(item.name, "..") || item.name[0] == 0) continue;
            if (item.name[0] == '.' && !d->show_all) continue;  // hidden files
            if (add_entry(d, item.name, item.type == 1)) break;
        } while (v3_find_next(&item));
    } else {
        snprintf(d->error, sizeof d->error, "This folder cannot be read.");
    }
    v3_find_close(&item);
    if (d->count > 1) qsort(d->entries + (strcmp(d->folder, "/") ? 1 : 0), d->count - (strcmp(d->folder, "/") ? 1 : 0),
                            sizeof(gui_file_entry), compare_entries);
}

void go_to(gui_file_dialog* d, const char* folder) {
    char resolved[GUI_FILE_PATH_SIZE];
    if (!realpath(folder, resolved)) return;
    snprintf(d->folder, sizeof d->folder, "%s", resolved);
    read_folder(d);
}

void enter_folder(gui_file_dialog* d, const char* name) {
    char path[GUI_FILE_PATH_SIZE + GUI_FILE_NAME_SIZE];
    join(path, sizeof path, d->folder, name);
    go_to(d, path);
}

// Opens a selected folder, or finishes with the file. Returns 1 when finished.
int choose(gui_file_dialog* d) {
    if (d->selected >= 0 && d->selected < d->count && d->entries[d->selected].is_dir) {
        enter_folder(d, d->entries[d->selected].name);
        return 0;
    }
    if (!d->name[0]) return 0;
    if (d->name[0] == '/') snprintf(d->result, sizeof d->result, "%s", d->name);
    else join(d->result, sizeof d->result, d->folder, d->name);
    return 1;
}

// The first entry whose name starts with the typed text, after the selection.
void jump_to_typed(gui_file_dialog* d, const ImWchar* typed, int count) {
    char prefix[16] = {};
    int n = 0;
    for (int i = 0; i < count && n < 15; i++) {
        if (typed[i] < 128) prefix[n++] = (char)typed[i];
    }
    if (!n) return;
    for (int k = 0; k < d->count; k++) {
        if (!strncasecmp(d->entries[k].name, prefix, (size_t)n)) {
            d->selected = k;
            d->scroll_to_selected = 1;
            if (!d->entries[k].is_dir) snprintf(d->name, sizeof d->name, "%s", d->entries[k].name);
            return;
        }
    }
}

void size_text(char* out, size_t size, const gui_file_entry* e) {
    if (e->is_dir) snprintf(out, size, "folder");
    else if (e->size < 10240) snprintf(out, size, "%lld B", (long long)e->size);
    else if (e->size < 10 << 20) snprintf(out, size, "%lld KB", (long long)(e->size >> 10));
    else snprintf(out, size, "%lld MB", (long long)(e->size >> 20));
}

void time_text(char* out, size_t size, int64_t t) {
    if (t < 0) {
        snprintf(out, size, "-");
        return;
    }
    time_t tt = (time_t)t;
    struct tm tm;
    localtime_r(&tt, &tm);
    strftime(out, size, "%Y-%m-%d %H:%M", &tm);
}

void draw_bookmarks(gui_file_dialog* d, int* finished) {
    for (int b = 0; b < d->bookmarks_count; b++) {
        const gui_file_bookmark* bm = &d->bookmarks[b];
        char label[96];
        snprintf(label, sizeof label, "%s##bm%d", bm->label, b);
        if (ImGui::Selectable(label)) {
            int h = v3_open(bm->path, "rb");  // folders do not open as files
            if (h) {
                // A file (a recent song): open it at once.
                v3_close(h);
                snprintf(d->result, sizeof d->result, "%s", bm->path);
                *finished = 1;
            } else {
                go_to(d, bm->path);
            }
        }
        char id[32];
        snprintf(id, sizeof id, "filedlg.bookmark.%d", b);
        gui_item_name(id);
    }
}

void draw_listing(gui_file_dialog* d, int* finished) {
    ImGuiTableFlags flags = ImGuiTableFlags_ScrollY | ImGuiTableFlags_RowBg | ImGuiTableFlags_BordersInnerV;
    if (!ImGui::BeginTable("##files", 3, flags, ImVec2(0, -ImGui::GetFrameHeightWithSpacing() * 2))) return;
    ImGui::TableSetupScrollFreeze(0, 1);
    ImGui::TableSetupColumn("Name", ImGuiTableColumnFlags_WidthStretch);
    ImGui::TableSetupColumn("Size", ImGuiTableColumnFlags_WidthFixed, ImGui::GetFontSize() * 5);
    ImGui::TableSetupColumn("Changed", ImGuiTableColumnFlags_WidthFixed, ImGui::GetFontSize() * 8);
    ImGui::TableHeadersRow();
    for (int k = 0; k < d->count; k++) {
        const gui_file_entry* e = &d->entries[k];
        ImGui::TableNextRow();
        ImGui::TableNextColumn();
        char label[GUI_FILE_NAME_SIZE + 16];
        snprintf(label, sizeof label, "%s%s##f%d", e->name, e->is_dir ? "/" : "", k);
        if (ImGui::Selectable(label, d->selected == k, ImGuiSelectableFlags_SpanAllColumns | ImGuiSelectableFlags_AllowDoubleClick)) {
            d->selected = k;
            if (!e->is_dir) snprintf(d->name, sizeof d->name, "%s", e->name);
            if (ImGui::IsMouseDoubleClicked(0)) *finished = choose(d);
        }
        char id[GUI_FILE_NAME_SIZE + 16];
        snprintf(id, sizeof id, "filedlg.file.%s", e->name);
        gui_item_name(id);
        if (d->selected == k && d->scroll_to_selected) {
            ImGui::SetScrollHereY();
            d->scroll_to_selected = 0;
        }
        char text[64];
        ImGui::TableNextColumn();
        size_text(text, sizeof text, e);
        ImGui::TextDisabled("%s", text);
        ImGui::TableNextColumn();
        time_text(text, sizeof text, e->time);
        ImGui::TextDisabled("%s", text);
    }
    ImGui::EndTable();
}

}  // namespace

void gui_file_dialog_open(gui_file_dialog* d, const char* title, const char* folder, const char* mask, int save,
                          const char* name) {
    d->open = 1;
    d->save = save;
    d->show_all = 0;
    snprintf(d->title, sizeof d->title, "%s", title);
    snprintf(d->mask, sizeof d->mask, "%s", mask ? mask : "");
    snprintf(d->name, sizeof d->name, "%s", name ? name : "");
    d->result[0] = 0;
    if (!folder || !folder[0]) folder = ".";
    snprintf(d->folder, sizeof d->folder, "%s", folder);
    go_to(d, folder);
    if (!d->folder[0] || d->count == 0) go_to(d, ".");
}

void gui_file_dialog_add_bookmark(gui_file_dialog* d, const char* label, const char* path) {
    if (d->bookmarks_count == GUI_FILE_BOOKMARKS || !path || !path[0]) return;
    gui_file_bookmark* b = &d->bookmarks[d->bookmarks_count++];
    snprintf(b->label, sizeof b->label, "%s", label);
    snprintf(b->path, sizeof b->path, "%s", path);
}

int gui_file_dialog_draw(gui_file_dialog* d) {
    if (!d->open) return 0;
    ImGui::OpenPopup(kPopupId);
    ImGuiIO& io = ImGui::GetIO();
    ImGui::SetNextWindowPos(ImVec2(io.DisplaySize.x / 2, io.DisplaySize.y / 2), ImGuiCond_Always, ImVec2(0.5f, 0.5f));
    ImGui::SetNextWindowSize(ImVec2(io.DisplaySize.x * 0.85f, io.DisplaySize.y * 0.85f), ImGuiCond_Always);
    if (!ImGui::BeginPopupModal(kPopupId, nullptr, ImGuiWindowFlags_NoTitleBar | ImGuiWindowFlags_NoSavedSettings)) return 0;
    int finished = 0, cancelled = 0;
    ImGui::TextUnformatted(d->title);
    ImGui::SameLine();
    ImGui::TextDisabled("  %s", d->folder);
    ImGui::Separator();

    ImGui::BeginChild("##bookmarks", ImVec2(ImGui::GetFontSize() * 9, -ImGui::GetFrameHeightWithSpacing() * 2), true);
    draw_bookmarks(d, &finished);
    ImGui::EndChild();
    ImGui::SameLine();
    ImGui::BeginGroup();
    if (d->error[0]) ImGui::TextColored(ImVec4(0.95f, 0.6f, 0.2f, 1), "%s", d->error);
    draw_listing(d, &finished);
    ImGui::EndGroup();

    bool name_active = false;
    ImGui::SetNextItemWidth(-ImGui::GetFontSize() * 16);
    if (ImGui::InputText("##name", d->name, sizeof d->name, ImGuiInputTextFlags_EnterReturnsTrue)) finished = choose(d);
    gui_item_name("filedlg.name");
    name_active = ImGui::IsItemActive();
    ImGui::SameLine();
    bool show_all = d->show_all != 0;
    if (ImGui::Checkbox("All files", &show_all)) {
        d->show_all = show_all;
        read_folder(d);
    }
    ImGui::SameLine();
    if (ImGui::Button(d->save ? "Save" : "Open", ImVec2(ImGui::GetFontSize() * 5, 0))) finished = choose(d);
    gui_item_name("filedlg.ok");
    ImGui::SameLine();
    if (ImGui::Button("Cancel", ImVec2(ImGui::GetFontSize() * 5, 0))) cancelled = 1;
    gui_item_name("filedlg.cancel");

    if (!name_active && !finished) {
        if (io.InputQueueCharacters.Size > 0) jump_to_typed(d, io.InputQueueCharacters.Data, io.InputQueueCharacters.Size);
        if (ImGui::IsKeyPressed(ImGui::GetKeyIndex(ImGuiKey_Enter), false)) finished = choose(d);
        if (ImGui::IsKeyPressed(ImGui::GetKeyIndex(ImGuiKey_DownArrow)) && d->selected + 1 < d->count) {
            d->selected++;
            d->scroll_to_selected = 1;
        }
        if (ImGui::IsKeyPressed(ImGui::GetKeyIndex(ImGuiKey_UpArrow)) && d->selected > 0) {
            d->selected--;
            d->scroll_to_selected = 1;
        }
    }
    if (ImGui::IsKeyPressed(ImGui::GetKeyIndex(ImGuiKey_Escape), false)) cancelled = 1;
    if (finished || cancelled) {
        d->open = 0;
        ImGui::CloseCurrentPopup();
    }
    ImGui::EndPopup();
    return finished ? 1 : cancelled ? -1 : 0;
}

void gui_file_dialog_free(gui_file_dialog* d) {
    mem_free(d->entries);
    d->entries = nullptr;
    d->count = 0;
}
