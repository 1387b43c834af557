#include "thorough/strategies/MxfKlv.h"

namespace thorough {
namespace mxf {
namespace {

constexpr uint8_t kPrefix[4] = {0x06, 0x0E, 0x2B, 0x34};
// Bytes 4-6 and 8-11 of an essence element key (byte 7 is the registry version,
// which writers set differently).
constexpr uint8_t kElementRegistry[3] = {0x01, 0x02, 0x01};
constexpr uint8_t kElementScheme[4] = {0x0D, 0x01, 0x03, 0x01};
// Longest BER length form that fits an int64.
constexpr size_t kMostLengthBytes = 8;

bool Same(const uint8_t* a, const uint8_t* b, size_t n) {
    for (size_t i = 0; i < n; ++i)
        if (a[i] != b[i]) return false;
    return true;
}

}  // namespace

bool StartsKey(const uint8_t* data, size_t size) { return size >= 4 && Same(data, kPrefix, 4); }

ItemKind KindOf(const uint8_t* key) {
    if (!Same(key, kPrefix, 4) || !Same(key + 4, kElementRegistry, 3) || !Same(key + 8, kElementScheme, 4))
        return ItemKind::kOther;
    switch (key[12]) {
        case 0x05:  // picture item of a content package
        case 0x15:  // generic container picture item
        case 0x18:  // compound item: DV, pictures with their sound interleaved
            return ItemKind::kPicture;
        case 0x06:
        case 0x16:
            return ItemKind::kSound;
        default:
            return ItemKind::kOther;
    }
}

bool ReadKlv(const uint8_t* data, size_t size, int64_t at, Klv& klv) {
    if (size < kKeyBytes + 1 || !StartsKey(data, size)) return false;
    size_t lengthAt = kKeyBytes, lengthBytes = 1;
    int64_t length = data[lengthAt];
    if (length & 0x80) {
        lengthBytes = 1 + size_t(length & 0x7F);
        if (lengthBytes == 1 || lengthBytes - 1 > kMostLengthBytes || kKeyBytes + lengthBytes > size) return false;
        uint64_t value = 0;
        for (size_t i = 1; i < lengthBytes; ++i) value = value << 8 | data[lengthAt + i];
        if (value > uint64_t(INT64_MAX / 2)) return false;
        length = int64_t(value);
    }
    klv.at = at;
    klv.valueAt = at + int64_t(kKeyBytes + lengthBytes);
    klv.length = length;
    klv.kind = KindOf(data);
    klv.track = uint32_t(data[12]) << 24 | uint32_t(data[13]) << 16 | uint32_t(data[14]) << 8 | data[15];
    klv.elementType = data[14];
    return true;
}

}  // namespace mxf
}  // namespace thorough
