#include "MkvWriter.h"

#include <algorithm>
#include <cstring>

#include "MkvIds.h"
#include "io/FileReader.h"

namespace ebml_out {

void AppendId(std::string& out, uint32_t id) {
    int bytes = id > 0xFFFFFF ? 4 : id > 0xFFFF ? 3 : id > 0xFF ? 2 : 1;
    for (int i = bytes - 1; i >= 0; --i) out.push_back(char(id >> (8 * i)));
}

void AppendSize(std::string& out, uint64_t size, int length) {
    uint64_t marked = size | (uint64_t(1) << (7 * length));
    for (int i = length - 1; i >= 0; --i) out.push_back(char(marked >> (8 * i)));
}

void AppendUnsigned(std::string& out, uint32_t id, uint64_t value, int length) {
    AppendId(out, id);
    AppendSize(out, uint64_t(length), 1);
    for (int i = length - 1; i >= 0; --i) out.push_back(char(value >> (8 * i)));
}

void AppendFloat(std::string& out, uint32_t id, double value) {
    uint64_t bits;
    std::memcpy(&bits, &value, 8);
    AppendUnsigned(out, id, bits, 8);
}

void AppendMaster(std::string& out, uint32_t id, const std::string& payload) {
    AppendId(out, id);
    AppendSize(out, payload.size(), 8);
    out += payload;
}

}  // namespace ebml_out

namespace {

constexpr int kSizeBytes = 8;  // every size this writer may patch takes 8 bytes
constexpr int kTimestampElementBytes = 10;

std::string SeekEntry(uint32_t id, uint64_t position) {
    std::string idBytes, seek;
    ebml_out::AppendId(idBytes, id);
    ebml_out::AppendId(seek, mkv_id::kSeekId);
    ebml_out::AppendSize(seek, idBytes.size(), 1);
    seek += idBytes;
    ebml_out::AppendUnsigned(seek, mkv_id::kSeekPosition, position);
    std::string entry;
    ebml_out::AppendMaster(entry, mkv_id::kSeek, seek);
    return entry;
}

std::string BigEndian8(uint64_t value) {
    std::string bytes;
    for (int i = 7; i >= 0; --i) bytes.push_back(char(value >> (8 * i)));
    return bytes;
}

}  // namespace

bool MkvWriter::WriteHead(const MkvHead& head, double duration, bool withCues) {
    std::string bytes = head.ebmlHeader;
    ebml_out::AppendId(bytes, mkv_id::kSegment);
    segmentSizeAt_ = int64_t(bytes.size());
    ebml_out::AppendSize(bytes, 0, kSizeBytes);
    segmentData_ = int64_t(bytes.size());

    std::string info = head.infoChildren;
    ebml_out::AppendFloat(info, mkv_id::kDuration, duration);
    std::string infoElement;
    ebml_out::AppendMaster(infoElement, mkv_id::kInfo, info);

    // Positions inside the Segment are known up front because every entry has a fixed size.
    std::string seekEntries = SeekEntry(mkv_id::kInfo, 0) + SeekEntry(mkv_id::kTracks, 0);
    if (withCues) seekEntries += SeekEntry(mkv_id::kCues, 0);
    std::string probe;
    ebml_out::AppendMaster(probe, mkv_id::kSeekHead, seekEntries);
    uint64_t infoAt = probe.size();
    uint64_t tracksAt = infoAt + infoElement.size();
    seekEntries = SeekEntry(mkv_id::kInfo, infoAt) + SeekEntry(mkv_id::kTracks, tracksAt);
    if (withCues) {
        seekEntries += SeekEntry(mkv_id::kCues, 0);
        cuesSeekPositionAt_ = segmentData_ + int64_t(probe.size()) - 8;  // the last entry's value
    }
    ebml_out::AppendMaster(bytes, mkv_id::kSeekHead, seekEntries);
    bytes += infoElement;
    bytes += head.tracksElement;
    return out_.Write(bytes.data(), bytes.size());
}

bool MkvWriter::WriteClusters(FileReader& source, const std::vector<MkvRecoveredCluster>& clusters) {
    clusterPositions_.clear();
    for (const MkvRecoveredCluster& cluster : clusters) {
        clusterPositions_.push_back(SegmentOffset());
        uint64_t payload = kTimestampElementBytes;
        for (const MkvRange& range : cluster.ranges) payload += uint64_t(range.end - range.start);
        std::string head;
        ebml_out::AppendId(head, mkv_id::kCluster);
        ebml_out::AppendSize(head, payload, kSizeBytes);
        ebml_out::AppendUnsigned(head, mkv_id::kTimestamp, cluster.timestamp);
        if (!out_.Write(head.data(), head.size())) return false;
        for (const MkvRange& range : cluster.ranges) {
            if (!CopyRange(source, range)) return false;
        }
    }
    return out_.Ok();
}

bool MkvWriter::CopyRange(FileReader& source, const MkvRange& range) {
    for (int64_t offset = range.start; offset < range.end;) {
        size_t want = size_t(std::min<int64_t>(range.end - offset, int64_t(FileWriter::kPieceBytes)));
        size_t available = 0;
        const uint8_t* data = source.View(offset, want, available);
        if (data == nullptr || available == 0 || !out_.Write(data, available)) return false;
        offset += int64_t(available);
    }
    return true;
}

bool MkvWriter::WriteCues(const std::vector<MkvCueEntry>& cues, uint64_t track) {
    if (cues.empty() || cuesSeekPositionAt_ < 0) return true;
    std::string cuesPayload;
    for (const MkvCueEntry& cue : cues) {
        if (cue.cluster >= clusterPositions_.size()) continue;
        std::string positions;
        ebml_out::AppendUnsigned(positions, mkv_id::kCueTrack, track);
        ebml_out::AppendUnsigned(positions, mkv_id::kCueClusterPosition, uint64_t(clusterPositions_[cue.cluster]));
        std::string point;
        ebml_out::AppendUnsigned(point, mkv_id::kCueTime, cue.time);
        ebml_out::AppendMaster(point, mkv_id::kCueTrackPositions, positions);
        ebml_out::AppendMaster(cuesPayload, mkv_id::kCuePoint, point);
    }
    std::string position = BigEndian8(uint64_t(SegmentOffset()));
    std::string element;
    ebml_out::AppendMaster(element, mkv_id::kCues, cuesPayload);
    return out_.Write(element.data(), element.size()) &&
           out_.PatchAt(cuesSeekPositionAt_, position.data(), position.size());
}

bool MkvWriter::Finish() {
    std::string size;
    ebml_out::AppendSize(size, uint64_t(out_.Written() - segmentData_), kSizeBytes);
    bool patched = out_.PatchAt(segmentSizeAt_, size.data(), size.size());
    return out_.Close() && patched;
}
