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
    std::vector<int> kick_ctls = ctl_values(kick), drum_ctls = ctl_values(drums), voice_ctls = ctl_values(voice);
    std::vector<uint8_t> voice_partials = partials(voice);
    EXPECT_EQ(voice_ctls[6], 100) << "controllers 6 to 8 show partial 7";
    EXPECT_EQ(voice_ctls[8], 5);
    save_load_save("3:/synths.zelfon");
    EXPECT_EQ(song.net->modules[kick].handler, psynth_kicker);
    EXPECT_EQ(song.net->modules[drums].handler, psynth_drumsynth);
    EXPECT_EQ(song.net->modules[voice].handler, psynth_spectravoice);
    EXPECT_EQ(ctl_values(kick), kick_ctls);
    EXPECT_EQ(ctl_values(drums), drum_ctls);
    EXPECT_EQ(ctl_values(voice), voice_ctls);
    EXPECT_EQ(partials(voice), voice_partials);
    int flags = 0;
    ASSERT_EQ(psynth_get_chunk_info(voice, 0, nullptr, &flags, nullptr, song.net), 0);
    EXPECT_EQ(flags, 2);

    play();
    std::vector<int16_t> again = render(8 * 5292);
    // The song built afresh plays the same samples.
    zelfon_song_close(&song);
    ASSERT_EQ(zelfon_song_init(0, 44100, &song), 0);
    song.net->global_volume = 256;
    build();
    play();
    std::vector<int16_t> sound = render(8 * 5292);
    int loud = 0;
    for (int16_t v : sound) loud += v > 100 || v < -100;
    EXPECT_GT(loud, 8 * 5292 / 4) << "the song sounds";
    ASSERT_EQ(again.size(), sound.size());
    for (size_t i = 0; i < sound.size(); i++) ASSERT_EQ(again[i], sound[i]) << "frame " << i / 2;
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
