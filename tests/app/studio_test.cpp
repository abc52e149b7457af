// The studio as a musician meets it: the real program on SDL's offscreen video driver
// with the software renderer, driven by scripts of keys and clicks, in a folder of its
// own (working folder, settings and temporary files). Tests check the files it leaves
// and the song state it reports; every screenshot stays in the build folder's
// studio_screenshots/ to be looked at.
#include <signal.h>
#include <sys/stat.h>

#include <atomic>

#include "app/studio_fixture.h"
#include "file_faults.h"
#include "psynth/psynth_modules.h"
#include "psynth/sample_file.h"
#include "psynth/sampler.h"
#include "song/export.h"
#include "song/tracker_writers.h"

namespace {

using StudioTest = StudioFixture;

TEST_F(StudioTest, OpensASongPlaysAndStopsOnJack) {
    JackTestServer server;
    ASSERT_TRUE(server.start());
    fs::path song = demo_song();
    std::string script =
        "wait 5\n"
        "expect playing 0\n"
        "click_id transport.play\n"
        "sleep_ms 700\n"
        "wait 3\n"
        "expect playing 1\n"
        "expect line_at_least 2\n"
        "screenshot " + shot("playing.png") + "\n"
        "click_id transport.stop\n"
        "wait 3\n"
        "expect playing 0\n"
        "quit\n";
    EXPECT_EQ(run_studio(script, {song.string()}, {"JACK_DEFAULT_SERVER=" + server.name()}), 0) << output();
    EXPECT_NE(output().find("Sound: JACK"), std::string::npos) << output();
}

// The sound server quits under a playing studio: the studio stops the song, runs on
// silent, says so, and opens the server again by itself once it is back.
TEST_F(StudioTest, RunsSilentWhenJackGoesAndReconnectsWhenItReturns) {
    JackTestServer server;
    ASSERT_TRUE(server.start());
    fs::path song = demo_song();
    fs::path gone = dir / "gone.zelfon", waiting = dir / "waiting.zelfon";
    std::string script =
        "click_id transport.play\n"
        "expect line_at_least 1\n"
        "save_song " + gone.string() + "\n"  // the test stops the server
        "expect status The sound device went away: Zelfon runs silent until it is back\n"
        "expect playing 0\n"
        "screenshot " + shot("sound_gone.png") + "\n"
        "save_song " + waiting.string() + "\n"  // the test starts it again
        "expect status The sound device is back: JACK, 44100 Hz\n"
        "click_id transport.play\n"
        "expect line_at_least 2\n"
        "click_id transport.stop\n"
        "quit\n";
    std::atomic<bool> studio_ended{false};
    std::thread server_control([&] {
        if (!wait_until([&] { return fs::exists(gone); }, 60.0)) return;
        server.stop();
        if (!wait_until([&] { return fs::exists(waiting); }, 60.0)) return;
        server.start();
        // The server dies with the thread that started it: this one lives on until the end.
        wait_until([&] { return studio_ended.load(); }, 120.0);
    });
    int code = run_studio(script, {song.string()}, {"JACK_DEFAULT_SERVER=" + server.name()});
    studio_ended = true;
    server_control.join();
    EXPECT_EQ(code, 0) << output();
}

// After two start-ups that never drew their first frame, the next one runs in safe mode:
// default preferences (the file left as it was), a new song instead of the one asked for,
// no device; it says why. The start after it is the usual one.
TEST_F(StudioTest, TwoUnfinishedStartsMakeTheNextOneSafe) {
    fs::path song = demo_song();
    const std::string profile = "// my studio\nsplit_x 300\nbackupinterval 1\n";
    write_file(dir / "zelfon_config.txt", profile);
    fs::path starting = dir / "cfg" / "zelfon" / "zelfon_starting";
    fs::create_directories(starting.parent_path());
    write_file(starting, "2\n");
    std::string safe =
        "expect message Zelfon did not finish starting the last two times\n"
        "screenshot " + shot("safe_mode.png") + "\n"
        "click_id msgbox.button.0\n"
        "expect modules 3\n"  // the starter net, not the song of the command line
        "action preferences\n"
        "click_id prefs.buffer\n"
        "click_id prefs.buffer.2048\n"
        "click_id prefs.ok\n"
        "expect status Safe mode: the preferences apply until Zelfon closes\n"
        "quit\n";
    ASSERT_EQ(run_studio(safe, {song.string()}), 0) << output();
    EXPECT_EQ(read_file(dir / "zelfon_config.txt"), profile);
    EXPECT_FALSE(fs::exists(starting));
    EXPECT_EQ(run_studio("expect no_message\nexpect modules 6\nquit\n", {song.string()}), 0) << output();
    EXPECT_FALSE(fs::exists(starting));
}

TEST_F(StudioTest, SongPropertiesChangeTheTempoThatIsSaved) {
    fs::path song = demo_song();
    std::string script =
        "action song_properties\n"
        "wait 2\n"
        "doubleclick_id songprops.bpm\n"
        "key ctrl+A\n"
        "text 140\n"
        "key Return\n"
        "expect bpm 140\n"
        "expect dirty 1\n"
        "screenshot " + shot("song_properties.png") + "\n"
        "key ctrl+S\n"
        "expect dirty 0\n"
        "quit\n";
    ASSERT_EQ(run_studio(script, {song.string()}), 0) << output();
    zelfon_song loaded;
    load(song, &loaded);
    EXPECT_EQ(loaded.bpm, 140);
    EXPECT_EQ(loaded.speed, 6);
    zelfon_song_close(&loaded);
}

TEST_F(StudioTest, PreferencesWriteTheBufferIntoTheProfileKeepingItsComments) {
    const std::string profile = "// my studio\nbuffer 1024 // small is good\n\nwindowname \"My Zelfon\"\n";
    write_file(dir / "zelfon_config.txt", profile);
    std::string script =
        "action preferences\n"
        "wait 2\n"
        "click_id prefs.buffer\n"
        "click_id prefs.buffer.256\n"
        "screenshot " + shot("preferences.png") + "\n"
        "click_id prefs.ok\n"
        "quit\n";
    ASSERT_EQ(run_studio(script), 0) << output();
    std::string saved = read_file(dir / "zelfon_config.txt");
    // Only the changed key's line is rewritten; nothing else is added.
    EXPECT_EQ(saved, "// my studio\nbuffer 256 // small is good\n\nwindowname \"My Zelfon\"\n");
}

TEST_F(StudioTest, AnUnknownFileTakesTheRawPathThroughTheEngineMessages) {
    std::string noise(4000, '\0');
    for (size_t i = 0; i < noise.size(); i++) noise[i] = (char)(i * 37 + 11);
    write_file(dir / "noise.bin", noise);
    std::string script =
        "drop " + (dir / "noise.bin").string() + "\n"
        "expect message File format not recognized\n"
        "screenshot " + shot("message_box.png") + "\n"
        "click_id msgbox.button.0\n"   // Load RAW
        "expect message Select data format\n"
        "click_id msgbox.button.1\n"   // 16bit
        "expect message Select number of channels\n"
        "click_id msgbox.button.1\n"   // Mono
        "expect no_message\n"
        "save_song " + (dir / "out.zelfon").string() + "\n"
        "quit\n"
        "click_id msgbox.button.1\n";  // Don't save
    ASSERT_EQ(run_studio(script), 0) << output();
    zelfon_song song;
    load(dir / "out.zelfon", &song);
    psynth_net* net = song.net;
    int sampler = -1;
    for (int m = 0; m < net->slots; m++) {
        if ((net->modules[m].flags & PSYNTH_FLAG_EXISTS) && net->modules[m].handler == psynth_sampler) sampler = m;
    }
    ASSERT_GE(sampler, 0);
    int bytes = 0;
    ASSERT_EQ(psynth_get_chunk_info(sampler, psynth_sampler_data_chunk(0), &bytes, nullptr, nullptr, net), 0);
    EXPECT_EQ(bytes, 4000);  // 2000 mono 16-bit frames: the file's bytes as they are
    EXPECT_EQ(memcmp(psynth_get_chunk(sampler, psynth_sampler_data_chunk(0), net), noise.data(), 4000), 0);
    zelfon_song_close(&song);
}

// FIFOs (which nobody writes: reading one would never end) and a WAV named as a song are
// refused with a message; the studio carries on.
TEST_F(StudioTest, FilesThatAreNotWhatTheySeemAreRefusedWithAMessage) {
    for (const char* name : {"pipe.zelfon", "pipe.zelsynth", "pipe.wav", "pipe.xm"}) {
        ASSERT_EQ(mkfifo((dir / name).c_str(), 0600), 0);
    }
    write_file(dir / "take.zelfon", std::string("RIFF") + std::string(40, '\0'));
    std::string script;
    const std::pair<const char*, const char*> drops[] = {{"pipe.zelfon", " is not a regular file"},
                                                         {"take.zelfon", " is not a Zelfon song"},
                                                         {"pipe.zelsynth", " is not a regular file"},
                                                         {"pipe.wav", " is not a regular file"},
                                                         {"pipe.xm", " is not a regular file"}};
    for (const auto& [name, why] : drops) {
        script += "drop " + (dir / name).string() + "\n"
                  "expect message " + (dir / name).string() + why + "\n"
                  "click_id msgbox.button.0\n"
                  "expect no_message\n";
    }
    script += "quit\n";
    ASSERT_EQ(run_studio(script), 0) << output();
    EXPECT_TRUE(fs::is_fifo(dir / "pipe.zelfon"));
    EXPECT_EQ(read_file(dir / "take.zelfon"), std::string("RIFF") + std::string(40, '\0'));
}

TEST_F(StudioTest, AnotherTrackersSongIsImportedWithWhatItLost) {
    tw_bytes xm = tw_rich_file("xm");
    write_file(dir / "rich.xm", std::string(xm.begin(), xm.end()));
    std::string script =
        "drop " + (dir / "rich.xm").string() + "\n"
        "expect message Imported rich.xm (XM)\n"
        "screenshot " + shot("import_summary.png") + "\n"
        "click_id msgbox.button.0\n"
        "expect dirty 1\n"
        "save_song " + (dir / "imported.zelfon").string() + "\n"
        "quit\nclick_id msgbox.button.1\n";
    ASSERT_EQ(run_studio(script), 0) << output();
    EXPECT_NE(output().find("Not carried over"), std::string::npos) << output();
    zelfon_song song;
    load(dir / "imported.zelfon", &song);
    EXPECT_GT(song.sorted_pats_count, 0);
    zelfon_song_close(&song);
}

TEST_F(StudioTest, AfterACrashTheBackupIsOfferedAndRestored) {
    fs::path song = demo_song();
    write_file(dir / "zelfon_config.txt", "backupinterval 1\n");
    std::string crash =
        "action song_properties\n"
        "doubleclick_id songprops.bpm\n"
        "key ctrl+A\n"
        "text 150\n"
        "key Return\n"
        "sleep_ms 1100\n"
        "wait 3\n"
        "crash\n";
    EXPECT_EQ(run_studio(crash, {song.string()}), 128 + SIGKILL);
    ASSERT_TRUE(fs::exists(dir / "BACKUP.zelfon")) << output();
    std::string restore =
        "expect message Zelfon did not close properly\n"
        "screenshot " + shot("restore_offer.png") + "\n"
        "click_id msgbox.button.0\n"
        "expect bpm 150\n"
        "expect dirty 1\n"
        "save_song " + (dir / "restored.zelfon").string() + "\n"
        "quit\n"
        "click_id msgbox.button.1\n";
    ASSERT_EQ(run_studio(restore), 0) << output();
    zelfon_song restored;
    load(dir / "restored.zelfon", &restored);
    EXPECT_EQ(restored.bpm, 150);
    zelfon_song_close(&restored);
    // A clean exit: the next start offers nothing.
    EXPECT_EQ(run_studio("wait 3\nexpect no_message\nquit\n"), 0) << output();
}

TEST_F(StudioTest, TheExportDialogWritesTheSameWavAsTheEngine) {
    fs::path song = demo_song();
    std::string script =
        "action export\n"
        "wait 2\n"
        "doubleclick_id export.path\n"
        "key ctrl+A\n"
        "text " + (dir / "gui.wav").string() + "\n"
        "click_id export.start\n"
        "wait 3\n"
        "screenshot " + shot("export_done.png") + "\n"
        "quit\n";
    ASSERT_EQ(run_studio(script, {song.string()}), 0) << output();
    zelfon_song direct;
    load(song, &direct);
    ASSERT_EQ(zelfon_export_to_wav((dir / "direct.wav").c_str(), ZELFON_EXPORT_INT16, ZELFON_EXPORT_ONE_FILE, nullptr,
                                   nullptr, &direct), 0);
    zelfon_song_close(&direct);
    std::string gui = read_file(dir / "gui.wav");
    ASSERT_GT(gui.size(), 44u * 1000);
    EXPECT_TRUE(gui == read_file(dir / "direct.wav"));
    EXPECT_TRUE(fs::exists(dir / "BACKUP.zelfon"));  // written before the export
}

TEST_F(StudioTest, QuittingWithUnsavedChangesAsksAndCancelKeepsTheStudioOpen) {
    fs::path song = demo_song();
    std::string before = read_file(song);
    std::string script =
        "click_id transport.bpm\n"
        "key ctrl+A\n"
        "text 99\n"
        "key Return\n"
        "expect dirty 1\n"
        "quit\n"
        "expect message Save the changes to \"song.zelfon\"?\n"
        "screenshot " + shot("quit_question.png") + "\n"
        "click_id msgbox.button.2\n"  // Cancel
        "wait 5\n"
        "expect no_message\n"
        "expect bpm 99\n"
        "quit\n"
        "click_id msgbox.button.1\n";  // Don't save
    ASSERT_EQ(run_studio(script, {song.string()}), 0) << output();
    EXPECT_TRUE(read_file(song) == before);
}

TEST_F(StudioTest, ASongThatFailsToLoadLeavesTheOpenSongAlone) {
    fs::path song = demo_song();
    std::string bytes = read_file(song);
    write_file(dir / "cut.zelfon", bytes.substr(0, bytes.size() / 2));
    write_file(dir / "sound.wav", "RIFF....WAVEfmt ");
    std::string script =
        "drop " + (dir / "cut.zelfon").string() + "\n"
        "expect message Cannot load\n"
        "screenshot " + shot("load_failed.png") + "\n"
        "click_id msgbox.button.0\n"
        "action open\n"
        "wait 2\n"
        "doubleclick_id filedlg.name\n"
        "key ctrl+A\n"
        "text sound.wav\n"
        "key Return\n"
        "expect message " + (dir / "sound.wav").string() + " is not a Zelfon song\n"
        "click_id msgbox.button.0\n"
        "save_song " + (dir / "after.zelfon").string() + "\n"
        "quit\n";
    ASSERT_EQ(run_studio(script, {song.string()}), 0) << output();
    EXPECT_TRUE(read_file(dir / "after.zelfon") == bytes);
}

TEST_F(StudioTest, MissingFontsAndNoSoundDeviceStillGiveAWorkingStudio) {
    write_file(dir / "zelfon_config.txt", "rotate 90\ntouchcontrol 1\nzoom 150\n");
    std::string script =
        "wait 3\n"
        "screenshot " + shot("fallback_font_rotated.png") + "\n"
        "click_id menu.song\n"
        "click_id menu.song.song_properties\n"
        "wait 2\n"
        "click_id songprops.close\n"
        "quit\n";
    ASSERT_EQ(run_studio(script, {}, {"ZELFON_FONT_DIR=/nonexistent"}), 0) << output();
    EXPECT_NE(output().find("DejaVu fonts not found"), std::string::npos);
    EXPECT_NE(output().find("Zelfon runs silent"), std::string::npos);
}

TEST_F(StudioTest, AnExportCanBeCancelledWhileTheWindowKeepsDrawing) {
    fs::path song = demo_song();
    std::string script =
        "action export\n"
        "doubleclick_id export.path\n"
        "key ctrl+A\n"
        "text " + (dir / "cut.wav").string() + "\n"
        "click_id export.start\n"
        "screenshot " + shot("export_running.png") + "\n"
        "click_id export.cancel\n"
        "expect export Export cancelled\n"
        "quit\n";
    ASSERT_EQ(run_studio(script, {song.string()}), 0) << output();
    std::string wav = read_file(dir / "cut.wav");
    ASSERT_GE(wav.size(), 44u);
    EXPECT_EQ(wav.substr(0, 4), "RIFF");
    zelfon_song direct;
    load(song, &direct);
    int64_t whole = zelfon_get_song_length_frames(44100, &direct) * 4 + 44;
    zelfon_song_close(&direct);
    EXPECT_LT((int64_t)wav.size(), whole);  // what was rendered before Cancel, a complete file
}

TEST_F(StudioTest, UnwritableBackupAndSettingsAreSaidAndTheStudioKeepsRunning) {
    fs::path song = demo_song();
    write_file(dir / "zelfon_config.txt", "buffer 512\n");
    fs::create_directories(dir / "BACKUP.zelfon");  // no file can be written there
    TestUnwritable fixed((dir / "zelfon_config.txt").string());  // nor can the settings be replaced
    ASSERT_TRUE(fixed.active);
    std::string script =
        "drop " + song.string() + "\n"
        "expect status Opened song.zelfon. The backup 1:/BACKUP.zelfon could not be written\n"
        "action preferences\n"
        "click_id prefs.buffer\n"
        "click_id prefs.buffer.2048\n"
        "click_id prefs.ok\n"
        "expect message The preferences could not be saved\n"
        "screenshot " + shot("settings_unwritable.png") + "\n"
        "click_id msgbox.button.0\n"
        "expect no_message\n"
        "quit\n";
    ASSERT_EQ(run_studio(script), 0) << output();
    EXPECT_EQ(read_file(dir / "zelfon_config.txt"), "buffer 512\n");
}

TEST_F(StudioTest, FloatingWindowsInTheLightTheme) {
    write_file(dir / "zelfon_config.txt", "theme light\n");
    std::string script =
        "action cpu_monitor\n"
        "action log\n"
        "action about\n"
        "wait 3\n"
        "screenshot " + shot("light_windows.png") + "\n"
        "click_id about.close\n"
        "quit\n";
    EXPECT_EQ(run_studio(script), 0) << output();
}

TEST_F(StudioTest, WithoutADisplayTheStudioSaysSoAndTheHeadlessJobsStay) {
    // No video driver can open: no SDL_VIDEODRIVER, no DISPLAY.
    EXPECT_EQ(run_program({"song.zelfon"}, {}, false), 1);
    EXPECT_NE(output().find("no display"), std::string::npos) << output();
    EXPECT_EQ(run_program({"demo", "demo.zelfon"}, {}, false), 0) << output();
    EXPECT_EQ(read_file(dir / "demo.zelfon").substr(0, 4), "ZFON");
}
}  // namespace
