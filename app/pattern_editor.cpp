// The pattern editor: the current pattern as lines × tracks of cells in hex (note,
// velocity, module, controller and effect, value), a cursor by field, selection by keys
// and mouse, note keys by physical place, edit mode and step, the clipboard (also as text
// on the system clipboard), live preview and MIDI keyboard recording, follow playback,
// track mute and solo, beat shading. Only the visible lines and tracks are drawn.
#include <SDL.h>
#include <cstdio>
#include <cstring>
#include <imgui.h>

#include "app/note_keys.h"
#include "app/studio_windows.h"
#include "engine/memory.h"
#include "gui/gui_fonts.h"
#include "gui/gui_items.h"
#include "gui/gui_theme.h"
#include "song/edit.h"
#include "song/playback.h"

namespace {

constexpr int kFields = 5;
// Characters of each field and the gaps before them: "C-4 40 01 0000 0000".
constexpr int kFieldChars[kFields] = {3, 2, 2, 4, 4};
constexpr int kFieldStart[kFields] = {0, 4, 7, 10, 15};
constexpr int kTrackChars = 20;  // the fields and a gap
constexpr int kLineNumberChars = 5;
constexpr int kPageLines = 16;

zelfon_pattern* current(studio* st, int* slot_out = nullptr) {
    zelfon_song* song = st->song;
    int slot = st->current_pattern;
    if (slot < 0 || slot >= song->pats_capacity || !song->pats[slot]) return nullptr;
    if (slot_out) *slot_out = slot;
    return song->pats[slot];
}

// A field's value as its hex digits show it.
int field_value(const zelfon_cell* c, int field) {
    switch (field) {
    case 1: return c->vel;
    case 2: return c->module & 0xFF;
    case 3: return c->ctl << 8 | c->effect;
    case 4: return c->value;
    default: return c->note;
    }
}

void set_field_value(zelfon_cell* c, int field, int v) {
    switch (field) {
    case 1: c->vel = (uint8_t)v; break;
    case 2: c->module = (uint16_t)((c->module & 0xFF00) | (v & 0xFF)); break;
    case 3: c->ctl = (uint8_t)(v >> 8); c->effect = (uint8_t)v; break;
    case 4: c->value = (uint16_t)v; break;
    default: c->note = (uint8_t)v; break;
    }
}

uint32_t field_mask(int field) {
    static const uint32_t kMasks[kFields] = {ZELFON_FIELD_NOTE, ZELFON_FIELD_VELOCITY, ZELFON_FIELD_MODULE,
                                             ZELFON_FIELD_EFFECT, ZELFON_FIELD_VALUE};
    return kMasks[field];
}

void clamp_cursor(studio* st, const zelfon_pattern* p) {
    studio_pattern_editor* e = &st->pattern;
    if (e->track >= p->channels) e->track = p->channels - 1;
    if (e->track < 0) e->track = 0;
    if (st->cursor_line >= p->lines) st->cursor_line = p->lines - 1;
    if (st->cursor_line < 0) st->cursor_line = 0;
    if (e->field < 0 || e->field >= kFields) e->field = 0;
}

// The selection, or the cursor's cell, as a rectangle.
zelfon_cell_rect selection(studio* st, int slot) {
    studio_pattern_editor* e = &st->pattern;
    if (!e->has_selection) return {slot, e->track, st->cursor_line, 1, 1};
    int t0 = e->anchor_track < e->track ? e->anchor_track : e->track;
    int t1 = e->anchor_track < e->track ? e->track : e->anchor_track;
    int l0 = e->anchor_line < st->cursor_line ? e->anchor_line : st->cursor_line;
    int l1 = e->anchor_line < st->cursor_line ? st->cursor_line : e->anchor_line;
    return {slot, t0, l0, t1 - t0 + 1, l1 - l0 + 1};
}

bool in_selection(const zelfon_cell_rect& r, int track, int line) {
    return track >= r.track && track < r.track + r.tracks && line >= r.line && line < r.line + r.lines;
}

void report(studio* st, int result) {
    switch (result) {
    case ZELFON_EDIT_OK: studio_song_changed(st); break;
    case ZELFON_EDIT_OUTSIDE: studio_status(st, "Outside the pattern: nothing changed"); break;
    case ZELFON_EDIT_NO_PATTERN: studio_status(st, "No pattern chosen"); break;
    case ZELFON_EDIT_NO_MEMORY: studio_status(st, "Not enough memory for this edit"); break;
    default: break;
    }
}

// Before the cursor moves: with `extend` the selection grows from where it stands (its
// anchor is the cursor when none was there); without, the selection goes.
void start_move(studio* st, bool extend) {
    studio_pattern_editor* e = &st->pattern;
    zelfon_edit_begin(st->song);  // digits typed after a move are a new step
    if (extend && !e->has_selection) {
        e->has_selection = 1;
        e->anchor_track = e->track;
        e->anchor_line = st->cursor_line;
    } else if (!extend) {
        e->has_selection = 0;
    }
}

void move_cursor(studio* st, int tracks, int lines, bool extend) {
    int slot;
    zelfon_pattern* p = current(st, &slot);
    if (!p) return;
    studio_pattern_editor* e = &st->pattern;
    start_move(st, extend);
    e->track += tracks;
    st->cursor_line += lines;
    clamp_cursor(st, p);
    e->scroll_to_cursor = 1;
    e->select_all = 0;
}

void move_field(studio* st, int step) {
    zelfon_pattern* p = current(st);
    if (!p) return;
    studio_pattern_editor* e = &st->pattern;
    zelfon_edit_begin(st->song);
    e->field += step;
    if (e->field < 0) {
        if (e->track == 0) e->field = 0;
        else e->track--, e->field = kFields - 1;
    } else if (e->field >= kFields) {
        if (e->track + 1 >= p->channels) e->field = kFields - 1;
        else e->track++, e->field = 0;
    }
    e->has_selection = 0;
    e->scroll_to_cursor = 1;
}

// ---- Notes: live preview, typing and recording ----

int live_slot_for(studio* st, int scancode) {
    studio_pattern_editor* e = &st->pattern;
    for (int i = 0; i < STUDIO_HELD_NOTES; i++) {
        if (e->held_scancode[i] == scancode) return i;
    }
    return -1;
}

void live_note(studio* st, int note, int live_track) {
    zelfon_cell cell = {};
    cell.note = (uint8_t)note;
    cell.vel = (uint8_t)st->pattern.velocity;
    if (st->selected_module >= 0) cell.module = (uint16_t)(st->selected_module + 1);
    zelfon_send_live_cell(&cell, live_track, st->song);
}

// Writes a note at (line) of the cursor's track, with the selected module and velocity.
void write_note(studio* st, int slot, int line, int note) {
    zelfon_cell cell = *zelfon_get_cell(slot, st->pattern.track, line, st->song);
    cell.note = (uint8_t)note;
    if (note != ZELFON_NOTE_OFF) {
        if (st->selected_module >= 0) cell.module = (uint16_t)(st->selected_module + 1);
        if (st->pattern.velocity) cell.vel = (uint8_t)st->pattern.velocity;
    }
    zelfon_edit_begin(st->song);
    report(st, zelfon_edit_type_cell(slot, st->pattern.track, line, &cell, st->song));
}

void advance(studio* st) {
    zelfon_pattern* p = current(st);
    if (!p || st->edit_step == 0) return;
    st->cursor_line = (st->cursor_line + st->edit_step) % p->lines;
    st->pattern.scroll_to_cursor = 1;
}

void handle_note_keys(studio* st, int slot, const zelfon_pattern* p) {
    studio_pattern_editor* e = &st->pattern;
    ImGuiIO& io = ImGui::GetIO();
    if (io.KeyCtrl || io.KeyAlt) return;
    // Released keys end their live notes.
    for (int i = 0; i < STUDIO_HELD_NOTES; i++) {
        if (e->held_scancode[i] && !ImGui::IsKeyDown(e->held_scancode[i])) {
            live_note(st, ZELFON_NOTE_OFF, e->held_track[i]);
            e->held_scancode[i] = 0;
        }
    }
    bool typing_notes = !st->edit_mode || e->field == 0;
    if (!typing_notes) return;
    for (int sc = SDL_SCANCODE_A; sc < SDL_SCANCODE_KP_DIVIDE; sc++) {
        if (!ImGui::IsKeyPressed(sc, false)) continue;
        int key = app_note_key(sc);
        if (key == APP_NOTE_KEY_NONE) continue;
        int note = key == APP_NOTE_KEY_OFF ? ZELFON_NOTE_OFF : st->octave * 12 + key + 1;
        if (key != APP_NOTE_KEY_OFF && note > 120) continue;
        if (note != ZELFON_NOTE_OFF) {
            int free = live_slot_for(st, 0);
            if (free >= 0) {
                e->held_scancode[free] = sc;
                e->held_track[free] = free;
                live_note(st, note, free);
            }
        }
        if (st->edit_mode && p) {
            write_note(st, slot, st->cursor_line, note);
            advance(st);
        }
    }
}

// Hex digits typed into the field under the cursor shift in from the right.
void handle_hex_digits(studio* st, int slot) {
    studio_pattern_editor* e = &st->pattern;
    if (!st->edit_mode || e->field == 0) return;
    ImGuiIO& io = ImGui::GetIO();
    for (int i = 0; i < io.InputQueueCharacters.Size; i++) {
        int ch = io.InputQueueCharacters[i];
        int digit = ch >= '0' && ch <= '9' ? ch - '0' : ch >= 'a' && ch <= 'f' ? ch - 'a' + 10 : ch >= 'A' && ch <= 'F' ? ch - 'A' + 10 : -1;
        if (digit < 0) continue;
        zelfon_cell cell = *zelfon_get_cell(slot, e->track, st->cursor_line, st->song);
        int bits = kFieldChars[e->field] * 4;
        int v = ((field_value(&cell, e->field) << 4) | digit) & ((1 << bits) - 1);
        set_field_value(&cell, e->field, v);
        report(st, zelfon_edit_type_cell(slot, e->track, st->cursor_line, &cell, st->song));
    }
}

void handle_navigation(studio* st) {
    ImGuiIO& io = ImGui::GetIO();
    if (io.KeyCtrl || io.KeyAlt) return;
    bool shift = io.KeyShift;
    zelfon_pattern* p = current(st);
    if (!p) return;
    if (ImGui::IsKeyPressed(SDL_SCANCODE_UP)) move_cursor(st, 0, -1, shift);
    if (ImGui::IsKeyPressed(SDL_SCANCODE_DOWN)) move_cursor(st, 0, 1, shift);
    if (ImGui::IsKeyPressed(SDL_SCANCODE_PAGEUP)) move_cursor(st, 0, -kPageLines, shift);
    if (ImGui::IsKeyPressed(SDL_SCANCODE_PAGEDOWN)) move_cursor(st, 0, kPageLines, shift);
    if (ImGui::IsKeyPressed(SDL_SCANCODE_HOME)) move_cursor(st, 0, -st->cursor_line, shift);
    if (ImGui::IsKeyPressed(SDL_SCANCODE_END)) move_cursor(st, 0, p->lines, shift);
    if (shift && ImGui::IsKeyPressed(SDL_SCANCODE_LEFT)) move_cursor(st, -1, 0, true);
    if (shift && ImGui::IsKeyPressed(SDL_SCANCODE_RIGHT)) move_cursor(st, 1, 0, true);
    if (!shift && ImGui::IsKeyPressed(SDL_SCANCODE_LEFT)) move_field(st, -1);
    if (!shift && ImGui::IsKeyPressed(SDL_SCANCODE_RIGHT)) move_field(st, 1);
    if (ImGui::IsKeyPressed(SDL_SCANCODE_TAB)) {
        st->pattern.field = 0;
        move_cursor(st, shift ? -1 : 1, 0, false);
    }
}

// ---- Drawing ----

struct grid_geometry {
    ImVec2 origin;   // top-left of line 0, track 0's first character
    float char_width;
    float line_height;
    float track_width;
};

void track_header(studio* st, const grid_geometry& g, int tracks, float y, float clip_x0, float clip_x1) {
    ImDrawList* draw = ImGui::GetWindowDrawList();
    uint32_t muted = st->song->muted_tracks.load(std::memory_order_relaxed);
    for (int t = 0; t < tracks; t++) {
        float x = g.origin.x + t * g.track_width;
        if (x + g.track_width < clip_x0 || x > clip_x1) continue;
        ImVec2 a(x, y), b(x + g.track_width - g.char_width, y + g.line_height);
        bool is_muted = muted >> t & 1;
        draw->AddRectFilled(a, b, gui_colour_u32(is_muted ? GUI_COLOUR_BACKGROUND : GUI_COLOUR_PANEL_HEADER));
        char label[32];
        snprintf(label, sizeof label, "%02d%s%s", t, is_muted ? " muted" : "", st->pattern.solo_track == t ? " solo" : "");
        draw->AddText(ImVec2(x + g.char_width / 2, y), gui_colour_u32(is_muted ? GUI_COLOUR_TEXT_DIM : GUI_COLOUR_TEXT), label);
        char id[32];
        snprintf(id, sizeof id, "pattern.track.%d", t);
        gui_item_name_rect(id, a.x, a.y, b.x, b.y);
        if (!ImGui::IsMouseHoveringRect(a, b) || !ImGui::IsWindowHovered()) continue;
        if (ImGui::IsMouseClicked(0)) {
            st->song->muted_tracks.fetch_xor(1u << t);
            st->pattern.solo_track = -1;
        } else if (ImGui::IsMouseClicked(1)) {
            bool solo = st->pattern.solo_track != t;
            st->song->muted_tracks.store(solo ? ~(1u << t) : 0);
            st->pattern.solo_track = solo ? t : -1;
        }
    }
}

// Empty fields are a short dim stroke, not dots: the software renderer pays per glyph.
void draw_cell(ImDrawList* draw, const grid_geometry& g, float x, float y, const zelfon_cell* c) {
    uint32_t dim = gui_colour_u32(GUI_COLOUR_TEXT_DIM, 90), bright = gui_colour_u32(GUI_COLOUR_TEXT);
    const uint32_t accent = gui_colour_u32(GUI_COLOUR_ACCENT_HOVER);
    float mid = y + g.line_height / 2;
    auto empty = [&](int field) {
        float x0 = x + kFieldStart[field] * g.char_width + 1, x1 = x0 + kFieldChars[field] * g.char_width - 2;
        draw->AddLine(ImVec2(x0, mid), ImVec2(x1, mid), dim);
    };
    char text[8];
    if (c->note) {
        app_note_text(c->note, text);
        draw->AddText(ImVec2(x, y), bright, text);
    } else {
        empty(0);
    }
    int values[4] = {c->vel, c->module & 0xFF, c->ctl << 8 | c->effect, c->value};
    bool set[4] = {c->vel != 0, (c->module & 0xFF) != 0, c->ctl || c->effect, c->value != 0};
    for (int f = 1; f < kFields; f++) {
        if (!set[f - 1]) {
            empty(f);
            continue;
        }
        snprintf(text, sizeof text, "%0*X", kFieldChars[f], values[f - 1]);
        draw->AddText(ImVec2(x + kFieldStart[f] * g.char_width, y), f == 3 ? accent : bright, text);
    }
}

// The cell under a point of the grid: track, field and line. Returns false outside.
bool hit_cell(const grid_geometry& g, const zelfon_pattern* p, ImVec2 m, int* track, int* field, int* line) {
    float dx = m.x - g.origin.x, dy = m.y - g.origin.y;
    if (dx < 0 || dy < 0) return false;
    *track = (int)(dx / g.track_width);
    *line = (int)(dy / g.line_height);
    if (*track >= p->channels || *line >= p->lines) return false;
    int ch = (int)((dx - *track * g.track_width) / g.char_width);
    *field = 0;
    for (int f = kFields - 1; f >= 0; f--) {
        if (ch >= kFieldStart[f]) {
            *field = f;
            break;
        }
    }
    return true;
}

void handle_mouse(studio* st, const grid_geometry& g, const zelfon_pattern* p) {
    studio_pattern_editor* e = &st->pattern;
    int track, field, line;
    if (ImGui::IsWindowHovered() && ImGui::IsMouseClicked(0) && hit_cell(g, p, ImGui::GetMousePos(), &track, &field, &line)) {
        st->focus = STUDIO_FOCUS_PATTERN;
        bool extend = ImGui::GetIO().KeyShift;
        start_move(st, extend);
        if (!extend) {
            // A drag from here selects from this cell.
            e->anchor_track = track;
            e->anchor_line = line;
        }
        e->track = track;
        e->field = field;
        st->cursor_line = line;
        e->mouse_selecting = 1;
        e->select_all = 0;
    }
    if (e->mouse_selecting && ImGui::IsMouseDown(0)) {
        ImVec2 m = ImGui::GetMousePos();
        int t = (int)((m.x - g.origin.x) / g.track_width), l = (int)((m.y - g.origin.y) / g.line_height);
        t = t < 0 ? 0 : t >= p->channels ? p->channels - 1 : t;
        l = l < 0 ? 0 : l >= p->lines ? p->lines - 1 : l;
        if (t != e->track || l != st->cursor_line) {
            e->has_selection = 1;
            e->track = t;
            st->cursor_line = l;
        }
    }
    if (!ImGui::IsMouseDown(0)) e->mouse_selecting = 0;
}

// Follow playback: the playing line's pattern becomes the current one and stays in view.
void follow(studio* st) {
    if (!st->follow || !studio_is_playing(st)) return;
    zelfon_song* song = st->song;
    int line = studio_playing_line(st);
    int slot;
    zelfon_pattern* p = current(st, &slot);
    if (p && line >= song->pats_info[slot].x && line < song->pats_info[slot].x + p->lines) return;
    for (int i = 0; i < song->sorted_pats_count; i++) {
        int s = song->sorted_pats[i];
        if (line >= song->pats_info[s].x && line < song->pats_info[s].x + song->pats[s]->lines) {
            st->current_pattern = s;
            return;
        }
    }
}

}  // namespace

void studio_pattern_editor_draw(studio* st) {
    follow(st);
    int slot = -1;
    zelfon_pattern* p = current(st, &slot);
    if (!p) {
        ImGui::TextDisabled("No pattern chosen: pick one in the timeline, or make one there (Insert).");
        return;
    }
    clamp_cursor(st, p);
    zelfon_song* song = st->song;
    studio_pattern_editor* e = &st->pattern;
    ImGui::SameLine();
    ImGui::TextDisabled("  %03d: %d lines x %d tracks%s", slot, p->lines, p->channels,
                        song->pats_info[slot].flags & ZELFON_PATTERN_FLAG_CLONE ? " (clone)" : "");

    ImGui::PushFont(gui_font_mono());
    grid_geometry g;
    g.char_width = ImGui::CalcTextSize("0").x;
    g.line_height = ImGui::GetTextLineHeight();
    g.track_width = kTrackChars * g.char_width;
    ImGui::BeginChild("##pattern_grid", ImVec2(0, 0), false, ImGuiWindowFlags_HorizontalScrollbar | ImGuiWindowFlags_NoNav);
    gui_item_name("pattern.grid");
    bool focused = st->focus == STUDIO_FOCUS_PATTERN;
    if (ImGui::IsWindowHovered() && (ImGui::IsMouseClicked(0) || ImGui::IsMouseClicked(1))) st->focus = STUDIO_FOCUS_PATTERN;

    ImVec2 start = ImGui::GetCursorScreenPos();
    float header_y = start.y + ImGui::GetScrollY();
    g.origin = ImVec2(start.x + kLineNumberChars * g.char_width, start.y + g.line_height);
    // The whole grid's size, so that the scroll bars know it; only what shows is drawn.
    ImGui::Dummy(ImVec2(kLineNumberChars * g.char_width + p->channels * g.track_width, (p->lines + 1) * g.line_height));
    ImDrawList* draw = ImGui::GetWindowDrawList();
    ImVec2 clip0 = ImGui::GetWindowPos(), size = ImGui::GetWindowSize();
    float clip_x0 = clip0.x, clip_x1 = clip0.x + size.x;
    int first = (int)((clip0.y - g.origin.y) / g.line_height) - 1, last = (int)((clip0.y + size.y - g.origin.y) / g.line_height) + 1;
    first = first < 0 ? 0 : first;
    last = last >= p->lines ? p->lines - 1 : last;
    int first_track = (int)((clip_x0 - g.origin.x) / g.track_width), last_track = (int)((clip_x1 - g.origin.x) / g.track_width);
    first_track = first_track < 0 ? 0 : first_track;
    last_track = last_track >= p->channels ? p->channels - 1 : last_track;

    zelfon_cell_rect sel = selection(st, slot);
    int play_row = studio_is_playing(st) ? studio_playing_line(st) - song->pats_info[slot].x : -1;
    int beat = song->lines_per_beat ? song->lines_per_beat : 4;
    float row_x1 = g.origin.x + p->channels * g.track_width;
    for (int l = first; l <= last; l++) {
        float y = g.origin.y + l * g.line_height;
        if (l % beat == 0) draw->AddRectFilled(ImVec2(start.x, y), ImVec2(row_x1, y + g.line_height), gui_colour_u32(GUI_COLOUR_BEAT_SHADE));
        if (l == play_row) draw->AddRectFilled(ImVec2(start.x, y), ImVec2(row_x1, y + g.line_height), gui_colour_u32(GUI_COLOUR_PLAY_LINE, 70));
        if (l == st->cursor_line) draw->AddRectFilled(ImVec2(start.x, y), ImVec2(row_x1, y + g.line_height), gui_colour_u32(GUI_COLOUR_ACCENT, 40));
        char number[16];
        snprintf(number, sizeof number, "%04d", l);
        draw->AddText(ImVec2(start.x + ImGui::GetScrollX(), y), gui_colour_u32(l % beat ? GUI_COLOUR_TEXT_DIM : GUI_COLOUR_TEXT), number);
        for (int t = first_track; t <= last_track; t++) {
            float x = g.origin.x + t * g.track_width;
            if (e->has_selection && in_selection(sel, t, l)) {
                draw->AddRectFilled(ImVec2(x, y), ImVec2(x + g.track_width - g.char_width, y + g.line_height), gui_colour_u32(GUI_COLOUR_ACCENT, 90));
            }
            draw_cell(draw, g, x, y, &p->data[l * p->data_xsize + t]);
        }
    }
    // The cursor's field.
    float cx = g.origin.x + e->track * g.track_width + kFieldStart[e->field] * g.char_width;
    float cy = g.origin.y + st->cursor_line * g.line_height;
    draw->AddRect(ImVec2(cx - 1, cy), ImVec2(cx + kFieldChars[e->field] * g.char_width + 1, cy + g.line_height),
                  gui_colour_u32(st->edit_mode ? GUI_COLOUR_RECORD : GUI_COLOUR_ACCENT_HOVER, focused ? 255 : 120), 0, 0, 2.0f);
    gui_item_name_rect("pattern.cursor", cx, cy, cx + kFieldChars[e->field] * g.char_width, cy + g.line_height);
    for (int l = first; l <= last && l < 64; l++) {
        // Cells near the top are named for scripts: "pattern.cell.TRACK.LINE".
        for (int t = first_track; t <= last_track; t++) {
            char id[40];
            snprintf(id, sizeof id, "pattern.cell.%d.%d", t, l);
            float x = g.origin.x + t * g.track_width, y = g.origin.y + l * g.line_height;
            gui_item_name_rect(id, x, y, x + 3 * g.char_width, y + g.line_height);
        }
    }
    // The header stays on top while the lines scroll.
    draw->AddRectFilled(ImVec2(start.x + ImGui::GetScrollX(), header_y), ImVec2(row_x1, header_y + g.line_height), gui_colour_u32(GUI_COLOUR_PANEL));
    track_header(st, {ImVec2(g.origin.x, header_y), g.char_width, g.line_height, g.track_width}, p->channels, header_y, clip_x0, clip_x1);

    handle_mouse(st, g, p);
    if (e->scroll_to_cursor) {
        float top = ImGui::GetScrollY(), view = size.y - g.line_height * 2;
        float line_y = (st->cursor_line + 1) * g.line_height;
        if (line_y < top + g.line_height || line_y > top + view) ImGui::SetScrollY(line_y - view / 2);
        e->scroll_to_cursor = 0;
    }
    if (st->follow && play_row >= 0) ImGui::SetScrollY((play_row + 1) * g.line_height - size.y / 2);
    ImGui::EndChild();
    ImGui::PopFont();

    bool keys = focused && !ImGui::IsPopupOpen("", ImGuiPopupFlags_AnyPopupId | ImGuiPopupFlags_AnyPopupLevel) &&
                !ImGui::GetIO().WantTextInput;
    if (keys) {
        handle_navigation(st);
        handle_note_keys(st, slot, p);
        handle_hex_digits(st, slot);
    }
}

// ---- Actions ----

void studio_pattern_clear(studio* st, int whole_cells) {
    int slot;
    if (!current(st, &slot)) return;
    zelfon_cell_rect r = selection(st, slot);
    zelfon_edit_begin(st->song);
    report(st, zelfon_edit_clear(&r, whole_cells || st->pattern.has_selection ? ZELFON_FIELD_ALL : field_mask(st->pattern.field), st->song));
    if (!st->pattern.has_selection) advance(st);
}

void studio_pattern_insert_line(studio* st, int insert) {
    int slot;
    if (!current(st, &slot)) return;
    zelfon_cell_rect r = selection(st, slot);
    zelfon_edit_begin(st->song);
    int result = insert ? zelfon_edit_insert_line(slot, r.track, r.tracks, st->cursor_line, st->song)
                        : zelfon_edit_delete_line(slot, r.track, r.tracks, st->cursor_line, st->song);
    report(st, result);
}

void studio_pattern_copy(studio* st, int cut) {
    int slot;
    zelfon_pattern* p = current(st, &slot);
    if (!p) return;
    zelfon_cell_rect r = selection(st, slot);
    zelfon_cell* cells = (zelfon_cell*)mem_new(MEM_DYNAMIC, sizeof(zelfon_cell) * r.tracks * r.lines, "pattern_copy");
    if (!cells) return;
    for (int l = 0; l < r.lines; l++) {
        for (int t = 0; t < r.tracks; t++) cells[l * r.tracks + t] = *zelfon_get_cell(slot, r.track + t, r.line + l, st->song);
    }
    char* text = zelfon_cells_to_text(cells, r.tracks, r.lines);
    mem_free(cells);
    if (!text || SDL_SetClipboardText(text) != 0) studio_status(st, "The clipboard cannot be written");
    else studio_status(st, "%s %d x %d cells", cut ? "Cut" : "Copied", r.tracks, r.lines);
    mem_free(text);
    if (cut) {
        zelfon_edit_begin(st->song);
        report(st, zelfon_edit_clear(&r, ZELFON_FIELD_ALL, st->song));
    }
}

void studio_pattern_paste(studio* st, int mix) {
    int slot;
    if (!current(st, &slot)) return;
    char* text = SDL_GetClipboardText();
    zelfon_cell* cells = nullptr;
    int tracks = 0, lines = 0;
    int result = text ? zelfon_cells_from_text(text, &cells, &tracks, &lines) : ZELFON_EDIT_NOT_A_PATTERN;
    SDL_free(text);
    if (result == ZELFON_EDIT_NOT_A_PATTERN) {
        studio_status(st, "The clipboard holds no pattern cells: nothing pasted");
        return;
    }
    if (result != ZELFON_EDIT_OK) {
        report(st, result);
        return;
    }
    zelfon_cell_rect at = {slot, st->pattern.track, st->cursor_line, tracks, lines};
    zelfon_edit_begin(st->song);
    report(st, zelfon_edit_paste(&at, cells, tracks, lines, mix, st->song));
    mem_free(cells);
}

void studio_pattern_transpose(studio* st, int semitones) {
    int slot;
    if (!current(st, &slot)) return;
    zelfon_cell_rect r = selection(st, slot);
    zelfon_edit_begin(st->song);
    report(st, zelfon_edit_transpose(&r, semitones, st->song));
}

void studio_pattern_interpolate(studio* st) {
    int slot;
    if (!current(st, &slot)) return;
    zelfon_cell_rect r = selection(st, slot);
    zelfon_edit_begin(st->song);
    report(st, zelfon_edit_interpolate(&r, st->song));
}

void studio_pattern_select_all(studio* st) {
    zelfon_pattern* p = current(st);
    if (!p) return;
    studio_pattern_editor* e = &st->pattern;
    e->select_all = e->select_all == 1 ? 2 : 1;
    e->has_selection = 1;
    e->anchor_line = 0;
    st->cursor_line = p->lines - 1;
    if (e->select_all == 1) {
        e->anchor_track = e->track;
    } else {
        e->anchor_track = 0;
        e->track = p->channels - 1;
    }
}

void studio_pattern_midi_note(void* data, int key, int velocity, int on) {
    studio* st = (studio*)data;
    int slot;
    zelfon_pattern* p = current(st, &slot);
    if (!st->edit_mode || !p) return;
    // Stopped: at the cursor, which then advances. Playing: at the playing line.
    bool playing = studio_is_playing(st);
    int line = playing ? studio_playing_line(st) - st->song->pats_info[slot].x : st->cursor_line;
    if (line < 0 || line >= p->lines) return;
    if (!on && !playing) return;  // stopped: releases are not written
    int note = on ? key + 1 : ZELFON_NOTE_OFF;
    if (note > 120) return;
    zelfon_cell cell = *zelfon_get_cell(slot, st->pattern.track, line, st->song);
    cell.note = (uint8_t)note;
    if (on) {
        cell.vel = (uint8_t)(velocity + 1);  // MIDI 0..127 → velocity 0..254
        if (st->selected_module >= 0) cell.module = (uint16_t)(st->selected_module + 1);
    }
    zelfon_edit_begin(st->song);
    report(st, zelfon_edit_type_cell(slot, st->pattern.track, line, &cell, st->song));
    if (!playing) advance(st);
}

void studio_undo(studio* st, int redo) {
    zelfon_edit_place place;
    if (!(redo ? zelfon_redo(&place, st->song) : zelfon_undo(&place, st->song))) {
        studio_status(st, redo ? "Nothing to redo" : "Nothing to undo");
        return;
    }
    studio_song_changed(st);
    if (place.module > 0 && place.module < st->song->net->slots) st->selected_module = place.module;
    // The cursor goes back to where the edit was.
    if (place.slot >= 0 && place.slot < st->song->pats_capacity && st->song->pats[place.slot]) {
        st->current_pattern = place.slot;
        st->pattern.track = place.track;
        st->cursor_line = place.line;
        st->pattern.has_selection = 0;
        st->pattern.scroll_to_cursor = 1;
    }
}
