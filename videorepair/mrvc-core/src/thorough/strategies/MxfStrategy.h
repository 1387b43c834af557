// MXF: the damaged file is read as it is where its header survived; the carver
// cuts frame-wrapped essence elements out of it for where it did not (or where
// damage threw the demuxer off), with the descriptors and edit rate of the
// damaged header when it opens, else of the sample. The result is written as MXF.
#pragma once

#include "thorough/strategies/ContainerStrategy.h"

namespace thorough {

class MxfStrategy : public ContainerStrategy {
public:
    const char* Name() const override { return "mxf"; }
    MuxerChoice Muxer() const override { return MuxerChoice{"mxf", {}}; }
    std::unique_ptr<PacketSource> Carve(const std::wstring& damagedPath, const SampleModel& sample,
                                        const CarveContext& context, RepairLog* log) override;
};

}  // namespace thorough
