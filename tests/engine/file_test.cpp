// File layer tests: disk mapping, disk and memory files byte for byte, the growth rule,
// archives made by the system's tar and by hand (hostile ones too), the slot table, the
// flush quirk, rename/remove and directory listing with masks, all in real temporary folders.
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "engine/thread.h"
#include "engine_test_env.h"

namespace {

class V3Test : public EngineDirFixture {};

mode_t umask_value() {
    mode_t m = umask(0);
    umask(m);
    return m;
}

std::string name_of(const char* path) {
    char* n = v3_make_filename(path);
    std::string s = n ? n : "(null)";
    if (n) {
        EXPECT_EQ(block_tag(n), "v3_make_filenam");
    }
    mem_free(n);
    return s;
}

std::string read_all(int h) {
    std::string s;
    for (int c; (c = v3_getc(h)) != -1;) s += static_cast<char>(c);
    return s;
}

// The whole file in a memory-manager block, registered as disk 0. Returns the archive handle.
int register_archive(const std::string& bytes) {
    char* block = static_cast<char*>(mem_new_dynamic(bytes.size(), "test_archive"));
    std::memcpy(block, bytes.data(), bytes.size());
    int h = v3_open_in_memory(block, bytes.size());
    v3_set_archive(h);
    return h;
}

void close_archive(int h) {
    v3_set_archive(0);
    mem_free(v3_get_memory_data(h));
    v3_close(h);
}

// A ustar-like header with only the name and size fields set, then the data padded to 512.
std::string tar_entry(const std::string& name, const std::string& size_field, const std::string& data) {
    std::string e(512, '\0');
    std::memcpy(&e[0], name.data(), name.size());
    std::memcpy(&e[124], size_field.data(), size_field.size());
    e += data;
    e.resize((e.size() + 511) / 512 * 512, '\0');
    return e;
}

TEST_F(V3Test, DisksMapToWorkingConfigAndTempFolders) {
    EXPECT_EQ(name_of("1:/a/b.txt"), dir_.string() + "/a/b.txt");
    EXPECT_EQ(name_of("2:/c.ini"), dir_.string() + "/cfg/zelfon/c.ini");
    EXPECT_TRUE(fs::is_directory(dir_ / "cfg" / "zelfon"));  // created on first use
    setenv("TMPDIR", (dir_.string() + "/").c_str(), 1);
    EXPECT_EQ(name_of("3:/log"), dir_.string() + "//log");  // the extra "/" is kept
    unsetenv("TMPDIR");
    EXPECT_EQ(name_of("3:/"), "/tmp/");
    unsetenv("XDG_CONFIG_HOME");
    setenv("HOME", (dir_ / "home").c_str(), 1);
    EXPECT_EQ(name_of("2:/x"), dir_.string() + "/home/.config/zelfon/x");
    for (const char* bad : {"4:/x", "9:/x", "0:/x", "1:", "", "1:x", "abc"}) EXPECT_EQ(name_of(bad), "(null)") << bad;
}

TEST_F(V3Test, PlainPathsOpenAsTheyStandUnmappedDisksDoNot) {
    int64_t held = mem_get_stats().dynamic_in_use;  // the standard-stream wrappers
    int h = v3_open("plain.txt", "wb");
    ASSERT_NE(h, 0);
    EXPECT_EQ(v3_write("hi", 1, 2, h), 2u);
    EXPECT_EQ(v3_close(h), 0);
    EXPECT_EQ(read_bytes(dir_ / "plain.txt"), "hi");
    EXPECT_EQ(v3_open("4:/plain.txt", "wb"), 0);
    EXPECT_FALSE(fs::exists(dir_ / "4:"));
    EXPECT_EQ(v3_open("1:/plain.txt", "rb+12345678901234"), 0);  // 17-character mode
    EXPECT_EQ(v3_open("1:/", "rb"), 0);                          // a folder is not a file
    EXPECT_EQ(v3_open("1:/missing", "rb"), 0);
    EXPECT_EQ(mem_get_stats().dynamic_in_use, held);  // failed opens give back their blocks
}

TEST_F(V3Test, DiskFileReadWriteSeekTell) {
    int h = v3_open("3:/f.bin", "wb");
    EXPECT_EQ(v3_write("abcdef", 2, 3, h), 3u);
    EXPECT_EQ(v3_putc('g', h), 0);
    EXPECT_EQ(v3_tell(h), 7);
    v3_close(h);
    h = v3_open("3:/f.bin", "ab");
    v3_write("h", 1, 1, h);
    v3_close(h);
    EXPECT_EQ(v3_get_file_size("3:/f.bin"), 8);

    h = v3_open("3:/f.bin", "rb");
    EXPECT_EQ(v3_getc(h), 'a');
    char four[8] = {};
    EXPECT_EQ(v3_read(four, 4, 2, h), 1u);  // 7 bytes left: one whole element
    EXPECT_EQ(v3_getc(h), -1);
    EXPECT_EQ(v3_seek(h, 2, V3_SEEK_SET), 0);
    EXPECT_EQ(v3_getc(h), 'c');
    EXPECT_EQ(v3_seek(h, -1, V3_SEEK_END), 0);
    EXPECT_EQ(v3_getc(h), 'h');
    EXPECT_EQ(v3_seek(h, -2, V3_SEEK_CUR), 0);
    EXPECT_EQ(v3_tell(h), 6);
    v3_rewind(h);
    EXPECT_EQ(read_all(h), "abcdefgh");
    EXPECT_EQ(v3_putc('x', h), -1);  // read-only stream
    v3_close(h);
}

TEST_F(V3Test, MemoryFileGrowsBy1024OrToTheEndOfALargeWrite) {
    char bytes[3072];
    for (int i = 0; i < 3072; i++) bytes[i] = static_cast<char>(i * 7);
    int small = v3_open_in_memory(nullptr, 0);
    EXPECT_EQ(v3_write(bytes, 1, 10, small), 10u);
    EXPECT_EQ(v3_get_memory_size(small), 1024);
    EXPECT_EQ(v3_tell(small), 10);
    EXPECT_EQ(block_tag(v3_get_memory_data(small)), "mem_resize");

    int large = v3_open_in_memory(nullptr, 0);
    EXPECT_EQ(v3_write(bytes, 3, 1000, large), 1000u);
    EXPECT_EQ(v3_get_memory_size(large), 3000);

    v3_seek(small, 1024, V3_SEEK_SET);
    v3_write(bytes, 1, 1023, small);  // lacks 1023: one step
    EXPECT_EQ(v3_get_memory_size(small), 2048);
    v3_write(bytes, 1, 1501, small);  // from 2047, lacks 1500: to the end of the write
    EXPECT_EQ(v3_get_memory_size(small), 3548);
    EXPECT_EQ(v3_putc(0x5A, small), 0);  // at the end: one more step of 1024
    EXPECT_EQ(v3_get_memory_size(small), 4572);
    v3_seek(small, 9000, V3_SEEK_SET);
    EXPECT_EQ(v3_putc(1, small), -1);  // one step cannot reach it: nothing changes
    EXPECT_EQ(v3_get_memory_size(small), 4572);

    const char* data = static_cast<const char*>(v3_get_memory_data(small));
    EXPECT_EQ(std::memcmp(data, bytes, 10), 0);
    EXPECT_EQ(std::string(data + 10, 1014), std::string(1014, '\0'));  // the gap is zero-filled
    EXPECT_EQ(std::memcmp(data + 1024, bytes, 1023), 0);
    EXPECT_EQ(std::memcmp(data + 2047, bytes, 1501), 0);
    EXPECT_EQ(data[3548], 0x5A);
    for (int h : {small, large}) {
        mem_free(v3_get_memory_data(h));  // the caller's block, taken back before closing
        EXPECT_EQ(v3_close(h), 0);
    }
}

TEST_F(V3Test, MemoryReadStopsAtTheEndWithoutBoundsOnSeek) {
    char* block = static_cast<char*>(mem_new_dynamic(10, "test"));
    for (int i = 0; i < 10; i++) block[i] = static_cast<char>('0' + i);
    int h = v3_open_in_memory(block, 10);
    v3_seek(h, 3, V3_SEEK_SET);
    char out[12];
    std::memset(out, '#', sizeof out);
    EXPECT_EQ(v3_read(out, 4, 3, h), 1u);  // 7 bytes: one whole element, all 7 copied
    EXPECT_EQ(std::string(out, 12), "3456789#####");
    EXPECT_EQ(v3_tell(h), 10);
    EXPECT_EQ(v3_getc(h), -1);
    EXPECT_EQ(v3_read(out, 1, 1, h), 0u);
    EXPECT_EQ(v3_seek(h, -4, V3_SEEK_END), 0);
    EXPECT_EQ(v3_getc(h), '6');
    EXPECT_EQ(v3_seek(h, -20, V3_SEEK_CUR), 0);  // taken as it is
    EXPECT_EQ(v3_tell(h), -13);
    EXPECT_EQ(v3_read(out, 1, 4, h), 0u);
    EXPECT_EQ(v3_write("x", 1, 1, h), 0u);
    EXPECT_EQ(v3_getc(h), -1);
    v3_rewind(h);
    EXPECT_EQ(v3_write("AB", 1, 2, h), 2u);  // inside the buffer: no growth
    EXPECT_EQ(v3_get_memory_size(h), 10);
    EXPECT_EQ(v3_get_memory_data(h), block);
    EXPECT_EQ(std::string(block, 10), "AB23456789");
    v3_close(h);
    mem_free(block);  // the caller's, untouched by close
}

TEST_F(V3Test, ArchiveMadeBySystemTarReadsThroughDiskZero) {
    fs::create_directories(dir_ / "src" / "sub");
    std::string b(513, '\0');
    for (int i = 0; i < 513; i++) b[i] = static_cast<char>(i * 31 + 5);
    write_bytes(dir_ / "src" / "a.txt", "alpha\n");
    write_bytes(dir_ / "src" / "sub" / "b.bin", b);
    write_bytes(dir_ / "src" / "empty.txt", "");
    std::string command = "cd '" + (dir_ / "src").string() + "' && tar --format=ustar -cf ../t.tar a.txt sub/b.bin empty.txt";
    ASSERT_EQ(std::system(command.c_str()), 0);
    std::string tar = read_bytes(dir_ / "t.tar");

    int archive = register_archive(tar);
    int h = v3_open("0:/sub/b.bin", "rb");
    ASSERT_NE(h, 0);
    EXPECT_EQ(v3_get_memory_size(h), 513);
    EXPECT_EQ(read_all(h), b);
    EXPECT_EQ(block_tag(v3_get_memory_data(h)), "v3_open");
    v3_close(h);
    EXPECT_EQ(v3_get_file_size("0:/a.txt"), 6);
    h = v3_open("0:/empty.txt", "rb");
    EXPECT_NE(h, 0);
    EXPECT_EQ(v3_getc(h), -1);
    v3_close(h);
    for (const char* missing : {"0:/missing", "0:/a.tx", "0:/A.txt", "0:/sub", "0:/"}) {
        EXPECT_EQ(v3_open(missing, "rb"), 0) << missing;
    }
    h = v3_open("0:/a.txt", "rb");  // a read-only memory file takes writes only up to its size
    v3_seek(h, 3, V3_SEEK_SET);
    EXPECT_EQ(v3_write("XYZW", 1, 4, h), 3u);
    v3_rewind(h);
    EXPECT_EQ(read_all(h), "alpXYZ");
    v3_close(h);
    close_archive(archive);
    EXPECT_EQ(v3_open("0:/a.txt", "rb"), 0);  // no archive registered

    archive = v3_open("1:/t.tar", "rb");  // a disk file serves as well
    v3_set_archive(archive);
    EXPECT_EQ(v3_get_file_size("0:/sub/b.bin"), 513);
    v3_set_archive(0);
    v3_close(archive);
}

TEST_F(V3Test, HostileArchivesFailCleanly) {
    // Every decimal digit counts in the octal size: "19" is 1 × 8 + 9 = 17.
    std::string tar = tar_entry("x", "00000000019", "0123456789abcdefgh");
    tar += tar_entry(std::string(100, 'n'), "00000000001", "z");  // a name filling its field
    int archive = register_archive(tar);
    int h = v3_open("0:/x", "rb");
    EXPECT_EQ(read_all(h), "0123456789abcdefg");
    v3_close(h);
    h = v3_open(("0:/" + std::string(100, 'n')).c_str(), "rb");
    EXPECT_EQ(read_all(h), "z");
    v3_close(h);
    close_archive(archive);

    // A size beyond the archive ends the walk before anything is allocated for it.
    archive = register_archive(tar_entry("huge", "77777777777", "") + tar_entry("after", "1", "a"));
    mem_stats before = mem_get_stats();
    EXPECT_EQ(v3_open("0:/huge", "rb"), 0);
    EXPECT_EQ(v3_open("0:/after", "rb"), 0);
    EXPECT_EQ(mem_get_stats().max_dynamic_used, before.max_dynamic_used);
    EXPECT_EQ(mem_get_stats().error_size, 0);
    close_archive(archive);

    std::string two = tar_entry("a", "00000000003", "abc") + tar_entry("b", "00000001000", std::string(512, 'b'));
    archive = register_archive(two.substr(0, 1024 + 300));  // cut inside b's data
    EXPECT_EQ(v3_open("0:/b", "rb"), 0);
    EXPECT_EQ(v3_get_file_size("0:/a"), 3);
    close_archive(archive);
    archive = register_archive(two.substr(0, 60));  // cut inside the first header
    EXPECT_EQ(v3_open("0:/a", "rb"), 0);
    close_archive(archive);
}

TEST_F(V3Test, SlotTableHolds256HandlesAndIgnoresInvalidOnes) {
    for (int i = 1; i <= V3_MAX_FILES; i++) ASSERT_EQ(v3_open_in_memory(nullptr, 0), i);
    EXPECT_EQ(v3_open_in_memory(nullptr, 0), 0);
    EXPECT_EQ(v3_open("3:/full", "wb"), 0);
    EXPECT_EQ(v3_close(256), 0);
    EXPECT_EQ(v3_open_in_memory(nullptr, 5), 0);  // no buffer but a size: refused
    EXPECT_FALSE(fs::exists(dir_ / "full"));
    EXPECT_EQ(v3_close(100), 0);
    EXPECT_EQ(v3_open_in_memory(nullptr, 0), 100);  // the freed slot is reused
    for (int i = 1; i <= V3_MAX_FILES; i++) v3_close(i);

    char c = 0;
    for (int bad : {0, -1, 257, 5}) {  // 5 is closed now
        EXPECT_EQ(v3_read(&c, 1, 1, bad), 0u);
        EXPECT_EQ(v3_write(&c, 1, 1, bad), 0u);
        EXPECT_EQ(v3_getc(bad), 0);
        EXPECT_EQ(v3_putc('x', bad), 0);
        EXPECT_EQ(v3_seek(bad, 1, V3_SEEK_SET), 0);
        EXPECT_EQ(v3_tell(bad), 0);
        EXPECT_EQ(v3_close(bad), 0);
        EXPECT_EQ(v3_flush(bad), 0);
        EXPECT_EQ(v3_get_memory_data(bad), nullptr);
    }
}

TEST_F(V3Test, FlushReachesTheFileOfTheNextHandle) {
    int one = v3_open("3:/one", "wb");
    int two = v3_open("3:/two", "wb");
    ASSERT_EQ(two, one + 1);
    v3_write("1", 1, 1, one);
    v3_write("2", 1, 1, two);
    EXPECT_EQ(v3_flush(one), 0);
    EXPECT_EQ(read_bytes(dir_ / "two"), "2");
    EXPECT_EQ(read_bytes(dir_ / "one"), "");  // still in the stream's buffer
    EXPECT_EQ(v3_flush(two), 0);              // slot of handle 3: empty
    EXPECT_EQ(read_bytes(dir_ / "one"), "");
    v3_close(one);
    v3_close(two);
    EXPECT_EQ(read_bytes(dir_ / "one"), "1");
}

TEST_F(V3Test, RenameMovesAndReplacesRemoveDeletes) {
    write_bytes(dir_ / "r.txt", "12345");
    write_bytes(dir_ / "cfg.txt", "old");
    EXPECT_EQ(v3_get_file_size("3:/r.txt"), 5);
    EXPECT_EQ(v3_rename("3:/r.txt", "1:/cfg.txt"), 0);
    EXPECT_FALSE(fs::exists(dir_ / "r.txt"));
    EXPECT_EQ(read_bytes(dir_ / "cfg.txt"), "12345");
    EXPECT_NE(v3_rename("3:/r.txt", "1:/x"), 0);
    EXPECT_NE(v3_rename("1:/cfg.txt", "4:/x"), 0);
    EXPECT_EQ(v3_get_file_size("1:/r.txt"), 0);
    EXPECT_EQ(v3_remove("1:/cfg.txt"), 0);
    EXPECT_FALSE(fs::exists(dir_ / "cfg.txt"));
    EXPECT_NE(v3_remove("1:/cfg.txt"), 0);
    EXPECT_NE(v3_remove("4:/cfg.txt"), 0);
}

std::string listing(const char* path, const char* mask) {
    std::vector<std::string> found;
    v3_find_item item = {};
    item.path = path;
    item.mask = mask;
    for (int more = v3_find_first(&item); more; more = v3_find_next(&item)) {
        found.push_back(std::string(item.name) + (item.type ? "/" : ""));
    }
    v3_find_close(&item);
    v3_find_close(&item);
    std::sort(found.begin(), found.end());
    std::string s;
    for (const auto& f : found) s += f + " ";
    return s;
}

TEST_F(V3Test, ListingFiltersFilesByMaskButNeverFolders) {
    fs::create_directories(dir_ / "list" / "sub.txt");
    for (const char* f : {"a.WAV", "b.wav", "c.aiff", "d.txt", "wav", "e.wav.bak", "fwav"}) write_bytes(dir_ / "list" / f, "");
    fs::create_symlink(dir_ / "list" / "sub.txt", dir_ / "list" / "link");
    EXPECT_EQ(listing("1:/list", "wav/AIFF"), "../ ./ a.WAV b.wav c.aiff link/ sub.txt/ ");
    EXPECT_EQ(listing((dir_ / "list/").c_str(), "txt"), "../ ./ d.txt link/ sub.txt/ ");
    EXPECT_EQ(listing("1:/list", nullptr), "../ ./ a.WAV b.wav c.aiff d.txt e.wav.bak fwav link/ sub.txt/ wav ");
    EXPECT_EQ(listing("1:/list", ""), listing("1:/list", nullptr));
    EXPECT_EQ(listing("1:/missing", nullptr), "");
    EXPECT_EQ(listing("4:/list", nullptr), "");
}

void open_write_log(tarvik_thread*, void* arg) {
    int id = *static_cast<int*>(arg);
    for (int i = 0; i < 200; i++) {
        int h = v3_open_in_memory(nullptr, 0);
        v3_write(&i, sizeof i, 1, h);
        mem_free(v3_get_memory_data(h));
        v3_close(h);
        tarvik_log("t%d %d\n", id, i);  // the printer opens its own file meanwhile
    }
}

TEST_F(V3Test, ThreadsOpeningAndLoggingTogetherShareTheTable) {
    tarvik_thread t[3];
    int ids[3] = {0, 1, 2};
    testing::internal::CaptureStdout();
    for (int i = 0; i < 3; i++) ASSERT_EQ(tarvik_thread_create(&t[i], open_write_log, &ids[i]), 0);
    for (auto& th : t) EXPECT_EQ(tarvik_thread_join(&th), 0);
    testing::internal::GetCapturedStdout();
    std::string log = log_text();
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 600);
    EXPECT_NE(log.find("t2 199\n"), std::string::npos);
    EXPECT_EQ(v3_open_in_memory(nullptr, 0), 1);  // every slot was given back
    v3_close(1);
}

TEST_F(V3Test, InitWrapsStandardStreamsAndReadsDrives) {
    ASSERT_NE(v3_get_std_stream(1), nullptr);
    EXPECT_EQ(v3_get_std_stream(0)->f, stdin);
    EXPECT_EQ(v3_get_std_stream(2)->f, stderr);
    EXPECT_EQ(v3_get_std_stream(3), nullptr);
    EXPECT_EQ(v3_get_drives_count(), 1);
    EXPECT_STREQ(v3_get_drive_name(0), "/");
    EXPECT_EQ(v3_get_drive_name(1), nullptr);
    EXPECT_EQ(v3_get_current_drive(), 0);
    int64_t held = mem_get_stats().dynamic_in_use;
    v3_set_archive(7);
    v3_deinit();
    EXPECT_EQ(v3_get_std_stream(1), nullptr);
    EXPECT_EQ(mem_get_stats().dynamic_in_use, held - 3 * static_cast<int64_t>(sizeof(v3_file)));
    v3_init();
    EXPECT_EQ(v3_get_archive(), 0);
}

// ---- Safe saves ----

// The names in the test folder apart from the log, sorted.
std::vector<std::string> names_in(const fs::path& dir) {
    std::vector<std::string> out;
    for (const auto& e : fs::directory_iterator(dir)) {
        std::string name = e.path().filename().string();
        if (name != "zelfon_log.txt") out.push_back(name);
    }
    std::sort(out.begin(), out.end());
    return out;
}

// Saves `text` to `path` through the safe save; returns v3_save_end's result.
int save_text(const char* path, const std::string& text, int commit = 1) {
    v3_save save;
    int h = v3_save_begin(path, &save);
    if (h) {
        EXPECT_EQ(v3_write(text.data(), 1, text.size(), h), text.size());
    }
    return v3_save_end(&save, commit);
}

TEST_F(V3Test, SaveReplacesTheTargetOnlyWhenCommitted) {
    write_bytes(dir_ / "t.txt", "old");
    v3_save save;
    int h = v3_save_begin("1:/t.txt", &save);
    ASSERT_NE(h, 0);
    EXPECT_EQ(save.in_place, 0);
    EXPECT_EQ(v3_write("new data", 1, 8, h), 8u);
    // Meanwhile the target is untouched and the data sits in our temporary file beside it.
    EXPECT_EQ(read_bytes(dir_ / "t.txt"), "old");
    std::vector<std::string> during = names_in(dir_);
    ASSERT_EQ(during.size(), 2u);
    EXPECT_EQ(during[0].substr(0, 18), ".t.txt.zelfon-tmp-");
    EXPECT_EQ(during[0].size(), 18u + 6);
    EXPECT_EQ(fs::path(save.temp).filename(), during[0]);
    EXPECT_EQ(v3_save_end(&save, 1), 0);
    EXPECT_EQ(read_bytes(dir_ / "t.txt"), "new data");
    EXPECT_EQ(names_in(dir_), std::vector<std::string>{"t.txt"});
    EXPECT_EQ(save.h, 0);
    EXPECT_EQ(save.temp, nullptr);

    EXPECT_NE(save_text("1:/t.txt", "dropped", 0), 0);  // the caller's writes failed
    EXPECT_EQ(read_bytes(dir_ / "t.txt"), "new data");
    EXPECT_EQ(names_in(dir_), std::vector<std::string>{"t.txt"});

    EXPECT_EQ(save_text("fresh.txt", "plain path"), 0);  // relative to the working folder
    EXPECT_EQ(read_bytes(dir_ / "fresh.txt"), "plain path");
    EXPECT_EQ(fs::status(dir_ / "fresh.txt").permissions() & fs::perms::all,
              fs::perms::all & ~fs::perms(umask_value()) & ~(fs::perms::owner_exec | fs::perms::group_exec | fs::perms::others_exec));
}

TEST_F(V3Test, SaveKeepsTheTargetsPermissionsAndTakesLongNames) {
    write_bytes(dir_ / "private.txt", "old");
    fs::permissions(dir_ / "private.txt", fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_EQ(save_text("1:/private.txt", "new"), 0);
    EXPECT_EQ(fs::status(dir_ / "private.txt").permissions() & fs::perms::all, fs::perms::owner_read | fs::perms::owner_write);

    std::string long_name(250, 'n');  // with the temporary mark it would pass the system's 255
    EXPECT_EQ(save_text(("1:/" + long_name).c_str(), "long"), 0);
    EXPECT_EQ(read_bytes(dir_ / long_name), "long");
    EXPECT_EQ(save_text(("1:/" + long_name).c_str(), "longer"), 0);
    EXPECT_EQ(read_bytes(dir_ / long_name), "longer");
    EXPECT_EQ(names_in(dir_).size(), 2u);
}

TEST_F(V3Test, SaveCleansOnlyItsOwnStaleTemporaryFilesOfTheSameTarget) {
    write_bytes(dir_ / "victim", "precious");
    write_bytes(dir_ / ".t.txt.zelfon-tmp-abc123", "left by a killed save");
    fs::create_symlink(dir_ / "victim", dir_ / ".t.txt.zelfon-tmp-LINK00");  // removed, never followed
    write_bytes(dir_ / ".t.txt.zelfon-tmp-abc1234", "not our pattern");
    write_bytes(dir_ / ".u.txt.zelfon-tmp-abc123", "another target's");
    write_bytes(dir_ / "t.txt.tmp", "an old-style name");
    fs::create_directory(dir_ / ".t.txt.zelfon-tmp-dir000");
    EXPECT_EQ(save_text("1:/t.txt", "saved"), 0);
    EXPECT_EQ(names_in(dir_), (std::vector<std::string>{".t.txt.zelfon-tmp-abc1234", ".t.txt.zelfon-tmp-dir000",
                                                        ".u.txt.zelfon-tmp-abc123", "t.txt", "t.txt.tmp", "victim"}));
    EXPECT_EQ(read_bytes(dir_ / "victim"), "precious");
    EXPECT_EQ(read_bytes(dir_ / "t.txt"), "saved");
}

TEST_F(V3Test, SaveNeverWritesThroughALinkAndReplacesALinkAtTheTarget) {
    write_bytes(dir_ / "victim", "precious");
    fs::create_symlink(dir_ / "victim", dir_ / "t.wav.tmp");  // where older saves put their data
    fs::create_symlink(dir_ / "victim", dir_ / "t.wav");
    EXPECT_EQ(save_text("1:/t.wav", "export"), 0);
    EXPECT_EQ(read_bytes(dir_ / "victim"), "precious");
    EXPECT_FALSE(fs::is_symlink(dir_ / "t.wav"));
    EXPECT_EQ(read_bytes(dir_ / "t.wav"), "export");
}

TEST_F(V3Test, SaveWritesDevicesFifosAndStandardOutputInPlace) {
    fs::create_symlink("/dev/null", dir_ / "null.wav");
    v3_save save;
    ASSERT_NE(v3_save_begin("1:/null.wav", &save), 0);
    EXPECT_EQ(save.in_place, 1);
    EXPECT_EQ(save.temp, nullptr);
    EXPECT_EQ(v3_save_end(&save, 1), 0);
    EXPECT_TRUE(fs::is_symlink(dir_ / "null.wav"));
    EXPECT_TRUE(fs::is_character_file("/dev/null"));

    // A FIFO with a reader gets the data; one with none is refused at once, not waited for.
    ASSERT_EQ(mkfifo((dir_ / "pipe").c_str(), 0600), 0);
    EXPECT_EQ(v3_save_begin("1:/pipe", &save), 0);
    EXPECT_EQ(save.error, V3_SAVE_CANT_CREATE);
    v3_save_end(&save, 1);
    int reader = open((dir_ / "pipe").c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(reader, 0);
    EXPECT_EQ(save_text("1:/pipe", "through the pipe"), 0);
    char got[32] = {};
    EXPECT_EQ(read(reader, got, sizeof got), 16);
    close(reader);
    EXPECT_EQ(std::string(got), "through the pipe");
    EXPECT_EQ(v3_get_file_type("1:/pipe"), V3_FILE_SPECIAL);

    testing::internal::CaptureStdout();
    EXPECT_EQ(save_text(V3_SAVE_STDOUT, std::string("RIFF\0data", 9)), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), std::string("RIFF\0data", 9));
    EXPECT_EQ(names_in(dir_), (std::vector<std::string>{"null.wav", "pipe"}));
}

TEST_F(V3Test, SaveRefusesFoldersAndPathsThatMapNowhere) {
    fs::create_directory(dir_ / "folder");
    v3_save save;
    EXPECT_EQ(v3_save_begin("1:/folder", &save), 0);
    EXPECT_EQ(save.error, V3_SAVE_NOT_A_FILE);
    EXPECT_NE(v3_save_end(&save, 1), 0);
    const char* nowhere[] = {"0:/member", "4:/x", "", nullptr};
    for (const char* path : nowhere) {
        EXPECT_EQ(v3_save_begin(path, &save), 0) << (path ? path : "(null)");
        EXPECT_EQ(save.error, V3_SAVE_BAD_PATH);
        EXPECT_NE(v3_save_end(&save, 1), 0);
    }
    EXPECT_EQ(v3_save_begin("1:/no_such_folder/x", &save), 0);
    EXPECT_EQ(save.error, V3_SAVE_CANT_CREATE);
    v3_save_end(&save, 1);
    EXPECT_EQ(names_in(dir_), std::vector<std::string>{"folder"});
}

TEST_F(V3Test, FileTypesFollowLinks) {
    write_bytes(dir_ / "f", "x");
    fs::create_symlink(dir_ / "f", dir_ / "link");
    fs::create_directory(dir_ / "d");
    EXPECT_EQ(v3_get_file_type("1:/f"), V3_FILE_REGULAR);
    EXPECT_EQ(v3_get_file_type("1:/link"), V3_FILE_REGULAR);
    EXPECT_EQ(v3_get_file_type("1:/d"), V3_FILE_DIRECTORY);
    EXPECT_EQ(v3_get_file_type("/dev/null"), V3_FILE_SPECIAL);
    EXPECT_EQ(v3_get_file_type("1:/missing"), V3_FILE_NONE);
    EXPECT_EQ(v3_get_file_type("7:/f"), V3_FILE_NONE);
    EXPECT_EQ(v3_get_file_type(nullptr), V3_FILE_NONE);
    ASSERT_EQ(mkfifo((dir_ / "fifo").c_str(), 0600), 0);
    EXPECT_EQ(v3_get_file_type("1:/fifo"), V3_FILE_SPECIAL);
    EXPECT_EQ(v3_get_file_size("1:/fifo"), 0);  // not opened: nobody writes it, so that would never end
    EXPECT_EQ(v3_get_file_size("/dev/zero"), 0);
    EXPECT_EQ(v3_get_file_size("1:/link"), 1);
    int a = register_archive(tar_entry("member", "00000000003", "abc"));
    EXPECT_EQ(v3_get_file_type("0:/member"), V3_FILE_REGULAR);
    EXPECT_EQ(v3_get_file_type("0:/other"), V3_FILE_NONE);
    close_archive(a);
}

}  // namespace
