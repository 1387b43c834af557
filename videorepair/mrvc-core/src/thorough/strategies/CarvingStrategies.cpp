#include "thorough/strategies/CarvingStrategies.h"

#include <algorithm>
#include <vector>

#include "thorough/carving/AviChunkCarver.h"
#include "thorough/carving/FlvTagCarver.h"
#include "thorough/carving/MkvBlockCarver.h"

namespace thorough {
namespace {

// Each carver walks whether or not the demuxer read the file: a demuxer stops at
// the first chunk, tag or block it cannot follow, or trusts an index that points
// wrong. But writing and judging a candidate costs a pass over the whole file, so
// where the file's own demuxer read it, the carved packets are offered only when
// they hold more pictures than the demuxer's that decoded.
std::unique_ptr<PacketSource> IfItAdds(std::unique_ptr<CarvedSource> carved, const CarveContext& context) {
    if (!carved || !context.ownDemuxerReadsFile) return carved;
    std::vector<int64_t> pictures(carved->StreamCount(), 0);
    for (const CarvedPacket& packet : carved->Packets())
        if (carved->Parameters(packet.stream)->codec_type == AVMEDIA_TYPE_VIDEO) ++pictures[packet.stream];
    int64_t most = pictures.empty() ? 0 : *std::max_element(pictures.begin(), pictures.end());
    if (most <= context.asIs.videoFrames) return nullptr;
    return carved;
}

}  // namespace

std::unique_ptr<PacketSource> AviStrategy::Carve(const std::wstring& damagedPath, const SampleModel& sample,
                                                 const CarveContext& context, RepairLog*) {
    return IfItAdds(AviChunkCarver(sample).Carve(damagedPath), context);
}

std::unique_ptr<PacketSource> FlvStrategy::Carve(const std::wstring& damagedPath, const SampleModel& sample,
                                                 const CarveContext& context, RepairLog*) {
    return IfItAdds(FlvTagCarver(sample).Carve(damagedPath), context);
}

// Asked before the file as it is was counted (the carver leads): whether the
// carved file adds anything is told afterwards, by CarvedAdds.
std::unique_ptr<PacketSource> MkvStrategy::Carve(const std::wstring& damagedPath, const SampleModel& sample,
                                                 const CarveContext&, RepairLog*) {
    return MkvBlockCarver(sample).Carve(damagedPath);
}

// The remux keeps what the carver does not look for (subtitles, chapters, tags):
// where the file's own demuxer reads it, the carved file is judged only when it
// holds more pictures.
bool MkvStrategy::CarvedAdds(const ThoroughMediaCount& carved, const CarveContext& context) const {
    return !context.ownDemuxerReadsFile || carved.videoFrames > context.asIs.videoFrames;
}

}  // namespace thorough
