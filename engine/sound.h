// Sound stream: the real-time output to the sound device through RtAudio (JACK,
// PulseAudio or ALSA), whose refill asks up to four render slots to fill each device
// buffer and mixes them, and keeps a scope buffer of recent output for the meters.
// Error convention: sound_stream_init returns 0 on success, non-zero when no back end
// opened (the program then runs without sound); the other calls cannot fail.
#pragma once

#include <cstdint>

#include "engine/thread.h"

enum : int { SOUND_TYPE_INT16 = 1, SOUND_TYPE_FLOAT32 = 2 };  // tested bitwise
enum : int { SOUND_DRIVER_JACK = 0, SOUND_DRIVER_PULSE = 1, SOUND_DRIVER_ALSA = 2, SOUND_DRIVERS = 3 };

constexpr int SOUND_SLOTS = 4;
constexpr int SOUND_BUFFER_DEFAULT = 4096;  // frames, profile key "buffer"
constexpr int SOUND_SCOPE_FRAMES = 8192;
constexpr int SOUND_LOAD_BINS = 1001;  // refill time as a share of the period, in 0.1 % steps

// The high 16 bits of a slot's request word; the refill applies and clears it.
enum : uint32_t { SOUND_REQUEST_PLAY = 1u << 16, SOUND_REQUEST_STOP = 2u << 16 };

struct sound_stream;
// A render callback fills its slot's request (`out`, `frames`, `out_time`) and returns
// non-zero when it wrote sound, 0 for silence (then nothing of it is mixed). Sound thread.
typedef int (*sound_slot_callback)(sound_stream* ss, int slot);

struct sound_slot {
    sound_slot_callback callback;
    void* user_data;
    int enabled;        // written by the refill only
    uint32_t request;   // pending play/stop, accessed atomically
    const void* in;     // input frames or null
    void* out;          // where the callback writes `frames` frames of the stream's type
    int frames;
    tarvik_ticks out_time;  // when the first frame will be heard, in tick-clock ticks
    // Scope state: the slot's last output and its length in frames.
    const void* scope;
    int scope_busy;
    int scope_count;
};

struct sound_stream {
    int type;
    int freq;
    int channels;
    sound_slot slots[SOUND_SLOTS];
    // The device buffer request of the current refill.
    void* out;
    int frames;
    tarvik_ticks out_time;
    void* temp_buffer;  // mixing buffer of later slots, temp_frames long
    int temp_frames;
    tarvik_mutex slot_mutex;   // held by the refill while it walks the slots
    tarvik_mutex scope_mutex;  // guards scope_buffer and scope_pos
    int buffer;                // device buffer length in frames (the back end may change it)
    int driver;                // SOUND_DRIVER_*, −1 while closed
    void* scope_buffer;        // SOUND_SCOPE_FRAMES frames of the stream's type
    int scope_pos;             // next frame written in the scope ring
    int rendering;             // set while the refill mixes
    uint32_t refills;          // device buffers filled so far (atomic)
    uint32_t underruns;        // underruns the back end reported (atomic)
    void* device;              // back-end state, null while closed
    // Refills counted by the share of their period they took (the last bin: 100 % and
    // more), and the largest share, in 0.1 %. Written by the sound thread only.
    uint32_t load_bins[SOUND_LOAD_BINS];
    uint32_t load_max;
};

// The program's one stream.
extern sound_stream g_snd;

// Opens the stream for `type` samples at `freq` Hz with `channels` channels, on the
// driver chosen by the profile's "audiodriver" (then the others), device "audiodevice",
// buffer "buffer". Returns 0, non-zero when no driver opened. Main thread.
int sound_stream_init(int type, int freq, int channels);
// Stops and closes the back end and frees the buffers; safe when nothing is open. Main thread.
void sound_stream_close();
// Non-zero while the back end's stream is open and running. Logs once when it has
// stopped on its own (the sound server went away). Main thread.
int sound_stream_running();

// Stores a render callback in `slot` (disabled until played). Takes the slot mutex.
void sound_stream_set_slot(int slot, sound_slot_callback callback, void* user_data);
// Asks the refill to start or stop calling `slot` from its next buffer. Any thread.
void sound_stream_play(int slot);
void sound_stream_stop(int slot);
// Holds the slots off the refill (it outputs silence meanwhile), for structural
// changes on the interface thread: loading a song, export. Do nothing while closed.
void sound_stream_lock();
void sound_stream_unlock();

// Device buffers filled and underruns reported since init. Any thread.
uint32_t sound_stream_refills();
uint32_t sound_stream_underruns();
// The refill's share of its period since init, in 0.1 %: median, 99th percentile and
// maximum (0 before the first refill). Any thread; a running stream gives a near snapshot.
void sound_stream_load(int* median, int* p99, int* max);
// Copies the latest `frames` (≤ SOUND_SCOPE_FRAMES) frames of output into `dest`
// (stream type and channels), oldest first. Returns the frames copied. Takes the scope mutex.
int sound_stream_read_scope(void* dest, int frames);
// Name of a driver for messages: "JACK", "PULSE", "ALSA".
const char* sound_stream_driver_name(int driver);
// Driver from a profile value ("jack", "pulse", "alsa"), or −1.
int sound_stream_driver_from_key(const char* value);

// Mixes one device buffer of `frames` frames into `out` from the slots, as the back
// end's refill does (exposed for the back ends and the tests). Sound thread.
void sound_stream_refill(void* out, int frames);

// Calls `visit` for every output device of every driver (number as for "audiodevice").
// Opens no stream. Main thread.
typedef void (*sound_device_visitor)(int driver, int device, const char* name, int channels, void* data);
void sound_stream_list_devices(sound_device_visitor visit, void* data);
