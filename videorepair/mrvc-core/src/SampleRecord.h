// One accepted packet (or essence element) of a carved stream: where its payload
// lies in the damaged file and what it carries.
#pragma once

#include <cstdint>

struct SampleRecord {
    static constexpr uint32_t kAudio = 0;
    static constexpr uint32_t kVideo = 1;
    static constexpr uint32_t kNothing = 2;
    static constexpr uint32_t kFrameI = 1;
    static constexpr uint32_t kFrameP = 2;
    static constexpr uint32_t kFrameB = 3;
    static constexpr uint32_t kFrameUnknown = 4;

    bool found = false;
    uint64_t offset = 0;        // absolute offset of the payload's first byte
    int64_t size = 0;           // payload length
    uint64_t packetLength = 0;  // the whole packet, header included
    uint32_t kind = kNothing;
    uint32_t frameType = kFrameUnknown;
};
