// The modules' own views, scripted on the real program: the Generator's wave drawn with the
// mouse (saved, then undone to the byte), a SpectraVoice partial's volume dragged, and the
// Compressor's, Vorbis player's and MultiSynth's views shown (screenshots to look at).
#include "app/studio_fixture.h"
#include "psynth/psynth_modules.h"
#include "song/edit_net.h"

namespace {

using ModuleViewsTest = StudioFixture;

// A song of a Generator (1), a SpectraVoice (2), a Compressor (3), a Vorbis player (4) and
// a MultiSynth (5) feeding the Generator and the SpectraVoice.
fs::path views_song(const fs::path& dir) {
    fs::path p = dir / "views.zelfon";
    zelfon_song s;
    EXPECT_EQ(zelfon_song_init(0, 44100, &s), 0);
    zelfon_edit_begin(&s);
    psynth_handler types[] = {psynth_generator, psynth_spectravoice, psynth_compressor, psynth_vorbis_player, psynth_multisynth};
    for (int i = 0; i < 5; i++) EXPECT_EQ(zelfon_edit_add_synth(types[i], 100 + 150 * i, 200, &s), i + 1);
    for (auto [dest, src] : {std::pair{0, 1}, {0, 2}, {3, 4}, {0, 3}, {1, 5}, {2, 5}}) EXPECT_EQ(zelfon_edit_link(dest, src, &s), ZELFON_EDIT_OK);
    EXPECT_EQ(zelfon_save_song(p.c_str(), ZELFON_VERSION_MAJOR, ZELFON_VERSION_MINOR, &s), 0);
    zelfon_song_close(&s);
    return p;
}

TEST_F(ModuleViewsTest, DrawnWaveAndPartialsAreUndoableEditsAndEveryViewShows) {
    fs::path song = views_song(dir);
    write_file(dir / "zelfon_config.txt", "window_width 1280\nwindow_height 900\n");
    auto saved = [&](const char* name) { return (dir / (std::string(name) + ".zelfon")).string(); };
    std::string script =
        "open_module 1\n"
        "click_id module.1.tab.view\n"
        "save_song " + saved("before") + "\n"
        "drag_id generator.wave module.1.tab.view\n"  // from the middle up and to the left
        "wait 3\n"
        "save_song " + saved("drawn") + "\n"
        "screenshot " + shot("view_generator.png") + "\n"
        "action undo\n"
        "save_song " + saved("undone") + "\n"
        "open_module 2\n"
        "click_id module.2.tab.view\n"
        "drag_id spectravoice.partial.3 spectravoice.partial.3.top\n"  // partial 4 to full volume
        "wait 3\n"
        "save_song " + saved("partial") + "\n"
        "screenshot " + shot("view_spectravoice.png") + "\n"
        "open_module 3\n"
        "click_id module.3.tab.view\n"
        "screenshot " + shot("view_compressor.png") + "\n"
        "open_module 4\n"
        "click_id module.4.tab.view\n"
        "screenshot " + shot("view_vorbis.png") + "\n"
        "open_module 5\n"
        "click_id module.5.tab.view\n"
        "screenshot " + shot("view_multisynth.png") + "\n"
        "quit\nclick_id msgbox.button.1\n";
    ASSERT_EQ(run_studio(script, {song.string()}), 0) << output();
    EXPECT_FALSE(read_file(saved("drawn")) == read_file(saved("before")));
    EXPECT_TRUE(read_file(saved("undone")) == read_file(saved("before")));
    zelfon_song s;
    load(saved("drawn"), &s);
    const int8_t* wave = (const int8_t*)psynth_get_chunk(1, 0, s.net);
    ASSERT_NE(wave, nullptr);
    int top = 0;
    for (int i = 0; i < 32; i++) top = std::max(top, (int)wave[i]);
    EXPECT_EQ(top, 127);  // dragged above the area: the highest value
    zelfon_song_close(&s);
    load(saved("partial"), &s);
    const uint16_t* partials = (const uint16_t*)psynth_get_chunk(2, 0, s.net);
    ASSERT_NE(partials, nullptr);
    EXPECT_EQ(partials[3 * 3 + 1], 256);  // partial 4's volume
    zelfon_song_close(&s);
}

}  // namespace
