// Distortion, DC Blocker, Amplifier, Modulator and 3Band Equalizer in song files: every
// controller value, set away from its default, survives save → load (the mono switches
// still take effect after loading), and saving the loaded song gives the same bytes.
#include <cstring>
#include <string>
#include <vector>

#include "psynth/psynth_modules.h"
#include "song_test_util.h"

namespace {

class EffectModulesSongTest : public SongFixture {};

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
        int mod = add_module(handler);
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
    save_load_save("3:/effects.zelfon");
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
}

}  // namespace
