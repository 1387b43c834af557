// What the command-line host needs from the operating system's console: whether a
// stream is a terminal, and the Ctrl-C / Ctrl-Z requests caught as signals.
// Handlers only count; a watcher thread acts on the counts (a repair blocks the
// main thread, and Cancel/Pause must come from another one).
#pragma once

#include <cstdio>
#include <string>
#include <vector>

namespace console {

bool IsTerminal(std::FILE* stream);

// Ctrl-C: the first request is counted, the second quits at once with exit code
// 130. Ctrl-Z (SIGTSTP) toggles pause instead of stopping the process; SIGCONT
// asks to resume.
void InstallInterruptHandlers();

int InterruptCount();       // Ctrl-C presses so far
int PauseToggleCount();     // Ctrl-Z presses so far
int ContinueCount();        // SIGCONT deliveries so far

// The host reads nothing from its standard input; ffmpeg children inherit it and
// would otherwise take keys from the terminal.
void DetachStandardInput();

// The program's arguments (without its name) as UTF-8, whatever the system's
// own encoding of argv.
std::vector<std::string> Utf8Arguments(int argc, char** argv);

}  // namespace console
