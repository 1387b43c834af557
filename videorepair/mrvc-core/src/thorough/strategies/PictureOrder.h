// The presentation order of video samples carved in decoding order, where the
// lost index took the composition offsets (ctts) with it: each picture's order
// count comes from its own slice header, read by libavcodec's parser with the
// sample's decoder configuration.
#pragma once

#include <climits>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "thorough/AvHandles.h"

namespace thorough {

class PictureOrderReader {
public:
    explicit PictureOrderReader(const AVCodecParameters* parameters);
    ~PictureOrderReader();
    PictureOrderReader(const PictureOrderReader&) = delete;
    PictureOrderReader& operator=(const PictureOrderReader&) = delete;

    // The picture order count of one whole sample; kUnknown where it cannot be read.
    static constexpr int kUnknown = INT_MIN;
    int OrderCount(const uint8_t* data, size_t size);

private:
    AVCodecParserContext* parser_ = nullptr;
    CodecPtr context_;
};

// What of a length-prefixed H.264 or HEVC sample its order count needs, from the
// first `got` bytes of a sample of sampleSize: the units before its first picture
// unit, whole, and the head of that one (its length cut to what is kept). Empty
// when those bytes do not reach far enough, or the sample is not so framed:
// then the whole sample is needed.
std::string OrderCountHead(const uint8_t* prefix, size_t got, size_t sampleSize, AVCodecID codec, int lengthSize);

// Each sample's place in presentation order, from the order counts in decoding
// order. A key picture whose count falls below its group's highest opens a new
// group (the count restarts at an IDR); within a group pictures are shown by
// count. Unknown counts keep decoding order.
std::vector<int64_t> PresentationOrder(const std::vector<int>& orderCounts, const std::vector<bool>& keys);

}  // namespace thorough
