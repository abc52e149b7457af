// The song engine on a private JACK server: the song's render as a sound slot, the MIDI
// keyboard playing a module live, a module's MIDI out port, and loading while the
// stream runs. The test's own JACK MIDI clients play the keyboard and listen to the port.
#include <gtest/gtest.h>

#include <mutex>
#include <vector>

#include "engine/jack_test_server.h"
#include "engine/profile.h"
#include "engine/sound.h"
#include "song/devices.h"
#include "song/song_file.h"
#include "song_test_util.h"

namespace {

std::string hex(const std::vector<unsigned char>& bytes) {
    std::string s;
    char b[4];
    for (unsigned char c : bytes) s += (snprintf(b, sizeof(b), "%02X ", c), b);
    return s;
}

class SongDevicesTest : public SongFixture {
protected:
    static void SetUpTestSuite() {
        server_ = new JackTestServer();
        ASSERT_TRUE(server_->start()) << "jackd did not start";
    }
    static void TearDownTestSuite() {
        delete server_;
        server_ = nullptr;
    }
    void SetUp() override {
        SongFixture::SetUp();
        profile_new(nullptr);
        ASSERT_EQ(sound_stream_init(SOUND_TYPE_FLOAT32, 44100, 2), 0);
        ASSERT_EQ(g_snd.driver, SOUND_DRIVER_JACK);
    }
    void TearDown() override {
        zelfon_detach_sound(0);
        sound_stream_close();
        profile_close(nullptr);
        SongFixture::TearDown();
    }
    // Events of `command` the module got so far, read with the render held off.
    std::vector<logged_event> taken_events(int mod, int command) {
        sound_stream_lock();
        std::vector<logged_event> events = events_of(mod, command);
        sound_stream_unlock();
        return events;
    }
    static JackTestServer* server_;
};
JackTestServer* SongDevicesTest::server_ = nullptr;

TEST_F(SongDevicesTest, KeyboardPlaysTheChosenModuleLive) {
    RtMidiOut keys(RtMidi::UNIX_JACK, "zkeys");
    keys.openVirtualPort("out");
    profile_add_key("midi_in", "zkeys:out", -1, nullptr);  // "midi_kbd" falls back to it
    profile_add_key("midi_kbd_ch", "4", -1, nullptr);
    ASSERT_GE(zelfon_open_midi_keyboard(&song), 0);
    EXPECT_EQ(song.midi_kbd_channel, 4);
    int mod = add_logger();
    song.midi_kbd_module = mod;
    zelfon_attach_sound(0, &song);

    const unsigned char other_channel[3] = {0x90, 62, 100}, on[3] = {0x93, 60, 100}, off[3] = {0x93, 60, 0};
    keys.sendMessage(other_channel, 3);
    keys.sendMessage(on, 3);
    auto poll_until = [&](int command) {
        return wait_until([&] { return zelfon_poll_midi_keyboard(&song), !taken_events(mod, command).empty(); });
    };
    ASSERT_TRUE(poll_until(PS_CMD_NOTE_ON));
    std::vector<logged_event> ons = taken_events(mod, PS_CMD_NOTE_ON);
    ASSERT_EQ(ons.size(), 1u);  // the note on channel 1 was not taken
    EXPECT_EQ(ons[0].event.note, 48);  // MIDI note 60 is semitone 48 from C0
    EXPECT_EQ(ons[0].event.pitch, (120 - 48) * 256);
    EXPECT_EQ(ons[0].event.velocity, 200);
    keys.sendMessage(off, 3);  // velocity 0: a note-off
    ASSERT_TRUE(poll_until(PS_CMD_NOTE_OFF));
    EXPECT_EQ(taken_events(mod, PS_CMD_NOTE_OFF)[0].event.id, ons[0].event.id);
    EXPECT_EQ(song.live_voices, 0u);
}

TEST_F(SongDevicesTest, KeyboardParserKeepsRunningStatusAndFullVelocity) {
    int mod = add_logger();
    song.midi_kbd_module = mod;
    song.midi_kbd_channel = 1;
    // Note-on with running status for a second key, a clock byte in between, then both off.
    const uint8_t bytes[] = {0x90, 60, 127, 0xF8, 64, 50, 0x80, 60, 0, 64, 0};
    zelfon_parse_midi_keyboard(bytes, sizeof(bytes), tarvik_time_ticks(), &song);
    render(1024);
    std::vector<logged_event> ons = events_of(mod, PS_CMD_NOTE_ON);
    ASSERT_EQ(ons.size(), 2u);
    EXPECT_EQ(ons[0].event.velocity, 256);  // MIDI 127 is full velocity
    EXPECT_EQ(ons[1].event.note, 52);
    EXPECT_EQ(ons[1].event.velocity, 100);
    EXPECT_EQ(events_of(mod, PS_CMD_NOTE_OFF).size(), 2u);
}

TEST_F(SongDevicesTest, ModuleMidiOutSendsProgramNotesControllersAndReleasesOnRemoval) {
    MidiSink sink("zsink");
    int mod = add_logger();
    ASSERT_EQ(psynth_open_midi_out(mod, "zsink:in", 3, song.net), 0);
    ASSERT_GE(song.net->modules[mod].midi_out_port, 0);
    psynth_set_midi_prog(mod, 300, 5, song.net);  // bank 300 = MSB 2, LSB 44
    std::vector<unsigned char> expected;
    // Waits until the port got `more` after what it got so far, and checks it all.
    auto expect_more = [&](std::initializer_list<unsigned char> more) {
        expected.insert(expected.end(), more);
        ASSERT_TRUE(wait_until([&] { return sink.taken().size() >= expected.size(); })) << hex(sink.taken());
        EXPECT_EQ(sink.taken(), expected);
    };
    expect_more({0xB3, 0, 2, 0xB3, 0x20, 44, 0xC3, 5});
    zelfon_attach_sound(0, &song);
    // Cell note 61 is semitone 60 (MIDI 72); velocity byte 101 is 200 in the net (MIDI 100).
    zelfon_cell note = {61, 101, (uint16_t)(mod + 1), 0, 0, 0};
    zelfon_cell controller = {0, 0, (uint16_t)(mod + 1), 0, 135, 0x4A80};  // MIDI controller 7
    ASSERT_EQ(zelfon_send_live_cell(&note, 0, &song), 0);
    ASSERT_EQ(zelfon_send_live_cell(&controller, 1, &song), 0);
    expect_more({0x93, 72, 100, 0xB3, 7, 0x4A, 0xB3, 39, 0x40});
    zelfon_cell off = {ZELFON_NOTE_OFF, 0, (uint16_t)(mod + 1), 0, 0, 0};
    zelfon_send_live_cell(&off, 0, &song);
    expect_more({0x83, 72, 0x7F});
    // A note still held when the module goes away is released.
    zelfon_send_live_cell(&note, 0, &song);
    expect_more({0x93, 72, 100});
    sound_stream_lock();
    psynth_remove_synth(mod, song.net);
    sound_stream_unlock();
    expect_more({0x83, 72, 0x7F});
}

TEST_F(SongDevicesTest, LoadingWhileTheStreamPlaysTheSong) {
    int mod = add_logger();
    int slot = add_pattern(0, 16);
    cell(slot, 0, 0) = note_cell(49, mod + 1);
    const char* path = "3:/live.zelfon";
    ASSERT_EQ(zelfon_save_song(path, ZELFON_VERSION_MAJOR, ZELFON_VERSION_MINOR, &song), 0);
    zelfon_attach_sound(0, &song);
    zelfon_play(0, &song);
    for (int i = 0; i < 5; i++) {
        uint32_t refills = sound_stream_refills();
        EXPECT_EQ(zelfon_load_song(path, &song), 0);
        zelfon_play(0, &song);
        ASSERT_TRUE(wait_until([&] { return sound_stream_refills() - refills >= 2; }));
    }
    EXPECT_EQ(song.pats_capacity > 0, true);
    EXPECT_GT(sound_stream_refills(), 0u);
}

}  // namespace
