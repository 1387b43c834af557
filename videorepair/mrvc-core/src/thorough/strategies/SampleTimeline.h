// Timestamps for samples carved without an index, whose stts and ctts were
// lost: video one frame apart in decoding order and placed by presentation
// order, audio by the samples before it. Where damage took samples, the two
// tracks lose different spans; with a writer that interleaves finely, the span
// by which audio and video drift apart across the gap is given back to the
// track that lost more, so they stay in step.
#pragma once

#include <cstdint>
#include <vector>

#include "thorough/AvHandles.h"
#include "thorough/strategies/MediaDataWalker.h"

namespace thorough {

struct SampleTime {
    int64_t pts = 0, dts = 0, duration = 0;
};

struct TimelineSettings {
    AVRational videoBase{1, 90000};
    AVRational frameRate{25, 1};
    AVRational audioBase{1, 48000};
    int audioRate = 48000;
    bool keepInStep = false;  // the writer interleaves finely enough to tell the drift
};

// presentation: each video sample's place in presentation order, in order.
std::vector<SampleTime> TimeSamples(const std::vector<CarvedSample>& samples, const std::vector<int64_t>& presentation,
                                    const TimelineSettings& settings);

}  // namespace thorough
