// The render pass on helper threads: nets built alike (random links with cycles, a thousand
// modules, effects with no input, mute, solo, a MultiSynth driving its targets) render
// with 1 and with 2 to 4 threads, and every module's outputs and OUT's mix must match
// frame for frame, pass after pass, with events in every buffer. The output hook must see
// the whole mix (its parts taken on any thread), and a side job must run once per pass.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "engine/memory.h"
#include "engine/random.h"
#include "psynth/psynth_modules.h"
#include "test_modules.h"

namespace {

class PsynthRenderThreadsTest : public PsynthFixture {};

// Builds the same net into `net` for the same seed: `count` modules, sources and effects,
// each fed by up to three random modules (any slot: cycles included), some into OUT and a
// few fed by OUT itself.
std::vector<int> build_net(psynth_net* net, int count, uint32_t seed) {
    const psynth_handler sources[] = {psynth_generator, psynth_kicker, psynth_fm};
    const psynth_handler effects[] = {psynth_amplifier, psynth_distortion, psynth_echo, psynth_filter};
    std::vector<int> mods;
    for (int i = 0; i < count; i++) {
        uint32_t r = (uint32_t)tarvik_random(&seed);
        psynth_handler h = i % 5 == 0 ? sources[r % 3] : effects[r % 4];
        if (i == 7) h = psynth_multisynth;
        int m = psynth_add_synth(-1, h, nullptr, 0, 0, 0, 125, 6, net);
        psynth_do_command(m, PS_CMD_SETUP_FINISHED, net);
        mods.push_back(m);
    }
    for (size_t i = 0; i < mods.size(); i++) {
        int links = tarvik_random(&seed) % 4;
        if (i % 37 == 5) links = 0;  // effects with no input
        for (int k = 0; k < links; k++) {
            int src = mods[tarvik_random(&seed) % mods.size()];
            if (src == mods[i]) continue;
            psynth_add_input_link(mods[i], src, net);
            psynth_add_output_link(src, mods[i], net);
        }
        if (tarvik_random(&seed) % 3 == 0) psynth_make_link(0, mods[i], net);
        if (i % 23 == 9) {  // OUT as a source, as a hostile file may link it: OUT is planned again
            psynth_add_input_link(mods[i], 0, net);
            psynth_add_output_link(0, mods[i], net);
        }
        if (i % 41 == 3) net->modules[mods[i]].flags |= PSYNTH_FLAG_MUTE;
    }
    net->global_volume = 100;
    return mods;
}

void queue_notes(psynth_net* net, const std::vector<int>& mods, int buffer, int frames) {
    for (size_t i = 0; i < mods.size(); i += 3) {
        int offset = (int)((buffer * 131 + i * 17) % (size_t)frames);
        int note = 30 + (int)((i + buffer) % 40);
        psynth_event e = {PS_CMD_NOTE_ON, (int)i, offset, (int16_t)note, 200, (120 - note) * 256};
        psynth_add_event(mods[i], &e, net);
        e.command = PS_CMD_NOTE_OFF;
        e.offset = frames - 1;
        if (buffer % 3 == 2) psynth_add_event(mods[i], &e, net);
    }
}

// Where the nets' outputs first differ after a pass; empty when they match.
std::string first_difference(const psynth_net* a, const psynth_net* b, int frames) {
    for (int m = 0; m < a->slots; m++) {
        const psynth_module& x = a->modules[m];
        const psynth_module& y = b->modules[m];
        if (!(x.flags & PSYNTH_FLAG_EXISTS)) continue;
        if (x.render_state != y.render_state) return "module " + std::to_string(m) + ": render state";
        bool out = m == 0;
        for (int c = 0; c < (out ? x.input_channels : x.output_channels); c++) {
            const psynth_sample* p = out ? x.input_buffers[c] : x.output_buffers[c];
            const psynth_sample* q = out ? y.input_buffers[c] : y.output_buffers[c];
            int ps = out ? x.input_start[c] : x.output_start[c];
            int qs = out ? y.input_start[c] : y.output_start[c];
            if (ps != qs) return "module " + std::to_string(m) + " channel " + std::to_string(c) + ": start";
            for (int i = ps < 0 ? 0 : ps; i < frames; i++) {
                if (p[i] != q[i]) {
                    return "module " + std::to_string(m) + " channel " + std::to_string(c) + " frame " +
                           std::to_string(i) + ": " + std::to_string(q[i]) + " instead of " + std::to_string(p[i]);
                }
            }
        }
    }
    return "";
}

// What the output hook saw of OUT's two channels during the last pass.
struct hooked_mix {
    std::vector<psynth_sample> channels[2] = {std::vector<psynth_sample>(PSYNTH_BUFFER_SIZE),
                                              std::vector<psynth_sample>(PSYNTH_BUFFER_SIZE)};
};

void copy_mix(void* data, int from, int to, const psynth_net* net) {
    hooked_mix* mix = (hooked_mix*)data;
    for (int c = 0; c < 2; c++) {
        for (int i = from; i < to; i++) mix->channels[c][i] = net->modules[0].input_buffers[c][i];
    }
}

void count_run(void* data) { ++*(int*)data; }

// OUT's channel c as heard: silence before its start.
std::vector<psynth_sample> heard(const psynth_net* net, int c, int frames) {
    std::vector<psynth_sample> v(frames);
    for (int i = net->modules[0].input_start[c]; i < frames; i++) v[i] = net->modules[0].input_buffers[c][i];
    return v;
}

void check_threads(int modules, int threads, bool solo, uint32_t seed) {
    psynth_net one{}, many{};
    psynth_init(0, 44100, 125, 6, &one);
    psynth_init(0, 44100, 125, 6, &many);
    std::vector<int> mods = build_net(&one, modules, seed);
    build_net(&many, modules, seed);
    if (solo) {
        one.modules[mods[10]].flags |= PSYNTH_FLAG_SOLO;
        many.modules[mods[10]].flags |= PSYNTH_FLAG_SOLO;
    }
    ASSERT_EQ(psynth_set_render_threads(threads, &many), threads);
    hooked_mix mix;
    psynth_set_output_hook(copy_mix, &mix, &many);
    int side_runs = 0;
    int loud = 0;  // frames of OUT's mix away from zero: the nets must play something
    for (int buffer = 0; buffer < 12; buffer++) {
        const int frames = buffer % 4 == 3 ? 100 : 256 + 512 * (buffer % 3);  // small buffers stay on one thread
        psynth_set_side_job(count_run, &side_runs, &many);
        for (psynth_net* net : {&one, &many}) {
            queue_notes(net, mods, buffer, frames);
            psynth_set_render_params(frames, 0, 0, 0, 0, net);
            psynth_render_all(net);
            psynth_clear_events(net);
        }
        ASSERT_EQ(first_difference(&one, &many, frames), "") << threads << " threads, buffer " << buffer;
        ASSERT_EQ(side_runs, buffer + 1);
        for (int c = 0; c < 2; c++) {
            ASSERT_EQ(std::vector<psynth_sample>(mix.channels[c].begin(), mix.channels[c].begin() + frames), heard(&one, c, frames))
                << "the hooked mix, channel " << c << ", buffer " << buffer;
        }
        for (int i = one.modules[0].input_start[0]; i < frames; i++) loud += one.modules[0].input_buffers[0][i] != 0;
    }
    if (!solo) {
        EXPECT_GT(loud, 1000);
    }
    psynth_close(&one);
    psynth_close(&many);
}

TEST_F(PsynthRenderThreadsTest, RandomNetsWithCyclesRenderAlikeOnAnyThreadCount) {
    for (int threads : {2, 3, 4}) check_threads(60, threads, false, 11u * threads);
    check_threads(60, 2, true, 5);
}

TEST_F(PsynthRenderThreadsTest, AThousandModulesRenderAlikeOnTwoThreads) { check_threads(1000, 2, false, 77); }

TEST_F(PsynthRenderThreadsTest, HelpersStartAndStopWithoutLeaks) {
    psynth_net n{};
    psynth_init(0, 44100, 125, 6, &n);
    EXPECT_EQ(psynth_set_render_threads(3, &n), 3);
    EXPECT_EQ(psynth_set_render_threads(1, &n), 1);
    EXPECT_EQ(n.pool, nullptr);
    EXPECT_EQ(psynth_set_render_threads(2, &n), 2);
    psynth_close(&n);  // stops the helpers
    EXPECT_EQ(n.pool, nullptr);
}

}  // namespace
