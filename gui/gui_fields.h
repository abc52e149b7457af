// Small value fields shared by the studio's bars and dialogs.
#pragma once

// An integer field with − and + steps (Ctrl: by 10), clamped to min..max, `width` wide in
// all. Names its text part `id` and the steps `id`.minus / `id`.plus. Returns 1 when the
// value changed: as it is typed, or with `on_enter` only when Enter confirms it (the steps
// always apply at once).
int gui_int_field(const char* id, int* value, int min, int max, float width, bool on_enter = false);
// The same followed by a label on its right. Returns 1 when the value changed.
int gui_labelled_int_field(const char* label, const char* id, int* value, int min, int max, float width,
                           bool on_enter = false);
