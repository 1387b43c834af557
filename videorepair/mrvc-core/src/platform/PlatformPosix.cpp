// POSIX twin of the Windows platform layer.
#include "platform/Platform.h"

#include <Poco/UUIDGenerator.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "platform/CommandLine.h"

extern char** environ;

namespace platform {

std::wstring ExecutablePath() {
    char buffer[PATH_MAX + 1];
    ssize_t n = readlink("/proc/self/exe", buffer, PATH_MAX);
    if (n <= 0) return std::wstring();
    buffer[n] = '\0';
    return ToWide(buffer);
}

wchar_t NativeSeparator() { return L'/'; }

bool GetEnvironment(const std::wstring& name, std::wstring& value) {
    const char* v = std::getenv(ToNarrow(name).c_str());
    if (v == nullptr) return false;
    value = ToWide(v);
    return true;
}

std::wstring UserTemporaryDirectory() {
    std::wstring dir;
    if (!GetEnvironment(L"TMPDIR", dir) || dir.empty()) dir = L"/tmp";
    while (dir.size() > 1 && dir.back() == L'/') dir.pop_back();
    return dir;
}

std::wstring FfmpegProgramName() { return L"ffmpeg"; }

std::wstring FindProgramOnPath(const std::wstring& name) {
    const char* list = std::getenv("PATH");
    if (list == nullptr || name.empty()) return std::wstring();
    const std::string program = ToNarrow(name);
    const std::string directories(list);
    size_t start = 0;
    while (start <= directories.size()) {
        size_t end = directories.find(':', start);
        if (end == std::string::npos) end = directories.size();
        const std::string directory = directories.substr(start, end - start);
        start = end + 1;
        if (directory.empty() || directory.front() != '/') continue;
        const std::string candidate = directory + (directory.back() == '/' ? "" : "/") + program;
        struct stat info {};
        if (::stat(candidate.c_str(), &info) == 0 && S_ISREG(info.st_mode) && ::access(candidate.c_str(), X_OK) == 0) {
            return ToWide(candidate);
        }
    }
    return std::wstring();
}

bool NewUuid(Uuid& out) {
    try {
        Poco::UUID id = Poco::UUIDGenerator::defaultGenerator().createRandom();
        uint8_t bytes[16];
        id.copyTo(reinterpret_cast<char*>(bytes));
        out.data1 = (uint32_t(bytes[0]) << 24) | (uint32_t(bytes[1]) << 16) |
                    (uint32_t(bytes[2]) << 8) | bytes[3];
        out.data2 = uint16_t((bytes[4] << 8) | bytes[5]);
        out.data3 = uint16_t((bytes[6] << 8) | bytes[7]);
        std::memcpy(out.data4, bytes + 8, 8);
        return true;
    } catch (...) {
        return false;
    }
}

// Opened without blocking so that a FIFO named as a video cannot hang the open,
// then refused unless it is a regular file or a block device: a directory, a
// pipe or a character device has no size to scan and no bytes to seek to.
int OpenForRead(const std::wstring& path) {
    int fd = ::open(ToNarrow(path).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) return -1;
    struct stat st;
    if (::fstat(fd, &st) != 0 || !(S_ISREG(st.st_mode) || S_ISBLK(st.st_mode))) {
        ::close(fd);
        return -1;
    }
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    return fd;
}

int OpenForWrite(const std::wstring& path) {
    return ::open(ToNarrow(path).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
}

int OpenForAppend(const std::wstring& path) {
    return ::open(ToNarrow(path).c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
}

int64_t Seek(int fd, int64_t offset, int whence) { return ::lseek(fd, offset, whence); }
int64_t Tell(int fd) { return ::lseek(fd, 0, SEEK_CUR); }

int64_t Read(int fd, void* buffer, uint32_t count) {
    for (;;) {
        ssize_t n = ::read(fd, buffer, count);
        if (n >= 0 || errno != EINTR) return n;
    }
}

int64_t Write(int fd, const void* buffer, uint32_t count) {
    const char* p = static_cast<const char*>(buffer);
    uint32_t done = 0;
    while (done < count) {
        ssize_t n = ::write(fd, p + done, count - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return done > 0 ? int64_t(done) : -1;
        done += uint32_t(n);
    }
    return done;
}

int Close(int fd) { return fd < 0 ? -1 : ::close(fd); }

namespace {

int ExitCodeOf(int status) {
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return -1;
}

}  // namespace

int RunCommandLine(const std::wstring& commandLine,
                   const std::function<void(const char*, size_t)>& onOutput) {
    std::vector<std::string> args;
    for (const std::wstring& a : SplitCommandLine(commandLine)) args.push_back(ToNarrow(a));
    if (args.empty()) return -1;
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);

    int pipeEnds[2];
    if (pipe2(pipeEnds, O_CLOEXEC) != 0) return -1;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeEnds[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, pipeEnds[1], STDERR_FILENO);
    pid_t child = -1;
    int rc = posix_spawn(&child, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(pipeEnds[1]);
    if (rc != 0) {
        ::close(pipeEnds[0]);
        return -1;
    }
    char chunk[4096];
    for (;;) {
        int64_t n = Read(pipeEnds[0], chunk, sizeof chunk);
        if (n <= 0) break;
        onOutput(chunk, size_t(n));
    }
    ::close(pipeEnds[0]);
    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) return -1;
    }
    return ExitCodeOf(status);
}

void SleepMilliseconds(int milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

bool LocalTime(std::time_t moment, std::tm& out) { return localtime_r(&moment, &out) != nullptr; }

}  // namespace platform

namespace platform {

bool SameFile(const std::wstring& a, const std::wstring& b) {
    struct stat sa {}, sb {};
    if (::stat(ToNarrow(a).c_str(), &sa) != 0 || ::stat(ToNarrow(b).c_str(), &sb) != 0) return false;
    return sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

void DebugTrace(const std::string& text) {
    static const bool enabled = std::getenv("VIDEOREPAIR_TRACE") != nullptr;
    if (enabled) {
        ssize_t ignored = ::write(STDERR_FILENO, text.data(), text.size());
        (void)ignored;
    }
}

}  // namespace platform

#include <poll.h>

namespace platform {

int64_t ReadPipeFor(intptr_t handle, void* buffer, uint32_t count, int milliseconds) {
    pollfd fd{int(handle), POLLIN, 0};
    int ready = ::poll(&fd, 1, milliseconds);
    if (ready < 0) return errno == EINTR ? 0 : -1;
    if (ready == 0) return 0;
    ssize_t n = ::read(int(handle), buffer, count);
    if (n < 0) return errno == EINTR || errno == EAGAIN ? 0 : -1;
    return n == 0 ? -1 : n;
}

}  // namespace platform

#include <cstdio>
#include <sys/statvfs.h>

namespace platform {

IoFailure LastIoFailure() {
    switch (errno) {
        case 0: return IoFailure::kNone;
        case ENODEV:
        case ENXIO:
        case ENOMEDIUM: return IoFailure::kDeviceGone;
        case ENOSPC: return IoFailure::kNoSpace;
        case EDQUOT: return IoFailure::kQuota;
        case EROFS: return IoFailure::kReadOnly;
        case EIO: return IoFailure::kInputOutput;
        default: return IoFailure::kOther;
    }
}

int64_t FreeBytes(const std::wstring& directory) {
    struct statvfs st {};
    if (::statvfs(ToNarrow(directory).c_str(), &st) != 0) return -1;
    return int64_t(st.f_bavail) * int64_t(st.f_frsize);
}

bool RenameReplacing(const std::wstring& from, const std::wstring& to) {
    return std::rename(ToNarrow(from).c_str(), ToNarrow(to).c_str()) == 0;
}

}  // namespace platform
