// The pattern editor and the timeline as a musician uses them, scripted: a melody typed
// on the note keys, a block copied, pasted and transposed, a clone that follows its parent,
// a deleted pattern brought back by undo. The saved song is checked cell by cell.
#include "app/studio_fixture.h"
#include "song/song.h"

namespace {

using PatternEditorTest = StudioFixture;

// A fresh song (the starter net and one empty 64 × 4 pattern in slot 0) saved as `name`.
constexpr const char* kNewSong = "action new\nwait 2\n";

struct saved_song {
    zelfon_song song;
    explicit saved_song(const fs::path& p) {
        EXPECT_EQ(zelfon_song_init(0, 44100, &song), 0);
        EXPECT_EQ(zelfon_load_song(p.c_str(), &song), 0) << p;
    }
    ~saved_song() { zelfon_song_close(&song); }
    zelfon_cell cell(int slot, int track, int line) {
        const zelfon_cell* c = zelfon_get_cell(slot, track, line, &song);
        if (!c) ADD_FAILURE() << "no cell " << slot << " " << track << " " << line;
        return c ? *c : zelfon_cell{};
    }
};

TEST_F(PatternEditorTest, AMelodyTypedOnTheNoteKeysInEditMode) {
    std::string script = std::string(kNewSong) +
        "key Escape\n"          // edit mode
        "key Z\nkey X\nkey C\n" // C, D, E of octave 4
        "key 1\n"               // note-off
        "key ctrl+Z\n"          // the note-off goes again
        "screenshot " + shot("melody.png") + "\n"
        "save_song " + (dir / "melody.zelfon").string() + "\n"
        "quit\nclick_id msgbox.button.1\n";
    ASSERT_EQ(run_studio(script), 0) << output();
    saved_song s(dir / "melody.zelfon");
    const int c4 = 4 * 12 + 1;
    EXPECT_EQ(s.cell(0, 0, 0).note, c4);
    EXPECT_EQ(s.cell(0, 0, 1).note, c4 + 2);
    EXPECT_EQ(s.cell(0, 0, 2).note, c4 + 4);
    EXPECT_EQ(s.cell(0, 0, 3).note, 0);  // undone
    EXPECT_EQ(s.cell(0, 0, 0).module, 2);  // the selected module: the starter net's Generator
}

TEST_F(PatternEditorTest, NoteKeysFollowThePlaceOfTheKeyNotItsLetter) {
    // The same physical keys with the key codes of a US and of a German keyboard.
    std::string typing = "key Escape\nkey Z\nkey Y\nkey Escape\n";
    for (const char* layout : {"us", "de"}) {
        std::string script = std::string(kNewSong) + "layout " + layout + "\n" + typing +
                             "save_song " + (dir / (std::string(layout) + ".zelfon")).string() + "\n"
                             "quit\nclick_id msgbox.button.1\n";
        ASSERT_EQ(run_studio(script), 0) << output();
    }
    saved_song us(dir / "us.zelfon"), de(dir / "de.zelfon");
    for (saved_song* s : {&us, &de}) {
        EXPECT_EQ(s->cell(0, 0, 0).note, 4 * 12 + 1);       // the lower row's first key: C
        EXPECT_EQ(s->cell(0, 0, 1).note, 4 * 12 + 21 + 1);  // the upper row's sixth: A an octave up
    }
}

TEST_F(PatternEditorTest, ABlockIsCopiedPastedAndTransposed) {
    std::string script = std::string(kNewSong) +
        "key Escape\nkey Z\nkey X\nkey C\nkey Escape\n"
        "key Home\n"
        "key shift+Down\nkey shift+Down\n"
        "key ctrl+C\n"
        "key Tab\n"
        "key Home\n"
        "key ctrl+V\n"
        "key shift+Down\nkey shift+Down\n"
        "key ctrl+Up\n"                 // a semitone up
        "key ctrl+shift+Up\n"           // and an octave
        "screenshot " + shot("transposed.png") + "\n"
        "save_song " + (dir / "block.zelfon").string() + "\n"
        "quit\nclick_id msgbox.button.1\n";
    ASSERT_EQ(run_studio(script), 0) << output();
    saved_song s(dir / "block.zelfon");
    const int c4 = 4 * 12 + 1;
    for (int line = 0; line < 3; line++) {
        EXPECT_EQ(s.cell(0, 0, line).note, c4 + 2 * line) << line;
        EXPECT_EQ(s.cell(0, 1, line).note, c4 + 2 * line + 13) << line;
        EXPECT_EQ(s.cell(0, 1, line).module, s.cell(0, 0, line).module) << line;
    }
}

TEST_F(PatternEditorTest, ACloneOnTheTimelineFollowsItsParent) {
    std::string script = std::string(kNewSong) +
        "click_id timeline.pattern.0\n"
        "key ctrl+D\n"                   // a clone right after it
        "wait 30\n"                      // a click and a press soon after make a double click
        "doubleclick_id timeline.pattern.0\n"
        "key Escape\nkey Q\n"            // C-5 into the parent
        "screenshot " + shot("clone.png") + "\n"
        "save_song " + (dir / "clone.zelfon").string() + "\n"
        "quit\nclick_id msgbox.button.1\n";
    ASSERT_EQ(run_studio(script), 0) << output();
    saved_song s(dir / "clone.zelfon");
    ASSERT_NE(s.song.pats[1], nullptr);
    EXPECT_TRUE(s.song.pats_info[1].flags & ZELFON_PATTERN_FLAG_CLONE);
    EXPECT_EQ(s.song.pats_info[1].x, 64);
    EXPECT_EQ(s.cell(1, 0, 0).note, 5 * 12 + 1);
}

TEST_F(PatternEditorTest, ADeletedPatternComesBackWithUndo) {
    std::string script = std::string(kNewSong) +
        "save_song " + (dir / "before.zelfon").string() + "\n"
        "click_id timeline.pattern.0\n"
        "key Delete\n"
        "save_song " + (dir / "deleted.zelfon").string() + "\n"
        "key ctrl+Z\n"
        "save_song " + (dir / "undone.zelfon").string() + "\n"
        "key ctrl+Y\n"
        "save_song " + (dir / "redone.zelfon").string() + "\n"
        "quit\nclick_id msgbox.button.1\n";
    ASSERT_EQ(run_studio(script), 0) << output();
    EXPECT_TRUE(read_file(dir / "undone.zelfon") == read_file(dir / "before.zelfon"));
    EXPECT_TRUE(read_file(dir / "redone.zelfon") == read_file(dir / "deleted.zelfon"));
    EXPECT_FALSE(read_file(dir / "deleted.zelfon") == read_file(dir / "before.zelfon"));
}

TEST_F(PatternEditorTest, TextThatIsNoPatternPastesNothing) {
    std::string script = std::string(kNewSong) +
        "save_song " + (dir / "before.zelfon").string() + "\n"
        "set_clipboard hello, this is not a pattern\n"
        "key ctrl+V\n"
        "expect status The clipboard holds no pattern cells\n"
        "save_song " + (dir / "after.zelfon").string() + "\n"
        "quit\n";
    ASSERT_EQ(run_studio(script), 0) << output();
    EXPECT_TRUE(read_file(dir / "after.zelfon") == read_file(dir / "before.zelfon"));
}

}  // namespace

namespace {

TEST_F(PatternEditorTest, TheMidiKeyboardRecordsAtTheCursorWhenStopped) {
    fs::path ready = dir / "ready.zelfon";
    std::string script = std::string(kNewSong) +
        "key Escape\n"
        "save_song " + ready.string() + "\n"
        "expect note 0 1 62\n"  // the second note: the cursor moved on after the first
        "screenshot " + shot("midi_recorded.png") + "\n"
        "save_song " + (dir / "recorded.zelfon").string() + "\n"
        "quit\nclick_id msgbox.button.1\n";
    int code = run_with_keyboard(script, ready, [](RtMidiOut& keys) {
        for (unsigned char key : {60, 61}) {
            std::vector<unsigned char> on = {0x90, key, 100}, off = {0x80, key, 0};
            keys.sendMessage(&on);
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            keys.sendMessage(&off);
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    });
    ASSERT_EQ(code, 0) << output();
    saved_song s(dir / "recorded.zelfon");
    EXPECT_EQ(s.cell(0, 0, 0).note, 61);
    EXPECT_EQ(s.cell(0, 0, 0).vel, 101);
    EXPECT_EQ(s.cell(0, 0, 1).note, 62);
    EXPECT_EQ(s.cell(0, 0, 2).note, 0);  // releases are not written while stopped
}

}  // namespace

namespace {

// A MIDI keyboard that is not there when the studio starts, then unplugged and plugged in
// again: the studio opens it each time it appears, and its notes are written.
TEST_F(PatternEditorTest, TheMidiKeyboardIsOpenedWheneverItAppears) {
    JackTestServer server;
    ASSERT_TRUE(server.start());
    write_file(dir / "zelfon_config.txt", "midi_kbd zkeys:out\nmidi_kbd_ch 1\n");
    fs::path ready = dir / "ready.zelfon", unplug = dir / "unplug.zelfon";
    std::string script = std::string(kNewSong) +
        "key Escape\n"
        "save_song " + ready.string() + "\n"
        "expect note 0 0 61\n"
        "save_song " + unplug.string() + "\n"
        "expect note 0 1 63\n"
        "expect status The MIDI keyboard is back\n"
        "save_song " + (dir / "recorded.zelfon").string() + "\n"
        "quit\nclick_id msgbox.button.1\n";
    auto plug_in_and_play = [](unsigned char key) {
        RtMidiOut keys(RtMidi::UNIX_JACK, "zkeys");
        keys.openVirtualPort("out");
        // The studio looks for it every two seconds.
        std::this_thread::sleep_for(std::chrono::milliseconds(3000));
        std::vector<unsigned char> on = {0x90, key, 100}, off = {0x80, key, 0};
        keys.sendMessage(&on);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        keys.sendMessage(&off);
    };
    std::thread player([&] {
        if (!wait_until([&] { return fs::exists(ready); }, 60.0)) return;
        plug_in_and_play(60);
        if (!wait_until([&] { return fs::exists(unplug); }, 60.0)) return;
        std::this_thread::sleep_for(std::chrono::milliseconds(2500));  // unplugged for a look or two
        plug_in_and_play(62);
    });
    int code = run_studio(script, {}, {"JACK_DEFAULT_SERVER=" + server.name()});
    player.join();
    ASSERT_EQ(code, 0) << output();
    EXPECT_NE(output().find("went away"), std::string::npos) << output();
}

}  // namespace
