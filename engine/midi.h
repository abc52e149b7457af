// MIDI client: named ports on the system's MIDI devices, incoming messages
// queued per port with time stamps, outgoing short messages sent at once.
// Error convention: port numbers ≥ 0 on success, −1 on failure (logged).
#pragma once

#include <cstdint>

#include "engine/thread.h"

enum : int { MIDI_PORT_READ = 1, MIDI_PORT_WRITE = 2 };

// One MIDI message: time stamp in ticks of the tick clock, size in bytes, the bytes.
struct tarvik_midi_event {
    tarvik_ticks t;
    uint32_t size;
    uint8_t* data;
};

struct tarvik_midi_port;
struct device_midi_client;

struct tarvik_midi_client {
    tarvik_midi_port* ports;  // block of port entries, grown as ports open
    int ports_count;
    device_midi_client* device;  // the system side; null when no MIDI system is reachable
};

// Opens the client under `name`. Returns 0 on success.
int tarvik_midi_client_open(tarvik_midi_client* client, const char* name);
int tarvik_midi_client_close(tarvik_midi_client* client);
// Opens `device_name` for reading or writing as port `port_name`. Returns the port number or −1.
int tarvik_midi_client_open_port(tarvik_midi_client* client, const char* port_name,
                                 const char* device_name, int mode);
int tarvik_midi_client_close_port(tarvik_midi_client* client, int port);
// Sends the event's bytes as one message on an output port. Returns 0 on success.
int tarvik_midi_client_send_event(tarvik_midi_client* client, int port, const tarvik_midi_event* event);
