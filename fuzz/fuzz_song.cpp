// libFuzzer target: the song reader, then a short piece of the song it made (what a
// file leaves behind after an error is played too).
#include "fuzz_harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    return zelfon_fuzz_run("song", data, size);
}
