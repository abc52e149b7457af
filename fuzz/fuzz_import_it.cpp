// libFuzzer target: the IT reader, then half a second of the song it makes.
#include "import_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    return zelfon_fuzz_import(data, size, ZELFON_IMPORT_FORMAT_IT);
}
