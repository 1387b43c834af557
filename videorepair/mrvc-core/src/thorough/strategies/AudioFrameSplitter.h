// Cuts a stretch of an MP4/MOV media data area that holds one track's audio into
// its frames, where no index gives their sizes: PCM by its block size, coded
// audio (AAC and the like) by letting the decoder take one frame after another
// from the stretch and noting how much each took.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "thorough/AvHandles.h"

namespace thorough {

struct AudioFrame {
    size_t offset = 0;    // from the start of the stretch
    size_t size = 0;
    int64_t samples = 0;  // duration in samples
};

class AudioFrameSplitter {
public:
    explicit AudioFrameSplitter(const AVCodecParameters* parameters);

    bool Supported() const { return pcmBlock_ > 0 || decoder_ != nullptr; }
    // True when the frames are proved by decoding them (coded audio): PCM takes
    // any bytes, so where its frames begin cannot be searched for.
    bool ProvesFrames() const { return decoder_ != nullptr; }

    // The whole frames from the start of the stretch, in order; they stop where
    // the bytes are no longer this track's audio.
    std::vector<AudioFrame> Split(const uint8_t* data, size_t size);

private:
    std::vector<AudioFrame> SplitPcm(size_t size) const;
    std::vector<AudioFrame> SplitCoded(const uint8_t* data, size_t size);

    int pcmBlock_ = 0;  // bytes per PCM sample frame; 0 for coded audio
    CodecPtr decoder_;
    PacketPtr packet_;
    FramePtr frame_;
};

}  // namespace thorough
