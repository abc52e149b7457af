// The Sampler module: its answers and records, pitch and interpolation of 8-bit,
// 16-bit and float samples, loops, envelopes, fade-out, vibrato, voice allocation,
// sample offsets, chunk upgrades and recording. Expected values are worked out by
// hand from the documented formulas (or by the small reference helpers below).
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <thread>
#include <vector>

#include "psynth/psynth_modules.h"
#include "psynth/sampler.h"
#include "test_modules.h"

namespace {

constexpr int kTick = 100;            // frames per tick in most tests
constexpr int kRateBase = 8363;       // note 48 plays a sample at one frame per frame
constexpr int kFull = 512;            // side volume with every gain at its default
constexpr uint8_t kInt8 = 0x00, kInt16 = 0x10, kFloat = 0x20, kStereo = 0x40;
constexpr uint8_t kForward = 1, kPingPong = 2;

// Reference formulas, written out independently of the module.
int lerp(int cur, int next, int frac) {
    int w1 = frac >> 1;
    return (next * w1 + cur * (32767 - w1)) >> 15;
}
int mix(int side, int value) {
    int64_t gain = ((int64_t)side * 4096) >> 7;
    return (int)((gain * value) >> 18);
}
// Step (16.16) for a pitch in 1/256 semitone at `rate`, from the table's definition.
int64_t ref_step(int pitch, int rate) {
    int q = pitch / 4;
    uint64_t f = (uint64_t)std::floor(535232 * std::pow(2.0, -(double)(q % 768) / 768)) >> (pitch / 3072);
    return (int64_t)(f / rate) * 65536 + (int64_t)((f % rate) * 16384 / rate) * 4;
}

struct stereo_out {
    std::vector<int> l, r;
};

class SamplerTest : public PsynthFixture {
protected:
    int mod = -1;

    // Interpolation settings as the controllers: sample off/linear/cubic, volume off/linear.
    void add_sampler(int rate = kRateBase, int tick_frames = kTick, int sample_interp = 2, int volume_interp = 1) {
        net.sampling_rate = rate;
        mod = psynth_add_synth(-1, psynth_sampler, nullptr, 0, 0, 0, 125, 6, &net);
        ASSERT_GE(mod, 0);
        speed(tick_frames);
        psynth_do_command(mod, PS_CMD_SETUP_FINISHED, &net);
        set_ctl(PSYNTH_SAMPLER_CTL_SAMPLE_INTERP, sample_interp);
        set_ctl(PSYNTH_SAMPLER_CTL_VOLUME_INTERP, volume_interp);
    }
    void speed(int tick_frames) {
        psynth_event e = {};
        e.command = PS_CMD_SPEED_CHANGED;
        psynth_event_set_speed(&e, tick_frames * 256, 6);
        EXPECT_EQ(psynth_handle_event(mod, &e, &net), 1);
    }
    psynth_sampler_instrument* ins() { return (psynth_sampler_instrument*)psynth_get_chunk(mod, 0, &net); }
    psynth_sampler_sample* header(int s) { return (psynth_sampler_sample*)psynth_get_chunk(mod, 2 * s + 1, &net); }
    void set_ctl(int ctl, int value) { *net.modules[mod].ctls[ctl].value = value; }

    // Sample s with `frames` frames of `data`, every note mapped to it.
    template <class T>
    psynth_sampler_sample* add_sample(int s, uint8_t type, const std::vector<T>& data, int channels = 1) {
        EXPECT_EQ(psynth_new_chunk(mod, 2 * s + 1, 44, 0, 0, &net), 0);
        EXPECT_EQ(psynth_new_chunk(mod, 2 * s + 2, (int)(data.size() * sizeof(T)), 0, 44100, &net), 0);
        memcpy(psynth_get_chunk(mod, 2 * s + 2, &net), data.data(), data.size() * sizeof(T));
        psynth_sampler_sample* h = header(s);
        h->length = (uint32_t)(data.size() / channels);
        h->volume = 64;
        h->panning = 128;
        h->type = type;
        if (ins()->samples_num <= s) ins()->samples_num = (uint16_t)(s + 1);
        memset(ins()->sample_map, s, sizeof(ins()->sample_map));
        return h;
    }
    std::vector<int16_t> ramp16(int frames, int scale = 16) {
        std::vector<int16_t> v(frames);
        for (int i = 0; i < frames; i++) v[i] = (int16_t)(i * scale);
        return v;
    }

    psynth_event event(int command, int id, int offset = 0, int note = 0, int velocity = 0, int pitch = 0) {
        psynth_event e = {};
        e.command = command, e.id = id, e.offset = offset;
        e.note = (int16_t)note, e.velocity = (uint16_t)velocity, e.pitch = pitch;
        return e;
    }
    void queue(int command, int offset, int id, int note = 0, int velocity = 0, int pitch = 0) {
        psynth_event e = event(command, id, offset, note, velocity, pitch);
        psynth_add_event(mod, &e, &net);
    }
    void note_on(int offset, int id, int note, int velocity = 256, int bend = 0) {
        queue(PS_CMD_NOTE_ON, offset, id, note, velocity, (120 - note) * 256 - bend);
    }
    // The handler's own answer (the net does not apply controller events it declines).
    intptr_t send(int command, int id, int note = 0, int velocity = 0, int pitch = 0) {
        psynth_event e = event(command, id, 0, note, velocity, pitch);
        return psynth_sampler(mod, &e, &net);
    }
    stereo_out render(int frames) {
        render_buffer(&net, frames);
        const psynth_module& m = net.modules[mod];
        stereo_out o;
        o.l.assign(m.output_buffers[0], m.output_buffers[0] + frames);
        o.r.assign(m.output_buffers[1], m.output_buffers[1] + frames);
        return o;
    }
    std::vector<int> left(int frames) { return render(frames).l; }
};

// Runs of {count, value}: runs({{200, 100}, {100, 0}}) is 200 × 100 then 100 × 0.
std::vector<int> runs(std::initializer_list<std::pair<int, int>> parts) {
    std::vector<int> v;
    for (auto [count, value] : parts) v.insert(v.end(), count, value);
    return v;
}

TEST_F(SamplerTest, AnswersItsQuestionsAndRegistersItsControllers) {
    psynth_event e = {};
    auto ask = [&](int command) { e.command = command; return psynth_sampler(-1, &e, &net); };
    EXPECT_STREQ((const char*)ask(PS_CMD_GET_SYNTH_NAME), "Sampler");
    EXPECT_STREQ((const char*)ask(PS_CMD_GET_SYNTH_INFO),
                 "Sampler.\nSupported file formats: WAV, XI\n\nAvailable local controllers:\n * Pan");
    EXPECT_STREQ((const char*)ask(PS_CMD_GET_SYNTH_COLOR), "#FF9000");
    const int answers[][2] = {{PS_CMD_GET_DATA_SIZE, 2188}, {PS_CMD_GET_INPUTS_NUM, 2}, {PS_CMD_GET_OUTPUTS_NUM, 2},
                              {PS_CMD_GET_FLAGS, 0x418},    {PS_CMD_GET_WIDTH, 0},      {PS_CMD_GET_HEIGHT, 0},
                              {PS_CMD_NOP, 0},              {99, 0}};
    for (auto [command, want] : answers) EXPECT_EQ(ask(command), want) << command;

    add_sampler();
    const psynth_module& m = net.modules[mod];
    EXPECT_STREQ(m.name, "Sampler");
    EXPECT_EQ(m.color[0] << 16 | m.color[1] << 8 | m.color[2], 0xFF9000);
    EXPECT_EQ(m.flags & 0x418u, 0x418u);
    EXPECT_EQ(check_ctls(&net, mod, {{"Volume", "", 0, 512, 256, 0}, {"Panning", "", 0, 256, 128, 0},
                                     {"Sample interpolation", "off/linear/cubic", 0, 2, 2, 1},
                                     {"Volume interpolation", "off/linear", 0, 1, 1, 1},
                                     {"Polyphony", "ch.", 1, 16, 8, 1}}),
              "");
    EXPECT_EQ(send(PS_CMD_SET_GLOBAL_CONTROLLER, -1, 0, 16384), 0);  // left to the net
    EXPECT_EQ(send(PS_CMD_CLEAN, -1), 1);
    EXPECT_EQ(send(PS_CMD_ALL_NOTES_OFF, -1), 1);
    EXPECT_EQ(send(PS_CMD_SETUP_FINISHED, -1), 1);
    EXPECT_EQ(render(64).l, std::vector<int>(64, 0));
    EXPECT_EQ(m.output_start[0], 64);  // nothing to play: the outputs count as silent
}

TEST_F(SamplerTest, DefaultInstrumentAtItsStoredOffsets) {
    add_sampler();
    int size = 0;
    ASSERT_EQ(psynth_get_chunk_info(mod, 0, &size, nullptr, nullptr, &net), 0);
    EXPECT_EQ(size, 2364);
    const uint8_t* raw = (const uint8_t*)psynth_get_chunk(mod, 0, &net);
    auto u16 = [&](int offset) { return raw[offset] | raw[offset + 1] << 8; };
    auto s16 = [&](int offset) { return (int)(int16_t)u16(offset); };
    EXPECT_EQ(u16(28), 0);  // no samples
    // Volume 64, panning 128; 4 and 4 points, sustain point 1, both envelopes off.
    for (auto [offset, want] : {std::pair{244, 64}, {246, 128}, {228, 4}, {229, 4}, {230, 1}, {236, 0}, {237, 0}}) {
        EXPECT_EQ(raw[offset], want) << offset;
    }
    const int vol_points[8] = {0, 0, 32, 64, 128, 32, 256, 0};
    const int pan_points[8] = {0, 32, 64, 0, 128, 64, 180, 32};
    for (int i = 0; i < 8; i++) {
        EXPECT_EQ(u16(132 + 2 * i), vol_points[i]) << i;
        EXPECT_EQ(u16(180 + 2 * i), pan_points[i]) << i;
    }
    // Volume table at 250: 32 per tick up to 1024, then slope −65536/96 = −341 (toward zero):
    // x 33 is (65536 − 341) >> 6, x 127 is (65536 − 95 · 341) >> 6 (−342 would give 516).
    for (auto [x, want] : {std::pair{0, 0}, {16, 512}, {32, 1024}, {33, 1018}, {127, 517}, {128, 512}, {129, 508},
                           {256, 0}, {300, 0}}) {
        EXPECT_EQ(s16(250 + 2 * x), want) << "volume " << x;
    }
    // Panning table at 1274: 512 − 8x, then 16 per tick, then slope −32768/52 = −630:
    // x 129 is (65536 − 630) >> 6, x 154 is (65536 − 26 · 630) >> 6.
    for (auto [x, want] : {std::pair{0, 512}, {32, 256}, {64, 0}, {96, 512}, {128, 1024}, {129, 1014}, {154, 768},
                           {180, 512}, {181, 0}}) {
        EXPECT_EQ(s16(1274 + 2 * x), want) << "panning " << x;
    }
}

TEST_F(SamplerTest, EnvelopeTablesStopAtPointsGoingBack) {
    add_sampler();
    psynth_sampler_instrument* in = ins();
    const psynth_sampler_env_point back[4] = {{0, 64}, {10, 32}, {5, 0}, {20, 64}};
    memcpy(in->volume_points, back, sizeof(back));
    in->volume_points_num = 4;
    const psynth_sampler_env_point same_x[4] = {{0, 0}, {8, 64}, {8, 0}, {16, 64}};
    memcpy(in->panning_points, same_x, sizeof(same_x));
    in->panning_points_num = 4;
    psynth_sampler_build_envelope_tables(in);
    // (0,64)→(10,32): slope −3276 (toward zero) from 65536: x 1 is 972.8, x 9 is 563.3 (>> 6).
    for (auto [x, want] : {std::pair{0, 1024}, {1, 972}, {9, 563}, {10, 512}}) EXPECT_EQ(in->volume_table[x], want) << x;
    for (int x = 11; x < 512; x++) ASSERT_EQ(in->volume_table[x], 0) << x;  // x going back ends the build
    // Equal x: a flat step, then the point's own value.
    for (auto [x, want] : {std::pair{4, 512}, {8, 0}, {12, 512}, {16, 1024}, {17, 0}}) {
        EXPECT_EQ(in->panning_table[x], want) << x;
    }

    in->volume_points_num = 1;  // fewer than two points: all zero
    psynth_sampler_build_envelope_tables(in);
    for (int x = 0; x < 512; x++) ASSERT_EQ(in->volume_table[x], 0) << x;
}

TEST_F(SamplerTest, SixteenBitAtTheBaseNoteAndAnOctaveUp) {
    add_sampler(kRateBase, kTick, 0);
    const std::vector<int16_t> s = {1600, -3200, 4800, 32767, -32768, 160, 0, 800};
    add_sample(0, kInt16, s);
    note_on(0, 1, 48);  // 8363 Hz at 8363 frames per second: one frame per frame
    stereo_out o = render(12);
    // Centre pan, full volumes: side 512, so every value is divided by 16 (rounding down).
    const std::vector<int> want = {100, -200, 300, 2047, -2048, 10, 0, 50, 0, 0, 0, 0};
    EXPECT_EQ(o.l, want);
    EXPECT_EQ(o.r, want);
    EXPECT_EQ(left(16), std::vector<int>(16, 0));
    EXPECT_EQ(net.modules[mod].output_start[0], 16);  // the voice ended with the sample

    set_ctl(PSYNTH_SAMPLER_CTL_SAMPLE_INTERP, 1);
    note_on(0, 2, 60);  // an octave up: two frames per frame
    std::vector<int> two(6, 0);
    for (int k = 0; k < 4; k++) two[k] = mix(kFull, lerp(s[2 * k], s[2 * k + 1], 0));
    EXPECT_EQ(two[0], 99);  // 1600 · 32767 >> 15 = 1599: the weights sum to 32767
    EXPECT_EQ(left(6), two);
}

TEST_F(SamplerTest, EightBitAndStereoAtHalfSpeedBlendNeighbours) {
    add_sampler(2 * kRateBase);  // note 48 now steps half a frame per frame
    const std::vector<int8_t> s8 = {10, -20, 127, -128};
    add_sample(0, kInt8, s8);
    note_on(0, 1, 48);
    std::vector<int> want(10, 0);
    for (int k = 0; k < 8; k++) {
        int i = k / 2;
        int next = i + 1 < 4 ? i + 1 : 3;  // no loop: the last frame blends with itself
        want[k] = mix(kFull, lerp(s8[i] * 256, s8[next] * 256, (k & 1) * 32768));
    }
    EXPECT_EQ(want[1], -81);    // (−5120 · 16384 + 2560 · 16383) >> 15 = −1281, · 2^14 >> 18
    EXPECT_EQ(want[7], -2048);  // −32768 · 32767 >> 15 = −32767 → −2048
    EXPECT_EQ(left(10), want);

    send(PS_CMD_CLEAN, -1);
    const std::vector<int16_t> st = {1000, -1000, 3000, -5000, 8000, 16000};  // L, R interleaved
    add_sample(1, kInt16 | kStereo, st, 2);
    note_on(0, 2, 48);
    stereo_out o = render(6);
    for (int k = 0; k < 6; k++) {
        int i = k / 2, next = i + 1 < 3 ? i + 1 : 2, frac = (k & 1) * 32768;
        EXPECT_EQ(o.l[k], mix(kFull, lerp(st[2 * i], st[2 * next], frac))) << k;
        EXPECT_EQ(o.r[k], mix(kFull, lerp(st[2 * i + 1], st[2 * next + 1], frac))) << k;
    }
    EXPECT_EQ(o.r[1], -188);  // (−5000 · 16384 − 1000 · 16383) >> 15 = −3000, · 2^14 >> 18
}

TEST_F(SamplerTest, FloatSamplesRoundHalfAwayFromZero) {
    add_sampler(kRateBase, kTick, 0);
    // At side 512 a float value v adds round(16384 · v · 0.125) = round(2048 · v).
    const std::vector<float> s = {0.5f, -0.25f, 2.5f / 2048, -2.5f / 2048, 1.0f, 0.75f};
    add_sample(0, kFloat, s);
    note_on(0, 1, 48);
    EXPECT_EQ(left(6), (std::vector<int>{1024, -512, 3, -3, 2048, 1536}));

    send(PS_CMD_CLEAN, -1);
    set_ctl(PSYNTH_SAMPLER_CTL_SAMPLE_INTERP, 1);
    net.sampling_rate = 2 * kRateBase;  // half a frame per frame
    note_on(0, 2, 48);
    // 0.5 · 32767/32768 · 2048 = 1023.97; halfway, (−0.25 · 16384 + 0.5 · 16383) / 32768 · 2048 = 255.97.
    EXPECT_EQ(left(3), (std::vector<int>{1024, 256, -512}));
}

// Steps of 98308/65536 (8363 Hz at 5575 frames per second): whole frames and
// fractions of each position are listed by hand below.
constexpr int kRateOddStep = 5575;

struct frame_pos {
    int i, next, frac;
};
// What the linear blend of s[i] and s[next] by frac plays at every position, at full volume.
std::vector<int> blends(const std::vector<int16_t>& s, std::initializer_list<frame_pos> positions) {
    std::vector<int> v;
    for (const frame_pos& p : positions) v.push_back(mix(kFull, lerp(s[p.i], s[p.next], p.frac)));
    return v;
}

TEST_F(SamplerTest, ForwardLoopWrapsAndBlendsIntoTheLoopStart) {
    add_sampler(kRateOddStep);
    const std::vector<int16_t> s = {1000, 2000, 4000, 8000, 12000, 16000};
    psynth_sampler_sample* h = add_sample(0, kInt16 | kForward, s);
    h->loop_start = 2;
    h->loop_length = 4;  // loop end = 6 = the sample's end
    note_on(0, 1, 48);
    EXPECT_EQ(left(11), blends(s, {{0, 1, 0}, {1, 2, 32772}, {3, 4, 8}, {4, 5, 32780}, {2, 3, 16}, {3, 4, 32788},
                                   {5, 2, 24}, {2, 3, 32796}, {4, 5, 32}, {5, 2, 32804}, {3, 4, 40}}));
}

TEST_F(SamplerTest, PingPongMirrorsWithTheFractionNegated) {
    add_sampler(kRateOddStep);
    const std::vector<int16_t> s = {1000, 2000, 4000, 8000, 12000, 16000, 20000, 24000};
    psynth_sampler_sample* h = add_sample(0, kInt16 | kPingPong, s);
    h->loop_start = 2;
    h->loop_length = 4;  // frames 6 and 7 lie beyond the loop
    note_on(0, 1, 48);
    // Frame 4: position 6 + 16/65536 passes the end and becomes 5 + 65520/65536 going down;
    // at the loop end's edge the current frame blends with itself. Frame 7: 1 + 32740/65536
    // is 32796/65536 below the start and folds to 2 + 32796/65536 going up.
    EXPECT_EQ(left(13), blends(s, {{0, 1, 0}, {1, 2, 32772}, {3, 4, 8}, {4, 5, 32780}, {5, 5, 65520},
                                   {4, 5, 32748}, {2, 3, 65512}, {2, 3, 32796}, {4, 5, 32}, {5, 5, 32804},
                                   {4, 5, 65496}, {3, 4, 32724}, {2, 3, 48}}));

    // A one-frame loop: every step crosses an edge, and the distance below the start is
    // counted with its fraction (0.50 → turns up; 1.0004 → a whole pass, still going down).
    send(PS_CMD_CLEAN, -1);
    h->loop_length = 1;
    note_on(0, 3, 48);
    std::vector<int> one = left(12);
    EXPECT_EQ(one[1], mix(kFull, lerp(s[1], s[2], 32772)));
    for (int k = 2; k < 12; k++) EXPECT_EQ(one[k], mix(kFull, lerp(s[2], s[2], 0))) << "frame " << k;
    h->loop_length = 4;

    // Whole steps land exactly on the loop end, which mirrors onto the end frame itself.
    send(PS_CMD_CLEAN, -1);
    net.sampling_rate = kRateBase;
    set_ctl(PSYNTH_SAMPLER_CTL_SAMPLE_INTERP, 0);
    note_on(0, 2, 48);
    const int order[20] = {0, 1, 2, 3, 4, 5, 6, 5, 4, 3, 2, 3, 4, 5, 6, 5, 4, 3, 2, 3};
    std::vector<int> exact;
    for (int i : order) exact.push_back(mix(kFull, s[i]));
    EXPECT_EQ(left(20), exact);
}

TEST_F(SamplerTest, SampleInterpolationTwoSoundsLikeOne) {
    add_sampler(kRateOddStep);
    psynth_sampler_sample* h = add_sample(0, kInt16 | kPingPong, std::vector<int16_t>{300, -7000, 12000, 5, -32768, 32767, 999});
    h->loop_start = 1;
    h->loop_length = 5;
    std::vector<int> by_mode[3];
    for (int mode : {0, 1, 2}) {
        send(PS_CMD_CLEAN, -1);
        set_ctl(PSYNTH_SAMPLER_CTL_SAMPLE_INTERP, mode);
        note_on(0, 1, 48);
        by_mode[mode] = left(300);
    }
    EXPECT_EQ(by_mode[2], by_mode[1]);
    EXPECT_NE(by_mode[0], by_mode[1]);
}

TEST_F(SamplerTest, PitchFollowsRelativeNotesFinetuneBendAndSetFreq) {
    add_sampler(kRateBase, kTick, 0);
    psynth_sampler_sample* h = add_sample(0, kInt16, ramp16(200));  // value i · 16 reads back as i
    auto steps = [](int per_frame, int frames, int from = 0) {
        std::vector<int> v(frames);
        for (int k = 0; k < frames; k++) v[k] = from + k * per_frame;
        return v;
    };

    note_on(0, 1, 48, 256, 3072);  // bent an octave up
    EXPECT_EQ(left(20), steps(2, 20));

    send(PS_CMD_CLEAN, -1);
    h->relative_note = 12;
    ins()->relative_note = -12;
    note_on(0, 2, 48);
    EXPECT_EQ(left(20), steps(1, 20));

    // SET_FREQ keeps the offset between the event's pitch and the voice's: the sample's
    // relative note plays an octave up, and an event an octave down brings it to one step.
    send(PS_CMD_CLEAN, -1);
    ins()->relative_note = 0;
    note_on(0, 5, 48);
    queue(PS_CMD_SET_FREQ, 5, 5, 0, 0, (120 - 48) * 256 + 3072);
    std::vector<int> want = steps(2, 5);
    for (int v : steps(1, 15, 10)) want.push_back(v);
    EXPECT_EQ(left(20), want);

    // Finetune halves by an arithmetic shift: −127 >> 1 = −64, a whole semitone down,
    // which brings note 49 to note 48's step exactly (interpolation shows any fraction).
    send(PS_CMD_CLEAN, -1);
    set_ctl(PSYNTH_SAMPLER_CTL_SAMPLE_INTERP, 1);
    const std::vector<int16_t> steep = ramp16(24, 1024);
    psynth_sampler_sample* fine = add_sample(1, kInt16, steep);
    std::vector<int> exact;
    for (int k = 0; k < 20; k++) exact.push_back(mix(kFull, lerp(steep[k], steep[k + 1], 0)));
    fine->finetune = -127;
    note_on(0, 6, 49);
    EXPECT_EQ(left(20), exact);
    send(PS_CMD_CLEAN, -1);
    fine->finetune = 0;
    ins()->finetune = -127;
    note_on(0, 7, 49);
    EXPECT_EQ(left(20), exact);
}

TEST_F(SamplerTest, NoteAboveTheMapUsesEntry95ButKeepsItsPitch) {
    add_sampler(32 * kRateBase, kTick, 0);  // note 108 (five octaves above 48) steps one frame per frame
    add_sample(0, kInt16, std::vector<int16_t>(64, 1600));
    add_sample(1, kInt16, ramp16(64));
    memset(ins()->sample_map, 0, 95);  // only entry 95 names sample 1
    note_on(0, 1, 108);
    EXPECT_EQ(left(10), (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
    send(PS_CMD_CLEAN, -1);
    note_on(0, 2, 94);
    EXPECT_EQ(left(3), std::vector<int>(3, 100));
}

TEST_F(SamplerTest, ReleaseWithoutEnvelopeEndsAtTheNextTick) {
    add_sampler(kRateBase, kTick, 0);
    add_sample(0, kInt16 | kForward, std::vector<int16_t>(16, 1600))->loop_length = 16;
    note_on(0, 7, 48);
    queue(PS_CMD_NOTE_OFF, 130, 7);
    // Ticks at 0, 100, 200: the one at 200 finds the key released and ends the voice.
    EXPECT_EQ(left(300), runs({{200, 100}, {100, 0}}));
    EXPECT_EQ(send(PS_CMD_NOTE_OFF, 7), 1);  // no longer owned: still 1

    // Ticks of 100 + 50/256 frames start at frames ⌈k · 25650 / 256⌉: 0, 101, 201.
    psynth_event e = event(PS_CMD_SPEED_CHANGED, -1);
    psynth_event_set_speed(&e, 25650, 6);
    psynth_sampler(mod, &e, &net);
    note_on(0, 8, 48);
    queue(PS_CMD_NOTE_OFF, 150, 8);
    EXPECT_EQ(left(300), runs({{201, 100}, {99, 0}}));
}

TEST_F(SamplerTest, StealsTheVoiceAfterTheCursorNotTheOldest) {
    add_sampler(kRateBase, kTick, 0);
    set_ctl(PSYNTH_SAMPLER_CTL_POLYPHONY, 4);
    // Sample k holds 16 · 2^k, so each sounding note adds its own bit to the output.
    for (int k = 0; k < 6; k++) add_sample(k, kInt16 | kForward, std::vector<int16_t>(8, (int16_t)(16 << k)))->loop_length = 8;
    for (int k = 0; k < 6; k++) ins()->sample_map[k] = (uint8_t)k;
    for (int k = 0; k < 4; k++) note_on(0, 10 + k, k);  // voices 0..3, cursor on 3
    EXPECT_EQ(left(kTick), std::vector<int>(kTick, 0b1111));
    queue(PS_CMD_NOTE_OFF, 0, 11);  // voice 1 ends at the next tick
    EXPECT_EQ(left(kTick), std::vector<int>(kTick, 0b1111));
    note_on(50, 14, 4);  // the search from the cursor finds voice 1 free
    EXPECT_EQ(left(kTick), runs({{50, 0b1101}, {50, 0b11101}}));
    note_on(0, 15, 5);  // all busy: voice 2, after the cursor, gives way (the oldest is voice 0)
    EXPECT_EQ(left(kTick), std::vector<int>(kTick, 0b111001));
    // SET_VELOCITY and SET_FREQ look only among the first Polyphony voices.
    set_ctl(PSYNTH_SAMPLER_CTL_POLYPHONY, 1);
    EXPECT_EQ(send(PS_CMD_SET_SAMPLE_OFFSET, 15, 0, 0, 3), 0);
    EXPECT_EQ(send(PS_CMD_SET_SAMPLE_OFFSET, 10, 0, 0, 3), 1);
}

TEST_F(SamplerTest, RetriggeredIdFadesOutWhileTheNewVoiceStarts) {
    add_sampler(kRateBase, kTick, 0, 0);
    add_sample(0, kInt16 | kForward, std::vector<int16_t>(8, 4096))->loop_length = 8;
    add_sample(1, kInt16 | kForward, std::vector<int16_t>(8, 256))->loop_length = 8;
    ins()->sample_map[0] = 0;
    ins()->sample_map[1] = 1;
    // Envelope held at its first point (1024) while the key is down; fade 20000 per tick after.
    ins()->volume_type = PSYNTH_SAMPLER_ENV_ON | PSYNTH_SAMPLER_ENV_SUSTAIN;
    ins()->volume_points[0] = {0, 64};
    ins()->volume_points[1] = {100, 64};
    ins()->volume_points_num = 2;
    ins()->volume_sustain = 0;
    ins()->volume_fadeout = 10000;
    psynth_sampler_build_envelope_tables(ins());
    note_on(0, 7, 0);
    EXPECT_EQ(left(kTick), std::vector<int>(kTick, mix(kFull, 4096)));
    note_on(0, 7, 1);  // the same id again
    const int new_voice = mix(kFull, 256);
    // The old voice's ticks after the release: fade 45536, 25536, 5536 → e 711, 399, 86
    // (side e / 2); then the fade falls below 0, which silences that tick, and the end.
    const int old_side[6] = {512, 355, 199, 43, 0, 0};
    for (int t = 0; t < 6; t++) {
        EXPECT_EQ(left(kTick), std::vector<int>(kTick, new_voice + mix(old_side[t], 4096))) << "tick " << t;
    }
    // The id now belongs to the new voice alone.
    queue(PS_CMD_SET_VELOCITY, 0, 7, 0, 128);
    left(kTick);
    EXPECT_EQ(left(kTick), std::vector<int>(kTick, mix(kFull / 2, 256)));
}

TEST_F(SamplerTest, VolumeEnvelopeRampsAcrossEachTick) {
    add_sampler(kRateBase, kTick, 0);
    add_sample(0, kInt16 | kForward, std::vector<int16_t>(8, 16384))->loop_length = 8;
    ins()->volume_type = PSYNTH_SAMPLER_ENV_ON;
    const psynth_sampler_env_point pts[4] = {{0, 64}, {1, 32}, {3, 32}, {4, 0}};
    memcpy(ins()->volume_points, pts, sizeof(pts));
    ins()->volume_points_num = 4;
    psynth_sampler_build_envelope_tables(ins());
    note_on(0, 1, 48);
    std::vector<int> got = left(500);
    // Tick 0 starts at its own volume (side 512: value · 2^14 >> 18 = 1024); tick 1 glides
    // to side 256 in 100 steps of (256 − 512) · 4096 / 100 = −10485 (toward zero).
    for (int k = 0; k < 100; k++) ASSERT_EQ(got[k], 1024) << k;
    for (int k = 1; k <= 100; k++) {
        int volume = 512 * 4096 - 10485 * k;
        ASSERT_EQ(got[99 + k], (int)((((int64_t)volume >> 7) * 16384) >> 18)) << k;
    }
    EXPECT_EQ(got[199], 512);  // 1048652 after the last step: a little above 256 · 4096
    // Ticks 2, 3 start at the exact target; tick 4 stands on the last point, 0 without a loop: the end.
    EXPECT_EQ(std::vector<int>(got.begin() + 200, got.end()), runs({{200, 512}, {100, 0}}));

    send(PS_CMD_CLEAN, -1);
    set_ctl(PSYNTH_SAMPLER_CTL_VOLUME_INTERP, 0);
    note_on(0, 2, 48);
    got = left(300);
    EXPECT_EQ(got[99], 1024);
    EXPECT_EQ(got[100], 512);  // no glide: the new volume at once
}

TEST_F(SamplerTest, EnvelopeLoopSustainAndPanning) {
    add_sampler(kRateBase, 10, 0, 0);
    add_sample(0, kInt16 | kForward, std::vector<int16_t>(8, 16384))->loop_length = 8;
    psynth_sampler_instrument* in = ins();
    const psynth_sampler_env_point pts[3] = {{0, 64}, {2, 0}, {4, 64}};  // table 1024, 512, 0, 512, 1024
    memcpy(in->volume_points, pts, sizeof(pts));
    in->volume_points_num = 3;
    psynth_sampler_build_envelope_tables(in);
    // With side e/2 and value 16384 each tick's output equals e.
    auto per_tick = [&](int ticks) {
        std::vector<int> v;
        std::vector<int> got = left(10 * ticks);
        for (int t = 0; t < ticks; t++) v.push_back(got[10 * t]);
        return v;
    };

    in->volume_type = PSYNTH_SAMPLER_ENV_ON | PSYNTH_SAMPLER_ENV_LOOP;
    in->volume_loop_start = 0;
    in->volume_loop_end = 1;  // at x 2 the position jumps back to x 0
    note_on(0, 1, 48);
    EXPECT_EQ(per_tick(6), (std::vector<int>{1024, 512, 1024, 512, 1024, 512}));

    send(PS_CMD_CLEAN, -1);
    in->volume_type = PSYNTH_SAMPLER_ENV_ON | PSYNTH_SAMPLER_ENV_SUSTAIN;
    in->volume_sustain = 1;  // held at x 2 while the key is down
    note_on(0, 2, 48);
    EXPECT_EQ(per_tick(5), (std::vector<int>{1024, 512, 0, 0, 0}));
    queue(PS_CMD_NOTE_OFF, 0, 2);
    // The tick at this buffer's first frame ran before the release; the next one still
    // reads x 2, then the position runs on (no fade-out) and the last point (1024) holds.
    EXPECT_EQ(per_tick(5), (std::vector<int>{0, 0, 512, 1024, 1024}));

    // Panning envelope from hard left (y 0) to hard right (y 64).
    send(PS_CMD_CLEAN, -1);
    in->volume_type = 0;
    in->panning_type = PSYNTH_SAMPLER_ENV_ON;
    in->panning_points[0] = {0, 0};
    in->panning_points[1] = {1, 64};
    in->panning_points_num = 2;
    psynth_sampler_build_envelope_tables(in);
    note_on(0, 3, 48);
    stereo_out o = render(20);
    EXPECT_EQ(std::pair(o.l[0], o.r[0]), std::pair(1024, 0));  // pan 0: left gain 512 (as at the centre), right 0
    EXPECT_EQ(std::pair(o.l[10], o.r[10]), std::pair(0, 1024));
}

TEST_F(SamplerTest, VolumeChainAndPanningControllers) {
    add_sampler(kRateBase, kTick, 0, 0);
    psynth_sampler_sample* h = add_sample(0, kInt16 | kForward, std::vector<int16_t>(8, 16384));
    h->loop_length = 8;
    h->volume = 48;
    ins()->volume = 32;
    set_ctl(PSYNTH_SAMPLER_CTL_VOLUME, 384);
    note_on(0, 1, 48, 200);
    // The first frame of a tick, left and right.
    auto first = [&] { stereo_out o = render(kTick); return std::pair{o.l[0], o.r[0]}; };
    // e = 1024 · 32 >> 6 = 512; 512 · 512 >> 10 = 256; · 48 >> 6 = 192; · 384 >> 8 = 288; · 200 >> 8 = 225.
    EXPECT_EQ(first(), std::pair(450, 450));

    // Local panning 32768 → 256: pan = 128 + 128 + 256 − 384 + 128 = 256, hard right.
    // (Changes between buffers meet the tick that ended the last one: they count a tick later.)
    EXPECT_EQ(send(PS_CMD_SET_LOCAL_CONTROLLER, 1, PSYNTH_SAMPLER_LOCAL_CTL_PAN, 32768), 1);
    EXPECT_EQ(send(PS_CMD_SET_LOCAL_CONTROLLER, 1, 0, 32768), 0);   // not a local controller
    EXPECT_EQ(send(PS_CMD_SET_LOCAL_CONTROLLER, 99, PSYNTH_SAMPLER_LOCAL_CTL_PAN, 0), 0);  // no such voice
    EXPECT_EQ(first(), std::pair(450, 450));
    EXPECT_EQ(first(), std::pair(0, 450));
    // Local 64 (8192 >> 7) with sample panning 128 and "Panning" 128: pan 64 →
    // left min(192 · 4, 512) = 512, right 256.
    send(PS_CMD_SET_LOCAL_CONTROLLER, 1, PSYNTH_SAMPLER_LOCAL_CTL_PAN, 8192);
    render(kTick);
    EXPECT_EQ(first(), std::pair(450, 224));  // side ((((256 · 512 >> 10) · 48 >> 6) · 384 >> 8) · 200 >> 8) = 112
    // Below 0: all left at 512.
    set_ctl(PSYNTH_SAMPLER_CTL_PANNING, 0);
    h->panning = 0;
    render(kTick);
    EXPECT_EQ(first(), std::pair(450, 0));
}

TEST_F(SamplerTest, AutoVibratoStartsWithTheFirstTick) {
    add_sampler(kRateBase, 10, 0);
    add_sample(0, kInt16, ramp16(128));
    // The ramp reads back the whole frame of the position; ticks of 10 frames, each at the
    // note's pitch plus an offset s (in 1/64 semitone, so 4 · s in 1/256).
    struct vibrato_case { uint8_t type, depth, rate, sweep; std::vector<int> s; };
    const vibrato_case cases[3] = {
        // Ramp down: s = ((−v) >> 1) · 192 >> 4 for v = 0, 128, −256, −128, 0: the first tick
        // keeps the note's step, then an octave up, two octaves and one octave down.
        {1, 192, 64, 0, {0, -768, 1536, 768, 0}},
        // Square: s = 16 · 127 >> 4 = 127 already on the first tick, before any frame.
        {2, 16, 0, 0, {127, 127}},
        // Sine with sweep 4: s scales by 0, 2/4, 4/4; sine[128] = 255: 255 · 255 >> 8 = 254,
        // negated for v > 0, · 2 / 4 = −127; v = −256 reads sine[0] = 0; v = −128 gives +254.
        {0, 255, 64, 4, {0, -127, 0, 254}},
    };
    EXPECT_EQ(ref_step(18432 - 3072, kRateBase), 131072);
    ASSERT_LT(ref_step(18432 + 4 * 127, kRateBase), 65536 * 9 / 10);  // the square's offset shows at once
    for (int c = 0; c < 3; c++) {
        SCOPED_TRACE(c);
        send(PS_CMD_CLEAN, -1);
        psynth_sampler_instrument* in = ins();
        in->vibrato_type = cases[c].type, in->vibrato_depth = cases[c].depth;
        in->vibrato_rate = cases[c].rate, in->vibrato_sweep = cases[c].sweep;
        note_on(0, c + 1, 48);
        std::vector<int> want;
        int64_t p = 0;
        for (int offset : cases[c].s) {
            int64_t step = ref_step(18432 + 4 * offset, kRateBase);
            for (int k = 0; k < 10; k++, p += step) want.push_back((int)(p >> 16));
        }
        EXPECT_EQ(left((int)want.size()), want);
    }
}

TEST_F(SamplerTest, SampleOffsetsAndCommandsWhileIdle) {
    add_sampler(kRateBase, kTick, 0);
    add_sample(0, kInt16, ramp16(8));
    // Nothing has sounded yet: these do nothing and answer 0.
    for (int command : {PS_CMD_SET_FREQ, PS_CMD_SET_VELOCITY, PS_CMD_SET_SAMPLE_OFFSET, PS_CMD_SET_SAMPLE_OFFSET2,
                        PS_CMD_NOTE_OFF}) {
        EXPECT_EQ(send(command, 1), 0) << psynth_command_name(command);
    }
    EXPECT_EQ(send(PS_CMD_ALL_NOTES_OFF, 1), 1);

    note_on(0, 1, 48);
    queue(PS_CMD_SET_SAMPLE_OFFSET, 2, 1, 0, 0, 5);
    EXPECT_EQ(left(6), (std::vector<int>{0, 1, 5, 6, 7, 0}));
    // Unknown ids: 1 for these three, 0 for the offsets.
    for (auto [command, want] : {std::pair{PS_CMD_SET_FREQ, 1}, {PS_CMD_SET_VELOCITY, 1}, {PS_CMD_NOTE_OFF, 1},
                                 {PS_CMD_SET_SAMPLE_OFFSET, 0}, {PS_CMD_SET_SAMPLE_OFFSET2, 0}}) {
        EXPECT_EQ(send(command, 99), want) << psynth_command_name(command);
    }

    note_on(0, 2, 48);
    queue(PS_CMD_SET_SAMPLE_OFFSET, 1, 2, 0, 0, 1000);  // beyond the end: the last frame
    EXPECT_EQ(left(4), (std::vector<int>{0, 7, 0, 0}));
    note_on(0, 3, 48);
    queue(PS_CMD_SET_SAMPLE_OFFSET2, 1, 3, 0, 16384);  // half of 8 frames
    EXPECT_EQ(left(4), (std::vector<int>{0, 4, 5, 6}));
    queue(PS_CMD_SET_SAMPLE_OFFSET2, 0, 3, 0, 32768);  // the whole length: the last frame
    EXPECT_EQ(left(2), (std::vector<int>{7, 0}));

    // Notes that reach no sample start nothing.
    EXPECT_EQ(send(PS_CMD_NOTE_ON, 4, 48, 256, 18432), 1);
    ins()->sample_map[48] = 1;  // beyond the samples in use
    EXPECT_EQ(send(PS_CMD_NOTE_ON, 5, 48, 256, 18432), 0);
    ins()->samples_num = 2;
    EXPECT_EQ(send(PS_CMD_NOTE_ON, 5, 48, 256, 18432), 0);  // sample 1 has no header
    ins()->samples_num = 0;
    ins()->sample_map[48] = 0;
    EXPECT_EQ(send(PS_CMD_NOTE_ON, 5, 48, 256, 18432), 0);

    // CLEAN stops everything at once and makes the module idle again.
    EXPECT_EQ(send(PS_CMD_CLEAN, -1), 1);
    EXPECT_EQ(send(PS_CMD_SET_FREQ, 4), 0);
    EXPECT_EQ(left(4), std::vector<int>(4, 0));
}

TEST_F(SamplerTest, AllNotesOffReleasesAndForgetsIds) {
    add_sampler(kRateBase, kTick, 0, 0);
    add_sample(0, kInt16 | kForward, std::vector<int16_t>(8, 16384))->loop_length = 8;
    ins()->volume_type = PSYNTH_SAMPLER_ENV_ON | PSYNTH_SAMPLER_ENV_SUSTAIN;
    ins()->volume_sustain = 1;  // default points: held at x 32, 1024
    note_on(0, 1, 48);
    for (int t = 0; t < 33; t++) left(kTick);
    EXPECT_EQ(left(kTick)[0], 1024);
    queue(PS_CMD_ALL_NOTES_OFF, 0, -1);
    EXPECT_EQ(left(kTick)[0], 1024);  // the tick before the release
    EXPECT_EQ(left(kTick)[0], 1024);  // released at x 32, which it reads once more
    EXPECT_EQ(left(kTick)[0], 1018);  // the envelope moves on (x 33)
    EXPECT_EQ(send(PS_CMD_SET_VELOCITY, 1, 0, 0), 1);  // id forgotten: nothing changes
    left(kTick);
    EXPECT_EQ(left(kTick)[0], 1008);  // (65536 − 3 · 341) >> 6
}

TEST_F(SamplerTest, MissingDataAndBusyMutexSkipTheVoice) {
    add_sampler(kRateBase, kTick, 0);
    add_sample(0, kInt16, ramp16(64));
    note_on(0, 1, 48);
    EXPECT_EQ(left(4), (std::vector<int>{0, 1, 2, 3}));

    tarvik_mutex* mutex = psynth_sampler_get_mutex(mod, &net);
    ASSERT_NE(mutex, nullptr);
    // An editor at work on another thread: the block is silent and the voice stands still.
    std::atomic<int> stage{0};
    std::thread editor([&] {
        tarvik_mutex_lock(mutex);
        stage = 1;
        while (stage != 2) std::this_thread::yield();
        tarvik_mutex_unlock(mutex);
    });
    while (stage != 1) std::this_thread::yield();
    EXPECT_EQ(left(4), std::vector<int>(4, 0));
    EXPECT_EQ(net.modules[mod].output_start[0], 4);
    stage = 2;
    editor.join();
    EXPECT_EQ(left(4), (std::vector<int>{4, 5, 6, 7}));

    std::vector<uint8_t> saved(128);
    memcpy(saved.data(), psynth_get_chunk(mod, 2, &net), 128);
    psynth_free_chunk(mod, 2, &net);
    EXPECT_EQ(left(4), std::vector<int>(4, 0));
    EXPECT_EQ(net.modules[mod].output_start[0], 4);
    ASSERT_EQ(psynth_new_chunk(mod, 2, 128, 0, 0, &net), 0);
    memcpy(psynth_get_chunk(mod, 2, &net), saved.data(), 128);
    EXPECT_EQ(left(4), (std::vector<int>{8, 9, 10, 11}));  // the voice waited, still active
}

TEST_F(SamplerTest, SetupFinishedGrowsOldChunksAndSetsStorageFlags) {
    add_sampler();
    ASSERT_EQ(psynth_new_chunk(mod, 0, 2300, 0, 0, &net), 0);  // an instrument from an older version
    ((uint8_t*)psynth_get_chunk(mod, 0, &net))[244] = 40;
    const uint8_t types[4] = {kInt8, kInt16 | kStereo, kFloat, kInt16};
    for (int s = 0; s < 4; s++) {
        ASSERT_EQ(psynth_new_chunk(mod, 2 * s + 1, s == 0 ? 40 : 44, 0, 0, &net), 0);
        header(s)->type = types[s];
        header(s)->length = 0x01020304;
        if (s < 3) {
            ASSERT_EQ(psynth_new_chunk(mod, 2 * s + 2, 16, 0, 22050, &net), 0);
        }
    }
    ASSERT_EQ(psynth_new_chunk(mod, 10, 16, 77, 0, &net), 0);  // data of sample 4, which has no header
    EXPECT_EQ(send(PS_CMD_SETUP_FINISHED, -1), 1);

    int size = 0, flags = 0, rate = 0;
    psynth_get_chunk_info(mod, 0, &size, nullptr, nullptr, &net);
    EXPECT_EQ(size, 2364);
    EXPECT_EQ(((uint8_t*)psynth_get_chunk(mod, 0, &net))[244], 40);  // contents kept
    EXPECT_EQ(((uint8_t*)psynth_get_chunk(mod, 0, &net))[2363], 0);  // the new tail is zero
    psynth_get_chunk_info(mod, 1, &size, nullptr, nullptr, &net);
    EXPECT_EQ(size, 44);
    EXPECT_EQ(header(0)->length, 0x01020304u);
    const int want_flags[3] = {1, 2 | 8, 4};
    for (int s = 0; s < 3; s++) {
        psynth_get_chunk_info(mod, 2 * s + 2, nullptr, &flags, &rate, &net);
        EXPECT_EQ(std::pair(flags, rate), std::pair(want_flags[s], 22050)) << s;
    }
    psynth_get_chunk_info(mod, 10, nullptr, &flags, nullptr, &net);
    EXPECT_EQ(flags, 77);  // no header: left alone
    EXPECT_EQ(psynth_get_chunk(mod, 8, &net), nullptr);  // a header without data creates nothing
}

TEST_F(SamplerTest, RecordingSkipsLeadingSilenceOfTheFirstBlock) {
    add_sampler();
    test_module_config cfg;
    cfg.outputs = 1;              // a mono source feeds both inputs
    cfg.mode = TEST_RENDER_RAMP;  // value = frame
    int src = add_test_module(&net, cfg);
    psynth_make_link(mod, src, &net);
    // The source's first block: silent up to frame 10 (its first piece returns nothing).
    auto silent_start = [&] {
        test_data(&net, src)->config.silent_below = 10;
        queue_event(&net, src, PS_CMD_NOP, 10);  // splits the source's render at frame 10
        render_buffer(&net, 64);
        test_data(&net, src)->config.silent_below = 0;
    };

    EXPECT_EQ(psynth_sampler_get_take(mod, nullptr, nullptr, &net), nullptr);
    ASSERT_EQ(psynth_sampler_record(mod, 1, 0, &net), 0);
    silent_start();
    render_buffer(&net, 64);  // not the first block: its zero frame 0 is kept
    int channels = 0;
    uint32_t written = 0;
    const int16_t* ring = psynth_sampler_get_take(mod, &channels, &written, &net);
    ASSERT_NE(ring, nullptr);
    EXPECT_EQ(channels, 2);
    ASSERT_EQ(written, 54u + 64u);
    for (uint32_t k = 0; k < written; k++) {
        int want = k < 54 ? 10 + (int)k : (int)k - 54;
        ASSERT_EQ(ring[2 * k], want) << k;
        ASSERT_EQ(ring[2 * k + 1], want) << k;
    }

    // A new take keeping every second frame: 10, 12, ... 62, then 0, 2, ... 4094 per block.
    ASSERT_EQ(psynth_sampler_record(mod, 1, 1, &net), 0);
    silent_start();
    ring = psynth_sampler_get_take(mod, &channels, &written, &net);
    ASSERT_EQ(written, 27u);
    for (uint32_t k = 0; k < written; k++) ASSERT_EQ(ring[2 * k], 10 + 2 * (int)k) << k;
    for (int b = 0; b < 33; b++) render_buffer(&net, 4096);
    ring = psynth_sampler_get_take(mod, &channels, &written, &net);
    ASSERT_EQ(written, 27u + 33u * 2048u);
    EXPECT_EQ(ring[2 * ((written - 1) % 65536)], 4094);
    EXPECT_EQ(ring[0], 2 * ((65536 - 27) % 2048));  // frame 65536 of the take wrapped onto index 0

    ASSERT_EQ(psynth_sampler_record(mod, 0, 0, &net), 0);
    EXPECT_EQ(psynth_sampler_get_take(mod, nullptr, nullptr, &net), nullptr);
    ASSERT_EQ(psynth_sampler_record(mod, 1, 0, &net), 0);  // left armed: CLOSE frees the ring
}

}  // namespace
