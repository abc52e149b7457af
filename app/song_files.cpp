// The studio's song files: New, Open, Save, Save As and recent files; the question
// before unsaved changes are dropped; the backup before risky operations and on a timer;
// and the offer to restore it after a session that did not end cleanly.
#include <SDL.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <strings.h>

#include "app/studio_windows.h"
#include "engine/file.h"
#include "engine/log.h"
#include "engine/memory.h"
#include "engine/profile.h"
#include "engine/sound.h"
#include "song/devices.h"
#include "song/import.h"
#include "song/module_file.h"
#include "song/playback.h"
#include "song/song_file.h"

namespace {

constexpr const char* kSongMask = "zelfon";
constexpr const char* kTrackerMask = "xm/mod/s3m/it";

bool dirty(const studio* st) { return st->changes != st->saved_changes; }

const char* base_name(const char* path) {
    const char* slash = strrchr(path, '/');
    return slash ? slash + 1 : path;
}

// The message-box text that refuses `path` as a song, or null when it is one.
const char* not_a_song_text(const char* path) {
    switch (zelfon_file_kind(path)) {
    case ZELFON_FILE_SONG: return nullptr;
    case ZELFON_FILE_CANT_OPEN: return "!Cannot open %s";
    case ZELFON_FILE_NOT_REGULAR: return "!%s is not a regular file";
    default: return "!%s is not a Zelfon song";
    }
}

void add_recent(studio* st, const char* path) {
    char real[STUDIO_PATH_SIZE];
    if (!realpath(path, real)) snprintf(real, sizeof real, "%s", path);
    int found = STUDIO_RECENT_FILES - 1;
    for (int i = 0; i < STUDIO_RECENT_FILES; i++) {
        if (!strcmp(st->recent[i], real)) found = i;
    }
    memmove(st->recent[1], st->recent[0], (size_t)found * STUDIO_PATH_SIZE);
    snprintf(st->recent[0], STUDIO_PATH_SIZE, "%s", real);
    for (int i = 0; i < STUDIO_RECENT_FILES; i++) {
        char key[16];
        snprintf(key, sizeof key, "recent%d", i + 1);
        if (st->recent[i][0]) profile_set_str_value(key, st->recent[i], nullptr);
    }
    if (studio_profile_save(st)) tarvik_log("studio: the recent files could not be saved in the preferences\n");
}

int save_to(studio* st, const char* path) {
    if (zelfon_save_song(path, ZELFON_VERSION_MAJOR, ZELFON_VERSION_MINOR, st->song)) {
        char text[STUDIO_PATH_SIZE + 64];
        snprintf(text, sizeof text, "!Cannot save %s.\nThe file that was there is unchanged.", path);
        studio_message(st, text, "OK", nullptr, nullptr);
        return 1;
    }
    char real[STUDIO_PATH_SIZE];
    if (!realpath(path, real)) snprintf(real, sizeof real, "%s", path);
    snprintf(st->song_path, sizeof st->song_path, "%s", real);
    st->saved_changes = st->changes;
    add_recent(st, real);
    studio_status(st, "Saved %s", base_name(real));
    return 0;
}

void new_song_now(studio* st) {
    studio_files_backup(st, "new song");
    zelfon_song* song = (zelfon_song*)mem_new(MEM_DYNAMIC, sizeof(zelfon_song), "studio_song");
    if (!song || zelfon_song_init(1, st->rate, song)) {  // 1: the starter net
        mem_free(song);
        studio_message(st, "!Not enough memory for a new song", "OK", nullptr, nullptr);
        return;
    }
    int slot = zelfon_get_free_pattern_num(song);
    if (slot >= 0) new_pattern_with_num(slot, ZELFON_PATTERN_DEFAULT_YSIZE * 2, 4, 0, 0, (uint32_t)SDL_GetTicks(), song);
    zelfon_sort_patterns(song);
    studio_files_replace_song(st, song, "");
    studio_status(st, "New song");
}

// Runs what waited for the unsaved-changes question.
void run_pending(studio* st) {
    int pending = st->pending;
    st->pending = STUDIO_PENDING_NONE;
    switch (pending) {
    case STUDIO_PENDING_NEW: new_song_now(st); break;
    case STUDIO_PENDING_OPEN:
        studio_files_dialog(st, STUDIO_FILE_OPEN_SONG, "Open song", kSongMask, 0, "");
        break;
    case STUDIO_PENDING_OPEN_PATH: studio_files_load(st, st->pending_path); break;
    case STUDIO_PENDING_QUIT: st->quit = 1; break;
    case STUDIO_PENDING_IMPORT:
        studio_files_dialog(st, STUDIO_FILE_IMPORT, "Import a song of another tracker", kTrackerMask, 0, "");
        break;
    case STUDIO_PENDING_IMPORT_PATH: studio_files_import_path(st, st->pending_path); break;
    default: break;
    }
}

void answer_save_changes(int button, void* data) {
    studio* st = (studio*)data;
    if (button == 0) {  // Save
        if (st->song_path[0]) {
            if (save_to(st, st->song_path)) st->pending = STUDIO_PENDING_NONE;
            else run_pending(st);
        } else {
            studio_files_save_as(st);  // the pending operation follows a successful save
        }
    } else if (button == 1) {  // Don't save
        run_pending(st);
    } else {
        st->pending = STUDIO_PENDING_NONE;
    }
}

// Runs `pending` now, or after asking about unsaved changes.
void ask_then(studio* st, int pending) {
    st->pending = pending;
    if (!dirty(st)) {
        run_pending(st);
        return;
    }
    char text[STUDIO_PATH_SIZE + 64];
    snprintf(text, sizeof text, "!Save the changes to \"%s\"?", st->song_path[0] ? base_name(st->song_path) : "Untitled");
    studio_message(st, text, "Save;Don't save;Cancel", answer_save_changes, st);
}

void answer_restore(int button, void* data) {
    studio* st = (studio*)data;
    if (button != 0) return;
    if (studio_files_load(st, ZELFON_BACKUP_FILE)) return;
    // A restored song has no file of its own yet: Save asks for a name.
    st->song_path[0] = 0;
    st->saved_changes = st->changes - 1;
    studio_status(st, "The backup was restored");
}

}  // namespace

void studio_files_dialog(studio* st, int purpose, const char* title, const char* mask, int save, const char* name) {
    gui_file_dialog* d = &st->file_dialog;
    d->bookmarks_count = 0;
    const char* home = getenv("HOME");
    if (home) gui_file_dialog_add_bookmark(d, "Home", home);
    char cwd[STUDIO_PATH_SIZE];
    if (getcwd(cwd, sizeof cwd)) gui_file_dialog_add_bookmark(d, "Working folder", cwd);
    for (int i = 0; i < STUDIO_RECENT_FILES && purpose == STUDIO_FILE_OPEN_SONG; i++) {
        if (st->recent[i][0]) gui_file_dialog_add_bookmark(d, base_name(st->recent[i]), st->recent[i]);
    }
    st->file_purpose = purpose;
    gui_file_dialog_open(d, title, st->last_folder[purpose], mask, save, name);
}

int studio_files_dialog_result(studio* st, int purpose, const char* path) {
    // The folder is remembered per kind of file.
    snprintf(st->last_folder[purpose], STUDIO_PATH_SIZE, "%s", path);
    char* slash = strrchr(st->last_folder[purpose], '/');
    if (slash) *slash = 0;
    if (purpose == STUDIO_FILE_OPEN_SONG) {
        studio_files_load(st, path);
        return 1;
    }
    if (purpose == STUDIO_FILE_IMPORT) {
        studio_files_import_path(st, path);
        return 1;
    }
    if (purpose == STUDIO_FILE_SAVE_SONG) {
        char named[STUDIO_PATH_SIZE + 8];
        const char* dot = strrchr(base_name(path), '.');
        snprintf(named, sizeof named, "%s%s", path, dot ? "" : ".zelfon");
        if (save_to(st, named)) st->pending = STUDIO_PENDING_NONE;
        else run_pending(st);
        return 1;
    }
    return 0;
}

void studio_files_replace_song(studio* st, zelfon_song* song, const char* path) {
    zelfon_song* old = st->song;
    if (old) {
        zelfon_stop(old);
        if (st->sound_ok) zelfon_detach_sound(STUDIO_SOUND_SLOT);
        zelfon_song_close(old);
        mem_free(old);
    }
    st->song = song;
    psynth_set_cpu_measure(1, song->net);
    song->midi_note_hook = studio_pattern_midi_note;
    song->midi_cc_hook = studio_module_midi_cc;
    st->learn_module = st->learn_ctl = -1;
    st->recorded_module = -1;
    song->midi_note_hook_data = st;
    zelfon_set_stop_at_end(st->stop_at_end, song);
    st->timeline.selected_count = 0;
    st->net.selected_count = 0;
    st->net.zoom = 0;          // fit the new net at its first drawing
    st->net.scope_reader = 0;  // and read its scope rings
    st->net.link_dest = st->net.link_src = -1;
    st->timeline.icon_editor_slot = -1;
    st->pattern.solo_track = -1;
    if (st->sound_ok) zelfon_attach_sound(STUDIO_SOUND_SLOT, song);
    snprintf(st->song_path, sizeof st->song_path, "%s", path);
    st->changes++;
    st->saved_changes = st->backup_changes = st->changes;
    st->current_pattern = song->sorted_pats_count ? song->sorted_pats[0] : -1;
    st->cursor_line = 0;
    st->selected_module = -1;
    for (int m = 1; m < song->net->slots; m++) {
        if (song->net->modules[m].flags & PSYNTH_FLAG_EXISTS) {
            st->selected_module = m;
            break;
        }
    }
}

int studio_files_load(studio* st, const char* path) {
    char text[STUDIO_PATH_SIZE + 128];
    if (const char* refusal = not_a_song_text(path)) {
        snprintf(text, sizeof text, refusal, path);
        studio_message(st, text, "OK", nullptr, nullptr);
        return 1;
    }
    zelfon_song* song = (zelfon_song*)mem_new(MEM_DYNAMIC, sizeof(zelfon_song), "studio_song");
    if (!song || zelfon_song_init(0, st->rate, song)) {
        mem_free(song);
        studio_message(st, "!Not enough memory to load the song", "OK", nullptr, nullptr);
        return 1;
    }
    int error = zelfon_load_song(path, song);
    if (error) {
        // The open song stays as it was: the failed one is thrown away whole.
        zelfon_song_close(song);
        mem_free(song);
        snprintf(text, sizeof text, "!Cannot load %s:\n%s (zelfon_load_song() error %d)", path, zelfon_load_error_text(error), error);
        studio_message(st, text, "OK", nullptr, nullptr);
        return 1;
    }
    zelfon_sort_patterns(song);
    if (st->song && strcmp(path, ZELFON_BACKUP_FILE)) studio_files_backup(st, "load");
    char real[STUDIO_PATH_SIZE];
    if (!realpath(path, real)) snprintf(real, sizeof real, "%s", path);
    studio_files_replace_song(st, song, real);
    if (strcmp(path, ZELFON_BACKUP_FILE)) add_recent(st, real);
    if (st->backup_failed) studio_status(st, "Opened %s. The backup %s could not be written", base_name(real), ZELFON_BACKUP_FILE);
    else studio_status(st, "Opened %s", base_name(real));
    return 0;
}

void studio_files_new(studio* st) { ask_then(st, STUDIO_PENDING_NEW); }

void studio_files_open(studio* st) { ask_then(st, STUDIO_PENDING_OPEN); }

void studio_files_open_path(studio* st, const char* path) {
    snprintf(st->pending_path, sizeof st->pending_path, "%s", path);
    ask_then(st, STUDIO_PENDING_OPEN_PATH);
}

void studio_files_quit(studio* st) {
    if (st->pending == STUDIO_PENDING_QUIT && gui_message_box_open(&st->boxes)) return;  // already asking
    ask_then(st, STUDIO_PENDING_QUIT);
}

void studio_files_import(studio* st) { ask_then(st, STUDIO_PENDING_IMPORT); }

void studio_files_drop(studio* st, const char* path) {
    const char* dot = strrchr(base_name(path), '.');
    const char* kind = dot ? dot + 1 : "";
    snprintf(st->pending_path, sizeof st->pending_path, "%s", path);
    if (!strcasecmp(kind, "zelfon")) ask_then(st, STUDIO_PENDING_OPEN_PATH);
    else if (!strcasecmp(kind, ZELFON_SYNTH_FILE_EXTENSION)) {
        // Around the middle of the net's view.
        float zoom = st->net.zoom > 0 ? st->net.zoom : 1.0f;
        st->net.menu_x = st->net.pan_x + 160 / zoom;
        st->net.menu_y = st->net.pan_y + 110 / zoom;
        studio_net_load_module(st, path);
    } else if (!strcasecmp(kind, "xm") || !strcasecmp(kind, "mod") || !strcasecmp(kind, "s3m") || !strcasecmp(kind, "it"))
        ask_then(st, STUDIO_PENDING_IMPORT_PATH);
    else studio_load_sample_path(st, path);
}

int studio_files_refuse_special(studio* st, const char* path) {
    int type = v3_get_file_type(path);
    if (type == V3_FILE_NONE || type == V3_FILE_REGULAR) return 0;
    char text[STUDIO_PATH_SIZE + 64];
    snprintf(text, sizeof text, "!%s is not a regular file", path);
    studio_message(st, text, "OK", nullptr, nullptr);
    return 1;
}

void studio_files_import_path(studio* st, const char* path) {
    if (studio_files_refuse_special(st, path)) return;
    char text[GUI_MESSAGE_TEXT_SIZE];
    zelfon_song* song = (zelfon_song*)mem_new(MEM_DYNAMIC, sizeof(zelfon_song), "studio_song");
    if (!song || zelfon_song_init(0, st->rate, song)) {
        mem_free(song);
        studio_message(st, "!Not enough memory to import the song", "OK", nullptr, nullptr);
        return;
    }
    zelfon_import_report report;
    int error = zelfon_import_song(path, song, &report);
    if (error) {
        zelfon_song_close(song);
        mem_free(song);
        snprintf(text, sizeof text, "!Cannot import %s:\n%s", base_name(path),
                 error == ZELFON_IMPORT_CANT_OPEN ? "the file cannot be opened" : report.error);
        studio_message(st, text, "OK", nullptr, nullptr);
        return;
    }
    studio_files_backup(st, "import");
    studio_files_replace_song(st, song, "");
    st->saved_changes = st->changes - 1;  // a new song that has no file yet
    int n = snprintf(text, sizeof text, "!Imported %s (%s): %d tracks, %d lines, %d patterns (%d clones), %d Samplers.",
                     base_name(path), zelfon_import_format_name(report.format), report.channels, report.lines,
                     report.patterns, report.clones, report.instruments);
    char losses[GUI_MESSAGE_TEXT_SIZE];
    if (zelfon_import_report_losses(&report, losses, sizeof losses) > 0 && n > 0 && n < (int)sizeof text) {
        snprintf(text + n, sizeof text - n, "\n\nNot carried over:\n%.400s", losses);
    }
    studio_message(st, text, "OK", nullptr, nullptr);
}

void studio_files_save(studio* st) {
    if (!st->song_path[0]) {
        studio_files_save_as(st);
        return;
    }
    save_to(st, st->song_path);
}

void studio_files_save_as(studio* st) {
    char name[STUDIO_PATH_SIZE];
    snprintf(name, sizeof name, "%s", st->song_path[0] ? base_name(st->song_path)
                                      : st->song->name && st->song->name[0] ? st->song->name : "song.zelfon");
    if (!strchr(name, '.')) strncat(name, ".zelfon", sizeof name - strlen(name) - 1);
    studio_files_dialog(st, STUDIO_FILE_SAVE_SONG, "Save song as", kSongMask, 1, name);
}

int studio_files_backup(studio* st, const char* why) {
    if (!st->song) return 1;
    // In safe mode the backup may hold the work of the session that crashed: it is kept
    // until this session has work of its own.
    if (st->safe_mode && st->changes == st->backup_changes) return 0;
    if (zelfon_save_backup(st->song)) {
        if (!st->backup_failed) studio_status(st, "The backup %s could not be written (%s)", ZELFON_BACKUP_FILE, why);
        st->backup_failed = 1;
        return 1;
    }
    st->backup_failed = 0;
    st->backup_changes = st->changes;
    tarvik_log("studio: backup written before %s\n", why);
    return 0;
}

void studio_files_tick(studio* st) {
    uint32_t now = SDL_GetTicks();
    if (st->backup_interval <= 0 || now - st->backup_last_ms < (uint32_t)st->backup_interval * 1000) return;
    st->backup_last_ms = now;
    if (st->changes != st->backup_changes) studio_files_backup(st, "the timer");
}

void studio_files_check_crash(studio* st) {
    int64_t running_since = v3_get_file_time(STUDIO_RUNNING_MARK);
    int64_t backup_time = v3_get_file_time(ZELFON_BACKUP_FILE);
    // The mark stays behind only when the last session did not end cleanly.
    if (running_since >= 0 && backup_time >= running_since) {
        char when[64] = "";
        time_t t = (time_t)backup_time;
        struct tm tm;
        localtime_r(&t, &tm);
        strftime(when, sizeof when, "%Y-%m-%d %H:%M", &tm);
        char text[256];
        snprintf(text, sizeof text, "!Zelfon did not close properly last time.\nRestore the backup of your song written %s?",
                 when);
        studio_message(st, text, "Restore;Don't restore", answer_restore, st);
    }
    int h = v3_open(STUDIO_RUNNING_MARK, "wb");
    if (h) {
        v3_write("running\n", 1, 8, h);
        v3_close(h);
    } else {
        studio_status(st, "The settings folder cannot be written: a crash cannot be noticed next time");
    }
}

void studio_files_clean_exit(studio* st) { v3_remove(STUDIO_RUNNING_MARK); }

void studio_files_recent_load(studio* st) {
    for (int i = 0; i < STUDIO_RECENT_FILES; i++) {
        char key[16];
        snprintf(key, sizeof key, "recent%d", i + 1);
        snprintf(st->recent[i], STUDIO_PATH_SIZE, "%s", profile_get_str_value(key, "", nullptr));
    }
}

void studio_files_update_title(studio* st) {
    char title[sizeof st->title];
    const char* name = st->song->name && st->song->name[0] ? st->song->name
                       : st->song_path[0]                 ? base_name(st->song_path)
                                                          : "Untitled";
    snprintf(title, sizeof title, "%s%.200s - %.200s", dirty(st) ? "* " : "", name,
             profile_get_str_value("windowname", "Zelfon", nullptr));
    if (strcmp(title, st->title)) {
        memcpy(st->title, title, sizeof title);
        SDL_SetWindowTitle(st->win.window, title);
    }
}
