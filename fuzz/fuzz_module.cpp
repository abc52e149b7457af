// libFuzzer target: the module file reader (position and links taken from the file), then
// a short piece of notes on the module it made.
#include "fuzz_harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    return zelfon_fuzz_run("module", data, size);
}
