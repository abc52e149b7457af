// The FM synthesizer: its answers, the first frames of a known note worked out from the
// operator formulas with hand-written envelope tables, frequency multipliers, note
// scaling, release during the attack, the mono and LQ modes, and the 44100 Hz inner rate
// read through the resampler at 48000 Hz across blocks of any size.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "psynth/psynth_modules.h"
#include "psynth/psynth_tables.h"
#include "test_modules.h"

namespace {

enum : int {
    C_VOLUME, M_VOLUME, PANNING, C_MUL, M_MUL, M_FEEDBACK, C_ATTACK, C_DECAY, C_SUSTAIN, C_RELEASE,
    M_ATTACK, M_DECAY, M_SUSTAIN, M_RELEASE, M_SCALING, POLYPHONY, MODE, CTL_COUNT
};
constexpr int kPitch = 12288;  // note 72 (C6): step 49712, even, and an octave lower is exactly half

// The sine table by its definition: the shared half-sine bytes × 128, 16 passes over 512
// entries, × 8 by repetition, 8 passes over 4096 entries.
std::vector<int> reference_sine() {
    const uint8_t* half = psynth_get_half_sine_table();
    std::vector<int> x(4096);
    for (int i = 0; i < 256; i++) x[i] = half[i] * 128, x[256 + i] = -half[i] * 128;
    auto passes = [&x](int size, int n) {
        for (int p = 0; p < n; p++) {
            for (int i = 0; i < size; i++) x[i] = (x[(i + size - 1) % size] + x[(i + 1) % size]) / 2;
        }
    };
    passes(512, 16);
    for (int i = 4095; i >= 0; i--) x[i] = x[i / 8];
    passes(4096, 8);
    return x;
}

// Envelope tables with linear blending between entries (HQ); 256 positions per entry.
int env_hq(const int* t, int pos) { return (t[pos >> 8] * (256 - (pos & 255)) + t[(pos >> 8) + 1] * (pos & 255)) >> 8; }
// One frame at sine index idx: modulator (with feedback fb) into carrier, side gain `gain`.
int fm_frame(const std::vector<int>& sine, int idx, int m_env, int c_env, int fb = 0, int gain = 128) {
    int m = (m_env * sine[(idx + ((sine[idx & 4095] * fb) >> 8)) & 4095]) >> 15;
    return (((sine[(m + idx) & 4095] * gain) >> 8) * c_env) >> 18;
}

struct stereo {
    std::vector<int> l, r;
};

class FmTest : public PsynthFixture {
protected:
    int add_fm(psynth_net* n = nullptr) {
        n = n ? n : &net;
        int mod = psynth_add_synth(-1, psynth_fm, nullptr, 0, 0, 0, 125, 6, n);
        EXPECT_GE(mod, 0);
        return mod;
    }
    // Controllers are set before the first render, which builds the envelope tables.
    void set(int mod, int ctl, int value, psynth_net* n = nullptr) { *(n ? n : &net)->modules[mod].ctls[ctl].value = value; }
    void queue(int mod, int command, int offset, int id, int note, int velocity, int pitch, psynth_net* n = nullptr) {
        queue_event(n ? n : &net, mod, command, offset, id, note, velocity, pitch);
    }
    void note_on(int mod, int offset, int pitch = kPitch, int note = 72, psynth_net* n = nullptr) {
        queue(mod, PS_CMD_NOTE_ON, offset, 1, note, 256, pitch, n);
    }
    void note_off(int mod, int offset, psynth_net* n = nullptr) { queue(mod, PS_CMD_NOTE_OFF, offset, 1, 0, 0, 0, n); }
    // Renders one buffer and appends each module's channels (zeros where it was silent).
    void render(int frames, std::vector<stereo*> outs, std::vector<int> mods, psynth_net* n = nullptr) {
        n = n ? n : &net;
        render_buffer(n, frames);
        for (size_t i = 0; i < mods.size(); i++) {
            const psynth_module& m = n->modules[mods[i]];
            for (int c = 0; c < 2; c++) {
                std::vector<int>& v = c ? outs[i]->r : outs[i]->l;
                for (int f = 0; f < frames; f++) {
                    bool sound = c < m.output_channels && f >= m.output_start[c];
                    v.push_back(sound ? m.output_buffers[c][f] : 0);
                }
            }
        }
    }
    stereo play(int mod, int frames) {
        stereo s;
        render(frames, {&s}, {mod});
        return s;
    }
};

TEST_F(FmTest, AnswersItsQuestionsAndRegistersItsControllers) {
    psynth_event e = {};
    auto ask = [&](int command) { e.command = command; return psynth_fm(-1, &e, nullptr); };
    EXPECT_STREQ((const char*)ask(PS_CMD_GET_SYNTH_NAME), "FM");
    EXPECT_STREQ((const char*)ask(PS_CMD_GET_SYNTH_INFO),
                 "FM Synthesizer.\n(Frequency Modulation)\n\"C\" - carrier\n\"M\" - modulator\nInternal sampling frequency: 44100 Hz");
    EXPECT_STREQ((const char*)ask(PS_CMD_GET_SYNTH_COLOR), "#00E3FF");
    for (auto [command, want] : {std::pair{PS_CMD_GET_DATA_SIZE, 17136}, {PS_CMD_GET_FLAGS, 8},
                                 {PS_CMD_GET_OUTPUTS_NUM, 2}, {PS_CMD_GET_INPUTS_NUM, 0}}) {
        EXPECT_EQ(ask(command), want) << command;
    }

    int fm = add_fm();
    const psynth_module& m = net.modules[fm];
    ASSERT_EQ(m.ctls_count, CTL_COUNT);
    EXPECT_STREQ(m.ctls[M_FEEDBACK].name, "M.Feedback");
    EXPECT_STREQ(m.ctls[POLYPHONY].units, "ch.");
    EXPECT_EQ(*m.ctls[POLYPHONY].value, 4);
    EXPECT_EQ(m.ctls[MODE].type, PSYNTH_CTL_SELECTOR);
    EXPECT_STREQ(m.ctls[MODE].units, "HQ/HQmono/LQ/LQmono");
    EXPECT_EQ(m.ctls[C_RELEASE].max, 512);
    EXPECT_EQ(*m.ctls[M_VOLUME].value, 48);
    // Commands it leaves alone.
    for (int command : {PS_CMD_SETUP_FINISHED, PS_CMD_SET_SAMPLE_OFFSET, PS_CMD_SPEED_CHANGED}) {
        EXPECT_EQ(psynth_do_command(fm, command, &net), 0) << command;
    }
    // A controller event is stored by the net (the module declines it).
    e = {};
    e.command = PS_CMD_SET_GLOBAL_CONTROLLER;
    e.note = C_ATTACK;
    e.velocity = 16384;
    EXPECT_EQ(psynth_handle_event(fm, &e, &net), 0);
    EXPECT_EQ(*m.ctls[C_ATTACK].value, 256);
}

// A note at pitch 12288 (step 49712) with short envelopes, worked out frame by frame:
// carrier table 0, 32768, 16384, 0 (attack 1, decay 1 to sustain 128, release 1);
// modulator table 0, 8192, 4096, 0 ("M.Volume" 64, sustain 128 of it). HQ blends
// neighbouring entries, LQ reads each entry as it is.
TEST_F(FmTest, FirstFramesOfAKnownNoteFollowTheOperatorFormulas) {
    int hq = add_fm(), lq = add_fm();
    for (int fm : {hq, lq}) {
        for (int c : {C_ATTACK, C_DECAY, C_RELEASE, M_ATTACK, M_DECAY, M_RELEASE}) set(fm, c, 1);
        set(fm, M_VOLUME, 64);
        set(fm, PANNING, 64);  // left 128, right 128 · 64 >> 7 = 64
        set(fm, M_FEEDBACK, 40);
        note_on(fm, 0);
    }
    set(lq, MODE, 2);
    stereo s, l;
    render(1024, {&s, &l}, {hq, lq});
    note_off(hq, 0);  // released at frame 1024: the release runs from one entry past the sustain
    note_off(lq, 0);
    render(1024, {&s, &l}, {hq, lq});

    const std::vector<int> sine = reference_sine();
    const int c_env[5] = {0, 32768, 16384, 0, 0}, m_env[5] = {0, 8192, 4096, 0, 0};
    uint32_t phase = 0;
    for (int f = 0; f < 2048; f++, phase += 49712) {
        // Held, both stop at attack + decay = 2 entries (position 512), stepping one past it
        // each frame; released, they run on from 513 and the voice ends at 3 entries (768).
        int pos = f < 512 ? f : f < 1024 ? 512 : 513 + (f - 1024);
        if (pos >= 768) {
            ASSERT_EQ(s.l[f], 0) << "frame " << f;
            ASSERT_EQ(l.l[f], 0) << "LQ frame " << f;
            continue;
        }
        int idx = (int)(phase >> 10);
        ASSERT_EQ(s.l[f], fm_frame(sine, idx, env_hq(m_env, pos), env_hq(c_env, pos), 40)) << "frame " << f;
        ASSERT_EQ(s.r[f], fm_frame(sine, idx, env_hq(m_env, pos), env_hq(c_env, pos), 40, 64)) << "frame " << f;
        // LQ reads each entry as it is.
        ASSERT_EQ(l.l[f], fm_frame(sine, idx, m_env[pos >> 8], c_env[pos >> 8], 40)) << "LQ frame " << f;
    }
    // A few of them written out. The in-place passes leave the table a little behind a
    // true sine: entry 0 is −217, and the peak of 32587 is reached at entry 1020.
    EXPECT_EQ(sine[0], -217);
    EXPECT_EQ(sine[1024], 32587);
    EXPECT_EQ(s.l[0], 0);      // the carrier envelope starts at 0
    EXPECT_EQ(s.l[100], -536); // envelope 12800, carrier −21936
    EXPECT_EQ(s.r[100], -268);
    EXPECT_EQ(s.l[700], 780);  // held at the sustain: envelope 16384, carrier 24982
}

// Held notes in which one operator has no attack or decay, so its position stands at 0
// (the sustain written over the peak) while the other one climbs and falls on its own
// (attack 2, decay 1), crossing table entries alone.
TEST_F(FmTest, OneEnvelopeMovesWhileTheOtherStands) {
    int c_moves = add_fm(), m_moves = add_fm();
    for (int fm : {c_moves, m_moves}) {
        set(fm, M_VOLUME, 64);
        set(fm, C_RELEASE, 1), set(fm, M_RELEASE, 1);
        note_on(fm, 0);
    }
    set(c_moves, C_ATTACK, 2), set(c_moves, C_DECAY, 1), set(c_moves, M_ATTACK, 0), set(c_moves, M_DECAY, 0);
    set(m_moves, M_ATTACK, 2), set(m_moves, M_DECAY, 1), set(m_moves, C_ATTACK, 0), set(m_moves, C_DECAY, 0);
    stereo sc, sm;
    render(1024, {&sc, &sm}, {c_moves, m_moves});
    const std::vector<int> sine = reference_sine();
    const int c_env[6] = {0, 16384, 32768, 16384, 0, 0}, m_env[6] = {0, 4096, 8192, 4096, 0, 0};
    uint32_t phase = 0;
    for (int f = 0; f < 1024; f++, phase += 49712) {
        int pos = f < 768 ? f : 768, idx = (int)(phase >> 10);
        ASSERT_EQ(sc.l[f], fm_frame(sine, idx, 4096, env_hq(c_env, pos))) << "frame " << f;  // modulator standing at 4096
        ASSERT_EQ(sm.l[f], fm_frame(sine, idx, env_hq(m_env, pos), 16384)) << "frame " << f;  // carrier standing at 16384
    }
}

TEST_F(FmTest, MultiplierZeroPlaysTheOperatorAnOctaveDown) {
    // (carrier ×1, modulator ×0) at a pitch sounds like (×2, ×1) an octave lower, and
    // (×0, ×0) like (×1, ×1) an octave lower.
    int a = add_fm(), b = add_fm(), c = add_fm(), d = add_fm(), plain = add_fm();
    set(a, C_MUL, 1), set(a, M_MUL, 0);
    set(b, C_MUL, 2), set(b, M_MUL, 1);
    set(c, C_MUL, 0), set(c, M_MUL, 0);
    for (int mod : {a, c, plain}) note_on(mod, 0, kPitch);
    for (int mod : {b, d}) note_on(mod, 0, kPitch + 3072);
    stereo sa, sb, sc, sd, sp;
    render(4096, {&sa, &sb, &sc, &sd, &sp}, {a, b, c, d, plain});
    EXPECT_EQ(sa.l, sb.l);
    EXPECT_EQ(sc.l, sd.l);
    EXPECT_EQ(sc.r, sd.r);
    EXPECT_NE(sa.l, sp.l);
    EXPECT_NE(sc.l, sp.l);
}

TEST_F(FmTest, NoteScalingLowersTheDepthAsNotesRise) {
    // Same pitch, different notes: only the scaling reads the note.
    int unscaled0 = add_fm(), unscaled100 = add_fm(), s1n0 = add_fm(), s1n128 = add_fm(), no_depth = add_fm(),
        s2n64 = add_fm(), s1n96 = add_fm(), s1n64 = add_fm();
    for (int mod : {s1n0, s1n128, s1n96, s1n64}) set(mod, M_SCALING, 1);
    set(s2n64, M_SCALING, 2);
    set(no_depth, M_VOLUME, 0);
    const std::vector<std::pair<int, int>> notes = {{unscaled0, 0}, {unscaled100, 100}, {s1n0, 0}, {s1n128, 128},
                                                    {no_depth, 0}, {s2n64, 64}, {s1n96, 96}, {s1n64, 64}};
    for (auto [mod, note] : notes) note_on(mod, 0, kPitch, note);
    std::vector<stereo> o(notes.size());
    std::vector<stereo*> outs;
    std::vector<int> mods;
    for (size_t i = 0; i < notes.size(); i++) outs.push_back(&o[i]), mods.push_back(notes[i].first);
    render(4096, outs, mods);
    EXPECT_EQ(o[0].l, o[1].l);  // "M.Scaling" 0: the note changes nothing
    EXPECT_EQ(o[2].l, o[0].l);  // note 0 keeps the full depth
    EXPECT_EQ(o[3].l, o[4].l);  // note 128: no modulation left
    EXPECT_EQ(o[5].l, o[6].l);  // (64/128)² of the depth = 32/128, as note 96 with s = 1
    EXPECT_NE(o[7].l, o[0].l);  // note 64 with s = 1: half the depth, neither full nor none
    EXPECT_NE(o[7].l, o[4].l);
}

TEST_F(FmTest, NoteReleasedDuringTheAttackFinishesAttackAndDecayFirst) {
    int early = add_fm(), late = add_fm();
    for (int mod : {early, late}) {
        for (int c : {C_ATTACK, C_DECAY, C_RELEASE, M_ATTACK, M_DECAY, M_RELEASE}) set(mod, c, 4);
        note_on(mod, 0);
    }
    note_off(early, 100);   // during the attack (4 entries = 1024 frames)
    note_off(late, 2048);   // just as attack and decay end
    stereo e, l;
    render(4096, {&e, &l}, {early, late});
    EXPECT_EQ(e.l, l.l);
    EXPECT_EQ(e.r, l.r);
    // The release ends the voice at (4 + 4 + 4) · 256 frames.
    int last = 0;
    for (int f = 0; f < 4096; f++) {
        if (e.l[f]) last = f;
    }
    EXPECT_GT(last, 2800);
    EXPECT_LT(last, 3072);
    play(early, 256);
    EXPECT_EQ(net.modules[early].output_start[0], 256);  // nothing sounds: reported silent
}

TEST_F(FmTest, MonoModesHaveOneOutputAndLqSkipsTheEnvelopeInterpolation) {
    int mods[4];
    std::vector<stereo> o(4);
    for (int m = 0; m < 4; m++) {
        mods[m] = add_fm();
        set(mods[m], MODE, m);
        set(mods[m], PANNING, 200);
        note_on(mods[m], 0);
    }
    render(2048, {&o[0], &o[1], &o[2], &o[3]}, {mods[0], mods[1], mods[2], mods[3]});
    for (int m = 0; m < 4; m++) EXPECT_EQ(psynth_get_number_of_outputs(mods[m], &net), m % 2 ? 1 : 2) << m;
    EXPECT_EQ(o[1].l, o[0].l);  // HQmono is HQ's left channel
    EXPECT_EQ(o[3].l, o[2].l);
    EXPECT_NE(o[2].l, o[0].l);
    EXPECT_NE(o[0].l, o[0].r);
    // In LQ the envelope steps once per entry: the attack's first 256 frames read entry 0 (0).
    for (int f = 0; f < 256; f++) ASSERT_EQ(o[2].l[f], 0) << f;
    EXPECT_NE(o[0].l[255], 0);
}

// The same note at 44100 Hz (no resampling: the frames are the inner frames) and at
// 48000 Hz in blocks of odd sizes: every 48000 Hz frame k is the blend of inner frames
// i = r >> 16 and i + 1 at r = k · (44100 · 65536 / 48000), with weights 65535 − f and f.
TEST_F(FmTest, OtherRatesReadTheInnerFramesThroughTheResampler) {
    psynth_net net48;
    psynth_init(0, 48000, 125, 6, &net48);
    int fm44 = add_fm(), fm48 = add_fm(&net48);
    for (psynth_net* n : {&net, &net48}) {
        int mod = n == &net ? fm44 : fm48;
        set(mod, C_ATTACK, 2, n), set(mod, C_DECAY, 2, n), set(mod, C_RELEASE, 3, n);
        set(mod, PANNING, 30, n);
        note_on(mod, 0, kPitch, 72, n);
    }
    // At 48000 Hz the frames before offset 500 needed ((500 · 60211) >> 16) + 2 = 461 inner
    // frames: the release starts there. The voice ends at 7 · 256 = 1792 inner frames.
    queue(fm44, PS_CMD_NOTE_OFF, 461, 1, 0, 0, 0);
    queue(fm48, PS_CMD_NOTE_OFF, 500, 1, 0, 0, 0, &net48);
    stereo inner;
    render(4096, {&inner}, {fm44});
    stereo out;
    const int blocks[] = {1000, 37, 1, 513, 700, 100};
    std::vector<int> results;
    for (int frames : blocks) {
        render(frames, {&out}, {fm48}, &net48);
        results.push_back(net48.modules[fm48].output_start[0]);
    }
    EXPECT_EQ(results, (std::vector<int>{0, 0, 0, 0, 0, 0}));  // the last block is the rings' tail
    const uint32_t step = (44100u << 16) / 48000;
    ASSERT_EQ(step, 60211u);
    for (size_t k = 0; k < out.l.size(); k++) {
        uint32_t r = step * (uint32_t)k, i = r >> 16;
        int f = (int)(r & 65535);
        ASSERT_EQ(out.l[k], (inner.l[i + 1] * f + inner.l[i] * (65535 - f)) >> 16) << "frame " << k;
        ASSERT_EQ(out.r[k], (inner.r[i + 1] * f + inner.r[i] * (65535 - f)) >> 16) << "frame " << k;
    }
    EXPECT_NE(out.l[1500], 0);
    // Then the module reports silence and the rings start over.
    render(100, {&out}, {fm48}, &net48);
    EXPECT_EQ(net48.modules[fm48].output_start[0], 100);
    psynth_close(&net48);
}

// At 22050 Hz a 4096-frame block needs 8194 inner frames, twice a ring: the block is
// cut into runs that fit, and the sound is still the inner stream read at step 2, also
// after 65536 inner frames, where the write index and the read position wrap together.
TEST_F(FmTest, LowRatesCutLongBlocksSoTheRingsNeverOverflow) {
    psynth_net net22;
    psynth_init(0, 22050, 125, 6, &net22);
    int fm44 = add_fm(), fm22 = add_fm(&net22);
    note_on(fm44, 0);
    note_on(fm22, 0, kPitch, 72, &net22);
    stereo inner, out;
    for (int b = 0; b < 21; b++) render(4096, {&inner}, {fm44});
    for (int b = 0; b < 10; b++) render(4096, {&out}, {fm22}, &net22);
    ASSERT_EQ(out.l.size(), 40960u);
    EXPECT_NE(inner.l[80000], 0);
    for (size_t k = 0; k < out.l.size(); k++) {
        ASSERT_EQ(out.l[k], (inner.l[2 * k] * 65535) >> 16) << "frame " << k;
    }
    psynth_close(&net22);
}

TEST_F(FmTest, ZeroBlockFollowsTheLastSoundBeforeSilenceAt48000Only) {
    psynth_net net48;
    psynth_init(0, 48000, 125, 6, &net48);
    int fm44 = add_fm(), fm48 = add_fm(&net48);
    for (psynth_net* n : {&net, &net48}) {
        int mod = n == &net ? fm44 : fm48;
        set(mod, C_ATTACK, 0, n), set(mod, C_DECAY, 0, n), set(mod, C_RELEASE, 1, n);
        note_on(mod, 0, kPitch, 72, n);
        queue(mod, PS_CMD_NOTE_OFF, 0, 1, 0, 0, 0, n);  // sounds 256 inner frames
    }
    std::vector<int> starts44, starts48;
    stereo scratch;
    for (int b = 0; b < 3; b++) {
        render(512, {&scratch}, {fm44});
        starts44.push_back(net.modules[fm44].output_start[0]);
        render(512, {&scratch}, {fm48}, &net48);
        starts48.push_back(net48.modules[fm48].output_start[0]);
    }
    EXPECT_EQ(starts44, (std::vector<int>{0, 512, 512}));
    EXPECT_EQ(starts48, (std::vector<int>{0, 0, 512}));
    psynth_close(&net48);
}

}  // namespace
