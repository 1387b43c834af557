// Key-length-value triplets of an MXF file: the 16-byte universal label, the BER
// length, and which keys are essence elements of the generic container (a
// picture or sound item of a content package, one per edit unit when frame-wrapped).
#pragma once

#include <cstddef>
#include <cstdint>

#include "io/FileReader.h"

namespace thorough {
namespace mxf {

constexpr size_t kKeyBytes = 16;

enum class ItemKind { kOther, kPicture, kSound };

struct Klv {
    int64_t at = 0;          // where the key starts
    int64_t valueAt = 0;     // where the value starts
    int64_t length = 0;      // of the value
    ItemKind kind = ItemKind::kOther;
    uint32_t track = 0;      // an essence element's track number (its key's last 4 bytes)
    uint8_t elementType = 0;
    int64_t End() const { return valueAt + length; }
};

// True when data starts with the SMPTE label prefix every MXF key carries.
bool StartsKey(const uint8_t* data, size_t size);

// The kind of an essence element key (picture or sound item of the system-,
// picture-, sound- and data-item scheme or the generic container; a compound
// item such as DV counts as a picture), else kOther.
ItemKind KindOf(const uint8_t* key);

// Reads the triplet's key and length at `at` (the value may run past the view).
// False when the key prefix or the BER length is not valid.
bool ReadKlv(const uint8_t* data, size_t size, int64_t at, Klv& klv);

// The element type of a D-10 AES3 sound element, which packs eight
// channels of 32-bit words behind a 4-byte header.
constexpr uint8_t kAes3ElementType = 0x10;

}  // namespace mxf
}  // namespace thorough
