// The song tests' logger module and fixture.
#include "song_test_util.h"

#include <cstdlib>
#include <filesystem>

#include "engine/file.h"
#include "engine/log.h"
#include "engine/memory.h"
#include "song/song_file.h"

bytes file_bytes(const char* path) {
    bytes out;
    int fd = v3_open(path, "rb");
    if (!fd) return out;
    uint8_t buf[4096];
    size_t n;
    while ((n = v3_read(buf, 1, sizeof(buf), fd)) > 0) out.insert(out.end(), buf, buf + n);
    v3_close(fd);
    return out;
}

intptr_t logger_handler(int mod_num, psynth_event* event, psynth_net* net) {
    logger_data* data = mod_num >= 0 ? (logger_data*)net->modules[mod_num].data : nullptr;
    switch (event->command) {
    case PS_CMD_GET_DATA_SIZE: return sizeof(logger_data);
    case PS_CMD_GET_SYNTH_NAME: return (intptr_t)"Logger";
    case PS_CMD_GET_INPUTS_NUM: return 0;
    case PS_CMD_GET_OUTPUTS_NUM: return 1;
    case PS_CMD_GET_FLAGS: return PSYNTH_FLAG_GENERATOR | PSYNTH_FLAG_GET_SPEED_CHANGES;
    case PS_CMD_INIT: return 1;
    case PS_CMD_RENDER_REPLACE: {
        psynth_module* mod = &net->modules[mod_num];
        for (int i = 0; i < mod->render_frames; i++) mod->output_buffers[0][mod->render_offset + i] = (psynth_sample)data->level;
        if (mod->render_offset + mod->render_frames == net->frames) data->frames_done += net->frames;
        return data->level != 0;
    }
    default:
        break;
    }
    if (!data) return 0;
    if (data->count < LOGGER_MAX_EVENTS) data->events[data->count++] = {data->frames_done + event->offset, *event};
    if (event->command == PS_CMD_NOTE_ON) data->level = event->note * 16 + event->velocity;
    if (event->command == PS_CMD_SET_VELOCITY && data->level) data->level = (data->level & ~0x1FF) + event->velocity;
    if (event->command == PS_CMD_NOTE_OFF || event->command == PS_CMD_ALL_NOTES_OFF || event->command == PS_CMD_CLEAN) data->level = 0;
    if (event->command == PS_CMD_SET_FREQ && data->level) data->level = (ZELFON_PITCH_C0 - event->pitch) / 4;
    return 1;
}

// The temporary folder as it was before any test pointed TMPDIR into its own folder.
static const std::filesystem::path& temp_root() {
    static const std::filesystem::path root = std::filesystem::temp_directory_path();
    return root;
}

void SongFixture::SetUp() {
    temp_dir = temp_root() / ("zelfon_song_test_" + std::to_string(getpid()));
    std::filesystem::create_directories(temp_dir);
    setenv("TMPDIR", temp_dir.c_str(), 1);
    mem_init();
    v3_init();
    tarvik_log_init(TARVIK_LOG_FILE);
    ASSERT_EQ(zelfon_song_init(0, 44100, &song), 0);
    song.net->global_volume = 256;
}

void SongFixture::restart() {
    zelfon_song_close(&song);
    ASSERT_EQ(zelfon_song_init(0, 44100, &song), 0);
    song.net->global_volume = 256;
}

void SongFixture::TearDown() {
    zelfon_song_close(&song);
    v3_deinit();
    EXPECT_FALSE(mem_free_all());
    tarvik_log_close();
    mem_deinit();
    std::filesystem::remove_all(temp_dir);
}

int SongFixture::add_logger() {
    int mod = psynth_add_synth(-1, logger_handler, nullptr, 0, 0, 0, song.bpm, song.speed, song.net);
    psynth_make_link(0, mod, song.net);
    return mod;
}

int SongFixture::add_module(psynth_handler handler, const char* name, int x, int y) {
    int mod = psynth_add_synth(-1, handler, name, 0, x, y, song.bpm, song.speed, song.net);
    EXPECT_GE(mod, 0);
    psynth_do_command(mod, PS_CMD_SETUP_FINISHED, song.net);
    return mod;
}

std::vector<int> SongFixture::ctl_values(int mod) {
    std::vector<int> v;
    for (int i = 0; i < song.net->modules[mod].ctls_count; i++) v.push_back(ctl(mod, i));
    return v;
}

bytes SongFixture::save(const char* path) {
    EXPECT_EQ(zelfon_save_song(path, ZELFON_VERSION_MAJOR, ZELFON_VERSION_MINOR, &song), 0);
    return file_bytes(path);
}

bytes SongFixture::save_load_save(const char* path) {
    bytes first = save(path);
    EXPECT_FALSE(first.empty());
    EXPECT_EQ(load(path), 0);
    EXPECT_EQ(save("3:/song_again.zelfon"), first) << "saving the loaded song gives other bytes";
    return first;
}

logger_data* SongFixture::logger(int mod) { return (logger_data*)song.net->modules[mod].data; }

int SongFixture::add_pattern(int x, int lines, int tracks) {
    int slot = zelfon_get_free_pattern_num(&song);
    EXPECT_EQ(new_pattern_with_num(slot, lines, tracks, x, 0, 1, &song), slot);
    song.pats[slot]->lines = lines;
    song.pats[slot]->channels = tracks;
    zelfon_sort_patterns(&song);
    return slot;
}

zelfon_cell& SongFixture::cell(int slot, int track, int line) { return *zelfon_get_cell(slot, track, line, &song); }

std::vector<int16_t> SongFixture::render(int frames, int request) {
    std::vector<int16_t> out((size_t)frames * 2);
    for (int done = 0; done < frames; done += request) {
        int n = frames - done < request ? frames - done : request;
        zelfon_render_request r{out.data() + (size_t)done * 2, ZELFON_SAMPLE_INT16, 2, n, nullptr, tarvik_time_ticks()};
        EXPECT_EQ(zelfon_render(&r, &song), 1);
    }
    return out;
}

void SongFixture::play(int line) { zelfon_play(line, &song); }

std::vector<logged_event> SongFixture::events_of(int mod, int command) {
    std::vector<logged_event> out;
    logger_data* data = logger(mod);
    for (int i = 0; i < data->count; i++) {
        if (data->events[i].event.command == command) out.push_back(data->events[i]);
    }
    return out;
}

zelfon_cell note_cell(int note, int module, int vel, int effect, int value) {
    return zelfon_cell{(uint8_t)note, (uint8_t)vel, (uint16_t)module, (uint8_t)effect, 0, (uint16_t)value};
}

std::string log_text() {
    bytes text = file_bytes(TARVIK_LOG_FILE);
    return std::string(text.begin(), text.end());
}

std::string first_difference(const std::vector<int16_t>& out, const std::vector<int16_t>& reference) {
    if (out.size() != reference.size()) return std::to_string(out.size()) + " samples instead of " + std::to_string(reference.size());
    for (size_t i = 0; i < out.size(); i++) {
        if (out[i] != reference[i]) {
            return "frame " + std::to_string(i / 2) + ", channel " + std::to_string(i % 2) + ": " + std::to_string(out[i]) +
                   " instead of " + std::to_string(reference[i]);
        }
    }
    return "";
}

int count_loud(const std::vector<int16_t>& samples, int threshold) {
    int n = 0;
    for (int16_t v : samples) n += v > threshold || v < -threshold;
    return n;
}
