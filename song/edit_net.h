// The sound net's editing actions: adding, removing, pasting and duplicating modules,
// links, moves, names, colours, pitch, MIDI out, mute and solo, and controller values. They
// join the song's one history (song/edit.h): same groups, same undo and redo.
//
// A module leaves the net as a module-file image kept in its action (settings, controller
// values and data chunks), together with every link list of the net as it was, so that undo
// puts it back whole in its slot number with its links both ways, entry for entry.
// Consecutive changes of one controller of one module in one group merge into one step.
//
// Error convention: as song/edit.h. Actions that create a module return its number or −1
// (nothing changed); the others ZELFON_EDIT_OK or a code: NO_MODULE for a slot without a
// module, OUTPUT_MODULE when asked to remove the Output module, OUTSIDE for a value beyond
// its range.
//
// Threads: the GUI thread. Module images are written and read, and restored link lists
// copied, outside the net's mutex. The mutex is held while a module is created or closed
// (psynth_add_synth publishes the slot before INIT, so the render must be kept off it
// until it is whole), while link lists change or are swapped in, and while flags, a
// controller value, the pitch settings or the MIDI out port change; names, colours and
// places are not read by the render and change without it.
#pragma once

#include <cstddef>

#include "psynth/psynth_net.h"
#include "song/edit.h"

constexpr int ZELFON_MIDI_OUT_NAME_MAX = 256;  // bytes of a MIDI out device name with its NUL

// ---- Modules in and out (edit_net.cpp) ----
// A new module of the registered type `type` at x, y in the first free slot (the table
// grows by 4 when there is none), after SETUP_FINISHED. Returns its number, or −1.
int zelfon_edit_add_synth(psynth_handler type, int x, int y, zelfon_song* song);
// Removes module `mod`; refuses the Output module (OUTPUT_MODULE).
int zelfon_edit_remove_synth(int mod, zelfon_song* song);
// Adds the module of a module-file image ("ZSYN", `size` bytes) at x, y, unlinked, in the
// first free slot. Returns its number, or −1 when the image holds no module.
int zelfon_edit_paste_synth(const void* image, size_t size, int x, int y, zelfon_song* song);
// The same from the module file at `path` (the pasteboard "3:/pasteboard.zelsynth"); −1
// also when no regular file is there (a device or FIFO is never opened).
int zelfon_edit_paste_synth_file(const char* path, int x, int y, zelfon_song* song);
// A copy of module `mod` (not the Output module) with its settings, controller values and
// data chunks at x, y, unlinked. Returns its number, or −1.
int zelfon_edit_duplicate_synth(int mod, int x, int y, zelfon_song* song);
// Toggles the link in which `src` feeds `dest` (as psynth_make_link: a link either way is
// removed). OUTSIDE when dest is src.
int zelfon_edit_link(int dest, int src, zelfon_song* song);

// ---- Places, settings and controllers (edit_net_settings.cpp) ----
// Moves the modules `mods` by dx, dy in the net editor.
int zelfon_edit_move_synths(const int* mods, int count, int dx, int dy, zelfon_song* song);
// Renames the module (cut to 32 bytes).
int zelfon_edit_rename_synth(int mod, const char* name, zelfon_song* song);
int zelfon_edit_synth_color(int mod, const uint8_t color[3], zelfon_song* song);
// Relative note in semitones and finetune in 1/256 semitone, subtracted from every note's pitch.
int zelfon_edit_synth_pitch(int mod, int relative_note, int finetune, zelfon_song* song);
// MIDI out: device name (null: none; OUTSIDE when longer than ZELFON_MIDI_OUT_NAME_MAX − 1),
// channel 0..15, bank and program (−1 = unset; bank 0..16383, program 0..127).
int zelfon_edit_synth_midi_out(int mod, const char* device, int channel, int bank, int program, zelfon_song* song);
// Sets the module's mute and solo flags.
int zelfon_edit_synth_mute_solo(int mod, int mute, int solo, zelfon_song* song);
// Replaces data chunk `chunk` of the module with a copy of `size` bytes (storage `flags`,
// `rate`), as the module's own editors do (the Generator's drawn wave). Changes of the same
// chunk in one group merge into one step.
int zelfon_edit_synth_chunk(int mod, int chunk, const void* data, int size, int flags, int rate, zelfon_song* song);
// Binds controller `ctl` to MIDI controller `cc` (0..127) on `channel` (0..15) of the MIDI
// keyboard; PSYNTH_MIDI_UNBOUND as `cc` forgets the binding.
int zelfon_edit_synth_midi_learn(int mod, int ctl, int cc, int channel, zelfon_song* song);
// Sets controller `ctl` to `value` in its own units (OUTSIDE beyond min..max); a change of
// the same controller right before it in the same group merges with it.
int zelfon_edit_synth_ctl(int mod, int ctl, int value, zelfon_song* song);
