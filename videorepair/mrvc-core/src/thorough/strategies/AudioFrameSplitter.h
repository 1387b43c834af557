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
    AVCodecID Codec() const { return codec_; }

    // The writer puts PCM down in chunks of a multiple of this many bytes (learnt
    // from the sample; a multiple of the sample frame): a stretch of another
    // length between video samples is not its audio.
    void SetPcmChunkUnit(int64_t bytes);

    // The whole frames from the start of the stretch, in order; they stop where
    // the bytes are no longer this track's audio. cut: the end of the file (or
    // of the media data) cut the stretch, so PCM may end inside a chunk.
    std::vector<AudioFrame> Split(const uint8_t* data, size_t size, bool cut = false);

private:
    std::vector<AudioFrame> SplitPcm(size_t size, bool cut) const;
    std::vector<AudioFrame> SplitCoded(const uint8_t* data, size_t size);

    AVCodecID codec_ = AV_CODEC_ID_NONE;
    int pcmBlock_ = 0;  // bytes per PCM sample frame; 0 for coded audio
    int64_t pcmUnit_ = 0;  // bytes every whole PCM chunk is a multiple of
    CodecPtr decoder_;
    PacketPtr packet_;
    FramePtr frame_;
};

}  // namespace thorough
