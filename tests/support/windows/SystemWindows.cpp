// Windows side of the test helpers: children through CreateProcessW.
//
// Test media are made with the lavfi sources and encoders of the build machine's
// own ffmpeg (the Windows ffmpeg.exe has no encoders), so under wine a request is
// left in the media folder for scripts/windows/media-broker.sh, which writes the
// file from outside; the test waits for it.
#include <windows.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include "platform/Platform.h"
#include "support/System.h"
#include "support/TestSupport.h"

namespace testing_support {

namespace fs = std::filesystem;

int ProcessId() { return int(GetCurrentProcessId()); }

namespace {

// Quoting as the Microsoft C runtime parses it: backslashes are literal unless
// they precede a double quote.
std::wstring Quoted(const std::wstring& arg) {
    if (!arg.empty() && arg.find_first_of(L" \t\"") == std::wstring::npos) return arg;
    std::wstring out = L"\"";
    size_t slashes = 0;
    for (wchar_t c : arg) {
        if (c == L'\\') {
            ++slashes;
        } else if (c == L'"') {
            out.append(slashes * 2 + 1, L'\\');
            slashes = 0;
        } else {
            out.append(slashes, L'\\');
            slashes = 0;
        }
        if (c != L'\\') out.push_back(c);
    }
    out.append(slashes * 2, L'\\');
    return out + L"\"";
}

HANDLE NullDevice(DWORD access) {
    SECURITY_ATTRIBUTES sa{sizeof sa, nullptr, TRUE};
    return CreateFileW(L"NUL", access, FILE_SHARE_READ | FILE_SHARE_WRITE, &sa, OPEN_EXISTING, 0, nullptr);
}

}  // namespace

int RunProgram(const std::vector<std::string>& argv, std::string* out) {
    std::wstring line;
    for (const std::string& a : argv) line += (line.empty() ? L"" : L" ") + Quoted(platform::ToWide(a));
    SECURITY_ATTRIBUTES sa{sizeof sa, nullptr, TRUE};
    HANDLE readEnd = nullptr, writeEnd = nullptr;
    if (!CreatePipe(&readEnd, &writeEnd, &sa, 0)) return -1;
    SetHandleInformation(readEnd, HANDLE_FLAG_INHERIT, 0);
    STARTUPINFOW si{};
    si.cb = sizeof si;
    si.dwFlags = STARTF_USESTDHANDLES;
    si.hStdInput = NullDevice(GENERIC_READ);
    si.hStdOutput = writeEnd;
    si.hStdError = NullDevice(GENERIC_WRITE);
    PROCESS_INFORMATION pi{};
    std::vector<wchar_t> mutableLine(line.begin(), line.end());
    mutableLine.push_back(L'\0');
    BOOL started = CreateProcessW(nullptr, mutableLine.data(), nullptr, nullptr, TRUE, CREATE_NO_WINDOW,
                                  nullptr, nullptr, &si, &pi);
    CloseHandle(writeEnd);
    CloseHandle(si.hStdInput);
    CloseHandle(si.hStdError);
    if (!started) {
        CloseHandle(readEnd);
        return -1;
    }
    std::string collected;
    char buf[4096];
    DWORD got = 0;
    while (::ReadFile(readEnd, buf, sizeof buf, &got, nullptr) && got > 0) collected.append(buf, got);
    CloseHandle(readEnd);
    WaitForSingleObject(pi.hProcess, INFINITE);
    DWORD code = 0;
    GetExitCodeProcess(pi.hProcess, &code);
    CloseHandle(pi.hProcess);
    CloseHandle(pi.hThread);
    if (out) *out = collected;
    return int(code);
}

bool MakeMedia(const std::string& target, const std::vector<std::string>& ffmpegArgs) {
    fs::path wanted = fs::u8path(target);
    fs::path failed = fs::u8path(target + ".failed");
    fs::path request = fs::u8path(target + "." + std::to_string(ProcessId()) + ".request");
    fs::path draft = fs::u8path(target + "." + std::to_string(ProcessId()) + ".draft");
    {
        std::ofstream out(draft, std::ios::binary | std::ios::trunc);
        out << wanted.filename().u8string() << '\n';
        for (const std::string& a : ffmpegArgs) out << a << '\n';
    }
    std::error_code ec;
    fs::rename(draft, request, ec);  // whole requests only
    if (ec) {
        std::fprintf(stderr, "cannot leave a media request for %s: %s\n", target.c_str(), ec.message().c_str());
        return false;
    }
    // The broker answers in well under a second per file; five minutes means it is not running.
    for (int i = 0; i < 3000; ++i) {
        if (fs::exists(wanted)) return true;
        if (fs::exists(failed)) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    fs::remove(request, ec);
    std::fprintf(stderr, "test media %s was not made (is scripts/windows/media-broker.sh running?)\n",
                 target.c_str());
    return false;
}

std::vector<std::pair<int64_t, int64_t>> DataExtents(const std::string& path) {
    std::error_code ec;
    const auto size = std::filesystem::file_size(std::filesystem::u8path(path), ec);
    if (ec) return {};
    return {{0, int64_t(size)}};
}

}  // namespace testing_support
