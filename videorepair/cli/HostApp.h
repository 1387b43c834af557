// The `videorepair` program. The tool plans the run (which files, where each
// result goes, what to do with results that exist), starts a worker process
// per file in a work directory of this run's own, passes Ctrl-C and Ctrl-Z on,
// reports each file as it finishes, and turns the outcome into an exit code.
// A worker repairs one file through one RepairSession.
#pragma once

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "CliOptions.h"
#include "InputPlan.h"
#include "ResultOutput.h"
#include "RunDirectory.h"

class WorkerPool;

class HostApp {
public:
    explicit HostApp(CliOptions options);
    int Run();

private:
    struct Pending {
        PlannedFile plan;
        size_t index = 0;
    };

    bool CheckFfmpeg();
    bool CheckSample();
    bool PlanFiles();
    bool MayWrite(const PlannedFile& planned, FileResult& refused);
    std::vector<std::string> WorkerArgs(const Pending& pending) const;
    std::string ProgressStyle() const;
    bool StartNext(WorkerPool& pool, size_t& next);
    void Collect(const Pending& pending, int exitCode);
    void KeepLog(const std::filesystem::path& fileDirectory) const;
    void Report(const FileResult& file, const std::string& jsonLine, const std::string& humanText);
    void Skip(const PlannedFile& planned, const std::string& status, int exitCode, const std::string& error);
    int RunWorkers();
    void Fail(const std::string& message, int exitCode);
    int Finish();

    CliOptions options_;
    RunSummary run_;
    RunDirectory workDirectory_;
    std::vector<Pending> pending_;
    size_t total_ = 0;
};

// One damaged file, in a process of its own (options.workerDirectory is set).
int RunWorker(const CliOptions& options);

// Missing, not a file, or unreadable: the reason; empty when it can be read.
std::string UnreadableReason(const std::string& path);
