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
    std::string displayMatrix;
};

class CarvedPackets : public PacketSource {
public:
    // Either track may have no parameters (audio-only files, or audio that cannot
    // be cut); the streams are those that have. presentation holds each video
    // sample's place in presentation order, in the order of samples.
    // keepInStep: the writer interleaves finely enough to keep the tracks in step
    // across damage (see SampleTimeline).
    CarvedPackets(std::unique_ptr<FileReader> file, CarvedTrack video, CarvedTrack audio,
                  std::vector<CarvedSample> samples, const std::vector<int64_t>& presentation, int64_t skipped,
                  bool keepInStep);

    unsigned StreamCount() const override { return unsigned(streams_.size()); }
    const AVCodecParameters* Parameters(unsigned stream) const override { return Track(stream).parameters.get(); }
    AVRational TimeBase(unsigned stream) const override { return Track(stream).timeBase; }
    AVRational FrameRate(unsigned stream) const override { return Track(stream).frameRate; }
    std::string DisplayMatrix(unsigned stream) const override { return Track(stream).displayMatrix; }
    bool Next(AVPacket* packet) override;
    int64_t Consumed() const override { return consumed_; }
    int64_t Skipped() const override { return skipped_; }
    int64_t FilePosition(const AVPacket*) const override { return next_ > 0 ? samples_[next_ - 1].offset : -1; }

private:
    const CarvedTrack& Track(unsigned stream) const { return tracks_[streams_[stream]]; }

    std::unique_ptr<FileReader> file_;
    CarvedTrack tracks_[2];     // video, audio
    std::vector<int> streams_;  // the tracks that are streams, in stream order
    int streamOf_[2] = {-1, -1};
    std::vector<CarvedSample> samples_;
    std::vector<SampleTime> times_;
    size_t next_ = 0;
    int64_t consumed_ = 0;
    int64_t skipped_ = 0;
};

}  // namespace thorough
