#include "thorough/carving/MkvBlockCarver.h"

#include <algorithm>
#include <cstdlib>
#include <set>

#include "MkvHead.h"
#include "MkvIds.h"
#include "thorough/Demuxer.h"
#include "util/Ebml.h"
#include "util/EbmlElement.h"

namespace thorough {
namespace {

using util::EbmlElementHeader;

// Bounds on what a real element can be; anything larger is damage.
constexpr uint64_t kLargestBlock = 64u << 20;
constexpr uint64_t kLargestTrackNumber = 126;
constexpr uint64_t kLargestHeadElement = 16u << 20;
constexpr size_t kBlockHeaderBytes = 4096;  // room for the longest Xiph lace sizes we accept

bool IsSkippable(uint32_t id) {
    switch (id) {
        case mkv_id::kEbml: case mkv_id::kSeekHead: case mkv_id::kInfo: case mkv_id::kTracks:
        case mkv_id::kCues: case mkv_id::kTags: case mkv_id::kChapters: case mkv_id::kAttachments:
        case mkv_id::kVoid: case mkv_id::kCrc32: case mkv_id::kPosition: case mkv_id::kPrevSize:
            return true;
        default:
            return false;
    }
}

// Lace sizes of EBML lacing after the first are signed differences.
bool SignedEbml(const uint8_t* data, size_t available, int64_t& value, uint32_t& length) {
    util::EbmlNumber n;
    if (!util::ReadEbmlNumber(data, available, n)) return false;
    value = int64_t(n.value) - ((int64_t(1) << (7 * n.length - 1)) - 1);
    length = n.length;
    return true;
}

// Xiph lacing: a size is a run of bytes added up, each 255 saying more follows.
bool XiphSize(const uint8_t* data, size_t available, size_t& used, int64_t& value) {
    value = 0;
    for (uint8_t b = 255; b == 255; value += b) {
        if (used >= available) return false;
        b = data[used++];
    }
    return true;
}

// EBML lacing: the first size whole, every later one as a difference to the one before.
bool EbmlSize(const uint8_t* data, size_t available, size_t& used, bool first, int64_t& value) {
    uint32_t length = 0;
    int64_t read = 0;
    util::EbmlNumber whole;
    if (first && !util::ReadEbmlNumber(data + used, available - used, whole)) return false;
    if (!first && !SignedEbml(data + used, available - used, read, length)) return false;
    value = first ? int64_t(whole.value) : value + read;
    used += first ? whole.length : length;
    return true;
}

// The sizes of a laced block's frames (lacing 1 Xiph, 2 fixed, 3 EBML) from the
// lace head at data; used tells how long that head was.
bool LaceSizes(int lacing, const uint8_t* data, size_t available, uint64_t size, std::vector<uint64_t>& sizes,
               size_t& used) {
    if (available < 1) return false;
    size_t count = size_t(data[0]) + 1;
    used = 1;
    sizes.clear();
    if (lacing == 2) {
        if ((size - 1) % count != 0) return false;
        sizes.assign(count, (size - 1) / count);
        return true;
    }
    int64_t value = 0;
    uint64_t total = 0;
    for (size_t i = 0; i + 1 < count; ++i) {
        bool ok = lacing == 1 ? XiphSize(data, available, used, value) : EbmlSize(data, available, used, i == 0, value);
        if (!ok || value <= 0) return false;
        sizes.push_back(uint64_t(value));
        total += uint64_t(value);
    }
    if (total + used >= size) return false;
    sizes.push_back(size - total - used);
    return true;
}

}  // namespace

void MkvBlockWalk::Run() {
    groups_.push_back(MkvCarvedGroup());  // blocks met before any Cluster head
    for (int64_t at = 0; at < file_.Size();) {
        int64_t before = at;
        if (Step(at, true)) continue;
        at = Resync(before + 1);
        skipped_ += at - before;
        ++run_;
        Orphan(at);
    }
}

// Parses the element at `at` and moves past it (into it, for a Segment or a
// Cluster). With take false nothing is kept: the element is only tested.
bool MkvBlockWalk::Step(int64_t& at, bool take) {
    EbmlElementHeader h;
    if (!util::ReadEbmlHeaderAt(file_, at, h)) return false;
    int64_t payload = at + h.HeaderLength();
    int64_t end = payload + int64_t(std::min<uint64_t>(h.size, uint64_t(file_.Size())));
    if (h.id == mkv_id::kSegment || h.id == mkv_id::kCluster) {
        if (h.id == mkv_id::kCluster) {
            EbmlElementHeader first;  // a Cluster starts with its Timestamp (or a CRC-32)
            if (!util::ReadEbmlHeaderAt(file_, payload, first)) return false;
            if (first.id != mkv_id::kTimestamp && first.id != mkv_id::kCrc32) return false;
            if (take) groups_.push_back({false, 0, h.unknownSize ? -1 : end});
        }
        at = payload;
        return true;
    }
    if (h.unknownSize || end > file_.Size()) return false;
    if (h.id == mkv_id::kTimestamp) {
        if (h.size > 8) return false;
        uint8_t bytes[8];
        if (file_.ReadAt(payload, bytes, size_t(h.size)) != int64_t(h.size)) return false;
        MkvCarvedGroup& group = groups_.back();
        if (take && !group.known) group.known = true, group.base = int64_t(util::EbmlUnsigned(bytes, size_t(h.size)));
    } else if (h.id == mkv_id::kSimpleBlock || h.id == mkv_id::kBlockGroup) {
        if (h.size > kLargestBlock) return false;
        bool ok = h.id == mkv_id::kSimpleBlock ? Block(payload, h.size, true, false, take)
                                               : BlockGroup(payload, end, take);
        if (!ok) return false;
    } else if (!IsSkippable(h.id) || h.size > kLargestHeadElement) {
        return false;
    }
    at = end;
    return true;
}

// Past damage, the next offset where an element parses and so does the one after
// it: a one-byte block id alone matches random bytes far too often.
int64_t MkvBlockWalk::Resync(int64_t from) {
    constexpr size_t kWindow = 64 * 1024;
    for (int64_t at = from; at < file_.Size();) {
        size_t got = 0;
        const uint8_t* view = file_.View(at, kWindow, got);
        if (view == nullptr || got == 0) break;
        for (size_t i = 0; i < got; ++i) {
            uint8_t b = view[i];
            if (b != 0x1F && b != mkv_id::kSimpleBlock && b != mkv_id::kBlockGroup) continue;
            if (ChainAt(at + int64_t(i))) return at + int64_t(i);
            view = file_.View(at, kWindow, got);  // the test moved the cache
        }
        at += int64_t(got);
    }
    return file_.Size();
}

bool MkvBlockWalk::ChainAt(int64_t at) {
    int64_t next = at;
    if (!Step(next, false)) return false;
    if (next >= file_.Size()) return true;
    return Step(next, false);
}

// A block found after damage belongs to the cluster around it only while that
// cluster's declared extent reaches it; otherwise its cluster's head was lost.
void MkvBlockWalk::Orphan(int64_t at) {
    const MkvCarvedGroup& group = groups_.back();
    if (group.known && (group.end < 0 || at < group.end)) return;
    groups_.push_back(MkvCarvedGroup());
}

bool MkvBlockWalk::BlockGroup(int64_t payload, int64_t end, bool take) {
    int64_t blockAt = -1;
    uint64_t blockSize = 0;
    bool referenced = false;
    for (int64_t at = payload; at < end;) {
        EbmlElementHeader h;
        if (!util::ReadEbmlHeaderAt(file_, at, h) || h.unknownSize) return false;
        int64_t child = at + h.HeaderLength();
        if (h.size > uint64_t(end - child)) return false;
        if (h.id == mkv_id::kBlock) blockAt = child, blockSize = h.size;
        if (h.id == mkv_id::kReferenceBlock) referenced = true;
        at = child + int64_t(h.size);
    }
    return blockAt >= 0 && Block(blockAt, blockSize, false, referenced, take);
}

bool MkvBlockWalk::Block(int64_t payload, uint64_t size, bool simple, bool referenced, bool take) {
    size_t available = 0;
    const uint8_t* data = file_.View(payload, size_t(std::min<uint64_t>(size, kBlockHeaderBytes)), available);
    util::EbmlNumber track;
    if (data == nullptr || !util::ReadEbmlNumber(data, available, track) || track.allOnes) return false;
    if (track.value == 0 || track.value > kLargestTrackNumber || available < track.length + 3) return false;
    const uint8_t* rest = data + track.length;
    int16_t relative = int16_t(uint16_t(rest[0] << 8 | rest[1]));
    uint8_t flags = rest[2];
    if ((flags & (simple ? 0x70 : 0xF1)) != 0) return false;  // reserved bits are set only by damage
    std::vector<std::pair<int64_t, uint32_t>> laces;
    size_t headerBytes = track.length + 3;
    if (!Laces(data + headerBytes, available - headerBytes, payload + int64_t(headerBytes), size - headerBytes, flags,
               laces))
        return false;
    if (!take) return true;
    bool key = simple ? (flags & 0x80) != 0 : !referenced;
    for (size_t i = 0; i < laces.size(); ++i)
        frames_.push_back({laces[i].first, laces[i].second, track.value, groups_.size() - 1, relative, key, i > 0, run_});
    return true;
}

// The frames of a block: one, or as many as its lacing says, with their sizes.
bool MkvBlockWalk::Laces(const uint8_t* data, size_t available, int64_t payload, uint64_t size, uint8_t flags,
                         std::vector<std::pair<int64_t, uint32_t>>& laces) const {
    int lacing = (flags >> 1) & 3;
    std::vector<uint64_t> sizes{size};
    size_t used = 0;
    if (lacing != 0 && !LaceSizes(lacing, data, available, size, sizes, used)) return false;
    int64_t at = payload + int64_t(used);
    for (uint64_t s : sizes) {
        if (s == 0) return false;
        laces.push_back({at, uint32_t(s)});
        at += int64_t(s);
    }
    return at == payload + int64_t(size);
}

std::unique_ptr<CarvedSource> MkvBlockCarver::Carve(const std::wstring& path) {
    auto out = std::make_unique<CarvedSource>();
    if (!out->Open(path) || !LearnStreams(path, *out)) return nullptr;
    MkvBlockWalk walk(out->File());
    walk.Run();
    out->AddSkipped(walk.Skipped());
    MatchTracks(walk.Frames());
    std::vector<int64_t> bases = ClusterTimes(walk.Groups(), walk.Frames(), frameTicks_);
    for (const MkvCarvedFrame& frame : walk.Frames()) {
        auto track = tracks_.find(frame.track);
        if (track == tracks_.end()) continue;
        CarvedPacket packet;
        packet.offset = frame.offset;
        packet.size = frame.size;
        packet.stream = track->second.stream;
        packet.key = frame.key;
        packet.run = frame.run;
        if (!frame.laceFollower) packet.pts = bases[frame.group] + frame.relative;
        // Video may be reordered: its decoding times are the muxer's to derive.
        if (track->second.type != AVMEDIA_TYPE_VIDEO) packet.dts = packet.pts;
        out->Add(packet);
    }
    if (out->Packets().empty()) return nullptr;
    return out;
}

// The streams: the damaged file's own where its head still reads, else the sample's.
bool MkvBlockCarver::LearnStreams(const std::wstring& path, CarvedSource& out) {
    Demuxer own;
    bool ownHead = own.OpenFile(path, "matroska") && own.StreamCount() > 0;
    size_t count = ownHead ? own.StreamCount() : sample_.Streams().size();
    std::vector<const AVCodecParameters*> kept;
    std::vector<unsigned> indices;
    for (size_t i = 0; i < count; ++i) {
        const SampleStream* learnt = ownHead ? nullptr : &sample_.Streams()[i];
        const AVCodecParameters* p = ownHead ? own.Parameters(unsigned(i)) : learnt->parameters.get();
        AVRational base = ownHead ? own.TimeBase(unsigned(i)) : learnt->timeBase;
        AVRational rate = ownHead ? own.FrameRate(unsigned(i)) : learnt->frameRate;
        if (p == nullptr || p->codec_id == AV_CODEC_ID_NONE || base.num <= 0) continue;
        kept.push_back(p);
        indices.push_back(out.AddStream(p, base, rate));
        if (p->codec_type == AVMEDIA_TYPE_VIDEO && rate.num > 0)
            frameTicks_ = std::max<int64_t>(1, av_rescale_q(1, av_inv_q(rate), base));
    }
    Number(ownHead ? path : sample_.Path(), kept, indices);
    return out.StreamCount() > 0;
}

// libavformat does not tell a stream's track number; the head's Tracks do. The
// k-th stream of a kind is the k-th track entry of that kind. Without a readable
// head, tracks are taken to be numbered from 1 in stream order, as writers do.
void MkvBlockCarver::Number(const std::wstring& headOf, const std::vector<const AVCodecParameters*>& streams,
                            const std::vector<unsigned>& indices) {
    FileReader file(1u << 20);
    file.SetHopping(true);
    MkvHead head;
    std::string why;
    bool parsed = file.Open(headOf) && MkvHeadParser::Parse(file, head, why);
    std::map<AVMediaType, size_t> seen;
    for (size_t i = 0; i < streams.size(); ++i) {
        AVMediaType type = streams[i]->codec_type;
        uint64_t kind = type == AVMEDIA_TYPE_VIDEO ? 1 : type == AVMEDIA_TYPE_AUDIO ? 2 : 17;
        uint64_t number = i + 1;
        size_t ordinal = seen[type]++, match = 0;
        for (const MkvTrack& track : head.tracks) {
            if (!parsed || track.type != kind || match++ != ordinal) continue;
            number = track.number;
            break;
        }
        byNumber_[number] = Track{indices[i], type};
    }
}

// Track numbers that the streams know are taken as they are. Where the damaged file
// numbered its tracks otherwise, the rest are paired by what their payloads look
// like: the track with the largest frames is the video.
void MkvBlockCarver::MatchTracks(const std::vector<MkvCarvedFrame>& frames) {
    std::map<uint64_t, std::pair<int64_t, int64_t>> seen;  // bytes, frames
    for (const MkvCarvedFrame& f : frames) seen[f.track].first += f.size, ++seen[f.track].second;
    std::set<unsigned> used;
    std::vector<std::pair<double, uint64_t>> strangers;
    for (const auto& [number, stats] : seen) {
        auto known = byNumber_.find(number);
        if (known != byNumber_.end()) {
            tracks_[number] = known->second;
            used.insert(known->second.stream);
        } else {
            strangers.push_back({-double(stats.first) / double(stats.second), number});
        }
    }
    std::sort(strangers.begin(), strangers.end());
    std::vector<Track> free;
    for (const auto& [number, track] : byNumber_)
        if (used.count(track.stream) == 0) free.push_back(track);
    std::stable_sort(free.begin(), free.end(), [](const Track& a, const Track& b) {
        return (a.type == AVMEDIA_TYPE_VIDEO) > (b.type == AVMEDIA_TYPE_VIDEO);
    });
    for (size_t i = 0; i < strangers.size() && i < free.size(); ++i) tracks_[strangers[i].second] = free[i];
}

namespace {

// What one cluster holds of one track: its earliest and latest block times, how
// many blocks, and the smallest step between two blocks in a row.
struct TrackSpan {
    int64_t lowest = INT64_MAX, highest = INT64_MIN, step = INT64_MAX, last = 0;
    int64_t count = 0;
};
using ClusterSpans = std::map<uint64_t, TrackSpan>;

std::vector<ClusterSpans> SpansOf(size_t groups, const std::vector<MkvCarvedFrame>& frames) {
    std::vector<ClusterSpans> spans(groups);
    for (const MkvCarvedFrame& f : frames) {
        if (f.laceFollower) continue;
        TrackSpan& span = spans[f.group][f.track];
        if (span.count > 0 && f.relative != span.last) span.step = std::min(span.step, std::abs(f.relative - span.last));
        span.lowest = std::min(span.lowest, f.relative);
        span.highest = std::max(span.highest, f.relative);
        span.last = f.relative;
        ++span.count;
    }
    return spans;
}

// The time of a cluster whose head was lost, told by the known cluster after it:
// for the track with most blocks in both, its last block here lies one step before
// its first block there. False when no track is in both.
bool TimeBefore(const ClusterSpans& lost, const ClusterSpans& next, int64_t nextBase, int64_t& base) {
    int64_t most = 0;
    for (const auto& [track, span] : lost) {
        auto there = next.find(track);
        if (there == next.end() || span.count <= most || span.step == INT64_MAX) continue;
        most = span.count;
        base = nextBase + there->second.lowest - span.step - span.highest;
    }
    return most > 0;
}

int64_t Lowest(const ClusterSpans& spans) {
    int64_t lowest = INT64_MAX;
    for (const auto& entry : spans) lowest = std::min(lowest, entry.second.lowest);
    return lowest;
}

int64_t Highest(const ClusterSpans& spans) {
    int64_t highest = INT64_MIN;
    for (const auto& entry : spans) highest = std::max(highest, entry.second.highest);
    return highest;
}

}  // namespace

std::vector<int64_t> ClusterTimes(const std::vector<MkvCarvedGroup>& groups, const std::vector<MkvCarvedFrame>& frames,
                                  int64_t frameTicks) {
    std::vector<ClusterSpans> spans = SpansOf(groups.size(), frames);
    std::vector<int64_t> bases(groups.size(), 0);
    int64_t lastEnd = INT64_MIN;
    for (size_t g = 0; g < groups.size(); ++g) {
        if (spans[g].empty()) continue;
        bases[g] = groups[g].base;
        size_t next = g + 1;
        while (next < groups.size() && !(groups[next].known && !spans[next].empty())) ++next;
        bool timed = groups[g].known ||
                     (next < groups.size() && TimeBefore(spans[g], spans[next], groups[next].base, bases[g]));
        // Else the blocks follow what came before them.
        if (!timed) bases[g] = (lastEnd == INT64_MIN ? 0 : lastEnd + frameTicks) - Lowest(spans[g]);
        lastEnd = std::max(lastEnd, bases[g] + Highest(spans[g]));
    }
    return bases;
}

}  // namespace thorough
