// Carves the payloads of one ASF data packet (ASF 1.2, section 5.2: payload
// parsing information, single and multiple payloads) out of a byte view.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

#include "wmv/AsfTypes.h"

namespace wmv {

// The three bytes an ASF data packet starts with: error-correction flags 0x82 and
// two bytes of error-correction data of 0.
constexpr uint8_t kPacketStart[3] = {0x82, 0x00, 0x00};

// Offset of the first packet start in data (all three bytes inside it), or -1.
int64_t FindPacketStart(const uint8_t* data, size_t length);

struct CarveSettings {
    uint32_t packetSize = 0;
    uint8_t videoStream = 0;  // the stream numbers whose payloads are wanted
    uint8_t audioStream = 0;
    std::function<bool()> cancelled;  // optional
};

struct CarveResult {
    PayloadList records;
    int64_t advance = 0;  // how far the carving moved past the packet start
};

// data holds the bytes from the packet start on (length of them, possibly fewer
// than a packet at the end of a file); fileOffset is the packet start's offset in
// the file. Payload bytes themselves need not lie inside data.
CarveResult CarvePacket(const uint8_t* data, size_t length, int64_t fileOffset, const CarveSettings& settings);

}  // namespace wmv
