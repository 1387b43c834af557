#include "wmv/AsfPacketCarver.h"

#include <cstring>

#include "wmv/ByteOrder.h"
#include "wmv/WmvAsfInfoParser.h"

namespace wmv {

namespace {

// A read position inside the view; reads past its end fail instead of reading on.
class Cursor {
public:
    Cursor(const uint8_t* data, size_t length) : data_(data), length_(length) {}

    bool Field(size_t bytes, uint32_t& value) {
        if (!Has(bytes)) return false;
        value = LeField(data_ + at_, bytes);
        at_ += bytes;
        return true;
    }
    bool Byte(uint8_t& value) {
        uint32_t v = 0;
        if (!Field(1, v)) return false;
        value = uint8_t(v);
        return true;
    }
    bool Skip(size_t bytes) {
        if (!Has(bytes)) return false;
        at_ += bytes;
        return true;
    }
    void Move(uint64_t bytes) { at_ += bytes; }  // may pass the view: payload bytes are not read here
    bool Has(size_t bytes) const { return at_ <= length_ && length_ - at_ >= bytes; }
    size_t Left() const { return at_ <= length_ ? length_ - at_ : 0; }
    uint64_t At() const { return at_; }

private:
    const uint8_t* data_;
    size_t length_;
    uint64_t at_ = 0;
};

struct PacketFlags {
    bool multiple = false;
    size_t sequenceBytes = 0, paddingBytes = 0, packetLengthBytes = 0;
    size_t replicatedBytes = 0, offsetBytes = 0, objectNumberBytes = 0;
};

PacketFlags ReadFlags(uint8_t lengthTypes, uint8_t properties) {
    PacketFlags f;
    f.multiple = (lengthTypes & 0x01) != 0;
    f.sequenceBytes = AsfFieldBytes((lengthTypes >> 1) & 3);
    f.paddingBytes = AsfFieldBytes((lengthTypes >> 3) & 3);
    f.packetLengthBytes = AsfFieldBytes((lengthTypes >> 5) & 3);
    f.replicatedBytes = AsfFieldBytes(properties & 3);
    f.offsetBytes = AsfFieldBytes((properties >> 2) & 3);
    f.objectNumberBytes = AsfFieldBytes((properties >> 4) & 3);
    // Bits 6-7 (stream-number length type) always mean one byte in practice.
    return f;
}

bool Wanted(uint8_t stream, const CarveSettings& s) {
    return stream != 0 && (stream == s.videoStream || stream == s.audioStream);
}

PayloadRecord MakeRecord(int64_t offset, int64_t size, uint8_t streamByte, uint32_t objectNumber) {
    PayloadRecord r;
    r.valid = 1;
    r.size = size;
    r.offset = offset;
    r.streamNumber = streamByte & 0x7F;
    r.mediaObjectNumber = objectNumber;
    r.keyFrame = (streamByte & 0x80) ? 1 : 0;
    return r;
}

void CarveSingle(Cursor& c, const PacketFlags& f, uint32_t padding, int64_t fileOffset, const CarveSettings& s,
                 CarveResult& out) {
    const uint64_t packetSize = s.packetSize;
    const uint64_t headerLength = c.At();
    uint8_t streamByte = 0;
    uint32_t objectNumber = 0, ignored = 0, replicated = 0;
    if (!c.Byte(streamByte) || !Wanted(streamByte & 0x7F, s)) return;
    if (!c.Field(f.objectNumberBytes, objectNumber) || !c.Field(f.offsetBytes, ignored) ||
        !c.Field(f.replicatedBytes, replicated))
        return;
    if (replicated > packetSize || replicated == 1) return;  // 1: compressed payloads, not carved
    if (!c.Skip(replicated)) return;
    uint64_t used = c.At();
    if (used > packetSize || headerLength > packetSize) return;
    uint64_t left = packetSize - used;
    if (left == padding || left < padding) return;
    out.records.push_back(MakeRecord(fileOffset + int64_t(used), int64_t(left - padding), streamByte, objectNumber));
    c.Move(left);
}

enum class MultipleEnd { kAllDone, kEarly, kBad };

// kBad: the packet is dropped whole (a bad length or the view's end). kEarly: the
// records so far stand and the padding is not passed over.
MultipleEnd CarveMultiple(Cursor& c, const PacketFlags& f, int64_t fileOffset, const CarveSettings& s,
                   CarveResult& out) {
    const uint64_t packetSize = s.packetSize;
    uint8_t payloadFlags = 0;
    if (!c.Byte(payloadFlags)) return MultipleEnd::kBad;
    size_t lengthBytes = AsfFieldBytes(payloadFlags >> 6);
    int count = payloadFlags & 0x3F;
    for (int i = 0; i < count; ++i) {
        if (s.cancelled && s.cancelled()) return MultipleEnd::kEarly;
        if (c.Left() < 3) return MultipleEnd::kEarly;
        uint8_t streamByte = 0;
        uint32_t objectNumber = 0, ignored = 0, replicated = 0, length = 0;
        if (!c.Byte(streamByte) || !Wanted(streamByte & 0x7F, s)) return MultipleEnd::kEarly;
        if (!c.Field(f.objectNumberBytes, objectNumber) || !c.Field(f.offsetBytes, ignored) ||
            !c.Field(f.replicatedBytes, replicated) || replicated > packetSize)
            return MultipleEnd::kBad;
        if (!c.Skip(replicated) || !c.Field(lengthBytes, length) || length > packetSize) return MultipleEnd::kBad;
        if (replicated == 1) continue;  // compressed payloads: not carved, the cursor stays
        if (length > 0) {
            out.records.push_back(MakeRecord(fileOffset + int64_t(c.At()), length, streamByte, objectNumber));
            c.Move(length);
        }
    }
    return MultipleEnd::kAllDone;
}

}  // namespace

int64_t FindPacketStart(const uint8_t* data, size_t length) {
    if (data == nullptr || length < 3) return -1;
    const uint8_t* end = data + length - 2;
    for (const uint8_t* p = data; p < end; ++p) {
        p = static_cast<const uint8_t*>(std::memchr(p, kPacketStart[0], size_t(end - p)));
        if (p == nullptr) return -1;
        if (p[1] == 0 && p[2] == 0) return p - data;
    }
    return -1;
}

namespace {

void Carve(Cursor& c, int64_t fileOffset, const CarveSettings& s, CarveResult& out) {
    uint8_t b0 = 0, b1 = 1, b2 = 1, lengthTypes = 0, properties = 0;
    if (!c.Byte(b0) || !c.Byte(b1) || !c.Byte(b2) || b0 != 0x82 || b1 != 0 || b2 != 0) return;
    if (!c.Byte(lengthTypes) || !c.Byte(properties)) return;
    PacketFlags f = ReadFlags(lengthTypes, properties);
    uint32_t ignored = 0, padding = 0;
    if (!c.Field(f.packetLengthBytes, ignored) || !c.Field(f.sequenceBytes, ignored) ||
        !c.Field(f.paddingBytes, padding))
        return;
    if (padding > s.packetSize) return;
    if (!c.Skip(4 + 2)) return;  // send time, duration
    if (f.multiple) {
        MultipleEnd end = CarveMultiple(c, f, fileOffset, s, out);
        if (end == MultipleEnd::kBad) out.records.clear();
        if (end == MultipleEnd::kAllDone) c.Move(padding);
    } else {
        CarveSingle(c, f, padding, fileOffset, s, out);
    }
}

}  // namespace

CarveResult CarvePacket(const uint8_t* data, size_t length, int64_t fileOffset, const CarveSettings& s) {
    CarveResult out;
    Cursor c(data, length);
    Carve(c, fileOffset, s, out);
    out.advance = int64_t(c.At());
    return out;
}

}  // namespace wmv
