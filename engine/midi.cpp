// MIDI client on RtMidi. Every port owns one RtMidi object (a connection from a port of
// this program to one system device) and, for input, the device record's rings.
// RtMidi's exceptions and error callbacks stop here and become log lines and return values.
#include "engine/midi.h"

#include <RtMidi.h>
#include <jack/jack.h>

#include <cstring>
#include <new>
#include <string>

#include "engine/log.h"
#include "engine/memory.h"
#include "engine/sound.h"

struct device_midi_client {
    char name[64];
    tarvik_mutex mutex;
};

struct midi_device {
    device_midi_client* client;
    int mode;
    int jack;  // opened through JACK MIDI
    RtMidi* rt;  // RtMidiIn or RtMidiOut built in `storage`
    alignas(RtMidiIn) unsigned char storage[sizeof(RtMidiIn) > sizeof(RtMidiOut) ? sizeof(RtMidiIn) : sizeof(RtMidiOut)];
    // Rings of received messages (input only), indices under the client mutex.
    uint8_t data[MIDI_DATA_RING_SIZE];
    tarvik_midi_event events[MIDI_EVENT_RING_SIZE];
    int event_read;
    int event_write;
    int data_write;
    int data_read;
};

namespace {

// Bytes of a message from its status byte; 0 for a data byte (not queued).
int message_length(uint8_t status) {
    if (status < 0x80) return 0;
    if (status < 0xC0) return 3;
    if (status < 0xE0) return 2;
    if (status < 0xF0) return 3;
    if (status == 0xF1 || status == 0xF3) return 2;
    if (status == 0xF2) return 3;
    return 1;
}

// The ALSA sequencer normally; JACK MIDI while the sound runs on JACK, so that one
// server carries both. The other is tried when the first cannot serve.
void api_order(RtMidi::Api apis[2]) {
    bool jack = g_snd.driver == SOUND_DRIVER_JACK;
    apis[0] = jack ? RtMidi::UNIX_JACK : RtMidi::LINUX_ALSA;
    apis[1] = jack ? RtMidi::LINUX_ALSA : RtMidi::UNIX_JACK;
}

void rtmidi_error(RtMidiError::Type type, const std::string& text, void* data) {
    tarvik_log("MIDI: %s\n", text.c_str());
}

// Queues bytes into a device's rings. The client mutex is held. A message is at most
// 3 bytes and the event ring holds 2048, so the 16384-byte data ring cannot overrun.
int queue_message(midi_device* dev, const uint8_t* bytes, int size, tarvik_ticks t) {
    int len = size > 0 ? message_length(bytes[0]) : 0;
    if (len == 0) return -1;
    if (len > size) len = size;
    int next = (dev->event_write + 1) % MIDI_EVENT_RING_SIZE;
    if (next == dev->event_read) return -1;  // full: the new message is dropped
    int pos = dev->data_write;
    // A message is kept in one piece, so that its bytes can be read through one pointer.
    if (pos + len > MIDI_DATA_RING_SIZE) pos = 0;
    memcpy(dev->data + pos, bytes, (size_t)len);
    dev->events[dev->event_write] = {t, (uint32_t)len, dev->data + pos};
    dev->data_write = (pos + len) % MIDI_DATA_RING_SIZE;
    dev->event_write = next;
    return 0;
}

void input_callback(double delta, std::vector<unsigned char>* message, void* data) {
    tarvik_ticks t = tarvik_time_ticks();  // first, so that the stamp is as close to reception as can be
    midi_device* dev = (midi_device*)data;
    if (!message || message->empty()) return;
    tarvik_mutex_lock(&dev->client->mutex);
    queue_message(dev, message->data(), (int)message->size(), t);
    tarvik_mutex_unlock(&dev->client->mutex);
}

// JACK moves MIDI between connected ports once per process cycle, and a new connection
// takes effect in a later cycle: messages sent right after opening a port, or queued
// just before closing it (the note-offs of a removed module), would be lost. Waiting two
// of the server's periods covers both: the sound stream's buffer when it runs on JACK
// (the buffer is the period), else 100 ms.
void let_jack_cycles_pass() {
    constexpr int kUnknownPeriodMs = 100;
    bool known = g_snd.driver == SOUND_DRIVER_JACK && g_snd.buffer > 0 && g_snd.freq > 0;
    tarvik_sleep_ms(known ? 2 * g_snd.buffer * 1000 / g_snd.freq + 2 : kUnknownPeriodMs);
}

void destroy_device(midi_device* dev) {
    if (!dev) return;
    if (dev->rt && dev->mode == MIDI_PORT_WRITE && dev->jack && dev->rt->isPortOpen()) let_jack_cycles_pass();
    if (dev->rt) {
        try {
            dev->rt->closePort();
        } catch (const std::exception& e) {
            tarvik_log("MIDI: %s\n", e.what());
        }
        if (dev->mode == MIDI_PORT_READ) ((RtMidiIn*)dev->rt)->~RtMidiIn();
        else ((RtMidiOut*)dev->rt)->~RtMidiOut();
    }
    mem_free(dev);
}

// RtMidi's JACK objects leak their ring buffer when no server answers, so the server
// is asked first.
bool jack_server_answers() {
    jack_client_t* probe = jack_client_open("zelfon_midi_probe", JackNoStartServer, nullptr);
    if (!probe) return false;
    jack_client_close(probe);
    return true;
}

// Builds the RtMidi object of `api` for the mode. Returns null when the API cannot serve.
RtMidi* make_rtmidi(midi_device* dev, RtMidi::Api api, const char* client_name) {
    if (api == RtMidi::UNIX_JACK && !jack_server_answers()) return nullptr;
    try {
        RtMidi* rt;
        RtMidi::Api got;
        if (dev->mode == MIDI_PORT_READ) {
            RtMidiIn* in = new (dev->storage) RtMidiIn(api, client_name);
            got = in->getCurrentApi();
            rt = in;
        } else {
            RtMidiOut* out = new (dev->storage) RtMidiOut(api, client_name);
            got = out->getCurrentApi();
            rt = out;
        }
        if (got == api) {
            rt->setErrorCallback(rtmidi_error, dev);
            return rt;
        }
        if (dev->mode == MIDI_PORT_READ) ((RtMidiIn*)rt)->~RtMidiIn();
        else ((RtMidiOut*)rt)->~RtMidiOut();
    } catch (const std::exception& e) {
        tarvik_log("MIDI: %s\n", e.what());
    }
    return nullptr;
}

// Index of the system port named `device_name` (exactly, else containing it), or -1.
int find_device(RtMidi* rt, const char* device_name) {
    int count = (int)rt->getPortCount();
    int partial = -1;
    for (int i = 0; i < count; i++) {
        std::string name = rt->getPortName((unsigned int)i);
        if (name == device_name) return i;
        if (partial < 0 && name.find(device_name) != std::string::npos) partial = i;
    }
    return partial;
}

int add_port_entry(tarvik_midi_client* client, midi_device* dev) {
    int port = 0;
    while (port < client->ports_count && client->ports[port].used) port++;
    if (port == client->ports_count) {
        int count = client->ports_count ? client->ports_count * 2 : 4;
        void* grown = client->ports ? mem_resize(client->ports, sizeof(tarvik_midi_port) * count)
                                    : mem_new_dynamic(sizeof(tarvik_midi_port) * count, "midi_open_port");
        if (!grown) return -1;
        client->ports = (tarvik_midi_port*)grown;
        memset(client->ports + client->ports_count, 0, sizeof(tarvik_midi_port) * (count - client->ports_count));
        client->ports_count = count;
    }
    client->ports[port] = {1, dev->mode, dev};
    return port;
}

midi_device* port_device(tarvik_midi_client* client, int port, int mode) {
    if (port < 0 || port >= client->ports_count || !client->ports[port].used) return nullptr;
    midi_device* dev = client->ports[port].device;
    return dev && dev->mode == mode ? dev : nullptr;
}

}  // namespace

device_midi_client* device_midi_client_open(const char* name) {
    device_midi_client* dc = (device_midi_client*)mem_new_dynamic(sizeof(device_midi_client), "midi_client_open");
    if (!dc) return nullptr;
    memset(dc, 0, sizeof(*dc));
    snprintf(dc->name, sizeof(dc->name), "%s", name ? name : "Zelfon");
    tarvik_mutex_create(&dc->mutex);
    return dc;
}

void device_midi_client_close(device_midi_client* dc) {
    if (!dc) return;
    tarvik_mutex_destroy(&dc->mutex);
    mem_free(dc);
}

int tarvik_midi_client_open(tarvik_midi_client* client, const char* name) {
    client->ports = nullptr;
    client->ports_count = 0;
    client->device = device_midi_client_open(name);
    return client->device ? 0 : -1;
}

int tarvik_midi_client_close(tarvik_midi_client* client) {
    for (int p = 0; p < client->ports_count; p++) {
        if (client->ports[p].used) tarvik_midi_client_close_port(client, p);
    }
    mem_free(client->ports);
    client->ports = nullptr;
    client->ports_count = 0;
    device_midi_client_close(client->device);
    client->device = nullptr;
    return 0;
}

int tarvik_midi_client_open_port(tarvik_midi_client* client, const char* port_name, const char* device_name,
                                 int mode) {
    if (!client->device) {
        tarvik_log("Add port error: empty device_midi_client\n");
        return -1;
    }
    if (!device_name || (mode != MIDI_PORT_READ && mode != MIDI_PORT_WRITE)) {
        tarvik_log("MIDI device not found.\n");
        return -1;
    }
    midi_device* dev = (midi_device*)mem_new_dynamic(sizeof(midi_device), "midi_open_port");
    if (!dev) return -1;
    memset((void*)dev, 0, sizeof(*dev));
    dev->client = client->device;
    dev->mode = mode;
    RtMidi::Api apis[2];
    api_order(apis);
    int index = -1;
    for (int a = 0; a < 2 && index < 0; a++) {
        dev->rt = make_rtmidi(dev, apis[a], client->device->name);
        if (!dev->rt) continue;
        index = find_device(dev->rt, device_name);
        dev->jack = apis[a] == RtMidi::UNIX_JACK;
        if (index >= 0) break;
        if (mode == MIDI_PORT_READ) ((RtMidiIn*)dev->rt)->~RtMidiIn();
        else ((RtMidiOut*)dev->rt)->~RtMidiOut();
        dev->rt = nullptr;
    }
    if (index < 0) {
        tarvik_log("MIDI device not found.\n");
        mem_free(dev);
        return -1;
    }
    try {
        if (mode == MIDI_PORT_READ) {
            RtMidiIn* in = (RtMidiIn*)dev->rt;
            in->setCallback(input_callback, dev);
            in->openPort((unsigned int)index, port_name ? port_name : "Zelfon");
        } else {
            dev->rt->openPort((unsigned int)index, port_name ? port_name : "Zelfon");
        }
    } catch (const std::exception& e) {
        tarvik_log(mode == MIDI_PORT_READ ? "midiInOpen error %d\n" : "midiOutOpen error %d\n", index);
        tarvik_log("MIDI: %s\n", e.what());
        destroy_device(dev);
        return -1;
    }
    if (!dev->rt->isPortOpen()) {
        tarvik_log(mode == MIDI_PORT_READ ? "midiInOpen error %d\n" : "midiOutOpen error %d\n", index);
        destroy_device(dev);
        return -1;
    }
    if (dev->jack) let_jack_cycles_pass();  // so that the bank and program sent next arrive
    tarvik_mutex_lock(&client->device->mutex);
    int port = add_port_entry(client, dev);
    tarvik_mutex_unlock(&client->device->mutex);
    if (port < 0) destroy_device(dev);
    return port;
}

int tarvik_midi_client_close_port(tarvik_midi_client* client, int port) {
    if (!client->device) {
        tarvik_log("Remove port error: empty device_midi_client\n");
        return -1;
    }
    if (port < 0 || port >= client->ports_count || !client->ports[port].used) return -1;
    tarvik_mutex_lock(&client->device->mutex);
    midi_device* dev = client->ports[port].device;
    client->ports[port] = {0, 0, nullptr};
    tarvik_mutex_unlock(&client->device->mutex);
    // Outside the mutex: closing waits for the callback thread and for queued output.
    destroy_device(dev);
    return 0;
}

int device_midi_client_get_devices(device_midi_client* dc, int mode, tarvik_midi_device_visitor visit, void* data) {
    if (!dc) return -1;
    midi_device* dev = (midi_device*)mem_new_dynamic(sizeof(midi_device), "midi_get_devices");
    if (!dev) return -1;
    memset((void*)dev, 0, sizeof(*dev));
    dev->mode = mode == MIDI_PORT_READ ? MIDI_PORT_READ : MIDI_PORT_WRITE;
    RtMidi::Api apis[2];
    api_order(apis);
    int count = 0;
    for (int a = 0; a < 2; a++) {
        dev->rt = make_rtmidi(dev, apis[a], dc->name);
        if (!dev->rt) continue;
        try {
            int n = (int)dev->rt->getPortCount();
            for (int i = 0; i < n; i++, count++) visit(dev->rt->getPortName((unsigned int)i).c_str(), data);
        } catch (const std::exception& e) {
            tarvik_log("MIDI: %s\n", e.what());
        }
        if (dev->mode == MIDI_PORT_READ) ((RtMidiIn*)dev->rt)->~RtMidiIn();
        else ((RtMidiOut*)dev->rt)->~RtMidiOut();
        dev->rt = nullptr;
    }
    mem_free(dev);
    return count;
}

int tarvik_midi_client_get_devices(tarvik_midi_client* client, int mode, tarvik_midi_device_visitor visit,
                                   void* data) {
    return device_midi_client_get_devices(client->device, mode, visit, data);
}

tarvik_midi_event* tarvik_midi_client_get_event(tarvik_midi_client* client, int port) {
    if (!client->device) {
        tarvik_log("get_event error: empty client\n");
        return nullptr;
    }
    tarvik_midi_event* event = nullptr;
    tarvik_mutex_lock(&client->device->mutex);
    midi_device* dev = port_device(client, port, MIDI_PORT_READ);
    if (dev && dev->event_read != dev->event_write) event = &dev->events[dev->event_read];
    tarvik_mutex_unlock(&client->device->mutex);
    return event;
}

int tarvik_midi_client_next_event(tarvik_midi_client* client, int port) {
    if (!client->device) {
        tarvik_log("next_event error: empty client\n");
        return -1;
    }
    tarvik_mutex_lock(&client->device->mutex);
    midi_device* dev = port_device(client, port, MIDI_PORT_READ);
    if (dev && dev->event_read != dev->event_write) {
        const tarvik_midi_event* e = &dev->events[dev->event_read];
        dev->data_read = (int)((e->data - dev->data) + e->size) % MIDI_DATA_RING_SIZE;
        dev->event_read = (dev->event_read + 1) % MIDI_EVENT_RING_SIZE;
    }
    tarvik_mutex_unlock(&client->device->mutex);
    return 0;
}

int tarvik_midi_client_receive(tarvik_midi_client* client, int port, const uint8_t* bytes, int size, tarvik_ticks t) {
    if (!client->device) return -1;
    tarvik_mutex_lock(&client->device->mutex);
    midi_device* dev = port_device(client, port, MIDI_PORT_READ);
    int result = dev ? queue_message(dev, bytes, size, t) : -1;
    tarvik_mutex_unlock(&client->device->mutex);
    return result;
}

int device_midi_client_send_event(tarvik_midi_client* client, int port, const tarvik_midi_event* event) {
    if (!client->device) {
        tarvik_log("send_event error: empty client\n");
        return -1;
    }
    int result = 0;
    tarvik_mutex_lock(&client->device->mutex);
    midi_device* dev = port_device(client, port, MIDI_PORT_WRITE);
    if (!dev) result = -1;
    // One message per status byte: the ALSA sequencer takes one event per send.
    for (uint32_t pos = 0; dev && pos < event->size;) {
        int len = message_length(event->data[pos]);
        if (len == 0) break;
        if (pos + len > event->size) len = (int)(event->size - pos);
        try {
            ((RtMidiOut*)dev->rt)->sendMessage(event->data + pos, (size_t)len);
        } catch (const std::exception& e) {
            tarvik_log("midiOutShortMsg error %d\n", -1);
            result = -1;
        }
        pos += (uint32_t)len;
    }
    tarvik_mutex_unlock(&client->device->mutex);
    return result;
}

int tarvik_midi_client_send_event(tarvik_midi_client* client, int port, const tarvik_midi_event* event) {
    return device_midi_client_send_event(client, port, event);
}
