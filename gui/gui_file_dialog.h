// The studio's own file dialog, over the file layer: folders and files with sizes and
// dates, a filter by kind, bookmarks, type-to-jump, Enter to open. Modal.
#pragma once

#include <cstdint>

constexpr int GUI_FILE_PATH_SIZE = 1024;
constexpr int GUI_FILE_NAME_SIZE = 256;
constexpr int GUI_FILE_BOOKMARKS = 12;

struct gui_file_entry {
    char name[GUI_FILE_NAME_SIZE];
    int is_dir;
    int64_t size;
    int64_t time;  // seconds since 1970, −1 unknown
};

struct gui_file_bookmark {
    char label[64];
    char path[GUI_FILE_PATH_SIZE];  // a folder, or a file (recent files open directly)
};

struct gui_file_dialog {
    int open;
    int save;                        // asks for a name to save under
    char title[64];
    char folder[GUI_FILE_PATH_SIZE]; // real path, ends without "/" (except "/")
    char mask[64];                   // extensions "zelfon/zelsynth", "" for all
    char name[GUI_FILE_NAME_SIZE];   // the name field
    gui_file_entry* entries;         // a memory-manager block
    int count;
    int selected;
    int scroll_to_selected;
    int show_all;                    // the filter is off
    gui_file_bookmark bookmarks[GUI_FILE_BOOKMARKS];
    int bookmarks_count;
    char result[GUI_FILE_PATH_SIZE];
    char error[128];
};

// Opens the dialog on `folder` (real path; "" = working folder). `mask`: extensions
// separated by "/". `name`: the suggested file name when saving.
void gui_file_dialog_open(gui_file_dialog* d, const char* title, const char* folder, const char* mask, int save,
                          const char* name);
// Adds a bookmark shown on the left (before opening). Ignored when full.
void gui_file_dialog_add_bookmark(gui_file_dialog* d, const char* label, const char* path);
// Draws the dialog. Returns 0 while it is open or closed, 1 when a file was chosen (in
// d->result, a real path), −1 when it was cancelled. Once a frame, outside other windows.
int gui_file_dialog_draw(gui_file_dialog* d);
// Frees the listing.
void gui_file_dialog_free(gui_file_dialog* d);
