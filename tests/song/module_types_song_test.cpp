// Every module type in song files: each controller, set away from its default, keeps its
// value through save → load and a second save gives the same bytes; the mono switches
// still take effect after loading; values outside the ranges, as a damaged file may hold,
// render without harm; and all of them playing at once allocate nothing once warmed up.
#include <cstring>
#include <string>
#include <vector>

#include "engine/memory.h"
#include "psynth/psynth_modules.h"
#include "song_test_util.h"

namespace {

class ModuleTypesSongTest : public SongFixture {};

// A value away from the default: a third of the range on, or the other end of a switch.
int odd_value(const psynth_ctl& c) {
    if (c.type == PSYNTH_CTL_SELECTOR) return c.def == c.max ? c.min : c.max;
    int v = c.min + (c.max - c.min) / 3 + 1;
    return v == c.def ? v + 1 : v;
}

TEST_F(ModuleTypesSongTest, ControllerValuesSurviveSaveAndLoad) {
    std::vector<int> mods;
    std::vector<std::vector<int>> values;
    for (int n = 0; n < psynth_get_module_types_count(); n++) {
        psynth_handler handler = psynth_get_module_type(n);
        int mod = add_module(handler);
        psynth_make_link(0, mod, song.net);
        psynth_module* m = &song.net->modules[mod];
        // SpectraVoice's controllers 5 to 8 choose and show a partial of its partials chunk,
        // whose round trip the synths' song test checks.
        int count = handler == psynth_spectravoice ? 5 : m->ctls_count;
        for (int i = 0; i < count; i++) *m->ctls[i].value = odd_value(m->ctls[i]);
        mods.push_back(mod);
        values.push_back(ctl_values(mod));
    }
    save_load_save("3:/types.zelfon");
    for (size_t k = 0; k < mods.size(); k++) {
        const psynth_module* m = &song.net->modules[mods[k]];
        ASSERT_EQ(m->handler, psynth_get_module_type((int)k)) << k;
        EXPECT_EQ(ctl_values(mods[k]), values[k]) << m->name;
    }
    // The effects' mono switches (on now) set one output channel at the next render.
    psynth_set_render_params(256, 0, 0, 0, 0, song.net);
    psynth_render_all(song.net);
    psynth_clear_events(song.net);
    int switches = 0;
    for (int mod : mods) {
        const psynth_module* m = &song.net->modules[mod];
        for (int i = 0; i < m->ctls_count; i++) {
            // (the LFO's panning, on now, spreads its one input over both sides)
            if (strcmp(m->ctls[i].name, "Mono") != 0 || m->handler == psynth_lfo) continue;
            EXPECT_EQ(m->output_channels, 1) << m->name;
            switches++;
        }
    }
    EXPECT_GE(switches, 7);
}

// Raw values written straight into the controller variables (as an editor or a damaged file
// might) reach no module outside their ranges: the net clamps them before every command,
// event and render, and controller events above 32768 arrive as 32768.
TEST_F(ModuleTypesSongTest, ValuesOutsideTheRangesRenderSafelyInEveryModule) {
    int src = add_logger();
    logger(src)->level = 3000;
    for (int n = 0; n < psynth_get_module_types_count(); n++) {
        psynth_handler handler = psynth_get_module_type(n);
        SCOPED_TRACE(psynth_get_module_type_name(handler));
        for (int value : {-2000000000, 2000000000, -1, 65535}) {
            int mod = psynth_add_synth(-1, handler, nullptr, 0, 0, 0, song.bpm, song.speed, song.net);
            psynth_module* m = &song.net->modules[mod];
            for (int c = 0; c < m->ctls_count; c++) *m->ctls[c].value = value;
            psynth_do_command(mod, PS_CMD_SETUP_FINISHED, song.net);
            for (int c = 0; c < m->ctls_count; c++) {
                ASSERT_GE(*m->ctls[c].value, m->ctls[c].min) << c;
                ASSERT_LE(*m->ctls[c].value, m->ctls[c].max) << c;
            }
            psynth_make_link(mod, src, song.net);
            psynth_make_link(0, mod, song.net);
            int slot = add_pattern(0, 3, 2);
            cell(slot, 0, 0) = note_cell(49, mod + 1);
            cell(slot, 1, 1) = zelfon_cell{0, 0, (uint16_t)(mod + 1), 0, 1, 0xFFFF};  // controller 0 beyond 32768
            cell(slot, 1, 2) = zelfon_cell{0, 0, (uint16_t)(mod + 1), 0, 3, 0xFFFF};
            for (int c = 0; c < m->ctls_count; c++) *m->ctls[c].value = value;  // and again while it plays
            play(0);
            render(4096 * 4, 1001);  // the sanitizer build catches any overflow or stray index
            for (int c = 0; c < m->ctls_count; c++) ASSERT_LE(*m->ctls[c].value, m->ctls[c].max) << c;
            zelfon_cell stop = note_cell(ZELFON_NOTE_STOP);
            zelfon_send_live_cell(&stop, 0, &song);
            render(256, 256);
            zelfon_remove_pattern(slot, &song);
            psynth_remove_synth(mod, song.net);
        }
    }
}

// Every module type playing notes at once: after the warm-up the render allocates nothing.
TEST_F(ModuleTypesSongTest, EveryModuleTypePlaysWithoutAllocating) {
    int src = add_logger();
    logger(src)->level = 3000;
    const int types = psynth_get_module_types_count();
    int slot = add_pattern(0, 64, types);  // longer than the render: no end of song in between
    for (int n = 0; n < types; n++) {
        int mod = add_module(psynth_get_module_type(n));
        psynth_make_link(mod, src, song.net);
        psynth_make_link(0, mod, song.net);
        for (int line = 0; line < 64; line += 2) cell(slot, n, line) = note_cell(37 + line % 24 + n, mod + 1);
    }
    play();
    render(44100, 512);  // warm-up: event queues reach their working size
    uint64_t before = mem_get_stats().allocations;
    render(200 * 512, 512);
    EXPECT_EQ(mem_get_stats().allocations, before);
}

}  // namespace
