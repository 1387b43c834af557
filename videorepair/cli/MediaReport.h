// What libavformat sees in a file: streams, measured duration, packet counts and,
// when asked, how many video frames libavcodec decodes.
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
    int64_t videoPackets = 0;  // packets of the first video stream
    int64_t decodedFrames = -1;  // frames of that stream that decode; -1: not decoded
    std::vector<StreamFacts> streams;

    std::string StreamSummary() const;  // "h264 video, aac audio"
};

// decodeVideo: also decode the first video stream (only it) and count its frames.
MediaFacts ProbeMedia(const std::string& path, bool decodeVideo = false);

// The streams of reference (by type and codec) that result lacks: "pcm_s16le audio".
std::vector<std::string> LostStreams(const MediaFacts& reference, const MediaFacts& result);
