// Command-line jobs: "export", "export-midi", "info" and "demo" (and the real-time
// "play" and "devices" of app/realtime.cpp). A missing SONG argument
// means the bundled demo song. Outputs are written beside their target and renamed into
// place by the savers, so a failed job never leaves a half-written file.
#include "app/command_line.h"

#include <cstdio>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

#include "app/realtime.h"
#include "engine/profile.h"
#include "psynth/psynth_modules.h"
#include "song/demo.h"
#include "song/export.h"
#include "song/song_file.h"

namespace {

constexpr int kDefaultRate = 44100;
constexpr const char* kDefaultDemoWav = "zelfon_demo.wav";

const char* const kUsage =
    "usage: zelfon [COMMAND]\n"
    "  export [SONG] OUT.wav [--format int16|float32] [--mode mix|modules|effects|connected] [--rate HZ]\n"
    "  export-midi [SONG] OUT.mid\n"
    "  info [SONG]\n"
    "  demo OUT.zelfon\n"
    "  play [SONG] [--driver jack|pulse|alsa] [--device N] [--buffer FRAMES] [--rate HZ]\n"
    "  devices\n"
    "Without SONG the bundled demo song is used; without COMMAND the demo is exported to zelfon_demo.wav.\n";

int fail(const std::string& message) {
    fprintf(stderr, "zelfon: %s\n", message.c_str());
    return 1;
}

struct options {
    std::vector<const char*> positional;
    int format = ZELFON_EXPORT_INT16;
    int mode = ZELFON_EXPORT_ONE_FILE;
    int rate = 0;
    std::string error;
};

int index_of(const char* value, const char* const* names, int count) {
    for (int i = 0; i < count; i++) {
        if (strcmp(value, names[i]) == 0) return i;
    }
    return -1;
}

options parse_options(int argc, char** argv, int first) {
    static const char* const formats[] = {"int16", "float32"};
    static const char* const modes[] = {"mix", "modules", "effects", "connected"};
    options o;
    for (int i = first; i < argc && o.error.empty(); i++) {
        const char* arg = argv[i];
        bool takes_value = !strcmp(arg, "--format") || !strcmp(arg, "--mode") || !strcmp(arg, "--rate");
        if (!takes_value) {
            if (arg[0] == '-' && arg[1] == '-') o.error = std::string("unknown option ") + arg;
            o.positional.push_back(arg);
            continue;
        }
        if (i + 1 >= argc) {
            o.error = std::string(arg) + " needs a value";
            break;
        }
        const char* value = argv[++i];
        if (!strcmp(arg, "--format")) {
            o.format = index_of(value, formats, 2);
            if (o.format < 0) o.error = std::string("unknown format ") + value;
        } else if (!strcmp(arg, "--mode")) {
            o.mode = index_of(value, modes, 4);
            if (o.mode < 0) o.error = std::string("unknown mode ") + value;
        } else {
            o.rate = atoi(value);
            if (o.rate < 8000 || o.rate > 384000) o.error = std::string("unusable rate ") + value;
        }
    }
    return o;
}

// Loads `path` into a new song at `rate`, or makes the demo when path is null.
int open_song(const char* path, int rate, zelfon_song* song) {
    if (zelfon_song_init(0, rate, song)) return fail("out of memory");
    int error = path ? zelfon_load_song(path, song) : zelfon_make_demo_song(song);
    if (error) {
        zelfon_song_close(song);
        return fail(path ? "cannot load " + std::string(path) + " (error " + std::to_string(error) + ")"
                         : std::string("cannot build the demo song"));
    }
    zelfon_sort_patterns(song);
    return 0;
}

void print_progress(void* data, int progress) {
    if (isatty(STDOUT_FILENO)) {
        printf("\rExporting: %3d%%", progress * 100 / 256);
        fflush(stdout);
    }
}

int export_wav(const options& o) {
    if (o.positional.empty() || o.positional.size() > 2) return fail("export needs [SONG] OUT.wav");
    const char* song_path = o.positional.size() == 2 ? o.positional[0] : nullptr;
    const char* out_path = o.positional.back();
    int rate = o.rate ? o.rate : profile_get_int_value("frequency", kDefaultRate, nullptr);
    zelfon_song song;
    if (open_song(song_path, rate, &song)) return 1;
    int result = zelfon_export_to_wav(out_path, o.format, o.mode, print_progress, nullptr, &song);
    if (isatty(STDOUT_FILENO)) printf("\n");
    zelfon_song_close(&song);
    return result ? fail("cannot write " + std::string(out_path)) : 0;
}

int export_midi(const options& o) {
    if (o.positional.empty() || o.positional.size() > 2) return fail("export-midi needs [SONG] OUT.mid");
    zelfon_song song;
    if (open_song(o.positional.size() == 2 ? o.positional[0] : nullptr, kDefaultRate, &song)) return 1;
    int result = zelfon_export_to_midi(o.positional.back(), &song);
    zelfon_song_close(&song);
    return result ? fail("cannot write " + std::string(o.positional.back())) : 0;
}

void print_info(zelfon_song* song) {
    psynth_net* net = song->net;
    printf("Name: %s\n", song->name ? song->name : "");
    printf("BPM: %d  Speed: %d  Volume: %d\n", song->bpm, song->speed, net->global_volume);
    int patterns = 0, clones = 0;
    for (int i = 0; i < song->pats_capacity; i++) {
        if (!song->pats[i]) continue;
        patterns++;
        if (song->pats_info[i].flags & ZELFON_PATTERN_FLAG_CLONE) clones++;
    }
    printf("Patterns: %d (%d clones)\n", patterns, clones);
    printf("Modules:\n");
    for (int m = 0; m < net->slots; m++) {
        const psynth_module* mod = &net->modules[m];
        if (!(mod->flags & PSYNTH_FLAG_EXISTS)) continue;
        const char* type = (mod->flags & PSYNTH_FLAG_OUTPUT) ? "Output" : psynth_get_module_type_name(mod->handler);
        printf("  %d %s (%s)", m, mod->name, type ? type : "?");
        bool first = true;
        for (int i = 0; i < mod->input_links_capacity; i++) {
            if (mod->input_links[i] < 0) continue;
            printf("%s%d", first ? " <- " : " ", mod->input_links[i]);
            first = false;
        }
        printf("\n");
    }
    int64_t frames = zelfon_get_song_length_frames(net->sampling_rate, song);
    printf("Length: %d lines, %lld frames (%.1f s at %d Hz)\n", song->song_lines, (long long)frames,
           (double)frames / net->sampling_rate, net->sampling_rate);
}

int info(const options& o) {
    if (o.positional.size() > 1) return fail("info takes one SONG");
    zelfon_song song;
    if (open_song(o.positional.empty() ? nullptr : o.positional[0], kDefaultRate, &song)) return 1;
    print_info(&song);
    zelfon_song_close(&song);
    return 0;
}

int write_demo(const options& o) {
    if (o.positional.size() != 1) return fail("demo needs OUT.zelfon");
    zelfon_song song;
    if (open_song(nullptr, kDefaultRate, &song)) return 1;
    int result = zelfon_save_song(o.positional[0], ZELFON_VERSION_MAJOR, ZELFON_VERSION_MINOR, &song);
    zelfon_song_close(&song);
    return result ? fail("cannot write " + std::string(o.positional[0])) : 0;
}

}  // namespace

int zelfon_command_line(int argc, char** argv) {
    if (argc < 2) {
        char* demo_args[] = {argv[0], (char*)"export", (char*)kDefaultDemoWav};
        return zelfon_command_line(3, demo_args);
    }
    const char* command = argv[1];
    if (!strcmp(command, "--help") || !strcmp(command, "-h") || !strcmp(command, "help")) {
        fputs(kUsage, stdout);
        return 0;
    }
    if (!strcmp(command, "play")) return zelfon_play_command(argc - 2, argv + 2, open_song);
    if (!strcmp(command, "devices")) return zelfon_devices_command();
    options o = parse_options(argc, argv, 2);
    if (!o.error.empty()) return fail(o.error);
    if (!strcmp(command, "export")) return export_wav(o);
    if (!strcmp(command, "export-midi")) return export_midi(o);
    if (!strcmp(command, "info")) return info(o);
    if (!strcmp(command, "demo")) return write_demo(o);
    fputs(kUsage, stderr);
    return fail(std::string("unknown command ") + command);
}
