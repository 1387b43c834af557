// Each stream's span on the kept file's timeline and the holes in it, for the
// record of the repair. Times are seconds from the earliest packet, as a player
// shows them. Gathered from the packets a pass writes, or, where no pass wrote
// the kept file (the damaged file kept as it is), by a demux-only walk over it.
#pragma once

#include <string>
#include <vector>

#include "thorough/AvHandles.h"
#include "thorough/RepairRecord.h"

namespace thorough {

class TimelineWalk {
public:
    // A jump of more than this many frame durations is a hole in a video stream.
    static constexpr double kVideoFrames = 3.0;
    // And of more than this in any other stream.
    static constexpr double kOtherSeconds = 0.5;

    // Streams in index order; parameters null: the stream is not followed.
    void AddStream(const AVCodecParameters* parameters, AVRational frameRate);
    void Step(unsigned index, const AVPacket* packet, AVRational base);
    // The streams and their holes (a late start and an early end among them).
    void Finish(RepairRecord& record) const;

private:
    struct Walk {
        bool followed = false;
        RecordStream stream;
        double threshold = kOtherSeconds;
        double frameSeconds = 0;
        bool started = false;
        std::vector<RecordGap> holes;
    };
    std::vector<Walk> walks_;
};

class TimelineSurvey {
public:
    // False when the file does not open; record is left as it was.
    static bool Survey(const std::wstring& path, RepairRecord& record);
};

}  // namespace thorough
