#include "Console.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>

#include "ExitCodes.h"

namespace console {

namespace {

std::atomic<int> interrupts{0};
std::atomic<int> pauseToggles{0};
std::atomic<int> continues{0};
static_assert(std::atomic<int>::is_always_lock_free, "signal handlers need lock-free counters");

void OnInterrupt(int) {
    if (interrupts.fetch_add(1) >= 1) {
        static const char kBye[] = "\nvideorepair: interrupted again, quitting at once\n";
        ssize_t ignored = write(STDERR_FILENO, kBye, sizeof kBye - 1);
        (void)ignored;
        _exit(exit_codes::kInterrupted);
    }
}

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

void InstallInterruptHandlers() {
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

}  // namespace console
