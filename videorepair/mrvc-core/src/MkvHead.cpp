#include "MkvHead.h"

#include <set>

#include "MkvIds.h"
#include "io/FileReader.h"
#include "util/EbmlElement.h"

namespace {

constexpr uint64_t kMaxEbmlHeaderBytes = 4096;
constexpr uint64_t kMaxHeadElementBytes = 16u << 20;  // Info or Tracks; CodecPrivate can be large
constexpr int kMaxLevelOneElements = 64;

using util::EbmlChildReader;
using util::EbmlElementHeader;

bool ReadElement(FileReader& file, int64_t offset, const EbmlElementHeader& header, std::string& payload) {
    payload.resize(size_t(header.size));
    int64_t got = file.ReadAt(offset + header.HeaderLength(), &payload[0], payload.size());
    return got == int64_t(payload.size());
}

bool IsSkippableLevelOne(uint32_t id) {
    switch (id) {
        case mkv_id::kSeekHead: case mkv_id::kCues: case mkv_id::kTags: case mkv_id::kChapters:
        case mkv_id::kAttachments: case mkv_id::kVoid: case mkv_id::kCrc32:
            return true;
        default:
            return false;
    }
}

const uint8_t* Bytes(const std::string& s) { return reinterpret_cast<const uint8_t*>(s.data()); }

}  // namespace

const MkvTrack* MkvHead::FindTrack(uint64_t number) const {
    for (const MkvTrack& track : tracks) {
        if (track.number == number) return &track;
    }
    return nullptr;
}

const MkvTrack* MkvHead::CueTrack() const {
    for (const MkvTrack& track : tracks) {
        if (track.type == mkv_id::kTrackTypeVideo) return &track;
    }
    return tracks.empty() ? nullptr : &tracks.front();
}

bool MkvHeadParser::Parse(FileReader& file, MkvHead& head, std::string& why) {
    head = MkvHead();
    int64_t segment = 0;
    if (!ParseEbmlHeader(file, head, segment, why)) return false;
    EbmlElementHeader header;
    if (!util::ReadEbmlHeaderAt(file, segment, header) || header.id != mkv_id::kSegment) {
        why = "no Segment after the EBML header";
        return false;
    }
    return ParseSegmentHead(file, segment + header.HeaderLength(), head, why) && TracksAgree(head, why);
}

bool MkvHeadParser::ParseEbmlHeader(FileReader& file, MkvHead& head, int64_t& next, std::string& why) {
    EbmlElementHeader header;
    std::string payload;
    if (!util::ReadEbmlHeaderAt(file, 0, header) || header.id != mkv_id::kEbml || header.unknownSize ||
        header.size > kMaxEbmlHeaderBytes || !ReadElement(file, 0, header, payload)) {
        why = "no EBML header";
        return false;
    }
    EbmlChildReader children(Bytes(payload), payload.size());
    EbmlChildReader::Child child;
    uint64_t maxIdLength = 4, maxSizeLength = 8;
    while (children.Next(child)) {
        if (child.header.id == mkv_id::kDocType) head.docType = child.Text();
        if (child.header.id == mkv_id::kEbmlMaxIdLength) maxIdLength = child.Unsigned();
        if (child.header.id == mkv_id::kEbmlMaxSizeLength) maxSizeLength = child.Unsigned();
    }
    if (children.Failed() || (head.docType != "matroska" && head.docType != "webm") || maxIdLength > 4 ||
        maxSizeLength > 8) {
        why = "EBML header is damaged or not Matroska";
        return false;
    }
    next = int64_t(header.HeaderLength() + header.size);
    head.ebmlHeader.resize(size_t(next));
    file.ReadAt(0, &head.ebmlHeader[0], head.ebmlHeader.size());
    return true;
}

bool MkvHeadParser::ParseSegmentHead(FileReader& file, int64_t offset, MkvHead& head, std::string& why) {
    bool haveInfo = false, haveTracks = false;
    for (int i = 0; i < kMaxLevelOneElements && !(haveInfo && haveTracks); ++i) {
        EbmlElementHeader header;
        if (!util::ReadEbmlHeaderAt(file, offset, header) || header.unknownSize) break;
        std::string payload;
        bool wanted = header.id == mkv_id::kInfo || header.id == mkv_id::kTracks;
        if (wanted && (header.size > kMaxHeadElementBytes || !ReadElement(file, offset, header, payload))) break;
        if (header.id == mkv_id::kInfo) {
            if (!ParseInfo(payload, head)) break;
            haveInfo = true;
        } else if (header.id == mkv_id::kTracks) {
            if (!ParseTracks(payload, head)) break;
            std::string headerBytes(header.HeaderLength(), '\0');
            file.ReadAt(offset, &headerBytes[0], headerBytes.size());
            head.tracksElement = headerBytes + payload;
            haveTracks = true;
        } else if (!IsSkippableLevelOne(header.id)) {
            break;  // a Cluster, or damage: the head ends here
        }
        offset += int64_t(header.HeaderLength() + header.size);
        head.end = offset;
    }
    if (!haveInfo || !haveTracks) {
        why = !haveInfo ? "Segment Info is missing or damaged" : "Tracks are missing or damaged";
        return false;
    }
    return true;
}

bool MkvHeadParser::ParseInfo(const std::string& payload, MkvHead& head) {
    EbmlChildReader children(Bytes(payload), payload.size());
    EbmlChildReader::Child child;
    head.infoChildren.clear();
    while (children.Next(child)) {
        uint32_t id = child.header.id;
        if (id == mkv_id::kTimestampScale) head.timestampScale = child.Unsigned();
        // Duration is rewritten; CRC-32 would no longer match; Void is padding.
        if (id == mkv_id::kDuration || id == mkv_id::kCrc32 || id == mkv_id::kVoid) continue;
        head.infoChildren += child.Raw(Bytes(payload));
    }
    return !children.Failed() && head.timestampScale > 0;
}

bool MkvHeadParser::ParseTracks(const std::string& payload, MkvHead& head) {
    EbmlChildReader children(Bytes(payload), payload.size());
    EbmlChildReader::Child child;
    head.tracks.clear();
    while (children.Next(child)) {
        if (child.header.id != mkv_id::kTrackEntry) continue;
        MkvTrack track;
        if (!ParseTrackEntry(child.payload, child.size, track)) return false;
        head.tracks.push_back(track);
    }
    return !children.Failed();
}

bool MkvHeadParser::ParseTrackEntry(const uint8_t* data, size_t size, MkvTrack& track) {
    EbmlChildReader children(data, size);
    EbmlChildReader::Child child;
    while (children.Next(child)) {
        switch (child.header.id) {
            case mkv_id::kTrackNumber: track.number = child.Unsigned(); break;
            case mkv_id::kTrackType: track.type = child.Unsigned(); break;
            case mkv_id::kCodecId: track.codecId = child.Text(); break;
            case mkv_id::kCodecPrivate:
                track.codecPrivate.assign(reinterpret_cast<const char*>(child.payload), child.size);
                break;
            case mkv_id::kDefaultDuration: track.defaultDuration = child.Unsigned(); break;
            default: break;
        }
    }
    return !children.Failed();
}

// Every track must be complete and numbered once, or blocks cannot be told apart.
bool MkvHeadParser::TracksAgree(const MkvHead& head, std::string& why) {
    std::set<uint64_t> numbers;
    for (const MkvTrack& track : head.tracks) {
        if (track.number == 0 || track.type == 0 || track.codecId.empty() || !numbers.insert(track.number).second) {
            why = "a TrackEntry is incomplete or numbered twice";
            return false;
        }
    }
    if (head.tracks.empty()) {
        why = "Tracks holds no TrackEntry";
        return false;
    }
    return true;
}
