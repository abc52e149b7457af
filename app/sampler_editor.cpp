// The Sampler editor, a tab of a Sampler's module window: the 16 sample slots; the chosen
// sample's waveform with zoom, scroll, a selection and the loop's handles, its editing
// commands and header; the note map as a piano strip (drag over keys to give them the
// sample); the volume and panning envelopes as point editors; vibrato and fade-out; and
// the file commands (load into the slot or as the whole instrument, save as WAV or XI,
// new sample, recording). Every change is an undoable edit (song/edit_sampler.h).
#include <SDL.h>
#include <imgui.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "app/studio_windows.h"
#include "engine/memory.h"
#include "gui/gui_fields.h"
#include "gui/gui_items.h"
#include "gui/gui_theme.h"
#include "psynth/sample_file.h"
#include "song/edit_sampler.h"

namespace {

constexpr const char* kSampleMask = "wav/aif/aiff/aifc/raw/jpg/jpeg";
constexpr const char* kInstrumentMask = "xi/wav/aif/aiff/aifc/raw/jpg/jpeg";
constexpr float kHandleReach = 5.0f;       // pixels either side of a loop handle that take it
constexpr double kMinFramesPerPixel = 1.0 / 16;
constexpr int kWaveLines = 7;              // the waveform's height in text lines
constexpr float kWaveMargin = 8.0f;        // pixels left and right of the sample
constexpr const char* kLoopKinds[] = {"Off", "Forward", "Ping-pong"};
constexpr const char* kVibratoTypes[] = {"Sine", "Ramp down", "Square", "None"};
constexpr const char* kFormats[] = {"8 bit", "16 bit", "32 bit float"};
constexpr int kNewSampleFramesMax = 1 << 28;

// What the editor reads of the module this frame.
struct sampler_now {
    psynth_sampler_instrument* ins;
    psynth_sampler_sample* header;  // of the chosen slot, or null
    const void* frames;             // null when the slot holds no playable sample
    int64_t length;
    int format, channels, rate;
};

sampler_now read_sampler(studio* st, int mod, int slot) {
    psynth_net* net = st->song->net;
    sampler_now now = {};
    now.ins = (psynth_sampler_instrument*)psynth_get_chunk(mod, PSYNTH_SAMPLER_INSTRUMENT_CHUNK, net);
    now.header = (psynth_sampler_sample*)psynth_get_chunk(mod, psynth_sampler_header_chunk(slot), net);
    if (!now.header) return now;
    int size = 0, flags = 0, rate = 0;
    const void* frames = psynth_get_chunk(mod, psynth_sampler_data_chunk(slot), net);
    psynth_get_chunk_info(mod, psynth_sampler_data_chunk(slot), &size, &flags, &rate, net);
    now.format = (now.header->type & PSYNTH_SAMPLER_FORMAT_MASK) >> PSYNTH_SAMPLER_FORMAT_SHIFT;
    now.channels = now.header->type & PSYNTH_SAMPLER_STEREO ? 2 : 1;
    now.rate = rate;
    static constexpr int kBytes[] = {1, 2, 4};
    int64_t bytes = (int64_t)now.header->length * now.channels * kBytes[std::clamp(now.format, 0, 2)];
    if (frames && now.header->length > 0 && size >= bytes && now.format <= PSYNTH_SAMPLER_FORMAT_FLOAT32) {
        now.frames = frames;
        now.length = now.header->length;
    }
    return now;
}

void report(studio* st, int result) {
    switch (result) {
    case ZELFON_EDIT_OK: studio_song_changed(st); break;
    case ZELFON_EDIT_NO_SAMPLE: studio_status(st, "The slot holds no sample"); break;
    case ZELFON_EDIT_OUTSIDE: studio_status(st, "Outside the sample or its range: nothing changed"); break;
    case ZELFON_EDIT_NO_MEMORY: studio_status(st, "Not enough memory: nothing changed"); break;
    default: studio_status(st, "Nothing changed"); break;
    }
}

// A button that starts an undo step of its own.
bool step_button(studio* st, const char* label, const char* id) {
    bool pressed = ImGui::Button(label);
    gui_item_name(id);
    if (pressed) zelfon_edit_begin(st->song);
    return pressed;
}

// The overview follows the frames shown: a new block (an edit, undo, another slot) rebuilds it.
void follow_frames(studio_sampler_view* v, const sampler_now& now) {
    int type = now.format | now.channels << 4;
    if (v->wave_frames == now.frames && v->wave_length == now.length && v->wave_type == type) return;
    v->wave_frames = now.frames;
    v->wave_length = now.length;
    v->wave_type = type;
    if (gui_waveform_set(&v->wave, now.frames, now.format, now.channels, now.length)) gui_waveform_free(&v->wave);
    if (v->first >= now.length) v->first = 0;
    if (v->sel_start + v->sel_length > now.length) v->sel_start = v->sel_length = 0;
}

// The new-sample questions: the format ("32bit(float);16bit;8bit"), then the channels,
// then the dialog of size and rate.
void answer_new_channels(int button, void* data) {
    studio* st = (studio*)data;
    if (button < 0 || button > 1) return;
    st->new_sample.channels = button == 0 ? 2 : 1;
    st->new_sample.open = 1;
}

void answer_new_format(int button, void* data) {
    studio* st = (studio*)data;
    static constexpr int kBits[] = {32, 16, 8};
    if (button < 0 || button > 2) return;
    st->new_sample.bits = kBits[button];
    studio_message(st, PSYNTH_SAMPLE_BOX_CHANNELS, PSYNTH_SAMPLE_BOX_CHANNEL_CHOICES, answer_new_channels, st);
}

void draw_files(studio* st, int mod, studio_sampler_view* v) {
    auto choose = [&](int purpose, const char* title, const char* mask, int save, int slot) {
        st->sampler_target_mod = mod;
        st->sampler_target_slot = slot;
        studio_files_dialog(st, purpose, title, mask, save, "");
    };
    if (ImGui::Button(PSYNTH_SAMPLE_MENU_LOAD_SAMPLE)) choose(STUDIO_FILE_SAMPLER_LOAD, PSYNTH_SAMPLE_MENU_LOAD_SAMPLE, kSampleMask, 0, v->slot);
    gui_item_name("sampler.load_sample");
    ImGui::SameLine();
    if (ImGui::Button(PSYNTH_SAMPLE_MENU_LOAD_INSTRUMENT)) {
        choose(STUDIO_FILE_SAMPLER_LOAD, PSYNTH_SAMPLE_MENU_LOAD_INSTRUMENT, kInstrumentMask, 0, PSYNTH_SAMPLE_SLOT_INSTRUMENT);
    }
    gui_item_name("sampler.load_instrument");
    if (ImGui::Button(PSYNTH_SAMPLE_MENU_SAVE)) choose(STUDIO_FILE_SAMPLER_SAVE_WAV, PSYNTH_SAMPLE_MENU_SAVE, "wav", 1, v->slot);
    gui_item_name("sampler.save_sample");
    ImGui::SameLine();
    if (ImGui::Button("Save instrument (XI)")) choose(STUDIO_FILE_SAMPLER_SAVE_XI, "Save instrument (XI)", "xi", 1, -1);
    gui_item_name("sampler.save_instrument");
    ImGui::SameLine();
    if (ImGui::Button("New sample")) {
        st->new_sample = studio_new_sample{0, mod, v->slot, 0, 0, 44100, 44100};
        studio_message(st, PSYNTH_SAMPLE_BOX_DATA_FORMAT, PSYNTH_SAMPLE_BOX_NEW_FORMATS, answer_new_format, st);
    }
    gui_item_name("sampler.new_sample");
    ImGui::SameLine();
    if (ImGui::Button(v->recording ? "Stop recording" : "Record")) {
        if (v->recording) {
            v->recording = 0;
            zelfon_edit_begin(st->song);
            report(st, zelfon_edit_sample_from_recording(mod, v->slot, st->song->net->sampling_rate, st->song));
        } else if (zelfon_sampler_record(mod, 1, 0, st->song) == ZELFON_EDIT_OK) {
            v->recording = 1;
            studio_status(st, "Recording the Sampler's input into sample %d", v->slot);
        }
    }
    gui_item_name("sampler.record");
}

void draw_slots(studio* st, const sampler_now& now, int mod, studio_sampler_view* v) {
    psynth_net* net = st->song->net;
    for (int s = 0; s < PSYNTH_SAMPLER_SAMPLES; s++) {
        const psynth_sampler_sample* h = (const psynth_sampler_sample*)psynth_get_chunk(mod, psynth_sampler_header_chunk(s), net);
        char label[16], id[32];
        snprintf(label, sizeof label, "%X", s);
        if (s) ImGui::SameLine();
        bool chosen = s == v->slot, used = h && h->length > 0;
        if (chosen) ImGui::PushStyleColor(ImGuiCol_Button, gui_colour_u32(GUI_COLOUR_ACCENT));
        else if (!used) ImGui::PushStyleColor(ImGuiCol_Text, gui_colour_u32(GUI_COLOUR_TEXT_DIM));
        if (ImGui::Button(label)) {
            v->slot = s;
            v->sel_start = v->sel_length = 0;
            v->frames_per_pixel = 0;
            v->first = 0;
        }
        ImGui::PopStyleColor();
        snprintf(id, sizeof id, "sampler.slot.%d", s);
        gui_item_name(id);
        if (used && ImGui::IsItemHovered()) ImGui::SetTooltip("%.22s: %u frames", h->name, h->length);
    }
    if (now.header && now.length) {
        ImGui::Text("%.22s  %lld frames, %s, %s, %d Hz", now.header->name, (long long)now.length,
                    kFormats[std::clamp(now.format, 0, 2)], now.channels == 2 ? "stereo" : "mono", now.rate);
    } else {
        ImGui::TextDisabled("Sample %d is empty: load one, make a new one or record", v->slot);
    }
}

// The frame under an x on the view, at `fpp` frames per pixel.
int64_t frame_at(const studio_sampler_view* v, double fpp, float x, float left, int64_t length) {
    double f = v->first + (x - left) * fpp;
    return std::clamp<int64_t>((int64_t)std::llround(f), 0, length);
}

void draw_wave(studio* st, const sampler_now& now, int mod, studio_sampler_view* v) {
    float full = ImGui::GetContentRegionAvail().x, height = ImGui::GetTextLineHeightWithSpacing() * kWaveLines;
    ImGui::InvisibleButton("##wave", ImVec2(full, height));
    gui_item_name("sampler.wave");
    ImVec2 outer_a = ImGui::GetItemRectMin(), outer_b = ImGui::GetItemRectMax();
    ImDrawList* draw = ImGui::GetWindowDrawList();
    draw->AddRectFilled(outer_a, outer_b, gui_colour_u32(GUI_COLOUR_BACKGROUND));
    // The sample between margins, so that handles at its ends stay within reach.
    ImVec2 a(outer_a.x + kWaveMargin, outer_a.y), b(outer_b.x - kWaveMargin, outer_b.y);
    float width = b.x - a.x;
    if (!now.frames || width < 2) return;
    double fit = (double)now.length / width;
    // Zoomed out to the whole sample (0) the view follows the width.
    if (v->frames_per_pixel >= fit) v->frames_per_pixel = 0;
    double fpp = v->frames_per_pixel > 0 ? v->frames_per_pixel : fit;
    if (v->frames_per_pixel <= 0) v->first = 0;
    double span = width * fpp;
    v->first = std::clamp(v->first, 0.0, std::max(0.0, now.length - span));
    auto x_of = [&](int64_t f) { return a.x + (float)((f - v->first) / fpp); };

    // Zoom around the mouse with the wheel, scroll with Shift and the wheel.
    ImGuiIO& io = ImGui::GetIO();
    if (ImGui::IsItemHovered() && io.MouseWheel != 0) {
        if (io.KeyShift) {
            v->first -= io.MouseWheel * span / 8;
        } else {
            double at = v->first + (io.MousePos.x - a.x) * fpp;
            fpp = std::clamp(fpp * (io.MouseWheel > 0 ? 0.8 : 1.25), kMinFramesPerPixel, fit);
            v->frames_per_pixel = fpp < fit ? fpp : 0;
            v->first = at - (io.MousePos.x - a.x) * fpp;
        }
        span = width * fpp;
        v->first = std::clamp(v->first, 0.0, std::max(0.0, now.length - span));
    }

    // The selection under the waveform, then the waveform, then the loop.
    if (v->sel_length > 0) {
        float x0 = std::max(a.x, x_of(v->sel_start)), x1 = std::min(b.x, x_of(v->sel_start + v->sel_length));
        if (x1 > x0) draw->AddRectFilled(ImVec2(x0, a.y), ImVec2(x1, b.y), gui_colour_u32(GUI_COLOUR_ACCENT, 90));
    }
    draw->PushClipRect(outer_a, outer_b, true);
    gui_waveform_draw(draw, &v->wave, a, b, v->first, fpp, gui_colour_u32(GUI_COLOUR_SCOPE));
    const psynth_sampler_sample header = *now.header, *h = &header;  // a copy: an edit here frees the chunk
    int loop = h->type & PSYNTH_SAMPLER_LOOP_MASK;
    float loop_x[2] = {x_of(h->loop_start), x_of((int64_t)h->loop_start + h->loop_length)};
    if (loop != PSYNTH_SAMPLER_LOOP_OFF) {
        for (int i = 0; i < 2; i++) {
            draw->AddLine(ImVec2(loop_x[i], a.y), ImVec2(loop_x[i], b.y), gui_colour_u32(GUI_COLOUR_WARNING), 2.0f);
            draw->AddRectFilled(ImVec2(loop_x[i] - 4, a.y), ImVec2(loop_x[i] + 4, a.y + 8), gui_colour_u32(GUI_COLOUR_WARNING));
            gui_item_name_rect(i ? "sampler.loop_end" : "sampler.loop_start", loop_x[i] - 3, a.y, loop_x[i] + 3, b.y);
        }
    }
    draw->PopClipRect();

    // The mouse: a loop handle when pressed on one, else a selection.
    int64_t at = frame_at(v, fpp, io.MousePos.x, a.x, now.length);
    if (ImGui::IsItemActivated()) {
        v->handle = 0;
        for (int i = 0; i < 2 && loop != PSYNTH_SAMPLER_LOOP_OFF; i++) {
            if (std::fabs(io.MousePos.x - loop_x[i]) <= kHandleReach) v->handle = i + 1;
        }
        if (!v->handle) v->sel_anchor = at, v->sel_start = at, v->sel_length = 0;
    } else if (ImGui::IsItemActive()) {
        if (v->handle) {
            int64_t start = h->loop_start, end = (int64_t)h->loop_start + h->loop_length;
            if (v->handle == 1) start = std::min(at, end - 1);
            else end = std::max(at, start + 1);
            if (start != h->loop_start || end - start != h->loop_length) {
                report(st, zelfon_edit_sample_loop(mod, v->slot, (int)start, (int)(end - start), loop, st->song));
            }
        } else {
            v->sel_start = std::min(at, v->sel_anchor);
            v->sel_length = std::max(at, v->sel_anchor) - v->sel_start;
        }
    }
    if (ImGui::IsItemHovered() && ImGui::IsMouseDoubleClicked(ImGuiMouseButton_Left)) v->sel_start = 0, v->sel_length = now.length;

    // The view's place in the sample, as a scrollbar when zoomed in.
    if (span < now.length) {
        float first = (float)v->first;
        ImGui::SetNextItemWidth(width);
        if (ImGui::SliderFloat("##scroll", &first, 0, (float)(now.length - span), "")) v->first = first;
        gui_item_name("sampler.scroll");
    }
}

void draw_commands(studio* st, const sampler_now& now, int mod, studio_sampler_view* v) {
    bool whole = v->sel_length <= 0;
    int start = whole ? 0 : (int)v->sel_start, length = whole ? (int)now.length : (int)v->sel_length;
    if (whole) ImGui::TextDisabled("No selection: the commands take the whole sample");
    else ImGui::Text("Selection: %d + %d frames", start, length);
    if (step_button(st, "Cut", "sampler.cut")) {
        zelfon_sample_clip* clip = nullptr;
        report(st, zelfon_edit_sample_cut(mod, v->slot, start, length, &clip, st->song));
        if (clip) mem_free(st->sample_clip), st->sample_clip = clip;
        v->sel_length = 0;
    }
    ImGui::SameLine();
    if (ImGui::Button("Copy")) {
        if (zelfon_sample_clip* clip = zelfon_sample_copy(mod, v->slot, start, length, st->song)) {
            mem_free(st->sample_clip);
            st->sample_clip = clip;
            studio_status(st, "Copied %d frames", length);
        }
    }
    gui_item_name("sampler.copy");
    ImGui::SameLine();
    if (step_button(st, "Paste", "sampler.paste") && st->sample_clip) {
        int at = v->sel_length > 0 ? start : (int)now.length;
        report(st, zelfon_edit_sample_paste(mod, v->slot, at, v->sel_length > 0 ? length : 0, st->sample_clip, st->song));
    }
    ImGui::SameLine();
    if (step_button(st, "Crop", "sampler.crop")) report(st, zelfon_edit_sample_crop(mod, v->slot, start, length, st->song));
    ImGui::SameLine();
    if (step_button(st, "Reverse", "sampler.reverse")) report(st, zelfon_edit_sample_reverse(mod, v->slot, start, length, st->song));
    ImGui::SameLine();
    if (step_button(st, "Normalize", "sampler.normalize")) {
        report(st, zelfon_edit_sample_normalize(mod, v->slot, start, length, st->song));
    }
    ImGui::SameLine();
    if (step_button(st, "Fade in", "sampler.fade_in")) report(st, zelfon_edit_sample_fade(mod, v->slot, start, length, 1, st->song));
    ImGui::SameLine();
    if (step_button(st, "Fade out", "sampler.fade_out")) report(st, zelfon_edit_sample_fade(mod, v->slot, start, length, 0, st->song));

    if (v->number <= 0) v->number = now.rate > 0 ? now.rate : 44100;
    gui_int_field("sampler.number", &v->number, 1, 1 << 28, ImGui::GetFontSize() * 9);
    ImGui::SameLine();
    if (step_button(st, "Change base sampling frequency", "sampler.set_rate")) {
        report(st, zelfon_edit_sample_set_rate(mod, v->slot, v->number, st->song));
    }
    if (step_button(st, "Resample (with new frequency)", "sampler.resample_rate")) {
        report(st, zelfon_edit_sample_resample_rate(mod, v->slot, v->number, st->song));
    }
    ImGui::SameLine();
    if (step_button(st, "Resample (with new length)", "sampler.resample_length")) {
        report(st, zelfon_edit_sample_resample_length(mod, v->slot, v->number, st->song));
    }
}

void draw_header(studio* st, const sampler_now& now, int mod, studio_sampler_view* v) {
    const psynth_sampler_sample header = *now.header, *h = &header;  // a copy: an edit here frees the chunk
    float field = ImGui::GetFontSize() * 6.5f;
    int loop = h->type & PSYNTH_SAMPLER_LOOP_MASK;
    ImGui::TextUnformatted("Loop");
    for (int kind = 0; kind < 3; kind++) {
        ImGui::SameLine();
        if (ImGui::RadioButton(kLoopKinds[kind], loop == kind) && loop != kind) {
            zelfon_edit_begin(st->song);
            int start = h->loop_start, length = h->loop_length;
            if (length <= 0 || (int64_t)start + length > now.length) start = 0, length = (int)now.length;  // a new loop: the whole sample
            report(st, zelfon_edit_sample_loop(mod, v->slot, start, length, kind, st->song));
        }
        char id[32];
        snprintf(id, sizeof id, "sampler.loop.%d", kind);
        gui_item_name(id);
    }
    int volume = h->volume, panning = h->panning, note = h->relative_note, finetune = h->finetune;
    bool changed = false;
    changed |= gui_labelled_int_field("Volume", "sampler.volume", &volume, 0, 64, field, true) != 0;
    ImGui::SameLine();
    changed |= gui_labelled_int_field("Panning", "sampler.panning", &panning, 0, 255, field, true) != 0;
    ImGui::SameLine();
    changed |= gui_labelled_int_field("Relative note", "sampler.relative_note", &note, -96, 95, field, true) != 0;
    ImGui::SameLine();
    changed |= gui_labelled_int_field("Finetune", "sampler.finetune", &finetune, -128, 127, field, true) != 0;
    if (changed) {
        zelfon_edit_begin(st->song);
        report(st, zelfon_edit_sample_header(mod, v->slot, volume, panning, note, finetune, st->song));
    }
}

// The note map: one key a note, coloured by its sample; a drag over keys gives them the
// chosen sample.
void draw_note_map(studio* st, const psynth_sampler_instrument* ins, int mod, studio_sampler_view* v) {
    float width = ImGui::GetContentRegionAvail().x, key = width / PSYNTH_SAMPLER_NOTES;
    float height = ImGui::GetTextLineHeight() * 1.5f;
    ImGui::InvisibleButton("##notes", ImVec2(width, height));
    gui_item_name("sampler.notes");
    ImVec2 a = ImGui::GetItemRectMin();
    ImDrawList* draw = ImGui::GetWindowDrawList();
    auto note_at = [&](float x) { return std::clamp((int)((x - a.x) / key), 0, PSYNTH_SAMPLER_NOTES - 1); };
    int hover_from = -1, hover_to = -1;
    if (v->piano_from >= 0) {
        int now = note_at(ImGui::GetIO().MousePos.x);
        hover_from = std::min(now, v->piano_from), hover_to = std::max(now, v->piano_from);
    }
    for (int n = 0; n < PSYNTH_SAMPLER_NOTES; n++) {
        int sample = ins->sample_map[n];
        float x0 = a.x + n * key, x1 = x0 + key - 1;
        bool black = (0x54A >> (n % 12)) & 1;  // C# D# F# G# A#
        ImU32 colour = ImColor::HSV((sample % 16) / 16.0f, sample == v->slot ? 0.7f : 0.35f, black ? 0.45f : 0.8f);
        if (n >= hover_from && n <= hover_to) colour = gui_colour_u32(GUI_COLOUR_ACCENT_HOVER);
        draw->AddRectFilled(ImVec2(x0, a.y), ImVec2(x1, a.y + height), colour);
        char id[32];
        snprintf(id, sizeof id, "sampler.key.%d", n);
        gui_item_name_rect(id, x0, a.y, x1, a.y + height);
        if (n % 12 == 0) {
            char octave[8];
            snprintf(octave, sizeof octave, "%d", n / 12);
            draw->AddText(ImVec2(x0 + 1, a.y), IM_COL32(0, 0, 0, 255), octave);
        }
    }
    if (ImGui::IsItemActivated()) v->piano_from = note_at(ImGui::GetIO().MousePos.x);
    if (v->piano_from >= 0 && !ImGui::IsMouseDown(ImGuiMouseButton_Left)) {
        int now = note_at(ImGui::GetIO().MousePos.x);
        report(st, zelfon_edit_sampler_note_map(mod, std::min(now, v->piano_from), std::max(now, v->piano_from), v->slot, st->song));
        v->piano_from = -1;
    }
}

void draw_envelope(studio* st, const psynth_sampler_instrument* ins, int mod, studio_sampler_view* v, int env) {
    bool volume = env == ZELFON_SAMPLER_ENV_VOLUME;
    const psynth_sampler_env_point* stored = volume ? ins->volume_points : ins->panning_points;
    int count = std::min<int>(volume ? ins->volume_points_num : ins->panning_points_num, PSYNTH_SAMPLER_ENV_POINTS);
    int type = volume ? ins->volume_type : ins->panning_type;
    int sustain = volume ? ins->volume_sustain : ins->panning_sustain;
    int loop_start = volume ? ins->volume_loop_start : ins->panning_loop_start;
    int loop_end = volume ? ins->volume_loop_end : ins->panning_loop_end;
    const char* name = volume ? "volume" : "panning";
    char id[48];

    ImGui::TextUnformatted(volume ? "Volume envelope" : "Panning envelope");
    bool on = type & PSYNTH_SAMPLER_ENV_ON, sus = type & PSYNTH_SAMPLER_ENV_SUSTAIN, loop = type & PSYNTH_SAMPLER_ENV_LOOP;
    bool changed = false;
    ImGui::SameLine();
    snprintf(id, sizeof id, "On##%s", name);
    changed |= ImGui::Checkbox(id, &on);
    snprintf(id, sizeof id, "sampler.env.%s.on", name);
    gui_item_name(id);
    ImGui::SameLine();
    snprintf(id, sizeof id, "Sustain##%s", name);
    changed |= ImGui::Checkbox(id, &sus);
    ImGui::SameLine();
    snprintf(id, sizeof id, "Loop##%s", name);
    changed |= ImGui::Checkbox(id, &loop);
    float field = ImGui::GetFontSize() * 5.5f;
    ImGui::SameLine();
    snprintf(id, sizeof id, "sampler.env.%s.sustain", name);
    changed |= gui_labelled_int_field("S", id, &sustain, 0, std::max(0, count - 1), field, true) != 0;
    ImGui::SameLine();
    snprintf(id, sizeof id, "sampler.env.%s.loop_start", name);
    changed |= gui_labelled_int_field("L", id, &loop_start, 0, std::max(0, count - 1), field, true) != 0;
    ImGui::SameLine();
    snprintf(id, sizeof id, "sampler.env.%s.loop_end", name);
    changed |= gui_labelled_int_field("E", id, &loop_end, 0, std::max(0, count - 1), field, true) != 0;
    if (changed) {
        int bits = (on ? PSYNTH_SAMPLER_ENV_ON : 0) | (sus ? PSYNTH_SAMPLER_ENV_SUSTAIN : 0) | (loop ? PSYNTH_SAMPLER_ENV_LOOP : 0);
        zelfon_edit_begin(st->song);
        report(st, zelfon_edit_sampler_env_markers(mod, env, bits, sustain, std::min(loop_start, loop_end), loop_end, st->song));
    }

    gui_point points[PSYNTH_SAMPLER_ENV_POINTS];
    for (int i = 0; i < count; i++) points[i] = gui_point{stored[i].x, stored[i].y};
    const gui_point_marker markers[] = {{sus ? sustain : -1, 'S'}, {loop ? loop_start : -1, 'L'}, {loop ? loop_end : -1, 'E'}};
    snprintf(id, sizeof id, "sampler.env.%s", name);
    ImVec2 size(ImGui::GetContentRegionAvail().x, ImGui::GetTextLineHeight() * 5);
    gui_point_change c = gui_point_editor(id, points, count, PSYNTH_SAMPLER_ENV_TICKS - 1, 64, markers, 3, on, size, &v->env[env]);
    switch (c.kind) {
    case GUI_POINTS_ADDED: {
        int index = -1;
        report(st, zelfon_edit_sampler_env_add(mod, env, c.x, c.y, &index, st->song));
        v->env[env].dragging = index;  // the new point follows the mouse while it is held
        break;
    }
    case GUI_POINTS_MOVED: report(st, zelfon_edit_sampler_env_move(mod, env, c.index, c.x, c.y, st->song)); break;
    case GUI_POINTS_REMOVED: report(st, zelfon_edit_sampler_env_remove(mod, env, c.index, st->song)); break;
    default: break;
    }
}

void draw_instrument(studio* st, const psynth_sampler_instrument* ins, int mod) {
    float field = ImGui::GetFontSize() * 6.5f;
    int type = std::clamp<int>(ins->vibrato_type, 0, 3), sweep = ins->vibrato_sweep, depth = ins->vibrato_depth;
    int rate = ins->vibrato_rate, fadeout = ins->volume_fadeout;
    bool vibrato = false;
    ImGui::SetNextItemWidth(ImGui::GetFontSize() * 7);
    vibrato |= ImGui::Combo("Vibrato", &type, kVibratoTypes, 4);
    gui_item_name("sampler.vibrato_type");
    ImGui::SameLine();
    vibrato |= gui_labelled_int_field("Sweep", "sampler.vibrato_sweep", &sweep, 0, 255, field, true) != 0;
    ImGui::SameLine();
    vibrato |= gui_labelled_int_field("Depth", "sampler.vibrato_depth", &depth, 0, 255, field, true) != 0;
    ImGui::SameLine();
    vibrato |= gui_labelled_int_field("Rate", "sampler.vibrato_rate", &rate, 0, 255, field, true) != 0;
    if (vibrato) {
        zelfon_edit_begin(st->song);
        report(st, zelfon_edit_sampler_vibrato(mod, type, sweep, depth, rate, st->song));
    }
    ImGui::SameLine();
    if (gui_labelled_int_field("Fade-out", "sampler.fadeout", &fadeout, 0, 65535, field * 1.5f, true)) {
        zelfon_edit_begin(st->song);
        report(st, zelfon_edit_sampler_fadeout(mod, fadeout, st->song));
    }
}

}  // namespace

void studio_sampler_editor_draw(studio* st, int window, int mod) {
    studio_sampler_view* v = &st->sampler_views[window];
    if (v->mod != mod) {
        gui_waveform_free(&v->wave);
        *v = studio_sampler_view();
        v->mod = mod;
        v->env[0].dragging = v->env[1].dragging = -1;
        v->piano_from = -1;
    }
    sampler_now now = read_sampler(st, mod, v->slot);
    if (!now.ins) {
        ImGui::TextDisabled("This Sampler has no instrument");
        return;
    }
    // An edit swaps the chunks it changes for new blocks: each part reads them anew.
    auto fresh = [&] {
        now = read_sampler(st, mod, v->slot);
        return now.ins != nullptr;
    };
    draw_files(st, mod, v);
    if (!fresh()) return;
    draw_slots(st, now, mod, v);
    if (!fresh()) return;
    follow_frames(v, now);
    draw_wave(st, now, mod, v);
    if (!fresh()) return;
    if (now.frames) {
        draw_commands(st, now, mod, v);
        if (!fresh()) return;
        if (now.frames) draw_header(st, now, mod, v);
    }
    ImGui::Separator();
    ImGui::TextUnformatted("Note map: drag over keys to give them this sample");
    if (!fresh()) return;
    draw_note_map(st, now.ins, mod, v);
    if (!fresh()) return;
    draw_envelope(st, now.ins, mod, v, ZELFON_SAMPLER_ENV_VOLUME);
    if (!fresh()) return;
    draw_envelope(st, now.ins, mod, v, ZELFON_SAMPLER_ENV_PANNING);
    if (!fresh()) return;
    draw_instrument(st, now.ins, mod);
}

void studio_sampler_new_dialog_draw(studio* st) {
    studio_new_sample* n = &st->new_sample;
    if (!n->open) return;
    ImGui::OpenPopup("New sample");
    if (!ImGui::BeginPopupModal("New sample", nullptr, ImGuiWindowFlags_AlwaysAutoResize)) return;
    float width = ImGui::GetFontSize() * 9;
    ImGui::TextUnformatted(PSYNTH_SAMPLE_BOX_NEW_FRAMES);
    gui_int_field("sampler.new.frames", &n->frames, 1, kNewSampleFramesMax, width);
    ImGui::TextUnformatted(PSYNTH_SAMPLE_BOX_NEW_RATE);
    gui_int_field("sampler.new.rate", &n->rate, 1, 384000, width);
    // "OK;Cancel"
    bool ok = ImGui::Button("OK", ImVec2(ImGui::GetFontSize() * 5, 0));
    gui_item_name("sampler.new.ok");
    ImGui::SameLine();
    bool cancel = ImGui::Button("Cancel", ImVec2(ImGui::GetFontSize() * 5, 0));
    gui_item_name("sampler.new.cancel");
    if (ok) {
        zelfon_edit_begin(st->song);
        int result = zelfon_edit_sample_new(n->mod, n->slot, n->frames, n->bits, n->channels, n->rate, st->song);
        if (result == ZELFON_EDIT_NO_MEMORY) studio_message(st, PSYNTH_SAMPLE_BOX_CANT_CREATE, "OK", nullptr, nullptr);
        else report(st, result);
    }
    if (ok || cancel) {
        n->open = 0;
        ImGui::CloseCurrentPopup();
    }
    ImGui::EndPopup();
}

void studio_sampler_file_chosen(studio* st, int purpose, const char* path) {
    int mod = st->sampler_target_mod, slot = st->sampler_target_slot;
    psynth_net* net = st->song->net;
    if (mod <= 0 || mod >= net->slots || !(net->modules[mod].flags & PSYNTH_FLAG_EXISTS)) return;  // it went meanwhile
    if (purpose == STUDIO_FILE_SAMPLER_LOAD) {
        studio_sampler_load_path(st, mod, slot, path);
        return;
    }
    int result = purpose == STUDIO_FILE_SAMPLER_SAVE_WAV ? zelfon_sampler_save_wav(mod, slot, path, st->song)
                                                         : zelfon_sampler_save_xi(mod, path, st->song);
    if (result == ZELFON_EDIT_OK) studio_status(st, "Saved %s", path);
    else if (result == ZELFON_EDIT_NO_SAMPLE) studio_status(st, "The slot holds no sample to save");
    else studio_message(st, "!The file cannot be written.", "OK", nullptr, nullptr);
}

void studio_sampler_recordings_tick(studio* st) {
    for (studio_sampler_view& v : st->sampler_views) {
        if (!v.recording) continue;
        int result = zelfon_sampler_record_drain(v.mod, st->song);
        if (result == ZELFON_EDIT_OK) continue;
        v.recording = 0;  // the module went, or its take cannot be kept
        if (result == ZELFON_EDIT_LOAD_FAILED) studio_status(st, "Sample recording error: can't write to file");
    }
}

void studio_sampler_editor_free(studio* st) {
    for (studio_sampler_view& v : st->sampler_views) gui_waveform_free(&v.wave);
    mem_free(st->sample_clip);
    st->sample_clip = nullptr;
}
