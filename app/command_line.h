// The program's headless jobs, chosen by the first command-line argument: export a song
// (or the bundled demo) to WAV or MIDI, describe a song, write the demo song file.
#pragma once

// Runs the command in argv (argv[0] is the program). Prints one clear line to standard
// error on failure. Returns the process exit code (0 on success). Main thread, after
// the foundation is up.
int zelfon_command_line(int argc, char** argv);
// Non-zero when `word` names a sub-command ("export", "info", "--help", ...).
int zelfon_is_command(const char* word);
// Non-zero when an argument is "-": an output goes to standard output, so the log's echo
// must keep off it (main sends it to standard error before its first message).
int zelfon_command_writes_stdout(int argc, char** argv);

// Sampling rates the sub-commands take.
constexpr int ZELFON_CLI_RATE_MIN = 8000;
constexpr int ZELFON_CLI_RATE_MAX = 384000;

// Reads `text` as a whole decimal number from `min` to `max`: an optional "-" and digits
// only, nothing before or after them, no overflow. Returns 1 with the value in `value`, or
// 0 (and `value` untouched).
int zelfon_parse_number(const char* text, int min, int max, int* value);
