// The modulation effects (Flanger, LFO, Vibrato, Vocal filter) in song files: every
// controller keeps its value through save → load, and a second save gives the same bytes;
// values outside the ranges, as a damaged file may hold, render without harm.
#include <vector>

#include "engine/file.h"
#include "psynth/psynth_modules.h"
#include "song/song_file.h"
#include "song_test_util.h"

namespace {

class ModulationEffectsSongTest : public SongFixture {};

std::vector<uint8_t> file_bytes(const char* path) {
    std::vector<uint8_t> out;
    int fd = v3_open(path, "rb");
    if (!fd) return out;
    uint8_t buf[4096];
    size_t n;
    while ((n = v3_read(buf, 1, sizeof(buf), fd)) > 0) out.insert(out.end(), buf, buf + n);
    v3_close(fd);
    return out;
}

struct module_values {
    psynth_handler handler;
    std::vector<int> values;  // one for every controller, none of them the default
};

TEST_F(ModulationEffectsSongTest, ControllerValuesSurviveSaveAndLoad) {
    const module_values modules[] = {
        {psynth_flanger, {200, 100, 255, 3, 777, 31, 2, 64}},
        {psynth_lfo, {199, 1, 3, 4000, 17, 128, 1}},
        {psynth_vibrato, {201, 256, 1999, 1}},
        {psynth_vocal_filter, {511, 3, 2, 33, 2, 1}},
    };
    std::vector<int> slots;
    for (const module_values& m : modules) {
        int mod = psynth_add_synth(-1, m.handler, nullptr, 0, 10, 20, song.bpm, song.speed, song.net);
        psynth_do_command(mod, PS_CMD_SETUP_FINISHED, song.net);
        ASSERT_EQ(song.net->modules[mod].ctls_count, (int)m.values.size());
        for (size_t c = 0; c < m.values.size(); c++) {
            ASSERT_NE(song.net->modules[mod].ctls[c].def, m.values[c]);
            *song.net->modules[mod].ctls[c].value = m.values[c];
        }
        psynth_make_link(0, mod, song.net);
        slots.push_back(mod);
    }
    ASSERT_EQ(zelfon_save_song("3:/modulation.zelfon", ZELFON_VERSION_MAJOR, ZELFON_VERSION_MINOR, &song), 0);
    ASSERT_EQ(zelfon_load_song("3:/modulation.zelfon", &song), 0);
    for (size_t i = 0; i < slots.size(); i++) {
        const psynth_module& mod = song.net->modules[slots[i]];
        EXPECT_EQ(mod.handler, modules[i].handler);
        for (size_t c = 0; c < modules[i].values.size(); c++) {
            EXPECT_EQ(*mod.ctls[c].value, modules[i].values[c]) << mod.name << " controller " << c;
        }
    }
    ASSERT_EQ(zelfon_save_song("3:/again.zelfon", ZELFON_VERSION_MAJOR, ZELFON_VERSION_MINOR, &song), 0);
    EXPECT_EQ(file_bytes("3:/again.zelfon"), file_bytes("3:/modulation.zelfon"));
}

TEST_F(ModulationEffectsSongTest, ValuesOutsideTheRangesOfADamagedFileRenderSafely) {
    int src = add_logger();
    logger(src)->level = 3000;
    for (psynth_handler handler : {psynth_flanger, psynth_lfo, psynth_vibrato, psynth_vocal_filter}) {
        for (int value : {-2000000000, 2000000000}) {
            int mod = psynth_add_synth(-1, handler, nullptr, 0, 0, 0, song.bpm, song.speed, song.net);
            for (int c = 0; c < song.net->modules[mod].ctls_count; c++) *song.net->modules[mod].ctls[c].value = value;
            psynth_do_command(mod, PS_CMD_SETUP_FINISHED, song.net);
            psynth_make_link(mod, src, song.net);
            psynth_make_link(0, mod, song.net);
            render(4096, 1024);  // the sanitizer build catches any overflow or stray index
            psynth_remove_synth(mod, song.net);
        }
    }
}

}  // namespace
