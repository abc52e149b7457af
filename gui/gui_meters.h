// The output's scope and stereo level meter, drawn from interleaved float frames.
#pragma once

// Peak levels with a falling hold, per channel, in linear amplitude (1 = full scale).
struct gui_level_state {
    float level[2];
    float hold[2];
    int hold_frames[2];
};

// Takes the peaks of `frames` interleaved stereo frames into the meter (decaying what
// was there by `seconds` since the last call).
void gui_level_update(gui_level_state* s, const float* frames, int count, float seconds);
// Draws two horizontal bars (dB scale from −48 dB) at the cursor, `width` × `height`.
void gui_level_meter(const char* id, const gui_level_state* s, float width, float height);
// Draws the mix of both channels as a line at the cursor, `width` × `height`.
void gui_scope(const char* id, const float* frames, int count, float width, float height);
