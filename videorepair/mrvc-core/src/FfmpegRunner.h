// Running ffmpeg as a child process for the manager, and the ffmpeg-only repair.
#pragma once

#include <string>

class RepairLog;
class IVideoRepairObserver;

// Keeps only the newest bytes of a child's output.
constexpr size_t kChildOutputTailBytes = 65536;

// Starts the command line, collects the tail of its merged stdout and stderr, and
// waits for it. The child's exit code, or -1 when it could not be started.
int RunCommand(const std::wstring& commandLine, std::string& output);

// Stream-copies videoPath into outputPath with ffmpegPath. 0 on success, else -1.
int RunStreamCopy(const std::wstring& ffmpegPath, const std::wstring& videoPath,
                  const std::wstring& outputPath, RepairLog* log, IVideoRepairObserver* observer);
