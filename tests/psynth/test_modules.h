// Modules that exist only for the sound net's tests: a configurable recorder that
// notes every command it receives and writes a known ramp or constant, and a
// pass-through effect; plus the fixture every psynth test runs in, the check of a module's
// registered controllers and the level measurements the module tests share.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <numbers>
#include <string>
#include <vector>

#include "psynth/psynth_net.h"

enum test_render_mode : int {
    TEST_RENDER_RAMP,      // writes ramp_value(base, channel, frame), returns 1
    TEST_RENDER_CONSTANT,  // writes base on every channel, returns 1
    TEST_RENDER_SILENT,    // writes nothing, returns 0
    TEST_RENDER_PASS,      // copies input c to output c from the input start; 0 when the input is silent
};

struct test_module_config {
    const char* type_name = nullptr;  // GET_SYNTH_NAME answer; null gives the handler's own name
    const char* color = "#ffA37F";
    int inputs = 0;
    int outputs = 1;
    uint32_t flags = 0;
    test_render_mode mode = TEST_RENDER_RAMP;
    int base = 0;
    // Pieces starting before silent_below or at/after silent_from return 0 and write nothing.
    int silent_below = 0;
    int silent_from = INT_MAX;
    int ctls = 0;              // how many of the three test controllers INIT registers
    int take_controllers = 0;  // answer 1 to controller events (the module applies them itself)
};

struct test_record {
    psynth_event event;  // copy of what the handler received
    int render_offset;   // the render request, for RENDER_REPLACE
    int render_frames;
};

constexpr int TEST_MAX_RECORDS = 1024;

// The private data block of every test module.
struct test_module_data {
    test_module_config config;
    int ctl_values[3];
    int records_count;  // every command from INIT on; only the first TEST_MAX_RECORDS are kept
    int bad_requests;   // RENDER_REPLACE requests reaching outside 0..frames of the buffer
    test_record records[TEST_MAX_RECORDS];
};

intptr_t test_recorder_handler(int mod_num, psynth_event* event, psynth_net* net);  // "Recorder"
intptr_t test_source_handler(int mod_num, psynth_event* event, psynth_net* net);    // "Source"
intptr_t test_pass_handler(int mod_num, psynth_event* event, psynth_net* net);      // "Pass"

// Every handler call of the test modules in order (command only), for checking
// the order of the creation questions and CLOSE.
int test_trace_count();
int test_trace_command(int i);
void test_trace_reset();

// Adds a module in the first free slot with `cfg` (bpm 125, 6 ticks per line).
int add_test_module(psynth_net* net, const test_module_config& cfg,
                    psynth_handler handler = test_recorder_handler);
// A source writing `base` on all of its `outputs` channels.
int add_constant_source(psynth_net* net, int base, int outputs = 1);
// A pass-through effect (flag 0x10) with `channels` inputs and outputs.
int add_pass_effect(psynth_net* net, int channels);
test_module_data* test_data(psynth_net* net, int mod_num);

psynth_sample ramp_value(int base, int channel, int frame);

// "" when buf[i] == want(i) for every frame i in [from, to), else the first difference.
template <class F>
std::string check_frames(const psynth_sample* buf, int from, int to, F want) {
    for (int i = from; i < to; i++) {
        int expected = want(i);
        if (buf[i] != expected) {
            return "frame " + std::to_string(i) + ": " + std::to_string(buf[i]) + " instead of " +
                   std::to_string(expected);
        }
    }
    return "";
}

void queue_event(psynth_net* net, int mod_num, int command, int offset, int id = -1,
                 int note = 0, int velocity = 0, int pitch = 0);
// One buffer: render parameters, the pass, then empty queues.
void render_buffer(psynth_net* net, int frames);
// RENDER_REPLACE requests (offset, frames) a module received, as "o+f o+f ...".
std::string render_pieces(psynth_net* net, int mod_num);
// The commands a module received from INIT on, with event offsets and ids for
// events and "R(o,f)" for render pieces, e.g. "R(0,100) NOTE_ON@100#1" ("NOTE_ON#1"
// without offsets).
std::string received_sequence(psynth_net* net, int mod_num, int from_record = 0,
                              bool with_offsets = true);

// mem + log (log file in a fresh TMPDIR) + a net with only OUT at 44100 Hz, 125 bpm.
class PsynthFixture : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    std::string log_text() const;

    psynth_net net{};
    std::string temp_dir;
};

struct ctl_expect {
    const char* name;
    const char* units;
    int min, max, def, type;
};

// "" when the module registered exactly these controllers in this order, else the first difference.
inline std::string check_ctls(const psynth_net* net, int m, std::initializer_list<ctl_expect> want) {
    const psynth_module* mod = &net->modules[m];
    if (mod->ctls_count != (int)want.size()) return "count " + std::to_string(mod->ctls_count);
    int i = 0;
    for (const ctl_expect& w : want) {
        const psynth_ctl& c = mod->ctls[i];
        if (strcmp(c.name, w.name) || strcmp(c.units, w.units) || c.min != w.min || c.max != w.max ||
            c.def != w.def || c.type != w.type || *c.value != w.def) {
            return "controller " + std::to_string(i) + " (" + c.name + ")";
        }
        i++;
    }
    return "";
}

// Amplitude of the sine of `hz` in [from, to): 2·|Σ x·h·e^(−iωn)| / Σh. Without `hann` (h = 1)
// tones a whole number of times 1/N apart are separated exactly; the Hann window instead
// keeps far-off tones that do not fit the window from leaking into the measurement.
inline double amplitude_at(const std::vector<int>& x, int from, int to, double hz, int rate, bool hann = false) {
    double re = 0, im = 0, sum = 0;
    for (int i = from; i < to; i++) {
        double h = hann ? 0.5 - 0.5 * std::cos(2 * std::numbers::pi * (i - from) / (to - from)) : 1;
        double w = 2 * std::numbers::pi * hz * i / rate;
        re += h * x[i] * std::cos(w);
        im += h * x[i] * std::sin(w);
        sum += h;
    }
    return 2 * std::sqrt(re * re + im * im) / sum;
}

inline int peak(const std::vector<int>& x, int from, int to) {
    int p = 0;
    for (int i = from; i < to; i++) p = std::max(p, std::abs(x[i]));
    return p;
}
