// Helpers for the song engine's tests: a fixture with a song on a fresh log that adds
// modules and saves and loads the song, and a module that logs every event it receives at
// its absolute frame and sounds a level that follows its notes, so that timing errors
// show in the output samples.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "song/playback.h"
#include "song/song.h"
#include "song/song_file.h"

constexpr int LOGGER_MAX_EVENTS = 4096;

struct logged_event {
    int64_t frame;  // absolute frame since the module was created
    psynth_event event;
};

struct logger_data {
    int64_t frames_done;  // frames of the buffers rendered so far
    int count;
    int level;            // current output level (13.3), follows NOTE_ON/NOTE_OFF/SET_VELOCITY
    logged_event events[LOGGER_MAX_EVENTS];
};

using bytes = std::vector<uint8_t>;

// The whole content of a file (a path as v3_open takes it); empty when it cannot be read.
bytes file_bytes(const char* path);

// A sound source (flag 8) with one output that asks for SPEED_CHANGED (flag 0x400).
intptr_t logger_handler(int mod_num, psynth_event* event, psynth_net* net);

class SongFixture : public ::testing::Test {
public:
    void SetUp() override;
    // Closes the song and opens a fresh one, as SetUp leaves it.
    void restart();
    void TearDown() override;

    // A logger module linked into OUT; returns its module number.
    int add_logger();
    // A module of `handler` at (x, y), not linked, after SETUP_FINISHED; its module number.
    int add_module(psynth_handler handler, const char* name = nullptr, int x = 10, int y = 20);
    int& ctl(int mod, int n) { return *song.net->modules[mod].ctls[n].value; }
    std::vector<int> ctl_values(int mod);
    // Saves the song to `path` (this version) and returns the file's bytes.
    bytes save(const char* path = "3:/song.zelfon");
    int load(const char* path = "3:/song.zelfon") { return zelfon_load_song(path, &song); }
    // save → load → save: the second save must give the same bytes; returns the first.
    bytes save_load_save(const char* path = "3:/song.zelfon");
    logger_data* logger(int mod);
    // A pattern at x with `lines` lines and `tracks` tracks; returns its slot.
    int add_pattern(int x, int lines, int tracks = 4);
    zelfon_cell& cell(int slot, int track, int line);
    // Renders `frames` frames in requests of `request` frames (int16 stereo) and returns them.
    std::vector<int16_t> render(int frames, int request = 1024);
    // Starts playing from `line` and lets the render thread take the command.
    void play(int line = 0);
    // Events of one command a module got, as "frame:note:velocity:pitch" (note etc. per command).
    std::vector<logged_event> events_of(int mod, int command);

    zelfon_song song{};
    std::string temp_dir;
};

zelfon_cell note_cell(int note, int module = 0, int vel = 0, int effect = 0, int value = 0);

// The text of the log file written so far.
std::string log_text();

// Where two renders first differ ("frame F, channel C: X instead of Y"); empty when equal.
std::string first_difference(const std::vector<int16_t>& out, const std::vector<int16_t>& reference);
// How many samples lie beyond ±threshold.
int count_loud(const std::vector<int16_t>& samples, int threshold);
