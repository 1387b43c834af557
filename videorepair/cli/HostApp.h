// The `videorepair` program: checks the command line's files, runs every repair
// through one RepairSession, reports, and turns the outcome into an exit code.
#pragma once

#include <cstdio>
#include <set>
#include <string>

#include "CliOptions.h"
#include "ProgressDisplay.h"
#include "ResultOutput.h"

class HostApp {
public:
    explicit HostApp(CliOptions options);
    int Run();

private:
    bool PrepareDirectories();
    bool PrepareOutput();
    bool CheckSample();
    FileResult Process(class RepairSession& session, const std::string& input, size_t position);
    void NoteFaults(const struct RepairOutcome& outcome, FileResult& file) const;
    void Classify(const struct RepairOutcome& outcome, FileResult& file) const;
    bool Thorough() const { return options_.command == CliCommand::kRepair && !options_.compatible; }
    std::string DestinationFor(const std::string& input);
    bool IsProtected(const std::string& path) const;  // an input or the sample
    void Fail(const std::string& message, int exitCode);
    int Finish();
    std::FILE* HumanOut() const { return options_.json ? stderr : stdout; }

    CliOptions options_;
    ProgressDisplay display_;
    RunSummary run_;
    bool outputIsDirectory_ = false;
    std::set<std::string> destinationsUsed_;
};

// Missing, not a file, or unreadable: the reason; empty when it can be read.
std::string UnreadableReason(const std::string& path);
