// The presentation order of video samples carved in decoding order, where the
// lost index took the composition offsets (ctts) with it: each picture's order
// count comes from its own slice header, read by libavcodec's parser with the
// sample's decoder configuration.
#pragma once

#include <climits>
#include <cstddef>
#include <cstdint>
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

// Each sample's place in presentation order, from the order counts in decoding
// order. A key picture whose count falls below its group's highest opens a new
// group (the count restarts at an IDR); within a group pictures are shown by
// count. Unknown counts keep decoding order.
std::vector<int64_t> PresentationOrder(const std::vector<int>& orderCounts, const std::vector<bool>& keys);

}  // namespace thorough
