// The Kicker, DrumSynth and SpectraVoice in song and module files: every controller value
// and the partials chunk survive a save and load, a second save gives the same bytes, and
// the loaded song plays the same samples.
#include <cstring>
#include <vector>

#include "psynth/psynth_modules.h"
#include "song/module_file.h"
#include "song_test_util.h"

namespace {

class SongSynthsTest : public SongFixture {
protected:
    // Adds a module linked into OUT with every controller one step inside its range from
    // the top, so that no value is its default.
    int add(psynth_handler handler) {
        psynth_net* net = song.net;
        int mod = add_module(handler, nullptr, 0, 0);
        psynth_make_link(0, mod, net);
        for (int i = 0; i < net->modules[mod].ctls_count; i++) {
            const psynth_ctl& c = net->modules[mod].ctls[i];
            *c.value = c.max > c.min ? c.max - 1 : c.max;
        }
        return mod;
    }

    std::vector<uint8_t> partials(int mod) {
        int size = 0;
        psynth_get_chunk_info(mod, 0, &size, nullptr, nullptr, song.net);
        const uint8_t* p = (const uint8_t*)psynth_get_chunk(mod, 0, song.net);
        return p ? std::vector<uint8_t>(p, p + size) : std::vector<uint8_t>();
    }

    // A kit of the three: kicks, a snare and a hat, and a SpectraVoice chord, with moderate
    // volumes so that the mix does not clip.
    void build() {
        kick = add(psynth_kicker);
        drums = add(psynth_drumsynth);
        voice = add(psynth_spectravoice);
        for (int m : {kick, drums, voice}) *song.net->modules[m].ctls[0].value = 100;
        *song.net->modules[voice].ctls[5].value = 7;  // the partial shown: number 7
        uint16_t* p = (uint16_t*)psynth_get_chunk(voice, 0, song.net);
        p[3 * 6 + 0] = 100;  // partial 7: 6.25 × the note, volume 200, width 5
        p[3 * 6 + 1] = 200;
        p[3 * 6 + 2] = 5;
        for (int m : {kick, drums, voice}) psynth_do_command(m, PS_CMD_SETUP_FINISHED, song.net);
        int slot = add_pattern(0, 8);
        cell(slot, 0, 0) = note_cell(37, kick + 1, 128);
        cell(slot, 0, 4) = note_cell(37, kick + 1, 128);
        cell(slot, 1, 2) = note_cell(63, drums + 1, 128);  // D5: snare
        cell(slot, 2, 1) = note_cell(67, drums + 1, 128);  // F#5: hi-hat
        cell(slot, 3, 0) = note_cell(49, voice + 1, 128);
        cell(slot, 3, 6) = note_cell(128, 0);
    }

    int kick = -1, drums = -1, voice = -1;
};

TEST_F(SongSynthsTest, SaveLoadSaveKeepsControllersPartialsBytesAndSound) {
    build();
    const int mods[] = {kick, drums, voice};
    const psynth_handler handlers[] = {psynth_kicker, psynth_drumsynth, psynth_spectravoice};
    std::vector<int> ctls[3] = {ctl_values(kick), ctl_values(drums), ctl_values(voice)};
    std::vector<uint8_t> voice_partials = partials(voice);
    EXPECT_EQ(ctls[2][6], 100) << "controllers 6 to 8 show partial 7";
    EXPECT_EQ(ctls[2][8], 5);
    save_load_save("3:/synths.zelfon");
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(song.net->modules[mods[i]].handler, handlers[i]) << i;
        EXPECT_EQ(ctl_values(mods[i]), ctls[i]) << i;
    }
    EXPECT_EQ(partials(voice), voice_partials);
    int flags = 0;
    ASSERT_EQ(psynth_get_chunk_info(voice, 0, nullptr, &flags, nullptr, song.net), 0);
    EXPECT_EQ(flags, 2);

    play();
    std::vector<int16_t> again = render(8 * 5292);
    // The song built afresh plays the same samples.
    restart();
    build();
    play();
    std::vector<int16_t> sound = render(8 * 5292);
    EXPECT_GT(count_loud(sound, 100), 8 * 5292 / 4) << "the song sounds";
    EXPECT_EQ(first_difference(again, sound), "");
}

TEST_F(SongSynthsTest, ModuleFilesCarryThePartials) {
    build();
    ASSERT_EQ(zelfon_save_synth(voice, "3:/voice.zelsynth", 0, &song), 0);
    std::vector<uint8_t> first = file_bytes("3:/voice.zelsynth");
    int copy = zelfon_load_synth(-1, 10, 20, "3:/voice.zelsynth", 0, &song);
    ASSERT_GE(copy, 0);
    EXPECT_NE(copy, voice);
    EXPECT_EQ(ctl_values(copy), ctl_values(voice));
    EXPECT_EQ(partials(copy), partials(voice));
    ASSERT_EQ(zelfon_save_synth(copy, "3:/copy.zelsynth", 0, &song), 0);
    std::vector<uint8_t> again = file_bytes("3:/copy.zelsynth");
    EXPECT_EQ(again, first);
    for (int m : {kick, drums}) {
        ASSERT_EQ(zelfon_save_synth(m, "3:/m.zelsynth", 0, &song), 0);
        int loaded = zelfon_load_synth(-1, 0, 0, "3:/m.zelsynth", 0, &song);
        ASSERT_GE(loaded, 0);
        EXPECT_EQ(ctl_values(loaded), ctl_values(m));
    }
}

}  // namespace
