#include "util/Ebml.h"

#include <cstring>

#include "util/BitReader.h"

namespace util {

uint32_t EbmlMarkerLength(uint8_t firstByte) {
    if (firstByte == 0) return 0;
    uint32_t zeros = 0;
    for (uint8_t mask = 0x80; (firstByte & mask) == 0; mask >>= 1) ++zeros;
    return zeros + 1;
}

bool ReadEbmlNumber(const uint8_t* data, size_t available, EbmlNumber& out) {
    if (available == 0) return false;
    uint32_t length = EbmlMarkerLength(data[0]);
    if (length == 0 || length > available) return false;
    uint8_t bytes[8] = {};
    std::memcpy(bytes, data, length);
    BitReader reader(bytes, 8);
    uint64_t value = 0;
    // Skip the marker (leading zeros and the one bit), read the rest of the length.
    if (!reader.skipBits(length) || !reader.readBits(8 * length - length, value)) return false;
    out.value = value;
    out.length = length;
    out.allOnes = value == (~0ULL >> (64 - (7 * length)));
    return true;
}

bool ReadEbmlId(const uint8_t* data, size_t available, uint32_t& id, uint32_t& length) {
    if (available == 0) return false;
    length = EbmlMarkerLength(data[0]);
    if (length == 0 || length > 4 || length > available) return false;
    id = 0;
    for (uint32_t i = 0; i < length; ++i) id = (id << 8) | data[i];
    return true;
}

}  // namespace util
