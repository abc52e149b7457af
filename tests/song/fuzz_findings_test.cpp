// Every input a fuzzer found a fault with is kept in tests/data/fuzz as "<target>-<what>"
// and replayed here through the fuzzers' own reader code (the sanitizer build checks each
// step). The causes have tests of their own beside the code they were in.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fuzz_harness.h"

namespace {

namespace fs = std::filesystem;

TEST(FuzzFindings, EveryKeptFindingLoadsAndPlays) {
    int count = 0;
    for (const fs::directory_entry& entry : fs::directory_iterator(ZELFON_TEST_DATA_DIR "/fuzz")) {
        std::string name = entry.path().filename().string();
        std::string target = name.substr(0, name.find('-'));
        std::ifstream in(entry.path(), std::ios::binary);
        std::vector<uint8_t> data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        SCOPED_TRACE(name);
        EXPECT_EQ(zelfon_fuzz_run(target.c_str(), data.data(), data.size()), 0);
        count++;
    }
    EXPECT_GT(count, 0);
}

}  // namespace
