// The headless jobs, driven through the same entry the program uses, on real files:
// exports, the demo song, "module vorbis", sample-info, and bad input that writes nothing.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "app/command_line.h"
#include "engine/file.h"
#include "engine/log.h"
#include "engine/memory.h"
#include "engine/profile.h"
#include "psynth/ogg_tone.h"
#include "song/tracker_writers.h"

namespace {

namespace fs = std::filesystem;

class CommandLineTest : public ::testing::Test {
protected:
    void SetUp() override {
        static const fs::path root = fs::temp_directory_path();  // before any test points TMPDIR at its own folder
        dir = root / ("zelfon_cli_test_" + std::to_string(getpid()));
        fs::create_directories(dir);
        setenv("TMPDIR", dir.c_str(), 1);
        mem_init();
        v3_init();
        tarvik_log_init(TARVIK_LOG_FILE);
        profile_new(nullptr);
    }
    void TearDown() override {
        profile_close(nullptr);
        v3_deinit();
        EXPECT_FALSE(mem_free_all());
        tarvik_log_close();
        mem_deinit();
        fs::remove_all(dir);
    }
    int run(std::vector<std::string> args) {
        args.insert(args.begin(), "zelfon");
        std::vector<char*> argv;
        for (std::string& a : args) argv.push_back(a.data());
        return zelfon_command_line((int)argv.size(), argv.data());
    }
    // What the program printed while exiting with `code`.
    std::string stdout_of(std::vector<std::string> args, int code) {
        testing::internal::CaptureStdout();
        EXPECT_EQ(run(std::move(args)), code);
        return testing::internal::GetCapturedStdout();
    }
    std::string path(const char* name) const { return (dir / name).string(); }
    static std::string read(const std::string& p) {
        std::ifstream f(p, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(f), {});
    }
    static uint32_t u32(const std::string& bytes, size_t at) {
        return (uint8_t)bytes[at] | (uint8_t)bytes[at + 1] << 8 | (uint8_t)bytes[at + 2] << 16 | (uint32_t)(uint8_t)bytes[at + 3] << 24;
    }

    fs::path dir;
};

TEST_F(CommandLineTest, ExportsTheDemoWhenNoSongIsGiven) {
    ASSERT_EQ(run({"export", path("demo.wav"), "--format", "float32"}), 0);
    std::string wav = read(path("demo.wav"));
    ASSERT_GE(wav.size(), 44u);
    EXPECT_EQ(wav.substr(0, 4), "RIFF");
    EXPECT_EQ(u32(wav, 40), 400u * 5292 * 2 * 4);  // 400 lines of 5292 frames, stereo float
    EXPECT_EQ(wav.size(), 44 + u32(wav, 40));
    EXPECT_EQ((uint8_t)wav[20], 3);  // float format tag
}

TEST_F(CommandLineTest, DemoSongFileRoundTripsThroughInfoAndExport) {
    ASSERT_EQ(run({"demo", path("demo.zelfon")}), 0);
    EXPECT_EQ(read(path("demo.zelfon")).substr(0, 4), "ZFON");
    EXPECT_EQ(run({"info", path("demo.zelfon")}), 0);
    ASSERT_EQ(run({"export", path("demo.zelfon"), path("from_file.wav")}), 0);
    ASSERT_EQ(run({"export", path("built.wav")}), 0);
    EXPECT_EQ(read(path("from_file.wav")), read(path("built.wav")));  // the saved song plays the same
    ASSERT_EQ(run({"export-midi", path("demo.zelfon"), path("demo.mid")}), 0);
    EXPECT_EQ(read(path("demo.mid")).substr(0, 4), "MThd");
}

TEST_F(CommandLineTest, ErrorsExitNonZeroAndLeaveNothingBehind) {
    EXPECT_NE(run({"info", path("missing.zelfon")}), 0);
    std::ofstream(path("garbage.zelfon")) << "not a song at all";
    EXPECT_NE(run({"export", path("garbage.zelfon"), path("out.wav")}), 0);
    EXPECT_FALSE(fs::exists(path("out.wav")));
    EXPECT_NE(run({"export", path("no_such_dir/out.wav")}), 0);
    EXPECT_NE(run({"export", path("out.wav"), "--mode", "sideways"}), 0);
    EXPECT_NE(run({"export", path("out.wav"), "--rate"}), 0);
    EXPECT_NE(run({"frobnicate"}), 0);
    EXPECT_NE(run({"play", "--driver", "asio"}), 0);
    EXPECT_NE(run({"play", "--buffer", "0"}), 0);
    EXPECT_EQ(run({"--help"}), 0);
    std::ofstream(path("junk.ogg")) << "not an Ogg file";
    EXPECT_NE(run({"module", "vorbis", path("junk.ogg"), path("out.zelfon")}), 0);
    EXPECT_NE(run({"module", "vorbis", path("missing.ogg"), path("out.zelfon")}), 0);
    EXPECT_NE(run({"module", "flute", path("junk.ogg"), path("out.zelfon")}), 0);
    EXPECT_NE(run({"module", "vorbis", path("junk.ogg")}), 0);
    for (const auto& entry : fs::directory_iterator(dir)) {
        std::string name = entry.path().filename().string();
        EXPECT_TRUE(name == "garbage.zelfon" || name == "junk.ogg" || name == "zelfon_log.txt") << name;
    }
}

// "import IN OUT.zelfon" writes a song that loads and plays, prints what it made and what
// it could not carry over, and never replaces a file that is not a song.
TEST_F(CommandLineTest, ImportWritesASongAndSaysWhatWasLost) {
    tw_bytes xm = tw_rich_file("xm");
    std::ofstream(path("rich.xm"), std::ios::binary).write((const char*)xm.data(), (std::streamsize)xm.size());
    std::string out = stdout_of({"import", path("rich.xm"), path("rich.zelfon")}, 0);
    EXPECT_NE(out.find("(XM) \"Rich test song\": 4 tracks, 57 lines; patterns 5, clones 2; Samplers 2, samples 3"),
              std::string::npos) << out;
    EXPECT_NE(out.find("Not carried over:\n1 x vibrato effects\n"), std::string::npos) << out;
    EXPECT_EQ(read(path("rich.zelfon")).substr(0, 4), "ZFON");
    EXPECT_NE(stdout_of({"info", path("rich.zelfon")}, 0).find("Length: 57 lines"), std::string::npos);
    ASSERT_EQ(run({"export", path("rich.zelfon"), path("rich.wav")}), 0);
    EXPECT_GT(read(path("rich.wav")).size(), 44u);
    // An existing song may be replaced; anything else may not.
    EXPECT_EQ(run({"import", path("rich.xm"), path("rich.zelfon")}), 0);
    std::ofstream(path("notes.txt")) << "my notes";
    EXPECT_NE(run({"import", path("rich.xm"), path("notes.txt")}), 0);
    EXPECT_EQ(read(path("notes.txt")), "my notes");
    std::ofstream(path("cut.xm"), std::ios::binary).write((const char*)xm.data(), 400);
    EXPECT_NE(run({"import", path("cut.xm"), path("cut.zelfon")}), 0);
    EXPECT_NE(run({"import", path("missing.it"), path("missing.zelfon")}), 0);
    EXPECT_FALSE(fs::exists(path("cut.zelfon")));
    EXPECT_FALSE(fs::exists(path("missing.zelfon")));
}

// "module vorbis IN.ogg OUT.zelfon" writes a song whose export holds the Ogg file's tone
// at its own pitch and level.
TEST_F(CommandLineTest, VorbisModuleSongExportsTheFilesTone) {
    if (!ogg_tone_encoder_found()) GTEST_SKIP() << "oggenc is not installed";
    std::string ogg = ogg_tone_make(dir.string(), "tone", 441, 1.0);
    ASSERT_FALSE(ogg.empty());
    ASSERT_EQ(run({"module", "vorbis", ogg, path("tone.zelfon")}), 0);
    ASSERT_EQ(run({"export", path("tone.zelfon"), path("tone.wav")}), 0);

    std::string wav = read(path("tone.wav"));
    ASSERT_GT(wav.size(), 44u + 4 * 44100);
    // 16-bit stereo: the file's second fills 9 lines of 5292 frames, one more line rings out.
    EXPECT_EQ(wav.size() - 44, 10u * 5292 * 4);
    std::vector<int> left;
    int peak = 0;
    for (size_t at = 44; at + 4 <= wav.size(); at += 4) {
        left.push_back((int16_t)((uint8_t)wav[at] | (uint8_t)wav[at + 1] << 8));
        peak = std::max(peak, std::abs(left.back()));
    }
    EXPECT_NEAR(ogg_tone_period(left, 1000, 44000), 100, 0.01);
    EXPECT_NEAR(peak, 16384, 400) << "half of full scale, as encoded";
    for (size_t i = 44100; i < left.size(); i++) ASSERT_EQ(left[i], 0) << "frame " << i;
}

// sample-info reads a file as the Sampler would load it; errors go to stderr.
TEST_F(CommandLineTest, SampleInfoDescribesWhatAFileLoadsAs) {
    std::string raw;
    for (int i = 0; i < 2000; i++) raw += (char)(i * 7);
    std::ofstream(path("in.raw"), std::ios::binary) << raw;
    std::string cmd = "sox -t raw -r 22050 -e signed -b 16 -c 2 '" + path("in.raw") + "' '" + path("t.wav") + "'";
    ASSERT_EQ(std::system(cmd.c_str()), 0);
    std::string out = stdout_of({"sample-info", path("t.wav")}, 0);
    EXPECT_NE(out.find("Type: WAV\n"), std::string::npos) << out;
    EXPECT_NE(out.find("Sample 0 \"t.wav\": 16-bit stereo, 22050 Hz, 500 frames, loop off"), std::string::npos) << out;

    out = stdout_of({"sample-info", path("in.raw"), "--raw", "uint8", "--channels", "2"}, 0);
    EXPECT_NE(out.find("Type: RAW\n"), std::string::npos) << out;
    EXPECT_NE(out.find("8-bit stereo, 44100 Hz, 1000 frames"), std::string::npos) << out;

    std::string wav = read(path("t.wav"));
    wav[34] = 12;  // bits per value
    std::ofstream(path("bad.wav"), std::ios::binary) << wav;
    testing::internal::CaptureStderr();
    EXPECT_EQ(run({"sample-info", path("bad.wav")}), 1);
    EXPECT_EQ(run({"sample-info", path("in.raw")}), 1);
    EXPECT_EQ(run({"sample-info", path("missing.wav")}), 1);
    EXPECT_EQ(run({"sample-info", path("in.raw"), "--raw", "int12"}), 1);
    EXPECT_EQ(run({"sample-info"}), 1);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("zelfon: " + path("bad.wav") + ": 12 bits not supported\n"), std::string::npos) << err;
    EXPECT_NE(err.find("zelfon: " + path("in.raw") + ": File format not recognized (--raw reads it as headerless data)\n"),
              std::string::npos) << err;
    EXPECT_NE(err.find("zelfon: " + path("missing.wav") + ": Can't open"), std::string::npos) << err;
    EXPECT_NE(err.find("unknown raw format int12"), std::string::npos) << err;
}

}  // namespace
