// libFuzzer target: the TAR archive reader of disk 0. The input is registered as the
// archive; its member "song.zelfon" is read whole, measured, and loaded and played as a song.
#include "fuzz_harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    return zelfon_fuzz_run("tar", data, size);
}
