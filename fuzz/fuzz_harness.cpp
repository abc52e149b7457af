// The fuzz targets' shared harness (fuzz_harness.h).
#include "fuzz_harness.h"

#include <cstdio>
#include <unistd.h>

#include "engine/file.h"
#include "engine/log.h"
#include "engine/memory.h"
#include "song/playback.h"

namespace {

constexpr int kRate = 44100;
constexpr int kRequestFrames = 1001;  // odd, so that pieces and ticks fall across requests
constexpr int kSongRequests = 3;
constexpr int kNotesRequests = 2;
constexpr int kNotesLines = 4;
constexpr uint8_t kNotes[kNotesLines] = {1, 49, 127, ZELFON_NOTE_OFF};
// The notes play one a line at a brisk tempo (110 frames a line), so all four sound and
// are released within the piece.
constexpr int kNotesBpm = 1000;
constexpr int kNotesSpeed = 1;

void render_requests(int requests, zelfon_song* song) {
    zelfon_reset_transport_for_export(song);
    static int16_t out[kRequestFrames * 2];
    for (int i = 0; i < requests; i++) {
        zelfon_render_request request{out, ZELFON_SAMPLE_INT16, 2, kRequestFrames, nullptr, 0};
        zelfon_render(&request, song);
    }
}

}  // namespace

// Freed blocks are reused sooner than ASan's default allows: each input builds and frees a
// whole song, and fresh pages for every one would cost more than the reader under test.
extern "C" const char* __asan_default_options() { return "quarantine_size_mb=16"; }

// Tremor (libvorbisidec 1.2.1) loses the list of stream serial numbers it allocated while
// reading the headers of a file that it then rejects: 4 bytes a file, inside the library.
extern "C" const char* __lsan_default_suppressions() { return "leak:libvorbisidec.so\n"; }

void zelfon_fuzz_start() {
    static bool started = false;
    if (started) return;
    started = true;
    mem_init();
    v3_init();
    tarvik_log_disable(1);
}

const char* zelfon_fuzz_input_file(const uint8_t* data, size_t size) {
    static char path[64];
    if (!path[0]) snprintf(path, sizeof path, "3:/zelfon_fuzz_%d.bin", (int)getpid());
    int fd = v3_open(path, "wb");
    if (!fd) return nullptr;
    bool ok = v3_write(data, 1, size, fd) == size;
    if (v3_close(fd) != 0 || !ok) return nullptr;
    return path;
}

bool zelfon_fuzz_song_init(zelfon_song* song) { return zelfon_song_init(0, kRate, song) == 0; }

void zelfon_fuzz_render(zelfon_song* song) { render_requests(kSongRequests, song); }

void zelfon_fuzz_play_module(int mod, zelfon_song* song) {
    psynth_make_link(0, mod, song->net);
    song->bpm = kNotesBpm;
    song->speed = kNotesSpeed;
    int slot = zelfon_get_free_pattern_num(song);
    if (slot >= 0 && new_pattern_with_num(slot, kNotesLines, 1, 0, 0, 1, song) == slot) {
        zelfon_pattern* pat = song->pats[slot];
        for (int l = 0; l < kNotesLines; l++) {
            pat->data[l] = zelfon_cell{kNotes[l], 0, (uint16_t)(mod + 1), 0, 0, 0};
        }
    }
    render_requests(kNotesRequests, song);
}
