// Whether a video stream's packets decode: every packet when asked for the full
// check, otherwise windows of packets from key frames spread over the stream, so
// that judging costs little beside reading the file.
#pragma once

#include <cstdint>

#include "thorough/AvHandles.h"

namespace thorough {

class DecodeCheck {
public:
    // False when no decoder opens for these parameters (then nothing decodes).
    bool Open(const AVCodecParameters* parameters, bool everyPacket);

    void Feed(const AVPacket* packet);
    void Finish();

    // Share of the checked packets that gave a clean frame (1 when none was checked
    // or no decoder exists here to check with).
    double GoodShare() const;
    bool Opened() const { return opened_; }

private:
    bool InWindow(const AVPacket* packet);
    void Drain();
    void EndWindow();

    CodecPtr codec_;
    FramePtr frame_;
    bool everyPacket_ = false;
    bool opened_ = false;
    bool noDecoder_ = false;
    bool inWindow_ = false;
    int64_t seen_ = 0;
    int64_t windowLeft_ = 0;
    int64_t spacing_ = 0;
    int64_t sent_ = 0;
    int64_t good_ = 0;
};

}  // namespace thorough
