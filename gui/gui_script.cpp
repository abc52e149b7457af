// Each input command spends two frames (press in the first, release in the second) and
// a third to let the interface answer, so scripts need no waits between clicks.
#include "gui/gui_script.h"

#include <SDL.h>
#include <cstdlib>
#include <cstring>

#include "engine/file.h"
#include "engine/log.h"
#include "engine/memory.h"
#include "gui/gui_items.h"

namespace {

constexpr int kSettleFrames = 1;
constexpr uint32_t kWaitMs = 10000;  // how long a line waits for its item or its condition

void push(SDL_Event* e) {
    e->common.timestamp = SDL_GetTicks();
    SDL_PushEvent(e);
}

// The keys a German keyboard gives other letters on than a US one (scancode, its key).
const struct {
    SDL_Scancode scancode;
    SDL_Keycode key;
} kGermanKeys[] = {{SDL_SCANCODE_Z, SDLK_y}, {SDL_SCANCODE_Y, SDLK_z}, {SDL_SCANCODE_SEMICOLON, 0xF6},
                   {SDL_SCANCODE_APOSTROPHE, 0xE4}, {SDL_SCANCODE_LEFTBRACKET, 0xFC}, {SDL_SCANCODE_MINUS, 0xDF},
                   {SDL_SCANCODE_SLASH, SDLK_MINUS}};

void push_key(int scancode, bool down, bool german) {
    SDL_Event e = {};
    e.type = down ? SDL_KEYDOWN : SDL_KEYUP;
    e.key.state = down ? SDL_PRESSED : SDL_RELEASED;
    e.key.keysym.scancode = (SDL_Scancode)scancode;
    e.key.keysym.sym = SDL_GetKeyFromScancode((SDL_Scancode)scancode);
    for (const auto& g : kGermanKeys) {
        if (german && g.scancode == scancode) e.key.keysym.sym = g.key;
    }
    push(&e);
}

void push_motion(float x, float y) {
    SDL_Event e = {};
    e.type = SDL_MOUSEMOTION;
    e.motion.x = (int)x;
    e.motion.y = (int)y;
    push(&e);
}

void push_button(int button, float x, float y, bool down, int clicks = 1) {
    SDL_Event e = {};
    e.type = down ? SDL_MOUSEBUTTONDOWN : SDL_MOUSEBUTTONUP;
    e.button.button = (uint8_t)button;
    e.button.state = down ? SDL_PRESSED : SDL_RELEASED;
    e.button.clicks = (uint8_t)clicks;
    e.button.x = (int)x;
    e.button.y = (int)y;
    push(&e);
}

int button_from_word(const char* word) {
    if (word && !strcmp(word, "right")) return SDL_BUTTON_RIGHT;
    if (word && !strcmp(word, "middle")) return SDL_BUTTON_MIDDLE;
    return SDL_BUTTON_LEFT;
}

// Splits "ctrl+shift+Z" into modifier scancodes and the key's. Returns 0 for an unknown name.
int parse_key(const char* combo, int mods[3]) {
    mods[0] = mods[1] = mods[2] = 0;
    char buf[64];
    snprintf(buf, sizeof buf, "%s", combo);
    char* name = buf;
    int n = 0;
    for (char* plus = strchr(name, '+'); plus && plus[1] && n < 3; plus = strchr(name, '+')) {
        *plus = 0;
        if (!SDL_strcasecmp(name, "ctrl")) mods[n++] = SDL_SCANCODE_LCTRL;
        else if (!SDL_strcasecmp(name, "shift")) mods[n++] = SDL_SCANCODE_LSHIFT;
        else if (!SDL_strcasecmp(name, "alt")) mods[n++] = SDL_SCANCODE_LALT;
        else return 0;
        name = plus + 1;
    }
    SDL_Scancode sc = SDL_GetScancodeFromName(name);
    return sc == SDL_SCANCODE_UNKNOWN ? 0 : (int)sc;
}

// Starts or checks the wait of a line that runs again until it holds.
bool waited_too_long(gui_script* s) {
    uint32_t now = SDL_GetTicks();
    if (!s->wait_since_ms) s->wait_since_ms = now ? now : 1;
    if (now - s->wait_since_ms <= kWaitMs) return false;
    s->wait_since_ms = 0;
    return true;
}

int fail(gui_script* s, const char* why, const char* line) {
    tarvik_log("gui script line %d: %s: %s\n", s->line_no, why, line);
    s->failed = 1;
    return 1;
}

void release_pending(gui_script* s) {
    if (s->pending_up == 1) {
        push_key(s->pending_scancode, false, s->german);
        for (int m = 2; m >= 0; m--) {
            if (s->pending_mods[m]) push_key(s->pending_mods[m], false, s->german);
        }
    } else if (s->pending_up == 2) {
        push_button(s->pending_button, s->pending_x, s->pending_y, false);
    }
    s->pending_up = 0;
}

// The pointer moves onto the place a frame before the press, as a hand's would: ImGui takes
// some presses (tabs, overlapping items) only on what the pointer hovered the frame before.
void click(gui_script* s, int button, float x, float y, int clicks) {
    push_motion(x, y);
    s->pending_up = 4;
    s->pending_clicks = clicks;
    s->pending_button = button;
    s->pending_x = x;
    s->pending_y = y;
}

// Runs one line. Returns the frames it takes, or −1 when it waits for the interface and
// runs again next frame.
int run_line(gui_script* s, char* line, const gui_window* w, gui_script_handler handler, void* data) {
    char original[1024];
    snprintf(original, sizeof original, "%s", line);
    char* rest = line;
    char* word = strsep(&rest, " \t");
    auto next = [&rest]() -> char* {
        while (rest && (*rest == ' ' || *rest == '\t')) rest++;
        return rest && *rest ? strsep(&rest, " \t") : nullptr;
    };
    auto number = [&next](float* v) {
        char* t = next();
        if (!t) return false;
        char* end;
        *v = strtof(t, &end);
        return *end == 0;
    };
    if (!strcmp(word, "wait")) {
        float n;
        if (!number(&n) || n < 0) return fail(s, "wait needs a frame count", original), 0;
        return (int)n;
    }
    if (!strcmp(word, "key") || !strcmp(word, "keydown") || !strcmp(word, "keyup")) {
        char* combo = next();
        int mods[3];
        int sc = combo ? parse_key(combo, mods) : 0;
        if (!sc) return fail(s, "unknown key", original), 0;
        if (!strcmp(word, "keyup")) {
            push_key(sc, false, s->german);
            return 1;
        }
        for (int m = 0; m < 3; m++) {
            if (mods[m]) push_key(mods[m], true, s->german);
        }
        push_key(sc, true, s->german);
        if (!strcmp(word, "key")) {
            s->pending_up = 1;
            s->pending_scancode = sc;
            memcpy(s->pending_mods, mods, sizeof mods);
            return 1 + kSettleFrames;
        }
        return 1;
    }
    if (!strcmp(word, "layout")) {
        char* name = next();
        if (!name || (strcmp(name, "us") && strcmp(name, "de"))) return fail(s, "layout takes us or de", original), 0;
        s->german = !strcmp(name, "de");
        return 0;
    }
    if (!strcmp(word, "text")) {
        const char* text = rest ? rest : "";
        // SDL carries at most 31 bytes of text an event; cut between UTF-8 characters.
        while (*text) {
            SDL_Event e = {};
            e.type = SDL_TEXTINPUT;
            size_t n = 0;
            while (text[n] && n < sizeof e.text.text - 5) {
                n++;
                while ((text[n] & 0xC0) == 0x80) n++;
            }
            memcpy(e.text.text, text, n);
            push(&e);
            text += n;
        }
        return 1 + kSettleFrames;
    }
    if (!strcmp(word, "move")) {
        float x, y;
        if (!number(&x) || !number(&y)) return fail(s, "move needs X Y", original), 0;
        push_motion(x, y);
        return 1;
    }
    if (!strcmp(word, "click") || !strcmp(word, "doubleclick")) {
        float x, y;
        if (!number(&x) || !number(&y)) return fail(s, "click needs X Y", original), 0;
        int button = button_from_word(next());
        click(s, button, x, y, 1);
        if (!strcmp(word, "doubleclick")) s->second_click = 1;
        return 1 + kSettleFrames;
    }
    if (!strcmp(word, "click_id") || !strcmp(word, "doubleclick_id")) {
        // click_id ID [left|right|middle] [at FX FY]: the item's centre, or the point at those
        // fractions of its width and height.
        char* id = next();
        float x, y, fx = 0.5f, fy = 0.5f;
        if (!id) return fail(s, "click_id needs ID", original), 0;
        char* button_word = next();
        char* at = button_word && !strcmp(button_word, "at") ? button_word : next();
        if (at == button_word) button_word = nullptr;
        if (at && (strcmp(at, "at") || !number(&fx) || !number(&fy))) return fail(s, "click_id: at FX FY", original), 0;
        if (!gui_item_find_at(id, fx, fy, &x, &y)) {
            if (waited_too_long(s)) return fail(s, "no item with this id on screen", original), 0;
            return -1;  // again next frame
        }
        s->wait_since_ms = 0;
        gui_window_ui_to_window(w, &x, &y);
        int button = button_from_word(button_word);
        click(s, button, x, y, 1);
        if (!strcmp(word, "doubleclick_id")) s->second_click = 1;
        return 1 + kSettleFrames;
    }
    if (!strcmp(word, "drag") || !strcmp(word, "drag_id")) {
        float x1, y1, x2, y2;
        if (!strcmp(word, "drag_id")) {
            char* from = next();
            char* to = next();
            if (!from || !to) return fail(s, "drag_id needs FROM TO", original), 0;
            if (!gui_item_find(from, &x1, &y1) || !gui_item_find(to, &x2, &y2)) {
                if (waited_too_long(s)) return fail(s, "no item with this id on screen", original), 0;
                return -1;
            }
            s->wait_since_ms = 0;
            gui_window_ui_to_window(w, &x1, &y1);
            gui_window_ui_to_window(w, &x2, &y2);
        } else if (!number(&x1) || !number(&y1) || !number(&x2) || !number(&y2)) {
            return fail(s, "drag needs X1 Y1 X2 Y2", original), 0;
        }
        push_motion(x1, y1);
        push_button(SDL_BUTTON_LEFT, x1, y1, true);
        s->pending_up = 3;  // the move and release come in the next frames
        s->pending_x = x2;
        s->pending_y = y2;
        s->pending_button = SDL_BUTTON_LEFT;
        return 1;
    }
    if (!strcmp(word, "wheel")) {
        float dy;
        if (!number(&dy)) return fail(s, "wheel needs DY", original), 0;
        SDL_Event e = {};
        e.type = SDL_MOUSEWHEEL;
        e.wheel.y = (int)dy;
        e.wheel.direction = SDL_MOUSEWHEEL_NORMAL;
        push(&e);
        return 1 + kSettleFrames;
    }
    if (!strcmp(word, "drop")) {
        if (!rest || !*rest) return fail(s, "drop needs PATH", original), 0;
        SDL_Event e = {};
        e.type = SDL_DROPFILE;
        e.drop.file = SDL_strdup(rest);  // freed by the receiver, as SDL's own drops
        push(&e);
        return 1 + kSettleFrames;
    }
    if (!strcmp(word, "screenshot")) {
        if (!rest || !*rest) return fail(s, "screenshot needs PATH", original), 0;
        snprintf(s->screenshot, sizeof s->screenshot, "%s", rest);
        return 1;
    }
    if (!strcmp(word, "quit")) {
        SDL_Event e = {};
        e.type = SDL_QUIT;
        push(&e);
        return 1;
    }
    if (!handler || handler(original, data)) {
        // The interface may still be catching up (a box about to open): try a while.
        if (waited_too_long(s)) return fail(s, "command failed or unknown", original), 0;
        return -1;
    }
    s->wait_since_ms = 0;
    return 1;
}

}  // namespace

int gui_script_load(const char* path, gui_script* s) {
    *s = gui_script();
    int64_t size = v3_get_file_size(path);
    int h = size >= 0 && size < (1 << 24) ? v3_open(path, "rb") : 0;
    if (!h) return 1;
    s->text = (char*)mem_new(MEM_DYNAMIC, (size_t)size + 1, "gui_script_load");
    size_t got = s->text ? v3_read(s->text, 1, (size_t)size, h) : 0;
    v3_close(h);
    if (!s->text || got != (size_t)size) {
        gui_script_free(s);
        return 1;
    }
    s->text[size] = 0;
    s->wait_frames = 2;  // the first frames name the items scripts click
    return 0;
}

void gui_script_free(gui_script* s) {
    mem_free(s->text);
    s->text = nullptr;
}

void gui_script_step(gui_script* s, const gui_window* w, gui_script_handler handler, void* data) {
    if (s->pending_up == 4) {
        // A click's second frame: the press; the release follows.
        push_button(s->pending_button, s->pending_x, s->pending_y, true, s->pending_clicks);
        s->pending_up = 2;
        return;
    }
    if (s->pending_up == 3) {
        // The drag's second frame: move to the end point; the release follows.
        push_motion(s->pending_x, s->pending_y);
        s->pending_up = 2;
        s->wait_frames = 1;
        return;
    }
    if (s->second_click == 2) {
        // A double click's second press, a frame after the first one's release (ImGui
        // tells presses apart by frames).
        s->second_click = 0;
        click(s, s->pending_button, s->pending_x, s->pending_y, 2);
        s->wait_frames = kSettleFrames;
        return;
    }
    bool was_button = s->pending_up == 2;
    release_pending(s);
    if (was_button && s->second_click == 1) {
        s->second_click = 2;
        return;
    }
    if (s->wait_frames > 0) {
        s->wait_frames--;
        return;
    }
    while (!s->finished && s->text && s->text[s->pos]) {
        int line_start = s->pos;
        char* line = s->text + s->pos;
        size_t length = strcspn(line, "\n");
        s->pos += (int)length + (line[length] ? 1 : 0);
        s->line_no++;
        char buf[1024];
        snprintf(buf, sizeof buf, "%.*s", (int)(length < sizeof buf ? length : sizeof buf - 1), line);
        size_t n = strlen(buf);
        while (n && (buf[n - 1] == '\r' || buf[n - 1] == ' ')) buf[--n] = 0;
        char* start = buf + strspn(buf, " \t");
        if (!*start || *start == '#') continue;
        int frames = run_line(s, start, w, handler, data);
        if (s->failed) break;
        if (frames < 0) {
            s->pos = line_start;  // the line runs again next frame
            s->line_no--;
            return;
        }
        if (frames > 0) {
            s->wait_frames = frames - 1;
            return;
        }
    }
    if (!s->finished) {
        s->finished = 1;
        SDL_Event e = {};
        e.type = SDL_QUIT;
        push(&e);
    }
}
