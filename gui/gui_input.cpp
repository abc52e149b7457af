// Key and button state kept here, handed to ImGui once a frame; releases that follow
// their press within the same frame wait for the next one so no click or key is lost.
#include "gui/gui_input.h"

#include <SDL.h>
#include <cstring>
#include <imgui.h>

namespace {

constexpr int kKeys = 512;  // ImGui 1.86's KeysDown size; scancodes fit below it
constexpr int kButtons = 3;

struct input_state {
    bool key_held[kKeys];
    bool key_pressed[kKeys];  // pressed since the last frame
    bool button_held[kButtons];
    bool button_pressed[kButtons];
    float mouse_x, mouse_y;
    bool mouse_inside;
};

input_state g_in;

int button_index(int sdl_button) {
    switch (sdl_button) {
    case SDL_BUTTON_LEFT: return 0;
    case SDL_BUTTON_RIGHT: return 1;
    case SDL_BUTTON_MIDDLE: return 2;
    default: return -1;
    }
}

void set_mouse(float x, float y, gui_point_mapper map, void* data) {
    if (map) map(&x, &y, data);
    g_in.mouse_x = x;
    g_in.mouse_y = y;
    g_in.mouse_inside = true;
    ImGui::GetIO().MousePos = ImVec2(x, y);
}

}  // namespace

void gui_input_init() {
    memset(&g_in, 0, sizeof g_in);
    ImGuiIO& io = ImGui::GetIO();
    io.BackendPlatformName = "zelfon_sdl";
    io.BackendFlags |= ImGuiBackendFlags_HasMouseCursors;
    // Tab is left unmapped: it moves the pattern editor's cursor, not ImGui's focus.
    io.KeyMap[ImGuiKey_LeftArrow] = SDL_SCANCODE_LEFT;
    io.KeyMap[ImGuiKey_RightArrow] = SDL_SCANCODE_RIGHT;
    io.KeyMap[ImGuiKey_UpArrow] = SDL_SCANCODE_UP;
    io.KeyMap[ImGuiKey_DownArrow] = SDL_SCANCODE_DOWN;
    io.KeyMap[ImGuiKey_PageUp] = SDL_SCANCODE_PAGEUP;
    io.KeyMap[ImGuiKey_PageDown] = SDL_SCANCODE_PAGEDOWN;
    io.KeyMap[ImGuiKey_Home] = SDL_SCANCODE_HOME;
    io.KeyMap[ImGuiKey_End] = SDL_SCANCODE_END;
    io.KeyMap[ImGuiKey_Insert] = SDL_SCANCODE_INSERT;
    io.KeyMap[ImGuiKey_Delete] = SDL_SCANCODE_DELETE;
    io.KeyMap[ImGuiKey_Backspace] = SDL_SCANCODE_BACKSPACE;
    io.KeyMap[ImGuiKey_Space] = SDL_SCANCODE_SPACE;
    io.KeyMap[ImGuiKey_Enter] = SDL_SCANCODE_RETURN;
    io.KeyMap[ImGuiKey_Escape] = SDL_SCANCODE_ESCAPE;
    io.KeyMap[ImGuiKey_KeyPadEnter] = SDL_SCANCODE_KP_ENTER;
    io.KeyMap[ImGuiKey_A] = SDL_SCANCODE_A;
    io.KeyMap[ImGuiKey_C] = SDL_SCANCODE_C;
    io.KeyMap[ImGuiKey_V] = SDL_SCANCODE_V;
    io.KeyMap[ImGuiKey_X] = SDL_SCANCODE_X;
    io.KeyMap[ImGuiKey_Y] = SDL_SCANCODE_Y;
    io.KeyMap[ImGuiKey_Z] = SDL_SCANCODE_Z;
}

int gui_input_event(const SDL_Event* event, gui_point_mapper map, void* map_data) {
    ImGuiIO& io = ImGui::GetIO();
    switch (event->type) {
    case SDL_MOUSEMOTION:
        set_mouse((float)event->motion.x, (float)event->motion.y, map, map_data);
        return 1;
    case SDL_MOUSEBUTTONDOWN:
    case SDL_MOUSEBUTTONUP: {
        set_mouse((float)event->button.x, (float)event->button.y, map, map_data);
        int b = button_index(event->button.button);
        if (b < 0) return 0;
        bool down = event->type == SDL_MOUSEBUTTONDOWN;
        g_in.button_held[b] = down;
        if (down) g_in.button_pressed[b] = true;
        return 1;
    }
    case SDL_MOUSEWHEEL: {
        float x = (float)event->wheel.x, y = (float)event->wheel.y;
        if (event->wheel.direction == SDL_MOUSEWHEEL_FLIPPED) x = -x, y = -y;
        io.MouseWheelH += x;
        io.MouseWheel += y;
        return 1;
    }
    case SDL_TEXTINPUT:
        io.AddInputCharactersUTF8(event->text.text);
        return 1;
    case SDL_KEYDOWN:
    case SDL_KEYUP: {
        int sc = event->key.keysym.scancode;
        if (sc < 0 || sc >= kKeys) return 0;
        bool down = event->type == SDL_KEYDOWN;
        g_in.key_held[sc] = down;
        if (down) g_in.key_pressed[sc] = true;
        return 1;
    }
    case SDL_WINDOWEVENT:
        if (event->window.event == SDL_WINDOWEVENT_LEAVE) {
            g_in.mouse_inside = false;
            io.MousePos = ImVec2(-FLT_MAX, -FLT_MAX);
        }
        if (event->window.event == SDL_WINDOWEVENT_FOCUS_LOST) {
            // Keys released while another window had the focus never reach us.
            memset(g_in.key_held, 0, sizeof g_in.key_held);
        }
        return 1;
    default:
        return 0;
    }
}

void gui_input_new_frame() {
    ImGuiIO& io = ImGui::GetIO();
    for (int k = 0; k < kKeys; k++) {
        io.KeysDown[k] = g_in.key_held[k] || g_in.key_pressed[k];
        g_in.key_pressed[k] = false;
    }
    for (int b = 0; b < kButtons; b++) {
        io.MouseDown[b] = g_in.button_held[b] || g_in.button_pressed[b];
        g_in.button_pressed[b] = false;
    }
    io.KeyCtrl = io.KeysDown[SDL_SCANCODE_LCTRL] || io.KeysDown[SDL_SCANCODE_RCTRL];
    io.KeyShift = io.KeysDown[SDL_SCANCODE_LSHIFT] || io.KeysDown[SDL_SCANCODE_RSHIFT];
    io.KeyAlt = io.KeysDown[SDL_SCANCODE_LALT] || io.KeysDown[SDL_SCANCODE_RALT];
    io.KeySuper = io.KeysDown[SDL_SCANCODE_LGUI] || io.KeysDown[SDL_SCANCODE_RGUI];
}

int gui_input_key_down(int scancode) {
    return scancode >= 0 && scancode < kKeys && ImGui::GetIO().KeysDown[scancode];
}
