// The sound net's structure: creating and closing the net, adding and removing
// modules, controllers, channel counts, links, data chunks and MIDI out.
// The event queues and the render pass live in psynth_render.cpp.
#include "psynth/psynth_net.h"

#include <cstdio>
#include <cstring>
#include <new>

#include "engine/log.h"
#include "engine/memory.h"
#include "psynth/psynth_modules.h"

const char* const psynth_command_names[PS_CMD_COUNT - 1] = {
    "NOP",           "GET_DATA_SIZE",     "GET_SYNTH_NAME",        "GET_SYNTH_INFO",
    "GET_SYNTH_COLOR", "GET_INPUTS_NUM",  "GET_OUTPUTS_NUM",       "GET_FLAGS",
    "GET_WIDTH",     "GET_HEIGHT",        "INIT",                  "SETUP_FINISHED",
    "CLEAN",         "RENDER_REPLACE",    "NOTE_ON",               "SET_FREQ",
    "SET_VELOCITY",  "SET_SAMPLE_OFFSET", "NOTE_OFF",              "ALL_NOTES_OFF",
    "SET_LOCAL_CONTROLLER", "SET_GLOBAL_CONTROLLER", "SPEED_CHANGED", "CLOSE",
};
static_assert(sizeof(psynth_command_names) / sizeof(psynth_command_names[0]) == PS_CMD_COUNT - 1,
              "the name table has one entry per command but SET_SAMPLE_OFFSET2");

const char* psynth_command_name(int command) {
    if (command < 0 || command >= PS_CMD_COUNT) return "?";
    if (command == PS_CMD_SET_SAMPLE_OFFSET2) return "SET_SAMPLE_OFFSET2";
    return psynth_command_names[command < PS_CMD_SET_SAMPLE_OFFSET2 ? command : command - 1];
}

void psynth_event_set_speed(psynth_event* event, int tick_length, int ticks_per_line) {
    uint32_t bits = (uint32_t)tick_length;
    event->note = (int16_t)(uint16_t)(bits & 0xFFFF);
    event->velocity = (uint16_t)(bits >> 16);
    event->pitch = ticks_per_line & 0xFF;
}

int psynth_event_tick_length(const psynth_event* event) {
    return (int)((uint32_t)(uint16_t)event->note | ((uint32_t)event->velocity << 16));
}

int psynth_event_ticks_per_line(const psynth_event* event) { return event->pitch & 0xFF; }

int psynth_tick_length(int sampling_rate, int bpm) {
    if (bpm <= 0) return 0;
    return (int)((((int64_t)sampling_rate * 15360) / bpm) / 24);
}

constexpr int STARTER_RELEASE_CTL = 4;
constexpr int STARTER_SUSTAIN_CTL = 7;

static bool module_index_ok(int mod_num, const psynth_net* net) {
    return net->modules && mod_num >= 0 && mod_num < net->slots;
}

static bool module_exists(int mod_num, const psynth_net* net) {
    return module_index_ok(mod_num, net) && (net->modules[mod_num].flags & PSYNTH_FLAG_EXISTS);
}

// The Output module answers only its channel counts.
static intptr_t psynth_output_handler(int mod_num, psynth_event* event, psynth_net* net) {
    switch (event->command) {
    case PS_CMD_GET_INPUTS_NUM:
    case PS_CMD_GET_OUTPUTS_NUM:
        return 2;
    default:
        return 0;
    }
}

static intptr_t ask_handler(psynth_handler handler, int mod_num, int command, psynth_net* net) {
    psynth_event event = {};
    event.command = command;
    return handler(mod_num, &event, net);
}

void psynth_clamp_ctl_values(psynth_module* mod) {
    for (int i = 0; i < mod->ctls_count; i++) {
        const psynth_ctl* ctl = &mod->ctls[i];
        if (!ctl->value || ctl->min > ctl->max) continue;
        if (*ctl->value < ctl->min) *ctl->value = ctl->min;
        if (*ctl->value > ctl->max) *ctl->value = ctl->max;
    }
}

intptr_t psynth_do_command(int mod_num, int command, psynth_net* net) {
    if (!module_exists(mod_num, net)) return 0;
    psynth_clamp_ctl_values(&net->modules[mod_num]);
    return ask_handler(net->modules[mod_num].handler, mod_num, command, net);
}

// The net a new song starts with: a plucked Generator tone into OUT. The Echo that will
// sit between them joins when the effects exist.
static void build_starter_net(int bpm, int ticks_per_line, psynth_net* net) {
    int generator = psynth_add_synth(-1, psynth_generator, nullptr, 0, 128, 512, bpm, ticks_per_line, net);
    if (generator < 0) return;
    psynth_module* mod = &net->modules[generator];
    if (mod->ctls_count > STARTER_SUSTAIN_CTL) {
        *mod->ctls[STARTER_RELEASE_CTL].value = 512;  // in the Generator's own units
        *mod->ctls[STARTER_SUSTAIN_CTL].value = 0;
    }
    psynth_do_command(generator, PS_CMD_SETUP_FINISHED, net);
    int echo = psynth_add_synth(-1, psynth_echo, nullptr, 0, 512, 512, bpm, ticks_per_line, net);
    if (echo < 0) return;
    psynth_do_command(echo, PS_CMD_SETUP_FINISHED, net);
    psynth_make_link(0, echo, net);
    psynth_make_link(echo, generator, net);
}

void psynth_init(int flags, int sampling_rate, int bpm, int ticks_per_line, psynth_net* net) {
    memset(net, 0, sizeof(*net));
    tarvik_mutex_create(&net->mutex);
    net->slots = PSYNTH_SLOTS_STEP;
    net->modules = (psynth_module*)mem_new(MEM_DYNAMIC, sizeof(psynth_module) * net->slots, "psynth_init");
    if (net->modules) {
        memset(net->modules, 0, sizeof(psynth_module) * net->slots);
    } else {
        net->slots = 0;
    }
    if (psynth_render_plan_fit(net)) net->slots = 0;
    net->render_threads = 1;
    net->event_heap_blocks = (psynth_event**)mem_new(MEM_DYNAMIC, sizeof(psynth_event*), "psynth_init");
    if (net->event_heap_blocks) {
        net->event_heap_blocks[0] = (psynth_event*)mem_new(MEM_DYNAMIC,
            sizeof(psynth_event) * PSYNTH_EVENT_HEAP_STEP, "psynth_init");
        if (net->event_heap_blocks[0]) net->event_heap_capacity = PSYNTH_EVENT_HEAP_STEP;
    }
    net->capture = (psynth_sample*)mem_new(MEM_DYNAMIC, sizeof(psynth_sample) * PSYNTH_CAPTURE_SIZE, "psynth_init");
    mem_zero(net->capture);
    tarvik_midi_client_open(&net->midi_client, "PSynth");
    net->capture_module = -1;
    net->global_volume = PSYNTH_OUTPUT_VOLUME_DEFAULT;
    // A rate from a configuration file is taken as given, within what the tick and line
    // arithmetic and the modules' delay lines are made for.
    net->sampling_rate = sampling_rate < PSYNTH_RATE_MIN ? PSYNTH_RATE_MIN
                         : sampling_rate > PSYNTH_RATE_MAX ? PSYNTH_RATE_MAX : sampling_rate;

    psynth_add_synth(-1, nullptr, "OUT", PSYNTH_FLAG_OUTPUT, 896, 512, bpm, ticks_per_line, net);
    if (flags & 1) build_starter_net(bpm, ticks_per_line, net);
}

void psynth_close(psynth_net* net) {
    psynth_render_plan_free(net);
    for (int i = 0; i < net->slots; i++) psynth_remove_synth(i, net);
    mem_free(net->modules);
    net->modules = nullptr;
    net->slots = 0;
    tarvik_midi_client_close(&net->midi_client);
    tarvik_mutex_destroy(&net->mutex);
    int blocks = net->event_heap_capacity / PSYNTH_EVENT_HEAP_STEP;
    for (int b = 0; b < blocks; b++) mem_free(net->event_heap_blocks[b]);
    mem_free(net->event_heap_blocks);
    net->event_heap_blocks = nullptr;
    net->event_heap_capacity = 0;
    net->events_count = 0;
    mem_free(net->capture);
    net->capture = nullptr;
}

// "#RRGGBB" in either case; anything else is white.
static void parse_color(const char* text, uint8_t color[3]) {
    color[0] = color[1] = color[2] = 255;
    if (!text || strlen(text) != 7 || text[0] != '#') return;
    uint8_t parsed[3];
    for (int c = 0; c < 3; c++) {
        int v = 0;
        for (int d = 0; d < 2; d++) {
            char ch = text[1 + c * 2 + d];
            int digit;
            if (ch >= '0' && ch <= '9') digit = ch - '0';
            else if (ch >= 'a' && ch <= 'f') digit = ch - 'a' + 10;
            else if (ch >= 'A' && ch <= 'F') digit = ch - 'A' + 10;
            else return;
            v = v * 16 + digit;
        }
        parsed[c] = (uint8_t)v;
    }
    memcpy(color, parsed, 3);
}

static int find_free_slot(psynth_net* net) {
    for (int i = 0; i < net->slots; i++) {
        if (!(net->modules[i].flags & PSYNTH_FLAG_EXISTS)) return i;
    }
    int old_slots = net->slots;
    psynth_module* grown = (psynth_module*)mem_resize(net->modules, sizeof(psynth_module) * (old_slots + PSYNTH_SLOTS_STEP));
    if (!grown) return -1;
    net->modules = grown;
    net->slots = old_slots + PSYNTH_SLOTS_STEP;
    if (psynth_render_plan_fit(net)) {
        net->slots = old_slots;  // the render could not plan the new slots
        return -1;
    }
    return old_slots;
}

// Default name: the type name, with the instance number + 1 appended from the second module on.
static void set_default_name(int mod_num, psynth_net* net) {
    psynth_module* mod = &net->modules[mod_num];
    const char* type_name = (const char*)ask_handler(mod->handler, mod_num, PS_CMD_GET_SYNTH_NAME, net);
    if (!type_name || !type_name[0]) type_name = "SYNTH";
    mod->name[0] = 0;
    mem_strcat_bounded(mod->name, PSYNTH_NAME_SIZE, type_name);
    int highest = -1;
    for (int i = 0; i < net->slots; i++) {
        if (i != mod_num && net->modules[i].handler == mod->handler && net->modules[i].instance > highest) {
            highest = net->modules[i].instance;
        }
    }
    mod->instance = highest + 1;
    if (mod->instance > 0) {
        char number[16];
        snprintf(number, sizeof(number), "%d", mod->instance + 1);
        mem_strcat_bounded(mod->name, PSYNTH_NAME_SIZE, number);
    }
}

static psynth_sample* new_silent_buffer(int samples, const char* tag) {
    psynth_sample* buf = (psynth_sample*)mem_new(MEM_DYNAMIC, sizeof(psynth_sample) * samples, tag);
    mem_zero(buf);
    return buf;
}

int psynth_add_synth(int index, psynth_handler handler, const char* name, uint32_t flags,
                     int x, int y, int bpm, int ticks_per_line, psynth_net* net) {
    int mod_num = index;
    if (mod_num < 0) {
        mod_num = find_free_slot(net);
        if (mod_num < 0) return -1;
    } else if (mod_num >= net->slots) {
        return -1;
    }
    if (!handler) handler = psynth_output_handler;

    psynth_module* mod = &net->modules[mod_num];
    memset(mod, 0, sizeof(*mod));
    mod->flags = flags | PSYNTH_FLAG_EXISTS;
    mod->handler = handler;
    mod->flags |= (uint32_t)ask_handler(handler, mod_num, PS_CMD_GET_FLAGS, net);

    mod->x = x;
    mod->y = y;
    parse_color((const char*)ask_handler(handler, mod_num, PS_CMD_GET_SYNTH_COLOR, net), mod->color);

    mod->events = (psynth_event**)mem_new(MEM_DYNAMIC, sizeof(psynth_event*) * PSYNTH_MODULE_EVENTS_STEP, "psynth_add_synth");
    if (!mod->events) return -1;
    mod->events_count = 0;

    if (name) {
        mem_strcat_bounded(mod->name, PSYNTH_NAME_SIZE, name);
    } else if (!(mod->flags & PSYNTH_FLAG_OUTPUT)) {
        set_default_name(mod_num, net);
    }

    int data_size = (int)ask_handler(handler, mod_num, PS_CMD_GET_DATA_SIZE, net);
    if (data_size > 0) {
        mod->data = mem_new(MEM_DYNAMIC, (size_t)data_size, "psynth_add_synth");
        if (!mod->data) return -1;
        mem_zero(mod->data);
    }

    ask_handler(handler, mod_num, PS_CMD_INIT, net);
    mod = &net->modules[mod_num];
    mod->flags |= PSYNTH_FLAG_INITIALIZED;

    mod->input_channels = (int)ask_handler(handler, mod_num, PS_CMD_GET_INPUTS_NUM, net);
    mod->output_channels = (int)ask_handler(handler, mod_num, PS_CMD_GET_OUTPUTS_NUM, net);
    psynth_set_number_of_inputs(mod_num, mod->input_channels, net);
    psynth_set_number_of_outputs(mod_num, mod->output_channels, net);
    int channels = mod->input_channels > mod->output_channels ? mod->input_channels : mod->output_channels;
    for (int c = 0; c < channels; c++) {
        mod->input_buffers[c] = new_silent_buffer(PSYNTH_BUFFER_SIZE, "psynth_add_synth");
        mod->input_start[c] = PSYNTH_BUFFER_SIZE;
        if (!(mod->flags & PSYNTH_FLAG_OUTPUT)) {
            mod->output_buffers[c] = new_silent_buffer(PSYNTH_BUFFER_SIZE, "psynth_add_synth");
            mod->output_start[c] = PSYNTH_BUFFER_SIZE;
        }
        mod->scope_rings[c] = new_silent_buffer(PSYNTH_SCOPE_SIZE, "psynth_add_synth");
    }

    if (mod->flags & PSYNTH_FLAG_GET_SPEED_CHANGES) {
        psynth_event event = {};
        event.command = PS_CMD_SPEED_CHANGED;
        psynth_event_set_speed(&event, psynth_tick_length(net->sampling_rate, bpm), ticks_per_line);
        handler(mod_num, &event, net);
    }

    mod->input_links = nullptr;
    mod->input_links_capacity = 0;
    mod->output_links = nullptr;
    mod->output_links_capacity = 0;
    mod->midi_out_port = -1;
    mod->midi_out_bank = -1;
    mod->midi_out_program = -1;
    mod->midi_out_channel = 0;
    for (int i = 0; i < PSYNTH_MIDI_HELD_NOTES; i++) mod->midi_held_ids[i] = -1;
    memset(mod->midi_learn_cc, PSYNTH_MIDI_UNBOUND, sizeof mod->midi_learn_cc);
    return mod_num;
}

static void send_midi(psynth_module* mod, const psynth_midi_message* msg, tarvik_ticks t, psynth_net* net) {
    tarvik_midi_event event;
    event.t = t;
    event.size = (uint32_t)msg->size;
    event.data = (uint8_t*)msg->data;
    tarvik_midi_client_send_event(&net->midi_client, mod->midi_out_port, &event);
}

static void release_midi_out(psynth_module* mod, psynth_net* net) {
    if (mod->midi_out_port >= 0) {
        for (int i = 0; i < PSYNTH_MIDI_HELD_NOTES; i++) {
            if (mod->midi_held_ids[i] == -1) continue;
            psynth_midi_message msg = {3, {(uint8_t)(0x80 | mod->midi_out_channel), mod->midi_held_notes[i], 0x7F}};
            send_midi(mod, &msg, tarvik_time_ticks(), net);
            mod->midi_held_ids[i] = -1;
        }
        tarvik_midi_client_close_port(&net->midi_client, mod->midi_out_port);
        mod->midi_out_port = -1;
    }
    mem_free(mod->midi_out_name);
    mod->midi_out_name = nullptr;
}

static void remove_from_links(int* links, int capacity, int link) {
    for (int i = 0; i < capacity; i++) {
        if (links[i] == link) links[i] = -1;
    }
}

void psynth_remove_synth(int mod_num, psynth_net* net) {
    if (!module_exists(mod_num, net)) return;
    psynth_do_command(mod_num, PS_CMD_CLOSE, net);
    psynth_module* mod = &net->modules[mod_num];
    mem_free(mod->events);
    mod->events = nullptr;
    mod->events_count = 0;
    mem_free(mod->data);
    mod->data = nullptr;
    psynth_free_chunks(mod_num, net);
    for (int c = 0; c < PSYNTH_MAX_CHANNELS; c++) {
        mem_free(mod->input_buffers[c]);
        mem_free(mod->output_buffers[c]);
        mem_free(mod->scope_rings[c]);
        mod->input_buffers[c] = mod->output_buffers[c] = mod->scope_rings[c] = nullptr;
    }
    release_midi_out(mod, net);

    for (int i = 0; i < mod->input_links_capacity; i++) {
        int src = mod->input_links[i];
        if (module_index_ok(src, net) && net->modules[src].output_links) {
            remove_from_links(net->modules[src].output_links, net->modules[src].output_links_capacity, mod_num);
        }
    }
    for (int i = 0; i < mod->output_links_capacity; i++) {
        int dest = mod->output_links[i];
        if (module_index_ok(dest, net) && net->modules[dest].input_links) {
            remove_from_links(net->modules[dest].input_links, net->modules[dest].input_links_capacity, mod_num);
        }
    }
    mem_free(mod->input_links);
    mem_free(mod->output_links);
    mod->input_links = mod->output_links = nullptr;
    mod->input_links_capacity = mod->output_links_capacity = 0;
    mod->flags = 0;
}

intptr_t psynth_handle_event(int mod_num, psynth_event* event, psynth_net* net) {
    if (!module_exists(mod_num, net)) return 0;
    psynth_module* mod = &net->modules[mod_num];
    bool controller = event->command == PS_CMD_SET_LOCAL_CONTROLLER || event->command == PS_CMD_SET_GLOBAL_CONTROLLER;
    // Values above 32768 count as 32768, for the handlers that take the value themselves too.
    if (controller && event->velocity > PSYNTH_CTL_MAX_VALUE) event->velocity = PSYNTH_CTL_MAX_VALUE;
    psynth_clamp_ctl_values(mod);
    intptr_t result = mod->handler(mod_num, event, net);
    if (controller) {
        mod = &net->modules[mod_num];
        int ctl = (uint16_t)event->note;
        if (result == 0 && ctl < mod->ctls_count && mod->ctls[ctl].value) {
            *mod->ctls[ctl].value = psynth_ctl_value_from_normalized(&mod->ctls[ctl], event->velocity);
        }
        mod->ctl_change_counter++;
    }
    return result;
}

int psynth_ctl_value_from_normalized(const psynth_ctl* ctl, int normalized) {
    uint32_t v = normalized < 0 ? 0u : (uint32_t)normalized;
    if (v > PSYNTH_CTL_MAX_VALUE) v = PSYNTH_CTL_MAX_VALUE;
    if (ctl->type == PSYNTH_CTL_SELECTOR) {
        int raw = (int)v;
        if (raw < ctl->min) raw = ctl->min;
        if (raw > ctl->max) raw = ctl->max;
        return raw;
    }
    // Unsigned so that 32768 reaches max exactly, even for ranges wider than 16 bits.
    uint32_t range = (uint32_t)ctl->max - (uint32_t)ctl->min;
    return (int)((uint32_t)(((uint64_t)range * v) >> 15) + (uint32_t)ctl->min);
}

void psynth_register_ctl(int mod_num, const char* name, const char* units, int min, int max,
                         int def, int type, int* value, psynth_net* net) {
    if (!module_index_ok(mod_num, net)) return;
    psynth_module* mod = &net->modules[mod_num];
    if (mod->ctls_count >= PSYNTH_MAX_CTLS) {
        tarvik_log("psynth_register_ctl(): too many controllers in %s\n", mod->name);
        return;
    }
    psynth_ctl* ctl = &mod->ctls[mod->ctls_count];
    ctl->name = name;
    ctl->units = units;
    ctl->min = min;
    ctl->max = max;
    ctl->def = def;
    ctl->type = type;
    ctl->value = value;
    if (value) *value = def;
    mod->ctls_count++;
}

void psynth_change_ctl(int mod_num, int ctl, const char* name, const char* units, int min,
                       int max, int def, int type, int* value, psynth_net* net) {
    if (!module_index_ok(mod_num, net) || ctl < 0 || ctl >= PSYNTH_MAX_CTLS) return;
    psynth_ctl* c = &net->modules[mod_num].ctls[ctl];
    if (name) c->name = name;
    if (units) c->units = units;
    c->min = min;
    c->max = max;
    c->def = def;
    c->type = type;
    if (value) {
        c->value = value;
        *value = def;
    }
}

int psynth_get_number_of_inputs(int mod_num, psynth_net* net) {
    return module_index_ok(mod_num, net) ? net->modules[mod_num].input_channels : 0;
}

int psynth_get_number_of_outputs(int mod_num, psynth_net* net) {
    return module_index_ok(mod_num, net) ? net->modules[mod_num].output_channels : 0;
}

static int clamp_channels(int count) {
    return count < 0 ? 0 : count > PSYNTH_MAX_CHANNELS ? PSYNTH_MAX_CHANNELS : count;
}

void psynth_set_number_of_inputs(int mod_num, int count, psynth_net* net) {
    if (module_index_ok(mod_num, net)) net->modules[mod_num].input_channels = clamp_channels(count);
}

void psynth_set_number_of_outputs(int mod_num, int count, psynth_net* net) {
    if (module_index_ok(mod_num, net)) net->modules[mod_num].output_channels = clamp_channels(count);
}

static bool links_contain(const int* links, int capacity, int link) {
    for (int i = 0; i < capacity; i++) {
        if (links[i] == link) return true;
    }
    return false;
}

// Puts `link` in the first free entry, growing the list by 2 entries when it is full.
static void add_link(int** links, int* capacity, int link) {
    if (links_contain(*links, *capacity, link)) return;
    for (int i = 0; i < *capacity; i++) {
        if ((*links)[i] < 0) {
            (*links)[i] = link;
            return;
        }
    }
    int old_capacity = *capacity;
    int* grown = (int*)mem_resize(*links, sizeof(int) * (old_capacity + 2));
    if (!grown) return;
    grown[old_capacity] = link;
    grown[old_capacity + 1] = -1;
    *links = grown;
    *capacity = old_capacity + 2;
}

void psynth_add_input_link(int mod_num, int link, psynth_net* net) {
    if (!module_index_ok(mod_num, net) || !module_index_ok(link, net)) return;
    psynth_module* mod = &net->modules[mod_num];
    add_link(&mod->input_links, &mod->input_links_capacity, link);
}

void psynth_add_output_link(int mod_num, int link, psynth_net* net) {
    if (!module_index_ok(mod_num, net) || !module_index_ok(link, net)) return;
    psynth_module* mod = &net->modules[mod_num];
    add_link(&mod->output_links, &mod->output_links_capacity, link);
}

void psynth_make_link(int dest, int src, psynth_net* net) {
    if (!module_index_ok(dest, net) || !module_index_ok(src, net)) return;
    psynth_module* d = &net->modules[dest];
    psynth_module* s = &net->modules[src];
    bool linked = links_contain(d->input_links, d->input_links_capacity, src) ||
                  links_contain(d->output_links, d->output_links_capacity, src) ||
                  links_contain(s->input_links, s->input_links_capacity, dest) ||
                  links_contain(s->output_links, s->output_links_capacity, dest);
    if (linked) {
        remove_from_links(d->input_links, d->input_links_capacity, src);
        remove_from_links(d->output_links, d->output_links_capacity, src);
        remove_from_links(s->input_links, s->input_links_capacity, dest);
        remove_from_links(s->output_links, s->output_links_capacity, dest);
        return;
    }
    psynth_add_input_link(dest, src, net);
    psynth_add_output_link(src, dest, net);
}

int psynth_get_chunks_count(int mod_num, psynth_net* net) {
    if (!module_index_ok(mod_num, net)) return 0;
    return (int)(mem_get_size(net->modules[mod_num].chunks) / sizeof(void*));
}

// Resizes one of the chunk arrays; entries from `old_count` on are cleared (a new
// block from mem_resize is not).
template <class T>
static bool grow_array(T** array, int old_count, int count) {
    T* grown = (T*)mem_resize(*array, sizeof(T) * count);
    if (!grown) return false;
    memset((void*)(grown + old_count), 0, sizeof(T) * (count - old_count));
    *array = grown;
    return true;
}

// Makes room for chunk numbers below `count` in the three parallel arrays.
static bool grow_chunk_tables(psynth_module* mod, int old_count, int count) {
    return grow_array(&mod->chunks, old_count, count) && grow_array(&mod->chunk_flags, old_count, count) &&
           grow_array(&mod->chunk_rates, old_count, count);
}

// Makes room for chunk number `chunk` (at least 16 numbers at the first).
static bool make_room_for_chunk(int mod_num, int chunk, psynth_net* net) {
    psynth_module* mod = &net->modules[mod_num];
    int count = psynth_get_chunks_count(mod_num, net);
    if (count == 0) return grow_chunk_tables(mod, 0, chunk + 1 > 16 ? chunk + 1 : 16);
    return chunk < count || grow_chunk_tables(mod, count, chunk + 1);
}

int psynth_new_chunk(int mod_num, int chunk, int size, int flags, int rate, psynth_net* net) {
    if (!module_index_ok(mod_num, net) || chunk < 0 || size < 0 || !make_room_for_chunk(mod_num, chunk, net)) return 1;
    psynth_module* mod = &net->modules[mod_num];
    mem_free(mod->chunks[chunk]);
    mod->chunks[chunk] = mem_new(MEM_DYNAMIC, (size_t)size, "psynth_new_chunk");
    mem_zero(mod->chunks[chunk]);
    mod->chunk_flags[chunk] = flags;
    mod->chunk_rates[chunk] = rate;
    return mod->chunks[chunk] ? 0 : 1;
}

void* psynth_get_chunk(int mod_num, int chunk, psynth_net* net) {
    if (chunk < 0 || chunk >= psynth_get_chunks_count(mod_num, net)) return nullptr;
    return net->modules[mod_num].chunks[chunk];
}

int psynth_get_chunk_info(int mod_num, int chunk, int* size, int* flags, int* rate, psynth_net* net) {
    if (chunk < 0 || chunk >= psynth_get_chunks_count(mod_num, net)) return 1;
    psynth_module* mod = &net->modules[mod_num];
    if (size) *size = (int)mem_get_size(mod->chunks[chunk]);
    if (flags) *flags = mod->chunk_flags[chunk];
    if (rate) *rate = mod->chunk_rates[chunk];
    return 0;
}

void psynth_set_chunk_info(int mod_num, int chunk, int flags, int rate, psynth_net* net) {
    if (chunk < 0 || chunk >= psynth_get_chunks_count(mod_num, net)) return;
    net->modules[mod_num].chunk_flags[chunk] = flags;
    net->modules[mod_num].chunk_rates[chunk] = rate;
}

void* psynth_resize_chunk(int mod_num, int chunk, int new_size, psynth_net* net) {
    void* data = psynth_get_chunk(mod_num, chunk, net);
    if (!data || new_size < 0) return nullptr;
    data = mem_resize(data, (size_t)new_size);
    if (data) net->modules[mod_num].chunks[chunk] = data;
    return data;
}

void psynth_free_chunk(int mod_num, int chunk, psynth_net* net) {
    if (chunk < 0 || chunk >= psynth_get_chunks_count(mod_num, net)) return;
    mem_free(net->modules[mod_num].chunks[chunk]);
    net->modules[mod_num].chunks[chunk] = nullptr;
}

void* psynth_take_chunk(int mod_num, int chunk, int* flags, int* rate, psynth_net* net) {
    if (chunk < 0 || chunk >= psynth_get_chunks_count(mod_num, net)) return nullptr;
    psynth_module* mod = &net->modules[mod_num];
    if (flags) *flags = mod->chunk_flags[chunk];
    if (rate) *rate = mod->chunk_rates[chunk];
    void* data = mod->chunks[chunk];
    mod->chunks[chunk] = nullptr;
    return data;
}

int psynth_put_chunk(int mod_num, int chunk, void* data, int flags, int rate, psynth_net* net) {
    if (!data) {
        psynth_free_chunk(mod_num, chunk, net);
        psynth_set_chunk_info(mod_num, chunk, flags, rate, net);
        return 0;
    }
    if (!module_index_ok(mod_num, net) || chunk < 0 || !make_room_for_chunk(mod_num, chunk, net)) {
        mem_free(data);
        return 1;
    }
    psynth_module* mod = &net->modules[mod_num];
    mem_free(mod->chunks[chunk]);
    mod->chunks[chunk] = data;
    mod->chunk_flags[chunk] = flags;
    mod->chunk_rates[chunk] = rate;
    return 0;
}

int psynth_set_chunks_count(int mod_num, int count, psynth_net* net) {
    if (!module_index_ok(mod_num, net) || count < 0) return 1;
    psynth_module* mod = &net->modules[mod_num];
    const int now = psynth_get_chunks_count(mod_num, net);
    if (count == now) return 0;
    if (count == 0) {
        psynth_free_chunks(mod_num, net);
        return 0;
    }
    if (count > now) return grow_chunk_tables(mod, now, count) ? 0 : 1;
    // The flag and rate arrays shrink first: the count is read from the chunk array.
    int* flags = (int*)mem_resize(mod->chunk_flags, sizeof(int) * count);
    int* rates = flags ? (int*)mem_resize(mod->chunk_rates, sizeof(int) * count) : nullptr;
    if (flags) mod->chunk_flags = flags;
    if (rates) mod->chunk_rates = rates;
    if (!rates) return 1;
    for (int i = count; i < now; i++) mem_free(mod->chunks[i]);
    void** chunks = (void**)mem_resize(mod->chunks, sizeof(void*) * count);
    if (!chunks) {
        for (int i = count; i < now; i++) mod->chunks[i] = nullptr;  // the longer table stays, empty beyond `count`
        return 1;
    }
    mod->chunks = chunks;
    return 0;
}

void psynth_free_chunks(int mod_num, psynth_net* net) {
    if (!module_index_ok(mod_num, net)) return;
    psynth_module* mod = &net->modules[mod_num];
    int count = psynth_get_chunks_count(mod_num, net);
    for (int i = 0; i < count; i++) mem_free(mod->chunks[i]);
    mem_free(mod->chunks);
    mem_free(mod->chunk_flags);
    mem_free(mod->chunk_rates);
    mod->chunks = nullptr;
    mod->chunk_flags = nullptr;
    mod->chunk_rates = nullptr;
}

static void send_bank_and_program(psynth_module* mod, psynth_net* net) {
    if (mod->midi_out_port < 0) return;
    uint8_t status = (uint8_t)(0xB0 | mod->midi_out_channel);
    if (mod->midi_out_bank >= 0) {
        psynth_midi_message msg = {6, {status, 0, (uint8_t)((mod->midi_out_bank >> 7) & 0x7F),
                                       status, 0x20, (uint8_t)(mod->midi_out_bank & 0x7F)}};
        send_midi(mod, &msg, tarvik_time_ticks(), net);
    }
    if (mod->midi_out_program >= 0) {
        psynth_midi_message msg = {2, {(uint8_t)(0xC0 | mod->midi_out_channel), (uint8_t)(mod->midi_out_program & 0x7F)}};
        send_midi(mod, &msg, tarvik_time_ticks(), net);
    }
}

int psynth_open_midi_out(int mod_num, const char* device_name, int channel, psynth_net* net) {
    if (!module_index_ok(mod_num, net)) return -1;
    psynth_module* mod = &net->modules[mod_num];
    release_midi_out(mod, net);
    mod->midi_out_channel = channel & 15;
    if (!device_name) return 0;
    mod->midi_out_name = mem_strdup(device_name);
    char port_name[64];
    snprintf(port_name, sizeof(port_name), "%d %s MIDI OUT", mod_num, mod->name);
    mod->midi_out_port = tarvik_midi_client_open_port(&net->midi_client, port_name, device_name, MIDI_PORT_WRITE);
    send_bank_and_program(mod, net);
    return 0;
}

void psynth_set_midi_prog(int mod_num, int bank, int program, psynth_net* net) {
    if (!module_index_ok(mod_num, net)) return;
    psynth_module* mod = &net->modules[mod_num];
    mod->midi_out_bank = bank;
    mod->midi_out_program = program;
    send_bank_and_program(mod, net);
}

static int held_entry_for_id(const psynth_module* mod, int id) {
    for (int i = 0; i < PSYNTH_MIDI_HELD_NOTES; i++) {
        if (mod->midi_held_ids[i] == id) return i;
    }
    return -1;
}

static int release_all_held(psynth_module* mod, psynth_midi_message* out, int max) {
    int count = 0;
    for (int i = 0; i < PSYNTH_MIDI_HELD_NOTES; i++) {
        if (mod->midi_held_ids[i] == -1) continue;
        if (count < max) out[count++] = {3, {(uint8_t)(0x80 | mod->midi_out_channel), mod->midi_held_notes[i], 0x7F}};
        mod->midi_held_ids[i] = -1;
    }
    return count;
}

int psynth_midi_messages_for_event(psynth_module* mod, const psynth_event* event,
                                   psynth_midi_message* out, int max) {
    uint8_t ch = (uint8_t)(mod->midi_out_channel & 15);
    switch (event->command) {
    case PS_CMD_CLEAN: {
        int count = release_all_held(mod, out, max);
        if (count < max) out[count++] = {3, {(uint8_t)(0xB0 | ch), 0x78, 0}};
        return count;
    }
    case PS_CMD_NOTE_ON: {
        int entry = held_entry_for_id(mod, event->id);
        if (entry < 0) entry = held_entry_for_id(mod, -1);
        if (entry < 0 || max < 1) return 0;  // sixteen notes held already
        // Semitone 0 is C0, which is MIDI note 12.
        int note = event->note + 12;
        note = note < 0 ? 0 : note > 127 ? 127 : note;
        int velocity = event->velocity >> 1;
        if (velocity > 127) velocity = 127;
        mod->midi_held_ids[entry] = event->id;
        mod->midi_held_notes[entry] = (uint8_t)note;
        out[0] = {3, {(uint8_t)(0x90 | ch), (uint8_t)note, (uint8_t)velocity}};
        return 1;
    }
    case PS_CMD_NOTE_OFF: {
        int entry = event->id == -1 ? -1 : held_entry_for_id(mod, event->id);
        if (entry < 0 || max < 1) return 0;
        mod->midi_held_ids[entry] = -1;
        out[0] = {3, {(uint8_t)(0x80 | ch), mod->midi_held_notes[entry], 0x7F}};
        return 1;
    }
    case PS_CMD_ALL_NOTES_OFF:
        return release_all_held(mod, out, max);
    case PS_CMD_SET_LOCAL_CONTROLLER:
    case PS_CMD_SET_GLOBAL_CONTROLLER: {
        int k = (uint16_t)event->note;
        if (k < 127 || max < 1) return 0;
        int n = k - 127;
        if (n > 127) return 0;  // not a MIDI controller number
        uint8_t high = event->velocity >= PSYNTH_CTL_MAX_VALUE ? 127 : (uint8_t)(event->velocity >> 8);
        uint8_t status = (uint8_t)(0xB0 | ch);
        if (n < 32) {
            out[0] = {6, {status, (uint8_t)n, high, status, (uint8_t)(n + 32), (uint8_t)((event->velocity & 0xFF) >> 1)}};
        } else {
            out[0] = {3, {status, (uint8_t)n, high}};
        }
        return 1;
    }
    default:
        return 0;
    }
}
