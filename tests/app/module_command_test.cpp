// "zelfon module vorbis IN.ogg OUT.zelfon" on real files: the song it writes exports to a
// WAV file holding the Ogg file's tone at its own pitch and level; bad input writes nothing.
#include <gtest/gtest.h>

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

namespace {

namespace fs = std::filesystem;

// Taken before any test points TMPDIR into its own folder (and removes it afterwards).
const fs::path kTempRoot = fs::temp_directory_path();

class ModuleCommandTest : public ::testing::Test {
protected:
    void SetUp() override {
        dir = kTempRoot / ("zelfon_module_cmd_test_" + std::to_string(getpid()));
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
    std::string path(const char* name) const { return (dir / name).string(); }

    fs::path dir;
};

TEST_F(ModuleCommandTest, VorbisSongExportsTheFilesTone) {
    if (!ogg_tone_encoder_found()) GTEST_SKIP() << "oggenc is not installed";
    std::string ogg = ogg_tone_make(dir.string(), "tone", 441, 1.0);
    ASSERT_FALSE(ogg.empty());
    ASSERT_EQ(run({"module", "vorbis", ogg, path("tone.zelfon")}), 0);
    ASSERT_EQ(run({"export", path("tone.zelfon"), path("tone.wav")}), 0);

    std::ifstream in(path("tone.wav"), std::ios::binary);
    std::string wav((std::istreambuf_iterator<char>(in)), {});
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

TEST_F(ModuleCommandTest, BadInputWritesNothing) {
    std::ofstream(path("junk.ogg")) << "not an Ogg file";
    EXPECT_NE(run({"module", "vorbis", path("junk.ogg"), path("out.zelfon")}), 0);
    EXPECT_NE(run({"module", "vorbis", path("missing.ogg"), path("out.zelfon")}), 0);
    EXPECT_NE(run({"module", "flute", path("junk.ogg"), path("out.zelfon")}), 0);
    EXPECT_NE(run({"module", "vorbis", path("junk.ogg")}), 0);
    EXPECT_FALSE(fs::exists(path("out.zelfon")));
}

}  // namespace
