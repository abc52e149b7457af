// The studio's test fixture: runs the real program on SDL's offscreen video driver with the
// software renderer, driven by a script of keys and clicks, in a folder of its own (working
// folder, settings and temporary files), and gives the tests its output, its screenshots'
// folder and songs to start from.
#pragma once

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <RtMidi.h>

#include <functional>

#include "engine/file.h"
#include "engine/jack_test_server.h"
#include "engine/log.h"
#include "engine/memory.h"
#include "engine/profile.h"
#include "song/demo.h"
#include "song/song_file.h"


namespace fs = std::filesystem;

constexpr int kStudioTimeoutSeconds = 120;
// Read once before any test points TMPDIR at a folder of its own (and removes it).
inline const fs::path kStudioTestRoot = fs::temp_directory_path();

inline std::string read_file(const fs::path& p) {
    std::ifstream f(p, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(f), {});
}

inline void write_file(const fs::path& p, const std::string& text) {
    std::ofstream f(p, std::ios::binary);
    f << text;
}

class StudioFixture : public ::testing::Test {
protected:
    void SetUp() override {
        const ::testing::TestInfo* info = ::testing::UnitTest::GetInstance()->current_test_info();
        dir = kStudioTestRoot / ("zelfon_studio_" + std::string(info->name()) + "_" + std::to_string(getpid()));
        fs::remove_all(dir);
        fs::create_directories(dir / "cfg");
        fs::create_directories(dir / "tmp");
        shots = fs::path(ZELFON_SCREENSHOT_DIR);
        fs::create_directories(shots);
        mem_init();
        v3_init();
        tarvik_log_init(TARVIK_LOG_FILE);
        profile_new(nullptr);
    }
    void TearDown() override {
        profile_close(nullptr);
        v3_deinit();
        EXPECT_FALSE(mem_free_all());
        tarvik_log_close();
        mem_deinit();
        if (!HasFailure()) fs::remove_all(dir);
    }

    // Runs the program with `args` in the test's folder (settings and temporary files
    // there too), with `env` added. Returns its exit code (128 + signal when killed).
    int run_program(std::vector<std::string> args, const std::vector<std::string>& env, bool offscreen) {
        args.insert(args.begin(), ZELFON_BINARY);
        pid_t pid = fork();
        if (pid == 0) {
            if (chdir(dir.c_str()) != 0) _exit(126);
            if (offscreen) {
                setenv("SDL_VIDEODRIVER", "offscreen", 1);
                setenv("SDL_RENDER_DRIVER", "software", 1);
            } else {
                unsetenv("SDL_VIDEODRIVER");
            }
            setenv("XDG_CONFIG_HOME", (dir / "cfg").c_str(), 1);
            setenv("TMPDIR", (dir / "tmp").c_str(), 1);
            setenv("HOME", dir.c_str(), 1);
            // Under the sanitizers: SDL's drivers and the sound libraries they load (and unload
            // at SDL_Quit) keep a few blocks of their own; the memory manager's report, which
            // fails the exit code, still covers every block of ours.
            setenv("ASAN_OPTIONS", "detect_leaks=0:allocator_may_return_null=1", 1);
            unsetenv("DISPLAY");
            unsetenv("WAYLAND_DISPLAY");
            for (const std::string& e : env) putenv(strdup(e.c_str()));
            int out = open((dir / "studio_output.txt").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
            dup2(out, 1);
            dup2(out, 2);
            std::vector<char*> argv;
            for (std::string& a : args) argv.push_back(a.data());
            argv.push_back(nullptr);
            execv(argv[0], argv.data());
            _exit(127);
        }
        int status = 0;
        auto end = std::chrono::steady_clock::now() + std::chrono::seconds(kStudioTimeoutSeconds);
        while (waitpid(pid, &status, WNOHANG) == 0) {
            if (std::chrono::steady_clock::now() > end) {
                kill(pid, SIGKILL);
                waitpid(pid, &status, 0);
                ADD_FAILURE() << "the program did not end\n" << output();
                return -1;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    }
    // Runs the studio on SDL's offscreen driver with `script` (and `args`).
    int run_studio(const std::string& script, std::vector<std::string> args = {}, std::vector<std::string> env = {}) {
        write_file(dir / "script.txt", script);
        args.insert(args.begin(), {"--script", (dir / "script.txt").string()});
        return run_program(args, env, true);
    }
    // Runs the studio with `script` on a JACK server of its own, its MIDI keyboard the test's
    // JACK MIDI port "zkeys:out". Once the script has saved a song at `ready`, `play` sends
    // what the test plays. Returns the studio's exit code.
    int run_with_keyboard(const std::string& script, const fs::path& ready, const std::function<void(RtMidiOut&)>& play) {
        JackTestServer server;
        if (!server.start()) {
            ADD_FAILURE() << "no JACK server";
            return -1;
        }
        RtMidiOut keys(RtMidi::UNIX_JACK, "zkeys");
        keys.openVirtualPort("out");
        write_file(dir / "zelfon_config.txt", "midi_kbd zkeys:out\nmidi_kbd_ch 1\n");
        // The keys wait as long as the studio may run: a loaded machine can take a minute
        // to bring a sanitizer build's studio to `ready`.
        std::thread player([&] {
            if (wait_until([&] { return fs::exists(ready); }, kStudioTimeoutSeconds)) play(keys);
        });
        int code = run_studio(script, {}, {"JACK_DEFAULT_SERVER=" + server.name()});
        player.join();
        return code;
    }
    std::string output() const { return read_file(dir / "studio_output.txt"); }
    std::string shot(const char* name) const { return (shots / name).string(); }

    // A copy of the demo song in the test's folder.
    fs::path demo_song(const char* name = "song.zelfon") {
        zelfon_song song;
        EXPECT_EQ(zelfon_song_init(0, 44100, &song), 0);
        EXPECT_EQ(zelfon_make_demo_song(&song), 0);
        fs::path p = dir / name;
        EXPECT_EQ(zelfon_save_song(p.c_str(), ZELFON_VERSION_MAJOR, ZELFON_VERSION_MINOR, &song), 0);
        zelfon_song_close(&song);
        return p;
    }

    // Loads a song the studio saved (the caller closes it).
    void load(const fs::path& p, zelfon_song* song) {
        ASSERT_EQ(zelfon_song_init(0, 44100, song), 0);
        ASSERT_EQ(zelfon_load_song(p.c_str(), song), 0) << p;
    }

    fs::path dir, shots;
};

