// The sound net editor: modules as boxes in their colours at their saved places, with
// name, type, a level meter and mute/solo marks; links as arrows from source to
// destination (a link that closes a loop is drawn red). Drag a box to move it (a rubber
// band takes several), drag from its output port onto another module to link or unlink,
// click a link and press Delete to remove it; right-click the canvas to add a module of
// any type (type to search), right-click a module for its menu. Wheel zooms, the middle
// button pans. Every change goes through the net's editing actions.
#include <SDL.h>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <imgui.h>
#include <strings.h>

#include "app/studio_windows.h"
#include "engine/file.h"
#include "gui/gui_items.h"
#include "gui/gui_theme.h"
#include "psynth/psynth_modules.h"
#include "song/edit.h"
#include "song/edit_net.h"
#include "song/module_file.h"

namespace {

// Boxes shrink less than the zoom (down to kMinBoxScale of their size), so names stay
// readable when a whole net is fitted into a small pane.
constexpr float kBoxWidth = 124.0f;  // pixels at scale 1
constexpr float kBoxHeight = 40.0f;
constexpr float kMinBoxScale = 0.6f;
constexpr float kPortRadius = 6.0f;  // pixels
constexpr float kMinZoom = 0.2f;
constexpr float kMaxZoom = 3.0f;
constexpr float kLinkGrab = 5.0f;    // pixels from a link that still click it
constexpr int kMeterFrames = 512;    // scope samples a box's meter looks at

struct view {
    ImVec2 origin, size;
    float zoom, pan_x, pan_y;
    float box_w, box_h;  // pixels
};

ImVec2 to_screen(const view& v, float x, float y) {
    return ImVec2(v.origin.x + (x - v.pan_x) * v.zoom, v.origin.y + (y - v.pan_y) * v.zoom);
}
ImVec2 to_net(const view& v, ImVec2 p) { return ImVec2((p.x - v.origin.x) / v.zoom + v.pan_x, (p.y - v.origin.y) / v.zoom + v.pan_y); }

bool exists(const psynth_net* net, int m) { return m >= 0 && m < net->slots && (net->modules[m].flags & PSYNTH_FLAG_EXISTS); }

void box(const view& v, const psynth_module* mod, ImVec2* a, ImVec2* b) {
    *a = to_screen(v, (float)mod->x, (float)mod->y);
    *b = ImVec2(a->x + v.box_w, a->y + v.box_h);
}
ImVec2 out_port(const ImVec2& a, const ImVec2& b) { return ImVec2(b.x, (a.y + b.y) / 2); }
ImVec2 in_port(const ImVec2& a, const ImVec2& b) { return ImVec2(a.x, (a.y + b.y) / 2); }

bool selected(const studio_net_view* n, int m) {
    for (int i = 0; i < n->selected_count; i++) {
        if (n->selected[i] == m) return true;
    }
    return false;
}

void select_module(studio* st, int m, bool add) {
    studio_net_view* n = &st->net;
    if (!add) n->selected_count = 0;
    if (!selected(n, m) && n->selected_count < STUDIO_NET_SELECTION) n->selected[n->selected_count++] = m;
    if (m > 0) st->selected_module = m;  // note keys and the MIDI keyboard play it
}

// Whether `from` reaches `to` following output links (a link to→from would close a loop).
bool reaches(const psynth_net* net, int from, int to, uint8_t* seen) {
    if (from == to) return true;
    if (seen[from]) return false;
    seen[from] = 1;
    const psynth_module* mod = &net->modules[from];
    for (int i = 0; i < mod->output_links_capacity; i++) {
        int next = mod->output_links[i];
        if (exists(net, next) && reaches(net, next, to, seen)) return true;
    }
    return false;
}

// The peak of the module's last output, 0..1.
float module_level(psynth_net* net, int m) {
    psynth_sample* ring;
    int size;
    int pos = psynth_get_scope_position(m, 0, &ring, &size, net);
    if (pos < 0 || !ring || size <= 0) return 0;
    int peak = 0;
    for (int i = 1; i <= kMeterFrames; i++) {
        int s = ring[(pos - i + size) % size];
        peak = s < 0 ? (-s > peak ? -s : peak) : (s > peak ? s : peak);
    }
    return peak / 4096.0f;  // full scale of the device is ±4096 in 13.3
}

float distance_to_segment(ImVec2 p, ImVec2 a, ImVec2 b) {
    float dx = b.x - a.x, dy = b.y - a.y;
    float t = ((p.x - a.x) * dx + (p.y - a.y) * dy) / (dx * dx + dy * dy + 1e-6f);
    t = t < 0 ? 0 : t > 1 ? 1 : t;
    float x = a.x + t * dx - p.x, y = a.y + t * dy - p.y;
    return std::sqrt(x * x + y * y);
}

void report(studio* st, int result) {
    switch (result) {
    case ZELFON_EDIT_OK: studio_song_changed(st); break;
    case ZELFON_EDIT_OUTPUT_MODULE: studio_status(st, "The Output module stays in the net"); break;
    case ZELFON_EDIT_NO_MEMORY: studio_status(st, "Not enough memory: nothing changed"); break;
    default: studio_status(st, "Nothing changed"); break;
    }
}

// Calls visit(dest, src, from, to) for every link, with its ends on screen, until it
// returns true. Returns whether one did.
template <typename Visit>
bool for_each_link(const view& v, const psynth_net* net, Visit visit) {
    for (int d = 0; d < net->slots; d++) {
        if (!exists(net, d)) continue;
        const psynth_module* dest = &net->modules[d];
        ImVec2 da, db;
        box(v, dest, &da, &db);
        for (int i = 0; i < dest->input_links_capacity; i++) {
            int s = dest->input_links[i];
            if (!exists(net, s)) continue;
            ImVec2 sa, sb;
            box(v, &net->modules[s], &sa, &sb);
            if (visit(d, s, out_port(sa, sb), in_port(da, db))) return true;
        }
    }
    return false;
}

void draw_links(studio* st, const view& v, ImDrawList* draw) {
    psynth_net* net = st->song->net;
    studio_net_view* n = &st->net;
    constexpr int kLoopCheckSlots = 4096;  // larger nets are drawn without the loop mark
    uint8_t seen[kLoopCheckSlots];
    for_each_link(v, net, [&](int d, int s, ImVec2 from, ImVec2 to) {
        bool loop = false;
        if (net->slots <= kLoopCheckSlots) {
            memset(seen, 0, (size_t)net->slots);
            loop = reaches(net, d, s, seen);
        }
        bool chosen = n->link_dest == d && n->link_src == s;
        uint32_t colour = gui_colour_u32(loop ? GUI_COLOUR_RECORD : chosen ? GUI_COLOUR_ACCENT_HOVER : GUI_COLOUR_TEXT_DIM);
        draw->AddLine(from, to, colour, chosen ? 3.0f : 1.5f);
        // The arrow's head at the destination's input.
        float dx = to.x - from.x, dy = to.y - from.y, len = std::sqrt(dx * dx + dy * dy) + 1e-6f;
        dx /= len, dy /= len;
        float head = 9.0f;
        draw->AddTriangleFilled(to, ImVec2(to.x - dx * head - dy * head / 2, to.y - dy * head + dx * head / 2),
                                ImVec2(to.x - dx * head + dy * head / 2, to.y - dy * head - dx * head / 2), colour);
        char id[48];
        snprintf(id, sizeof id, "net.link.%d.%d", s, d);
        ImVec2 mid((from.x + to.x) / 2, (from.y + to.y) / 2);
        gui_item_name_rect(id, mid.x - 3, mid.y - 3, mid.x + 3, mid.y + 3);
        return false;
    });
}

void draw_boxes(studio* st, const view& v, ImDrawList* draw) {
    psynth_net* net = st->song->net;
    studio_net_view* n = &st->net;
    for (int m = 0; m < net->slots; m++) {
        if (!exists(net, m)) continue;
        const psynth_module* mod = &net->modules[m];
        ImVec2 a, b;
        box(v, mod, &a, &b);
        if (b.x < v.origin.x || a.x > v.origin.x + v.size.x || b.y < v.origin.y || a.y > v.origin.y + v.size.y) continue;
        ImU32 colour = IM_COL32(mod->color[0], mod->color[1], mod->color[2], 255);
        ImU32 dark = IM_COL32(mod->color[0] / 4, mod->color[1] / 4, mod->color[2] / 4, 255);
        bool sel = selected(n, m);
        // Square corners: a rounded box costs the software rasteriser a fan of triangles.
        draw->AddRectFilled(a, b, dark);
        draw->AddRect(a, b, sel ? gui_colour_u32(GUI_COLOUR_ACCENT_HOVER) : colour, 0.0f, 0, sel ? 2.5f : 1.0f);
        float pad = 4 * st->win.scale;
        draw->PushClipRect(a, b, true);
        draw->AddText(ImVec2(a.x + pad + kPortRadius, a.y + pad / 2), colour, mod->name);
        const char* type = (mod->flags & PSYNTH_FLAG_OUTPUT) ? "Output" : psynth_get_module_type_name(mod->handler);
        char line[64];
        snprintf(line, sizeof line, "%02d %s%s%s", m, type ? type : "?", (mod->flags & PSYNTH_FLAG_MUTE) ? "  M" : "",
                 (mod->flags & PSYNTH_FLAG_SOLO) ? "  S" : "");
        draw->AddText(ImVec2(a.x + pad + kPortRadius, a.y + pad / 2 + ImGui::GetFontSize()), gui_colour_u32(GUI_COLOUR_TEXT_DIM), line);
        draw->PopClipRect();
        // The level of its last output along the bottom edge.
        float level = module_level(net, m);
        float w = (b.x - a.x - 2 * pad) * (level > 1 ? 1 : level);
        if (w > 0.5f) {
            draw->AddRectFilled(ImVec2(a.x + pad, b.y - pad - 3), ImVec2(a.x + pad + w, b.y - pad),
                                gui_colour_u32(level >= 1 ? GUI_COLOUR_METER_CLIP : GUI_COLOUR_METER_LOW));
        }
        if (!(mod->flags & PSYNTH_FLAG_OUTPUT)) draw->AddCircleFilled(out_port(a, b), kPortRadius, colour);
        draw->AddCircle(in_port(a, b), kPortRadius - 1, colour);
        char id[32];
        snprintf(id, sizeof id, "net.module.%d", m);
        gui_item_name_rect(id, a.x + kPortRadius, a.y, b.x - kPortRadius * 2, b.y);
        snprintf(id, sizeof id, "net.port.%d", m);
        ImVec2 p = out_port(a, b);
        gui_item_name_rect(id, p.x - kPortRadius, p.y - kPortRadius, p.x + kPortRadius, p.y + kPortRadius);
    }
}

// The module under a point, or −1; `port`: on its output port.
int module_at(const view& v, const psynth_net* net, ImVec2 p, bool* port) {
    for (int m = net->slots - 1; m >= 0; m--) {
        if (!exists(net, m)) continue;
        ImVec2 a, b;
        box(v, &net->modules[m], &a, &b);
        ImVec2 o = out_port(a, b);
        float dx = p.x - o.x, dy = p.y - o.y;
        *port = !(net->modules[m].flags & PSYNTH_FLAG_OUTPUT) && dx * dx + dy * dy <= (kPortRadius + 3) * (kPortRadius + 3);
        if (*port || (p.x >= a.x && p.x <= b.x && p.y >= a.y && p.y <= b.y)) return m;
    }
    return -1;
}

bool link_at(const view& v, const psynth_net* net, ImVec2 p, int* dest, int* src) {
    return for_each_link(v, net, [&](int d, int s, ImVec2 from, ImVec2 to) {
        if (distance_to_segment(p, from, to) > kLinkGrab) return false;
        *dest = d;
        *src = s;
        return true;
    });
}

void finish_drag(studio* st, const view& v, ImVec2 m) {
    studio_net_view* n = &st->net;
    psynth_net* net = st->song->net;
    ImVec2 start = to_net(v, ImVec2(n->press_x, n->press_y)), end = to_net(v, m);
    if (n->drag == STUDIO_NET_DRAG_MOVE) {
        int dx = (int)std::lround(end.x - start.x), dy = (int)std::lround(end.y - start.y);
        if (dx || dy) report(st, zelfon_edit_move_synths(n->selected, n->selected_count, dx, dy, st->song));
    } else if (n->drag == STUDIO_NET_DRAG_LINK) {
        bool port;
        int target = module_at(v, net, m, &port);
        if (target >= 0 && target != n->link_from) report(st, zelfon_edit_link(target, n->link_from, st->song));
    } else if (n->drag == STUDIO_NET_DRAG_BAND) {
        ImVec2 lo(n->press_x < m.x ? n->press_x : m.x, n->press_y < m.y ? n->press_y : m.y);
        ImVec2 hi(n->press_x < m.x ? m.x : n->press_x, n->press_y < m.y ? m.y : n->press_y);
        for (int i = 0; i < net->slots; i++) {
            if (!exists(net, i)) continue;
            ImVec2 a, b;
            box(v, &net->modules[i], &a, &b);
            if (b.x >= lo.x && a.x <= hi.x && b.y >= lo.y && a.y <= hi.y) select_module(st, i, true);
        }
    }
    n->drag = STUDIO_NET_DRAG_NONE;
}

void handle_mouse(studio* st, const view& v, bool hovered) {
    studio_net_view* n = &st->net;
    psynth_net* net = st->song->net;
    ImGuiIO& io = ImGui::GetIO();
    ImVec2 m = io.MousePos;
    if (hovered && (ImGui::IsMouseClicked(0) || ImGui::IsMouseClicked(1) || ImGui::IsMouseClicked(2))) st->focus = STUDIO_FOCUS_NET;
    if (hovered && io.MouseWheel != 0) {
        ImVec2 anchor = to_net(v, m);
        n->zoom *= io.MouseWheel > 0 ? 1.2f : 1 / 1.2f;
        n->zoom = n->zoom < kMinZoom ? kMinZoom : n->zoom > kMaxZoom ? kMaxZoom : n->zoom;
        n->pan_x = anchor.x - (m.x - v.origin.x) / n->zoom;
        n->pan_y = anchor.y - (m.y - v.origin.y) / n->zoom;
    }
    if (hovered && ImGui::IsMouseClicked(2)) n->drag = STUDIO_NET_DRAG_PAN;
    if (n->drag == STUDIO_NET_DRAG_PAN) {
        n->pan_x -= io.MouseDelta.x / n->zoom;
        n->pan_y -= io.MouseDelta.y / n->zoom;
        if (!ImGui::IsMouseDown(2)) n->drag = STUDIO_NET_DRAG_NONE;
        return;
    }
    bool port = false;
    int under = hovered ? module_at(v, net, m, &port) : -1;
    if (hovered && under >= 0 && !port && ImGui::IsMouseDoubleClicked(0)) {
        studio_module_window_open(st, under);
        n->drag = STUDIO_NET_DRAG_NONE;
        return;
    }
    if (hovered && ImGui::IsMouseClicked(0)) {
        n->press_x = m.x;
        n->press_y = m.y;
        n->link_dest = n->link_src = -1;
        if (under >= 0 && port) {
            n->drag = STUDIO_NET_DRAG_LINK;
            n->link_from = under;
        } else if (under >= 0) {
            if (!selected(n, under)) select_module(st, under, io.KeyShift);
            else if (under > 0) st->selected_module = under;
            n->drag = STUDIO_NET_DRAG_MOVE;
        } else if (!link_at(v, net, m, &n->link_dest, &n->link_src)) {
            if (!io.KeyShift) n->selected_count = 0;
            n->drag = STUDIO_NET_DRAG_BAND;
        }
    }
    if (hovered && ImGui::IsMouseClicked(1)) {
        n->menu_module = under;
        ImVec2 at = to_net(v, m);
        n->menu_x = at.x;
        n->menu_y = at.y;
        n->search[0] = 0;
        if (under >= 0) {
            select_module(st, under, selected(n, under));
            snprintf(n->rename, sizeof n->rename, "%s", net->modules[under].name);
        }
        ImGui::OpenPopup("##net_menu");
    }
    ImDrawList* draw = ImGui::GetWindowDrawList();
    if (n->drag == STUDIO_NET_DRAG_LINK && exists(net, n->link_from)) {
        ImVec2 a, b;
        box(v, &net->modules[n->link_from], &a, &b);
        draw->AddLine(out_port(a, b), m, gui_colour_u32(GUI_COLOUR_ACCENT_HOVER), 2.0f);
    } else if (n->drag == STUDIO_NET_DRAG_MOVE) {
        for (int i = 0; i < n->selected_count; i++) {
            if (!exists(net, n->selected[i])) continue;
            ImVec2 a, b;
            box(v, &net->modules[n->selected[i]], &a, &b);
            ImVec2 d(m.x - n->press_x, m.y - n->press_y);
            draw->AddRect(ImVec2(a.x + d.x, a.y + d.y), ImVec2(b.x + d.x, b.y + d.y), gui_colour_u32(GUI_COLOUR_ACCENT_HOVER), 4.0f, 0, 2.0f);
        }
    } else if (n->drag == STUDIO_NET_DRAG_BAND) {
        draw->AddRect(ImVec2(n->press_x, n->press_y), m, gui_colour_u32(GUI_COLOUR_ACCENT_HOVER));
        draw->AddRectFilled(ImVec2(n->press_x, n->press_y), m, gui_colour_u32(GUI_COLOUR_ACCENT, 40));
    }
    if (n->drag != STUDIO_NET_DRAG_NONE && !ImGui::IsMouseDown(0)) finish_drag(st, v, m);
}

// The module types whose flags match `effects`, filtered by the search text.
void add_module_items(studio* st, bool effects) {
    studio_net_view* n = &st->net;
    psynth_net* net = st->song->net;
    for (int t = 0; t < psynth_get_module_types_count(); t++) {
        psynth_handler type = psynth_get_module_type(t);
        psynth_event question = {};
        question.command = PS_CMD_GET_FLAGS;
        bool effect = (type(-1, &question, net) & PSYNTH_FLAG_EFFECT) != 0;
        const char* name = psynth_get_module_type_name(type);
        if (effect != effects || !name || (n->search[0] && !strcasestr(name, n->search))) continue;
        if (ImGui::MenuItem(name)) {
            int m = zelfon_edit_add_synth(type, (int)n->menu_x, (int)n->menu_y, st->song);
            if (m < 0) studio_status(st, "Not enough memory for a new %s", name);
            else {
                studio_song_changed(st);
                select_module(st, m, false);
            }
        }
        char id[64];
        snprintf(id, sizeof id, "net.add.%s", name);
        for (char* c = id; *c; c++) *c = *c == ' ' ? '_' : *c;
        gui_item_name(id);
    }
}

void module_menu(studio* st, int m) {
    psynth_net* net = st->song->net;
    studio_net_view* n = &st->net;
    psynth_module* mod = &net->modules[m];
    ImGui::TextDisabled("%02d %s", m, mod->name);
    if (ImGui::MenuItem("Properties...")) studio_module_window_open(st, m);
    gui_item_name("net.menu.properties");
    ImGui::SetNextItemWidth(ImGui::GetFontSize() * 10);
    if (ImGui::InputText("Name", n->rename, sizeof n->rename, ImGuiInputTextFlags_EnterReturnsTrue)) {
        report(st, zelfon_edit_rename_synth(m, n->rename, st->song));
    }
    gui_item_name("net.menu.name");
    float colour[3] = {mod->color[0] / 255.0f, mod->color[1] / 255.0f, mod->color[2] / 255.0f};
    if (ImGui::ColorEdit3("Colour", colour, ImGuiColorEditFlags_NoInputs)) {
        uint8_t c[3] = {(uint8_t)(colour[0] * 255 + 0.5f), (uint8_t)(colour[1] * 255 + 0.5f), (uint8_t)(colour[2] * 255 + 0.5f)};
        report(st, zelfon_edit_synth_color(m, c, st->song));
    }
    bool mute = mod->flags & PSYNTH_FLAG_MUTE, solo = mod->flags & PSYNTH_FLAG_SOLO;
    if (ImGui::MenuItem("Mute", nullptr, mute)) report(st, zelfon_edit_synth_mute_solo(m, !mute, solo, st->song));
    gui_item_name("net.menu.mute");
    if (ImGui::MenuItem("Solo", nullptr, solo)) report(st, zelfon_edit_synth_mute_solo(m, mute, !solo, st->song));
    gui_item_name("net.menu.solo");
    if (m > 0 && ImGui::MenuItem("Link to Output")) report(st, zelfon_edit_link(0, m, st->song));
    gui_item_name("net.menu.link_output");
    ImGui::Separator();
    if (m > 0 && ImGui::MenuItem("Save Module...")) {
        char name[PSYNTH_NAME_SIZE + 16];
        snprintf(name, sizeof name, "%s.%s", mod->name, ZELFON_SYNTH_FILE_EXTENSION);
        studio_files_dialog(st, STUDIO_FILE_SAVE_MODULE, "Save module", ZELFON_SYNTH_FILE_EXTENSION, 1, name);
    }
    gui_item_name("net.menu.save");
    if (m > 0 && ImGui::MenuItem("Copy")) {
        if (zelfon_copy_synth_to_pasteboard(m, st->song)) studio_status(st, "The module could not be copied");
        else studio_status(st, "Copied %s", mod->name);
    }
    gui_item_name("net.menu.copy");
    if (m > 0 && ImGui::MenuItem("Duplicate")) {
        int copy = zelfon_edit_duplicate_synth(m, mod->x + 40, mod->y + 40, st->song);
        if (copy >= 0) {
            studio_song_changed(st);
            select_module(st, copy, false);
        } else {
            studio_status(st, "Not enough memory for a copy");
        }
    }
    gui_item_name("net.menu.duplicate");
    if (ImGui::MenuItem("Remove", "Delete")) report(st, zelfon_edit_remove_synth(m, st->song));
    gui_item_name("net.menu.remove");
}

void draw_menu(studio* st) {
    if (!ImGui::BeginPopup("##net_menu")) return;
    studio_net_view* n = &st->net;
    psynth_net* net = st->song->net;
    if (n->menu_module >= 0 && exists(net, n->menu_module)) {
        module_menu(st, n->menu_module);
    } else {
        ImGui::SetNextItemWidth(ImGui::GetFontSize() * 10);
        if (ImGui::IsWindowAppearing()) ImGui::SetKeyboardFocusHere();
        ImGui::InputTextWithHint("##search", "type to search", n->search, sizeof n->search);
        gui_item_name("net.add.search");
        if (ImGui::BeginMenu("Synths")) {
            add_module_items(st, false);
            ImGui::EndMenu();
        }
        gui_item_name("net.add.synths");
        if (ImGui::BeginMenu("Effects")) {
            add_module_items(st, true);
            ImGui::EndMenu();
        }
        gui_item_name("net.add.effects");
        if (n->search[0]) {
            ImGui::Separator();
            add_module_items(st, false);
            add_module_items(st, true);
        }
        ImGui::Separator();
        if (ImGui::MenuItem("Load Module...")) {
            studio_files_dialog(st, STUDIO_FILE_LOAD_MODULE, "Load module", ZELFON_SYNTH_FILE_EXTENSION, 0, "");
        }
        gui_item_name("net.menu.load");
        if (ImGui::MenuItem("Paste")) {
            int m = zelfon_edit_paste_synth_file(ZELFON_PASTEBOARD_FILE, (int)n->menu_x, (int)n->menu_y, st->song);
            if (m < 0) studio_status(st, "Nothing to paste: copy a module first");
            else {
                studio_song_changed(st);
                select_module(st, m, false);
            }
        }
        gui_item_name("net.menu.paste");
    }
    ImGui::EndPopup();
}

}  // namespace

void studio_net_editor_draw(studio* st) {
    studio_net_view* n = &st->net;
    psynth_net* net = st->song->net;
    if (n->zoom <= 0) studio_net_fit(st);
    if (!n->scope_reader) {
        psynth_scope_readers_add(net);  // the boxes' meters read the scope rings
        n->scope_reader = 1;
    }
    int kept = 0;
    for (int i = 0; i < n->selected_count; i++) {
        if (exists(net, n->selected[i])) n->selected[kept++] = n->selected[i];
    }
    n->selected_count = kept;
    ImGui::BeginChild("##net_canvas", ImVec2(0, 0), false, ImGuiWindowFlags_NoScrollbar | ImGuiWindowFlags_NoScrollWithMouse | ImGuiWindowFlags_NoNav);
    view v;
    v.origin = ImGui::GetCursorScreenPos();
    v.size = ImGui::GetContentRegionAvail();
    v.zoom = n->zoom;
    v.pan_x = n->pan_x;
    v.pan_y = n->pan_y;
    float box_scale = std::fmin(1.0f, std::fmax(kMinBoxScale, n->zoom * 2));
    v.box_w = kBoxWidth * st->win.scale * box_scale;
    v.box_h = kBoxHeight * st->win.scale * box_scale;
    ImGui::InvisibleButton("##canvas", ImVec2(v.size.x > 1 ? v.size.x : 1, v.size.y > 1 ? v.size.y : 1),
                           ImGuiButtonFlags_MouseButtonLeft | ImGuiButtonFlags_MouseButtonRight | ImGuiButtonFlags_MouseButtonMiddle);
    gui_item_name("net.canvas");
    bool hovered = ImGui::IsItemHovered() || ImGui::IsItemActive();
    ImDrawList* draw = ImGui::GetWindowDrawList();
    draw->PushClipRect(v.origin, ImVec2(v.origin.x + v.size.x, v.origin.y + v.size.y), true);
    draw_links(st, v, draw);
    draw_boxes(st, v, draw);
    handle_mouse(st, v, hovered);
    draw->PopClipRect();
    draw_menu(st);
    ImGui::EndChild();
}

void studio_net_fit(studio* st) {
    studio_net_view* n = &st->net;
    psynth_net* net = st->song->net;
    float x0 = 1e9f, y0 = 1e9f, x1 = -1e9f, y1 = -1e9f;
    for (int m = 0; m < net->slots; m++) {
        if (!exists(net, m)) continue;
        x0 = std::fmin(x0, (float)net->modules[m].x);
        y0 = std::fmin(y0, (float)net->modules[m].y);
        x1 = std::fmax(x1, (float)net->modules[m].x);
        y1 = std::fmax(y1, (float)net->modules[m].y);
    }
    // The places fill the pane less one box and a margin.
    ImVec2 display = ImGui::GetIO().DisplaySize;
    float margin = 12 * st->win.scale;
    float width = display.x * (1 - st->split_x) - 40 - kBoxWidth * kMinBoxScale * st->win.scale - 2 * margin;
    float height = display.y * st->split_y - 130 - kBoxHeight * kMinBoxScale * st->win.scale - 2 * margin;
    n->zoom = std::fmin(width / (x1 - x0 + 1), height / (y1 - y0 + 1));
    n->zoom = n->zoom < kMinZoom ? kMinZoom : n->zoom > kMaxZoom ? kMaxZoom : n->zoom;
    n->pan_x = x0 - margin / n->zoom;
    n->pan_y = y0 - margin / n->zoom;
}

void studio_net_load_module(studio* st, const char* path) {
    // Only a module file is taken: anything else says so and leaves the net as it was.
    int kind = zelfon_file_kind(path);
    char text[STUDIO_PATH_SIZE + 96];
    if (kind != ZELFON_FILE_MODULE) {
        snprintf(text, sizeof text, kind == ZELFON_FILE_CANT_OPEN    ? "!Cannot open %s"
                                    : kind == ZELFON_FILE_NOT_REGULAR ? "!%s is not a regular file"
                                                                      : "!%s is not a module file",
                 path);
        studio_message(st, text, "OK", nullptr, nullptr);
        return;
    }
    studio_net_view* n = &st->net;
    zelfon_edit_begin(st->song);
    int m = zelfon_edit_paste_synth_file(path, (int)n->menu_x, (int)n->menu_y, st->song);
    if (m < 0) {
        snprintf(text, sizeof text, "!Cannot load the module in %s: the file is damaged or memory ran out", path);
        studio_message(st, text, "OK", nullptr, nullptr);
        return;
    }
    studio_song_changed(st);
    select_module(st, m, false);
    studio_status(st, "Loaded %s as module %d", st->song->net->modules[m].name, m);
}

void studio_net_save_module(studio* st, const char* path) {
    int m = st->net.menu_module;
    char named[STUDIO_PATH_SIZE + 16];
    const char* dot = strrchr(path, '.');
    snprintf(named, sizeof named, "%s%s%s", path, dot && !strchr(dot, '/') ? "" : ".", dot && !strchr(dot, '/') ? "" : ZELFON_SYNTH_FILE_EXTENSION);
    if (!exists(st->song->net, m) || zelfon_save_synth(m, named, 0, st->song)) {
        char text[STUDIO_PATH_SIZE + 64];
        snprintf(text, sizeof text, "!Cannot save the module to %s", named);
        studio_message(st, text, "OK", nullptr, nullptr);
        return;
    }
    studio_status(st, "Saved %s", named);
}

void studio_net_delete(studio* st) {
    studio_net_view* n = &st->net;
    if (n->link_dest >= 0 && n->link_src >= 0) {
        report(st, zelfon_edit_link(n->link_dest, n->link_src, st->song));
        n->link_dest = n->link_src = -1;
        return;
    }
    for (int i = 0; i < n->selected_count; i++) {
        if (n->selected[i] == 0) {
            studio_status(st, "The Output module stays in the net");
            continue;
        }
        report(st, zelfon_edit_remove_synth(n->selected[i], st->song));
    }
    n->selected_count = 0;
}
