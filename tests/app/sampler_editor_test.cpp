// The Sampler editor as a musician uses it, scripted on the real program: a WAV that sox
// made loaded into slot 2, its loop switched on and its end dragged, a point added to the
// volume envelope; the song saved after each step and every step undone, each undo giving
// back the bytes saved before the step.
#include <cstdlib>

#include "app/studio_fixture.h"
#include "psynth/psynth_modules.h"
#include "psynth/sampler.h"
#include "song/edit_net.h"

namespace {

using SamplerEditorTest = StudioFixture;

constexpr int kToneFrames = 22050;  // half a second at 44100 Hz

TEST_F(SamplerEditorTest, LoadLoopAndEnvelopeEditsAreSavedAndUndoneToTheByte) {
    fs::path tone = dir / "tone.wav";
    std::string sox = "sox -n -r 44100 -b 16 -c 1 " + tone.string() + " synth 0.5 sine 440 2>/dev/null";
    ASSERT_EQ(std::system(sox.c_str()), 0);
    fs::path song = dir / "song.zelfon";
    {
        zelfon_song s;
        ASSERT_EQ(zelfon_song_init(0, 44100, &s), 0);
        zelfon_edit_begin(&s);
        ASSERT_EQ(zelfon_edit_add_synth(psynth_sampler, 300, 200, &s), 1);
        ASSERT_EQ(zelfon_edit_link(0, 1, &s), ZELFON_EDIT_OK);
        ASSERT_EQ(zelfon_save_song(song.c_str(), ZELFON_VERSION_MAJOR, ZELFON_VERSION_MINOR, &s), 0);
        zelfon_song_close(&s);
    }
    write_file(dir / "zelfon_config.txt", "window_width 1280\nwindow_height 900\n");  // room for the editor
    const char* steps[] = {"start", "loaded", "looped", "dragged", "enveloped"};
    auto saved = [&](const char* name) { return (dir / (std::string(name) + ".zelfon")).string(); };
    std::string script =
        "doubleclick_id net.module.1\n"
        "click_id module.1.tab.view\n"
        "click_id sampler.slot.2\n"
        "save_song " + saved("start") + "\n"
        "click_id sampler.load_sample\n"
        "click_id filedlg.name\n"
        "key ctrl+A\n"
        "text " + tone.string() + "\n"
        "click_id filedlg.ok\n"
        "expect status tone.wav loaded into sample 2\n"
        "save_song " + saved("loaded") + "\n"
        "click_id sampler.loop.1\n"
        "save_song " + saved("looped") + "\n"
        "drag_id sampler.loop_end sampler.wave\n"
        "wait 3\n"
        "save_song " + saved("dragged") + "\n"
        "click_id sampler.env.volume at 0.75 0.5\n"  // where no point is
        "save_song " + saved("enveloped") + "\n"
        "screenshot " + shot("sampler_editor.png") + "\n";
    for (int i = 4; i > 0; i--) {
        script += "action undo\nsave_song " + saved((std::string("undo_") + steps[i]).c_str()) + "\n";
    }
    // A new empty sample in slot 3: "16bit", "Mono", the size and rate as offered.
    script += "click_id sampler.slot.3\n"
              "click_id sampler.new_sample\n"
              "expect message Select data format\n"
              "click_id msgbox.button.1\n"
              "expect message Select number of channels\n"
              "click_id msgbox.button.1\n"
              "click_id sampler.new.ok\n"
              "save_song " + saved("new_sample") + "\n";
    script += "quit\nclick_id msgbox.button.1\n";
    ASSERT_EQ(run_studio(script, {song.string()}), 0) << output();

    zelfon_song s;
    load(saved("loaded"), &s);
    auto* header = (psynth_sampler_sample*)psynth_get_chunk(1, psynth_sampler_header_chunk(2), s.net);
    ASSERT_NE(header, nullptr);
    EXPECT_EQ(header->length, (uint32_t)kToneFrames);
    EXPECT_EQ(header->type & PSYNTH_SAMPLER_LOOP_MASK, PSYNTH_SAMPLER_LOOP_OFF);
    zelfon_song_close(&s);
    load(saved("looped"), &s);
    header = (psynth_sampler_sample*)psynth_get_chunk(1, psynth_sampler_header_chunk(2), s.net);
    EXPECT_EQ(header->type & PSYNTH_SAMPLER_LOOP_MASK, PSYNTH_SAMPLER_LOOP_FORWARD);
    EXPECT_EQ(header->loop_start, 0u);
    EXPECT_EQ(header->loop_length, (uint32_t)kToneFrames);
    zelfon_song_close(&s);
    load(saved("dragged"), &s);
    header = (psynth_sampler_sample*)psynth_get_chunk(1, psynth_sampler_header_chunk(2), s.net);
    // Dragged to the middle of the view, which shows the whole sample.
    EXPECT_GT(header->loop_length, (uint32_t)kToneFrames / 3);
    EXPECT_LT(header->loop_length, (uint32_t)kToneFrames * 2 / 3);
    auto* before = (psynth_sampler_instrument*)psynth_get_chunk(1, PSYNTH_SAMPLER_INSTRUMENT_CHUNK, s.net);
    int points = before->volume_points_num;
    zelfon_song_close(&s);
    load(saved("enveloped"), &s);
    auto* after = (psynth_sampler_instrument*)psynth_get_chunk(1, PSYNTH_SAMPLER_INSTRUMENT_CHUNK, s.net);
    EXPECT_EQ(after->volume_points_num, points + 1);
    zelfon_song_close(&s);

    load(saved("new_sample"), &s);
    header = (psynth_sampler_sample*)psynth_get_chunk(1, psynth_sampler_header_chunk(3), s.net);
    ASSERT_NE(header, nullptr);
    EXPECT_EQ(header->length, 44100u);
    EXPECT_STREQ(header->name, "zlsmp");
    EXPECT_EQ(header->type & (PSYNTH_SAMPLER_FORMAT_MASK | PSYNTH_SAMPLER_STEREO),
              PSYNTH_SAMPLER_FORMAT_INT16 << PSYNTH_SAMPLER_FORMAT_SHIFT);
    zelfon_song_close(&s);

    // Each undo gives back the song as it was saved before the step.
    for (int i = 1; i <= 4; i++) {
        EXPECT_TRUE(read_file(saved((std::string("undo_") + steps[i]).c_str())) == read_file(saved(steps[i - 1])))
            << "undoing " << steps[i];
    }
}

}  // namespace
