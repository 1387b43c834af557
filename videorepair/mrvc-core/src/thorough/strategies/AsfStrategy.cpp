#include "thorough/strategies/AsfStrategy.h"

#include "RepairLog.h"
#include "thorough/Demuxer.h"
#include "thorough/SampleModel.h"
#include "wmv/ByteOrder.h"
#include "wmv/WmvAsfInfoParser.h"

namespace thorough {
namespace {

const char kLogSource[] = "videorepair/mrvc-core/src/thorough/strategies/AsfStrategy";

// The header objects lie at the file's start; a header this long is already rare.
constexpr size_t kHeaderSearchBytes = 1u << 20;
// File Properties Object fields.
constexpr size_t kPrerollAt = 80, kMinimumPacketAt = 92, kMaximumPacketAt = 96, kFilePropertiesBytes = 104;
constexpr uint32_t kLargestPacket = 1u << 16;

// The damaged file's own streams where its header still opens, by stream number.
std::vector<AsfStream> OwnStreams(const std::wstring& path) {
    std::vector<AsfStream> streams;
    Demuxer own;
    if (!own.OpenFile(path, "asf")) return streams;
    for (unsigned i = 0; i < own.StreamCount(); ++i) {
        int id = own.Stream(i)->id;
        if (id > 0 && id < 128) streams.push_back({uint8_t(id), CopyParameters(own.Parameters(i)), own.FrameRate(i)});
    }
    return streams;
}

// The sample's streams stand in for those of a damaged file whose header is lost:
// a device numbers its streams the same way every time.
std::vector<AsfStream> SampleStreams(const SampleModel& sample) {
    std::vector<AsfStream> streams;
    for (const SampleStream& s : sample.Streams())
        if (s.id > 0 && s.id < 128 && s.parameters)
            streams.push_back({uint8_t(s.id), CopyParameters(s.parameters.get()), s.frameRate});
    return streams;
}

}  // namespace

bool ReadAsfLayout(const std::wstring& path, AsfLayout& layout) {
    FileReader file;
    if (path.empty() || !file.Open(path)) return false;
    size_t available = 0;
    const uint8_t* head = file.View(0, kHeaderSearchBytes, available);
    if (head == nullptr) return false;
    int64_t at = wmv::WmvAsfInfoParser::FindObject(head, available, wmv::kAsfFilePropertiesObject);
    if (at < 0 || available - size_t(at) < kFilePropertiesBytes) return false;
    const uint8_t* properties = head + at;
    uint32_t minimum = wmv::Le32(properties + kMinimumPacketAt), maximum = wmv::Le32(properties + kMaximumPacketAt);
    if (minimum != maximum || minimum == 0 || minimum > kLargestPacket) return false;
    layout.packetSize = minimum;
    layout.prerollMs = int64_t(wmv::Le64(properties + kPrerollAt));
    return true;
}

std::unique_ptr<PacketSource> AsfStrategy::Carve(const std::wstring& damagedPath, const SampleModel& sample,
                                                 const CarveContext& context, RepairLog* log) {
    (void)context;
    AsfLayout layout;
    bool ownLayout = ReadAsfLayout(damagedPath, layout);
    if (!ownLayout && !ReadAsfLayout(sample.Path(), layout)) {
        VR_LOG(log, kLogInfo, "[Thorough] ASF packet size unknown:", "no carving");
        return nullptr;
    }
    std::vector<AsfStream> streams = ownLayout ? OwnStreams(damagedPath) : std::vector<AsfStream>();
    if (streams.empty()) streams = SampleStreams(sample);
    if (streams.empty()) return nullptr;
    auto carver = std::make_unique<AsfCarver>(layout, std::move(streams));
    if (!carver->Open(damagedPath)) return nullptr;
    VR_LOG(log, kLogInfo, "[Thorough] carving ASF packets of bytes:", std::to_string(layout.packetSize));
    return carver;
}

}  // namespace thorough
