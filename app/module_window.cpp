// Module windows: one per module, opened from the net editor. The module's name, colour,
// relative note and finetune, MIDI out (device, channel, bank, program), mute and solo and
// its scope; then its controllers in order, each a slider (or a selector whose labels come
// from the units text, "off/linear/cubic") with its value and units. Double-click resets a
// controller, Ctrl+click types a value, the wheel steps it, right-click writes it into the
// pattern at the cursor. Every change is heard at once and is one undoable step per gesture.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <SDL.h>
#include <imgui.h>

#include "app/studio_windows.h"
#include "gui/gui_fields.h"
#include "gui/gui_items.h"
#include "gui/gui_theme.h"
#include "psynth/psynth_modules.h"
#include "song/edit.h"
#include "song/edit_net.h"

namespace {

constexpr int kScopeFrames = 512;
constexpr int kMaxMidiPorts = 32;
constexpr uint32_t kSweepPauseMs = 1000;  // a longer pause between moves starts a new undo step

struct port_list {
    char names[kMaxMidiPorts][128];
    int count;
};

void add_port(const char* name, void* data) {
    port_list* ports = (port_list*)data;
    if (ports->count < kMaxMidiPorts) snprintf(ports->names[ports->count++], sizeof ports->names[0], "%s", name);
}

// The controller's value as a pattern cell carries it: 0..32768 over its range.
int normalized(const psynth_ctl* ctl, int value) {
    int range = ctl->max - ctl->min;
    return range > 0 ? (int)((int64_t)(value - ctl->min) * PSYNTH_CTL_MAX_VALUE / range) : 0;
}

void write_to_pattern(studio* st, int mod, int c, const psynth_ctl* ctl) {
    int slot = st->current_pattern;
    const zelfon_cell* at = zelfon_get_cell(slot, st->pattern.track, st->cursor_line, st->song);
    if (!at) {
        studio_status(st, "No pattern cell under the cursor");
        return;
    }
    zelfon_cell cell = *at;
    cell.module = (uint16_t)(mod + 1);
    cell.ctl = (uint8_t)(c + 1);
    cell.value = (uint16_t)normalized(ctl, *ctl->value);
    zelfon_edit_begin(st->song);
    studio_module_edit_result(st, zelfon_edit_type_cell(slot, st->pattern.track, st->cursor_line, &cell, st->song));
}

// A selector's labels: the units text split at "/" (label `index`, or the number).
void selector_label(const psynth_ctl* ctl, int index, char* out, size_t size) {
    const char* p = ctl->units ? ctl->units : "";
    for (int i = 0; i < index - ctl->min && p; i++) {
        p = strchr(p, '/');
        if (p) p++;
    }
    if (!p || !*p) {
        snprintf(out, size, "%d", index);
        return;
    }
    snprintf(out, size, "%.*s", (int)strcspn(p, "/"), p);
}

void draw_controller(studio* st, int mod, int c) {
    psynth_module* m = &st->song->net->modules[mod];
    const psynth_ctl* ctl = &m->ctls[c];
    if (!ctl->value) return;
    int value = *ctl->value;
    char id[64];
    snprintf(id, sizeof id, "module.%d.ctl.%d", mod, c);
    ImGui::PushID(c);
    ImGui::SetNextItemWidth(-ImGui::GetFontSize() * 9);
    bool changed;
    if (ctl->type == PSYNTH_CTL_SELECTOR) {
        char preview[64];
        selector_label(ctl, value, preview, sizeof preview);
        changed = false;
        if (ImGui::BeginCombo("##value", preview)) {
            for (int v = ctl->min; v <= ctl->max; v++) {
                char label[64];
                selector_label(ctl, v, label, sizeof label);
                if (ImGui::Selectable(label, v == value)) {
                    value = v;
                    changed = true;
                }
            }
            ImGui::EndCombo();
        }
    } else {
        const char* units = ctl->units && *ctl->units ? ctl->units : "";
        char format[48];
        snprintf(format, sizeof format, "%%d %s", units);
        changed = ImGui::SliderInt("##value", &value, ctl->min, ctl->max, format);
    }
    gui_item_name(id);
    bool hovered = ImGui::IsItemHovered();
    if (hovered && ImGui::IsMouseDoubleClicked(0)) {
        value = ctl->def;  // double-click: back to the default
        changed = true;
    }
    float wheel = ImGui::GetIO().MouseWheel;
    if (hovered && wheel != 0 && !ImGui::IsItemActive()) {
        zelfon_edit_begin(st->song);
        value += wheel > 0 ? 1 : -1;
        value = value < ctl->min ? ctl->min : value > ctl->max ? ctl->max : value;
        changed = value != *ctl->value;
    }
    if (hovered && ImGui::IsMouseClicked(1)) ImGui::OpenPopup("##ctl_menu");
    if (ImGui::BeginPopup("##ctl_menu")) {
        if (ImGui::MenuItem("MIDI Learn")) {
            st->learn_module = mod;
            st->learn_ctl = c;
            studio_status(st, "Move a controller on the MIDI keyboard for %s", ctl->name);
        }
        snprintf(id, sizeof id, "module.%d.ctl.%d.learn", mod, c);
        gui_item_name(id);
        bool bound = m->midi_learn_cc[c] != PSYNTH_MIDI_UNBOUND;
        if (ImGui::MenuItem("Forget the MIDI Controller", nullptr, false, bound)) {
            studio_module_edit_result(st, zelfon_edit_synth_midi_learn(mod, c, PSYNTH_MIDI_UNBOUND, 0, st->song));
        }
        if (ImGui::MenuItem("Write to Pattern at Cursor")) write_to_pattern(st, mod, c, ctl);
        ImGui::EndPopup();
    }
    ImGui::SameLine();
    if (m->midi_learn_cc[c] != PSYNTH_MIDI_UNBOUND) {
        ImGui::Text("%s (CC %d, ch %d)", ctl->name, m->midi_learn_cc[c], m->midi_learn_channel[c] + 1);
    } else {
        ImGui::TextUnformatted(ctl->name);
    }
    if (st->learn_module == mod && st->learn_ctl == c) {
        ImGui::SameLine();
        ImGui::TextColored(ImGui::ColorConvertU32ToFloat4(gui_colour_u32(GUI_COLOUR_RECORD)), "learning...");
    }
    ImGui::PopID();
    if (changed && value != *ctl->value) studio_module_edit_result(st, zelfon_edit_synth_ctl(mod, c, value, st->song));
}

void draw_settings(studio* st, int mod) {
    psynth_module* m = &st->song->net->modules[mod];
    char name[PSYNTH_NAME_SIZE];
    snprintf(name, sizeof name, "%s", m->name);
    ImGui::SetNextItemWidth(ImGui::GetFontSize() * 10);
    if (ImGui::InputText("Name", name, sizeof name, ImGuiInputTextFlags_EnterReturnsTrue)) studio_module_edit_result(st, zelfon_edit_rename_synth(mod, name, st->song));
    ImGui::SameLine();
    float colour[3] = {m->color[0] / 255.0f, m->color[1] / 255.0f, m->color[2] / 255.0f};
    if (ImGui::ColorEdit3("##colour", colour, ImGuiColorEditFlags_NoInputs)) {
        uint8_t c[3] = {(uint8_t)(colour[0] * 255 + 0.5f), (uint8_t)(colour[1] * 255 + 0.5f), (uint8_t)(colour[2] * 255 + 0.5f)};
        studio_module_edit_result(st, zelfon_edit_synth_color(mod, c, st->song));
    }
    bool mute = m->flags & PSYNTH_FLAG_MUTE, solo = m->flags & PSYNTH_FLAG_SOLO;
    ImGui::SameLine();
    if (ImGui::Checkbox("Mute", &mute)) studio_module_edit_result(st, zelfon_edit_synth_mute_solo(mod, mute, solo, st->song));
    ImGui::SameLine();
    if (ImGui::Checkbox("Solo", &solo)) studio_module_edit_result(st, zelfon_edit_synth_mute_solo(mod, mute, solo, st->song));
    if (m->flags & PSYNTH_FLAG_OUTPUT) return;

    char id[48];
    int note = m->relative_note, finetune = m->finetune;
    float width = ImGui::GetFontSize() * 6;
    snprintf(id, sizeof id, "module.%d.relative_note", mod);
    bool pitch = gui_labelled_int_field("Relative note", id, &note, -PSYNTH_RELATIVE_NOTE_MAX,
                                        PSYNTH_RELATIVE_NOTE_MAX, width, true) != 0;
    ImGui::SameLine();
    snprintf(id, sizeof id, "module.%d.finetune", mod);
    pitch |= gui_labelled_int_field("Finetune", id, &finetune, -PSYNTH_FINETUNE_MAX, PSYNTH_FINETUNE_MAX, width,
                                     true) != 0;
    if (pitch) studio_module_edit_result(st, zelfon_edit_synth_pitch(mod, note, finetune, st->song));

    // MIDI out: where the module's notes also go.
    static port_list ports;
    const char* device = m->midi_out_name ? m->midi_out_name : "";
    ImGui::SetNextItemWidth(ImGui::GetFontSize() * 12);
    if (ImGui::BeginCombo("MIDI out", device[0] ? device : "None")) {
        if (ImGui::IsWindowAppearing()) {
            ports.count = 0;
            tarvik_midi_client_get_devices(&st->song->net->midi_client, MIDI_PORT_WRITE, add_port, &ports);
        }
        const char* chosen = nullptr;
        if (ImGui::Selectable("None", !device[0])) chosen = "";
        for (int p = 0; p < ports.count; p++) {
            if (ImGui::Selectable(ports.names[p], !strcmp(ports.names[p], device))) chosen = ports.names[p];
        }
        ImGui::EndCombo();
        if (chosen) studio_module_edit_result(st, zelfon_edit_synth_midi_out(mod, chosen, m->midi_out_channel, m->midi_out_bank, m->midi_out_program, st->song));
    }
    int channel = m->midi_out_channel, bank = m->midi_out_bank, program = m->midi_out_program;
    snprintf(id, sizeof id, "module.%d.midi_channel", mod);
    bool midi = gui_labelled_int_field("Ch", id, &channel, 0, 15, width, true) != 0;
    ImGui::SameLine();
    snprintf(id, sizeof id, "module.%d.midi_bank", mod);
    midi |= gui_labelled_int_field("Bank", id, &bank, -1, 16383, width, true) != 0;
    ImGui::SameLine();
    snprintf(id, sizeof id, "module.%d.midi_program", mod);
    midi |= gui_labelled_int_field("Program", id, &program, -1, 127, width, true) != 0;
    if (midi) studio_module_edit_result(st, zelfon_edit_synth_midi_out(mod, device, channel, bank, program, st->song));
}

void draw_scope(studio* st, int mod) {
    psynth_net* net = st->song->net;
    float width = ImGui::GetContentRegionAvail().x, height = ImGui::GetFontSize() * 3;
    ImVec2 a = ImGui::GetCursorScreenPos();
    ImGui::Dummy(ImVec2(width, height));
    ImDrawList* draw = ImGui::GetWindowDrawList();
    draw->AddRectFilled(a, ImVec2(a.x + width, a.y + height), gui_colour_u32(GUI_COLOUR_BACKGROUND));
    for (int ch = 0; ch < psynth_get_number_of_outputs(mod, net) && ch < 2; ch++) {
        psynth_sample* ring;
        int size;
        int pos = psynth_get_scope_position(mod, ch, &ring, &size, net);
        if (pos < 0 || !ring || size <= 0) continue;
        ImVec2 previous;
        for (int x = 0; x < (int)width; x++) {
            int i = kScopeFrames * x / (int)width;
            float v = ring[(pos - kScopeFrames + i + size) % size] / 4096.0f;
            v = v > 1 ? 1 : v < -1 ? -1 : v;
            ImVec2 p(a.x + x, a.y + height / 2 - v * height / 2);
            if (x) draw->AddLine(previous, p, gui_colour_u32(GUI_COLOUR_SCOPE, ch ? 140 : 255));
            previous = p;
        }
    }
}

}  // namespace

void studio_module_edit_result(studio* st, int result) {
    if (result == ZELFON_EDIT_OK) studio_song_changed(st);
    else if (result == ZELFON_EDIT_NO_MEMORY) studio_status(st, "Not enough memory: nothing changed");
}

void studio_module_midi_cc(void* data, int channel, int cc, int value) {
    studio* st = (studio*)data;
    psynth_net* net = st->song->net;
    int learn = st->learn_module;
    if (learn >= 0 && learn < net->slots && (net->modules[learn].flags & PSYNTH_FLAG_EXISTS)) {
        psynth_module* m = &net->modules[learn];
        zelfon_edit_begin(st->song);
        studio_module_edit_result(st, zelfon_edit_synth_midi_learn(learn, st->learn_ctl, cc, channel, st->song));
        studio_status(st, "%s follows MIDI controller %d on channel %d", m->ctls[st->learn_ctl].name, cc, channel + 1);
        st->learn_module = st->learn_ctl = -1;
        return;
    }
    // In edit mode while playing, each move is written where the song plays.
    int slot = st->current_pattern;
    if (!st->edit_mode || !studio_is_playing(st) || slot < 0 || !st->song->pats[slot]) return;
    int line = studio_playing_line(st) - st->song->pats_info[slot].x;
    if (line < 0 || line >= st->song->pats[slot]->lines) return;
    for (int mod = 0; mod < net->slots; mod++) {
        psynth_module* m = &net->modules[mod];
        if (!(m->flags & PSYNTH_FLAG_EXISTS)) continue;
        for (int c = 0; c < m->ctls_count && c < PSYNTH_MAX_CTLS; c++) {
            if (m->midi_learn_cc[c] != cc || m->midi_learn_channel[c] != channel) continue;
            zelfon_cell cell = *zelfon_get_cell(slot, st->pattern.track, line, st->song);
            cell.module = (uint16_t)(mod + 1);
            cell.ctl = (uint8_t)(c + 1);
            cell.value = (uint16_t)(value * PSYNTH_CTL_MAX_VALUE / 127);
            uint32_t now = SDL_GetTicks();
            if (mod != st->recorded_module || c != st->recorded_ctl || now - st->recorded_ms > kSweepPauseMs) {
                zelfon_edit_begin(st->song);
            }
            st->recorded_module = mod, st->recorded_ctl = c, st->recorded_ms = now;
            studio_module_edit_result(st, zelfon_edit_type_cell(slot, st->pattern.track, line, &cell, st->song));
        }
    }
}

void studio_module_window_open(studio* st, int mod) {
    for (int i = 0; i < STUDIO_MODULE_WINDOWS; i++) {
        if (st->module_windows[i] == mod + 1) return;
    }
    for (int i = 0; i < STUDIO_MODULE_WINDOWS; i++) {
        if (!st->module_windows[i]) {
            st->module_windows[i] = mod + 1;
            return;
        }
    }
    st->module_windows[0] = mod + 1;  // all in use: the oldest makes room
}

void studio_module_windows_draw(studio* st) {
    psynth_net* net = st->song->net;
    for (int i = 0; i < STUDIO_MODULE_WINDOWS; i++) {
        int mod = st->module_windows[i] - 1;
        if (mod < 0) continue;
        if (mod >= net->slots || !(net->modules[mod].flags & PSYNTH_FLAG_EXISTS)) {
            st->module_windows[i] = 0;  // the module went away (undo, remove, load)
            continue;
        }
        char title[80];
        snprintf(title, sizeof title, "%s###module_window_%d", net->modules[mod].name, mod);
        bool open = true;
        studio_place_window(0.22f + 0.03f * i, 0.10f + 0.04f * i);
        // A module with a view of its own opens large enough for it (within the display).
        float font = ImGui::GetFontSize();
        ImVec2 display = ImGui::GetIO().DisplaySize;
        ImVec2 size = studio_module_view_name(mod, net) ? ImVec2(std::min(font * 48, display.x * 0.9f), std::min(font * 44, display.y * 0.85f))
                                                        : ImVec2(font * 30, 0);
        ImGui::SetNextWindowSize(size, ImGuiCond_FirstUseEver);
        if (ImGui::Begin(title, &open)) {
            // Modules with a view of their own show it in a second tab.
            const char* view = studio_module_view_name(mod, net);
            bool tabs = view && ImGui::BeginTabBar("##views");
            bool module_tab = !tabs || ImGui::BeginTabItem("Module");
            char tab_id[48];
            snprintf(tab_id, sizeof tab_id, "module.%d.tab.module", mod);
            if (tabs) gui_item_name(tab_id);
            if (module_tab) {
                draw_settings(st, mod);
                draw_scope(st, mod);
                ImGui::Separator();
                for (int c = 0; c < net->modules[mod].ctls_count; c++) draw_controller(st, mod, c);
                if (tabs) ImGui::EndTabItem();
            }
            if (tabs) {
                bool shown = ImGui::BeginTabItem(view);
                snprintf(tab_id, sizeof tab_id, "module.%d.tab.view", mod);
                gui_item_name(tab_id);
                if (shown) {
                    studio_module_view_draw(st, i, mod);
                    ImGui::EndTabItem();
                }
                ImGui::EndTabBar();
            }
        }
        ImGui::End();
        if (!open) st->module_windows[i] = 0;
    }
}
