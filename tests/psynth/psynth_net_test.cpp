// The net's structure: slots, names, colours, links, controllers, chunks, MIDI out
// bytes and the checks every function makes on its module index.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "engine/memory.h"
#include "psynth/psynth_net.h"
#include "test_modules.h"

namespace {

using PsynthNetTest = PsynthFixture;

std::vector<int> links(const int* list, int capacity) {
    return list ? std::vector<int>(list, list + capacity) : std::vector<int>{};
}

std::vector<int> traced_commands() {
    std::vector<int> out;
    for (int i = 0; i < test_trace_count(); i++) out.push_back(test_trace_command(i));
    return out;
}

// Messages as hex bytes, one message per ';'.
std::string midi_bytes(psynth_module* mod, int command, int id, int note, int velocity) {
    psynth_event event = {};
    event.command = command;
    event.id = id;
    event.note = (int16_t)note;
    event.velocity = (uint16_t)velocity;
    psynth_midi_message messages[20];
    int count = psynth_midi_messages_for_event(mod, &event, messages, 20);
    std::string out;
    for (int m = 0; m < count; m++) {
        if (m) out += ';';
        for (int b = 0; b < messages[m].size; b++) {
            char hex[4];
            snprintf(hex, sizeof(hex), b ? " %02x" : "%02x", messages[m].data[b]);
            out += hex;
        }
    }
    return out;
}

TEST_F(PsynthNetTest, InitBuildsOnlyTheOutputModule) {
    ASSERT_EQ(net.slots, 4);
    psynth_module& out = net.modules[0];
    EXPECT_EQ(out.flags, PSYNTH_FLAG_EXISTS | PSYNTH_FLAG_OUTPUT | PSYNTH_FLAG_INITIALIZED);
    EXPECT_STREQ(out.name, "OUT");
    EXPECT_EQ((std::vector<int>{out.x, out.y, out.input_channels, out.output_channels}),
              (std::vector<int>{896, 512, 2, 2}));
    for (int c = 0; c < 2; c++) {
        ASSERT_NE(out.input_buffers[c], nullptr);
        EXPECT_EQ(out.input_start[c], PSYNTH_BUFFER_SIZE);
        EXPECT_EQ(out.output_buffers[c], nullptr);
        EXPECT_NE(out.scope_rings[c], nullptr);
    }
    EXPECT_EQ(out.input_buffers[2], nullptr);
    EXPECT_EQ(out.color[0] + out.color[1] + out.color[2], 3 * 255);  // the Output handler names no colour
    for (int i = 1; i < 4; i++) EXPECT_EQ(net.modules[i].flags, 0u) << "slot " << i;
    EXPECT_EQ(net.global_volume, 52);
    EXPECT_EQ(net.capture_module, -1);
    EXPECT_EQ(net.sampling_rate, 44100);
    EXPECT_EQ(net.event_heap_capacity, 256);
}

TEST_F(PsynthNetTest, AddSynthAsksInOrderAndSetsUpChannels) {
    test_module_config cfg;
    cfg.inputs = 1;
    cfg.outputs = 3;
    cfg.flags = PSYNTH_FLAG_GENERATOR | PSYNTH_FLAG_GET_SPEED_CHANGES;
    int m = add_test_module(&net, cfg);
    ASSERT_EQ(m, 1);
    EXPECT_EQ(traced_commands(),
              (std::vector<int>{PS_CMD_GET_FLAGS, PS_CMD_GET_SYNTH_COLOR, PS_CMD_GET_SYNTH_NAME,
                                PS_CMD_GET_DATA_SIZE, PS_CMD_INIT, PS_CMD_GET_INPUTS_NUM,
                                PS_CMD_GET_OUTPUTS_NUM, PS_CMD_SPEED_CHANGED}));
    psynth_module& mod = net.modules[m];
    EXPECT_EQ(mod.flags, 0x8u | 0x400u | 0x1u | 0x40u);
    EXPECT_EQ(mem_get_size(mod.data), sizeof(test_module_data));
    EXPECT_EQ(mod.input_channels, 1);
    EXPECT_EQ(mod.output_channels, 3);
    for (int c = 0; c < PSYNTH_MAX_CHANNELS; c++) {
        bool used = c < 3;  // buffers for the larger of the two counts
        EXPECT_EQ(mod.input_buffers[c] != nullptr, used) << c;
        EXPECT_EQ(mod.output_buffers[c] != nullptr, used) << c;
        EXPECT_EQ(mod.scope_rings[c] != nullptr, used) << c;
        if (used) {
            EXPECT_EQ(mod.input_start[c], 4096);
            EXPECT_EQ(mod.output_start[c], 4096);
            EXPECT_EQ(mem_get_size(mod.scope_rings[c]), 32768 * sizeof(psynth_sample));
        }
    }
    EXPECT_EQ((std::vector<int>{mod.midi_out_port, mod.midi_out_bank, mod.midi_out_program}),
              (std::vector<int>{-1, -1, -1}));
    for (int i = 0; i < PSYNTH_MIDI_HELD_NOTES; i++) EXPECT_EQ(mod.midi_held_ids[i], -1);

    // SPEED_CHANGED: ((44100 × 15360) / 125) / 24 in the 32 bits of note and velocity,
    // ticks per line in the first byte of pitch.
    const test_record& speed = test_data(&net, m)->records[1];
    ASSERT_EQ(speed.event.command, PS_CMD_SPEED_CHANGED);
    uint32_t packed;
    memcpy(&packed, &speed.event.note, 4);
    EXPECT_EQ(packed, 225792u);
    EXPECT_EQ(psynth_event_tick_length(&speed.event), 225792);
    EXPECT_EQ(psynth_event_ticks_per_line(&speed.event), 6);
    EXPECT_EQ(*(const uint8_t*)&speed.event.pitch, 6);
    EXPECT_EQ(psynth_tick_length(9001, 133), 43313);  // odd rate: ((9001 × 15360) / 133) / 24
}

TEST_F(PsynthNetTest, FullTableGrowsByFourAndFreeSlotsAreReused) {
    test_module_config cfg;
    EXPECT_EQ(add_test_module(&net, cfg), 1);
    EXPECT_EQ(add_test_module(&net, cfg), 2);
    EXPECT_EQ(add_test_module(&net, cfg), 3);
    EXPECT_EQ(net.slots, 4);
    EXPECT_EQ(add_test_module(&net, cfg), 4);
    EXPECT_EQ(net.slots, 8);
    for (int i = 5; i < 8; i++) EXPECT_EQ(net.modules[i].flags, 0u);
    EXPECT_STREQ(net.modules[1].name, "Recorder");  // records survive the move
    psynth_remove_synth(2, &net);
    EXPECT_EQ(add_test_module(&net, cfg), 2);
    EXPECT_EQ(net.slots, 8);
}

TEST_F(PsynthNetTest, DefaultNamesAreNumberedPerHandler) {
    test_module_config cfg;
    int a = add_test_module(&net, cfg);
    int b = add_test_module(&net, cfg);
    int c = add_test_module(&net, cfg);
    int source = add_test_module(&net, cfg, test_source_handler);
    EXPECT_STREQ(net.modules[a].name, "Recorder");
    EXPECT_STREQ(net.modules[b].name, "Recorder2");
    EXPECT_STREQ(net.modules[c].name, "Recorder3");
    EXPECT_EQ(net.modules[c].instance, 2);
    EXPECT_STREQ(net.modules[source].name, "Source");

    // The freed slot of Recorder3 still records instance 2; the new module goes into
    // Recorder2's slot and takes the number after it.
    psynth_remove_synth(c, &net);
    psynth_remove_synth(b, &net);
    int d = add_test_module(&net, cfg);
    EXPECT_EQ(d, b);
    EXPECT_STREQ(net.modules[d].name, "Recorder4");

    cfg.type_name = "";
    int unnamed = add_test_module(&net, cfg, test_pass_handler);
    EXPECT_STREQ(net.modules[unnamed].name, "SYNTH");
    const char* long_name = "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    int named = psynth_add_synth(-1, test_pass_handler, long_name, 0, 0, 0, 125, 6, &net);
    EXPECT_EQ(std::string(net.modules[named].name), std::string(long_name, 32));
}

TEST_F(PsynthNetTest, ColourIsParsedOnlyFromSevenCharacters) {
    test_module_config cfg;
    int parsed = add_test_module(&net, cfg);
    cfg.color = "#ffA37";
    int six = add_test_module(&net, cfg);
    cfg.color = "#ffA37F0";
    int eight = add_test_module(&net, cfg);
    const uint8_t* rgb = net.modules[parsed].color;
    EXPECT_EQ((std::vector<int>{rgb[0], rgb[1], rgb[2]}), (std::vector<int>{255, 0xA3, 0x7F}));
    for (int m : {six, eight}) {
        rgb = net.modules[m].color;
        EXPECT_EQ((std::vector<int>{rgb[0], rgb[1], rgb[2]}), (std::vector<int>{255, 255, 255})) << m;
    }
}

TEST_F(PsynthNetTest, MakeLinkTogglesAndListsGrowByTwo) {
    test_module_config cfg;
    int a = add_test_module(&net, cfg);
    int b = add_test_module(&net, cfg);
    int c = add_test_module(&net, cfg);
    psynth_module* mods = net.modules;

    psynth_make_link(0, a, &net);
    EXPECT_EQ(links(mods[0].input_links, mods[0].input_links_capacity), (std::vector<int>{a, -1}));
    EXPECT_EQ(links(mods[a].output_links, mods[a].output_links_capacity), (std::vector<int>{0, -1}));
    EXPECT_EQ(mods[a].input_links, nullptr);
    psynth_make_link(0, b, &net);
    psynth_make_link(0, c, &net);
    EXPECT_EQ(links(mods[0].input_links, mods[0].input_links_capacity), (std::vector<int>{a, b, c, -1}));
    psynth_add_input_link(0, b, &net);  // already there
    EXPECT_EQ(links(mods[0].input_links, mods[0].input_links_capacity), (std::vector<int>{a, b, c, -1}));

    // Linking in the opposite direction removes the existing link; lists never shrink.
    psynth_make_link(a, 0, &net);
    EXPECT_EQ(links(mods[0].input_links, mods[0].input_links_capacity), (std::vector<int>{-1, b, c, -1}));
    EXPECT_EQ(links(mods[a].output_links, mods[a].output_links_capacity), (std::vector<int>{-1, -1}));
    EXPECT_EQ(mods[a].input_links, nullptr);
    psynth_make_link(0, a, &net);  // the first free entry is taken again
    EXPECT_EQ(links(mods[0].input_links, mods[0].input_links_capacity), (std::vector<int>{a, b, c, -1}));
    psynth_make_link(0, a, &net);  // same direction twice: off again
    EXPECT_EQ(links(mods[0].input_links, mods[0].input_links_capacity), (std::vector<int>{-1, b, c, -1}));
}

TEST_F(PsynthNetTest, RemoveSynthClosesAndUnlinksBothSides) {
    test_module_config cfg;
    int a = add_test_module(&net, cfg);
    int b = add_test_module(&net, cfg);
    int c = add_test_module(&net, cfg);
    psynth_make_link(b, a, &net);
    psynth_make_link(b, c, &net);
    psynth_make_link(0, b, &net);
    psynth_new_chunk(b, 0, 64, 0, 0, &net);
    render_buffer(&net, 64);  // OUT now holds b's sound
    test_trace_reset();

    psynth_remove_synth(b, &net);
    EXPECT_EQ(traced_commands(), std::vector<int>{PS_CMD_CLOSE});
    psynth_module* mods = net.modules;
    EXPECT_EQ(mods[b].flags, 0u);
    EXPECT_EQ(mods[b].input_links, nullptr);
    EXPECT_EQ(mods[b].output_links, nullptr);
    for (int m : {a, c}) {
        EXPECT_EQ(links(mods[m].output_links, mods[m].output_links_capacity), (std::vector<int>{-1, -1})) << m;
    }
    EXPECT_EQ(links(mods[0].input_links, mods[0].input_links_capacity), (std::vector<int>{-1, -1}));

    render_buffer(&net, 64);  // nothing left points at the removed module
    EXPECT_EQ(test_trace_count(), 3);  // CLOSE, then a and c rendered; b no more
    for (int ch = 0; ch < 2; ch++) {
        EXPECT_EQ(net.modules[0].input_start[ch], 64);
        EXPECT_EQ(check_frames(net.modules[0].input_buffers[ch], 0, 64, [](int) { return 0; }), "");
    }
}

TEST_F(PsynthNetTest, ControllersMapNormalizedValues) {
    test_module_config cfg;
    cfg.ctls = 3;
    int m = add_test_module(&net, cfg);
    psynth_module& mod = net.modules[m];
    test_module_data* d = test_data(&net, m);
    ASSERT_EQ(mod.ctls_count, 3);
    EXPECT_EQ((std::vector<int>{d->ctl_values[0], d->ctl_values[1], d->ctl_values[2]}),
              (std::vector<int>{128, 0, 2}));  // defaults stored at registration
    EXPECT_STREQ(mod.ctls[2].units, "a/b/c");
    EXPECT_EQ(mod.ctls[1].value, &d->ctl_values[1]);

    auto send = [&](int command, int ctl, int value) {
        psynth_event event = {};
        event.command = command;
        event.note = (int16_t)ctl;
        event.velocity = (uint16_t)value;
        return psynth_handle_event(m, &event, &net);
    };
    struct { int ctl, value, expected; } cases[] = {
        {0, 8192, 64},     {0, 32768, 256},  {0, 40000, 256},  // above 32768 counts as 32768
        {1, 10000, -39},   {1, 0, -100},     {1, 32768, 100},  // ((200 × 10000) >> 15) − 100
        {2, 2, 2},         {2, 0, 1},        {2, 7, 3},        // selector: raw value, clamped
    };
    uint32_t counted = 0;
    for (const auto& k : cases) {
        EXPECT_EQ(send(PS_CMD_SET_GLOBAL_CONTROLLER, k.ctl, k.value), 0);
        EXPECT_EQ(d->ctl_values[k.ctl], k.expected) << "ctl " << k.ctl << " value " << k.value;
        EXPECT_EQ(mod.ctl_change_counter, ++counted);
    }
    send(PS_CMD_SET_LOCAL_CONTROLLER, 0, 16384);
    EXPECT_EQ(d->ctl_values[0], 128);
    send(PS_CMD_SET_GLOBAL_CONTROLLER, 3, 16384);  // no such controller: only counted
    EXPECT_EQ(mod.ctl_change_counter, counted + 2);

    d->config.take_controllers = 1;
    EXPECT_EQ(send(PS_CMD_SET_GLOBAL_CONTROLLER, 0, 0), 1);
    EXPECT_EQ(d->ctl_values[0], 128);  // taken by the module, still counted
    EXPECT_EQ(mod.ctl_change_counter, counted + 3);
    EXPECT_EQ(send(PS_CMD_NOTE_ON, 0, 0), 1);
    EXPECT_EQ(mod.ctl_change_counter, counted + 3);

    psynth_ctl wide = {"Wide", "", -32768, 32767, 0, nullptr, PSYNTH_CTL_NUMBER};
    EXPECT_EQ(psynth_ctl_value_from_normalized(&wide, 32768), 32767);
    EXPECT_EQ(psynth_ctl_value_from_normalized(&wide, 0), -32768);
    EXPECT_EQ(psynth_ctl_value_from_normalized(&wide, 16384), -1);  // 65535 >> 1 = 32767

    psynth_change_ctl(m, 0, nullptr, nullptr, 10, 20, 15, PSYNTH_CTL_NUMBER, nullptr, &net);
    EXPECT_STREQ(mod.ctls[0].name, "Volume");
    EXPECT_EQ(mod.ctls[0].min, 10);
    EXPECT_EQ(d->ctl_values[0], 128);  // no value pointer: the variable is left alone
    psynth_change_ctl(m, 0, "Gain", nullptr, 10, 20, 15, PSYNTH_CTL_NUMBER, &d->ctl_values[0], &net);
    EXPECT_STREQ(mod.ctls[0].name, "Gain");
    EXPECT_EQ(d->ctl_values[0], 15);
}

TEST_F(PsynthNetTest, ChunksAreNumberedResizedAndFreed) {
    int m = add_test_module(&net, test_module_config{});
    EXPECT_EQ(psynth_get_chunks_count(m, &net), 0);
    EXPECT_EQ(psynth_get_chunk_info(m, 0, nullptr, nullptr, nullptr, &net), 1);
    ASSERT_EQ(psynth_new_chunk(m, 3, 100, 5, 22050, &net), 0);
    EXPECT_EQ(psynth_get_chunks_count(m, &net), 16);
    EXPECT_EQ(psynth_get_chunk(m, 2, &net), nullptr);
    uint8_t* bytes = (uint8_t*)psynth_get_chunk(m, 3, &net);
    ASSERT_NE(bytes, nullptr);
    for (int i = 0; i < 100; i++) ASSERT_EQ(bytes[i], 0) << i;
    int size = 0, flags = 0, rate = 0;
    EXPECT_EQ(psynth_get_chunk_info(m, 3, &size, &flags, &rate, &net), 0);
    EXPECT_EQ((std::vector<int>{size, flags, rate}), (std::vector<int>{100, 5, 22050}));
    psynth_set_chunk_info(m, 3, 9, 9001, &net);
    EXPECT_EQ(psynth_get_chunk_info(m, 3, nullptr, &flags, &rate, &net), 0);
    EXPECT_EQ((std::vector<int>{flags, rate}), (std::vector<int>{9, 9001}));
    EXPECT_EQ(psynth_get_chunk_info(m, 16, &size, nullptr, nullptr, &net), 1);

    for (int i = 0; i < 100; i++) bytes[i] = (uint8_t)(i + 1);
    bytes = (uint8_t*)psynth_resize_chunk(m, 3, 300, &net);
    ASSERT_NE(bytes, nullptr);
    EXPECT_EQ(psynth_get_chunk(m, 3, &net), bytes);
    EXPECT_EQ(mem_get_size(bytes), 300u);
    for (int i = 0; i < 100; i++) ASSERT_EQ(bytes[i], i + 1) << i;
    EXPECT_EQ(psynth_resize_chunk(m, 2, 10, &net), nullptr);

    ASSERT_EQ(psynth_new_chunk(m, 3, 8, 0, 0, &net), 0);  // replaces the old data
    EXPECT_EQ(mem_get_size(psynth_get_chunk(m, 3, &net)), 8u);
    ASSERT_EQ(psynth_new_chunk(m, 20, 4, 0, 0, &net), 0);
    EXPECT_EQ(psynth_get_chunks_count(m, &net), 21);
    EXPECT_EQ(psynth_get_chunk_info(m, 3, &size, &flags, &rate, &net), 0);
    EXPECT_EQ((std::vector<int>{size, flags, rate}), (std::vector<int>{8, 0, 0}));
    psynth_free_chunk(m, 3, &net);
    EXPECT_EQ(psynth_get_chunk(m, 3, &net), nullptr);
    EXPECT_NE(psynth_get_chunk(m, 20, &net), nullptr);
    psynth_free_chunks(m, &net);
    EXPECT_EQ(psynth_get_chunks_count(m, &net), 0);
    ASSERT_EQ(psynth_new_chunk(m, 0, 16, 0, 0, &net), 0);  // left for the module's removal to free
}

TEST_F(PsynthNetTest, MidiOutBytesFollowHeldNotes) {
    int m = add_test_module(&net, test_module_config{});
    EXPECT_EQ(psynth_open_midi_out(m, nullptr, 3, &net), 0);
    EXPECT_EQ(psynth_open_midi_out(m, "No Such Synth", 3, &net), 0);
    EXPECT_NE(log_text().find("MIDI device not found."), std::string::npos);
    psynth_module* mod = &net.modules[m];
    EXPECT_EQ(mod->midi_out_port, -1);
    EXPECT_EQ(mod->midi_out_channel, 3);
    EXPECT_STREQ(mod->midi_out_name, "No Such Synth");
    psynth_set_midi_prog(m, 130, 5, &net);  // port closed: stored only
    EXPECT_EQ(mod->midi_out_bank, 130);
    EXPECT_EQ(mod->midi_out_program, 5);

    // Note = semitone + 12 clamped to 0..127, velocity = min(127, velocity >> 1).
    EXPECT_EQ(midi_bytes(mod, PS_CMD_NOTE_ON, 7, 48, 200), "93 3c 64");
    EXPECT_EQ(midi_bytes(mod, PS_CMD_NOTE_ON, 8, 130, 300), "93 7f 7f");
    EXPECT_EQ(midi_bytes(mod, PS_CMD_NOTE_ON, 9, -20, 1), "93 00 00");
    EXPECT_EQ(midi_bytes(mod, PS_CMD_NOTE_OFF, 7, 0, 0), "83 3c 7f");
    EXPECT_EQ(midi_bytes(mod, PS_CMD_NOTE_OFF, 7, 0, 0), "");  // no longer held
    EXPECT_EQ(midi_bytes(mod, PS_CMD_CLEAN, -1, 0, 0), "83 7f 7f;83 00 7f;b3 78 00");
    for (int i = 0; i < PSYNTH_MIDI_HELD_NOTES; i++) EXPECT_EQ(mod->midi_held_ids[i], -1);

    EXPECT_EQ(midi_bytes(mod, PS_CMD_NOTE_ON, 5, 48, 100), "93 3c 32");
    EXPECT_EQ(midi_bytes(mod, PS_CMD_NOTE_ON, 5, 50, 100), "93 3e 32");  // same id, same entry
    EXPECT_EQ(mod->midi_held_ids[1], -1);
    EXPECT_EQ(midi_bytes(mod, PS_CMD_ALL_NOTES_OFF, -1, 0, 0), "83 3e 7f");
    EXPECT_EQ(midi_bytes(mod, PS_CMD_ALL_NOTES_OFF, -1, 0, 0), "");

    // Controller numbers from 127 up are MIDI controllers k − 127; below 32 a 14-bit pair.
    EXPECT_EQ(midi_bytes(mod, PS_CMD_SET_GLOBAL_CONTROLLER, -1, 127 + 7, 0x41FF), "b3 07 41 b3 27 7f");
    EXPECT_EQ(midi_bytes(mod, PS_CMD_SET_LOCAL_CONTROLLER, 2, 127 + 7, 32768), "b3 07 7f b3 27 00");
    EXPECT_EQ(midi_bytes(mod, PS_CMD_SET_GLOBAL_CONTROLLER, -1, 127 + 74, 0x2345), "b3 4a 23");
    EXPECT_EQ(midi_bytes(mod, PS_CMD_SET_GLOBAL_CONTROLLER, -1, 127 + 74, 40000), "b3 4a 7f");
    EXPECT_EQ(midi_bytes(mod, PS_CMD_SET_GLOBAL_CONTROLLER, -1, 127 + 127, 0x2345), "b3 7f 23");
    EXPECT_EQ(midi_bytes(mod, PS_CMD_SET_GLOBAL_CONTROLLER, -1, 127 + 128, 100), "");
    EXPECT_EQ(midi_bytes(mod, PS_CMD_SET_GLOBAL_CONTROLLER, -1, 126, 100), "");
    EXPECT_EQ(midi_bytes(mod, PS_CMD_SET_VELOCITY, 5, 0, 100), "");
}

TEST_F(PsynthNetTest, IndicesOutsideTheTableAndFreeSlotsAreIgnored) {
    int gone = add_test_module(&net, test_module_config{});
    psynth_remove_synth(gone, &net);
    test_trace_reset();
    psynth_event event = {};
    event.command = PS_CMD_NOTE_ON;

    // A free slot keeps its old handler but must not be called or queued for.
    psynth_remove_synth(gone, &net);
    EXPECT_EQ(psynth_do_command(gone, PS_CMD_NOP, &net), 0);
    EXPECT_EQ(psynth_handle_event(gone, &event, &net), 0);
    psynth_add_event(gone, &event, &net);
    EXPECT_EQ(net.events_count, 0);
    render_buffer(&net, 32);
    EXPECT_EQ(test_trace_count(), 0);

    for (int bad : {-1, net.slots, 1000}) {
        SCOPED_TRACE(bad);
        int value = 0;
        psynth_remove_synth(bad, &net);
        EXPECT_EQ(psynth_do_command(bad, PS_CMD_INIT, &net), 0);
        EXPECT_EQ(psynth_handle_event(bad, &event, &net), 0);
        psynth_register_ctl(bad, "x", "", 0, 1, 1, 0, &value, &net);
        psynth_change_ctl(bad, 0, "x", "", 0, 1, 1, 0, &value, &net);
        EXPECT_EQ(psynth_get_number_of_inputs(bad, &net), 0);
        EXPECT_EQ(psynth_get_number_of_outputs(bad, &net), 0);
        psynth_set_number_of_inputs(bad, 2, &net);
        psynth_set_number_of_outputs(bad, 2, &net);
        psynth_make_link(bad, 0, &net);
        psynth_make_link(0, bad, &net);
        psynth_add_input_link(0, bad, &net);
        psynth_add_output_link(0, bad, &net);
        psynth_add_input_link(bad, 0, &net);
        psynth_new_chunk(bad, 0, 16, 0, 0, &net);
        EXPECT_EQ(psynth_get_chunk(bad, 0, &net), nullptr);
        EXPECT_EQ(psynth_get_chunk_info(bad, 0, nullptr, nullptr, nullptr, &net), 1);
        psynth_set_chunk_info(bad, 0, 1, 1, &net);
        EXPECT_EQ(psynth_resize_chunk(bad, 0, 8, &net), nullptr);
        psynth_free_chunk(bad, 0, &net);
        psynth_free_chunks(bad, &net);
        EXPECT_EQ(psynth_get_chunks_count(bad, &net), 0);
        EXPECT_EQ(psynth_open_midi_out(bad, nullptr, 1, &net), -1);
        psynth_set_midi_prog(bad, 1, 1, &net);
        psynth_add_event(bad, &event, &net);
        EXPECT_EQ(net.events_count, 0);
        psynth_sample* ring = nullptr;
        EXPECT_EQ(psynth_get_scope_position(bad, 0, &ring, nullptr, &net), -1);
        EXPECT_EQ(value, 0);
    }
    psynth_sample* ring = nullptr;
    EXPECT_EQ(psynth_get_scope_position(0, PSYNTH_MAX_CHANNELS, &ring, nullptr, &net), -1);
    const psynth_module& out = net.modules[0];  // untouched by any of the calls above
    EXPECT_TRUE(!out.input_links && !out.output_links && out.ctls_count == 0 && out.input_channels == 2);
    render_buffer(&net, 32);
    EXPECT_EQ(test_trace_count(), 0);
}

TEST_F(PsynthNetTest, CommandNameTableSkipsSampleOffset2) {
    EXPECT_STREQ(psynth_command_names[PS_CMD_SET_SAMPLE_OFFSET], "SET_SAMPLE_OFFSET");
    EXPECT_STREQ(psynth_command_names[PS_CMD_NOTE_OFF - 1], "NOTE_OFF");
    EXPECT_STREQ(psynth_command_names[PS_CMD_CLOSE - 1], "CLOSE");
    EXPECT_STREQ(psynth_command_name(PS_CMD_NOTE_OFF), "NOTE_OFF");
    EXPECT_STREQ(psynth_command_name(PS_CMD_RENDER_REPLACE), "RENDER_REPLACE");
    EXPECT_STREQ(psynth_command_name(PS_CMD_COUNT), "?");
    EXPECT_STREQ(psynth_command_name(-1), "?");
}

}  // namespace
