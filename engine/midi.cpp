// MIDI client. No MIDI system is attached yet: the client opens empty and every
// device lookup fails as on a machine without MIDI devices.
#include "engine/midi.h"

#include "engine/log.h"

int tarvik_midi_client_open(tarvik_midi_client* client, const char* name) {
    client->ports = nullptr;
    client->ports_count = 0;
    client->device = nullptr;
    return 0;
}

int tarvik_midi_client_close(tarvik_midi_client* client) {
    client->ports = nullptr;
    client->ports_count = 0;
    return 0;
}

int tarvik_midi_client_open_port(tarvik_midi_client* client, const char* port_name,
                                 const char* device_name, int mode) {
    tarvik_log("MIDI device not found.\n");
    return -1;
}

int tarvik_midi_client_close_port(tarvik_midi_client* client, int port) {
    if (!client->device) {
        tarvik_log("Remove port error: empty device_midi_client\n");
        return -1;
    }
    return 0;
}

int tarvik_midi_client_send_event(tarvik_midi_client* client, int port, const tarvik_midi_event* event) {
    if (!client->device) {
        tarvik_log("send_event error: empty client\n");
        return -1;
    }
    return 0;
}
