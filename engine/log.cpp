// The log printer: formats each message into one static buffer under its mutex,
// appends it to the log file through the file layer (opened with "ab", written and
// closed per message), moves a full log file aside and prints the message to stdout.
// Its state is static, not a heap block, so that it outlives the memory manager's report.
#include "engine/log.h"

#include <atomic>
#include <cstdio>
#include <cstring>

#include "engine/file.h"
#include "engine/thread.h"

namespace {

constexpr size_t kNameSize = 1024;

struct log_state {
    tarvik_mutex mutex;
    char file_name[kNameSize];  // virtual name, e.g. "3:/zelfon_log.txt"
    char old_name[kNameSize + 2];  // the file's name with ".1": the one old file kept
    char message[TARVIK_LOG_MESSAGE_SIZE];
    tarvik_log_listener listener;
    void* listener_data;
};

log_state g_log;
std::atomic<int> g_log_ready{0};
std::atomic<int> g_log_disabled{0};
std::atomic<int> g_log_to_stderr{0};

// Set while this thread holds the printer: the file layer allocates, and an allocation
// failure logs, which would otherwise take the printer's mutex a second time.
thread_local int t_inside_printer = 0;

}  // namespace

void tarvik_log_init(const char* virtual_file_name) {
    if (!g_log_ready.load()) tarvik_mutex_create(&g_log.mutex);
    std::snprintf(g_log.file_name, sizeof g_log.file_name, "%s", virtual_file_name ? virtual_file_name : "");
    std::snprintf(g_log.old_name, sizeof g_log.old_name, "%s.1", g_log.file_name);
    g_log_disabled.store(0);
    g_log_ready.store(1);
}

void tarvik_log_close() {
    if (!g_log_ready.exchange(0)) return;
    tarvik_mutex_destroy(&g_log.mutex);
    g_log.file_name[0] = 0;
}

void tarvik_log_disable(int disabled) { g_log_disabled.store(disabled ? 1 : 0); }

void tarvik_log_echo_to_stderr(int on) { g_log_to_stderr.store(on ? 1 : 0); }

void tarvik_log_v(const char* format, va_list args) {
    if (!g_log_ready.load() || g_log_disabled.load()) return;
    FILE* echo = g_log_to_stderr.load() ? stderr : stdout;
    if (t_inside_printer) {
        // A message raised while this thread writes the log file: the echo only.
        std::vfprintf(echo, format, args);
        std::fflush(echo);
        return;
    }
    tarvik_mutex_lock(&g_log.mutex);
    if (!g_log.file_name[0]) {
        tarvik_mutex_unlock(&g_log.mutex);
        return;
    }
    t_inside_printer = 1;
    std::vsnprintf(g_log.message, sizeof g_log.message, format, args);
    size_t length = std::strlen(g_log.message);
    int h = v3_open(g_log.file_name, "ab");
    if (h) {
        v3_write(g_log.message, 1, length, h);
        int64_t size = v3_tell(h);
        v3_close(h);
        // The log keeps a bounded size: the full file becomes the old one, replacing it.
        if (size >= TARVIK_LOG_ROTATE_SIZE) v3_rename(g_log.file_name, g_log.old_name);
    }
    std::fputs(g_log.message, echo);
    std::fflush(echo);
    if (g_log.listener) g_log.listener(g_log.message, g_log.listener_data);
    t_inside_printer = 0;
    tarvik_mutex_unlock(&g_log.mutex);
}

void tarvik_log(const char* format, ...) {
    va_list args;
    va_start(args, format);
    tarvik_log_v(format, args);
    va_end(args);
}

void tarvik_log_set_listener(tarvik_log_listener listener, void* data) {
    g_log.listener = listener;
    g_log.listener_data = data;
}
