// One damaged file repaired in a worker process: the library gets views of the
// damaged file and the sample inside the worker's work directory, the result is
// put at its destination, the library's intermediates are removed, and the
// result is measured (decoded video frames, lost streams) before it is called
// repaired.
#pragma once

#include <string>

#include "CliOptions.h"
#include "FileResult.h"
#include "ProgressDisplay.h"

class RepairSession;
struct RepairOutcome;

class FileRepair {
public:
    // options: a worker's, with workerDirectory set and output the exact destination.
    FileRepair(const CliOptions& options, ProgressDisplay& display) : options_(options), display_(display) {}

    FileResult Run(RepairSession& session, const std::string& input);

private:
    bool Thorough() const { return options_.command == CliCommand::kRepair && !options_.compatible; }
    std::string Road() const;
    bool PrepareViews(FileResult& file, std::string& damagedView, std::string& sampleView);
    void Classify(const RepairOutcome& outcome, FileResult& file) const;
    void PlaceResult(RepairSession& session, const std::string& damagedView, const RepairOutcome& outcome,
                     const std::string& landing, FileResult& file);
    void Measure(FileResult& file) const;
    void NoteFaults(const struct RepairOutcome& outcome, std::vector<UnreadableRange> unreadable, FileResult& file) const;
    void Advise(FileResult& file) const;
    std::string WorkPath(const std::string& name) const;

    const CliOptions& options_;
    ProgressDisplay& display_;
};
