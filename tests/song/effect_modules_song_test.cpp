// Distortion, DC Blocker, Amplifier, Modulator and 3Band Equalizer in song files: every
// controller value, set away from its default, survives save → load (the mono switches
// still take effect after loading), and saving the loaded song gives the same bytes.
#include <cstring>
#include <string>
#include <vector>

#include "engine/file.h"
#include "psynth/psynth_modules.h"
#include "song/song_file.h"
#include "song_test_util.h"

namespace {

class EffectModulesSongTest : public SongFixture {};

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

// A value away from the default: a third of the range on, or the other end of a switch.
int odd_value(const psynth_ctl& c) {
    if (c.type == PSYNTH_CTL_SELECTOR) return c.def == c.max ? c.min : c.max;
    int v = c.min + (c.max - c.min) / 3 + 1;
    return v == c.def ? v + 1 : v;
}

TEST_F(EffectModulesSongTest, ControllerValuesSurviveSaveAndLoad) {
    const char* const types[] = {"Distortion", "DC Blocker", "Amplifier", "Modulator", "3Band Equalizer"};
    std::vector<int> mods;
    std::vector<std::vector<int>> values;
    for (const char* type : types) {
        psynth_handler handler = psynth_find_module_type(type);
        ASSERT_NE(handler, nullptr) << type;
        int mod = psynth_add_synth(-1, handler, nullptr, 0, 10, 20, song.bpm, song.speed, song.net);
        psynth_do_command(mod, PS_CMD_SETUP_FINISHED, song.net);
        psynth_make_link(0, mod, song.net);
        psynth_module* m = &song.net->modules[mod];
        std::vector<int> v;
        for (int i = 0; i < m->ctls_count; i++) {
            *m->ctls[i].value = odd_value(m->ctls[i]);
            v.push_back(*m->ctls[i].value);
        }
        mods.push_back(mod);
        values.push_back(v);
    }
    ASSERT_EQ(zelfon_save_song("3:/effects.zelfon", ZELFON_VERSION_MAJOR, ZELFON_VERSION_MINOR, &song), 0);
    std::vector<uint8_t> saved = file_bytes("3:/effects.zelfon");

    // Back to the defaults, then the file's values must return.
    for (int mod : mods) {
        psynth_module* m = &song.net->modules[mod];
        for (int i = 0; i < m->ctls_count; i++) *m->ctls[i].value = m->ctls[i].def;
    }
    ASSERT_EQ(zelfon_load_song("3:/effects.zelfon", &song), 0);
    for (size_t k = 0; k < mods.size(); k++) {
        const psynth_module* m = &song.net->modules[mods[k]];
        ASSERT_EQ(m->handler, psynth_find_module_type(types[k])) << types[k];
        EXPECT_STREQ(m->name, types[k]);
        ASSERT_EQ(m->ctls_count, (int)values[k].size()) << types[k];
        for (int i = 0; i < m->ctls_count; i++) EXPECT_EQ(*m->ctls[i].value, values[k][i]) << types[k] << " " << i;
    }
    // The mono switches (on now) set one output channel at the next render.
    psynth_set_render_params(256, 0, 0, 0, 0, song.net);
    psynth_render_all(song.net);
    psynth_clear_events(song.net);
    for (size_t k = 0; k < mods.size(); k++) {
        const psynth_module* m = &song.net->modules[mods[k]];
        EXPECT_EQ(m->output_channels, strcmp(types[k], "Amplifier") == 0 ? 2 : 1) << types[k];
    }
    ASSERT_EQ(zelfon_save_song("3:/again.zelfon", ZELFON_VERSION_MAJOR, ZELFON_VERSION_MINOR, &song), 0);
    EXPECT_EQ(file_bytes("3:/again.zelfon"), saved);
}

}  // namespace
