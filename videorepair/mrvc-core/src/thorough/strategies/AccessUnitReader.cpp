#include "thorough/strategies/AccessUnitReader.h"

#include <algorithm>
#include <cstring>

namespace thorough {
namespace {

// Room over the sample's largest video sample: the damaged recording's scenes
// may be busier than the sample's.
constexpr size_t kLargestSampleFactor = 8;
constexpr size_t kLeastBelievedBytes = 64 << 10;
constexpr size_t kMostBelievedBytes = 64 << 20;
constexpr int kMostNalUnits = 600;

size_t LengthAt(const uint8_t* p, int size) {
    size_t n = 0;
    for (int i = 0; i < size; ++i) n = n << 8 | p[i];
    return n;
}

// An SEI value (payload type or size): bytes of 255 add up until the last byte.
bool SeiValue(const uint8_t* d, size_t size, size_t& at, size_t& value) {
    value = 0;
    while (at < size && d[at] == 0xFF) value += d[at++];
    if (at >= size) return false;
    value += d[at++];
    return true;
}

// Cameras that never write an IDR picture mark where decoding may start with a
// recovery point SEI (ISO/IEC 14496-10 D.2.8). A count of 0 means this very
// picture is whole, so its access unit is a key frame, as ffmpeg's parser takes it.
bool RecoversHere(const uint8_t* d, size_t size) {
    size_t at = 1;  // past the NAL header
    while (at + 1 < size && d[at] != 0x80) {  // 0x80: the trailing bits
        size_t type = 0, length = 0;
        if (!SeiValue(d, size, at, type) || !SeiValue(d, size, at, length)) return false;
        if (type == 6) return at < size && (d[at] & 0x80) != 0;  // recovery_frame_cnt, ue(v) == 0
        at += length;
    }
    return false;
}

nal::Role H264Role(const uint8_t* d, size_t size, bool& key) {
    if (size < 2 || (d[0] & 0x80) != 0) return nal::Role::kInvalid;
    const int type = d[0] & 0x1F, refIdc = d[0] >> 5 & 3;
    switch (type) {
        case 1:
        case 5:
            if (type == 5 && refIdc == 0) return nal::Role::kInvalid;
            key = key || type == 5;
            // first_mb_in_slice is 0 exactly when its Exp-Golomb code is the single bit 1.
            return (d[1] & 0x80) != 0 ? nal::Role::kPicture : nal::Role::kPictureContinued;
        case 7:
        case 8:
            return refIdc != 0 ? nal::Role::kStartsUnit : nal::Role::kInvalid;
        case 6:
            if (refIdc != 0) return nal::Role::kInvalid;
            key = key || RecoversHere(d, size);
            return nal::Role::kStartsUnit;
        case 9:
            return refIdc == 0 ? nal::Role::kStartsUnit : nal::Role::kInvalid;
        case 12:
            return refIdc == 0 ? nal::Role::kTrailing : nal::Role::kInvalid;
        default:
            return nal::Role::kInvalid;
    }
}

nal::Role HevcRole(const uint8_t* d, size_t size, bool& key) {
    if (size < 3 || (d[0] & 0x80) != 0) return nal::Role::kInvalid;
    const int type = d[0] >> 1 & 0x3F, layer = (d[0] & 1) << 5 | d[1] >> 3, temporal = d[1] & 7;
    if (layer != 0 || temporal == 0) return nal::Role::kInvalid;
    if (type <= 9 || (type >= 16 && type <= 21)) {
        key = key || (type >= 16 && type <= 21);
        return (d[2] & 0x80) != 0 ? nal::Role::kPicture : nal::Role::kPictureContinued;
    }
    if (type >= 32 && type <= 35) return nal::Role::kStartsUnit;  // VPS, SPS, PPS, delimiter
    if (type == 39) return nal::Role::kStartsUnit;                // prefix SEI
    if (type == 40) return nal::Role::kTrailing;                  // suffix SEI
    return nal::Role::kInvalid;
}

}  // namespace

namespace nal {

Role RoleOf(AVCodecID codec, const uint8_t* data, size_t size, bool& key) {
    if (codec == AV_CODEC_ID_H264) return H264Role(data, size, key);
    if (codec == AV_CODEC_ID_HEVC) return HevcRole(data, size, key);
    return Role::kInvalid;
}

bool HasForbiddenSequence(const uint8_t* data, size_t size) {
    if (size < 3) return false;
    // Coded slices hold few zero bytes: words without one are stepped over whole,
    // and only a word with a zero byte is looked at byte by byte.
    constexpr uint64_t kLow = 0x0101010101010101ull, kHigh = 0x8080808080808080ull;
    size_t i = 0;
    for (; i + 8 + 2 <= size; i += 8) {
        uint64_t word;
        std::memcpy(&word, data + i, 8);
        if (((word - kLow) & ~word & kHigh) == 0) continue;
        for (size_t j = i; j < i + 8; ++j)
            if (data[j] == 0 && data[j + 1] == 0 && data[j + 2] <= 2) return true;
    }
    for (; i + 2 < size; ++i)
        if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] <= 2) return true;
    return false;
}

}  // namespace nal

AccessUnitReader::AccessUnitReader(const VideoShape& shape) : shape_(shape) {
    most_ = std::clamp(shape.largestSample * kLargestSampleFactor, kLeastBelievedBytes, kMostBelievedBytes);
}

bool AccessUnitReader::Supported() const {
    const bool nalCodec = shape_.codec == AV_CODEC_ID_H264 || shape_.codec == AV_CODEC_ID_HEVC;
    return (nalCodec && shape_.lengthSize >= 1 && shape_.lengthSize <= 4) || shape_.codec == AV_CODEC_ID_MJPEG;
}

size_t AccessUnitReader::Measure(const uint8_t* data, size_t available, bool& key) const {
    key = false;
    if (shape_.codec == AV_CODEC_ID_MJPEG) return MeasureJpeg(data, available, key);
    return Supported() ? MeasureNalSample(data, available, key) : 0;
}

// An access unit: units that may open it, then its picture's slices, then what
// may trail them. It ends where the next unit would open another access unit or
// is no NAL unit at all (another track's sample, or damage).
size_t AccessUnitReader::MeasureNalSample(const uint8_t* data, size_t available, bool& key) const {
    const size_t prefix = size_t(shape_.lengthSize);
    available = std::min(available, most_);
    size_t at = 0;
    int slices = 0;
    bool trailing = false;
    for (int units = 0; units < kMostNalUnits && at + prefix + 2 <= available; ++units) {
        const size_t length = LengthAt(data + at, shape_.lengthSize);
        const uint8_t* unit = data + at + prefix;
        bool unitKey = false;
        nal::Role role = length >= 2 && length <= available - at - prefix
                             ? nal::RoleOf(shape_.codec, unit, length, unitKey)
                             : nal::Role::kInvalid;
        const bool opensNext = role == nal::Role::kStartsUnit || role == nal::Role::kPicture;
        const bool continues = role == nal::Role::kPictureContinued && slices > 0 && slices < shape_.mostSlices;
        if (slices > 0 && !continues && role != nal::Role::kTrailing) break;  // the unit is complete
        if (slices == 0 && !opensNext) return 0;                               // no unit starts here
        if (trailing && role != nal::Role::kTrailing) break;
        // A length that runs into the next prefix, or a unit whose stop bit is missing:
        // the unit is not what its prefix says, and the access unit ends before it.
        if (nal::HasForbiddenSequence(unit + 1, length - 1) || unit[length - 1] == 0) return slices > 0 ? at : 0;
        slices += role == nal::Role::kPicture || role == nal::Role::kPictureContinued;
        trailing = trailing || role == nal::Role::kTrailing;
        key = key || unitKey;
        at += prefix + length;
    }
    return slices > 0 ? at : 0;
}

// SOI, then segments up to EOI; inside the entropy-coded data every 0xFF is
// stuffed or a restart marker, so the first EOI ends the picture.
size_t AccessUnitReader::MeasureJpeg(const uint8_t* data, size_t available, bool& key) const {
    available = std::min(available, most_);
    if (available < 4 || data[0] != 0xFF || data[1] != 0xD8 || data[2] != 0xFF) return 0;
    for (size_t i = 2; i + 1 < available; ++i) {
        const uint8_t* ff = static_cast<const uint8_t*>(std::memchr(data + i, 0xFF, available - i - 1));
        if (ff == nullptr) return 0;
        i = size_t(ff - data);
        if (data[i + 1] == 0xD9) {
            key = true;
            return i + 2;
        }
    }
    return 0;
}

size_t AccessUnitReader::EndOfBrokenPicture(const uint8_t* data, size_t size) const {
    if (shape_.codec != AV_CODEC_ID_MJPEG) return 0;
    for (size_t i = size; i >= 2; --i)
        if (data[i - 2] == 0xFF && data[i - 1] == 0xD9) return i;
    return 0;
}

}  // namespace thorough
