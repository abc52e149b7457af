// A private JACK server for the device tests (jackd with the dummy driver, started on
// demand and stopped after; JACK_DEFAULT_SERVER points every JACK client of the process
// at it) and a JACK MIDI input that records what the program under test sends.
//
// JACK servers of one user share a registry and shared-memory segments, and a server
// starting or stopping next to another one running can pull the segments from under the
// other's clients. So the test programs that use JACK take turns: each holds a lock file
// for its life and is alone with its server meanwhile (ctest's other programs still run
// beside it). One fixed name lets a server that died without unregistering be replaced
// by the next one, and the server is told to stop when its test process dies.
#pragma once

#include <gtest/gtest.h>
#include <fcntl.h>
#include <jack/jack.h>
#include <RtMidi.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

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
        wait_until([this] { return take_turn(); }, 600.0);
        setenv("JACK_DEFAULT_SERVER", name_.c_str(), 1);
        setenv("JACK_NO_AUDIO_RESERVATION", "1", 1);
    }
    ~JackTestServer() {
        stop();
        if (lock_fd_ >= 0) close(lock_fd_);
    }

    // Starts jackd and waits (at most 20 s) until it takes clients. Returns success.
    bool start() {
        std::string period = std::to_string(period_);
        // A long client time-out: a loaded machine (sanitizers, parallel tests) must not get
        // the test's clients thrown out as zombies.
        const char* argv[] = {"jackd", "--no-realtime", "-t", "5000", "-n", name_.c_str(), "-d", "dummy", "-r", "44100",
                              "-p", period.c_str(), nullptr};
        if (name_.empty()) return false;
        pid_t parent = getpid();
        pid_ = fork();
        if (pid_ == 0) {
            // A test process that dies (a crash, a time-out) takes its server with it.
            prctl(PR_SET_PDEATHSIG, SIGTERM);
            if (getppid() != parent) _exit(1);
            int log_fd = open(log_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            dup2(log_fd, 1);
            dup2(log_fd, 2);
            execvp("jackd", (char* const*)argv);
            _exit(127);
        }
        if (pid_ < 0) return false;
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
        // Ready once the dummy driver's playback ports exist, which the sound stream opens on.
        bool ready = jack_port_by_name(c, "system:playback_2") != nullptr;
        jack_client_close(c);
        return ready;
    }

    bool running() const { return pid_ > 0; }
    const std::string& name() const { return name_; }

private:
    // Takes the lock that JACK test programs hold in turn. False while another holds it.
    bool take_turn() {
        int fd = open("/tmp/zelfon_jack_test.lock", O_CREAT | O_RDWR | O_CLOEXEC, 0666);
        if (fd < 0) return false;
        if (flock(fd, LOCK_EX | LOCK_NB) == 0) {
            lock_fd_ = fd;
            name_ = "zelfon_test";
            log_path_ = "/tmp/zelfon_jack_test.log";
            return true;
        }
        close(fd);
        return false;
    }

    std::string name_;
    std::string log_path_;  // the server's own messages
    int period_;
    int lock_fd_ = -1;
    pid_t pid_ = -1;
};

// A JACK MIDI input of the test that keeps every byte it receives.
struct MidiSink {
    explicit MidiSink(const char* client) : in(RtMidi::UNIX_JACK, client) {
        in.setCallback(&MidiSink::received, this);
        in.openVirtualPort("in");
    }
    static void received(double, std::vector<unsigned char>* message, void* data) {
        MidiSink* self = (MidiSink*)data;
        std::lock_guard<std::mutex> lock(self->mutex);
        self->bytes.insert(self->bytes.end(), message->begin(), message->end());
    }
    std::vector<unsigned char> taken() {
        std::lock_guard<std::mutex> lock(mutex);
        return bytes;
    }
    RtMidiIn in;
    std::mutex mutex;
    std::vector<unsigned char> bytes;
};
