// libFuzzer target: the IT reader, then a short piece of the song it makes.
#include "fuzz_harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    return zelfon_fuzz_run("import_it", data, size);
}
