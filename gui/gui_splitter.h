// A draggable bar between two panes of the desktop.
#pragma once

// Draws a bar `thickness` thick at the cursor and lets the mouse drag it: `size` (the
// pane before it, in pixels) changes by the drag, kept within min..max. Vertical: a bar
// between left and right panes. Returns 1 while it is being dragged.
int gui_splitter(const char* id, int vertical, float thickness, float length, float* size, float min, float max);
