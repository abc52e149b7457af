// The harness the import fuzzers share: imports one input as a song and, when it is one,
// renders a short piece of it in odd-sized requests, so that the Sampler and the playback
// engine meet whatever the readers let through.
#pragma once

#include <cstddef>
#include <cstdint>

#include "song/import.h"

// Imports `data` when its content is of `format` (other inputs are skipped) and renders
// about half a second of the song. Returns 0, as libFuzzer asks.
int zelfon_fuzz_import(const uint8_t* data, size_t size, zelfon_import_format format);
