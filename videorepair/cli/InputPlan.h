// Which files a run repairs and where each result goes. Folders are walked for
// video files; the sample and earlier results are never repaired; a result goes
// beside its damaged file as NAME_repaired.EXT, in the current directory when
// that folder is read-only, or where -o says.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "CliOptions.h"

struct PlannedFile {
    std::string input;
    std::string destination;
    std::string note;  // where the result goes when that is not where it was asked for
};

class InputPlan {
public:
    explicit InputPlan(const CliOptions& options) : options_(options) {}

    // The damaged files named or found in the named folders, in order, each once.
    // What was left out and why goes to skipped ("X: the sample").
    std::vector<std::string> Expand(std::vector<std::string>& skipped) const;

    // Checks -o against the inputs; false with the reason.
    bool CheckOutput(size_t inputCount, std::string& error);

    PlannedFile Plan(const std::string& input);

private:
    void Walk(const std::string& folder, std::vector<std::string>& found, std::vector<std::string>& skipped) const;
    bool IsSample(const std::string& path) const;
    bool IsProtected(const std::string& path, const std::vector<std::string>& inputs) const;
    std::string Unused(const std::string& folder, const std::string& stem, const std::string& extension,
                       bool firstPlain);

    const CliOptions& options_;
    bool outputIsDirectory_ = false;
    std::vector<std::string> inputs_;
    std::set<std::string> used_;
};

// An earlier result: NAME_repaired.EXT or NAME_repairedN.EXT beside an existing NAME.EXT.
bool IsEarlierResult(const std::string& path);

// True when a file can be created in folder.
bool FolderIsWritable(const std::string& folder);
