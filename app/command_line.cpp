// Command-line jobs: "export", "export-midi", "info", "demo", "sample-info", "module" and "import"
// (and the real-time "play" and "devices" of app/realtime.cpp). A missing SONG argument
// means the bundled demo song. Outputs are written beside their target and renamed into
// place by the savers, so a failed job never leaves a half-written file.
#include "app/command_line.h"

#include <cstdio>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

#include "app/realtime.h"
#include "engine/file.h"
#include "engine/profile.h"
#include "psynth/psynth_dsp.h"
#include "psynth/psynth_modules.h"
#include "psynth/sample_file.h"
#include "psynth/sampler.h"
#include "psynth/vorbis_player.h"
#include "song/demo.h"
#include "song/export.h"
#include "song/import.h"
#include "song/song_file.h"

namespace {

constexpr int kDefaultRate = 44100;
constexpr const char* kDefaultDemoWav = "zelfon_demo.wav";
constexpr int kMaxThreads = 256;

const char* const kUsage =
    "usage: zelfon [COMMAND]\n"
    "  export [SONG] OUT.wav [--format int16|float32] [--mode mix|modules|effects|connected] [--rate HZ] [--threads N]\n"
    "  export-midi [SONG] OUT.mid\n"
    "  info [SONG]\n"
    "  demo OUT.zelfon\n"
    "  sample-info FILE [--raw float32|int16|int8|uint8] [--channels 1|2]\n"
    "  module vorbis IN.ogg OUT.zelfon   (a song that plays the file once on a Vorbis player)\n"
    "  import IN.xm|mod|s3m|it OUT.zelfon\n"
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
    int raw_format = -1;  // sample-info: read the file as headerless data of this format
    int channels = 1;
    int threads = 0;  // export: render threads, 0 = one per core
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
    static const char* const raw_formats[] = {"float32", "int16", "int8", "uint8"};  // psynth_sample_raw_format order
    options o;
    for (int i = first; i < argc && o.error.empty(); i++) {
        const char* arg = argv[i];
        bool takes_value = !strcmp(arg, "--format") || !strcmp(arg, "--mode") || !strcmp(arg, "--rate") ||
                           !strcmp(arg, "--raw") || !strcmp(arg, "--channels") || !strcmp(arg, "--threads");
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
        } else if (!strcmp(arg, "--raw")) {
            o.raw_format = index_of(value, raw_formats, 4);
            if (o.raw_format < 0) o.error = std::string("unknown raw format ") + value;
        } else if (!strcmp(arg, "--threads")) {
            o.threads = atoi(value);
            if (o.threads < 1 || o.threads > kMaxThreads) o.error = std::string("unusable thread count ") + value;
        } else if (!strcmp(arg, "--channels")) {
            o.channels = atoi(value);
            if (o.channels != 1 && o.channels != 2) o.error = std::string("unusable channel count ") + value;
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
    zelfon_set_render_threads(o.threads, &song);
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

const char* sample_format_text(uint8_t type) {
    switch ((type & PSYNTH_SAMPLER_FORMAT_MASK) >> PSYNTH_SAMPLER_FORMAT_SHIFT) {
    case PSYNTH_SAMPLER_FORMAT_INT8: return "8-bit";
    case PSYNTH_SAMPLER_FORMAT_INT16: return "16-bit";
    case PSYNTH_SAMPLER_FORMAT_FLOAT32: return "32-bit float";
    default: return "unknown format";
    }
}

void print_samples(int mod, psynth_net* net) {
    const auto* ins = (const psynth_sampler_instrument*)psynth_get_chunk(mod, PSYNTH_SAMPLER_INSTRUMENT_CHUNK, net);
    printf("Instrument: \"%.*s\", %d sample%s\n", PSYNTH_SAMPLE_NAME_SIZE, ins->name, ins->samples_num,
           ins->samples_num == 1 ? "" : "s");
    for (int s = 0; s < ins->samples_num; s++) {
        const auto* h = (const psynth_sampler_sample*)psynth_get_chunk(mod, psynth_sampler_header_chunk(s), net);
        if (!h) continue;
        int bytes = 0, rate = 0;
        psynth_get_chunk_info(mod, psynth_sampler_data_chunk(s), &bytes, nullptr, &rate, net);
        static const char* const loops[4] = {"off", "forward", "ping-pong", "forward"};
        int loop = h->type & PSYNTH_SAMPLER_LOOP_MASK;
        printf("Sample %d \"%.*s\": %s %s, %d Hz, %u frames, loop %s", s, PSYNTH_SAMPLE_NAME_SIZE, h->name,
               sample_format_text(h->type), h->type & PSYNTH_SAMPLER_STEREO ? "stereo" : "mono", rate, h->length,
               loops[loop]);
        if (loop) printf(" (start %u, length %u)", h->loop_start, h->loop_length);
        printf(", finetune %d, relative note %d, volume %d\n", h->finetune, h->relative_note, h->volume);
    }
}

int sample_info(const options& o) {
    if (o.positional.size() != 1) return fail("sample-info needs FILE");
    static const char* const kTypes[] = {"RAW", "WAV", "AIFF", "AIFC", "XI", "JPEG image"};
    const char* path = o.positional[0];
    psynth_sample_file_type type = psynth_sample_file_type_of_path(path);
    psynth_net net;
    psynth_init(0, kDefaultRate, 125, 6, &net);
    int mod = psynth_add_synth(-1, psynth_sampler, nullptr, 0, 0, 0, 125, 6, &net);
    int result = mod < 0 ? 1
               : o.raw_format >= 0 || type == PSYNTH_SAMPLE_FILE_JPEG
                   ? psynth_sample_load_raw(path, o.raw_format < 0 ? 0 : o.raw_format, o.channels, mod, PSYNTH_SAMPLE_SLOT_INSTRUMENT, &net)
                   : psynth_sample_load(path, mod, PSYNTH_SAMPLE_SLOT_INSTRUMENT, 0, &net);
    if (result == 0) {
        printf("File: %s\nType: %s\n", path, o.raw_format >= 0 && type != PSYNTH_SAMPLE_FILE_JPEG ? "RAW" : kTypes[type]);
        print_samples(mod, &net);
    }
    std::string why = mod < 0 ? "out of memory" : psynth_sample_load_error();
    psynth_close(&net);
    if (result == 0) return 0;
    if (!why.empty() && why[0] == '!') why.erase(0, 1);      // a message-box text
    while (!why.empty() && why.back() == '\n') why.pop_back();
    if (result == 1 && type == PSYNTH_SAMPLE_FILE_UNKNOWN && o.raw_format < 0) why += " (--raw reads it as headerless data)";
    return fail(std::string(path) + ": " + why);
}

// A Vorbis player holding `ogg_path`, linked into OUT, and a pattern that plays the file
// once on C5 (its own speed) at unity volume. Returns "" or what went wrong.
std::string build_vorbis_song(const char* ogg_path, zelfon_song* song) {
    psynth_net* net = song->net;
    int mod = psynth_add_synth(-1, psynth_vorbis_player, nullptr, 0, 512, 512, song->bpm, song->speed, net);
    if (mod < 0) return "out of memory";
    psynth_do_command(mod, PS_CMD_SETUP_FINISHED, net);
    psynth_make_link(0, mod, net);
    int error = psynth_vorbis_player_load(mod, ogg_path, net);
    psynth_vorbis_info info;
    if (error || psynth_vorbis_player_get_info(mod, &info, net)) {
        return "cannot load " + std::string(ogg_path) + " (error " + std::to_string(error) + ")";
    }
    // Lines to the file's end and one more for the release (tick lengths are in 1/256 frame).
    int64_t frames = info.frames * net->sampling_rate / info.rate;
    int64_t line_frames = (int64_t)psynth_tick_length(net->sampling_rate, song->bpm) * song->speed / 256;
    int lines = (int)((frames + line_frames - 1) / line_frames) + 1;
    int slot = zelfon_get_free_pattern_num(song);
    if (slot < 0 || new_pattern_with_num(slot, lines, 1, 0, 0, 1, song) < 0) return "out of memory";
    zelfon_cell* cell = zelfon_get_cell(slot, 0, 0, song);
    cell->note = (uint8_t)(120 - PSYNTH_VORBIS_BASE_PITCH / 256 + 1);
    cell->module = (uint16_t)(mod + 1);
    net->global_volume = PSYNTH_GAIN_UNITY;
    zelfon_sort_patterns(song);
    return "";
}

int make_module_song(const options& o) {
    if (o.positional.size() != 3 || strcmp(o.positional[0], "vorbis") != 0) return fail("module needs vorbis IN.ogg OUT.zelfon");
    zelfon_song song;
    if (zelfon_song_init(0, kDefaultRate, &song)) return fail("out of memory");
    std::string error = build_vorbis_song(o.positional[1], &song);
    if (error.empty() && zelfon_save_song(o.positional[2], ZELFON_VERSION_MAJOR, ZELFON_VERSION_MINOR, &song)) {
        error = "cannot write " + std::string(o.positional[2]);
    }
    zelfon_song_close(&song);
    return error.empty() ? 0 : fail(error);
}

// True when nothing is at `path` or a song file is (which a new song may replace).
bool may_write_song(const char* path) {
    int fd = v3_open(path, "rb");
    if (!fd) return true;
    char magic[4] = {};
    size_t got = v3_read(magic, 1, sizeof(magic), fd);
    v3_close(fd);
    return got == sizeof(magic) && memcmp(magic, "ZFON", 4) == 0;
}

void print_import_summary(const char* in, const zelfon_song* song, const zelfon_import_report* report) {
    printf("Imported %s (%s) \"%s\": %d tracks, %d lines; patterns %d, clones %d; Samplers %d, samples %d\n", in,
           zelfon_import_format_name(report->format), song->name ? song->name : "", report->channels, report->lines,
           report->patterns, report->clones, report->instruments, report->samples);
    char losses[4096];
    if (zelfon_import_report_losses(report, losses, sizeof(losses)) == 0) {
        printf("Everything was carried over.\n");
    } else {
        printf("Not carried over:\n%s", losses);
    }
}

int import_song(const options& o) {
    if (o.positional.size() != 2) return fail("import needs IN OUT.zelfon");
    const char* in = o.positional[0];
    const char* out = o.positional[1];
    if (!may_write_song(out)) return fail(std::string(out) + " exists and is not a song: not overwritten");
    zelfon_song song;
    if (zelfon_song_init(0, kDefaultRate, &song)) return fail("out of memory");
    zelfon_import_report report;
    std::string error;
    if (zelfon_import_song(in, &song, &report)) {
        error = "cannot import " + std::string(in) + ": " + report.error;
    } else if (zelfon_save_song(out, ZELFON_VERSION_MAJOR, ZELFON_VERSION_MINOR, &song)) {
        error = "cannot write " + std::string(out);
    } else {
        print_import_summary(in, &song, &report);
    }
    zelfon_song_close(&song);
    return error.empty() ? 0 : fail(error);
}

}  // namespace

int zelfon_is_command(const char* word) {
    static const char* const kCommands[] = {"export", "export-midi", "info", "demo", "sample-info", "module",
                                            "play", "devices", "help", "--help", "-h"};
    for (const char* c : kCommands) {
        if (!strcmp(word, c)) return 1;
    }
    return 0;
}

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
    if (!strcmp(command, "sample-info")) return sample_info(o);
    if (!strcmp(command, "module")) return make_module_song(o);
    if (!strcmp(command, "import")) return import_song(o);
    fputs(kUsage, stderr);
    return fail(std::string("unknown command ") + command);
}
