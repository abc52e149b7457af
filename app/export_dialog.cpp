// The export dialog: WAV (16-bit or float; the mix, one file per module, effects only, or
// the modules linked into Output; a rate) or a MIDI file. A WAV export renders a copy of
// the song at the chosen rate, so the open song keeps playing; a progress bar follows the
// export and Cancel stops it through its abort, while the window keeps drawing.
#include <cstdio>
#include <cstring>
#include <imgui.h>

#include "app/studio_windows.h"
#include "engine/file.h"
#include "engine/log.h"
#include "engine/memory.h"
#include "gui/gui_items.h"
#include "song/chunks.h"
#include "song/export.h"
#include "song/song_file.h"

namespace {

constexpr const char* kCopyFile = "3:/zelfon_export_copy.zelfon";
constexpr int kRates[] = {22050, 44100, 48000, 88200, 96000};

struct export_run {
    studio* st;
    zelfon_song* copy;
};

void on_progress(void* data, int progress) {
    export_run* run = (export_run*)data;
    studio* st = run->st;
    st->export_dialog.progress = progress;
    studio_frame_during_work(st);
    if (st->export_dialog.cancel) zelfon_export_abort(run->copy);
}

// Non-zero when `path` holds a song or module file, which an export must not replace.
int is_song_file(const char* path) {
    int kind = zelfon_file_kind(path);
    return kind == ZELFON_FILE_SONG || kind == ZELFON_FILE_MODULE;
}

// The open song again, at `rate`, in a new record (through a temporary song file) that
// renders on every core.
zelfon_song* copy_song(studio* st, int rate) {
    if (zelfon_save_song(kCopyFile, ZELFON_VERSION_MAJOR, ZELFON_VERSION_MINOR, st->song)) return nullptr;
    zelfon_song* copy = (zelfon_song*)mem_new(MEM_DYNAMIC, sizeof(zelfon_song), "export_copy");
    if (copy && zelfon_song_init(0, rate, copy) == 0) {
        copy->midi_kbd_module = -1;
        if (zelfon_load_song(kCopyFile, copy) == 0) {
            v3_remove(kCopyFile);
            zelfon_set_render_threads(0, copy);  // one per core: the output is the same
            return copy;
        }
        zelfon_song_close(copy);
    }
    mem_free(copy);
    v3_remove(kCopyFile);
    return nullptr;
}

void finish(studio* st, const char* format, ...) __attribute__((format(printf, 2, 3)));
void finish(studio* st, const char* format, ...) {
    va_list args;
    va_start(args, format);
    vsnprintf(st->export_dialog.result, sizeof st->export_dialog.result, format, args);
    va_end(args);
    studio_status(st, "%s", st->export_dialog.result);
}

void run_wav(studio* st) {
    studio_export_dialog* d = &st->export_dialog;
    zelfon_song* copy = copy_song(st, d->rate);
    if (!copy) {
        studio_message(st, "!The song could not be prepared for export (no memory or no temporary folder)", "OK", nullptr, nullptr);
        return;
    }
    export_run run = {st, copy};
    d->running = 1;
    int result = zelfon_export_to_wav(d->path, d->format, d->mode, on_progress, &run, copy);
    d->running = 0;
    int64_t frames = zelfon_get_song_length_frames(d->rate, copy);
    zelfon_song_close(copy);
    mem_free(copy);
    int seconds = frames > 0 ? (int)(frames / d->rate) : 0;
    if (result == ZELFON_EXPORT_OK) finish(st, "Exported %s: %d:%02d (%lld frames at %d Hz)", d->path, seconds / 60, seconds % 60, (long long)frames, d->rate);
    else if (result == ZELFON_EXPORT_ABORTED) finish(st, "Export cancelled: %s holds what was rendered", d->path);
    else {
        char text[STUDIO_PATH_SIZE + 128];
        const char* why = zelfon_export_failure_reason(result);
        snprintf(text, sizeof text, "!Cannot export to %s%s%s", d->path, *why ? ":\n" : "", why);
        studio_message(st, text, "OK", nullptr, nullptr);
    }
}

}  // namespace

void studio_export_open(studio* st) {
    studio_export_dialog* d = &st->export_dialog;
    if (!d->path[0]) {
        const char* base = st->song_path[0] ? st->song_path : "song.zelfon";
        snprintf(d->path, sizeof d->path, "%s", base);
        char* dot = strrchr(d->path, '.');
        if (dot && !strchr(dot, '/')) *dot = 0;
        strncat(d->path, ".wav", sizeof d->path - strlen(d->path) - 1);
        d->rate = st->rate;
    }
    d->result[0] = 0;
    d->open = 1;
}

void studio_export_run(studio* st) {
    studio_export_dialog* d = &st->export_dialog;
    if (!d->start) return;
    d->start = 0;
    d->cancel = 0;
    d->progress = 0;
    d->result[0] = 0;
    if (is_song_file(d->path)) {
        char text[STUDIO_PATH_SIZE + 64];
        snprintf(text, sizeof text, "!%s is a song or module file: export to another name", d->path);
        studio_message(st, text, "OK", nullptr, nullptr);
        return;
    }
    studio_files_backup(st, "export");
    if (!d->midi) {
        run_wav(st);
        return;
    }
    if (zelfon_export_to_midi(d->path, st->song) == ZELFON_EXPORT_OK) finish(st, "Exported %s", d->path);
    else {
        char text[STUDIO_PATH_SIZE + 64];
        snprintf(text, sizeof text, "!Cannot write %s", d->path);
        studio_message(st, text, "OK", nullptr, nullptr);
    }
}

void studio_export_draw(studio* st) {
    studio_export_dialog* d = &st->export_dialog;
    if (!d->open) return;
    bool open = true;
    ImGui::SetNextWindowSize(ImVec2(ImGui::GetFontSize() * 30, 0), ImGuiCond_FirstUseEver);
    studio_place_window(0.20f, 0.20f);
    if (ImGui::Begin("Export", d->running ? nullptr : &open, ImGuiWindowFlags_AlwaysAutoResize)) {
        if (d->running) ImGui::BeginDisabled();
        ImGui::RadioButton("WAV", &d->midi, 0);
        gui_item_name("export.wav");
        ImGui::SameLine();
        ImGui::RadioButton("MIDI file", &d->midi, 1);
        gui_item_name("export.midi");
        if (!d->midi) {
            ImGui::SetNextItemWidth(ImGui::GetFontSize() * 12);
            ImGui::Combo("Format", &d->format, "16-bit\0 32-bit float\0");
            gui_item_name("export.format");
            ImGui::SetNextItemWidth(ImGui::GetFontSize() * 12);
            ImGui::Combo("Files", &d->mode, "The mix\0One per module\0One per effect\0Modules linked to Output\0");
            gui_item_name("export.mode");
            ImGui::SetNextItemWidth(ImGui::GetFontSize() * 12);
            char rate[32];
            snprintf(rate, sizeof rate, "%d Hz", d->rate);
            if (ImGui::BeginCombo("Rate", rate)) {
                for (int r : kRates) {
                    snprintf(rate, sizeof rate, "%d Hz", r);
                    if (ImGui::Selectable(rate, r == d->rate)) d->rate = r;
                }
                ImGui::EndCombo();
            }
            gui_item_name("export.rate");
        }
        ImGui::SetNextItemWidth(ImGui::GetFontSize() * 20);
        ImGui::InputText("##path", d->path, sizeof d->path);
        gui_item_name("export.path");
        ImGui::SameLine();
        if (ImGui::Button("Choose...")) {
            const char* slash = strrchr(d->path, '/');
            studio_files_dialog(st, STUDIO_FILE_EXPORT, "Export to", d->midi ? "mid" : "wav", 1, slash ? slash + 1 : d->path);
        }
        gui_item_name("export.choose");
        if (ImGui::Button("Export", ImVec2(ImGui::GetFontSize() * 6, 0)) && d->path[0]) d->start = 1;
        gui_item_name("export.start");
        if (d->running) ImGui::EndDisabled();
        if (d->running) {
            ImGui::SameLine();
            if (ImGui::Button("Cancel")) d->cancel = 1;
            gui_item_name("export.cancel");
            ImGui::ProgressBar(d->progress / 256.0f, ImVec2(-1, 0));
            gui_item_name("export.progress");
        } else if (d->result[0]) {
            ImGui::TextWrapped("%s", d->result);
            gui_item_name("export.result");
        }
    }
    ImGui::End();
    if (!d->running) d->open = open;
}
