// The Sampler editor's actions on a song: exact frames after each frame command, header,
// loop and instrument edits, loads, new samples and recording, each undone and redone to
// the song's very bytes; failed loads and refused edits leave the song as it was.
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "edit_test_util.h"
#include "engine/memory.h"
#include "psynth/sample_edit.h"
#include "psynth/sample_file.h"
#include "song/edit_net.h"
#include "psynth/psynth_modules.h"
#include "song/edit_sampler.h"

namespace {

int ramp(int i) { return i * 300 - 15000; }  // the fixture's sample

class EditSamplerTest : public EditFixture {
protected:
    int mod = -1;

    void SetUp() override {
        EditFixture::SetUp();
        mod = add_sampler_with_sample(10, 20);
        zelfon_edit_init_history(ZELFON_UNDO_SIZE_DEFAULT, &song);
    }
    psynth_net* net() { return song.net; }
    const psynth_sampler_sample* header(int s = 0) {
        return (const psynth_sampler_sample*)psynth_get_chunk(mod, psynth_sampler_header_chunk(s), net());
    }
    const psynth_sampler_instrument* ins() {
        return (const psynth_sampler_instrument*)psynth_get_chunk(mod, PSYNTH_SAMPLER_INSTRUMENT_CHUNK, net());
    }
    std::vector<int16_t> frames16(int s = 0) {
        int size = 0;
        const int16_t* d = (const int16_t*)psynth_get_chunk(mod, psynth_sampler_data_chunk(s), net());
        psynth_get_chunk_info(mod, psynth_sampler_data_chunk(s), &size, nullptr, nullptr, net());
        return d ? std::vector<int16_t>(d, d + size / 2) : std::vector<int16_t>{};
    }
    int rate(int s = 0) {
        int r = -1;
        psynth_get_chunk_info(mod, psynth_sampler_data_chunk(s), nullptr, nullptr, &r, net());
        return r;
    }
    // Runs one edit in a group of its own, expecting `code`; when it changed the song, undo
    // and redo must give the bytes before and after it.
    void edit(const std::function<int()>& f, int code = ZELFON_EDIT_OK) {
        zelfon_edit_begin(&song);
        const bytes before = saved();
        const int undo_before = song.history.cur;
        ASSERT_EQ(f(), code);
        const bytes after = saved();
        if (code != ZELFON_EDIT_OK && code != ZELFON_EDIT_LOAD_FAILED) {
            EXPECT_EQ(after, before) << "a refused edit changed the song";
            EXPECT_EQ((int)song.history.cur, undo_before) << "a refused edit was recorded";
            return;
        }
        if (after == before) {
            EXPECT_EQ((int)song.history.cur, undo_before) << "an edit that changed nothing was recorded";
            return;
        }
        expect_undo_redo(before, after);
    }
    std::vector<int16_t> ramp_frames(int from, int to) {  // ramp(from) .. ramp(to − 1)
        std::vector<int16_t> v;
        for (int i = from; i < to; i++) v.push_back((int16_t)ramp(i));
        return v;
    }
    std::vector<int16_t> cat(std::vector<int16_t> a, const std::vector<int16_t>& b) {
        a.insert(a.end(), b.begin(), b.end());
        return a;
    }
};

TEST_F(EditSamplerTest, FrameCommandsGiveExactFramesAndUndo) {
    edit([&] { return zelfon_edit_sample_reverse(mod, 0, 10, 5, &song); });
    std::vector<int16_t> want = ramp_frames(0, 100);
    std::reverse(want.begin() + 10, want.begin() + 15);
    EXPECT_EQ(frames16(), want);
    zelfon_undo(nullptr, &song);

    edit([&] { return zelfon_edit_sample_fade(mod, 0, 0, 11, 1, &song); });
    EXPECT_EQ(frames16()[0], 0);
    EXPECT_EQ(frames16()[5], ramp(5) * 5 / 10);
    EXPECT_EQ(frames16()[10], ramp(10));
    edit([&] { return zelfon_edit_sample_fade(mod, 0, 90, 10, 0, &song); });
    EXPECT_EQ(frames16()[90], ramp(90));
    EXPECT_EQ(frames16()[94], ramp(94) * 5 / 9);
    EXPECT_EQ(frames16()[99], 0);
    zelfon_undo(nullptr, &song);
    zelfon_undo(nullptr, &song);

    edit([&] { return zelfon_edit_sample_normalize(mod, 0, 0, 100, &song); });
    EXPECT_EQ(frames16()[0], -32767);  // the peak, 15000, reaches full scale
    EXPECT_EQ(frames16()[1], -32112);  // −14700 × 32767 ÷ 15000 = −32111.66
    EXPECT_EQ(frames16()[50], 0);
    edit([&] { return zelfon_edit_sample_normalize(mod, 0, 50, 1, &song); });  // silence: nothing to do
    zelfon_undo(nullptr, &song);
    EXPECT_EQ(frames16(), ramp_frames(0, 100));

    // Refused selections change nothing.
    for (auto [start, length] : {std::pair{-1, 5}, {0, 0}, {95, 6}, {100, 1}}) {
        edit([&] { return zelfon_edit_sample_reverse(mod, 0, start, length, &song); }, ZELFON_EDIT_OUTSIDE);
    }
    edit([&] { return zelfon_edit_sample_reverse(mod, 3, 0, 1, &song); }, ZELFON_EDIT_NO_SAMPLE);
    edit([&] { return zelfon_edit_sample_reverse(0, 0, 0, 1, &song); }, ZELFON_EDIT_NO_MODULE);  // the Output module
}

TEST_F(EditSamplerTest, CutCopyPasteAndCropMoveFramesAndLoops) {
    edit([&] { return zelfon_edit_sample_loop(mod, 0, 40, 20, PSYNTH_SAMPLER_LOOP_FORWARD, &song); });
    EXPECT_EQ(std::tuple(header()->loop_start, header()->loop_length, header()->type & 3), std::tuple(40u, 20u, 1));

    zelfon_sample_clip* clip = nullptr;
    edit([&] { return zelfon_edit_sample_cut(mod, 0, 10, 20, &clip, &song); });
    ASSERT_NE(clip, nullptr);
    EXPECT_EQ(clip->header.length, 20u);
    EXPECT_EQ(clip->rate, 9001);
    EXPECT_EQ(std::vector<int16_t>((int16_t*)zelfon_sample_clip_frames(clip), (int16_t*)zelfon_sample_clip_frames(clip) + 20),
              ramp_frames(10, 30));
    EXPECT_EQ(frames16(), cat(ramp_frames(0, 10), ramp_frames(30, 100)));
    EXPECT_EQ(std::tuple(header()->length, header()->loop_start, header()->loop_length), std::tuple(80u, 20u, 20u));

    // Pasted back where it came from: the sample as it was (the loop moves along).
    edit([&] { return zelfon_edit_sample_paste(mod, 0, 10, 0, clip, &song); });
    EXPECT_EQ(frames16(), ramp_frames(0, 100));
    EXPECT_EQ(std::tuple(header()->length, header()->loop_start, header()->loop_length), std::tuple(100u, 40u, 20u));
    // Replacing 5 frames at 95 with the clip.
    edit([&] { return zelfon_edit_sample_paste(mod, 0, 95, 5, clip, &song); });
    EXPECT_EQ(frames16(), cat(ramp_frames(0, 95), ramp_frames(10, 30)));
    edit([&] { return zelfon_edit_sample_paste(mod, 0, 116, 0, clip, &song); }, ZELFON_EDIT_OUTSIDE);
    // Into an empty slot the clip becomes a sample of its own.
    edit([&] { return zelfon_edit_sample_paste(mod, 5, 0, 0, clip, &song); });
    EXPECT_EQ(frames16(5), ramp_frames(10, 30));
    EXPECT_EQ(rate(5), 9001);
    EXPECT_EQ(ins()->samples_num, 6);

    // An 8-bit stereo clip pasted into the 16-bit mono sample is converted.
    zelfon_sample_clip* c8 = (zelfon_sample_clip*)mem_new(MEM_DYNAMIC, sizeof(zelfon_sample_clip) + 4, "test");
    memset(c8, 0, sizeof(*c8));
    c8->header.length = 2;
    c8->header.type = 0x40;
    memcpy(zelfon_sample_clip_frames(c8), "\x10\x30\xf0\xd0", 4);
    edit([&] { return zelfon_edit_sample_paste(mod, 0, 0, 0, c8, &song); });
    EXPECT_EQ(frames16()[0], 0x20 << 8);
    EXPECT_EQ(frames16()[1], -0x20 << 8);
    mem_free(c8);
    mem_free(clip);

    // Crop keeps 30 frames from 35: the loop 40..60 becomes 5..25 of them.
    zelfon_undo(nullptr, &song);
    zelfon_undo(nullptr, &song);
    zelfon_undo(nullptr, &song);
    EXPECT_EQ(frames16(), ramp_frames(0, 100));
    edit([&] { return zelfon_edit_sample_crop(mod, 0, 35, 30, &song); });
    EXPECT_EQ(frames16(), ramp_frames(35, 65));
    EXPECT_EQ(std::tuple(header()->length, header()->loop_start, header()->loop_length), std::tuple(30u, 5u, 20u));
    edit([&] { return zelfon_edit_sample_crop(mod, 0, 0, 3, &song); });  // the loop falls outside: off
    EXPECT_EQ(std::tuple(header()->loop_start, header()->loop_length, header()->type & 3), std::tuple(0u, 0u, 0));
    zelfon_sample_clip* none = nullptr;
    edit([&] { return zelfon_edit_sample_cut(mod, 0, 0, 4, &none, &song); }, ZELFON_EDIT_OUTSIDE);
    EXPECT_EQ(none, nullptr);
}

TEST_F(EditSamplerTest, RateCommandsMoveThePitchOrKeepIt) {
    // Change base sampling frequency: the frames stay, the pitch rises an octave.
    edit([&] { return zelfon_edit_sample_set_rate(mod, 0, 18002, &song); });
    EXPECT_EQ(frames16(), ramp_frames(0, 100));
    EXPECT_EQ(std::tuple(rate(), header()->relative_note, header()->finetune), std::tuple(18002, 12, 0));
    zelfon_undo(nullptr, &song);

    // Resample to twice the rate: twice the frames, an octave up in relative note so that
    // it sounds the same; the loop scales.
    edit([&] { return zelfon_edit_sample_loop(mod, 0, 10, 30, PSYNTH_SAMPLER_LOOP_PINGPONG, &song); });
    edit([&] { return zelfon_edit_sample_resample_rate(mod, 0, 18002, &song); });
    EXPECT_EQ(std::tuple(header()->length, rate(), header()->relative_note, header()->finetune, header()->loop_start,
                         header()->loop_length),
              std::tuple(200u, 18002, 12, 0, 20u, 60u));
    EXPECT_EQ(frames16().size(), 200u);
    EXPECT_NEAR(frames16()[100], ramp(50), 300);  // the ramp, twice as slow
    zelfon_undo(nullptr, &song);

    // Resample to a length: 44100 → 48000 Hz worth of frames; the relative note and
    // finetune move by 768 × log2(ratio) periods, the rate with the length.
    edit([&] { return zelfon_edit_sample_resample_length(mod, 0, 109, &song); });
    const int periods = psynth_sample_pitch_periods(header()->relative_note, header()->finetune);
    EXPECT_EQ(periods, psynth_sample_periods_for_ratio(109 / 100.0));
    EXPECT_LE(std::fabs(1200 * (periods / 768.0 - std::log2(1.09))), 1.0);  // within a cent
    EXPECT_EQ(rate(), 9811);  // 9001 × 1.09, rounded
    EXPECT_EQ(header()->length, 109u);
    for (int bad : {0, -5}) edit([&] { return zelfon_edit_sample_resample_length(mod, 0, bad, &song); }, ZELFON_EDIT_OUTSIDE);
    edit([&] { return zelfon_edit_sample_set_rate(mod, 0, 0, &song); }, ZELFON_EDIT_OUTSIDE);
}

TEST_F(EditSamplerTest, HeaderAndLoopEditsMergeWhileOneGestureLasts) {
    edit([&] { return zelfon_edit_sample_header(mod, 0, 30, 200, -12, 64, &song); });
    EXPECT_EQ(std::tuple(header()->volume, header()->panning, header()->relative_note, header()->finetune),
              std::tuple(30, 200, -12, 64));
    // A slider's drag: many changes in one group, one undo step.
    zelfon_edit_begin(&song);
    const bytes before = saved();
    for (int v = 0; v <= 64; v += 8) ASSERT_EQ(zelfon_edit_sample_header(mod, 0, v, 200, -12, 64, &song), ZELFON_EDIT_OK);
    for (int s = 0; s < 50; s += 10) ASSERT_EQ(zelfon_edit_sample_loop(mod, 0, s, 10, PSYNTH_SAMPLER_LOOP_FORWARD, &song), 0);
    const bytes after = saved();
    EXPECT_EQ(header()->volume, 64);
    EXPECT_EQ(header()->loop_start, 40u);
    expect_undo_redo(before, after);
    zelfon_undo(nullptr, &song);
    EXPECT_EQ(saved(), before);

    edit([&] { return zelfon_edit_sample_name(mod, 0, "a name of more than 22 chars", &song); });
    EXPECT_EQ(std::string(header()->name, 22), "a name of more than 22");
    for (auto [v, p, n, f] : {std::tuple{65, 0, 0, 0}, {0, 256, 0, 0}, {0, 0, 96, 0}, {0, 0, 0, -129}}) {
        edit([&] { return zelfon_edit_sample_header(mod, 0, v, p, n, f, &song); }, ZELFON_EDIT_OUTSIDE);
    }
    for (auto [s, l, t] : {std::tuple{90, 11, 1}, {0, 0, 1}, {0, 5, 3}}) {
        edit([&] { return zelfon_edit_sample_loop(mod, 0, s, l, t, &song); }, ZELFON_EDIT_OUTSIDE);
    }
    edit([&] { return zelfon_edit_sample_header(mod, 0, 30, 200, -12, 64, &song); });  // no change: not recorded
}

TEST_F(EditSamplerTest, InstrumentEditsRebuildTheEnvelopeTables) {
    edit([&] { return zelfon_edit_sampler_note_map(mod, 12, 23, 3, &song); });
    EXPECT_EQ(std::tuple(ins()->sample_map[11], ins()->sample_map[12], ins()->sample_map[23], ins()->sample_map[24]),
              std::tuple(0, 3, 3, 0));
    edit([&] { return zelfon_edit_sampler_note_map(mod, 5, 96, 1, &song); }, ZELFON_EDIT_OUTSIDE);

    // Points of the default volume envelope; a new one goes in x order and the markers after
    // it move with their points.
    const int count = ins()->volume_points_num;
    const int sustain = ins()->volume_sustain;
    const int x1 = ins()->volume_points[1].x;
    int at = -1;
    edit([&] { return zelfon_edit_sampler_env_add(mod, ZELFON_SAMPLER_ENV_VOLUME, x1 - 1, 40, &at, &song); });
    EXPECT_EQ(at, 1);
    EXPECT_EQ(ins()->volume_points_num, count + 1);
    EXPECT_EQ(ins()->volume_sustain, sustain + (sustain >= 1 ? 1 : 0));
    edit([&] { return zelfon_edit_sampler_env_add(mod, ZELFON_SAMPLER_ENV_VOLUME, x1, 40, &at, &song); }, ZELFON_EDIT_OUTSIDE);
    edit([&] { return zelfon_edit_sampler_env_markers(mod, ZELFON_SAMPLER_ENV_VOLUME, PSYNTH_SAMPLER_ENV_ON, 0, 0, 1, &song); });
    const int x0 = ins()->volume_points[0].x;
    // Dragging point 1 (kept between its neighbours) is one step; the table follows.
    zelfon_edit_begin(&song);
    const bytes before = saved();
    for (int x = 0; x < 600; x += 50) ASSERT_EQ(zelfon_edit_sampler_env_move(mod, 0, 1, x, 64, &song), ZELFON_EDIT_OK);
    EXPECT_EQ(ins()->volume_points[1].x, ins()->volume_points[2].x - 1);
    ASSERT_EQ(zelfon_edit_sampler_env_move(mod, 0, 1, 0, 0, &song), ZELFON_EDIT_OK);
    EXPECT_EQ(ins()->volume_points[1].x, x0 + 1);
    EXPECT_EQ(ins()->volume_table[x0 + 1], 0);  // y 0 at x0 + 1
    expect_undo_redo(before, saved());
    edit([&] { return zelfon_edit_sampler_env_remove(mod, 0, 1, &song); });
    EXPECT_EQ(ins()->volume_points_num, count);
    EXPECT_LT(ins()->volume_loop_end, ins()->volume_points_num);
    edit([&] { return zelfon_edit_sampler_env_remove(mod, 0, 0, &song); }, ZELFON_EDIT_OUTSIDE);
    edit([&] { return zelfon_edit_sampler_env_markers(mod, 1, 8, 0, 0, 0, &song); }, ZELFON_EDIT_OUTSIDE);
    edit([&] { return zelfon_edit_sampler_env_markers(mod, 1, 7, 0, 1, 0, &song); }, ZELFON_EDIT_OUTSIDE);

    edit([&] { return zelfon_edit_sampler_vibrato(mod, 2, 10, 20, 30, &song); });
    EXPECT_EQ(std::tuple(ins()->vibrato_type, ins()->vibrato_sweep, ins()->vibrato_depth, ins()->vibrato_rate),
              std::tuple(2, 10, 20, 30));
    edit([&] { return zelfon_edit_sampler_vibrato(mod, 4, 0, 0, 0, &song); }, ZELFON_EDIT_OUTSIDE);
    edit([&] { return zelfon_edit_sampler_fadeout(mod, 4000, &song); });
    EXPECT_EQ(ins()->volume_fadeout, 4000);
    edit([&] { return zelfon_edit_sampler_instrument(mod, 40, 100, 3, -7, &song); });
    EXPECT_EQ(std::tuple(ins()->volume, ins()->panning, ins()->relative_note, ins()->finetune), std::tuple(40, 100, 3, -7));
}

TEST_F(EditSamplerTest, LoadsAndNewSamplesAreEditsAndFailedLoadsChangeNothing) {
    const std::string wav = temp_dir + "/s.wav";
    std::string cmd = "sox -n -r 22050 -b 16 -c 2 '" + wav + "' synth 0.01 sine 440";
    ASSERT_EQ(std::system(cmd.c_str()), 0);
    edit([&] { return zelfon_edit_sampler_load(mod, 2, wav.c_str(), 0, &song); });
    EXPECT_EQ(header(2)->length, 220u);
    EXPECT_EQ(ins()->samples_num, 3);
    EXPECT_EQ(frames16(0), ramp_frames(0, 100));  // the other samples stay

    // Failing files leave every chunk as it was and record nothing.
    std::ofstream(temp_dir + "/bad.wav", std::ios::binary) << std::string("RIFF\x10\0\0\0WAVEfmt ", 16);
    edit([&] { return zelfon_edit_sampler_load(mod, 1, (temp_dir + "/bad.wav").c_str(), 0, &song); }, ZELFON_EDIT_LOAD_FAILED);
    EXPECT_STREQ(psynth_sample_load_error(), "No sample data in the file\n");
    edit([&] { return zelfon_edit_sampler_load(mod, 1, (temp_dir + "/none.wav").c_str(), 0, &song); }, ZELFON_EDIT_LOAD_FAILED);
    edit([&] { return zelfon_edit_sampler_load(mod, 16, wav.c_str(), 0, &song); }, ZELFON_EDIT_OUTSIDE);
    // A text file is not recognised: the RAW path loads it as 8-bit values.
    std::ofstream(temp_dir + "/t.txt", std::ios::binary) << "\x01\x02\x03\x04";
    edit([&] { return zelfon_edit_sampler_load(mod, 1, (temp_dir + "/t.txt").c_str(), 0, &song); }, ZELFON_EDIT_LOAD_FAILED);
    EXPECT_TRUE(psynth_sample_not_recognized());
    edit([&] { return zelfon_edit_sampler_load_raw(mod, 1, (temp_dir + "/t.txt").c_str(), PSYNTH_SAMPLE_RAW_INT16, 1, &song); });
    EXPECT_EQ(frames16(1), (std::vector<int16_t>{0x0201, 0x0403}));

    // A whole instrument: every chunk goes, and comes back on undo.
    edit([&] { return zelfon_edit_sampler_load(mod, -1, wav.c_str(), 0, &song); });
    EXPECT_EQ(ins()->samples_num, 1);
    EXPECT_STREQ(ins()->name, "s.wav");
    // A whole-instrument load that fails has removed the old chunks: that is recorded too.
    edit([&] { return zelfon_edit_sampler_load(mod, -1, (temp_dir + "/bad.wav").c_str(), 0, &song); }, ZELFON_EDIT_LOAD_FAILED);
    EXPECT_EQ(ins(), nullptr);

    edit([&] { return zelfon_edit_sample_new(mod, 3, 50, 32, 2, 96000, &song); });
    zelfon_undo(nullptr, &song);
    zelfon_undo(nullptr, &song);
    zelfon_redo(nullptr, &song);
    edit([&] { return zelfon_edit_sample_new(mod, 3, 50, 32, 2, 96000, &song); });
    EXPECT_EQ(header(3)->length, 50u);
    EXPECT_EQ(rate(3), 96000);
    EXPECT_STREQ(header(3)->name, "zlsmp");
    edit([&] { return zelfon_edit_sample_new(mod, 3, 50, 24, 2, 96000, &song); }, ZELFON_EDIT_OUTSIDE);

    // Saving is no edit.
    const bytes before = saved();
    EXPECT_EQ(zelfon_sampler_save_wav(mod, 3, (temp_dir + "/out.wav").c_str(), &song), ZELFON_EDIT_OK);
    EXPECT_EQ(zelfon_sampler_save_xi(mod, (temp_dir + "/out.xi").c_str(), &song), ZELFON_EDIT_OK);
    EXPECT_EQ(zelfon_sampler_save_wav(mod, 9, (temp_dir + "/x.wav").c_str(), &song), ZELFON_EDIT_NO_SAMPLE);
    EXPECT_EQ(zelfon_sampler_save_xi(0, (temp_dir + "/x.xi").c_str(), &song), ZELFON_EDIT_NO_MODULE);
    EXPECT_EQ(saved(), before);
    edit([&] { return zelfon_edit_sampler_load(mod, -1, (temp_dir + "/out.xi").c_str(), 0, &song); });
    EXPECT_EQ(header(3)->type, 0x10 | 0x40);  // floats travel as 16-bit values in XI
}

// A take of the module's inputs, drained from the ring into its file as it goes, becomes a
// 16-bit sample of all its frames, longer than the ring; without a take there is nothing.
TEST_F(EditSamplerTest, RecordingBecomesASample) {
    edit([&] { return zelfon_edit_sample_from_recording(mod, 4, 44100, &song); }, ZELFON_EDIT_NO_SAMPLE);
    EXPECT_EQ(zelfon_sampler_record_drain(mod, &song), ZELFON_EDIT_NO_SAMPLE);
    ASSERT_EQ(zelfon_sampler_record(mod, 1, 0, &song), ZELFON_EDIT_OK);
    edit([&] { return zelfon_edit_sample_from_recording(mod, 4, 44100, &song); }, ZELFON_EDIT_NO_SAMPLE);  // nothing yet
    // A generator into the Sampler, both into OUT: a played note is recorded.
    psynth_make_link(0, mod, net());
    int gen = zelfon_edit_add_synth(psynth_generator, 0, 0, &song);
    ASSERT_GE(gen, 0);
    psynth_make_link(mod, gen, net());
    psynth_make_link(0, gen, net());
    psynth_event e = {PS_CMD_NOTE_ON, 1, 0, 60, 256, 60 * 256};
    psynth_add_event(gen, &e, net());
    std::vector<int16_t> taken;
    for (int i = 0; i < 5; i++) {
        render(32768);
        ASSERT_EQ(zelfon_sampler_record_drain(mod, &song), ZELFON_EDIT_OK);
        int channels = 0;
        uint32_t written = 0;
        const int16_t* ring = psynth_sampler_get_take(mod, &channels, &written, net());
        ASSERT_NE(ring, nullptr);
        for (uint32_t f = (uint32_t)taken.size() / 2; f < written; f++) {
            taken.push_back(ring[2 * (f % 65536)]);
            taken.push_back(ring[2 * (f % 65536) + 1]);
        }
    }
    ASSERT_GT(taken.size(), 2u * 65536);
    edit([&] { return zelfon_edit_sample_from_recording(mod, 4, 44100, &song); });
    EXPECT_EQ(header(4)->length, taken.size() / 2);
    EXPECT_EQ(header(4)->type, 0x10 | 0x40);
    EXPECT_STREQ(header(4)->name, "recording");
    EXPECT_EQ(rate(4), 44100);
    EXPECT_TRUE(frames16(4) == taken);
    EXPECT_EQ(psynth_sampler_get_take(mod, nullptr, nullptr, net()), nullptr);  // disarmed
}

}  // namespace
