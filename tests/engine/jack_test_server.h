// A private JACK server for the device tests: jackd with the dummy driver under a name
// unique to this test process (so parallel test programs never share one), started on
// demand and stopped after. JACK_DEFAULT_SERVER points every JACK client of the process at it.
#pragma once

#include <gtest/gtest.h>
#include <fcntl.h>
#include <jack/jack.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>

extern char** environ;

// Polls `done` every millisecond until it holds or `seconds` pass. Returns whether it held.
inline bool wait_until(const std::function<bool()>& done, double seconds = 10.0) {
    auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

class JackTestServer {
public:
    explicit JackTestServer(int period = 256) : period_(period) {
        name_ = "zelfon_test_" + std::to_string(getpid());
        setenv("JACK_DEFAULT_SERVER", name_.c_str(), 1);
        setenv("JACK_NO_AUDIO_RESERVATION", "1", 1);
    }
    ~JackTestServer() { stop(); }

    // Starts jackd and waits (at most 20 s) until it takes clients. Returns success.
    bool start() {
        std::string period = std::to_string(period_);
        // A long client time-out: a loaded machine (sanitizers, parallel tests) must not get
        // the test's clients thrown out as zombies.
        const char* argv[] = {"jackd", "--no-realtime", "-t", "5000", "-n", name_.c_str(), "-d", "dummy", "-r", "44100",
                              "-p", period.c_str(), nullptr};
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
        int rc = posix_spawnp(&pid_, "jackd", &actions, nullptr, (char* const*)argv, environ);
        posix_spawn_file_actions_destroy(&actions);
        if (rc != 0) {
            pid_ = -1;
            return false;
        }
        return wait_until([this] { return accepts_clients(); }, 20.0) && pid_ > 0;
    }

    // Stops the server: SIGTERM lets it tell its clients, SIGKILL does not.
    void stop(int sig = SIGTERM) {
        if (pid_ <= 0) return;
        kill(pid_, sig);
        int status = 0;
        waitpid(pid_, &status, 0);
        pid_ = -1;
    }

    bool accepts_clients() {
        int status = 0;
        if (pid_ > 0 && waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;  // it died while starting
            return true;
        }
        jack_client_t* c = jack_client_open("zelfon_probe", JackNoStartServer, nullptr);
        if (!c) return false;
        jack_client_close(c);
        return true;
    }

    bool running() const { return pid_ > 0; }
    const std::string& name() const { return name_; }

private:
    std::string name_;
    int period_;
    pid_t pid_ = -1;
};
