// MultiSynth: the events its targets receive in the same buffer: transposed, detuned,
// with each target's own tuning, velocity scaled; removed and uninitialised targets
// skipped; the commands it keeps to itself.
#include <gtest/gtest.h>

#include <set>
#include <vector>

#include "psynth/psynth_modules.h"
#include "test_modules.h"

namespace {

enum : int { TRANSPOSE, RANDOM, VELOCITY };
constexpr int kPitch = (120 - 48) * 256;

class MultiSynthTest : public PsynthFixture {
protected:
    int ms = -1;
    std::vector<int> targets;

    // Targets first, so that they sit in lower slots than the MultiSynth they follow.
    void build(int target_count) {
        for (int i = 0; i < target_count; i++) targets.push_back(add_test_module(&net, test_module_config{}));
        ms = psynth_add_synth(-1, psynth_multisynth, nullptr, 0, 0, 0, 125, 6, &net);
        ASSERT_GE(ms, 0);
        for (int t : targets) psynth_make_link(t, ms, &net);
    }
    void set(int ctl, int value) { *net.modules[ms].ctls[ctl].value = value; }
    void send(int command, int offset, int id, int velocity = 0, int pitch = 0) {
        psynth_event e = {};
        e.command = command;
        e.id = id;
        e.offset = offset;
        e.note = 48;
        e.velocity = (uint16_t)velocity;
        e.pitch = pitch;
        psynth_add_event(ms, &e, &net);
    }
    std::vector<psynth_event> received(int target, int command) {
        std::vector<psynth_event> out;
        const test_module_data* d = test_data(&net, target);
        for (int i = 0; i < d->records_count && i < TEST_MAX_RECORDS; i++) {
            if (d->records[i].event.command == command) out.push_back(d->records[i].event);
        }
        return out;
    }
};

TEST_F(MultiSynthTest, AnswersItsQuestions) {
    build(0);
    psynth_event e = {};
    auto ask = [&](int command) { e.command = command; return psynth_multisynth(-1, &e, nullptr); };
    EXPECT_STREQ((const char*)ask(PS_CMD_GET_SYNTH_NAME), "MultiSynth");
    EXPECT_STREQ((const char*)ask(PS_CMD_GET_SYNTH_INFO), "MultiSynth.\nTranslates events to\nany number of synths.");
    EXPECT_STREQ((const char*)ask(PS_CMD_GET_SYNTH_COLOR), "#DEFF00");
    EXPECT_EQ(ask(PS_CMD_GET_FLAGS), 0x1008);
    EXPECT_EQ(ask(PS_CMD_GET_DATA_SIZE), 16);
    EXPECT_EQ(ask(PS_CMD_GET_INPUTS_NUM), 0);
    EXPECT_EQ(ask(PS_CMD_GET_OUTPUTS_NUM), 0);
    const psynth_module& m = net.modules[ms];
    ASSERT_EQ(m.ctls_count, 3);
    EXPECT_STREQ(m.ctls[TRANSPOSE].name, "Transpose");
    EXPECT_EQ(m.ctls[TRANSPOSE].type, PSYNTH_CTL_SELECTOR);
    EXPECT_EQ(*m.ctls[TRANSPOSE].value, 128);
    EXPECT_EQ(m.ctls[RANDOM].max, 4096);
    EXPECT_EQ(*m.ctls[VELOCITY].value, 256);
}

TEST_F(MultiSynthTest, TransposesAndGivesEachTargetItsOwnTuning) {
    build(3);
    net.modules[ms].finetune = 5;
    net.modules[targets[1]].relative_note = 2;
    net.modules[targets[1]].finetune = 10;
    net.modules[targets[2]].relative_note = -200;  // far below C0: held at C0
    set(TRANSPOSE, 140);  // 12 semitones up
    send(PS_CMD_NOTE_ON, 17, 3, 200, kPitch);
    render_buffer(&net, 256);
    const int p = kPitch - 5 - 12 * 256;
    std::vector<psynth_event> a = received(targets[0], PS_CMD_NOTE_ON), b = received(targets[1], PS_CMD_NOTE_ON),
                              c = received(targets[2], PS_CMD_NOTE_ON);
    ASSERT_EQ(a.size(), 1u);
    ASSERT_EQ(b.size(), 1u);
    ASSERT_EQ(c.size(), 1u);
    EXPECT_EQ(a[0].pitch, p);
    EXPECT_EQ(b[0].pitch, p - 2 * 256 - 10);
    EXPECT_EQ(c[0].pitch, 30720);
    EXPECT_EQ(a[0].offset, 17);  // in the same buffer, at the same frame
    EXPECT_EQ(a[0].id, 3);
    EXPECT_EQ(a[0].note, 48);
    EXPECT_EQ(a[0].velocity, 200);
    // The target renders in two pieces around the note.
    EXPECT_EQ(render_pieces(&net, targets[0]), "0+17 17+239");
}

TEST_F(MultiSynthTest, RandomDetunesEveryNoteAndSlideStepWithinSixteenSemitones) {
    build(2);
    set(RANDOM, 4096);
    for (int buffer = 0; buffer < 2; buffer++) {
        for (int i = 0; i < 100; i++) {
            send(PS_CMD_NOTE_ON, i, i, 256, kPitch);
            send(PS_CMD_SET_FREQ, i, i, 256, kPitch);
        }
        render_buffer(&net, 128);
    }
    std::vector<psynth_event> a = received(targets[0], PS_CMD_NOTE_ON), b = received(targets[1], PS_CMD_NOTE_ON);
    std::vector<psynth_event> fa = received(targets[0], PS_CMD_SET_FREQ);
    ASSERT_EQ(a.size(), 200u);
    ASSERT_EQ(fa.size(), 200u);
    std::set<int> detunes;
    int lowest = 0, highest = 0, slide_changed = 0;
    for (size_t i = 0; i < a.size(); i++) {
        int d = a[i].pitch - kPitch;
        EXPECT_EQ(b[i].pitch, a[i].pitch);  // one draw per event, shared by every target
        lowest = std::min(lowest, d);
        highest = std::max(highest, d);
        detunes.insert(d);
        slide_changed += fa[i].pitch != a[i].pitch;
        ASSERT_GE(fa[i].pitch - kPitch, -4096);
        ASSERT_LE(fa[i].pitch - kPitch, 4096);
    }
    EXPECT_GE(lowest, -4096);
    EXPECT_LE(highest, 4096);
    EXPECT_LT(lowest, -3000);
    EXPECT_GT(highest, 3000);
    EXPECT_GT(detunes.size(), 150u);
    EXPECT_GT(slide_changed, 190);

    // The detune rounds toward zero: at "Random" 1 only the lowest of 8192 draws gives −1.
    set(RANDOM, 1);
    for (int i = 0; i < 100; i++) send(PS_CMD_NOTE_ON, i, i, 256, kPitch);
    render_buffer(&net, 128);
    a = received(targets[0], PS_CMD_NOTE_ON);
    ASSERT_EQ(a.size(), 300u);
    int off_pitch = 0;
    for (size_t i = 200; i < a.size(); i++) off_pitch += a[i].pitch != kPitch;
    EXPECT_LE(off_pitch, 1);
}

TEST_F(MultiSynthTest, SkipsRemovedAndUninitialisedTargets) {
    build(4);
    psynth_remove_synth(targets[1], &net);                          // unlinked by the net
    net.modules[targets[2]].flags &= ~PSYNTH_FLAG_INITIALIZED;      // switched off
    psynth_module& m = net.modules[ms];
    for (int i = 0; i < m.output_links_capacity; i++) {
        if (m.output_links[i] < 0) m.output_links[i] = targets[1];  // a stale link to the free slot
    }
    send(PS_CMD_NOTE_ON, 0, 1, 100, kPitch);
    send(PS_CMD_NOTE_OFF, 5, 1);
    render_buffer(&net, 64);
    EXPECT_EQ(received(targets[0], PS_CMD_NOTE_ON).size(), 1u);
    EXPECT_EQ(received(targets[3], PS_CMD_NOTE_OFF).size(), 1u);
    EXPECT_EQ(received(targets[2], PS_CMD_NOTE_ON).size(), 0u);
    EXPECT_EQ(received(targets[2], PS_CMD_NOTE_OFF).size(), 0u);
}

TEST_F(MultiSynthTest, ScalesVelocitiesAndKeepsOtherCommandsToItself) {
    build(1);
    set(VELOCITY, 128);
    send(PS_CMD_NOTE_ON, 0, 7, 200, kPitch);
    send(PS_CMD_SET_VELOCITY, 1, 7, 256);
    send(PS_CMD_SET_SAMPLE_OFFSET, 2, 7, 0, 1000);
    send(PS_CMD_SET_SAMPLE_OFFSET2, 2, 7, 16384);
    send(PS_CMD_SET_LOCAL_CONTROLLER, 2, 7, 5);
    send(PS_CMD_NOTE_OFF, 3, 7, 99);
    send(PS_CMD_ALL_NOTES_OFF, 4, -1);
    render_buffer(&net, 64);
    const int t = targets[0];
    EXPECT_EQ(received_sequence(&net, t, 1), "NOTE_ON@0#7 R(0,1) SET_VELOCITY@1#7 R(1,2) NOTE_OFF@3#7 R(3,1) ALL_NOTES_OFF@4#-1 R(4,60)");
    EXPECT_EQ(received(t, PS_CMD_NOTE_ON)[0].velocity, 100);
    psynth_event v = received(t, PS_CMD_SET_VELOCITY)[0];
    EXPECT_EQ(v.velocity, 128);
    EXPECT_EQ(v.pitch, 0);                                    // not re-pitched
    EXPECT_EQ(received(t, PS_CMD_NOTE_OFF)[0].velocity, 99);  // passed on as it came

    psynth_event e = {};
    e.command = PS_CMD_SET_SAMPLE_OFFSET;
    EXPECT_EQ(psynth_multisynth(ms, &e, &net), 0);
    e.command = PS_CMD_RENDER_REPLACE;
    EXPECT_EQ(psynth_multisynth(ms, &e, &net), 0);
}

}  // namespace
