// Sample values as files store them, turned into the three formats the Sampler plays:
// signed 8-bit, signed 16-bit and 32-bit float. The sample file readers decode whole
// blocks of a file through these; a-law and µ-law follow G.711.
//
// Error convention: none; the functions take valid codings (psynth_sample_coding_ok).
// Threads: any.
#pragma once

#include <cstdint>

enum psynth_sample_encoding : int {
    PSYNTH_SAMPLE_INT = 0,         // signed integers of 1, 2 or 4 bytes kept as they are
    PSYNTH_SAMPLE_UINT8,           // unsigned bytes: 128 is subtracted
    PSYNTH_SAMPLE_INT24_FLOAT,     // 24-bit integers become floats × 2^−23
    PSYNTH_SAMPLE_INT32_FLOAT,     // 32-bit integers become floats × 2^−31
    PSYNTH_SAMPLE_FLOAT,           // 4-byte floats, or 8-byte ones made 4-byte
    PSYNTH_SAMPLE_ULAW,            // G.711 µ-law bytes become 16-bit values
    PSYNTH_SAMPLE_ALAW,            // G.711 a-law bytes become 16-bit values
};

// How one value is stored in a file.
struct psynth_sample_coding {
    psynth_sample_encoding encoding;
    int bytes;        // per value in the file: 1, 2, 3, 4 or 8
    bool big_endian;
};

// True for a coding the decoder knows (an encoding with a byte count it takes).
bool psynth_sample_coding_ok(const psynth_sample_coding& c);
// Bits per value once decoded: 8, 16 or 32 (32: float, except 4-byte INT, kept as it is).
int psynth_sample_decoded_bits(const psynth_sample_coding& c);
// True when decoding changes no byte, so that the file's bytes can be read in directly.
bool psynth_sample_decode_is_copy(const psynth_sample_coding& c);
// Decodes `values` values from `in` into `out` (decoded_bits / 8 bytes each). `in` and
// `out` do not overlap.
void psynth_sample_decode(const psynth_sample_coding& c, const uint8_t* in, int64_t values, uint8_t* out);
// One G.711 byte as a 16-bit value.
int16_t psynth_sample_ulaw(uint8_t b);
int16_t psynth_sample_alaw(uint8_t b);
