// Zelfon's entry: brings the foundation up, builds the sound net, takes everything
// down in reverse order and ends with the memory manager's report of blocks still held.
#include <cstdio>

#include "engine/log.h"
#include "engine/memory.h"
#include "psynth/psynth_net.h"

static const char* const PROGRAM_NAME = "Zelfon v1.6.4(Aug  3 2011)";
static const char* const ENGINE_NAME = "Tarvik Engine";

int main(int argc, char** argv) {
    mem_init();
    tarvik_log_init(TARVIK_LOG_FILE);
    tarvik_log("%s / %s\n", PROGRAM_NAME, ENGINE_NAME);

    psynth_net net;
    psynth_init(0, 44100, 125, 6, &net);
    tarvik_log("Sound net ready: %d slots, module 0 \"%s\"\n", net.slots, net.modules[0].name);
    psynth_close(&net);

    bool leaked = mem_free_all();
    tarvik_log_close();
    mem_deinit();
    return leaked ? 1 : 0;
}
