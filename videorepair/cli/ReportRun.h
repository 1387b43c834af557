// What the report flags ask of a run: the library's record of each thorough
// repair fetched through a file in the work folder, then the page, the contact
// sheet and, for several files, the index page linking one page per file.
#pragma once

#include <string>
#include <vector>

#include "ReportPage.h"
#include "ResultOutput.h"

class ReportRun {
public:
    // reportPath / sheetPath: empty when not asked for.
    ReportRun(std::string reportPath, std::string sheetPath, size_t inputs)
        : reportPath_(std::move(reportPath)), sheetPath_(std::move(sheetPath)), inputs_(inputs) {}

    // Reads the record into file.map (and removes it), then writes what was asked
    // for this file (file.reportPage names its page). Problems are told on stderr
    // and do not fail the repair.
    void AfterFile(FileResult& file, const RunSummary& run, const std::string& recordPath, size_t position);
    // The index page, when several files share one report: a line per file, linking its page.
    void Finish(const RunSummary& run) const;

private:
    std::string SheetPathFor(size_t position, const std::string& input) const;

    std::string reportPath_;
    std::string sheetPath_;
    size_t inputs_;
};
