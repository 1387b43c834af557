// Decides whether the bytes at an offset are a Matroska Cluster worth keeping,
// and which of its blocks survive. Only headers and the first bytes of each
// block are read; payloads are never loaded.
#pragma once

#include <cstdint>
#include <vector>

#include "MkvHead.h"

class FileReader;

// A SimpleBlock or BlockGroup that parsed, with its place in the timeline.
struct MkvBlock {
    int64_t start = 0;  // file offset of the element's id
    int64_t end = 0;
    int64_t time = 0;     // absolute, in TimestampScale ticks
    int64_t endTime = 0;  // time plus the block's duration when known
    uint64_t track = 0;
    bool key = false;
};

struct MkvParsedCluster {
    int64_t start = 0;         // file offset of the Cluster id
    int64_t declaredEnd = -1;  // -1 for an unknown size
    uint64_t timestamp = 0;
    std::vector<MkvBlock> blocks;
    bool cut = false;  // some of the declared bytes were dropped
    int64_t End() const { return blocks.empty() ? start : blocks.back().end; }
};

class MkvClusterParser {
public:
    // Clusters bigger than this are cut there: it bounds the work a hostile size can cause.
    static constexpr int64_t kMaxClusterBytes = int64_t(1) << 30;
    // How far past damaged bytes a known-size cluster is searched for its remaining blocks.
    static constexpr int64_t kMaxResyncBytes = int64_t(64) << 20;
    static constexpr int kMaxResyncAttempts = 65536;

    MkvClusterParser(FileReader& file, const MkvHead& head) : file_(file), head_(head) {}

    // Accepts the cluster at offset when its id and size parse, its first child
    // (after an optional CRC-32) is a Timestamp, and at least one block follows.
    bool Parse(int64_t offset, MkvParsedCluster& out);

private:
    enum class Child { kBlock, kOther, kLevelOne, kBad };

    Child ParseChild(int64_t offset, int64_t limit, uint64_t clusterTime, MkvBlock& block, int64_t& next);
    bool ParseBlockHeader(int64_t payload, uint64_t payloadSize, uint64_t clusterTime, MkvBlock& block,
                          int& frames);
    bool ParseBlockGroup(int64_t payload, int64_t end, uint64_t clusterTime, MkvBlock& block);
    // Children from offset on; true when they end exactly at limit.
    bool ParseChain(int64_t offset, int64_t limit, uint64_t clusterTime, std::vector<MkvBlock>& blocks,
                    int64_t& stoppedAt, bool& levelOne);
    bool ParseTimestamp(int64_t& offset, int64_t limit, uint64_t& timestamp);
    void ResyncAfterDamage(int64_t damagedAt, int64_t declaredEnd, MkvParsedCluster& out);
    int64_t FrameTicks(const MkvTrack& track, int frames) const;

    FileReader& file_;
    const MkvHead& head_;
};
