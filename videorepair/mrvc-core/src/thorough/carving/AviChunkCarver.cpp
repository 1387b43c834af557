#include "thorough/carving/AviChunkCarver.h"

#include <algorithm>
#include <cstring>

#include "thorough/Demuxer.h"
#include "thorough/ParameterSets.h"
#include "thorough/carving/AudioClock.h"
#include "thorough/carving/PictureSize.h"

namespace thorough {
namespace {

constexpr uint32_t kLargestChunk = 64u << 20;
constexpr int kIndexRecordsToBelieve = 3;
constexpr size_t kIndexRecordBytes = 16;
// idx1 flags: LIST, KEYFRAME, NO_TIME and the compressor's own bits.
constexpr uint32_t kIndexFlagBits = 0x0FFF0111;

uint32_t Le32(const uint8_t* p) { return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24; }

bool Is(const uint8_t* p, const char* fourcc) { return memcmp(p, fourcc, 4) == 0; }

// "00dc", "01wb", ...: two digits, then what the chunk holds.
int StreamOfChunkId(const uint8_t* p) {
    if (p[0] < '0' || p[0] > '9' || p[1] < '0' || p[1] > '9') return -1;
    static const char* const kinds[] = {"dc", "db", "wb", "pc", "tx"};
    for (const char* kind : kinds)
        if (p[2] == kind[0] && p[3] == kind[1]) return (p[0] - '0') * 10 + (p[1] - '0');
    return -1;
}

bool IsKnownOtherChunk(const uint8_t* p) {
    static const char* const others[] = {"idx1", "JUNK", "indx", "avih", "strh", "strf", "strd", "strn", "vprp",
                                         "dmlh", "IDIT", "ISFT", "JUNQ"};
    for (const char* other : others)
        if (Is(p, other)) return true;
    return p[0] == 'i' && p[1] == 'x';  // OpenDML standard index chunks, ix00, ix01, ...
}

// Pictures that always decode on their own, or that the bitstream tells.
bool IsKeyPicture(AVCodecID codec, const uint8_t* data, size_t size) {
    switch (codec) {
        case AV_CODEC_ID_MJPEG: case AV_CODEC_ID_RAWVIDEO: case AV_CODEC_ID_DVVIDEO: case AV_CODEC_ID_HUFFYUV:
        case AV_CODEC_ID_FFVHUFF: case AV_CODEC_ID_PRORES:
            return true;
        case AV_CODEC_ID_MPEG4:
            // vop_coding_type (the two bits after a VOP start code) 0 is an I-VOP.
            for (size_t i = 0; i + 4 < size; ++i)
                if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1 && data[i + 3] == 0xB6)
                    return (data[i + 4] >> 6) == 0;
            return false;
        case AV_CODEC_ID_H264: case AV_CODEC_ID_HEVC: case AV_CODEC_ID_MPEG1VIDEO: case AV_CODEC_ID_MPEG2VIDEO:
            return StartsKeyPicture(codec, data, size);
        default:
            return true;  // nothing known of it: better kept than dropped
    }
}

}  // namespace

void AviChunkWalk::Run() {
    for (int64_t at = 0; at + 8 <= file_.Size();) {
        int64_t before = at;
        if (Step(at, true)) continue;
        at = Resync(before + 1);
        skipped_ += at - before;
        ++run_;
    }
}

AviChunkWalk::Kind AviChunkWalk::Classify(int64_t at, uint32_t& size, unsigned& stream) {
    uint8_t h[12];
    if (file_.ReadAt(at, h, 8) != 8) return Kind::kBad;
    size = Le32(h + 4);
    if (Is(h, "RIFF") || Is(h, "LIST")) {
        if (file_.ReadAt(at + 8, h + 8, 4) != 4) return Kind::kBad;
        if (Is(h + 8, "AVI ") || Is(h + 8, "AVIX") || Is(h + 8, "movi") || Is(h + 8, "rec ")) return Kind::kDescend;
        return Is(h, "LIST") ? Kind::kSkip : Kind::kBad;
    }
    int number = StreamOfChunkId(h);
    if (number >= 0) {
        stream = unsigned(number);
        return stream < streams_ && size <= kLargestChunk ? Kind::kStream : Kind::kBad;
    }
    return IsKnownOtherChunk(h) ? Kind::kSkip : Kind::kBad;
}

// Parses the chunk at `at` and moves past it (into it, for RIFF and movi lists).
bool AviChunkWalk::Step(int64_t& at, bool take) {
    uint32_t size = 0;
    unsigned stream = 0;
    Kind kind = Classify(at, size, stream);
    if (kind == Kind::kBad) return false;
    if (kind == Kind::kDescend) {
        at += 12;
        return true;
    }
    int64_t end = at + 8 + int64_t(size);
    if (end > file_.Size()) return false;
    if (kind == Kind::kStream && take) chunks_.push_back({at + 8, size, stream, run_});
    at = end + (size & 1);  // chunks are padded to an even length
    return true;
}

// Past damage, the next offset where a chunk starts and another follows it. An
// old index met on the way is stepped over whole: its 16-byte records look like
// small chunks of the streams.
int64_t AviChunkWalk::Resync(int64_t from) {
    constexpr size_t kWindow = 64 * 1024;
    for (int64_t at = from; at + 8 <= file_.Size();) {
        size_t got = 0;
        const uint8_t* view = file_.View(at, kWindow, got);
        if (view == nullptr || got < 4) break;
        bool moved = false;
        for (size_t i = 0; i + 4 <= got && !moved; ++i) {
            const uint8_t* p = view + i;
            if (StreamOfChunkId(p) < 0 && !Is(p, "RIFF") && !Is(p, "LIST") && !IsKnownOtherChunk(p)) continue;
            int64_t candidate = at + int64_t(i);
            int64_t past = PastIndexRecords(candidate);
            if (past > candidate) {
                at = past, moved = true;
            } else if (ChainAt(candidate)) {
                return candidate;
            } else {
                view = file_.View(at, kWindow, got);  // the test moved the cache
            }
        }
        if (!moved) at += int64_t(got) - 3;
    }
    return file_.Size();
}

bool AviChunkWalk::ChainAt(int64_t at) {
    int64_t next = at;
    if (!Step(next, false)) return false;
    if (next + 8 > file_.Size()) return true;
    return Step(next, false);
}

// Where a run of index records starting at `at` ends; `at` itself when fewer than
// a few records in a row are there (with offsets that never run backwards).
int64_t AviChunkWalk::PastIndexRecords(int64_t at) {
    int64_t previous = -1, offset = 0, end = at;
    int records = 0;
    while (IndexRecordAt(end, offset) && offset >= previous) {
        previous = offset;
        end += int64_t(kIndexRecordBytes);
        ++records;
    }
    return records >= kIndexRecordsToBelieve ? end : at;
}

bool AviChunkWalk::IndexRecordAt(int64_t at, int64_t& offset) {
    uint8_t r[kIndexRecordBytes];
    if (file_.ReadAt(at, r, sizeof r) != int64_t(sizeof r)) return false;
    if (StreamOfChunkId(r) < 0 && !Is(r, "rec ")) return false;
    if ((Le32(r + 4) & ~kIndexFlagBits) != 0 || Le32(r + 12) > kLargestChunk) return false;
    offset = int64_t(Le32(r + 8));
    return true;
}

std::unique_ptr<CarvedSource> AviChunkCarver::Carve(const std::wstring& path) {
    auto out = std::make_unique<CarvedSource>();
    if (!out->Open(path) || !LearnStreams(path, *out)) return nullptr;
    AviChunkWalk walk(out->File(), out->StreamCount());
    walk.Run();
    out->AddSkipped(walk.Skipped());
    if (!ownHeader_) FitPictureSize(out->File(), walk.Chunks(), *out);
    TimeAndKey(*out, walk.Chunks());
    if (out->Packets().empty()) return nullptr;
    return out;
}

// The file's own streams where its header still reads, else the sample's, in the
// order their chunks are numbered.
bool AviChunkCarver::LearnStreams(const std::wstring& path, CarvedSource& out) {
    Demuxer own;
    ownHeader_ = own.OpenFile(path, "avi") && own.StreamCount() > 0;
    size_t count = ownHeader_ ? own.StreamCount() : sample_.Streams().size();
    for (size_t i = 0; i < count; ++i) {
        const AVCodecParameters* p = ownHeader_ ? own.Parameters(unsigned(i)) : sample_.Streams()[i].parameters.get();
        AVRational base = ownHeader_ ? own.TimeBase(unsigned(i)) : sample_.Streams()[i].timeBase;
        AVRational rate = ownHeader_ ? own.FrameRate(unsigned(i)) : sample_.Streams()[i].frameRate;
        if (p == nullptr) return false;
        // Audio is timed by its samples; video by its frames, as AVI counts them.
        if (p->codec_type == AVMEDIA_TYPE_AUDIO && p->sample_rate > 0) base = AVRational{1, p->sample_rate};
        out.AddStream(p, base, rate);
    }
    return out.StreamCount() > 0;
}

// Video chunks count frames (an empty chunk is a frame repeated); audio is timed
// by the samples it holds.
void AviChunkCarver::TimeAndKey(CarvedSource& out, const std::vector<AviCarvedChunk>& chunks) {
    std::vector<int64_t> clock(out.StreamCount(), 0);
    std::vector<AudioClock> audio;
    for (unsigned i = 0; i < out.StreamCount(); ++i) audio.emplace_back(out.Parameters(i));
    std::string head;
    for (const AviCarvedChunk& chunk : chunks) {
        const AVCodecParameters* p = out.Parameters(chunk.stream);
        CarvedPacket packet{chunk.offset, chunk.size, chunk.stream, AV_NOPTS_VALUE, clock[chunk.stream], 0, true, chunk.run};
        if (p->codec_type == AVMEDIA_TYPE_VIDEO) {
            ++clock[chunk.stream];
            if (chunk.size == 0) continue;
            head.resize(std::min<size_t>(chunk.size, 4096));
            if (out.File().ReadAt(chunk.offset, head.data(), head.size()) != int64_t(head.size())) continue;
            packet.key = IsKeyPicture(p->codec_id, reinterpret_cast<const uint8_t*>(head.data()), head.size());
        } else if (p->codec_type == AVMEDIA_TYPE_AUDIO) {
            if (chunk.size == 0) continue;
            packet.duration = audio[chunk.stream].Samples(out.File(), chunk.offset, chunk.size);
            packet.pts = packet.dts;
            clock[chunk.stream] += packet.duration;
        }
        out.Add(packet);
    }
}

}  // namespace thorough
