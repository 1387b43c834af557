// What libavformat sees in a file: streams, measured duration and packet counts.
// Put side by side for the sample, the damaged and the repaired file, these tell
// the user at once whether a repair worked.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct StreamFacts {
    int index = 0;
    std::string type;   // "video", "audio", ...
    std::string codec;  // "h264", "pcm_s16le", ...
    int64_t packets = 0;
};

struct MediaFacts {
    std::string path;
    bool opens = false;
    std::string error;   // why it does not open
    std::string format;  // the demuxer's name
    // Measured from the packets' timestamps, not the header, which a damaged
    // file may still carry intact; the header's value when no packet has one.
    double durationSeconds = 0.0;
    int64_t packets = 0;
    int64_t videoPackets = 0;  // packets of the first video stream: its frames
    std::vector<StreamFacts> streams;

    std::string StreamSummary() const;  // "h264 video, aac audio"
};

MediaFacts ProbeMedia(const std::string& path);
