// `zelfon play --wait`, the real program: started before the sound server, it waits for it;
// when the server goes away mid-song and comes back, the song plays on to its end.
#include "app/studio_fixture.h"
#include "song/edit.h"

namespace {

using PlayWaitTest = StudioFixture;

TEST_F(PlayWaitTest, WaitsForTheServerAndPlaysOnWhenItComesBack) {
    // A new song of one 32-line pattern: about four seconds at 125 BPM, speed 6.
    fs::path song = dir / "short.zelfon";
    {
        zelfon_song s;
        ASSERT_EQ(zelfon_song_init(1, 44100, &s), 0);
        ASSERT_GE(zelfon_edit_new_pattern(32, 4, 0, 0, 1, &s), 0);
        ASSERT_EQ(zelfon_save_song(song.c_str(), ZELFON_VERSION_MAJOR, ZELFON_VERSION_MINOR, &s), 0);
        zelfon_song_close(&s);
    }
    JackTestServer server;
    std::atomic<bool> ended{false};
    std::thread control([&] {
        // Not there at the start; there after a second and a half; gone for a while mid-song.
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
        server.start();
        std::this_thread::sleep_for(std::chrono::milliseconds(2000));
        server.stop();
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
        server.start();
        // The server dies with the thread that started it: this one lives until the end.
        wait_until([&] { return ended.load(); }, 120.0);
    });
    int code = run_program({"play", song.string(), "--wait", "20"}, {"JACK_DEFAULT_SERVER=" + server.name()}, false);
    ended = true;
    control.join();
    EXPECT_EQ(code, 0) << output();
    std::string out = output();
    EXPECT_NE(out.find("no sound device yet: waiting up to 20 s"), std::string::npos) << out;
    EXPECT_NE(out.find("the sound stream stopped at line"), std::string::npos) << out;
    EXPECT_NE(out.find("the sound device is back: playing on from line"), std::string::npos) << out;
    EXPECT_NE(out.find("Played"), std::string::npos) << out;

    // Without --wait a missing server is an error at once.
    EXPECT_EQ(run_program({"play", song.string()}, {"JACK_DEFAULT_SERVER=" + server.name()}, false), 1);
}

}  // namespace
