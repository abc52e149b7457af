// The views some modules have besides their controllers, each the second tab of the
// module's window: the Sampler editor, the Generator's drawn wave (drawn with the mouse),
// the SpectraVoice's partials (click a bar to choose the partial, drag to set its volume),
// the Compressor's level and gain history, the Vorbis player's file, the MultiSynth's
// targets. Changes go through the undoable edits as the controllers' do; an Ogg file loaded
// into the Vorbis player replaces the one it had, as loading a module does.
#include <imgui.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "app/studio_windows.h"
#include "gui/gui_items.h"
#include "gui/gui_theme.h"
#include "psynth/psynth_modules.h"
#include "psynth/vorbis_player.h"
#include "song/edit.h"
#include "song/edit_net.h"

namespace {

constexpr int kDrawnPoints = 32;        // the Generator's drawn wave: signed bytes in chunk 0
constexpr int kChunkFlag8Bit = 1;       // its storage flag
constexpr int kPartials = 16;           // the SpectraVoice's partials in chunk 0
constexpr int kPartialVolumeMax = 256;
constexpr int kSpectraCtlPartial = 5;   // "Partial", 1..16
constexpr int kSpectraCtlVolume = 7;    // "Partial volume"
constexpr float kPlotLines = 8;         // a view's height in text lines

// A plot area named `id`; its corners in a and b.
bool plot_area(const char* id, ImVec2* a, ImVec2* b) {
    ImVec2 size(ImGui::GetContentRegionAvail().x, ImGui::GetTextLineHeight() * kPlotLines);
    ImGui::InvisibleButton(id, size);
    gui_item_name(id);
    *a = ImGui::GetItemRectMin(), *b = ImGui::GetItemRectMax();
    ImGui::GetWindowDrawList()->AddRectFilled(*a, *b, gui_colour_u32(GUI_COLOUR_BACKGROUND));
    return ImGui::IsItemActive();
}

void draw_generator_wave(studio* st, int mod) {
    psynth_net* net = st->song->net;
    const int8_t* stored = (const int8_t*)psynth_get_chunk(mod, 0, net);
    int size = 0;
    psynth_get_chunk_info(mod, 0, &size, nullptr, nullptr, net);
    int8_t points[kDrawnPoints] = {};
    if (stored) memcpy(points, stored, std::min(size, kDrawnPoints));
    ImGui::TextDisabled("Draw the wave with the mouse; the \"Waveform\" controller plays it as \"drawn\"");
    ImVec2 a, b;
    bool held = plot_area("generator.wave", &a, &b);
    ImDrawList* draw = ImGui::GetWindowDrawList();
    float column = (b.x - a.x) / kDrawnPoints, mid = (a.y + b.y) / 2, scale = (b.y - a.y) / 2 / 128;
    draw->AddLine(ImVec2(a.x, mid), ImVec2(b.x, mid), gui_colour_u32(GUI_COLOUR_BORDER));
    for (int i = 0; i < kDrawnPoints; i++) {
        float x0 = a.x + i * column, y = mid - points[i] * scale;
        draw->AddRectFilled(ImVec2(x0 + 1, std::min(y, mid)), ImVec2(x0 + column - 1, std::max(y, mid) + 1),
                            gui_colour_u32(GUI_COLOUR_SCOPE));
    }
    if (!held) return;
    ImVec2 m = ImGui::GetIO().MousePos;
    int i = std::clamp((int)((m.x - a.x) / column), 0, kDrawnPoints - 1);
    int value = std::clamp((int)((mid - m.y) / scale), -128, 127);
    if (points[i] == value) return;
    points[i] = (int8_t)value;
    // One stroke of the mouse is one undo step: the edits of a press merge.
    studio_module_edit_result(st, zelfon_edit_synth_chunk(mod, 0, points, kDrawnPoints, kChunkFlag8Bit, 0, st->song));
}

void draw_spectravoice(studio* st, int mod) {
    psynth_net* net = st->song->net;
    const uint16_t* partials = (const uint16_t*)psynth_get_chunk(mod, 0, net);
    int size = 0;
    psynth_get_chunk_info(mod, 0, &size, nullptr, nullptr, net);
    if (!partials || size < (int)(kPartials * 3 * sizeof(uint16_t))) {
        ImGui::TextDisabled("No partials");
        return;
    }
    const psynth_module* m = &net->modules[mod];
    int chosen = m->ctls_count > kSpectraCtlPartial ? *m->ctls[kSpectraCtlPartial].value - 1 : 0;
    ImGui::TextDisabled("Click a partial to choose it, drag up and down to set its volume");
    ImVec2 a, b;
    bool held = plot_area("spectravoice.partials", &a, &b);
    ImDrawList* draw = ImGui::GetWindowDrawList();
    float column = (b.x - a.x) / kPartials, height = b.y - a.y - ImGui::GetTextLineHeight();
    for (int p = 0; p < kPartials; p++) {
        int freq = partials[p * 3], volume = partials[p * 3 + 1];
        float x0 = a.x + p * column, top = b.y - height * volume / kPartialVolumeMax;
        uint32_t colour = gui_colour_u32(p == chosen ? GUI_COLOUR_ACCENT_HOVER : freq ? GUI_COLOUR_SCOPE : GUI_COLOUR_TEXT_DIM);
        draw->AddRectFilled(ImVec2(x0 + 2, top), ImVec2(x0 + column - 2, b.y), colour);
        char label[16];
        snprintf(label, sizeof label, "%d", freq);
        draw->AddText(ImVec2(x0 + 2, a.y), gui_colour_u32(GUI_COLOUR_TEXT_DIM), label);
        char id[48];
        snprintf(id, sizeof id, "spectravoice.partial.%d", p);
        gui_item_name_rect(id, x0, a.y, x0 + column, b.y);
        snprintf(id, sizeof id, "spectravoice.partial.%d.top", p);  // full volume
        gui_item_name_rect(id, x0, a.y, x0 + column, a.y + 2);
    }
    if (!held) return;
    ImVec2 mouse = ImGui::GetIO().MousePos;
    int p = std::clamp((int)((mouse.x - a.x) / column), 0, kPartials - 1);
    int volume = std::clamp((int)((b.y - mouse.y) * kPartialVolumeMax / height), 0, kPartialVolumeMax);
    if (p != chosen) studio_module_edit_result(st, zelfon_edit_synth_ctl(mod, kSpectraCtlPartial, p + 1, st->song));
    if (partials[p * 3 + 1] != volume) studio_module_edit_result(st, zelfon_edit_synth_ctl(mod, kSpectraCtlVolume, volume, st->song));
}

void draw_compressor(studio* st, int mod) {
    psynth_compressor_view h;
    if (psynth_compressor_history(mod, &h, st->song->net)) return;
    ImGui::TextColored(ImVec4(0.47f, 0.82f, 0.94f, 1), "level");
    ImGui::SameLine();
    ImGui::TextColored(ImVec4(0.95f, 0.6f, 0.2f, 1), "gain");
    ImGui::SameLine();
    ImGui::TextDisabled("over the last %d ms (1.0 at the middle line)", h.size);
    ImVec2 a, b;
    plot_area("compressor.history", &a, &b);
    ImDrawList* draw = ImGui::GetWindowDrawList();
    float mid = (a.y + b.y) / 2, scale = (b.y - a.y) / 256;  // a byte of 128 is 1.0: the middle
    draw->AddLine(ImVec2(a.x, mid), ImVec2(b.x, mid), gui_colour_u32(GUI_COLOUR_BORDER));
    int columns = (int)(b.x - a.x);
    for (int x = 0; x < columns; x++) {
        // The newest period at the right edge.
        int entry = (h.next - columns + x + h.size * 2) % h.size;
        float level = b.y - h.level[entry] * scale, gain = b.y - h.gain[entry] * scale;
        draw->AddRectFilled(ImVec2(a.x + x, level), ImVec2(a.x + x + 1, b.y), gui_colour_u32(GUI_COLOUR_SCOPE, 140));
        draw->AddRectFilled(ImVec2(a.x + x, gain), ImVec2(a.x + x + 1, gain + 2), gui_colour_u32(GUI_COLOUR_WARNING));
    }
    st->redraw_frames = std::max(st->redraw_frames, 1);  // it moves while the sound plays
}

void draw_vorbis_player(studio* st, int mod) {
    psynth_vorbis_info info;
    if (psynth_vorbis_player_get_info(mod, &info, st->song->net) == 0) {
        ImGui::Text("%lld frames (%.1f s), %d Hz, %s", (long long)info.frames, info.rate ? (double)info.frames / info.rate : 0.0,
                    info.rate, info.channels == 2 ? "stereo" : "mono");
    } else {
        ImGui::TextDisabled("No Ogg Vorbis file loaded");
    }
    if (ImGui::Button("Load Ogg Vorbis file")) {
        st->sampler_target_mod = mod;
        studio_files_dialog(st, STUDIO_FILE_VORBIS_LOAD, "Load Ogg Vorbis file", "ogg", 0, "");
    }
    gui_item_name("vorbis.load");
}

void draw_multisynth(studio* st, int mod) {
    const psynth_net* net = st->song->net;
    const psynth_module* m = &net->modules[mod];
    ImGui::TextDisabled("Every note goes to the modules it is linked to (link them in the net):");
    int shown = 0;
    for (int i = 0; i < m->output_links_capacity; i++) {
        int target = m->output_links[i];
        if (target < 0 || target >= net->slots || !(net->modules[target].flags & PSYNTH_FLAG_EXISTS)) continue;
        const psynth_module* t = &net->modules[target];
        ImGui::BulletText("%02d %s (relative note %d, finetune %d)", target, t->name, t->relative_note, t->finetune);
        shown++;
    }
    if (!shown) ImGui::TextDisabled("No targets yet");
}

}  // namespace

const char* studio_module_view_name(int mod, const psynth_net* net) {
    psynth_handler h = net->modules[mod].handler;
    if (h == psynth_sampler) return "Sampler";
    if (h == psynth_generator) return "Wave";
    if (h == psynth_spectravoice) return "Partials";
    if (h == psynth_compressor) return "Gain";
    if (h == psynth_vorbis_player) return "File";
    if (h == psynth_multisynth) return "Targets";
    return nullptr;
}

void studio_module_view_draw(studio* st, int window, int mod) {
    psynth_handler h = st->song->net->modules[mod].handler;
    if (h == psynth_sampler) studio_sampler_editor_draw(st, window, mod);
    else if (h == psynth_generator) draw_generator_wave(st, mod);
    else if (h == psynth_spectravoice) draw_spectravoice(st, mod);
    else if (h == psynth_compressor) draw_compressor(st, mod);
    else if (h == psynth_vorbis_player) draw_vorbis_player(st, mod);
    else if (h == psynth_multisynth) draw_multisynth(st, mod);
}

void studio_vorbis_file_chosen(studio* st, const char* path) {
    int mod = st->sampler_target_mod;
    psynth_net* net = st->song->net;
    if (mod <= 0 || mod >= net->slots || !(net->modules[mod].flags & PSYNTH_FLAG_EXISTS)) return;
    static const char* const kWhy[] = {"", "it is not a Vorbis player", "there is not enough memory",
                                       "it is not an Ogg Vorbis file, or it is damaged", "it is larger than 64 MB",
                                       "it holds no sound"};
    int result = psynth_vorbis_player_load(mod, path, net);
    if (result == PSYNTH_VORBIS_OK) {
        studio_song_changed(st);
        studio_status(st, "Loaded %s", path);
        return;
    }
    char text[STUDIO_PATH_SIZE + 96];
    snprintf(text, sizeof text, "!Cannot load %s:\n%s.", path,
             result > 0 && result <= PSYNTH_VORBIS_ERROR_EMPTY ? kWhy[result] : "the file cannot be read");
    studio_message(st, text, "OK", nullptr, nullptr);
}
