// Failures of the disk for tests, made real also when the tests run as root (who writes
// into read-only folders): a path that nothing may be created in or moved over, and a
// disk that fills up while a file is written.
#pragma once

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <string>

// Sets or clears the immutable attribute of a file or folder (root only, and only on file
// systems that have it). An immutable folder takes no new entries; an immutable file cannot
// be replaced, renamed or deleted. Returns true when the attribute is as asked.
inline bool test_set_immutable(const std::string& path, bool on) {
    int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return false;
    int flags = 0;
    bool ok = ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
    if (ok) {
        flags = on ? flags | FS_IMMUTABLE_FL : flags & ~FS_IMMUTABLE_FL;
        ok = ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
    }
    close(fd);
    return ok;
}

// While alive, `path` cannot be replaced (a file) or written into (a folder): the immutable
// attribute for root, else a read-only folder (the file's folder for a file). `active` is
// false when neither could be had.
class TestUnwritable {
public:
    explicit TestUnwritable(const std::string& path) : path_(path) {
        if (test_set_immutable(path_, true)) {
            active = immutable_ = true;
            return;
        }
        struct stat st;
        if (stat(path_.c_str(), &st) != 0) return;
        folder_ = S_ISDIR(st.st_mode) ? path_ : path_.substr(0, path_.rfind('/'));
        active = chmod(folder_.c_str(), 0555) == 0 && access(folder_.c_str(), W_OK) != 0;
    }
    ~TestUnwritable() {
        if (immutable_) test_set_immutable(path_, false);
        else if (!folder_.empty()) chmod(folder_.c_str(), 0755);
    }
    TestUnwritable(const TestUnwritable&) = delete;
    TestUnwritable& operator=(const TestUnwritable&) = delete;

    bool active = false;

private:
    std::string path_;
    std::string folder_;
    bool immutable_ = false;
};

// While alive, this process writes no file beyond `bytes` (writes past it fail as on a full
// disk, with SIGXFSZ ignored). Files that stay below the limit, such as a short log, still grow.
class TestFileSizeLimit {
public:
    explicit TestFileSizeLimit(rlim_t bytes) {
        old_handler_ = std::signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &old_);
        rlimit limit = old_;
        limit.rlim_cur = bytes;
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~TestFileSizeLimit() {
        setrlimit(RLIMIT_FSIZE, &old_);
        std::signal(SIGXFSZ, old_handler_);
    }
    TestFileSizeLimit(const TestFileSizeLimit&) = delete;
    TestFileSizeLimit& operator=(const TestFileSizeLimit&) = delete;

private:
    rlimit old_{};
    void (*old_handler_)(int) = SIG_DFL;
};
