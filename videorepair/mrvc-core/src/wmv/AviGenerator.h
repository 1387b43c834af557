// Writes a video-only AVI file (RIFF AVI, OpenDML-free) from carved payloads: each
// run of records with one media object number becomes one "00dc" frame.
#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "wmv/AsfTypes.h"
#include "wmv/GeneratorStreams.h"

namespace wmv {

class AviGenerator {
public:
    // Paths are UTF-8; records name byte ranges of inputPath.
    AviGenerator(const std::string& inputPath, const std::string& outputPath, const PayloadList& records,
                 const VideoStreamInfo& info);

    // Writes the whole file: 0, or -1 when a file could not be opened or written.
    int Generate();
    uint32_t FrameCount() const { return frames_; }

    // The rate of the stream header for a frame rate and codec (scale 1000).
    static uint32_t StreamRate(double frameRate, const std::string& codec);
    // How long players take the file to last: two chunks per frame (the empty one
    // first) at that rate; 0 where the rate is 0.
    static double Seconds(uint32_t frames, double frameRate, const std::string& codec);

private:
    void WriteHeader();
    bool WritePadding();
    void WriteFrames();
    void Patch(bool hasMovieList);

    static std::atomic<uint32_t> flushCounter_;  // one for every AviGenerator in the process

    GeneratorStreams io_;
    VideoStreamInfo info_;
    PayloadList records_;
    uint32_t frames_ = 0;
};

}  // namespace wmv
