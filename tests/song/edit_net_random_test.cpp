// A random walk of sound net edits (modules of every type in and out, pastes, duplicates,
// links, moves, settings and controllers) with undo and redo at random points, checked
// after every step against the song's saved bytes, as the pattern edits' walk is.
#include <string>
#include <vector>

#include "edit_test_util.h"
#include "psynth/psynth_modules.h"
#include "song/edit_net.h"
#include "song/module_file.h"

namespace {

constexpr int kSteps = 500;
constexpr int kMaxModules = 10;
constexpr uint32_t kUndoSize = 1 << 16;  // small enough that the oldest groups leave on the way

class SongEditNetRandomTest : public RandomEditFixture {
protected:
    bytes pasteboard;  // a module file image taken from the net now and then

    std::vector<int> used_modules() {
        std::vector<int> used;
        for (int i = 0; i < song.net->slots; i++) {
            if (song.net->modules[i].flags & PSYNTH_FLAG_EXISTS) used.push_back(i);
        }
        return used;
    }

    // A module in use (OUT among them), now and then a free or unknown slot, to be refused.
    int any_module() {
        std::vector<int> used = used_modules();
        if (pick(0, 30) == 0) return pick(-1, song.net->slots + 1);
        return used[pick(0, (int)used.size() - 1)];
    }

    void copy_to_pasteboard(int mod) {
        if (zelfon_copy_synth_to_pasteboard(mod, &song) == 0) pasteboard = file_bytes(ZELFON_PASTEBOARD_FILE);
    }

    // A value of controller `ctl` of `mod` within its range, now and then just beyond it.
    int any_value(int mod, int ctl) {
        if (mod < 0 || mod >= song.net->slots || ctl >= song.net->modules[mod].ctls_count) return pick(0, 100);
        const psynth_ctl& c = song.net->modules[mod].ctls[ctl];
        return pick(0, 20) == 0 ? c.max + 1 : pick(c.min, c.max);
    }

    // One random net edit in a group of its own (controller moves now and then several in
    // one group, to merge); returns its name for failure messages.
    std::string random_edit() {
        zelfon_edit_begin(&song);
        int mod = any_module();
        bool room = (int)used_modules().size() < kMaxModules;
        switch (pick(0, 14)) {
        case 0:
            if (room) zelfon_edit_add_synth(psynth_get_module_type(pick(0, psynth_get_module_types_count() - 1)), pick(-50, 900), pick(0, 600), &song);
            return "add";
        case 1:
        case 2: zelfon_edit_remove_synth(mod, &song); return "remove";
        case 3:
            if (room && !pasteboard.empty()) zelfon_edit_paste_synth(pasteboard.data(), pasteboard.size(), pick(0, 900), pick(0, 600), &song);
            else copy_to_pasteboard(mod);
            return "paste";
        case 4:
            if (room) zelfon_edit_duplicate_synth(mod, pick(0, 900), pick(0, 600), &song);
            return "duplicate";
        case 5:
        case 6: zelfon_edit_link(mod, any_module(), &song); return "link";
        case 7: {
            int mods[3] = {mod, any_module(), any_module()};
            zelfon_edit_move_synths(mods, pick(1, 3), pick(-64, 64), pick(-64, 64), &song);
            return "move";
        }
        case 8: {
            const char* names[3] = {nullptr, "", "A name of more than thirty-two bytes"};
            zelfon_edit_rename_synth(mod, names[pick(0, 2)], &song);
            return "rename";
        }
        case 9: {
            uint8_t color[3] = {(uint8_t)pick(0, 255), (uint8_t)pick(0, 255), 7};
            zelfon_edit_synth_color(mod, color, &song);
            return "colour";
        }
        case 10: zelfon_edit_synth_pitch(mod, pick(-24, 24), pick(-256, 256), &song); return "pitch";
        case 11: zelfon_edit_synth_midi_out(mod, nullptr, pick(0, 16), pick(-1, 3), pick(-1, 128), &song); return "midi out";
        case 12: zelfon_edit_synth_mute_solo(mod, pick(0, 1), pick(0, 1), &song); return "mute and solo";
        case 13: {
            int ctl = pick(0, 8), cc = pick(0, 3);
            zelfon_edit_synth_midi_learn(mod, ctl, cc == 3 ? PSYNTH_MIDI_UNBOUND : cc, pick(0, 15), &song);
            return "MIDI learn";
        }
        default: {
            int ctl = pick(0, 8);
            for (int n = pick(1, 3); n > 0; n--) zelfon_edit_synth_ctl(mod, ctl, any_value(mod, ctl), &song);
            return "controller";
        }
        }
    }
};

TEST_F(SongEditNetRandomTest, EveryNetEditUndoesAndRedoesToTheExactBytesAroundIt) {
    add_sampler_with_sample(100, 100);  // data chunks to remove, paste and duplicate
    edit_walk_counts n = walk(kSteps, kUndoSize, [this] { return random_edit(); });
    EXPECT_GT(n.undos, 50);
    EXPECT_GT(n.redos, 10);
    EXPECT_GT(n.edits, 150);
    EXPECT_GT(n.dropped, 0);
}

}  // namespace
