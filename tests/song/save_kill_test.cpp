// A save or a WAV export killed at any moment: a child process writes a big song or WAV
// over an older file and is killed after dozens of different delays; the target must hold
// the old file or the new one byte for byte every time, and the next save of the same
// target leaves no temporary file behind.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "psynth/psynth_modules.h"
#include "song/export.h"
#include "song/song_file.h"
#include "song_test_util.h"

namespace {

namespace fs = std::filesystem;

constexpr int kKillPoints = 32;       // per kind of file
constexpr int kChunkBytes = 12 << 20;  // big enough for a save to take a while

// In one read: the files are big and read dozens of times.
std::string read_all(const fs::path& p) {
    std::ifstream f(p, std::ios::binary | std::ios::ate);
    std::string bytes(f ? (size_t)f.tellg() : 0, '\0');
    f.seekg(0);
    f.read(bytes.data(), (std::streamsize)bytes.size());
    return bytes;
}

void write_all(const fs::path& p, const std::string& bytes) { std::ofstream(p, std::ios::binary) << bytes; }

class SaveKillTest : public SongFixture {
public:
    void SetUp() override {
        SongFixture::SetUp();
        folder = fs::path(temp_dir) / "kill";
        fs::remove_all(folder);
        fs::create_directories(folder);
    }

    // A Sampler holding one big data chunk of `seed`-made bytes, and a pattern of `lines`.
    void build_song(int seed, int lines) {
        big = add_module(psynth_sampler, "Big");
        psynth_make_link(0, big, song.net);
        ASSERT_EQ(psynth_new_chunk(big, 2, kChunkBytes, 0, 44100, song.net), 0);
        uint8_t* data = (uint8_t*)psynth_get_chunk(big, 2, song.net);
        for (int i = 0; i < kChunkBytes; i++) data[i] = (uint8_t)(i * 31 + seed + (i >> 12));
        add_pattern(0, lines);
        song.bpm = 100 + seed;
        zelfon_sort_patterns(&song);
    }

    // Names in the folder that are temporary files of our saves.
    int temp_files() const {
        int n = 0;
        for (const auto& e : fs::directory_iterator(folder)) n += e.path().filename().string().find(".zelfon-tmp-") != std::string::npos;
        return n;
    }

    // Runs `job` in a child that is killed after `delay`; true when the child was killed
    // before it ended by itself.
    static bool run_killed(const std::function<void()>& job, std::chrono::microseconds delay) {
        pid_t pid = fork();
        if (pid == 0) {
            job();
            _exit(0);
        }
        std::this_thread::sleep_for(delay);
        kill(pid, SIGKILL);
        int status = 0;
        waitpid(pid, &status, 0);
        return WIFSIGNALED(status);
    }

    // How long `job` takes in a child of its own, from the fork to its end.
    static std::chrono::microseconds child_duration(const std::function<void()>& job) {
        auto start = std::chrono::steady_clock::now();
        pid_t pid = fork();
        if (pid == 0) {
            job();
            _exit(0);
        }
        int status = 0;
        waitpid(pid, &status, 0);
        return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start);
    }

    // Kills `job` (which writes `target`) at kKillPoints moments spread over twice its own
    // duration, with the old bytes put back before each run, and checks the
    // target after each kill. Prints how many kills left the old file, the new one, and
    // temporary files.
    void kill_at_many_points(const fs::path& target, const std::string& old_bytes, const std::string& new_bytes,
                             const std::function<void()>& job) {
        // The shortest of three runs: the first one also warms the caches.
        std::chrono::microseconds duration = std::chrono::microseconds::max();
        for (int i = 0; i < 3; i++) {
            write_all(target, old_bytes);
            duration = std::min(duration, child_duration(job));
            ASSERT_EQ(read_all(target), new_bytes);
        }
        int old_kept = 0, new_done = 0, temps_left = 0;
        for (int i = 0; i < kKillPoints; i++) {
            write_all(target, old_bytes);
            auto delay = duration * 2 * i / kKillPoints;
            run_killed(job, delay);
            std::string now = read_all(target);
            ASSERT_TRUE(now == old_bytes || now == new_bytes)
                << "kill " << i << " after " << delay.count() << " us left " << now.size() << " bytes";
            (now == old_bytes ? old_kept : new_done)++;
            temps_left += temp_files() > 0;
        }
        printf("%d kills over %lld us: %d left the old file, %d the new one, %d a temporary file\n", kKillPoints,
               (long long)duration.count(), old_kept, new_done, temps_left);
        EXPECT_GT(old_kept, 0);
        EXPECT_GT(new_done, 0);
        EXPECT_GT(temps_left, 0) << "no kill fell inside the writing";
    }

    fs::path folder;
    int big = -1;  // the module holding the big chunk
};

TEST_F(SaveKillTest, AKilledSongSaveLeavesTheOldOrTheNewFile) {
    build_song(1, 16);
    const std::string target = (folder / "song.zelfon").string();
    ASSERT_EQ(zelfon_save_song(target.c_str(), ZELFON_VERSION_MAJOR, ZELFON_VERSION_MINOR, &song), 0);
    const std::string old_bytes = read_all(target);
    song.bpm = 150;
    ((uint8_t*)psynth_get_chunk(big, 2, song.net))[kChunkBytes / 2] ^= 0xFF;
    const std::string reference = (fs::path(temp_dir) / "reference.zelfon").string();
    ASSERT_EQ(zelfon_save_song(reference.c_str(), ZELFON_VERSION_MAJOR, ZELFON_VERSION_MINOR, &song), 0);
    const std::string new_bytes = read_all(reference);
    ASSERT_NE(old_bytes, new_bytes);
    ASSERT_GT(new_bytes.size(), (size_t)kChunkBytes);

    kill_at_many_points(folder / "song.zelfon", old_bytes, new_bytes, [&] {
        zelfon_save_song(target.c_str(), ZELFON_VERSION_MAJOR, ZELFON_VERSION_MINOR, &song);
    });

    // The next save cleans what the killed ones left.
    ASSERT_EQ(zelfon_save_song(target.c_str(), ZELFON_VERSION_MAJOR, ZELFON_VERSION_MINOR, &song), 0);
    EXPECT_EQ(read_all(target), new_bytes);
    EXPECT_EQ(temp_files(), 0);
}

TEST_F(SaveKillTest, AKilledWavExportLeavesTheOldOrTheNewFile) {
    build_song(2, 400);  // 400 lines at 102 BPM: 10.9 MB of 16-bit stereo
    const std::string target = (folder / "take.wav").string();
    const std::string reference = (fs::path(temp_dir) / "reference.wav").string();
    ASSERT_EQ(zelfon_export_to_wav(reference.c_str(), ZELFON_EXPORT_INT16, ZELFON_EXPORT_ONE_FILE, nullptr, nullptr, &song),
              ZELFON_EXPORT_OK);
    const std::string new_bytes = read_all(reference);
    ASSERT_EQ(new_bytes.size(), 44u + zelfon_get_song_length_frames(44100, &song) * 4);
    const std::string old_bytes = "RIFF an earlier take";

    kill_at_many_points(folder / "take.wav", old_bytes, new_bytes, [&] {
        zelfon_export_to_wav(target.c_str(), ZELFON_EXPORT_INT16, ZELFON_EXPORT_ONE_FILE, nullptr, nullptr, &song);
    });

    ASSERT_EQ(zelfon_export_to_wav(target.c_str(), ZELFON_EXPORT_INT16, ZELFON_EXPORT_ONE_FILE, nullptr, nullptr, &song),
              ZELFON_EXPORT_OK);
    EXPECT_EQ(read_all(target), new_bytes);
    EXPECT_EQ(temp_files(), 0);
}

}  // namespace
