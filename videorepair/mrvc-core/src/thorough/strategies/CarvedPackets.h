// The samples carved out of an MP4/MOV media data area as packets: the sample's
// codec parameters and time bases, each video sample timed by its place in
// presentation order at the sample's frame rate, each audio frame by the
// samples before it. Bytes are read from the damaged file as packets are asked.
#pragma once

#include <memory>
#include <vector>

#include "io/FileReader.h"
#include "thorough/PacketSource.h"
#include "thorough/strategies/MediaDataWalker.h"
#include "thorough/strategies/SampleTimeline.h"

namespace thorough {

struct CarvedTrack {
    ParametersPtr parameters;
    AVRational timeBase{1, 90000};
    AVRational frameRate{0, 1};
};

class CarvedPackets : public PacketSource {
public:
    // video first, audio (may have no parameters) second; presentation holds each
    // video sample's place in presentation order, in the order of samples.
    // keepInStep: the writer interleaves finely enough to keep the tracks in step
    // across damage (see SampleTimeline).
    CarvedPackets(std::unique_ptr<FileReader> file, CarvedTrack video, CarvedTrack audio,
                  std::vector<CarvedSample> samples, const std::vector<int64_t>& presentation, int64_t skipped,
                  bool keepInStep);

    unsigned StreamCount() const override { return tracks_[1].parameters ? 2 : 1; }
    const AVCodecParameters* Parameters(unsigned stream) const override { return tracks_[stream].parameters.get(); }
    AVRational TimeBase(unsigned stream) const override { return tracks_[stream].timeBase; }
    AVRational FrameRate(unsigned stream) const override { return tracks_[stream].frameRate; }
    bool Next(AVPacket* packet) override;
    int64_t Consumed() const override { return consumed_; }
    int64_t Skipped() const override { return skipped_; }

private:

    std::unique_ptr<FileReader> file_;
    CarvedTrack tracks_[2];
    std::vector<CarvedSample> samples_;
    std::vector<SampleTime> times_;
    size_t next_ = 0;
    int64_t consumed_ = 0;
    int64_t skipped_ = 0;
};

}  // namespace thorough
