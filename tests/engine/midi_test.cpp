// MIDI client against a private JACK server: ports opened by device name, time-stamped
// input in the per-port rings (a message wrapped at the end of the data ring reads back
// whole), output of split messages, listing, and the empty-client errors.
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "engine/engine_test_env.h"
#include "engine/jack_test_server.h"
#include "engine/midi.h"

namespace {

class MidiClientTest : public EngineDirFixture {
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
        EngineDirFixture::SetUp();
        ASSERT_EQ(tarvik_midi_client_open(&client, "PSynth"), 0);
    }
    void TearDown() override {
        tarvik_midi_client_close(&client);
        EngineDirFixture::TearDown();
    }
    tarvik_midi_client client{};
    static JackTestServer* server_;
};
JackTestServer* MidiClientTest::server_ = nullptr;

TEST_F(MidiClientTest, InputPortQueuesTimeStampedMessagesFromTheNamedDevice) {
    RtMidiOut keys(RtMidi::UNIX_JACK, "zkeys");
    keys.openVirtualPort("out");
    int port = tarvik_midi_client_open_port(&client, "Keyboard", "zkeys:out", MIDI_PORT_READ);
    ASSERT_GE(port, 0) << log_text();
    tarvik_ticks before = tarvik_time_ticks();
    const unsigned char on[3] = {0x90, 60, 100}, pressure[2] = {0xD3, 17};
    keys.sendMessage(on, 3);
    keys.sendMessage(pressure, 2);
    ASSERT_TRUE(wait_until([&] { return tarvik_midi_client_get_event(&client, port) != nullptr; }));
    tarvik_midi_event* e = tarvik_midi_client_get_event(&client, port);
    ASSERT_EQ(e->size, 3u);
    EXPECT_EQ(std::vector<uint8_t>(e->data, e->data + 3), std::vector<uint8_t>({0x90, 60, 100}));
    EXPECT_LE((int32_t)(before - e->t), 0);
    EXPECT_EQ(tarvik_midi_client_next_event(&client, port), 0);
    ASSERT_TRUE(wait_until([&] { return tarvik_midi_client_get_event(&client, port) != nullptr; }));
    e = tarvik_midi_client_get_event(&client, port);
    ASSERT_EQ(e->size, 2u) << std::hex << (int)e->data[0] << " " << (int)e->data[1];
    EXPECT_EQ(e->data[1], 17);
    tarvik_midi_client_next_event(&client, port);
    EXPECT_EQ(tarvik_midi_client_get_event(&client, port), nullptr);
    EXPECT_EQ(tarvik_midi_client_close_port(&client, port), 0);
}

TEST_F(MidiClientTest, MessageAtTheEndOfTheDataRingIsStoredWholeFromItsStart) {
    RtMidiOut keys(RtMidi::UNIX_JACK, "zkeys");
    keys.openVirtualPort("out");
    int port = tarvik_midi_client_open_port(&client, "Keyboard", "zkeys:out", MIDI_PORT_READ);
    ASSERT_GE(port, 0);
    // 5461 messages of 3 bytes fill the ring up to byte 16383; the next one cannot fit.
    const int before_end = MIDI_DATA_RING_SIZE / 3;
    uint8_t msg[3] = {0x90, 0, 0};
    for (int i = 0; i < before_end; i++) {
        msg[1] = (uint8_t)(i & 0x7F);
        ASSERT_EQ(tarvik_midi_client_receive(&client, port, msg, 3, (tarvik_ticks)i), 0);
        tarvik_midi_event* e = tarvik_midi_client_get_event(&client, port);
        ASSERT_NE(e, nullptr);
        tarvik_midi_client_next_event(&client, port);
    }
    const uint8_t straddling[3] = {0xB2, 7, 99}, after[2] = {0xC2, 5};
    ASSERT_EQ(tarvik_midi_client_receive(&client, port, straddling, 3, 1234), 0);
    ASSERT_EQ(tarvik_midi_client_receive(&client, port, after, 2, 1235), 0);
    tarvik_midi_event* e = tarvik_midi_client_get_event(&client, port);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->size, 3u);
    EXPECT_EQ(e->t, 1234u);
    EXPECT_EQ(std::vector<uint8_t>(e->data, e->data + 3), std::vector<uint8_t>({0xB2, 7, 99}));
    uint8_t* ring_start = e->data;
    tarvik_midi_client_next_event(&client, port);
    e = tarvik_midi_client_get_event(&client, port);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->data, ring_start + 3);  // the wrapped message began the ring anew
    EXPECT_EQ(std::vector<uint8_t>(e->data, e->data + 2), std::vector<uint8_t>({0xC2, 5}));
    // Data bytes alone are not queued; a full event ring drops the newest message.
    tarvik_midi_client_next_event(&client, port);
    EXPECT_EQ(tarvik_midi_client_receive(&client, port, msg + 1, 2, 0), -1);
    for (int i = 0; i < MIDI_EVENT_RING_SIZE - 1; i++) ASSERT_EQ(tarvik_midi_client_receive(&client, port, msg, 3, 0), 0);
    EXPECT_EQ(tarvik_midi_client_receive(&client, port, msg, 3, 0), -1);
}

TEST_F(MidiClientTest, OutputPortSendsEachStatusAsItsOwnMessage) {
    MidiSink sink("zsink");
    int port = tarvik_midi_client_open_port(&client, "1 Generator MIDI OUT", "zsink:in", MIDI_PORT_WRITE);
    ASSERT_GE(port, 0) << log_text();
    uint8_t pair[6] = {0xB3, 1, 64, 0xB3, 33, 10};
    tarvik_midi_event e = {tarvik_time_ticks(), 6, pair};
    EXPECT_EQ(tarvik_midi_client_send_event(&client, port, &e), 0);
    ASSERT_TRUE(wait_until([&] { return sink.taken().size() >= 6; }));
    EXPECT_EQ(sink.taken(), std::vector<unsigned char>(pair, pair + 6));
    // Sending on an input port or a closed one fails.
    EXPECT_EQ(tarvik_midi_client_close_port(&client, port), 0);
    EXPECT_EQ(tarvik_midi_client_send_event(&client, port, &e), -1);
}

TEST_F(MidiClientTest, ListsDevicesAndReportsMissingOnes) {
    RtMidiOut keys(RtMidi::UNIX_JACK, "zkeys");
    keys.openVirtualPort("out");
    std::vector<std::string> names;
    int count = tarvik_midi_client_get_devices(
        &client, MIDI_PORT_READ, [](const char* name, void* data) { ((std::vector<std::string>*)data)->push_back(name); },
        &names);
    EXPECT_EQ(count, (int)names.size());
    EXPECT_NE(std::find(names.begin(), names.end(), "zkeys:out"), names.end());
    EXPECT_EQ(tarvik_midi_client_open_port(&client, "Keyboard", "No Such Keyboard", MIDI_PORT_READ), -1);
    EXPECT_NE(log_text().find("MIDI device not found."), std::string::npos);
}

TEST_F(MidiClientTest, EmptyClientLogsItsErrors) {
    tarvik_midi_client empty{};
    tarvik_midi_event e = {0, 0, nullptr};
    EXPECT_EQ(tarvik_midi_client_open_port(&empty, "Keyboard", "zkeys:out", MIDI_PORT_READ), -1);
    EXPECT_EQ(tarvik_midi_client_get_event(&empty, 0), nullptr);
    EXPECT_EQ(tarvik_midi_client_next_event(&empty, 0), -1);
    EXPECT_EQ(tarvik_midi_client_send_event(&empty, 0, &e), -1);
    EXPECT_EQ(tarvik_midi_client_close_port(&empty, 0), -1);
    std::string log = log_text();
    for (const char* text : {"Add port error: empty device_midi_client", "get_event error: empty client",
                             "next_event error: empty client", "send_event error: empty client",
                             "Remove port error: empty device_midi_client"}) {
        EXPECT_NE(log.find(text), std::string::npos) << text;
    }
}

}  // namespace
