#include "thorough/strategies/AsfCarver.h"

#include <algorithm>
#include <cstring>

namespace thorough {
namespace {

// How far the search for the next packet reads at once.
constexpr size_t kSearchWindow = 1u << 20;

}  // namespace

AsfCarver::AsfCarver(AsfLayout layout, std::vector<AsfStream> streams)
    : layout_(layout), streams_(std::move(streams)) {}

bool AsfCarver::Open(const std::wstring& path) { return layout_.packetSize > 0 && file_.Open(path); }

bool AsfCarver::Next(AVPacket* packet) {
    asf::MediaObject object;
    for (;;) {
        while (!assembler_.Take(object))
            if (!ReadPacket()) return false;
        if (!ToPacket(object, packet)) continue;
        // The object's last fragment came from the packet read last.
        lastAt_ = position_ - int64_t(layout_.packetSize);
        return true;
    }
}

// The packet at the current position, or after damage the next one found.
bool AsfCarver::ReadPacket() {
    int64_t at = Parses(position_, true) ? position_ : NextPacketStart(position_ + 1);
    if (at < 0) {
        skipped_ += file_.Size() - position_;
        position_ = file_.Size();
        return false;
    }
    skipped_ += at - position_;
    size_t available = 0;  // fragments_ holds what Parses found there
    const uint8_t* data = file_.View(at, layout_.packetSize, available);
    for (const asf::Fragment& f : fragments_) assembler_.Add(f, data);
    position_ = at + int64_t(layout_.packetSize);
    return true;
}

// Parses the packet at position into fragments_; a packet that names a stream the
// carver does not know is taken for garbage that looks like a packet. Where the
// packets before led to it (onGrid), the payloads read whole before damage in
// its middle are kept; a packet found by searching must parse whole.
bool AsfCarver::Parses(int64_t position, bool onGrid) {
    size_t size = layout_.packetSize, available = 0;
    const uint8_t* data = file_.View(position, size, available);
    if (data == nullptr || available < size || !asf::LooksLikePacketStart(data, available)) return false;
    if (correctionSeen_ && data[0] != 0x82) return false;  // a file's writer uses one form throughout
    if (!asf::ParsePacket(data, size, fragments_) && (!onGrid || fragments_.empty())) return false;
    for (const asf::Fragment& f : fragments_)
        if (IndexOf(f.stream) < 0) return false;
    correctionSeen_ = correctionSeen_ || data[0] == 0x82;
    return true;
}

// The next offset from `from` on where a whole packet parses; -1 when none is
// left. Until a packet with error-correction flags has been read, packets without
// them are looked for too; their first bytes say far less, so the packet behind
// such a candidate must parse as well.
int64_t AsfCarver::NextPacketStart(int64_t from) {
    const int64_t last = file_.Size() - int64_t(layout_.packetSize);
    while (from <= last) {
        size_t available = 0;
        const uint8_t* window = file_.View(from, kSearchWindow, available);
        if (window == nullptr || available < 3) return -1;
        for (size_t at = 0; at + 3 <= available && from + int64_t(at) <= last; ++at) {
            if (correctionSeen_) {
                const void* hit = std::memchr(window + at, 0x82, available - at - 2);
                if (hit == nullptr) break;
                at = size_t(static_cast<const uint8_t*>(hit) - window);
            }
            if (!asf::LooksLikePacketStart(window + at, available - at)) continue;
            int64_t candidate = from + int64_t(at);
            if (Found(candidate, window[at] == 0x82)) return candidate;
            window = file_.View(from, kSearchWindow, available);  // Parses may have moved the cache
        }
        from += int64_t(available > 2 ? available - 2 : available);
    }
    return -1;
}

// The packet behind is checked first, so fragments_ ends up holding the candidate's.
bool AsfCarver::Found(int64_t candidate, bool corrected) {
    int64_t behind = candidate + int64_t(layout_.packetSize);
    if (!corrected && behind + int64_t(layout_.packetSize) <= file_.Size() && !Parses(behind, false)) return false;
    return Parses(candidate, false);
}

int AsfCarver::IndexOf(uint8_t number) const {
    for (size_t i = 0; i < streams_.size(); ++i)
        if (streams_[i].number == number) return int(i);
    return -1;
}

bool AsfCarver::ToPacket(asf::MediaObject& object, AVPacket* packet) {
    int index = IndexOf(object.stream);
    if (index < 0 || av_new_packet(packet, int(object.bytes.size())) < 0) return false;
    std::memcpy(packet->data, object.bytes.data(), object.bytes.size());
    packet->stream_index = index;
    if (object.key) packet->flags |= AV_PKT_FLAG_KEY;
    if (object.presentationMs >= 0) packet->pts = std::max<int64_t>(0, object.presentationMs - layout_.prerollMs);
    // Audio decodes in presentation order; video may not (B-frames): the muxer
    // derives its decoding times.
    if (streams_[size_t(index)].parameters->codec_type != AVMEDIA_TYPE_VIDEO) packet->dts = packet->pts;
    return true;
}

}  // namespace thorough
