// The headless jobs, driven through the same entry the program uses, on real files:
// exports, the demo song, "module vorbis", sample-info, and bad input that writes nothing.
#include <gtest/gtest.h>
#include <sys/stat.h>

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
#include "song/edit.h"
#include "song/song_file.h"
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

// Hostile arguments: each is refused with exit code 1 and one clear line on stderr, and
// nothing on the disk changes.
TEST_F(CommandLineTest, HostileArgumentsAreRefusedWithAClearMessage) {
    ASSERT_EQ(run({"demo", path("song.zelfon")}), 0);
    const std::string song = read(path("song.zelfon"));
    std::string wav = "RIFF";
    wav.append(40, '\0');
    std::ofstream(path("some.wav"), std::ios::binary) << wav;
    std::ofstream(path("notes.txt")) << "my notes";
    std::ofstream(path("gen.zelsynth"), std::ios::binary) << std::string("ZSYN\0\0\0\0", 8);
    ASSERT_EQ(mkfifo(path("fifo").c_str(), 0600), 0);
    fs::create_directory(dir / "folder");
    const std::string rate_range = " (a whole number from 8000 to 384000)";
    struct hostile {
        std::vector<std::string> args;
        std::string message;
    };
    const hostile table[] = {
        {{"export", path("x.wav"), "--rate", "44100abc"}, "unusable rate 44100abc" + rate_range},
        {{"export", path("x.wav"), "--rate", "4295011396"}, "unusable rate 4295011396" + rate_range},
        {{"export", path("x.wav"), "--rate", "99999999999999999999999"}, "unusable rate 99999999999999999999999" + rate_range},
        {{"export", path("x.wav"), "--rate", "-44100"}, "unusable rate -44100" + rate_range},
        {{"export", path("x.wav"), "--rate", "+44100"}, "unusable rate +44100" + rate_range},
        {{"export", path("x.wav"), "--rate", " 44100"}, "unusable rate  44100" + rate_range},
        {{"export", path("x.wav"), "--rate", ""}, "unusable rate " + rate_range},
        {{"export", path("x.wav"), "--rate", "0x10000"}, "unusable rate 0x10000" + rate_range},
        {{"export", path("x.wav"), "--rate", "7999"}, "unusable rate 7999" + rate_range},
        {{"export", path("x.wav"), "--threads", "0"}, "unusable thread count 0 (a whole number from 1 to 256)"},
        {{"export", path("x.wav"), "--threads", "257"}, "unusable thread count 257 (a whole number from 1 to 256)"},
        {{"export", path("x.wav"), "--threads", "4x"}, "unusable thread count 4x (a whole number from 1 to 256)"},
        {{"sample-info", path("some.wav"), "--channels", "3"}, "unusable channel count 3 (a whole number from 1 to 2)"},
        {{"sample-info", path("some.wav"), "--channels", "1.5"}, "unusable channel count 1.5 (a whole number from 1 to 2)"},
        {{"play", "--buffer", "0"}, "unusable buffer 0 (a whole number from 1 to 65536)"},
        {{"play", "--buffer", "512k"}, "unusable buffer 512k (a whole number from 1 to 65536)"},
        {{"play", "--buffer", "-512"}, "unusable buffer -512 (a whole number from 1 to 65536)"},
        {{"play", "--rate", "48000Hz"}, "unusable rate 48000Hz" + rate_range},
        {{"play", "--rate", "4295011396"}, "unusable rate 4295011396" + rate_range},
        // A file that is not a song where a song is expected, and a song as an export's output.
        {{"export", path("some.wav"), path("song.zelfon")}, path("song.zelfon") + " is a song or module file: an export does not replace it"},
        {{"export", path("some.wav"), path("y.wav")}, path("some.wav") + " is not a Zelfon song"},
        {{"info", path("notes.txt")}, path("notes.txt") + " is not a Zelfon song"},
        {{"info", path("gen.zelsynth")}, path("gen.zelsynth") + " is a module file, not a song"},
        {{"info", path("missing.zelfon")}, "cannot open " + path("missing.zelfon")},
        {{"export-midi", path("song.zelfon"), path("gen.zelsynth")}, path("gen.zelsynth") + " is a song or module file: an export does not replace it"},
        {{"export", path("song.zelfon"), path("folder")}, path("folder") + " is a folder"},
        {{"demo", path("notes.txt")}, path("notes.txt") + " exists and is not a song: not overwritten"},
        {{"module", "vorbis", path("fifo"), path("v.zelfon")}, path("fifo") + " is not a regular file"},
        // Inputs that are not regular files are refused before they are opened (a FIFO
        // with no writer would block for ever).
        {{"export", path("fifo"), path("z.wav")}, path("fifo") + " is not a regular file"},
        {{"info", path("folder")}, path("folder") + " is not a regular file"},
        {{"info", "/dev/zero"}, "/dev/zero is not a regular file"},
        {{"sample-info", path("fifo")}, path("fifo") + " is not a regular file"},
        {{"import", path("fifo"), path("i.zelfon")}, path("fifo") + " is not a regular file"},
    };
    for (const hostile& h : table) {
        std::string line;
        for (const std::string& a : h.args) line += " [" + a + "]";
        testing::internal::CaptureStderr();
        testing::internal::CaptureStdout();
        EXPECT_EQ(run(h.args), 1) << line;
        testing::internal::GetCapturedStdout();
        std::string err = testing::internal::GetCapturedStderr();
        EXPECT_EQ(err, "zelfon: " + h.message + "\n") << line;
    }
    EXPECT_EQ(read(path("song.zelfon")), song);
    EXPECT_EQ(read(path("notes.txt")), "my notes");
    EXPECT_EQ(read(path("gen.zelsynth")), std::string("ZSYN\0\0\0\0", 8));
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(dir)) {
        if (entry.path().filename() != "zelfon_log.txt") names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"fifo", "folder", "gen.zelsynth", "notes.txt", "some.wav", "song.zelfon"}));
}

// Numbers are read whole: exactly the range's ends pass, and the parser leaves the value
// alone on refusal.
TEST_F(CommandLineTest, NumbersAreParsedStrictly) {
    struct number_case {
        const char* text;
        int min;
        int ok;
        int value;
    };
    const number_case cases[] = {{"8000", 8000, 1, 8000}, {"384000", 8000, 1, 384000}, {"-5", -10, 1, -5},
                                 {"007", 1, 1, 7},        {"384001", 8000, 0, 0},      {"7999", 8000, 0, 0},
                                 {"-5", 0, 0, 0},         {"1e4", 8000, 0, 0},         {"12 ", 1, 0, 0},
                                 {"", 0, 0, 0},           {"-", -10, 0, 0},            {"--5", -10, 0, 0},
                                 {"4294967296", 0, 0, 0}, {"-9223372036854775809", -10, 0, 0}};
    for (const number_case& c : cases) {
        int value = 42;
        EXPECT_EQ(zelfon_parse_number(c.text, c.min, 384000, &value), c.ok) << "[" << c.text << "]";
        EXPECT_EQ(value, c.ok ? c.value : 42) << "[" << c.text << "]";
    }
}

// "-" writes the export to standard output, so that it can be piped, and nothing else
// reaches standard output then; a FIFO or device target is written in place.
TEST_F(CommandLineTest, ExportToStandardOutputPipesAndDevicesAreWrittenInPlace) {
    ASSERT_EQ(run({"demo", path("song.zelfon")}), 0);
    ASSERT_EQ(run({"export", path("song.zelfon"), path("file.wav")}), 0);
    const std::string wav = read(path("file.wav"));
    const std::string d = "'" + dir.string() + "'";
    const std::string env = "cd " + d + " && export TMPDIR=" + d + " HOME=" + d + " XDG_CONFIG_HOME=" + d + " && ";
    std::string cmd = env + ZELFON_BINARY " export song.zelfon - > piped.wav 2> err.txt";
    ASSERT_EQ(std::system(cmd.c_str()), 0) << read(path("err.txt"));
    EXPECT_EQ(read(path("piped.wav")), wav);
    EXPECT_NE(read(path("err.txt")).find("Song length (frames): 2116800"), std::string::npos) << "the log echo moved to stderr";
    cmd = env + ZELFON_BINARY " export song.zelfon - 2>/dev/null | sox -t wav - -t wav sox.wav";
    ASSERT_EQ(std::system(cmd.c_str()), 0);
    EXPECT_EQ(read(path("sox.wav")).substr(44), wav.substr(44));

    // A FIFO target is written in place (and keeps being a FIFO); /dev/null takes anything.
    ASSERT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
    cmd = env + "(cat pipe > from_pipe.wav &) && sleep 0.1 && " ZELFON_BINARY " export song.zelfon pipe > /dev/null 2>&1 && sleep 0.2";
    ASSERT_EQ(std::system(cmd.c_str()), 0);
    EXPECT_TRUE(fs::is_fifo(path("pipe")));
    EXPECT_EQ(read(path("from_pipe.wav")), wav);
    EXPECT_EQ(run({"export", path("song.zelfon"), "/dev/null"}), 0);
    EXPECT_TRUE(fs::is_character_file("/dev/null"));
    // A FIFO nobody reads is refused at once instead of waited for.
    testing::internal::CaptureStderr();
    EXPECT_EQ(run({"export", path("song.zelfon"), path("pipe")}), 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "zelfon: cannot write " + path("pipe") + "\n");
}

// A song that lasts longer than a WAV file can hold is refused at once, and says why.
TEST_F(CommandLineTest, AnExportTooLongForAWavSaysWhy) {
    zelfon_song song;
    ASSERT_EQ(zelfon_song_init(1, 44100, &song), 0);
    ASSERT_GE(zelfon_edit_new_pattern(4, 1, 1 << 30, 0, 1, &song), 0);  // a pattern at line 2^30
    ASSERT_EQ(zelfon_save_song(path("far.zelfon").c_str(), ZELFON_VERSION_MAJOR, ZELFON_VERSION_MINOR, &song), 0);
    zelfon_song_close(&song);
    testing::internal::CaptureStderr();
    EXPECT_EQ(run({"export", path("far.zelfon"), path("far.wav")}), 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "zelfon: cannot write " + path("far.wav") + ": the song is longer than a WAV file can hold (4 GB of sound)\n");
    EXPECT_FALSE(fs::exists(path("far.wav")));
}

}  // namespace
