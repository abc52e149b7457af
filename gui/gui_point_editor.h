// A point editor for envelopes: points joined by lines over x 0..x_max, y 0..y_max, in a
// rectangle. Drag a point to move it, click where there is none to add one there,
// right-click a point to remove it. Markers are vertical lines through chosen points with
// a letter (sustain, loop start and end). The caller applies the change the editor
// reports, so that it can be refused or undone. Items: ID (the area), ID.point.N.
#pragma once

struct ImVec2;

struct gui_point {
    int x, y;
};
struct gui_point_marker {
    int point;  // index, or −1 for none
    char letter;
};
enum : int { GUI_POINTS_NONE = 0, GUI_POINTS_MOVED, GUI_POINTS_ADDED, GUI_POINTS_REMOVED };
struct gui_point_change {
    int kind;   // GUI_POINTS_*
    int index;  // the point moved or removed
    int x, y;   // where it moved, or the new point
};
struct gui_point_editor_state {
    int dragging;  // the point held by the mouse, −1 none (start with −1)
};

gui_point_change gui_point_editor(const char* id, const gui_point* points, int count, int x_max, int y_max,
                                  const gui_point_marker* markers, int marker_count, bool enabled, const ImVec2& size,
                                  gui_point_editor_state* state);
