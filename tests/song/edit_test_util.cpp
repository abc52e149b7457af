// The editing tests' fixture.
#include "edit_test_util.h"

#include "psynth/psynth_modules.h"
#include "psynth/sampler.h"

std::vector<zelfon_cell> EditFixture::cells(int slot, int track, int line, int tracks, int lines) {
    std::vector<zelfon_cell> out;
    for (int l = line; l < line + lines; l++) {
        for (int t = track; t < track + tracks; t++) out.push_back(cell(slot, t, l));
    }
    return out;
}

std::vector<zelfon_cell> EditFixture::numbered(int tracks, int lines, int first_note) {
    std::vector<zelfon_cell> out;
    for (int l = 0; l < lines; l++) {
        for (int t = 0; t < tracks; t++) {
            out.push_back(zelfon_cell{(uint8_t)(first_note + t + 8 * l), (uint8_t)(1 + l), (uint16_t)(2 + t), (uint8_t)(t + 1),
                                      (uint8_t)(l + 1), (uint16_t)(0x100 * t + l)});
        }
    }
    return out;
}

int EditFixture::add_filled_pattern(int x, int lines, int tracks) {
    int slot = add_pattern(x, lines, tracks);
    std::vector<zelfon_cell> block = numbered(tracks, lines);
    zelfon_cell_rect all = {slot, 0, 0, tracks, lines};
    EXPECT_EQ(zelfon_edit_set_cells(&all, block.data(), &song), ZELFON_EDIT_OK);
    return slot;
}

int EditFixture::add_sampler_with_sample(int x, int y, int frames) {
    psynth_net* net = song.net;
    int mod = psynth_add_synth(-1, psynth_sampler, nullptr, 0, x, y, song.bpm, song.speed, net);
    EXPECT_GE(mod, 0);
    EXPECT_EQ(psynth_new_chunk(mod, psynth_sampler_header_chunk(0), sizeof(psynth_sampler_sample), 0, 0, net), 0);
    EXPECT_EQ(psynth_new_chunk(mod, psynth_sampler_data_chunk(0), frames * (int)sizeof(int16_t), 0, 9001, net), 0);
    int16_t* data = (int16_t*)psynth_get_chunk(mod, psynth_sampler_data_chunk(0), net);
    for (int i = 0; i < frames; i++) data[i] = (int16_t)(i * 300 - 15000);
    psynth_sampler_sample* h = (psynth_sampler_sample*)psynth_get_chunk(mod, psynth_sampler_header_chunk(0), net);
    h->length = frames;
    h->volume = 60;
    h->type = PSYNTH_SAMPLER_FORMAT_INT16 << PSYNTH_SAMPLER_FORMAT_SHIFT;
    ((psynth_sampler_instrument*)psynth_get_chunk(mod, PSYNTH_SAMPLER_INSTRUMENT_CHUNK, net))->samples_num = 1;
    psynth_do_command(mod, PS_CMD_SETUP_FINISHED, net);
    return mod;
}

void EditFixture::expect_undo_redo(const bytes& before, const bytes& after) {
    ASSERT_TRUE(zelfon_can_undo(&song));
    ASSERT_EQ(zelfon_undo(nullptr, &song), 1);
    EXPECT_EQ(saved(), before) << "undo did not give back the song before the edit";
    ASSERT_EQ(zelfon_redo(nullptr, &song), 1);
    EXPECT_EQ(saved(), after) << "redo did not give back the song after the edit";
}

bool RandomEditFixture::newest_group_is_current() {
    const undo& u = song.history;
    if (!u.actions || u.cur == 0) return false;
    return u.actions[(u.first + u.cur - 1) & (u.actions_num_limit - 1)].level == u.level;
}

edit_walk_counts RandomEditFixture::walk(int steps, uint32_t undo_size, const std::function<std::string()>& random_edit) {
    zelfon_edit_init_history(undo_size, &song);
    edit_walk_counts n;
    // states[i]: the song's bytes with i groups done; pos: where the history's cursor is.
    std::vector<bytes> states = {saved()};
    size_t pos = 0;
    for (int step = 0; step < steps; step++) {
        int roll = pick(0, 99);
        std::string what;
        if (roll < 18) {
            what = "undo";
            int done = zelfon_undo(nullptr, &song);
            EXPECT_EQ(done, pos > 0 ? 1 : 0) << "step " << step;
            if (done != (pos > 0 ? 1 : 0)) return n;
            if (done) {
                pos--;
                n.undos++;
            }
        } else if (roll < 30) {
            what = "redo";
            int done = zelfon_redo(nullptr, &song);
            EXPECT_EQ(done, pos + 1 < states.size() ? 1 : 0) << "step " << step;
            if (done != (pos + 1 < states.size() ? 1 : 0)) return n;
            if (done) {
                pos++;
                n.redos++;
            }
        } else {
            what = random_edit();
            if (newest_group_is_current()) {
                states.resize(pos + 1);
                states.push_back(saved());
                pos++;
                n.edits++;
            }
        }
        // The history drops its oldest groups when its budget is spent.
        size_t dropped = states.size() - 1 - song.history.end;
        states.erase(states.begin(), states.begin() + (long)dropped);
        pos -= dropped;
        n.dropped += (int)dropped;
        EXPECT_EQ(pos, song.history.cur) << "step " << step << " (" << what << ")";
        bytes now = saved();
        EXPECT_EQ(now, states[pos]) << "step " << step << " (" << what << ") gave other bytes";
        if (pos != song.history.cur || now != states[pos]) return n;
    }
    return n;
}
