// ANS: its answers and controllers, and the placeholder staying silent whatever it is
// played at any rate, also in a loaded song next to an FM fed by a MultiSynth.
#include <gtest/gtest.h>

#include <vector>

#include "psynth/psynth_modules.h"
#include "psynth/test_modules.h"
#include "song_test_util.h"

namespace {

class SongAnsTest : public SongFixture {};

TEST_F(SongAnsTest, AnswersItsQuestionsAndRegistersItsControllers) {
    psynth_event e = {};
    auto ask = [&](int command) { e.command = command; return psynth_ans(-1, &e, nullptr); };
    EXPECT_STREQ((const char*)ask(PS_CMD_GET_SYNTH_NAME), "ANS");
    EXPECT_STREQ((const char*)ask(PS_CMD_GET_SYNTH_INFO), "ANS.");
    EXPECT_STREQ((const char*)ask(PS_CMD_GET_SYNTH_COLOR), "#009BFF");
    EXPECT_EQ(ask(PS_CMD_GET_FLAGS), 0x408);
    EXPECT_EQ(ask(PS_CMD_GET_DATA_SIZE), 16436);
    EXPECT_EQ(ask(PS_CMD_GET_OUTPUTS_NUM), 2);
    EXPECT_EQ(ask(PS_CMD_GET_INPUTS_NUM), 0);

    int ans = add_module(psynth_ans);
    EXPECT_EQ(check_ctls(song.net, ans, {{"Volume", "", 0, 512, 256, 0},     {"Base note", "", 0, 120, 32, 1},
                                         {"Base freq", "Hz", 10, 8000, 100, 0}, {"Octaves", "", 1, 10, 7, 0},
                                         {"Ticks per pixel", "", 1, 32, 3, 1},  {"Polyphony", "ch.", 1, 16, 8, 1}}),
              "");
}

TEST_F(SongAnsTest, StaysSilentWhenPlayedAtAnyRate) {
    for (int rate : {44100, 48000, 22050}) {
        psynth_net net;
        psynth_init(0, rate, 125, 6, &net);
        int ans = psynth_add_synth(-1, psynth_ans, nullptr, 0, 0, 0, 125, 6, &net);
        psynth_make_link(0, ans, &net);
        psynth_event e = {};
        e.command = PS_CMD_NOTE_ON;
        e.id = 1;
        e.note = 60;
        e.velocity = 256;
        e.pitch = 60 * 256;
        EXPECT_EQ(psynth_ans(ans, &e, &net), 0);  // ignored
        for (int b = 0; b < 3; b++) {
            psynth_add_event(ans, &e, &net);
            psynth_set_render_params(1024, 0, 0, 0, 0, &net);
            psynth_render_all(&net);
            psynth_clear_events(&net);
            EXPECT_EQ(net.modules[ans].output_start[0], 1024) << rate;  // reported silent
            EXPECT_EQ(net.modules[ans].output_start[1], 1024) << rate;
        }
        EXPECT_EQ(psynth_do_command(ans, PS_CMD_CLEAN, &net), 1);
        psynth_close(&net);
    }
}

TEST_F(SongAnsTest, ALoadedSongPlaysTheFmButNotTheAns) {
    int ans = add_module(psynth_ans);
    int ms = add_module(psynth_multisynth);
    int fm = add_module(psynth_fm);
    psynth_make_link(0, ans, song.net);
    psynth_make_link(0, fm, song.net);
    psynth_make_link(fm, ms, song.net);
    save_load_save("3:/ans.zelfon");
    ASSERT_EQ(song.net->modules[ans].handler, psynth_ans);
    ASSERT_EQ(song.net->modules[ms].handler, psynth_multisynth);
    ASSERT_EQ(song.net->modules[fm].handler, psynth_fm);

    // The ANS stays silent, the FM sounds through the MultiSynth.
    int slot = add_pattern(0, 4, 2);
    cell(slot, 0, 0) = note_cell(49, ans + 1, 100);
    cell(slot, 1, 0) = note_cell(49, ms + 1, 100);
    play();
    render(4096);
    EXPECT_EQ(song.net->modules[ans].output_start[0], song.net->frames);
    EXPECT_LT(song.net->modules[fm].output_start[0], song.net->frames);
}

}  // namespace
