// How results reach the user: a short report per file and a summary table for
// people, one JSON line per file for programs.
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
    bool cancelled = false;
    int exitCode = 0;
    std::string error;  // a failure before any file was tried
    std::vector<FileResult> files;
};

std::string FileReport(const FileResult& file, const RunSummary& run);
void PrintSummaryTable(std::FILE* out, const RunSummary& run);

// One line, without its line break: the file's result with the run's context.
std::string FileJsonLine(const FileResult& file, const RunSummary& run);
// The fields the summary table and the exit code need, back from a JSON line;
// false when text is not one.
bool ReadFileJsonLine(const std::string& text, FileResult& file);
