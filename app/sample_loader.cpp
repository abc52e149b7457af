// A sample file (WAV, AIFF, AIFC, XI, raw data or a JPEG image) becomes a new Sampler
// linked into Output. A file no reader knows takes the raw path with its questions:
// "Load RAW", then the data format, then the channel count.
#include <cstdio>
#include <cstring>

#include "app/studio_windows.h"
#include "engine/log.h"
#include "psynth/psynth_modules.h"
#include "psynth/sample_file.h"

namespace {

constexpr const char* kSampleMask = "wav/aif/aiff/aifc/xi/raw/jpg/jpeg";

// The raw path's state between its questions.
struct raw_question {
    studio* st;
    int mod;
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

// The loader's failure: its "!" text in a box, or a plain line.
void failed(studio* st, int mod, const char* path) {
    const char* why = psynth_sample_load_error();
    char text[STUDIO_PATH_SIZE + 128];
    if (why[0] == '!') snprintf(text, sizeof text, "%s", why);
    else snprintf(text, sizeof text, "!Cannot load %s\n%s", base_name(path), why[0] ? why : "The file cannot be opened.");
    remove_module(st, mod);
    studio_message(st, text, "OK", nullptr, nullptr);
}

void answer_channels(int button, void* data) {
    raw_question* q = (raw_question*)data;
    if (button < 0 || button > 1) {
        remove_module(q->st, q->mod);
        return;
    }
    int channels = button == 0 ? 2 : 1;
    if (psynth_sample_load_raw(q->path, q->format, channels, q->mod, PSYNTH_SAMPLE_SLOT_INSTRUMENT, q->st->song->net)) {
        failed(q->st, q->mod, q->path);
        return;
    }
    loaded(q->st, q->mod, q->path);
}

void answer_format(int button, void* data) {
    raw_question* q = (raw_question*)data;
    if (button < 0 || button > PSYNTH_SAMPLE_RAW_UINT8) {
        remove_module(q->st, q->mod);
        return;
    }
    q->format = button;  // the choices list the formats in their order
    studio_message(q->st, PSYNTH_SAMPLE_BOX_CHANNELS, PSYNTH_SAMPLE_BOX_CHANNEL_CHOICES, answer_channels, q);
}

void answer_load_raw(int button, void* data) {
    raw_question* q = (raw_question*)data;
    if (button != 0) {
        remove_module(q->st, q->mod);
        return;
    }
    studio_message(q->st, PSYNTH_SAMPLE_BOX_DATA_FORMAT, PSYNTH_SAMPLE_BOX_RAW_FORMATS, answer_format, q);
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
        g_raw = raw_question{st, mod, 0, {}};
        snprintf(g_raw.path, sizeof g_raw.path, "%s", path);
        studio_message(st, PSYNTH_SAMPLE_BOX_NOT_RECOGNIZED, PSYNTH_SAMPLE_BOX_NOT_RECOGNIZED_BUTTONS, answer_load_raw, &g_raw);
        return;
    }
    failed(st, mod, path);
}
