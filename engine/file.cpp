// Virtual file system: the handle table, disk-prefix mapping, disk files, memory files and
// the read-only members of a registered TAR archive. Everything the operating system does
// for it sits in the platform section at the top, so that only that section changes per system.
#include "engine/file.h"

#include <atomic>
#include <cctype>
#include <cstdlib>
#include <cstring>

#include "engine/memory.h"
#include "engine/thread.h"

#if defined(_WIN32)
#include <windows.h>
// after windows.h; links with shell32
#include <shlobj.h>
#include <fcntl.h>
#include <io.h>
#include <sys/stat.h>
#else
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

namespace {

// A fetched disk directory (before its final "/") must fit this buffer, as the system's
// wide-character buffer of the same length does on Windows.
constexpr size_t kDirSize = 2048;

// ---------------------------------------------------------------------------------------
// Platform section: directories of the disks, opening, deleting, moving, listing, drives.
// ---------------------------------------------------------------------------------------

#if defined(_WIN32)

// UTF-8 → UTF-16 in a new block; with `backslashes` every "/" becomes "\". Null on failure.
wchar_t* to_wide(const char* s, bool backslashes) {
    int n = MultiByteToWideChar(CP_UTF8, 0, s, -1, nullptr, 0);
    if (n <= 0) return nullptr;
    wchar_t* w = static_cast<wchar_t*>(mem_new(MEM_DYNAMIC, static_cast<size_t>(n) * sizeof(wchar_t), "v3_to_wide"));
    if (!w) return nullptr;
    MultiByteToWideChar(CP_UTF8, 0, s, -1, w, n);
    if (backslashes) {
        for (wchar_t* p = w; *p; p++) {
            if (*p == L'/') *p = L'\\';
        }
    }
    return w;
}

// UTF-16 → UTF-8 into `out`, every "\" turned into "/". False when it does not fit.
bool from_wide(const wchar_t* w, char* out, size_t size) {
    int n = WideCharToMultiByte(CP_UTF8, 0, w, -1, out, static_cast<int>(size), nullptr, nullptr);
    if (n <= 0) return false;
    for (char* p = out; *p; p++) {
        if (*p == '\\') *p = '/';
    }
    return true;
}

bool disk_dir(int disk, char* out, size_t size) {
    wchar_t w[kDirSize];
    w[0] = 0;
    if (disk == 1) {
        DWORD n = GetCurrentDirectoryW(kDirSize, w);
        if (n == 0 || n >= kDirSize) return false;
    } else if (disk == 2) {
        if (FAILED(SHGetFolderPathW(nullptr, CSIDL_APPDATA | CSIDL_FLAG_CREATE, nullptr, 0, w))) return false;
    } else if (disk == 3) {
        DWORD n = GetTempPathW(kDirSize, w);
        if (n == 0 || n >= kDirSize) return false;
    } else {
        return false;
    }
    return from_wide(w, out, size);
}

FILE* platform_open(const char* name, const char* mode) {
    wchar_t* wname = to_wide(name, true);
    wchar_t* wmode = to_wide(mode, false);
    FILE* f = wname && wmode ? _wfopen(wname, wmode) : nullptr;
    mem_free(wname);
    mem_free(wmode);
    return f;
}

int64_t platform_file_time(const char* name) {
    wchar_t* w = to_wide(name, true);
    WIN32_FILE_ATTRIBUTE_DATA a;
    int64_t t = -1;
    if (w && GetFileAttributesExW(w, GetFileExInfoStandard, &a)) {
        uint64_t ft = ((uint64_t)a.ftLastWriteTime.dwHighDateTime << 32) | a.ftLastWriteTime.dwLowDateTime;
        t = (int64_t)(ft / 10000000ULL) - 11644473600LL;  // 100 ns since 1601 → seconds since 1970
    }
    mem_free(w);
    return t;
}

int platform_remove(const char* name) {
    wchar_t* w = to_wide(name, true);
    int result = w && DeleteFileW(w) ? 0 : -1;
    mem_free(w);
    return result;
}

int platform_rename(const char* from, const char* to) {
    wchar_t* wf = to_wide(from, true);
    wchar_t* wt = to_wide(to, true);
    int result = wf && wt && MoveFileExW(wf, wt, MOVEFILE_REPLACE_EXISTING) ? 0 : -1;
    mem_free(wf);
    mem_free(wt);
    return result;
}

int platform_seek(FILE* f, int64_t offset, int whence) { return _fseeki64(f, offset, whence); }
int64_t platform_tell(FILE* f) { return _ftelli64(f); }

int platform_file_type(const char* name) {
    wchar_t* w = to_wide(name, true);
    DWORD a = w ? GetFileAttributesW(w) : INVALID_FILE_ATTRIBUTES;
    mem_free(w);
    if (a == INVALID_FILE_ATTRIBUTES) return V3_FILE_NONE;
    if (a & FILE_ATTRIBUTE_DIRECTORY) return V3_FILE_DIRECTORY;
    return a & FILE_ATTRIBUTE_DEVICE ? V3_FILE_SPECIAL : V3_FILE_REGULAR;
}

FILE* platform_create_exclusive(const char* name) {
    wchar_t* w = to_wide(name, true);
    int fd = w ? _wopen(w, _O_WRONLY | _O_CREAT | _O_EXCL | _O_BINARY, _S_IREAD | _S_IWRITE) : -1;
    mem_free(w);
    if (fd < 0) return nullptr;
    FILE* f = _fdopen(fd, "wb");
    if (!f) _close(fd);
    return f;
}

void platform_copy_mode(FILE* f, const char* target) {}

FILE* platform_open_in_place(const char* name) { return platform_open(name, "wb"); }

FILE* platform_open_stdout() {
    int fd = _dup(_fileno(stdout));
    if (fd < 0) return nullptr;
    _setmode(fd, _O_BINARY);
    FILE* f = _fdopen(fd, "wb");
    if (!f) _close(fd);
    return f;
}

int platform_sync(FILE* f) { return std::fflush(f) == 0 && _commit(_fileno(f)) == 0 ? 0 : -1; }

void platform_start_writeback(FILE* f) { std::fflush(f); }

// Folders are not synced on Windows: MoveFileEx has made the rename by the time it returns.
void platform_sync_folder(const char* file_name) {}

uint64_t platform_process_id() { return GetCurrentProcessId(); }

struct find_search {
    HANDLE handle;
    WIN32_FIND_DATAW data;
    int pending;  // data holds an entry not yet handed out
};

// `dir` ends in "/".
bool find_begin(find_search* s, const char* dir) {
    size_t length = std::strlen(dir);
    char* pattern = static_cast<char*>(mem_new(MEM_DYNAMIC, length + 4, "v3_find_first"));
    if (!pattern) return false;
    std::memcpy(pattern, dir, length);
    std::memcpy(pattern + length, "*.*", 4);
    wchar_t* w = to_wide(pattern, true);
    mem_free(pattern);
    s->handle = w ? FindFirstFileW(w, &s->data) : INVALID_HANDLE_VALUE;
    mem_free(w);
    s->pending = s->handle != INVALID_HANDLE_VALUE;
    return s->pending != 0;
}

bool find_entry(find_search* s, char* name, size_t size, int* is_dir) {
    while (true) {
        if (!s->pending && !FindNextFileW(s->handle, &s->data)) return false;
        s->pending = 0;
        if (!from_wide(s->data.cFileName, name, size)) continue;
        *is_dir = (s->data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) ? 1 : 0;
        return true;
    }
}

void find_end(find_search* s) {
    if (s->handle != INVALID_HANDLE_VALUE) FindClose(s->handle);
    s->handle = INVALID_HANDLE_VALUE;
}

int read_drives(char (*drives)[V3_DRIVE_NAME_SIZE], int max) {
    DWORD mask = GetLogicalDrives();
    int count = 0;
    for (int i = 0; i < 26 && count < max; i++) {
        if (!(mask & (1u << i))) continue;
        drives[count][0] = static_cast<char>('A' + i);
        drives[count][1] = ':';
        drives[count][2] = '/';
        drives[count][3] = 0;
        count++;
    }
    return count;
}

#else  // POSIX

bool copy_dir(const char* dir, char* out, size_t size) {
    size_t length = std::strlen(dir);
    if (length == 0 || length >= size) return false;
    std::memcpy(out, dir, length + 1);
    return true;
}

const char* env_or_null(const char* name) {
    const char* value = std::getenv(name);
    return value && value[0] ? value : nullptr;
}

// $XDG_CONFIG_HOME/zelfon, or ~/.config/zelfon; both levels are created when missing.
bool config_dir(char* out, size_t size) {
    const char* xdg = env_or_null("XDG_CONFIG_HOME");
    if (xdg && xdg[0] != '/') xdg = nullptr;  // relative settings are ignored, as the XDG rules say
    const char* home = env_or_null("HOME");
    int n;
    if (xdg) n = std::snprintf(out, size, "%s", xdg);
    else if (home) n = std::snprintf(out, size, "%s/.config", home);
    else return false;
    if (n < 0 || static_cast<size_t>(n) >= size) return false;
    mkdir(out, 0700);
    size_t used = static_cast<size_t>(n);
    n = std::snprintf(out + used, size - used, "/zelfon");
    if (n < 0 || static_cast<size_t>(n) >= size - used) return false;
    mkdir(out, 0700);
    return true;
}

bool disk_dir(int disk, char* out, size_t size) {
    if (disk == 1) return getcwd(out, size) != nullptr;
    if (disk == 2) return config_dir(out, size);
    if (disk == 3) {
        const char* tmp = env_or_null("TMPDIR");
        return copy_dir(tmp ? tmp : "/tmp", out, size);
    }
    return false;
}

// Directories open on some systems but cannot be read as files: refuse them here, as Windows does.
FILE* platform_open(const char* name, const char* mode) {
    FILE* f = std::fopen(name, mode);
    if (!f) return nullptr;
    struct stat st;
    if (fstat(fileno(f), &st) == 0 && S_ISDIR(st.st_mode)) {
        std::fclose(f);
        return nullptr;
    }
    return f;
}

int platform_remove(const char* name) { return unlink(name) == 0 ? 0 : -1; }
int64_t platform_file_time(const char* name) {
    struct stat st;
    return stat(name, &st) == 0 ? (int64_t)st.st_mtime : -1;
}
int platform_rename(const char* from, const char* to) { return rename(from, to) == 0 ? 0 : -1; }
int platform_seek(FILE* f, int64_t offset, int whence) { return fseeko(f, static_cast<off_t>(offset), whence); }
int64_t platform_tell(FILE* f) { return static_cast<int64_t>(ftello(f)); }

int platform_file_type(const char* name) {
    struct stat st;
    if (stat(name, &st) != 0) return V3_FILE_NONE;
    if (S_ISREG(st.st_mode)) return V3_FILE_REGULAR;
    return S_ISDIR(st.st_mode) ? V3_FILE_DIRECTORY : V3_FILE_SPECIAL;
}

// A file that did not exist, made for writing; a link at `name` is never followed (O_EXCL).
FILE* platform_create_exclusive(const char* name) {
    int fd = open(name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
    if (fd < 0) return nullptr;
    FILE* f = fdopen(fd, "wb");
    if (!f) close(fd);
    return f;
}

// The new file keeps the permissions and (when we may) the owner of the one it replaces.
void platform_copy_mode(FILE* f, const char* target) {
    struct stat st;
    if (stat(target, &st) != 0 || !S_ISREG(st.st_mode)) return;
    fchmod(fileno(f), st.st_mode & 07777);
    if (fchown(fileno(f), st.st_uid, st.st_gid) != 0) {
        // Only the owner's group or root may give a file away: the saver's own is kept.
    }
}

// A device or FIFO written where it is. A FIFO that nobody reads fails at once instead of waiting.
FILE* platform_open_in_place(const char* name) {
    int fd = open(name, O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) return nullptr;
    int flags = fcntl(fd, F_GETFL);
    FILE* f = flags >= 0 && fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) == 0 ? fdopen(fd, "wb") : nullptr;
    if (!f) close(fd);
    return f;
}

// A stream of its own on standard output: closing it leaves the program's stdout open.
FILE* platform_open_stdout() {
    std::fflush(stdout);
    int fd = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
    if (fd < 0) return nullptr;
    FILE* f = fdopen(fd, "wb");
    if (!f) close(fd);
    return f;
}

int platform_sync(FILE* f) { return std::fflush(f) == 0 && fsync(fileno(f)) == 0 ? 0 : -1; }

// Starts writing what was written so far to the disk without waiting for it (Linux).
void platform_start_writeback(FILE* f) {
    if (std::fflush(f) != 0) return;
#if defined(__linux__)
    sync_file_range(fileno(f), 0, 0, SYNC_FILE_RANGE_WRITE);
#endif
}

// Makes a rename in the folder of `file_name` durable.
void platform_sync_folder(const char* file_name) {
    const char* slash = std::strrchr(file_name, '/');
    char folder[kDirSize];
    if (!slash) std::memcpy(folder, ".", 2);
    else if (slash == file_name) std::memcpy(folder, "/", 2);
    else if (static_cast<size_t>(slash - file_name) < sizeof folder) {
        std::memcpy(folder, file_name, static_cast<size_t>(slash - file_name));
        folder[slash - file_name] = 0;
    } else {
        return;
    }
    int fd = open(folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    fsync(fd);  // some file systems cannot sync a folder; the rename stands all the same
    close(fd);
}

uint64_t platform_process_id() { return static_cast<uint64_t>(getpid()); }

struct find_search {
    DIR* dir;
};

bool find_begin(find_search* s, const char* dir) {
    s->dir = opendir(dir);
    return s->dir != nullptr;
}

bool find_entry(find_search* s, char* name, size_t size, int* is_dir) {
    while (dirent* e = readdir(s->dir)) {
        size_t length = std::strlen(e->d_name);
        if (length >= size) continue;
        std::memcpy(name, e->d_name, length + 1);
        int dir = e->d_type == DT_DIR;
        if (e->d_type == DT_UNKNOWN || e->d_type == DT_LNK) {
            struct stat st;  // links count as what they point to
            dir = fstatat(dirfd(s->dir), e->d_name, &st, 0) == 0 && S_ISDIR(st.st_mode);
        }
        *is_dir = dir ? 1 : 0;
        return true;
    }
    return false;
}

void find_end(find_search* s) {
    if (s->dir) closedir(s->dir);
    s->dir = nullptr;
}

int read_drives(char (*drives)[V3_DRIVE_NAME_SIZE], int max) {
    if (max < 1) return 0;
    std::memcpy(drives[0], "/", 2);
    return 1;
}

#endif

// ---------------------------------------------------------------------------------------
// The layer's state.
// ---------------------------------------------------------------------------------------

// TAR (ustar) header: the name, 24 bytes of mode/owner fields, the octal size, then the rest.
constexpr int kTarBlock = 512;
constexpr int kTarNameSize = 100;
constexpr int kTarBeforeSize = 24;
constexpr int kTarSizeField = 12;
constexpr int kTarAfterSize = 376;
static_assert(kTarNameSize + kTarBeforeSize + kTarSizeField + kTarAfterSize == kTarBlock, "one header block");

// A memory file grows by at least this much, so that many small writes rarely reallocate.
constexpr int64_t kGrowStep = 1024;

struct v3_state {
    tarvik_mutex mutex;
    v3_file* files[V3_MAX_FILES];
    v3_file* std_streams[3];
    char drives[V3_MAX_DRIVES][V3_DRIVE_NAME_SIZE];
    int drives_count;
    int archive;
};

v3_state g_v3;

// The slot table is guarded once v3_init has created the mutex; before that, and after
// v3_deinit, only one thread uses the layer.
bool lock_table() {
    if (!g_v3.mutex.created) return false;
    tarvik_mutex_lock(&g_v3.mutex);
    return true;
}

void unlock_table(bool locked) {
    if (locked) tarvik_mutex_unlock(&g_v3.mutex);
}

// Puts the record in the first free slot. Returns its handle, 0 when the table is full.
int claim_slot(v3_file* record) {
    bool locked = lock_table();
    int h = 0;
    for (int i = 0; i < V3_MAX_FILES; i++) {
        if (!g_v3.files[i]) {
            g_v3.files[i] = record;
            h = i + 1;
            break;
        }
    }
    unlock_table(locked);
    return h;
}

void release_slot(int h) {
    bool locked = lock_table();
    g_v3.files[h - 1] = nullptr;
    unlock_table(locked);
}

v3_file* file_of(int h) {
    if (h < 1 || h > V3_MAX_FILES) return nullptr;
    return g_v3.files[h - 1];
}

v3_file* new_record(int type, const char* tag) {
    v3_file* record = static_cast<v3_file*>(mem_new(MEM_DYNAMIC, sizeof(v3_file), tag));
    if (record) *record = v3_file{nullptr, nullptr, type, nullptr, 0, 0};
    return record;
}

bool has_prefix(const char* path) {
    return path[0] >= '0' && path[0] <= '9' && path[1] == ':' && path[2] == '/';
}

// Real name of a virtual or plain path in a new block; null for an unmapped disk.
char* real_name(const char* path) {
    if (has_prefix(path)) return v3_make_filename(path);
    return mem_strdup(path);
}

bool is_memory(const v3_file* f) { return f->type == V3_TYPE_ARCHIVE || f->type == V3_TYPE_MEMORY; }

// Bytes from `pos` to the end of the valid data; 0 when the position lies outside it.
int64_t bytes_left(const v3_file* f) {
    if (f->pos < 0 || f->pos >= f->size) return 0;
    return f->size - f->pos;
}

size_t memory_read(void* buf, size_t el_size, size_t count, v3_file* f) {
    if (count > SIZE_MAX / el_size) return 0;
    size_t bytes = el_size * count;
    size_t left = static_cast<size_t>(bytes_left(f));
    if (bytes > left) bytes = left;
    if (bytes) std::memcpy(buf, f->data + f->pos, bytes);
    f->pos += static_cast<int64_t>(bytes);
    return bytes / el_size;
}

// Resizes a type-2 buffer; a buffer made from nothing is zeroed like the tail of a grown one,
// so that no stale heap bytes can reach a file. Keeps the old buffer when memory runs out.
void grow(v3_file* f, int64_t new_size) {
    bool fresh = f->data == nullptr;
    void* grown = mem_resize(f->data, static_cast<size_t>(new_size));
    if (!grown) return;
    if (fresh) mem_zero(grown);
    f->data = static_cast<char*>(grown);
    f->size = new_size;
}

// A type-2 file grows to size + 1024, or to exactly the end of the write when it lacks
// 1024 bytes or more; a type-1 file takes only what fits.
size_t memory_write(const void* buf, size_t el_size, size_t count, v3_file* f) {
    if (count > SIZE_MAX / el_size || f->pos < 0) return 0;
    size_t bytes = el_size * count;
    if (bytes > static_cast<size_t>(INT64_MAX - f->pos)) return 0;
    int64_t end = f->pos + static_cast<int64_t>(bytes);
    if (end > f->size && f->type == V3_TYPE_MEMORY) {
        int64_t new_size = end - f->size >= kGrowStep ? end : f->size + kGrowStep;
        grow(f, new_size);
    }
    size_t left = static_cast<size_t>(bytes_left(f));
    if (bytes > left) bytes = left;
    if (bytes) std::memcpy(f->data + f->pos, buf, bytes);
    f->pos += static_cast<int64_t>(bytes);
    return bytes / el_size;
}

// The size field read as octal, digit by digit; any decimal digit counts (an "8" adds 8),
// other characters (blanks, the terminator) are passed over.
uint64_t tar_size(const char* field) {
    uint64_t value = 0;
    for (int i = 0; i < kTarSizeField; i++) {
        char c = field[i];
        if (c >= '0' && c <= '9') value = value * 8 + static_cast<uint64_t>(c - '0');
    }
    return value;
}

// Walks the registered archive's headers for `name` and returns a type-1 handle with a copy
// of its data, or 0. An entry that claims more data than the archive holds ends the walk.
int open_from_archive(const char* path) {
    const char* name = path + 3;
    size_t name_length = std::strlen(name);
    int a = g_v3.archive;
    if (!file_of(a) || name_length == 0 || name_length > static_cast<size_t>(kTarNameSize)) return 0;

    if (v3_seek(a, 0, V3_SEEK_END) != 0) return 0;
    int64_t total = v3_tell(a);
    v3_rewind(a);
    if (total <= 0) return 0;

    char header_name[kTarNameSize];
    char size_field[kTarSizeField];
    while (true) {
        if (v3_read(header_name, 1, kTarNameSize, a) != static_cast<size_t>(kTarNameSize)) return 0;
        v3_seek(a, kTarBeforeSize, V3_SEEK_CUR);
        if (v3_read(size_field, 1, kTarSizeField, a) != static_cast<size_t>(kTarSizeField)) return 0;
        uint64_t size = tar_size(size_field);
        v3_seek(a, kTarAfterSize, V3_SEEK_CUR);
        int64_t data_pos = v3_tell(a);
        if (data_pos < 0 || data_pos > total || size > static_cast<uint64_t>(total - data_pos)) return 0;

        bool same = strnlen(header_name, kTarNameSize) == name_length && std::memcmp(header_name, name, name_length) == 0;
        if (!same) {
            uint64_t skip = (size + kTarBlock - 1) / kTarBlock * kTarBlock;
            v3_seek(a, static_cast<int64_t>(skip), V3_SEEK_CUR);
            continue;
        }

        v3_file* record = new_record(V3_TYPE_ARCHIVE, "v3_open");
        char* data = static_cast<char*>(mem_new(MEM_DYNAMIC, static_cast<size_t>(size), "v3_open"));
        char* copy = mem_strdup(path);
        bool ok = record && data && copy && v3_read(data, 1, static_cast<size_t>(size), a) == size;
        int h = ok ? claim_slot(record) : 0;
        if (!h) {
            mem_free(record);
            mem_free(data);
            mem_free(copy);
            return 0;
        }
        record->name = copy;
        record->data = data;
        record->size = static_cast<int64_t>(size);
        return h;
    }
}

int open_disk_file(const char* path, const char* mode) {
    char* name = real_name(path);
    if (!name) return 0;
    v3_file* record = new_record(V3_TYPE_DISK, "v3_open");
    int h = record ? claim_slot(record) : 0;
    if (!h) {
        mem_free(record);
        mem_free(name);
        return 0;
    }
    record->name = name;
    record->f = platform_open(name, mode);
    if (!record->f) {
        release_slot(h);
        mem_free(name);
        mem_free(record);
        return 0;
    }
    return h;
}

// Both v3_open and the size query come through here.
int open_any(const char* path, const char* mode) {
    if (!path || !mode || strnlen(mode, V3_MAX_MODE_LENGTH + 1) > static_cast<size_t>(V3_MAX_MODE_LENGTH)) return 0;
    if (has_prefix(path) && path[0] == '0') return open_from_archive(path);
    return open_disk_file(path, mode);
}

// True when `name` ends in "." followed by one of the mask's "/"-separated extensions.
bool matches_mask(const char* name, const char* mask) {
    size_t name_length = std::strlen(name);
    const char* ext = mask;
    while (*ext) {
        const char* end = std::strchr(ext, '/');
        size_t length = end ? static_cast<size_t>(end - ext) : std::strlen(ext);
        if (length > 0 && name_length > length && name[name_length - length - 1] == '.') {
            const char* tail = name + name_length - length;
            size_t i = 0;
            while (i < length && std::tolower(static_cast<unsigned char>(tail[i])) ==
                                     std::tolower(static_cast<unsigned char>(ext[i]))) {
                i++;
            }
            if (i == length) return true;
        }
        if (!end) break;
        ext = end + 1;
    }
    return false;
}

// ---- Saves through a temporary file beside the target ----

constexpr size_t kTempNameKeep = 200;  // bytes of the target's name kept in its temporary name
constexpr int kTempRandomChars = 6;
constexpr int kTempAttempts = 64;      // fresh random names tried before giving up
constexpr char kTempAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";

std::atomic<uint64_t> g_temp_counter{0};

// Offset of the file name in a real name (just after its last "/").
size_t name_start(const char* name) {
    const char* slash = std::strrchr(name, '/');
    return slash ? static_cast<size_t>(slash - name) + 1 : 0;
}

// "FOLDER/.NAME.zelfon-tmp-" in a new block with room for the random part after it; the
// length of that prefix in `length`. Null when memory runs out.
char* temp_prefix(const char* target, size_t* length) {
    size_t folder = name_start(target);
    size_t name = std::strlen(target + folder);
    if (name > kTempNameKeep) name = kTempNameKeep;  // the whole name must stay within the system's limit
    size_t mark = std::strlen(V3_SAVE_TEMP_MARK);
    *length = folder + 1 + name + mark;
    char* prefix = static_cast<char*>(mem_new(MEM_DYNAMIC, *length + kTempRandomChars + 1, "v3_save_begin"));
    if (!prefix) return nullptr;
    std::memcpy(prefix, target, folder);
    prefix[folder] = '.';
    std::memcpy(prefix + folder + 1, target + folder, name);
    std::memcpy(prefix + folder + 1 + name, V3_SAVE_TEMP_MARK, mark + 1);
    return prefix;
}

uint64_t mix_bits(uint64_t x) {
    x += 0x9E3779B97F4A7C15ull;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
    return x ^ (x >> 31);
}

// Writes the random part of a temporary name at `at`. Names need not be unpredictable:
// the file is created only where nothing is, so a taken name is simply tried again.
void random_suffix(char* at) {
    uint64_t x = mix_bits(g_temp_counter.fetch_add(1) ^ (platform_process_id() << 32) ^ tarvik_time_ticks());
    constexpr uint64_t kLetters = sizeof kTempAlphabet - 1;
    for (int i = 0; i < kTempRandomChars; i++) {
        at[i] = kTempAlphabet[x % kLetters];
        x /= kLetters;
    }
    at[kTempRandomChars] = 0;
}

// Deletes the temporary files that earlier saves of the same target left when they were
// cut short (killed, or the machine went down): entries named exactly prefix + 6 characters.
void remove_stale_temps(const char* prefix, size_t length) {
    size_t folder = name_start(prefix);
    size_t wanted = length - folder + kTempRandomChars;
    char* stale = static_cast<char*>(mem_new(MEM_DYNAMIC, length + kTempRandomChars + 3, "v3_save_begin"));
    if (!stale) return;
    if (folder) {
        std::memcpy(stale, prefix, folder);
        stale[folder] = 0;
    } else {
        std::memcpy(stale, "./", 3);
    }
    find_search s;
    std::memset(&s, 0, sizeof s);
    if (find_begin(&s, stale)) {
        char name[V3_FIND_NAME_SIZE];
        int is_dir = 0;
        while (find_entry(&s, name, sizeof name, &is_dir)) {
            if (is_dir || std::strlen(name) != wanted || std::memcmp(name, prefix + folder, length - folder) != 0) continue;
            std::memcpy(stale + folder, name, wanted + 1);
            platform_remove(stale);
        }
    }
    find_end(&s);
    mem_free(stale);
}

// Puts an open stream in a slot as a disk file. Returns the handle, or 0 (the stream is closed).
int adopt_stream(FILE* f) {
    v3_file* record = new_record(V3_TYPE_DISK, "v3_save_begin");
    int h = record ? claim_slot(record) : 0;
    if (!h) {
        mem_free(record);
        std::fclose(f);
        return 0;
    }
    record->f = f;
    return h;
}

// Standard output (target null) or an existing device or FIFO, written where it is.
int begin_in_place(char* target, v3_save* save) {
    save->in_place = 1;
    save->target = target;
    FILE* f = target ? platform_open_in_place(target) : platform_open_stdout();
    save->h = f ? adopt_stream(f) : 0;
    if (!save->h) save->error = V3_SAVE_CANT_CREATE;
    return save->h;
}

int next_matching(v3_find_item* item) {
    find_search* s = static_cast<find_search*>(item->search);
    if (!s) return 0;
    int is_dir = 0;
    while (find_entry(s, item->name, sizeof item->name, &is_dir)) {
        if (is_dir || !item->mask || !item->mask[0] || matches_mask(item->name, item->mask)) {
            item->type = is_dir;
            return 1;
        }
    }
    item->name[0] = 0;
    return 0;
}

}  // namespace

void v3_init() {
    if (g_v3.mutex.created) tarvik_mutex_destroy(&g_v3.mutex);
    for (v3_file*& f : g_v3.files) f = nullptr;
    g_v3.drives_count = 0;
    g_v3.archive = 0;
    tarvik_mutex_create(&g_v3.mutex);
    g_v3.drives_count = read_drives(g_v3.drives, V3_MAX_DRIVES);
    FILE* streams[3] = {stdin, stdout, stderr};
    for (int i = 0; i < 3; i++) {
        g_v3.std_streams[i] = new_record(V3_TYPE_DISK, "v3_init");
        if (g_v3.std_streams[i]) g_v3.std_streams[i]->f = streams[i];
    }
}

void v3_deinit() {
    tarvik_mutex_destroy(&g_v3.mutex);
    for (v3_file*& f : g_v3.std_streams) {
        mem_free(f);
        f = nullptr;
    }
}

char* v3_make_filename(const char* path) {
    if (!path || strnlen(path, 3) < 3 || !has_prefix(path)) return nullptr;
    char dir[kDirSize];
    if (!disk_dir(path[0] - '0', dir, sizeof dir)) return nullptr;
    size_t dir_length = std::strlen(dir);
    size_t rest_length = std::strlen(path + 3);
    // One "/" is appended even when the directory already ends in a separator.
    char* name = static_cast<char*>(mem_new(MEM_DYNAMIC, dir_length + 1 + rest_length + 1, "v3_make_filename"));
    if (!name) return nullptr;
    std::memcpy(name, dir, dir_length);
    name[dir_length] = '/';
    std::memcpy(name + dir_length + 1, path + 3, rest_length + 1);
    return name;
}

int v3_open(const char* path, const char* mode) { return open_any(path, mode); }

int v3_open_in_memory(void* data, size_t size) {
    if (size > static_cast<size_t>(INT64_MAX) || (!data && size)) return 0;
    v3_file* record = new_record(V3_TYPE_MEMORY, "v3_open_in_memory");
    int h = record ? claim_slot(record) : 0;
    if (!h) {
        mem_free(record);
        return 0;
    }
    record->data = static_cast<char*>(data);
    record->size = static_cast<int64_t>(size);
    return h;
}

int v3_close(int h) {
    v3_file* f = file_of(h);
    if (!f) return 0;
    int result = 0;
    if (f->f) result = std::fclose(f->f);
    if (f->type == V3_TYPE_ARCHIVE) mem_free(f->data);
    mem_free(f->name);
    mem_free(f);
    release_slot(h);
    return result;
}

size_t v3_read(void* buf, size_t el_size, size_t count, int h) {
    v3_file* f = file_of(h);
    if (!f || !buf || el_size == 0 || count == 0) return 0;
    if (is_memory(f)) return memory_read(buf, el_size, count, f);
    return f->f ? std::fread(buf, el_size, count, f->f) : 0;
}

size_t v3_write(const void* buf, size_t el_size, size_t count, int h) {
    v3_file* f = file_of(h);
    if (!f || !buf || el_size == 0 || count == 0) return 0;
    if (is_memory(f)) return memory_write(buf, el_size, count, f);
    return f->f ? std::fwrite(buf, el_size, count, f->f) : 0;
}

int v3_getc(int h) {
    v3_file* f = file_of(h);
    if (!f) return 0;
    if (is_memory(f)) {
        if (bytes_left(f) == 0) return -1;
        return static_cast<unsigned char>(f->data[f->pos++]);
    }
    if (!f->f) return -1;
    int c = std::fgetc(f->f);
    return c == EOF ? -1 : c;
}

int v3_putc(int c, int h) {
    v3_file* f = file_of(h);
    if (!f) return 0;
    if (!is_memory(f)) return f->f && std::fputc(c, f->f) != EOF ? 0 : -1;
    if (f->pos < 0) return -1;
    if (f->pos >= f->size && f->pos < f->size + kGrowStep && f->type == V3_TYPE_MEMORY) {
        grow(f, f->size + kGrowStep);
    }
    if (bytes_left(f) == 0) return -1;  // a type-1 file at its end, or a seek far past it
    f->data[f->pos++] = static_cast<char>(c);
    return 0;
}

int v3_seek(int h, int64_t offset, int whence) {
    v3_file* f = file_of(h);
    if (!f) return 0;
    if (!is_memory(f)) return f->f ? platform_seek(f->f, offset, whence) : -1;
    if (whence == V3_SEEK_SET) f->pos = offset;
    else if (whence == V3_SEEK_CUR) f->pos += offset;
    else if (whence == V3_SEEK_END) f->pos = f->size + offset;
    return 0;
}

int64_t v3_tell(int h) {
    v3_file* f = file_of(h);
    if (!f) return 0;
    if (is_memory(f)) return f->pos;
    return f->f ? platform_tell(f->f) : -1;
}

void v3_rewind(int h) {
    v3_file* f = file_of(h);
    if (!f) return;
    if (is_memory(f)) f->pos = 0;
    else if (f->f) std::rewind(f->f);
}

void v3_start_writeback(int h) {
    v3_file* f = file_of(h);
    if (f && !is_memory(f) && f->f) platform_start_writeback(f->f);
}

int v3_flush(int h) {
    // The table is indexed by the handle itself, not handle - 1.
    if (h < 1 || h >= V3_MAX_FILES) return 0;
    v3_file* f = g_v3.files[h];
    if (!f || is_memory(f) || !f->f) return 0;
    return std::fflush(f->f);
}

int64_t v3_get_file_size(const char* path) {
    // A FIFO or device has no size, and opening one may wait for ever (a FIFO with no writer).
    int type = path && !(has_prefix(path) && path[0] == '0') ? v3_get_file_type(path) : V3_FILE_REGULAR;
    if (type != V3_FILE_REGULAR) return 0;
    int h = open_any(path, "rb");
    if (!h) return 0;
    int64_t size = 0;
    v3_file* f = file_of(h);
    if (is_memory(f)) {
        size = f->size;
    } else if (v3_seek(h, 0, V3_SEEK_END) == 0) {
        size = v3_tell(h);
        if (size < 0) size = 0;
    }
    v3_close(h);
    return size;
}

int64_t v3_get_file_time(const char* path) {
    if (!path) return -1;
    char* name = real_name(path);
    if (!name) return -1;
    int64_t t = platform_file_time(name);
    mem_free(name);
    return t;
}

int v3_remove(const char* path) {
    if (!path) return -1;
    char* name = real_name(path);
    if (!name) return -1;
    int result = platform_remove(name);
    mem_free(name);
    return result;
}

int v3_rename(const char* old_path, const char* new_path) {
    if (!old_path || !new_path) return -1;
    char* from = real_name(old_path);
    char* to = real_name(new_path);
    int result = from && to ? platform_rename(from, to) : -1;
    mem_free(from);
    mem_free(to);
    return result;
}

int v3_get_file_type(const char* path) {
    if (!path) return V3_FILE_NONE;
    if (has_prefix(path) && path[0] == '0') {
        int h = open_from_archive(path);
        v3_close(h);
        return h ? V3_FILE_REGULAR : V3_FILE_NONE;
    }
    char* name = real_name(path);
    int type = name ? platform_file_type(name) : V3_FILE_NONE;
    mem_free(name);
    return type;
}

int v3_save_begin(const char* path, v3_save* save) {
    if (!save) return 0;
    *save = v3_save{0, 0, V3_SAVE_OK, nullptr, nullptr};
    if (path && std::strcmp(path, V3_SAVE_STDOUT) == 0) return begin_in_place(nullptr, save);
    char* target = path && !(has_prefix(path) && path[0] == '0') ? real_name(path) : nullptr;
    if (!target || !target[0]) {
        mem_free(target);
        save->error = V3_SAVE_BAD_PATH;
        return 0;
    }
    int type = platform_file_type(target);
    if (type == V3_FILE_SPECIAL) return begin_in_place(target, save);
    save->target = target;
    if (type == V3_FILE_DIRECTORY) {
        save->error = V3_SAVE_NOT_A_FILE;
        return 0;
    }
    size_t length = 0;
    save->temp = temp_prefix(target, &length);
    if (!save->temp) {
        save->error = V3_SAVE_CANT_CREATE;
        return 0;
    }
    remove_stale_temps(save->temp, length);
    FILE* f = nullptr;
    for (int i = 0; i < kTempAttempts && !f; i++) {
        random_suffix(save->temp + length);
        f = platform_create_exclusive(save->temp);
    }
    if (f && type == V3_FILE_REGULAR) platform_copy_mode(f, target);
    save->h = f ? adopt_stream(f) : 0;
    if (f && !save->h) platform_remove(save->temp);
    if (!save->h) {
        mem_free(save->temp);
        save->temp = nullptr;
        save->error = V3_SAVE_CANT_CREATE;
    }
    return save->h;
}

int v3_save_end(v3_save* save, int commit) {
    if (!save) return -1;
    int ok = save->h != 0 && commit;
    if (save->h) {
        v3_file* f = file_of(save->h);
        // The data reaches the disk before the name points at it: a crash leaves the old file or the new one.
        if (ok && f && f->f) ok = (save->in_place ? std::fflush(f->f) : platform_sync(f->f)) == 0;
        if (v3_close(save->h) != 0) ok = 0;
        if (save->temp) {
            if (ok && platform_rename(save->temp, save->target) == 0) {
                platform_sync_folder(save->target);
            } else {
                ok = 0;
                platform_remove(save->temp);
            }
        }
    }
    mem_free(save->target);
    mem_free(save->temp);
    *save = v3_save{0, 0, save->error, nullptr, nullptr};
    return ok ? 0 : -1;
}

void* v3_get_memory_data(int h) {
    v3_file* f = file_of(h);
    return f && is_memory(f) ? f->data : nullptr;
}

int64_t v3_get_memory_size(int h) {
    v3_file* f = file_of(h);
    return f && is_memory(f) ? f->size : 0;
}

void v3_set_archive(int h) { g_v3.archive = h; }

int v3_get_archive() { return g_v3.archive; }

v3_file* v3_get_std_stream(int n) { return n >= 0 && n < 3 ? g_v3.std_streams[n] : nullptr; }

int v3_get_drives_count() { return g_v3.drives_count; }

const char* v3_get_drive_name(int i) { return i >= 0 && i < g_v3.drives_count ? g_v3.drives[i] : nullptr; }

int v3_get_current_drive() {
    char* cwd = v3_make_filename("1:/");
    int found = 0;
    if (cwd) {
        int letter = std::toupper(static_cast<unsigned char>(cwd[0]));
        for (int i = 0; i < g_v3.drives_count; i++) {
            if (std::toupper(static_cast<unsigned char>(g_v3.drives[i][0])) == letter) {
                found = i;
                break;
            }
        }
    }
    mem_free(cwd);
    return found;
}

int v3_find_first(v3_find_item* item) {
    if (!item) return 0;
    item->search = nullptr;
    item->name[0] = 0;
    item->type = 0;
    if (!item->path) return 0;
    char* dir = real_name(item->path);
    if (!dir) return 0;
    // The search runs in "dir/": add the separator when the path lacks it.
    size_t length = std::strlen(dir);
    bool slash = length > 0 && (dir[length - 1] == '/' || dir[length - 1] == '\\');
    char* full = static_cast<char*>(mem_new(MEM_DYNAMIC, length + 2, "v3_find_first"));
    find_search* s = static_cast<find_search*>(mem_new(MEM_DYNAMIC, sizeof(find_search), "v3_find_first"));
    bool ok = full && s;
    if (ok) {
        std::memcpy(full, dir, length);
        full[length] = '/';
        full[length + (slash ? 0 : 1)] = 0;
        std::memset(s, 0, sizeof *s);
        ok = find_begin(s, full);
    }
    mem_free(dir);
    mem_free(full);
    if (!ok) {
        mem_free(s);
        return 0;
    }
    item->search = s;
    return next_matching(item);
}

int v3_find_next(v3_find_item* item) { return item ? next_matching(item) : 0; }

void v3_find_close(v3_find_item* item) {
    if (!item || !item->search) return;
    find_search* s = static_cast<find_search*>(item->search);
    find_end(s);
    mem_free(s);
    item->search = nullptr;
}
