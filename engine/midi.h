// MIDI client on RtMidi (ALSA sequencer, or JACK MIDI while the sound stream runs on
// JACK): named ports opened on the system's MIDI devices, incoming messages time-stamped
// in the device callback and queued per port in fixed rings, outgoing messages sent at once.
// Error convention: port numbers ≥ 0 on success, −1 on failure (logged); other calls
// return 0 on success, −1 on failure; get_event returns null when nothing waits.
// Threads: one client mutex guards the port table and the ring indices; the input
// callback runs on the MIDI system's thread, the rest on the engine's threads.
#pragma once

#include <cstdint>

#include "engine/thread.h"

enum : int { MIDI_PORT_READ = 1, MIDI_PORT_WRITE = 2 };

constexpr int MIDI_DATA_RING_SIZE = 16384;  // bytes of received messages per device
constexpr int MIDI_EVENT_RING_SIZE = 2048;  // events per device

// One MIDI message: time stamp in ticks of the tick clock, size in bytes, the bytes.
struct tarvik_midi_event {
    tarvik_ticks t;
    uint32_t size;
    uint8_t* data;
};

struct midi_device;  // one opened system device with its rings

struct tarvik_midi_port {
    int used;
    int mode;
    midi_device* device;
};

struct device_midi_client;

struct tarvik_midi_client {
    tarvik_midi_port* ports;  // block of port entries, grown as ports open
    int ports_count;
    device_midi_client* device;  // the system side; null when the client is not open
};

// Opens the client under `name` (nothing reaches the MIDI system until a port opens).
// Returns 0, −1 when memory ran out. Engine thread.
int tarvik_midi_client_open(tarvik_midi_client* client, const char* name);
// Closes every port and the client. Returns 0. Engine thread.
int tarvik_midi_client_close(tarvik_midi_client* client);
// Opens the device whose name is `device_name` (exactly, else the first containing it)
// for reading or writing as port `port_name`. Returns the port number or −1. Engine thread.
int tarvik_midi_client_open_port(tarvik_midi_client* client, const char* port_name, const char* device_name,
                                 int mode);
// Closes a port (output ports first send what is queued). Returns 0 or −1. Engine thread.
int tarvik_midi_client_close_port(tarvik_midi_client* client, int port);
// Calls `visit` with the name of every input (MIDI_PORT_READ) or output device. Returns
// the count, −1 for a client not open. Engine thread.
typedef void (*tarvik_midi_device_visitor)(const char* name, void* data);
int tarvik_midi_client_get_devices(tarvik_midi_client* client, int mode, tarvik_midi_device_visitor visit, void* data);
// The oldest unread event of an input port, or null. The event stays valid until
// tarvik_midi_client_next_event. Takes the client mutex.
tarvik_midi_event* tarvik_midi_client_get_event(tarvik_midi_client* client, int port);
// Drops the oldest event of an input port. Returns 0, −1 for a bad client. Takes the client mutex.
int tarvik_midi_client_next_event(tarvik_midi_client* client, int port);
// Sends the event's bytes on an output port, one message per status byte. Returns 0 or −1.
// Any thread; takes the client mutex for the short time of the send.
int tarvik_midi_client_send_event(tarvik_midi_client* client, int port, const tarvik_midi_event* event);
// Queues one received message on an input port as the device callback does: the length
// comes from the status byte, a message that does not fit before the end of the data
// ring is stored from its start. Returns 0, −1 when not queued. Any thread.
int tarvik_midi_client_receive(tarvik_midi_client* client, int port, const uint8_t* bytes, int size, tarvik_ticks t);

// The device-level names of the same operations.
device_midi_client* device_midi_client_open(const char* name);
void device_midi_client_close(device_midi_client* dc);
int device_midi_client_get_devices(device_midi_client* dc, int mode, tarvik_midi_device_visitor visit, void* data);
int device_midi_client_send_event(tarvik_midi_client* client, int port, const tarvik_midi_event* event);
