// The devices while the studio runs. A sound device or server can go away at any moment
// (the JACK server quits, a USB interface is pulled): the song stops where it was, the
// studio goes on silent and says so, and tries the device again every two seconds until
// it is back, then opens the MIDI ports again too (they lived on the same server).
// Preferences can open another device meanwhile. The MIDI keyboard is looked for every
// two seconds as well and opened again when it comes back.
#include <SDL.h>

#include "app/studio_windows.h"
#include "engine/log.h"
#include "engine/sound.h"
#include "song/devices.h"
#include "song/playback.h"

namespace {

constexpr uint32_t kRetryMs = 2000;
constexpr uint32_t kMidiWatchMs = 2000;

void lose_sound(studio* st) {
    tarvik_log("studio: the sound stream stopped on its own; running silent, trying again every %u ms\n", kRetryMs);
    zelfon_detach_sound(STUDIO_SOUND_SLOT);
    sound_stream_close();
    st->sound_ok = 0;
    // No render thread will take a stop now.
    zelfon_stop_without_sound(st->song);
    st->sound_lost = 1;
    st->sound_retry_ms = SDL_GetTicks() + kRetryMs;
    studio_status(st, "The sound device went away: Zelfon runs silent until it is back");
}

void watch_sound(studio* st) {
    if (st->sound_ok) {
        if (!sound_stream_running()) lose_sound(st);
        return;
    }
    if (!st->sound_lost || !SDL_TICKS_PASSED(SDL_GetTicks(), st->sound_retry_ms)) return;
    st->sound_retry_ms = SDL_GetTicks() + kRetryMs;
    if (studio_sound_open(st) == 0) {
        zelfon_reopen_midi(st->song);
        studio_status(st, "The sound device is back: %s, %d Hz", sound_stream_driver_name(g_snd.driver), st->rate);
    } else {
        studio_status(st, "The sound device went away: Zelfon runs silent until it is back");
    }
}

void watch_midi_keyboard(studio* st) {
    if (!SDL_TICKS_PASSED(SDL_GetTicks(), st->midi_watch_ms)) return;
    st->midi_watch_ms = SDL_GetTicks() + kMidiWatchMs;
    if (zelfon_watch_midi_keyboard(st->song)) studio_status(st, "The MIDI keyboard is back");
}

}  // namespace

void studio_devices_watch(studio* st) {
    watch_sound(st);
    watch_midi_keyboard(st);
}
