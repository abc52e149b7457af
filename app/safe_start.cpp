// Safe mode. A song, a setting or a device that crashes the studio while it starts would
// crash it at every start. So each start-up counts itself in a mark file before the window
// opens and removes the mark once its first frame is drawn; after two start-ups that never
// got there, the next one runs with default preferences (the file stays as it was and is
// not written), a new song and no sound or MIDI device until one is chosen.
#include <cstdio>
#include <cstdlib>

#include "app/studio_windows.h"
#include "engine/file.h"
#include "engine/log.h"
#include "engine/profile.h"

namespace {

constexpr int kFailedStartsForSafeMode = 2;

int read_count() {
    char text[16] = {};
    int h = v3_open(STUDIO_STARTING_MARK, "rb");
    if (!h) return 0;
    v3_read(text, 1, sizeof text - 1, h);
    v3_close(h);
    int count = atoi(text);
    return count < 0 ? 0 : count;
}

}  // namespace

int studio_safe_start_begin() {
    int failed = read_count();
    char text[16];
    int size = snprintf(text, sizeof text, "%d\n", failed + 1);
    int h = v3_open(STUDIO_STARTING_MARK, "wb");
    if (h) {
        v3_write(text, 1, (size_t)size, h);
        v3_close(h);
    }
    if (failed < kFailedStartsForSafeMode) return 0;
    tarvik_log("studio: the last %d start-ups did not finish: safe mode\n", failed);
    return 1;
}

void studio_safe_start_done() { v3_remove(STUDIO_STARTING_MARK); }

int studio_profile_save(const studio* st) { return st->safe_mode ? 0 : profile_save(nullptr); }

void studio_safe_mode_explain(studio* st) {
    studio_message(st,
                   "!Zelfon did not finish starting the last two times, so it runs in safe mode: default "
                   "preferences, a new song and no sound or MIDI device.\nChoose a device in Edit > Preferences "
                   "(for this session only: your preferences file is left as it was). Zelfon starts as usual "
                   "next time.",
                   "OK", nullptr, nullptr);
}
