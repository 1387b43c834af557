// Walks the damaged file block by block looking for Cluster ids, keeps every
// cluster that parses, and cuts a kept cluster short when a later valid cluster
// starts inside it (its declared size ran over bytes that were removed).
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "MkvClusterParser.h"
#include "MkvHead.h"

class FileReader;

struct MkvRange {
    int64_t start = 0;
    int64_t end = 0;
};

// A cluster as it will be written: its timestamp and the block bytes to copy.
struct MkvRecoveredCluster {
    int64_t source = 0;  // offset of the Cluster id in the damaged file
    uint64_t timestamp = 0;
    std::vector<MkvRange> ranges;
    bool cut = false;
};

struct MkvCueEntry {
    size_t cluster = 0;  // index into the recovered clusters
    uint64_t time = 0;
};

class MkvClusterScanner {
public:
    static constexpr int64_t kBlockBytes = 1048576;

    // Two readers over the same file: one walks forward for ids, the other
    // follows each candidate cluster, so neither throws the other's cache away.
    MkvClusterScanner(FileReader& searchFile, FileReader& parseFile, const MkvHead& head, int64_t start);

    // Scans the next block; false once the end of the file is reached.
    bool ScanBlock();
    // Keeps the cluster still open when the scan ends (or is stopped).
    void Finish();

    int Percent(int from, int to) const;
    const std::vector<MkvRecoveredCluster>& Clusters() const { return clusters_; }
    const std::vector<MkvCueEntry>& Cues() const { return cues_; }
    int64_t EndTime() const { return endTime_; }  // end of the recovered timeline, in ticks
    size_t CutCount() const { return cutCount_; }
    size_t BlockCount() const { return blockCount_; }

private:
    void OnCandidate(int64_t offset);
    void TrimPending(int64_t before);
    void Commit();

    FileReader& search_;
    MkvClusterParser parser_;
    uint64_t cueTrack_;
    int64_t start_;
    int64_t position_;
    MkvParsedCluster pending_;
    bool hasPending_ = false;
    std::vector<MkvRecoveredCluster> clusters_;
    std::vector<MkvCueEntry> cues_;
    int64_t endTime_ = 0;
    size_t cutCount_ = 0;
    size_t blockCount_ = 0;
};
