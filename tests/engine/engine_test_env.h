// Fixtures of the engine tests. EngineDirFixture: a fresh temporary folder per test as
// working directory, TMPDIR ("3:/") and XDG_CONFIG_HOME (so "2:/" is <folder>/cfg/zelfon),
// with the memory manager, the file layer and the log up in start-up order; everything is
// restored and checked for leaks after. MemLogFixture: only the memory manager and the log
// in a fresh TMPDIR, for tests that judge leaks themselves.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "engine/file.h"
#include "engine/log.h"
#include "engine/memory.h"

namespace fs = std::filesystem;

inline std::string read_bytes(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

inline void write_bytes(const fs::path& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

// The tag stored in the 32-byte header in front of a memory-manager block.
inline std::string block_tag(const void* block) {
    char tag[16];
    std::memcpy(tag, static_cast<const char*>(block) - 24, 16);
    return std::string(tag, strnlen(tag, 16));
}

class EngineDirFixture : public ::testing::Test {
protected:
    void SetUp() override {
        const char* names[3] = {"TMPDIR", "XDG_CONFIG_HOME", "HOME"};
        for (int i = 0; i < 3; i++) {
            const char* v = std::getenv(names[i]);
            had_[i] = v != nullptr;
            saved_[i] = v ? v : "";
        }
        cwd_ = fs::current_path();
        std::string pattern = (fs::temp_directory_path() / "zelfon_engine_XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        dir_ = fs::canonical(pattern);
        fs::current_path(dir_);
        setenv("TMPDIR", dir_.c_str(), 1);
        setenv("XDG_CONFIG_HOME", (dir_ / "cfg").c_str(), 1);
        mem_init();
        v3_init();
        tarvik_log_init(TARVIK_LOG_FILE);
    }
    void TearDown() override {
        v3_deinit();
        EXPECT_FALSE(mem_free_all()) << "blocks left behind";
        tarvik_log_close();
        mem_deinit();
        fs::current_path(cwd_);
        std::error_code ignored;
        fs::permissions(dir_, fs::perms::owner_all, fs::perm_options::add, ignored);
        fs::remove_all(dir_, ignored);
        const char* names[3] = {"TMPDIR", "XDG_CONFIG_HOME", "HOME"};
        for (int i = 0; i < 3; i++) {
            if (had_[i]) setenv(names[i], saved_[i].c_str(), 1);
            else unsetenv(names[i]);
        }
    }
    std::string log_text() const { return read_bytes(dir_ / "zelfon_log.txt"); }

    fs::path dir_, cwd_;
    std::string saved_[3];
    bool had_[3] = {};
};

class MemLogFixture : public ::testing::Test {
protected:
    void SetUp() override {
        const char* old = std::getenv("TMPDIR");
        had_tmpdir_ = old != nullptr;
        old_tmpdir_ = old ? old : "";
        std::string pattern = (fs::temp_directory_path() / "zelfon_engine_XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        dir_ = pattern;
        setenv("TMPDIR", dir_.c_str(), 1);
        mem_init();
        tarvik_log_init(TARVIK_LOG_FILE);
    }
    void TearDown() override {
        mem_free_all();  // the tests give their own verdict on leaks
        tarvik_log_close();
        mem_deinit();
        std::error_code ignored;
        fs::remove_all(dir_, ignored);
        if (had_tmpdir_) setenv("TMPDIR", old_tmpdir_.c_str(), 1);
        else unsetenv("TMPDIR");
    }
    std::string log_text() const { return read_bytes(fs::path(dir_) / "zelfon_log.txt"); }

    std::string dir_, old_tmpdir_;
    bool had_tmpdir_ = false;
};
