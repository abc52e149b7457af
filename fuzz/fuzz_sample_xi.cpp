// libFuzzer target: the XI instrument reader into a Sampler, then a short piece of notes on it.
#include "fuzz_harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    return zelfon_fuzz_run("sample_xi", data, size);
}
