// The entry points of the desktop's parts, one file of app/ each: what the action table,
// the menus and the main loop call.
#pragma once

#include "app/studio.h"

// ---- studio.cpp ----
// One turn of the main loop without waiting: the script's step, the waiting events and a
// frame. For long work on the main thread (export) so the window keeps drawing.
void studio_frame_during_work(studio* st);

// ---- desktop.cpp: menu bar, transport, panes and status line ----
void studio_desktop_draw(studio* st);
// Where a floating window first appears, as a share of the frame (later it stays where the
// musician put it). Before its ImGui::Begin.
void studio_place_window(float x, float y);

// ---- transport.cpp ----
void studio_transport_draw(studio* st);
void studio_play_song(studio* st);
void studio_play_from_cursor(studio* st);
void studio_play_pattern(studio* st);
void studio_stop(studio* st);
// The "stop at the song's end" preference ("stopatend" in the profile).
void studio_toggle_stop_at_end(studio* st);
void studio_play_stop(studio* st);
// Reads the stream's scope into the meters and refreshes the CPU figures. Once a frame.
void studio_transport_update(studio* st, float seconds);

// ---- timeline.cpp ----
void studio_timeline_draw(studio* st);
// Delete and Insert act where the musician works: on the timeline's patterns or in the pattern.
void studio_delete_key(studio* st);
void studio_insert_key(studio* st);
// Ctrl+D on the timeline: clones of the selected patterns after them.
void studio_timeline_clone_selection(studio* st);
// Shows every pattern of the song.
void studio_timeline_fit(studio* st);
// The icon editor's window (opened from the timeline's menu).
void studio_icon_editor_draw(studio* st);

// ---- net_editor.cpp ----
void studio_net_editor_draw(studio* st);
// Shows every module of the net.
void studio_net_fit(studio* st);
// Removes the selected link, or the selected modules (never Output).
void studio_net_delete(studio* st);
// A module file (.zelsynth) into the net at the place the net's menu opened (or the view's
// centre for a dropped file), undoable; the file dialog's answers for module files.
void studio_net_load_module(studio* st, const char* path);
void studio_net_save_module(studio* st, const char* path);

// ---- module_window.cpp ----
// Opens the window of module `mod` (or keeps the open one).
void studio_module_window_open(studio* st, int mod);
void studio_module_windows_draw(studio* st);
// The MIDI keyboard's controller changes (the song's hook): learning, and in edit mode while
// playing, controller cells written at the playing line.
void studio_module_midi_cc(void* data, int channel, int cc, int value);
// A module edit's result: the song changed, or the status says why nothing did (no memory).
void studio_module_edit_result(studio* st, int result);

// ---- pattern_editor.cpp ----
void studio_pattern_editor_draw(studio* st);
// Clears the selection (or the field under the cursor; `whole_cells`: all its fields).
void studio_pattern_clear(studio* st, int whole_cells);
// Inserts (1) or deletes (0) a line at the cursor in the selected tracks.
void studio_pattern_insert_line(studio* st, int insert);
void studio_pattern_copy(studio* st, int cut);
void studio_pattern_paste(studio* st, int mix);
void studio_pattern_transpose(studio* st, int semitones);
void studio_pattern_interpolate(studio* st);
// Ctrl+A: the cursor's track, pressed again the whole pattern.
void studio_pattern_select_all(studio* st);
// The MIDI keyboard's notes, recorded in edit mode (the song's note hook).
void studio_pattern_midi_note(void* data, int key, int velocity, int on);
// Undoes (0) or redoes (1) one step and puts the cursor where the edit was.
void studio_undo(studio* st, int redo);

// ---- song_files.cpp: new, open, save, recent files, backup and restore ----
void studio_files_new(studio* st);
void studio_files_open(studio* st);
void studio_files_open_path(studio* st, const char* path);
void studio_files_save(studio* st);
void studio_files_save_as(studio* st);
void studio_files_quit(studio* st);
// Another tracker's song (XM, MOD, S3M, IT) in place of the open one, with what could not be
// carried over shown after.
void studio_files_import(studio* st);
void studio_files_import_path(studio* st, const char* path);
// A file dropped on the window: a song opens, another tracker's song is imported, anything
// else becomes a new Sampler.
void studio_files_drop(studio* st, const char* path);
// Writes the backup before a risky operation (`why` for the log). Returns 0, non-zero on failure.
int studio_files_backup(studio* st, const char* why);
// The timed backup, once a frame.
void studio_files_tick(studio* st);
// After start-up: offers the backup when the last session did not end cleanly.
void studio_files_check_crash(studio* st);
// Marks the clean end of the session.
void studio_files_clean_exit(studio* st);
// The file dialog's answer for the file kinds handled here. Returns 1 when taken.
int studio_files_dialog_result(studio* st, int purpose, const char* path);
// Says so and returns 1 when something other than a regular file is at `path` (a folder, a
// device, a FIFO: reading it might never end); 0 otherwise, a missing file included.
int studio_files_refuse_special(studio* st, const char* path);
// Loads the song at `path` in place of the open one (no questions). Returns 0, or non-zero
// with a message box shown; the open song then stays as it was.
int studio_files_load(studio* st, const char* path);
// Makes `song` (a fresh block) the studio's song: the old one is closed. `path` may be "".
void studio_files_replace_song(studio* st, zelfon_song* song, const char* path);
void studio_files_recent_load(studio* st);
void studio_files_update_title(studio* st);
// Opens the file dialog for `purpose` with the last folder used for it.
void studio_files_dialog(studio* st, int purpose, const char* title, const char* mask, int save, const char* name);

// ---- module_views.cpp: a module's own view, the second tab of its window ----
// The tab's name, or null for a module with controllers only.
const char* studio_module_view_name(int mod, const psynth_net* net);
void studio_module_view_draw(studio* st, int window, int mod);
// An Ogg Vorbis file chosen for STUDIO_FILE_VORBIS_LOAD.
void studio_vorbis_file_chosen(studio* st, const char* path);

// ---- sampler_editor.cpp: the Sampler editor tab of a Sampler's module window ----
void studio_sampler_editor_draw(studio* st, int window, int mod);
// The new-sample dialog (size and rate) after its questions, drawn every frame.
void studio_sampler_new_dialog_draw(studio* st);
// A file chosen for STUDIO_FILE_SAMPLER_LOAD, _SAVE_WAV or _SAVE_XI (st->sampler_target_*).
void studio_sampler_file_chosen(studio* st, int purpose, const char* path);
// From the frame loop: keeps the takes being recorded (their rings drain into files).
void studio_sampler_recordings_tick(studio* st);
void studio_sampler_editor_free(studio* st);

// ---- sample_loader.cpp: a sample file into a new Sampler ----
void studio_load_sample(studio* st);
void studio_load_sample_path(studio* st, const char* path);
// A sample file into a Sampler's slot (−1: the whole instrument), as an undoable edit; the
// raw path's questions when no reader knows it.
void studio_sampler_load_path(studio* st, int mod, int slot, const char* path);

// ---- song_properties.cpp, preferences.cpp, export_dialog.cpp, cpu_monitor.cpp, log_window.cpp ----
void studio_song_properties_draw(studio* st);
// Changes the song's name, tempo, speed and volume as one undoable edit.
void studio_edit_song_properties(studio* st, const char* name, int bpm, int speed, int volume);
void studio_preferences_open(studio* st);
void studio_preferences_draw(studio* st);
// Opens the sound stream from the profile and attaches the song. Returns 0 when sound runs.
int studio_sound_open(studio* st);
void studio_sound_close(studio* st);
// From the frame loop: notices a sound device that went away (the song stops, the studio
// runs on silent and says so) and opens it again every two seconds until it is back; opens
// the MIDI keyboard again when its device comes back.
void studio_devices_watch(studio* st);
// Start-ups that never finish: the count in STUDIO_STARTING_MARK is raised before the
// window opens and the mark removed once the first frame is drawn. Returns 1 when the two
// start-ups before this one did not finish: this one is to run in safe mode.
int studio_safe_start_begin();
void studio_safe_start_done();
// Saves the preferences file, except in safe mode (whose defaults stay in memory). Returns
// 0 or non-zero as profile_save.
int studio_profile_save(const studio* st);
// Tells the musician why the studio runs in safe mode.
void studio_safe_mode_explain(studio* st);
void studio_export_open(studio* st);
void studio_export_draw(studio* st);
// Runs an export the dialog asked for (outside a frame). Once a loop turn.
void studio_export_run(studio* st);
void studio_cpu_monitor_draw(studio* st);
void studio_log_init(studio* st);
void studio_log_close(studio* st);
void studio_log_draw(studio* st);
void studio_about_draw(studio* st);
