#include "MpegPesMatcher.h"

#include <cstring>

namespace {

const uint8_t kStartCodePrefix[3] = {0x00, 0x00, 0x01};
const uint8_t kPictureStartCode[4] = {0x00, 0x00, 0x01, 0x00};
constexpr uint8_t kVideoStreamId = 0xE0;
constexpr uint8_t kAudioStreamId = 0xC0;

bool IsPesStart(const uint8_t* b, uint8_t streamId) {
    return b[0] == 0x00 && b[1] == 0x00 && b[2] == 0x01 && b[3] == streamId;
}

uint32_t PesPacketLength(const uint8_t* b) { return (uint32_t(b[4]) << 8) | b[5]; }

}  // namespace

namespace mpeg_bytes {

// Anchored on the needle's first non-zero byte: zeros are common in video data,
// so memchr on them would stop too often.
int64_t Find(const uint8_t* haystack, size_t length, size_t from, const uint8_t* needle,
             size_t needleLength) {
    if (needleLength == 0 || length < needleLength || from > length - needleLength) return -1;
    size_t anchor = 0;
    while (anchor + 1 < needleLength && needle[anchor] == 0) ++anchor;
    const size_t lastStart = length - needleLength;
    size_t scanFrom = from + anchor;
    while (scanFrom <= lastStart + anchor) {
        const void* hit = std::memchr(haystack + scanFrom, needle[anchor], lastStart + anchor + 1 - scanFrom);
        if (hit == nullptr) return -1;
        size_t at = size_t(static_cast<const uint8_t*>(hit) - haystack);
        size_t start = at - anchor;
        if (std::memcmp(haystack + start, needle, needleLength) == 0) return int64_t(start);
        scanFrom = at + 1;
    }
    return -1;
}

}  // namespace mpeg_bytes

void MpegPesMatcher::Reset() {
    memoFrom_ = -1;
    memoEnd_ = -1;
    memoFound_ = -1;
}

SampleRecord MpegPesMatcher::MatchPacketAt(int64_t position, const uint8_t* window, size_t length) {
    if (window == nullptr || length < kMinimumBytes) return SampleRecord();
    if (IsPesStart(window, kVideoStreamId)) return MatchVideo(position, window, length);
    if (!noAudio_ && IsPesStart(window, kAudioStreamId)) return MatchAudio(position, window);
    return SampleRecord();
}

// A payload that opens with an elementary-stream start code right behind the
// PES header is cut at that start code; otherwise the learnt prefix is skipped.
SampleRecord MpegPesMatcher::MatchVideo(int64_t position, const uint8_t* b, size_t length) {
    const int64_t L = PesPacketLength(b);
    const int64_t prefix = videoPrefixBytes_;
    SampleRecord record;
    record.packetLength = uint64_t(L + 6);
    record.kind = SampleRecord::kVideo;
    int64_t k = mpeg_bytes::Find(b, kMinimumBytes, 4, kStartCodePrefix, sizeof kStartCodePrefix);
    if (k < 0) {
        if (L <= prefix - 2) return SampleRecord();
        record.offset = uint64_t(position + prefix + 4);
        record.size = L - prefix + 2;
    } else {
        if (L + 6 <= k) return SampleRecord();
        record.offset = uint64_t(position + k);
        record.size = L + 6 - k;
    }
    record.found = true;
    record.frameType = FrameTypeOfNextPicture(position, b, length);
    return record;
}

// The audio threshold is deliberately stricter than the video one.
SampleRecord MpegPesMatcher::MatchAudio(int64_t position, const uint8_t* b) const {
    const int64_t L = PesPacketLength(b);
    const int64_t prefix = audioPrefixBytes_;
    if (L <= prefix) return SampleRecord();
    SampleRecord record;
    record.found = true;
    record.packetLength = uint64_t(L + 6);
    record.kind = SampleRecord::kAudio;
    record.offset = uint64_t(position + prefix + 4);
    record.size = L - prefix + 2;
    return record;
}

// The next picture header anywhere in the window, even in a later packet. Windows
// overlap heavily from one packet to the next, so the last search is remembered
// in file offsets and only the unseen part of the window is searched.
uint32_t MpegPesMatcher::FrameTypeOfNextPicture(int64_t position, const uint8_t* b, size_t length) {
    const int64_t windowEnd = position + int64_t(length);
    int64_t found = -1;
    int64_t searchFrom = position;
    bool memoUsable = memoFrom_ >= 0 && memoFrom_ <= position && memoEnd_ <= windowEnd - 3;
    if (memoUsable && memoFound_ >= position) {
        found = memoFound_;
    } else {
        if (memoUsable && memoFound_ < 0 && memoEnd_ > position) searchFrom = memoEnd_;
        int64_t at = mpeg_bytes::Find(b, length, size_t(searchFrom - position), kPictureStartCode,
                                      sizeof kPictureStartCode);
        found = at < 0 ? -1 : position + at;
        memoFrom_ = position;
        memoEnd_ = windowEnd - 3;  // the first offset where the 4-byte code no longer fits
        memoFound_ = found;
    }
    if (found < 0) return SampleRecord::kFrameUnknown;
    size_t typeByte = size_t(found - position) + 5;
    if (typeByte >= length) return SampleRecord::kFrameUnknown;
    uint32_t type = (b[typeByte] >> 3) & 7;  // picture_coding_type (ISO/IEC 13818-2, 6.2.3)
    return type >= 1 && type <= 3 ? type : SampleRecord::kFrameUnknown;
}

int64_t MpegPesMatcher::DistanceToNextCandidate(const uint8_t* window, size_t length, int64_t remaining) const {
    // Offsets whose window would still hold kMinimumBytes, and whose 4 start-code
    // bytes lie inside this window.
    const int64_t lastUseful = remaining - int64_t(kMinimumBytes);
    const int64_t lastInWindow = int64_t(length) - 4;
    const int64_t last = lastUseful < lastInWindow ? lastUseful : lastInWindow;
    if (last < 1) return remaining > 1 ? remaining : 1;
    for (int64_t from = 1; from <= last;) {
        const void* hit = std::memchr(window + from + 2, 0x01, size_t(last - from + 1));
        if (hit == nullptr) break;
        int64_t at = int64_t(static_cast<const uint8_t*>(hit) - window) - 2;
        const uint8_t id = window[at + 3];
        if (window[at] == 0 && window[at + 1] == 0 && (id == kVideoStreamId || (!noAudio_ && id == kAudioStreamId)))
            return at;
        from = at + 1;
    }
    return last == lastUseful ? remaining : last + 1;
}
