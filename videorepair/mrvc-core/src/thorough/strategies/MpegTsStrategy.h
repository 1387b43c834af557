// MPEG transport streams (.mts, .m2ts, .ts): the demuxer reads a cleaned stream
// of 188-byte packets, and the result keeps the damaged file's packet form.
#pragma once

#include "thorough/strategies/ContainerStrategy.h"

namespace thorough {

class MpegTsStrategy : public ContainerStrategy {
public:
    const char* Name() const override { return "mts"; }
    std::unique_ptr<ByteSource> Clean(const std::wstring& damagedPath, const std::wstring& samplePath,
                                      RepairLog* log) override;
    std::string CleanedFormat() const override { return "mpegts"; }
    MuxerChoice Muxer() const override;

private:
    int packetSize_ = 0;  // stored packet size of the damaged file (or the sample)
};

}  // namespace thorough
