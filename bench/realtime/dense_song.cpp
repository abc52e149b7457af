// Writes the song of the real-time benchmark (bench/realtime_jack.sh): two Generators of
// eight voices each, sixteen tracks that retrigger a chord every two lines so that all
// sixteen voices always sound, through an Echo and a Reverb; about 5.5 minutes long.
#include <cstdio>

#include "engine/file.h"
#include "engine/log.h"
#include "engine/memory.h"
#include "psynth/psynth_modules.h"
#include "song/song_file.h"

namespace {

constexpr int kLines = 64;
constexpr int kTracks = 16;
constexpr int kSongLines = 2752;  // 43 copies of the pattern: 5.5 minutes at 125 BPM, speed 6
constexpr int kGeneratorPolyphony = 5;  // controller numbers of the Generator
constexpr int kGeneratorWaveform = 1;

int add_generator(const char* name, int waveform, zelfon_song* song) {
    psynth_net* net = song->net;
    int mod = psynth_add_synth(-1, psynth_generator, name, 0, 128, 512, song->bpm, song->speed, net);
    if (mod < 0) return -1;
    *net->modules[mod].ctls[kGeneratorPolyphony].value = 8;
    *net->modules[mod].ctls[kGeneratorWaveform].value = waveform;
    psynth_do_command(mod, PS_CMD_SETUP_FINISHED, net);
    return mod;
}

int build(zelfon_song* song) {
    psynth_net* net = song->net;
    int saw = add_generator("Saws", 1, song), square = add_generator("Squares", 2, song);
    int echo = psynth_add_synth(-1, psynth_echo, "Echo", 0, 384, 512, song->bpm, song->speed, net);
    int reverb = psynth_add_synth(-1, psynth_reverb, "Reverb", 0, 640, 512, song->bpm, song->speed, net);
    if (saw < 0 || square < 0 || echo < 0 || reverb < 0) return 1;
    psynth_do_command(echo, PS_CMD_SETUP_FINISHED, net);
    psynth_do_command(reverb, PS_CMD_SETUP_FINISHED, net);
    psynth_make_link(echo, saw, net);
    psynth_make_link(echo, square, net);
    psynth_make_link(reverb, echo, net);
    psynth_make_link(0, reverb, net);

    int slot = zelfon_get_free_pattern_num(song);
    if (slot < 0 || new_pattern_with_num(slot, kLines, kTracks, 0, 0, 1, song) < 0) return 1;
    static const int kChord[8] = {0, 4, 7, 11, 14, 17, 21, 24};
    for (int line = 0; line < kLines; line += 2) {
        int root = 36 + (line / 16) * 5 % 12;
        for (int track = 0; track < kTracks; track++) {
            zelfon_cell* cell = zelfon_get_cell(slot, track, line, song);
            cell->note = (uint8_t)(root + kChord[track % 8] + (track / 8) * 12 + 1);
            cell->vel = 60;
            cell->module = (uint16_t)((track < 8 ? saw : square) + 1);
        }
    }
    for (int x = kLines; x < kSongLines; x += kLines) {
        if (zelfon_clone_pattern(slot, x, 0, song) < 0) return 1;
    }
    zelfon_sort_patterns(song);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: zelfon_dense_song OUT.zelfon\n");
        return 2;
    }
    mem_init();
    v3_init();
    tarvik_log_init(TARVIK_LOG_FILE);
    zelfon_song song;
    int result = zelfon_song_init(0, 44100, &song);
    if (!result) {
        result = build(&song) || zelfon_save_song(argv[1], ZELFON_VERSION_MAJOR, ZELFON_VERSION_MINOR, &song);
        zelfon_song_close(&song);
    }
    v3_deinit();
    mem_free_all();
    tarvik_log_close();
    mem_deinit();
    return result ? 1 : 0;
}
