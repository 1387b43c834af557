#include "wmv/WmvAsfInfoParser.h"

#include <algorithm>
#include <cstring>

#include "wmv/ByteOrder.h"

namespace wmv {

const AsfGuid kAsfHeaderObject = {0x30, 0x26, 0xB2, 0x75, 0x8E, 0x66, 0xCF, 0x11,
                                  0xA6, 0xD9, 0x00, 0xAA, 0x00, 0x62, 0xCE, 0x6C};
const AsfGuid kAsfDataObject = {0x36, 0x26, 0xB2, 0x75, 0x8E, 0x66, 0xCF, 0x11,
                                0xA6, 0xD9, 0x00, 0xAA, 0x00, 0x62, 0xCE, 0x6C};
const AsfGuid kAsfFilePropertiesObject = {0xA1, 0xDC, 0xAB, 0x8C, 0x47, 0xA9, 0xCF, 0x11,
                                          0x8E, 0xE4, 0x00, 0xC0, 0x0C, 0x20, 0x53, 0x65};
const AsfGuid kAsfStreamPropertiesObject = {0x91, 0x07, 0xDC, 0xB7, 0xB7, 0xA9, 0xCF, 0x11,
                                            0x8E, 0xE6, 0x00, 0xC0, 0x0C, 0x20, 0x53, 0x65};
const AsfGuid kAsfAudioMedia = {0x40, 0x9E, 0x69, 0xF8, 0x4D, 0x5B, 0xCF, 0x11,
                                0xA8, 0xFD, 0x00, 0x80, 0x5F, 0x5C, 0x44, 0x2B};
const AsfGuid kAsfVideoMedia = {0xC0, 0xEF, 0x19, 0xBC, 0x4D, 0x5B, 0xCF, 0x11,
                                0xA8, 0xFD, 0x00, 0x80, 0x5F, 0x5C, 0x44, 0x2B};

namespace {

// Stream Properties Object layout.
constexpr size_t kStreamTypeAt = 24;
constexpr size_t kTypeSpecificLengthAt = 64;
constexpr size_t kStreamFlagsAt = 72;
constexpr size_t kTypeSpecificAt = 78;
// WAVEFORMATEX is 18 bytes; the video format data holds 11 bytes before its BITMAPINFOHEADER of 40.
constexpr size_t kWaveFormatBytes = 18;
constexpr size_t kBitmapHeaderAt = 11;
constexpr size_t kBitmapHeaderBytes = 40;

bool SameGuid(const uint8_t* p, const AsfGuid& guid) { return std::memcmp(p, guid.data(), guid.size()) == 0; }

}  // namespace

const std::map<uint16_t, std::string>& AudioCodecNames() {
    static const std::map<uint16_t, std::string> names = {
        {0x160, "wma1"}, {0x161, "wma2"}, {0x162, "wma professional"}, {0x163, "wma lossess"}};
    return names;
}

int64_t WmvAsfInfoParser::FindObject(const uint8_t* buf, size_t length, const AsfGuid& guid) {
    if (buf == nullptr || length < guid.size()) return -1;
    const uint8_t* end = buf + length - guid.size() + 1;
    for (const uint8_t* p = buf; p < end; ++p) {
        p = static_cast<const uint8_t*>(std::memchr(p, guid[0], size_t(end - p)));
        if (p == nullptr) return -1;
        if (SameGuid(p, guid)) return p - buf;
    }
    return -1;
}

uint64_t WmvAsfInfoParser::ParseFileProperties(const uint8_t* buf, size_t length) {
    if (length < 88) return 0;
    uint64_t size = Le64(buf + 16);
    uint64_t packets = Le64(buf + 56);
    uint64_t playSeconds = Le64(buf + 64) / 10000000;
    uint64_t prerollSeconds = Le64(buf + 80) / 1000;
    if (playSeconds > prerollSeconds) {
        uint32_t duration = uint32_t(playSeconds - prerollSeconds);
        video_.durationSeconds = duration;
        packetRate_ = double(duration == 0 ? 0 : packets / duration);
        video_.frameRate = packetRate_;
    }
    return size;
}

uint64_t WmvAsfInfoParser::ParseStreamProperties(const uint8_t* buf, size_t length) {
    if (length < kTypeSpecificAt) return 0;
    uint64_t size = Le64(buf + 16);
    if (size < kTypeSpecificAt) return 0;
    // The declared type-specific length is trusted only as far as the buffer goes.
    size_t available = std::min<size_t>(Le32(buf + kTypeSpecificLengthAt), length - kTypeSpecificAt);
    uint8_t streamNumber = buf[kStreamFlagsAt] & 0x7F;
    const uint8_t* data = buf + kTypeSpecificAt;
    if (SameGuid(buf + kStreamTypeAt, kAsfAudioMedia)) {
        if (!ParseAudioFormat(data, available)) return 0;
        audio_.streamNumber = streamNumber;
        return size;
    }
    if (SameGuid(buf + kStreamTypeAt, kAsfVideoMedia)) {
        if (!ParseVideoFormat(data, available)) return 0;
        video_.streamNumber = streamNumber;
        return size;
    }
    return 0;
}

bool WmvAsfInfoParser::ParseAudioFormat(const uint8_t* data, size_t length) {
    if (length < kWaveFormatBytes) return false;
    audio_.formatTag = Le16(data);
    audio_.channels = Le16(data + 2);
    audio_.samplesPerSecond = Le32(data + 4);
    audio_.averageBytesPerSecond = Le32(data + 8);
    audio_.blockAlign = Le16(data + 12);
    audio_.bitsPerSample = Le16(data + 14);
    size_t extra = std::min<size_t>(Le16(data + 16), length - kWaveFormatBytes);
    audio_.extraSize = uint16_t(extra);
    audio_.extra.assign(data + kWaveFormatBytes, data + kWaveFormatBytes + extra);
    auto name = AudioCodecNames().find(audio_.formatTag);
    if (name != AudioCodecNames().end()) audio_.codecName = name->second;
    return true;
}

bool WmvAsfInfoParser::ParseVideoFormat(const uint8_t* data, size_t length) {
    const size_t extraAt = kBitmapHeaderAt + kBitmapHeaderBytes;
    if (length < extraAt) return false;
    video_.width = uint16_t(Le32(data));
    video_.height = uint16_t(Le32(data + 4));
    const uint8_t* bitmap = data + kBitmapHeaderAt;
    uint32_t headerSize = Le32(bitmap);
    video_.bitsPerPixel = Le16(bitmap + 14);
    video_.codec.assign(reinterpret_cast<const char*>(bitmap + 16), 4);
    size_t extra = headerSize > kBitmapHeaderBytes ? headerSize - kBitmapHeaderBytes : 0;
    extra = std::min(extra, length - extraAt);
    video_.codecExtra.assign(data + extraAt, data + extraAt + extra);
    return true;
}

bool WmvAsfInfoParser::PacketSize(const uint8_t* buf, size_t length, uint32_t& packetSize) {
    if (length < kDataObjectHeaderBytes) return false;
    uint64_t size = Le64(buf + 16);
    uint64_t packets = Le64(buf + 40);
    if (packets == 0 || size <= kDataObjectHeaderBytes) return false;
    uint64_t perPacket = (size - kDataObjectHeaderBytes) / packets;
    if (perPacket == 0 || perPacket > UINT32_MAX) return false;
    packetSize = uint32_t(perPacket);
    return true;
}

int WmvAsfInfoParser::SearchStreamProperties(const uint8_t* buf, size_t length) {
    int parsed = 0;
    size_t at = 0;
    while (at < length && (video_.streamNumber == 0 || audio_.streamNumber == 0)) {
        int64_t found = FindObject(buf + at, length - at, kAsfStreamPropertiesObject);
        if (found < 0) break;
        at += size_t(found);
        uint64_t size = ParseStreamProperties(buf + at, length - at);
        if (size != 0) ++parsed;
        at += size_t(std::clamp<uint64_t>(size, 16, length - at));
    }
    return parsed;
}

}  // namespace wmv
