// The Vorbis player: Ogg files encoded at test time from known tones play at the right pitch
// and level, follow notes, repeat or end, sum their voices, fade out on NOTE_OFF, survive
// damaged chunks, and render without allocating.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <tuple>
#include <vector>

#include "engine/memory.h"
#include "psynth/psynth_modules.h"
#include "psynth/vorbis_player.h"
#include "ogg_tone.h"
#include "test_modules.h"

namespace {

constexpr int kRate = 44100;
constexpr int kC5 = PSYNTH_VORBIS_BASE_PITCH;
constexpr int kOctave = 3072;
constexpr int kTonePeriod = 100;  // 441 Hz at 44100 Hz

enum { VOLUME, ORIGINAL_SPEED, FINETUNE, REPEAT, POLYPHONY, CHANNELS };

struct ev {
    int frame;
    int command;
    int id = -1;
    int pitch = kC5;
    int velocity = 256;
};

class VorbisPlayerTest : public PsynthFixture {
protected:
    void SetUp() override {
        PsynthFixture::SetUp();
        if (!ogg_tone_encoder_found()) GTEST_SKIP() << "oggenc is not installed";
        mod = psynth_add_synth(-1, psynth_vorbis_player, nullptr, 0, 0, 0, 125, 6, &net);
        ASSERT_GE(mod, 0);
        psynth_do_command(mod, PS_CMD_SETUP_FINISHED, &net);
    }

    std::string tone(const char* name, double hz, double seconds, int rate = kRate, int channels = 1,
                     double right_hz = 0) {
        std::string path = ogg_tone_make(temp_dir, name, hz, seconds, rate, channels, right_hz);
        EXPECT_FALSE(path.empty()) << "oggenc failed";
        return path;
    }
    // Puts `bytes` in the file chunk and sends SETUP_FINISHED, as loading a song does.
    void set_file_chunk(const std::vector<char>& bytes) {
        ASSERT_EQ(psynth_new_chunk(mod, PSYNTH_VORBIS_FILE_CHUNK, (int)bytes.size(), 0, 0, &net), 0);
        if (!bytes.empty()) memcpy(psynth_get_chunk(mod, PSYNTH_VORBIS_FILE_CHUNK, &net), bytes.data(), bytes.size());
        psynth_do_command(mod, PS_CMD_SETUP_FINISHED, &net);
    }
    static std::vector<char> read(const std::string& path) {
        std::ifstream in(path, std::ios::binary);
        return std::vector<char>((std::istreambuf_iterator<char>(in)), {});
    }
    void load(const std::string& path) { ASSERT_EQ(psynth_vorbis_player_load(mod, path.c_str(), &net), 0); }
    void set(int ctl, int value) { *net.modules[mod].ctls[ctl].value = value; }

    // Renders `frames` frames in buffers of `buffer` with the events, and returns the left
    // output (the right into *right); silent buffers read as zeros.
    std::vector<int> play(const std::vector<ev>& events, int frames, int buffer = 1024,
                          std::vector<int>* right = nullptr) {
        std::vector<int> left;
        for (int from = 0; from < frames; from += buffer) {
            int n = frames - from < buffer ? frames - from : buffer;
            for (const ev& e : events) {
                if (e.frame < from || e.frame >= from + n) continue;
                psynth_event x = {};
                x.command = e.command, x.id = e.id, x.offset = e.frame - from;
                x.velocity = (uint16_t)e.velocity, x.pitch = e.pitch;
                psynth_add_event(mod, &x, &net);
            }
            render_buffer(&net, n);
            const psynth_module& m = net.modules[mod];
            for (int i = 0; i < n; i++) {
                left.push_back(i >= m.output_start[0] ? m.output_buffers[0][i] : 0);
                if (right) right->push_back(i >= m.output_start[1] ? m.output_buffers[1][i] : 0);
            }
        }
        return left;
    }

    int mod = -1;
};

TEST_F(VorbisPlayerTest, PlaysTheToneAtItsPitchAndLevel) {
    load(tone("a441", 441, 1.0));
    psynth_vorbis_info info;
    ASSERT_EQ(psynth_vorbis_player_get_info(mod, &info, &net), 0);
    EXPECT_EQ(std::tuple(info.frames, info.channels, info.rate), std::tuple(kRate, 1, kRate));
    int size = 0, rate = 0;
    ASSERT_EQ(psynth_get_chunk_info(mod, PSYNTH_VORBIS_FILE_CHUNK, &size, nullptr, &rate, &net), 0);
    EXPECT_GT(size, 1000);
    EXPECT_EQ(rate, kRate);

    std::vector<int> right;
    std::vector<int> out = play({{0, PS_CMD_NOTE_ON, 1}}, 8192, 1024, &right);
    EXPECT_NEAR(ogg_tone_period(out, 500, 8192), kTonePeriod, 0.01);
    EXPECT_EQ(out, right) << "a mono file feeds both sides";
    // Half of full scale: 2048 in 13.3 units, less what the encoder takes.
    EXPECT_NEAR(peak(out, 500, 8192), 2048, 40);

    struct { int pitch, original, finetune; double period; } cases[] = {
        {kC5 - kOctave, 0, 0, kTonePeriod / 2.0},   // C6: twice as fast
        {kC5 + kOctave, 0, 0, kTonePeriod * 2.0},   // C4: half
        {kC5 - 7 * 256, 0, 0, kTonePeriod / 1.4983},  // a fifth up
        {kC5 - kOctave, 1, 0, kTonePeriod},         // original speed ignores the note
        {kC5, 0, 256, kTonePeriod / 1.05946},       // finetune: a semitone up
        {kC5, 1, -256, kTonePeriod * 1.05946},      // ... also at original speed
    };
    for (const auto& c : cases) {
        psynth_do_command(mod, PS_CMD_CLEAN, &net);
        set(ORIGINAL_SPEED, c.original);
        set(FINETUNE, c.finetune);
        out = play({{0, PS_CMD_NOTE_ON, 1, c.pitch}}, 8192);
        EXPECT_NEAR(ogg_tone_period(out, 500, 8192), c.period, c.period * 0.001) << c.pitch << " " << c.original;
    }
}

TEST_F(VorbisPlayerTest, PlaysOnceOrRepeatsAndFallsSilent) {
    load(tone("short", 490, 0.1));  // 4410 frames: 49 periods of 90, so that it loops seamlessly
    std::vector<int> out = play({{0, PS_CMD_NOTE_ON, 1}}, 8192);
    EXPECT_GT(peak(out, 0, 4300), 1500);
    EXPECT_EQ(peak(out, 4411, 8192), 0) << "silent after the end";
    // The module says so: its outputs start at the end of the buffer.
    render_buffer(&net, 512);
    EXPECT_EQ(std::pair(net.modules[mod].output_start[0], net.modules[mod].output_start[1]), std::pair(512, 512));

    // From the middle (a sample offset of half the length) half the file is left.
    out = play({{0, PS_CMD_NOTE_ON, 1}, {0, PS_CMD_SET_SAMPLE_OFFSET2, 1, kC5, 16384}}, 4096);
    EXPECT_GT(peak(out, 0, 2100), 1500);
    EXPECT_EQ(peak(out, 2206, 4096), 0);

    set(REPEAT, 1);
    out = play({{0, PS_CMD_NOTE_ON, 1}}, 16384);
    for (int block = 0; block < 16; block++) EXPECT_GT(peak(out, block * 1024, block * 1024 + 1024), 1500) << block;
    EXPECT_NEAR(ogg_tone_period(out, 500, 16384), 90, 0.1) << "the loop keeps the tone";
    // NOTE_OFF fades out within 10 ms, then the voice ends.
    out = play({{0, PS_CMD_NOTE_OFF, 1}}, 2048);
    EXPECT_GT(peak(out, 0, 100), 1000);
    EXPECT_EQ(peak(out, kRate / 100 + 1, 2048), 0);
    EXPECT_EQ(net.modules[mod].output_start[0], 2048 - 1024) << "silent again";
}

TEST_F(VorbisPlayerTest, VoicesSumAndChannelsFollowTheSwitch) {
    load(tone("stereo", 441, 0.5, kRate, 2, 882));
    std::vector<int> right;
    std::vector<int> a = play({{0, PS_CMD_NOTE_ON, 1}}, 4096, 1024, &right);
    EXPECT_NEAR(ogg_tone_period(a, 500, 4096), kTonePeriod, 0.02);
    EXPECT_NEAR(ogg_tone_period(right, 500, 4096), kTonePeriod / 2.0, 0.02) << "the right channel is its own";
    psynth_do_command(mod, PS_CMD_CLEAN, &net);
    std::vector<int> b = play({{300, PS_CMD_NOTE_ON, 2, kC5 - kOctave, 128}}, 4096);
    psynth_do_command(mod, PS_CMD_CLEAN, &net);
    std::vector<int> both = play({{0, PS_CMD_NOTE_ON, 1}, {300, PS_CMD_NOTE_ON, 2, kC5 - kOctave, 128}}, 4096);
    for (int i = 0; i < 4096; i++) ASSERT_EQ(both[i], a[i] + b[i]) << "frame " << i;

    // Polyphony 1: the second note takes the only voice.
    psynth_do_command(mod, PS_CMD_CLEAN, &net);
    set(POLYPHONY, 1);
    std::vector<int> one = play({{0, PS_CMD_NOTE_ON, 1}, {300, PS_CMD_NOTE_ON, 2, kC5 - kOctave, 128}}, 4096);
    for (int i = 300; i < 4096; i++) ASSERT_EQ(one[i], b[i]) << "frame " << i;

    // Mono: one output, the two channels averaged.
    psynth_do_command(mod, PS_CMD_CLEAN, &net);
    set(POLYPHONY, 8);
    set(CHANNELS, 1);
    std::vector<int> mono = play({{0, PS_CMD_NOTE_ON, 1}}, 4096);
    EXPECT_EQ(net.modules[mod].output_channels, 1);
    for (int i = 0; i < 4096; i++) ASSERT_NEAR(mono[i], (a[i] + right[i]) / 2, 1) << "frame " << i;
}

TEST_F(VorbisPlayerTest, DamagedFilesGiveAnErrorAndASilentModule) {
    std::string path = tone("good", 441, 0.5);
    std::vector<char> good = read(path);
    ASSERT_GT(good.size(), 1000u);
    std::vector<char> noise(good.size());
    srand(7);
    for (char& c : noise) c = (char)rand();
    std::vector<char> no_vorbis = good;
    memcpy(no_vorbis.data() + 28, "Xvorbis", 7);  // the identification header's magic

    struct { const char* what; std::vector<char> bytes; } bad[] = {
        {"zero length", {}},
        {"cut in the headers", std::vector<char>(good.begin(), good.begin() + 100)},
        {"random bytes", noise},
        {"not Vorbis", no_vorbis},
    };
    for (auto& b : bad) {
        set_file_chunk(b.bytes);
        EXPECT_EQ(psynth_vorbis_player_get_info(mod, nullptr, &net), 1) << b.what;
        std::vector<int> out = play({{0, PS_CMD_NOTE_ON, 1}}, 2048);
        EXPECT_EQ(peak(out, 0, 2048), 0) << b.what;
        EXPECT_EQ(net.modules[mod].output_start[0], 1024) << b.what;
        // From a file: an error code, and the module keeps what it had.
        load(path);
        std::string bad_path = temp_dir + "/bad.ogg";
        std::ofstream(bad_path, std::ios::binary).write(b.bytes.data(), (std::streamsize)b.bytes.size());
        int err = psynth_vorbis_player_load(mod, bad_path.c_str(), &net);
        EXPECT_TRUE(err == PSYNTH_VORBIS_ERROR_NOT_VORBIS || err == PSYNTH_VORBIS_ERROR_EMPTY) << b.what << " " << err;
        psynth_vorbis_info info;
        ASSERT_EQ(psynth_vorbis_player_get_info(mod, &info, &net), 0) << b.what;
        EXPECT_EQ(info.frames, kRate / 2);
    }
    EXPECT_NE(log_text().find("not an Ogg Vorbis file"), std::string::npos);
    EXPECT_NE(log_text().find("stays silent"), std::string::npos);
    EXPECT_EQ(psynth_vorbis_player_load(mod, (temp_dir + "/missing.ogg").c_str(), &net), PSYNTH_VORBIS_ERROR_CANT_OPEN);
    EXPECT_EQ(psynth_vorbis_player_load(0, path.c_str(), &net), PSYNTH_VORBIS_ERROR_MODULE);

    // Damage in the sound pages: the decoder skips what it cannot read; nothing crashes and
    // the module never claims more than the file holds.
    for (int k = 0; k < 20; k++) {
        std::vector<char> flipped = good;
        for (int j = 0; j < 8; j++) flipped[200 + rand() % (flipped.size() - 200)] ^= (char)(1 + rand() % 255);
        set_file_chunk(flipped);
        psynth_vorbis_info info;
        if (psynth_vorbis_player_get_info(mod, &info, &net) == 0) {
            EXPECT_LE(info.frames, kRate / 2);
        }
        play({{0, PS_CMD_NOTE_ON, 1}}, 2048);
    }

    // A longer file cut short plays what its whole pages hold.
    std::vector<char> cut = read(tone("long", 441, 10.0));
    cut.resize(cut.size() * 6 / 10);
    set_file_chunk(cut);
    psynth_vorbis_info info;
    ASSERT_EQ(psynth_vorbis_player_get_info(mod, &info, &net), 0);
    EXPECT_GT(info.frames, kRate);
    EXPECT_LT(info.frames, 6 * kRate);
}

// The CRC of an Ogg page (polynomial 0x04C11DB7, not reflected, from 0), its own field zero.
uint32_t ogg_page_crc(const char* page, size_t size) {
    uint32_t crc = 0;
    for (size_t i = 0; i < size; i++) {
        crc ^= (uint32_t)(uint8_t)(i >= 22 && i < 26 ? 0 : page[i]) << 24;
        for (int b = 0; b < 8; b++) crc = crc & 0x80000000u ? (crc << 1) ^ 0x04C11DB7u : crc << 1;
    }
    return crc;
}

TEST_F(VorbisPlayerTest, ALastPageClaimingAnHourTakesTheMemoryOfWhatDecodes) {
    std::vector<char> file = read(tone("pages", 441, 5.0));  // several sound pages: the first one's position stays
    size_t last = 0;
    for (size_t i = 0; i + 27 <= file.size(); i++) {
        if (!memcmp(&file[i], "OggS", 4)) last = i;
    }
    ASSERT_GT(last, 0u);
    const uint64_t hour = 3600ull * kRate;
    for (int b = 0; b < 8; b++) file[last + 6 + b] = (char)(hour >> (8 * b));  // the granule position
    uint32_t crc = ogg_page_crc(&file[last], file.size() - last);
    for (int b = 0; b < 4; b++) file[last + 22 + b] = (char)(crc >> (8 * b));

    set_file_chunk(file);
    psynth_vorbis_info info;
    ASSERT_EQ(psynth_vorbis_player_get_info(mod, &info, &net), 0);
    EXPECT_LE(info.frames, 5 * kRate + 2048);  // the true end is no longer cut to the sample
    EXPECT_LT(mem_get_stats().max_storage_used, 4 << 20) << "an hour would be 317 MB, the limit 96 MB";
}

TEST_F(VorbisPlayerTest, RendersWithoutAllocating) {
    load(tone("steady", 441, 0.2));
    set(REPEAT, 1);
    std::vector<ev> events;
    for (int k = 0; k < 16; k++) {
        events.push_back({k * 700, PS_CMD_NOTE_ON, k % 5, kC5 - (k % 7) * 300, 100 + k * 9});
        events.push_back({k * 700 + 350, PS_CMD_NOTE_OFF, (k + 2) % 5});
        events.push_back({k * 700 + 500, PS_CMD_SET_FREQ, k % 5, kC5 + 500});
    }
    play(events, 4096);  // warm-up
    uint64_t before = mem_get_stats().allocations;
    std::vector<int> out = play(events, 16 * 700, 333);
    EXPECT_EQ(mem_get_stats().allocations, before) << "the render allocated";
    EXPECT_GT(peak(out, 0, (int)out.size()), 1000);
}

}  // namespace
