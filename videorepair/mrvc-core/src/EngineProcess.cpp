#include "EngineProcess.h"

#include <Poco/Pipe.h>
#include <Poco/Process.h>

#include <chrono>

#include "AppPaths.h"
#include "FfmpegRunner.h"
#include "RepairLog.h"
#include "platform/Platform.h"

namespace {

void KeepTail(std::string& output, const char* data, size_t n) {
    output.append(data, n);
    if (output.size() > kChildOutputTailBytes) output.erase(0, output.size() - kChildOutputTailBytes);
}

}  // namespace

EngineProcessResult RunEngineProcess(RepairLog* log, const char* logSource, const std::wstring& program,
                                     const std::vector<std::string>& args, int timeoutSeconds) {
    EngineProcessResult result;
    if (program.empty()) {
        if (log != nullptr) log->Log(logSource, __LINE__, kLogError, "[ENCD] cmd is empty.", "");
        return result;
    }
    if (!app_paths::RegularFileExists(program)) {
        if (log != nullptr)
            log->Log(logSource, __LINE__, kLogError, "[ENCD] cmd is not exists. cmd is:",
                     platform::ToNarrow(program));
        return result;
    }
    try {
        // The child's output goes to one pipe that is drained while we poll, so a
        // chatty ffmpeg can never block on a full pipe.
        // stdin is an empty pipe: ffmpeg must not read keys meant for the host's terminal.
        Poco::Pipe input;
        Poco::Pipe output;
        Poco::ProcessHandle handle =
            Poco::Process::launch(platform::ToNarrow(program), args, &input, &output, &output);
        input.close();
        output.close(Poco::Pipe::CLOSE_WRITE);
        result.started = true;
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeoutSeconds);
        char chunk[4096];
        bool pipeOpen = true;
        int exitCode = -1;  // tryWait answers -1 while the child runs
        while (pipeOpen || exitCode == -1) {
            if (std::chrono::steady_clock::now() >= deadline) {
                result.timedOut = true;
                if (exitCode == -1) {
                    Poco::Process::kill(handle);
                    handle.wait();
                }
                return result;
            }
            if (pipeOpen) {
                int64_t n = platform::ReadPipeFor(intptr_t(output.readHandle()), chunk, sizeof chunk, 500);
                if (n < 0) pipeOpen = false;
                if (n > 0) KeepTail(result.output, chunk, size_t(n));
            } else {
                platform::SleepMilliseconds(exitCode == -1 ? 50 : 0);
            }
            if (exitCode == -1) exitCode = handle.tryWait();
        }
        result.exitCode = exitCode;
    } catch (...) {
        result.started = false;
    }
    return result;
}
