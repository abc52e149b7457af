// The chunk container shared by song files, module files and the modules' data chunks:
// writing chunks, reading them back one block at a time with sizes checked against what
// the file still holds, and saving through the file layer's safe saves.
#include "song/chunks.h"

#include <cstring>

#include "engine/file.h"
#include "engine/memory.h"

// When the file layer cannot tell a file's length, no single chunk may claim more than this.
constexpr int64_t kUnknownFileRemaining = 256 << 20;

static void put_le32(uint8_t out[4], uint32_t v) {
    out[0] = (uint8_t)v;
    out[1] = (uint8_t)(v >> 8);
    out[2] = (uint8_t)(v >> 16);
    out[3] = (uint8_t)(v >> 24);
}

static uint32_t get_le32(const uint8_t in[4]) {
    return (uint32_t)in[0] | (uint32_t)in[1] << 8 | (uint32_t)in[2] << 16 | (uint32_t)in[3] << 24;
}

int zelfon_write_chunk_header(const char* id, uint32_t size, int fd) {
    if (v3_write(id, 1, 4, fd) != 4) return 1;
    uint8_t size_bytes[4];
    put_le32(size_bytes, size);
    if (v3_write(size_bytes, 1, 4, fd) != 4) return 2;
    return 0;
}

int zelfon_write_chunk(const char* id, uint32_t size, const void* data, int fd) {
    if (int err = zelfon_write_chunk_header(id, size, fd)) return err;
    if (size > 0 && (!data || v3_write(data, 1, size, fd) != size)) return 3;
    return 0;
}

int zelfon_write_int_array_chunk(const char* id, const int32_t* values, int count, int fd) {
    if (count < 0) count = 0;
    if (int err = zelfon_write_chunk_header(id, (uint32_t)count * 4, fd)) return err;
    for (int i = 0; i < count; i++) {
        uint8_t bytes[4];
        put_le32(bytes, (uint32_t)values[i]);
        if (v3_write(bytes, 1, 4, fd) != 4) return 3;
    }
    return 0;
}

int zelfon_write_int_chunk(const char* id, int32_t value, int fd) {
    uint8_t bytes[4];
    put_le32(bytes, (uint32_t)value);
    return zelfon_write_chunk(id, 4, bytes, fd);
}

// ---- Reading ----

void zelfon_chunk_reader_init(int fd, zelfon_chunk_reader* reader) {
    memset(reader, 0, sizeof(*reader));
    reader->fd = fd;
    int64_t pos = v3_tell(fd);
    int64_t end = -1;
    if (pos >= 0 && v3_seek(fd, 0, V3_SEEK_END) == 0) end = v3_tell(fd);
    if (pos >= 0) v3_seek(fd, pos, V3_SEEK_SET);
    reader->remaining = (pos >= 0 && end >= pos) ? end - pos : kUnknownFileRemaining;
}

void zelfon_chunk_reader_drop(zelfon_chunk_reader* reader) {
    mem_free(reader->data);
    reader->data = nullptr;
}

void* zelfon_chunk_reader_take(zelfon_chunk_reader* reader) {
    void* data = reader->data;
    reader->data = nullptr;
    return data;
}

int load_block(zelfon_chunk_reader* reader) {
    zelfon_chunk_reader_drop(reader);
    reader->id = 0;
    reader->size = 0;
    uint8_t header[ZELFON_CHUNK_HEADER_SIZE];
    size_t got = v3_read(header, 1, sizeof(header), reader->fd);
    if (got == 0) return 0;  // the end of the file: there is no end chunk
    if (got < sizeof(header)) return -1;
    reader->remaining -= (int64_t)sizeof(header);
    uint32_t id = get_le32(header);
    uint32_t size = get_le32(header + 4);
    if (id != 0 && size != 0) {
        // A size beyond the file's end is a cut or damaged file: refuse it before allocating.
        if ((int64_t)size > reader->remaining) return -1;
        void* data = mem_new(MEM_DYNAMIC, size, "load_block");
        if (!data) return -1;
        if (v3_read(data, 1, size, reader->fd) != size) {
            mem_free(data);
            return -1;
        }
        reader->remaining -= size;
        reader->data = data;
    }
    reader->id = id;
    reader->size = size;
    return 0;
}

int32_t zelfon_chunk_int(const zelfon_chunk_reader* reader) {
    uint8_t bytes[4] = {0, 0, 0, 0};
    zelfon_chunk_copy(reader, bytes, sizeof(bytes));
    return (int32_t)get_le32(bytes);
}

int32_t zelfon_chunk_int_in(const zelfon_chunk_reader* reader, int32_t lo, int32_t hi) {
    int32_t v = zelfon_chunk_int(reader);
    return v < lo ? lo : v > hi ? hi : v;
}

int zelfon_chunk_ints(zelfon_chunk_reader* reader) {
    if (!reader->data) return 0;
    int count = (int)(reader->size / 4);
    uint8_t* bytes = (uint8_t*)reader->data;
    int32_t* values = (int32_t*)reader->data;
    for (int i = 0; i < count; i++) values[i] = (int32_t)get_le32(bytes + (size_t)i * 4);
    return count;
}

char* zelfon_chunk_take_text(zelfon_chunk_reader* reader) {
    if (!reader->data) return nullptr;
    size_t size = reader->size;
    char* text = (char*)zelfon_chunk_reader_take(reader);
    if (text[size - 1] != 0) {
        char* grown = (char*)mem_resize(text, size + 1);  // the added byte is zero
        if (!grown) mem_free(text);
        text = grown;
    }
    return text;
}

void zelfon_chunk_copy(const zelfon_chunk_reader* reader, void* dest, size_t size) {
    size_t n = reader->data ? (reader->size < size ? reader->size : size) : 0;
    if (n) memcpy(dest, reader->data, n);
    if (n < size) memset((uint8_t*)dest + n, 0, size - n);
}

void zelfon_chunk_swap_bytes(void* data, size_t size, int flags) {
    size_t width = (flags & ZELFON_CHUNK_STORAGE_32BIT) ? 4 : (flags & ZELFON_CHUNK_STORAGE_16BIT) ? 2 : 1;
    if (width == 1 || !data) return;
    uint8_t* p = (uint8_t*)data;
    for (size_t i = 0; i + width <= size; i += width) {
        for (size_t a = i, b = i + width - 1; a < b; a++, b--) {
            uint8_t t = p[a];
            p[a] = p[b];
            p[b] = t;
        }
    }
}

// ---- Saving through a temporary file ----

int zelfon_file_kind(const char* path) {
    int type = v3_get_file_type(path);
    if (type == V3_FILE_NONE) return ZELFON_FILE_CANT_OPEN;
    if (type != V3_FILE_REGULAR) return ZELFON_FILE_NOT_REGULAR;
    int fd = v3_open(path, "rb");
    if (!fd) return ZELFON_FILE_CANT_OPEN;
    char magic[4] = {};
    size_t got = v3_read(magic, 1, sizeof magic, fd);
    v3_close(fd);
    if (got == sizeof magic && memcmp(magic, ZELFON_SONG_MAGIC, 4) == 0) return ZELFON_FILE_SONG;
    if (got == sizeof magic && memcmp(magic, ZELFON_SYNTH_MAGIC, 4) == 0) return ZELFON_FILE_MODULE;
    return ZELFON_FILE_OTHER;
}

int zelfon_save_file_safely(const char* path, int (*write_body)(int fd, void* context), void* context) {
    v3_save save;
    int fd = v3_save_begin(path, &save);
    int body = fd ? write_body(fd, context) : 1;
    return v3_save_end(&save, body == 0) == 0 ? 0 : 1;
}
