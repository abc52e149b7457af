// WAV and MIDI export: real files in the test's own temporary folder, read back byte by
// byte; the MIDI file is parsed by a small reader here and, when it is installed, by the
// Python library mido as an independent check.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "engine/memory.h"
#include "psynth/psynth_modules.h"
#include "song/export.h"
#include "song/module_file.h"
#include "song_test_util.h"

namespace {

constexpr int kLine = 5292;  // frames per line at 125 BPM, speed 6, 44100 Hz

// A source whose two outputs hold constant values, sounding whether or not it plays notes.
struct constant_data {
    int16_t left;
    int16_t right;
};

intptr_t constant_handler(int mod_num, psynth_event* event, psynth_net* net) {
    switch (event->command) {
    case PS_CMD_GET_DATA_SIZE: return sizeof(constant_data);
    case PS_CMD_GET_SYNTH_NAME: return (intptr_t)"Constant";
    case PS_CMD_GET_INPUTS_NUM: return 0;
    case PS_CMD_GET_OUTPUTS_NUM: return 2;
    case PS_CMD_GET_FLAGS: return PSYNTH_FLAG_GENERATOR;
    case PS_CMD_INIT: return 1;
    case PS_CMD_RENDER_REPLACE: {
        psynth_module* mod = &net->modules[mod_num];
        const constant_data* d = (const constant_data*)mod->data;
        for (int i = 0; i < mod->render_frames; i++) {
            mod->output_buffers[0][mod->render_offset + i] = d->left;
            mod->output_buffers[1][mod->render_offset + i] = d->right;
        }
        return 1;
    }
    default: return 0;
    }
}

std::vector<uint8_t> read_bytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

uint32_t le32(const std::vector<uint8_t>& b, size_t at) {
    return b[at] | b[at + 1] << 8 | b[at + 2] << 16 | (uint32_t)b[at + 3] << 24;
}

class SongExportTest : public SongFixture {
public:
    // A constant source named `name` with the given channel values; linked into OUT if asked.
    int add_constant(const char* name, int16_t left, int16_t right, bool into_out = true) {
        int mod = psynth_add_synth(-1, constant_handler, name, 0, 0, 0, song.bpm, song.speed, song.net);
        EXPECT_GE(mod, 0);
        constant_data* d = (constant_data*)song.net->modules[mod].data;
        d->left = left;
        d->right = right;
        if (into_out) psynth_make_link(0, mod, song.net);
        return mod;
    }
    // The real path of a file in "3:/".
    std::string real(const std::string& name) const { return temp_dir + "/" + name; }
    // The files in "3:/" apart from the log, sorted.
    std::vector<std::string> files() const {
        std::vector<std::string> out;
        for (const auto& entry : std::filesystem::directory_iterator(temp_dir)) {
            std::string name = entry.path().filename().string();
            if (name != "zelfon_log.txt") out.push_back(name);
        }
        std::sort(out.begin(), out.end());
        return out;
    }
    int export_wav(const char* path, int format, int mode) {
        return zelfon_export_to_wav(path, format, mode, nullptr, nullptr, &song);
    }
};

// The samples of a stereo WAV file written by the export, 16-bit (tag 1) or float (tag 3).
std::vector<double> wav_samples(const std::vector<uint8_t>& file) {
    std::vector<double> out;
    for (size_t at = 44; file[20] == 1 && at + 2 <= file.size(); at += 2) out.push_back((int16_t)(file[at] | file[at + 1] << 8));
    for (size_t at = 44; file[20] == 3 && at + 4 <= file.size(); at += 4) {
        float f;
        memcpy(&f, &file[at], 4);
        out.push_back(f);
    }
    return out;
}

TEST_F(SongExportTest, EmptySongWritesHeadersWithNoData) {
    ASSERT_EQ(export_wav("3:/empty16.wav", ZELFON_EXPORT_INT16, ZELFON_EXPORT_ONE_FILE), ZELFON_EXPORT_OK);
    ASSERT_EQ(export_wav("3:/empty32.wav", ZELFON_EXPORT_FLOAT32, ZELFON_EXPORT_ONE_FILE), ZELFON_EXPORT_OK);
    const std::vector<uint8_t> int16_header = {
        'R', 'I', 'F', 'F', 36, 0, 0, 0, 'W', 'A', 'V', 'E', 'f', 'm', 't', ' ', 16, 0, 0, 0,
        1, 0, 2, 0, 0x44, 0xAC, 0, 0,  // PCM, stereo, 44100 Hz
        0x10, 0xB1, 0x02, 0,           // 176400 bytes per second
        4, 0, 16, 0, 'd', 'a', 't', 'a', 0, 0, 0, 0};
    const std::vector<uint8_t> float_header = {
        'R', 'I', 'F', 'F', 36, 0, 0, 0, 'W', 'A', 'V', 'E', 'f', 'm', 't', ' ', 16, 0, 0, 0,
        3, 0, 2, 0, 0x44, 0xAC, 0, 0,  // float, stereo, 44100 Hz
        0x20, 0x62, 0x05, 0,           // 352800 bytes per second
        8, 0, 32, 0, 'd', 'a', 't', 'a', 0, 0, 0, 0};
    EXPECT_EQ(read_bytes(real("empty16.wav")), int16_header);
    EXPECT_EQ(read_bytes(real("empty32.wav")), float_header);
    EXPECT_EQ(files(), (std::vector<std::string>{"empty16.wav", "empty32.wav"}));
}

TEST_F(SongExportTest, HeaderSizesEqualTheBytesWritten) {
    add_constant("C", 100, 100);
    int slot = add_pattern(0, 7);
    cell(slot, 0, 3) = note_cell(0, 0, 0, 0x0F, 97);  // a tempo change: the length is no multiple of a piece
    int64_t frames = zelfon_get_song_length_frames(44100, &song);
    // 97 BPM: a tick of 290969/256 frames, four lines of six ticks = 27278 frames and a fraction.
    ASSERT_EQ(frames, 3 * kLine + 27278);
    for (int format : {ZELFON_EXPORT_INT16, ZELFON_EXPORT_FLOAT32}) {
        ASSERT_EQ(export_wav("3:/sizes.wav", format, ZELFON_EXPORT_ONE_FILE), ZELFON_EXPORT_OK);
        std::vector<uint8_t> file = read_bytes(real("sizes.wav"));
        uint32_t bytes = (uint32_t)frames * 2 * (format == ZELFON_EXPORT_FLOAT32 ? 4 : 2);
        EXPECT_EQ(le32(file, 40), bytes);
        EXPECT_EQ(le32(file, 4), bytes + 36);
        EXPECT_EQ(file.size(), 44 + (size_t)bytes);
    }
}

TEST_F(SongExportTest, SamplesAreTheOutputTimesEightSaturatedOrOver4096) {
    ASSERT_EQ(add_constant("C", 300, -9000), 1);
    add_pattern(0, 2);
    song.net->global_volume = 128;  // the mix is scaled; a module's own file is not
    struct row {
        int format, mode;
        double mix_left, mix_right, own_left, own_right;
    };
    // 16-bit: -4500 × 8 saturates symmetrically; float: no saturation.
    for (row r : {row{ZELFON_EXPORT_INT16, ZELFON_EXPORT_PER_MODULE, 150 * 8, -32767, 300 * 8, -32767},
                  row{ZELFON_EXPORT_FLOAT32, ZELFON_EXPORT_PER_OUT_LINK, 0.03662109375, -1.0986328125, 0.0732421875, -2.197265625}}) {
        SCOPED_TRACE("format " + std::to_string(r.format));
        ASSERT_EQ(export_wav("3:/mix.wav", r.format, ZELFON_EXPORT_ONE_FILE), ZELFON_EXPORT_OK);
        ASSERT_EQ(export_wav("3:/m.wav", r.format, r.mode), ZELFON_EXPORT_OK);
        std::vector<double> mix = wav_samples(read_bytes(real("mix.wav"))), own = wav_samples(read_bytes(real("m_01_C.wav")));
        ASSERT_EQ(mix.size(), 4u * kLine);
        ASSERT_EQ(own.size(), 4u * kLine);
        for (int i = 0; i < 2 * kLine; i++) {
            ASSERT_EQ(mix[2 * i], r.mix_left) << "frame " << i;
            ASSERT_EQ(mix[2 * i + 1], r.mix_right) << "frame " << i;
            ASSERT_EQ(own[2 * i], r.own_left) << "frame " << i;
            ASSERT_EQ(own[2 * i + 1], r.own_right) << "frame " << i;
        }
        if (r.mode == ZELFON_EXPORT_PER_MODULE) {
            EXPECT_EQ(read_bytes(real("m.wav")), read_bytes(real("mix.wav"))) << "module 0's file is the mix";
        }
    }
}

TEST_F(SongExportTest, ExportPlaysFromLineZeroEvenAfterAStrayStop) {
    int mod = add_logger();
    int slot = add_pattern(0, 4);
    cell(slot, 0, 0) = note_cell(1, mod + 1);  // level 256 from the first frame
    cell(slot, 0, 2) = note_cell(ZELFON_NOTE_OFF);
    // A stop left in the live ring (no render thread took it) must not stop the export.
    zelfon_cell stop = note_cell(ZELFON_NOTE_STOP);
    ASSERT_EQ(zelfon_send_live_cell(&stop, 0, &song), 0);
    ASSERT_EQ(export_wav("3:/line0.wav", ZELFON_EXPORT_INT16, ZELFON_EXPORT_ONE_FILE), ZELFON_EXPORT_OK);
    std::vector<double> mix = wav_samples(read_bytes(real("line0.wav")));
    ASSERT_EQ(mix.size(), 2u * 4 * kLine);
    for (int i = 0; i < 4 * kLine; i++) {
        int want = i < 2 * kLine ? 256 * 8 : 0;
        ASSERT_EQ(mix[2 * i], want) << "line " << i / kLine << ", frame " << i;
        ASSERT_EQ(mix[2 * i + 1], want) << "line " << i / kLine << ", frame " << i;
    }
    // Afterwards the song is stopped, its track-state sets free and every module cleaned.
    EXPECT_EQ(song.playing.load(), 0);
    for (int s = 0; s < ZELFON_TRACK_SETS; s++) EXPECT_EQ(song.track_set_used[s], 0) << "set " << s;
    EXPECT_EQ(song.pats_info[slot].track_set, -1);
    std::vector<logged_event> cleans = events_of(mod, PS_CMD_CLEAN);
    ASSERT_FALSE(cleans.empty());
    EXPECT_GE(cleans.back().frame, 4 * kLine) << "the last clean comes after the song";
}

TEST_F(SongExportTest, FileNamesPerModule) {
    for (int i = 1; i <= 11; i++) add_constant(i == 4 ? "a/b:c" : "M", 1, 1);
    song.net->modules[5].flags |= PSYNTH_FLAG_MUTE;
    song.net->modules[0x0B].flags |= PSYNTH_FLAG_EFFECT;
    song.net->modules[2].flags |= PSYNTH_FLAG_EFFECT;
    add_pattern(0, 1);
    ASSERT_EQ(export_wav("3:/take.1.wav", ZELFON_EXPORT_INT16, ZELFON_EXPORT_PER_MODULE), ZELFON_EXPORT_OK);
    EXPECT_EQ(files(), (std::vector<std::string>{"take.1.wav", "take.1_01_M.wav", "take.1_02_M.wav",
                                                 "take.1_03_M.wav", "take.1_04_a_b_c.wav", "take.1_06_M.wav",
                                                 "take.1_07_M.wav", "take.1_08_M.wav", "take.1_09_M.wav",
                                                 "take.1_0A_M.wav", "take.1_0B_M.wav"}));
    for (const std::string& name : files()) EXPECT_EQ(read_bytes(real(name)).size(), 44u + 4 * kLine) << name;

    ASSERT_EQ(export_wav("3:/fx.x", ZELFON_EXPORT_INT16, ZELFON_EXPORT_PER_EFFECT), ZELFON_EXPORT_OK);
    std::vector<std::string> fx = files();
    std::erase_if(fx, [](const std::string& name) { return name.rfind("fx", 0) != 0; });
    EXPECT_EQ(fx, (std::vector<std::string>{"fx_02_M.wav", "fx_0B_M.wav"}));
}

TEST_F(SongExportTest, Mode3SkipsModulesNotLinkedIntoOutput) {
    int a = add_constant("A", 10, 10);
    int b = add_constant("B", 20, 20, false);
    int c = add_constant("C", 30, 30, false);
    add_constant("D", 40, 40, false);  // linked nowhere
    song.net->modules[c].flags |= PSYNTH_FLAG_EFFECT;
    psynth_make_link(c, b, song.net);  // B feeds C, C feeds OUT
    psynth_make_link(0, c, song.net);
    ASSERT_EQ(a, 1);
    add_pattern(0, 1);
    ASSERT_EQ(export_wav("3:/out.wav", ZELFON_EXPORT_INT16, ZELFON_EXPORT_PER_OUT_LINK), ZELFON_EXPORT_OK);
    EXPECT_EQ(files(), (std::vector<std::string>{"out_01_A.wav", "out_03_C.wav"}));
}

TEST_F(SongExportTest, PathWithoutDotIsRefusedPerModule) {
    add_constant("A", 10, 10);
    add_pattern(0, 1);
    EXPECT_EQ(export_wav("3:/plain", ZELFON_EXPORT_INT16, ZELFON_EXPORT_PER_MODULE), ZELFON_EXPORT_BAD_ARGUMENT);
    std::filesystem::create_directories(real("dir.d"));
    EXPECT_EQ(export_wav("3:/dir.d/plain", ZELFON_EXPORT_INT16, ZELFON_EXPORT_PER_EFFECT), ZELFON_EXPORT_BAD_ARGUMENT);
    EXPECT_EQ(export_wav("3:/x.wav", 2, ZELFON_EXPORT_ONE_FILE), ZELFON_EXPORT_BAD_ARGUMENT);
    EXPECT_EQ(export_wav("3:/x.wav", ZELFON_EXPORT_INT16, 4), ZELFON_EXPORT_BAD_ARGUMENT);
    EXPECT_EQ(files(), (std::vector<std::string>{"dir.d"}));
    EXPECT_TRUE(std::filesystem::is_empty(real("dir.d")));
    // One file needs no base.
    EXPECT_EQ(export_wav("3:/plain", ZELFON_EXPORT_INT16, ZELFON_EXPORT_ONE_FILE), ZELFON_EXPORT_OK);
    EXPECT_EQ(read_bytes(real("plain")).size(), 44u + 4 * kLine);
}

TEST_F(SongExportTest, SameSongExportedTwiceGivesIdenticalFiles) {
    int gen = psynth_add_synth(-1, psynth_generator, nullptr, 0, 0, 0, song.bpm, song.speed, song.net);
    psynth_do_command(gen, PS_CMD_SETUP_FINISHED, song.net);
    psynth_make_link(0, gen, song.net);
    int log = add_logger();
    int slot = add_pattern(0, 16);
    for (int l = 0; l < 16; l += 2) {
        cell(slot, 0, l) = note_cell(40 + l, gen + 1, 90);
        cell(slot, 1, l) = note_cell(30 + l, log + 1, 0, 0x20, 16384);  // played half of the time
        cell(slot, 1, l + 1) = note_cell(ZELFON_NOTE_OFF);
    }
    cell(slot, 0, 15) = note_cell(0, 0, 0, 0x01, 20);  // a slide still running at the end
    ASSERT_EQ(export_wav("3:/a.wav", ZELFON_EXPORT_INT16, ZELFON_EXPORT_PER_MODULE), ZELFON_EXPORT_OK);
    ASSERT_EQ(export_wav("3:/b.wav", ZELFON_EXPORT_INT16, ZELFON_EXPORT_PER_MODULE), ZELFON_EXPORT_OK);
    for (const char* suffix : {".wav", "_01_Generator.wav", "_02_Logger.wav"}) {
        std::vector<uint8_t> a = read_bytes(real(std::string("a") + suffix));
        std::vector<uint8_t> b = read_bytes(real(std::string("b") + suffix));
        ASSERT_EQ(a.size(), 44u + 16 * 4 * kLine) << suffix;
        EXPECT_TRUE(a == b) << suffix << " differs between the two exports";
    }
    std::vector<double> logger_out = wav_samples(read_bytes(real("a_02_Logger.wav")));
    int sounding = 0;
    for (size_t i = 0; i < logger_out.size(); i += 2) sounding += logger_out[i] != 0;
    EXPECT_GT(sounding, 0) << "some probable notes play";
    EXPECT_LT(sounding, 16 * kLine) << "some probable notes are dropped";
}

struct progress_log {
    std::vector<int> values;
    zelfon_song* song;
    bool abort;
};

void record_progress(void* data, int value) {
    progress_log* log = (progress_log*)data;
    log->values.push_back(value);
    if (log->abort) zelfon_export_abort(log->song);
}

TEST_F(SongExportTest, ProgressFollowsTheFramesDoneAndAbortKeepsTheSizesOfTheFullSong) {
    add_constant("A", 10, 10);
    add_constant("B", 20, 20);
    add_pattern(0, 40);  // 211680 frames, in 26 pieces
    progress_log log{{}, &song, false};
    ASSERT_EQ(zelfon_export_to_wav("3:/cut.wav", ZELFON_EXPORT_INT16, 0, record_progress, &log, &song), ZELFON_EXPORT_OK);
    // Reports after more than 32768 frames: at 40960, 81920, ... frames; value (done & ~255) / (211680 >> 8).
    EXPECT_EQ(log.values, (std::vector<int>{40960 / 826, 81920 / 826, 122880 / 826, 163840 / 826, 204800 / 826}));

    log = {{}, &song, true};
    ASSERT_EQ(zelfon_export_to_wav("3:/cut.wav", ZELFON_EXPORT_INT16, ZELFON_EXPORT_PER_MODULE, record_progress, &log, &song),
              ZELFON_EXPORT_ABORTED);
    EXPECT_EQ(log.values, (std::vector<int>{40960 / 826}));
    EXPECT_EQ(files(), (std::vector<std::string>{"cut.wav", "cut_01_A.wav", "cut_02_B.wav"}));
    for (const std::string& name : files()) {
        std::vector<uint8_t> file = read_bytes(real(name));
        EXPECT_EQ(le32(file, 40), 40u * kLine * 4) << name;
        EXPECT_EQ(le32(file, 4), 40u * kLine * 4 + 36) << name;
        EXPECT_EQ(file.size(), 44u + 40960 * 4) << name << ": the export ends after the piece that asked";
    }
    EXPECT_EQ(song.playing.load(), 0);
    // The request is spent: the next export runs to the end.
    ASSERT_EQ(export_wav("3:/cut.wav", ZELFON_EXPORT_INT16, ZELFON_EXPORT_ONE_FILE), ZELFON_EXPORT_OK);
    EXPECT_EQ(read_bytes(real("cut.wav")).size(), 44u + 40 * kLine * 4);
}

TEST_F(SongExportTest, AFileThatCannotBeWrittenLeavesTheOthersComplete) {
    add_constant("A", 10, 10);
    add_constant("B", 20, 20);
    add_pattern(0, 3);
    std::filesystem::create_directories(real("w_01_A.wav"));  // a folder where A's file should go
    ASSERT_EQ(export_wav("3:/w.wav", ZELFON_EXPORT_INT16, ZELFON_EXPORT_PER_MODULE), ZELFON_EXPORT_FILE_ERROR);
    EXPECT_EQ(files(), (std::vector<std::string>{"w.wav", "w_01_A.wav", "w_02_B.wav"}))
        << "no temporary file stays behind";
    EXPECT_TRUE(std::filesystem::is_directory(real("w_01_A.wav")));
    EXPECT_EQ(read_bytes(real("w.wav")).size(), 44u + 3 * kLine * 4);
    std::vector<double> b = wav_samples(read_bytes(real("w_02_B.wav")));
    ASSERT_EQ(b.size(), 2u * 3 * kLine);
    EXPECT_EQ(b.front(), 160);
    EXPECT_EQ(b.back(), 160);
    // A file in a folder that does not exist: nothing is written anywhere.
    EXPECT_EQ(export_wav("3:/nowhere/x.wav", ZELFON_EXPORT_INT16, ZELFON_EXPORT_ONE_FILE), ZELFON_EXPORT_FILE_ERROR);
    EXPECT_EQ(files().size(), 3u);
}

// An export that has no file to write renders nothing, and never replaces a song or module file.
TEST_F(SongExportTest, NothingIsRenderedForNoFileAndSongFilesAreNeverReplaced) {
    add_constant("A", 10, 10);
    add_pattern(0, 40);
    progress_log log{{}, &song, false};
    EXPECT_EQ(zelfon_export_to_wav("3:/nowhere/x.wav", ZELFON_EXPORT_INT16, 0, record_progress, &log, &song),
              ZELFON_EXPORT_FILE_ERROR);
    EXPECT_TRUE(log.values.empty()) << "rendered for a file that could not be opened";

    bytes kept = save("3:/kept.zelfon");
    ASSERT_EQ(zelfon_save_synth(1, "3:/kept.zelsynth", 0, &song), 0);
    bytes synth = file_bytes("3:/kept.zelsynth");
    EXPECT_EQ(zelfon_export_to_wav("3:/kept.zelfon", ZELFON_EXPORT_INT16, 0, record_progress, &log, &song),
              ZELFON_EXPORT_FILE_ERROR);
    EXPECT_TRUE(log.values.empty());
    EXPECT_EQ(zelfon_export_to_midi("3:/kept.zelsynth", &song), ZELFON_EXPORT_FILE_ERROR);
    EXPECT_EQ(file_bytes("3:/kept.zelfon"), kept);
    EXPECT_EQ(file_bytes("3:/kept.zelsynth"), synth);
    EXPECT_NE(log_text().find("zelfon_export_to_wav(): 3:/kept.zelfon is a song or module file: not overwritten\n"),
              std::string::npos) << log_text();
    EXPECT_EQ(files(), (std::vector<std::string>{"kept.zelfon", "kept.zelsynth"}));
}

// ---- MIDI ----

// A minimal reader of Standard MIDI Files: the header and, per track, one line per event.
struct midi_file {
    int format = -1;
    int division = 0;
    std::vector<std::vector<std::string>> tracks;
};

bool parse_midi(const std::vector<uint8_t>& b, midi_file* out) {
    auto be = [&](size_t at, int n) {
        uint32_t v = 0;
        for (int i = 0; i < n; i++) v = v << 8 | b[at + i];
        return v;
    };
    if (b.size() < 14 || memcmp(b.data(), "MThd", 4) != 0 || be(4, 4) != 6) return false;
    out->format = (int)be(8, 2);
    int count = (int)be(10, 2);
    out->division = (int)be(12, 2);
    size_t pos = 14;
    for (int t = 0; t < count; t++) {
        if (pos + 8 > b.size() || memcmp(&b[pos], "MTrk", 4) != 0) return false;
        size_t end = pos + 8 + be(pos + 4, 4);
        if (end > b.size()) return false;
        pos += 8;
        std::vector<std::string> events;
        uint64_t time = 0;
        uint8_t running = 0;
        auto vlq = [&]() {
            uint32_t v = 0;
            uint8_t c;
            do {
                c = b[pos++];
                v = v << 7 | (c & 0x7F);
            } while (c & 0x80);
            return v;
        };
        while (pos < end) {
            time += vlq();
            uint8_t status = b[pos] & 0x80 ? b[pos++] : running;
            std::string at = std::to_string(time) + " ";
            if (status == 0xFF) {
                uint8_t type = b[pos++];
                uint32_t length = vlq();
                std::string data(b.begin() + (long)pos, b.begin() + (long)(pos + length));
                pos += length;
                if (type == 0x03) events.push_back(at + "name " + data);
                else if (type == 0x51) events.push_back(at + "tempo " + std::to_string(be(pos - 3, 3)));
                else if (type == 0x2F) events.push_back(at + "end");
                else events.push_back(at + "meta " + std::to_string(type));
            } else {
                running = status;
                int kind = status & 0xF0;
                int channel = status & 0x0F;
                int a = b[pos++];
                int v = kind == 0xC0 || kind == 0xD0 ? 0 : b[pos++];
                const char* name = kind == 0x90 && v ? "on" : kind == 0x90 || kind == 0x80 ? "off" : "other";
                std::string event = at + name + " ch" + std::to_string(channel) + " " + std::to_string(a);
                if (kind == 0x90 && v) event.append(" ").append(std::to_string(v));
                events.push_back(event);
            }
        }
        if (pos != end) return false;
        out->tracks.push_back(events);
    }
    return pos == b.size();
}

class SongExportMidiTest : public SongExportTest {
public:
    // Lead (module 1) and Bass (module 2) play; Idle (module 3) does not.
    void build() {
        song.name = mem_strdup("Tune");
        lead = psynth_add_synth(-1, logger_handler, "Lead", 0, 0, 0, song.bpm, song.speed, song.net);
        bass = psynth_add_synth(-1, logger_handler, "Bass", 0, 0, 0, song.bpm, song.speed, song.net);
        psynth_add_synth(-1, logger_handler, "Idle", 0, 0, 0, song.bpm, song.speed, song.net);
        int a = add_pattern(0, 8, 2);
        int b = add_pattern(6, 4, 1);
        cell(a, 0, 0) = note_cell(49, lead + 1, 101);         // C4 = key 60, velocity 200 of 256
        cell(a, 0, 2) = note_cell(51);                        // the track's module; full velocity
        cell(a, 0, 3) = note_cell(ZELFON_NOTE_OFF);
        cell(a, 0, 5) = note_cell(61, lead + 1);              // sounds until the pattern ends
        cell(a, 0, 6) = note_cell(63, 0, 0, 0x03, 4);         // slide to a note: no new note
        cell(a, 1, 1) = note_cell(37, bass + 1, 65);
        cell(a, 1, 4) = note_cell(0, 0, 0, 0x0F, 150);        // BPM 150
        cell(b, 0, 0) = note_cell(49, bass + 1);              // line 6, until the song ends
        cell(b, 0, 2) = note_cell(0, 0, 0, 0x0F, 3);          // speed 3 at line 8
    }
    int lead = -1;
    int bass = -1;
};

TEST_F(SongExportMidiTest, FileReadsBackExactly) {
    build();
    ASSERT_EQ(zelfon_export_to_midi("3:/tune.mid", &song), ZELFON_EXPORT_OK);
    EXPECT_EQ(files(), (std::vector<std::string>{"tune.mid"}));
    midi_file midi;
    ASSERT_TRUE(parse_midi(read_bytes(real("tune.mid")), &midi));
    EXPECT_EQ(midi.format, 1);
    EXPECT_EQ(midi.division, 96);  // 24 ticks a line, 4 lines a beat
    ASSERT_EQ(midi.tracks.size(), 3u);
    // 125 BPM, speed 6: 480000 µs a beat; 150 BPM: 400000; speed 3: 200000.
    EXPECT_EQ(midi.tracks[0], (std::vector<std::string>{"0 name Tune", "0 tempo 480000", "96 tempo 400000",
                                                        "192 tempo 200000", "240 end"}));
    EXPECT_EQ(midi.tracks[1], (std::vector<std::string>{"0 name Lead", "0 on ch0 60 100", "48 off ch0 60",
                                                        "48 on ch0 62 127", "72 off ch0 62", "120 on ch0 72 127",
                                                        "192 off ch0 72", "240 end"}));
    EXPECT_EQ(midi.tracks[2], (std::vector<std::string>{"0 name Bass", "24 on ch1 48 64", "144 on ch1 60 127",
                                                        "192 off ch1 48", "240 off ch1 60", "240 end"}));
}

TEST_F(SongExportMidiTest, GapsBeyondFourByteDeltasAreBridged) {
    int mod = psynth_add_synth(-1, logger_handler, "Far", 0, 0, 0, song.bpm, song.speed, song.net);
    const int line = 23000000;  // 552 M ticks: two gaps of 2^28 − 1 and the rest
    int slot = add_pattern(line, 1);
    cell(slot, 0, 0) = note_cell(49, mod + 1);
    ASSERT_EQ(zelfon_export_to_midi("3:/far.mid", &song), ZELFON_EXPORT_OK);
    midi_file midi;
    ASSERT_TRUE(parse_midi(read_bytes(real("far.mid")), &midi));
    ASSERT_EQ(midi.tracks.size(), 2u);
    const int64_t tick = (int64_t)line * 24;
    EXPECT_EQ(midi.tracks[1], (std::vector<std::string>{"0 name Far", "268435455 meta 1", "536870910 meta 1",
                                                        std::to_string(tick) + " on ch0 60 127",
                                                        std::to_string(tick + 24) + " off ch0 60",
                                                        std::to_string(tick + 24) + " end"}));
}

TEST_F(SongExportMidiTest, EmptySongHasOnlyTheTempoTrack) {
    ASSERT_EQ(zelfon_export_to_midi("3:/empty.mid", &song), ZELFON_EXPORT_OK);
    midi_file midi;
    ASSERT_TRUE(parse_midi(read_bytes(real("empty.mid")), &midi));
    ASSERT_EQ(midi.tracks.size(), 1u);
    EXPECT_EQ(midi.tracks[0], (std::vector<std::string>{"0 tempo 480000", "0 end"}));
    EXPECT_EQ(zelfon_export_to_midi("3:/nowhere/x.mid", &song), ZELFON_EXPORT_FILE_ERROR);
    EXPECT_EQ(files(), (std::vector<std::string>{"empty.mid"}));
}

TEST_F(SongExportMidiTest, MidoReadsTheFile) {
    const std::string python = "/usr/bin/python3";  // Debian's python3-mido lives there
    if (std::system((python + " -c 'import mido' >/dev/null 2>&1").c_str()) != 0) GTEST_SKIP() << "no python3 with mido installed";
    build();
    ASSERT_EQ(zelfon_export_to_midi("3:/tune.mid", &song), ZELFON_EXPORT_OK);
    std::string script =
        "import mido\n"
        "m = mido.MidiFile('" + real("tune.mid") + "')\n"
        "print(m.type, len(m.tracks), m.ticks_per_beat, '%.6f' % m.length)\n"
        "for t in m.tracks:\n"
        "    print(t.name, sum(1 for e in t if e.type == 'note_on' and e.velocity > 0),\n"
        "          sum(1 for e in t if e.type == 'note_off'))\n";
    std::ofstream(real("check.py")) << script;
    FILE* p = popen((python + " " + real("check.py") + " 2>&1").c_str(), "r");
    ASSERT_NE(p, nullptr);
    std::string out;
    char buf[256];
    while (fgets(buf, sizeof(buf), p)) out += buf;
    EXPECT_EQ(pclose(p), 0) << out;
    // 4 lines of 0.12 s, 4 of 0.1 s, 2 of 0.05 s.
    EXPECT_EQ(out, "1 3 96 0.980000\nTune 0 0\nLead 3 3\nBass 2 2\n");
}

}  // namespace
