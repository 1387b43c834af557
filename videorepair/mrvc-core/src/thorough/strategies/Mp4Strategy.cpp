#include "thorough/strategies/Mp4Strategy.h"

#include <algorithm>

#include "RepairLog.h"
#include "io/FileReader.h"
#include "thorough/SampleModel.h"
#include "thorough/strategies/CarvedPackets.h"
#include "thorough/strategies/IsoBoxes.h"
#include "thorough/strategies/MediaDataWalker.h"
#include "thorough/strategies/Mp4SampleLayout.h"
#include "thorough/strategies/PictureOrder.h"
#include "thorough/strategies/SampleFit.h"

namespace thorough {
namespace {

// Audio chunks no longer than this interleave finely enough to tell how far
// damage set the tracks apart.
constexpr double kFineInterleaveSeconds = 0.25;

const char kLogSource[] = "videorepair/mrvc-core/src/thorough/strategies/Mp4Strategy";

int FirstOfType(const SampleModel& sample, AVMediaType type) {
    const auto& streams = sample.Streams();
    for (size_t i = 0; i < streams.size(); ++i)
        if (streams[i].type == type && streams[i].parameters) return int(i);
    return -1;
}

CarvedTrack TrackOf(const SampleModel& sample, int index) {
    CarvedTrack track;
    if (index < 0) return track;
    const SampleStream& s = sample.Streams()[size_t(index)];
    track.parameters = CopyParameters(s.parameters.get());
    track.timeBase = s.timeBase;
    track.frameRate = s.frameRate;
    track.displayMatrix = s.displayMatrix;
    return track;
}

const char* CodecName(AVCodecID codec) {
    const char* name = avcodec_get_name(codec);
    return name != nullptr ? name : "unknown";
}

// Each video sample's order count, read from its first bytes where they hold the
// whole slice header (the usual case): a second read of all the media data
// would cost as much as the walk that found it.
int OrderCountOf(PictureOrderReader& reader, const CarvedSample& s, const VideoShape& shape, FileReader& file,
                 std::string& bytes) {
    constexpr size_t kPrefixBytes = 4096;
    bytes.resize(std::min<size_t>(s.size, kPrefixBytes));
    if (file.ReadAt(s.offset, bytes.data(), bytes.size()) != int64_t(bytes.size())) return PictureOrderReader::kUnknown;
    std::string head = bytes.size() < s.size ? OrderCountHead(reinterpret_cast<const uint8_t*>(bytes.data()),
                                                              bytes.size(), s.size, shape.codec, shape.lengthSize)
                                             : std::string();
    if (head.empty() && bytes.size() < s.size) {
        bytes.resize(s.size);
        if (file.ReadAt(s.offset, bytes.data(), s.size) != int64_t(s.size)) return PictureOrderReader::kUnknown;
    }
    const std::string& unit = head.empty() ? bytes : head;
    return reader.OrderCount(reinterpret_cast<const uint8_t*>(unit.data()), unit.size());
}

std::vector<int64_t> PresentationOf(const std::vector<CarvedSample>& samples, const AVCodecParameters* video,
                                    const VideoShape& shape, FileReader& file) {
    PictureOrderReader reader(video);
    std::vector<int> counts;
    std::vector<bool> keys;
    std::string bytes;
    for (const CarvedSample& s : samples) {
        if (!s.video) continue;
        counts.push_back(OrderCountOf(reader, s, shape, file, bytes));
        keys.push_back(s.key);
    }
    return PresentationOrder(counts, keys);
}

}  // namespace

std::unique_ptr<PacketSource> Mp4Strategy::Carve(const std::wstring& damagedPath, const SampleModel& sample,
                                                 const CarveContext& context, RepairLog* log) {
    remark_.clear();
    auto file = std::make_unique<FileReader>();
    if (!file->Open(damagedPath)) return nullptr;
    file->SetHopping(true);  // the order counts are read from the first bytes of each picture
    const std::vector<iso::Box> boxes = iso::TopLevelBoxes(*file);
    // A whole index (or a fragmented file's) read by the file's own demuxer knows
    // every sample exactly, and the samples the file still holds were read;
    // unless damage took box headers, behind which the demuxer reads nothing.
    if (iso::IndexIntact(boxes) && !iso::HasLostStretch(boxes) && context.ownDemuxerReadsFile) return nullptr;
    const int videoIndex = FirstOfType(sample, AVMEDIA_TYPE_VIDEO);
    const int audioIndex = FirstOfType(sample, AVMEDIA_TYPE_AUDIO);
    if (videoIndex < 0 && audioIndex < 0)
        return Refuse("the index is lost and no sample was given to carve the media data by", log);
    const SampleLayout layout = LearnSampleLayout(sample.Path(), videoIndex, audioIndex);
    const AccessUnitReader video(layout.video);
    const std::string codec =
        videoIndex >= 0 ? CodecName(sample.Streams()[size_t(videoIndex)].parameters->codec_id) : "";
    if (videoIndex >= 0 && !video.Supported())
        return Refuse("the sample's video (" + codec + ") cannot be carved without an index", log);
    CarvedTrack audioTrack = TrackOf(sample, audioIndex);
    std::unique_ptr<AudioFrameSplitter> audio;
    if (audioTrack.parameters) audio = std::make_unique<AudioFrameSplitter>(audioTrack.parameters.get());
    if (audio && !audio->Supported()) audio.reset(), audioTrack = CarvedTrack();
    if (audio && videoIndex >= 0) audio->SetPcmChunkUnit(layout.audioRunUnit);
    if (videoIndex < 0 && !audio) return Refuse("the sample's audio cannot be carved without an index", log);

    MediaDataWalker walker(*file, video, audio.get(), layout.largestAudioRun);
    std::vector<CarvedSample> samples = Walk(walker, boxes, context, log);
    if (iso::MediaData(boxes).empty()) return Refuse("no media data was found in the damaged file", log);
    if (videoIndex < 0) return AudioOnly(std::move(file), std::move(audioTrack), std::move(samples), walker, log);
    const bool anyVideo = std::any_of(samples.begin(), samples.end(), [](const CarvedSample& s) { return s.video; });
    if (!anyVideo)
        return Refuse("the sample does not fit the damaged file: no " + codec + " sample like the sample's was found "
                      "in its media data", log);
    CarvedTrack videoTrack = TrackOf(sample, videoIndex);
    if (!KeyPicturesDecode(videoTrack.parameters.get(), samples, *file))
        return Refuse("the sample does not fit the damaged file: its " + codec + " configuration (profile, picture "
                      "size or format) does not decode the damaged file's pictures", log);
    const bool noSound = std::all_of(samples.begin(), samples.end(), [](const CarvedSample& s) { return s.video; });
    if (audioTrack.parameters && noSound) {
        audioTrack = CarvedTrack();
        remark_ = std::string("the sample's audio (") + CodecName(audio->Codec()) +
                  ") was not found in the damaged file: the video is kept without sound";
        VR_LOG(log, kLogWarning, "[Mp4] " + remark_, 0);
    }
    std::vector<int64_t> presentation = PresentationOf(samples, videoTrack.parameters.get(), layout.video, *file);
    const bool fine = layout.longestAudioRunSeconds > 0 && layout.longestAudioRunSeconds <= kFineInterleaveSeconds;
    return std::make_unique<CarvedPackets>(std::move(file), std::move(videoTrack), std::move(audioTrack),
                                           std::move(samples), presentation, walker.Skipped(), fine);
}

// Sound recordings (M4A): the sample's audio alone, frame after frame.
std::unique_ptr<PacketSource> Mp4Strategy::AudioOnly(std::unique_ptr<FileReader> file, CarvedTrack audio,
                                                     std::vector<CarvedSample> samples, const MediaDataWalker& walker,
                                                     RepairLog* log) {
    if (samples.empty())
        return Refuse("the sample does not fit the damaged file: no audio frame like the sample's was found", log);
    return std::make_unique<CarvedPackets>(std::move(file), CarvedTrack(), std::move(audio), std::move(samples),
                                           std::vector<int64_t>(), walker.Skipped(), false);
}

std::vector<CarvedSample> Mp4Strategy::Walk(MediaDataWalker& walker, const std::vector<iso::Box>& boxes,
                                            const CarveContext& context, RepairLog* log) const {
    const std::vector<iso::MediaRange> ranges = iso::MediaData(boxes);
    int64_t total = 0;
    for (const iso::MediaRange& range : ranges) total += range.end - range.begin;
    walker.Watch(context.control, context.progress, total);
    std::vector<CarvedSample> samples;
    for (const iso::MediaRange& range : ranges)
        if (!walker.Walk(range.begin, range.end, samples)) break;
    VR_LOG(log, kLogInfo, "[Mp4] carved samples:", std::to_string(samples.size()));
    VR_LOG(log, kLogInfo, "[Mp4] bytes of media data stepped over:", std::to_string(walker.Skipped()));
    return samples;
}

std::unique_ptr<PacketSource> Mp4Strategy::Refuse(const std::string& why, RepairLog* log) {
    remark_ = why;
    VR_LOG(log, kLogWarning, "[Mp4] " + remark_, 0);
    return nullptr;
}

}  // namespace thorough
