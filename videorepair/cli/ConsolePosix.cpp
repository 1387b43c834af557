#include "Console.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <vector>

#include "ExitCodes.h"

namespace console {

namespace {

std::atomic<int> interrupts{0};
std::atomic<int> pauseToggles{0};
std::atomic<int> continues{0};
static_assert(std::atomic<int>::is_always_lock_free, "signal handlers need lock-free counters");

std::atomic<bool> quitOnSecondInterrupt{true};

void OnInterrupt(int) {
    if (interrupts.fetch_add(1) >= 1 && quitOnSecondInterrupt.load()) {
        static const char kBye[] = "\nvideorepair: interrupted again, quitting at once\n";
        ssize_t ignored = write(STDERR_FILENO, kBye, sizeof kBye - 1);
        (void)ignored;
        _exit(exit_codes::kInterrupted);
    }
}

void OnHangUp(int) { interrupts.fetch_add(2); }
void OnPauseKey(int) { pauseToggles.fetch_add(1); }
void OnContinue(int) { continues.fetch_add(1); }

void Install(int signalNumber, void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(signalNumber, &action, nullptr);
}

}  // namespace

bool IsTerminal(std::FILE* stream) { return isatty(fileno(stream)) == 1; }

void InstallInterruptHandlers(bool quitOnSecond) {
    quitOnSecondInterrupt.store(quitOnSecond);
    if (!quitOnSecond) {
        Install(SIGTERM, OnHangUp);
        Install(SIGHUP, OnHangUp);
    }
    Install(SIGINT, OnInterrupt);
    Install(SIGTSTP, OnPauseKey);
    Install(SIGCONT, OnContinue);
}

int InterruptCount() { return interrupts.load(); }
int PauseToggleCount() { return pauseToggles.load(); }
int ContinueCount() { return continues.load(); }

void DetachStandardInput() {
    int nothing = open("/dev/null", O_RDONLY);
    if (nothing < 0) return;
    dup2(nothing, STDIN_FILENO);
    close(nothing);
}

std::vector<std::string> Utf8Arguments(int argc, char** argv) {
    return std::vector<std::string>(argv + 1, argv + argc);
}

std::string ProgramPath() {
    std::vector<char> path(PATH_MAX + 1, '\0');
    ssize_t n = readlink("/proc/self/exe", path.data(), path.size() - 1);
    return n > 0 ? std::string(path.data(), size_t(n)) : std::string();
}

void LeaveTerminalGroup() { setpgid(0, 0); }

void Forward(int pid, Request request) {
    int signalNumber = request == Request::kInterrupt     ? SIGINT
                       : request == Request::kPauseToggle ? SIGTSTP
                                                          : SIGCONT;
    kill(pid_t(pid), signalNumber);
}

void KillWorker(int pid) {
    kill(-pid_t(pid), SIGKILL);  // its group: the worker and the ffmpeg it started
    kill(pid_t(pid), SIGKILL);   // in case it had not left our group yet
}

bool ProcessExists(int pid) { return kill(pid_t(pid), 0) == 0 || errno != ESRCH; }

bool CanAsk() { return isatty(STDIN_FILENO) == 1 && isatty(STDERR_FILENO) == 1; }

std::string UserTag() { return std::to_string(getuid()); }

}  // namespace console
