// The song engine on the devices: its render as a slot of the sound stream, and the
// MIDI keyboard ("Keyboard" port on the device of "midi_kbd") whose raw bytes become
// live notes for the keyboard's module.
#pragma once

#include "engine/sound.h"
#include "song/song.h"

// Render-slot callback: renders the slot's request through zelfon_render. Sound thread.
int zelfon_sound_slot_render(sound_stream* ss, int slot);
// Registers the song's render in `slot` and starts it at the next refill. Interface thread.
void zelfon_attach_sound(int slot, zelfon_song* song);
// Stops the slot and clears it; the song is off the sound thread on return. Interface thread.
void zelfon_detach_sound(int slot);

// (Re)opens the "Keyboard" port on the net's MIDI client: device "midi_kbd" (default
// "midi_in"), channel "midi_kbd_ch" (default "midi_in_ch", default 1). No device
// configured: the port stays closed. Returns the port or −1. Interface thread.
int zelfon_open_midi_keyboard(zelfon_song* song);
// Watches the keyboard's device, for a call every second or two: when the MIDI system lists
// it again after it went away (or it appears after the start), the port is opened again.
// Returns 1 when it was. Interface thread.
int zelfon_watch_midi_keyboard(zelfon_song* song);
// Opens the net's MIDI client again with all its ports (the keyboard and every module's MIDI
// out, on the devices named as before), for a MIDI system that went away and came back:
// a restarted JACK server. Interface thread.
void zelfon_reopen_midi(zelfon_song* song);
// Takes every waiting message of the keyboard port and posts its notes to the MIDI ring
// for song->midi_kbd_module (−1: the notes are dropped). Returns the messages taken.
// Interface thread.
int zelfon_poll_midi_keyboard(zelfon_song* song);
// Feeds raw MIDI bytes received at `t` through the keyboard's running-status parser.
// Interface thread.
void zelfon_parse_midi_keyboard(const uint8_t* bytes, int size, tarvik_ticks t, zelfon_song* song);
