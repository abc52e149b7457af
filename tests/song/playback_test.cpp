// Playback: tick timing, cells into events, effects, transport, live input and output formats.
#include <cmath>

#include "engine/log.h"
#include "engine/memory.h"
#include "engine/random.h"
#include "song_test_util.h"

namespace {

constexpr int kTick = 882;   // frames per tick at 125 BPM, 44100 Hz
constexpr int kLine = 5292;  // six ticks

class SongPlaybackTest : public SongFixture {
protected:
    void SetUp() override {
        SongFixture::SetUp();
        mod = add_logger();
    }
    int mod = -1;  // a logger linked into OUT
};

std::vector<int64_t> frames_of(const std::vector<logged_event>& events) {
    std::vector<int64_t> out;
    for (const logged_event& e : events) out.push_back(e.frame);
    return out;
}

// One field of every event, e.g. values_of(on, &psynth_event::note).
template <class T>
std::vector<int> values_of(const std::vector<logged_event>& events, T psynth_event::*field) {
    std::vector<int> out;
    for (const logged_event& e : events) out.push_back((int)(e.event.*field));
    return out;
}

TEST_F(SongPlaybackTest, LinesStartAtExactFramesFromTheFirstStep) {
    EXPECT_EQ(psynth_tick_length(44100, 125), 225792);
    int slot = add_pattern(0, 8);
    for (int line = 0; line < 3; line++) cell(slot, 0, line) = note_cell(49 + line, mod + 1);
    play();
    render(3 * kLine + 10, 1000);
    std::vector<logged_event> notes = events_of(mod, PS_CMD_NOTE_ON);
    EXPECT_EQ(frames_of(notes), (std::vector<int64_t>{0, kLine, 2 * kLine}));
    ASSERT_EQ(notes.size(), 3u);
    EXPECT_EQ((std::vector<int>{notes[0].event.note, notes[0].event.pitch, notes[0].event.velocity, notes[0].event.id}),
              (std::vector<int>{48, (120 - 48) * 256, 256, (slot << 16) | 0}));
}

TEST_F(SongPlaybackTest, TickKStartsAtCeilingOfKTimesTickLength) {
    song.bpm = 130;  // T = 217107, not a whole number of frames
    song.speed = 1;
    int slot = add_pattern(0, 40, 1);
    for (int line = 0; line < 40; line++) cell(slot, 0, line) = note_cell(60, mod + 1);
    play();
    render(40 * 850, 333);
    const int64_t T = psynth_tick_length(44100, 130);
    ASSERT_EQ(T, 217107);
    std::vector<logged_event> notes = events_of(mod, PS_CMD_NOTE_ON);
    ASSERT_GE(notes.size(), 39u);
    for (size_t k = 0; k < notes.size(); k++) EXPECT_EQ(notes[k].frame, (int64_t(k) * T + 255) / 256) << "tick " << k;
}

// Builds a song that uses most effects and a tempo change, so that any dependence
// of the output on where requests or pieces end shows up.
void build_busy_song(SongFixture& f, int mod, int slot) {
    f.cell(slot, 0, 0) = note_cell(49, mod + 1, 100);
    f.cell(slot, 0, 2) = note_cell(0, 0, 0, 0x01, 3);           // slide up
    f.cell(slot, 1, 1) = note_cell(61, mod + 1, 0, 0x08, 0x0407);  // arpeggio
    f.cell(slot, 1, 3) = note_cell(0, 0, 0, 0x0A, 0x0005);      // velocity slide down
    f.cell(slot, 2, 4) = note_cell(73, mod + 1, 0, 0x19, 2);    // retrigger
    f.cell(slot, 2, 5) = note_cell(0, 0, 0, 0x0F, 131);         // tempo change mid-song
    f.cell(slot, 3, 6) = note_cell(30, mod + 1, 0, 0x1D, 3);    // delay
    f.cell(slot, 3, 7) = note_cell(0, 0, 0, 0x1C, 4);           // cut
}

TEST_F(SongPlaybackTest, RequestAndPieceSizesNeverChangeTheOutput) {
    std::vector<int16_t> reference;
    std::vector<int64_t> reference_events;
    for (int request : {8192, 4096, 1000, 64, 1}) {
        SCOPED_TRACE("request " + std::to_string(request));
        restart();
        mod = add_logger();
        build_busy_song(*this, mod, add_pattern(0, 8));
        play();
        std::vector<int16_t> out = render(9 * kLine, request);
        std::vector<int64_t> events;  // frame and command of every event
        for (int i = 0; i < logger(mod)->count; i++) events.push_back(logger(mod)->events[i].frame * 64 + logger(mod)->events[i].event.command);
        if (reference.empty()) reference = out, reference_events = events;
        EXPECT_EQ(events, reference_events);
        EXPECT_EQ(first_difference(out, reference), "");
    }
}

TEST_F(SongPlaybackTest, SetPlayingSpeedEffect) {
    struct Case { int value, bpm, speed; };
    for (Case c : {Case{0, 125, 1}, Case{1, 125, 1}, Case{31, 125, 31}, Case{32, 32, 6},
                   Case{20000, 16000, 6}, Case{40000, 16000, 6}}) {
        restart();
        mod = add_logger();
        cell(add_pattern(0, 4), 0, 0) = note_cell(0, mod + 1, 0, 0x0F, c.value);
        play();
        render(100);
        EXPECT_EQ(song.play_bpm, c.bpm) << c.value;
        EXPECT_EQ(song.play_speed, c.speed) << c.value;
        EXPECT_EQ(song.bpm, 125) << "the song's own tempo is kept";
        std::vector<logged_event> speed = events_of(mod, PS_CMD_SPEED_CHANGED);
        ASSERT_FALSE(speed.empty());
        EXPECT_EQ(psynth_event_tick_length(&speed.back().event), psynth_tick_length(44100, c.bpm));
        EXPECT_EQ(psynth_event_ticks_per_line(&speed.back().event), c.speed);
    }
}

TEST_F(SongPlaybackTest, SlideToNoteDoesNotRetrigger) {
    int slot = add_pattern(0, 4);
    cell(slot, 0, 0) = note_cell(49, mod + 1);
    cell(slot, 0, 1) = note_cell(51, mod + 1, 0, 0x03, 64);  // 256 per tick: one semitone a tick
    play();
    render(2 * kLine + 10);
    EXPECT_EQ(events_of(mod, PS_CMD_NOTE_ON).size(), 1u);
    std::vector<logged_event> freqs = events_of(mod, PS_CMD_SET_FREQ);
    ASSERT_GE(freqs.size(), 3u);
    EXPECT_EQ(freqs[0].frame, kLine);
    EXPECT_EQ(freqs[0].event.pitch, (120 - 48) * 256 - 256);
    EXPECT_EQ(freqs[1].event.pitch, (120 - 50) * 256);  // reached, and stays
    EXPECT_EQ(freqs.back().event.pitch, (120 - 50) * 256);
}

TEST_F(SongPlaybackTest, DelayRetriggerAndCutCountTicks) {
    int slot = add_pattern(0, 4);
    cell(slot, 0, 0) = note_cell(49, mod + 1, 0, 0x1D, 2);  // delayed by 2 ticks
    cell(slot, 1, 1) = note_cell(50, mod + 1, 0, 0x19, 2);  // every 2 ticks
    cell(slot, 2, 2) = note_cell(51, mod + 1);
    cell(slot, 2, 3) = note_cell(0, 0, 0, 0x1C, 0);         // cut with x = 0
    play();
    render(4 * kLine);
    EXPECT_EQ(frames_of(events_of(mod, PS_CMD_NOTE_ON)),
              (std::vector<int64_t>{2 * kTick, kLine, kLine + 2 * kTick, kLine + 4 * kTick, 2 * kLine}));
    std::vector<logged_event> off = events_of(mod, PS_CMD_NOTE_OFF);
    ASSERT_FALSE(off.empty());
    EXPECT_EQ(off.back().frame, 3 * kLine);
    EXPECT_EQ(off.back().event.id, (slot << 16) | 2);
}

TEST_F(SongPlaybackTest, ProbabilityEffectsFollowTheSeed) {
    uint32_t seed = 1;
    int first = tarvik_random(&seed);
    ASSERT_EQ(first, 16838);
    int slot = add_pattern(0, 4);
    song.random_seed = 1;
    cell(slot, 0, 0) = note_cell(49, mod + 1, 0, 0x20, 16838);  // r = 16838 ≥ x: dropped
    cell(slot, 1, 0) = note_cell(50, mod + 1, 0, 0x21, 32767);  // r2 < x: random velocity
    cell(slot, 2, 0) = note_cell(51, mod + 1, 11, 0x21, 32767); // r3 scales velocity 10
    play();
    render(100);
    uint32_t s = 1;
    tarvik_random(&s);
    int r2 = tarvik_random(&s);
    int r3 = tarvik_random(&s);
    std::vector<logged_event> on = events_of(mod, PS_CMD_NOTE_ON);
    EXPECT_EQ(values_of(on, &psynth_event::note), (std::vector<int>{49, 50}));
    EXPECT_EQ(values_of(on, &psynth_event::velocity), (std::vector<int>{(r2 >> 8) * 2, ((r3 * 10) >> 15) * 2}));
}

TEST_F(SongPlaybackTest, PatternsAtOneLinePlayShorterFirst) {
    int longer = add_pattern(0, 8, 1);
    int shorter = add_pattern(0, 4, 1);
    cell(longer, 0, 0) = note_cell(49, mod + 1);
    cell(shorter, 0, 0) = note_cell(61, mod + 1);
    play();
    render(100);
    std::vector<logged_event> on = events_of(mod, PS_CMD_NOTE_ON);
    EXPECT_EQ(values_of(on, &psynth_event::note), (std::vector<int>{60, 48}));
    EXPECT_EQ(values_of(on, &psynth_event::id), (std::vector<int>{shorter << 16, longer << 16}));
}

TEST_F(SongPlaybackTest, EndOfSongJumpReleasesSoundingTracks) {
    int slot = add_pattern(0, 2, 1);
    cell(slot, 0, 0) = note_cell(49, mod + 1);
    play();
    render(2 * kLine + 10);
    EXPECT_EQ(frames_of(events_of(mod, PS_CMD_NOTE_OFF)), (std::vector<int64_t>{2 * kLine}));
    EXPECT_EQ(frames_of(events_of(mod, PS_CMD_NOTE_ON)), (std::vector<int64_t>{0, 2 * kLine}));
    // The note-off reaches the module before the restarted note.
    std::vector<int> at_end;
    for (int i = 0; i < logger(mod)->count; i++) {
        const logged_event& e = logger(mod)->events[i];
        if (e.frame == 2 * kLine && (e.event.command == PS_CMD_NOTE_OFF || e.event.command == PS_CMD_NOTE_ON)) at_end.push_back(e.event.command);
    }
    EXPECT_EQ(at_end, (std::vector<int>{PS_CMD_NOTE_OFF, PS_CMD_NOTE_ON}));
}

TEST_F(SongPlaybackTest, ATrackMovingToAnotherModuleReleasesTheFirst) {
    int first = mod;
    int second = add_logger();
    int slot = add_pattern(0, 4, 1);
    cell(slot, 0, 0) = note_cell(49, first + 1);
    cell(slot, 0, 1) = note_cell(50, second + 1);
    cell(slot, 0, 2) = note_cell(ZELFON_NOTE_OFF);
    play();
    render(3 * kLine + 10);
    EXPECT_EQ(frames_of(events_of(first, PS_CMD_NOTE_OFF)), (std::vector<int64_t>{kLine}));
    // The note-off goes to the module the track last played.
    EXPECT_EQ(frames_of(events_of(second, PS_CMD_NOTE_OFF)), (std::vector<int64_t>{2 * kLine}));
}

TEST_F(SongPlaybackTest, AMutedTrackPlaysNoNotesButStillReleases) {
    int slot = add_pattern(0, 4, 2);
    cell(slot, 0, 0) = note_cell(49, mod + 1);
    cell(slot, 1, 1) = note_cell(50, mod + 1);
    cell(slot, 1, 2) = note_cell(51, mod + 1);
    cell(slot, 0, 3) = note_cell(ZELFON_NOTE_OFF);
    play();
    render(kLine - 10);
    song.muted_tracks.store(1u << 0 | 1u << 1);  // both muted after the first note
    render(kLine);
    song.muted_tracks.store(1u << 1);  // track 0 back: its note-off is heard, track 1 stays silent
    render(2 * kLine);
    std::vector<logged_event> on = events_of(mod, PS_CMD_NOTE_ON);
    ASSERT_EQ(on.size(), 1u);
    EXPECT_EQ(on[0].event.note, 48);
    EXPECT_EQ(frames_of(events_of(mod, PS_CMD_NOTE_OFF)), (std::vector<int64_t>{3 * kLine}));
}

TEST_F(SongPlaybackTest, StopAtEndRunsOnSilently) {
    int slot = add_pattern(0, 2, 1);
    cell(slot, 0, 0) = note_cell(49, mod + 1);
    zelfon_set_stop_at_end(1, &song);
    play();
    render(5 * kLine);
    EXPECT_EQ(events_of(mod, PS_CMD_NOTE_ON).size(), 1u);
    EXPECT_TRUE(events_of(mod, PS_CMD_NOTE_OFF).empty());  // it keeps sounding
    EXPECT_EQ(song.playing.load(), 1);
}

TEST_F(SongPlaybackTest, PatternLoopMovesToTheNextLoopedPattern) {
    int a = add_pattern(0, 2, 1);
    int b = add_pattern(8, 1, 1);
    cell(a, 0, 0) = note_cell(49, mod + 1);
    cell(b, 0, 0) = note_cell(61, mod + 1);
    zelfon_play_pattern(a, &song);
    render(4 * kLine + 10);  // a, a
    zelfon_set_next_looped_pattern(b, &song);
    render(4 * kLine);       // b from the end of the current loop
    std::vector<logged_event> on = events_of(mod, PS_CMD_NOTE_ON);
    ASSERT_GE(on.size(), 4u);
    EXPECT_EQ(frames_of(on)[1], 2 * kLine);
    EXPECT_EQ(on[2].event.note, 48);
    EXPECT_EQ(on[3].event.note, 60);
    EXPECT_EQ(song.looped_pattern, b);
}

TEST_F(SongPlaybackTest, ControllersAreLocalWithANoteAndGlobalOtherwise) {
    int slot = add_pattern(0, 4, 2);
    cell(slot, 0, 0) = zelfon_cell{49, 0, (uint16_t)(mod + 1), 0, 3, 1000};
    cell(slot, 1, 0) = zelfon_cell{0, 0, (uint16_t)(mod + 1), 0, 3, 2000};
    cell(slot, 0, 1) = zelfon_cell{0, 51, 0, 0, 0, 0};  // velocity alone
    play();
    render(kLine + 10);
    std::vector<logged_event> local = events_of(mod, PS_CMD_SET_LOCAL_CONTROLLER);
    ASSERT_EQ(local.size(), 1u);
    EXPECT_EQ(local[0].event.note, 2);
    EXPECT_EQ(local[0].event.velocity, 1000);
    EXPECT_EQ(values_of(events_of(mod, PS_CMD_SET_GLOBAL_CONTROLLER), &psynth_event::velocity), (std::vector<int>{2000}));
    EXPECT_EQ(values_of(events_of(mod, PS_CMD_SET_VELOCITY), &psynth_event::velocity), (std::vector<int>{100}));
    EXPECT_EQ(frames_of(events_of(mod, PS_CMD_SET_VELOCITY)), (std::vector<int64_t>{kLine}));
}

TEST_F(SongPlaybackTest, ArpeggioCyclesThreePitchesThenReturns) {
    int slot = add_pattern(0, 4, 1);
    cell(slot, 0, 0) = note_cell(49, mod + 1, 0, 0x08, 0x0407);
    play();
    render(kLine + 10);
    // Six arpeggio ticks, then the base pitch once.
    std::vector<logged_event> freqs = events_of(mod, PS_CMD_SET_FREQ);
    const int base = (120 - 48) * 256;
    EXPECT_EQ(values_of(freqs, &psynth_event::pitch),
              (std::vector<int>{base, base - 4 * 256, base - 7 * 256, base, base - 4 * 256, base - 7 * 256, base}));
    EXPECT_EQ(frames_of(freqs), (std::vector<int64_t>{0, kTick, 2 * kTick, 3 * kTick, 4 * kTick, 5 * kTick, 6 * kTick}));
}

TEST_F(SongPlaybackTest, OutputFormatsScaleAndSaturate) {
    // Ten frames: eight go through the vector loop, two through the frame-by-frame tail.
    for (int level : {5000, -5000, 1234, -1, 4095, 4096, -4095, -4096, -4097, 32767, -32768}) {
        logger(mod)->level = level;
        std::vector<int16_t> ints = render(10, 10);
        int expected = level * 8 > 32767 ? 32767 : level * 8 < -32767 ? -32767 : level * 8;
        ASSERT_EQ(ints.size(), 20u);
        for (int i = 0; i < 20; i++) EXPECT_EQ(ints[i], expected) << level << ", sample " << i;
        float floats[20];
        zelfon_render_request r{floats, ZELFON_SAMPLE_FLOAT32, 2, 10, nullptr, tarvik_time_ticks()};
        ASSERT_EQ(zelfon_render(&r, &song), 1);
        EXPECT_FLOAT_EQ(floats[0], level / 4096.0f) << level;
        EXPECT_FLOAT_EQ(floats[19], level / 4096.0f) << level;
    }
    zelfon_render_request r{nullptr, ZELFON_SAMPLE_FLOAT32, 2, 10, nullptr, 0};
    song.loaded = 0;
    EXPECT_EQ(zelfon_render(&r, &song), 0);
    song.loaded = 1;
}

TEST_F(SongPlaybackTest, LiveInputUsesItsOwnIdsAndRingsDropWhenFull) {
    zelfon_live_midi_event on{60, 99, (uint16_t)mod, ZELFON_LIVE_NOTE_ON, 0, tarvik_time_ticks()};
    ASSERT_EQ(zelfon_handle_midi_event(&on, &song), 0);
    zelfon_live_midi_event off = on;
    off.flags = ZELFON_LIVE_NOTE_OFF;
    ASSERT_EQ(zelfon_handle_midi_event(&off, &song), 0);
    render(64);
    std::vector<logged_event> notes = events_of(mod, PS_CMD_NOTE_ON);
    ASSERT_EQ(notes.size(), 1u);
    EXPECT_EQ((std::vector<int>{notes[0].event.id, notes[0].event.note, notes[0].event.velocity}), (std::vector<int>{(0xFFFF << 16) | 0, 60, 198}));
    EXPECT_EQ(events_of(mod, PS_CMD_NOTE_OFF).size(), 1u);

    zelfon_cell c = note_cell(49, mod + 1);
    int accepted = 0;
    while (zelfon_send_live_cell(&c, 1, &song) == 0) accepted++;
    EXPECT_EQ(accepted, ZELFON_RING_SIZE - 1);
    render(64);
    EXPECT_EQ(zelfon_send_live_cell(&c, 1, &song), 0);
}

TEST_F(SongPlaybackTest, StopWithoutRenderThreadGivesUp) {
    add_pattern(0, 4);
    EXPECT_EQ(zelfon_stop(&song), 1);  // not playing: cleans, returns at once
    play();
    render(10);
    ASSERT_EQ(song.playing.load(), 1);
    EXPECT_EQ(zelfon_stop(&song), 0);
    EXPECT_EQ(song.playing.load(), 0);
}

TEST_F(SongPlaybackTest, SteadyPlaybackDoesNotAllocate) {
    int slot = add_pattern(0, 16, 8);
    for (int line = 0; line < 16; line++) {
        for (int t = 0; t < 8; t++) cell(slot, t, line) = note_cell(37 + line + t, mod + 1, 0, line % 2 ? 0x08 : 0x01, 0x0203);
    }
    play();
    render(20 * kLine, 512);  // warm-up: event queues reach their working size
    uint64_t before = mem_get_stats().allocations;
    render(1000 * 512, 512);
    EXPECT_EQ(mem_get_stats().allocations, before);
}

}  // namespace
