// Test modules for the sound net: one configurable handler core behind three
// handler functions (so that default names are numbered per type), and the fixture.
#include "test_modules.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "engine/file.h"
#include "engine/log.h"
#include "engine/memory.h"

namespace {

// The creation questions come before the data block exists; they read this.
test_module_config next_config;

constexpr int kTraceSize = 4096;
int trace_commands[kTraceSize];
int trace_count;

test_module_data* data_of(int mod_num, psynth_net* net) {
    if (mod_num < 0 || mod_num >= net->slots) return nullptr;
    return (test_module_data*)net->modules[mod_num].data;
}

const int kCtlMin[3] = {0, -100, 1};
const int kCtlMax[3] = {256, 100, 3};
const int kCtlDef[3] = {128, 0, 2};

void init_module(int mod_num, test_module_data* d, psynth_net* net) {
    d->config = next_config;
    const char* names[3] = {"Volume", "Pan", "Mode"};
    for (int i = 0; i < d->config.ctls && i < 3; i++) {
        psynth_register_ctl(mod_num, names[i], i == 2 ? "a/b/c" : "", kCtlMin[i], kCtlMax[i],
                            kCtlDef[i], i == 2 ? PSYNTH_CTL_SELECTOR : PSYNTH_CTL_NUMBER,
                            &d->ctl_values[i], net);
    }
}

intptr_t render(int mod_num, test_module_data* d, psynth_net* net) {
    psynth_module* mod = &net->modules[mod_num];
    const test_module_config& cfg = d->config;
    int off = mod->render_offset;
    int end = off + mod->render_frames;
    if (off < 0 || end <= off || end > net->frames || end > PSYNTH_BUFFER_SIZE) {
        d->bad_requests++;
        return 0;
    }
    switch (cfg.mode) {
    case TEST_RENDER_SILENT:
        return 0;
    case TEST_RENDER_RAMP:
    case TEST_RENDER_CONSTANT:
        if (off < cfg.silent_below || off >= cfg.silent_from) return 0;
        for (int c = 0; c < mod->output_channels; c++) {
            for (int i = off; i < end; i++) {
                mod->output_buffers[c][i] =
                    cfg.mode == TEST_RENDER_RAMP ? ramp_value(cfg.base, c, i) : (psynth_sample)cfg.base;
            }
        }
        return 1;
    case TEST_RENDER_PASS: {
        bool sound = false;
        for (int c = 0; c < mod->input_channels; c++) sound |= mod->input_start[c] < end;
        if (!sound) return 0;
        for (int c = 0; c < mod->output_channels; c++) {
            const psynth_sample* in = c < mod->input_channels ? mod->input_buffers[c] : nullptr;
            int start = in ? mod->input_start[c] : PSYNTH_BUFFER_SIZE;
            for (int i = off; i < end; i++) mod->output_buffers[c][i] = i >= start ? in[i] : 0;
        }
        return 1;
    }
    }
    return 0;
}

intptr_t run(const char* own_name, int mod_num, psynth_event* event, psynth_net* net) {
    if (trace_count < kTraceSize) trace_commands[trace_count] = event->command;
    trace_count++;
    test_module_data* d = data_of(mod_num, net);
    if (d && event->command == PS_CMD_INIT) init_module(mod_num, d, net);
    const test_module_config& cfg = d ? d->config : next_config;
    if (d && event->command >= PS_CMD_INIT) {
        if (d->records_count < TEST_MAX_RECORDS) {
            test_record& r = d->records[d->records_count];
            r.event = *event;
            r.render_offset = net->modules[mod_num].render_offset;
            r.render_frames = net->modules[mod_num].render_frames;
        }
        d->records_count++;
    }
    switch (event->command) {
    case PS_CMD_GET_DATA_SIZE: return sizeof(test_module_data);
    case PS_CMD_GET_SYNTH_NAME: return (intptr_t)(cfg.type_name ? cfg.type_name : own_name);
    case PS_CMD_GET_SYNTH_INFO: return (intptr_t) "Test module";
    case PS_CMD_GET_SYNTH_COLOR: return (intptr_t)cfg.color;
    case PS_CMD_GET_INPUTS_NUM: return cfg.inputs;
    case PS_CMD_GET_OUTPUTS_NUM: return cfg.outputs;
    case PS_CMD_GET_FLAGS: return cfg.flags;
    case PS_CMD_INIT:
    case PS_CMD_SETUP_FINISHED:
    case PS_CMD_CLEAN:
    case PS_CMD_NOTE_ON:
    case PS_CMD_SET_FREQ:
    case PS_CMD_SET_VELOCITY:
    case PS_CMD_NOTE_OFF:
    case PS_CMD_ALL_NOTES_OFF:
    case PS_CMD_SPEED_CHANGED:
    case PS_CMD_CLOSE:
        return 1;
    case PS_CMD_SET_LOCAL_CONTROLLER:
    case PS_CMD_SET_GLOBAL_CONTROLLER:
        return cfg.take_controllers;
    case PS_CMD_RENDER_REPLACE:
        return d ? render(mod_num, d, net) : 0;
    default:
        return 0;
    }
}

}  // namespace

intptr_t test_recorder_handler(int mod_num, psynth_event* event, psynth_net* net) {
    return run("Recorder", mod_num, event, net);
}
intptr_t test_source_handler(int mod_num, psynth_event* event, psynth_net* net) {
    return run("Source", mod_num, event, net);
}
intptr_t test_pass_handler(int mod_num, psynth_event* event, psynth_net* net) {
    return run("Pass", mod_num, event, net);
}

int test_trace_count() { return trace_count; }
int test_trace_command(int i) { return i >= 0 && i < kTraceSize ? trace_commands[i] : -1; }
void test_trace_reset() { trace_count = 0; }

int add_test_module(psynth_net* net, const test_module_config& cfg, psynth_handler handler) {
    next_config = cfg;
    int mod_num = psynth_add_synth(-1, handler, nullptr, 0, 0, 0, 125, 6, net);
    next_config = test_module_config{};
    return mod_num;
}

int add_constant_source(psynth_net* net, int base, int outputs) {
    test_module_config cfg;
    cfg.mode = TEST_RENDER_CONSTANT;
    cfg.base = base;
    cfg.outputs = outputs;
    cfg.flags = PSYNTH_FLAG_GENERATOR;
    return add_test_module(net, cfg, test_source_handler);
}

int add_pass_effect(psynth_net* net, int channels) {
    test_module_config cfg;
    cfg.mode = TEST_RENDER_PASS;
    cfg.inputs = channels;
    cfg.outputs = channels;
    cfg.flags = PSYNTH_FLAG_EFFECT;
    return add_test_module(net, cfg, test_pass_handler);
}

test_module_data* test_data(psynth_net* net, int mod_num) { return data_of(mod_num, net); }

psynth_sample ramp_value(int base, int channel, int frame) {
    return (psynth_sample)(base + channel * 1000 + frame);
}

void queue_event(psynth_net* net, int mod_num, int command, int offset, int id, int note, int velocity, int pitch) {
    psynth_event event = {};
    event.command = command;
    event.id = id;
    event.offset = offset;
    event.note = (int16_t)note;
    event.velocity = (uint16_t)velocity;
    event.pitch = pitch;
    psynth_add_event(mod_num, &event, net);
}

void render_buffer(psynth_net* net, int frames) {
    psynth_set_render_params(frames, 0, 0, 0, 0, net);
    psynth_render_all(net);
    psynth_clear_events(net);
}

std::string received_sequence(psynth_net* net, int mod_num, int from_record, bool with_offsets) {
    test_module_data* d = data_of(mod_num, net);
    std::ostringstream out;
    int count = d->records_count < TEST_MAX_RECORDS ? d->records_count : TEST_MAX_RECORDS;
    for (int i = from_record; i < count; i++) {
        const test_record& r = d->records[i];
        if (out.tellp() > 0) out << ' ';
        if (r.event.command == PS_CMD_RENDER_REPLACE) {
            out << "R(" << r.render_offset << ',' << r.render_frames << ')';
        } else {
            out << psynth_command_name(r.event.command);
            if (with_offsets) out << '@' << r.event.offset;
            out << '#' << r.event.id;
        }
    }
    return out.str();
}

std::string render_pieces(psynth_net* net, int mod_num) {
    test_module_data* d = data_of(mod_num, net);
    std::ostringstream out;
    int count = d->records_count < TEST_MAX_RECORDS ? d->records_count : TEST_MAX_RECORDS;
    for (int i = 0; i < count; i++) {
        const test_record& r = d->records[i];
        if (r.event.command != PS_CMD_RENDER_REPLACE) continue;
        if (out.tellp() > 0) out << ' ';
        out << r.render_offset << '+' << r.render_frames;
    }
    return out.str();
}

namespace {
const std::string& original_temp_root() {
    static const std::string root = [] {
        const char* t = getenv("TMPDIR");
        return std::string(t && t[0] ? t : "/tmp");
    }();
    return root;
}
}  // namespace

void PsynthFixture::SetUp() {
    std::string pattern = original_temp_root() + "/zelfon_psynth_XXXXXX";
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    temp_dir = pattern;
    setenv("TMPDIR", temp_dir.c_str(), 1);
    mem_init();
    v3_init();
    tarvik_log_init(TARVIK_LOG_FILE);
    test_trace_reset();
    psynth_init(0, 44100, 125, 6, &net);
}

void PsynthFixture::TearDown() {
    psynth_close(&net);
    v3_deinit();
    EXPECT_FALSE(mem_free_all()) << "the net left blocks behind";
    tarvik_log_close();
    mem_deinit();
    std::error_code ignored;
    std::filesystem::remove_all(temp_dir, ignored);
}

std::string PsynthFixture::log_text() const {
    std::ifstream in(temp_dir + "/zelfon_log.txt");
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}
