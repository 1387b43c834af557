// Tells where a video sample of an MP4/MOV media data area ends when no index
// says so: H.264/HEVC access units as length-prefixed NAL units, checked the way
// the standards constrain them, and Motion JPEG frames by their markers.
#pragma once

#include <cstddef>
#include <cstdint>

extern "C" {
#include <libavcodec/codec_id.h>
}

namespace thorough {

// What the healthy sample teaches about its video samples.
struct VideoShape {
    AVCodecID codec = AV_CODEC_ID_NONE;
    int lengthSize = 4;         // bytes of each NAL unit's length prefix
    size_t largestSample = 0;   // the sample's largest video sample
    int mostSlices = 1;         // the most picture NAL units the sample put in one sample
};

class AccessUnitReader {
public:
    explicit AccessUnitReader(const VideoShape& shape);

    // True when the codec is one this reader can tell apart.
    bool Supported() const;

    // The length of the whole video sample that starts at data[0], of which
    // available bytes are at hand (the rest of the media data, or a window of it
    // at least MostBytes() long); 0 when none starts there or it is not whole.
    size_t Measure(const uint8_t* data, size_t available, bool& key) const;

    // Where the tail of a picture whose head was lost ends inside data (past its
    // last end-of-picture marker), or 0 where the codec has no such marker.
    size_t EndOfBrokenPicture(const uint8_t* data, size_t size) const;

    // The largest sample believed: damage that declares more is a lie.
    size_t MostBytes() const { return most_; }
    // True for a sample far larger than the sample's largest: believed only where
    // what follows it confirms it.
    bool Oversized(size_t size) const { return shape_.largestSample > 0 && size > 2 * shape_.largestSample; }

private:
    size_t MeasureNalSample(const uint8_t* data, size_t available, bool& key) const;
    size_t MeasureJpeg(const uint8_t* data, size_t available, bool& key) const;

    VideoShape shape_;
    size_t most_;
};

namespace nal {

// How one NAL unit sits in its access unit.
enum class Role { kInvalid, kStartsUnit, kPicture, kPictureContinued, kTrailing };

// The role of the NAL unit whose header starts at data[0] (size bytes of it).
Role RoleOf(AVCodecID codec, const uint8_t* data, size_t size, bool& key);

// True when the payload holds a three-byte sequence that the standards forbid
// inside a NAL unit (00 00 00, 00 00 01, 00 00 02): its length prefix lied and
// it runs into the next unit.
bool HasForbiddenSequence(const uint8_t* data, size_t size);

}  // namespace nal
}  // namespace thorough
