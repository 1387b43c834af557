// Frame-wrapped essence cut out of an MXF file where no demuxer reads it: each
// picture or sound element of a mapped track is one packet, timed by the edit
// unit (content package) it belongs to, at the edit rate the descriptors give.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "thorough/PacketSource.h"
#include "thorough/strategies/MxfKlvWalker.h"

namespace thorough {

// One track to carve: its essence element track number and what to write it with.
struct MxfTrack {
    uint32_t number = 0;
    ParametersPtr parameters;
    AVRational timeBase{0, 1};  // 1/edit rate for pictures, 1/sample rate for sound
};

class MxfCarver : public PacketSource {
public:
    // Elements larger than this are clip-wrapped essence, which is not cut into frames here.
    static constexpr int64_t kLargestElement = 64 << 20;

    MxfCarver(AVRational editRate, std::vector<MxfTrack> tracks);

    bool Open(const std::wstring& path) { return walker_.Open(path); }

    unsigned StreamCount() const override { return unsigned(tracks_.size()); }
    const AVCodecParameters* Parameters(unsigned stream) const override { return tracks_[stream].parameters.get(); }
    AVRational TimeBase(unsigned stream) const override { return tracks_[stream].timeBase; }
    AVRational FrameRate(unsigned stream) const override;
    bool Next(AVPacket* packet) override;
    int64_t Consumed() const override { return walker_.Position(); }
    int64_t Skipped() const override { return walker_.Skipped(); }
    int64_t FilePosition(const AVPacket*) const override { return lastAt_; }

private:
    int IndexOf(uint32_t track) const;
    void CountUnit(uint32_t track, int64_t at);
    bool ToPacket(const mxf::Klv& klv, unsigned index, AVPacket* packet);
    void Stamp(AVPacket* packet, unsigned index) const;

    AVRational editRate_;
    std::vector<MxfTrack> tracks_;
    mxf::KlvWalker walker_;
    // The edit unit of the content package being read. A writer lays out every
    // package's elements in one order: a track that comes no later in that order
    // than the element before it opens the next package.
    int64_t unit_ = -1;
    std::vector<uint32_t> order_;
    int lastPosition_ = -1;
    int64_t firstElementAt_ = -1, skippedAtFirst_ = 0, skippedAtLastUnit_ = 0;
    int64_t lastAt_ = -1;  // the element of the packet last returned
};

// A D-10 sound element as plain PCM: the 24 audio bits of each
// 32-bit AES3 word, for `channels` of the eight stored channels, written as
// 16- or 24-bit little-endian samples. Empty when the element is malformed.
std::string PcmFromAes3(const uint8_t* element, size_t size, int channels, int bitsPerSample);

}  // namespace thorough
