#include "thorough/strategies/AsfPayloads.h"

#include "wmv/ByteOrder.h"
#include "wmv/WmvAsfInfoParser.h"

namespace thorough {
namespace asf {
namespace {

constexpr uint8_t kErrorCorrectionPresent = 0x80;
// Replicated data of this length marks a compressed payload: its one byte is the
// presentation time delta, the offset field the presentation time.
constexpr uint32_t kCompressedReplicated = 1;
// Object size and presentation time lead a replicated data of at least 8 bytes.
constexpr uint32_t kTimedReplicated = 8;

// Bounded little-endian reads through one packet.
class Reader {
public:
    Reader(const uint8_t* data, size_t size) : data_(data), size_(size) {}
    bool Field(size_t bytes, uint32_t& value) {
        if (!Has(bytes)) return false;
        value = wmv::LeField(data_ + at_, bytes);
        at_ += bytes;
        return true;
    }
    bool Skip(size_t bytes) {
        if (!Has(bytes)) return false;
        at_ += bytes;
        return true;
    }
    bool Has(size_t bytes) const { return at_ <= size_ && size_ - at_ >= bytes; }
    size_t At() const { return at_; }
    const uint8_t* Here() const { return data_ + at_; }

private:
    const uint8_t* data_;
    size_t size_;
    size_t at_ = 0;
};

struct Layout {
    bool multiple = false;
    size_t replicatedBytes = 0, offsetBytes = 0, objectBytes = 0;
    uint32_t padding = 0;
};

bool ReadParsingInformation(Reader& r, size_t packetSize, Layout& layout) {
    uint32_t flags = 0, properties = 0, length = 0, sequence = 0;
    if (!r.Field(1, flags)) return false;
    if (flags & kErrorCorrectionPresent) {
        // Only the 2-byte form is defined; its data bytes are not checked (writers differ).
        if ((flags & 0x7F) != 0x02 || !r.Skip(2) || !r.Field(1, flags) || (flags & kErrorCorrectionPresent)) return false;
    }
    if (!r.Field(1, properties)) return false;
    layout.multiple = (flags & 0x01) != 0;
    layout.replicatedBytes = wmv::AsfFieldBytes(properties & 3);
    layout.offsetBytes = wmv::AsfFieldBytes((properties >> 2) & 3);
    layout.objectBytes = wmv::AsfFieldBytes((properties >> 4) & 3);
    if (((properties >> 6) & 3) != 1) return false;  // the stream number is one byte
    if (!r.Field(wmv::AsfFieldBytes((flags >> 5) & 3), length) ||
        !r.Field(wmv::AsfFieldBytes((flags >> 1) & 3), sequence) ||
        !r.Field(wmv::AsfFieldBytes((flags >> 3) & 3), layout.padding) || !r.Skip(4 + 2))  // send time, duration
        return false;
    // A packet shorter than the file's packet size is padded up to it.
    if (length > packetSize) return false;
    if (length > 0) layout.padding += uint32_t(packetSize - length);
    return layout.padding < packetSize;
}

struct PayloadHead {
    uint8_t streamByte = 0;
    uint32_t object = 0, offset = 0, replicated = 0;
    const uint8_t* replicatedData = nullptr;
};

bool ReadPayloadHead(Reader& r, const Layout& layout, PayloadHead& head) {
    uint32_t stream = 0;
    if (!r.Field(1, stream) || (stream & 0x7F) == 0) return false;
    head.streamByte = uint8_t(stream);
    if (!r.Field(layout.objectBytes, head.object) || !r.Field(layout.offsetBytes, head.offset) ||
        !r.Field(layout.replicatedBytes, head.replicated))
        return false;
    head.replicatedData = r.Here();
    return r.Skip(head.replicated);
}

// A compressed payload: sub-payloads of a length byte and the bytes of one whole
// media object, presented delta milliseconds apart.
bool SplitCompressed(const uint8_t* packet, size_t at, size_t size, const PayloadHead& head,
                     std::vector<Fragment>& out) {
    const int64_t delta = head.replicatedData[0];
    uint32_t object = head.object;
    for (size_t end = at + size, n = 0; at < end; ++n) {
        size_t length = packet[at++];
        if (length > end - at) return false;
        Fragment f;
        f.stream = head.streamByte & 0x7F;
        f.key = (head.streamByte & 0x80) != 0;
        f.object = object++;
        f.objectSize = uint32_t(length);
        f.presentationMs = int64_t(head.offset) + int64_t(n) * delta;
        f.at = at;
        f.size = length;
        if (length > 0) out.push_back(f);
        at += length;
    }
    return true;
}

bool AddPayload(const uint8_t* packet, size_t at, size_t size, const PayloadHead& head, std::vector<Fragment>& out) {
    if (head.replicated == kCompressedReplicated) return SplitCompressed(packet, at, size, head, out);
    Fragment f;
    f.stream = head.streamByte & 0x7F;
    f.key = (head.streamByte & 0x80) != 0;
    f.object = head.object;
    f.offset = head.offset;
    if (head.replicated >= kTimedReplicated) {
        f.objectSize = wmv::Le32(head.replicatedData);
        f.presentationMs = wmv::Le32(head.replicatedData + 4);
        if (uint64_t(f.offset) + size > f.objectSize) return false;
    }
    f.at = at;
    f.size = size;
    if (size > 0) out.push_back(f);
    return true;
}

bool ParseMultiple(Reader& r, const uint8_t* packet, size_t packetSize, const Layout& layout,
                   std::vector<Fragment>& out) {
    uint32_t flags = 0;
    if (!r.Field(1, flags)) return false;
    const size_t lengthBytes = wmv::AsfFieldBytes(flags >> 6);
    const int count = int(flags & 0x3F);
    const size_t end = packetSize - layout.padding;
    for (int i = 0; i < count; ++i) {
        PayloadHead head;
        uint32_t length = 0;
        if (!ReadPayloadHead(r, layout, head) || !r.Field(lengthBytes, length)) return false;
        if (r.At() > end || length > end - r.At()) return false;
        if (!AddPayload(packet, r.At(), length, head, out)) return false;
        r.Skip(length);
    }
    return count > 0;
}

bool ParseSingle(Reader& r, const uint8_t* packet, size_t packetSize, const Layout& layout,
                 std::vector<Fragment>& out) {
    PayloadHead head;
    if (!ReadPayloadHead(r, layout, head)) return false;
    const size_t end = packetSize - layout.padding;
    if (r.At() > end) return false;
    return AddPayload(packet, r.At(), end - r.At(), head, out);
}

}  // namespace

bool ParsePacket(const uint8_t* data, size_t packetSize, std::vector<Fragment>& out) {
    out.clear();
    Reader r(data, packetSize);
    Layout layout;
    if (!ReadParsingInformation(r, packetSize, layout)) return false;
    return layout.multiple ? ParseMultiple(r, data, packetSize, layout, out)
                           : ParseSingle(r, data, packetSize, layout, out);
}

bool LooksLikePacketStart(const uint8_t* data, size_t size) {
    if (size < 3) return false;
    if (data[0] == 0x82) return data[1] == 0 && data[2] == 0;
    return (data[0] & kErrorCorrectionPresent) == 0 && (data[1] >> 6) == 1;
}

}  // namespace asf
}  // namespace thorough
