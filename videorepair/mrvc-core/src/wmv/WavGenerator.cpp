#include "wmv/WavGenerator.h"

#include <algorithm>
#include <vector>

namespace wmv {

std::atomic<uint32_t> WavGenerator::flushCounter_{0};

WavGenerator::WavGenerator(const std::string& inputPath, const std::string& outputPath,
                           const PayloadList& records, const AudioStreamInfo& info)
    : io_(inputPath, outputPath, flushCounter_), info_(info), records_(records) {
    for (const PayloadRecord& r : records_) dataSize_ += uint32_t(r.size);
}

int WavGenerator::Generate() {
    if (!io_.Ok()) return -1;
    const uint32_t extra = info_.extraSize;
    io_.Tag("RIFF"); io_.U32(extra + 38 + dataSize_); io_.Tag("WAVE");
    io_.Tag("fmt "); io_.U32(extra + 18);
    io_.U16(info_.formatTag); io_.U16(info_.channels);
    io_.U32(info_.samplesPerSecond); io_.U32(info_.averageBytesPerSecond);
    io_.U16(info_.blockAlign); io_.U16(info_.bitsPerSample); io_.U16(info_.extraSize);
    size_t known = std::min<size_t>(extra, info_.extra.size());
    if (known > 0) io_.Write(info_.extra.data(), known);
    io_.Zeros(extra - known);
    io_.Tag("data"); io_.U32(dataSize_);
    std::vector<char> buffer;
    for (const PayloadRecord& r : records_) {
        if (io_.ReadRecord(r, buffer)) io_.Write(buffer.data(), buffer.size());
    }
    io_.Flush();
    return io_.Close() ? 0 : -1;
}

}  // namespace wmv
