// Preferences: sound (driver, device, buffer, rate, the latency they give, a test tone),
// the MIDI keyboard, keys, look (theme, scale), backup interval and undo size. Applying
// writes them into the profile, which keeps its comments and layout, and reopens what
// they change.
#include <SDL.h>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <imgui.h>

#include "app/studio_windows.h"
#include "engine/log.h"
#include "engine/profile.h"
#include "engine/sound.h"
#include "gui/gui_items.h"
#include "gui/gui_theme.h"
#include "song/devices.h"
#include "song/playback.h"

namespace {

constexpr int kBuffers[] = {64, 128, 256, 512, 1024, 2048, 4096, 8192};
constexpr int kRates[] = {44100, 48000, 88200, 96000, 192000};
constexpr const char* kDriverKeys[SOUND_DRIVERS] = {"jack", "pulse", "alsa"};
constexpr int kMaxListed = 32;
constexpr int kTestToneSeconds = 1;
constexpr float kTestToneHz = 440.0f;
constexpr int kUndoSizeDefault = 2097152;

struct name_list {
    char names[kMaxListed][128];
    int ids[kMaxListed];  // the device numbers of sound devices
    int count;
};

name_list g_devices;       // output devices of the chosen driver
name_list g_midi_devices;  // MIDI inputs

void add_sound_device(int driver, int device, const char* name, int channels, void* data) {
    const studio* st = (const studio*)data;
    if (driver != st->prefs.driver || g_devices.count == kMaxListed) return;
    g_devices.ids[g_devices.count] = device;
    snprintf(g_devices.names[g_devices.count++], sizeof g_devices.names[0], "%d: %s", device, name);
}

void add_midi_device(const char* name, void* data) {
    if (g_midi_devices.count == kMaxListed) return;
    snprintf(g_midi_devices.names[g_midi_devices.count++], sizeof g_midi_devices.names[0], "%s", name);
}

void list_devices(studio* st) {
    g_devices.count = 0;
    sound_stream_list_devices(add_sound_device, st);
    g_midi_devices.count = 0;
    tarvik_midi_client_get_devices(&st->song->net->midi_client, MIDI_PORT_READ, add_midi_device, nullptr);
}

// The sound thread's side of the test tone: a sine at −12 dB for a second.
int test_tone_render(sound_stream* ss, int slot) {
    studio* st = (studio*)ss->slots[slot].user_data;
    std::atomic_ref<int> left(st->prefs.test_tone_frames);
    int frames = ss->slots[slot].frames;
    if (left.load() <= 0 || ss->type != SOUND_TYPE_FLOAT32) return 0;
    float* out = (float*)ss->slots[slot].out;
    float step = kTestToneHz / (float)ss->freq;
    for (int i = 0; i < frames; i++) {
        float phase = (float)(st->prefs.test_tone_phase++ % (uint32_t)ss->freq) * step;
        float v = 0.25f * sinf(6.2831853f * (phase - floorf(phase)));
        out[i * 2] = out[i * 2 + 1] = v;
    }
    left.fetch_sub(frames);
    return 1;
}

// Writes the key only when the value differs from the one in effect (`current`), so that
// untouched preferences add no lines to the musician's file.
void store_int(const char* key, int value, int current) {
    if (value == current) return;
    char text[16];
    snprintf(text, sizeof text, "%d", value);
    profile_set_str_value(key, text, nullptr);
}

void store_str(const char* key, const char* value, const char* current) {
    if (!strcmp(value, current)) return;
    profile_set_str_value(key, value, nullptr);
}

bool combo_of_ints(const char* label, const char* id, int* value, const int* choices, int count, const char* format) {
    char preview[32];
    snprintf(preview, sizeof preview, format, *value);
    bool changed = false;
    if (ImGui::BeginCombo(label, preview)) {
        for (int i = 0; i < count; i++) {
            char text[32];
            snprintf(text, sizeof text, format, choices[i]);
            if (ImGui::Selectable(text, choices[i] == *value)) {
                *value = choices[i];
                changed = true;
            }
            char item[64];
            snprintf(item, sizeof item, "%s.%d", id, choices[i]);
            gui_item_name(item);
        }
        ImGui::EndCombo();
    }
    gui_item_name(id);
    return changed;
}

void draw_sound(studio* st) {
    studio_preferences* p = &st->prefs;
    ImGui::SetNextItemWidth(ImGui::GetFontSize() * 10);
    if (ImGui::Combo("Driver", &p->driver, "JACK\0PulseAudio\0ALSA\0")) {
        p->device = -1;
        list_devices(st);
    }
    gui_item_name("prefs.driver");
    char preview[140];
    snprintf(preview, sizeof preview, "Device %d", p->device);
    for (int d = 0; d < g_devices.count; d++) {
        if (g_devices.ids[d] == p->device) snprintf(preview, sizeof preview, "%s", g_devices.names[d]);
    }
    if (p->device < 0) snprintf(preview, sizeof preview, "Default");
    ImGui::SetNextItemWidth(ImGui::GetFontSize() * 16);
    if (ImGui::BeginCombo("Device", preview)) {
        if (ImGui::Selectable("Default", p->device < 0)) p->device = -1;
        for (int d = 0; d < g_devices.count; d++) {
            if (ImGui::Selectable(g_devices.names[d], p->device == g_devices.ids[d])) p->device = g_devices.ids[d];
        }
        ImGui::EndCombo();
    }
    gui_item_name("prefs.device");
    ImGui::SetNextItemWidth(ImGui::GetFontSize() * 10);
    combo_of_ints("Buffer", "prefs.buffer", &p->buffer, kBuffers, (int)(sizeof kBuffers / sizeof *kBuffers), "%d frames");
    ImGui::SetNextItemWidth(ImGui::GetFontSize() * 10);
    combo_of_ints("Rate", "prefs.rate", &p->rate, kRates, (int)(sizeof kRates / sizeof *kRates), "%d Hz");
    ImGui::Text("Latency: %.1f ms", 1000.0 * p->buffer / p->rate);
    gui_item_name("prefs.latency");
    bool can_test = st->sound_ok && p->test_tone_frames <= 0;
    if (!can_test) ImGui::BeginDisabled();
    if (ImGui::Button("Test tone")) {
        p->test_tone_phase = 0;
        std::atomic_ref<int>(p->test_tone_frames).store(st->rate * kTestToneSeconds);
        sound_stream_set_slot(STUDIO_TEST_TONE_SLOT, test_tone_render, st);
        sound_stream_play(STUDIO_TEST_TONE_SLOT);
    }
    if (!can_test) ImGui::EndDisabled();
    gui_item_name("prefs.test_tone");
}

void draw_midi(studio* st) {
    studio_preferences* p = &st->prefs;
    ImGui::SetNextItemWidth(ImGui::GetFontSize() * 16);
    const char* preview = p->midi_device >= 0 && p->midi_device < g_midi_devices.count ? g_midi_devices.names[p->midi_device] : "None";
    if (ImGui::BeginCombo("MIDI keyboard", preview)) {
        if (ImGui::Selectable("None", p->midi_device < 0)) p->midi_device = -1;
        for (int d = 0; d < g_midi_devices.count; d++) {
            if (ImGui::Selectable(g_midi_devices.names[d], p->midi_device == d)) p->midi_device = d;
        }
        ImGui::EndCombo();
    }
    gui_item_name("prefs.midi_device");
    ImGui::SetNextItemWidth(ImGui::GetFontSize() * 10);
    ImGui::SliderInt("Channel", &p->midi_channel, 1, 16);
    gui_item_name("prefs.midi_channel");
}

void draw_keys(studio* st) {
    studio_preferences* p = &st->prefs;
    if (p->capture_action >= 0) {
        // The next key with its modifiers becomes the binding; Esc alone keeps the old one.
        ImGuiIO& io = ImGui::GetIO();
        for (int sc = SDL_SCANCODE_A; sc < SDL_NUM_SCANCODES && sc < 512; sc++) {
            bool modifier = sc >= SDL_SCANCODE_LCTRL && sc <= SDL_SCANCODE_RGUI;
            if (modifier || !ImGui::IsKeyPressed(sc, false)) continue;
            if (sc != SDL_SCANCODE_ESCAPE || io.KeyCtrl || io.KeyShift || io.KeyAlt) {
                app_key key = {(uint16_t)sc, (uint8_t)((io.KeyCtrl ? APP_MOD_CTRL : 0) | (io.KeyShift ? APP_MOD_SHIFT : 0) |
                                                      (io.KeyAlt ? APP_MOD_ALT : 0))};
                st->keys[p->capture_action].keys[0] = key;
            }
            p->capture_action = -1;
            break;
        }
    }
    if (!ImGui::BeginTable("##keys", 3, ImGuiTableFlags_ScrollY | ImGuiTableFlags_RowBg, ImVec2(0, ImGui::GetFontSize() * 14))) return;
    for (int a = 0; a < APP_ACTIONS; a++) {
        ImGui::PushID(a);
        ImGui::TableNextRow();
        ImGui::TableNextColumn();
        ImGui::TextUnformatted(app_action_get(a)->label);
        ImGui::TableNextColumn();
        char keys[96];
        app_key_binding_format(&st->keys[a], keys, sizeof keys);
        if (ImGui::Button(p->capture_action == a ? "press a key..." : keys[0] ? keys : "(none)", ImVec2(ImGui::GetFontSize() * 9, 0))) {
            p->capture_action = a;
        }
        char id[64];
        snprintf(id, sizeof id, "prefs.key.%s", app_action_get(a)->name);
        gui_item_name(id);
        ImGui::TableNextColumn();
        if (ImGui::SmallButton("default")) app_key_binding_parse(app_action_get(a)->default_keys, &st->keys[a]);
        ImGui::PopID();
    }
    ImGui::EndTable();
}

void draw_other(studio* st) {
    studio_preferences* p = &st->prefs;
    ImGui::SetNextItemWidth(ImGui::GetFontSize() * 10);
    ImGui::Combo("Theme", &p->theme, "Dark\0Light\0");
    gui_item_name("prefs.theme");
    ImGui::SetNextItemWidth(ImGui::GetFontSize() * 10);
    ImGui::SliderInt("UI scale %", &p->scale_percent, 100, 300);
    gui_item_name("prefs.scale");
    ImGui::SetNextItemWidth(ImGui::GetFontSize() * 10);
    ImGui::InputInt("Backup every (s)", &p->backup_interval, 10, 60);
    gui_item_name("prefs.backup");
    ImGui::SetNextItemWidth(ImGui::GetFontSize() * 10);
    ImGui::InputInt("Undo size (bytes)", &p->undo_size, 65536, 1048576);
    gui_item_name("prefs.undosize");
    if (p->backup_interval < 0) p->backup_interval = 0;
    if (p->undo_size < 0) p->undo_size = 0;
}

// Writes the dialog's values into the profile and the running studio.
void apply(studio* st) {
    studio_preferences* p = &st->prefs;
    bool sound_changed = p->driver != sound_stream_driver_from_key(profile_get_str_value("audiodriver", "jack", nullptr)) ||
                         p->device != profile_get_int_value("audiodevice", -1, nullptr) ||
                         p->buffer != profile_get_int_value("buffer", SOUND_BUFFER_DEFAULT, nullptr) || p->rate != st->rate ||
                         !st->sound_ok;
    store_str("audiodriver", kDriverKeys[p->driver], profile_get_str_value("audiodriver", "jack", nullptr));
    store_int("audiodevice", p->device, profile_get_int_value("audiodevice", -1, nullptr));
    store_int("buffer", p->buffer, profile_get_int_value("buffer", SOUND_BUFFER_DEFAULT, nullptr));
    store_int("frequency", p->rate, st->rate);
    const char* kbd = profile_get_str_value("midi_kbd", "", nullptr);
    if (p->midi_device >= 0 && p->midi_device < g_midi_devices.count) store_str("midi_kbd", g_midi_devices.names[p->midi_device], kbd);
    else if (kbd[0]) profile_remove_key("midi_kbd", nullptr);
    store_int("midi_kbd_ch", p->midi_channel, profile_get_int_value("midi_kbd_ch", profile_get_int_value("midi_in_ch", 1, nullptr), nullptr));
    store_str("theme", gui_theme_name(p->theme), gui_theme_name(st->win.theme));
    store_int("zoom", p->scale_percent, (int)(st->win.scale * 100 + 0.5f));
    store_int("backupinterval", p->backup_interval, st->backup_interval);
    store_int("undosize", p->undo_size, profile_get_int_value("undosize", kUndoSizeDefault, nullptr));
    app_keys_store(st->keys);
    if (!st->safe_mode && studio_profile_save(st)) {
        studio_message(st, "!The preferences could not be saved: the settings file cannot be written.\n"
                           "They apply until Zelfon closes.", "OK", nullptr, nullptr);
    }
    st->backup_interval = p->backup_interval;
    zelfon_open_midi_keyboard(st->song);
    // Fonts are rebuilt between frames.
    st->restyle_scale = p->scale_percent / 100.0f;
    st->restyle_theme = p->theme;
    st->restyle_pending = 1;
    if (sound_changed) {
        studio_sound_close(st);
        st->rate = p->rate;
        studio_sound_open(st);
    }
    if (st->safe_mode) studio_status(st, "Safe mode: the preferences apply until Zelfon closes");
}

}  // namespace

int studio_sound_open(studio* st) {
    st->sound_ok = sound_stream_init(SOUND_TYPE_FLOAT32, st->rate, 2) == 0;
    if (!st->sound_ok) {
        studio_status(st, "No sound device could be opened: Zelfon runs silent");
        return 1;
    }
    st->sound_lost = 0;
    zelfon_attach_sound(STUDIO_SOUND_SLOT, st->song);
    studio_status(st, "Sound: %s, %d Hz, %d frames (%.1f ms)", sound_stream_driver_name(g_snd.driver), st->rate, g_snd.buffer,
                  1000.0 * g_snd.buffer / st->rate);
    return 0;
}

void studio_sound_close(studio* st) {
    if (!st->sound_ok) return;
    zelfon_stop(st->song);
    zelfon_detach_sound(STUDIO_SOUND_SLOT);
    sound_stream_stop(STUDIO_TEST_TONE_SLOT);
    sound_stream_close();
    st->sound_ok = 0;
}

void studio_preferences_open(studio* st) {
    studio_preferences* p = &st->prefs;
    int driver = sound_stream_driver_from_key(profile_get_str_value("audiodriver", "jack", nullptr));
    p->driver = driver < 0 ? SOUND_DRIVER_JACK : driver;
    p->device = profile_get_int_value("audiodevice", -1, nullptr);
    p->buffer = st->sound_ok ? g_snd.buffer : profile_get_int_value("buffer", SOUND_BUFFER_DEFAULT, nullptr);
    p->rate = st->rate;
    p->midi_channel = profile_get_int_value("midi_kbd_ch", profile_get_int_value("midi_in_ch", 1, nullptr), nullptr);
    p->theme = st->win.theme;
    p->scale_percent = (int)(st->win.scale * 100 + 0.5f);
    p->backup_interval = st->backup_interval;
    p->undo_size = profile_get_int_value("undosize", kUndoSizeDefault, nullptr);
    p->capture_action = -1;
    p->message[0] = 0;
    list_devices(st);
    const char* kbd = profile_get_str_value("midi_kbd", profile_get_str_value("midi_in", nullptr, nullptr), nullptr);
    p->midi_device = -1;
    for (int d = 0; kbd && d < g_midi_devices.count; d++) {
        if (!strcmp(g_midi_devices.names[d], kbd)) p->midi_device = d;
    }
    p->open = 1;
}

void studio_preferences_draw(studio* st) {
    studio_preferences* p = &st->prefs;
    if (p->test_tone_frames <= 0 && st->sound_ok) sound_stream_stop(STUDIO_TEST_TONE_SLOT);
    if (!p->open) return;
    bool open = true;
    ImGui::SetNextWindowSize(ImVec2(ImGui::GetFontSize() * 30, ImGui::GetFontSize() * 26), ImGuiCond_FirstUseEver);
    studio_place_window(0.15f, 0.10f);
    if (ImGui::Begin("Preferences", &open)) {
        if (ImGui::BeginTabBar("##prefs")) {
            const struct {
                const char* label;
                const char* id;
                void (*draw)(studio*);
            } tabs[] = {{"Sound", "prefs.tab.sound", draw_sound}, {"MIDI", "prefs.tab.midi", draw_midi},
                        {"Keys", "prefs.tab.keys", draw_keys}, {"Other", "prefs.tab.other", draw_other}};
            for (const auto& tab : tabs) {
                bool selected = ImGui::BeginTabItem(tab.label);
                gui_item_name(tab.id);
                if (!selected) continue;
                tab.draw(st);
                ImGui::EndTabItem();
            }
            ImGui::EndTabBar();
        }
        ImGui::Separator();
        if (ImGui::Button("Apply")) apply(st);
        gui_item_name("prefs.apply");
        ImGui::SameLine();
        if (ImGui::Button("OK")) {
            apply(st);
            open = false;
        }
        gui_item_name("prefs.ok");
        ImGui::SameLine();
        if (ImGui::Button("Cancel")) open = false;
        gui_item_name("prefs.cancel");
    }
    ImGui::End();
    if (!open) p->capture_action = -1;
    p->open = open;
}
