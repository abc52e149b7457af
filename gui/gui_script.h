// Scripted input for tests and demonstrations: a text file of commands, one a line,
// played into the event queue as if a person typed and clicked, frame by frame.
//
//   wait N                 let N frames pass
//   key [ctrl+][shift+][alt+]NAME   press and release a key (SDL scancode name: "Z", "Space", "F1")
//   keydown NAME / keyup NAME
//   text STRING            type text into the focused field
//   layout us|de           the key events that follow carry the key codes of that layout
//   move X Y               move the pointer (window pixels)
//   click X Y [right|middle] / doubleclick X Y
//   click_id ID [right|middle] [at FX FY] / doubleclick_id ID   click a named item: its centre, or the
//                                     point at fractions FX, FY of its width and height
//   drag X1 Y1 X2 Y2       press at the first point, move, release at the second
//   drag_id FROM TO        the same from the centre of one named item to another's
//   wheel DY
//   drop PATH              a file dropped on the window
//   screenshot PATH        save what the window shows after this frame as PNG
//   quit                   ask the program to quit (as the window's close button)
// Any other line goes to the application's handler (for example "save_song PATH"). A line
// whose item is not on screen yet, or whose handler says no, runs again each frame for up
// to ten seconds before the script fails.
// Lines starting with "#" and blank lines are skipped. The end of the script quits.
#pragma once

#include "gui/gui_window.h"

// The application's commands: returns 0 when it took the line, non-zero when it is unknown
// or failed (the script then fails).
typedef int (*gui_script_handler)(const char* line, void* data);

struct gui_script {
    char* text;         // the whole script (owned)
    int pos;            // offset of the next line
    int line_no;
    int wait_frames;    // frames to let pass before the next line
    int pending_up;     // 0 none, else what comes next frame: release 1 a key, 2 a button;
                        // 3 a drag's move; 4 a click's press (pending_clicks)
    int pending_clicks;
    int pending_scancode;
    int pending_mods[3];  // modifier scancodes to release with it (0 = none)
    int pending_button;
    float pending_x, pending_y;
    int second_click;     // 1: the press now held is the first of a double click; 2: the second is due
    uint32_t wait_since_ms;  // when the line now waiting for its item or condition began (0: none)
    int german;            // key events carry a German layout's key codes
    int failed;
    int finished;
    char screenshot[1024];  // asked for at the end of the next frame drawn; the application clears it
};

// Reads the script at `path` through the file layer. Returns 0, non-zero when unreadable.
int gui_script_load(const char* path, gui_script* s);
void gui_script_free(gui_script* s);
// Pushes this frame's events (SDL_PushEvent) and runs commands until one takes frames.
// Call once a frame before polling events. Failures are logged with the line number.
void gui_script_step(gui_script* s, const gui_window* w, gui_script_handler handler, void* data);
