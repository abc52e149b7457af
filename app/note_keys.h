// The computer keyboard as a piano: keys by physical place (SDL scancodes), so every
// layout plays the same notes. The lower letter row starts at C of the octave, the upper
// row an octave higher; "1" and the key left of it give a note-off.
#pragma once

constexpr int APP_NOTE_KEY_NONE = -1;
constexpr int APP_NOTE_KEY_OFF = -2;

// Semitones above C of the current octave for a scancode (0..31), APP_NOTE_KEY_OFF for the
// note-off keys, APP_NOTE_KEY_NONE for keys that play nothing.
int app_note_key(int scancode);
// "C-4", "C#4", ... for a cell's note (1..120), "===" for note-off, the special notes by
// name ("^^^" all notes off, "CLN" clean, "STP", "PLY", "PIT"), "---" for none. `out`
// holds at least 4 bytes.
void app_note_text(int note, char* out);
