// Zelfon's entry: brings the foundation up (memory, files, log, profile), runs the job
// the command line asks for, takes everything down in reverse order and ends with the
// memory manager's report of blocks still held.
#include "app/command_line.h"
#include "engine/file.h"
#include "engine/log.h"
#include "engine/memory.h"
#include "engine/profile.h"

static const char* const PROGRAM_NAME = "Zelfon v1.6.4(Aug  3 2011)";
static const char* const ENGINE_NAME = "Tarvik Engine";

int main(int argc, char** argv) {
    mem_init();
    v3_init();
    tarvik_log_init(TARVIK_LOG_FILE);
    profile_new(nullptr);
    profile_load(nullptr, nullptr);  // the first default configuration file that exists
    tarvik_log("%s / %s\n", PROGRAM_NAME, ENGINE_NAME);

    int exit_code = zelfon_command_line(argc, argv);

    profile_close(nullptr);
    v3_deinit();
    bool leaked = mem_free_all();  // the log still writes through the file layer after v3_deinit
    tarvik_log_close();
    mem_deinit();
    return exit_code ? exit_code : leaked ? 1 : 0;
}
