// The import fuzzers' harness: the foundation comes up once, each input gets a fresh song
// that is imported, played from its start for about half a second and closed.
#include "import_fuzz.h"

#include "engine/file.h"
#include "engine/log.h"
#include "engine/memory.h"
#include "song/playback.h"

namespace {

constexpr int kRate = 44100;
constexpr int kRequestFrames = 1001;  // odd, so that pieces and ticks fall across requests
constexpr int kRequests = 22;

void start_foundation() {
    static bool started = false;
    if (started) return;
    started = true;
    mem_init();
    v3_init();
    tarvik_log_disable(1);
}

}  // namespace

int zelfon_fuzz_import(const uint8_t* data, size_t size, zelfon_import_format format) {
    if (zelfon_import_format_of(data, size) != format) return 0;
    start_foundation();
    zelfon_song song;
    if (zelfon_song_init(0, kRate, &song)) return 0;
    zelfon_import_report report;
    if (zelfon_import_song_from_memory(data, size, &song, &report) == 0) {
        zelfon_reset_transport_for_export(&song);
        static int16_t out[kRequestFrames * 2];
        for (int i = 0; i < kRequests; i++) {
            zelfon_render_request request{out, ZELFON_SAMPLE_INT16, 2, kRequestFrames, nullptr, 0};
            zelfon_render(&request, &song);
        }
    }
    zelfon_song_close(&song);
    return 0;
}
