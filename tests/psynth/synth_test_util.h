// Helpers for the tests of the synthesizer modules: a net with one synthesizer, events
// played at absolute frames across several buffers, and the pitch a listener hears, from
// zero crossings.
#pragma once

#include <cmath>
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

// Hz of a pitch through the shared frequency table (which holds 32 × Hz).
inline double pitch_hz(int pitch) { return psynth_pitch_to_freq(pitch) / 32.0; }
