// The log printer: one printf-style function that every unit writes through.
// Each message is appended to the log file (opened, written and closed per message,
// so nothing is lost in a crash) and printed to standard output.
// The printer's state is static, so it outlives the memory manager's shutdown report.
//
// The file is written through the file layer (v3_open "ab", v3_write, v3_close), which
// allocates two small blocks per message. The layer needs no v3_init for this: the log
// works before v3_init and after v3_deinit, so the memory manager's report, written after
// v3_deinit, still reaches the file. No deadlock: the printer's mutex is the outer one,
// and neither the file layer nor the memory manager logs while it holds its own (the
// file layer does not even allocate under its mutex). A message raised on the same thread while the printer writes (an allocation
// failure inside the file layer) goes to stdout only.
#pragma once

#include <cstdarg>
#include <cstdint>

constexpr const char* TARVIK_LOG_FILE = "3:/zelfon_log.txt";
// A log file that reaches this size after a message is renamed to its name with ".1"
// (replacing the previous old one) and the next message starts a new file, so the log
// never holds much more than twice this.
constexpr int64_t TARVIK_LOG_ROTATE_SIZE = 1 << 20;
// Size of the message buffer: longer messages are cut to TARVIK_LOG_MESSAGE_SIZE - 1 bytes.
constexpr int TARVIK_LOG_MESSAGE_SIZE = 4096;

// Sets up the printer (mutex, virtual file name: "3:/zelfon_log.txt" normally) and enables it.
// Thread: the main thread, before other threads log.
void tarvik_log_init(const char* virtual_file_name);
// Destroys the printer's mutex; later messages go nowhere. Thread: the main thread, after other threads stop logging.
void tarvik_log_close();
// Turns logging off (non-zero) or back on (0).
void tarvik_log_disable(int disabled);
// Echoes the messages to standard error (non-zero) instead of standard output (0), for
// runs whose standard output carries data. Main thread, before other threads log.
void tarvik_log_echo_to_stderr(int on);
// printf-style message; any thread; takes the printer's mutex. Does nothing while disabled,
// before tarvik_log_init or after tarvik_log_close.
#if defined(__GNUC__)
#define TARVIK_PRINTF_FORMAT __attribute__((format(printf, 1, 2)))
#else
#define TARVIK_PRINTF_FORMAT
#endif
void tarvik_log(const char* format, ...) TARVIK_PRINTF_FORMAT;
void tarvik_log_v(const char* format, va_list args);

// Receives every message after it was written, under the printer's mutex: it must not log
// and should only copy the text. Null removes it. Main thread, while no other thread logs.
typedef void (*tarvik_log_listener)(const char* message, void* data);
void tarvik_log_set_listener(tarvik_log_listener listener, void* data);
