// The modulation effects (Flanger, LFO, Vibrato, Vocal filter) in song files: every
// controller keeps its value through save → load, and a second save gives the same bytes;
// values outside the ranges, as a damaged file may hold, render without harm.
#include <vector>

#include "psynth/psynth_modules.h"
#include "song_test_util.h"

namespace {

class ModulationEffectsSongTest : public SongFixture {};

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
        int mod = add_module(m.handler);
        ASSERT_EQ(song.net->modules[mod].ctls_count, (int)m.values.size());
        for (size_t c = 0; c < m.values.size(); c++) {
            ASSERT_NE(song.net->modules[mod].ctls[c].def, m.values[c]);
            *song.net->modules[mod].ctls[c].value = m.values[c];
        }
        psynth_make_link(0, mod, song.net);
        slots.push_back(mod);
    }
    save_load_save("3:/modulation.zelfon");
    for (size_t i = 0; i < slots.size(); i++) {
        const psynth_module& mod = song.net->modules[slots[i]];
        EXPECT_EQ(mod.handler, modules[i].handler);
        for (size_t c = 0; c < modules[i].values.size(); c++) {
            EXPECT_EQ(*mod.ctls[c].value, modules[i].values[c]) << mod.name << " controller " << c;
        }
    }
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
