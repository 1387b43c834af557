// Windows platform layer: the system calls a desktop host on Windows expects.
#include "platform/Platform.h"

#include <windows.h>
#include <rpc.h>
#include <fcntl.h>
#include <io.h>
#include <share.h>
#include <sys/stat.h>

#include <vector>

namespace platform {

std::wstring ExecutablePath() {
    wchar_t buffer[260] = {};
    DWORD n = GetModuleFileNameW(nullptr, buffer, 260);
    return std::wstring(buffer, n);
}

wchar_t NativeSeparator() { return L'\\'; }

bool GetEnvironment(const std::wstring& name, std::wstring& value) {
    wchar_t buffer[1024] = {};
    DWORD n = GetEnvironmentVariableW(name.c_str(), buffer, 1024);
    if (n == 0 || n >= 1024) return false;
    value.assign(buffer, n);
    return true;
}

std::wstring UserTemporaryDirectory() {
    std::wstring profile;
    GetEnvironment(L"USERPROFILE", profile);  // a missing value leaves it empty, as intended
    return profile + L"\\AppData\\Local\\Temp";
}

std::wstring FfmpegProgramName() { return L"ffmpeg.exe"; }

namespace {

// PATH may be far longer than the fixed buffer GetEnvironment uses.
std::wstring SearchPathVariable() {
    DWORD size = GetEnvironmentVariableW(L"PATH", nullptr, 0);
    if (size == 0) return std::wstring();
    std::wstring value(size, L'\0');
    DWORD n = GetEnvironmentVariableW(L"PATH", &value[0], size);
    value.resize(n < size ? n : 0);
    return value;
}

bool IsAbsoluteDirectory(const std::wstring& directory) {
    return (directory.size() >= 3 && directory[1] == L':' && (directory[2] == L'\\' || directory[2] == L'/')) ||
           (directory.size() >= 2 && (directory[0] == L'\\' || directory[0] == L'/') &&
            (directory[1] == L'\\' || directory[1] == L'/'));
}

}  // namespace

std::wstring FindProgramOnPath(const std::wstring& name) {
    const std::wstring directories = SearchPathVariable();
    if (directories.empty() || name.empty()) return std::wstring();
    size_t start = 0;
    while (start <= directories.size()) {
        size_t end = directories.find(L';', start);
        if (end == std::wstring::npos) end = directories.size();
        std::wstring directory = directories.substr(start, end - start);
        start = end + 1;
        // Entries may be quoted when they hold a ';'; the quotes are not part of the name.
        if (directory.size() >= 2 && directory.front() == L'"' && directory.back() == L'"') {
            directory = directory.substr(1, directory.size() - 2);
        }
        if (!IsAbsoluteDirectory(directory)) continue;
        const wchar_t last = directory.back();
        const std::wstring candidate = directory + (last == L'\\' || last == L'/' ? L"" : L"\\") + name;
        DWORD attributes = GetFileAttributesW(candidate.c_str());
        if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0) return candidate;
    }
    return std::wstring();
}

bool NewUuid(Uuid& out) {
    UUID id;
    if (UuidCreate(&id) != RPC_S_OK) return false;
    out.data1 = id.Data1;
    out.data2 = id.Data2;
    out.data3 = id.Data3;
    for (int i = 0; i < 8; ++i) out.data4[i] = id.Data4[i];
    return true;
}

int OpenForRead(const std::wstring& path) {
    int fd = -1;
    if (_wsopen_s(&fd, path.c_str(), _O_RDONLY | _O_BINARY, _SH_DENYNO, 0) != 0) return -1;
    return fd;
}

int OpenForWrite(const std::wstring& path) {
    int fd = -1;
    if (_wsopen_s(&fd, path.c_str(), _O_WRONLY | _O_BINARY | _O_CREAT | _O_TRUNC, _SH_DENYNO,
                  _S_IREAD | _S_IWRITE) != 0)
        return -1;
    return fd;
}

int OpenForAppend(const std::wstring& path) {
    int fd = -1;
    if (_wsopen_s(&fd, path.c_str(), _O_WRONLY | _O_BINARY | _O_CREAT | _O_APPEND, _SH_DENYNO,
                  _S_IREAD | _S_IWRITE) != 0)
        return -1;
    return fd;
}

int64_t Seek(int fd, int64_t offset, int whence) { return _lseeki64(fd, offset, whence); }
int64_t Tell(int fd) { return _telli64(fd); }
int64_t Read(int fd, void* buffer, uint32_t count) { return _read(fd, buffer, count); }
int64_t Write(int fd, const void* buffer, uint32_t count) { return _write(fd, buffer, count); }
int Close(int fd) { return fd < 0 ? -1 : _close(fd); }

int RunCommandLine(const std::wstring& commandLine,
                   const std::function<void(const char*, size_t)>& onOutput) {
    SECURITY_ATTRIBUTES sa{};
    sa.nLength = sizeof sa;
    sa.bInheritHandle = TRUE;
    HANDLE readEnd = nullptr, writeEnd = nullptr;
    if (!CreatePipe(&readEnd, &writeEnd, &sa, 0)) return -1;
    SetHandleInformation(readEnd, HANDLE_FLAG_INHERIT, 0);

    STARTUPINFOW si{};
    si.cb = sizeof si;
    si.dwFlags = STARTF_USESTDHANDLES;
    si.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    si.hStdOutput = writeEnd;
    si.hStdError = writeEnd;
    PROCESS_INFORMATION pi{};
    std::vector<wchar_t> mutableLine(commandLine.begin(), commandLine.end());
    mutableLine.push_back(L'\0');
    if (!CreateProcessW(nullptr, mutableLine.data(), nullptr, nullptr, TRUE, CREATE_NO_WINDOW,
                        nullptr, nullptr, &si, &pi)) {
        CloseHandle(readEnd);
        CloseHandle(writeEnd);
        (void)GetLastError();  // taken, as a debugger would show it; the caller only sees -1
        return -1;
    }
    CloseHandle(writeEnd);
    char chunk[4096];
    DWORD got = 0;
    while (ReadFile(readEnd, chunk, sizeof chunk, &got, nullptr) && got > 0) {
        onOutput(chunk, got);
    }
    WaitForSingleObject(pi.hProcess, INFINITE);
    DWORD code = 0;
    GetExitCodeProcess(pi.hProcess, &code);
    CloseHandle(pi.hProcess);
    CloseHandle(pi.hThread);
    CloseHandle(readEnd);
    return int(code);
}

void SleepMilliseconds(int milliseconds) { Sleep(DWORD(milliseconds)); }

bool LocalTime(std::time_t moment, std::tm& out) { return localtime_s(&out, &moment) == 0; }

}  // namespace platform

namespace platform {

namespace {

bool FileIdentity(const std::wstring& path, BY_HANDLE_FILE_INFORMATION& info) {
    HANDLE h = CreateFileW(path.c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                           nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (h == INVALID_HANDLE_VALUE) return false;
    BOOL ok = GetFileInformationByHandle(h, &info);
    CloseHandle(h);
    return ok != FALSE;
}

}  // namespace

bool SameFile(const std::wstring& a, const std::wstring& b) {
    BY_HANDLE_FILE_INFORMATION ia{}, ib{};
    if (!FileIdentity(a, ia) || !FileIdentity(b, ib)) return false;
    return ia.dwVolumeSerialNumber == ib.dwVolumeSerialNumber &&
           ia.nFileIndexHigh == ib.nFileIndexHigh && ia.nFileIndexLow == ib.nFileIndexLow;
}

void DebugTrace(const std::string& text) { OutputDebugStringA(text.c_str()); }

}  // namespace platform

namespace platform {

int64_t ReadPipeFor(intptr_t handle, void* buffer, uint32_t count, int milliseconds) {
    HANDLE pipe = reinterpret_cast<HANDLE>(handle);
    DWORD available = 0;
    for (int waited = 0;; waited += 50) {
        if (!PeekNamedPipe(pipe, nullptr, 0, nullptr, &available, nullptr)) return -1;
        if (available > 0) break;
        if (waited >= milliseconds) return 0;
        Sleep(50);
    }
    DWORD got = 0;
    if (!ReadFile(pipe, buffer, available < count ? available : count, &got, nullptr)) return -1;
    return got;
}

}  // namespace platform

#include <cerrno>

namespace platform {

// The C runtime's _read and _write set errno from the system's error.
IoFailure LastIoFailure() {
    switch (errno) {
        case 0: return IoFailure::kNone;
        case ENODEV:
        case ENXIO: return IoFailure::kDeviceGone;
        case ENOSPC: return IoFailure::kNoSpace;
        case EROFS: return IoFailure::kReadOnly;
        case EIO: return IoFailure::kInputOutput;
        default: return IoFailure::kOther;
    }
}

int64_t FreeBytes(const std::wstring& directory) {
    ULARGE_INTEGER available{};
    if (!GetDiskFreeSpaceExW(directory.c_str(), &available, nullptr, nullptr)) return -1;
    return int64_t(available.QuadPart);
}

bool RenameReplacing(const std::wstring& from, const std::wstring& to) {
    return MoveFileExW(from.c_str(), to.c_str(), MOVEFILE_REPLACE_EXISTING) != 0;
}

}  // namespace platform
