// How results reach the user: a short report per file and a summary table for
// people, one JSON object for programs.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "FileResult.h"

struct RunSummary {
    std::string command;  // "repair" or "remux"
    std::string road;     // repair: "thorough" or "compatible"; empty for a remux
    std::string sample;   // empty for remux and a thorough repair without one
    bool sampleProbed = false;
    MediaFacts sampleFacts;
    std::string output;
    std::string logFile;
    std::string workDirectory;
    bool cancelled = false;
    int exitCode = 0;
    std::string error;  // a failure before any file was tried
    std::vector<FileResult> files;
};

void PrintFileReport(std::FILE* out, const FileResult& file, const RunSummary& run);
void PrintSummaryTable(std::FILE* out, const RunSummary& run);
void PrintJson(std::FILE* out, const RunSummary& run);
