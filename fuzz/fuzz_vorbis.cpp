// libFuzzer target: an Ogg Vorbis file into the Vorbis player, then a short piece of notes on it.
#include "fuzz_harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    return zelfon_fuzz_run("vorbis", data, size);
}
