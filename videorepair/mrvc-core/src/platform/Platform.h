// The one place that knows the operating system. Windows uses the calls a desktop
// host expects (GetModuleFileNameW, CreateProcessW and pipes, UuidCreate,
// _wsopen_s with _SH_DENYNO); POSIX has a twin of each.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>
#include <string>

namespace platform {

// Full path of the host program's executable (not of this library).
std::wstring ExecutablePath();

// The directory separator the operating system itself writes in ExecutablePath.
wchar_t NativeSeparator();

// Value of an environment variable; false when it is not set or too long.
bool GetEnvironment(const std::wstring& name, std::wstring& value);

// The user's temporary directory as the library names it (without "/VR").
std::wstring UserTemporaryDirectory();

// File name of the ffmpeg program looked for beside the host ("ffmpeg.exe" or "ffmpeg").
std::wstring FfmpegProgramName();

// The program called name in the first directory of the PATH environment variable
// that holds it as a file the user may run; empty when none does. Only absolute
// directories count, so the result never depends on the current directory.
std::wstring FindProgramOnPath(const std::wstring& name);

struct Uuid {
    uint32_t data1 = 0;
    uint16_t data2 = 0;
    uint16_t data3 = 0;
    uint8_t data4[8] = {};
};
// A new random UUID; false when the system could not make one.
bool NewUuid(Uuid& out);

// Narrow strings are UTF-8 on every platform.
std::string ToNarrow(const std::wstring& wide);
std::wstring ToWide(const std::string& narrow);

// Low-level descriptors: binary, share-deny-none, 64-bit positions. -1 on failure.
int OpenForRead(const std::wstring& path);
int OpenForWrite(const std::wstring& path);  // write-only, created (or truncated)
int OpenForAppend(const std::wstring& path);  // write-only, created, every write at the end
int64_t Seek(int fd, int64_t offset, int whence);  // whence: SEEK_SET, SEEK_CUR, SEEK_END
int64_t Tell(int fd);
int64_t Read(int fd, void* buffer, uint32_t count);  // bytes read, 0 at end, -1 on error
int64_t Write(int fd, const void* buffer, uint32_t count);
int Close(int fd);

// Starts a child from a command line in which arguments are separated by blanks
// and grouped by double quotes. Its stdin is ours; its stdout and stderr go to one
// pipe whose bytes are handed to onOutput as they come. Blocks until the child
// exits and returns its exit code, or -1 when it could not be started. No shell
// is involved on any platform.
int RunCommandLine(const std::wstring& commandLine,
                   const std::function<void(const char*, size_t)>& onOutput);

// Sleeps for the given number of milliseconds.
void SleepMilliseconds(int milliseconds);

// The local calendar time of a moment; false when it cannot be represented.
bool LocalTime(std::time_t moment, std::tm& out);

}  // namespace platform

namespace platform {

// True when both paths name the same existing file (links and spellings resolved).
bool SameFile(const std::wstring& a, const std::wstring& b);

// Diagnostic text for developers (not the log): the debugger's output on Windows,
// standard error on POSIX when VIDEOREPAIR_TRACE is set.
void DebugTrace(const std::string& text);

}  // namespace platform

namespace platform {

// For a pipe handle (a descriptor on POSIX, a HANDLE on Windows, as Poco::Pipe
// gives it): waits up to milliseconds for data, then reads what is there without
// blocking. Returns bytes read, 0 when nothing came in time, -1 at end or error.
int64_t ReadPipeFor(intptr_t handle, void* buffer, uint32_t count, int milliseconds);

}  // namespace platform

namespace platform {

// Why the last Read or Write on this thread failed, as far as a repair cares.
enum class IoFailure { kNone, kDeviceGone, kNoSpace, kQuota, kReadOnly, kInputOutput, kOther };
IoFailure LastIoFailure();
// A short phrase for a failure ("no space left", "read-only file system", ...).
const char* IoFailureText(IoFailure failure);

// Bytes free to this user in the directory's file system; -1 when unknown.
int64_t FreeBytes(const std::wstring& directory);

// Replaces `to` with `from` in one step where the system can (same directory).
bool RenameReplacing(const std::wstring& from, const std::wstring& to);

}  // namespace platform
