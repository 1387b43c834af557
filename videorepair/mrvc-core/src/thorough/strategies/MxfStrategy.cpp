#include "thorough/strategies/MxfStrategy.h"

#include <algorithm>

#include "RepairLog.h"
#include "thorough/Demuxer.h"
#include "thorough/SampleModel.h"
#include "thorough/strategies/MxfCarver.h"

namespace thorough {
namespace {

const char kLogSource[] = "videorepair/mrvc-core/src/thorough/strategies/MxfStrategy";

// Enough triplets to have met every track of the first content packages, even
// behind a large header.
constexpr int kTripletsToLearnTracks = 4000;

// A stream's description as the damaged header or the sample gives it.
struct Described {
    ParametersPtr parameters;
    AVRational timeBase{0, 1};
};

std::vector<Described> OwnDescriptions(const std::wstring& path) {
    std::vector<Described> streams;
    Demuxer own;
    if (!own.OpenFile(path, "mxf")) return streams;
    for (unsigned i = 0; i < own.StreamCount(); ++i)
        if (own.Parameters(i)->codec_id != AV_CODEC_ID_NONE)
            streams.push_back({CopyParameters(own.Parameters(i)), own.TimeBase(i)});
    return streams;
}

std::vector<Described> SampleDescriptions(const SampleModel& sample) {
    std::vector<Described> streams;
    for (const SampleStream& s : sample.Streams())
        if (s.parameters) streams.push_back({CopyParameters(s.parameters.get()), s.timeBase});
    return streams;
}

// The essence tracks met first in the file, pictures then sound, each by track number.
std::vector<std::pair<mxf::ItemKind, uint32_t>> EssenceTracks(const std::wstring& path) {
    std::vector<std::pair<mxf::ItemKind, uint32_t>> tracks;
    mxf::KlvWalker walker;
    if (!walker.Open(path)) return tracks;
    mxf::Klv klv;
    for (int n = 0; n < kTripletsToLearnTracks && walker.Next(klv); ++n) {
        std::pair<mxf::ItemKind, uint32_t> track{klv.kind, klv.track};
        if (klv.kind != mxf::ItemKind::kOther && std::find(tracks.begin(), tracks.end(), track) == tracks.end())
            tracks.push_back(track);
    }
    std::sort(tracks.begin(), tracks.end());
    return tracks;
}

AVMediaType TypeOf(mxf::ItemKind kind) {
    return kind == mxf::ItemKind::kPicture ? AVMEDIA_TYPE_VIDEO : AVMEDIA_TYPE_AUDIO;
}

// Pairs the essence tracks with the described streams of their kind, in order: a
// writer lays its tracks out the same way in every file.
std::vector<MxfTrack> PairTracks(const std::vector<std::pair<mxf::ItemKind, uint32_t>>& tracks,
                                 std::vector<Described>& described) {
    std::vector<MxfTrack> paired;
    std::vector<bool> used(described.size(), false);
    for (const auto& [kind, number] : tracks) {
        for (size_t i = 0; i < described.size(); ++i) {
            if (used[i] || !described[i].parameters || described[i].parameters->codec_type != TypeOf(kind)) continue;
            used[i] = true;
            paired.push_back({number, std::move(described[i].parameters), described[i].timeBase});
            break;
        }
    }
    return paired;
}

// The edit rate: the picture track's time base is its inverse.
AVRational EditRate(const std::vector<MxfTrack>& tracks) {
    for (const MxfTrack& t : tracks)
        if (t.parameters->codec_type == AVMEDIA_TYPE_VIDEO && t.timeBase.num > 0 && t.timeBase.den > 0)
            return av_inv_q(t.timeBase);
    return AVRational{0, 1};
}

}  // namespace

std::unique_ptr<PacketSource> MxfStrategy::Carve(const std::wstring& damagedPath, const SampleModel& sample,
                                                 const CarveContext& context, RepairLog* log) {
    (void)context;
    const auto essence = EssenceTracks(damagedPath);
    std::vector<Described> own = OwnDescriptions(damagedPath), learnt = SampleDescriptions(sample);
    std::vector<MxfTrack> tracks = PairTracks(essence, own);
    AVRational editRate = EditRate(tracks);
    // A damaged header may still open and describe less than it should.
    if (editRate.num <= 0) {
        tracks = PairTracks(essence, learnt);
        editRate = EditRate(tracks);
    }
    if (tracks.empty() || editRate.num <= 0) {
        VR_LOG(log, kLogInfo, "[Thorough] MXF essence tracks unknown:", "no carving");
        return nullptr;
    }
    auto carver = std::make_unique<MxfCarver>(editRate, std::move(tracks));
    if (!carver->Open(damagedPath)) return nullptr;
    VR_LOG(log, kLogInfo, "[Thorough] carving MXF essence elements, tracks:", std::to_string(carver->StreamCount()));
    return carver;
}

}  // namespace thorough
