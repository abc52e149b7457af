// Sample files into the Sampler: the creation step, WAV, AIFF and AIFC files made by sox
// at test time, XI instruments built byte by byte, RAW data, JPEG images made by cjpeg,
// every reader's error paths, files cut short at every byte, and saving as WAV.
// Input values are chosen so that every tool converts them exactly.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "psynth/psynth_modules.h"
#include "psynth/sample_file.h"
#include "psynth/sampler.h"
#include "test_modules.h"

namespace {

constexpr int kFrames = 600;

// Test values: multiples of 256, so that 8-bit, 16-bit, 24-bit and 32-bit files all hold them exactly.
int16_t left_value(int i) { return (int16_t)(((i * 37) % 256 - 128) * 256); }
int16_t right_value(int i) { return (int16_t)(((i * 91 + 5) % 256 - 128) * 256); }

std::string bytes_le(uint32_t v, int n) {
    std::string s;
    for (int i = 0; i < n; i++) s += (char)(v >> (8 * i));
    return s;
}
std::string bytes_be(uint32_t v, int n) {
    std::string s;
    for (int i = n - 1; i >= 0; i--) s += (char)(v >> (8 * i));
    return s;
}

// The finetune a rate gets, from the frequency table's definition.
int reference_finetune(int rate) {
    int best = 0;
    double best_distance = 1e18;
    for (int i = 0; i < 7680; i++) {
        int p = 7680 - i;
        int64_t f = (int64_t)std::floor(535232 * std::pow(2.0, -(double)(p % 768) / 768)) >> (p / 768);
        if (std::fabs((double)(f - rate)) < best_distance) {
            best_distance = std::fabs((double)(f - rate));
            best = i;
        }
    }
    return 2 * (best % 64);
}

class SampleFileTest : public PsynthFixture {
protected:
    int mod = -1;

    void SetUp() override {
        PsynthFixture::SetUp();
        mod = psynth_add_synth(-1, psynth_sampler, nullptr, 0, 0, 0, 125, 6, &net);
        ASSERT_GE(mod, 0);
        psynth_make_link(0, mod, &net);
        psynth_do_command(mod, PS_CMD_SETUP_FINISHED, &net);
    }

    std::string path(const std::string& name) const { return temp_dir + "/" + name; }
    void write(const std::string& name, const std::string& bytes) const {
        std::ofstream(path(name), std::ios::binary) << bytes;
    }
    std::string read(const std::string& name) const {
        std::ifstream in(path(name), std::ios::binary);
        std::ostringstream s;
        s << in.rdbuf();
        return s.str();
    }
    // The ramp as 16-bit little-endian raw data, 1 or 2 channels.
    void write_raw16(const std::string& name, int channels, int frames = kFrames) const {
        std::string s;
        for (int i = 0; i < frames; i++) {
            s += bytes_le((uint16_t)left_value(i), 2);
            if (channels == 2) s += bytes_le((uint16_t)right_value(i), 2);
        }
        write(name, s);
    }
    // sox converts the raw ramp into `out` with `options` (bits, file type).
    void sox(const std::string& out, int channels, const std::string& options, int rate = 44100, int frames = kFrames) {
        write_raw16("in.raw", channels, frames);
        std::string r = std::to_string(rate);
        std::string cmd = "sox -D -t raw -r " + r + " -e signed -b 16 -c " + std::to_string(channels) + " '" +
                          path("in.raw") + "' " + options + " '" + path(out) + "'";
        ASSERT_EQ(std::system(cmd.c_str()), 0) << cmd;
    }
    int load(const std::string& name, int slot = -1, int flags = 0) {
        return psynth_sample_load(path(name).c_str(), mod, slot, flags, &net);
    }

    psynth_sampler_instrument* ins() { return (psynth_sampler_instrument*)psynth_get_chunk(mod, 0, &net); }
    psynth_sampler_sample* header(int s) { return (psynth_sampler_sample*)psynth_get_chunk(mod, 2 * s + 1, &net); }
    template <class T>
    const T* data(int s) { return (const T*)psynth_get_chunk(mod, 2 * s + 2, &net); }
    struct chunk_info {
        int size = -1, flags = -1, rate = -1;
    };
    chunk_info info(int s) {
        chunk_info c;
        psynth_get_chunk_info(mod, 2 * s + 2, &c.size, &c.flags, &c.rate, &net);
        return c;
    }

    // Whatever a load left behind can be played: headers stay within their data, and a
    // note over every sample renders (under the sanitizers this reads every frame).
    void expect_playable(const std::string& context) {
        const psynth_sampler_instrument* i = ins();
        if (!i) return;
        ASSERT_LE(i->samples_num, 16) << context;
        for (int s = 0; s < i->samples_num; s++) {
            const psynth_sampler_sample* h = header(s);
            if (!h || !data<uint8_t>(s)) continue;
            int bytes = ((h->type >> 4) & 3) == 0 ? 1 : ((h->type >> 4) & 3) == 1 ? 2 : 4;
            int frame = bytes * (h->type & 0x40 ? 2 : 1);
            ASSERT_LE((int64_t)h->length * frame, info(s).size) << context << " sample " << s;
        }
        psynth_event e = {};
        e.command = PS_CMD_NOTE_ON;
        e.id = 1;
        e.note = 60;
        e.velocity = 256;
        e.pitch = 60 * 256;
        psynth_add_event(mod, &e, &net);
        render_buffer(&net, 512);
        psynth_do_command(mod, PS_CMD_CLEAN, &net);
    }
    void expect_failure(int result, const std::string& message, const std::string& context) {
        EXPECT_EQ(result, 1) << context;
        EXPECT_TRUE(psynth_sample_not_recognized()) << context;
        EXPECT_EQ(std::string(psynth_sample_load_error()), message) << context;
    }
};

TEST_F(SampleFileTest, CreationStepBuildsTheInstrumentHeaderAndData) {
    ASSERT_NE(psynth_sample_create("a name longer than twenty-two", 4000, 16, 2, 44100, -1, mod, &net), nullptr);
    ASSERT_NE(ins(), nullptr);
    EXPECT_EQ(std::string(ins()->name, 22), "a name longer than twe");  // cut to 22, no terminator
    EXPECT_EQ(ins()->samples_num, 1);
    EXPECT_EQ(ins()->volume, 64);
    EXPECT_EQ(ins()->panning, 128);
    EXPECT_EQ(ins()->volume_points_num, 4);
    EXPECT_EQ(ins()->volume_table[32], 1024);  // tables built
    const psynth_sampler_sample* h = header(0);
    EXPECT_EQ(h->length, 1000u);  // 4000 bytes of 16-bit stereo frames
    EXPECT_EQ(h->loop_start, 0u);
    EXPECT_EQ(h->loop_length, 0u);
    EXPECT_EQ(h->volume, 64);
    EXPECT_EQ(h->panning, 128);
    EXPECT_EQ(h->finetune, 100);  // 44100 Hz
    EXPECT_EQ(h->relative_note, 0);
    EXPECT_EQ(h->type, 0x10 | 0x40);
    EXPECT_EQ(info(0).size, 4000);
    EXPECT_EQ(info(0).flags, 2 | 8);
    EXPECT_EQ(info(0).rate, 44100);

    ASSERT_NE(psynth_sample_create("eight", 301, 8, 1, 8363, 3, mod, &net), nullptr);
    EXPECT_EQ(ins()->samples_num, 4);  // one more than the highest slot with a header
    EXPECT_EQ(std::string(ins()->name, 22), "a name longer than twe");
    EXPECT_EQ(header(3)->type, 0);
    EXPECT_EQ(header(3)->length, 301u);
    EXPECT_EQ(header(3)->finetune, 0);  // the table's own rate at pitch 0
    EXPECT_EQ(info(3).flags, 1);
    ASSERT_NE(psynth_sample_create("float", 800, 32, 2, 9001, 1, mod, &net), nullptr);
    EXPECT_EQ(header(1)->type, 0x20 | 0x40);
    EXPECT_EQ(header(1)->length, 100u);
    EXPECT_EQ(info(1).flags, 4 | 8);
    EXPECT_EQ(ins()->samples_num, 4);

    for (int rate : {44100, 8363, 22050, 48000, 9001, 11025, 96000, 1, 0, 1000000}) {
        EXPECT_EQ(psynth_sample_finetune_for_rate(rate), reference_finetune(rate)) << rate;
    }
    EXPECT_EQ(psynth_sample_create("x", 10, 24, 1, 44100, 0, mod, &net), nullptr);
    EXPECT_EQ(psynth_sample_create("x", 10, 16, 3, 44100, 0, mod, &net), nullptr);
    EXPECT_EQ(psynth_sample_create("x", 10, 16, 1, 44100, 16, mod, &net), nullptr);
    EXPECT_EQ(ins()->samples_num, 4);
    EXPECT_NE(log_text().find("Can't create the sample\n"), std::string::npos);

    // Slot −1 replaces the instrument record, named anew.
    ASSERT_NE(psynth_sample_create("new", 2, 16, 1, 44100, -1, mod, &net), nullptr);
    EXPECT_STREQ(ins()->name, "new");
}

TEST_F(SampleFileTest, WavFilesOfEveryDepthAndLayoutLoadExactly) {
    for (int channels : {1, 2}) {
        for (int bits : {8, 16, 24, 32}) {
            std::string ctx = std::to_string(bits) + " bits, " + std::to_string(channels) + " channels";
            sox("t.wav", channels, "-b " + std::to_string(bits) + " -t wavpcm");
            ASSERT_EQ(load("t.wav"), 0) << ctx << ": " << psynth_sample_load_error();
            EXPECT_FALSE(psynth_sample_not_recognized());
            EXPECT_STREQ(ins()->name, "t.wav");
            EXPECT_STREQ(header(0)->name, "t.wav");
            EXPECT_EQ(header(0)->length, (uint32_t)kFrames) << ctx;
            EXPECT_EQ(header(0)->finetune, 100);
            EXPECT_EQ(header(0)->relative_note, 0);
            int format = bits == 8 ? 0 : bits == 16 ? 1 : 2;
            EXPECT_EQ(header(0)->type, (format << 4) | (channels == 2 ? 0x40 : 0)) << ctx;
            EXPECT_EQ(info(0).flags, (bits == 8 ? 1 : bits == 16 ? 2 : 4) | (channels == 2 ? 8 : 0)) << ctx;
            EXPECT_EQ(info(0).rate, 44100);
            EXPECT_EQ(info(0).size, kFrames * channels * (bits == 8 ? 1 : bits == 16 ? 2 : 4)) << ctx;
            for (int i = 0; i < kFrames * channels; i++) {
                int v = channels == 2 && (i & 1) ? right_value(i / 2) : left_value(i / channels);
                if (bits == 8) { ASSERT_EQ(data<int8_t>(0)[i], v / 256) << ctx << " value " << i; }
                if (bits == 16) { ASSERT_EQ(data<int16_t>(0)[i], v) << ctx << " value " << i; }
                if (bits == 24) { ASSERT_EQ(data<float>(0)[i], (float)v / 32768) << ctx << " value " << i; }
                if (bits == 32) { ASSERT_EQ(data<int32_t>(0)[i], v * 65536) << ctx << " value " << i; }  // kept as is
            }
            expect_playable(ctx);
        }
    }
    // sox's own header choice: plain for 8 and 16 bits, the extensible header (format tag
    // 0xFFFE) for 24 and 32 bits, which only takes uncompressed PCM is refused.
    sox("d16.wav", 2, "-b 16");
    ASSERT_EQ(load("d16.wav"), 0);
    EXPECT_EQ(data<int16_t>(0)[1], right_value(0));
    sox("d24.wav", 1, "-b 24");
    expect_failure(load("d24.wav"), "Only uncompressed PCM files supported\n", "extensible 24-bit");
    // The same file with the tag made 1: the 40-byte "fmt " chunk and a "fact" chunk are stepped over.
    std::string ext = read("d24.wav");
    ASSERT_EQ(ext.substr(16, 4), bytes_le(40, 4));
    ext[20] = 1;
    ext[21] = 0;
    write("e24.wav", ext);
    ASSERT_EQ(load("e24.wav"), 0) << psynth_sample_load_error();
    EXPECT_EQ(header(0)->length, (uint32_t)kFrames);
    EXPECT_EQ(data<float>(0)[kFrames - 1], (float)left_value(kFrames - 1) / 32768);

    // Another rate goes to the data chunk and the finetune.
    sox("r.wav", 1, "-b 16", 22050);
    ASSERT_EQ(load("r.wav"), 0);
    EXPECT_EQ(info(0).rate, 22050);
    EXPECT_EQ(header(0)->finetune, reference_finetune(22050));
}

// A WAV file built by hand: an odd-sized "fmt " chunk (padded), a chunk before the data,
// an odd data size with its pad byte and a second "data" chunk that is skipped.
TEST_F(SampleFileTest, WavChunkWalkHandlesPaddingAndRepeatedData) {
    std::string fmt = bytes_le(1, 2) + bytes_le(1, 2) + bytes_le(11025, 4) + bytes_le(11025, 4) + bytes_le(1, 2) +
                      bytes_le(8, 2) + "x" + std::string(1, 0);  // 17 bytes and a pad
    std::string body = "WAVE" + std::string("fmt ") + bytes_le(17, 4) + fmt + "LIST" + bytes_le(4, 4) + "abcd" +
                       "data" + bytes_le(3, 4) + "\x80\xff\x00" + std::string(1, 0) + "data" + bytes_le(2, 4) + "zz";
    write("h.wav", "RIFF" + bytes_le((uint32_t)body.size(), 4) + body);
    ASSERT_EQ(load("h.wav"), 0) << psynth_sample_load_error();
    EXPECT_EQ(header(0)->length, 3u);
    EXPECT_EQ(info(0).rate, 11025);
    EXPECT_EQ(data<int8_t>(0)[0], 0);
    EXPECT_EQ(data<int8_t>(0)[1], 127);
    EXPECT_EQ(data<int8_t>(0)[2], -128);
    // Before any "fmt " chunk: 16-bit mono at 44100 Hz.
    std::string bare = "WAVE" + std::string("data") + bytes_le(4, 4) + bytes_le(0x1234, 2) + bytes_le(0xFFFF, 2);
    write("bare.wav", "RIFF" + bytes_le((uint32_t)bare.size(), 4) + bare);
    ASSERT_EQ(load("bare.wav"), 0);
    EXPECT_EQ(header(0)->type, 0x10);
    EXPECT_EQ(data<int16_t>(0)[0], 0x1234);
    EXPECT_EQ(data<int16_t>(0)[1], -1);
}

TEST_F(SampleFileTest, WavErrorsStopTheLoadWithTheirMessages) {
    sox("good.wav", 1, "-b 16 -t wavpcm", 44100, 100);
    const std::string good = read("good.wav");
    ASSERT_EQ(good.size(), 44u + 200);
    auto patched = [&](int at, uint32_t value, int width) {
        std::string s = good;
        s.replace(at, width, bytes_le(value, width));
        return s;
    };
    write("bits.wav", patched(34, 12, 2));
    expect_failure(load("bits.wav"), "12 bits not supported\n", "12 bits");
    write("ch.wav", patched(22, 3, 2));
    expect_failure(load("ch.wav"), "3 channels not supported\n", "3 channels");
    write("big.wav", patched(40, 244, 4));
    expect_failure(load("big.wav"), "Incorrect 'data' chunk (244 bytes)\n", "data as large as the file");
    write("short.wav", patched(40, 243, 4));  // passes the size check, then the file ends
    expect_failure(load("short.wav"), "Unexpected end of file\n", "data beyond the end");
    EXPECT_EQ(header(0)->length, 121u);       // what was made stays: 243 bytes of frames
    expect_playable("data beyond the end");
    sox("ulaw.wav", 1, "-e u-law");
    expect_failure(load("ulaw.wav"), "Only uncompressed PCM files supported\n", "u-law");
    write("nodata.wav", good.substr(0, 36));
    expect_failure(load("nodata.wav"), "No sample data in the file\n", "no data chunk");
    EXPECT_EQ(ins(), nullptr);  // slot −1 removed the old instrument before reading
    EXPECT_EQ(load("missing.wav"), -1);
    EXPECT_NE(log_text().find("12 bits not supported\n"), std::string::npos);
}

TEST_F(SampleFileTest, CutShortWavAndXiFailCleanlyAtEveryLength) {
    sox("small.wav", 2, "-b 16 -t wavpcm", 44100, 20);
    write("small.xi", std::string());  // replaced below
    const std::string wav = read("small.wav");
    for (size_t n = 0; n < wav.size(); n++) {
        write("cut.wav", wav.substr(0, n));
        int r = load("cut.wav");
        EXPECT_EQ(r, 1) << n;
        EXPECT_STRNE(psynth_sample_load_error(), "") << n;
        expect_playable("wav cut at " + std::to_string(n));
    }
    write("cut.wav", wav);
    EXPECT_EQ(load("cut.wav"), 0);
}

// ---- XI ----

struct xi_sample {
    uint8_t type;
    uint32_t loop_start_bytes, loop_length_bytes;
    std::vector<int> values;  // 8-bit or 16-bit values, interleaved when stereo
    int8_t finetune;
    int8_t relative_note;
};

// An XI file with known deltas: every sample's values are stored as differences.
std::string make_xi(bool pp, const std::vector<xi_sample>& samples) {
    std::string s = "Extended Instrument: ";
    std::string name = "Test instrument XI";
    s += name + std::string(22 - name.size(), 0);
    s += '\x1a';
    s += std::string("FastTracker v2.00   ");
    s += pp ? "PP" : std::string("\x02\x01");
    std::string ins(208, 0);
    for (int n = 0; n < 96; n++) ins[n] = (char)(n % 2);
    const int vol[6] = {0, 64, 10, 32, 20, 0};   // (x, y) points
    const int pan[4] = {0, 32, 30, 10};
    for (int i = 0; i < 6; i++) ins.replace(96 + 2 * i, 2, bytes_le(vol[i], 2));
    for (int i = 0; i < 4; i++) ins.replace(144 + 2 * i, 2, bytes_le(pan[i], 2));
    ins[192] = 3;   // volume points
    ins[193] = 2;   // panning points
    ins[194] = 1;   // volume sustain
    ins[200] = 3;   // volume type: on, sustain
    ins[201] = 1;
    ins[202] = 1;   // vibrato: ramp down, sweep 2, depth 3, rate 4
    ins[203] = 2;
    ins[204] = 3;
    ins[205] = 4;
    ins.replace(206, 2, bytes_le(0x1234, 2));
    s += ins;
    if (pp) s += std::string("\x32\xec\x3c\xfd\x00", 5) + std::string(17, 0);
    else s += std::string(22, 0);
    s += bytes_le((uint32_t)samples.size(), 2);
    std::string data;
    for (const xi_sample& x : samples) {
        int width = (x.type & 0x10) ? 2 : 1;
        std::string h = bytes_le((uint32_t)(x.values.size() * width), 4) + bytes_le(x.loop_start_bytes, 4) +
                        bytes_le(x.loop_length_bytes, 4);
        h += (char)40;
        h += (char)x.finetune;
        h += (char)x.type;
        h += (char)200;
        h += (char)x.relative_note;
        h += (char)0;
        h += "sample" + std::string(16, 0);
        s += h;
        int previous = 0;
        for (int v : x.values) {
            data += bytes_le((uint32_t)(v - previous), width);  // wraps like the tracker's deltas
            previous = v;
        }
    }
    return s + data;
}

std::vector<xi_sample> xi_samples() {
    return {{0x01, 2, 6, {0, 5, -3, 100, -128, 127, -1, 64, -64, 1}, -16, 12},
            {0x10 | 0x40 | 0x02, 8, 16, {0, -32768, 32767, 1, -2, 300, -300, 1000, -1000, 5, 6, 7, 20000, -20000, 0, -1}, 8, -5}};
}

TEST_F(SampleFileTest, XiInstrumentsLoadWithTheirEnvelopesAndDecodedDeltas) {
    for (bool pp : {false, true}) {
        write("t.xi", make_xi(pp, xi_samples()));
        EXPECT_EQ(psynth_sample_file_type_of_path(path("t.xi").c_str()), PSYNTH_SAMPLE_FILE_XI);
        ASSERT_EQ(load("t.xi"), 0) << psynth_sample_load_error();
        const psynth_sampler_instrument* i = ins();
        EXPECT_STREQ(i->name, "Test instrument XI");
        EXPECT_EQ(i->samples_num, 2);
        EXPECT_EQ(i->sample_map[0], 0);
        EXPECT_EQ(i->sample_map[95], 1);
        EXPECT_EQ(i->volume_points[1].x, 10);
        EXPECT_EQ(i->volume_points[1].y, 32);
        EXPECT_EQ(i->panning_points[1].y, 10);
        EXPECT_EQ(i->volume_points_num, 3);
        EXPECT_EQ(i->volume_sustain, 1);
        EXPECT_EQ(i->volume_type, 3);
        EXPECT_EQ(i->vibrato_type, 1);
        EXPECT_EQ(i->vibrato_rate, 4);
        EXPECT_EQ(i->volume_fadeout, 0x1234);
        EXPECT_EQ(i->volume_table[10], 32 * 16);  // tables built from the new points
        EXPECT_EQ(i->volume_table[40], 0);
        EXPECT_EQ(i->volume, pp ? 50 : 64);
        EXPECT_EQ(i->finetune, pp ? -20 : 0);
        EXPECT_EQ(i->panning, pp ? 60 : 128);
        EXPECT_EQ(i->relative_note, pp ? -3 : 0);

        const std::vector<xi_sample> want = xi_samples();
        const psynth_sampler_sample* h0 = header(0);
        EXPECT_EQ(h0->length, 10u);
        EXPECT_EQ(h0->loop_start, 2u);
        EXPECT_EQ(h0->loop_length, 6u);
        EXPECT_EQ(h0->volume, 40);
        EXPECT_EQ(h0->finetune, -16);
        EXPECT_EQ(h0->relative_note, 12);
        EXPECT_EQ(h0->panning, 200);
        EXPECT_STREQ(h0->name, "sample");
        EXPECT_EQ(info(0).flags, 1);
        EXPECT_EQ(info(0).rate, 44100);
        for (size_t k = 0; k < want[0].values.size(); k++) EXPECT_EQ(data<int8_t>(0)[k], want[0].values[k]) << k;
        const psynth_sampler_sample* h1 = header(1);
        EXPECT_EQ(h1->length, 8u);  // 32 bytes of 16-bit stereo frames
        EXPECT_EQ(h1->loop_start, 2u);
        EXPECT_EQ(h1->loop_length, 4u);
        EXPECT_EQ(h1->type, 0x52);
        EXPECT_EQ(info(1).flags, 2 | 8);
        for (size_t k = 0; k < want[1].values.size(); k++) EXPECT_EQ(data<int16_t>(1)[k], want[1].values[k]) << k;
        expect_playable("xi");
    }
    ASSERT_EQ(load("t.xi", -1, PSYNTH_SAMPLE_LOAD_XI_FULL_VOLUME), 0);
    EXPECT_EQ(header(0)->volume, 64);
    EXPECT_EQ(header(1)->volume, 64);
    // An XI file replaces instruments only: into a slot it is not recognised.
    expect_failure(load("t.xi", 2), "File format not recognized\n", "xi into a slot");
}

TEST_F(SampleFileTest, XiErrorsAndCutsLeaveAPlayableInstrument) {
    const std::string xi = make_xi(true, xi_samples());
    for (size_t n = 0; n < xi.size(); n++) {
        write("cut.xi", xi.substr(0, n));
        EXPECT_EQ(load("cut.xi"), 1) << n;
        EXPECT_STRNE(psynth_sample_load_error(), "") << n;
        expect_playable("xi cut at " + std::to_string(n));
    }
    std::vector<xi_sample> bad = xi_samples();
    bad[1].type = 0x30;  // no such data format
    write("bad.xi", make_xi(false, bad));
    expect_failure(load("bad.xi"), "XI: unknown sample data format (type 48)\n", "format 3");
    EXPECT_EQ(ins()->samples_num, 1);  // the first sample stays
    expect_playable("format 3");
}

// ---- AIFF / AIFC ----

TEST_F(SampleFileTest, AiffFilesOfEveryDepthLoadExactly) {
    for (int channels : {1, 2}) {
        for (int bits : {8, 16, 24, 32}) {
            std::string ctx = "AIFF " + std::to_string(bits) + " bits, " + std::to_string(channels) + " channels";
            sox("t.aiff", channels, "-b " + std::to_string(bits), 9001);
            EXPECT_EQ(psynth_sample_file_type_of_path(path("t.aiff").c_str()), PSYNTH_SAMPLE_FILE_AIFF);
            ASSERT_EQ(load("t.aiff", 0), 0) << ctx << ": " << psynth_sample_load_error();
            EXPECT_EQ(header(0)->length, (uint32_t)kFrames) << ctx;
            EXPECT_EQ(info(0).rate, 9001) << ctx;
            EXPECT_EQ(header(0)->type >> 4 & 3, bits == 8 ? 0 : bits == 16 ? 1 : 2) << ctx;
            for (int i = 0; i < kFrames * channels; i++) {
                int v = channels == 2 && (i & 1) ? right_value(i / 2) : left_value(i / channels);
                if (bits == 8) { ASSERT_EQ(data<int8_t>(0)[i], v / 256) << ctx << " value " << i; }  // signed already
                if (bits == 16) { ASSERT_EQ(data<int16_t>(0)[i], v) << ctx << " value " << i; }
                if (bits == 24) { ASSERT_EQ(data<float>(0)[i], (float)v / 32768) << ctx << " value " << i; }
                if (bits == 32) { ASSERT_EQ(data<int32_t>(0)[i], v * 65536) << ctx << " value " << i; }
            }
        }
    }
    sox("r.aiff", 1, "-b 16", 44100);
    ASSERT_EQ(load("r.aiff", 0), 0);
    EXPECT_EQ(info(0).rate, 44100);
    EXPECT_EQ(header(0)->finetune, 100);

    std::string aiff = read("r.aiff");
    size_t comm = aiff.find("COMM");
    ASSERT_NE(comm, std::string::npos);
    aiff.replace(comm + 14, 2, bytes_be(12, 2));
    write("bits.aiff", aiff);
    expect_failure(load("bits.aiff", 0), "12 bits not supported\n", "12-bit AIFF");
    write("form.aiff", "FORM" + bytes_be(8, 4) + "ABCD" + "JUNK" + bytes_be(0, 4));
    expect_failure(load("form.aiff", 0), "Unknown type: ABCD\n", "unknown form");
    write("nossnd.aiff", read("r.aiff").substr(0, comm + 26));
    expect_failure(load("nossnd.aiff", 0), "No sample data in the file\n", "no SSND");
}

// AIFC is read with no byte swapping at all: files written little-endian load, while
// the big-endian files other programs write (sox's here) find no usable chunk.
TEST_F(SampleFileTest, AifcIsReadWithoutByteSwapping) {
    auto aifc = [](const char* compression, int bits, const std::string& values) {
        std::string rate80 = std::string("\x40\x0d\xac\x44", 4) + std::string(6, 0);  // 22050 as an 80-bit float
        std::string comm = bytes_le(1, 2) + bytes_le(0, 4) + bytes_le(bits, 2) + std::string(rate80.rbegin(), rate80.rend()) +
                           compression + "\x01x";
        std::string body = "AIFC" + std::string("COMM") + bytes_le((uint32_t)comm.size(), 4) + comm + "SSND" +
                           bytes_le((uint32_t)values.size() + 8, 4) + std::string(8, 0) + values;
        return "FORM" + bytes_le((uint32_t)body.size(), 4) + body;
    };
    write("le.aifc", aifc("NONE", 16, bytes_le(0x1234, 2) + bytes_le(0x8001, 2)));
    EXPECT_EQ(psynth_sample_file_type_of_path(path("le.aifc").c_str()), PSYNTH_SAMPLE_FILE_AIFC);
    ASSERT_EQ(load("le.aifc", 0), 0) << psynth_sample_load_error();
    EXPECT_EQ(info(0).rate, 22050);
    EXPECT_EQ(header(0)->length, 2u);
    EXPECT_EQ(data<int16_t>(0)[0], 0x1234);
    EXPECT_EQ(data<int16_t>(0)[1], (int16_t)0x8001);
    float f[2] = {0.5f, -0.25f};
    for (const char* kind : {"fl32", "FL32"}) {
        write("fl.aifc", aifc(kind, 32, std::string((const char*)f, 8)));
        ASSERT_EQ(load("fl.aifc", 0), 0) << kind;
        EXPECT_EQ(header(0)->type, 0x20);
        EXPECT_EQ(data<float>(0)[1], -0.25f);
    }
    write("ulaw.aifc", aifc("ulaw", 16, "ab"));
    expect_failure(load("ulaw.aifc", 0), "Compression ulaw not supported.\n", "ulaw");
    sox("sox.aifc", 1, "-b 16");
    expect_failure(load("sox.aifc", 0), "No sample data in the file\n", "big-endian AIFC");
    sox("soxf.aifc", 1, "-e floating-point -b 32");
    expect_failure(load("soxf.aifc", 0), "No sample data in the file\n", "big-endian float AIFC");
}

// ---- RAW and JPEG ----

TEST_F(SampleFileTest, RawDataLoadsInTheChosenFormat) {
    std::string bytes("\x00\x01\x80\xff\x7f\x10\x20\x30", 8);
    write("d.raw", bytes);
    expect_failure(load("d.raw"), "File format not recognized\n", "raw through the readers");
    ASSERT_EQ(psynth_sample_load_raw(path("d.raw").c_str(), PSYNTH_SAMPLE_RAW_UINT8, 1, mod, -1, &net), 0);
    EXPECT_STREQ(psynth_sample_load_error(), "");
    EXPECT_EQ(header(0)->length, 8u);
    EXPECT_EQ(info(0).rate, 44100);
    const int unsigned_want[8] = {-128, -127, 0, 127, -1, -112, -96, -80};
    for (int i = 0; i < 8; i++) EXPECT_EQ(data<int8_t>(0)[i], unsigned_want[i]) << i;
    ASSERT_EQ(psynth_sample_load_raw(path("d.raw").c_str(), PSYNTH_SAMPLE_RAW_INT8, 2, mod, 1, &net), 0);
    EXPECT_EQ(header(1)->length, 4u);
    EXPECT_EQ(header(1)->type, 0x40);
    EXPECT_EQ(data<int8_t>(1)[2], -128);
    EXPECT_EQ(ins()->samples_num, 2);
    ASSERT_EQ(psynth_sample_load_raw(path("d.raw").c_str(), PSYNTH_SAMPLE_RAW_INT16, 2, mod, 0, &net), 0);
    EXPECT_EQ(header(0)->length, 2u);
    EXPECT_EQ(data<int16_t>(0)[1], (int16_t)0xff80);
    ASSERT_EQ(psynth_sample_load_raw(path("d.raw").c_str(), PSYNTH_SAMPLE_RAW_FLOAT32, 1, mod, 0, &net), 0);
    EXPECT_EQ(header(0)->type, 0x20);
    EXPECT_EQ(info(0).flags, 4);
    write("empty.raw", "");
    EXPECT_EQ(psynth_sample_load_raw(path("empty.raw").c_str(), PSYNTH_SAMPLE_RAW_INT16, 1, mod, 0, &net), 1);
    EXPECT_STREQ(psynth_sample_load_error(), "!File is empty");
    EXPECT_EQ(psynth_sample_load_raw(path("d.raw").c_str(), 7, 1, mod, 0, &net), 1);
    EXPECT_STREQ(psynth_sample_load_error(), "!Can't create a new sample");
    ASSERT_EQ(psynth_sample_new(100, 16, 2, 9001, mod, 4, &net), 0);
    EXPECT_STREQ(header(4)->name, "zlsmp");
    EXPECT_EQ(info(4).size, 400);
    EXPECT_EQ(info(4).rate, 9001);
}

TEST_F(SampleFileTest, JpegImagesBecomeEightBitSamplesOfTheirBrightness) {
    // 24 × 2: white, black and (200, 40, 10) in blocks of 8 columns.
    std::string ppm = "P6\n24 2\n255\n";
    for (int y = 0; y < 2; y++) {
        for (int x = 0; x < 24; x++) {
            ppm += x < 8 ? std::string(3, (char)255) : x < 16 ? std::string(3, (char)0) : std::string("\xc8\x28\x0a", 3);
        }
    }
    write("in.ppm", ppm);
    std::string cmd = "cjpeg -quality 100 -sample 1x1 -outfile '" + path("img.jpg") + "' '" + path("in.ppm") + "'";
    ASSERT_EQ(std::system(cmd.c_str()), 0);
    EXPECT_EQ(psynth_sample_file_type_of_path(path("img.jpg").c_str()), PSYNTH_SAMPLE_FILE_JPEG);
    expect_failure(load("img.jpg"), "File format not recognized\n", "jpeg through the readers");
    ASSERT_EQ(psynth_sample_load_raw(path("img.jpg").c_str(), PSYNTH_SAMPLE_RAW_INT16, 2, mod, -1, &net), 0)
        << psynth_sample_load_error();
    EXPECT_EQ(header(0)->length, 48u);  // one frame per pixel
    EXPECT_EQ(header(0)->type, 0);      // 8-bit mono, whatever the RAW choices were
    EXPECT_EQ(info(0).rate, 44100);
    EXPECT_STREQ(ins()->name, "img.jpg");
    for (int y = 0; y < 2; y++) {
        for (int x = 0; x < 24; x++) {
            int v = data<int8_t>(0)[y * 24 + x];
            if (x < 8) EXPECT_EQ(v, 127) << x;  // 255 − 127 = 128, which becomes 127
            else if (x < 16) EXPECT_EQ(v, -127) << x;
            else EXPECT_NEAR(v, 250 / 3 - 127, 1) << x;
        }
    }
    write("iff.bin", "IFF.this is no image at all");
    EXPECT_EQ(psynth_sample_load_raw(path("iff.bin").c_str(), PSYNTH_SAMPLE_RAW_INT8, 1, mod, 0, &net), 1);
    EXPECT_STREQ(psynth_sample_load_error(), "!JPEG loading error");
    EXPECT_EQ(header(0)->length, 48u);  // the failed image left the sample alone
    const uint8_t if_start[] = {'i', 'f', '.', 0};
    EXPECT_EQ(psynth_sample_file_type_of(if_start, 3), PSYNTH_SAMPLE_FILE_JPEG);
}

// ---- Saving ----

TEST_F(SampleFileTest, SavedWavFilesMatchTheLoadedOnes) {
    // sox's plain 8-bit and 16-bit files have the very header the saver writes.
    for (int bits : {8, 16}) {
        for (int channels : {1, 2}) {
            sox("in.wav", channels, "-b " + std::to_string(bits) + " -t wavpcm", 9001, 100);
            ASSERT_EQ(load("in.wav"), 0);
            ASSERT_EQ(psynth_sample_save_wav(path("out.wav").c_str(), mod, 0, &net), 0);
            EXPECT_EQ(read("out.wav"), read("in.wav")) << bits << " bits, " << channels << " channels";
        }
    }
    // 24-bit data was turned into floats: saved as a float file (tag 3) of 32 bits.
    sox("in24.wav", 2, "-b 24 -t wavpcm");
    ASSERT_EQ(load("in24.wav"), 0);
    ASSERT_EQ(psynth_sample_save_wav(path("f.wav").c_str(), mod, 0, &net), 0);
    std::string f = read("f.wav");
    ASSERT_EQ(f.size(), 44u + kFrames * 8);
    EXPECT_EQ(f.substr(0, 4), "RIFF");
    EXPECT_EQ(f.substr(4, 4), bytes_le(36 + kFrames * 8, 4));
    EXPECT_EQ(f.substr(8, 16), "WAVEfmt " + bytes_le(16, 4) + bytes_le(3, 2) + bytes_le(2, 2));
    EXPECT_EQ(f.substr(24, 16), bytes_le(44100, 4) + bytes_le(44100 * 8, 4) + bytes_le(8, 2) + bytes_le(32, 2) + "data");
    EXPECT_EQ(f.substr(40, 4), bytes_le(kFrames * 8, 4));
    float v;
    memcpy(&v, f.data() + 44 + 4, 4);
    EXPECT_EQ(v, (float)right_value(0) / 32768);

    // A chunk without a rate is written at 44100 Hz; save, load and save give the same bytes.
    int8_t* d = (int8_t*)psynth_sample_create("z", 5, 8, 1, 0, 2, mod, &net);
    ASSERT_NE(d, nullptr);
    d[0] = -128;
    d[4] = 127;
    ASSERT_EQ(psynth_sample_save_wav(path("z.wav").c_str(), mod, 2, &net), 0);
    std::string z = read("z.wav");
    EXPECT_EQ(z.substr(24, 4), bytes_le(44100, 4));
    EXPECT_EQ(z.substr(44), std::string("\x00\x80\x80\x80\xff", 5));  // unsigned
    ASSERT_EQ(load("z.wav"), 0);
    ASSERT_EQ(psynth_sample_save_wav(path("z2.wav").c_str(), mod, 0, &net), 0);
    EXPECT_EQ(read("z2.wav"), z);

    // Nothing to save, or nowhere to write: the old file stays and no ".tmp" is left.
    write("keep.wav", "old");
    EXPECT_NE(psynth_sample_save_wav(path("keep.wav").c_str(), mod, 9, &net), 0);
    EXPECT_NE(psynth_sample_save_wav(path("no_dir/keep.wav").c_str(), mod, 0, &net), 0);
    EXPECT_EQ(read("keep.wav"), "old");
    EXPECT_FALSE(std::ifstream(path("keep.wav.tmp")).good());
}

}  // namespace
