// Sample files into the Sampler: the creation step, WAV, AIFF and AIFC files made by sox
// at test time, XI instruments built byte by byte, RAW data, JPEG images made by cjpeg,
// the readers' error paths, files cut short at every byte, and saving as WAV. Input
// values are multiples of 256, so every depth holds them exactly.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "psynth/psynth_modules.h"
#include "psynth/sample_file.h"
#include "psynth/sampler.h"
#include "sample_writers.h"
#include "test_modules.h"

namespace {

constexpr int kFrames = 600;

int16_t value_at(int i, int channel) { return (int16_t)(((i * (channel ? 91 : 37) + 5 * channel) % 256 - 128) * 256); }

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
    void write(const std::string& name, const std::string& bytes) const { std::ofstream(path(name), std::ios::binary) << bytes; }
    std::string read(const std::string& name) const {
        std::ostringstream s;
        s << std::ifstream(path(name), std::ios::binary).rdbuf();
        return s.str();
    }
    // sox converts the 16-bit ramp (1 or 2 channels) into `out` with `options`.
    void sox(const std::string& out, int channels, const std::string& options, int rate = 44100, int frames = kFrames) {
        std::string raw;
        for (int i = 0; i < frames * channels; i++) raw += sw_le((uint16_t)value_at(i / channels, i % channels), 2);
        write("in.raw", raw);
        std::string cmd = "sox -D -t raw -r " + std::to_string(rate) + " -e signed -b 16 -c " + std::to_string(channels) +
                          " '" + path("in.raw") + "' " + options + " '" + path(out) + "'";
        ASSERT_EQ(std::system(cmd.c_str()), 0) << cmd;
    }
    int load(const std::string& name, int slot = -1, int flags = 0) {
        return psynth_sample_load(path(name).c_str(), mod, slot, flags, &net);
    }
    int load_raw(const std::string& name, int format, int channels, int slot = -1) {
        return psynth_sample_load_raw(path(name).c_str(), format, channels, mod, slot, &net);
    }
    psynth_sampler_instrument* ins() { return (psynth_sampler_instrument*)psynth_get_chunk(mod, 0, &net); }
    psynth_sampler_sample* header(int s) { return (psynth_sampler_sample*)psynth_get_chunk(mod, 2 * s + 1, &net); }
    template <class T>
    T at(int s, int i) { return ((const T*)psynth_get_chunk(mod, 2 * s + 2, &net))[i]; }
    // Size, storage flags and rate of sample s's data chunk.
    std::vector<int> info(int s) {
        std::vector<int> v(3, -1);
        psynth_get_chunk_info(mod, 2 * s + 2, &v[0], &v[1], &v[2], &net);
        return v;
    }
    void expect_failure(int result, const std::string& message) {
        EXPECT_EQ(result, 1) << message;
        EXPECT_TRUE(psynth_sample_not_recognized()) << message;
        EXPECT_EQ(std::string(psynth_sample_load_error()), message);
    }
    // What a load left behind can be played: headers stay within their data, and a note
    // renders (under the sanitizers every frame read is checked).
    void expect_playable(const std::string& context) {
        for (int s = 0; ins() && s < ins()->samples_num; s++) {
            const psynth_sampler_sample* h = header(s);
            if (!h || !psynth_get_chunk(mod, 2 * s + 2, &net)) continue;
            int frame = (((h->type >> 4) & 3) == 0 ? 1 : ((h->type >> 4) & 3) == 1 ? 2 : 4) * (h->type & 0x40 ? 2 : 1);
            ASSERT_LE((int64_t)h->length * frame, info(s)[0]) << context << " sample " << s;
        }
        psynth_event e = {PS_CMD_NOTE_ON, 1, 0, 60, 256, 60 * 256};
        psynth_add_event(mod, &e, &net);
        render_buffer(&net, 512);
        psynth_do_command(mod, PS_CMD_CLEAN, &net);
    }
};

TEST_F(SampleFileTest, CreationStepBuildsTheInstrumentHeaderAndData) {
    ASSERT_NE(psynth_sample_create("a name longer than twenty-two", 4000, 16, 2, 44100, -1, mod, &net), nullptr);
    EXPECT_EQ(std::string(ins()->name, 22), "a name longer than twe");  // cut to 22, no terminator
    EXPECT_EQ(ins()->samples_num, 1);
    EXPECT_EQ(ins()->volume, 64);
    EXPECT_EQ(ins()->volume_table[32], 1024);  // the default envelope, its table built
    const psynth_sampler_sample* h = header(0);
    // 4000 bytes of 16-bit stereo frames, no loop, full volume, centre, finetune of 44100 Hz.
    EXPECT_EQ(std::tuple(h->length, h->loop_start, h->loop_length, h->volume, h->panning, h->finetune, h->relative_note, h->type),
              std::tuple(1000u, 0u, 0u, 64, 128, 100, 0, 0x10 | 0x40));
    EXPECT_EQ(info(0), (std::vector<int>{4000, 2 | 8, 44100}));

    ASSERT_NE(psynth_sample_create("eight", 301, 8, 1, 8363, 3, mod, &net), nullptr);
    EXPECT_EQ(ins()->samples_num, 4);  // one more than the highest slot with a header
    EXPECT_EQ(header(3)->type, 0);
    EXPECT_EQ(header(3)->finetune, 0);  // the table's own rate at pitch 0
    EXPECT_EQ(info(3), (std::vector<int>{301, 1, 8363}));
    ASSERT_NE(psynth_sample_create("float", 800, 32, 2, 9001, 1, mod, &net), nullptr);
    EXPECT_EQ(header(1)->type, 0x20 | 0x40);
    EXPECT_EQ(header(1)->length, 100u);
    EXPECT_EQ(info(1)[1], 4 | 8);
    // 2 × (the table entry nearest the rate mod 64), from the frequency table's definition.
    for (auto [rate, want] : {std::pair{22050, 100}, {48000, 32}, {9001, 34}, {11025, 100}, {96000, 32}, {1, 0},
                              {0, 0}, {1000000, 126}}) {
        EXPECT_EQ(psynth_sample_finetune_for_rate(rate), want) << rate;
    }
    // 24 bits, 3 channels, slot 16: refused.
    for (auto [bits, channels, slot] : {std::tuple{24, 1, 0}, {16, 3, 0}, {16, 1, 16}}) {
        EXPECT_EQ(psynth_sample_create("x", 10, bits, channels, 44100, slot, mod, &net), nullptr) << bits << channels << slot;
    }
    EXPECT_NE(log_text().find("Can't create the sample\n"), std::string::npos);
    ASSERT_NE(psynth_sample_create("new", 2, 16, 1, 44100, -1, mod, &net), nullptr);
    EXPECT_STREQ(ins()->name, "new");  // slot −1 makes a new instrument record
}

// sox's WAV (plain header) and AIFF files of every depth: 8-bit WAV is unsigned, AIFF
// big-endian; 24-bit becomes float × 2^−23; 32-bit integers are kept as they are.
TEST_F(SampleFileTest, WavAndAiffFilesOfEveryDepthLoadExactly) {
    for (std::string kind : {"wav", "aiff"}) {
        for (int channels : {1, 2}) {
            for (int bits : {8, 16, 24, 32}) {
                std::string ctx = kind + " " + std::to_string(bits) + " bits " + std::to_string(channels) + " ch";
                sox("t." + kind, channels, "-b " + std::to_string(bits) + (kind == "wav" ? " -t wavpcm" : ""), 9001);
                ASSERT_EQ(load("t." + kind), 0) << ctx << ": " << psynth_sample_load_error();
                EXPECT_FALSE(psynth_sample_not_recognized());
                EXPECT_STREQ(header(0)->name, ("t." + kind).c_str());
                EXPECT_EQ(header(0)->length, (uint32_t)kFrames) << ctx;
                EXPECT_EQ(header(0)->type, ((bits == 8 ? 0 : bits == 16 ? 1 : 2) << 4) | (channels == 2 ? 0x40 : 0)) << ctx;
                EXPECT_EQ(info(0), (std::vector<int>{kFrames * channels * (bits == 24 ? 4 : bits / 8),
                                                     (bits == 8 ? 1 : bits == 16 ? 2 : 4) | (channels == 2 ? 8 : 0), 9001}))
                    << ctx;
                for (int i = 0; i < kFrames * channels; i++) {
                    int v = value_at(i / channels, i % channels);
                    if (bits == 8) { ASSERT_EQ(at<int8_t>(0, i), v / 256) << ctx << " value " << i; }
                    if (bits == 16) { ASSERT_EQ(at<int16_t>(0, i), v) << ctx << " value " << i; }
                    if (bits == 24) { ASSERT_EQ(at<float>(0, i), (float)v / 32768) << ctx << " value " << i; }
                    if (bits == 32) { ASSERT_EQ(at<int32_t>(0, i), v * 65536) << ctx << " value " << i; }
                }
            }
        }
    }
    expect_playable("32-bit AIFF");
    // sox's default 24-bit WAV has the extensible header (tag 0xFFFE); with the tag made
    // 1, its 40-byte "fmt " and its "fact" chunk are stepped over.
    sox("d24.wav", 1, "-b 24");
    std::string ext = read("d24.wav");
    ASSERT_EQ(ext.substr(16, 6), sw_le(40, 4) + sw_le(0xFFFE, 2));
    write("e24.wav", ext.replace(20, 2, sw_le(1, 2)));
    ASSERT_EQ(load("e24.wav"), 0) << psynth_sample_load_error();
    EXPECT_EQ(at<float>(0, kFrames - 1), (float)value_at(kFrames - 1, 0) / 32768);
    sox("r.aiff", 1, "-b 16");
    ASSERT_EQ(load("r.aiff", 0), 0);
    EXPECT_EQ(info(0)[2], 44100);  // the 80-bit rate
    EXPECT_EQ(header(0)->finetune, 100);
}

// A hand-made WAV: an odd "fmt " chunk (padded), a chunk before the data, an odd data
// size with its pad byte and a second "data" chunk, which is skipped.
TEST_F(SampleFileTest, WavChunkWalkHandlesPaddingAndDefaults) {
    std::string body = "WAVEfmt " + sw_le(17, 4) + sw_le(1, 2) + sw_le(1, 2) + sw_le(11025, 4) + sw_le(11025, 4) + sw_le(1, 2) + sw_le(8, 2) +
                       "x" + sw_le(0, 1) + "LIST" + sw_le(4, 4) + "abcd" + "data" + sw_le(3, 4) + "\x80\xff" + sw_le(0, 2) + "data" +
                       sw_le(2, 4) + "zz";
    write("h.wav", "RIFF" + sw_le((uint32_t)body.size(), 4) + body);
    ASSERT_EQ(load("h.wav"), 0) << psynth_sample_load_error();
    EXPECT_EQ(info(0), (std::vector<int>{3, 1, 11025}));
    EXPECT_EQ(at<int8_t>(0, 0) * 10000 + at<int8_t>(0, 1) * 100 + at<int8_t>(0, 2), 0 + 12700 - 128);
    // Before any "fmt " chunk: 16-bit mono at 44100 Hz.
    write("bare.wav", "RIFF" + sw_le(16, 4) + "WAVEdata" + sw_le(4, 4) + sw_le(0x1234, 2) + sw_le(0xFFFF, 2));
    ASSERT_EQ(load("bare.wav"), 0);
    EXPECT_EQ(header(0)->type, 0x10);
    EXPECT_EQ(at<int16_t>(0, 1), -1);
}

TEST_F(SampleFileTest, ReaderErrorsStopTheLoadWithTheirMessages) {
    sox("good.wav", 1, "-b 16 -t wavpcm", 44100, 100);
    const std::string good = read("good.wav");
    ASSERT_EQ(good.size(), 44u + 200);
    auto patched = [&](int pos, uint32_t value, int width) { return std::string(good).replace(pos, width, sw_le(value, width)); };
    // Data size 243 passes the size check, then the file ends.
    for (auto [pos, value, width, message] :
         {std::tuple{34, 12, 2, "12 bits not supported\n"}, {22, 3, 2, "3 channels not supported\n"},
          {40, 244, 4, "Incorrect 'data' chunk (244 bytes)\n"}, {40, 243, 4, "Unexpected end of file\n"}}) {
        write("x.wav", patched(pos, value, width));
        expect_failure(load("x.wav"), message);
    }
    EXPECT_EQ(header(0)->length, 121u);   // what was made stays
    // ADPCM (4 bits a value) and other coded formats stay refused.
    sox("ima.wav", 1, "-e ima-adpcm");
    expect_failure(load("ima.wav"), "4 bits not supported\n");
    sox("ms.wav", 1, "-e ms-adpcm");
    expect_failure(load("ms.wav"), "4 bits not supported\n");
    write("x.wav", patched(20, 0x55, 2));  // MPEG layer 3's tag on 16-bit values
    expect_failure(load("x.wav"), "Only uncompressed PCM files supported\n");
    write("x.wav", good.substr(0, 36));
    expect_failure(load("x.wav"), "No sample data in the file\n");
    EXPECT_EQ(ins(), nullptr);  // slot −1 removed the old instrument before reading
    EXPECT_EQ(load("missing.wav"), -1);

    sox("r.aiff", 1, "-b 16");
    std::string aiff = read("r.aiff");
    size_t comm = aiff.find("COMM");
    write("x.aiff", aiff.substr(0, comm + 26));
    expect_failure(load("x.aiff", 0), "No sample data in the file\n");
    write("x.aiff", aiff.replace(comm + 14, 2, std::string("\x00\x0c", 2)));
    expect_failure(load("x.aiff", 0), "12 bits not supported\n");
    write("x.aiff", "FORM" + sw_le(0, 3) + "\x08" + "ABCDJUNK" + sw_le(0, 4));
    expect_failure(load("x.aiff", 0), "Unknown type: ABCD\n");
    EXPECT_NE(log_text().find("Unknown type: ABCD\n"), std::string::npos);
}

// AIFC is read first with no byte swapping at all: files written little-endian load as
// they always have (the big-endian files of other programs are in RealWorldAifc...).
TEST_F(SampleFileTest, AifcIsReadWithoutByteSwappingFirst) {
    write("le.aifc", sw_aifc("NONE", 16, sw_le(0x1234, 2) + sw_le(0x8001, 2)));
    EXPECT_EQ(psynth_sample_file_type_of_path(path("le.aifc").c_str()), PSYNTH_SAMPLE_FILE_AIFC);
    ASSERT_EQ(load("le.aifc", 0), 0) << psynth_sample_load_error();
    EXPECT_EQ(info(0), (std::vector<int>{4, 2, 22050}));
    EXPECT_EQ(at<int16_t>(0, 1), (int16_t)0x8001);
    float f[2] = {0.5f, -0.25f};
    for (const char* kind : {"fl32", "FL32"}) {
        write("fl.aifc", sw_aifc(kind, 32, std::string((const char*)f, 8)));
        ASSERT_EQ(load("fl.aifc", 0), 0) << kind;
        EXPECT_EQ(at<float>(0, 1), -0.25f);
    }
    write("ulaw.aifc", sw_aifc("ulaw", 16, "ab"));
    expect_failure(load("ulaw.aifc", 0), "Compression ulaw not supported.\n");
}

// ---- XI ----

TEST_F(SampleFileTest, XiInstrumentsLoadWithTheirRecordAndDecodedDeltas) {
    for (bool pp : {false, true}) {
        write("t.xi", sw_xi(pp, kSwXiSamples));
        ASSERT_EQ(load("t.xi"), 0) << psynth_sample_load_error();
        const psynth_sampler_instrument* i = ins();
        EXPECT_STREQ(i->name, "Test instrument XI");
        // Samples, map, envelope points, type, vibrato rate, fade-out; the tables built from the points.
        EXPECT_EQ(std::tuple(i->samples_num, i->sample_map[95], i->volume_points[1].x, i->volume_points_num,
                             i->volume_type, i->vibrato_rate, i->volume_fadeout, i->volume_table[10]),
                  std::tuple(2, 1, 10, 3, 3, 4, 0x1234, 32 * 16));
        // Volume, finetune, panning and relative note: the five extra bytes, or the defaults.
        EXPECT_EQ(std::tuple(i->volume, i->finetune, i->panning, i->relative_note),
                  pp ? std::tuple(50, -20, 60, -3) : std::tuple(64, 0, 128, 0));
        const psynth_sampler_sample* h0 = header(0);
        EXPECT_EQ(h0->length * 100 + h0->loop_start * 10 + h0->loop_length, 1026u);  // 10 frames, loop 2 + 6
        EXPECT_EQ(h0->volume + h0->finetune + h0->relative_note + h0->panning, 40 - 16 + 12 + 200);
        EXPECT_STREQ(h0->name, "sample");
        EXPECT_EQ(info(0), (std::vector<int>{10, 1, 44100}));
        EXPECT_EQ(header(1)->length * 100 + header(1)->loop_start * 10 + header(1)->loop_length, 824u);  // stereo 16-bit frames
        EXPECT_EQ(info(1), (std::vector<int>{32, 2 | 8, 44100}));
        for (size_t k = 0; k < kSwXiSamples[0].values.size(); k++) EXPECT_EQ(at<int8_t>(0, k), kSwXiSamples[0].values[k]) << k;
        for (size_t k = 0; k < kSwXiSamples[1].values.size(); k++) EXPECT_EQ(at<int16_t>(1, k), kSwXiSamples[1].values[k]) << k;
        expect_playable("xi");
    }
    ASSERT_EQ(load("t.xi", -1, PSYNTH_SAMPLE_LOAD_XI_FULL_VOLUME), 0);
    EXPECT_EQ(header(0)->volume + header(1)->volume, 128);
    expect_failure(load("t.xi", 2), "File format not recognized\n");  // instruments only
    std::vector<sw_xi_sample> bad = kSwXiSamples;
    bad[1].type = 0x30;  // no such data format
    write("bad.xi", sw_xi(false, bad));
    expect_failure(load("bad.xi"), "XI: unknown sample data format (type 48)\n");
    EXPECT_EQ(ins()->samples_num, 1);  // the first sample stays
}

// ---- Files as other programs write them ----

std::string be(uint32_t v, int n) {
    std::string s = sw_le(v, n);
    return std::string(s.rbegin(), s.rend());
}

// A WAV file of `values` with a plain 16-byte "fmt " chunk, or with sub_tag ≥ 0 the
// extensible one whose sub-format GUID starts with sub_tag (`guid_tail` the standard rest).
std::string make_wav(int tag, int bits, int channels, const std::string& values, int sub_tag = -1,
                     const std::string& guid_tail = std::string("\x00\x00\x00\x00\x10\x00\x80\x00\x00\xaa\x00\x38\x9b\x71", 14)) {
    const int block = bits / 8 * channels;
    std::string fmt = sw_le(sub_tag >= 0 ? 0xFFFE : tag, 2) + sw_le(channels, 2) + sw_le(9001, 4) + sw_le(9001 * block, 4) + sw_le(block, 2) +
                      sw_le(bits, 2);
    if (sub_tag >= 0) fmt += sw_le(22, 2) + sw_le(bits, 2) + sw_le(channels == 2 ? 3 : 4, 4) + sw_le(sub_tag, 2) + guid_tail;
    std::string body = "WAVEfmt " + sw_le((uint32_t)fmt.size(), 4) + fmt + "data" + sw_le((uint32_t)values.size(), 4) + values;
    return "RIFF" + sw_le((uint32_t)body.size(), 4) + body;
}

// A big-endian AIFC file as other programs write it, at 22050 Hz.
std::string make_aifc(const char* compression, int bits, int channels, const std::string& values) {
    const int frames = (int)values.size() / channels / (bits > 8 ? bits / 8 : 1);
    std::string comm = be(channels, 2) + be(frames, 4) + be(bits, 2) + std::string("\x40\x0d\xac\x44", 4) + std::string(6, 0) +
                       compression + "\x03" + "abc";  // a name of odd length with its pad byte: even
    std::string body = "AIFCFVER" + be(4, 4) + be(0xA2805140, 4) + "COMM" + be((uint32_t)comm.size(), 4) + comm + "SSND" +
                       be((uint32_t)values.size() + 8, 4) + std::string(8, 0) + values;
    return "FORM" + be((uint32_t)body.size(), 4) + body;
}

class RealWorldSampleFileTest : public SampleFileTest {
protected:
    // The ramp's values as `convert` makes them with sox ("-e u-law", ...), raw.
    std::string sox_raw(int channels, const std::string& encoding) {
        sox("v.raw", channels, "-t raw " + encoding);
        return read("v.raw");
    }
    // What sox decodes `name` into: 16-bit values.
    std::vector<int16_t> sox_decoded(const std::string& name) {
        std::string cmd = "sox '" + path(name) + "' -t raw -e signed -b 16 '" + path("d.raw") + "'";
        EXPECT_EQ(std::system(cmd.c_str()), 0) << cmd;
        std::string raw = read("d.raw");
        std::vector<int16_t> v(raw.size() / 2);
        memcpy(v.data(), raw.data(), raw.size());
        return v;
    }
    // Sample s holds the ramp as floats (value / 32768), `channels` wide, at `rate`.
    void expect_float_ramp(int s, int channels, int rate, const std::string& context) {
        EXPECT_EQ(header(s)->type, 0x20 | (channels == 2 ? 0x40 : 0)) << context;
        EXPECT_EQ(header(s)->length, (uint32_t)kFrames) << context;
        EXPECT_EQ(info(s), (std::vector<int>{kFrames * channels * 4, 4 | (channels == 2 ? 8 : 0), rate})) << context;
        for (int i = 0; i < kFrames * channels; i++) {
            ASSERT_EQ(at<float>(s, i), (float)value_at(i / channels, i % channels) / 32768) << context << " value " << i;
        }
    }
    // Sample s holds `values` as 16-bit values.
    void expect_int16(int s, const std::vector<int16_t>& values, const std::string& context) {
        EXPECT_EQ((header(s)->type & 0x30), 0x10) << context;
        ASSERT_EQ(info(s)[0], (int)values.size() * 2) << context;
        for (size_t i = 0; i < values.size(); i++) ASSERT_EQ(at<int16_t>(s, i), values[i]) << context << " value " << i;
    }
};

// Float WAVs (tag 3, 32 and 64 bits), the extensible header with PCM and float
// sub-formats, and a-law and µ-law decoded as sox decodes them.
TEST_F(RealWorldSampleFileTest, WavFloatExtensibleAndCompandedFilesLoad) {
    for (int channels : {1, 2}) {
        for (std::string options : {"-e floating-point -b 32", "-e floating-point -b 64", "-b 24", "-b 32"}) {
            const std::string ctx = options + " " + std::to_string(channels) + " ch";
            sox("f.wav", channels, options, 9001);
            ASSERT_EQ(load("f.wav"), 0) << ctx << ": " << psynth_sample_load_error();
            expect_float_ramp(0, channels, 9001, ctx);  // 32-bit integers in the extensible header become floats too
        }
        for (std::string law : {"u-law", "a-law"}) {
            sox("l.wav", channels, "-e " + law);
            ASSERT_EQ(load("l.wav", 1), 0) << law << ": " << psynth_sample_load_error();
            EXPECT_EQ(header(1)->length, (uint32_t)kFrames);
            expect_int16(1, sox_decoded("l.wav"), law);
        }
    }
    // The extensible header with 16-bit PCM and float sub-formats; an unknown sub-format
    // GUID is refused.
    std::string v16 = sox_raw(2, "-e signed -b 16");
    write("x.wav", make_wav(0, 16, 2, v16, 1));
    ASSERT_EQ(load("x.wav"), 0) << psynth_sample_load_error();
    EXPECT_EQ(std::string((const char*)psynth_get_chunk(mod, 2, &net), v16.size()), v16);
    write("x.wav", make_wav(0, 32, 2, sox_raw(2, "-e floating-point -b 32"), 3));
    ASSERT_EQ(load("x.wav"), 0) << psynth_sample_load_error();
    expect_float_ramp(0, 2, 9001, "extensible float");
    write("x.wav", make_wav(0, 16, 2, v16, 1, std::string(14, 'x')));
    expect_failure(load("x.wav"), "Only uncompressed PCM files supported\n");
    write("x.wav", make_wav(3, 16, 1, v16));
    expect_failure(load("x.wav"), "16 bits not supported\n");
    write("x.wav", make_wav(7, 16, 1, v16));
    expect_failure(load("x.wav"), "16 bits not supported\n");

    // Our own float saves load back, and save to the same bytes.
    sox("f.wav", 2, "-e floating-point -b 32", 9001);
    ASSERT_EQ(load("f.wav"), 0);
    ASSERT_EQ(psynth_sample_save_wav(path("out.wav").c_str(), mod, 0, &net), 0);
    ASSERT_EQ(load("out.wav", 3), 0) << psynth_sample_load_error();
    expect_float_ramp(3, 2, 9001, "saved float");
    ASSERT_EQ(psynth_sample_save_wav(path("out2.wav").c_str(), mod, 3, &net), 0);
    EXPECT_EQ(read("out2.wav"), read("out.wav"));
}

// Big-endian AIFC as sox writes it (NONE of every depth, fl32, fl64), and by hand the
// types sox cannot write: twos, sowt (little-endian), ulaw, alaw, raw.
TEST_F(RealWorldSampleFileTest, AifcFilesOfOtherProgramsLoad) {
    for (int channels : {1, 2}) {
        for (int bits : {8, 16}) {
            sox("t.aifc", channels, "-b " + std::to_string(bits), 9001);
            ASSERT_EQ(load("t.aifc", 2), 0) << bits << ": " << psynth_sample_load_error();
            EXPECT_EQ(info(2), (std::vector<int>{kFrames * channels * bits / 8, bits / 8 | (channels == 2 ? 8 : 0), 9001}));
            for (int i = 0; i < kFrames * channels; i++) {
                int v = value_at(i / channels, i % channels);
                ASSERT_EQ(bits == 8 ? at<int8_t>(2, i) : at<int16_t>(2, i), bits == 8 ? v / 256 : v) << bits << " value " << i;
            }
        }
        for (std::string options : {"-b 24", "-b 32", "-e floating-point -b 32", "-e floating-point -b 64"}) {
            sox("t.aifc", channels, options, 9001);
            ASSERT_EQ(load("t.aifc", 2), 0) << options << ": " << psynth_sample_load_error();
            expect_float_ramp(2, channels, 9001, options);
        }
    }
    const std::string v16 = sox_raw(1, "-e signed -b 16");
    std::string swapped;
    for (size_t i = 0; i < v16.size(); i += 2) swapped += std::string{v16[i + 1], v16[i]};
    for (auto [type, values] : {std::pair{"twos", swapped}, {"sowt", v16}}) {
        write("t.aifc", make_aifc(type, 16, 1, values));
        ASSERT_EQ(load("t.aifc", 0), 0) << type << ": " << psynth_sample_load_error();
        EXPECT_EQ(info(0), (std::vector<int>{kFrames * 2, 2, 22050})) << type;
        EXPECT_EQ(std::string((const char*)psynth_get_chunk(mod, 2, &net), v16.size()), v16) << type;
    }
    for (auto [type, encoding] : {std::pair{"ulaw", "-e u-law"}, {"ULAW", "-e u-law"}, {"alaw", "-e a-law"}, {"ALAW", "-e a-law"}}) {
        sox("v.raw", 2, std::string("-t raw ") + encoding);
        write("t.aifc", make_aifc(type, 16, 2, read("v.raw")));
        ASSERT_EQ(load("t.aifc", 0), 0) << type << ": " << psynth_sample_load_error();
        EXPECT_EQ(header(0)->length, (uint32_t)kFrames);
        std::string cmd = "sox -t raw -r 22050 -c 2 " + std::string(encoding) + " '" + path("v.raw") + "' '" + path("v.wav") + "'";
        ASSERT_EQ(std::system(cmd.c_str()), 0);
        expect_int16(0, sox_decoded("v.wav"), type);
    }
    write("t.aifc", make_aifc("raw ", 8, 1, std::string("\x00\x80\xff", 3)));
    ASSERT_EQ(load("t.aifc", 0), 0);
    EXPECT_EQ(at<int8_t>(0, 0) * 10000 + at<int8_t>(0, 1) * 100 + at<int8_t>(0, 2), -1280000 + 0 + 127);
    // ADPCM and 12-bit values stay refused with their messages; a little-endian file of an
    // unknown type keeps the first reading's message.
    write("t.aifc", make_aifc("ima4", 16, 1, v16));
    expect_failure(load("t.aifc", 0), "Compression ima4 not supported.\n");
    write("t.aifc", make_aifc("NONE", 12, 1, v16));
    expect_failure(load("t.aifc", 0), "12 bits not supported\n");
    sox("t.aifc", 1, "-b 16");
    std::string aifc = read("t.aifc");
    write("t.aifc", aifc.substr(0, aifc.find("SSND")));
    expect_failure(load("t.aifc", 0), "No sample data in the file\n");
    EXPECT_NE(log_text().find("Compression ima4 not supported.\n"), std::string::npos);
}

// A "smpl" chunk's first loop becomes the sample's loop: inclusive end, ping-pong for
// type 1, forward for the others; an end beyond the sample is cut to its last frame,
// and a loop that starts beyond it or ends before it starts, a chunk too short for one
// loop, or one cut off by the end of the file give no loop.
TEST_F(RealWorldSampleFileTest, WavSmplLoopsBecomeTheSampleLoop) {
    sox("s.wav", 1, "-b 16 -t wavpcm", 44100, 100);
    const std::string base = read("s.wav");
    auto smpl = [](uint32_t type, uint32_t start, uint32_t last, int loops = 1, int cut = 0) {
        std::string fields = std::string(28, 0) + sw_le(loops, 4) + sw_le(0, 4);
        std::string loop = sw_le(7, 4) + sw_le(type, 4) + sw_le(start, 4) + sw_le(last, 4) + sw_le(0, 4) + sw_le(0, 4);
        std::string chunk = fields + loop;
        return "smpl" + sw_le((uint32_t)(chunk.size() - cut), 4) + chunk.substr(0, chunk.size() - cut);
    };
    auto with = [&](const std::string& before_data, const std::string& after) {
        std::string body = base.substr(12, 24) + before_data + base.substr(36) + after;
        return "RIFF" + sw_le((uint32_t)body.size() + 4, 4) + "WAVE" + body;
    };
    struct loop_case {
        std::string file;
        uint32_t start, length;
        int type;
    };
    const std::vector<loop_case> cases = {
        {with("", smpl(0, 10, 59)), 10, 50, 1},       {with(smpl(1, 0, 99), ""), 0, 100, 2},
        {with("", smpl(2, 30, 30)), 30, 1, 1},        {with("", smpl(0, 10, 500)), 10, 90, 1},
        {with("", smpl(1, 10, 0xFFFFFFFF)), 10, 90, 2}, {with("", smpl(0, 100, 120)), 0, 0, 0},
        {with("", smpl(0, 50, 40)), 0, 0, 0},          {with("", smpl(0, 10, 59, 0)), 0, 0, 0},
        {with("", smpl(0, 10, 59, 1, 4)), 0, 0, 0},    {with("", smpl(0, 10, 59).substr(0, 50)), 0, 0, 0},
    };
    for (size_t i = 0; i < cases.size(); i++) {
        write("l.wav", cases[i].file);
        ASSERT_EQ(load("l.wav", 1), 0) << i << ": " << psynth_sample_load_error();
        EXPECT_EQ(std::tuple(header(1)->loop_start, header(1)->loop_length, header(1)->type),
                  std::tuple(cases[i].start, cases[i].length, 0x10 | cases[i].type))
            << "case " << i;
        EXPECT_EQ(header(1)->length, 100u);
        expect_playable("loop case " + std::to_string(i));
    }
}

// Every failing load into a slot leaves the whole instrument byte for byte as it was,
// whether the slot held a sample or not.
TEST_F(RealWorldSampleFileTest, FailedLoadsIntoASlotLeaveTheInstrumentAsItWas) {
    sox("a.wav", 2, "-b 16 -t wavpcm", 9001, 100);
    ASSERT_EQ(load("a.wav"), 0);
    sox("b.aiff", 1, "-b 8", 22050, 50);
    ASSERT_EQ(load("b.aiff", 1), 0);
    auto snapshot = [&] {
        std::string s;
        for (int c = 0; c < psynth_get_chunks_count(mod, &net); c++) {
            int size = -1, flags = -1, rate = -1;
            psynth_get_chunk_info(mod, c, &size, &flags, &rate, &net);
            const char* p = (const char*)psynth_get_chunk(mod, c, &net);
            s += std::to_string(c) + ":" + std::to_string(size) + "," + std::to_string(flags) + "," + std::to_string(rate) + ":" +
                 (p ? std::string(p, size) : "none") + "|";
        }
        return s;
    };
    const std::string before = snapshot();
    const std::string good = read("a.wav");
    std::vector<std::pair<std::string, std::string>> bad = {
        {std::string(good).replace(40, 4, sw_le(443, 4)), "Unexpected end of file\n"},
        {std::string(good).replace(34, 2, sw_le(12, 2)), "12 bits not supported\n"},
        {good.substr(0, 36), "No sample data in the file\n"},
        {make_aifc("ima4", 16, 1, "abcd"), "Compression ima4 not supported.\n"},
        {sw_xi(false, kSwXiSamples), "File format not recognized\n"},
        {"plain text", "File format not recognized\n"},
    };
    for (int slot : {1, 2}) {
        for (const auto& [file, message] : bad) {
            write("bad", file);
            expect_failure(load("bad", slot), message);
            ASSERT_TRUE(snapshot() == before) << message << " into slot " << slot;
        }
    }
    EXPECT_EQ(ins()->samples_num, 2);
    expect_playable("after the failed loads");
}

// XI files written from the instrument load back into the same chunks, byte for byte; a
// float sample travels as 16-bit values.
TEST_F(SampleFileTest, SavedXiInstrumentsLoadBackTheSame) {
    auto chunks = [&] {
        std::string s;
        for (int c = 0; c < 1 + 2 * (ins() ? ins()->samples_num : 0); c++) {
            int size = 0;
            psynth_get_chunk_info(mod, c, &size, nullptr, nullptr, &net);
            s += std::string((const char*)psynth_get_chunk(mod, c, &net), size) + "|";
        }
        return s;
    };
    for (bool pp : {false, true}) {
        write("t.xi", sw_xi(pp, kSwXiSamples));
        ASSERT_EQ(load("t.xi"), 0);
        const std::string loaded = chunks();
        ASSERT_EQ(psynth_sample_save_xi(path("s.xi").c_str(), mod, &net), 0);
        EXPECT_EQ(read("s.xi").substr(64, 2), pp ? "PP" : std::string("\x02\x01", 2));
        ASSERT_EQ(load("s.xi"), 0) << psynth_sample_load_error();
        EXPECT_TRUE(chunks() == loaded) << (pp ? "PP" : "plain");
        EXPECT_EQ(info(1), (std::vector<int>{32, 2 | 8, 44100}));
        ASSERT_EQ(psynth_sample_save_xi(path("s2.xi").c_str(), mod, &net), 0);
        EXPECT_EQ(read("s2.xi"), read("s.xi"));
    }
    sox("f.wav", 2, "-e floating-point -b 32", 9001, 50);
    ASSERT_EQ(load("f.wav"), 0);
    ASSERT_EQ(psynth_sample_save_xi(path("f.xi").c_str(), mod, &net), 0);
    ASSERT_EQ(load("f.xi"), 0);
    EXPECT_STREQ(ins()->name, "f.wav");
    EXPECT_EQ(header(0)->type, 0x10 | 0x40);
    EXPECT_EQ(header(0)->length, 50u);
    for (int i = 0; i < 100; i++) ASSERT_EQ(at<int16_t>(0, i), value_at(i / 2, i % 2)) << i;
    // Without an instrument nothing is written.
    psynth_free_chunks(mod, &net);
    write("keep.xi", "old");
    EXPECT_NE(psynth_sample_save_xi(path("keep.xi").c_str(), mod, &net), 0);
    EXPECT_EQ(read("keep.xi"), "old");
}

TEST_F(SampleFileTest, FilesCutShortAtEveryLengthFailAndStayPlayable) {
    sox("small.wav", 2, "-b 16 -t wavpcm", 44100, 20);
    sox("small.aifc", 2, "-b 24", 44100, 20);
    sox("small_float.wav", 1, "-e floating-point -b 64", 44100, 20);
    for (const std::string& file : {read("small.wav"), read("small.aifc"), read("small_float.wav"), sw_xi(true, kSwXiSamples)}) {
        for (size_t n = 0; n < file.size(); n++) {
            write("cut", file.substr(0, n));
            EXPECT_EQ(load("cut"), 1) << n;
            EXPECT_STRNE(psynth_sample_load_error(), "") << n;
            expect_playable("cut at " + std::to_string(n));
        }
        write("cut", file);
        EXPECT_EQ(load("cut"), 0);
    }
}

// ---- RAW, JPEG and saving ----

TEST_F(SampleFileTest, RawDataAndJpegImagesLoadThroughTheRawPath) {
    write("d.raw", std::string("\x00\x01\x80\xff\x7f\x10\x20\x30", 8));
    expect_failure(load("d.raw"), "File format not recognized\n");
    ASSERT_EQ(load_raw("d.raw", PSYNTH_SAMPLE_RAW_UINT8, 1), 0);
    EXPECT_EQ(info(0), (std::vector<int>{8, 1, 44100}));
    EXPECT_EQ(at<int8_t>(0, 0) * 1000 + at<int8_t>(0, 3), -128000 + 127);  // 128 subtracted
    ASSERT_EQ(load_raw("d.raw", PSYNTH_SAMPLE_RAW_INT8, 2, 1), 0);
    EXPECT_EQ(header(1)->length * 1000 + header(1)->type, 4064u);
    EXPECT_EQ(at<int8_t>(1, 2), -128);
    ASSERT_EQ(load_raw("d.raw", PSYNTH_SAMPLE_RAW_INT16, 2, 0), 0);
    EXPECT_EQ(at<int16_t>(0, 1), (int16_t)0xff80);
    ASSERT_EQ(load_raw("d.raw", PSYNTH_SAMPLE_RAW_FLOAT32, 1, 0), 0);
    EXPECT_EQ(info(0)[1], 4);
    EXPECT_EQ(ins()->samples_num, 2);
    write("empty.raw", "");
    EXPECT_EQ(load_raw("empty.raw", PSYNTH_SAMPLE_RAW_INT16, 1), 1);
    EXPECT_STREQ(psynth_sample_load_error(), "!File is empty");
    ASSERT_EQ(psynth_sample_new(100, 16, 2, 9001, mod, 4, &net), 0);
    EXPECT_STREQ(header(4)->name, "zlsmp");
    EXPECT_EQ(info(4), (std::vector<int>{400, 2 | 8, 9001}));

    // A 24 × 2 image: white, black and (200, 40, 10) in blocks of 8 columns.
    std::string ppm = "P6\n24 2\n255\n";
    for (int p = 0; p < 48; p++) ppm += p % 24 < 8 ? "\xff\xff\xff" : p % 24 < 16 ? std::string(3, 0) : "\xc8\x28\x0a";
    write("in.ppm", ppm);
    std::string cmd = "cjpeg -quality 100 -sample 1x1 -outfile '" + path("img.jpg") + "' '" + path("in.ppm") + "'";
    ASSERT_EQ(std::system(cmd.c_str()), 0);
    expect_failure(load("img.jpg"), "File format not recognized\n");
    ASSERT_EQ(load_raw("img.jpg", PSYNTH_SAMPLE_RAW_INT16, 2), 0) << psynth_sample_load_error();
    EXPECT_EQ(header(0)->length, 48u);  // one frame per pixel, 8-bit mono whatever the RAW choices
    EXPECT_EQ(header(0)->type, 0);
    EXPECT_EQ(info(0)[2], 44100);
    for (int p = 0; p < 48; p++) {
        int x = p % 24;
        EXPECT_NEAR(at<int8_t>(0, p), x < 8 ? 127 : x < 16 ? -127 : 250 / 3 - 127, x < 16 ? 0 : 1) << p;  // white: 128 → 127
    }
    write("iff.bin", "IFF.this is no image at all");
    EXPECT_EQ(load_raw("iff.bin", PSYNTH_SAMPLE_RAW_INT8, 1, 0), 1);
    EXPECT_STREQ(psynth_sample_load_error(), "!JPEG loading error");
    EXPECT_EQ(header(0)->length, 48u);  // the failed image left the sample alone
}

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
    // 24-bit data became floats: written with format tag 3 and 32 bits.
    sox("in24.wav", 2, "-b 24 -t wavpcm");
    ASSERT_EQ(load("in24.wav"), 0);
    ASSERT_EQ(psynth_sample_save_wav(path("f.wav").c_str(), mod, 0, &net), 0);
    std::string f = read("f.wav");
    ASSERT_EQ(f.size(), 44u + kFrames * 8);
    EXPECT_EQ(f.substr(0, 44), "RIFF" + sw_le(36 + kFrames * 8, 4) + "WAVEfmt " + sw_le(16, 4) + sw_le(3, 2) + sw_le(2, 2) + sw_le(44100, 4) +
                                   sw_le(44100 * 8, 4) + sw_le(8, 2) + sw_le(32, 2) + "data" + sw_le(kFrames * 8, 4));
    float right = (float)value_at(0, 1) / 32768;
    EXPECT_EQ(f.substr(48, 4), std::string((const char*)&right, 4));

    // A chunk without a rate is written at 44100 Hz; save, load and save give the same bytes.
    int8_t* d = (int8_t*)psynth_sample_create("z", 5, 8, 1, 0, 2, mod, &net);
    ASSERT_NE(d, nullptr);
    d[0] = -128;
    d[4] = 127;
    ASSERT_EQ(psynth_sample_save_wav(path("z.wav").c_str(), mod, 2, &net), 0);
    std::string z = read("z.wav");
    EXPECT_EQ(z.substr(24, 4), sw_le(44100, 4));
    EXPECT_EQ(z.substr(44), std::string("\x00\x80\x80\x80\xff", 5));  // unsigned
    ASSERT_EQ(load("z.wav"), 0);
    ASSERT_EQ(psynth_sample_save_wav(path("z2.wav").c_str(), mod, 0, &net), 0);
    EXPECT_EQ(read("z2.wav"), z);
    // Nothing to save, or nowhere to write: the old file stays and no temporary file is left.
    write("keep.wav", "old");
    EXPECT_NE(psynth_sample_save_wav(path("keep.wav").c_str(), mod, 9, &net), 0);
    EXPECT_NE(psynth_sample_save_wav(path("no_dir/keep.wav").c_str(), mod, 0, &net), 0);
    EXPECT_EQ(read("keep.wav"), "old");
    for (const auto& e : std::filesystem::directory_iterator(temp_dir)) {
        EXPECT_EQ(e.path().filename().string().find(".zelfon-tmp-"), std::string::npos) << e.path();
    }
}

}  // namespace
