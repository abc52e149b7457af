// libFuzzer target: the configuration reader. Every key is read back as text and number, a
// key is changed and one removed, then a song is played at the sampling rate the file asks
// for ("frequency"), as the program opens its sound at that rate.
#include "fuzz_harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    return zelfon_fuzz_run("profile", data, size);
}
