// Command-line jobs: "export", "export-midi", "info", "demo", "sample-info", "module" and "import"
// (and the real-time "play" and "devices" of app/realtime.cpp). A missing SONG argument
// means the bundled demo song. Inputs are checked before the loaders see them: only
// regular files are opened (a FIFO or device could block or never end) and a SONG must
// start with the song magic. Outputs are safe saves of the file layer, so a failed job
// never leaves a half-written file; "-" writes to standard output, and an export never
// replaces a song or module file. Numbers are read whole and strictly.
#include "app/command_line.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
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
#include "song/chunks.h"
#include "song/demo.h"
#include "song/export.h"
#include "song/import.h"
#include "song/song_file.h"

namespace {

constexpr int kDefaultRate = 44100;
constexpr const char* kDefaultDemoWav = "zelfon_demo.wav";
constexpr int kMaxThreads = 256;
constexpr int kMaxChannels = 2;

const char* const kUsage =
    "usage: zelfon [COMMAND]\n"
    "  export [SONG] OUT.wav [--format int16|float32] [--mode mix|modules|effects|connected] [--rate HZ] [--threads N]\n"
    "  export-midi [SONG] OUT.mid\n"
    "  info [SONG]\n"
    "  demo OUT.zelfon\n"
    "  sample-info FILE [--raw float32|int16|int8|uint8] [--channels 1|2]\n"
    "  module vorbis IN.ogg OUT.zelfon   (a song that plays the file once on a Vorbis player)\n"
    "  import IN.xm|mod|s3m|it OUT.zelfon\n"
    "  play [SONG] [--driver jack|pulse|alsa] [--device N] [--buffer FRAMES] [--rate HZ] [--wait SECONDS]\n"
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

// The value of a number option; sets `error` when `value` is not a whole number in min..max.
int number_option(const char* what, const char* value, int min, int max, std::string* error) {
    int n = 0;
    if (!zelfon_parse_number(value, min, max, &n)) {
        *error = std::string("unusable ") + what + " " + value + " (a whole number from " + std::to_string(min) +
                 " to " + std::to_string(max) + ")";
    }
    return n;
}

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
            o.threads = number_option("thread count", value, 1, kMaxThreads, &o.error);
        } else if (!strcmp(arg, "--channels")) {
            o.channels = number_option("channel count", value, 1, kMaxChannels, &o.error);
        } else {
            o.rate = number_option("rate", value, ZELFON_CLI_RATE_MIN, ZELFON_CLI_RATE_MAX, &o.error);
        }
    }
    return o;
}

// Empty when `path` is a song file the loader may read, else why not.
std::string song_input_problem(const char* path) {
    std::string p = path;
    switch (zelfon_file_kind(path)) {
    case ZELFON_FILE_SONG: return "";
    case ZELFON_FILE_CANT_OPEN: return "cannot open " + p;
    case ZELFON_FILE_NOT_REGULAR: return p + " is not a regular file";
    case ZELFON_FILE_MODULE: return p + " is a module file, not a song";
    default: return p + " is not a Zelfon song";
    }
}

// Empty unless something other than a regular file is at `path` (a missing file is for the
// loader to report).
std::string regular_input_problem(const char* path) {
    int type = v3_get_file_type(path);
    return type == V3_FILE_NONE || type == V3_FILE_REGULAR ? "" : std::string(path) + " is not a regular file";
}

// Empty when an export may write `path`: never over a song or module file, never a folder.
std::string export_output_problem(const char* path) {
    int kind = zelfon_file_kind(path);
    if (kind == ZELFON_FILE_SONG || kind == ZELFON_FILE_MODULE) {
        return std::string(path) + " is a song or module file: an export does not replace it";
    }
    return v3_get_file_type(path) == V3_FILE_DIRECTORY ? std::string(path) + " is a folder" : "";
}

// Loads `path` into a new song at `rate`, or makes the demo when path is null.
int open_song(const char* path, int rate, zelfon_song* song) {
    std::string problem = path ? song_input_problem(path) : "";
    if (!problem.empty()) return fail(problem);
    if (zelfon_song_init(0, rate, song)) return fail("out of memory");
    int error = path ? zelfon_load_song(path, song) : zelfon_make_demo_song(song);
    if (error) {
        zelfon_song_close(song);
        return fail(path ? "cannot load " + std::string(path) + ": " + zelfon_load_error_text(error)
                         : std::string("cannot build the demo song"));
    }
    zelfon_sort_patterns(song);
    return 0;
}

// Shown on a terminal only, and never when the output itself goes to standard output.
bool shows_progress(const char* out_path) { return strcmp(out_path, V3_SAVE_STDOUT) != 0 && isatty(STDOUT_FILENO); }

// `data` is non-null when the progress is shown (see shows_progress).
void print_progress(void* data, int progress) {
    if (data) {
        printf("\rExporting: %3d%%", progress * 100 / 256);
        fflush(stdout);
    }
}

// The line for a failed export: what could not be written, and why when the file is not to blame.
std::string export_failure(const char* path, int result) {
    std::string line = "cannot write " + std::string(path);
    const char* why = zelfon_export_failure_reason(result);
    return *why ? line + ": " + why : line;
}

int export_wav(const options& o) {
    if (o.positional.empty() || o.positional.size() > 2) return fail("export needs [SONG] OUT.wav");
    const char* song_path = o.positional.size() == 2 ? o.positional[0] : nullptr;
    const char* out_path = o.positional.back();
    std::string problem = export_output_problem(out_path);
    if (!problem.empty()) return fail(problem);
    int rate = o.rate ? o.rate : profile_get_int_value("frequency", kDefaultRate, nullptr);
    zelfon_song song;
    if (open_song(song_path, rate, &song)) return 1;
    zelfon_set_render_threads(o.threads, &song);
    bool progress = shows_progress(out_path);
    int result = zelfon_export_to_wav(out_path, o.format, o.mode, print_progress, progress ? &song : nullptr, &song);
    if (progress) printf("\n");
    zelfon_song_close(&song);
    return result ? fail(export_failure(out_path, result)) : 0;
}

int export_midi(const options& o) {
    if (o.positional.empty() || o.positional.size() > 2) return fail("export-midi needs [SONG] OUT.mid");
    std::string problem = export_output_problem(o.positional.back());
    if (!problem.empty()) return fail(problem);
    zelfon_song song;
    if (open_song(o.positional.size() == 2 ? o.positional[0] : nullptr, kDefaultRate, &song)) return 1;
    int result = zelfon_export_to_midi(o.positional.back(), &song);
    zelfon_song_close(&song);
    return result ? fail(export_failure(o.positional.back(), result)) : 0;
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

// True when nothing is at `path`, a song file is (which a new song may replace), or a
// device or FIFO that is written in place.
bool may_write_song(const char* path) {
    int kind = zelfon_file_kind(path);
    return kind == ZELFON_FILE_SONG || (kind == ZELFON_FILE_CANT_OPEN && v3_get_file_type(path) == V3_FILE_NONE) ||
           v3_get_file_type(path) == V3_FILE_SPECIAL;
}

int write_demo(const options& o) {
    if (o.positional.size() != 1) return fail("demo needs OUT.zelfon");
    if (!may_write_song(o.positional[0])) return fail(std::string(o.positional[0]) + " exists and is not a song: not overwritten");
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
    std::string problem = regular_input_problem(path);
    if (!problem.empty()) return fail(problem);
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
    std::string problem = regular_input_problem(o.positional[1]);
    if (!problem.empty()) return fail(problem);
    if (!may_write_song(o.positional[2])) return fail(std::string(o.positional[2]) + " exists and is not a song: not overwritten");
    zelfon_song song;
    if (zelfon_song_init(0, kDefaultRate, &song)) return fail("out of memory");
    std::string error = build_vorbis_song(o.positional[1], &song);
    if (error.empty() && zelfon_save_song(o.positional[2], ZELFON_VERSION_MAJOR, ZELFON_VERSION_MINOR, &song)) {
        error = "cannot write " + std::string(o.positional[2]);
    }
    zelfon_song_close(&song);
    return error.empty() ? 0 : fail(error);
}

// On standard output, unless the song itself goes there.
void print_import_summary(const char* in, const char* out, const zelfon_song* song, const zelfon_import_report* report) {
    FILE* to = strcmp(out, V3_SAVE_STDOUT) ? stdout : stderr;
    fprintf(to, "Imported %s (%s) \"%s\": %d tracks, %d lines; patterns %d, clones %d; Samplers %d, samples %d\n", in,
           zelfon_import_format_name(report->format), song->name ? song->name : "", report->channels, report->lines,
           report->patterns, report->clones, report->instruments, report->samples);
    char losses[4096];
    if (zelfon_import_report_losses(report, losses, sizeof(losses)) == 0) {
        fprintf(to, "Everything was carried over.\n");
    } else {
        fprintf(to, "Not carried over:\n%s", losses);
    }
}

int import_song(const options& o) {
    if (o.positional.size() != 2) return fail("import needs IN OUT.zelfon");
    const char* in = o.positional[0];
    const char* out = o.positional[1];
    std::string problem = regular_input_problem(in);
    if (!problem.empty()) return fail(problem);
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
        print_import_summary(in, out, &song, &report);
    }
    zelfon_song_close(&song);
    return error.empty() ? 0 : fail(error);
}

}  // namespace

int zelfon_parse_number(const char* text, int min, int max, int* value) {
    if (!text) return 0;
    const char* digits = text[0] == '-' ? text + 1 : text;
    if (*digits < '0' || *digits > '9') return 0;  // no blanks, "+" or empty text, which strtoll would take
    errno = 0;
    char* end = nullptr;
    long long n = strtoll(text, &end, 10);
    if (errno == ERANGE || *end || n < min || n > max) return 0;
    *value = (int)n;
    return 1;
}

int zelfon_command_writes_stdout(int argc, char** argv) {
    for (int i = 1; i < argc; i++) {
        if (!strcmp(argv[i], V3_SAVE_STDOUT)) return 1;
    }
    return 0;
}

int zelfon_is_command(const char* word) {
    static const char* const kCommands[] = {"export", "export-midi", "info", "demo", "sample-info", "module",
                                            "import", "play", "devices", "help", "--help", "-h"};
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
