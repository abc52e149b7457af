// The log printer: formats each message into one static buffer under its mutex,
// appends it to the log file (opened and closed per message) and prints it to stdout.
// Its state is static, not a heap block, so that it outlives the memory manager's report.
#include "engine/log.h"

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "engine/thread.h"

namespace {

constexpr size_t kNameSize = 1024;
constexpr size_t kPathSize = 4096;

struct log_state {
    tarvik_mutex mutex;
    char file_name[kNameSize];     // virtual name, e.g. "3:/zelfon_log.txt"
    char path[kPathSize];          // real name, made anew for every message
    char message[TARVIK_LOG_MESSAGE_SIZE];
};

log_state g_log;
std::atomic<int> g_log_ready{0};
std::atomic<int> g_log_disabled{0};

const char* env_or_null(const char* name) {
    const char* value = std::getenv(name);
    return value && value[0] ? value : nullptr;
}

// The user's application-data folder, created if missing, without the final "/".
bool config_dir(char* out, size_t size) {
    const char* xdg = env_or_null("XDG_CONFIG_HOME");
    const char* home = env_or_null("HOME");
    int n;
    if (xdg) {
        n = std::snprintf(out, size, "%s", xdg);
    } else if (home) {
        n = std::snprintf(out, size, "%s/.config", home);
    } else {
        return false;
    }
    if (n < 0 || static_cast<size_t>(n) >= size) return false;
    mkdir(out, 0700);
    size_t used = static_cast<size_t>(n);
    n = std::snprintf(out + used, size - used, "/zelfon");
    if (n < 0 || static_cast<size_t>(n) >= size - used) return false;
    mkdir(out, 0700);
    return true;
}

// Maps "N:/rest" to the disk's directory + "/" + rest (disk 1 working directory,
// 2 application data, 3 temporary directory); a name without a prefix stands as it is.
// Stands in for the file layer's name mapping until that layer exists.
bool map_virtual_name(const char* name, char* out, size_t size) {
    bool prefixed = name[0] >= '0' && name[0] <= '9' && name[1] == ':' && name[2] == '/';
    if (!prefixed) {
        int n = std::snprintf(out, size, "%s", name);
        return n >= 0 && static_cast<size_t>(n) < size;
    }
    char dir[kPathSize];
    switch (name[0]) {
        case '1':
            if (!getcwd(dir, sizeof dir)) return false;
            break;
        case '2':
            if (!config_dir(dir, sizeof dir)) return false;
            break;
        case '3': {
            const char* tmp = env_or_null("TMPDIR");
            int n = std::snprintf(dir, sizeof dir, "%s", tmp ? tmp : "/tmp");
            if (n < 0 || static_cast<size_t>(n) >= sizeof dir) return false;
            break;
        }
        default:
            return false;
    }
    // One "/" is appended even when the directory already ends in one.
    int n = std::snprintf(out, size, "%s/%s", dir, name + 3);
    return n >= 0 && static_cast<size_t>(n) < size;
}

}  // namespace

void tarvik_log_init(const char* virtual_file_name) {
    if (!g_log_ready.load()) tarvik_mutex_create(&g_log.mutex);
    std::snprintf(g_log.file_name, sizeof g_log.file_name, "%s", virtual_file_name ? virtual_file_name : "");
    g_log_disabled.store(0);
    g_log_ready.store(1);
}

void tarvik_log_close() {
    if (!g_log_ready.exchange(0)) return;
    tarvik_mutex_destroy(&g_log.mutex);
    g_log.file_name[0] = 0;
}

void tarvik_log_disable(int disabled) { g_log_disabled.store(disabled ? 1 : 0); }

void tarvik_log_v(const char* format, va_list args) {
    if (!g_log_ready.load() || g_log_disabled.load()) return;
    tarvik_mutex_lock(&g_log.mutex);
    if (!g_log.file_name[0]) {
        tarvik_mutex_unlock(&g_log.mutex);
        return;
    }
    std::vsnprintf(g_log.message, sizeof g_log.message, format, args);
    size_t length = std::strlen(g_log.message);
    if (map_virtual_name(g_log.file_name, g_log.path, sizeof g_log.path)) {
        FILE* f = std::fopen(g_log.path, "ab");
        if (f) {
            std::fwrite(g_log.message, 1, length, f);
            std::fclose(f);
        }
    }
    std::printf("%s", g_log.message);
    std::fflush(stdout);
    tarvik_mutex_unlock(&g_log.mutex);
}

void tarvik_log(const char* format, ...) {
    va_list args;
    va_start(args, format);
    tarvik_log_v(format, args);
    va_end(args);
}
