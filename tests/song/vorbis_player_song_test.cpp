// A song with a Vorbis player: the Ogg file travels in the module's data chunk, so a save →
// load → save gives the same bytes, and the loaded song plays the file's tone with the
// module's settings; a module file carries it too.
#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "psynth/ogg_tone.h"
#include "psynth/psynth_modules.h"
#include "psynth/vorbis_player.h"
#include "song/module_file.h"
#include "song_test_util.h"

namespace {

class SongVorbisTest : public SongFixture {
public:
    int find_player() {
        for (int m = 0; m < song.net->slots; m++) {
            if ((song.net->modules[m].flags & PSYNTH_FLAG_EXISTS) && song.net->modules[m].handler == psynth_vorbis_player) return m;
        }
        return -1;
    }
};

TEST_F(SongVorbisTest, TheFileTravelsInTheSongAndPlaysAfterLoading) {
    if (!ogg_tone_encoder_found()) GTEST_SKIP() << "oggenc is not installed";
    std::string ogg = ogg_tone_make(temp_dir, "tone", 441, 1.0, 22050, 2, 882);
    ASSERT_FALSE(ogg.empty());
    int mod = add_module(psynth_vorbis_player, "Tone", 100, 200);
    psynth_make_link(0, mod, song.net);
    ASSERT_EQ(psynth_vorbis_player_load(mod, ogg.c_str(), song.net), 0);
    *song.net->modules[mod].ctls[PSYNTH_VORBIS_CTL_FINETUNE].value = 37;
    *song.net->modules[mod].ctls[PSYNTH_VORBIS_CTL_REPEAT].value = 1;
    int slot = add_pattern(0, 8, 1);
    cell(slot, 0, 0) = note_cell(61, mod + 1);  // C5

    bytes first = save_load_save();
    const bytes ogg_bytes = file_bytes(ogg.c_str());
    EXPECT_NE(std::search(first.begin(), first.end(), ogg_bytes.begin(), ogg_bytes.end()), first.end())
        << "the file's bytes are stored whole";
    int loaded = find_player();
    ASSERT_GE(loaded, 0);
    psynth_vorbis_info info;
    ASSERT_EQ(psynth_vorbis_player_get_info(loaded, &info, song.net), 0);
    EXPECT_EQ(info.frames, 22050);
    EXPECT_EQ(info.channels, 2);
    EXPECT_EQ(info.rate, 22050);
    EXPECT_EQ(*song.net->modules[loaded].ctls[PSYNTH_VORBIS_CTL_FINETUNE].value, 37);
    play();
    std::vector<int16_t> after = render(30000);
    int peak = 0;
    for (size_t i = 0; i < after.size(); i += 2) peak = std::max(peak, std::abs((int)after[i]));
    EXPECT_NEAR(peak, 16384, 400) << "the file's level: half of full scale";
    // 37/256 semitone up, which the frequency table (1/64 semitone steps) plays as 36/256.
    EXPECT_NEAR(ogg_tone_period(after, 1000, after.size(), 2), 100 / std::pow(2.0, 9 / 768.0), 0.01);

    // A module file carries the chunk as well.
    std::string synth = temp_dir + "/tone.zelsynth";
    ASSERT_EQ(zelfon_save_synth(loaded, synth.c_str(), 0, &song), 0);
    int copy = zelfon_load_synth(-1, 0, 0, synth.c_str(), 0, &song);
    ASSERT_GE(copy, 0);
    ASSERT_EQ(psynth_vorbis_player_get_info(copy, &info, song.net), 0);
    EXPECT_EQ(info.frames, 22050);
}

}  // namespace
