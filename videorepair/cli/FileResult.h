// Everything the host learnt about one damaged file, for the report, the summary
// table and the JSON object.
#pragma once

#include <string>

#include "MediaReport.h"
#include "Unreadable.h"
#include "VideoRepairOptions.h"

// What the thorough repair's judge chose and counted.
struct JudgeReport {
    int verdict = kVerdictNone;
    std::string reason;
    ThoroughMediaCount damaged{};   // the damaged file as it is
    ThoroughMediaCount repaired{};  // the file that was kept
    double seconds = 0.0;
};

// "rebuilt", "remuxed", "as is" or "none".
const char* VerdictName(int verdict);

struct FileResult {
    std::string input;
    std::string method;  // "repair" or "remux"
    std::string road;    // repair: "thorough" or "compatible"; empty for a remux
    // repaired, cancelled, failed, unsupported, missing, ffmpeg-missing, save-failed, skipped
    std::string status;
    int exitCode = 0;
    bool libraryCalled = false;
    int libraryResult = 0;
    std::string repairedPath;
    std::string savedPath;
    std::string error;
    double seconds = 0.0;
    bool judged = false;  // a thorough repair ran and judge is filled
    JudgeReport judge;
    bool probed = false;  // damaged and repaired below are filled
    MediaFacts damaged;
    MediaFacts repaired;
    std::vector<ByteRange> unreadable;  // of the damaged file: read as zeros
};
