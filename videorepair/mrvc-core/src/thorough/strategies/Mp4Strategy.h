// MP4, MOV, 3GP and their kin: where the index (moov) is whole, the file's own
// demuxer reads it; where the recording stopped before the index was written,
// the media data is carved sample by sample with what the sample of the same
// recorder teaches, and the muxer rebuilds the index.
#pragma once

#include <string>
#include <vector>

#include "thorough/strategies/CarvedPackets.h"
#include "thorough/strategies/ContainerStrategy.h"
#include "thorough/strategies/IsoBoxes.h"
#include "thorough/strategies/MediaDataWalker.h"

namespace thorough {

class Mp4Strategy : public ContainerStrategy {
public:
    explicit Mp4Strategy(std::string formatName) : name_(std::move(formatName)) {}

    const char* Name() const override { return name_.c_str(); }
    std::unique_ptr<PacketSource> Carve(const std::wstring& damagedPath, const SampleModel& sample,
                                        const CarveContext& context, RepairLog* log) override;
    MuxerChoice Muxer() const override { return MuxerChoice{MuxerFor(name_), {}}; }
    std::string Remark() const override { return remark_; }

private:
    std::vector<CarvedSample> Walk(MediaDataWalker& walker, const std::vector<iso::Box>& boxes,
                                   const CarveContext& context, RepairLog* log) const;
    std::unique_ptr<PacketSource> AudioOnly(std::unique_ptr<FileReader> file, CarvedTrack audio,
                                            std::vector<CarvedSample> samples, const MediaDataWalker& walker,
                                            RepairLog* log);
    // Says why nothing was carved, in the log and to the host.
    std::unique_ptr<PacketSource> Refuse(const std::string& why, RepairLog* log);

    std::string name_;
    std::string remark_;
};

}  // namespace thorough
