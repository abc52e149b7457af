// The transport bar: play, play from the cursor, play the pattern in a loop, stop, edit
// mode; the song's tempo, speed and volume; octave and edit step; the playing position
// as line and time; CPU load, underruns, the output's scope and level meter.
#include <SDL.h>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <imgui.h>

#include "app/studio_windows.h"
#include "engine/profile.h"
#include "engine/sound.h"
#include "gui/gui_fields.h"
#include "gui/gui_fonts.h"
#include "gui/gui_items.h"
#include "gui/gui_theme.h"
#include "song/playback.h"

namespace {

constexpr int kCpuEveryMs = 500;

// Frames per line at the song's tempo, in 1/256 frame.
int64_t line_length(const studio* st) {
    return (int64_t)psynth_tick_length(st->song->net->sampling_rate, st->song->bpm) * st->song->speed;
}

void position_text(const studio* st, int line, char* out, size_t size) {
    double seconds = (double)line * (double)line_length(st) / 256.0 / st->song->net->sampling_rate;
    int whole = (int)seconds;
    snprintf(out, size, "%04d/%04d  %d:%02d.%d", line, st->song->song_lines, whole / 60, whole % 60,
             (int)((seconds - whole) * 10));
}

bool transport_button(const char* label, const char* id, bool active, gui_colour colour = GUI_COLOUR_ACCENT) {
    if (active) ImGui::PushStyleColor(ImGuiCol_Button, ImGui::ColorConvertU32ToFloat4(gui_colour_u32(colour)));
    bool pressed = ImGui::Button(label);
    if (active) ImGui::PopStyleColor();
    gui_item_name(id);
    return pressed;
}

// Without a sound device nothing renders: say so instead of posting commands nobody takes.
bool can_play(studio* st) {
    if (st->sound_ok) return true;
    studio_status(st, "No sound device is open: choose one in Edit > Preferences");
    return false;
}

}  // namespace

void studio_toggle_stop_at_end(studio* st) {
    st->stop_at_end = !st->stop_at_end;
    zelfon_set_stop_at_end(st->stop_at_end, st->song);
    profile_set_str_value("stopatend", st->stop_at_end ? "1" : "0", nullptr);
    if (studio_profile_save(st)) studio_status(st, "The preference could not be saved in the settings file");
}

void studio_play_song(studio* st) {
    if (!can_play(st)) return;
    zelfon_play(0, st->song);
}

void studio_play_from_cursor(studio* st) {
    if (!can_play(st)) return;
    int line = st->cursor_line;
    if (st->current_pattern >= 0 && st->current_pattern < st->song->pats_capacity && st->song->pats[st->current_pattern]) {
        line += st->song->pats_info[st->current_pattern].x;
    }
    zelfon_play(line < 0 ? 0 : line, st->song);
}

void studio_play_pattern(studio* st) {
    if (!can_play(st)) return;
    if (st->current_pattern < 0) {
        studio_status(st, "Choose a pattern to play in a loop");
        return;
    }
    zelfon_play_pattern(st->current_pattern, st->song);
}

void studio_stop(studio* st) {
    if (!st->sound_ok && !studio_is_playing(st)) return;  // no render thread: nothing to stop or clean
    zelfon_stop(st->song);
}

void studio_play_stop(studio* st) {
    if (studio_is_playing(st)) studio_stop(st);
    else studio_play_song(st);
}

void studio_transport_update(studio* st, float seconds) {
    // While a pattern plays in a loop, the next loop plays the pattern the cursor is in.
    zelfon_song* song = st->song;
    if (studio_is_playing(st) && song->looped_pattern >= 0 && st->current_pattern >= 0 &&
        song->looped_pattern != st->current_pattern && song->next_looped_pattern != st->current_pattern) {
        zelfon_set_next_looped_pattern(st->current_pattern, song);
    }
    // Without a device the scope and meter fall silent instead of holding the last sound.
    int got = st->sound_ok ? sound_stream_read_scope(st->scope, STUDIO_SCOPE_FRAMES) : 0;
    if (got < STUDIO_SCOPE_FRAMES) memset(st->scope + got * 2, 0, sizeof(float) * 2 * (STUDIO_SCOPE_FRAMES - got));
    // The meter reads the newest part: about one frame's worth of sound.
    int recent = (int)(st->rate * seconds);
    recent = recent < 64 ? 64 : recent > STUDIO_SCOPE_FRAMES ? STUDIO_SCOPE_FRAMES : recent;
    gui_level_update(&st->level, st->scope + (STUDIO_SCOPE_FRAMES - recent) * 2, recent, seconds);
    if (st->sound_ok) st->underruns = sound_stream_underruns();
    uint32_t now = SDL_GetTicks();
    if (now - st->cpu_last_ms >= (uint32_t)kCpuEveryMs) {
        st->cpu_last_ms = now;
        // The accumulators are shared with the render: a short hold of the net's mutex.
        psynth_net* net = st->song->net;
        tarvik_mutex_lock(&net->mutex);
        psynth_compute_cpu_usage(net);
        tarvik_mutex_unlock(&net->mutex);
        st->cpu_load = studio_is_playing(st) || st->sound_ok ? net->cpu_total : 0;
        st->cpu_history[st->cpu_history_pos] = (float)st->cpu_load;
        st->cpu_history_pos = (st->cpu_history_pos + 1) % STUDIO_CPU_HISTORY;
    }
}

void studio_transport_draw(studio* st) {
    zelfon_song* song = st->song;
    bool playing = studio_is_playing(st);
    float em = ImGui::GetFontSize();

    if (transport_button(playing ? " || " : " |> ", "transport.play", playing)) studio_play_stop(st);
    if (ImGui::IsItemHovered()) ImGui::SetTooltip("Play song / stop (Space)");
    ImGui::SameLine();
    if (transport_button(" >| ", "transport.play_cursor", false)) studio_play_from_cursor(st);
    if (ImGui::IsItemHovered()) ImGui::SetTooltip("Play from the cursor line (Shift+Space)");
    ImGui::SameLine();
    if (transport_button(" (o) ", "transport.play_pattern", playing && song->looped_pattern >= 0)) studio_play_pattern(st);
    if (ImGui::IsItemHovered()) ImGui::SetTooltip("Play the current pattern in a loop (Ctrl+Space)");
    ImGui::SameLine();
    if (transport_button(" [] ", "transport.stop", false)) studio_stop(st);
    if (ImGui::IsItemHovered()) ImGui::SetTooltip("Stop");
    ImGui::SameLine();
    if (transport_button(" REC ", "transport.edit", st->edit_mode, GUI_COLOUR_RECORD)) st->edit_mode = !st->edit_mode;
    if (ImGui::IsItemHovered()) ImGui::SetTooltip("Edit mode (Esc)");
    ImGui::SameLine();
    if (transport_button("Follow", "transport.follow", st->follow)) st->follow = !st->follow;

    ImGui::SameLine();
    char position[64];
    position_text(st, playing ? studio_playing_line(st) : st->cursor_line, position, sizeof position);
    ImGui::PushFont(gui_font_mono());
    ImGui::TextColored(ImGui::ColorConvertU32ToFloat4(gui_colour_u32(playing ? GUI_COLOUR_PLAY_LINE : GUI_COLOUR_TEXT)),
                       " %s ", position);
    ImGui::PopFont();
    gui_item_name("transport.position");

    ImGui::SameLine();
    ImGui::TextDisabled("CPU %3d%%", st->cpu_load);
    if (st->underruns) {
        ImGui::SameLine();
        ImGui::TextColored(ImGui::ColorConvertU32ToFloat4(gui_colour_u32(GUI_COLOUR_WARNING)), "xruns %u", st->underruns);
    }

    // Second row: the song's values and the musician's.
    int bpm = song->bpm, speed = song->speed, volume = song->net->global_volume;
    ImGui::AlignTextToFramePadding();
    ImGui::TextUnformatted("BPM");
    ImGui::SameLine();
    bool changed = gui_int_field("transport.bpm", &bpm, ZELFON_BPM_MIN, ZELFON_BPM_MAX, em * 6);
    ImGui::SameLine();
    ImGui::TextUnformatted("Speed");
    ImGui::SameLine();
    changed |= gui_int_field("transport.speed", &speed, 1, 31, em * 5) != 0;
    ImGui::SameLine();
    ImGui::TextUnformatted("Vol");
    ImGui::SameLine();
    changed |= gui_int_field("transport.volume", &volume, 0, 512, em * 5.5f) != 0;
    if (changed) {
        char name[256];  // a copy: the edit replaces the song's own
        snprintf(name, sizeof name, "%s", song->name ? song->name : "");
        studio_edit_song_properties(st, name, bpm, speed, volume);
    }
    ImGui::SameLine();
    ImGui::TextUnformatted("Oct");
    ImGui::SameLine();
    gui_int_field("transport.octave", &st->octave, 0, 9, em * 4.5f);
    ImGui::SameLine();
    ImGui::TextUnformatted("Step");
    ImGui::SameLine();
    gui_int_field("transport.step", &st->edit_step, 0, 64, em * 4.5f);
    ImGui::SameLine();
    float left = ImGui::GetContentRegionAvail().x - ImGui::GetStyle().ItemSpacing.x;
    float meter_width = left / 2 < em * 8 ? left / 2 : em * 8;
    gui_scope("transport.scope", st->scope, STUDIO_SCOPE_FRAMES, meter_width, ImGui::GetFrameHeight());
    ImGui::SameLine();
    gui_level_meter("transport.level", &st->level, meter_width, ImGui::GetFrameHeight());
}
