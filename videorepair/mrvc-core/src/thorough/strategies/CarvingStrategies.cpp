#include "thorough/strategies/CarvingStrategies.h"

#include "thorough/carving/AviChunkCarver.h"
#include "thorough/carving/FlvTagCarver.h"
#include "thorough/carving/MkvBlockCarver.h"

namespace thorough {

// Each carver runs whether or not the demuxer read the file: a demuxer stops at
// the first chunk, tag or block it cannot follow, or trusts an index that points
// wrong; the carver walks every byte.

std::unique_ptr<PacketSource> AviStrategy::Carve(const std::wstring& damagedPath, const SampleModel& sample,
                                                 const CarveContext&, RepairLog*) {
    return AviChunkCarver(sample).Carve(damagedPath);
}

std::unique_ptr<PacketSource> FlvStrategy::Carve(const std::wstring& damagedPath, const SampleModel& sample,
                                                 const CarveContext&, RepairLog*) {
    return FlvTagCarver(sample).Carve(damagedPath);
}

std::unique_ptr<PacketSource> MkvStrategy::Carve(const std::wstring& damagedPath, const SampleModel& sample,
                                                 const CarveContext&, RepairLog*) {
    return MkvBlockCarver(sample).Carve(damagedPath);
}

}  // namespace thorough
