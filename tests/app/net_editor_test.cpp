// The sound net editor as a musician uses it, scripted: a Reverb added from the canvas's
// menu and wired between the Echo and Output by dragging from ports, a module removed
// and brought back by undo. The saved song is checked link by link and byte by byte.
#include "app/studio_fixture.h"
#include "psynth/psynth_modules.h"

namespace {

using NetEditorTest = StudioFixture;

// The starter net of a new song: Generator (1) → Echo (2) → OUT (0).
constexpr const char* kNewSong = "action new\nwait 2\n";

std::vector<int> inputs_of(const psynth_net* net, int m) {
    std::vector<int> links;
    const psynth_module* mod = &net->modules[m];
    for (int i = 0; i < mod->input_links_capacity; i++) {
        if (mod->input_links[i] >= 0) links.push_back(mod->input_links[i]);
    }
    return links;
}

TEST_F(NetEditorTest, AReverbIsAddedAndWiredBetweenTheEchoAndOutputByMouse) {
    std::string script = std::string(kNewSong) +
        "click_id net.canvas right\n"
        "click_id net.add.effects\n"
        "click_id net.add.Reverb\n"
        "drag_id net.port.2 net.module.0\n"  // onto an existing link: Echo → OUT goes
        "drag_id net.port.2 net.module.3\n"  // Echo → Reverb
        "drag_id net.port.3 net.module.0\n"  // Reverb → OUT
        "doubleclick_id net.module.3\n"      // its window
        "click_id module.3.ctl.1\n"          // the second controller's slider, in its middle
        "screenshot " + shot("net_reverb.png") + "\n"
        "save_song " + (dir / "reverb.zelfon").string() + "\n"
        "quit\nclick_id msgbox.button.1\n";
    ASSERT_EQ(run_studio(script), 0) << output();
    zelfon_song song;
    load(dir / "reverb.zelfon", &song);
    psynth_net* net = song.net;
    ASSERT_GT(net->slots, 3);
    EXPECT_EQ(net->modules[3].handler, psynth_reverb);
    EXPECT_EQ(inputs_of(net, 0), std::vector<int>{3});
    EXPECT_EQ(inputs_of(net, 3), std::vector<int>{2});
    EXPECT_EQ(inputs_of(net, 2), std::vector<int>{1});
    // A click in the middle of a slider sets about the middle of its range.
    const psynth_ctl& ctl = net->modules[3].ctls[1];
    int middle = (ctl.min + ctl.max) / 2, tolerance = (ctl.max - ctl.min) / 10 + 1;
    EXPECT_NEAR(*ctl.value, middle, tolerance) << ctl.name;
    zelfon_song_close(&song);
}

TEST_F(NetEditorTest, ARemovedModuleComesBackWithUndoAndOutputStays) {
    std::string script = std::string(kNewSong) +
        "save_song " + (dir / "before.zelfon").string() + "\n"
        "click_id net.module.2\n"
        "key Delete\n"
        "expect modules 2\n"
        "click_id net.module.0\n"
        "key Delete\n"
        "expect status The Output module stays in the net\n"
        "key ctrl+Z\n"
        "expect modules 3\n"
        "save_song " + (dir / "undone.zelfon").string() + "\n"
        "quit\nclick_id msgbox.button.1\n";
    ASSERT_EQ(run_studio(script), 0) << output();
    EXPECT_TRUE(read_file(dir / "undone.zelfon") == read_file(dir / "before.zelfon"));
}

TEST_F(NetEditorTest, AModuleIsSavedToAFileAndLoadedBackIntoTheNet) {
    write_file(dir / "not_a_module.zelsynth", "ZFON this is a song's start, not a module");
    std::string script = std::string(kNewSong) +
        "click_id net.module.2 right\n"
        "click_id net.menu.save\n"
        "doubleclick_id filedlg.name\n"
        "key ctrl+A\n"
        "text echo_copy\n"
        "key Return\n"
        "expect status Saved\n"
        "drop " + (dir / "echo_copy.zelsynth").string() + "\n"
        "expect modules 4\n"
        "drop " + (dir / "not_a_module.zelsynth").string() + "\n"
        "expect message " + (dir / "not_a_module.zelsynth").string() + " is not a module file\n"
        "click_id msgbox.button.0\n"
        "expect modules 4\n"
        "screenshot " + shot("net_module_loaded.png") + "\n"
        "save_song " + (dir / "loaded.zelfon").string() + "\n"
        "quit\nclick_id msgbox.button.1\n";
    ASSERT_EQ(run_studio(script), 0) << output();
    zelfon_song song;
    load(dir / "loaded.zelfon", &song);
    EXPECT_EQ(song.net->modules[3].handler, song.net->modules[2].handler);  // an Echo again
    EXPECT_STREQ(song.net->modules[3].name, song.net->modules[2].name);
    zelfon_song_close(&song);
}

}  // namespace

namespace {

TEST_F(NetEditorTest, AControllerLearnsAMidiControllerAndFollowsIt) {
    fs::path learning = dir / "learning.zelfon";
    std::string script = std::string(kNewSong) +
        "doubleclick_id net.module.1\n"           // the Generator's window
        "click_id module.1.ctl.0 right\n"
        "click_id module.1.ctl.0.learn\n"
        "save_song " + learning.string() + "\n"   // tells the test to play the controller
        "expect status Volume follows MIDI controller 7 on channel 3\n"
        "sleep_ms 300\n"
        "wait 10\n"
        "screenshot " + shot("midi_learn.png") + "\n"
        "save_song " + (dir / "learned.zelfon").string() + "\n"
        "quit\nclick_id msgbox.button.1\n";
    int code = run_with_keyboard(script, learning, [](RtMidiOut& keys) {
        std::vector<unsigned char> learn = {0xB2, 7, 10}, move = {0xB2, 7, 127};
        keys.sendMessage(&learn);  // channel 3: the binding takes it
        std::this_thread::sleep_for(std::chrono::milliseconds(150));
        keys.sendMessage(&move);   // and then follows it: the top of the range
    });
    ASSERT_EQ(code, 0) << output();
    zelfon_song song;
    load(dir / "learned.zelfon", &song);
    const psynth_module& generator = song.net->modules[1];
    EXPECT_EQ(generator.midi_learn_cc[0], 7);
    EXPECT_EQ(generator.midi_learn_channel[0], 2);
    EXPECT_EQ(*generator.ctls[0].value, generator.ctls[0].max);
    zelfon_song_close(&song);
}

}  // namespace

namespace {

std::string repeat(const std::string& s, int times) {
    std::string all;
    for (int i = 0; i < times; i++) all += s;
    return all;
}

// In edit mode while the song plays, each move of a learned controller is written into the
// pattern where the song plays, one sweep one undo step; the learning is a step before it.
TEST_F(NetEditorTest, LearnedControllerMovesAreRecordedWhilePlaying) {
    fs::path recording = dir / "recording.zelfon";
    std::string script = std::string(kNewSong) +
        "doubleclick_id net.module.1\n"
        "click_id module.1.ctl.0 right\n"
        "click_id module.1.ctl.0.learn\n"
        "expect status Move a controller on the MIDI keyboard for Volume\n"
        "action edit_mode\n"
        "action play_stop\n"
        "expect playing 1\n"
        "save_song " + recording.string() + "\n"  // tells the test to move the controller
        + repeat("sleep_ms 100\nwait 1\n", 8) +  // a frame every 100 ms while the moves come
        "action stop\n"
        "save_song " + (dir / "recorded.zelfon").string() + "\n"
        "action undo\n"  // the sweep
        "action undo\n"  // the learning
        "save_song " + (dir / "unlearned.zelfon").string() + "\n"
        "quit\nclick_id msgbox.button.1\n";
    int code = run_with_keyboard(script, recording, [](RtMidiOut& keys) {
        std::vector<unsigned char> learn = {0xB2, 7, 10};
        keys.sendMessage(&learn);  // the binding takes the first move
        for (unsigned char value : {32, 64, 127}) {
            std::this_thread::sleep_for(std::chrono::milliseconds(120));
            std::vector<unsigned char> move = {0xB2, 7, value};
            keys.sendMessage(&move);
        }
    });
    ASSERT_EQ(code, 0) << output();
    zelfon_song song;
    load(dir / "recorded.zelfon", &song);
    std::vector<int> values;
    const zelfon_pattern* pat = song.pats[0];
    for (int line = 0; line < pat->lines; line++) {
        const zelfon_cell* cell = zelfon_get_cell(0, 0, line, &song);
        if (cell->module == 2 && cell->ctl == 1) values.push_back(cell->value);
    }
    // The three moves after the learning one, each on a line of its own or the last on a line
    // that two shared; the last one the top of the range.
    ASSERT_GE(values.size(), 2u);
    EXPECT_EQ(values.back(), PSYNTH_CTL_MAX_VALUE);
    zelfon_song_close(&song);
    load(dir / "unlearned.zelfon", &song);
    EXPECT_EQ(song.net->modules[1].midi_learn_cc[0], PSYNTH_MIDI_UNBOUND);
    zelfon_song_close(&song);
}

}  // namespace
