// The import front: reads the file whole, tells the format by its content, runs that
// format's reader into the common tracker form and builds the song from it.
#include "song/import.h"

#include <cstdio>
#include <cstring>

#include "engine/file.h"
#include "engine/memory.h"
#include "engine/sound.h"
#include "psynth/psynth_dsp.h"
#include "song/playback.h"
#include "song/song_file.h"
#include "song/tracker_module.h"

namespace {

// No tracker file comes near this; a larger one is refused before it is read.
constexpr int64_t kMaxFileBytes = 256 << 20;

const char* const kFormatNames[] = {"?", "XM", "MOD", "S3M", "IT"};

const char* const kLossTexts[] = {
    "vibrato effects",
    "tremolo effects",
    "tremor effects",
    "panbrello effects",
    "global volume changes",
    "channel volumes",
    "panning slides",
    "pattern delays",
    "tempo slides",
    "envelope position changes",
    "waveform, glissando and finetune settings",
    "filters and resonance",
    "MIDI macros",
    "surround and new-note actions",
    "other effects without a counterpart",
    "effects dropped where a cell already holds one",
    "pannings dropped where a cell holds an effect",
    "volume changes of multi retriggers",
    "note cuts with a note and note fades, played as note-offs",
    "sample offsets beyond 65535 frames",
    "volumes above the sample's own volume",
    "song loop to a later order (the song restarts from the start)",
    "song cut: too long once its loops are unrolled",
    "orders naming missing patterns",
    "channels beyond 32",
    "samples beyond 16 per instrument or unusable",
    "samples cut short by the end of the file",
    "stereo samples (left channel kept)",
    "sample sustain loops",
    "envelope points, sustain loops and pitch envelopes",
    "note transpositions in instrument note maps",
    "unusual flags not followed",
};
static_assert(sizeof(kLossTexts) / sizeof(kLossTexts[0]) == ZELFON_LOSS_KINDS, "one text per kind of loss");

int read_module(tracker_reader* r, tracker_module* m) {
    switch (m->format) {
    case ZELFON_IMPORT_FORMAT_XM: return tracker_read_xm(r, m);
    case ZELFON_IMPORT_FORMAT_MOD: return tracker_read_mod(r, m);
    case ZELFON_IMPORT_FORMAT_S3M: return tracker_read_s3m(r, m);
    case ZELFON_IMPORT_FORMAT_IT: return tracker_read_it(r, m);
    default: return ZELFON_IMPORT_NOT_RECOGNIZED;
    }
}

void set_error(zelfon_import_report* report, const char* text) { snprintf(report->error, sizeof(report->error), "%s", text); }

}  // namespace

zelfon_import_format zelfon_import_format_of(const uint8_t* data, size_t size) {
    if (tracker_is_xm(data, size)) return ZELFON_IMPORT_FORMAT_XM;
    if (tracker_is_it(data, size)) return ZELFON_IMPORT_FORMAT_IT;
    if (tracker_is_s3m(data, size)) return ZELFON_IMPORT_FORMAT_S3M;
    if (tracker_is_mod(data, size)) return ZELFON_IMPORT_FORMAT_MOD;
    return ZELFON_IMPORT_FORMAT_NONE;
}

const char* zelfon_import_format_name(int format) {
    return format > 0 && format <= ZELFON_IMPORT_FORMAT_IT ? kFormatNames[format] : kFormatNames[0];
}

const char* zelfon_import_loss_text(int kind) { return kind >= 0 && kind < ZELFON_LOSS_KINDS ? kLossTexts[kind] : ""; }

int zelfon_import_report_losses(const zelfon_import_report* report, char* out, size_t size) {
    int lines = 0;
    size_t used = 0;
    if (size > 0) out[0] = 0;
    for (int k = 0; k < ZELFON_LOSS_KINDS; k++) {
        if (report->losses[k] <= 0) continue;
        lines++;
        if (used + 1 >= size) continue;
        int n = snprintf(out + used, size - used, "%d x %s\n", report->losses[k], kLossTexts[k]);
        if (n > 0) used = used + (size_t)n < size ? used + n : size - 1;
    }
    return lines;
}

int zelfon_import_song_from_memory(const uint8_t* data, size_t size, zelfon_song* song, zelfon_import_report* report) {
    memset(report, 0, sizeof(*report));
    tracker_module* m = (tracker_module*)mem_new_dynamic(sizeof(tracker_module), "zelfon_import");
    if (!m) {
        set_error(report, "out of memory");
        return ZELFON_IMPORT_NO_MEMORY;
    }
    memset(m, 0, sizeof(*m));
    m->report = report;
    m->format = zelfon_import_format_of(data, size);
    m->speed = ZELFON_SPEED_DEFAULT;
    m->bpm = ZELFON_BPM_DEFAULT;
    m->global_volume = PSYNTH_GAIN_UNITY;
    report->format = m->format;
    int code = ZELFON_IMPORT_NOT_RECOGNIZED;
    if (m->format == ZELFON_IMPORT_FORMAT_NONE) {
        set_error(report, "not an XM, MOD, S3M or IT file");
    } else {
        tracker_reader r = {data, size, 0, false};
        code = read_module(&r, m);
        if (code == 0) {
            // Stopping needs the render thread; the sound stream's slots are held off the
            // song while its net is rebuilt.
            if (song->playing) zelfon_stop(song);
            sound_stream_lock();
            zelfon_reset_song(song);
            code = tracker_build_song(m, song);
            song->loaded = 1;
            sound_stream_unlock();
        }
    }
    tracker_free(m);
    mem_free(m);
    return code;
}

int zelfon_import_song(const char* path, zelfon_song* song, zelfon_import_report* report) {
    memset(report, 0, sizeof(*report));
    int fd = v3_open(path, "rb");
    if (!fd) {
        snprintf(report->error, sizeof(report->error), "cannot open %s", path);
        return ZELFON_IMPORT_CANT_OPEN;
    }
    int64_t size = v3_seek(fd, 0, SEEK_END) == 0 ? v3_tell(fd) : -1;
    v3_seek(fd, 0, SEEK_SET);
    if (size < 0 || size > kMaxFileBytes) {
        v3_close(fd);
        set_error(report, size < 0 ? "cannot read the file" : "the file is too large for a tracker song");
        return size < 0 ? ZELFON_IMPORT_CANT_OPEN : ZELFON_IMPORT_TOO_LARGE;
    }
    uint8_t* data = (uint8_t*)mem_new_dynamic(size > 0 ? (size_t)size : 1, "zelfon_import");
    if (!data) {
        v3_close(fd);
        set_error(report, "out of memory");
        return ZELFON_IMPORT_NO_MEMORY;
    }
    size_t got = v3_read(data, 1, (size_t)size, fd);
    v3_close(fd);
    int code = zelfon_import_song_from_memory(data, got, song, report);
    mem_free(data);
    return code;
}
