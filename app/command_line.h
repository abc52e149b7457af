// The program's headless jobs, chosen by the first command-line argument: export a song
// (or the bundled demo) to WAV or MIDI, describe a song, write the demo song file.
#pragma once

// Runs the command in argv (argv[0] is the program). Prints one clear line to standard
// error on failure. Returns the process exit code (0 on success). Main thread, after
// the foundation is up.
int zelfon_command_line(int argc, char** argv);
// Non-zero when `word` names a sub-command ("export", "info", "--help", ...).
int zelfon_is_command(const char* word);
