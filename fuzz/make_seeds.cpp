// Writes the fuzzers' seed files into OUT/<target> folders (created here): songs saved by
// the song writer (the demo, and a song playing every module type), each of that song's
// modules as a module file, the test writers' tracker files and sample files, an Ogg
// Vorbis tone (oggenc, as the tests make it), a configuration file and OUT/seed.ppm for
// tools/fuzz.sh to turn into the JPEG seed (cjpeg). The songs are saved through the file
// layer, so OUT must be a real folder.
#include <cstdio>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "engine/file.h"
#include "engine/log.h"
#include "engine/memory.h"
#include "psynth/ogg_tone.h"
#include "psynth/psynth_modules.h"
#include "psynth/sample_writers.h"
#include "song/demo.h"
#include "song/module_file.h"
#include "song/song_file.h"
#include "song/tracker_writers.h"

namespace {

constexpr int kRate = 44100;
constexpr int kEffectTempo = 0x0F;

bool write_file(const std::string& path, const std::string& bytes) {
    FILE* f = fopen(path.c_str(), "wb");
    if (!f) return false;
    bool ok = fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
    return fclose(f) == 0 && ok;
}

std::string text(const tw_bytes& bytes) { return std::string(bytes.begin(), bytes.end()); }

// A song with one module of every type into OUT, a pattern of notes, controller moves and
// tempo changes for each; every module is also saved as a module file.
bool write_module_types_song(const std::string& out) {
    zelfon_song song;
    if (zelfon_song_init(0, kRate, &song)) return false;
    bool ok = true;
    for (int n = 0; n < psynth_get_module_types_count(); n++) {
        int mod = psynth_add_synth(-1, psynth_get_module_type(n), nullptr, 0, 100 + 40 * n, 200, song.bpm, song.speed,
                                   song.net);
        if (mod < 0) return false;
        psynth_do_command(mod, PS_CMD_SETUP_FINISHED, song.net);
        psynth_make_link(0, mod, song.net);
        int slot = zelfon_get_free_pattern_num(&song);
        if (slot < 0 || new_pattern_with_num(slot, 8, 2, 8 * n, 0, (uint32_t)n, &song) != slot) return false;
        zelfon_cell* c = song.pats[slot]->data;
        uint16_t m = (uint16_t)(mod + 1);
        c[0] = zelfon_cell{49, 100, m, 0, 0, 0};
        c[1] = zelfon_cell{0, 0, m, 0, 1, 20000};            // controller 0
        c[2 * 2] = zelfon_cell{61, 0, m, 0x01, 0, 0x20};    // a slide
        c[2 * 2 + 1] = zelfon_cell{0, 0, m, kEffectTempo, 0, 140};
        c[2 * 5] = zelfon_cell{ZELFON_NOTE_OFF, 0, m, 0, 0, 0};
        c[2 * 6 + 1] = zelfon_cell{0, 0, 0, kEffectTempo, 0, 3};
        std::string name = out + "/module/" + std::to_string(n) + ".zelsynth";
        ok = ok && zelfon_save_synth(mod, name.c_str(), ZELFON_SYNTH_POS_AND_LINKS, &song) == 0;
    }
    ok = ok && zelfon_save_song((out + "/song/types.zelfon").c_str(), ZELFON_VERSION_MAJOR, ZELFON_VERSION_MINOR, &song) == 0;
    zelfon_song_close(&song);
    return ok;
}

bool write_demo_song(const std::string& out) {
    zelfon_song song;
    if (zelfon_song_init(0, kRate, &song)) return false;
    bool ok = zelfon_make_demo_song(&song) == 0 &&
              zelfon_save_song((out + "/song/demo.zelfon").c_str(), ZELFON_VERSION_MAJOR, ZELFON_VERSION_MINOR, &song) == 0;
    zelfon_song_close(&song);
    return ok;
}

// An 8 × 8 gradient as a binary PPM.
std::string gradient_ppm() {
    std::string ppm = "P6\n8 8\n255\n";
    for (int i = 0; i < 64; i++) ppm += {(char)(i * 4), (char)(255 - i * 4), (char)(i % 8 * 32)};
    return ppm;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: make_seeds OUT\n");
        return 1;
    }
    mem_init();
    v3_init();
    tarvik_log_disable(1);
    std::string out = argv[1];
    for (const char* dir : {"song", "module", "sample_wav", "sample_aiff", "sample_aifc", "sample_xi", "sample_raw",
                            "sample_jpeg", "vorbis", "profile", "tar", "import_xm", "import_mod", "import_s3m", "import_it"}) {
        mkdir((out + "/" + dir).c_str(), 0755);
    }
    std::string sine;
    for (int16_t v : tw_sine(400, 12000)) sine += sw_le((uint16_t)v, 2);
    const struct {
        const char* path;
        std::string bytes;
    } seeds[] = {
        {"/import_xm/rich.xm", text(tw_rich_file("xm"))},
        {"/import_xm/tone.xm", text(tw_write_xm(tw_tone_song(49, 0)))},
        {"/import_mod/rich.mod", text(tw_rich_file("mod"))},
        {"/import_s3m/rich.s3m", text(tw_rich_file("s3m"))},
        {"/import_s3m/tone.s3m", text(tw_write_s3m(tw_tone_song(0x40, 11025)))},
        {"/import_it/rich.it", text(tw_rich_file("it"))},
        {"/import_it/samples.it", text(tw_rich_file("it-samples"))},
        {"/import_it/tone.it", text(tw_write_it(tw_tone_song(60, 22050), false))},
        {"/sample_aifc/le16.aifc", sw_aifc("NONE", 16, sine)},
        {"/sample_aifc/fl32.aifc", sw_aifc("fl32", 32, std::string(32, '\x3f'))},
        {"/sample_xi/plain.xi", sw_xi(false, kSwXiSamples)},
        {"/sample_xi/pp.xi", sw_xi(true, kSwXiSamples)},
        {"/sample_raw/int16.raw", "\x01" + sine},
        {"/sample_raw/uint8_stereo.raw", "\x07" + sine},
        {"/profile/config.ini", "// the studio's settings\nfrequency 48000\nwindowname \"Zelfon / test\"\n"
                                "zoom 2 // big\nundosize 1000000\r\nnoborder\n"},
        {"/seed.ppm", gradient_ppm()},
    };
    bool ok = true;
    for (const auto& seed : seeds) {
        if (!write_file(out + seed.path, seed.bytes)) {
            fprintf(stderr, "make_seeds: cannot write %s%s\n", out.c_str(), seed.path);
            ok = false;
        }
    }
    ok = ogg_tone_write_wav(out + "/sample_wav/tone.wav", 440, 0.02, 22050, 2) && ok;
    if (ogg_tone_encoder_found()) ok = !ogg_tone_make(out + "/vorbis", "tone", 440, 0.05, 22050, 2).empty() && ok;
    ok = write_demo_song(out) && write_module_types_song(out) && ok;
    if (!ok) fprintf(stderr, "make_seeds: some seeds could not be written\n");
    return ok ? 0 : 1;
}
