// How the polyphonic instruments (Sampler, FM) give a new note its voice and find the
// voice a later event addresses. Voice records differ per module; each has the fields
// `active`, `id` (−1 = none) and `key_held` that these templates read and write.
#pragma once

// First voice among the first `count` that carries `id`; −1 when none (or id is −1).
// Sound thread.
template <class Voice>
int psynth_find_voice(const Voice* voices, int count, int id) {
    if (id == -1) return -1;
    for (int i = 0; i < count; i++) {
        if (voices[i].id == id) return i;
    }
    return -1;
}

// The voice a NOTE_ON takes. While the module is idle (nothing sounded since INIT or
// CLEAN) it is voice 0. Otherwise any of the `total` voices still carrying `id` is
// released and detached (it sounds on through its release), and the first inactive
// voice among the first `polyphony`, searched upward from the cursor with wrap-around,
// is taken; when all of them sound, the one after the cursor is stolen. The cursor
// follows the chosen voice. Sound thread.
template <class Voice>
int psynth_take_voice(Voice* voices, int total, int polyphony, int id, bool idle, int* cursor) {
    if (idle) return *cursor = 0;
    if (id != -1) {
        for (int i = 0; i < total; i++) {
            if (voices[i].id != id) continue;
            voices[i].key_held = 0;
            voices[i].id = -1;
        }
    }
    for (int j = 0; j < polyphony; j++) {
        int i = (*cursor + j) % polyphony;
        if (!voices[i].active) return *cursor = i;
    }
    return *cursor = (*cursor + 1) % polyphony;
}
