// Decides, at one position of an MPEG program stream, whether a video (stream id
// 0xE0) or audio (0xC0) PES packet starts there and where its payload lies
// (ISO/IEC 13818-1, 2.4.3.6). Other stream ids are never collected.
#pragma once

#include <cstddef>
#include <cstdint>

#include "SampleRecord.h"

class MpegPesMatcher {
public:
    // A position with fewer bytes than this left in its window is never a packet.
    static constexpr size_t kMinimumBytes = 20;

    void SetPrefixes(uint8_t videoPrefixBytes, uint8_t audioPrefixBytes) {
        videoPrefixBytes_ = videoPrefixBytes;
        audioPrefixBytes_ = audioPrefixBytes;
    }
    void SetNoAudio(bool noAudio) { noAudio_ = noAudio; }
    // Forgets where the last picture header was seen; call before scanning a file.
    void Reset();

    // The record for the file position `position`, whose read-ahead window is
    // window[0 .. length). Positions must not go backwards between Reset calls
    // for the picture-header memo to help (going backwards is still correct).
    SampleRecord MatchPacketAt(int64_t position, const uint8_t* window, size_t length);

    // How far a scan standing at a position where nothing matched may advance
    // without passing a position that could match: the offset of the next
    // 00 00 01 E0 (or C0 when audio is collected) inside the window, else the
    // first offset the window cannot judge, else `remaining` when no later
    // position of the file can hold a packet. Always >= 1.
    int64_t DistanceToNextCandidate(const uint8_t* window, size_t length, int64_t remaining) const;

private:
    SampleRecord MatchVideo(int64_t position, const uint8_t* b, size_t length);
    SampleRecord MatchAudio(int64_t position, const uint8_t* b) const;
    uint32_t FrameTypeOfNextPicture(int64_t position, const uint8_t* b, size_t length);

    uint8_t videoPrefixBytes_ = 0;
    uint8_t audioPrefixBytes_ = 0;
    bool noAudio_ = false;

    // Memo of the last picture-header search: no picture start code begins in
    // [memoFrom_, memoFound_ or memoEnd_); memoFound_ is -1 when none was seen.
    int64_t memoFrom_ = -1;
    int64_t memoEnd_ = -1;
    int64_t memoFound_ = -1;
};

namespace mpeg_bytes {

// Offset of the first occurrence of needle in haystack[from .. length), or -1.
int64_t Find(const uint8_t* haystack, size_t length, size_t from, const uint8_t* needle, size_t needleLength);

}  // namespace mpeg_bytes
