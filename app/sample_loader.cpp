// A sample file (WAV, AIFF, AIFC, XI, raw data or a JPEG image) becomes a new Sampler
// linked into Output, or goes into a slot (or the whole instrument) of a Sampler from its
// editor, as an undoable edit. A file no reader knows takes the raw path with its
// questions: "Load RAW", then the data format, then the channel count.
#include <cstdio>
#include <cstring>

#include "app/studio_windows.h"
#include "engine/log.h"
#include "psynth/psynth_modules.h"
#include "psynth/sample_file.h"
#include "song/edit_sampler.h"

namespace {

constexpr const char* kSampleMask = "wav/aif/aiff/aifc/xi/raw/jpg/jpeg";

// The raw path's state between its questions.
struct raw_question {
    studio* st;
    int mod;
    int slot;     // for the editor: the slot, or −1 for the instrument
    bool editor;  // into an existing Sampler (undoable), else into the new one made for it
    int format;
    char path[STUDIO_PATH_SIZE];
};

raw_question g_raw;

const char* base_name(const char* path) {
    const char* slash = strrchr(path, '/');
    return slash ? slash + 1 : path;
}

int add_sampler(studio* st, const char* path) {
    psynth_net* net = st->song->net;
    tarvik_mutex_lock(&net->mutex);
    int mod = psynth_add_synth(-1, psynth_sampler, base_name(path), 0, 0, 0, st->song->bpm, st->song->speed, net);
    if (mod >= 0) {
        psynth_do_command(mod, PS_CMD_SETUP_FINISHED, net);
        psynth_make_link(0, mod, net);
    }
    tarvik_mutex_unlock(&net->mutex);
    return mod;
}

void remove_module(studio* st, int mod) {
    psynth_net* net = st->song->net;
    tarvik_mutex_lock(&net->mutex);
    psynth_remove_synth(mod, net);
    tarvik_mutex_unlock(&net->mutex);
}

void loaded(studio* st, int mod, const char* path) {
    st->selected_module = mod;
    studio_song_changed(st);
    studio_status(st, "%s loaded into Sampler %d", base_name(path), mod);
}

// The raw path given up: a Sampler made for the file goes again.
void give_up(const raw_question* q) {
    if (!q->editor) remove_module(q->st, q->mod);
}

// The loader's failure: its "!" text in a box, or a plain line; a Sampler made for the file goes again.
void failed(studio* st, int mod, const char* path, bool editor = false) {
    const char* why = psynth_sample_load_error();
    char text[STUDIO_PATH_SIZE + 128];
    if (why[0] == '!') snprintf(text, sizeof text, "%s", why);
    else snprintf(text, sizeof text, "!Cannot load %s\n%s", base_name(path), why[0] ? why : "The file cannot be opened.");
    if (!editor) remove_module(st, mod);
    studio_message(st, text, "OK", nullptr, nullptr);
}

void loaded_into_slot(studio* st, int mod, int slot, const char* path) {
    studio_song_changed(st);
    if (slot < 0) studio_status(st, "%s loaded as the instrument of %s", base_name(path), st->song->net->modules[mod].name);
    else studio_status(st, "%s loaded into sample %d of %s", base_name(path), slot, st->song->net->modules[mod].name);
}

void answer_channels(int button, void* data) {
    raw_question* q = (raw_question*)data;
    if (button < 0 || button > 1) {
        give_up(q);
        return;
    }
    int channels = button == 0 ? 2 : 1;
    if (q->editor) {
        int result = zelfon_edit_sampler_load_raw(q->mod, q->slot, q->path, q->format, channels, q->st->song);
        if (result == ZELFON_EDIT_OK) loaded_into_slot(q->st, q->mod, q->slot, q->path);
        else failed(q->st, q->mod, q->path, true);
        return;
    }
    if (psynth_sample_load_raw(q->path, q->format, channels, q->mod, PSYNTH_SAMPLE_SLOT_INSTRUMENT, q->st->song->net)) {
        failed(q->st, q->mod, q->path);
        return;
    }
    loaded(q->st, q->mod, q->path);
}

void answer_format(int button, void* data) {
    raw_question* q = (raw_question*)data;
    if (button < 0 || button > PSYNTH_SAMPLE_RAW_UINT8) {
        give_up(q);
        return;
    }
    q->format = button;  // the choices list the formats in their order
    studio_message(q->st, PSYNTH_SAMPLE_BOX_CHANNELS, PSYNTH_SAMPLE_BOX_CHANNEL_CHOICES, answer_channels, q);
}

void answer_load_raw(int button, void* data) {
    raw_question* q = (raw_question*)data;
    if (button != 0) {
        give_up(q);
        return;
    }
    studio_message(q->st, PSYNTH_SAMPLE_BOX_DATA_FORMAT, PSYNTH_SAMPLE_BOX_RAW_FORMATS, answer_format, q);
}

// A file no reader knows: the raw path's first question.
void ask_raw(studio* st, int mod, int slot, bool editor, const char* path) {
    g_raw = raw_question{st, mod, slot, editor, 0, {}};
    snprintf(g_raw.path, sizeof g_raw.path, "%s", path);
    studio_message(st, PSYNTH_SAMPLE_BOX_NOT_RECOGNIZED, PSYNTH_SAMPLE_BOX_NOT_RECOGNIZED_BUTTONS, answer_load_raw, &g_raw);
}

}  // namespace

void studio_load_sample(studio* st) {
    studio_files_dialog(st, STUDIO_FILE_LOAD_SAMPLE, "Load sample as a new Sampler", kSampleMask, 0, "");
}

void studio_load_sample_path(studio* st, const char* path) {
    if (studio_files_refuse_special(st, path)) return;
    int mod = add_sampler(st, path);
    if (mod < 0) {
        studio_message(st, "!Not enough memory for a new Sampler", "OK", nullptr, nullptr);
        return;
    }
    psynth_net* net = st->song->net;
    bool image = psynth_sample_file_type_of_path(path) == PSYNTH_SAMPLE_FILE_JPEG;
    int result = image ? psynth_sample_load_raw(path, PSYNTH_SAMPLE_RAW_UINT8, 1, mod, PSYNTH_SAMPLE_SLOT_INSTRUMENT, net)
                       : psynth_sample_load(path, mod, PSYNTH_SAMPLE_SLOT_INSTRUMENT, 0, net);
    if (result == 0) {
        loaded(st, mod, path);
        return;
    }
    if (result == 1 && !image && psynth_sample_not_recognized() &&
        psynth_sample_file_type_of_path(path) == PSYNTH_SAMPLE_FILE_UNKNOWN) {
        ask_raw(st, mod, PSYNTH_SAMPLE_SLOT_INSTRUMENT, false, path);
        return;
    }
    failed(st, mod, path);
}

void studio_sampler_load_path(studio* st, int mod, int slot, const char* path) {
    bool image = psynth_sample_file_type_of_path(path) == PSYNTH_SAMPLE_FILE_JPEG;
    zelfon_edit_begin(st->song);
    int result = image ? zelfon_edit_sampler_load_raw(mod, slot, path, PSYNTH_SAMPLE_RAW_UINT8, 1, st->song)
                       : zelfon_edit_sampler_load(mod, slot, path, 0, st->song);
    if (result == ZELFON_EDIT_OK) {
        loaded_into_slot(st, mod, slot, path);
        return;
    }
    if (result == ZELFON_EDIT_LOAD_FAILED && !image && psynth_sample_not_recognized() &&
        psynth_sample_file_type_of_path(path) == PSYNTH_SAMPLE_FILE_UNKNOWN) {
        ask_raw(st, mod, slot, true, path);
        return;
    }
    if (result == ZELFON_EDIT_NO_MEMORY) {
        studio_message(st, "!Not enough memory for the sample", "OK", nullptr, nullptr);
        return;
    }
    failed(st, mod, path, true);
}
