// A preloaded library that makes a healthy disk behave like a failing card or a
// full one, for tests that run the real program (and the ffmpeg it starts).
// Configured by the environment:
//   VR_FAULT_READ_PATH   reads of files whose path ends so can fail
//   VR_FAULT_EIO         "offset:length,..." byte ranges that answer EIO
//   VR_FAULT_GONE_AT     every read that touches this offset or later fails...
//   VR_FAULT_GONE_ERRNO  ...with this errno (default EIO; ENODEV as a pulled USB reader says)
//   VR_FAULT_WRITE_DIR   writes to files under this folder share one budget...
//   VR_FAULT_WRITE_LIMIT ...of this many bytes; then ENOSPC
// A read that touches a bad byte fails whole, as a device's read of a bad sector does.
#include <dlfcn.h>
#include <fcntl.h>
#include <stdarg.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

enum : unsigned char { kPlain = 0, kFaultyRead = 1, kLimitedWrite = 2 };
constexpr int kMaxFd = 65536;
unsigned char kinds[kMaxFd];

struct Config {
    std::string readSuffix;
    std::vector<std::pair<int64_t, int64_t>> bad;  // [begin, end)
    int64_t goneAt = -1;
    int goneErrno = EIO;
    std::string writeDir;
    int64_t writeLimit = -1;
};

const Config& Settings() {
    static const Config config = [] {
        Config c;
        if (const char* v = std::getenv("VR_FAULT_READ_PATH")) c.readSuffix = v;
        if (const char* v = std::getenv("VR_FAULT_EIO")) {
            std::string list = v;
            size_t at = 0;
            while (at < list.size()) {
                size_t comma = list.find(',', at);
                std::string item = list.substr(at, comma == std::string::npos ? std::string::npos : comma - at);
                long long offset = 0, length = 0;
                if (std::sscanf(item.c_str(), "%lld:%lld", &offset, &length) == 2) c.bad.emplace_back(offset, offset + length);
                if (comma == std::string::npos) break;
                at = comma + 1;
            }
        }
        if (const char* v = std::getenv("VR_FAULT_GONE_AT")) c.goneAt = std::atoll(v);
        if (const char* v = std::getenv("VR_FAULT_GONE_ERRNO")) c.goneErrno = std::atoi(v);
        if (const char* v = std::getenv("VR_FAULT_WRITE_DIR")) c.writeDir = v;
        if (const char* v = std::getenv("VR_FAULT_WRITE_LIMIT")) c.writeLimit = std::atoll(v);
        return c;
    }();
    return config;
}

std::atomic<int64_t> written{0};

template <typename F>
F Real(const char* name) {
    return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

bool EndsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

void Classify(int fd, const char* path) {
    if (fd < 0 || fd >= kMaxFd || path == nullptr) return;
    const Config& c = Settings();
    std::string p = path;
    // A link to the faulty file (the tool reads through views of its inputs) is the file.
    if (!c.readSuffix.empty() && !EndsWith(p, c.readSuffix)) {
        char resolved[PATH_MAX];
        if (realpath(path, resolved) != nullptr && EndsWith(resolved, c.readSuffix)) p = resolved;
    }
    kinds[fd] = kPlain;
    if (!c.readSuffix.empty() && EndsWith(p, c.readSuffix))
        kinds[fd] = kFaultyRead;
    else if (!c.writeDir.empty() && c.writeLimit >= 0 && p.compare(0, c.writeDir.size(), c.writeDir) == 0)
        kinds[fd] = kLimitedWrite;
}

bool Is(int fd, unsigned char kind) { return fd >= 0 && fd < kMaxFd && kinds[fd] == kind; }

// 0 when the read may go ahead, else the errno it fails with.
int ReadFails(int64_t offset, size_t n) {
    if (n == 0) return 0;
    const Config& c = Settings();
    const int64_t end = offset + int64_t(n);
    if (c.goneAt >= 0 && end > c.goneAt) return c.goneErrno;
    for (const auto& r : c.bad)
        if (offset < r.second && r.first < end) return EIO;
    return 0;
}

// How much of n bytes the write budget still takes; -1 (errno ENOSPC) when none.
ssize_t Allowed(int fd, size_t n) {
    if (!Is(fd, kLimitedWrite) || n == 0) return ssize_t(n);
    const int64_t limit = Settings().writeLimit;
    int64_t before = written.fetch_add(int64_t(n));
    if (before >= limit) {
        errno = ENOSPC;
        return -1;
    }
    return ssize_t(std::min<int64_t>(int64_t(n), limit - before));
}

int64_t Position(int fd) { return Real<off_t (*)(int, off_t, int)>("lseek")(fd, 0, SEEK_CUR); }

}  // namespace

extern "C" {

int open(const char* path, int flags, ...) {
    mode_t mode = 0;
    if (flags & (O_CREAT | O_TMPFILE)) {
        va_list args;
        va_start(args, flags);
        mode = mode_t(va_arg(args, int));
        va_end(args);
    }
    int fd = Real<int (*)(const char*, int, ...)>("open")(path, flags, mode);
    Classify(fd, path);
    return fd;
}

int open64(const char* path, int flags, ...) {
    mode_t mode = 0;
    if (flags & (O_CREAT | O_TMPFILE)) {
        va_list args;
        va_start(args, flags);
        mode = mode_t(va_arg(args, int));
        va_end(args);
    }
    int fd = Real<int (*)(const char*, int, ...)>("open64")(path, flags, mode);
    Classify(fd, path);
    return fd;
}

int openat(int dir, const char* path, int flags, ...) {
    mode_t mode = 0;
    if (flags & (O_CREAT | O_TMPFILE)) {
        va_list args;
        va_start(args, flags);
        mode = mode_t(va_arg(args, int));
        va_end(args);
    }
    int fd = Real<int (*)(int, const char*, int, ...)>("openat")(dir, path, flags, mode);
    Classify(fd, path);
    return fd;
}

FILE* fopen(const char* path, const char* mode) {
    FILE* f = Real<FILE* (*)(const char*, const char*)>("fopen")(path, mode);
    if (f != nullptr) Classify(fileno(f), path);
    return f;
}

FILE* fopen64(const char* path, const char* mode) {
    FILE* f = Real<FILE* (*)(const char*, const char*)>("fopen64")(path, mode);
    if (f != nullptr) Classify(fileno(f), path);
    return f;
}

int close(int fd) {
    if (fd >= 0 && fd < kMaxFd) kinds[fd] = kPlain;
    return Real<int (*)(int)>("close")(fd);
}

ssize_t read(int fd, void* buffer, size_t n) {
    if (int failure = Is(fd, kFaultyRead) ? ReadFails(Position(fd), n) : 0) {
        errno = failure;
        return -1;
    }
    return Real<ssize_t (*)(int, void*, size_t)>("read")(fd, buffer, n);
}

ssize_t pread(int fd, void* buffer, size_t n, off_t offset) {
    if (int failure = Is(fd, kFaultyRead) ? ReadFails(offset, n) : 0) {
        errno = failure;
        return -1;
    }
    return Real<ssize_t (*)(int, void*, size_t, off_t)>("pread")(fd, buffer, n, offset);
}

ssize_t pread64(int fd, void* buffer, size_t n, off_t offset) {
    if (int failure = Is(fd, kFaultyRead) ? ReadFails(offset, n) : 0) {
        errno = failure;
        return -1;
    }
    return Real<ssize_t (*)(int, void*, size_t, off_t)>("pread64")(fd, buffer, n, offset);
}

ssize_t readv(int fd, const struct iovec* iov, int count) {
    size_t n = 0;
    for (int i = 0; i < count; ++i) n += iov[i].iov_len;
    if (int failure = Is(fd, kFaultyRead) ? ReadFails(Position(fd), n) : 0) {
        errno = failure;
        return -1;
    }
    return Real<ssize_t (*)(int, const struct iovec*, int)>("readv")(fd, iov, count);
}

ssize_t write(int fd, const void* buffer, size_t n) {
    ssize_t allowed = Allowed(fd, n);
    if (allowed < 0) return -1;
    return Real<ssize_t (*)(int, const void*, size_t)>("write")(fd, buffer, size_t(allowed));
}

ssize_t pwrite(int fd, const void* buffer, size_t n, off_t offset) {
    ssize_t allowed = Allowed(fd, n);
    if (allowed < 0) return -1;
    return Real<ssize_t (*)(int, const void*, size_t, off_t)>("pwrite")(fd, buffer, size_t(allowed), offset);
}

ssize_t pwrite64(int fd, const void* buffer, size_t n, off_t offset) {
    ssize_t allowed = Allowed(fd, n);
    if (allowed < 0) return -1;
    return Real<ssize_t (*)(int, const void*, size_t, off_t)>("pwrite64")(fd, buffer, size_t(allowed), offset);
}

ssize_t writev(int fd, const struct iovec* iov, int count) {
    size_t n = 0;
    for (int i = 0; i < count; ++i) n += iov[i].iov_len;
    if (Is(fd, kLimitedWrite) && Allowed(fd, n) != ssize_t(n)) {
        errno = ENOSPC;
        return -1;
    }
    return Real<ssize_t (*)(int, const struct iovec*, int)>("writev")(fd, iov, count);
}

// Kernel-side copies into a limited file would bypass write: refused, so callers fall back.
ssize_t copy_file_range(int in, off_t* inOffset, int out, off_t* outOffset, size_t n, unsigned flags) {
    if (Is(out, kLimitedWrite)) {
        errno = EXDEV;
        return -1;
    }
    return Real<ssize_t (*)(int, off_t*, int, off_t*, size_t, unsigned)>("copy_file_range")(in, inOffset, out, outOffset,
                                                                                           n, flags);
}

int fallocate(int fd, int mode, off_t offset, off_t length) {
    if (Is(fd, kLimitedWrite) && written.load() + length > Settings().writeLimit) {
        errno = ENOSPC;
        return -1;
    }
    return Real<int (*)(int, int, off_t, off_t)>("fallocate")(fd, mode, offset, length);
}

}  // extern "C"
