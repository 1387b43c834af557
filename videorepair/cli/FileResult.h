// Everything the host learnt about one damaged file, for the report, the summary
// table and the JSON line. A plain struct: a new fact is a new field here and a
// line in the JSON writer (ResultOutput.cpp).
#pragma once

#include <string>
#include <vector>

#include "MediaReport.h"
#include "RecordReader.h"
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
    // repaired, unplayable, cancelled, failed, unsupported, missing, ffmpeg-missing,
    // save-failed, exists, skipped
    std::string status;
    int exitCode = 0;
    bool libraryCalled = false;
    int libraryResult = 0;
    std::string repairedPath;  // where the result is: its destination
    std::string savedPath;     // the same, once it is there (empty when nothing was written)
    std::string error;
    std::string advice;  // what to do next, when something went wrong
    std::string note;    // where the result went when that is not where it was asked for
    double seconds = 0.0;
    bool judged = false;  // a thorough repair ran and judge is filled
    JudgeReport judge;
    bool probed = false;  // damaged and repaired below are filled
    MediaFacts damaged;
    MediaFacts repaired;
    int64_t damagedFrames = -1;   // decoded video frames; -1: not counted
    int64_t repairedFrames = -1;
    std::vector<std::string> lostStreams;  // "pcm_s16le audio": in the damaged file or sample, not in the result
    RepairMap map;           // the thorough repair's record: byte ranges and gaps
    std::string reportPage;  // --report: this file's page
    std::vector<UnreadableRange> unreadable;  // of the damaged file: the device would not give them
};
