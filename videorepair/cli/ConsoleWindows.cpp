// Windows twin of the console: a console control handler stands in for signals.
// Windows has no Ctrl-Z stop signal, so pause toggles and continues never come.
#include "Console.h"

#include <windows.h>
#include <fcntl.h>
#include <io.h>
#include <shellapi.h>

#include <atomic>
#include <cstdlib>

#include "ExitCodes.h"
#include "WideText.h"

namespace console {

namespace {

std::atomic<int> interrupts{0};
std::atomic<bool> quitOnSecondInterrupt{true};

BOOL WINAPI OnControl(DWORD event) {
    if (event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT && event != CTRL_CLOSE_EVENT) return FALSE;
    if (interrupts.fetch_add(1) >= 1 && quitOnSecondInterrupt.load()) {
        static const char kBye[] = "\nvideorepair: interrupted again, quitting at once\n";
        DWORD ignored = 0;
        WriteFile(GetStdHandle(STD_ERROR_HANDLE), kBye, DWORD(sizeof kBye - 1), &ignored, nullptr);
        ExitProcess(UINT(exit_codes::kInterrupted));
    }
    return TRUE;  // handled: the watcher thread cancels the repair
}

}  // namespace

bool IsTerminal(std::FILE* stream) { return _isatty(_fileno(stream)) != 0; }

void InstallInterruptHandlers(bool quitOnSecond) {
    quitOnSecondInterrupt.store(quitOnSecond);
    SetConsoleCtrlHandler(OnControl, TRUE);
}

int InterruptCount() { return interrupts.load(); }
int PauseToggleCount() { return 0; }
int ContinueCount() { return 0; }

void DetachStandardInput() {
    // Children are started with the Win32 standard input handle, the runtime
    // reads descriptor 0: both are pointed at the null device.
    HANDLE nothing = CreateFileW(L"NUL", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                 OPEN_EXISTING, 0, nullptr);
    if (nothing != INVALID_HANDLE_VALUE) SetStdHandle(STD_INPUT_HANDLE, nothing);
    int fd = _open("NUL", _O_RDONLY | _O_BINARY);
    if (fd < 0) return;
    _dup2(fd, 0);
    _close(fd);
}

std::vector<std::string> Utf8Arguments(int, char**) {
    // argv is in the ANSI code page; the wide command line keeps every name.
    std::vector<std::string> args;
    int count = 0;
    wchar_t** wide = CommandLineToArgvW(GetCommandLineW(), &count);
    if (wide == nullptr) return args;
    for (int i = 1; i < count; ++i) args.push_back(wide_text::ToNarrow(wide[i]));
    LocalFree(wide);
    // What the program prints is UTF-8 too.
    SetConsoleOutputCP(CP_UTF8);
    return args;
}

std::string ProgramPath() {
    std::wstring path(32768, L'\0');
    DWORD n = GetModuleFileNameW(nullptr, &path[0], DWORD(path.size()));
    path.resize(n);
    return wide_text::ToNarrow(path);
}

// A console's Ctrl-C reaches every process attached to it: workers hear it
// themselves, so there is nothing to leave and nothing to pass on.
void LeaveTerminalGroup() {}
void Forward(int, Request) {}

void KillWorker(int pid) {
    HANDLE process = OpenProcess(PROCESS_TERMINATE, FALSE, DWORD(pid));
    if (process == nullptr) return;
    TerminateProcess(process, UINT(exit_codes::kInterrupted));
    CloseHandle(process);
}

bool ProcessExists(int pid) {
    HANDLE process = OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, DWORD(pid));
    if (process == nullptr) return GetLastError() != ERROR_INVALID_PARAMETER;
    DWORD code = 0;
    bool running = GetExitCodeProcess(process, &code) && code == STILL_ACTIVE;
    CloseHandle(process);
    return running;
}

bool CanAsk() { return _isatty(_fileno(stdin)) != 0 && _isatty(_fileno(stderr)) != 0; }

std::string UserTag() {
    wchar_t name[256] = {};
    DWORD n = GetEnvironmentVariableW(L"USERNAME", name, 256);
    return n > 0 && n < 256 ? wide_text::ToNarrow(name) : std::string("user");
}

}  // namespace console
