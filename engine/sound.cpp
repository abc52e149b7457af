// Sound stream on RtAudio: driver selection with fallback, the refill that mixes the
// render slots into each device buffer, underrun counting and the scope ring.
// RtAudio reports failures by exceptions or its error callback; both stop here and
// become log lines and return values.
#include "engine/sound.h"

#include <RtAudio.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <new>

#include "engine/log.h"
#include "engine/memory.h"
#include "engine/profile.h"

sound_stream g_snd;

namespace {

constexpr int kFrac = 15;  // out_time: one buffer's duration in 15-bit fixed point
constexpr int kInt16Max = 32767;
constexpr int kOpenAttempts = 3;
constexpr int kOpenRetryMs = 50;
const char* const kDriverNames[SOUND_DRIVERS] = {"JACK", "PULSE", "ALSA"};
const char* const kDriverKeys[SOUND_DRIVERS] = {"jack", "pulse", "alsa"};
const RtAudio::Api kDriverApis[SOUND_DRIVERS] = {RtAudio::UNIX_JACK, RtAudio::LINUX_PULSE, RtAudio::LINUX_ALSA};

constexpr int kLostCloseWaitMs = 1000;

struct sound_device {
    RtAudio* audio;
    alignas(RtAudio) unsigned char storage[sizeof(RtAudio)];
    int lost_logged;  // the stream stopped on its own and that was logged
};

uint32_t atomic_load(uint32_t& v) { return std::atomic_ref<uint32_t>(v).load(std::memory_order_acquire); }
void atomic_add(uint32_t& v, uint32_t n) { std::atomic_ref<uint32_t>(v).fetch_add(n, std::memory_order_acq_rel); }

int frame_bytes(const sound_stream* ss) { return ss->channels * ((ss->type & SOUND_TYPE_INT16) ? 2 : 4); }

tarvik_ticks ticks_for_frames(int frames, int freq) {
    if (freq <= 0) return 0;
    int64_t fixed = ((int64_t)frames << kFrac) / freq;  // seconds in 15-bit fixed point
    return (tarvik_ticks)((fixed * tarvik_time_ticks_per_second()) >> kFrac);
}

void add_into(void* dest, const void* src, int samples, int type) {
    if (type & SOUND_TYPE_INT16) {
        int16_t* d = (int16_t*)dest;
        const int16_t* s = (const int16_t*)src;
        for (int i = 0; i < samples; i++) {
            int v = d[i] + s[i];
            // -32768 is never produced, so that a mix stays symmetric.
            d[i] = (int16_t)(v > kInt16Max ? kInt16Max : v < -kInt16Max ? -kInt16Max : v);
        }
    } else {
        float* d = (float*)dest;
        const float* s = (const float*)src;
        for (int i = 0; i < samples; i++) d[i] += s[i];
    }
}

void write_scope(const void* out, int frames, sound_stream* ss) {
    if (!ss->scope_buffer || tarvik_mutex_trylock(&ss->scope_mutex)) return;  // a reader holds it: skip
    const int fb = frame_bytes(ss);
    const uint8_t* src = (const uint8_t*)out;
    if (frames > SOUND_SCOPE_FRAMES) {
        src += (size_t)(frames - SOUND_SCOPE_FRAMES) * fb;
        frames = SOUND_SCOPE_FRAMES;
    }
    while (frames > 0) {
        int n = SOUND_SCOPE_FRAMES - ss->scope_pos;
        if (n > frames) n = frames;
        memcpy((uint8_t*)ss->scope_buffer + (size_t)ss->scope_pos * fb, src, (size_t)n * fb);
        ss->scope_pos = (ss->scope_pos + n) % SOUND_SCOPE_FRAMES;
        src += (size_t)n * fb;
        frames -= n;
    }
    tarvik_mutex_unlock(&ss->scope_mutex);
}

// Applies and clears the slot's pending play/stop request.
void apply_request(sound_slot* slot) {
    uint32_t request = std::atomic_ref<uint32_t>(slot->request).exchange(0, std::memory_order_acq_rel);
    if ((request >> 16) == 1) slot->enabled = 1;
    if ((request >> 16) == 2) slot->enabled = 0;
}

// Renders a later slot through the temporary buffer, chunk by chunk, adding each chunk.
void mix_slot(int s, sound_stream* ss) {
    sound_slot* slot = &ss->slots[s];
    const int fb = frame_bytes(ss);
    slot->scope_count = 0;
    if (!ss->temp_buffer || ss->temp_frames <= 0) return;
    for (int pos = 0; pos < ss->frames; pos += ss->temp_frames) {
        int n = ss->frames - pos;
        if (n > ss->temp_frames) n = ss->temp_frames;
        slot->in = nullptr;
        slot->out = ss->temp_buffer;
        slot->frames = n;
        slot->out_time = ss->out_time + ticks_for_frames(pos, ss->freq);
        if (!slot->callback(ss, s)) continue;
        add_into((uint8_t*)ss->out + (size_t)pos * fb, ss->temp_buffer, n * ss->channels, ss->type);
        slot->scope = ss->temp_buffer;
        slot->scope_count = n;
    }
}

// Counts the refill in the bin of the share of its period that it took.
void account_load(int64_t ns, int frames, sound_stream* ss) {
    if (frames <= 0 || ss->freq <= 0) return;
    int64_t share = ns * ss->freq / ((int64_t)frames * 1000000);  // 0.1 % of the period
    if (share > (int64_t)ss->load_max) std::atomic_ref<uint32_t>(ss->load_max).store((uint32_t)share);
    if (share >= SOUND_LOAD_BINS) share = SOUND_LOAD_BINS - 1;
    atomic_add(ss->load_bins[share], 1);
}

int rtaudio_callback(void* out, void* in, unsigned int frames, double stream_time, RtAudioStreamStatus status,
                     void* data) {
    if (status & RTAUDIO_OUTPUT_UNDERFLOW) atomic_add(g_snd.underruns, 1);
    if (!out) return 0;
    auto start = std::chrono::steady_clock::now();
    sound_stream_refill(out, (int)frames);
    auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - start).count();
    account_load(ns, (int)frames, &g_snd);
    return 0;
}

void rtaudio_error(RtAudioError::Type type, const std::string& text) {
    tarvik_log("SOUND: %s\n", text.c_str());
}

void destroy_device(sound_device* dev) {
    if (!dev) return;
    if (dev->audio) {
        try {
            // When the JACK server goes away, RtAudio closes the stream on a thread of its
            // own: that close is let finish (a second at most) rather than raced by ours.
            bool jack = dev->audio->getCurrentApi() == RtAudio::UNIX_JACK;
            for (int ms = 0; jack && ms < kLostCloseWaitMs && dev->audio->isStreamOpen() && !dev->audio->isStreamRunning(); ms++) {
                tarvik_sleep_ms(1);
            }
            if (dev->audio->isStreamRunning()) dev->audio->stopStream();
            if (dev->audio->isStreamOpen()) dev->audio->closeStream();
        } catch (const std::exception& e) {
            tarvik_log("SOUND: %s\n", e.what());
        }
        dev->audio->~RtAudio();
    }
    mem_free(dev);
}

// Opens the driver's stream and starts it. Returns 0 on success, -1 on failure (logged).
int open_driver(int driver, sound_stream* ss) {
    sound_device* dev = (sound_device*)mem_new_dynamic(sizeof(sound_device), "sound_open");
    if (!dev) return -1;
    dev->audio = nullptr;
    dev->lost_logged = 0;
    tarvik_log("SOUND: Driver %s\n", kDriverNames[driver]);
    try {
        dev->audio = new (dev->storage) RtAudio(kDriverApis[driver]);
        if (dev->audio->getCurrentApi() != kDriverApis[driver]) {
            tarvik_log("SOUND: %s is not available\n", kDriverNames[driver]);
            destroy_device(dev);
            return -1;
        }
        dev->audio->showWarnings(false);
        int count = (int)dev->audio->getDeviceCount();
        if (count <= 0) {
            tarvik_log("ERROR: No sound devices :(\n");
            destroy_device(dev);
            return -1;
        }
        tarvik_log("SOUND: Number of sound devices: %d\n", count);
        int device = profile_get_int_value("audiodevice", -1, nullptr);
        if (device < 0 || device >= count) device = (int)dev->audio->getDefaultOutputDevice();
        tarvik_log("SOUND: Dev: %d. Sound freq: %d\n", device, ss->freq);

        RtAudio::StreamParameters params;
        params.deviceId = (unsigned int)device;
        params.nChannels = (unsigned int)ss->channels;
        params.firstChannel = 0;
        RtAudio::StreamOptions options;
        options.flags = RTAUDIO_SCHEDULE_REALTIME;
        options.streamName = "Zelfon";
        options.priority = 90;
        unsigned int frames = (unsigned int)ss->buffer;
        RtAudioFormat format = (ss->type & SOUND_TYPE_INT16) ? RTAUDIO_SINT16 : RTAUDIO_FLOAT32;
        // RtAudio's JACK back end counts the devices again with a client of its own, which
        // a busy server sometimes refuses: the device then looks missing for a moment.
        for (int attempt = 1;; attempt++) {
            try {
                dev->audio->openStream(&params, nullptr, format, (unsigned int)ss->freq, &frames, rtaudio_callback,
                                       nullptr, &options, rtaudio_error);
                break;
            } catch (const RtAudioError& e) {
                if (attempt == kOpenAttempts || e.getType() != RtAudioError::INVALID_USE) throw;
                tarvik_sleep_ms(kOpenRetryMs);
            }
        }
        if ((int)frames != ss->buffer) {
            tarvik_log("SOUND: %s buffer: %u frames (asked for %d)\n", kDriverNames[driver], frames, ss->buffer);
            ss->buffer = (int)frames;
        }
        // The mixing buffer exists before the first refill can run.
        ss->temp_frames = ss->buffer > 0 ? ss->buffer : SOUND_BUFFER_DEFAULT;
        ss->temp_buffer = mem_new_dynamic((size_t)ss->temp_frames * frame_bytes(ss), "sound_stream_init");
        if (!ss->temp_buffer) {
            destroy_device(dev);
            return -1;
        }
        ss->device = dev;
        dev->audio->startStream();
    } catch (const std::exception& e) {
        tarvik_log("SOUND: %s: %s\n", kDriverNames[driver], e.what());
        ss->device = nullptr;
        destroy_device(dev);
        mem_free(ss->temp_buffer);
        ss->temp_buffer = nullptr;
        return -1;
    }
    tarvik_log("SOUND: %s stream opened (%d Hz, %d frames)\n", kDriverNames[driver], ss->freq, ss->buffer);
    return 0;
}

}  // namespace

const char* sound_stream_driver_name(int driver) {
    return driver >= 0 && driver < SOUND_DRIVERS ? kDriverNames[driver] : "NONE";
}

int sound_stream_driver_from_key(const char* value) {
    for (int d = 0; value && d < SOUND_DRIVERS; d++) {
        if (!strcmp(value, kDriverKeys[d])) return d;
    }
    return -1;
}

int sound_stream_init(int type, int freq, int channels) {
    memset(&g_snd, 0, sizeof(g_snd));
    g_snd.type = type;
    g_snd.freq = freq;
    g_snd.channels = channels;
    g_snd.driver = -1;
    tarvik_mutex_create(&g_snd.slot_mutex);
    tarvik_mutex_create(&g_snd.scope_mutex);
    int driver = sound_stream_driver_from_key(profile_get_str_value("audiodriver", nullptr, nullptr));
    if (driver < 0) driver = SOUND_DRIVER_JACK;
    g_snd.buffer = profile_get_int_value("buffer", SOUND_BUFFER_DEFAULT, nullptr);
    if (g_snd.buffer <= 0) g_snd.buffer = SOUND_BUFFER_DEFAULT;
    // The scope ring exists before the stream starts, as the refill writes it.
    g_snd.scope_buffer = mem_new_dynamic((size_t)SOUND_SCOPE_FRAMES * frame_bytes(&g_snd), "sound_stream_init");
    if (g_snd.scope_buffer) memset(g_snd.scope_buffer, 0, (size_t)SOUND_SCOPE_FRAMES * frame_bytes(&g_snd));

    int tried[SOUND_DRIVERS] = {};
    const int asked_buffer = g_snd.buffer;
    for (;;) {
        g_snd.buffer = asked_buffer;
        if (open_driver(driver, &g_snd) == 0) {
            g_snd.driver = driver;
            return 0;
        }
        tried[driver] = 1;
        driver = -1;
        for (int d = 0; d < SOUND_DRIVERS && driver < 0; d++) {
            if (!tried[d]) driver = d;
        }
        if (driver < 0) break;
        tarvik_log("Switching to %s\n", kDriverNames[driver]);
    }
    tarvik_log("SOUND: no sound driver could be opened\n");
    sound_stream_close();
    return 1;
}

void sound_stream_close() {
    tarvik_log("SOUND: sound_stream_close() begin\n");
    destroy_device((sound_device*)g_snd.device);
    g_snd.device = nullptr;
    g_snd.driver = -1;
    mem_free(g_snd.temp_buffer);
    g_snd.temp_buffer = nullptr;
    g_snd.temp_frames = 0;
    mem_free(g_snd.scope_buffer);
    g_snd.scope_buffer = nullptr;
    tarvik_mutex_destroy(&g_snd.slot_mutex);
    tarvik_mutex_destroy(&g_snd.scope_mutex);
    tarvik_log("SOUND: sound_stream_close() end\n");
}

int sound_stream_running() {
    sound_device* dev = (sound_device*)g_snd.device;
    if (!dev || !dev->audio) return 0;
    // The JACK back end closes the stream on its own thread when the server goes away.
    if (dev->audio->isStreamOpen() && dev->audio->isStreamRunning()) return 1;
    if (!dev->lost_logged) {
        tarvik_log("SOUND: the %s stream has stopped\n", sound_stream_driver_name(g_snd.driver));
        dev->lost_logged = 1;
    }
    return 0;
}

void sound_stream_set_slot(int slot, sound_slot_callback callback, void* user_data) {
    if (slot < 0 || slot >= SOUND_SLOTS) return;
    sound_stream_lock();
    g_snd.slots[slot].callback = callback;
    g_snd.slots[slot].user_data = user_data;
    g_snd.slots[slot].enabled = 0;
    std::atomic_ref<uint32_t>(g_snd.slots[slot].request).store(0, std::memory_order_release);
    sound_stream_unlock();
}

void sound_stream_play(int slot) {
    if (slot < 0 || slot >= SOUND_SLOTS) return;
    std::atomic_ref<uint32_t>(g_snd.slots[slot].request).store(SOUND_REQUEST_PLAY, std::memory_order_release);
}

void sound_stream_stop(int slot) {
    if (slot < 0 || slot >= SOUND_SLOTS) return;
    std::atomic_ref<uint32_t>(g_snd.slots[slot].request).store(SOUND_REQUEST_STOP, std::memory_order_release);
}

void sound_stream_lock() {
    if (g_snd.slot_mutex.created) tarvik_mutex_lock(&g_snd.slot_mutex);
}

void sound_stream_unlock() {
    if (g_snd.slot_mutex.created) tarvik_mutex_unlock(&g_snd.slot_mutex);
}

uint32_t sound_stream_refills() { return atomic_load(g_snd.refills); }
uint32_t sound_stream_underruns() { return atomic_load(g_snd.underruns); }

void sound_stream_load(int* median, int* p99, int* max) {
    uint64_t total = 0;
    for (int i = 0; i < SOUND_LOAD_BINS; i++) total += atomic_load(g_snd.load_bins[i]);
    *median = *p99 = 0;
    *max = (int)atomic_load(g_snd.load_max);
    if (!total) return;
    uint64_t seen = 0;
    bool median_found = false;
    for (int i = 0; i < SOUND_LOAD_BINS; i++) {
        seen += atomic_load(g_snd.load_bins[i]);
        if (!median_found && seen * 2 >= total) {
            *median = i;
            median_found = true;
        }
        if (seen * 100 >= total * 99) {
            *p99 = i;
            return;
        }
    }
}

int sound_stream_read_scope(void* dest, int frames) {
    if (!g_snd.scope_buffer || !g_snd.scope_mutex.created || frames <= 0) return 0;
    if (frames > SOUND_SCOPE_FRAMES) frames = SOUND_SCOPE_FRAMES;
    const int fb = frame_bytes(&g_snd);
    tarvik_mutex_lock(&g_snd.scope_mutex);
    int first = (g_snd.scope_pos - frames + SOUND_SCOPE_FRAMES) % SOUND_SCOPE_FRAMES;
    for (int done = 0; done < frames;) {
        int n = SOUND_SCOPE_FRAMES - first;
        if (n > frames - done) n = frames - done;
        memcpy((uint8_t*)dest + (size_t)done * fb, (uint8_t*)g_snd.scope_buffer + (size_t)first * fb, (size_t)n * fb);
        first = (first + n) % SOUND_SCOPE_FRAMES;
        done += n;
    }
    tarvik_mutex_unlock(&g_snd.scope_mutex);
    return frames;
}

void sound_stream_refill(void* out, int frames) {
    sound_stream* ss = &g_snd;
    ss->out_time = tarvik_time_ticks() + ticks_for_frames(ss->buffer, ss->freq);
    ss->out = out;
    ss->frames = frames;
    std::atomic_ref<int>(ss->rendering).store(1, std::memory_order_release);
    int wrote = 0;
    // A busy slot mutex costs this buffer (silence), never a wait on the sound thread.
    if (ss->slot_mutex.created && tarvik_mutex_trylock(&ss->slot_mutex) == 0) {
        for (int s = 0; s < SOUND_SLOTS; s++) {
            sound_slot* slot = &ss->slots[s];
            apply_request(slot);
            if (!slot->callback || !slot->enabled) continue;
            if (wrote) {
                mix_slot(s, ss);  // later slots are added to what the first one wrote
                continue;
            }
            slot->in = nullptr;
            slot->out = out;
            slot->frames = frames;
            slot->out_time = ss->out_time;
            wrote = slot->callback(ss, s) != 0;
            slot->scope = out;
            slot->scope_count = wrote ? frames : 0;
        }
        tarvik_mutex_unlock(&ss->slot_mutex);
    }
    if (!wrote) memset(out, 0, (size_t)frames * frame_bytes(ss));
    write_scope(out, frames, ss);
    atomic_add(ss->refills, 1);
    std::atomic_ref<int>(ss->rendering).store(0, std::memory_order_release);
}

void sound_stream_list_devices(sound_device_visitor visit, void* data) {
    for (int d = 0; d < SOUND_DRIVERS; d++) {
        try {
            RtAudio audio(kDriverApis[d]);
            if (audio.getCurrentApi() != kDriverApis[d]) continue;
            audio.showWarnings(false);
            unsigned int count = audio.getDeviceCount();
            for (unsigned int i = 0; i < count; i++) {
                RtAudio::DeviceInfo info = audio.getDeviceInfo(i);
                if (info.probed && info.outputChannels > 0) visit(d, (int)i, info.name.c_str(), (int)info.outputChannels, data);
            }
        } catch (const std::exception& e) {
            tarvik_log("SOUND: %s: %s\n", kDriverNames[d], e.what());
        }
    }
}
