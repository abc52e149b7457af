// Sample file loading and saving for the Sampler. Each reader walks its file through the
// virtual file layer, creates the sample through psynth_sample_create and fills the
// returned data chunk in place: values are read into the chunk and converted there
// (byte order, 24-bit to float, unsigned to signed, deltas to values).
#include "psynth/sample_file.h"

#include <climits>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "engine/file.h"
#include "engine/log.h"
#include "engine/memory.h"
#include "image/jpeg.h"
#include "psynth/psynth_modules.h"
#include "psynth/psynth_tables.h"
#include "psynth/sampler.h"

namespace {

constexpr int kErrorSize = 256;
char g_error[kErrorSize];
bool g_not_recognized;

// Finetune from the rate: the pitch-table period nearest to the rate, counted from 7680
// (ten octaves of 768) down; its position within a semitone (64 periods) gives the finetune.
constexpr int kPeriods = 7680;
constexpr int kPeriodsPerSemitone = 64;
constexpr int kFinetunePerPeriod = 2;

constexpr float kInt24Scale = 1.0f / 8388608.0f;  // 2^−23: full-scale 24-bit values become ±1
constexpr uint8_t kSignFlip = 0x80;                 // unsigned 8-bit ↔ signed: ±128
constexpr int kFullVolume = 64;
constexpr int kCentrePanning = 128;
constexpr int kExtendedBiasShift = 16256;           // 80-bit exponent bias 16383 − float bias 127
constexpr int kFloatMaxExponent = 255;

// WAV layout.
constexpr int kRiffHeader = 12;
constexpr int kChunkHeader = 8;
constexpr int kFmtFields = 16;
constexpr int kWavTagPcm = 1;
constexpr int kWavTagFloat = 3;
constexpr int kWavHeaderSize = 44;
constexpr int kWavSizeAfterRiff = 36;  // "WAVE", the fmt chunk and the data chunk's header

// AIFF / AIFC layout.
constexpr int kCommFields = 18;  // channels, frames, bits, 80-bit rate
constexpr int kSsndFields = 8;   // offset, block size

// XI layout (after the 12 bytes that chose the reader).
constexpr int kXiSignatureRest = 9;
constexpr int kXiNameOffset = 21;
constexpr int kXiTrackerBlock = 23;  // 0x1A, tracker name (20), version (2)
constexpr int kXiInstrumentOffset = 36;
constexpr int kXiInstrumentBytes = 208;
constexpr int kXiExtraOffset = 244;
constexpr int kXiExtraBytes = 5;
constexpr int kXiExtraReserved = 17;
constexpr int kXiReserved = 22;

// ---- Errors ----

void report(const char* format, ...) {
    va_list args;
    va_start(args, format);
    vsnprintf(g_error, sizeof(g_error), format, args);
    va_end(args);
    size_t n = strlen(g_error);
    tarvik_log(n && g_error[n - 1] == '\n' ? "%s" : "%s\n", g_error);  // message-box texts end in no newline
}

// A four-character code as printable text.
void fourcc_text(const uint8_t* id, char out[5]) {
    for (int i = 0; i < 4; i++) out[i] = id[i] >= 32 && id[i] < 127 ? (char)id[i] : '?';
    out[4] = 0;
}

// ---- Bytes ----

uint16_t le16(const uint8_t* p) { return (uint16_t)(p[0] | p[1] << 8); }
uint32_t le32(const uint8_t* p) { return p[0] | p[1] << 8 | p[2] << 16 | (uint32_t)p[3] << 24; }
uint16_t be16(const uint8_t* p) { return (uint16_t)(p[1] | p[0] << 8); }
uint32_t be32(const uint8_t* p) { return p[3] | p[2] << 8 | p[1] << 16 | (uint32_t)p[0] << 24; }
void put16(uint8_t* p, uint32_t v) { p[0] = (uint8_t)v; p[1] = (uint8_t)(v >> 8); }
void put32(uint8_t* p, uint32_t v) { put16(p, v); put16(p + 2, v >> 16); }
bool is_id(const uint8_t* p, const char* id) { return memcmp(p, id, 4) == 0; }

// One open file being read.
struct reader {
    int h;
    int64_t size;
    bool read(void* buf, size_t n) const { return v3_read(buf, 1, n, h) == n; }
    void skip(int64_t n) const { v3_seek(h, n, V3_SEEK_CUR); }
};

// Byte orders of the data being read.
enum byte_order : int { kLittle, kBig };

// What a reader creates into.
struct target {
    const char* name;
    int mod_num;
    int slot;
    psynth_net* net;
};

// The file name after the last '/'.
const char* file_name_of(const char* path) {
    const char* slash = strrchr(path, '/');
    return slash ? slash + 1 : path;
}

// ---- Sample creation helpers ----

int frame_bytes(int bits, int channels) { return bits / 8 * channels; }

uint8_t type_for(int bits, int channels) {
    int format = bits == 32 ? PSYNTH_SAMPLER_FORMAT_FLOAT32 : bits == 16 ? PSYNTH_SAMPLER_FORMAT_INT16 : PSYNTH_SAMPLER_FORMAT_INT8;
    return (uint8_t)((format << PSYNTH_SAMPLER_FORMAT_SHIFT) | (channels == 2 ? PSYNTH_SAMPLER_STEREO : 0));
}

void copy_name(char* dest, const char* name) {
    memset(dest, 0, PSYNTH_SAMPLE_NAME_SIZE);
    if (name) memcpy(dest, name, strnlen(name, PSYNTH_SAMPLE_NAME_SIZE));  // cut to 22, unterminated when full
}

bool make_instrument(const char* name, int mod_num, psynth_net* net) {
    if (psynth_new_chunk(mod_num, PSYNTH_SAMPLER_INSTRUMENT_CHUNK, sizeof(psynth_sampler_instrument), 0, 0, net)) return false;
    auto* ins = (psynth_sampler_instrument*)psynth_get_chunk(mod_num, PSYNTH_SAMPLER_INSTRUMENT_CHUNK, net);
    psynth_sampler_write_default_instrument(ins);
    copy_name(ins->name, name);
    return true;
}

psynth_sampler_instrument* instrument_of(int mod_num, psynth_net* net) {
    int size = 0;
    void* p = psynth_get_chunk(mod_num, PSYNTH_SAMPLER_INSTRUMENT_CHUNK, net);
    if (!p || psynth_get_chunk_info(mod_num, PSYNTH_SAMPLER_INSTRUMENT_CHUNK, &size, nullptr, nullptr, net) ||
        size < (int)sizeof(psynth_sampler_instrument)) return nullptr;
    return (psynth_sampler_instrument*)p;
}

psynth_sampler_sample* header_of(int slot, int mod_num, psynth_net* net) {
    int size = 0;
    int chunk = psynth_sampler_header_chunk(slot);
    void* p = psynth_get_chunk(mod_num, chunk, net);
    if (!p || psynth_get_chunk_info(mod_num, chunk, &size, nullptr, nullptr, net) || size < PSYNTH_SAMPLER_HEADER_FIELDS) return nullptr;
    return (psynth_sampler_sample*)p;
}

// Sample count = one more than the highest slot whose header chunk exists.
void update_sample_count(psynth_sampler_instrument* ins, int mod_num, psynth_net* net) {
    int count = 0;
    for (int s = 0; s < PSYNTH_SAMPLER_SAMPLES; s++) {
        if (psynth_get_chunk(mod_num, psynth_sampler_header_chunk(s), net)) count = s + 1;
    }
    ins->samples_num = (uint16_t)count;
}

// ---- Value conversions, in place in the data chunk ----

// 24-bit values packed at the start of `data` become floats × 2^−23, four bytes each,
// from the last value backwards so that no value is overwritten before it is read.
void int24_to_float(uint8_t* data, int64_t values, byte_order order) {
    for (int64_t i = values - 1; i >= 0; i--) {
        const uint8_t* b = data + 3 * i;
        uint32_t u = order == kLittle ? (b[0] | b[1] << 8 | (uint32_t)b[2] << 16) : (b[2] | b[1] << 8 | (uint32_t)b[0] << 16);
        int32_t v = (int32_t)(u << 8) >> 8;  // sign-extend from 24 bits
        float f = (float)v * kInt24Scale;
        memcpy(data + 4 * i, &f, sizeof(f));
    }
}

void swap_values(uint8_t* data, int64_t values, int bytes) {
    for (int64_t i = 0; i < values; i++) {
        uint8_t* v = data + i * bytes;
        for (int a = 0, b = bytes - 1; a < b; a++, b--) {
            uint8_t t = v[a];
            v[a] = v[b];
            v[b] = t;
        }
    }
}

void flip_signs(uint8_t* data, int64_t count) {
    for (int64_t i = 0; i < count; i++) data[i] ^= kSignFlip;  // b − 128 as a signed byte
}

// Reads `size` bytes of sample values (`bits` 8, 16, 24, 32) into a new sample and
// converts them: 24-bit becomes float, `order` big swaps bytes, `unsigned8` flips signs.
int read_values(const reader& r, uint32_t size, int bits, int channels, int rate, byte_order order, bool unsigned8,
                const target& t) {
    const int in_bytes = bits / 8;
    const int stored_bits = bits == 24 ? 32 : bits;
    const int64_t values = size / in_bytes;
    const int64_t stored = values * (stored_bits / 8);
    const int64_t wanted = values * in_bytes;
    if (stored > INT_MAX) {
        report(PSYNTH_SAMPLE_MSG_CANT_CREATE);
        return 1;
    }
    uint8_t* data = (uint8_t*)psynth_sample_create(t.name, (int)stored, stored_bits, channels, rate, t.slot, t.mod_num, t.net);
    if (!data) return 1;
    int64_t got = (int64_t)v3_read(data, 1, (size_t)wanted, r.h);
    if (got < wanted) memset(data + got, 0, (size_t)(wanted - got));  // a cut-short file leaves silence, not garbage
    r.skip(size - wanted);
    if (bits == 24) int24_to_float(data, values, order);
    else if (order == kBig && in_bytes > 1) swap_values(data, values, in_bytes);
    if (bits == 8 && unsigned8) flip_signs(data, values);
    if (got < wanted) {
        report(PSYNTH_SAMPLE_MSG_CUT_SHORT);
        return 1;
    }
    return 0;
}

bool bits_supported(int bits) {
    if (bits == 8 || bits == 16 || bits == 24 || bits == 32) return true;
    report(PSYNTH_SAMPLE_MSG_BITS, bits);
    return false;
}

bool channels_supported(int channels) {
    if (channels == 1 || channels == 2) return true;
    report(PSYNTH_SAMPLE_MSG_CHANNELS, channels);
    return false;
}

int clamp_rate(uint32_t rate) { return rate > INT_MAX ? INT_MAX : (int)rate; }

// ---- WAV ----

int read_wav(const reader& r, const target& t) {
    int tag = kWavTagPcm, channels = 1, rate = PSYNTH_SAMPLE_DEFAULT_RATE, bits = 16;
    bool have_data = false;
    v3_seek(r.h, kRiffHeader, V3_SEEK_SET);
    uint8_t head[kChunkHeader];
    while (r.read(head, sizeof(head))) {
        uint32_t size = le32(head + 4);
        if (is_id(head, "fmt ")) {
            uint8_t f[kFmtFields];
            if (size < kFmtFields) {
                report(PSYNTH_SAMPLE_MSG_BAD_FMT, (int)size);
                return 1;
            }
            if (!r.read(f, sizeof(f))) {
                report(PSYNTH_SAMPLE_MSG_CUT_SHORT);
                return 1;
            }
            tag = le16(f);
            channels = le16(f + 2);
            rate = clamp_rate(le32(f + 4));
            bits = le16(f + 14);
            if (!bits_supported(bits)) return 1;
            if (tag != kWavTagPcm) {
                report(PSYNTH_SAMPLE_MSG_NOT_PCM);
                return 1;
            }
            if (!channels_supported(channels)) return 1;
            r.skip(((int64_t)size - kFmtFields + 1) & ~(int64_t)1);  // an extended header, to an even size
        } else if (is_id(head, "data") && !have_data) {
            if ((int64_t)size >= r.size) {
                report(PSYNTH_SAMPLE_MSG_BAD_DATA, (int)size);
                return 1;
            }
            have_data = true;
            if (read_values(r, size, bits, channels, rate, kLittle, true, t)) return 1;
            if (size & 1) r.skip(1);  // the pad byte after an odd size
        } else {
            r.skip(size);  // other chunks, later data chunks too: by their size, without padding
        }
    }
    if (!have_data) {
        report(PSYNTH_SAMPLE_MSG_NO_DATA);
        return 1;
    }
    return 0;
}

// ---- AIFF / AIFC ----

// The 80-bit extended rate (bytes in big-endian order) as a whole number of Hz: sign,
// exponent re-biased for a 32-bit float and the 23 mantissa bits after the explicit
// integer bit make a float, which is rounded.
int extended_rate(const uint8_t* b) {
    uint32_t sign = b[0] >> 7;
    int exponent = ((b[0] & 0x7F) << 8 | b[1]) - kExtendedBiasShift;
    uint64_t mantissa = 0;
    for (int i = 2; i < 10; i++) mantissa = mantissa << 8 | b[i];
    if (exponent <= 0) return 0;                                     // zero and values below 2^−126
    if (exponent >= kFloatMaxExponent || sign) return exponent >= kFloatMaxExponent && !sign ? INT_MAX : 0;
    uint32_t bits = (uint32_t)exponent << 23 | ((uint32_t)(mantissa >> 40) & 0x7FFFFF);
    float f;
    memcpy(&f, &bits, sizeof(f));
    return f >= (float)INT_MAX ? INT_MAX : (int)std::lround(f);
}

int read_aiff(const reader& r, const uint8_t* file_head, const target& t) {
    const uint8_t* form_type = file_head + 8;
    byte_order order;
    if (is_id(form_type, "AIFF")) order = kBig;
    else if (is_id(form_type, "AIFC")) order = kLittle;  // read with no byte swapping at all
    else {
        char text[5];
        fourcc_text(form_type, text);
        report(PSYNTH_SAMPLE_MSG_UNKNOWN_FORM, text);
        return 1;
    }
    auto u16 = [order](const uint8_t* p) { return order == kBig ? be16(p) : le16(p); };
    auto u32 = [order](const uint8_t* p) { return order == kBig ? be32(p) : le32(p); };
    int64_t remaining = (int64_t)u32(file_head + 4) - 4;  // the form's size counts its type
    int channels = 1, bits = 8, rate = PSYNTH_SAMPLE_DEFAULT_RATE;
    bool have_data = false;
    v3_seek(r.h, kRiffHeader, V3_SEEK_SET);
    uint8_t head[kChunkHeader];
    while (remaining >= kChunkHeader && r.read(head, sizeof(head))) {
        int64_t size = u32(head + 4);
        int64_t padded = size + (size & 1);
        remaining -= kChunkHeader + padded;
        if (is_id(head, "COMM")) {
            uint8_t c[kCommFields];
            if (!r.read(c, sizeof(c))) {
                report(PSYNTH_SAMPLE_MSG_CUT_SHORT);
                return 1;
            }
            int64_t used = kCommFields;
            channels = u16(c);
            bits = u16(c + 6);
            uint8_t ext[10];
            for (int i = 0; i < 10; i++) ext[i] = order == kBig ? c[8 + i] : c[17 - i];
            rate = extended_rate(ext);
            if (!bits_supported(bits)) return 1;
            if (order == kLittle) {
                uint8_t compression[5] = {};
                uint8_t count = 0;
                if (!r.read(compression, 4) || !r.read(&count, 1)) {
                    report(PSYNTH_SAMPLE_MSG_CUT_SHORT);
                    return 1;
                }
                if (!is_id(compression, "NONE") && !is_id(compression, "fl32") && !is_id(compression, "FL32")) {
                    char text[5];
                    fourcc_text(compression, text);
                    report(PSYNTH_SAMPLE_MSG_COMPRESSION, text);
                    return 1;
                }
                r.skip(count);  // the compression's name
                used += 5 + count;
            }
            if (!channels_supported(channels)) return 1;
            if (padded > used) r.skip(padded - used);
        } else if (is_id(head, "SSND") && !have_data) {
            uint8_t s[kSsndFields];
            if (!r.read(s, sizeof(s))) {
                report(PSYNTH_SAMPLE_MSG_CUT_SHORT);
                return 1;
            }
            if (size >= r.size || size < kSsndFields) {
                report(PSYNTH_SAMPLE_MSG_BAD_DATA, (int)size);
                return 1;
            }
            have_data = true;
            // The offset and block size are not used: the values follow them.
            if (read_values(r, (uint32_t)(size - kSsndFields), bits, channels, rate, order, false, t)) return 1;
            r.skip(size & 1);
        } else {
            r.skip(padded);
        }
    }
    if (!have_data) {
        report(PSYNTH_SAMPLE_MSG_NO_DATA);
        return 1;
    }
    return 0;
}

// ---- XI ----

template <class T>
void delta_decode(uint8_t* data, int64_t values) {
    using U = std::make_unsigned_t<T>;
    U sum = 0;  // a running sum that wraps like the tracker's own
    for (int64_t i = 0; i < values; i++) {
        U d;
        memcpy(&d, data + i * sizeof(T), sizeof(T));
        sum = (U)(sum + d);
        memcpy(data + i * sizeof(T), &sum, sizeof(T));
    }
}

int read_xi(const reader& r, int flags, const target& t) {
    uint8_t head[kXiSignatureRest + PSYNTH_SAMPLE_NAME_SIZE + kXiTrackerBlock];
    v3_seek(r.h, kRiffHeader, V3_SEEK_SET);
    if (!r.read(head, sizeof(head))) {
        report(PSYNTH_SAMPLE_MSG_CUT_SHORT);
        return 1;
    }
    const uint8_t* name = head + kXiNameOffset - kRiffHeader;
    const uint8_t* version = head + sizeof(head) - 2;
    char ins_name[PSYNTH_SAMPLE_NAME_SIZE + 1] = {};
    memcpy(ins_name, name, PSYNTH_SAMPLE_NAME_SIZE);
    if (!make_instrument(ins_name, t.mod_num, t.net)) {
        report(PSYNTH_SAMPLE_MSG_CANT_CREATE);
        return 1;
    }
    auto* ins = instrument_of(t.mod_num, t.net);
    uint8_t* record = (uint8_t*)ins;
    uint8_t count_bytes[2];
    bool ok = r.read(record + kXiInstrumentOffset, kXiInstrumentBytes);
    ins->volume = kFullVolume;
    if (ok && version[0] == 'P' && version[1] == 'P') {
        ok = r.read(record + kXiExtraOffset, kXiExtraBytes);
        r.skip(kXiExtraReserved);
    } else {
        r.skip(kXiReserved);
    }
    ok = ok && r.read(count_bytes, sizeof(count_bytes));
    ins->samples_num = 0;
    psynth_sampler_build_envelope_tables(ins);
    if (!ok) {
        report(PSYNTH_SAMPLE_MSG_CUT_SHORT);
        return 1;
    }
    int count = le16(count_bytes);
    uint32_t byte_lengths[PSYNTH_SAMPLER_SAMPLES] = {};
    int64_t total = 0;
    for (int s = 0; s < count; s++) {
        uint8_t h[PSYNTH_SAMPLER_HEADER_FIELDS];
        if (!r.read(h, sizeof(h))) {
            report(PSYNTH_SAMPLE_MSG_CUT_SHORT);
            return 1;
        }
        if (s >= PSYNTH_SAMPLER_SAMPLES) continue;  // the Sampler holds 16; their data comes first
        const uint8_t type = h[14];
        const int format = (type & PSYNTH_SAMPLER_FORMAT_MASK) >> PSYNTH_SAMPLER_FORMAT_SHIFT;
        const int storage = psynth_sampler_storage_flags(type);
        const uint32_t length = le32(h);
        if (!storage) {
            report(PSYNTH_SAMPLE_MSG_XI_FORMAT, type);
            return 1;
        }
        total += length;
        if (total >= r.size) {  // more data than the whole file holds: refused before allocating it
            report(PSYNTH_SAMPLE_MSG_CUT_SHORT);
            return 1;
        }
        if (psynth_new_chunk(t.mod_num, psynth_sampler_header_chunk(s), sizeof(psynth_sampler_sample), 0, 0, t.net) ||
            (length && psynth_new_chunk(t.mod_num, psynth_sampler_data_chunk(s), (int)length, storage,
                                        PSYNTH_SAMPLE_DEFAULT_RATE, t.net))) {
            report(PSYNTH_SAMPLE_MSG_CANT_CREATE);
            return 1;
        }
        auto* header = header_of(s, t.mod_num, t.net);
        memcpy(header, h, sizeof(h));
        if (flags & PSYNTH_SAMPLE_LOAD_XI_FULL_VOLUME) header->volume = kFullVolume;
        // Lengths and loops count frames from here on, so what was made stays playable
        // even if the data turns out to be cut short.
        const int frame = (format == PSYNTH_SAMPLER_FORMAT_INT8 ? 1 : format == PSYNTH_SAMPLER_FORMAT_INT16 ? 2 : 4) *
                          (type & PSYNTH_SAMPLER_STEREO ? 2 : 1);
        header->length /= frame;
        header->loop_start /= frame;
        header->loop_length /= frame;
        byte_lengths[s] = length;
        ins->samples_num = (uint16_t)(s + 1);
    }
    for (int s = 0; s < ins->samples_num; s++) {
        if (!byte_lengths[s]) continue;
        uint8_t* data = (uint8_t*)psynth_get_chunk(t.mod_num, psynth_sampler_data_chunk(s), t.net);
        int64_t got = (int64_t)v3_read(data, 1, byte_lengths[s], r.h);
        const int format = (header_of(s, t.mod_num, t.net)->type & PSYNTH_SAMPLER_FORMAT_MASK) >> PSYNTH_SAMPLER_FORMAT_SHIFT;
        if (format == PSYNTH_SAMPLER_FORMAT_INT8) delta_decode<int8_t>(data, got);
        else if (format == PSYNTH_SAMPLER_FORMAT_INT16) delta_decode<int16_t>(data, got / 2);
        if (got < byte_lengths[s]) {
            memset(data + got, 0, byte_lengths[s] - got);
            report(PSYNTH_SAMPLE_MSG_CUT_SHORT);
            return 1;
        }
    }
    return 0;
}

// ---- RAW and image ----

bool image_start(const uint8_t* head, size_t size) {
    return image_jpeg_signature(head, size) || (size >= 4 && is_id(head, "IFF.")) ||
           (size >= 3 && (memcmp(head, "IF.", 3) == 0 || memcmp(head, "if.", 3) == 0));
}

// The image's brightness: (R + G + B) ÷ 3 − 127 per pixel, 128 made 127.
int load_image(const char* path, const target& t) {
    image_jpeg image;
    char why[kErrorSize];
    if (image_jpeg_load(path, IMAGE_JPEG_RGB, &image, why, sizeof(why))) {
        tarvik_log("JPEG: %s\n", why);
        report(PSYNTH_SAMPLE_BOX_JPEG_ERROR);
        return 1;
    }
    int64_t frames = (int64_t)image.width * image.height;
    tarvik_mutex* mutex = psynth_sampler_get_mutex(t.mod_num, t.net);
    tarvik_mutex_lock(mutex);
    if (t.slot == PSYNTH_SAMPLE_SLOT_INSTRUMENT) psynth_free_chunks(t.mod_num, t.net);
    int8_t* data = (int8_t*)psynth_sample_create(t.name, (int)frames, 8, 1, PSYNTH_SAMPLE_DEFAULT_RATE, t.slot, t.mod_num, t.net);
    if (data) {
        const uint8_t* px = image.pixels;
        for (int64_t i = 0; i < frames; i++, px += 3) {
            int v = (px[0] + px[1] + px[2]) / 3 - 127;
            data[i] = (int8_t)(v == 128 ? 127 : v);
        }
    }
    tarvik_mutex_unlock(mutex);
    image_jpeg_free(&image);
    if (!data) report(PSYNTH_SAMPLE_BOX_CANT_CREATE);
    return data ? 0 : 1;
}

void start_load() {
    g_error[0] = 0;
    g_not_recognized = false;
}

bool valid_target(int mod_num, int slot, psynth_net* net) {
    if (slot < PSYNTH_SAMPLE_SLOT_INSTRUMENT || slot >= PSYNTH_SAMPLER_SAMPLES || !psynth_sampler_get_mutex(mod_num, net)) {
        report(PSYNTH_SAMPLE_MSG_CANT_CREATE);
        return false;
    }
    return true;
}

int open_reader(const char* path, reader* r) {
    r->h = v3_open(path, "rb");
    if (!r->h) {
        report(PSYNTH_SAMPLE_MSG_CANT_OPEN, path);
        return 1;
    }
    v3_seek(r->h, 0, V3_SEEK_END);
    r->size = v3_tell(r->h);
    v3_rewind(r->h);
    return 0;
}

}  // namespace

// ---- Public ----

psynth_sample_file_type psynth_sample_file_type_of(const uint8_t* head, size_t size) {
    if (size >= 10 && memcmp(head, "Ext", 3) == 0 && head[9] == 'I') return PSYNTH_SAMPLE_FILE_XI;
    if (size >= 11 && is_id(head, "RIFF") && memcmp(head + 8, "WAV", 3) == 0) return PSYNTH_SAMPLE_FILE_WAV;
    if (size >= 4 && is_id(head, "FORM")) {
        return size >= 12 && is_id(head + 8, "AIFC") ? PSYNTH_SAMPLE_FILE_AIFC : PSYNTH_SAMPLE_FILE_AIFF;
    }
    if (image_start(head, size)) return PSYNTH_SAMPLE_FILE_JPEG;
    return PSYNTH_SAMPLE_FILE_UNKNOWN;
}

psynth_sample_file_type psynth_sample_file_type_of_path(const char* path) {
    int h = v3_open(path, "rb");
    if (!h) return PSYNTH_SAMPLE_FILE_UNKNOWN;
    uint8_t head[PSYNTH_SAMPLE_HEAD_SIZE];
    size_t n = v3_read(head, 1, sizeof(head), h);
    v3_close(h);
    return psynth_sample_file_type_of(head, n);
}

int psynth_sample_finetune_for_rate(int rate) {
    const uint32_t* table = psynth_get_freq_table();
    int best = 0;
    int64_t best_distance = INT64_MAX;
    for (int i = 0; i < kPeriods; i++) {
        int p = kPeriods - i;
        int64_t f = table[p % PSYNTH_FREQ_TABLE_SIZE] >> (p / PSYNTH_FREQ_TABLE_SIZE);
        int64_t distance = f > rate ? f - rate : rate - f;
        if (distance < best_distance) {  // the first one on ties
            best_distance = distance;
            best = i;
        }
    }
    return kFinetunePerPeriod * (best % kPeriodsPerSemitone);
}

void* psynth_sample_create(const char* name, int bytes, int bits, int channels, int rate, int slot, int mod_num,
                           psynth_net* net) {
    bool ok = bytes >= 0 && (bits == 8 || bits == 16 || bits == 32) && (channels == 1 || channels == 2) &&
              slot >= PSYNTH_SAMPLE_SLOT_INSTRUMENT && slot < PSYNTH_SAMPLER_SAMPLES && psynth_sampler_get_mutex(mod_num, net);
    if (ok && (slot == PSYNTH_SAMPLE_SLOT_INSTRUMENT || !instrument_of(mod_num, net))) {
        ok = make_instrument(name, mod_num, net);  // a lost instrument record is remade for the new sample too
        if (slot == PSYNTH_SAMPLE_SLOT_INSTRUMENT) slot = 0;
    }
    const int header_chunk = psynth_sampler_header_chunk(slot < 0 ? 0 : slot);
    const int data_chunk = psynth_sampler_data_chunk(slot < 0 ? 0 : slot);
    const uint8_t type = type_for(bits, channels);
    const bool have_header = ok && !psynth_new_chunk(mod_num, header_chunk, sizeof(psynth_sampler_sample), 0, 0, net);
    ok = have_header && !psynth_new_chunk(mod_num, data_chunk, bytes, psynth_sampler_storage_flags(type), rate, net);
    if (!ok) {
        if (have_header) {
            psynth_free_chunk(mod_num, header_chunk, net);  // no header without its data
            if (psynth_sampler_instrument* ins = instrument_of(mod_num, net)) update_sample_count(ins, mod_num, net);
        }
        report(PSYNTH_SAMPLE_MSG_CANT_CREATE);
        return nullptr;
    }
    auto* h = (psynth_sampler_sample*)psynth_get_chunk(mod_num, header_chunk, net);
    const uint32_t frame = (uint32_t)frame_bytes(bits, channels);
    h->volume = kFullVolume;
    h->panning = kCentrePanning;
    h->type = type;
    h->finetune = (int8_t)psynth_sample_finetune_for_rate(rate);
    h->length = (uint32_t)bytes / frame;
    h->loop_start = 0;
    h->loop_length = 0;
    copy_name(h->name, name);
    update_sample_count(instrument_of(mod_num, net), mod_num, net);
    return psynth_get_chunk(mod_num, data_chunk, net);
}

int psynth_sample_load(const char* path, int mod_num, int slot, int flags, psynth_net* net) {
    start_load();
    if (!valid_target(mod_num, slot, net)) {
        g_not_recognized = true;
        return 1;
    }
    reader r;
    if (open_reader(path, &r)) return -1;
    uint8_t head[PSYNTH_SAMPLE_HEAD_SIZE] = {};
    size_t n = v3_read(head, 1, sizeof(head), r.h);
    psynth_sample_file_type type = psynth_sample_file_type_of(head, n);
    if (type == PSYNTH_SAMPLE_FILE_XI && slot != PSYNTH_SAMPLE_SLOT_INSTRUMENT) type = PSYNTH_SAMPLE_FILE_UNKNOWN;
    int result = 1;
    if (type == PSYNTH_SAMPLE_FILE_AIFC) type = PSYNTH_SAMPLE_FILE_AIFF;  // one reader for both forms
    if (type == PSYNTH_SAMPLE_FILE_XI || type == PSYNTH_SAMPLE_FILE_WAV || type == PSYNTH_SAMPLE_FILE_AIFF) {
        const target t = {file_name_of(path), mod_num, slot, net};
        tarvik_mutex* mutex = psynth_sampler_get_mutex(mod_num, net);
        tarvik_mutex_lock(mutex);
        if (type == PSYNTH_SAMPLE_FILE_XI || slot == PSYNTH_SAMPLE_SLOT_INSTRUMENT) psynth_free_chunks(mod_num, net);
        result = type == PSYNTH_SAMPLE_FILE_XI    ? read_xi(r, flags, t)
               : type == PSYNTH_SAMPLE_FILE_WAV ? read_wav(r, t)
                                                : read_aiff(r, head, t);
        tarvik_mutex_unlock(mutex);
    } else {
        report(PSYNTH_SAMPLE_MSG_NOT_RECOGNIZED);
    }
    v3_close(r.h);
    if (result) g_not_recognized = true;
    else g_error[0] = 0;
    return result;
}

int psynth_sample_load_raw(const char* path, int format, int channels, int mod_num, int slot, psynth_net* net) {
    start_load();
    if (!valid_target(mod_num, slot, net)) return 1;
    reader r;
    if (open_reader(path, &r)) return -1;
    uint8_t head[PSYNTH_SAMPLE_HEAD_SIZE] = {};
    size_t n = v3_read(head, 1, sizeof(head), r.h);
    const target t = {file_name_of(path), mod_num, slot, net};
    if (r.size > 0 && image_start(head, n)) {
        v3_close(r.h);
        return load_image(path, t);
    }
    static const int kBits[] = {32, 16, 8, 8};
    int result = 1;
    if (r.size <= 0) {
        report(PSYNTH_SAMPLE_BOX_EMPTY);
    } else if (format < PSYNTH_SAMPLE_RAW_FLOAT32 || format > PSYNTH_SAMPLE_RAW_UINT8 || (channels != 1 && channels != 2) ||
               r.size > INT_MAX) {
        report(PSYNTH_SAMPLE_BOX_CANT_CREATE);
    } else {
        tarvik_mutex* mutex = psynth_sampler_get_mutex(mod_num, net);
        tarvik_mutex_lock(mutex);
        if (slot == PSYNTH_SAMPLE_SLOT_INSTRUMENT) psynth_free_chunks(mod_num, net);
        v3_rewind(r.h);
        if (read_values(r, (uint32_t)r.size, kBits[format], channels, PSYNTH_SAMPLE_DEFAULT_RATE, kLittle,
                        format == PSYNTH_SAMPLE_RAW_UINT8, t) == 0) {
            result = 0;
        } else if (!psynth_get_chunk(mod_num, psynth_sampler_data_chunk(slot < 0 ? 0 : slot), net)) {
            report(PSYNTH_SAMPLE_BOX_CANT_CREATE);
        }
        tarvik_mutex_unlock(mutex);
    }
    v3_close(r.h);
    if (!result) g_error[0] = 0;
    return result;
}

int psynth_sample_new(int frames, int bits, int channels, int rate, int mod_num, int slot, psynth_net* net) {
    start_load();
    int64_t bytes = (int64_t)frames * frame_bytes(bits, channels);
    if (!valid_target(mod_num, slot, net) || frames < 0 || bytes > INT_MAX) {
        report(PSYNTH_SAMPLE_BOX_CANT_CREATE);
        return 1;
    }
    tarvik_mutex* mutex = psynth_sampler_get_mutex(mod_num, net);
    tarvik_mutex_lock(mutex);
    if (slot == PSYNTH_SAMPLE_SLOT_INSTRUMENT) psynth_free_chunks(mod_num, net);
    void* data = psynth_sample_create(PSYNTH_SAMPLE_NEW_NAME, (int)bytes, bits, channels, rate, slot, mod_num, net);
    tarvik_mutex_unlock(mutex);
    if (!data) {
        report(PSYNTH_SAMPLE_BOX_CANT_CREATE);
        return 1;
    }
    return 0;
}

bool psynth_sample_not_recognized() { return g_not_recognized; }

const char* psynth_sample_load_error() { return g_error; }

int psynth_sample_save_wav(const char* path, int mod_num, int slot, psynth_net* net) {
    if (!psynth_sampler_get_mutex(mod_num, net) || slot < 0 || slot >= PSYNTH_SAMPLER_SAMPLES) return 1;
    const psynth_sampler_sample* h = header_of(slot, mod_num, net);
    const uint8_t* data = (const uint8_t*)psynth_get_chunk(mod_num, psynth_sampler_data_chunk(slot), net);
    if (!instrument_of(mod_num, net) || !h || !data) return 1;
    int size = 0, rate = 0;
    const int format = (h->type & PSYNTH_SAMPLER_FORMAT_MASK) >> PSYNTH_SAMPLER_FORMAT_SHIFT;
    if (psynth_get_chunk_info(mod_num, psynth_sampler_data_chunk(slot), &size, nullptr, &rate, net) ||
        format > PSYNTH_SAMPLER_FORMAT_FLOAT32) {
        tarvik_log("%s", PSYNTH_SAMPLE_MSG_NO_PROPERTIES);
        return 1;
    }
    const int bytes = format == PSYNTH_SAMPLER_FORMAT_FLOAT32 ? 4 : format == PSYNTH_SAMPLER_FORMAT_INT16 ? 2 : 1;
    const int channels = h->type & PSYNTH_SAMPLER_STEREO ? 2 : 1;
    if (rate == 0) rate = PSYNTH_SAMPLE_DEFAULT_RATE;
    uint8_t w[kWavHeaderSize];
    memcpy(w, "RIFF", 4);
    put32(w + 4, (uint32_t)size + kWavSizeAfterRiff);
    memcpy(w + 8, "WAVEfmt ", 8);
    put32(w + 16, kFmtFields);
    put16(w + 20, format == PSYNTH_SAMPLER_FORMAT_FLOAT32 ? kWavTagFloat : kWavTagPcm);
    put16(w + 22, (uint32_t)channels);
    put32(w + 24, (uint32_t)rate);
    put32(w + 28, (uint32_t)bytes * (uint32_t)rate * (uint32_t)channels);
    put16(w + 32, (uint32_t)(bytes * channels));
    put16(w + 34, (uint32_t)bytes * 8);
    memcpy(w + 36, "data", 4);
    put32(w + 40, (uint32_t)size);

    v3_save save;
    int f = v3_save_begin(path, &save);
    bool ok = f && v3_write(w, 1, sizeof(w), f) == sizeof(w);
    if (ok && format == PSYNTH_SAMPLER_FORMAT_INT8) {
        uint8_t block[4096];  // written unsigned: 128 added to every value
        for (int done = 0; ok && done < size; done += (int)sizeof(block)) {
            int n = size - done < (int)sizeof(block) ? size - done : (int)sizeof(block);
            for (int i = 0; i < n; i++) block[i] = data[done + i] ^ kSignFlip;
            ok = v3_write(block, 1, (size_t)n, f) == (size_t)n;
        }
    } else if (ok) {
        ok = v3_write(data, 1, (size_t)size, f) == (size_t)size;
    }
    ok = v3_save_end(&save, ok) == 0;
    if (!ok) tarvik_log(PSYNTH_SAMPLE_MSG_CANT_SAVE, path);
    return ok ? 0 : 1;
}
