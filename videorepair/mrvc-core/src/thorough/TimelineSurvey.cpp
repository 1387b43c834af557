#include "thorough/TimelineSurvey.h"

#include <algorithm>

#include "thorough/Demuxer.h"

namespace thorough {
namespace {

const char* KindOf(AVMediaType type) {
    const char* name = av_get_media_type_string(type);
    return name != nullptr ? name : "data";
}

}  // namespace

void TimelineWalk::AddStream(const AVCodecParameters* p, AVRational rate) {
    Walk walk;
    walk.followed = p != nullptr;
    walk.stream.index = int(walks_.size());
    if (p != nullptr) {
        walk.stream.kind = KindOf(p->codec_type);
        walk.stream.codec = avcodec_get_name(p->codec_id);
        if (p->codec_type == AVMEDIA_TYPE_VIDEO && rate.num > 0 && rate.den > 0) {
            walk.frameSeconds = av_q2d(av_inv_q(rate));
            walk.threshold = kVideoFrames * walk.frameSeconds;
        }
    }
    walks_.push_back(walk);
}

// Decoding order's timestamps rise steadily where presentation order jumps about.
void TimelineWalk::Step(unsigned index, const AVPacket* packet, AVRational base) {
    if (index >= walks_.size() || !walks_[index].followed) return;
    Walk& walk = walks_[index];
    int64_t stamp = packet->dts != AV_NOPTS_VALUE ? packet->dts : packet->pts;
    if (stamp == AV_NOPTS_VALUE) return;
    double at = double(stamp) * av_q2d(base);
    double length = packet->duration > 0 ? double(packet->duration) * av_q2d(base) : walk.frameSeconds;
    RecordStream& s = walk.stream;
    if (!walk.started) {
        walk.started = true;
        s.first = at;
        s.last = at + length;
    } else if (at > s.last + walk.threshold) {
        walk.holes.push_back({s.kind, s.last, at});
    }
    s.first = std::min(s.first, at);
    s.last = std::max(s.last, at + length);
    ++s.frames;
}

void TimelineWalk::Finish(RepairRecord& record) const {
    double origin = 0, end = 0;
    bool any = false;
    for (const Walk& w : walks_) {
        if (!w.started) continue;
        origin = any ? std::min(origin, w.stream.first) : w.stream.first;
        end = any ? std::max(end, w.stream.last) : w.stream.last;
        any = true;
    }
    for (const Walk& w : walks_) {
        if (!w.started) continue;
        RecordStream s = w.stream;
        if (s.first - origin > w.threshold) record.AddGap(s.kind, 0, s.first - origin);
        for (const RecordGap& hole : w.holes) record.AddGap(hole.stream, hole.start - origin, hole.end - origin);
        if (end - s.last > w.threshold) record.AddGap(s.kind, s.last - origin, end - origin);
        s.first -= origin;
        s.last -= origin;
        record.AddStream(s);
    }
}

bool TimelineSurvey::Survey(const std::wstring& path, RepairRecord& record) {
    Demuxer input;
    if (!input.OpenFile(path)) return false;
    TimelineWalk walk;
    for (unsigned i = 0; i < input.StreamCount(); ++i) walk.AddStream(input.Parameters(i), input.FrameRate(i));
    PacketPtr packet = NewPacket();
    while (input.Next(packet.get())) {
        walk.Step(unsigned(packet->stream_index), packet.get(), input.TimeBase(unsigned(packet->stream_index)));
        av_packet_unref(packet.get());
    }
    walk.Finish(record);
    return true;
}

}  // namespace thorough
