#include "thorough/carving/FlvTagCarver.h"

#include <algorithm>
#include <cstring>

namespace thorough {
namespace {

constexpr uint32_t kTagHeaderBytes = 11;
constexpr uint8_t kAudio = 8, kVideo = 9, kScript = 18;
// A timestamp that jumps further than this (or runs back) belongs to damage or a
// joined recording: the timeline is carried on instead of following it.
constexpr int64_t kLargestGapMs = 5000;
constexpr int64_t kAssumedStepMs = 40;

uint32_t Be24(const uint8_t* p) { return uint32_t(p[0]) << 16 | uint32_t(p[1]) << 8 | uint32_t(p[2]); }
uint32_t Be32(const uint8_t* p) { return Be24(p) << 8 | uint32_t(p[3]); }
int32_t Signed24(const uint8_t* p) {
    int32_t v = int32_t(Be24(p));
    return (v & 0x800000) != 0 ? v - 0x1000000 : v;
}

AVCodecID VideoCodec(int id) {
    switch (id) {
        case 2: return AV_CODEC_ID_FLV1;
        case 7: return AV_CODEC_ID_H264;
        default: return AV_CODEC_ID_NONE;  // VP6 and screen video carry extra framing
    }
}

AVCodecID AudioCodec(int format, bool sixteenBits) {
    switch (format) {
        case 0:
        case 3: return sixteenBits ? AV_CODEC_ID_PCM_S16LE : AV_CODEC_ID_PCM_U8;
        case 1: return AV_CODEC_ID_ADPCM_SWF;
        case 2:
        case 14: return AV_CODEC_ID_MP3;
        case 7: return AV_CODEC_ID_PCM_ALAW;
        case 8: return AV_CODEC_ID_PCM_MULAW;
        case 10: return AV_CODEC_ID_AAC;
        case 11: return AV_CODEC_ID_SPEEX;
        default: return AV_CODEC_ID_NONE;
    }
}

bool SetExtradata(AVCodecParameters* p, const uint8_t* data, size_t size) {
    av_freep(&p->extradata);
    p->extradata_size = 0;
    p->extradata = static_cast<uint8_t*>(av_mallocz(size + AV_INPUT_BUFFER_PADDING_SIZE));
    if (p->extradata == nullptr) return false;
    memcpy(p->extradata, data, size);
    p->extradata_size = int(size);
    return true;
}

}  // namespace

std::unique_ptr<CarvedSource> FlvTagCarver::Carve(const std::wstring& path) {
    out_ = std::make_unique<CarvedSource>();
    if (!out_->Open(path)) return nullptr;
    fileSize_ = out_->File().Size();
    Tag tag;
    for (int64_t at = FirstTag(); at < fileSize_;) {
        if (!TagAt(at, tag)) {
            int64_t found = Resync(at + 1, tag);
            out_->AddSkipped(found - at);
            ++run_;
            if (found >= fileSize_) break;
            at = found;
        }
        Take(tag);
        at = tag.offset + kTagHeaderBytes + tag.size + 4;
    }
    if (out_->StreamCount() == 0 || out_->Packets().empty()) return nullptr;
    return std::move(out_);
}

// The file header names where the first tag lies; a lost header makes the walk
// search from the start.
int64_t FlvTagCarver::FirstTag() {
    uint8_t head[9];
    if (out_->File().ReadAt(0, head, sizeof head) == int64_t(sizeof head) && memcmp(head, "FLV", 3) == 0) {
        int64_t first = int64_t(Be32(head + 5)) + 4;
        Tag tag;
        if (TagAt(first, tag)) return first;
    }
    Tag tag;
    return Resync(0, tag);
}

// A tag whose header is sane and whose size word (where the file still holds it)
// repeats its length. Zero-length tags are real tags too.
bool FlvTagCarver::TagAt(int64_t offset, Tag& tag) {
    uint8_t h[kTagHeaderBytes];
    if (offset < 0 || out_->File().ReadAt(offset, h, sizeof h) != int64_t(sizeof h)) return false;
    uint8_t type = h[0];
    if (type != kAudio && type != kVideo && type != kScript) return false;
    if (Be24(h + 8) != 0) return false;  // the stream id is always 0
    tag.offset = offset;
    tag.type = type;
    tag.size = Be24(h + 1);
    tag.time = int64_t(Be24(h + 4)) | int64_t(h[7]) << 24;
    int64_t end = offset + kTagHeaderBytes + tag.size;
    if (end > fileSize_) return false;
    uint8_t word[4];
    if (out_->File().ReadAt(end, word, 4) != 4) return end == fileSize_;  // the last tag of a cut file
    return Be32(word) == tag.size + kTagHeaderBytes;
}

// Past damage a lone match could be chance; the tag that follows must match too
// (or the file end there).
bool FlvTagCarver::StartsChain(int64_t offset, Tag& tag) {
    if (!TagAt(offset, tag)) return false;
    int64_t next = offset + kTagHeaderBytes + tag.size + 4;
    Tag following;
    return next >= fileSize_ || TagAt(next, following);
}

// The first offset from `from` on where a chain of tags starts; tried byte by byte,
// cheap tests first.
int64_t FlvTagCarver::Resync(int64_t from, Tag& tag) {
    constexpr size_t kWindow = 64 * 1024;
    for (int64_t at = from; at + kTagHeaderBytes <= fileSize_;) {
        size_t got = 0;
        const uint8_t* view = out_->File().View(at, kWindow, got);
        if (view == nullptr || got < kTagHeaderBytes) break;
        size_t usable = got - kTagHeaderBytes + 1;
        for (size_t i = 0; i < usable; ++i) {
            const uint8_t* h = view + i;
            if ((h[0] != kAudio && h[0] != kVideo && h[0] != kScript) || h[8] != 0 || h[9] != 0 || h[10] != 0)
                continue;
            int64_t candidate = at + int64_t(i);
            Tag found;
            if (StartsChain(candidate, found)) {
                tag = found;
                return candidate;
            }
            view = out_->File().View(at, kWindow, got);  // the check moved the cache
        }
        at += int64_t(usable);
    }
    return fileSize_;
}

void FlvTagCarver::Take(const Tag& tag) {
    if (tag.size == 0 || tag.type == kScript) return;
    uint8_t head[5] = {0};
    size_t got = size_t(out_->File().ReadAt(tag.offset + kTagHeaderBytes, head, std::min<uint32_t>(tag.size, 5)));
    if (tag.type == kVideo) TakeVideo(tag, head, got);
    if (tag.type == kAudio) TakeAudio(tag, head, got);
}

void FlvTagCarver::TakeVideo(const Tag& tag, const uint8_t* head, size_t got) {
    int frameType = head[0] >> 4, codecId = head[0] & 15;
    AVCodecID codec = VideoCodec(codecId);
    if (frameType == 5 || codec == AV_CODEC_ID_NONE) return;  // a command frame, or a codec not carved
    if (video_.codecId >= 0 && codecId != video_.codecId) return;
    int stream = StreamFor(video_, AVMEDIA_TYPE_VIDEO, codec, head[0]);
    if (stream < 0) return;
    int64_t dts = Continuous(tag.time);
    CarvedPacket packet;
    packet.stream = unsigned(stream);
    packet.dts = packet.pts = dts;
    packet.key = frameType == 1;
    packet.run = run_;
    uint32_t skip = 1;
    if (codec == AV_CODEC_ID_H264) {
        if (got < 5) return;
        if (head[1] == 0) return UseOwnConfiguration(video_, tag.offset + kTagHeaderBytes + 5, tag.size - 5);
        if (head[1] != 1) return;  // end of sequence
        packet.pts = dts + Signed24(head + 2);
        skip = 5;
    }
    if (tag.size <= skip) return;
    packet.offset = tag.offset + kTagHeaderBytes + skip;
    packet.size = tag.size - skip;
    out_->Add(packet);
}

void FlvTagCarver::TakeAudio(const Tag& tag, const uint8_t* head, size_t got) {
    int format = head[0] >> 4;
    AVCodecID codec = AudioCodec(format, (head[0] & 2) != 0);
    if (codec == AV_CODEC_ID_NONE) return;
    if (audio_.codecId >= 0 && format != audio_.codecId) return;
    int stream = StreamFor(audio_, AVMEDIA_TYPE_AUDIO, codec, head[0]);
    if (stream < 0) return;
    uint32_t skip = 1;
    if (codec == AV_CODEC_ID_AAC) {
        if (got < 2) return;
        if (head[1] == 0) return UseOwnConfiguration(audio_, tag.offset + kTagHeaderBytes + 2, tag.size - 2);
        skip = 2;
    }
    if (tag.size <= skip) return;
    CarvedPacket packet;
    packet.stream = unsigned(stream);
    packet.dts = packet.pts = Continuous(tag.time);
    packet.key = true;
    packet.offset = tag.offset + kTagHeaderBytes + skip;
    packet.size = tag.size - skip;
    out_->Add(packet);
}

// The stream's parameters come from the sample when it holds the codec (its
// decoder configuration included); else from what the tag's flags say.
int FlvTagCarver::StreamFor(Kind& kind, AVMediaType type, AVCodecID codec, int flags) {
    if (kind.stream >= 0) return kind.stream;
    kind.codecId = type == AVMEDIA_TYPE_VIDEO ? (flags & 15) : (flags >> 4);
    const SampleStream* learnt = sample_.Match(type, codec, 0);
    AVRational frameRate = learnt != nullptr ? learnt->frameRate : AVRational{0, 1};
    if (learnt != nullptr && learnt->parameters->codec_id == codec) {
        kind.stream = int(out_->AddStream(learnt->parameters.get(), {1, 1000}, frameRate));
        return kind.stream;
    }
    kind.stream = int(out_->AddStream(nullptr, {1, 1000}, frameRate));
    AVCodecParameters* p = out_->MutableParameters(unsigned(kind.stream));
    p->codec_type = type;
    p->codec_id = codec;
    if (type == AVMEDIA_TYPE_AUDIO) {
        static const int kRates[] = {5512, 11025, 22050, 44100};
        p->sample_rate = codec == AV_CODEC_ID_AAC ? 44100 : kRates[(flags >> 2) & 3];
        av_channel_layout_default(&p->ch_layout, (flags & 1) != 0 ? 2 : 1);
    }
    return kind.stream;
}

// A sequence header that survived is the stream's own configuration and wins over
// the sample's; later repeats of it are not frames and are left out.
void FlvTagCarver::UseOwnConfiguration(Kind& kind, int64_t offset, uint32_t size) {
    if (kind.stream < 0 || kind.ownConfiguration || size == 0 || size > (1u << 20)) return;
    std::string bytes(size, '\0');
    if (out_->File().ReadAt(offset, bytes.data(), size) != int64_t(size)) return;
    AVCodecParameters* p = out_->MutableParameters(unsigned(kind.stream));
    kind.ownConfiguration = SetExtradata(p, reinterpret_cast<const uint8_t*>(bytes.data()), size);
}

int64_t FlvTagCarver::Continuous(int64_t time) {
    int64_t adjusted = time + shift_;
    if (lastTime_ >= 0 && (adjusted < lastTime_ - kLargestGapMs || adjusted > lastTime_ + kLargestGapMs)) {
        shift_ = lastTime_ + kAssumedStepMs - time;
        adjusted = time + shift_;
    }
    lastTime_ = std::max(lastTime_, adjusted);
    return adjusted;
}

}  // namespace thorough
