// The named actions: every command of the studio in one table (name, menu, default keys,
// function). Menus, keys and scripts all call commands through it; keys are rebindable
// and saved in the profile as "key.<name>" lines ("Ctrl+Shift+S", two keys as "F1,Ctrl+O").
#pragma once

#include <cstdint>

struct studio;

// Modifier bits of a key combination.
enum : uint8_t { APP_MOD_CTRL = 1, APP_MOD_SHIFT = 2, APP_MOD_ALT = 4 };

struct app_key {
    uint16_t scancode;  // SDL scancode, 0 = none
    uint8_t mods;
};

constexpr int APP_KEYS_PER_ACTION = 2;

struct app_key_binding {
    app_key keys[APP_KEYS_PER_ACTION];
};

enum app_action_id : int {
    APP_NEW, APP_OPEN, APP_SAVE, APP_SAVE_AS, APP_IMPORT, APP_EXPORT, APP_LOAD_SAMPLE, APP_QUIT,
    APP_UNDO, APP_REDO, APP_CUT, APP_COPY, APP_PASTE, APP_PASTE_MIX, APP_SELECT_ALL, APP_CLEAR_FIELD, APP_CLEAR_LINE,
    APP_INSERT_LINE, APP_DELETE_LINE, APP_TRANSPOSE_UP, APP_TRANSPOSE_DOWN, APP_TRANSPOSE_OCTAVE_UP,
    APP_TRANSPOSE_OCTAVE_DOWN, APP_INTERPOLATE, APP_CLONE_PATTERNS, APP_FIT,
    APP_PLAY_STOP, APP_PLAY_FROM_CURSOR, APP_PLAY_PATTERN, APP_STOP, APP_STOP_AT_END, APP_EDIT_MODE, APP_FOLLOW,
    APP_OCTAVE_DOWN, APP_OCTAVE_UP,
    APP_OCTAVE_1, APP_OCTAVE_2, APP_OCTAVE_3, APP_OCTAVE_4, APP_OCTAVE_5, APP_OCTAVE_6, APP_OCTAVE_7, APP_OCTAVE_8,
    APP_STEP_DOWN, APP_STEP_UP,
    APP_SONG_PROPERTIES, APP_PREFERENCES, APP_CPU_MONITOR, APP_LOG, APP_ABOUT,
    APP_ACTIONS
};

struct app_action {
    const char* name;      // profile and script name: "play_stop"
    const char* label;     // menu text
    const char* menu;      // "File", "Edit", "Song", "View", "Help"; null: keys only
    const char* default_keys;
    void (*run)(studio* st);
};

// The action table, indexed by app_action_id.
const app_action* app_action_get(int id);
// The action with this name, or −1.
int app_action_find(const char* name);

// Parses "Ctrl+Shift+S" (SDL scancode names joined by "+"). Returns 0 for an unknown key.
int app_key_parse(const char* text, app_key* key);
// Writes a combination as text ("" for none).
void app_key_format(const app_key* key, char* out, int size);
// Parses up to two combinations separated by ",". Returns the count read.
int app_key_binding_parse(const char* text, app_key_binding* binding);
void app_key_binding_format(const app_key_binding* binding, char* out, int size);

// Sets every binding from the defaults, then from the profile's "key.<name>" lines.
void app_keys_load(app_key_binding keys[APP_ACTIONS]);
// Writes every binding that differs from its default into the profile (not saved).
void app_keys_store(const app_key_binding keys[APP_ACTIONS]);
// Runs the actions whose keys were pressed this frame (exact modifiers). Call when no text
// field has the keyboard. Returns the number run.
int app_actions_handle_keys(studio* st);
// Runs an action by id.
void app_action_run(studio* st, int id);
