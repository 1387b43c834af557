// Reads the few ASF header objects the WMV repair needs (ASF 1.2:
// Header, File Properties, Stream Properties and Data objects) from a byte buffer.
// Every read is bounded by the bytes the caller hands in.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "wmv/AsfTypes.h"

namespace wmv {

using AsfGuid = std::array<uint8_t, 16>;  // in the byte order ASF files store

extern const AsfGuid kAsfHeaderObject;
extern const AsfGuid kAsfDataObject;
extern const AsfGuid kAsfFilePropertiesObject;
extern const AsfGuid kAsfStreamPropertiesObject;
extern const AsfGuid kAsfAudioMedia;
extern const AsfGuid kAsfVideoMedia;

// Format tag -> codec name of the Windows Media Audio family.
const std::map<uint16_t, std::string>& AudioCodecNames();

// Little-endian field of 0, 1, 2 or 4 bytes, as ASF length types 0..3 select.
inline size_t AsfFieldBytes(unsigned lengthType) { return lengthType == 3 ? 4 : lengthType; }

class WmvAsfInfoParser {
public:
    static constexpr size_t kDataObjectHeaderBytes = 50;

    // Offset of the first match of guid in buf, or -1.
    static int64_t FindObject(const uint8_t* buf, size_t length, const AsfGuid& guid);

    // The buffer starts at a File Properties Object. Returns its size (0 when
    // fewer than 88 bytes are given); sets duration and packet rate when the play
    // duration is longer than the preroll.
    uint64_t ParseFileProperties(const uint8_t* buf, size_t length);

    // The buffer starts at a Stream Properties Object; length is what is left of
    // the buffer. Returns the object size, or 0 for a stream of another type or an
    // object too short for its type-specific data.
    uint64_t ParseStreamProperties(const uint8_t* buf, size_t length);

    // The buffer starts at the Data Object: (object size - 50) / total data
    // packets. False (packetSize untouched) when the count is 0, the object is
    // shorter than its own header or fewer than 50 bytes are given.
    static bool PacketSize(const uint8_t* buf, size_t length, uint32_t& packetSize);

    // Parses the Stream Properties Objects found one after another in buf until
    // both a video and an audio stream are known. Returns how many were parsed.
    int SearchStreamProperties(const uint8_t* buf, size_t length);

    VideoStreamInfo VideoInfo() const { return video_; }
    AudioStreamInfo AudioInfo() const { return audio_; }
    uint32_t DurationSeconds() const { return video_.durationSeconds; }
    double PacketRate() const { return packetRate_; }

private:
    bool ParseAudioFormat(const uint8_t* data, size_t length);
    bool ParseVideoFormat(const uint8_t* data, size_t length);

    VideoStreamInfo video_;
    AudioStreamInfo audio_;
    double packetRate_ = 0.0;
};

}  // namespace wmv
