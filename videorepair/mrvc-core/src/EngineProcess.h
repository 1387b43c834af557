// Runs ffmpeg for an engine (extraction, analysis, merge, conversion) with
// Poco::Process: the program is checked first, the child is polled every 500 ms
// and killed when it outlives its time limit.
#pragma once

#include <string>
#include <vector>

class RepairLog;

struct EngineProcessResult {
    bool started = false;
    bool timedOut = false;
    int exitCode = -1;
    std::string output;  // the tail of stdout and stderr together (at most 64 KiB)
};

// Logs "[ENCD] cmd is empty." or "[ENCD] cmd is not exists. cmd is:" (ERROR)
// through log under logSource when the program is missing.
EngineProcessResult RunEngineProcess(RepairLog* log, const char* logSource, const std::wstring& program,
                                     const std::vector<std::string>& args, int timeoutSeconds);

// True when the child ran and exited with 0.
inline bool Succeeded(const EngineProcessResult& r) { return r.started && !r.timedOut && r.exitCode == 0; }
