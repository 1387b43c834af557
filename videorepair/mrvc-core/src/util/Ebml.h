// EBML variable-length numbers (RFC 8794), decoded with the bit reader.
#pragma once

#include <cstddef>
#include <cstdint>

namespace util {

// Length in bytes of the number that starts with this byte: leading zero bits + 1
// (1..8), or 0 for a zero byte, which starts no valid number.
uint32_t EbmlMarkerLength(uint8_t firstByte);

// Decodes the number at data (available bytes given). Returns false when the
// marker is invalid or the bytes run out. value has the marker bit removed;
// length is the number of bytes it took. allOnes tells an "unknown" size.
struct EbmlNumber {
    uint64_t value = 0;
    uint32_t length = 0;
    bool allOnes = false;
};
bool ReadEbmlNumber(const uint8_t* data, size_t available, EbmlNumber& out);

// An element id keeps its marker bits (as Matroska writes ids: 0x1A45DFA3).
bool ReadEbmlId(const uint8_t* data, size_t available, uint32_t& id, uint32_t& length);

}  // namespace util
