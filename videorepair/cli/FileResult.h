// Everything the host learnt about one damaged file, for the report, the summary
// table and the JSON object.
#pragma once

#include <string>

#include "MediaReport.h"

struct FileResult {
    std::string input;
    std::string method;  // "repair" or "remux"
    // repaired, cancelled, failed, unsupported, missing, ffmpeg-missing, save-failed, skipped
    std::string status;
    int exitCode = 0;
    bool libraryCalled = false;
    int libraryResult = 0;
    std::string repairedPath;
    std::string savedPath;
    std::string error;
    double seconds = 0.0;
    bool probed = false;  // damaged and repaired below are filled
    MediaFacts damaged;
    MediaFacts repaired;
};
