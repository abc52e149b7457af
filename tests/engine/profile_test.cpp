// Profile tests: parsing (comments, quotes, "\r" and "\n" lines, the 1024-character cut),
// the default file order, and saves compared byte for byte: unchanged text kept, changed
// keys rewritten in place, removed keys dropped, run-time keys appended, failures harmless.
#include <sys/stat.h>

#include "engine/profile.h"
#include "engine_test_env.h"
#include "file_faults.h"

namespace {

class ProfileTest : public EngineDirFixture {
protected:
    void SetUp() override {
        EngineDirFixture::SetUp();
        profile_new(&p_);
    }
    void TearDown() override {
        profile_close(&p_);
        profile_close(nullptr);
        EngineDirFixture::TearDown();
    }
    // Writes `text` to cfg.txt in the test folder and loads it; returns the text.
    std::string load(const std::string& text) {
        write_bytes(dir_ / "cfg.txt", text);
        EXPECT_EQ(profile_load("1:/cfg.txt", &p_), 0);
        return text;
    }
    std::string saved() {
        EXPECT_EQ(profile_save(&p_), 0);
        return read_bytes(dir_ / "cfg.txt");
    }
    const char* str(const char* key) { return profile_get_str_value(key, "(none)", &p_); }
    profile_data p_;
};

const std::string kLayout =
    "// Zelfon settings\n"
    "buffer 2048 // device buffer\n"
    "\n"
    "  windowname \"My / Window\"  ignored words\n"
    "flag\n"
    "path//comment\n"
    "audiodriver\tdsound\r\n"
    "long \"two\nlines\" tail\n"
    "frequency -48000x";
const char* const kLayoutKeys[] = {"buffer", "windowname", "flag", "path", "audiodriver", "long", "frequency"};

TEST_F(ProfileTest, LoadReadsKeysValuesAndLineNumbers) {
    load(kLayout);
    ASSERT_EQ(p_.num, 7);
    const char* const* keys = kLayoutKeys;
    const int lines[] = {1, 3, 4, 5, 6, 8, 10};  // "\r\n" counts as two line ends
    for (int i = 0; i < 7; i++) {
        EXPECT_STREQ(p_.keys[i].key, keys[i]);
        EXPECT_EQ(p_.keys[i].line, lines[i]) << keys[i];
    }
    const char* values[] = {"2048", "My / Window", "(none)", "(none)", "dsound", "two\nlines", "-48000x"};
    for (int i = 0; i < 7; i++) EXPECT_STREQ(str(keys[i]), values[i]) << keys[i];
    EXPECT_EQ(p_.keys[2].value, nullptr);
    EXPECT_EQ(profile_get_int_value("buffer", 0, &p_), 2048);
    EXPECT_EQ(profile_get_int_value("frequency", 0, &p_), -48000);
    EXPECT_EQ(profile_get_int_value("audiodriver", 77, &p_), 77);
    EXPECT_EQ(profile_get_int_value("Buffer", 5, &p_), 5);  // keys are case-sensitive
    EXPECT_EQ(p_.file_num, -1);
}

TEST_F(ProfileTest, DefaultFilesAreTriedInOrder) {
    EXPECT_EQ(profile_load(nullptr, &p_), -1);
    EXPECT_EQ(p_.file_num, -1);
    EXPECT_EQ(p_.file_name, nullptr);
    const fs::path cfg = dir_ / "cfg" / "zelfon";
    const fs::path files[] = {dir_ / "zelfon_config.txt", cfg / "zelfon_config.txt", dir_ / "zelfon_config.ini",
                              cfg / "zelfon_config.ini"};
    fs::create_directories(cfg);
    for (int i = 3; i >= 0; i--) {
        write_bytes(files[i], "source " + std::to_string(i) + "\n");
        EXPECT_EQ(profile_load(nullptr, &p_), 0);
        EXPECT_EQ(profile_get_int_value("source", -1, &p_), i);
        EXPECT_EQ(p_.file_num, i);
        EXPECT_STREQ(p_.file_name, PROFILE_DEFAULT_FILES[i]);
    }
    profile_new(nullptr);  // the global profile serves a null argument
    EXPECT_EQ(profile_load(nullptr, nullptr), 0);
    EXPECT_EQ(profile_get_int_value("source", -1, nullptr), 0);
    profile_close(nullptr);
    EXPECT_EQ(profile_get_int_value("source", -1, nullptr), -1);
}

TEST_F(ProfileTest, UnchangedSaveKeepsEveryByte) {
    std::string text = load(kLayout + "\r\n\r\n// end\t \n  \n");
    EXPECT_EQ(saved(), text);
    EXPECT_EQ(profile_load(p_.file_name, &p_), 0);  // reloading by the profile's own name
    EXPECT_EQ(saved(), text);
    EXPECT_EQ(std::distance(fs::directory_iterator(dir_), fs::directory_iterator()), 1) << "cfg.txt only";
}

TEST_F(ProfileTest, ChangedValuesAreRewrittenInPlaceAndQuotedWhenNeeded) {
    load(kLayout);
    const char* values[] = {"4096", "Two Words", "1", "/home/me", "", "one", nullptr};
    for (int i = 0; i < 7; i++) profile_set_str_value(kLayoutKeys[i], values[i], &p_);
    EXPECT_EQ(saved(),
              "// Zelfon settings\n"
              "buffer 4096 // device buffer\n"
              "\n"
              "  windowname \"Two Words\"  ignored words\n"
              "flag 1\n"
              "path \"/home/me\"//comment\n"
              "audiodriver \"\"\r\n"
              "long one tail\n"
              "frequency");
    EXPECT_EQ(profile_load("1:/cfg.txt", &p_), 0);  // the quoted values read back as set
    EXPECT_EQ(std::string(str("windowname")) + "|" + str("path") + "|" + str("audiodriver") + "|" + str("long"),
              "Two Words|/home/me||one");
    EXPECT_EQ(p_.num, 7);
}

TEST_F(ProfileTest, RemovedKeysAreDroppedRunTimeKeysAppended) {
    load("a 1\r\nb 2\r\n// keep\r\nc 3");
    EXPECT_EQ(profile_remove_key("b", &p_), 0);
    EXPECT_EQ(profile_remove_key("b", &p_), -1);
    EXPECT_STREQ(str("b"), "(none)");
    profile_set_str_value("newkey", "x y", &p_);
    profile_set_str_value("n", "5", &p_);
    EXPECT_EQ(saved(), "a 1\r\n// keep\r\nc 3\r\nnewkey \"x y\"\r\nn 5\r\n");

    profile_remove_key("newkey", &p_);
    profile_set_str_value("b", "back", &p_);  // a removed key comes back in its old place
    EXPECT_EQ(saved(), "a 1\r\nb back\r\n// keep\r\nc 3\r\nn 5\r\n");

    load("x 1\n// note\n");
    profile_add_key("on_comment", "v", 1, &p_);  // a key given a line replaces that line
    profile_add_key("far", "w", 99, &p_);        // past the end: appended
    profile_add_key("twin", "t", 0, &p_);        // its line is taken: appended
    profile_remove_key("x", &p_);
    EXPECT_EQ(saved(), "on_comment v\nfar w\ntwin t\n");
}

TEST_F(ProfileTest, TokensAreCutAt1024Characters) {
    std::string k1024(1024, 'k'), v1024(1024, 'v');
    std::string text = load("// limits\n" + k1024 + " " + v1024 + "\n" + std::string(1025, 'K') + " " +
                            std::string(1500, 'V') + "\n");
    ASSERT_EQ(p_.num, 2);
    EXPECT_STREQ(str(k1024.c_str()), v1024.c_str());
    EXPECT_EQ(std::string(p_.keys[1].key), std::string(1024, 'K'));
    EXPECT_EQ(std::string(p_.keys[1].value), std::string(1024, 'V'));
    EXPECT_NE(log_text().find("cfg.txt line 3: key longer than 1024 characters, cut\n"), std::string::npos);
    EXPECT_NE(log_text().find("cfg.txt line 3: value longer than 1024 characters, cut\n"), std::string::npos);
    EXPECT_EQ(saved(), text);  // unchanged lines keep their full length
}

TEST_F(ProfileTest, UnclosedQuoteRunsToTheEnd) {
    load("a \"x\nb 2\n");
    ASSERT_EQ(p_.num, 1);
    EXPECT_STREQ(str("a"), "x\nb 2\n");
    EXPECT_NE(log_text().find("cfg.txt line 1: the quoted value is not closed"), std::string::npos);
    profile_set_str_value("a", "z", &p_);
    EXPECT_EQ(saved(), "a z");  // the whole entry was the value
}

// A value of nothing but blanks reads as no number, and the reader stops at its end (a
// quoted value of control characters once walked past its terminator).
TEST_F(ProfileTest, BlankValuesGiveTheDefaultNumber) {
    load("a \"\x06\"\nfrequency \"\t \"\n");
    EXPECT_EQ(profile_get_int_value("a", 7, &p_), 7);
    EXPECT_EQ(profile_get_int_value("frequency", 44100, &p_), 44100);
}

// Temporary files of the saves of cfg.txt left in the test folder.
int temp_files(const fs::path& dir) {
    int n = 0;
    for (const auto& e : fs::directory_iterator(dir)) n += e.path().filename().string().rfind(".cfg.txt.zelfon-tmp-", 0) == 0;
    return n;
}

TEST_F(ProfileTest, FailedSaveLeavesTheOldFileWhole) {
    fs::create_directory(dir_ / "ro");
    const std::string text = "keep 1\n";
    write_bytes(dir_ / "ro" / "cfg.txt", text);
    ASSERT_EQ(profile_load("1:/ro/cfg.txt", &p_), 0);
    profile_set_str_value("keep", "2", &p_);
    {
        TestUnwritable ro((dir_ / "ro").string());  // no new file can be made there
        ASSERT_TRUE(ro.active);
        EXPECT_NE(profile_save(&p_), 0);
    }
    EXPECT_EQ(read_bytes(dir_ / "ro" / "cfg.txt"), text);
    EXPECT_NE(log_text().find("profile_save(): no configuration file could be created (first tried: 1:/ro/cfg.txt)"),
              std::string::npos);

    // The disk fills up while writing: a value far longer than the room left.
    load(text);
    for (int i = 0; i < 40; i++) profile_set_str_value(("key" + std::to_string(i)).c_str(), std::string(1000, 'v').c_str(), &p_);
    {
        TestFileSizeLimit full(fs::file_size(dir_ / "zelfon_log.txt") + 4096);
        EXPECT_NE(profile_save(&p_), 0);
    }
    EXPECT_EQ(read_bytes(dir_ / "cfg.txt"), text);
    EXPECT_EQ(temp_files(dir_), 0) << "the temporary file is removed";
    EXPECT_NE(log_text().find("profile_save(): writing 1:/cfg.txt failed; the file is left as it was\n"), std::string::npos);
    EXPECT_EQ(profile_save(&p_), 0);  // with room again
    EXPECT_EQ(read_bytes(dir_ / "cfg.txt").substr(0, text.size() + 5), text + "key0 ");
}

TEST_F(ProfileTest, AFifoIsNotReadAsTheConfiguration) {
    ASSERT_EQ(mkfifo((dir_ / "zelfon_config.txt").c_str(), 0600), 0);  // nobody writes it
    EXPECT_NE(profile_load("1:/zelfon_config.txt", &p_), 0);
    EXPECT_EQ(p_.num, 0);
    EXPECT_NE(log_text().find("profile_load(): 1:/zelfon_config.txt is not a regular file\n"), std::string::npos) << log_text();
}

TEST_F(ProfileTest, SaveFallsBackToEarlierDefaultFiles) {
    fs::create_directories(dir_ / "cfg" / "zelfon");
    write_bytes(dir_ / "cfg" / "zelfon" / "zelfon_config.txt", "rate 1\n");
    ASSERT_EQ(profile_load(nullptr, &p_), 0);
    EXPECT_EQ(p_.file_num, 1);
    profile_set_str_value("rate", "2", &p_);
    {
        TestUnwritable ro((dir_ / "cfg" / "zelfon").string());
        ASSERT_TRUE(ro.active);
        EXPECT_EQ(profile_save(&p_), 0);
    }
    EXPECT_EQ(read_bytes(dir_ / "zelfon_config.txt"), "rate 2\n");
    EXPECT_EQ(read_bytes(dir_ / "cfg" / "zelfon" / "zelfon_config.txt"), "rate 1\n");
    EXPECT_EQ(p_.file_num, 0);
    EXPECT_STREQ(p_.file_name, "1:/zelfon_config.txt");

    profile_close(&p_);  // nothing loaded: the last default file is written
    profile_set_str_value("fresh", "yes", &p_);
    EXPECT_EQ(profile_save(&p_), 0);
    EXPECT_EQ(read_bytes(dir_ / "cfg" / "zelfon" / "zelfon_config.ini"), "fresh yes\n");
    EXPECT_EQ(p_.file_num, 3);
}

TEST_F(ProfileTest, FileTooLargeIsNotLoadedNorOverwritten) {
    std::string big(1048577, 'x');
    write_bytes(dir_ / "cfg.txt", big);
    EXPECT_EQ(profile_load("1:/cfg.txt", &p_), 1);
    EXPECT_EQ(p_.num, 0);
    profile_set_str_value("a", "1", &p_);
    EXPECT_NE(profile_save(&p_), 0);
    EXPECT_EQ(read_bytes(dir_ / "cfg.txt").size(), big.size());
    EXPECT_NE(log_text().find("profile_save(): 1:/cfg.txt was not read whole"), std::string::npos);
}

}  // namespace
