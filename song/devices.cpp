// The song engine on the devices: the render slot of the sound stream and the MIDI
// keyboard parser that turns raw bytes into live notes (the render takes them from the
// MIDI ring at their time stamps).
#include "song/devices.h"

#include <cstdio>
#include <cstring>

#include "engine/log.h"
#include "engine/memory.h"
#include "engine/midi.h"
#include "engine/profile.h"
#include "song/playback.h"

namespace {

constexpr int kMidiNoteOfC0 = 12;  // MIDI note 12 is semitone 0 of the pattern notes
constexpr int kLiveVelocityMax = 128;
constexpr int kMidiVelocityMax = 127;

// Data bytes that follow a channel or system-common status byte.
int data_bytes(uint8_t status) {
    switch (status & 0xF0) {
    case 0xC0:
    case 0xD0: return 1;
    case 0xF0: return status == 0xF1 || status == 0xF3 ? 1 : status == 0xF2 ? 2 : 0;
    default: return 2;
    }
}

void post_note(int midi_note, int velocity, bool on, tarvik_ticks t, zelfon_song* song) {
    if (song->midi_kbd_module < 0 || midi_note < kMidiNoteOfC0) return;
    zelfon_live_midi_event e = {};
    e.key = (uint8_t)(midi_note - kMidiNoteOfC0);
    // MIDI's 127 is the live range's full 128 (velocity 256 in the net).
    e.velocity = (uint8_t)(velocity * kLiveVelocityMax / kMidiVelocityMax);
    e.module = (uint16_t)song->midi_kbd_module;
    e.flags = on ? ZELFON_LIVE_NOTE_ON : ZELFON_LIVE_NOTE_OFF;
    e.t = t;
    zelfon_handle_midi_event(&e, song);
}

// A controller change moves every controller learned for it, through the live ring so the
// render applies it in order with the notes (a controller cell without a note: global).
void move_learned_controllers(int channel, int cc, int value, zelfon_song* song) {
    psynth_net* net = song->net;
    for (int m = 0; m < net->slots; m++) {
        const psynth_module* mod = &net->modules[m];
        if (!(mod->flags & PSYNTH_FLAG_EXISTS)) continue;
        for (int c = 0; c < mod->ctls_count && c < PSYNTH_MAX_CTLS; c++) {
            if (mod->midi_learn_cc[c] != cc || mod->midi_learn_channel[c] != channel) continue;
            zelfon_cell cell = {};
            cell.module = (uint16_t)(m + 1);
            cell.ctl = (uint8_t)(c + 1);
            cell.value = (uint16_t)(value * PSYNTH_CTL_MAX_VALUE / 127);
            zelfon_send_live_cell(&cell, ZELFON_MAX_TRACKS - 1, song);
        }
    }
}

void dispatch(uint8_t status, const uint8_t* data, tarvik_ticks t, zelfon_song* song) {
    if (status >= 0xF0) return;
    if ((status & 0xF0) == 0xB0) {
        // Learned controllers listen on every channel; each binding names its own.
        move_learned_controllers(status & 0x0F, data[0], data[1], song);
        if (song->midi_cc_hook) song->midi_cc_hook(song->midi_note_hook_data, status & 0x0F, data[0], data[1]);
        return;
    }
    if ((status & 0x0F) != ((song->midi_kbd_channel - 1) & 0x0F)) return;
    switch (status & 0xF0) {
    case 0x90:
    case 0x80: {
        bool on = (status & 0xF0) == 0x90 && data[1] != 0;  // velocity 0 = note-off
        post_note(data[0], data[1], on, t, song);
        if (song->midi_note_hook) song->midi_note_hook(song->midi_note_hook_data, data[0], data[1], on);
        break;
    }
    default: break;
    }
}

}  // namespace

int zelfon_sound_slot_render(sound_stream* ss, int slot) {
    sound_slot* s = &ss->slots[slot];
    zelfon_render_request request = {s->out, ss->type, ss->channels, s->frames, s->in, s->out_time};
    return zelfon_render(&request, (zelfon_song*)s->user_data);
}

void zelfon_attach_sound(int slot, zelfon_song* song) {
    sound_stream_set_slot(slot, zelfon_sound_slot_render, song);
    sound_stream_play(slot);
}

void zelfon_detach_sound(int slot) {
    // Clearing the slot under the slot mutex waits for a refill that is rendering.
    sound_stream_set_slot(slot, nullptr, nullptr);
}

namespace {

// The keyboard's device from the profile ("midi_kbd", else "midi_in"), or null.
const char* keyboard_device() {
    const char* midi_in = profile_get_str_value("midi_in", nullptr, nullptr);
    const char* device = profile_get_str_value("midi_kbd", midi_in, nullptr);
    return device && *device ? device : nullptr;
}

struct device_search {
    const char* name;
    bool found;
};

// Whether the MIDI system lists the device, by the names a port opens on: the exact name
// or one that contains it.
bool device_listed(const char* name, tarvik_midi_client* client) {
    device_search search = {name, false};
    tarvik_midi_client_get_devices(
        client, MIDI_PORT_READ,
        [](const char* listed, void* data) {
            device_search* s = (device_search*)data;
            if (listed && strstr(listed, s->name)) s->found = true;
        },
        &search);
    return search.found;
}

}  // namespace

int zelfon_open_midi_keyboard(zelfon_song* song) {
    if (song->net && song->midi_kbd_port >= 0) tarvik_midi_client_close_port(&song->net->midi_client, song->midi_kbd_port);
    song->midi_kbd_port = -1;
    song->midi_kbd_parser = {};
    const char* device = keyboard_device();
    int channel = profile_get_int_value("midi_in_ch", 1, nullptr);
    song->midi_kbd_channel = profile_get_int_value("midi_kbd_ch", channel, nullptr);
    if (!song->net || !device) return -1;
    song->midi_kbd_port = tarvik_midi_client_open_port(&song->net->midi_client, "Keyboard", device, MIDI_PORT_READ);
    return song->midi_kbd_port;
}

void zelfon_parse_midi_keyboard(const uint8_t* bytes, int size, tarvik_ticks t, zelfon_song* song) {
    zelfon_midi_parser* p = &song->midi_kbd_parser;
    for (int i = 0; i < size; i++) {
        uint8_t b = bytes[i];
        if (b >= 0xF8) continue;  // real-time bytes may come anywhere and leave the status alone
        if (b & 0x80) {
            // System common and exclusive bytes cancel the running status.
            p->status = b < 0xF0 ? b : 0;
            p->count = 0;
            continue;
        }
        if (!p->status) continue;
        p->data[p->count++] = b;
        if (p->count < data_bytes(p->status)) continue;
        dispatch(p->status, p->data, t, song);
        p->count = 0;  // the status runs on for the next data bytes
    }
}

int zelfon_watch_midi_keyboard(zelfon_song* song) {
    const char* device = keyboard_device();
    if (!song->net || !device) return 0;
    bool listed = device_listed(device, &song->net->midi_client);
    bool reopen = listed && (!song->midi_kbd_listed || song->midi_kbd_port < 0);
    if (song->midi_kbd_listed && !listed) tarvik_log("MIDI keyboard %s went away\n", device);
    song->midi_kbd_listed = listed;
    if (!reopen) return 0;
    tarvik_log("MIDI keyboard %s is there: opening it again\n", device);
    return zelfon_open_midi_keyboard(song) >= 0;
}

void zelfon_reopen_midi(zelfon_song* song) {
    psynth_net* net = song->net;
    if (!net) return;
    // The render sends on the modules' MIDI out ports: it waits for the new ones.
    tarvik_mutex_lock(&net->mutex);
    tarvik_midi_client_close(&net->midi_client);
    tarvik_midi_client_open(&net->midi_client, "PSynth");
    for (int m = 0; m < net->slots; m++) {
        psynth_module* mod = &net->modules[m];
        if (!(mod->flags & PSYNTH_FLAG_EXISTS) || !mod->midi_out_name) continue;
        char* name = mod->midi_out_name;  // the reopening takes a copy
        mod->midi_out_name = nullptr;
        mod->midi_out_port = -1;  // closed with the client
        psynth_open_midi_out(m, name, mod->midi_out_channel, net);
        mem_free(name);
    }
    tarvik_mutex_unlock(&net->mutex);
    song->midi_kbd_port = -1;  // closed with the client
    zelfon_open_midi_keyboard(song);
}

int zelfon_poll_midi_keyboard(zelfon_song* song) {
    if (!song->net || song->midi_kbd_port < 0) return 0;
    tarvik_midi_client* client = &song->net->midi_client;
    int taken = 0;
    while (tarvik_midi_event* e = tarvik_midi_client_get_event(client, song->midi_kbd_port)) {
        zelfon_parse_midi_keyboard(e->data, (int)e->size, e->t, song);
        tarvik_midi_client_next_event(client, song->midi_kbd_port);
        taken++;
    }
    return taken;
}
