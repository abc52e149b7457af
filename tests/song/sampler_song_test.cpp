// A song that plays the Sampler: a short looped sample with envelopes, notes, a slide,
// an arpeggio and a velocity change must render the same samples whatever the size of
// the requests that the sound device makes.
#include <cmath>
#include <numbers>

#include "psynth/psynth_modules.h"
#include "psynth/sampler.h"
#include "song_test_util.h"

namespace {

constexpr int kLine = 5292;  // six ticks of 882 frames at 125 BPM, 44100 Hz

class SongSamplerTest : public SongFixture {
public:
    // A Sampler linked into OUT with one 16-bit sample of 64 frames looped over its last 48,
    // the volume envelope on with a sustain and a fade-out, and a panning envelope.
    int add_sampler() {
        psynth_net* net = song.net;
        int mod = psynth_add_synth(-1, psynth_sampler, nullptr, 0, 0, 0, song.bpm, song.speed, net);
        EXPECT_GE(mod, 0);
        psynth_make_link(0, mod, net);
        EXPECT_EQ(psynth_new_chunk(mod, 1, sizeof(psynth_sampler_sample), 0, 0, net), 0);
        EXPECT_EQ(psynth_new_chunk(mod, 2, 64 * sizeof(int16_t), 0, 44100, net), 0);
        int16_t* data = (int16_t*)psynth_get_chunk(mod, 2, net);
        for (int i = 0; i < 64; i++) data[i] = (int16_t)(20000 * std::sin(i * 2 * std::numbers::pi / 48) + (i & 7) * 300);
        psynth_sampler_sample* h = (psynth_sampler_sample*)psynth_get_chunk(mod, 1, net);
        h->length = 64;
        h->loop_start = 16;
        h->loop_length = 48;
        h->volume = 60;
        h->panning = 100;
        h->type = PSYNTH_SAMPLER_LOOP_FORWARD | (PSYNTH_SAMPLER_FORMAT_INT16 << PSYNTH_SAMPLER_FORMAT_SHIFT);
        psynth_sampler_instrument* ins = (psynth_sampler_instrument*)psynth_get_chunk(mod, 0, net);
        ins->samples_num = 1;
        ins->volume_type = PSYNTH_SAMPLER_ENV_ON | PSYNTH_SAMPLER_ENV_SUSTAIN;
        ins->volume_fadeout = 2000;
        ins->panning_type = PSYNTH_SAMPLER_ENV_ON;
        ins->vibrato_depth = 8;
        ins->vibrato_rate = 20;
        psynth_do_command(mod, PS_CMD_SETUP_FINISHED, net);
        return mod;
    }
};

void build_song(SongSamplerTest& f, int mod, int slot) {
    f.cell(slot, 0, 0) = note_cell(49, mod + 1, 100);
    f.cell(slot, 0, 2) = note_cell(0, 0, 0, 0x01, 6);            // slide up
    f.cell(slot, 1, 1) = note_cell(56, mod + 1, 0, 0x08, 0x0407);  // arpeggio
    f.cell(slot, 1, 3) = note_cell(0, 0, 60, 0, 0);              // velocity change
    f.cell(slot, 2, 2) = note_cell(61, mod + 1, 0, 0x09, 0);      // sample offset 0
    f.cell(slot, 2, 4) = note_cell(128, 0);                      // note off: fade-out
    f.cell(slot, 3, 5) = note_cell(37, mod + 1, 0, 0x0F, 131);    // tempo change mid-song
    f.cell(slot, 0, 6) = note_cell(128, 0);
}

TEST_F(SongSamplerTest, RequestSizesNeverChangeTheOutput) {
    std::vector<int16_t> reference;
    for (int request : {8192, 1000, 64, 1}) {
        SCOPED_TRACE("request " + std::to_string(request));
        restart();
        int mod = add_sampler();
        build_song(*this, mod, add_pattern(0, 8));
        play();
        std::vector<int16_t> out = render(8 * kLine, request);
        if (reference.empty()) {
            reference = out;
            EXPECT_GT(count_loud(out, 200), 8 * kLine / 2) << "the song should sound most of the time";
        }
        EXPECT_EQ(first_difference(out, reference), "");
    }
}

}  // namespace
