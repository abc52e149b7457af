// Event queues: delivery order between render pieces, offsets outside the buffer,
// controller events on the render path, heap growth and the allocation-free pass.
#include <gtest/gtest.h>

#include <string>

#include "engine/memory.h"
#include "psynth/psynth_net.h"
#include "test_modules.h"

namespace {

using PsynthEventTest = PsynthFixture;

int count_of(const std::string& text, const std::string& what) {
    int n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) n++;
    return n;
}

TEST_F(PsynthEventTest, EventsArriveSortedBetweenRenderPieces) {
    int m = add_test_module(&net, test_module_config{});
    int quiet = add_test_module(&net, test_module_config{});
    test_module_config sink;
    sink.outputs = 0;
    int no_outputs = add_test_module(&net, sink);

    queue_event(&net, m, PS_CMD_NOTE_OFF, 300, 1);
    queue_event(&net, m, PS_CMD_NOTE_ON, 0, 2);
    queue_event(&net, m, PS_CMD_SET_FREQ, 100, 3);
    queue_event(&net, m, PS_CMD_SET_VELOCITY, 100, 4);
    queue_event(&net, m, PS_CMD_NOTE_ON, 300, 5);
    queue_event(&net, no_outputs, PS_CMD_NOTE_ON, 40, 6);
    EXPECT_EQ(net.events_count, 6);
    EXPECT_EQ(net.modules[m].events_count, 5);
    render_buffer(&net, 512);

    // Offset 0 comes before any sound; equal offsets keep their queued order with no
    // piece between them; pieces end exactly at the event offsets.
    EXPECT_EQ(received_sequence(&net, m, 1),
              "NOTE_ON@0#2 R(0,100) SET_FREQ@100#3 SET_VELOCITY@100#4 R(100,200) "
              "NOTE_OFF@300#1 NOTE_ON@300#5 R(300,212)");
    EXPECT_EQ(received_sequence(&net, quiet, 1), "R(0,512)");
    EXPECT_EQ(received_sequence(&net, no_outputs, 1), "NOTE_ON@40#6");
    EXPECT_EQ(net.events_count, 0);
    EXPECT_EQ(net.modules[m].events_count, 0);

    render_buffer(&net, 64);  // the queues really are empty
    EXPECT_EQ(received_sequence(&net, m, 9), "R(0,64)");
}

TEST_F(PsynthEventTest, OffsetsOutsideTheBufferAreClamped) {
    int m = add_test_module(&net, test_module_config{});
    queue_event(&net, m, PS_CMD_NOTE_OFF, 10000, 2);
    queue_event(&net, m, PS_CMD_NOTE_ON, -5, 1);
    queue_event(&net, m, PS_CMD_SET_FREQ, 256, 3);
    render_buffer(&net, 256);
    EXPECT_EQ(received_sequence(&net, m, 1, false), "NOTE_ON#1 R(0,256) SET_FREQ#3 NOTE_OFF#2");
    EXPECT_EQ(test_data(&net, m)->bad_requests, 0);
    EXPECT_EQ(net.modules[m].output_start[0], 0);
}

TEST_F(PsynthEventTest, QueuedControllerChangesAreAppliedAndCounted) {
    test_module_config cfg;
    cfg.ctls = 3;
    int m = add_test_module(&net, cfg);
    test_module_data* d = test_data(&net, m);
    queue_event(&net, m, PS_CMD_SET_GLOBAL_CONTROLLER, 10, -1, 0, 32768);
    queue_event(&net, m, PS_CMD_SET_LOCAL_CONTROLLER, 20, 9, 1, 0);
    render_buffer(&net, 64);
    EXPECT_EQ(received_sequence(&net, m, 1),
              "R(0,10) SET_GLOBAL_CONTROLLER@10#-1 R(10,10) SET_LOCAL_CONTROLLER@20#9 R(20,44)");
    EXPECT_EQ(d->ctl_values[0], 256);
    EXPECT_EQ(d->ctl_values[1], -100);
    EXPECT_EQ(net.modules[m].ctl_change_counter, 2u);

    d->config.take_controllers = 1;
    queue_event(&net, m, PS_CMD_SET_GLOBAL_CONTROLLER, 0, -1, 0, 0);
    render_buffer(&net, 64);
    EXPECT_EQ(d->ctl_values[0], 256);
    EXPECT_EQ(net.modules[m].ctl_change_counter, 3u);
}

TEST_F(PsynthEventTest, HeapGrowsInBlocksKeepingQueuedEvents) {
    int m = add_test_module(&net, test_module_config{});
    psynth_module& mod = net.modules[m];
    for (int i = 0; i < 300; i++) queue_event(&net, m, PS_CMD_SET_FREQ, i, i);
    EXPECT_EQ(net.events_count, 300);
    EXPECT_EQ(net.event_heap_capacity, 512);
    EXPECT_EQ(mod.events_count, 300);
    EXPECT_EQ(mem_get_size(mod.events), 384 * sizeof(psynth_event*));
    for (int i = 0; i < 300; i++) {
        ASSERT_EQ(mod.events[i]->id, i);
        ASSERT_EQ(mod.events[i]->offset, i);
    }
    std::string log = log_text();
    EXPECT_NE(log.find("EVENTS HEAP RESIZE. OLD 256. NEW 512\n"), std::string::npos) << log;
    EXPECT_NE(log.find("EVENTS SYNTH RESIZE. OLD 128. NEW 256\n"), std::string::npos);
    EXPECT_NE(log.find("EVENTS SYNTH RESIZE. OLD 256. NEW 384\n"), std::string::npos);

    render_buffer(&net, 512);
    const test_module_data* d = test_data(&net, m);
    int next_id = 0, pieces = 0;
    for (int r = 1; r < d->records_count; r++) {
        const test_record& rec = d->records[r];
        if (rec.event.command == PS_CMD_RENDER_REPLACE) {
            pieces++;
        } else {
            ASSERT_EQ(rec.event.id, next_id) << "record " << r;
            next_id++;
        }
    }
    EXPECT_EQ(next_id, 300);
    EXPECT_EQ(pieces, 300);  // 299 one-frame pieces between the events, then 300 .. 512

    // The grown heap and list are kept: the next buffer of 300 events grows nothing.
    for (int i = 0; i < 300; i++) queue_event(&net, m, PS_CMD_SET_FREQ, i, i);
    render_buffer(&net, 512);
    EXPECT_EQ(count_of(log_text(), "RESIZE"), 3);
}

TEST_F(PsynthEventTest, RenderPassDoesNotAllocate) {
    test_module_config cfg;
    cfg.outputs = 2;
    cfg.flags = PSYNTH_FLAG_GENERATOR;
    int source = add_test_module(&net, cfg);
    int effect = add_pass_effect(&net, 2);
    cfg = test_module_config{};
    cfg.ctls = 3;
    int rec = add_test_module(&net, cfg);
    psynth_make_link(effect, source, &net);
    psynth_make_link(0, effect, &net);
    psynth_make_link(0, rec, &net);
    psynth_set_capture_module(effect, &net);
    psynth_scope_readers_add(&net);
    psynth_set_cpu_measure(1, &net);

    auto one_buffer = [&](int n) {
        psynth_begin_device_buffer(tarvik_time_ticks(), &net);
        for (int m : {source, effect, rec}) {
            queue_event(&net, m, PS_CMD_NOTE_ON, 0, n);
            queue_event(&net, m, PS_CMD_SET_GLOBAL_CONTROLLER, 100, -1, n % 3, (n * 1000) % 32769);
            queue_event(&net, m, PS_CMD_NOTE_OFF, 100 + n % 400, n);
        }
        render_buffer(&net, 512);
        if (n % 100 == 0) psynth_compute_cpu_usage(&net);
    };
    one_buffer(0);
    one_buffer(1);
    mem_stats before = mem_get_stats();
    for (int n = 2; n < 1002; n++) one_buffer(n);
    mem_stats after = mem_get_stats();
    EXPECT_EQ(after.allocations, before.allocations);
    EXPECT_EQ(after.dynamic_in_use, before.dynamic_in_use);
    EXPECT_EQ(net.modules[rec].ctl_change_counter, 1002u);
}

}  // namespace
