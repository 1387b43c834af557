// Writes a Matroska file around recovered clusters: EBML header, Segment (its
// size patched at the end), SeekHead, Info with the recovered Duration, Tracks,
// the clusters copied from the damaged file, and Cues.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "MkvClusterScanner.h"
#include "MkvHead.h"
#include "io/FileWriter.h"

class FileReader;

// EBML encodings used by the writer (RFC 8794).
namespace ebml_out {
void AppendId(std::string& out, uint32_t id);
// A size in exactly `length` bytes (1..8), so that sizes can be patched in place.
void AppendSize(std::string& out, uint64_t size, int length);
void AppendUnsigned(std::string& out, uint32_t id, uint64_t value, int length = 8);
void AppendFloat(std::string& out, uint32_t id, double value);
void AppendMaster(std::string& out, uint32_t id, const std::string& payload);
}  // namespace ebml_out

class MkvWriter {
public:
    bool Create(const std::wstring& path) { return out_.Create(path); }
    // EBML header, Segment, SeekHead, Info and Tracks. duration is in ticks.
    bool WriteHead(const MkvHead& head, double duration, bool withCues);
    bool WriteClusters(FileReader& source, const std::vector<MkvRecoveredCluster>& clusters);
    bool WriteCues(const std::vector<MkvCueEntry>& cues, uint64_t track);
    // Patches the Segment size; false if any write failed.
    bool Finish();

private:
    bool CopyRange(FileReader& source, const MkvRange& range);
    int64_t SegmentOffset() const { return out_.Written() - segmentData_; }

    FileWriter out_;
    int64_t segmentSizeAt_ = 0;
    int64_t segmentData_ = 0;
    int64_t cuesSeekPositionAt_ = -1;
    std::vector<int64_t> clusterPositions_;
};
