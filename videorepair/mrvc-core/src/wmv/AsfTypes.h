// Stream descriptions taken from ASF headers and the record of one carved payload,
// shared by the header parser, the AVI/WAV writers and the WMV engine.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace wmv {

struct VideoStreamInfo {
    uint8_t streamNumber = 0;  // 0: no video stream known
    uint32_t durationSeconds = 0;
    double frameRate = 0.0;
    uint16_t width = 0;
    uint16_t height = 0;
    uint16_t bitsPerPixel = 0;
    std::string codec = "WMV1";
    std::vector<uint8_t> codecExtra;
};

struct AudioStreamInfo {
    uint8_t streamNumber = 0;  // 0: no audio stream known
    std::string codecName;
    uint16_t formatTag = 0;
    uint16_t channels = 0;
    uint32_t samplesPerSecond = 0;
    uint32_t averageBytesPerSecond = 0;
    uint16_t blockAlign = 0;
    uint16_t bitsPerSample = 0;
    uint16_t extraSize = 0;
    std::vector<uint8_t> extra;
};

// One payload carved out of an ASF data packet: a byte range of the scanned file.
struct PayloadRecord {
    uint8_t valid = 0;
    int64_t size = 0;    // payload bytes, padding already taken off
    int64_t offset = 0;  // absolute offset of the first payload byte
    uint8_t streamNumber = 0;
    uint32_t mediaObjectNumber = 0;
    uint8_t keyFrame = 0;
};

using PayloadList = std::vector<PayloadRecord>;

}  // namespace wmv
