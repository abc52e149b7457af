// The studio's life: the window and sound stream opened in start-up order, the song, the
// frame loop that sleeps on events when nothing moves and draws at the display's rate
// while something plays, and the shutdown in reverse order.
#include "app/studio.h"

#include <SDL.h>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <imgui.h>

#include "app/studio_windows.h"
#include "engine/file.h"
#include "engine/log.h"
#include "engine/memory.h"
#include "engine/midi.h"
#include "engine/profile.h"
#include "engine/sound.h"
#include "gui/gui_items.h"
#include "gui/gui_theme.h"
#include "song/demo.h"
#include "song/devices.h"
#include "song/playback.h"
#include "song/edit.h"
#include "song/song_file.h"

namespace {

constexpr const char* kProgramName = "Zelfon v1.6.4(Aug  3 2011)";
constexpr const char* kWindowPlacesFile = "2:/zelfon_windows.ini";
constexpr int kDefaultWidth = 800;
constexpr int kDefaultHeight = 600;
constexpr int kDefaultRate = 44100;
constexpr int kSplitXDefault = 500;  // per mille of the window
constexpr int kSplitYDefault = 520;
constexpr int kRedrawFramesAfterInput = 3;  // ImGui settles hover and popups over a few frames
constexpr int kIdleWaitMs = 500;
constexpr int kMidiPollMs = 5;              // with a MIDI keyboard open: how often it is read
constexpr int kIdleRedrawMs = 10000;        // an idle screen is drawn again at least this often
constexpr int kStatusMs = 6000;
constexpr int kScriptFrameMs = 16;
constexpr int kScriptGraceFrames = 600;     // frames allowed after a script ends before giving up

// ---- Window places (ImGui's own settings text), kept in the application-data folder ----

void load_window_places() {
    if (v3_get_file_type(kWindowPlacesFile) != V3_FILE_REGULAR) return;
    int64_t size = v3_get_file_size(kWindowPlacesFile);
    if (size <= 0 || size > (1 << 20)) return;
    int h = v3_open(kWindowPlacesFile, "rb");
    char* text = h ? (char*)mem_new(MEM_DYNAMIC, (size_t)size, "load_window_places") : nullptr;
    if (text && v3_read(text, 1, (size_t)size, h) == (size_t)size) ImGui::LoadIniSettingsFromMemory(text, (size_t)size);
    mem_free(text);
    if (h) v3_close(h);
}

void save_window_places() {
    size_t size = 0;
    const char* text = ImGui::SaveIniSettingsToMemory(&size);
    v3_save save;
    int h = v3_save_begin(kWindowPlacesFile, &save);
    v3_save_end(&save, h && v3_write(text, 1, size, h) == size);
}

// ---- Script commands of the studio (beyond the toolkit's input commands) ----

// "expect WHAT VALUE": playing 0|1, line_at_least N, dirty 0|1, message TEXT (the box on
// screen starts with TEXT), no_message, status TEXT (the status line starts with TEXT),
// export TEXT (the export dialog's result starts with TEXT), modules N, bpm N, note TRACK
// LINE NOTE (in the current pattern). Returns 0 when it holds.
int expect(studio* st, const char* what) {
    char name[32] = {}, value[512] = {};
    sscanf(what, "%31s %511[^\n]", name, value);
    int n = atoi(value);
    bool holds;
    if (!strcmp(name, "playing")) holds = (studio_is_playing(st) != 0) == (n != 0);
    else if (!strcmp(name, "line_at_least")) holds = studio_playing_line(st) >= n;
    else if (!strcmp(name, "dirty")) holds = (st->changes != st->saved_changes) == (n != 0);
    else if (!strcmp(name, "message")) holds = st->boxes.count && !strncmp(st->boxes.queue[0].text, value, strlen(value));
    else if (!strcmp(name, "no_message")) holds = st->boxes.count == 0;
    else if (!strcmp(name, "status")) holds = !strncmp(st->status, value, strlen(value));
    else if (!strcmp(name, "export")) holds = !strncmp(st->export_dialog.result, value, strlen(value));
    else if (!strcmp(name, "bpm")) holds = st->song->bpm == n;
    else if (!strcmp(name, "note")) {
        // "note TRACK LINE NOTE" in the current pattern.
        int track = -1, line = -1, note = -1;
        sscanf(value, "%d %d %d", &track, &line, &note);
        const zelfon_cell* cell = zelfon_get_cell(st->current_pattern, track, line, st->song);
        holds = cell && cell->note == note;
    }
    else if (!strcmp(name, "modules")) {
        int count = 0;
        for (int m = 0; m < st->song->net->slots; m++) count += (st->song->net->modules[m].flags & PSYNTH_FLAG_EXISTS) != 0;
        holds = count == n;
    } else return 1;
    return holds ? 0 : 1;
}

// save_song PATH, action NAME, set_clipboard TEXT, sleep_ms N, expect ..., open_module N
// (its window), crash. Returns 0 when done.
int script_command(const char* line, void* data) {
    studio* st = (studio*)data;
    char word[64] = {}, arg[STUDIO_PATH_SIZE] = {};
    sscanf(line, "%63s %1023[^\n]", word, arg);
    if (!strcmp(word, "save_song")) return zelfon_save_song(arg, ZELFON_VERSION_MAJOR, ZELFON_VERSION_MINOR, st->song);
    if (!strcmp(word, "action")) {
        int id = app_action_find(arg);
        if (id < 0) return 1;
        app_action_run(st, id);
        return 0;
    }
    if (!strcmp(word, "set_clipboard")) return SDL_SetClipboardText(arg) != 0;
    if (!strcmp(word, "sleep_ms")) {
        SDL_Delay((uint32_t)atoi(arg));
        return 0;
    }
    if (!strcmp(word, "expect")) return expect(st, arg);
    if (!strcmp(word, "open_module")) {
        // The window of module N, as a double click on its box opens it.
        int mod = atoi(arg);
        if (mod < 0 || mod >= st->song->net->slots || !(st->song->net->modules[mod].flags & PSYNTH_FLAG_EXISTS)) return 1;
        studio_module_window_open(st, mod);
        return 0;
    }
    if (!strcmp(word, "crash")) {
        // Dies as a crash does: nothing is cleaned up or saved.
        raise(SIGKILL);
        return 1;
    }
    return 1;
}

// ---- Events ----

void handle_event(studio* st, SDL_Event* e) {
    switch (e->type) {
    case SDL_QUIT:
        studio_files_quit(st);
        break;
    case SDL_DROPFILE:
        studio_files_drop(st, e->drop.file);
        SDL_free(e->drop.file);
        break;
    case SDL_MOUSEBUTTONDOWN:
        // A press starts a new gesture: the edits it makes undo as one step.
        zelfon_edit_begin(st->song);
        gui_window_handle_event(&st->win, e);
        break;
    default:
        gui_window_handle_event(&st->win, e);
        break;
    }
    st->redraw_frames = kRedrawFramesAfterInput;
}

bool any_popup_open() { return ImGui::IsPopupOpen("", ImGuiPopupFlags_AnyPopupId | ImGuiPopupFlags_AnyPopupLevel); }

void dispatch_file_dialog(studio* st) {
    int answer = gui_file_dialog_draw(&st->file_dialog);
    if (answer == 0) return;
    int purpose = st->file_purpose;
    st->file_purpose = STUDIO_FILE_NONE;
    if (answer < 0) {
        if (st->pending != STUDIO_PENDING_NONE && purpose == STUDIO_FILE_SAVE_SONG) st->pending = STUDIO_PENDING_NONE;
        return;
    }
    if (purpose == STUDIO_FILE_EXPORT) {
        snprintf(st->export_dialog.path, sizeof st->export_dialog.path, "%s", st->file_dialog.result);
        return;
    }
    if (purpose == STUDIO_FILE_LOAD_SAMPLE) {
        studio_load_sample_path(st, st->file_dialog.result);
        return;
    }
    if (purpose == STUDIO_FILE_SAMPLER_LOAD || purpose == STUDIO_FILE_SAMPLER_SAVE_WAV || purpose == STUDIO_FILE_SAMPLER_SAVE_XI) {
        studio_sampler_file_chosen(st, purpose, st->file_dialog.result);
        return;
    }
    if (purpose == STUDIO_FILE_VORBIS_LOAD) {
        studio_vorbis_file_chosen(st, st->file_dialog.result);
        return;
    }
    if (purpose == STUDIO_FILE_LOAD_MODULE) {
        studio_net_load_module(st, st->file_dialog.result);
        return;
    }
    if (purpose == STUDIO_FILE_SAVE_MODULE) {
        studio_net_save_module(st, st->file_dialog.result);
        return;
    }
    studio_files_dialog_result(st, purpose, st->file_dialog.result);
}

void draw_frame(studio* st) {
    float seconds = gui_window_begin_frame(&st->win);
    gui_items_new_frame();
    studio_transport_update(st, seconds);
    if (!any_popup_open() && !ImGui::GetIO().WantTextInput && !st->export_dialog.running && st->prefs.capture_action < 0) {
        app_actions_handle_keys(st);
    }
    studio_desktop_draw(st);
    studio_song_properties_draw(st);
    studio_preferences_draw(st);
    studio_export_draw(st);
    studio_cpu_monitor_draw(st);
    studio_log_draw(st);
    studio_about_draw(st);
    studio_icon_editor_draw(st);
    studio_module_windows_draw(st);
    studio_sampler_new_dialog_draw(st);
    dispatch_file_dialog(st);
    gui_message_boxes_draw(&st->boxes);
    studio_files_update_title(st);
    const char* shot = st->scripted && st->script.screenshot[0] ? st->script.screenshot : nullptr;
    if (gui_window_end_frame(&st->win, shot) && shot) st->exit_code = 3;
    st->script.screenshot[0] = 0;  // taken by this frame
}

bool busy(const studio* st) {
    return st->scripted || studio_is_playing(st) || st->redraw_frames > 0 || st->export_dialog.running ||
           st->prefs.test_tone_frames > 0;
}

void script_step(studio* st) {
    if (!st->scripted) return;
    gui_script_step(&st->script, &st->win, script_command, st);
    if (st->script.failed) st->exit_code = 2;
    if (st->script.finished && ++st->script_frames_after_end > kScriptGraceFrames) {
        tarvik_log("studio: the script ended but the studio did not quit\n");
        st->exit_code = 2;
        st->quit = 1;
    }
}

// Takes the waiting events, the first one waiting at most `timeout` ms. Returns 1 with input.
int take_events(studio* st, int timeout) {
    SDL_Event e;
    if (!gui_window_wait_event(&e, timeout)) return 0;
    handle_event(st, &e);
    while (!st->quit && SDL_PollEvent(&e)) handle_event(st, &e);
    return 1;
}

void draw_and_count(studio* st) {
    if (st->restyle_pending) {
        st->restyle_pending = 0;
        gui_window_set_style(&st->win, st->restyle_scale, st->restyle_theme);
    }
    draw_frame(st);
    if (st->redraw_frames > 0) st->redraw_frames--;
}

// What an idle screen shows that can change without input: a redraw is due when it moves.
uint32_t idle_signature(const studio* st) {
    uint32_t status_shown = st->status[0] && !SDL_TICKS_PASSED(SDL_GetTicks(), st->status_until_ms);
    return sound_stream_underruns() * 2654435761u ^ (uint32_t)sound_stream_running() << 1 ^ status_shown;
}

void run_loop(studio* st) {
    uint32_t last_draw = 0, drawn_signature = 0;
    const int frame_ms = 1000 / gui_window_refresh_rate(&st->win);
    while (!st->quit) {
        script_step(st);
        bool keyboard = st->song->midi_kbd_port >= 0;
        int timeout = busy(st) ? 0 : keyboard ? kMidiPollMs : kIdleWaitMs;
        bool input = take_events(st, timeout);
        if (st->quit) break;
        st->song->midi_kbd_module = st->selected_module;
        if (keyboard && zelfon_poll_midi_keyboard(st->song)) input = true;
        studio_files_tick(st);
        studio_devices_watch(st);
        studio_sampler_recordings_tick(st);
        studio_export_run(st);
        uint32_t now = SDL_GetTicks();
        uint32_t signature = idle_signature(st);
        bool stale = signature != drawn_signature || now - last_draw >= (uint32_t)kIdleRedrawMs;
        if (!input && !busy(st) && !stale) continue;
        draw_and_count(st);
        if (!st->start_finished) {
            st->start_finished = 1;
            studio_safe_start_done();
        }
        last_draw = now;
        drawn_signature = signature;
        if (st->scripted || !st->win.software) continue;  // scripts run flat out; vsync paces the others
        // The software renderer has no vsync: hold the display's rate.
        uint32_t spent = SDL_GetTicks() - now;
        if (spent < (uint32_t)frame_ms) SDL_Delay((uint32_t)frame_ms - spent);
    }
}

}  // namespace

void studio_frame_during_work(studio* st) {
    script_step(st);
    take_events(st, 0);
    draw_and_count(st);
}

namespace {

// ---- Start-up and shutdown ----

void read_layout(studio* st) {
    st->split_x = (float)profile_get_int_value("split_x", kSplitXDefault, nullptr) / 1000.0f;
    st->split_y = (float)profile_get_int_value("split_y", kSplitYDefault, nullptr) / 1000.0f;
    st->backup_interval = profile_get_int_value("backupinterval", STUDIO_BACKUP_INTERVAL_DEFAULT, nullptr);
    st->octave = 4;
    st->edit_step = 1;
    st->follow = 1;
    st->current_pattern = -1;
    st->selected_module = -1;
    st->prefs.capture_action = -1;
    st->stop_at_end = profile_get_int_value("stopatend", 0, nullptr) > 0;
    st->timeline.icon_editor_slot = -1;
    st->pattern.solo_track = -1;
    st->learn_module = st->learn_ctl = -1;
    st->recorded_module = -1;
}

// Writes the layout and window size back when they changed (the profile keeps its comments).
void store_layout(studio* st) {
    int w = 0, h = 0;
    SDL_GetWindowSize(st->win.window, &w, &h);
    bool sideways = st->win.rotate == 90 || st->win.rotate == 270;
    const struct {
        const char* key;
        int value;
        int in_effect;
    } values[] = {{"split_x", (int)(st->split_x * 1000 + 0.5f), kSplitXDefault},
                  {"split_y", (int)(st->split_y * 1000 + 0.5f), kSplitYDefault},
                  {"window_width", sideways ? h : w, kDefaultWidth},
                  {"window_height", sideways ? w : h, kDefaultHeight}};
    bool changed = false;
    for (const auto& v : values) {
        if (profile_get_int_value(v.key, v.in_effect, nullptr) == v.value) continue;
        char text[16];
        snprintf(text, sizeof text, "%d", v.value);
        profile_set_str_value(v.key, text, nullptr);
        changed = true;
    }
    if (changed && studio_profile_save(st)) tarvik_log("studio: the preferences could not be saved\n");
}

int open_first_song(studio* st, const char* song_path) {
    if (song_path && !studio_files_load(st, song_path)) return 0;
    zelfon_song* song = (zelfon_song*)mem_new(MEM_DYNAMIC, sizeof(zelfon_song), "studio_song");
    // Safe mode starts on a new song of the starter net, the others on the demo.
    if (!song || zelfon_song_init(st->safe_mode, st->rate, song)) {
        mem_free(song);
        return 1;
    }
    if (!st->safe_mode && zelfon_make_demo_song(song)) {
        zelfon_song_close(song);
        mem_free(song);
        return 1;
    }
    zelfon_sort_patterns(song);
    studio_files_replace_song(st, song, "");
    return 0;
}

}  // namespace

void studio_song_changed(studio* st) { st->changes++; }

void studio_status(studio* st, const char* format, ...) {
    va_list args;
    va_start(args, format);
    vsnprintf(st->status, sizeof st->status, format, args);
    va_end(args);
    st->status_until_ms = SDL_GetTicks() + kStatusMs;
    tarvik_log("studio: %s\n", st->status);
    st->redraw_frames = kRedrawFramesAfterInput;
}

void studio_message(studio* st, const char* text, const char* buttons, gui_message_answer answer, void* data) {
    tarvik_log("studio message: %s\n", text);
    gui_message_box_show(&st->boxes, text, buttons, answer, data);
    st->redraw_frames = kRedrawFramesAfterInput;
}

int studio_playing_line(const studio* st) {
    return std::atomic_ref<int>(const_cast<int&>(st->song->line)).load(std::memory_order_relaxed);
}

int studio_is_playing(const studio* st) { return st->song && st->song->playing.load(std::memory_order_relaxed) != 0; }

int studio_run(const char* song_path, const char* script_path) {
    studio* st = (studio*)mem_new(MEM_DYNAMIC, sizeof(studio), "studio_run");
    if (!st) return 1;
    memset(st, 0, sizeof *st);
    st->safe_mode = studio_safe_start_begin();
    if (st->safe_mode) {
        // Default preferences: the profile read at start is set aside (its file untouched).
        profile_close(nullptr);
        profile_new(nullptr);
        song_path = nullptr;
    }

    // The window options of the profile.
    gui_window_options options = {};
    options.name = profile_get_str_value("windowname", kProgramName, nullptr);
    options.width = profile_get_int_value("window_width", kDefaultWidth, nullptr);
    options.height = profile_get_int_value("window_height", kDefaultHeight, nullptr);
    options.noborder = profile_get_int_value("noborder", -1, nullptr);
    options.rotate = profile_get_int_value("rotate", 0, nullptr);
    options.touchcontrol = profile_get_int_value("touchcontrol", -1, nullptr);
    options.zoom = profile_get_int_value("zoom", 0, nullptr);
    options.nocursor = profile_get_int_value("nocursor", -1, nullptr);
    options.software = script_path != nullptr || profile_get_int_value("software_renderer", 0, nullptr) > 0;
    if (options.width < 320 || options.width > 16384) options.width = kDefaultWidth;
    if (options.height < 240 || options.height > 16384) options.height = kDefaultHeight;
    if (gui_window_open(&options, &st->win)) {
        studio_safe_start_done();  // no display is no crash
        mem_free(st);
        return STUDIO_NO_DISPLAY;
    }
    gui_window_set_style(&st->win, st->win.scale, gui_theme_from_name(profile_get_str_value("theme", "dark", nullptr)) == 1);
    load_window_places();
    studio_log_init(st);
    read_layout(st);
    app_keys_load(st->keys);
    studio_files_recent_load(st);
    if (script_path) {
        if (gui_script_load(script_path, &st->script)) {
            tarvik_log("studio: cannot read the script %s\n", script_path);
            st->exit_code = 2;
            st->quit = 1;
        }
        st->scripted = 1;
        st->win.fixed_frame_ms = kScriptFrameMs;
    }
    if (st->win.fonts_missing) studio_status(st, "The DejaVu fonts are missing: the built-in font is used");

    // The sound stream, at the profile's rate (a low rate is only warned about).
    st->rate = profile_get_int_value("frequency", kDefaultRate, nullptr);
    if (st->rate < kDefaultRate) tarvik_log("ERROR. Sampling frequency must be >= 44100\n");
    if (open_first_song(st, song_path)) {
        tarvik_log("studio: no song could be made (out of memory)\n");
        st->exit_code = 1;
        st->quit = 1;
    } else if (st->safe_mode) {
        // No devices, and the crash mark and backup stay for the next usual start.
        studio_safe_mode_explain(st);
    } else {
        studio_sound_open(st);
        studio_files_check_crash(st);
    }

    run_loop(st);

    // Shutdown, in reverse order.
    if (st->song) {
        zelfon_stop(st->song);
        studio_sound_close(st);
        zelfon_song_close(st->song);
        mem_free(st->song);
    }
    sound_stream_close();
    if (st->exit_code == 0 && !st->safe_mode) studio_files_clean_exit(st);
    studio_safe_start_done();  // an orderly end, even before the first frame
    store_layout(st);
    save_window_places();
    studio_sampler_editor_free(st);
    gui_file_dialog_free(&st->file_dialog);
    gui_script_free(&st->script);
    studio_log_close(st);
    gui_window_close(&st->win);
    int exit_code = st->exit_code;
    mem_free(st);
    return exit_code;
}
