// Log printer tests: messages appended to a real file per disk (through the file layer),
// in order, echoed to stdout, cut at the buffer size, silent when disabled or closed, and
// still written around the file layer's start-up and shutdown.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "engine/file.h"
#include "engine/log.h"
#include "engine/memory.h"

namespace {

namespace fs = std::filesystem;

std::string read_text(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

// Each test gets a fresh directory as TMPDIR; the environment and working directory are restored after.
class LogTest : public ::testing::Test {
protected:
    void SetUp() override {
        save_env("TMPDIR", 0);
        save_env("XDG_CONFIG_HOME", 1);
        cwd_ = fs::current_path();
        std::string pattern = (fs::temp_directory_path() / "zelfon_log_XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        dir_ = pattern;
        setenv("TMPDIR", dir_.c_str(), 1);
        mem_init();
        v3_init();
    }
    void TearDown() override {
        tarvik_log_close();
        v3_deinit();
        EXPECT_EQ(mem_get_stats().dynamic_in_use, 0) << "the printer left a block behind";
        mem_deinit();
        fs::current_path(cwd_);
        fs::remove_all(dir_);
        const char* names[] = {"TMPDIR", "XDG_CONFIG_HOME"};
        for (int i = 0; i < 2; i++) {
            if (had_[i]) setenv(names[i], saved_[i].c_str(), 1);
            else unsetenv(names[i]);
        }
    }
    void save_env(const char* name, int i) {
        const char* v = std::getenv(name);
        had_[i] = v != nullptr;
        saved_[i] = v ? v : "";
    }
    fs::path dir_, cwd_;
    std::string saved_[2];
    bool had_[2] = {};
};

TEST_F(LogTest, AppendsEachMessageInOrderAndEchoesIt) {
    std::ofstream(dir_ / "zelfon_log.txt") << "old\n";
    tarvik_log_init(TARVIK_LOG_FILE);
    testing::internal::CaptureStdout();
    tarvik_log("one %d\n", 1);
    EXPECT_EQ(read_text(dir_ / "zelfon_log.txt"), "old\none 1\n");  // written before the next message
    tarvik_log("two %s\n", "x");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "one 1\ntwo x\n");
    EXPECT_EQ(read_text(dir_ / "zelfon_log.txt"), "old\none 1\ntwo x\n");
}

TEST_F(LogTest, SilentBeforeInitWhileDisabledAndAfterClose) {
    tarvik_log("before\n");
    EXPECT_FALSE(fs::exists(dir_ / "zelfon_log.txt"));
    tarvik_log_init(TARVIK_LOG_FILE);
    tarvik_log_disable(1);
    tarvik_log("off\n");
    EXPECT_FALSE(fs::exists(dir_ / "zelfon_log.txt"));
    tarvik_log_disable(0);
    tarvik_log("on\n");
    tarvik_log_close();
    tarvik_log("closed\n");
    EXPECT_EQ(read_text(dir_ / "zelfon_log.txt"), "on\n");
}

TEST_F(LogTest, LongMessageIsCutToBuffer) {
    tarvik_log_init(TARVIK_LOG_FILE);
    std::string long_text(TARVIK_LOG_MESSAGE_SIZE + 900, 'x');
    tarvik_log("%s", long_text.c_str());
    EXPECT_EQ(read_text(dir_ / "zelfon_log.txt"), std::string(TARVIK_LOG_MESSAGE_SIZE - 1, 'x'));
}

TEST_F(LogTest, DisksMapToWorkingConfigAndTempDirectories) {
    fs::create_directory(dir_ / "work");
    fs::current_path(dir_ / "work");
    tarvik_log_init("1:/w.txt");
    tarvik_log("w\n");
    EXPECT_EQ(read_text(dir_ / "work" / "w.txt"), "w\n");

    setenv("XDG_CONFIG_HOME", (dir_ / "cfg").c_str(), 1);  // missing folders are created
    tarvik_log_init("2:/c.txt");
    tarvik_log("c\n");
    EXPECT_EQ(read_text(dir_ / "cfg" / "zelfon" / "c.txt"), "c\n");

    setenv("TMPDIR", (dir_.string() + "/").c_str(), 1);  // a trailing "/" gives "//", still the same file
    tarvik_log_init("3:/t.txt");
    tarvik_log("t\n");
    EXPECT_EQ(read_text(dir_ / "t.txt"), "t\n");

    std::string plain = (dir_ / "plain.txt").string();  // no disk prefix: used as it stands
    tarvik_log_init(plain.c_str());
    tarvik_log("p\n");
    EXPECT_EQ(read_text(plain), "p\n");
}

TEST_F(LogTest, WritesBeforeFileLayerStartsAndAfterItStops) {
    v3_deinit();  // the fixture started it; shut down as the program does
    tarvik_log_init(TARVIK_LOG_FILE);
    tarvik_log("after deinit\n");
    mem_new_dynamic(5, "leak");
    EXPECT_TRUE(mem_free_all());  // the report is written with the file layer down
    std::string report = read_text(dir_ / "zelfon_log.txt");
    EXPECT_EQ(report.substr(0, 53), "after deinit\nMEMORY CLEANUP (DYNAMIC)\nFREE 5 leak\nMax");
    EXPECT_EQ(report.substr(report.size() - 31), "Max storage memory used: 0\n5 0\n");
    fs::remove(dir_ / "zelfon_log.txt");
    mem_init();
    tarvik_log("restarted\n");  // before v3_init
    v3_init();
    tarvik_log("up\n");
    EXPECT_EQ(read_text(dir_ / "zelfon_log.txt"), "restarted\nup\n");
}

TEST_F(LogTest, FullFileBecomesTheOneOldFileAndANewOneStarts) {
    std::string old_start = "the first log\n" + std::string(TARVIK_LOG_ROTATE_SIZE - 100, 'o') + "\n";
    std::ofstream(dir_ / "zelfon_log.txt") << old_start;
    std::ofstream(dir_ / "zelfon_log.txt.1") << "an older log\n";
    tarvik_log_init(TARVIK_LOG_FILE);
    testing::internal::CaptureStdout();
    tarvik_log("short\n");  // still under the size: appended
    EXPECT_EQ(fs::file_size(dir_ / "zelfon_log.txt"), old_start.size() + 6);
    std::string line(99, 'x');
    tarvik_log("%s\n", line.c_str());  // reaches the size: the file is moved aside after it
    EXPECT_FALSE(fs::exists(dir_ / "zelfon_log.txt"));
    EXPECT_EQ(read_text(dir_ / "zelfon_log.txt.1"), old_start + "short\n" + line + "\n");
    tarvik_log("next\n");
    EXPECT_EQ(read_text(dir_ / "zelfon_log.txt"), "next\n");

    // Much logging keeps two files of at most the size and one message each.
    std::string chunk(TARVIK_LOG_MESSAGE_SIZE - 2, 'm');
    for (int i = 0; i < 700; i++) tarvik_log("%s\n", chunk.c_str());
    testing::internal::GetCapturedStdout();
    std::vector<std::string> names;
    for (const auto& e : fs::directory_iterator(dir_)) names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"zelfon_log.txt", "zelfon_log.txt.1"}));
    EXPECT_LT(fs::file_size(dir_ / "zelfon_log.txt"), (uintmax_t)TARVIK_LOG_ROTATE_SIZE);
    EXPECT_GE(fs::file_size(dir_ / "zelfon_log.txt.1"), (uintmax_t)TARVIK_LOG_ROTATE_SIZE);
    EXPECT_LT(fs::file_size(dir_ / "zelfon_log.txt.1"), (uintmax_t)TARVIK_LOG_ROTATE_SIZE + TARVIK_LOG_MESSAGE_SIZE);
}

TEST_F(LogTest, EchoGoesToStandardErrorWhenAsked) {
    tarvik_log_init(TARVIK_LOG_FILE);
    tarvik_log_echo_to_stderr(1);
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    tarvik_log("to err\n");
    tarvik_log_echo_to_stderr(0);
    tarvik_log("to out\n");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "to err\n");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "to out\n");
    EXPECT_EQ(read_text(dir_ / "zelfon_log.txt"), "to err\nto out\n");
}

}  // namespace
