#include "thorough/MediaTally.h"

#include <algorithm>

namespace thorough {
namespace {

// Rebuilt files win when within this share of the best score: a near-tie is
// damage the judge cannot see, and the rebuilt file seeks.
constexpr double kNearTie = 0.005;
constexpr double kAudioSecondWeight = 25.0;  // an audio second weighs as a second of video

double Seconds(int64_t value, AVRational base) { return double(value) * av_q2d(base); }

}  // namespace

void MediaTally::AddStream(const AVCodecParameters* parameters, AVRational timeBase, AVRational frameRate,
                           Decode decode) {
    Stream s;
    if (parameters != nullptr) {
        s.type = parameters->codec_type;
        s.timeBase = timeBase;
        if (frameRate.num > 0 && frameRate.den > 0) s.frameSeconds = av_q2d(av_inv_q(frameRate));
        if (s.type == AVMEDIA_TYPE_VIDEO && decode != Decode::kNone) {
            s.check = std::make_unique<DecodeCheck>();
            s.check->Open(parameters, decode == Decode::kEveryPacket);
        }
        if (s.type == AVMEDIA_TYPE_AUDIO && parameters->frame_size > 0 && parameters->sample_rate > 0)
            s.frameSeconds = double(parameters->frame_size) / parameters->sample_rate;
    }
    streams_.push_back(std::move(s));
}

void MediaTally::Count(const AVPacket* packet, unsigned stream) {
    if (stream >= streams_.size()) return;
    Stream& s = streams_[stream];
    if (s.type != AVMEDIA_TYPE_VIDEO && s.type != AVMEDIA_TYPE_AUDIO) return;
    // Pictures before the first key frame refer to what was lost: no decoder shows them right.
    if (s.type == AVMEDIA_TYPE_VIDEO && !s.keySeen && (packet->flags & AV_PKT_FLAG_KEY) == 0) return;
    s.keySeen = true;
    ++s.packets;
    s.seconds += packet->duration > 0 ? Seconds(packet->duration, s.timeBase) : s.frameSeconds;
    if (packet->pts != AV_NOPTS_VALUE) {
        if (s.firstPts == AV_NOPTS_VALUE || packet->pts < s.firstPts) s.firstPts = packet->pts;
        if (s.lastPts == AV_NOPTS_VALUE || packet->pts > s.lastPts) s.lastPts = packet->pts;
    }
    if (s.check) s.check->Feed(packet);
}

void MediaTally::Finish() {
    for (Stream& s : streams_)
        if (s.check) s.check->Finish();
}

double MediaTally::SecondsOf(const Stream& s) const {
    if (s.seconds > 0) return s.seconds;
    if (s.firstPts == AV_NOPTS_VALUE) return 0;
    return Seconds(s.lastPts - s.firstPts, s.timeBase) + s.frameSeconds;
}

const MediaTally::Stream* MediaTally::MainVideo() const {
    const Stream* main = nullptr;
    for (const Stream& s : streams_)
        if (s.type == AVMEDIA_TYPE_VIDEO && (main == nullptr || s.packets > main->packets)) main = &s;
    return main;
}

double MediaTally::VideoShare() const {
    const Stream* main = MainVideo();
    return main == nullptr ? 0.0 : main->check ? main->check->GoodShare() : assumedShare_;
}

ThoroughMediaCount MediaTally::Result() const { return ResultAt(VideoShare()); }

ThoroughMediaCount MediaTally::Bound() const { return ResultAt(1.0); }

ThoroughMediaCount MediaTally::ResultAt(double good) const {
    ThoroughMediaCount count{};
    for (const Stream& s : streams_) {
        if (s.type != AVMEDIA_TYPE_AUDIO) continue;
        count.audioPackets += s.packets;
        count.audioSeconds = std::max(count.audioSeconds, SecondsOf(s));
    }
    if (const Stream* main = MainVideo()) {
        count.videoFrames = int64_t(double(main->packets) * good + 0.5);
        count.videoSeconds = SecondsOf(*main) * good;
    }
    return count;
}

double ScoreOf(const ThoroughMediaCount& count) {
    return double(count.videoFrames) + count.audioSeconds * kAudioSecondWeight;
}

bool Better(const Candidate& a, const Candidate& b) {
    if (a.usable != b.usable) return a.usable;
    double sa = ScoreOf(a.count), sb = ScoreOf(b.count);
    bool aRebuilds = a.kind != kVerdictAsIs, bRebuilds = b.kind != kVerdictAsIs;
    if (aRebuilds && !bRebuilds) return sa >= sb * (1.0 - kNearTie);
    if (bRebuilds && !aRebuilds) return sa > sb * (1.0 + kNearTie) + 0.5;
    return sa > sb;
}

}  // namespace thorough
