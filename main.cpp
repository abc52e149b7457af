// Zelfon's entry: brings the foundation up (memory, files, log, profile), then opens the
// studio, or runs the headless job the command line asks for (also when no display can
// be opened), takes everything down in reverse order and ends with the memory manager's
// report of blocks still held.
#include <cstdio>
#include <cstring>

#include "app/command_line.h"
#include "app/studio.h"
#include "engine/file.h"
#include "engine/log.h"
#include "engine/memory.h"
#include "engine/profile.h"

static const char* const PROGRAM_NAME = "Zelfon v1.6.4(Aug  3 2011)";
static const char* const ENGINE_NAME = "Tarvik Engine";

// The studio's arguments: [SONG] [--script FILE]. Returns 0 when argv holds a sub-command
// instead (or something the studio does not take).
static int studio_arguments(int argc, char** argv, const char** song, const char** script) {
    *song = *script = nullptr;
    for (int i = 1; i < argc; i++) {
        if (!strcmp(argv[i], "--script") && i + 1 < argc) *script = argv[++i];
        else if (argv[i][0] == '-' || *song || zelfon_is_command(argv[i])) return 0;
        else *song = argv[i];
    }
    return 1;
}

int main(int argc, char** argv) {
    mem_init();
    v3_init();
    tarvik_log_init(TARVIK_LOG_FILE);
    if (zelfon_command_writes_stdout(argc, argv)) tarvik_log_echo_to_stderr(1);  // "-": the data goes there
    profile_new(nullptr);
    profile_load(nullptr, nullptr);  // the first default configuration file that exists
    tarvik_log("%s / %s\n", PROGRAM_NAME, ENGINE_NAME);

    const char *song = nullptr, *script = nullptr;
    int exit_code = STUDIO_NO_DISPLAY;
    if (studio_arguments(argc, argv, &song, &script)) exit_code = studio_run(song, script);
    if (exit_code == STUDIO_NO_DISPLAY) {
        // Without a display: the headless job (with no arguments, the demo's export).
        if (song || script) {
            fprintf(stderr, "zelfon: no display: the studio cannot open (the sub-commands work without one: zelfon --help)\n");
            exit_code = 1;
        } else {
            exit_code = zelfon_command_line(argc, argv);
        }
    }

    profile_close(nullptr);
    v3_deinit();
    bool leaked = mem_free_all();  // the log still writes through the file layer after v3_deinit
    tarvik_log_close();
    mem_deinit();
    return exit_code ? exit_code : leaked ? 1 : 0;
}
