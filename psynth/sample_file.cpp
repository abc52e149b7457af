// Sample file loading and saving for the Sampler. Each reader walks its file through the
// virtual file layer, creates the sample through psynth_sample_create and fills the
// returned data chunk in place: values are read into the chunk and converted there
// (byte order, 24-bit to float, unsigned to signed, deltas to values).
#include "psynth/sample_file.h"

#include <algorithm>
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
#include "psynth/sample_edit.h"
#include "psynth/sample_values.h"
#include "psynth/sampler.h"

namespace {

constexpr int kErrorSize = 256;
char g_error[kErrorSize];
bool g_not_recognized;
bool g_quiet;  // a reading that may yet give way to another keeps its message off the log

// Finetune from the rate: the pitch-table period nearest to the rate, counted from 7680
// (ten octaves of 768) down; its position within a semitone (64 periods) gives the finetune.
constexpr int kPeriods = 7680;
constexpr int kPeriodsPerSemitone = 64;
constexpr int kFinetunePerPeriod = 2;

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
constexpr int kWavTagAlaw = 6;
constexpr int kWavTagUlaw = 7;
constexpr int kWavTagExtensible = 0xFFFE;
constexpr int kFmtExtensibleFields = 40;  // + size of the extension, valid bits, channel mask, sub-format
constexpr int kFmtSubFormat = 24;          // a GUID whose first two bytes are the format tag
constexpr uint8_t kSubFormatTail[14] = {0x00, 0x00, 0x00, 0x00, 0x10, 0x00, 0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71};
constexpr int kSmplFields = 36;     // "smpl": maker, product, period, unity note, fraction, SMPTE, loop count, extra
constexpr int kSmplLoopCount = 28;
constexpr int kSmplLoop = 24;       // cue id, type, first frame, last frame, fraction, play count
constexpr uint32_t kSmplPingPong = 1;
constexpr int kWavHeaderSize = 44;
constexpr int kWavSizeAfterRiff = 36;  // "WAVE", the fmt chunk and the data chunk's header

// AIFF / AIFC layout.
constexpr int kCommFields = 18;  // channels, frames, bits, 80-bit rate
constexpr int kSsndFields = 8;   // offset, block size
constexpr int kAifcCompression = 4;  // AIFC's COMM: the compression type, then its name
constexpr int kDecodeBlock = 24576;  // bytes decoded at a time: whole values of 1, 2, 3, 4 and 8 bytes

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
// Writing: the whole head up to the sample count.
constexpr const char* kXiSignature = "Extended Instrument: ";
constexpr const char* kXiTracker = "Zelfon";
constexpr uint8_t kXiEof = 0x1A;
constexpr int kXiTrackerOffset = 44;
constexpr int kXiTrackerName = 20;
constexpr int kXiVersionOffset = 64;
constexpr int kXiFileInstrument = 66;  // where the 208 bytes of the record stand in the file
constexpr int kXiHeadSize = kXiFileInstrument + kXiInstrumentBytes + kXiReserved + 2;

// ---- Errors ----

void report(const char* format, ...) {
    va_list args;
    va_start(args, format);
    vsnprintf(g_error, sizeof(g_error), format, args);
    va_end(args);
    size_t n = strlen(g_error);
    if (!g_quiet) tarvik_log(n && g_error[n - 1] == '\n' ? "%s" : "%s\n", g_error);  // message-box texts end in no newline
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

// ---- Reading values into a sample ----

// Where a file keeps its sample and how: what a reader finds before anything is created.
struct sample_layout {
    psynth_sample_coding coding;
    int channels;
    int rate;
    int64_t offset;  // of the first value
    uint32_t size;   // bytes of values
    // A loop the file gives ("smpl"), in frames with an inclusive end, checked against the
    // sample's length only when it is applied.
    bool loop;
    uint32_t loop_start, loop_last;
    uint8_t loop_type;
};

// Chunks of a slot taken out before a load into it and put back when it fails, so that
// a failed load leaves the instrument as it was.
struct slot_backup {
    int count;
    struct {
        int chunk;
        void* data;
        int flags, rate;
    } c[3];
};

slot_backup take_slot(const target& t) {
    slot_backup b = {};
    if (t.slot < 0) return b;
    int chunks[3] = {psynth_sampler_header_chunk(t.slot), psynth_sampler_data_chunk(t.slot), PSYNTH_SAMPLER_INSTRUMENT_CHUNK};
    const int count = instrument_of(t.mod_num, t.net) ? 2 : 3;  // a broken instrument record is remade: keep it too
    for (int i = 0; i < count; i++) {
        auto& e = b.c[b.count++];
        e.chunk = chunks[i];
        e.data = psynth_take_chunk(t.mod_num, chunks[i], &e.flags, &e.rate, t.net);
    }
    return b;
}

void put_back(const slot_backup& b, const target& t) {
    bool instrument_taken = false;
    for (int i = 0; i < b.count; i++) {
        psynth_put_chunk(t.mod_num, b.c[i].chunk, b.c[i].data, b.c[i].flags, b.c[i].rate, t.net);
        instrument_taken |= b.c[i].chunk == PSYNTH_SAMPLER_INSTRUMENT_CHUNK;
    }
    if (psynth_sampler_instrument* ins = instrument_taken ? nullptr : instrument_of(t.mod_num, t.net)) {
        update_sample_count(ins, t.mod_num, t.net);
    }
}

void drop(const slot_backup& b) {
    for (int i = 0; i < b.count; i++) mem_free(b.c[i].data);
}

// Reads and decodes up to `values` values at the file's position into `out`. Returns the
// whole values read.
int64_t read_decoded(const reader& r, const psynth_sample_coding& c, int64_t values, uint8_t* out) {
    if (psynth_sample_decode_is_copy(c)) return (int64_t)v3_read(out, 1, (size_t)(values * c.bytes), r.h) / c.bytes;
    uint8_t block[kDecodeBlock];
    const int64_t per_block = sizeof(block) / c.bytes;
    const int out_bytes = psynth_sample_decoded_bits(c) / 8;
    int64_t done = 0;
    while (done < values) {
        const int64_t n = values - done < per_block ? values - done : per_block;
        const int64_t whole = (int64_t)v3_read(block, 1, (size_t)(n * c.bytes), r.h) / c.bytes;
        psynth_sample_decode(c, block, whole, out + done * out_bytes);
        done += whole;
        if (whole < n) break;
    }
    return done;
}

// The file's loop on a sample of `frames` frames: a start beyond the sample or an end
// before the start drops it, an end beyond the sample is cut to the last frame.
void apply_loop(const sample_layout& l, psynth_sampler_sample* h) {
    const int64_t frames = h->length;
    const int64_t start = l.loop_start;
    const int64_t end = (int64_t)l.loop_last + 1 < frames ? (int64_t)l.loop_last + 1 : frames;
    if (!l.loop || start >= frames || end <= start) return;
    h->loop_start = (uint32_t)start;
    h->loop_length = (uint32_t)(end - start);
    h->type = (uint8_t)((h->type & ~PSYNTH_SAMPLER_LOOP_MASK) | l.loop_type);
}

// Creates the sample the layout describes and reads its values in. A file cut short
// leaves silence after what was read and fails; a failed load into a slot puts the
// slot back as it was. GUI thread, with the module's mutex held.
int read_layout(const reader& r, const sample_layout& l, const target& t) {
    const int bits = psynth_sample_decoded_bits(l.coding);
    const int64_t values = l.size / l.coding.bytes;
    const int64_t stored = values * (bits / 8);
    if (stored > INT_MAX) {
        report(PSYNTH_SAMPLE_MSG_CANT_CREATE);
        return 1;
    }
    const slot_backup backup = take_slot(t);
    uint8_t* data = (uint8_t*)psynth_sample_create(t.name, (int)stored, bits, l.channels, l.rate, t.slot, t.mod_num, t.net);
    if (!data) {
        put_back(backup, t);
        return 1;
    }
    v3_seek(r.h, l.offset, V3_SEEK_SET);
    const int64_t got = read_decoded(r, l.coding, values, data);
    if (got < values) {
        memset(data + got * (bits / 8), 0, (size_t)((values - got) * (bits / 8)));  // silence, not garbage
        report(PSYNTH_SAMPLE_MSG_CUT_SHORT);
        put_back(backup, t);
        return 1;
    }
    apply_loop(l, header_of(t.slot < 0 ? 0 : t.slot, t.mod_num, t.net));
    drop(backup);
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

// Integer values of 8, 16, 24 or 32 bits: 24-bit ones become floats, 32-bit ones are kept
// as they are or, with `int32_to_float`, become floats too.
psynth_sample_coding integer_coding(int bits, byte_order order, bool unsigned8, bool int32_to_float) {
    const bool big = order == kBig;
    if (bits == 8) return {unsigned8 ? PSYNTH_SAMPLE_UINT8 : PSYNTH_SAMPLE_INT, 1, false};
    if (bits == 24) return {PSYNTH_SAMPLE_INT24_FLOAT, 3, big};
    if (bits == 32 && int32_to_float) return {PSYNTH_SAMPLE_INT32_FLOAT, 4, big};
    return {PSYNTH_SAMPLE_INT, bits / 8, big};
}

// ---- WAV ----

// The coding of a WAV format tag's values (an extensible header's sub-format gives the
// tag). False, with the message reported, when nothing here decodes them.
bool wav_coding(int tag, int bits, bool extensible, psynth_sample_coding* c) {
    const bool pcm_bits = bits == 8 || bits == 16 || bits == 24 || bits == 32;
    if (tag == kWavTagPcm && pcm_bits) {
        *c = integer_coding(bits, kLittle, true, extensible);  // plain 32-bit PCM is kept as it is
        return true;
    }
    if (tag == kWavTagFloat && (bits == 32 || bits == 64)) {
        *c = {PSYNTH_SAMPLE_FLOAT, bits / 8, false};
        return true;
    }
    if ((tag == kWavTagAlaw || tag == kWavTagUlaw) && bits == 8) {
        *c = {tag == kWavTagAlaw ? PSYNTH_SAMPLE_ALAW : PSYNTH_SAMPLE_ULAW, 1, false};
        return true;
    }
    const bool known = tag == kWavTagPcm || tag == kWavTagFloat || tag == kWavTagAlaw || tag == kWavTagUlaw;
    if (known || !pcm_bits) report(PSYNTH_SAMPLE_MSG_BITS, bits);
    else report(PSYNTH_SAMPLE_MSG_NOT_PCM);
    return false;
}

// The first loop of a "smpl" chunk of `size` bytes at the file's position; a chunk too
// short for one loop gives none.
void read_smpl(const reader& r, uint32_t size, sample_layout* l) {
    uint8_t s[kSmplFields + kSmplLoop];
    if (size < sizeof(s) || !r.read(s, sizeof(s)) || le32(s + kSmplLoopCount) == 0) return;
    const uint8_t* loop = s + kSmplFields;
    l->loop = true;
    l->loop_type = le32(loop + 4) == kSmplPingPong ? PSYNTH_SAMPLER_LOOP_PINGPONG : PSYNTH_SAMPLER_LOOP_FORWARD;
    l->loop_start = le32(loop + 8);
    l->loop_last = le32(loop + 12);
}

int parse_wav(const reader& r, sample_layout* l) {
    psynth_sample_coding coding = {PSYNTH_SAMPLE_INT, 2, false};
    int channels = 1, rate = PSYNTH_SAMPLE_DEFAULT_RATE;
    bool have_data = false;
    v3_seek(r.h, kRiffHeader, V3_SEEK_SET);
    uint8_t head[kChunkHeader];
    while (r.read(head, sizeof(head))) {
        const uint32_t size = le32(head + 4);
        const int64_t body = v3_tell(r.h);
        if (is_id(head, "fmt ")) {
            uint8_t f[kFmtExtensibleFields];
            if (size < kFmtFields) {
                report(PSYNTH_SAMPLE_MSG_BAD_FMT, (int)size);
                return 1;
            }
            int tag = 0;
            const bool extensible_size = size >= kFmtExtensibleFields;
            if (!r.read(f, kFmtFields) || ((tag = le16(f)) == kWavTagExtensible && extensible_size &&
                                           !r.read(f + kFmtFields, kFmtExtensibleFields - kFmtFields))) {
                report(PSYNTH_SAMPLE_MSG_CUT_SHORT);
                return 1;
            }
            const bool extensible = tag == kWavTagExtensible && extensible_size &&
                                    memcmp(f + kFmtSubFormat + 2, kSubFormatTail, sizeof(kSubFormatTail)) == 0;
            if (extensible) tag = le16(f + kFmtSubFormat);
            channels = le16(f + 2);
            rate = clamp_rate(le32(f + 4));
            if (!wav_coding(tag, le16(f + 14), extensible, &coding) || !channels_supported(channels)) return 1;
            v3_seek(r.h, body + ((size + 1) & ~1u), V3_SEEK_SET);  // an extended header, to an even size
        } else if (is_id(head, "data") && !have_data) {
            if ((int64_t)size >= r.size) {
                report(PSYNTH_SAMPLE_MSG_BAD_DATA, (int)size);
                return 1;
            }
            have_data = true;
            *l = {coding, channels, rate, body, size, l->loop, l->loop_start, l->loop_last, l->loop_type};
            v3_seek(r.h, body + size + (size & 1), V3_SEEK_SET);  // the pad byte after an odd size
        } else {
            if (is_id(head, "smpl") && !l->loop) read_smpl(r, size, l);
            v3_seek(r.h, body + size, V3_SEEK_SET);  // other chunks, later data chunks too: by their size, without padding
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

// How a FORM file is read: AIFF big-endian; AIFC first with no byte swapping at all (the
// program's own way, with NONE, fl32 and FL32 only), then, when that finds no sample,
// big-endian with the compression types other programs write.
enum aiff_reading : int { kAiff, kAifcAsIs, kAifc };

// The coding of an AIFC compression type read big-endian; false (reported) for others.
bool aifc_coding(const uint8_t* compression, int bits, psynth_sample_coding* c) {
    if (is_id(compression, "NONE") || is_id(compression, "twos") || is_id(compression, "sowt")) {
        if (!bits_supported(bits)) return false;
        *c = integer_coding(bits, is_id(compression, "sowt") ? kLittle : kBig, false, true);
        return true;
    }
    static const struct {
        const char* id;
        psynth_sample_coding coding;
    } kTypes[] = {{"fl32", {PSYNTH_SAMPLE_FLOAT, 4, true}}, {"FL32", {PSYNTH_SAMPLE_FLOAT, 4, true}},
                  {"fl64", {PSYNTH_SAMPLE_FLOAT, 8, true}}, {"FL64", {PSYNTH_SAMPLE_FLOAT, 8, true}},
                  {"ulaw", {PSYNTH_SAMPLE_ULAW, 1, false}}, {"ULAW", {PSYNTH_SAMPLE_ULAW, 1, false}},
                  {"alaw", {PSYNTH_SAMPLE_ALAW, 1, false}}, {"ALAW", {PSYNTH_SAMPLE_ALAW, 1, false}},
                  {"raw ", {PSYNTH_SAMPLE_UINT8, 1, false}}};
    for (const auto& type : kTypes) {
        if (is_id(compression, type.id)) {
            *c = type.coding;
            return true;
        }
    }
    char text[5];
    fourcc_text(compression, text);
    report(PSYNTH_SAMPLE_MSG_COMPRESSION, text);
    return false;
}

// Walks a FORM file's chunks. `understood` tells whether a COMM chunk that fits in the
// file was met (the reading's messages then describe the file).
int parse_aiff(const reader& r, const uint8_t* file_head, aiff_reading reading, sample_layout* l, bool* understood) {
    const byte_order order = reading == kAifcAsIs ? kLittle : kBig;
    auto u16 = [order](const uint8_t* p) { return order == kBig ? be16(p) : le16(p); };
    auto u32 = [order](const uint8_t* p) { return order == kBig ? be32(p) : le32(p); };
    int64_t remaining = (int64_t)u32(file_head + 4) - 4;  // the form's size counts its type
    int channels = 1, bits = 8, rate = PSYNTH_SAMPLE_DEFAULT_RATE;
    psynth_sample_coding coding = integer_coding(bits, order, false, false);
    bool have_data = false;
    *understood = false;
    v3_seek(r.h, kRiffHeader, V3_SEEK_SET);
    uint8_t head[kChunkHeader];
    while (remaining >= kChunkHeader && r.read(head, sizeof(head))) {
        const int64_t size = u32(head + 4);
        const int64_t padded = size + (size & 1);
        const int64_t body = v3_tell(r.h);
        remaining -= kChunkHeader + padded;
        if (is_id(head, "COMM")) {
            uint8_t c[kCommFields + kAifcCompression + 1];
            const int64_t used = kCommFields + (reading == kAiff ? 0 : kAifcCompression + 1);
            *understood = size >= used && body + size <= r.size;
            if (!r.read(c, (size_t)used)) {
                report(PSYNTH_SAMPLE_MSG_CUT_SHORT);
                return 1;
            }
            channels = u16(c);
            bits = u16(c + 6);
            uint8_t ext[10];
            for (int i = 0; i < 10; i++) ext[i] = order == kBig ? c[8 + i] : c[17 - i];
            rate = extended_rate(ext);
            const uint8_t* compression = c + kCommFields;
            if (reading == kAifc) {
                if (!aifc_coding(compression, bits, &coding)) return 1;
            } else {
                if (!bits_supported(bits)) return 1;
                if (reading == kAifcAsIs && !is_id(compression, "NONE") && !is_id(compression, "fl32") &&
                    !is_id(compression, "FL32")) {
                    char text[5];
                    fourcc_text(compression, text);
                    report(PSYNTH_SAMPLE_MSG_COMPRESSION, text);
                    return 1;
                }
                coding = integer_coding(bits, order, false, false);
            }
            if (!channels_supported(channels)) return 1;
            // The rest: the compression's name (a count byte and the text) and anything after it.
            const int64_t name = reading == kAifcAsIs ? c[kCommFields + kAifcCompression] : 0;
            v3_seek(r.h, body + (padded > used + name ? padded : used + name), V3_SEEK_SET);
        } else if (is_id(head, "SSND") && !have_data) {
            if (size >= r.size || size < kSsndFields) {
                report(PSYNTH_SAMPLE_MSG_BAD_DATA, (int)size);
                return 1;
            }
            // The offset and block size are not used: the values follow them.
            have_data = true;
            *l = {coding, channels, rate, body + kSsndFields, (uint32_t)(size - kSsndFields), false, 0, 0, 0};
            v3_seek(r.h, body + padded, V3_SEEK_SET);
        } else {
            v3_seek(r.h, body + padded, V3_SEEK_SET);
        }
    }
    if (!have_data) {
        report(PSYNTH_SAMPLE_MSG_NO_DATA);
        return 1;
    }
    return 0;
}

// The layout of a FORM file: AIFF as it is, AIFC first as the program has always read
// it and then as other programs write it. The message kept is that of the reading that
// understood the file.
int parse_form(const reader& r, const uint8_t* file_head, sample_layout* l) {
    const uint8_t* form_type = file_head + 8;
    bool understood = false;
    if (is_id(form_type, "AIFF")) return parse_aiff(r, file_head, kAiff, l, &understood);
    if (!is_id(form_type, "AIFC")) {
        char text[5];
        fourcc_text(form_type, text);
        report(PSYNTH_SAMPLE_MSG_UNKNOWN_FORM, text);
        return 1;
    }
    g_quiet = true;
    int result = parse_aiff(r, file_head, kAifcAsIs, l, &understood);
    char as_is[kErrorSize];
    snprintf(as_is, sizeof(as_is), "%s", g_error);
    if (result) result = parse_aiff(r, file_head, kAifc, l, &understood);
    g_quiet = false;
    if (result) {
        char message[kErrorSize];
        snprintf(message, sizeof(message), "%s", understood ? g_error : as_is);
        report("%s", message);
    }
    return result;
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

// Writes a file through the file layer's safe save: it takes the target's place only when
// `write(handle)` wrote all of it, so that a failed save leaves the old file. Returns 0 or 1 (logged).
template <class F>
int save_safely(const char* path, F write) {
    v3_save save;
    int f = v3_save_begin(path, &save);
    bool ok = f && write(f);
    ok = v3_save_end(&save, ok) == 0;
    if (!ok) tarvik_log(PSYNTH_SAMPLE_MSG_CANT_SAVE, path);
    return ok ? 0 : 1;
}

// A sample's values as XI deltas: 8-bit as bytes, others as 16-bit words (floats rounded
// to 16 bits first), the running difference wrapping like the reader's running sum.
bool write_deltas(const psynth_sample_frames& s, int f) {
    const bool int8 = s.format == PSYNTH_SAMPLER_FORMAT_INT8;
    const int64_t values = s.frames * s.channels;
    uint8_t block[4096];
    int16_t word[1];
    const psynth_sample_frames one = {(uint8_t*)word, PSYNTH_SAMPLER_FORMAT_INT16, 1, 1};
    const psynth_sample_frames each = {s.data, s.format, 1, values};
    int previous = 0, n = 0;
    for (int64_t i = 0; i < values; i++) {
        int v;
        if (int8) {
            v = ((const int8_t*)s.data)[i];
            block[n++] = (uint8_t)(v - previous);
        } else {
            psynth_sample_convert(each, i, one, 0, 1);
            v = word[0];
            put16(block + n, (uint32_t)(v - previous));
            n += 2;
        }
        previous = v;
        if (n + 2 > (int)sizeof(block) || i == values - 1) {
            if (v3_write(block, 1, (size_t)n, f) != (size_t)n) return false;
            n = 0;
        }
    }
    return true;
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
        // WAV and AIFF files are walked before anything changes; the values are read in after.
        sample_layout layout = {};
        const int parsed = type == PSYNTH_SAMPLE_FILE_WAV    ? parse_wav(r, &layout)
                           : type == PSYNTH_SAMPLE_FILE_AIFF ? parse_form(r, head, &layout)
                                                             : 0;
        tarvik_mutex* mutex = psynth_sampler_get_mutex(mod_num, net);
        tarvik_mutex_lock(mutex);
        if (type == PSYNTH_SAMPLE_FILE_XI || slot == PSYNTH_SAMPLE_SLOT_INSTRUMENT) psynth_free_chunks(mod_num, net);
        result = type == PSYNTH_SAMPLE_FILE_XI ? read_xi(r, flags, t) : parsed ? 1 : read_layout(r, layout, t);
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
    static const psynth_sample_coding kCodings[] = {
        {PSYNTH_SAMPLE_FLOAT, 4, false}, {PSYNTH_SAMPLE_INT, 2, false}, {PSYNTH_SAMPLE_INT, 1, false}, {PSYNTH_SAMPLE_UINT8, 1, false}};
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
        const sample_layout layout = {kCodings[format], channels, PSYNTH_SAMPLE_DEFAULT_RATE, 0, (uint32_t)r.size, false, 0, 0, 0};
        result = read_layout(r, layout, t);
        if (result && strcmp(g_error, PSYNTH_SAMPLE_MSG_CUT_SHORT) != 0) report(PSYNTH_SAMPLE_BOX_CANT_CREATE);
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

    return save_safely(path, [&](int f) {
        bool ok = v3_write(w, 1, sizeof(w), f) == sizeof(w);
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
        return ok;
    });
}

int psynth_sample_save_xi(const char* path, int mod_num, psynth_net* net) {
    const psynth_sampler_instrument* ins = psynth_sampler_get_mutex(mod_num, net) ? instrument_of(mod_num, net) : nullptr;
    if (!ins) {
        tarvik_log("%s", PSYNTH_SAMPLE_MSG_NO_PROPERTIES);
        return 1;
    }
    const int count = ins->samples_num < PSYNTH_SAMPLER_SAMPLES ? ins->samples_num : PSYNTH_SAMPLER_SAMPLES;
    // The five instrument bytes travel in the "PP" variant only when they are not the defaults.
    const bool pp = ins->volume != kFullVolume || ins->finetune || ins->panning != kCentrePanning || ins->relative_note;
    uint8_t head[kXiHeadSize] = {};
    memcpy(head, kXiSignature, strlen(kXiSignature));
    memcpy(head + kXiNameOffset, ins->name, strnlen(ins->name, PSYNTH_SAMPLE_NAME_SIZE));
    head[kXiNameOffset + PSYNTH_SAMPLE_NAME_SIZE] = kXiEof;
    memset(head + kXiTrackerOffset, ' ', kXiTrackerName);
    memcpy(head + kXiTrackerOffset, kXiTracker, strlen(kXiTracker));
    memcpy(head + kXiVersionOffset, pp ? "PP" : "\x02\x01", 2);
    memcpy(head + kXiFileInstrument, (const uint8_t*)ins + kXiInstrumentOffset, kXiInstrumentBytes);
    if (pp) memcpy(head + kXiFileInstrument + kXiInstrumentBytes, (const uint8_t*)ins + kXiExtraOffset, kXiExtraBytes);
    put16(head + kXiHeadSize - 2, (uint32_t)count);
    // Each sample as XI keeps it: 8-bit or 16-bit (floats become 16-bit), lengths in bytes,
    // values as deltas.
    struct xi_sample {
        psynth_sample_frames frames;
        uint8_t header[PSYNTH_SAMPLER_HEADER_FIELDS];
    } samples[PSYNTH_SAMPLER_SAMPLES] = {};
    for (int s = 0; s < count; s++) {
        const psynth_sampler_sample* h = header_of(s, mod_num, net);
        if (!h) continue;
        int size = 0;
        uint8_t* data = (uint8_t*)psynth_get_chunk(mod_num, psynth_sampler_data_chunk(s), net);
        psynth_get_chunk_info(mod_num, psynth_sampler_data_chunk(s), &size, nullptr, nullptr, net);
        const int format = (h->type & PSYNTH_SAMPLER_FORMAT_MASK) >> PSYNTH_SAMPLER_FORMAT_SHIFT;
        psynth_sample_frames& f = samples[s].frames;
        f = {data, format, h->type & PSYNTH_SAMPLER_STEREO ? 2 : 1, 0};
        const int fb = psynth_sample_frame_bytes(f);
        f.frames = data && fb ? std::min<int64_t>(h->length, size / fb) : 0;
        const int saved_format = format == PSYNTH_SAMPLER_FORMAT_INT8 ? format : PSYNTH_SAMPLER_FORMAT_INT16;
        const uint32_t saved_fb = (uint32_t)psynth_sample_value_bytes(saved_format) * (uint32_t)f.channels;
        uint8_t* out = samples[s].header;
        memcpy(out, h, PSYNTH_SAMPLER_HEADER_FIELDS);
        put32(out, (uint32_t)f.frames * saved_fb);
        put32(out + 4, h->loop_start * saved_fb);
        put32(out + 8, h->loop_length * saved_fb);
        out[14] = (uint8_t)((h->type & ~PSYNTH_SAMPLER_FORMAT_MASK) | saved_format << PSYNTH_SAMPLER_FORMAT_SHIFT);
    }
    return save_safely(path, [&](int f) {
        bool ok = v3_write(head, 1, sizeof(head), f) == sizeof(head);
        for (int s = 0; ok && s < count; s++) ok = v3_write(samples[s].header, 1, PSYNTH_SAMPLER_HEADER_FIELDS, f) == PSYNTH_SAMPLER_HEADER_FIELDS;
        for (int s = 0; ok && s < count; s++) ok = write_deltas(samples[s].frames, f);
        return ok;
    });
}
