// The demo song: synthesised drum samples, three Generator parts and a four-bar
// progression (Am F C G) placed on the timeline with clones, so the whole song is a
// few small patterns. Everything is computed here; no file is read.
#include "song/demo.h"

#include <cmath>
#include <cstring>
#include <numbers>

#include "engine/memory.h"
#include "engine/random.h"
#include "psynth/psynth_modules.h"
#include "psynth/sampler.h"

namespace {

constexpr int kSampleRate = 44100;
constexpr int kBarLines = 16;
constexpr int kPhraseLines = 4 * kBarLines;
constexpr int kPhrases = 6;
constexpr int kEndLine = kPhrases * kPhraseLines;

// Semitone indices (0 = C0) of the drum notes; a cell note is semitone + 1.
constexpr int kKick = 36, kSnare = 38, kHat = 42;

// A 44100 Hz sample plays at its own speed on C-4 with relative note 28 and finetune 100;
// each drum is shifted so that it plays unchanged on its own note.
constexpr int kBaseNote = 48;
constexpr int kRelativeNoteAt44100 = 28;
constexpr int kFinetuneAt44100 = 100;

// Generator controllers and their values (see psynth/generator.cpp).
enum { GEN_VOLUME, GEN_WAVEFORM, GEN_PANNING, GEN_ATTACK, GEN_RELEASE, GEN_POLYPHONY, GEN_MODE, GEN_SUSTAIN, GEN_FM, GEN_DUTY };
enum { WAVE_TRIANGLE = 0, WAVE_SAW = 1, WAVE_SQUARE = 2, WAVE_SINE = 5 };

// ---- Drum samples ----

using sample_shape = double (*)(double t, uint32_t* noise);

double noise_value(uint32_t* seed) { return tarvik_random(seed) / 16383.5 - 1.0; }

double kick(double t, uint32_t*) {
    // A sine falling from 160 Hz to 50 Hz: its phase is the integral of the frequency.
    const double drop = 0.04;
    double phase = 2 * std::numbers::pi * (50 * t + 110 * drop * (1 - std::exp(-t / drop)));
    return 0.95 * std::exp(-t / 0.12) * std::sin(phase);
}

double snare(double t, uint32_t* noise) {
    return 0.55 * std::exp(-t / 0.06) * noise_value(noise) + 0.45 * std::exp(-t / 0.05) * std::sin(2 * std::numbers::pi * 185 * t);
}

double hat(double t, uint32_t* noise) {
    // The difference of two noise values keeps only the high end.
    double a = noise_value(noise), b = noise_value(noise);
    return 0.3 * std::exp(-t / 0.015) * (a - b);
}

// Writes sample `s` (header and 16-bit frames) into the Sampler's chunks.
bool add_drum_sample(int mod, int s, const char* name, int note, double seconds, sample_shape shape, psynth_net* net) {
    int frames = (int)(seconds * kSampleRate);
    if (psynth_new_chunk(mod, psynth_sampler_header_chunk(s), sizeof(psynth_sampler_sample), 0, 0, net) ||
        psynth_new_chunk(mod, psynth_sampler_data_chunk(s), frames * 2, PSYNTH_SAMPLER_STORAGE_INT16, kSampleRate, net)) {
        return false;
    }
    auto* header = (psynth_sampler_sample*)psynth_get_chunk(mod, psynth_sampler_header_chunk(s), net);
    header->length = (uint32_t)frames;
    header->volume = 64;
    header->finetune = kFinetuneAt44100;
    header->type = PSYNTH_SAMPLER_FORMAT_INT16 << PSYNTH_SAMPLER_FORMAT_SHIFT;
    header->panning = 128;
    header->relative_note = (int8_t)(kRelativeNoteAt44100 + kBaseNote - note);
    strncpy(header->name, name, sizeof(header->name) - 1);
    auto* data = (int16_t*)psynth_get_chunk(mod, psynth_sampler_data_chunk(s), net);
    uint32_t noise = 12345 + (uint32_t)s;
    for (int i = 0; i < frames; i++) {
        double fade_in = i < 32 ? i / 32.0 : 1.0;  // no click at the very start
        data[i] = (int16_t)std::lround(32767 * fade_in * shape((double)i / kSampleRate, &noise));
    }
    return true;
}

int add_drums(psynth_net* net, int bpm, int speed) {
    int mod = psynth_add_synth(-1, psynth_sampler, "Drums", 0, 256, 256, bpm, speed, net);
    if (mod < 0) return -1;
    auto* ins = (psynth_sampler_instrument*)psynth_get_chunk(mod, PSYNTH_SAMPLER_INSTRUMENT_CHUNK, net);
    if (!ins || !add_drum_sample(mod, 0, "Kick", kKick, 0.35, kick, net) ||
        !add_drum_sample(mod, 1, "Snare", kSnare, 0.22, snare, net) ||
        !add_drum_sample(mod, 2, "Hat", kHat, 0.06, hat, net)) {
        return -1;
    }
    ins = (psynth_sampler_instrument*)psynth_get_chunk(mod, PSYNTH_SAMPLER_INSTRUMENT_CHUNK, net);
    strncpy(ins->name, "Synth drums", sizeof(ins->name) - 1);
    ins->samples_num = 3;
    ins->sample_map[kSnare] = 1;
    ins->sample_map[kHat] = 2;
    psynth_do_command(mod, PS_CMD_SETUP_FINISHED, net);
    return mod;
}

// ---- Generators ----

struct generator_setup {
    const char* name;
    int x, y;
    int volume, waveform, panning, attack, release, polyphony, duty;
};

int add_generator(const generator_setup& g, psynth_net* net, int bpm, int speed) {
    int mod = psynth_add_synth(-1, psynth_generator, g.name, 0, g.x, g.y, bpm, speed, net);
    if (mod < 0) return -1;
    psynth_module* m = &net->modules[mod];
    const int values[][2] = {{GEN_VOLUME, g.volume}, {GEN_WAVEFORM, g.waveform}, {GEN_PANNING, g.panning},
                             {GEN_ATTACK, g.attack}, {GEN_RELEASE, g.release}, {GEN_POLYPHONY, g.polyphony},
                             {GEN_DUTY, g.duty}};
    for (const auto& v : values) {
        if (v[0] < m->ctls_count) *m->ctls[v[0]].value = v[1];
    }
    psynth_do_command(mod, PS_CMD_SETUP_FINISHED, net);
    return mod;
}

// ---- Patterns ----

struct note_at {
    int line;
    int track;
    int semitone;  // −1 = note off
};

int new_pattern(int lines, int tracks, int x, int y, uint32_t seed, zelfon_song* song) {
    int slot = zelfon_get_free_pattern_num(song);
    if (slot < 0) return -1;
    return new_pattern_with_num(slot, lines, tracks, x, y, seed, song);
}

void write_notes(int slot, int mod, const note_at* notes, int count, int velocity, zelfon_song* song) {
    for (int i = 0; i < count; i++) {
        zelfon_cell* cell = zelfon_get_cell(slot, notes[i].track, notes[i].line, song);
        if (!cell) continue;
        cell->note = (uint8_t)(notes[i].semitone < 0 ? ZELFON_NOTE_OFF : notes[i].semitone + 1);
        cell->module = (uint16_t)(mod + 1);
        if (notes[i].semitone >= 0) cell->vel = (uint8_t)(velocity / 2 + 1);
    }
}

// Places clones of `slot` every `step` lines from `first` up to (not including) `end`.
bool repeat_pattern(int slot, int first, int step, int end, int y, zelfon_song* song) {
    for (int x = first; x < end; x += step) {
        if (zelfon_clone_pattern(slot, x, y, song) < 0) return false;
    }
    return true;
}

// The four chords of the progression: root for the bass, three notes for the pad.
struct chord {
    int bass;
    int pad[3];
};
constexpr chord kProgression[4] = {
    {33, {45, 48, 52}},  // A minor
    {29, {45, 48, 53}},  // F major
    {36, {48, 52, 55}},  // C major
    {31, {47, 50, 55}},  // G major
};

constexpr note_at kDrumBar[] = {
    {0, 0, kKick}, {4, 0, kKick}, {8, 0, kKick}, {12, 0, kKick}, {14, 0, kKick},
    {4, 1, kSnare}, {12, 1, kSnare},
    {2, 2, kHat}, {6, 2, kHat}, {10, 2, kHat}, {13, 2, kHat}, {14, 2, kHat},
};

constexpr note_at kMelody[] = {
    {0, 0, 64}, {4, 0, 62}, {6, 0, 60}, {8, 0, 57}, {12, 0, 60}, {14, 0, 62},
    {16, 0, 60}, {20, 0, 57}, {24, 0, 55}, {28, 0, 57}, {30, 0, -1},
    {32, 0, 64}, {36, 0, 67}, {40, 0, 64}, {44, 0, 62}, {46, 0, 60},
    {48, 0, 62}, {52, 0, 59}, {56, 0, 55}, {60, 0, -1},
};

bool build_patterns(int drums, int bass, int pad, int lead, zelfon_song* song) {
    // Drums: one bar, repeated from the second phrase to the end.
    int drum_bar = new_pattern(kBarLines, 3, kPhraseLines, 0, 1, song);
    if (drum_bar < 0) return false;
    write_notes(drum_bar, drums, kDrumBar, sizeof(kDrumBar) / sizeof(kDrumBar[0]), 220, song);

    // Bass eighths and the pad's chords: one phrase, repeated all through.
    int harmony = new_pattern(kPhraseLines, 4, 0, 1, 2, song);
    if (harmony < 0) return false;
    for (int bar = 0; bar < 4; bar++) {
        const chord& c = kProgression[bar];
        for (int eighth = 0; eighth < 8; eighth++) {
            int line = bar * kBarLines + eighth * 2;
            note_at n[] = {{line, 0, eighth % 4 == 3 ? c.bass + 12 : c.bass}, {line + 1, 0, -1}};
            write_notes(harmony, bass, n, 2, 200, song);
        }
        for (int v = 0; v < 3; v++) {
            note_at n[] = {{bar * kBarLines, 1 + v, c.pad[v]}};
            write_notes(harmony, pad, n, 1, 150, song);
        }
    }
    // Lead: the melody over the third phrase on, an octave up in the last two.
    int melody = new_pattern(kPhraseLines, 1, 2 * kPhraseLines, 2, 3, song);
    int melody_high = new_pattern(kPhraseLines, 1, 4 * kPhraseLines, 2, 4, song);
    if (melody < 0 || melody_high < 0) return false;
    write_notes(melody, lead, kMelody, sizeof(kMelody) / sizeof(kMelody[0]), 200, song);
    note_at high[sizeof(kMelody) / sizeof(kMelody[0])];
    for (size_t i = 0; i < sizeof(kMelody) / sizeof(kMelody[0]); i++) {
        high[i] = kMelody[i];
        if (high[i].semitone >= 0) high[i].semitone += 12;
    }
    write_notes(melody_high, lead, high, sizeof(high) / sizeof(high[0]), 170, song);

    // The ending: one bar of A minor with a last kick, then the notes ring out.
    int ending = new_pattern(kBarLines, 5, kEndLine, 0, 5, song);
    if (ending < 0) return false;
    note_at bass_end[] = {{0, 0, 33}, {12, 0, -1}};
    write_notes(ending, bass, bass_end, 2, 200, song);
    for (int v = 0; v < 3; v++) {
        note_at n[] = {{0, 1 + v, kProgression[0].pad[v]}, {12, 1 + v, -1}};
        write_notes(ending, pad, n, 2, 150, song);
    }
    note_at kick_end[] = {{0, 4, kKick}};
    write_notes(ending, drums, kick_end, 1, 240, song);

    return repeat_pattern(drum_bar, kPhraseLines + kBarLines, kBarLines, kEndLine, 0, song) &&
           repeat_pattern(harmony, kPhraseLines, kPhraseLines, kEndLine, 1, song) &&
           repeat_pattern(melody, 3 * kPhraseLines, kPhraseLines, 4 * kPhraseLines, 2, song) &&
           repeat_pattern(melody_high, 5 * kPhraseLines, kPhraseLines, kEndLine, 2, song);
}

}  // namespace

int zelfon_make_demo_song(zelfon_song* song) {
    psynth_net* net = song->net;
    song->bpm = 125;
    song->speed = 6;
    song->name = mem_strdup("Zelfon demo");
    net->global_volume = 112;  // the parts peak near 18000 of 32767 together

    int drums = add_drums(net, song->bpm, song->speed);
    int bass = add_generator({"Bass", 256, 640, 210, WAVE_SAW, 128, 2, 60, 2, 512}, net, song->bpm, song->speed);
    int pad = add_generator({"Chords", 256, 768, 70, WAVE_TRIANGLE, 100, 60, 400, 6, 512}, net, song->bpm, song->speed);
    int lead = add_generator({"Lead", 256, 384, 110, WAVE_SQUARE, 156, 4, 180, 2, 380}, net, song->bpm, song->speed);
    if (drums < 0 || bass < 0 || pad < 0 || lead < 0 || !song->name) return 1;
    psynth_make_link(0, drums, net);
    psynth_make_link(0, bass, net);
    psynth_make_link(0, pad, net);

    // The lead goes through an Echo when the program has one.
    psynth_handler echo_type = psynth_find_module_type("Echo");
    int echo = echo_type ? psynth_add_synth(-1, echo_type, nullptr, 0, 640, 384, song->bpm, song->speed, net) : -1;
    if (echo >= 0) {
        psynth_do_command(echo, PS_CMD_SETUP_FINISHED, net);
        psynth_make_link(echo, lead, net);
        psynth_make_link(0, echo, net);
    } else {
        psynth_make_link(0, lead, net);
    }

    if (!build_patterns(drums, bass, pad, lead, song)) return 1;
    zelfon_sort_patterns(song);
    return 0;
}
