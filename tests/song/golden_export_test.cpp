// Golden exports: songs that play every module type, the Sampler in every sample format,
// loop kind and interpolation setting, and nets with cycles, many modules and unfed
// effects are exported to WAV and compared, second by second, with reference hashes
// kept in tests/data/golden_exports.txt, so any change to a rendered sample shows, with
// the net rendered on one thread or on several.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "engine/random.h"
#include "psynth/psynth_cpu.h"
#include "psynth/psynth_modules.h"
#include "psynth/sampler.h"
#include "song/demo.h"
#include "song/export.h"
#include "song_test_util.h"

namespace {

constexpr int kRate = 44100;
constexpr size_t kWavHeader = 44;
const char* const kGoldenFile = ZELFON_TEST_DATA_DIR "/golden_exports.txt";

// FNV-1a, 64 bits: enough to tell any change in a second of sound.
uint64_t fnv1a64(const uint8_t* data, size_t size) {
    uint64_t h = 0xcbf29ce484222325ull;
    for (size_t i = 0; i < size; i++) h = (h ^ data[i]) * 0x100000001b3ull;
    return h;
}

// "size hash hash ...": the file's size, then one hash per second of frames (the header
// goes with the first second).
std::string fingerprint(const bytes& file, int frame_bytes) {
    std::ostringstream out;
    out << file.size();
    const size_t second = (size_t)kRate * frame_bytes;
    for (size_t at = 0; at < file.size(); at += at == 0 ? second + kWavHeader : second) {
        size_t len = std::min(at == 0 ? second + kWavHeader : second, file.size() - at);
        char hex[17];
        snprintf(hex, sizeof(hex), "%016llx", (unsigned long long)fnv1a64(file.data() + at, len));
        out << ' ' << hex;
    }
    return out.str();
}

// Where two fingerprints first differ, in words; empty when equal.
std::string fingerprint_difference(const std::string& got, const std::string& want) {
    std::istringstream a(got), b(want);
    std::string x, y;
    for (int field = 0; a >> x, b >> y, a || b; field++) {
        if (x == y) continue;
        if (field == 0) return "size " + x + " instead of " + y;
        return "second " + std::to_string(field - 1) + " differs";
    }
    return "";
}

std::map<std::string, std::string> read_golden() {
    std::map<std::string, std::string> golden;
    std::ifstream in(kGoldenFile);
    std::string line;
    while (std::getline(in, line)) {
        size_t space = line.find(' ');
        if (line.empty() || line[0] == '#' || space == std::string::npos) continue;
        golden[line.substr(0, space)] = line.substr(space + 1);
    }
    return golden;
}

class GoldenExportTest : public SongFixture {
public:
    // A sample of `frames` frames: a triangle with a little noise, in the given format.
    void add_sample(int mod, int s, int format, bool stereo, int loop, int frames, int period, int relative_note) {
        psynth_net* net = song.net;
        const int channels = stereo ? 2 : 1;
        const int bytes = format == PSYNTH_SAMPLER_FORMAT_INT8 ? 1 : format == PSYNTH_SAMPLER_FORMAT_INT16 ? 2 : 4;
        ASSERT_EQ(psynth_new_chunk(mod, psynth_sampler_header_chunk(s), sizeof(psynth_sampler_sample), 0, 0, net), 0);
        ASSERT_EQ(psynth_new_chunk(mod, psynth_sampler_data_chunk(s), frames * channels * bytes, 0, kRate, net), 0);
        void* data = psynth_get_chunk(mod, psynth_sampler_data_chunk(s), net);
        uint32_t seed = 99 + (uint32_t)(s * 7 + mod);
        for (int i = 0; i < frames * channels; i++) {
            int phase = (i / channels + (i % channels) * period / 3) % period;
            int tri = (phase < period / 2 ? phase : period - phase) * 4 * 24000 / period - 24000;
            int v = tri + (int)(tarvik_random(&seed) % 2001) - 1000;
            if (format == PSYNTH_SAMPLER_FORMAT_INT8) ((int8_t*)data)[i] = (int8_t)(v >> 8);
            else if (format == PSYNTH_SAMPLER_FORMAT_INT16) ((int16_t*)data)[i] = (int16_t)v;
            else ((float*)data)[i] = (float)v / 32768.0f;
        }
        auto* h = (psynth_sampler_sample*)psynth_get_chunk(mod, psynth_sampler_header_chunk(s), net);
        h->length = (uint32_t)frames;
        h->loop_start = (uint32_t)frames / 5;
        h->loop_length = (uint32_t)frames - h->loop_start - frames / 7;
        h->volume = 60;
        h->panning = (uint8_t)(100 + 13 * s);
        h->relative_note = (int8_t)relative_note;
        h->finetune = (int8_t)(s * 11 - 20);
        h->type = (uint8_t)(loop | format << PSYNTH_SAMPLER_FORMAT_SHIFT | (stereo ? PSYNTH_SAMPLER_STEREO : 0));
        auto* ins = (psynth_sampler_instrument*)psynth_get_chunk(mod, PSYNTH_SAMPLER_INSTRUMENT_CHUNK, net);
        if (ins->samples_num < s + 1) ins->samples_num = (uint16_t)(s + 1);
    }

    // Volume envelope with a sustain point and a fade-out; a looping panning envelope when asked.
    void shape_instrument(int mod, bool pan_loop, int vibrato_depth) {
        auto* ins = (psynth_sampler_instrument*)psynth_get_chunk(mod, PSYNTH_SAMPLER_INSTRUMENT_CHUNK, song.net);
        ins->volume_type = PSYNTH_SAMPLER_ENV_ON | PSYNTH_SAMPLER_ENV_SUSTAIN;
        ins->volume_fadeout = 900;
        if (pan_loop) {
            ins->panning_type = PSYNTH_SAMPLER_ENV_ON | PSYNTH_SAMPLER_ENV_LOOP;
            ins->panning_loop_start = 1;
            ins->panning_loop_end = 3;
        }
        ins->vibrato_type = (uint8_t)(vibrato_depth % 3);
        ins->vibrato_depth = (uint8_t)vibrato_depth;
        ins->vibrato_rate = 9;
        ins->vibrato_sweep = 20;
        ins->volume = 58;
        psynth_sampler_build_envelope_tables(ins);
    }

    // Notes with velocity changes, offsets, slides and note-offs on `track` for `mod`.
    void write_track(int slot, int track, int mod, int lines, int base) {
        for (int line = 0; line < lines; line++) {
            zelfon_cell& c = cell(slot, track, line);
            switch ((line + track) % 8) {
            case 0: c = note_cell(base + (line * 5) % 19, mod + 1, 90 + line % 30); break;
            case 1: c = note_cell(0, mod + 1, 40 + line % 50); break;
            case 2: c = note_cell(0, mod + 1, 0, 0x01, 6); break;
            case 3: c = note_cell(base + 7, mod + 1, 120, 0x09, 3); break;
            case 4: c = note_cell(0, mod + 1, 0, 0x02, 4); break;
            case 5: c = note_cell(ZELFON_NOTE_OFF, mod + 1); break;
            case 6: c = note_cell(base + 12 + line % 5, mod + 1, 0, 0x07, 9000); break;
            default: break;
            }
        }
    }

    // Exports the song (mode, format) into a folder of its own with 1, 2 and 4 render
    // threads, and with one thread on the baseline instruction set, and compares every
    // file with the golden line "case/file". With ZELFON_GOLDEN_WRITE set the lines of the
    // first export are printed instead; with ZELFON_GOLDEN_SONGS set to a folder the song
    // is saved there as "case.zelfon", for exports by other builds.
    void check_export(const std::string& name, int format, int mode) {
        const bool write = getenv("ZELFON_GOLDEN_WRITE") != nullptr;
        if (const char* songs = getenv("ZELFON_GOLDEN_SONGS")) {
            std::string path = std::string(songs) + "/" + name + ".zelfon";
            ASSERT_EQ(zelfon_save_song(path.c_str(), ZELFON_VERSION_MAJOR, ZELFON_VERSION_MINOR, &song), 0);
        }
        for (int run = 0; run < 4 && !(write && run > 0); run++) {
            const int threads = run == 1 ? 2 : run == 2 ? 4 : 1;
            psynth_cpu_baseline_only(run == 3);
            ASSERT_EQ(zelfon_set_render_threads(threads, &song), threads);
            check_export_files(name, format, mode, threads, write);
        }
        psynth_cpu_baseline_only(false);
        zelfon_set_render_threads(1, &song);
    }

    void check_export_files(const std::string& name, int format, int mode, int threads, bool write) {
        std::filesystem::path dir = std::filesystem::path(temp_dir) / name;
        std::filesystem::create_directories(dir);
        std::string path = "3:/" + name + "/out.wav";
        ASSERT_EQ(zelfon_export_to_wav(path.c_str(), format, mode, nullptr, nullptr, &song), ZELFON_EXPORT_OK);
        std::vector<std::string> files;
        for (const auto& entry : std::filesystem::directory_iterator(dir)) files.push_back(entry.path().filename());
        std::sort(files.begin(), files.end());
        ASSERT_FALSE(files.empty());
        static const std::map<std::string, std::string> golden = read_golden();
        for (const std::string& file : files) {
            std::string got = fingerprint(file_bytes(("3:/" + name + "/" + file).c_str()), format == ZELFON_EXPORT_INT16 ? 4 : 8);
            std::string key = name + "/" + file;
            std::replace(key.begin(), key.end(), ' ', '_');  // module names may hold spaces
            if (write) {
                printf("%s %s\n", key.c_str(), got.c_str());
                continue;
            }
            auto want = golden.find(key);
            ASSERT_NE(want, golden.end()) << key << " has no golden line";
            EXPECT_EQ(fingerprint_difference(got, want->second), "")
                << key << " with " << threads << " threads" << (psynth_cpu_has_avx2() ? "" : ", baseline instructions");
        }
        std::filesystem::remove_all(dir);
    }

    // A link from `src` back into `dest`, closing a cycle.
    void add_cycle_link(int dest, int src) {
        psynth_add_input_link(dest, src, song.net);
        psynth_add_output_link(src, dest, song.net);
    }

    // A pattern of `lines` lines at 0 for `tracks` tracks.
    int pattern(int lines, int tracks) { return add_pattern(0, lines, tracks); }
};

TEST_F(GoldenExportTest, DemoSongMix) {
    ASSERT_EQ(zelfon_make_demo_song(&song), 0);
    check_export("demo_int16", ZELFON_EXPORT_INT16, ZELFON_EXPORT_ONE_FILE);
    check_export("demo_float", ZELFON_EXPORT_FLOAT32, ZELFON_EXPORT_PER_MODULE);
}

// Every module type fed by one Generator and playing its own track.
TEST_F(GoldenExportTest, EveryModuleType) {
    const int types = psynth_get_module_types_count();
    int slot = pattern(48, types + 1);
    int feed = add_module(psynth_generator, "Feed");
    write_track(slot, types, feed, 48, 30);
    for (int n = 0; n < types; n++) {
        psynth_handler handler = psynth_get_module_type(n);
        int mod = add_module(handler);
        if (handler == psynth_sampler) {
            add_sample(mod, 0, PSYNTH_SAMPLER_FORMAT_INT16, false, PSYNTH_SAMPLER_LOOP_FORWARD, 9000, 97, 12);
            shape_instrument(mod, true, 6);
        }
        psynth_make_link(mod, feed, song.net);
        psynth_make_link(0, mod, song.net);
        write_track(slot, n, mod, 48, 36 + n % 12);
    }
    check_export("types", ZELFON_EXPORT_INT16, ZELFON_EXPORT_PER_MODULE);
}

// Samplers in every sample format, mono and stereo, each loop kind, interpolation off,
// linear and "cubic", volume ramps on and off.
TEST_F(GoldenExportTest, SamplerFormatsLoopsAndInterpolation) {
    struct variant {
        int format;
        bool stereo;
        int loop;
        int sample_interp;
        int volume_interp;
    };
    const variant variants[] = {
        {PSYNTH_SAMPLER_FORMAT_INT16, false, PSYNTH_SAMPLER_LOOP_FORWARD, 1, 1},
        {PSYNTH_SAMPLER_FORMAT_INT16, true, PSYNTH_SAMPLER_LOOP_PINGPONG, 2, 1},
        {PSYNTH_SAMPLER_FORMAT_INT16, false, PSYNTH_SAMPLER_LOOP_OFF, 0, 0},
        {PSYNTH_SAMPLER_FORMAT_INT8, false, PSYNTH_SAMPLER_LOOP_PINGPONG, 1, 1},
        {PSYNTH_SAMPLER_FORMAT_INT8, true, PSYNTH_SAMPLER_LOOP_FORWARD, 0, 1},
        {PSYNTH_SAMPLER_FORMAT_FLOAT32, false, PSYNTH_SAMPLER_LOOP_FORWARD, 1, 0},
        {PSYNTH_SAMPLER_FORMAT_FLOAT32, true, PSYNTH_SAMPLER_LOOP_OFF, 1, 1},
        {PSYNTH_SAMPLER_FORMAT_INT16, true, PSYNTH_SAMPLER_LOOP_FORWARD, 1, 1},
    };
    const int count = (int)(sizeof(variants) / sizeof(variants[0]));
    int slot = pattern(64, 2 * count);
    for (int k = 0; k < count; k++) {
        const variant& v = variants[k];
        int mod = add_module(psynth_sampler);
        // Two samples with different lengths and loops; the upper notes take the second.
        add_sample(mod, 0, v.format, v.stereo, v.loop, 3000 + 1700 * k, 61 + 10 * k, 17 + k);
        add_sample(mod, 1, v.format, v.stereo, v.loop, 400 + 50 * k, 37, 29);
        auto* ins = (psynth_sampler_instrument*)psynth_get_chunk(mod, PSYNTH_SAMPLER_INSTRUMENT_CHUNK, song.net);
        for (int n = 50; n < PSYNTH_SAMPLER_NOTES; n++) ins->sample_map[n] = 1;
        shape_instrument(mod, k % 2 == 0, k * 3);
        psynth_do_command(mod, PS_CMD_SETUP_FINISHED, song.net);
        ctl(mod, PSYNTH_SAMPLER_CTL_SAMPLE_INTERP) = v.sample_interp;
        ctl(mod, PSYNTH_SAMPLER_CTL_VOLUME_INTERP) = v.volume_interp;
        ctl(mod, PSYNTH_SAMPLER_CTL_POLYPHONY) = 4 + k;
        psynth_make_link(0, mod, song.net);
        write_track(slot, 2 * k, mod, 64, 40 + k);
        write_track(slot, 2 * k + 1, mod, 64, 47 + k);
    }
    check_export("sampler_mix", ZELFON_EXPORT_INT16, ZELFON_EXPORT_ONE_FILE);
    check_export("sampler_modules", ZELFON_EXPORT_FLOAT32, ZELFON_EXPORT_PER_MODULE);
}

// The Reverb in each of its modes, fed by a Generator, each on its own and in the mix.
TEST_F(GoldenExportTest, ReverbModes) {
    int slot = pattern(24, 1);
    int source = add_module(psynth_generator, "Source");
    write_track(slot, 0, source, 24, 40);
    for (int mode = 0; mode < 4; mode++) {
        int reverb = add_module(psynth_reverb);
        psynth_module* m = &song.net->modules[reverb];
        for (int c = 0; c < m->ctls_count; c++) {
            if (!strcmp(m->ctls[c].name, "Mode")) *m->ctls[c].value = mode;
            if (!strcmp(m->ctls[c].name, "Feedback")) *m->ctls[c].value = 200 + 10 * mode;
        }
        psynth_make_link(reverb, source, song.net);
        psynth_make_link(0, reverb, song.net);
    }
    check_export("reverb", ZELFON_EXPORT_INT16, ZELFON_EXPORT_PER_MODULE);
}

// Nets the render must take as they are: a cycle, a thousand modules, effects with no input.
TEST_F(GoldenExportTest, CyclesManyModulesAndUnfedEffects) {
    int slot = pattern(32, 3);
    int source = add_module(psynth_generator, "Source");
    write_track(slot, 0, source, 32, 40);
    // A → B → A (as a song file may hold it: a link toggles), fed by the source, B into OUT.
    int a = add_module(psynth_echo, "A"), b = add_module(psynth_distortion, "B");
    psynth_make_link(a, source, song.net);
    psynth_make_link(b, a, song.net);
    add_cycle_link(a, b);
    psynth_make_link(0, b, song.net);
    // Effects with no input, one linked into OUT.
    int unfed = add_module(psynth_reverb, "Unfed");
    add_module(psynth_filter, "Alone");
    psynth_make_link(0, unfed, song.net);
    // A thousand Amplifiers: a hundred chains of ten, fed in turn by two Generators, each
    // chain's end into OUT and some chains closed into a cycle.
    int other = add_module(psynth_generator, "Other");
    write_track(slot, 1, other, 32, 52);
    int first_amp = -1;
    for (int chain = 0; chain < 100; chain++) {
        int prev = chain % 2 ? source : other;
        for (int k = 0; k < 10; k++) {
            int amp = add_module(psynth_amplifier);
            ASSERT_GE(amp, 0);
            if (first_amp < 0) first_amp = amp;
            psynth_make_link(amp, prev, song.net);
            prev = amp;
        }
        if (chain % 7 == 3) add_cycle_link(prev - 5, prev);
        psynth_make_link(0, prev, song.net);
    }
    // OUT's mix fed back through an Amplifier into OUT, and a muted chain head.
    int back = add_module(psynth_amplifier, "Back");
    add_cycle_link(back, 0);
    psynth_make_link(0, back, song.net);
    song.net->modules[first_amp + 20].flags |= PSYNTH_FLAG_MUTE;
    // A MultiSynth playing a Generator: events queued by a module while the net renders.
    int multi = add_module(psynth_multisynth, "Multi"), played = add_module(psynth_generator, "Played");
    psynth_make_link(played, multi, song.net);
    psynth_make_link(0, played, song.net);
    write_track(slot, 2, multi, 32, 45);
    check_export("nets", ZELFON_EXPORT_INT16, ZELFON_EXPORT_ONE_FILE);
}

}  // namespace
