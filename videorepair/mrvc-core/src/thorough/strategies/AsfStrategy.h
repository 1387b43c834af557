// WMV/ASF: the damaged file is read as it is where its header survived, and the
// carver cuts whole media objects out of its data packets for where it did not
// (or where damage threw the demuxer off). The result is written as ASF.
#pragma once

#include "thorough/strategies/AsfCarver.h"
#include "thorough/strategies/ContainerStrategy.h"

namespace thorough {

// The packet size and preroll from the File Properties Object in the first bytes
// of an ASF file; false when it is not there or its packets vary in size.
bool ReadAsfLayout(const std::wstring& path, AsfLayout& layout);

class AsfStrategy : public ContainerStrategy {
public:
    const char* Name() const override { return "wmv"; }
    MuxerChoice Muxer() const override { return MuxerChoice{"asf", {}}; }
    // The assembler keeps media objects whose packets libavformat's demuxer drops.
    bool CarverLeads() const override { return true; }
    std::unique_ptr<PacketSource> Carve(const std::wstring& damagedPath, const SampleModel& sample,
                                        const CarveContext& context, RepairLog* log) override;
};

}  // namespace thorough
