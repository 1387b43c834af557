// A demux-only walk over the kept file (nothing is decoded): each stream's span
// on the timeline and the holes in it, for the record of the repair. Times are
// seconds from the file's earliest packet, as a player shows them.
#pragma once

#include <string>

#include "thorough/RepairRecord.h"

namespace thorough {

class TimelineSurvey {
public:
    // A jump of more than this many frame durations is a hole in a video stream.
    static constexpr double kVideoFrames = 3.0;
    // And of more than this in any other stream.
    static constexpr double kOtherSeconds = 0.5;

    // False when the file does not open; record is left as it was.
    static bool Survey(const std::wstring& path, RepairRecord& record);
};

}  // namespace thorough
