// Carves the blocks of a damaged Matroska/WebM file element by element: Clusters
// are entered rather than skipped by their size (so unknown, huge or damaged sizes
// do not matter), SimpleBlocks and BlockGroups are split into their laced frames,
// and past damage the walk resumes at the next byte where a chain of elements
// parses. Blocks whose Cluster head was destroyed are kept: their cluster time is
// set so they fall between the clusters around them.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "thorough/SampleModel.h"
#include "thorough/carving/CarvedSource.h"

namespace thorough {

// One frame as the walk found it, before tracks are matched to streams.
struct MkvCarvedFrame {
    int64_t offset = 0;
    uint32_t size = 0;
    uint64_t track = 0;
    size_t group = 0;      // the cluster it was found in (its time may be unknown)
    int64_t relative = 0;  // the block's time relative to that cluster
    bool key = false;
    bool laceFollower = false;  // a laced frame after the block's first: no time of its own
    uint32_t run = 0;           // how many times the walk had resumed past damage
};

struct MkvCarvedGroup {
    bool known = false;  // the Cluster's Timestamp was read
    int64_t base = 0;
    int64_t end = -1;    // where the Cluster's declared size ends; -1 unknown
};

// The walk alone, over bytes in a file: testable without any stream knowledge.
class MkvBlockWalk {
public:
    explicit MkvBlockWalk(FileReader& file) : file_(file) {}
    void Run();
    const std::vector<MkvCarvedFrame>& Frames() const { return frames_; }
    const std::vector<MkvCarvedGroup>& Groups() const { return groups_; }
    int64_t Skipped() const { return skipped_; }

private:
    bool Step(int64_t& at, bool take);
    int64_t Resync(int64_t from);
    bool ChainAt(int64_t at);
    bool Block(int64_t payload, uint64_t size, bool simple, bool referenced, bool take);
    bool BlockGroup(int64_t payload, int64_t end, bool take);
    bool Laces(const uint8_t* data, size_t available, int64_t payload, uint64_t size, uint8_t flags,
               std::vector<std::pair<int64_t, uint32_t>>& laces) const;
    void Orphan(int64_t at);

    FileReader& file_;
    std::vector<MkvCarvedFrame> frames_;
    std::vector<MkvCarvedGroup> groups_;
    int64_t skipped_ = 0;
    uint32_t run_ = 0;
};

// Each found cluster's time. Where a Cluster's head was lost, its time is set so
// that, in the track with most blocks, its last block lies one step (the track's
// shortest gap) before that track's first block in the next known cluster; at the
// end of the file its blocks follow what came before them by frameTicks.
std::vector<int64_t> ClusterTimes(const std::vector<MkvCarvedGroup>& groups, const std::vector<MkvCarvedFrame>& frames,
                                  int64_t frameTicks);

class MkvBlockCarver {
public:
    explicit MkvBlockCarver(const SampleModel& sample) : sample_(sample) {}

    // Null when no block of a known stream was found.
    std::unique_ptr<CarvedSource> Carve(const std::wstring& path);

private:
    struct Track {
        unsigned stream = 0;
        AVMediaType type = AVMEDIA_TYPE_UNKNOWN;
    };

    bool LearnStreams(const std::wstring& path, CarvedSource& out);
    void Number(const std::wstring& headOf, const std::vector<const AVCodecParameters*>& streams,
                const std::vector<unsigned>& indices);
    void MatchTracks(const std::vector<MkvCarvedFrame>& frames);

    const SampleModel& sample_;
    std::map<uint64_t, Track> byNumber_;  // the streams by the track numbers they were written with
    std::map<uint64_t, Track> tracks_;  // the damaged file's track numbers, once matched
    int64_t frameTicks_ = 1;
};

}  // namespace thorough
