// The Generator: its controllers and drawn-wave chunk, the shape, period and level of every
// waveform, envelopes, voice choice (mono legato, stealing), phase modulation from its
// input, and the guarantee that where the net cuts render pieces changes nothing.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <numbers>
#include <string>
#include <vector>

#include "engine/memory.h"
#include "psynth/psynth_modules.h"
#include "test_modules.h"

namespace {

// 4 × 8363 Hz. The frequency table holds 32 × a note's frequency in Hz; for C5 (semitone 60,
// pitch 15360) that is 535232 >> 5 = 16726, so a period lasts 33452 × 32 / 16726 = 64 frames.
constexpr int kRate = 33452;
constexpr int kC5 = 15360;
constexpr int kOctave = 3072;  // pitch units per octave
constexpr double kPi = std::numbers::pi;
constexpr int kPeriod = kRate * 32 / (535232 >> 5);
static_assert(kPeriod == 64);

enum { VOLUME, WAVEFORM, PANNING, ATTACK, RELEASE, POLYPHONY, MODE, SUSTAIN, FM, DUTY };
enum { TRIANGLE, SAW, SQUARE, NOISE, DRAWN, SINE, HALF_SINE, ABS_SINE, PULSE, WAVES };
enum { HQ, HQ_MONO, LQ, LQ_MONO };

struct ev {
    int frame;
    int command;
    int id = -1;
    int pitch = 0;     // NOTE_ON, SET_FREQ; the controller number for SET_LOCAL_CONTROLLER
    int value = 256;   // velocity or controller value
};

class GeneratorTest : public PsynthFixture {
protected:
    void SetUp() override {
        PsynthFixture::SetUp();
        psynth_close(&net);
        psynth_init(0, kRate, 125, 6, &net);
        gen = psynth_add_synth(-1, psynth_generator, nullptr, 0, 0, 0, 125, 6, &net);
        ASSERT_GE(gen, 0);
        psynth_do_command(gen, PS_CMD_SETUP_FINISHED, &net);
    }

    // Values in the module's own units, written straight into the controller as loading does.
    void set(int ctl, int value) { *net.modules[gen].ctls[ctl].value = value; }

    // Renders `frames` in buffers cut at `cuts` (frame positions), with a NOP at each of `nops`
    // (the net cuts a render piece there), and returns the left output (right into *right).
    std::vector<int> play(const std::vector<ev>& events, int frames, const std::vector<int>& cuts = {},
                          const std::vector<int>& nops = {}, std::vector<int>* right = nullptr) {
        std::vector<int> bounds = cuts;
        bounds.push_back(frames);
        std::vector<int> left;
        int from = 0;
        for (int to : bounds) {
            std::vector<ev> all = events;
            for (int f : nops) all.push_back({f, PS_CMD_NOP});
            for (const ev& e : all) {
                if (e.frame < from || e.frame >= to) continue;
                psynth_event x = {};
                x.command = e.command, x.id = e.id, x.offset = e.frame - from, x.pitch = e.pitch;
                x.note = (int16_t)(e.command == PS_CMD_SET_LOCAL_CONTROLLER ? e.pitch : (30720 - e.pitch) / 256);
                x.velocity = (uint16_t)e.value;
                psynth_add_event(gen, &x, &net);
            }
            render_buffer(&net, to - from);
            const psynth_module& m = net.modules[gen];
            for (int i = 0; i < to - from; i++) {
                left.push_back(m.output_buffers[0][i]);
                if (right) right->push_back(m.output_buffers[1][i]);
            }
            from = to;
        }
        return left;
    }

    // One sustained note on a fresh generator; frames 128..191, one period from phase 0.
    std::vector<int> one_period(int waveform, int mode, int velocity = 256) {
        psynth_do_command(gen, PS_CMD_CLEAN, &net);
        set(WAVEFORM, waveform);
        set(MODE, mode);
        std::vector<int> x = play({{0, PS_CMD_NOTE_ON, 1, kC5, velocity}}, 2 * kPeriod + kPeriod);
        return std::vector<int>(x.begin() + 2 * kPeriod, x.end());
    }

    void square_lq() {
        set(WAVEFORM, SQUARE);
        set(MODE, LQ);
    }

    bool silent_last_buffer() { return net.modules[gen].output_start[0] == net.frames; }

    int gen = -1;
};

int square_at(int k, int high_frames = kPeriod / 2) { return k % kPeriod < high_frames ? 2048 : -2048; }

TEST_F(GeneratorTest, DescribesItselfItsControllersAndTheDrawnWave) {
    const psynth_module& m = net.modules[gen];
    EXPECT_STREQ(m.name, "Generator");
    EXPECT_EQ(m.flags & ~(PSYNTH_FLAG_EXISTS | PSYNTH_FLAG_INITIALIZED), PSYNTH_FLAG_GENERATOR);
    EXPECT_EQ(m.input_channels, 1);
    EXPECT_EQ(m.output_channels, 2);
    EXPECT_EQ(m.color[0] << 16 | m.color[1] << 8 | m.color[2], 0x00A0FF);
    EXPECT_EQ(check_ctls(&net, gen,
                         {{"Volume", "", 0, 512, 256, 0},
                          {"Waveform", "triangle/saw/square/noise/drawn/sine/half-sine/abs-sine/pulse", 0, 8, 0, 1},
                          {"Panning", "", 0, 256, 128, 0}, {"Attack", "ms", 0, 512, 0, 0},
                          {"Release", "ms", 0, 512, 64, 0}, {"Polyphony", "ch.", 1, 16, 8, 0},
                          {"Mode", "HQ/HQmono/LQ/LQmono", 0, 3, 0, 1}, {"Sustain", "off/on", 0, 1, 1, 1},
                          {"Freq.modulation input", "", 0, 256, 0, 0}, {"Duty cycle", "", 0, 1024, 512, 0}}),
              "");
    // Chunk 0: one period of a sine in 32 signed bytes, 8-bit storage.
    int size = 0, flags = 0;
    ASSERT_EQ(psynth_get_chunk_info(gen, 0, &size, &flags, nullptr, &net), 0);
    EXPECT_EQ(std::pair(size, flags), std::pair(32, 1));
    const int8_t* p = (const int8_t*)psynth_get_chunk(gen, 0, &net);
    for (int i = 0; i < 32; i++) EXPECT_NEAR(p[i], 127 * std::sin(2 * kPi * i / 32), 1.0) << i;
    EXPECT_EQ(p[8], 127);
    EXPECT_EQ(p[24], -127);

    // A loaded module whose chunk is short keeps its points and grows; one without gets the sine.
    psynth_new_chunk(gen, 0, 16, 0, 0, &net);
    memset(psynth_get_chunk(gen, 0, &net), 5, 16);
    psynth_do_command(gen, PS_CMD_SETUP_FINISHED, &net);
    ASSERT_EQ(psynth_get_chunk_info(gen, 0, &size, &flags, nullptr, &net), 0);
    p = (const int8_t*)psynth_get_chunk(gen, 0, &net);
    EXPECT_EQ(size, 32);
    EXPECT_EQ(p[15], 5);
    EXPECT_EQ(p[16], 0);
    psynth_free_chunk(gen, 0, &net);
    psynth_do_command(gen, PS_CMD_SETUP_FINISHED, &net);
    p = (const int8_t*)psynth_get_chunk(gen, 0, &net);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p[8], 127);
}

TEST_F(GeneratorTest, EveryWaveformRepeatsWithThePeriodOfItsPitch) {
    for (int mode : {HQ, LQ}) {
        for (int wave = 0; wave < WAVES; wave++) {
            if (wave == NOISE) continue;
            for (int octave = 0; octave < 2; octave++) {
                int period = kPeriod >> octave;
                psynth_do_command(gen, PS_CMD_CLEAN, &net);
                set(WAVEFORM, wave);
                set(MODE, mode);
                std::vector<int> x = play({{0, PS_CMD_NOTE_ON, 1, kC5 - octave * kOctave}}, 1024);
                bool half_period_differs = false;
                for (int i = 128; i + period < 1024; i++) {
                    ASSERT_EQ(x[i], x[i + period]) << "wave " << wave << " mode " << mode << " frame " << i;
                    half_period_differs |= x[i] != x[i + period / 2];
                }
                EXPECT_TRUE(half_period_differs) << "wave " << wave << " mode " << mode;
            }
        }
    }
}

TEST_F(GeneratorTest, ShapesAndLevelsAreExact) {
    // LQ shapes over one period, at full volume and velocity: peaks ±2048 (half of full scale).
    auto tri = [](int k) { return k <= 16 ? 128 * k : k <= 48 ? 4096 - 128 * k : 128 * k - 8192; };
    auto saw = [](int k) { return k < 32 ? 64 * k : 64 * k - 4096; };
    std::vector<int> t = one_period(TRIANGLE, LQ), s = one_period(SAW, LQ), q = one_period(SQUARE, LQ),
                     pu = one_period(PULSE, LQ), si = one_period(SINE, LQ), hs = one_period(HALF_SINE, HQ),
                     as = one_period(ABS_SINE, HQ);
    for (int k = 0; k < kPeriod; k++) {
        EXPECT_EQ(t[k], tri(k)) << k;
        EXPECT_EQ(s[k], saw(k)) << k;
        EXPECT_EQ(q[k], square_at(k)) << k;
        EXPECT_EQ(pu[k], square_at(k, 16)) << k;
        double sine = 2048 * std::sin(2 * kPi * k / kPeriod);
        EXPECT_NEAR(si[k], sine, 1.0) << k;
        EXPECT_NEAR(hs[k], k < 32 ? sine : 0, 1.0) << k;
        EXPECT_NEAR(as[k], 2048 * std::sin(kPi * k / kPeriod), 1.0) << k;
    }
    EXPECT_EQ(si[16], 2048);
    EXPECT_EQ(si[48], -2048);

    // HQ smooths the edges only: a frame landing on an edge takes the midpoint.
    std::vector<int> sh = one_period(SAW, HQ), qh = one_period(SQUARE, HQ);
    for (int k = 0; k < kPeriod; k++) {
        EXPECT_EQ(sh[k], k == 32 ? 0 : saw(k)) << k;
        EXPECT_EQ(qh[k], k == 0 || k == 32 ? 0 : square_at(k)) << k;
    }

    // Volume 200 and velocity 100: 200 × 100 / 256 = 78 (of 256), toward zero on both sides.
    set(VOLUME, 200);
    std::vector<int> lo = one_period(TRIANGLE, LQ, 100);
    for (int k = 0; k < kPeriod; k++) EXPECT_EQ(lo[k], tri(k) * 78 / 256) << k;
    EXPECT_EQ(lo[16], 624);
    EXPECT_EQ(lo[48], -624);

    // Duty cycle 256: the square is high for a quarter of the period.
    set(VOLUME, 256);
    set(DUTY, 256);
    std::vector<int> narrow = one_period(SQUARE, LQ);
    for (int k = 0; k < kPeriod; k++) EXPECT_EQ(narrow[k], square_at(k, 16)) << k;
    set(DUTY, 512);

    // Panning 64: the left side stays at unity, the right one is halved; a voice's own
    // panning to the far left glides the right side out within 64 frames.
    set(PANNING, 64);
    square_lq();
    psynth_do_command(gen, PS_CMD_CLEAN, &net);
    std::vector<int> right;
    std::vector<int> left = play({{0, PS_CMD_NOTE_ON, 1, kC5}, {256, PS_CMD_SET_LOCAL_CONTROLLER, 1, 2, 0}},
                                 512, {}, {}, &right);
    for (int k = 128; k < 256; k++) {
        EXPECT_EQ(left[k], square_at(k)) << k;
        EXPECT_EQ(right[k], square_at(k) / 2) << k;
    }
    for (int k = 256; k < 256 + 64; k++) {  // the gain glides: no step larger than 1024 / 64
        ASSERT_LE(std::abs(right[k]), std::abs(right[k - 1])) << k;
        ASSERT_LE(std::abs(right[k - 1]) - std::abs(right[k]), 1024 / 64 + 1) << k;
    }
    for (int k = 256 + 64; k < 512; k++) {
        EXPECT_EQ(left[k], square_at(k)) << k;
        EXPECT_EQ(right[k], 0) << k;
    }
}

TEST_F(GeneratorTest, PiecesAndBuffersDoNotChangeTheSound) {
    set(RELEASE, 10);
    set(DUTY, 300);
    const std::vector<ev> events = {
        {0, PS_CMD_NOTE_ON, 1, kC5, 200},      {37, PS_CMD_NOTE_ON, 2, 14000, 256},
        {300, PS_CMD_SET_VELOCITY, 1, 0, 90},  {411, PS_CMD_SET_FREQ, 2, 13000},
        {600, PS_CMD_NOTE_OFF, 1},             {700, PS_CMD_NOTE_ON, 3, 9000, 128},
        {900, PS_CMD_ALL_NOTES_OFF},
    };
    for (int wave : {SAW, NOISE, DRAWN, PULSE, SINE}) {
        set(WAVEFORM, wave);
        std::vector<int> runs[3][2];
        for (int run = 0; run < 3; run++) {
            psynth_do_command(gen, PS_CMD_CLEAN, &net);
            std::vector<int> cuts = run == 2 ? std::vector<int>{1, 100, 411, 412, 1000} : std::vector<int>{};
            std::vector<int> nops = run == 1 ? std::vector<int>{1, 2, 63, 64, 65, 333, 777, 1023} : std::vector<int>{};
            uint64_t allocations = mem_get_stats().allocations;
            runs[run][0] = play(events, 1024, cuts, nops, &runs[run][1]);
            EXPECT_EQ(mem_get_stats().allocations, allocations) << "the render allocated";
        }
        int loud = 0;
        for (int v : runs[0][0]) loud += v != 0;
        EXPECT_GT(loud, 900) << "wave " << wave;
        for (int run = 1; run < 3; run++) {
            for (int c = 0; c < 2; c++) {
                EXPECT_EQ(runs[run][c], runs[0][c]) << "wave " << wave << " run " << run << " channel " << c;
            }
        }
    }
}

TEST_F(GeneratorTest, AttackRampsUpFromSilence) {
    square_lq();
    set(ATTACK, 20);  // 669 frames
    std::vector<int> x = play({{0, PS_CMD_NOTE_ON, 1, kC5}}, 1024);
    EXPECT_EQ(x[0], 0);
    int full_at = -1;
    for (int i = 1; i < 1024; i++) {
        int a = std::abs(x[i]), b = std::abs(x[i - 1]);
        ASSERT_GE(a, b) << i;
        ASSERT_LE(a - b, 2048 / 669 + 1) << i;
        if (a == 2048 && full_at < 0) full_at = i;
    }
    EXPECT_GE(full_at, 668);
    EXPECT_LE(full_at, 671);

    // Attack 0 still ramps over a millisecond (33 frames): no note starts with a click.
    set(ATTACK, 0);
    psynth_do_command(gen, PS_CMD_CLEAN, &net);
    x = play({{0, PS_CMD_NOTE_ON, 1, kC5}}, 64);
    EXPECT_EQ(x[0], 0);
    EXPECT_LE(x[1], 2048 / 33 + 1);
    EXPECT_EQ(std::abs(x[34]), 2048);
}

TEST_F(GeneratorTest, WithoutSustainANoteDecaysAndFallsSilent) {
    // The starter net's setting: Release 512 ms with Sustain off, then SETUP_FINISHED.
    set(RELEASE, 512);
    set(SUSTAIN, 0);
    square_lq();
    psynth_do_command(gen, PS_CMD_SETUP_FINISHED, &net);
    const int release = kRate * 512 / 1000;  // 17127 frames
    std::vector<int> x = play({{0, PS_CMD_NOTE_ON, 1, kC5}}, 4096);
    for (int b = 0; b < 4; b++) {
        std::vector<int> more = play({}, 4096);
        x.insert(x.end(), more.begin(), more.end());
    }
    EXPECT_EQ(std::abs(x[34]), 2048);                        // the top, right after the 1 ms attack
    EXPECT_NEAR(std::abs(x[34 + release / 2]), 1024, 16);   // linear: half way, half the level
    for (int i = 35; i < (int)x.size(); i++) ASSERT_LE(std::abs(x[i]), std::abs(x[i - 1])) << i;
    EXPECT_GT(std::abs(x[release]), 0);
    for (int i = release + 64; i < (int)x.size(); i++) ASSERT_EQ(x[i], 0) << i;
    play({}, 256);
    EXPECT_TRUE(silent_last_buffer());

    net.modules[gen].render_offset = 0;
    net.modules[gen].render_frames = 256;
    EXPECT_EQ(psynth_do_command(gen, PS_CMD_RENDER_REPLACE, &net), 0);  // a silent render answers 0
}

TEST_F(GeneratorTest, NoteOffReleasesAndCleanSilencesAtOnce) {
    square_lq();
    set(RELEASE, 10);  // 334 frames from full level
    std::vector<int> x = play({{0, PS_CMD_NOTE_ON, 1, kC5}, {200, PS_CMD_NOTE_OFF, 7}, {300, PS_CMD_NOTE_OFF, 1}}, 1024);
    for (int i = 40; i < 300; i++) ASSERT_EQ(x[i], square_at(i)) << i;  // an unknown id releases nothing
    for (int i = 301; i < 1024; i++) ASSERT_LE(std::abs(x[i]), std::abs(x[i - 1])) << i;
    EXPECT_GT(std::abs(x[300 + 320]), 0);
    for (int i = 300 + 340; i < 1024; i++) ASSERT_EQ(x[i], 0) << i;
    play({}, 256);
    EXPECT_TRUE(silent_last_buffer());

    // ALL_NOTES_OFF releases every voice; CLEAN cuts at once.
    x = play({{0, PS_CMD_NOTE_ON, 1, kC5}, {0, PS_CMD_NOTE_ON, 2, kC5 - kOctave}, {200, PS_CMD_ALL_NOTES_OFF},
              {600, PS_CMD_NOTE_ON, 3, kC5}, {800, PS_CMD_CLEAN}},
             1024);
    EXPECT_EQ(x[199], 4096);
    EXPECT_NE(x[201], 0);
    for (int i = 200 + 340; i < 600; i++) ASSERT_EQ(x[i], 0) << i;
    EXPECT_EQ(x[600], 0);
    for (int i = 640; i < 800; i++) ASSERT_EQ(x[i], square_at(i - 600)) << i;
    for (int i = 800; i < 1024; i++) ASSERT_EQ(x[i], 0) << i;
    play({}, 256);
    EXPECT_TRUE(silent_last_buffer());
}

TEST_F(GeneratorTest, MonoModePlaysOneVoiceLegato) {
    set(WAVEFORM, SQUARE);
    set(MODE, LQ_MONO);
    set(RELEASE, 1);
    std::vector<int> x = play({{0, PS_CMD_NOTE_ON, 1, kC5}, {100, PS_CMD_NOTE_ON, 2, kC5 - kOctave},
                               {300, PS_CMD_NOTE_OFF, 1}, {600, PS_CMD_NOTE_OFF, 2}},
                              1024);
    // At frame 100 the phase stands at 36/64 of a period and goes on from there twice as fast:
    // low up to frame 113, then a period of 32 at the same level (one voice, not two).
    for (int i = 100; i < 600; i++) {
        int phase = (36 + 2 * (i - 100)) % kPeriod;
        ASSERT_EQ(x[i], phase < 32 ? 2048 : -2048) << i;
    }
    for (int i = 600 + 40; i < 1024; i++) ASSERT_EQ(x[i], 0) << i;
}

TEST_F(GeneratorTest, APolyphonyLimitStealsTheVoiceAfterTheCursor) {
    square_lq();
    set(POLYPHONY, 2);
    set(RELEASE, 1);
    // Notes 1 and 2 take voices 0 and 1 (the cursor on 1); note 3 steals voice 0 from note 1,
    // which keeps its phase. Releasing note 2 then leaves note 3 alone; note 1's id is gone.
    std::vector<int> x = play({{0, PS_CMD_NOTE_ON, 1, kC5}, {0, PS_CMD_NOTE_ON, 2, kC5 - kOctave},
                               {256, PS_CMD_NOTE_ON, 3, kC5 - 2 * kOctave}, {512, PS_CMD_NOTE_OFF, 2},
                               {700, PS_CMD_NOTE_OFF, 1}},
                              1024);
    for (int i = 64; i < 256; i++) ASSERT_EQ(x[i], square_at(i) + square_at(2 * i)) << i;
    for (int i = 600; i < 1024; i++) ASSERT_EQ(x[i], square_at(4 * (i - 256))) << i;
    x = play({{0, PS_CMD_NOTE_OFF, 3}}, 512);
    for (int i = 40; i < 512; i++) ASSERT_EQ(x[i], 0) << i;
}

TEST_F(GeneratorTest, TheDrawnWaveformReadsChunkZero) {
    int8_t* p = (int8_t*)psynth_get_chunk(gen, 0, &net);
    for (int i = 0; i < 32; i++) p[i] = (int8_t)(i * 8 - 128);
    p[5] = 127;
    std::vector<int> lq = one_period(DRAWN, LQ), hq = one_period(DRAWN, HQ);
    for (int k = 0; k < kPeriod; k++) {
        int a = p[k / 2] * 16, b = p[(k / 2 + 1) % 32] * 16;
        EXPECT_EQ(lq[k], a) << k;  // two frames per point
        // HQ: the point itself, then half way to the next one (neighbours lie 16 or more apart).
        EXPECT_NEAR(hq[k], k % 2 ? (a + b) / 2.0 : a, k % 2 ? 1.0 : 0.0) << k;
    }
    EXPECT_EQ(lq[0], -2048);
    EXPECT_EQ(lq[10], 2032);
}

TEST_F(GeneratorTest, NoiseIsReproducibleAndHeldPerThirtySecondOfAPeriod) {
    set(WAVEFORM, NOISE);
    std::vector<int> one = play({{0, PS_CMD_NOTE_ON, 1, kC5}}, 1024);
    psynth_do_command(gen, PS_CMD_CLEAN, &net);  // restarts the seed too
    EXPECT_EQ(play({{0, PS_CMD_NOTE_ON, 1, kC5}}, 1024), one);
    int changes = 0;
    for (int i = 64; i < 1024; i += 2) {
        ASSERT_EQ(one[i], one[i + 1]) << i;  // a value lasts 64 / 32 = 2 frames
        ASSERT_LE(std::abs(one[i]), 2048);
        changes += one[i] != one[i - 1];
    }
    EXPECT_GT(changes, 400);

    // A second note at the same pitch draws its own values: the sum is not twice one note.
    psynth_do_command(gen, PS_CMD_CLEAN, &net);
    std::vector<int> two = play({{0, PS_CMD_NOTE_ON, 1, kC5}, {0, PS_CMD_NOTE_ON, 2, kC5}}, 1024);
    int doubled = 0;
    for (int i = 64; i < 1024; i++) doubled += two[i] == 2 * one[i];
    EXPECT_LT(doubled, 100);
}

TEST_F(GeneratorTest, TheInputModulatesThePhaseOnlyWhileLinked) {
    square_lq();
    set(FM, 128);
    int source = add_constant_source(&net, 1024);
    psynth_make_link(gen, source, &net);
    // 1024 × 128 moves the phase by a quarter period: 16 frames ahead.
    std::vector<int> x = play({{0, PS_CMD_NOTE_ON, 1, kC5}}, 512);
    for (int i = 64; i < 512; i++) ASSERT_EQ(x[i], square_at(i + 16)) << i;

    // Unlinked, the stale input buffer is not read.
    psynth_make_link(gen, source, &net);
    x = play({}, 512);
    for (int i = 0; i < 512; i++) ASSERT_EQ(x[i], square_at(i + 512)) << i;
}

}  // namespace
