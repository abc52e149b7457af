// The chunk container of song and module files: each chunk is a four-character id, a
// 32-bit little-endian byte count and that many bytes of data. Writers append chunks to an
// open file; the reader hands out one chunk at a time in a fresh block.
//
// Error convention: zelfon_write_chunk returns 0 or the step that failed (1 id, 2 size,
// 3 data); load_block returns 0, or −1 when a chunk is cut short or its block cannot be
// allocated; savers that go through zelfon_save_file_safely return 0 or 1.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

constexpr int ZELFON_CHUNK_HEADER_SIZE = 8;

// The id as the 32-bit little-endian value of its four characters, so ids can be switched on.
constexpr uint32_t zelfon_chunk_id(const char (&id)[5]) {
    return (uint32_t)(uint8_t)id[0] | (uint32_t)(uint8_t)id[1] << 8 | (uint32_t)(uint8_t)id[2] << 16 |
           (uint32_t)(uint8_t)id[3] << 24;
}

// Writes one chunk: the 4 characters of `id`, `size` and (when size > 0) the data.
// Returns 0, 1 when the id could not be written, 2 the size, 3 the data. Any thread.
int zelfon_write_chunk(const char* id, uint32_t size, const void* data, int fd);
// Only the id and size of a chunk whose data the caller writes next. Returns 0, 1 or 2.
int zelfon_write_chunk_header(const char* id, uint32_t size, int fd);
// A chunk holding one signed 32-bit little-endian value. Returns as zelfon_write_chunk.
int zelfon_write_int_chunk(const char* id, int32_t value, int fd);
// A chunk of `count` signed 32-bit little-endian values. Returns as zelfon_write_chunk.
int zelfon_write_int_array_chunk(const char* id, const int32_t* values, int count, int fd);

// Reading state: the current chunk and how many bytes the file still holds.
struct zelfon_chunk_reader {
    int fd;
    int64_t remaining;  // bytes left in the file after the current chunk
    uint32_t id;        // 0 at the end of the file
    uint32_t size;
    void* data;         // owned block of `size` bytes, null when id or size is 0
};

// Starts reading chunks at the file's current position. Any thread.
void zelfon_chunk_reader_init(int fd, zelfon_chunk_reader* reader);
// Frees the current block (if the caller did not take it) and forgets it.
void zelfon_chunk_reader_drop(zelfon_chunk_reader* reader);
// Takes the current block out of the reader: the caller owns it (null when none).
void* zelfon_chunk_reader_take(zelfon_chunk_reader* reader);
// Reads the next chunk, replacing (and freeing) the current block. At the end of the file
// the id becomes 0. Returns 0, or −1 when the header or data is cut short or the block
// cannot be allocated (a size beyond the rest of the file is never allocated).
int load_block(zelfon_chunk_reader* reader);

// The first 4 bytes of the current chunk as a signed little-endian value; missing bytes read as 0.
int32_t zelfon_chunk_int(const zelfon_chunk_reader* reader);
// The same, brought within lo..hi: values enter from files already in the range their users expect.
int32_t zelfon_chunk_int_in(const zelfon_chunk_reader* reader, int32_t lo, int32_t hi);
// Turns the current chunk's data into host-order 32-bit values in place and returns how many.
int zelfon_chunk_ints(zelfon_chunk_reader* reader);
// Takes the current chunk's data as a zero-terminated text (grown by a terminator when the
// file gave none); the caller owns it. Null for an empty chunk or when memory ran out.
char* zelfon_chunk_take_text(zelfon_chunk_reader* reader);
// Copies up to `size` bytes of the current chunk into `dest` and zeroes the rest of `dest`.
void zelfon_chunk_copy(const zelfon_chunk_reader* reader, void* dest, size_t size);

// Storage flags of a data chunk (set by its module): what its values are, for byte order.
enum : int {
    ZELFON_CHUNK_STORAGE_8BIT = 1,
    ZELFON_CHUNK_STORAGE_16BIT = 2,
    ZELFON_CHUNK_STORAGE_32BIT = 4,
    ZELFON_CHUNK_STORAGE_STEREO = 8,
};
// Reverses the bytes of every 16-bit (flag 2) or 32-bit (flag 4) value of `data`; other data
// is left alone. A trailing partial value stays as it is.
void zelfon_chunk_swap_bytes(void* data, size_t size, int flags);
// Whether data chunks need zelfon_chunk_swap_bytes between memory and file on this machine.
constexpr bool zelfon_chunk_needs_swap() { return std::endian::native != std::endian::little; }

// The magics that open song and module files (a chunk of size 0).
constexpr const char* ZELFON_SONG_MAGIC = "ZFON";
constexpr const char* ZELFON_SYNTH_MAGIC = "ZSYN";

// What a file is by its first four bytes. The loaders read whatever they are given (a file
// of another kind loads as an empty song); the command line and the studio ask this first.
enum : int {
    ZELFON_FILE_CANT_OPEN = 0,    // nothing at the path, or it cannot be read
    ZELFON_FILE_NOT_REGULAR = 1,  // a folder, a device or a FIFO: refused without opening it
    ZELFON_FILE_OTHER = 2,        // a regular file of another kind (or shorter than a magic)
    ZELFON_FILE_SONG = 3,         // starts with "ZFON"
    ZELFON_FILE_MODULE = 4,       // starts with "ZSYN"
};
// The kind of the file at `path` (virtual or plain). Any thread.
int zelfon_file_kind(const char* path);

// Writes a file through `write_body` as a safe save of the file layer (v3_save_begin): the
// target is replaced only when everything was written and synced, so that a failed save
// leaves the old file as it was. `write_body` returns 0 on success. Returns 0, or 1.
int zelfon_save_file_safely(const char* path, int (*write_body)(int fd, void* context), void* context);
