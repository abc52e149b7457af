// Sound net editing actions: the exact net and song bytes after each edit, its undo and its
// redo; a removed module coming back whole with its links both ways; link toggling;
// controller moves merging; pasting and duplicating modules with data chunks; refusals.
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "edit_test_util.h"
#include "engine/file.h"
#include "engine/memory.h"
#include "psynth/psynth_modules.h"
#include "song/edit_net.h"
#include "song/module_file.h"

namespace {

// A module with one controller wider than 32768 steps that counts the controller events it hears.
struct listener_data {
    int value;
    int heard;
    int normalized;  // of the last event
};

intptr_t listener_handler(int mod_num, psynth_event* e, psynth_net* net) {
    listener_data* d = psynth_module_data<listener_data>(mod_num, net);
    switch (e->command) {
    case PS_CMD_GET_DATA_SIZE: return sizeof(listener_data);
    case PS_CMD_GET_SYNTH_NAME: return (intptr_t)"Listener";
    case PS_CMD_INIT: psynth_register_ctl(mod_num, "Wide", "", -5, 99995, 0, PSYNTH_CTL_NUMBER, &d->value, net); return 1;
    case PS_CMD_SET_GLOBAL_CONTROLLER:
        d->heard++;
        d->normalized = e->velocity;
        return 0;
    default: return 0;
    }
}

class SongEditNetTest : public EditFixture {
protected:
    // Starts a group: every edit of these tests is a step of its own unless it says otherwise.
    zelfon_song* step() {
        zelfon_edit_begin(&song);
        return &song;
    }
    psynth_module& mod(int n) { return song.net->modules[n]; }
    bool used(int n) { return n < song.net->slots && (mod(n).flags & PSYNTH_FLAG_EXISTS); }
    // The entries of a link list, free ones (−1) included.
    static std::vector<int> list(const int* links, int capacity) { return std::vector<int>(links, links + capacity); }
    std::vector<int> inputs(int n) { return list(mod(n).input_links, mod(n).input_links_capacity); }
    std::vector<int> outputs(int n) { return list(mod(n).output_links, mod(n).output_links_capacity); }
    bytes chunk(int n, int c) {
        const uint8_t* data = (const uint8_t*)psynth_get_chunk(n, c, song.net);
        int size = 0;
        psynth_get_chunk_info(n, c, &size, nullptr, nullptr, song.net);
        return data ? bytes(data, data + size) : bytes();
    }

    // Generator (1) → Echo (2) → OUT, a Sampler (3) into OUT and into the Echo, each module
    // with settings away from their defaults.
    void build_net() {
        zelfon_edit_begin(&song);
        ASSERT_EQ(zelfon_edit_add_synth(psynth_generator, 100, 200, &song), 1);
        ASSERT_EQ(zelfon_edit_add_synth(psynth_echo, 300, 200, &song), 2);
        ASSERT_EQ(add_sampler_with_sample(100, 400), 3);
        for (auto [dest, src] : {std::pair{0, 2}, {2, 1}, {0, 3}, {2, 3}}) ASSERT_EQ(zelfon_edit_link(dest, src, &song), ZELFON_EDIT_OK);
        const uint8_t color[3] = {1, 2, 3};
        ASSERT_EQ(zelfon_edit_rename_synth(2, "A full-length echo name, cut off here", &song), ZELFON_EDIT_OK);
        ASSERT_EQ(zelfon_edit_synth_color(2, color, &song), ZELFON_EDIT_OK);
        ASSERT_EQ(zelfon_edit_synth_pitch(2, -7, 99, &song), ZELFON_EDIT_OK);
        ASSERT_EQ(zelfon_edit_synth_midi_out(2, nullptr, 9, 300, 17, &song), ZELFON_EDIT_OK);
        ASSERT_EQ(zelfon_edit_synth_mute_solo(2, 1, 1, &song), ZELFON_EDIT_OK);
        ASSERT_EQ(zelfon_edit_synth_ctl(2, 1, mod(2).ctls[1].max, &song), ZELFON_EDIT_OK);
        zelfon_edit_init_history(ZELFON_UNDO_SIZE_DEFAULT, &song);  // the tests start from here
    }
};

// ---- Modules in and out ----

TEST_F(SongEditNetTest, RemovedModuleComesBackWholeInItsSlotWithItsLinksBothWays) {
    build_net();
    bytes before = saved();
    std::vector<int> echo_in = inputs(2), echo_out = outputs(2), sampler_out = outputs(3), out_in = inputs(0);
    ASSERT_EQ(out_in, (std::vector<int>{2, 3}));

    ASSERT_EQ(zelfon_edit_remove_synth(2, step()), ZELFON_EDIT_OK);
    EXPECT_FALSE(used(2));
    EXPECT_EQ(inputs(0), (std::vector<int>{-1, 3}));
    EXPECT_EQ(outputs(1), (std::vector<int>{-1, -1}));
    EXPECT_EQ(outputs(3), (std::vector<int>{0, -1}));
    bytes after = saved();

    zelfon_edit_place place = {0, 0, 0, 0};
    ASSERT_EQ(zelfon_undo(&place, &song), 1);
    EXPECT_EQ(place.slot, -1);
    EXPECT_EQ(place.module, 2);
    ASSERT_TRUE(used(2));
    EXPECT_STREQ(mod(2).name, "A full-length echo name, cut off");
    EXPECT_EQ(mod(2).relative_note, -7);
    EXPECT_EQ(mod(2).finetune, 99);
    EXPECT_EQ(mod(2).midi_out_bank, 300);
    EXPECT_EQ(mod(2).flags & (PSYNTH_FLAG_MUTE | PSYNTH_FLAG_SOLO), PSYNTH_FLAG_MUTE | PSYNTH_FLAG_SOLO);
    EXPECT_EQ(ctl(2, 1), mod(2).ctls[1].max);
    EXPECT_EQ(inputs(2), echo_in);
    EXPECT_EQ(outputs(2), echo_out);
    EXPECT_EQ(outputs(3), sampler_out);
    EXPECT_EQ(inputs(0), out_in);
    EXPECT_EQ(saved(), before);
    ASSERT_EQ(zelfon_redo(nullptr, &song), 1);
    EXPECT_EQ(saved(), after);
    expect_undo_redo(before, after);
}

TEST_F(SongEditNetTest, RemovingTheSamplerAndUndoingKeepsItsSampleToTheByte) {
    build_net();
    bytes sample = chunk(3, 2);
    ASSERT_EQ(sample.size(), 200u);
    bytes before = saved();
    ASSERT_EQ(zelfon_edit_remove_synth(3, step()), ZELFON_EDIT_OK);
    bytes after = saved();
    ASSERT_EQ(zelfon_undo(nullptr, &song), 1);
    EXPECT_EQ(chunk(3, 2), sample);
    int rate = 0;
    EXPECT_EQ(psynth_get_chunk_info(3, 2, nullptr, nullptr, &rate, song.net), 0);
    EXPECT_EQ(rate, 9001);
    EXPECT_EQ(saved(), before);
    ASSERT_EQ(zelfon_redo(nullptr, &song), 1);
    EXPECT_EQ(saved(), after);
}

TEST_F(SongEditNetTest, TheOutputModuleAndEmptySlotsAreNeverRemoved) {
    build_net();
    bytes before = saved();
    EXPECT_EQ(zelfon_edit_remove_synth(0, step()), ZELFON_EDIT_OUTPUT_MODULE);
    EXPECT_EQ(zelfon_edit_remove_synth(7, step()), ZELFON_EDIT_NO_MODULE);
    EXPECT_EQ(zelfon_edit_remove_synth(-1, step()), ZELFON_EDIT_NO_MODULE);
    EXPECT_EQ(zelfon_edit_duplicate_synth(0, 5, 5, step()), -1);
    EXPECT_EQ(zelfon_edit_link(2, 2, step()), ZELFON_EDIT_OUTSIDE);
    EXPECT_EQ(zelfon_edit_link(2, 9, step()), ZELFON_EDIT_NO_MODULE);
    EXPECT_FALSE(zelfon_can_undo(&song));
    EXPECT_EQ(saved(), before);
}

TEST_F(SongEditNetTest, AddedModulesTakeTheFirstFreeSlotAndComeBackUnderTheSameNumber) {
    build_net();
    bytes three = saved();
    ASSERT_EQ(zelfon_edit_add_synth(psynth_reverb, 640, 128, step()), 4);  // the table grows by 4
    EXPECT_EQ(song.net->slots, 8);
    EXPECT_EQ(mod(4).x, 640);
    EXPECT_EQ(mod(4).handler, psynth_reverb);
    ASSERT_EQ(zelfon_edit_remove_synth(1, step()), ZELFON_EDIT_OK);
    ASSERT_EQ(zelfon_edit_add_synth(psynth_filter, 1, 2, step()), 1);  // the freed slot first
    EXPECT_STREQ(mod(1).name, "Filter");
    bytes last = saved();
    for (int i = 0; i < 3; i++) ASSERT_EQ(zelfon_undo(nullptr, &song), 1);
    EXPECT_EQ(saved(), three);
    for (int i = 0; i < 3; i++) ASSERT_EQ(zelfon_redo(nullptr, &song), 1);
    EXPECT_EQ(saved(), last);
    EXPECT_EQ(zelfon_edit_add_synth(nullptr, 0, 0, step()), -1);
}

// ---- Links ----

TEST_F(SongEditNetTest, LinkingTwiceEitherWayUnlinksAndUndoGivesBackEveryEntry) {
    build_net();
    bytes linked = saved();
    ASSERT_EQ(zelfon_edit_link(1, 2, step()), ZELFON_EDIT_OK);  // Echo already takes the Generator: unlinks
    EXPECT_EQ(inputs(2), (std::vector<int>{-1, 3}));
    EXPECT_EQ(outputs(1), (std::vector<int>{-1, -1}));
    bytes unlinked = saved();
    ASSERT_EQ(zelfon_edit_link(2, 1, step()), ZELFON_EDIT_OK);  // back into the first free entry
    EXPECT_EQ(inputs(2), (std::vector<int>{1, 3}));
    ASSERT_EQ(zelfon_edit_link(0, 1, step()), ZELFON_EDIT_OK);  // OUT's list grows by two
    EXPECT_EQ(inputs(0), (std::vector<int>{2, 3, 1, -1}));
    bytes grown = saved();

    ASSERT_EQ(zelfon_undo(nullptr, &song), 1);
    EXPECT_EQ(inputs(0), (std::vector<int>{2, 3}));  // the list's old capacity too
    EXPECT_EQ(saved(), linked);
    ASSERT_EQ(zelfon_undo(nullptr, &song), 1);
    EXPECT_EQ(saved(), unlinked);
    ASSERT_EQ(zelfon_undo(nullptr, &song), 1);
    EXPECT_EQ(saved(), linked);
    for (int i = 0; i < 3; i++) ASSERT_EQ(zelfon_redo(nullptr, &song), 1);
    EXPECT_EQ(saved(), grown);
}

// ---- Settings and controllers ----

TEST_F(SongEditNetTest, ControllerMovesMergeWithinAGroupIntoOneStep) {
    build_net();
    bytes before = saved();
    int old = ctl(1, 2);
    zelfon_edit_begin(&song);
    for (int v : {10, 20, 30}) ASSERT_EQ(zelfon_edit_synth_ctl(1, 2, v, &song), ZELFON_EDIT_OK);
    EXPECT_EQ(ctl(1, 2), 30);
    ASSERT_EQ(zelfon_edit_synth_ctl(1, 3, 5, &song), ZELFON_EDIT_OK);  // another controller: its own action
    ASSERT_EQ(zelfon_edit_synth_ctl(1, 2, 40, &song), ZELFON_EDIT_OK);  // after it: not merged
    bytes moved = saved();
    EXPECT_EQ(song.history.end, 3u);
    zelfon_edit_begin(&song);
    ASSERT_EQ(zelfon_edit_synth_ctl(1, 2, 50, &song), ZELFON_EDIT_OK);  // a new group
    EXPECT_EQ(song.history.end, 4u);

    ASSERT_EQ(zelfon_undo(nullptr, &song), 1);
    EXPECT_EQ(ctl(1, 2), 40);
    ASSERT_EQ(zelfon_undo(nullptr, &song), 1);
    EXPECT_EQ(ctl(1, 2), old);
    EXPECT_EQ(saved(), before);
    ASSERT_EQ(zelfon_redo(nullptr, &song), 1);
    EXPECT_EQ(saved(), moved);

    const psynth_ctl& c = mod(1).ctls[2];
    EXPECT_EQ(zelfon_edit_synth_ctl(1, 2, c.max + 1, step()), ZELFON_EDIT_OUTSIDE);
    EXPECT_EQ(zelfon_edit_synth_ctl(1, 2, c.min - 1, step()), ZELFON_EDIT_OUTSIDE);
    EXPECT_EQ(zelfon_edit_synth_ctl(1, mod(1).ctls_count, 0, step()), ZELFON_EDIT_OUTSIDE);
    EXPECT_EQ(zelfon_edit_synth_ctl(6, 0, 0, step()), ZELFON_EDIT_NO_MODULE);
}

TEST_F(SongEditNetTest, TheModuleHearsAControllerChangeAndKeepsTheExactValue) {
    int mod = zelfon_edit_add_synth(listener_handler, 0, 0, step());
    ASSERT_EQ(mod, 1);
    listener_data* d = (listener_data*)song.net->modules[mod].data;
    uint32_t counter = song.net->modules[mod].ctl_change_counter;
    ASSERT_EQ(zelfon_edit_synth_ctl(mod, 0, 12345, step()), ZELFON_EDIT_OK);
    EXPECT_EQ(d->heard, 1);
    EXPECT_EQ(d->normalized, 4047);  // the net maps it back to 12345 exactly
    EXPECT_EQ(d->value, 12345);
    ASSERT_EQ(zelfon_edit_synth_ctl(mod, 0, 12346, step()), ZELFON_EDIT_OK);
    EXPECT_EQ(d->normalized, 4048);  // which maps to 12348: the variable takes the exact value
    EXPECT_EQ(d->value, 12346);
    EXPECT_EQ(song.net->modules[mod].ctl_change_counter, counter + 2);
    ASSERT_EQ(zelfon_undo(nullptr, &song), 1);
    EXPECT_EQ(d->heard, 3);
    EXPECT_EQ(d->value, 12345);
}

// The module takes the move before the edit returns, so the very next buffer the sound
// thread renders carries it.
TEST_F(SongEditNetTest, AControllerMoveIsHeardInTheNextBuffer) {
    zelfon_edit_begin(&song);
    ASSERT_EQ(zelfon_edit_add_synth(psynth_generator, 0, 0, &song), 1);
    ASSERT_EQ(zelfon_edit_link(0, 1, &song), ZELFON_EDIT_OK);
    zelfon_cell note = {};
    note.note = 60;
    note.module = 2;
    zelfon_send_live_cell(&note, 0, &song);
    render(1024, 256);
    auto peak = [](const std::vector<int16_t>& v, size_t from) {
        int p = 0;
        for (size_t i = from; i < v.size(); i++) p = std::max(p, std::abs((int)v[i]));
        return p;
    };
    ASSERT_GT(peak(render(256, 256), 0), 1000);
    ASSERT_EQ(zelfon_edit_synth_ctl(1, 0, 0, step()), ZELFON_EDIT_OK);  // Volume to 0
    std::vector<int16_t> next = render(256, 256);
    EXPECT_EQ(peak(next, next.size() / 2), 0);  // silent by the buffer's second half
}

TEST_F(SongEditNetTest, SettingsChangeOneAtATimeAndUndoExactly) {
    build_net();
    const uint8_t color[3] = {200, 100, 50};
    struct named_code {
        const char* what;
        int code;
    } steps[] = {
        {"rename", zelfon_edit_rename_synth(1, "Bass", step())},
        {"colour", zelfon_edit_synth_color(1, color, step())},
        {"pitch", zelfon_edit_synth_pitch(1, 12, -128, step())},
        {"midi", zelfon_edit_synth_midi_out(1, nullptr, 3, 0, 127, step())},
        {"mute", zelfon_edit_synth_mute_solo(1, 1, 0, step())},
        {"learn", zelfon_edit_synth_midi_learn(1, 0, 74, 2, step())},
    };
    for (const named_code& s : steps) EXPECT_EQ(s.code, ZELFON_EDIT_OK) << s.what;
    EXPECT_STREQ(mod(1).name, "Bass");
    EXPECT_EQ(mod(1).color[0], 200);
    EXPECT_EQ(mod(1).relative_note, 12);
    EXPECT_EQ(mod(1).midi_out_channel, 3);
    EXPECT_EQ(mod(1).midi_out_program, 127);
    EXPECT_EQ(mod(1).flags & (PSYNTH_FLAG_MUTE | PSYNTH_FLAG_SOLO), PSYNTH_FLAG_MUTE);
    EXPECT_EQ(mod(1).midi_learn_cc[0], 74);
    EXPECT_EQ(mod(1).midi_learn_channel[0], 2);
    bytes all = saved();
    EXPECT_EQ(song.history.end, 6u);
    EXPECT_EQ(zelfon_edit_synth_pitch(1, 12, -128, step()), ZELFON_EDIT_OK);  // no change: not recorded
    EXPECT_EQ(song.history.end, 6u);

    EXPECT_EQ(zelfon_edit_synth_midi_out(1, nullptr, 16, 0, 0, step()), ZELFON_EDIT_OUTSIDE);
    EXPECT_EQ(zelfon_edit_synth_midi_out(1, nullptr, 0, 16384, 0, step()), ZELFON_EDIT_OUTSIDE);
    EXPECT_EQ(zelfon_edit_synth_midi_out(1, nullptr, 0, 0, 128, step()), ZELFON_EDIT_OUTSIDE);
    std::string long_name(ZELFON_MIDI_OUT_NAME_MAX, 'm');
    EXPECT_EQ(zelfon_edit_synth_midi_out(1, long_name.c_str(), 0, 0, 0, step()), ZELFON_EDIT_OUTSIDE);
    EXPECT_EQ(zelfon_edit_rename_synth(5, "x", step()), ZELFON_EDIT_NO_MODULE);
    EXPECT_EQ(zelfon_edit_synth_midi_learn(1, 0, 128, 0, step()), ZELFON_EDIT_OUTSIDE);
    EXPECT_EQ(zelfon_edit_synth_midi_learn(1, 0, 1, 16, step()), ZELFON_EDIT_OUTSIDE);
    EXPECT_EQ(zelfon_edit_synth_midi_learn(1, mod(1).ctls_count, 1, 0, step()), ZELFON_EDIT_OUTSIDE);
    // Forgetting the binding writes the song as before it was learned.
    ASSERT_EQ(zelfon_edit_synth_midi_learn(1, 0, PSYNTH_MIDI_UNBOUND, 0, step()), ZELFON_EDIT_OK);
    EXPECT_EQ(mod(1).midi_learn_cc[0], PSYNTH_MIDI_UNBOUND);
    ASSERT_EQ(zelfon_undo(nullptr, &song), 1);
    EXPECT_EQ(saved(), all);
    bytes before_device = saved();
    ASSERT_EQ(zelfon_edit_synth_midi_out(1, "No such device", 3, 0, 127, step()), ZELFON_EDIT_OK);
    EXPECT_STREQ(mod(1).midi_out_name, "No such device");  // kept for the file, though no port opens
    EXPECT_EQ(mod(1).midi_out_port, -1);
    expect_undo_redo(before_device, saved());
    ASSERT_EQ(zelfon_undo(nullptr, &song), 1);
    EXPECT_EQ(mod(1).midi_out_name, nullptr);

    for (int i = 0; i < 6; i++) ASSERT_EQ(zelfon_undo(nullptr, &song), 1);
    EXPECT_STREQ(mod(1).name, "Generator");
    EXPECT_EQ(mod(1).flags & PSYNTH_FLAG_MUTE, 0u);
    EXPECT_EQ(mod(1).midi_out_program, -1);
    EXPECT_EQ(mod(1).midi_learn_cc[0], PSYNTH_MIDI_UNBOUND);
    for (int i = 0; i < 6; i++) ASSERT_EQ(zelfon_redo(nullptr, &song), 1);
    EXPECT_EQ(saved(), all);
}

TEST_F(SongEditNetTest, MovingModulesMovesEachByTheSameStep) {
    build_net();
    bytes before = saved();
    int mods[] = {1, 3};
    ASSERT_EQ(zelfon_edit_move_synths(mods, 2, -150, 7, step()), ZELFON_EDIT_OK);
    EXPECT_EQ(mod(1).x, -50);
    EXPECT_EQ(mod(1).y, 207);
    EXPECT_EQ(mod(3).x, -50);
    EXPECT_EQ(mod(3).y, 407);
    expect_undo_redo(before, saved());
    int missing[] = {1, 6};
    EXPECT_EQ(zelfon_edit_move_synths(missing, 2, 1, 1, step()), ZELFON_EDIT_NO_MODULE);
    EXPECT_EQ(zelfon_edit_move_synths(mods, 1, INT32_MIN, 0, step()), ZELFON_EDIT_OUTSIDE);
}

// ---- Paste and duplicate ----

TEST_F(SongEditNetTest, PastingASamplerFromThePasteboardBringsItsSampleAndUndoes) {
    build_net();
    ASSERT_EQ(zelfon_copy_synth_to_pasteboard(3, &song), 0);
    bytes before = saved();
    int copy = zelfon_edit_paste_synth_file(ZELFON_PASTEBOARD_FILE, 512, 64, step());
    ASSERT_EQ(copy, 4);
    EXPECT_EQ(mod(copy).handler, psynth_sampler);
    EXPECT_EQ(mod(copy).x, 512);
    EXPECT_EQ(mod(copy).y, 64);
    EXPECT_EQ(chunk(copy, 2), chunk(3, 2));
    EXPECT_EQ(chunk(copy, 0), chunk(3, 0));
    EXPECT_EQ(mod(copy).input_links_capacity + mod(copy).output_links_capacity, 0);  // pasted unlinked
    bytes after = saved();
    expect_undo_redo(before, after);
    ASSERT_EQ(zelfon_undo(nullptr, &song), 1);
    EXPECT_FALSE(used(copy));

    bytes text = {'Z', 'F', 'O', 'N', 0, 0, 0, 0};
    EXPECT_EQ(zelfon_edit_paste_synth(text.data(), text.size(), 0, 0, step()), -1);
    EXPECT_EQ(zelfon_edit_paste_synth_file("3:/no such file.zelsynth", 0, 0, step()), -1);
    // A FIFO planted at the pasteboard's name is not read (nobody writes it: reading would never end).
    char* fifo = v3_make_filename("3:/planted.zelsynth");
    ASSERT_EQ(mkfifo(fifo, 0600), 0);
    mem_free(fifo);
    EXPECT_EQ(zelfon_edit_paste_synth_file("3:/planted.zelsynth", 0, 0, step()), -1);
    EXPECT_EQ(saved(), before);
}

TEST_F(SongEditNetTest, DuplicateCopiesSettingsAndChunksNextToTheModule) {
    build_net();
    bytes before = saved();
    int copy = zelfon_edit_duplicate_synth(3, 150, 450, step());
    ASSERT_EQ(copy, 4);
    EXPECT_EQ(chunk(copy, 2), chunk(3, 2));
    EXPECT_STREQ(mod(copy).name, mod(3).name);
    EXPECT_EQ(ctl_values(copy), ctl_values(3));
    int echo = zelfon_edit_duplicate_synth(2, 350, 250, step());
    ASSERT_EQ(echo, 5);
    EXPECT_EQ(mod(echo).relative_note, -7);
    EXPECT_EQ(mod(echo).flags, mod(2).flags);
    bytes after = saved();
    ASSERT_EQ(zelfon_undo(nullptr, &song), 1);
    ASSERT_EQ(zelfon_undo(nullptr, &song), 1);
    EXPECT_EQ(saved(), before);
    ASSERT_EQ(zelfon_redo(nullptr, &song), 1);
    ASSERT_EQ(zelfon_redo(nullptr, &song), 1);
    EXPECT_EQ(saved(), after);
}

}  // namespace
