// Helpers for the tests of the synthesizer modules: a net with one synthesizer, events
// played at absolute frames across several buffers, and measurements of what a listener
// hears: pitch from zero crossings, level, and the amplitude of one frequency.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <numbers>
#include <vector>

#include "psynth/psynth_modules.h"
#include "psynth/psynth_tables.h"
#include "test_modules.h"

struct synth_ev {
    int frame;
    int command;
    int id = -1;
    int pitch = 0;     // NOTE_ON, SET_FREQ; the controller number for the controller commands
    int value = 256;   // velocity or controller value
};

struct ctl_row {
    const char* name;
    const char* units;
    int min, max, def, type;
};

// The module registered exactly these controllers, each holding its default.
inline void expect_controllers(const psynth_module& m, const std::vector<ctl_row>& want) {
    ASSERT_EQ(m.ctls_count, (int)want.size());
    for (size_t i = 0; i < want.size(); i++) {
        const psynth_ctl& c = m.ctls[i];
        const ctl_row& w = want[i];
        EXPECT_STREQ(c.name, w.name);
        EXPECT_TRUE(!strcmp(c.units, w.units) && c.min == w.min && c.max == w.max && c.def == w.def &&
                    *c.value == w.def && c.type == w.type)
            << c.name;
    }
}

// Pitch of an unbent note of semitone `s` (0 = C0).
constexpr int note_pitch(int s) { return (120 - s) * 256; }

class SynthFixture : public PsynthFixture {
protected:
    // Replaces the net by one at `rate` holding the synthesizer; returns its module number.
    int add_synth(psynth_handler handler, int rate = 44100) {
        psynth_close(&net);
        psynth_init(0, rate, 125, 6, &net);
        mod = psynth_add_synth(-1, handler, nullptr, 0, 0, 0, 125, 6, &net);
        psynth_do_command(mod, PS_CMD_SETUP_FINISHED, &net);
        return mod;
    }

    // A controller value in the module's own units, written as loading does.
    void set(int ctl, int value) { *net.modules[mod].ctls[ctl].value = value; }
    int get(int ctl) { return *net.modules[mod].ctls[ctl].value; }

    // From silence (CLEAN), plays the events over `frames` in buffers of `buffer` frames and
    // returns output `channel`; silent[k] tells whether buffer k was reported silent.
    std::vector<int> play(const std::vector<synth_ev>& events, int frames, int channel = 0, int buffer = 1024) {
        psynth_do_command(mod, PS_CMD_CLEAN, &net);
        std::vector<int> out;
        silent.clear();
        for (int from = 0; from < frames; from += buffer) {
            int n = frames - from < buffer ? frames - from : buffer;
            for (const synth_ev& e : events) {
                if (e.frame < from || e.frame >= from + n) continue;
                psynth_event x = {};
                x.command = e.command;
                x.id = e.id;
                x.offset = e.frame - from;
                bool ctl = e.command == PS_CMD_SET_LOCAL_CONTROLLER || e.command == PS_CMD_SET_GLOBAL_CONTROLLER;
                x.note = (int16_t)(ctl ? e.pitch : 120 - e.pitch / 256);
                x.velocity = (uint16_t)e.value;
                x.pitch = e.pitch;
                psynth_add_event(mod, &x, &net);
            }
            render_buffer(&net, n);
            const psynth_module& m = net.modules[mod];
            silent.push_back(m.output_start[channel] >= n);
            for (int i = 0; i < n; i++) out.push_back(i < m.output_start[channel] ? 0 : m.output_buffers[channel][i]);
        }
        return out;
    }

    int mod = -1;
    std::vector<bool> silent;
};

// Frequency in Hz from the rising zero crossings in [from, to) (interpolated between frames).
inline double zero_crossing_hz(const std::vector<int>& x, int from, int to, int rate) {
    double first = -1, last = -1;
    int count = 0;
    for (int i = from + 1; i < to; i++) {
        if (x[i - 1] < 0 && x[i] >= 0) {
            double at = i - 1 + (double)-x[i - 1] / (x[i] - x[i - 1]);
            if (first < 0) first = at;
            last = at;
            count++;
        }
    }
    return count < 2 ? 0 : rate * (count - 1) / (last - first);
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

// Hz of a pitch through the shared frequency table (which holds 32 × Hz).
inline double pitch_hz(int pitch) { return psynth_pitch_to_freq(pitch) / 32.0; }
