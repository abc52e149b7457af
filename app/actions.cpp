// The action table and the key bindings. A key runs an action only with exactly the
// modifiers of its binding, so Space and Shift+Space stay different commands.
#include "app/actions.h"

#include <SDL.h>
#include <cstdio>
#include <cstring>
#include <imgui.h>

#include "app/studio_windows.h"
#include "engine/profile.h"

namespace {

void set_octave(studio* st, int octave) { st->octave = octave < 0 ? 0 : octave > 9 ? 9 : octave; }
void set_step(studio* st, int step) { st->edit_step = step < 0 ? 0 : step > 64 ? 64 : step; }

const app_action kActions[] = {
    {"new", "New", "File", "Ctrl+N", studio_files_new},
    {"open", "Open...", "File", "Ctrl+O", studio_files_open},
    {"save", "Save", "File", "Ctrl+S", studio_files_save},
    {"save_as", "Save As...", "File", "Ctrl+Shift+S", studio_files_save_as},
    {"import", "Import (XM, MOD, S3M, IT)...", "File", "Ctrl+Shift+I", studio_files_import},
    {"export", "Export...", "File", "Ctrl+E", studio_export_open},
    {"load_sample", "Load Sample as New Sampler...", "File", "", studio_load_sample},
    {"quit", "Quit", "File", "Ctrl+Q", studio_files_quit},
    {"undo", "Undo", "Edit", "Ctrl+Z", [](studio* st) { studio_undo(st, 0); }},
    {"redo", "Redo", "Edit", "Ctrl+Y,Ctrl+Shift+Z", [](studio* st) { studio_undo(st, 1); }},
    {"cut", "Cut", "Edit", "Ctrl+X", [](studio* st) { studio_pattern_copy(st, 1); }},
    {"copy", "Copy", "Edit", "Ctrl+C", [](studio* st) { studio_pattern_copy(st, 0); }},
    {"paste", "Paste", "Edit", "Ctrl+V", [](studio* st) { studio_pattern_paste(st, 0); }},
    {"paste_mix", "Paste Mix", "Edit", "Ctrl+Shift+V", [](studio* st) { studio_pattern_paste(st, 1); }},
    {"select_all", "Select Track / Pattern", "Edit", "Ctrl+A", studio_pattern_select_all},
    {"clear_field", "Clear Field", "Edit", "Delete", studio_delete_key},
    {"clear_line", "Clear Cell", "Edit", "Shift+Delete", [](studio* st) { studio_pattern_clear(st, 1); }},
    {"insert_line", "Insert Line", "Edit", "Insert", studio_insert_key},
    {"delete_line", "Delete Line", "Edit", "Backspace", [](studio* st) { studio_pattern_insert_line(st, 0); }},
    {"transpose_up", "Transpose Semitone Up", "Edit", "Ctrl+Up", [](studio* st) { studio_pattern_transpose(st, 1); }},
    {"transpose_down", "Transpose Semitone Down", "Edit", "Ctrl+Down", [](studio* st) { studio_pattern_transpose(st, -1); }},
    {"transpose_octave_up", "Transpose Octave Up", "Edit", "Ctrl+Shift+Up", [](studio* st) { studio_pattern_transpose(st, 12); }},
    {"transpose_octave_down", "Transpose Octave Down", "Edit", "Ctrl+Shift+Down", [](studio* st) { studio_pattern_transpose(st, -12); }},
    {"interpolate", "Interpolate", "Edit", "Ctrl+I", studio_pattern_interpolate},
    {"clone_patterns", "Clone Selected Patterns", "Song", "Ctrl+D", studio_timeline_clone_selection},
    {"fit", "Fit the Timeline or the Net", "View", "Ctrl+F", studio_timeline_fit},
    {"play_stop", "Play / Stop", "Song", "Space", studio_play_stop},
    {"play_from_cursor", "Play from Cursor Line", "Song", "Shift+Space", studio_play_from_cursor},
    {"play_pattern", "Play Pattern in a Loop", "Song", "Ctrl+Space", studio_play_pattern},
    {"stop", "Stop", "Song", "", studio_stop},
    {"stop_at_end", "Stop at the Song's End", "Song", "", studio_toggle_stop_at_end},
    {"edit_mode", "Edit Mode", "Edit", "Escape", [](studio* st) { st->edit_mode = !st->edit_mode; }},
    {"follow", "Follow Playback", "View", "ScrollLock", [](studio* st) { st->follow = !st->follow; }},
    {"octave_down", "Octave Down", "Edit", "Keypad /", [](studio* st) { set_octave(st, st->octave - 1); }},
    {"octave_up", "Octave Up", "Edit", "Keypad *", [](studio* st) { set_octave(st, st->octave + 1); }},
    {"octave_1", "Octave 1", nullptr, "F1", [](studio* st) { set_octave(st, 1); }},
    {"octave_2", "Octave 2", nullptr, "F2", [](studio* st) { set_octave(st, 2); }},
    {"octave_3", "Octave 3", nullptr, "F3", [](studio* st) { set_octave(st, 3); }},
    {"octave_4", "Octave 4", nullptr, "F4", [](studio* st) { set_octave(st, 4); }},
    {"octave_5", "Octave 5", nullptr, "F5", [](studio* st) { set_octave(st, 5); }},
    {"octave_6", "Octave 6", nullptr, "F6", [](studio* st) { set_octave(st, 6); }},
    {"octave_7", "Octave 7", nullptr, "F7", [](studio* st) { set_octave(st, 7); }},
    {"octave_8", "Octave 8", nullptr, "F8", [](studio* st) { set_octave(st, 8); }},
    {"step_down", "Edit Step Down", "Edit", "Ctrl+[", [](studio* st) { set_step(st, st->edit_step - 1); }},
    {"step_up", "Edit Step Up", "Edit", "Ctrl+]", [](studio* st) { set_step(st, st->edit_step + 1); }},
    {"song_properties", "Song Properties...", "Song", "", [](studio* st) { st->show_song_properties = 1; }},
    {"preferences", "Preferences...", "Edit", "Ctrl+,", studio_preferences_open},
    {"cpu_monitor", "CPU Monitor", "View", "", [](studio* st) { st->show_cpu_monitor = !st->show_cpu_monitor; }},
    {"log", "Log", "View", "", [](studio* st) { st->show_log = !st->show_log; }},
    {"about", "About Zelfon", "Help", "", [](studio* st) { st->show_about = 1; }},
};

static_assert(sizeof kActions / sizeof *kActions == APP_ACTIONS, "one table row per action id, in order");

const struct {
    const char* name;
    uint8_t bit;
} kModifiers[] = {{"Ctrl", APP_MOD_CTRL}, {"Shift", APP_MOD_SHIFT}, {"Alt", APP_MOD_ALT}};

uint8_t held_modifiers() {
    ImGuiIO& io = ImGui::GetIO();
    return (uint8_t)((io.KeyCtrl ? APP_MOD_CTRL : 0) | (io.KeyShift ? APP_MOD_SHIFT : 0) | (io.KeyAlt ? APP_MOD_ALT : 0));
}

}  // namespace

const app_action* app_action_get(int id) { return id >= 0 && id < APP_ACTIONS ? &kActions[id] : nullptr; }

int app_action_find(const char* name) {
    for (int a = 0; a < APP_ACTIONS; a++) {
        if (!strcmp(kActions[a].name, name)) return a;
    }
    return -1;
}

int app_key_parse(const char* text, app_key* key) {
    key->scancode = 0;
    key->mods = 0;
    char buf[64];
    snprintf(buf, sizeof buf, "%s", text);
    char* name = buf;
    while (*name == ' ') name++;
    for (bool more = true; more;) {
        more = false;
        for (const auto& m : kModifiers) {
            size_t n = strlen(m.name);
            if (!SDL_strncasecmp(name, m.name, n) && name[n] == '+' && name[n + 1]) {
                key->mods |= m.bit;
                name += n + 1;
                more = true;
            }
        }
    }
    SDL_Scancode sc = SDL_GetScancodeFromName(name);
    if (sc == SDL_SCANCODE_UNKNOWN) return 0;
    key->scancode = (uint16_t)sc;
    return 1;
}

void app_key_format(const app_key* key, char* out, int size) {
    out[0] = 0;
    if (!key->scancode) return;
    int n = 0;
    for (const auto& m : kModifiers) {
        if (key->mods & m.bit) n += snprintf(out + n, (size_t)(size - n), "%s+", m.name);
    }
    snprintf(out + n, (size_t)(size - n), "%s", SDL_GetScancodeName((SDL_Scancode)key->scancode));
}

int app_key_binding_parse(const char* text, app_key_binding* binding) {
    *binding = app_key_binding();
    int count = 0;
    const char* p = text;
    while (p && *p && count < APP_KEYS_PER_ACTION) {
        size_t len = strcspn(p, ",");
        char one[64];
        snprintf(one, sizeof one, "%.*s", (int)len, p);
        if (app_key_parse(one, &binding->keys[count])) count++;
        p = p[len] ? p + len + 1 : nullptr;
    }
    return count;
}

void app_key_binding_format(const app_key_binding* binding, char* out, int size) {
    out[0] = 0;
    int n = 0;
    for (int k = 0; k < APP_KEYS_PER_ACTION && n < size; k++) {
        if (!binding->keys[k].scancode) continue;
        if (n) n += snprintf(out + n, (size_t)(size - n), ",");
        app_key_format(&binding->keys[k], out + n, size - n);
        n = (int)strlen(out);
    }
}

void app_keys_load(app_key_binding keys[APP_ACTIONS]) {
    for (int a = 0; a < APP_ACTIONS; a++) {
        app_key_binding_parse(kActions[a].default_keys, &keys[a]);
        char key[80];
        snprintf(key, sizeof key, "key.%s", kActions[a].name);
        const char* value = profile_get_str_value(key, nullptr, nullptr);
        if (value) app_key_binding_parse(value, &keys[a]);
    }
}

void app_keys_store(const app_key_binding keys[APP_ACTIONS]) {
    for (int a = 0; a < APP_ACTIONS; a++) {
        app_key_binding defaults;
        app_key_binding_parse(kActions[a].default_keys, &defaults);
        char key[80], value[128];
        snprintf(key, sizeof key, "key.%s", kActions[a].name);
        app_key_binding_format(&keys[a], value, sizeof value);
        bool is_default = true;
        for (int k = 0; k < APP_KEYS_PER_ACTION; k++) {
            is_default = is_default && defaults.keys[k].scancode == keys[a].keys[k].scancode &&
                         defaults.keys[k].mods == keys[a].keys[k].mods;
        }
        if (!is_default || profile_get_str_value(key, nullptr, nullptr)) profile_set_str_value(key, value, nullptr);
    }
}

void app_action_run(studio* st, int id) {
    if (id >= 0 && id < APP_ACTIONS) kActions[id].run(st);
}

int app_actions_handle_keys(studio* st) {
    uint8_t mods = held_modifiers();
    int run = 0;
    for (int a = 0; a < APP_ACTIONS; a++) {
        // Stepping actions repeat while the key is held; the others run once a press.
        bool repeat = a == APP_OCTAVE_DOWN || a == APP_OCTAVE_UP || a == APP_STEP_DOWN || a == APP_STEP_UP;
        for (const app_key& key : st->keys[a].keys) {
            if (!key.scancode || key.mods != mods) continue;
            if (!ImGui::IsKeyPressed(key.scancode, repeat)) continue;
            app_action_run(st, a);
            run++;
            break;
        }
    }
    return run;
}
