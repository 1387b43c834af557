// Containers whose damaged file is read as it is (with the sample restoring what
// the damage removed) and, beside that, carved packet by packet by the
// container's own carver: the judge keeps whichever plays better.
#pragma once

#include <string>

#include "thorough/strategies/ContainerStrategy.h"

namespace thorough {

class AviStrategy : public ContainerStrategy {
public:
    const char* Name() const override { return "avi"; }
    std::unique_ptr<PacketSource> Carve(const std::wstring& damagedPath, const SampleModel& sample,
                                        const CarveContext& context, RepairLog* log) override;
    MuxerChoice Muxer() const override { return MuxerChoice{"avi", {}}; }
};

class FlvStrategy : public ContainerStrategy {
public:
    const char* Name() const override { return "flv"; }
    std::unique_ptr<PacketSource> Carve(const std::wstring& damagedPath, const SampleModel& sample,
                                        const CarveContext& context, RepairLog* log) override;
    MuxerChoice Muxer() const override { return MuxerChoice{"flv", {}}; }
};

class MkvStrategy : public ContainerStrategy {
public:
    explicit MkvStrategy(std::string name) : name_(std::move(name)) {}
    const char* Name() const override { return name_.c_str(); }
    std::unique_ptr<PacketSource> Carve(const std::wstring& damagedPath, const SampleModel& sample,
                                        const CarveContext& context, RepairLog* log) override;
    // Matroska's CRC-32 elements are optional; computing them costs a fifth of the writing.
    MuxerChoice Muxer() const override { return MuxerChoice{MuxerFor(name_), {{"write_crc32", "0"}}}; }
    // libavformat's demuxer gives up the rest of a cluster at a damaged block.
    bool CarverLeads() const override { return true; }
    bool CarvedAdds(const ThoroughMediaCount& carved, const CarveContext& context) const override;

private:
    std::string name_;
};

}  // namespace thorough
