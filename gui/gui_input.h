// Our platform side of ImGui: SDL events become ImGui's input, the same way for real
// events and scripted ones. Keys are indexed by SDL scancode (physical positions), so
// note keys follow the key's place, not its letter. A press and release that arrive
// within one frame still count as a press for that frame.
#pragma once

union SDL_Event;

// Window → UI coordinates (the rotation of the frame).
typedef void (*gui_point_mapper)(float* x, float* y, void* data);

// Sets ImGui's key map to scancodes and clears the state. After ImGui's context exists.
void gui_input_init();
// Applies one event. Returns 1 when it may change what is drawn.
int gui_input_event(const SDL_Event* event, gui_point_mapper map, void* map_data);
// Moves the held state into ImGui for the next frame (before ImGui::NewFrame).
void gui_input_new_frame();
// Non-zero while the scancode is held (or was pressed since the last frame).
int gui_input_key_down(int scancode);
