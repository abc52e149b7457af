// libFuzzer target: a JPEG image through the RAW path (its brightness becomes an 8-bit
// sample), then a short piece of notes on it. Inputs that do not start like a JPEG are skipped.
#include "fuzz_harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    return zelfon_fuzz_run("sample_jpeg", data, size);
}
