// Sample files built byte by byte for the sample reader tests and the fuzzers' seeds: an
// AIFC written little-endian (as the reader takes it) and XI instruments.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// `v` as `n` little-endian bytes.
std::string sw_le(uint32_t v, int n);

// An AIFC file at 22050 Hz, one channel of `bits`, with `compression` ("NONE", "fl32", ...)
// and the sound data `values`, every field little-endian.
std::string sw_aifc(const char* compression, int bits, const std::string& values);

struct sw_xi_sample {
    uint8_t type;
    uint32_t loop_start_bytes, loop_length_bytes;
    std::vector<int> values;  // 8-bit or 16-bit, interleaved when stereo
};
// An XI file whose sample data are stored as deltas; with `pp` the five extra bytes.
std::string sw_xi(bool pp, const std::vector<sw_xi_sample>& samples);
// Two samples: 8-bit mono with a forward loop, 16-bit stereo with a ping-pong loop.
extern const std::vector<sw_xi_sample> kSwXiSamples;
