// A random walk of Sampler editor actions (frame commands, pastes into full and empty
// slots, resampling, header, loop and instrument edits, new samples) with undo and redo at
// random points, checked after every step against the song's saved bytes.
#include <string>

#include "edit_test_util.h"
#include "engine/memory.h"
#include "song/edit_sampler.h"

namespace {

constexpr int kSteps = 400;
constexpr uint32_t kUndoSize = 1 << 15;  // small enough that the oldest groups leave on the way

class SongEditSamplerRandomTest : public RandomEditFixture {
protected:
    int mod = -1;
    zelfon_sample_clip* clip = nullptr;

    void TearDown() override {
        mem_free(clip);
        RandomEditFixture::TearDown();
    }
    int frames(int slot) {
        auto* h = (const psynth_sampler_sample*)psynth_get_chunk(mod, psynth_sampler_header_chunk(slot), song.net);
        return h ? (int)h->length : 0;
    }
    // A selection within the slot's sample, now and then beyond it (to be refused).
    std::pair<int, int> selection(int slot) {
        const int n = frames(slot);
        if (n == 0 || pick(0, 20) == 0) return {pick(-2, 5), pick(-1, 5)};
        const int start = pick(0, n - 1);
        return {start, pick(1, n - start)};
    }

    std::string random_edit() {
        zelfon_edit_begin(&song);
        const int slot = pick(0, 20) == 0 ? pick(-1, 17) : pick(0, 3);
        const auto [start, length] = selection(slot);
        switch (pick(0, 13)) {
        case 0: zelfon_edit_sample_reverse(mod, slot, start, length, &song); return "reverse";
        case 1: zelfon_edit_sample_normalize(mod, slot, start, length, &song); return "normalize";
        case 2: zelfon_edit_sample_fade(mod, slot, start, length, pick(0, 1), &song); return "fade";
        case 3: zelfon_edit_sample_crop(mod, slot, start, length, &song); return "crop";
        case 4: {
            zelfon_sample_clip* c = nullptr;
            if (zelfon_edit_sample_cut(mod, slot, start, length, pick(0, 1) ? &c : nullptr, &song) == 0 && c) {
                mem_free(clip);
                clip = c;
            }
            return "cut";
        }
        case 5:
            if (clip) zelfon_edit_sample_paste(mod, slot, pick(0, 1) ? 0 : start, pick(0, 1) ? 0 : length, clip, &song);
            return "paste";
        case 6: zelfon_edit_sample_resample_length(mod, slot, pick(1, 300), &song); return "resample length";
        case 7: zelfon_edit_sample_set_rate(mod, slot, pick(4000, 96000), &song); return "base rate";
        case 8:
            for (int k = pick(1, 4); k > 0; k--) zelfon_edit_sample_header(mod, slot, pick(0, 64), pick(0, 255), pick(-20, 20), pick(-128, 127), &song);
            return "header";
        case 9: zelfon_edit_sample_loop(mod, slot, start, length, pick(0, 2), &song); return "loop";
        case 10: zelfon_edit_sampler_env_move(mod, pick(0, 1), pick(0, 4), pick(0, 300), pick(0, 64), &song); return "env move";
        case 11:
            if (pick(0, 1)) zelfon_edit_sampler_env_add(mod, pick(0, 1), pick(0, 511), pick(0, 64), nullptr, &song);
            else zelfon_edit_sampler_env_remove(mod, pick(0, 1), pick(0, 5), &song);
            return "env points";
        case 12: zelfon_edit_sample_new(mod, slot, pick(0, 200), 8 << pick(0, 2), pick(1, 2), pick(8000, 48000), &song); return "new";
        default: zelfon_edit_sampler_note_map(mod, pick(0, 95), pick(0, 95), pick(0, 15), &song); return "note map";
        }
    }
};

TEST_F(SongEditSamplerRandomTest, RandomEditsUndoAndRedoToTheSameBytes) {
    mod = add_sampler_with_sample(10, 20, 120);
    edit_walk_counts n = walk(kSteps, kUndoSize, [this] { return random_edit(); });
    EXPECT_GT(n.edits, kSteps / 4);  // many draws are refused: selections beyond the sample, empty slots
    EXPECT_GT(n.undos, 20);
    EXPECT_GT(n.redos, 10);
}

}  // namespace
