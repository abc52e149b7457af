// libFuzzer target: the RAW path into a Sampler (the first byte picks the data format and
// the channel count, the rest is the file), then a short piece of notes on it.
#include "fuzz_harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    return zelfon_fuzz_run("sample_raw", data, size);
}
