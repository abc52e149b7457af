// Real-time command-line jobs: the song plays through the sound stream (its render in
// slot 0) while this thread polls the MIDI keyboard and shows the position.
#include "app/realtime.h"

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

#include "app/command_line.h"
#include "engine/log.h"
#include "engine/midi.h"
#include "engine/profile.h"
#include "engine/sound.h"
#include "song/devices.h"
#include "song/playback.h"

namespace {

constexpr int kDefaultRate = 44100;
constexpr int kSongSlot = 0;
constexpr int kPollMs = 1;            // MIDI keyboard latency added by polling
constexpr int kShowEveryMs = 100;
constexpr int kTailMs = 1500;         // echoes and reverb ring on after the last line
constexpr int kMaxBuffer = 65536;     // frames of a device buffer
constexpr int kMaxWaitSeconds = 3600; // --wait
constexpr int kRetryMs = 1000;        // a device waited for is tried this often

volatile std::sig_atomic_t g_interrupted = 0;

void on_interrupt(int) { g_interrupted = 1; }

int fail(const char* message, const char* detail = "") {
    fprintf(stderr, "zelfon: %s%s\n", message, detail);
    return 1;
}

// Reads a value the sound thread writes.
int sound_thread_value(int& v) { return std::atomic_ref<int>(v).load(std::memory_order_relaxed); }

void print_sound_device(int driver, int device, const char* name, int channels, void* data) {
    printf("  %s %d: %s (%d channels)\n", sound_stream_driver_name(driver), device, name, channels);
}

void print_midi_device(const char* name, void* data) { printf("  %s\n", name); }

// Opens the sound stream, trying again every second for up to `wait_s` seconds (Ctrl+C
// gives up). Returns 0 when it runs.
int open_sound_waiting(int rate, int wait_s) {
    const tarvik_ticks start = tarvik_time_ticks();
    const uint64_t ticks_per_ms = tarvik_time_ticks_per_second() / 1000;
    bool said = false;
    for (;;) {
        if (sound_stream_init(SOUND_TYPE_FLOAT32, rate, 2) == 0) return 0;
        uint64_t waited_ms = (tarvik_time_ticks() - start) / ticks_per_ms;
        if (g_interrupted || waited_ms + kRetryMs > (uint64_t)wait_s * 1000) return 1;
        if (!said) fprintf(stderr, "zelfon: no sound device yet: waiting up to %d s for one\n", wait_s);
        said = true;
        tarvik_sleep_ms(kRetryMs);
    }
}

}  // namespace

int zelfon_play_command(int argc, char** args, zelfon_song_opener open_song) {
    const char* song_path = nullptr;
    int rate = profile_get_int_value("frequency", kDefaultRate, nullptr);
    int wait_s = 0;  // how long a missing or lost sound device is waited for
    for (int i = 0; i < argc; i++) {
        const char* arg = args[i];
        bool option = !strcmp(arg, "--driver") || !strcmp(arg, "--device") || !strcmp(arg, "--buffer") ||
                      !strcmp(arg, "--rate") || !strcmp(arg, "--wait");
        if (!option) {
            if (arg[0] == '-' || song_path) {
                return fail("play takes [SONG] [--driver jack|pulse|alsa] [--device N] [--buffer FRAMES] [--rate HZ] [--wait SECONDS]");
            }
            song_path = arg;
            continue;
        }
        if (i + 1 >= argc) return fail(arg, " needs a value");
        const char* value = args[++i];
        // The options stand in for the profile's keys for this run only (nothing is saved).
        if (!strcmp(arg, "--driver")) {
            if (sound_stream_driver_from_key(value) < 0) return fail("unknown driver ", value);
            profile_set_str_value("audiodriver", value, nullptr);
        } else if (!strcmp(arg, "--device")) {
            profile_set_str_value("audiodevice", value, nullptr);
        } else if (!strcmp(arg, "--buffer")) {
            int frames = 0;
            if (!zelfon_parse_number(value, 1, kMaxBuffer, &frames)) {
                return fail("unusable buffer ", (value + std::string(" (a whole number from 1 to ") + std::to_string(kMaxBuffer) + ")").c_str());
            }
            profile_set_str_value("buffer", value, nullptr);
        } else if (!strcmp(arg, "--wait")) {
            if (!zelfon_parse_number(value, 0, kMaxWaitSeconds, &wait_s)) {
                return fail("unusable wait ", (value + std::string(" (seconds, a whole number from 0 to ") + std::to_string(kMaxWaitSeconds) + ")").c_str());
            }
        } else if (!zelfon_parse_number(value, ZELFON_CLI_RATE_MIN, ZELFON_CLI_RATE_MAX, &rate)) {
            return fail("unusable rate ", (value + std::string(" (a whole number from ") + std::to_string(ZELFON_CLI_RATE_MIN) +
                                           " to " + std::to_string(ZELFON_CLI_RATE_MAX) + ")").c_str());
        }
    }
    if (rate < kDefaultRate) tarvik_log("ERROR. Sampling frequency must be >= 44100\n");

    // The song first: a file that is no song is said so, whatever the devices.
    zelfon_song song;
    if (open_song(song_path, rate, &song)) return 1;
    std::signal(SIGINT, on_interrupt);
    if (open_sound_waiting(rate, wait_s)) {
        zelfon_song_close(&song);
        return fail("no sound device could be opened");
    }
    song.midi_kbd_module = -1;
    zelfon_set_render_threads(0, &song);  // helpers join in on buffers of 256 frames or more
    zelfon_attach_sound(kSongSlot, &song);
    zelfon_set_stop_at_end(1, &song);
    zelfon_play(0, &song);

    const bool tty = isatty(STDOUT_FILENO);
    const tarvik_ticks start = tarvik_time_ticks();
    const uint32_t ticks_per_ms = tarvik_time_ticks_per_second() / 1000;
    int elapsed = 0, shown = 0, end_seen = -1, result = 0;
    while (!g_interrupted && (end_seen < 0 || elapsed - end_seen < kTailMs)) {
        zelfon_poll_midi_keyboard(&song);
        tarvik_sleep_ms(kPollMs);
        elapsed = (int)((tarvik_time_ticks() - start) / ticks_per_ms);
        if (end_seen < 0 && sound_thread_value(song.past_end)) end_seen = elapsed;
        if (elapsed - shown < kShowEveryMs) continue;
        shown = elapsed;
        if (!sound_stream_running()) {
            // The device went away: with --wait the song goes on from its line once it is back.
            int line = sound_thread_value(song.line);
            zelfon_detach_sound(kSongSlot);
            sound_stream_close();
            zelfon_stop_without_sound(&song);
            fprintf(stderr, "zelfon: the sound stream stopped at line %d\n", line);
            if (wait_s <= 0 || open_sound_waiting(rate, wait_s)) {
                result = fail("the sound stream stopped");
                break;
            }
            fprintf(stderr, "zelfon: the sound device is back: playing on from line %d\n", line);
            zelfon_attach_sound(kSongSlot, &song);
            zelfon_play(line, &song);
            continue;
        }
        if (tty) {
            printf("\rLine %4d / %d   underruns %u ", sound_thread_value(song.line), song.song_lines,
                   sound_stream_underruns());
            fflush(stdout);
        }
    }
    std::signal(SIGINT, SIG_DFL);
    if (tty) printf("\n");
    zelfon_stop(&song);
    zelfon_detach_sound(kSongSlot);
    uint32_t underruns = sound_stream_underruns();
    int median, p99, max;
    sound_stream_load(&median, &p99, &max);
    uint32_t over_budget = g_snd.load_bins[SOUND_LOAD_BINS - 1];
    sound_stream_close();
    zelfon_song_close(&song);
    printf("Played %.1f s on %d-frame buffers, %u underruns\n", elapsed / 1000.0, g_snd.buffer, underruns);
    printf("Render share of each period: median %.1f %%, 99th percentile %.1f %%, max %.1f %%, over 100 %%: %u\n",
           median / 10.0, p99 / 10.0, max / 10.0, over_budget);
    return result;
}

int zelfon_devices_command() {
    printf("Sound devices:\n");
    sound_stream_list_devices(print_sound_device, nullptr);
    tarvik_midi_client client;
    if (tarvik_midi_client_open(&client, "Zelfon")) return fail("out of memory");
    printf("MIDI inputs:\n");
    tarvik_midi_client_get_devices(&client, MIDI_PORT_READ, print_midi_device, nullptr);
    printf("MIDI outputs:\n");
    tarvik_midi_client_get_devices(&client, MIDI_PORT_WRITE, print_midi_device, nullptr);
    tarvik_midi_client_close(&client);
    return 0;
}
