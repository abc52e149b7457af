// The two piano rows of a tracker keyboard, as scancodes.
#include "app/note_keys.h"

#include <SDL.h>
#include <cstdio>

#include "song/song.h"

namespace {

const SDL_Scancode kLowerRow[] = {
    SDL_SCANCODE_Z, SDL_SCANCODE_S, SDL_SCANCODE_X, SDL_SCANCODE_D, SDL_SCANCODE_C, SDL_SCANCODE_V,
    SDL_SCANCODE_G, SDL_SCANCODE_B, SDL_SCANCODE_H, SDL_SCANCODE_N, SDL_SCANCODE_J, SDL_SCANCODE_M,
    SDL_SCANCODE_COMMA, SDL_SCANCODE_L, SDL_SCANCODE_PERIOD, SDL_SCANCODE_SEMICOLON, SDL_SCANCODE_SLASH};
const SDL_Scancode kUpperRow[] = {
    SDL_SCANCODE_Q, SDL_SCANCODE_2, SDL_SCANCODE_W, SDL_SCANCODE_3, SDL_SCANCODE_E, SDL_SCANCODE_R,
    SDL_SCANCODE_5, SDL_SCANCODE_T, SDL_SCANCODE_6, SDL_SCANCODE_Y, SDL_SCANCODE_7, SDL_SCANCODE_U,
    SDL_SCANCODE_I, SDL_SCANCODE_9, SDL_SCANCODE_O, SDL_SCANCODE_0, SDL_SCANCODE_P, SDL_SCANCODE_LEFTBRACKET,
    SDL_SCANCODE_EQUALS, SDL_SCANCODE_RIGHTBRACKET};

const char* const kNames[12] = {"C-", "C#", "D-", "D#", "E-", "F-", "F#", "G-", "G#", "A-", "A#", "B-"};

}  // namespace

int app_note_key(int scancode) {
    if (scancode == SDL_SCANCODE_1 || scancode == SDL_SCANCODE_GRAVE) return APP_NOTE_KEY_OFF;
    for (int i = 0; i < (int)(sizeof kLowerRow / sizeof *kLowerRow); i++) {
        if (kLowerRow[i] == scancode) return i;
    }
    for (int i = 0; i < (int)(sizeof kUpperRow / sizeof *kUpperRow); i++) {
        if (kUpperRow[i] == scancode) return 12 + i;
    }
    return APP_NOTE_KEY_NONE;
}

void app_note_text(int note, char* out) {
    switch (note) {
    case 0: snprintf(out, 4, "---"); return;
    case ZELFON_NOTE_OFF: snprintf(out, 4, "==="); return;
    case ZELFON_NOTE_ALL_OFF: snprintf(out, 4, "^^^"); return;
    case ZELFON_NOTE_CLEAN: snprintf(out, 4, "CLN"); return;
    case ZELFON_NOTE_STOP: snprintf(out, 4, "STP"); return;
    case ZELFON_NOTE_PLAY: snprintf(out, 4, "PLY"); return;
    case ZELFON_NOTE_PITCH: snprintf(out, 4, "PIT"); return;
    default: break;
    }
    if (note > 127) {
        snprintf(out, 4, "?%02X", note & 0xFF);
        return;
    }
    int semitone = note - 1;
    int octave = semitone / 12;
    snprintf(out, 4, "%s%c", kNames[semitone % 12], octave < 10 ? '0' + octave : 'A' + octave - 10);
}
