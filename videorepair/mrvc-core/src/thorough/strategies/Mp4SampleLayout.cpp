#include "thorough/strategies/Mp4SampleLayout.h"

#include <algorithm>
#include <numeric>

#include "thorough/Demuxer.h"

namespace thorough {
namespace {

constexpr int kPacketsToLearnFrom = 3000;

// avcC keeps lengthSizeMinusOne in its fifth byte, hvcC in its twenty-second.
int LengthSizeOf(const AVCodecParameters* p) {
    if (p->codec_id == AV_CODEC_ID_H264 && p->extradata_size >= 5 && p->extradata[0] == 1)
        return (p->extradata[4] & 3) + 1;
    if (p->codec_id == AV_CODEC_ID_HEVC && p->extradata_size >= 23 && p->extradata[0] == 1)
        return (p->extradata[21] & 3) + 1;
    return 0;
}

int PicturesIn(const VideoShape& shape, const uint8_t* data, size_t size) {
    int pictures = 0;
    const size_t prefix = size_t(shape.lengthSize);
    for (size_t at = 0; at + prefix < size;) {
        size_t length = 0;
        for (size_t i = 0; i < prefix; ++i) length = length << 8 | data[at + i];
        bool key = false;
        nal::Role role = nal::RoleOf(shape.codec, data + at + prefix, std::min(length, size - at - prefix), key);
        pictures += role == nal::Role::kPicture || role == nal::Role::kPictureContinued;
        at += prefix + length;
    }
    return pictures;
}

// Audio packets that follow each other in the file without a gap form one
// stretch, as the writer's chunk put them.
class AudioRuns {
public:
    void Add(const AVPacket* packet, AVRational timeBase) {
        if (packet->pos < 0) return;
        const bool continues = packet->pos == end_;
        if (!continues && run_ > 0) unit_ = std::gcd(unit_, run_);
        const double seconds = double(packet->duration) * av_q2d(timeBase);
        run_ = continues ? run_ + packet->size : packet->size;
        runSeconds_ = continues ? runSeconds_ + seconds : seconds;
        end_ = packet->pos + packet->size;
        largest_ = std::max(largest_, run_);
        longestSeconds_ = std::max(longestSeconds_, runSeconds_);
    }
    int64_t Largest() const { return largest_; }
    double LongestSeconds() const { return longestSeconds_; }
    // The last stretch may be cut by the end of the sample's own recording.
    int64_t Unit() const { return unit_; }

private:
    int64_t end_ = -1, run_ = 0, largest_ = 0, unit_ = 0;
    double runSeconds_ = 0, longestSeconds_ = 0;
};

}  // namespace

SampleLayout LearnSampleLayout(const std::wstring& samplePath, int videoIndex, int audioIndex) {
    SampleLayout layout;
    VideoShape& shape = layout.video;
    Demuxer sample;
    if (!sample.OpenFile(samplePath) || videoIndex < 0 || unsigned(videoIndex) >= sample.StreamCount())
        return layout;
    const AVCodecParameters* p = sample.Parameters(unsigned(videoIndex));
    shape.codec = p->codec_id;
    shape.lengthSize = LengthSizeOf(p);
    if (shape.codec != AV_CODEC_ID_MJPEG && shape.lengthSize == 0) shape.codec = AV_CODEC_ID_NONE;
    AudioRuns runs;
    PacketPtr packet = NewPacket();
    for (int n = 0; n < kPacketsToLearnFrom && sample.Next(packet.get()); ++n) {
        if (packet->stream_index == videoIndex) {
            shape.largestSample = std::max(shape.largestSample, size_t(packet->size));
            if (shape.lengthSize > 0)
                shape.mostSlices = std::max(shape.mostSlices, PicturesIn(shape, packet->data, size_t(packet->size)));
        } else if (packet->stream_index == audioIndex) {
            runs.Add(packet.get(), sample.TimeBase(unsigned(audioIndex)));
        }
        av_packet_unref(packet.get());
    }
    layout.largestAudioRun = runs.Largest();
    layout.longestAudioRunSeconds = runs.LongestSeconds();
    layout.audioRunUnit = runs.Unit();
    return layout;
}

}  // namespace thorough
