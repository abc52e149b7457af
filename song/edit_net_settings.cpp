// Sound net edits of single modules that leave the structure alone: places in the net
// editor, the settings a module window shows (name, colour, pitch, MIDI out, mute and solo)
// and the MIDI controllers its controllers follow, as one before-and-after record, and
// controller values, whose moves merge while they last.
#include <cstring>

#include "engine/memory.h"
#include "song/edit_actions.h"
#include "song/edit_net.h"

constexpr uint32_t kUserFlags = PSYNTH_FLAG_MUTE | PSYNTH_FLAG_SOLO;
constexpr uint32_t kChunkMergeKey = 1u << 24;  // above the Sampler editor's own merge keys

// Everything of a module that its settings change; zeroed beyond the texts so that two
// records compare with memcmp.
struct zelfon_synth_settings {
    char name[PSYNTH_NAME_SIZE];
    uint8_t color[3];
    int relative_note;
    int finetune;
    uint32_t user_flags;  // mute and solo
    int has_midi_name;
    char midi_name[ZELFON_MIDI_OUT_NAME_MAX];
    int midi_channel;
    int midi_bank;
    int midi_program;
    uint8_t learn_cc[PSYNTH_MAX_CTLS];  // the MIDI controller each controller follows
    uint8_t learn_channel[PSYNTH_MAX_CTLS];
};

// ZELFON_ACTION_SYNTH_SETTINGS: [0] before, [1] after.
struct zelfon_settings_change {
    zelfon_synth_settings s[2];
};

// ZELFON_ACTION_SYNTH_CTL (controller in par2): [0] before, [1] after, in its own units.
struct zelfon_ctl_change {
    int value[2];
};

// ---- Settings ----

static void settings_of(const psynth_module* m, zelfon_synth_settings* s) {
    memset(s, 0, sizeof(*s));
    memcpy(s->name, m->name, strnlen(m->name, PSYNTH_NAME_SIZE - 1));
    memcpy(s->color, m->color, sizeof(s->color));
    s->relative_note = m->relative_note;
    s->finetune = m->finetune;
    s->user_flags = m->flags & kUserFlags;
    s->has_midi_name = m->midi_out_name != nullptr;
    if (m->midi_out_name) memcpy(s->midi_name, m->midi_out_name, strnlen(m->midi_out_name, ZELFON_MIDI_OUT_NAME_MAX - 1));
    s->midi_channel = m->midi_out_channel;
    s->midi_bank = m->midi_out_bank;
    s->midi_program = m->midi_out_program;
    memcpy(s->learn_cc, m->midi_learn_cc, sizeof(s->learn_cc));
    memcpy(s->learn_channel, m->midi_learn_channel, sizeof(s->learn_channel));
}

static bool same_midi(const zelfon_synth_settings* a, const zelfon_synth_settings* b) {
    return a->has_midi_name == b->has_midi_name && strcmp(a->midi_name, b->midi_name) == 0 &&
           a->midi_channel == b->midi_channel && a->midi_bank == b->midi_bank && a->midi_program == b->midi_program;
}

static int apply_settings(int mod, const zelfon_synth_settings* s, zelfon_song* song) {
    psynth_module* m = zelfon_edit_synth(mod, song);
    if (!m) return 1;
    zelfon_synth_settings now;
    settings_of(m, &now);
    memcpy(m->name, s->name, sizeof(m->name));  // the render never reads names and colours
    memcpy(m->color, s->color, sizeof(m->color));
    psynth_net* net = song->net;
    tarvik_mutex_lock(&net->mutex);
    m->relative_note = s->relative_note;
    m->finetune = s->finetune;
    m->flags = (m->flags & ~kUserFlags) | s->user_flags;
    memcpy(m->midi_learn_cc, s->learn_cc, sizeof(m->midi_learn_cc));
    memcpy(m->midi_learn_channel, s->learn_channel, sizeof(m->midi_learn_channel));
    // The port is reopened only when its settings change: opening one is slow.
    if (!same_midi(&now, s)) {
        psynth_set_midi_prog(mod, s->midi_bank, s->midi_program, net);
        psynth_open_midi_out(mod, s->has_midi_name ? s->midi_name : nullptr, s->midi_channel, net);
    }
    tarvik_mutex_unlock(&net->mutex);
    return 0;
}

// Records the module's settings changing to `next`; a change that changes nothing is dropped.
static int record_settings(int mod, const zelfon_synth_settings* next, zelfon_song* song) {
    zelfon_synth_settings now;
    settings_of(zelfon_edit_synth(mod, song), &now);
    if (memcmp(&now, next, sizeof(now)) == 0) return ZELFON_EDIT_OK;
    zelfon_settings_change* c = (zelfon_settings_change*)mem_new(MEM_DYNAMIC, sizeof(*c), "record_settings");
    if (!c) return ZELFON_EDIT_NO_MEMORY;
    c->s[0] = now;
    c->s[1] = *next;
    return zelfon_edit_record(ZELFON_ACTION_SYNTH_SETTINGS, mod, 0, 0, c, song);
}

// The module's settings now, for an action to change; NO_MODULE when there is none.
static int start_settings(int mod, zelfon_synth_settings* s, const zelfon_song* song) {
    const psynth_module* m = zelfon_edit_synth(mod, song);
    if (!m) return ZELFON_EDIT_NO_MODULE;
    settings_of(m, s);
    return ZELFON_EDIT_OK;
}

int zelfon_edit_rename_synth(int mod, const char* name, zelfon_song* song) {
    zelfon_synth_settings s;
    if (int code = start_settings(mod, &s, song)) return code;
    memset(s.name, 0, sizeof(s.name));
    if (name) memcpy(s.name, name, strnlen(name, PSYNTH_NAME_SIZE - 1));
    return record_settings(mod, &s, song);
}

int zelfon_edit_synth_color(int mod, const uint8_t color[3], zelfon_song* song) {
    zelfon_synth_settings s;
    if (int code = start_settings(mod, &s, song)) return code;
    memcpy(s.color, color, sizeof(s.color));
    return record_settings(mod, &s, song);
}

int zelfon_edit_synth_pitch(int mod, int relative_note, int finetune, zelfon_song* song) {
    zelfon_synth_settings s;
    if (int code = start_settings(mod, &s, song)) return code;
    if (relative_note < -PSYNTH_RELATIVE_NOTE_MAX || relative_note > PSYNTH_RELATIVE_NOTE_MAX ||
        finetune < -PSYNTH_FINETUNE_MAX || finetune > PSYNTH_FINETUNE_MAX) {
        return ZELFON_EDIT_OUTSIDE;
    }
    s.relative_note = relative_note;
    s.finetune = finetune;
    return record_settings(mod, &s, song);
}

int zelfon_edit_synth_midi_out(int mod, const char* device, int channel, int bank, int program, zelfon_song* song) {
    zelfon_synth_settings s;
    if (int code = start_settings(mod, &s, song)) return code;
    if ((device && strlen(device) >= sizeof(s.midi_name)) || channel < 0 || channel > PSYNTH_MIDI_CHANNEL_MAX || bank < -1 ||
        bank > PSYNTH_MIDI_BANK_MAX || program < -1 || program > PSYNTH_MIDI_PROGRAM_MAX) {
        return ZELFON_EDIT_OUTSIDE;
    }
    memset(s.midi_name, 0, sizeof(s.midi_name));
    s.has_midi_name = device != nullptr;
    if (device) strcpy(s.midi_name, device);
    s.midi_channel = channel;
    s.midi_bank = bank;
    s.midi_program = program;
    return record_settings(mod, &s, song);
}

int zelfon_edit_synth_mute_solo(int mod, int mute, int solo, zelfon_song* song) {
    zelfon_synth_settings s;
    if (int code = start_settings(mod, &s, song)) return code;
    s.user_flags = (mute ? (uint32_t)PSYNTH_FLAG_MUTE : 0u) | (solo ? (uint32_t)PSYNTH_FLAG_SOLO : 0u);
    return record_settings(mod, &s, song);
}

int zelfon_edit_synth_midi_learn(int mod, int ctl, int cc, int channel, zelfon_song* song) {
    zelfon_synth_settings s;
    if (int code = start_settings(mod, &s, song)) return code;
    bool forget = cc == PSYNTH_MIDI_UNBOUND;
    if (ctl < 0 || ctl >= zelfon_edit_synth(mod, song)->ctls_count || ctl >= PSYNTH_MAX_CTLS ||
        (!forget && (cc < 0 || cc > 127 || channel < 0 || channel > PSYNTH_MIDI_CHANNEL_MAX))) {
        return ZELFON_EDIT_OUTSIDE;
    }
    s.learn_cc[ctl] = (uint8_t)cc;
    s.learn_channel[ctl] = forget ? 0 : (uint8_t)channel;
    return record_settings(mod, &s, song);
}

// ---- Data chunks ----

int zelfon_edit_synth_chunk(int mod, int chunk, const void* data, int size, int flags, int rate, zelfon_song* song) {
    if (!zelfon_edit_synth(mod, song)) return ZELFON_EDIT_NO_MODULE;
    if (chunk < 0 || size <= 0 || !data) return ZELFON_EDIT_OUTSIDE;
    zelfon_chunk_block block = {chunk, mem_new(MEM_DYNAMIC, (size_t)size, "zelfon_edit_synth_chunk"), flags, rate};
    if (!block.data) return ZELFON_EDIT_NO_MEMORY;
    memcpy(block.data, data, (size_t)size);
    // Changes of one chunk in a row (a stroke of the mouse) merge into one step.
    return zelfon_sampler_commit(mod, -1, kChunkMergeKey + (uint32_t)chunk, &block, 1, song);
}

// ---- Controllers ----

// The controller's value variable, or null when the module has no such controller.
static int* ctl_value(int mod, int ctl, const zelfon_song* song) {
    psynth_module* m = zelfon_edit_synth(mod, song);
    if (!m || ctl < 0 || ctl >= m->ctls_count) return nullptr;
    return m->ctls[ctl].value;
}

// The 0..32768 value that the net turns into `value` (exactly while the range spans no more
// than 32768 steps): a controller event carries this.
static int normalized_of(const psynth_ctl* c, int value) {
    if (c->type == PSYNTH_CTL_SELECTOR) return value < 0 ? 0 : value > PSYNTH_CTL_MAX_VALUE ? PSYNTH_CTL_MAX_VALUE : value;
    int64_t range = (int64_t)c->max - c->min;
    if (range <= 0) return 0;
    return (int)((((int64_t)value - c->min) * PSYNTH_CTL_MAX_VALUE + range - 1) / range);
}

// The module hears the change as a controller event, as from a pattern, so that what it
// derives from the value follows; then the variable takes the exact value.
static int set_ctl(int mod, int ctl, int value, zelfon_song* song) {
    int* v = ctl_value(mod, ctl, song);
    if (!v) return 1;
    psynth_net* net = song->net;
    psynth_event event = {};
    event.command = PS_CMD_SET_GLOBAL_CONTROLLER;
    event.id = -1;
    event.note = (int16_t)ctl;
    event.velocity = (uint16_t)normalized_of(&net->modules[mod].ctls[ctl], value);
    tarvik_mutex_lock(&net->mutex);
    psynth_handle_event(mod, &event, net);
    *ctl_value(mod, ctl, song) = value;
    tarvik_mutex_unlock(&net->mutex);
    return 0;
}

int zelfon_edit_synth_ctl(int mod, int ctl, int value, zelfon_song* song) {
    int* v = ctl_value(mod, ctl, song);
    if (!v) return zelfon_edit_synth(mod, song) ? ZELFON_EDIT_OUTSIDE : ZELFON_EDIT_NO_MODULE;
    const psynth_ctl* c = &song->net->modules[mod].ctls[ctl];
    if (value < c->min || value > c->max) return ZELFON_EDIT_OUTSIDE;
    undo_action* last = zelfon_edit_last_action(song);
    if (last && last->type == ZELFON_ACTION_SYNTH_CTL && (int)last->par1 == mod && (int)last->par2 == ctl) {
        ((zelfon_ctl_change*)last->data)->value[1] = value;
        set_ctl(mod, ctl, value, song);
        return ZELFON_EDIT_OK;
    }
    if (*v == value) return ZELFON_EDIT_OK;
    zelfon_ctl_change* change = (zelfon_ctl_change*)mem_new(MEM_DYNAMIC, sizeof(*change), "zelfon_edit_synth_ctl");
    if (!change) return ZELFON_EDIT_NO_MEMORY;
    *change = {{*v, value}};
    return zelfon_edit_record(ZELFON_ACTION_SYNTH_CTL, mod, ctl, 0, change, song);
}

// ---- Places ----

static void synth_place(int mod, int* x, int* y, const void* context) {
    const psynth_module* m = zelfon_edit_synth(mod, (const zelfon_song*)context);
    *x = m->x;
    *y = m->y;
}

static int move_synths(int do_it, zelfon_move_change* m, zelfon_song* song) {
    zelfon_move_entry* e = zelfon_move_entries(m);
    for (int i = 0; i < m->count; i++) {
        if (!zelfon_edit_synth(e[i].slot, song)) return 1;
    }
    for (int i = 0; i < m->count; i++) {
        psynth_module* mod = zelfon_edit_synth(e[i].slot, song);
        mod->x = e[i].x[do_it];
        mod->y = e[i].y[do_it];
    }
    return 0;
}

int zelfon_edit_move_synths(const int* mods, int count, int dx, int dy, zelfon_song* song) {
    if (count <= 0 || (dx == 0 && dy == 0)) return ZELFON_EDIT_OK;
    for (int i = 0; i < count; i++) {
        const psynth_module* m = zelfon_edit_synth(mods[i], song);
        if (!m) return ZELFON_EDIT_NO_MODULE;
        if (!zelfon_move_fits(m->x, m->y, dx, dy)) return ZELFON_EDIT_OUTSIDE;
    }
    zelfon_move_change* m = zelfon_new_move_change(mods, count, dx, dy, synth_place, song);
    if (!m) return ZELFON_EDIT_NO_MEMORY;
    return zelfon_edit_record(ZELFON_ACTION_SYNTH_MOVE, mods[0], 0, 0, m, song);
}

int zelfon_perform_synth_settings(int do_it, const undo_action* a, zelfon_song* song) {
    int mod = (int)a->par1;
    switch (a->type) {
    case ZELFON_ACTION_SYNTH_MOVE: return move_synths(do_it, (zelfon_move_change*)a->data, song);
    case ZELFON_ACTION_SYNTH_SETTINGS:
        return apply_settings(mod, &((const zelfon_settings_change*)a->data)->s[do_it], song);
    case ZELFON_ACTION_SYNTH_CTL:
        return set_ctl(mod, (int)a->par2, ((const zelfon_ctl_change*)a->data)->value[do_it], song);
    default: return 1;
    }
}
