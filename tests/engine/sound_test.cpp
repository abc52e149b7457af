// Sound stream against a private JACK server (dummy driver, 256-frame periods): driver
// fallback, the refill's mixing and saturation, silence rules, a held slot mutex, and
// the server going away under a running stream.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <vector>

#include "engine/engine_test_env.h"
#include "engine/jack_test_server.h"
#include "engine/profile.h"
#include "engine/sound.h"

namespace {

std::atomic<int> g_calls[SOUND_SLOTS];
std::atomic<int> g_value{0};  // what the test slots write into every sample
std::atomic<int> g_frames{0};

int write_value_slot(sound_stream* ss, int slot) {
    sound_slot* s = &ss->slots[slot];
    int samples = s->frames * ss->channels;
    if (ss->type & SOUND_TYPE_INT16) {
        for (int i = 0; i < samples; i++) ((int16_t*)s->out)[i] = (int16_t)g_value.load();
    } else {
        for (int i = 0; i < samples; i++) ((float*)s->out)[i] = (float)g_value.load() / 32768.0f;
    }
    g_frames = s->frames;
    g_calls[slot]++;
    return 1;
}

class SoundStreamTest : public EngineDirFixture {
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
        profile_new(nullptr);
        for (auto& c : g_calls) c = 0;
        g_value = 0;
    }
    void TearDown() override {
        sound_stream_close();
        profile_close(nullptr);
        EngineDirFixture::TearDown();
    }
    // Waits for `n` more device buffers.
    static bool wait_refills(uint32_t n) {
        uint32_t start = sound_stream_refills();
        return wait_until([&] { return sound_stream_refills() - start >= n; });
    }
    static std::vector<int16_t> scope16(int frames) {
        std::vector<int16_t> v((size_t)frames * 2);
        sound_stream_read_scope(v.data(), frames);
        return v;
    }
    static JackTestServer* server_;
};
JackTestServer* SoundStreamTest::server_ = nullptr;

TEST_F(SoundStreamTest, OpensOnJackByDefaultAndRefillsAtTheDevicePace) {
    ASSERT_EQ(sound_stream_init(SOUND_TYPE_FLOAT32, 44100, 2), 0);
    EXPECT_EQ(g_snd.driver, SOUND_DRIVER_JACK);
    EXPECT_EQ(g_snd.buffer, 256);  // the server's period replaces the 4096 asked for
    EXPECT_NE(log_text().find("JACK buffer: 256 frames (asked for 4096)"), std::string::npos);
    sound_stream_set_slot(0, write_value_slot, nullptr);
    sound_stream_play(0);
    ASSERT_TRUE(wait_until([] { return g_calls[0] >= 1; }));
    auto t0 = std::chrono::steady_clock::now();
    int c0 = g_calls[0];
    ASSERT_TRUE(wait_until([&] { return g_calls[0] - c0 >= 40; }));
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    EXPECT_EQ(g_frames.load(), 256);
    // 40 periods of 256 frames last 0.23 s: a refill that ran freely would be far quicker.
    EXPECT_GT(seconds, 0.5 * 40 * 256 / 44100.0);
    EXPECT_TRUE(sound_stream_running());
}

TEST_F(SoundStreamTest, TwoFullScaleSlotsSaturateAndNeverWrap) {
    ASSERT_EQ(sound_stream_init(SOUND_TYPE_INT16, 44100, 2), 0);
    sound_stream_set_slot(0, write_value_slot, nullptr);
    sound_stream_set_slot(2, write_value_slot, nullptr);
    g_value = 32767;
    sound_stream_play(0);
    sound_stream_play(2);
    ASSERT_TRUE(wait_until([] { return g_calls[0] >= 2 && g_calls[2] >= 2; }));
    ASSERT_TRUE(wait_refills(2));
    for (int16_t v : scope16(256)) ASSERT_EQ(v, 32767);
    g_value = -30000;
    ASSERT_TRUE(wait_refills(3));
    for (int16_t v : scope16(256)) ASSERT_EQ(v, -32767);  // -32768 is never produced
}

TEST_F(SoundStreamTest, NoEnabledSlotPlaysZeros) {
    ASSERT_EQ(sound_stream_init(SOUND_TYPE_INT16, 44100, 2), 0);
    sound_stream_set_slot(1, write_value_slot, nullptr);
    g_value = 1000;
    sound_stream_play(1);
    ASSERT_TRUE(wait_until([] { return g_calls[1] >= 2; }));
    ASSERT_TRUE(wait_refills(1));
    EXPECT_EQ(scope16(256)[0], 1000);
    sound_stream_stop(1);
    ASSERT_TRUE(wait_refills(2));
    int calls = g_calls[1];
    ASSERT_TRUE(wait_refills(2));
    EXPECT_EQ(g_calls[1].load(), calls);
    for (int16_t v : scope16(256)) ASSERT_EQ(v, 0);
}

TEST_F(SoundStreamTest, HeldSlotMutexCostsSilenceNotAStall) {
    ASSERT_EQ(sound_stream_init(SOUND_TYPE_INT16, 44100, 2), 0);
    sound_stream_set_slot(0, write_value_slot, nullptr);
    g_value = 1000;
    sound_stream_play(0);
    ASSERT_TRUE(wait_until([] { return g_calls[0] >= 2; }));
    sound_stream_lock();
    int calls = g_calls[0];
    bool refilled = wait_refills(3);  // the device keeps its pace while the slots are held
    int calls_while_held = g_calls[0] - calls;
    std::vector<int16_t> held = scope16(256);
    sound_stream_unlock();
    ASSERT_TRUE(refilled);
    // At most the refill that had the mutex already when the test took it.
    EXPECT_LE(calls_while_held, 1);
    for (int16_t v : held) ASSERT_EQ(v, 0);
    ASSERT_TRUE(wait_until([&] { return g_calls[0] - calls >= 3; }));
}

TEST_F(SoundStreamTest, AlsaWithoutDevicesSwitchesToAnotherDriver) {
    profile_add_key("audiodriver", "alsa", -1, nullptr);
    int result = sound_stream_init(SOUND_TYPE_FLOAT32, 44100, 2);
    std::string log = log_text();
    EXPECT_NE(log.find("Switching to JACK"), std::string::npos) << log;
    if (result == 0) {
        EXPECT_NE(g_snd.driver, SOUND_DRIVER_ALSA);
    } else {
        EXPECT_EQ(g_snd.device, nullptr);
    }
}

TEST_F(SoundStreamTest, UnknownDriverNameStartsWithJack) {
    profile_add_key("audiodriver", "asio", -1, nullptr);
    ASSERT_EQ(sound_stream_init(SOUND_TYPE_FLOAT32, 44100, 2), 0);
    EXPECT_EQ(g_snd.driver, SOUND_DRIVER_JACK);
    EXPECT_EQ(log_text().find("Switching to"), std::string::npos);
}

TEST_F(SoundStreamTest, SurvivesTheServerGoingAwayAndReopensWhenItReturns) {
    ASSERT_EQ(sound_stream_init(SOUND_TYPE_FLOAT32, 44100, 2), 0);
    sound_stream_set_slot(0, write_value_slot, nullptr);
    sound_stream_play(0);
    ASSERT_TRUE(wait_until([] { return g_calls[0] >= 2; }));
    server_->stop(SIGKILL);
    ASSERT_TRUE(wait_until([] { return !sound_stream_running(); }));
    EXPECT_NE(log_text().find("the JACK stream has stopped"), std::string::npos);
    sound_stream_close();

    ASSERT_TRUE(server_->start());
    ASSERT_EQ(sound_stream_init(SOUND_TYPE_FLOAT32, 44100, 2), 0);
    sound_stream_set_slot(0, write_value_slot, nullptr);
    sound_stream_play(0);
    int calls = g_calls[0];
    EXPECT_TRUE(wait_until([&] { return g_calls[0] - calls >= 3; }));
}

}  // namespace
