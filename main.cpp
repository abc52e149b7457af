// Zelfon's entry: brings the foundation up, creates a song on the starter net, plays
// a note through it headless, takes everything down in reverse order and ends with the
// memory manager's report of blocks still held.
#include <algorithm>
#include <cstdlib>
#include <vector>

#include "engine/file.h"
#include "engine/log.h"
#include "engine/memory.h"
#include "engine/profile.h"
#include "song/playback.h"

static const char* const PROGRAM_NAME = "Zelfon v1.6.4(Aug  3 2011)";
static const char* const ENGINE_NAME = "Tarvik Engine";
static const int SAMPLING_RATE = 44100;
static const int DEMO_SECONDS = 2;
static const int REQUEST_FRAMES = 1024;

// Plays C-4 on the starter net's Generator and reports the level of what came out.
static void play_demo_note(zelfon_song* song) {
    const int generator = 1;
    zelfon_cell note = {49, 0, (uint16_t)(generator + 1), 0, 0, 0};
    zelfon_send_live_cell(&note, 0, song);
    std::vector<int16_t> out(REQUEST_FRAMES * 2);
    int peak = 0;
    long frames = 0;
    for (; frames < (long)DEMO_SECONDS * SAMPLING_RATE; frames += REQUEST_FRAMES) {
        zelfon_render_request request{out.data(), ZELFON_SAMPLE_INT16, 2, REQUEST_FRAMES, nullptr, tarvik_time_ticks()};
        zelfon_render(&request, song);
        for (int16_t s : out) peak = std::max(peak, std::abs((int)s));
    }
    tarvik_log("Rendered %ld frames of the starter net: peak %d of 32767\n", frames, peak);
}

int main(int argc, char** argv) {
    mem_init();
    v3_init();
    tarvik_log_init(TARVIK_LOG_FILE);
    profile_new(nullptr);
    profile_load(nullptr, nullptr);  // the first default configuration file that exists
    tarvik_log("%s / %s\n", PROGRAM_NAME, ENGINE_NAME);

    zelfon_song song;
    if (zelfon_song_init(1, SAMPLING_RATE, &song) == 0) {
        play_demo_note(&song);
        zelfon_song_close(&song);
    } else {
        tarvik_log("zelfon_song_init() error\n");
    }

    profile_close(nullptr);
    v3_deinit();
    bool leaked = mem_free_all();  // the log still writes through the file layer after v3_deinit
    tarvik_log_close();
    mem_deinit();
    return leaked ? 1 : 0;
}
