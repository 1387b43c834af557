// Puts media objects back together from the fragments the data packets carry,
// in order of their offset into the object. An object that lost a fragment (a
// packet destroyed) is dropped whole: a picture with a hole decodes to garbage
// and takes the pictures after it along.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <vector>

#include "thorough/strategies/AsfPayloads.h"

namespace thorough {
namespace asf {

struct MediaObject {
    uint8_t stream = 0;
    bool key = false;
    int64_t presentationMs = -1;
    std::vector<uint8_t> bytes;
};

class ObjectAssembler {
public:
    // Objects larger than this are taken for damaged size fields.
    static constexpr uint32_t kLargestObject = 64u << 20;

    // One fragment; packet is the start of the packet its at/size point into.
    void Add(const Fragment& fragment, const uint8_t* packet);
    // Whole objects in the order they were completed.
    bool Take(MediaObject& object);
    // Objects dropped for a lost or damaged fragment.
    int64_t Dropped() const { return dropped_; }

private:
    struct Open {
        uint32_t number = 0;
        uint32_t size = 0;
        MediaObject object;
    };

    void Start(const Fragment& fragment, const uint8_t* packet);
    void Drop(uint8_t stream);

    std::map<uint8_t, Open> open_;
    std::deque<MediaObject> done_;
    int64_t dropped_ = 0;
};

}  // namespace asf
}  // namespace thorough
