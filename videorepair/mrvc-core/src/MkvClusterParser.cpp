#include "MkvClusterParser.h"

#include <algorithm>

#include "MkvIds.h"
#include "io/FileReader.h"
#include "util/Ebml.h"
#include "util/EbmlElement.h"

namespace {

using util::EbmlElementHeader;

// Elements that may follow a Cluster; meeting one ends a cluster of unknown size.
bool IsLevelOne(uint32_t id) {
    switch (id) {
        case mkv_id::kCluster: case mkv_id::kCues: case mkv_id::kTags: case mkv_id::kChapters:
        case mkv_id::kAttachments: case mkv_id::kSeekHead: case mkv_id::kInfo: case mkv_id::kTracks:
        case mkv_id::kSegment: case mkv_id::kEbml:
            return true;
        default:
            return false;
    }
}

bool IsBlockGroupChild(uint32_t id) {
    switch (id) {
        case mkv_id::kBlock: case mkv_id::kBlockDuration: case mkv_id::kReferenceBlock:
        case 0xFA /* ReferencePriority */: case 0xA4 /* CodecState */: case 0x75A2 /* DiscardPadding */:
        case 0x75A1 /* BlockAdditions */: case 0x8E /* Slices */: case mkv_id::kVoid: case mkv_id::kCrc32:
            return true;
        default:
            return false;
    }
}

}  // namespace

bool MkvClusterParser::Parse(int64_t offset, MkvParsedCluster& out) {
    out = MkvParsedCluster();
    out.start = offset;
    EbmlElementHeader header;
    if (!util::ReadEbmlHeaderAt(file_, offset, header) || header.id != mkv_id::kCluster) return false;
    int64_t payload = offset + header.HeaderLength();
    int64_t capped = std::min(file_.Size(), offset + kMaxClusterBytes);
    int64_t limit = capped;
    if (!header.unknownSize) {
        out.declaredEnd = payload + int64_t(std::min<uint64_t>(header.size, uint64_t(kMaxClusterBytes)));
        limit = std::min(limit, out.declaredEnd);
    }
    int64_t position = payload;
    if (!ParseTimestamp(position, limit, out.timestamp)) return false;
    int64_t stoppedAt = position;
    bool levelOne = false;
    bool complete = ParseChain(position, limit, out.timestamp, out.blocks, stoppedAt, levelOne);
    if (out.blocks.empty()) return false;
    if (out.declaredEnd >= 0 && !complete) {
        out.cut = true;
        if (!levelOne) ResyncAfterDamage(stoppedAt, out.declaredEnd, out);
    }
    return true;
}

bool MkvClusterParser::ParseTimestamp(int64_t& offset, int64_t limit, uint64_t& timestamp) {
    EbmlElementHeader header;
    if (!util::ReadEbmlHeaderAt(file_, offset, header)) return false;
    if (header.id == mkv_id::kCrc32 && !header.unknownSize && header.size == 4) {
        offset += header.HeaderLength() + 4;  // a CRC-32 may precede every other child
        if (!util::ReadEbmlHeaderAt(file_, offset, header)) return false;
    }
    if (header.id != mkv_id::kTimestamp || header.unknownSize || header.size > 8) return false;
    int64_t end = offset + header.HeaderLength() + int64_t(header.size);
    if (end > limit) return false;
    size_t available = 0;
    const uint8_t* data = file_.View(offset + header.HeaderLength(), size_t(header.size), available);
    if (header.size > 0 && (data == nullptr || available < header.size)) return false;
    timestamp = header.size == 0 ? 0 : util::EbmlUnsigned(data, size_t(header.size));
    offset = end;
    return true;
}

bool MkvClusterParser::ParseChain(int64_t offset, int64_t limit, uint64_t clusterTime,
                                  std::vector<MkvBlock>& blocks, int64_t& stoppedAt, bool& levelOne) {
    levelOne = false;
    while (offset < limit) {
        MkvBlock block;
        int64_t next = offset;
        Child kind = ParseChild(offset, limit, clusterTime, block, next);
        if (kind == Child::kLevelOne) levelOne = true;
        if (kind == Child::kLevelOne || kind == Child::kBad) break;
        if (kind == Child::kBlock) blocks.push_back(block);
        offset = next;
    }
    stoppedAt = offset;
    return offset == limit;
}

MkvClusterParser::Child MkvClusterParser::ParseChild(int64_t offset, int64_t limit, uint64_t clusterTime,
                                                     MkvBlock& block, int64_t& next) {
    EbmlElementHeader header;
    if (!util::ReadEbmlHeaderAt(file_, offset, header)) return Child::kBad;
    if (IsLevelOne(header.id)) return Child::kLevelOne;
    if (header.unknownSize || header.size > uint64_t(limit - offset)) return Child::kBad;
    int64_t payload = offset + header.HeaderLength();
    next = payload + int64_t(header.size);
    if (next > limit) return Child::kBad;
    switch (header.id) {
        case mkv_id::kSimpleBlock: {
            int frames = 1;
            if (!ParseBlockHeader(payload, header.size, clusterTime, block, frames)) return Child::kBad;
            const MkvTrack* track = head_.FindTrack(block.track);
            block.endTime = block.time + FrameTicks(*track, frames);
            break;
        }
        case mkv_id::kBlockGroup:
            if (!ParseBlockGroup(payload, next, clusterTime, block)) return Child::kBad;
            break;
        case mkv_id::kPosition: case mkv_id::kPrevSize:
            return header.size <= 8 ? Child::kOther : Child::kBad;
        case mkv_id::kVoid:
            return Child::kOther;
        default:
            return Child::kBad;
    }
    block.start = offset;
    block.end = next;
    return Child::kBlock;
}

// Track number, 16-bit relative timestamp and flags: the start of every block.
bool MkvClusterParser::ParseBlockHeader(int64_t payload, uint64_t payloadSize, uint64_t clusterTime,
                                        MkvBlock& block, int& frames) {
    size_t available = 0;
    const uint8_t* data = file_.View(payload, size_t(std::min<uint64_t>(payloadSize, 12)), available);
    util::EbmlNumber track;
    if (data == nullptr || !util::ReadEbmlNumber(data, available, track) || track.allOnes) return false;
    if (available < track.length + 4 || head_.FindTrack(track.value) == nullptr) return false;
    const uint8_t* rest = data + track.length;
    int16_t relative = int16_t(uint16_t(rest[0] << 8 | rest[1]));
    uint8_t flags = rest[2];
    if ((flags & 0x70) != 0) return false;  // reserved bits: set only in damaged bytes
    block.track = track.value;
    block.time = int64_t(clusterTime) + relative;
    block.key = (flags & 0x80) != 0;
    frames = (flags & 0x06) != 0 ? rest[3] + 1 : 1;  // laced: the byte after the flags counts frames - 1
    return true;
}

bool MkvClusterParser::ParseBlockGroup(int64_t payload, int64_t end, uint64_t clusterTime, MkvBlock& block) {
    bool haveBlock = false, referenced = false;
    int64_t duration = -1;
    int frames = 1;
    for (int64_t offset = payload; offset < end;) {
        EbmlElementHeader header;
        if (!util::ReadEbmlHeaderAt(file_, offset, header) || header.unknownSize || !IsBlockGroupChild(header.id))
            return false;
        int64_t childPayload = offset + header.HeaderLength();
        if (header.size > uint64_t(end - childPayload)) return false;
        if (header.id == mkv_id::kBlock) {
            if (haveBlock || !ParseBlockHeader(childPayload, header.size, clusterTime, block, frames)) return false;
            haveBlock = true;
        } else if (header.id == mkv_id::kReferenceBlock) {
            referenced = true;
        } else if (header.id == mkv_id::kBlockDuration && header.size <= 8) {
            size_t available = 0;
            const uint8_t* data = file_.View(childPayload, size_t(header.size), available);
            if (data != nullptr && available == header.size) duration = int64_t(util::EbmlUnsigned(data, available));
        }
        offset = childPayload + int64_t(header.size);
    }
    if (!haveBlock) return false;
    block.key = !referenced;  // a Block without references decodes on its own
    const MkvTrack* track = head_.FindTrack(block.track);
    block.endTime = block.time + (duration >= 0 ? duration : FrameTicks(*track, frames));
    return true;
}

int64_t MkvClusterParser::FrameTicks(const MkvTrack& track, int frames) const {
    if (track.defaultDuration == 0) return 0;
    return int64_t((track.defaultDuration * uint64_t(frames) + head_.timestampScale / 2) / head_.timestampScale);
}

// Damaged bytes inside a cluster whose size is known: the blocks after them are
// kept when, from some later offset, whole children run exactly to the declared
// end. That exact landing is what tells real blocks from lookalike bytes.
void MkvClusterParser::ResyncAfterDamage(int64_t damagedAt, int64_t declaredEnd, MkvParsedCluster& out) {
    if (declaredEnd > file_.Size()) return;
    int64_t last = std::min(declaredEnd, damagedAt + kMaxResyncBytes);
    int attempts = 0;
    for (int64_t offset = damagedAt + 1; offset < last && attempts < kMaxResyncAttempts; ++offset) {
        size_t available = 0;
        const uint8_t* data = file_.View(offset, 1, available);
        if (data == nullptr || available == 0) return;
        if (*data != mkv_id::kSimpleBlock && *data != mkv_id::kBlockGroup) continue;
        ++attempts;
        std::vector<MkvBlock> tail;
        int64_t stoppedAt = offset;
        bool levelOne = false;
        if (ParseChain(offset, declaredEnd, out.timestamp, tail, stoppedAt, levelOne) && !tail.empty()) {
            out.blocks.insert(out.blocks.end(), tail.begin(), tail.end());
            return;
        }
    }
}
