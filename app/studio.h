// The studio: the desktop program around one song. Its record holds the open song, the
// window, the state of the desktop's panes and dialogs, and the musician's session
// settings (octave, edit step, edit mode, selections). Every window and editor of the
// desktop is drawn by one file of app/ from this record.
//
// Threads: everything here runs on the main (GUI) thread. The song's render runs on the
// sound thread in slot 0 of the sound stream; the studio reads its transport fields
// without locks and takes the net's mutex only for structural changes.
#pragma once

#include <cstdint>

#include "app/actions.h"
#include "engine/thread.h"
#include "gui/gui_file_dialog.h"
#include "gui/gui_message_box.h"
#include "gui/gui_meters.h"
#include "gui/gui_point_editor.h"
#include "gui/gui_script.h"
#include "gui/gui_waveform.h"
#include "gui/gui_window.h"
#include "song/song.h"

constexpr int STUDIO_PATH_SIZE = 1024;
constexpr int STUDIO_RECENT_FILES = 8;
constexpr int STUDIO_SOUND_SLOT = 0;       // the song's render
constexpr int STUDIO_TEST_TONE_SLOT = 1;   // the preferences' test tone
constexpr int STUDIO_SCOPE_FRAMES = 1024;
constexpr int STUDIO_CPU_HISTORY = 120;    // samples of the CPU monitor, two a second
constexpr int STUDIO_LOG_LINES = 400;
constexpr int STUDIO_LOG_LINE_SIZE = 256;
constexpr int STUDIO_BACKUP_INTERVAL_DEFAULT = 120;  // seconds, profile key "backupinterval"
constexpr const char* STUDIO_RUNNING_MARK = "2:/zelfon_running";  // present while a studio runs
constexpr const char* STUDIO_STARTING_MARK = "2:/zelfon_starting";  // start-ups begun and not finished

// What a file dialog was opened for.
enum studio_file_purpose : int {
    STUDIO_FILE_NONE,
    STUDIO_FILE_OPEN_SONG,
    STUDIO_FILE_SAVE_SONG,
    STUDIO_FILE_EXPORT,
    STUDIO_FILE_LOAD_SAMPLE,
    STUDIO_FILE_IMPORT,
    STUDIO_FILE_LOAD_MODULE,
    STUDIO_FILE_SAVE_MODULE,
    STUDIO_FILE_SAMPLER_LOAD,      // into st->sampler_target's slot, or its whole instrument
    STUDIO_FILE_SAMPLER_SAVE_WAV,
    STUDIO_FILE_SAMPLER_SAVE_XI,
    STUDIO_FILE_VORBIS_LOAD,       // into the Vorbis player st->sampler_target_mod
    STUDIO_FILE_PURPOSES
};

// What waits for the answer to "save changes?" (or for a Save As started by it).
enum studio_pending : int {
    STUDIO_PENDING_NONE,
    STUDIO_PENDING_NEW,
    STUDIO_PENDING_OPEN,       // the file dialog
    STUDIO_PENDING_OPEN_PATH,  // pending_path
    STUDIO_PENDING_QUIT,
    STUDIO_PENDING_IMPORT,     // the file dialog for another tracker's song
    STUDIO_PENDING_IMPORT_PATH,  // pending_path, another tracker's song
};

// Lines of the log, copied by the log printer's listener.
struct studio_log {
    tarvik_mutex mutex;
    char lines[STUDIO_LOG_LINES][STUDIO_LOG_LINE_SIZE];
    int first;  // oldest line
    int count;
    uint32_t added;  // lines ever added, to notice new ones
    uint32_t shown;  // `added` when the window last scrolled
};

// Which pane takes the keys that depend on where the musician works (Delete, Insert, arrows).
enum studio_focus : int { STUDIO_FOCUS_PATTERN, STUDIO_FOCUS_TIMELINE, STUDIO_FOCUS_NET };

constexpr int STUDIO_HELD_NOTES = 8;  // computer keys sounding at once through the live ring

// The pattern editor's state. The cursor's line is the studio's cursor_line; its pattern
// the studio's current_pattern.
struct studio_pattern_editor {
    int track;
    int field;  // 0 note, 1 velocity, 2 module, 3 controller and effect, 4 value
    int has_selection;
    int anchor_track, anchor_line;  // the selection runs from here to the cursor
    int select_all;                 // Ctrl+A presses in a row: 1 track, 2 pattern
    int mouse_selecting;
    int velocity;                   // written with typed notes (a cell's velocity byte, 0 = none)
    int solo_track;                 // −1 none
    int scroll_to_cursor;
    int held_scancode[STUDIO_HELD_NOTES];  // computer keys holding a live note (0 = free)
    int held_track[STUDIO_HELD_NOTES];     // their live track
    int recording_line;             // the last line a MIDI note was recorded at while playing
};

constexpr int STUDIO_TIMELINE_SELECTION = 256;  // patterns selected at once at most

enum studio_timeline_drag : int {
    STUDIO_DRAG_NONE,
    STUDIO_DRAG_MOVE,
    STUDIO_DRAG_CLONE,   // Ctrl held at the press: the drop makes clones
    STUDIO_DRAG_RESIZE,  // the right edge: the pattern's lines
    STUDIO_DRAG_BAND,    // rubber band
    STUDIO_DRAG_PAN,     // middle button
};

struct studio_timeline {
    float view_line;       // line at the left edge
    float view_row;        // row at the top edge
    float zoom;            // pixels per line
    int selected[STUDIO_TIMELINE_SELECTION];
    int selected_count;
    int drag;
    float press_x, press_y;  // where the drag began (pixels in the canvas)
    int drag_lines, drag_rows;  // how far the drag has moved the patterns
    int cursor_line, cursor_row;  // where Insert makes a pattern
    int menu_slot;           // the pattern of the open context menu
    int icon_editor_slot;    // −1 while the icon editor is closed
    uint16_t icon[ZELFON_ICON_SIZE];  // the icon being edited
    void* atlas_texture;     // the song's icon atlas on the renderer
    int atlas_height;
};

constexpr int STUDIO_NET_SELECTION = 256;
constexpr int STUDIO_MODULE_WINDOWS = 8;  // module windows open at once

enum studio_net_drag : int {
    STUDIO_NET_DRAG_NONE,
    STUDIO_NET_DRAG_MOVE,
    STUDIO_NET_DRAG_LINK,  // from a module's output port
    STUDIO_NET_DRAG_BAND,
    STUDIO_NET_DRAG_PAN,
};

// The sound net editor's view: modules keep their places in the song; the view pans and zooms.
struct studio_net_view {
    float pan_x, pan_y;  // net coordinates at the canvas's top-left
    float zoom;
    int selected[STUDIO_NET_SELECTION];
    int selected_count;
    int drag;
    float press_x, press_y;  // canvas pixels where the drag began
    int link_from;           // the module whose port a link drag began at
    int link_dest, link_src; // the selected link (−1 none)
    int menu_module;         // the module of the open context menu, −1: the canvas's menu
    float menu_x, menu_y;    // net coordinates where the menu opened (new modules go there)
    char search[64];         // type-to-search in the add-module menu
    char rename[64];
    int scope_reader;        // registered as a reader of the song's scope rings
};

struct studio_export_dialog {
    int open;
    int format;     // ZELFON_EXPORT_INT16 / FLOAT32
    int mode;       // ZELFON_EXPORT_ONE_FILE...
    int rate;       // Hz
    int midi;       // export a MIDI file instead
    char path[STUDIO_PATH_SIZE];
    int start;      // the Export button was pressed: runs before the next frame
    int running;
    int progress;   // 0..256
    int cancel;
    char result[256];
};

struct studio_preferences {
    int open;
    int driver;     // SOUND_DRIVER_*
    int device;     // −1 default
    int buffer;
    int rate;
    int midi_device;  // index in the port list, −1 none
    int midi_channel;
    int theme;
    int scale_percent;
    int backup_interval;
    int undo_size;
    int capture_action;  // action whose key is being set, −1 none
    int test_tone_frames;  // frames of test tone left (sound thread counts down)
    uint32_t test_tone_phase;
    char message[128];
};

// A Sampler editor's view (one per module window): the sample shown, zoom and scroll, the
// selection, what the mouse holds, and the waveform's overview of the frames shown.
struct studio_sampler_view {
    int mod;                        // the Sampler it was set up for (−1: none yet)
    int slot;                       // the sample shown, 0..15
    double first;                   // the frame at the left edge
    double frames_per_pixel;        // 0: the whole sample fits
    int64_t sel_start, sel_length;  // the selection in frames (length 0: none)
    int64_t sel_anchor;             // where the selecting drag began
    int handle;                     // the loop handle held: 0 none, 1 start, 2 end
    gui_waveform wave;
    const void* wave_frames;        // the frames the overview was built from
    int64_t wave_length;
    int wave_type;
    gui_point_editor_state env[2];  // volume, panning
    int piano_from;                 // the note a drag on the note map began at, −1 none
    int number;                     // the rate or length the resampling commands take
    int recording;                  // its Record button armed the Sampler's recording
};

// The new-sample questions of a Sampler editor: format, channels, then size and rate.
struct studio_new_sample {
    int open;            // the size and rate dialog is showing
    int mod, slot;
    int bits, channels;  // from the first two questions
    int frames, rate;
};

struct zelfon_sample_clip;

struct studio {
    gui_window win;
    gui_script script;
    int scripted;
    int safe_mode;      // two start-ups in a row never finished: defaults, no song, no devices
    int start_finished; // the first frame is drawn: the start-up counts as done
    int script_frames_after_end;

    zelfon_song* song;  // a memory-manager block
    char song_path[STUDIO_PATH_SIZE];  // real path, "" for a song never saved
    uint32_t changes;          // counts every change to the song
    uint32_t saved_changes;    // `changes` when it was last saved or loaded
    uint32_t backup_changes;   // `changes` at the last backup
    uint32_t backup_last_ms;   // SDL ticks of the last backup check
    int backup_interval;       // seconds
    int backup_failed;

    int sound_ok;
    int sound_lost;             // the device went away while open: it is tried again
    uint32_t sound_retry_ms;    // when (SDL ticks)
    uint32_t midi_watch_ms;     // when the MIDI keyboard's device is looked for next
    int rate;
    char status[256];          // the status line's message
    uint32_t status_until_ms;

    // Session state of the editors.
    int current_pattern;
    int cursor_line;
    int selected_module;
    int edit_mode;
    int octave;
    int edit_step;
    int follow;
    int focus;
    studio_pattern_editor pattern;
    studio_timeline timeline;
    studio_net_view net;
    int module_windows[STUDIO_MODULE_WINDOWS];  // module number + 1 of each open window, 0 = none
    studio_sampler_view sampler_views[STUDIO_MODULE_WINDOWS];
    zelfon_sample_clip* sample_clip;             // the Sampler editor's clipboard
    studio_new_sample new_sample;
    int sampler_target_mod, sampler_target_slot; // where a chosen sample or Ogg file goes (slot −1: the instrument)
    int learn_module, learn_ctl;  // the controller waiting for a MIDI controller to learn (−1 none)
    // The last controller move written while playing: one sweep of a knob is one undo step.
    int recorded_module, recorded_ctl;
    uint32_t recorded_ms;
    int stop_at_end;

    // Desktop.
    float split_x, split_y;  // per mille of the window: timeline width, upper panes' height
    int show_song_properties;
    int show_cpu_monitor;
    int show_log;
    int show_about;
    studio_export_dialog export_dialog;
    studio_preferences prefs;
    gui_message_boxes boxes;
    gui_file_dialog file_dialog;
    int file_purpose;
    char last_folder[STUDIO_FILE_PURPOSES][STUDIO_PATH_SIZE];  // per studio_file_purpose
    char recent[STUDIO_RECENT_FILES][STUDIO_PATH_SIZE];
    int pending;
    char pending_path[STUDIO_PATH_SIZE];
    int quit;
    int exit_code;
    char title[512];

    app_key_binding keys[APP_ACTIONS];

    // Meters.
    float scope[STUDIO_SCOPE_FRAMES * 2];
    gui_level_state level;
    float cpu_history[STUDIO_CPU_HISTORY];
    int cpu_history_pos;
    uint32_t cpu_last_ms;
    int cpu_load;           // per cent of the buffer time
    uint32_t underruns;

    studio_log log;
    int redraw_frames;      // frames still to draw before waiting for events
    int restyle_pending;    // a new scale or theme waits for the next frame
    float restyle_scale;
    int restyle_theme;
};

// Runs the studio: opens the window (when there is a display), the sound stream and the
// song (`song_path`, or the demo), and loops until the musician quits. `script_path`
// plays scripted input. Returns the exit code; 100 when no window could be opened (the
// caller then runs the headless job).
int studio_run(const char* song_path, const char* script_path);
constexpr int STUDIO_NO_DISPLAY = 100;

// ---- Shared by the files of app/ ----
// Counts a change to the song (the title shows it unsaved).
void studio_song_changed(studio* st);
// Shows `text` on the status line for a few seconds (and in the log).
void studio_status(studio* st, const char* format, ...);
// Queues a message box ("!"-texts and their ";" button lists).
void studio_message(studio* st, const char* text, const char* buttons, gui_message_answer answer, void* data);
// The song's playing line, read from the sound thread's field.
int studio_playing_line(const studio* st);
int studio_is_playing(const studio* st);
