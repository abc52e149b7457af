// Writes the dense songs of the benchmarks. By default the song of the real-time run
// (bench/realtime_jack.sh): two Generators of eight voices each, sixteen tracks that
// retrigger a chord every two lines, through an Echo and a Reverb; about 5.5 minutes.
// With --samplers MINUTES the song of the export comparison (bench/export_compare.sh):
// eight Samplers of two voices on sixteen tracks, a note or a velocity in most cells.
// With --net the net editor's benchmark (bench/studio_frames.sh): 64 modules, 128 links.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "engine/file.h"
#include "engine/log.h"
#include "engine/memory.h"
#include "psynth/psynth_modules.h"
#include "psynth/sampler.h"
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

int build_generators(zelfon_song* song) {
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

// ---- The Sampler song of the export comparison ----

constexpr int kSamplers = 8;
constexpr int kSampleFrames = 20000;
constexpr int kSampleLoopStart = 2000;
constexpr int kSamplerPolyphony = 2;  // two tracks per Sampler: sixteen voices in all
constexpr int kFadeout = 600;
constexpr int kLinesPerMinute = 500;  // 125 BPM at speed 6: 0.12 s per line

// One looped mono 16-bit sample of 20000 frames, a different tone per Sampler, with the
// volume envelope on and sustained, a fade-out after note-off and linear interpolation.
int add_sampler(int n, zelfon_song* song) {
    psynth_net* net = song->net;
    int mod = psynth_add_synth(-1, psynth_sampler, nullptr, 0, 100 * n, 200, song->bpm, song->speed, net);
    if (mod < 0 ||
        psynth_new_chunk(mod, psynth_sampler_header_chunk(0), sizeof(psynth_sampler_sample), 0, 0, net) ||
        psynth_new_chunk(mod, psynth_sampler_data_chunk(0), kSampleFrames * 2, PSYNTH_SAMPLER_STORAGE_INT16, 44100, net)) {
        return -1;
    }
    int16_t* data = (int16_t*)psynth_get_chunk(mod, psynth_sampler_data_chunk(0), net);
    for (int i = 0; i < kSampleFrames; i++) {
        double t = i * (0.05 + 0.007 * n);
        data[i] = (int16_t)(9000 * std::sin(t) + 3000 * std::sin(2.01 * t) + 1500 * std::sin(5.03 * t));
    }
    auto* h = (psynth_sampler_sample*)psynth_get_chunk(mod, psynth_sampler_header_chunk(0), net);
    h->length = kSampleFrames;
    h->loop_start = kSampleLoopStart;
    h->loop_length = kSampleFrames - kSampleLoopStart;
    h->volume = 64;
    h->panning = (uint8_t)(64 + 16 * n);
    h->relative_note = 12;
    h->type = PSYNTH_SAMPLER_LOOP_FORWARD | (PSYNTH_SAMPLER_FORMAT_INT16 << PSYNTH_SAMPLER_FORMAT_SHIFT);
    auto* ins = (psynth_sampler_instrument*)psynth_get_chunk(mod, PSYNTH_SAMPLER_INSTRUMENT_CHUNK, net);
    ins->samples_num = 1;
    ins->volume_type = PSYNTH_SAMPLER_ENV_ON | PSYNTH_SAMPLER_ENV_SUSTAIN;  // the default points, sustained at 1
    ins->volume_fadeout = kFadeout;
    psynth_sampler_build_envelope_tables(ins);
    psynth_do_command(mod, PS_CMD_SETUP_FINISHED, net);
    *net->modules[mod].ctls[PSYNTH_SAMPLER_CTL_SAMPLE_INTERP].value = 1;
    *net->modules[mod].ctls[PSYNTH_SAMPLER_CTL_POLYPHONY].value = kSamplerPolyphony;
    psynth_make_link(0, mod, net);
    return mod;
}

int build_samplers(int minutes, zelfon_song* song) {
    int mods[kSamplers];
    for (int n = 0; n < kSamplers; n++) {
        if ((mods[n] = add_sampler(n, song)) < 0) return 1;
    }
    int slot = zelfon_get_free_pattern_num(song);
    if (slot < 0 || new_pattern_with_num(slot, kLines, kTracks, 0, 0, 1, song) < 0) return 1;
    for (int line = 0; line < kLines; line++) {
        for (int track = 0; track < kTracks; track++) {
            zelfon_cell* cell = zelfon_get_cell(slot, track, line, song);
            int kind = (line * 3 + track) % 4;  // a note, two velocity changes, an empty cell
            if (kind == 3) continue;
            if (kind == 0) cell->note = (uint8_t)(37 + (line * 7 + track * 5) % 24);
            cell->vel = (uint8_t)(40 + (line * 11 + track * 13) % 90);
            cell->module = (uint16_t)(mods[track / 2] + 1);
        }
    }
    for (int x = kLines; x < minutes * kLinesPerMinute; x += kLines) {
        if (zelfon_clone_pattern(slot, x, 0, song) < 0) return 1;
    }
    zelfon_sort_patterns(song);
    return 0;
}

// 63 modules on an 8 × 8 grid (Generators in the first column, effects after) with two
// links into each but the first column's, 128 in all with the links into Output.
int build_net(zelfon_song* song) {
    psynth_net* net = song->net;
    constexpr int kColumns = 8, kRows = 8, kSpacing = 160;
    psynth_handler effects[] = {psynth_echo, psynth_reverb, psynth_filter, psynth_distortion};
    int grid[kRows][kColumns];
    for (int c = 0; c < kColumns; c++) {
        for (int r = 0; r < kRows; r++) {
            if (c == kColumns - 1 && r == kRows - 1) {
                grid[r][c] = 0;  // Output
                continue;
            }
            psynth_handler type = c == 0 ? psynth_generator : effects[(r + c) % 4];
            grid[r][c] = psynth_add_synth(-1, type, nullptr, 0, c * kSpacing, r * kSpacing * 2 / 3, song->bpm, song->speed, net);
            if (grid[r][c] < 0) return 1;
            psynth_do_command(grid[r][c], PS_CMD_SETUP_FINISHED, net);
        }
    }
    net->modules[0].x = (kColumns - 1) * kSpacing;
    net->modules[0].y = (kRows - 1) * kSpacing * 2 / 3;
    int links = 0;
    for (int c = 1; c < kColumns; c++) {
        for (int r = 0; r < kRows; r++) {
            psynth_make_link(grid[r][c], grid[r][c - 1], net);
            psynth_make_link(grid[r][c], grid[(r + 1) % kRows][c - 1], net);
            links += 2;
        }
    }
    for (int r = 0; r < kRows - 1 && links < 128; r++, links++) psynth_make_link(0, grid[r][kColumns - 1], net);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    bool samplers = argc == 4 && !strcmp(argv[1], "--samplers");
    bool net = argc == 3 && !strcmp(argv[1], "--net");
    if (argc != 2 && !samplers && !net) {
        fprintf(stderr, "usage: zelfon_dense_song [--samplers MINUTES | --net] OUT.zelfon\n");
        return 2;
    }
    mem_init();
    v3_init();
    tarvik_log_init(TARVIK_LOG_FILE);
    zelfon_song song;
    int result = zelfon_song_init(0, 44100, &song);
    if (!result) {
        result = (samplers ? build_samplers(atoi(argv[2]), &song) : net ? build_net(&song) : build_generators(&song)) ||
                 zelfon_save_song(argv[argc - 1], ZELFON_VERSION_MAJOR, ZELFON_VERSION_MINOR, &song);
        zelfon_song_close(&song);
    }
    v3_deinit();
    mem_free_all();
    tarvik_log_close();
    mem_deinit();
    return result ? 1 : 0;
}
