#include "thorough/TimelineSurvey.h"

#include <algorithm>
#include <vector>

#include "thorough/Demuxer.h"

namespace thorough {
namespace {

struct Walk {
    RecordStream stream;
    double threshold = TimelineSurvey::kOtherSeconds;
    double frameSeconds = 0;
    bool started = false;
    std::vector<RecordGap> holes;
};

const char* KindOf(AVMediaType type) {
    const char* name = av_get_media_type_string(type);
    return name != nullptr ? name : "data";
}

Walk SetUp(const Demuxer& input, unsigned i) {
    Walk walk;
    const AVCodecParameters* p = input.Parameters(i);
    walk.stream.index = int(i);
    walk.stream.kind = KindOf(p->codec_type);
    walk.stream.codec = avcodec_get_name(p->codec_id);
    AVRational rate = input.FrameRate(i);
    if (p->codec_type == AVMEDIA_TYPE_VIDEO && rate.num > 0 && rate.den > 0) {
        walk.frameSeconds = av_q2d(av_inv_q(rate));
        walk.threshold = TimelineSurvey::kVideoFrames * walk.frameSeconds;
    }
    return walk;
}

// Decoding order's timestamps rise steadily where presentation order jumps about.
void Step(Walk& walk, const AVPacket* packet, AVRational base) {
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
    if (at < s.first) s.first = at;
    s.last = std::max(s.last, at + length);
    ++s.frames;
}

}  // namespace

bool TimelineSurvey::Survey(const std::wstring& path, RepairRecord& record) {
    Demuxer input;
    if (!input.OpenFile(path)) return false;
    std::vector<Walk> walks;
    for (unsigned i = 0; i < input.StreamCount(); ++i) walks.push_back(SetUp(input, i));
    PacketPtr packet = NewPacket();
    while (input.Next(packet.get())) {
        unsigned index = unsigned(packet->stream_index);
        if (index < walks.size()) Step(walks[index], packet.get(), input.TimeBase(index));
        av_packet_unref(packet.get());
    }
    double origin = 0, end = 0;
    bool any = false;
    for (const Walk& w : walks) {
        if (!w.started) continue;
        origin = any ? std::min(origin, w.stream.first) : w.stream.first;
        end = any ? std::max(end, w.stream.last) : w.stream.last;
        any = true;
    }
    for (Walk& w : walks) {
        if (!w.started) continue;
        RecordStream s = w.stream;
        // A stream that starts late or stops early has a hole at that end.
        if (s.first - origin > w.threshold) record.AddGap(s.kind, 0, s.first - origin);
        for (const RecordGap& hole : w.holes) record.AddGap(hole.stream, hole.start - origin, hole.end - origin);
        if (end - s.last > w.threshold) record.AddGap(s.kind, s.last - origin, end - origin);
        s.first -= origin;
        s.last -= origin;
        record.AddStream(s);
    }
    return true;
}

}  // namespace thorough
