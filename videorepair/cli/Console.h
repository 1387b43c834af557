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
// asks to resume. With quitOnSecond false every request is only counted (the
// tool that runs workers must clean up before it quits), and a hang-up or
// termination request counts as two Ctrl-C.
void InstallInterruptHandlers(bool quitOnSecond = true);

int InterruptCount();       // Ctrl-C presses so far
int PauseToggleCount();     // Ctrl-Z presses so far
int ContinueCount();        // SIGCONT deliveries so far

// The host reads nothing from its standard input; ffmpeg children inherit it and
// would otherwise take keys from the terminal.
void DetachStandardInput();

// The program's arguments (without its name) as UTF-8, whatever the system's
// own encoding of argv.
std::vector<std::string> Utf8Arguments(int argc, char** argv);

// Full path of this program, to start workers from.
std::string ProgramPath();

// A worker leaves the terminal's foreground process group, with the children
// the library starts: a terminal's Ctrl-C then reaches only the tool, which
// passes it on to the worker alone, and ffmpeg children finish their job.
void LeaveTerminalGroup();

enum class Request { kInterrupt, kPauseToggle, kContinue };
void Forward(int pid, Request request);

// Ends a worker and every child it started, at once.
void KillWorker(int pid);

// False only when no process with this id exists.
bool ProcessExists(int pid);

// True when a question can be asked and answered (standard input and standard
// error are terminals).
bool CanAsk();

// Names this user in the work directory's name: the user id, or the user name.
std::string UserTag();

}  // namespace console
