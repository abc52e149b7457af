// The playback engine: turns the song's patterns into module events while the sound
// device (or an export) asks for audio, and passes live notes and transport commands
// from the interface thread to the render thread through single-producer rings.
//
// Threads: zelfon_render runs on whichever thread renders (the sound thread, or the
// export); it takes the net's mutex for each piece. The other functions are for the
// interface thread. Rings drop new entries when full (the post functions return 1).
#pragma once

#include "song/song.h"

enum : int { ZELFON_SAMPLE_INT16 = 1, ZELFON_SAMPLE_FLOAT32 = 2 };

constexpr int ZELFON_RENDER_PIECE = PSYNTH_BUFFER_SIZE;  // frames rendered per net pass at most

// The device formats of a net sample (13.3 fixed point), for the sound device and files alike.
constexpr int ZELFON_INT16_SCALE = 8;    // net units to 16-bit units
constexpr int ZELFON_INT16_MAX = 32767;  // saturation is symmetric: −32768 is never produced
constexpr float ZELFON_FLOAT_FULL_SCALE = 4096.0f;
inline int16_t zelfon_sample_to_int16(psynth_sample v) {
    int x = v * ZELFON_INT16_SCALE;
    return (int16_t)(x > ZELFON_INT16_MAX ? ZELFON_INT16_MAX : x < -ZELFON_INT16_MAX ? -ZELFON_INT16_MAX : x);
}
inline float zelfon_sample_to_float(psynth_sample v) { return v / ZELFON_FLOAT_FULL_SCALE; }

struct zelfon_render_request {
    void* out;             // interleaved frames of `type`
    int type;              // ZELFON_SAMPLE_INT16 or ZELFON_SAMPLE_FLOAT32
    int channels;
    int frames;
    const void* in;        // input frames for recording modules, or null
    tarvik_ticks out_time; // tick-clock time at which the first frame sounds
};

// Live-input event flags.
enum : uint32_t {
    ZELFON_LIVE_NOTE_ON = 1,
    ZELFON_LIVE_NOTE_OFF = 2,
    ZELFON_LIVE_PITCH = 4,  // re-pitch the key's voice to `pitch`
};

// Renders the request. Returns 0 when there is no song or net or it is not loaded (the
// output is then untouched), else 1. Render thread.
int zelfon_render(const zelfon_render_request* request, zelfon_song* song);

// Starts playing from `line` (tempo from the song's tempo changes before it).
void zelfon_play(int line, zelfon_song* song);
// Plays the pattern in `slot` in a loop from its first line.
void zelfon_play_pattern(int slot, zelfon_song* song);
// The pattern to loop next when the current loop ends (−1 = keep looping).
void zelfon_set_next_looped_pattern(int slot, zelfon_song* song);
// Set: playback runs on past the end without restarting. Clear: it restarts at line 0.
void zelfon_set_stop_at_end(int stop_at_end, zelfon_song* song);
// Stops (or, when stopped, cleans every module) and waits for the render thread to
// take it, at most about two seconds. Returns 1 when it was not playing.
int zelfon_stop(zelfon_song* song);

// When the sound device has gone (no render thread): stops at once, taking what waits in
// the live rings, without waiting for a render that will not come.
void zelfon_stop_without_sound(zelfon_song* song);
// Export only, after zelfon_stop, with no other thread rendering: takes whatever waits in
// the live rings, stops, cleans every module, frees the track-state sets and starts playing
// from line 0 at the song's own tempo, so that line 0 starts with the next piece rendered.
// Takes the net's mutex.
void zelfon_reset_transport_for_export(zelfon_song* song);

// Posts a cell to be played on live track `track` (0..31). Returns 0, or 1 when the ring is full.
int zelfon_send_live_cell(const zelfon_cell* cell, int track, zelfon_song* song);
// Posts a live note from the MIDI keyboard. Returns 0, or 1 when the ring is full.
int zelfon_handle_midi_event(const zelfon_live_midi_event* event, zelfon_song* song);

// ---- The editors' changes while a render may run (caller holds the net's mutex) ----

// Takes the pattern in `slot` out of the playing list before its slot is emptied: its
// sounding tracks get NOTE_OFF and its track-state set is freed.
void zelfon_playback_drop_pattern(int slot, zelfon_song* song);
// After patterns were moved, resized, added or removed: rebuilds the play order and, while
// playing, points the next pattern to start at the first one after the current line.
void zelfon_playback_places_changed(zelfon_song* song);
