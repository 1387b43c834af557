#include "MkvClusterScanner.h"

#include <algorithm>
#include <cstring>

#include "io/FileReader.h"

namespace {
const uint8_t kClusterId[4] = {0x1F, 0x43, 0xB6, 0x75};
}

MkvClusterScanner::MkvClusterScanner(FileReader& searchFile, FileReader& parseFile, const MkvHead& head,
                                     int64_t start)
    : search_(searchFile),
      parser_(parseFile, head),
      cueTrack_(head.CueTrack() != nullptr ? head.CueTrack()->number : 0),
      start_(std::max<int64_t>(0, start)),
      position_(start_) {}

bool MkvClusterScanner::ScanBlock() {
    int64_t size = search_.Size();
    int64_t blockEnd = std::min(position_ + kBlockBytes, size);
    for (int64_t offset = position_; offset < blockEnd;) {
        size_t available = 0;
        // Three bytes more than the block, so an id across the block's end is seen.
        const uint8_t* data = search_.View(offset, size_t(blockEnd - offset) + 3, available);
        if (data == nullptr || available == 0) {
            position_ = size;  // unreadable from here on: keep what was found
            return false;
        }
        size_t length = std::min(available, size_t(blockEnd - offset));
        // Ids that start in this block; the window reaches 3 bytes further.
        size_t window = std::min(available, length + 3);
        for (size_t i = 0; i < length;) {
            const void* hit = std::memchr(data + i, kClusterId[0], length - i);
            if (hit == nullptr) break;
            size_t at = size_t(static_cast<const uint8_t*>(hit) - data);
            if (at + 4 <= window && std::memcmp(data + at, kClusterId, 4) == 0) {
                OnCandidate(offset + int64_t(at));
                data = search_.View(offset, size_t(blockEnd - offset) + 3, available);  // stays resident
            }
            i = at + 1;
        }
        offset += int64_t(length);
    }
    position_ = blockEnd;
    return position_ < size;
}

void MkvClusterScanner::OnCandidate(int64_t offset) {
    MkvParsedCluster cluster;
    if (!parser_.Parse(offset, cluster)) return;
    if (hasPending_ && offset < pending_.End()) {
        // A lookalike inside a block's payload would not move time forward.
        if (cluster.timestamp < pending_.timestamp) return;
        TrimPending(offset);
    }
    if (hasPending_) Commit();
    pending_ = std::move(cluster);
    hasPending_ = true;
}

// The open cluster's declared size covered a cluster that really follows:
// its last children are not its own, so it ends at the last whole one before.
void MkvClusterScanner::TrimPending(int64_t before) {
    auto& blocks = pending_.blocks;
    while (!blocks.empty() && blocks.back().end > before) blocks.pop_back();
    pending_.cut = true;
    if (blocks.empty()) hasPending_ = false;
}

void MkvClusterScanner::Commit() {
    MkvRecoveredCluster out;
    out.source = pending_.start;
    out.timestamp = pending_.timestamp;
    out.cut = pending_.cut;
    for (const MkvBlock& block : pending_.blocks) {
        if (!out.ranges.empty() && out.ranges.back().end == block.start) {
            out.ranges.back().end = block.end;
        } else {
            out.ranges.push_back({block.start, block.end});
        }
        if (block.key && block.track == cueTrack_ && block.time >= 0) {
            cues_.push_back({clusters_.size(), uint64_t(block.time)});
        }
        endTime_ = std::max(endTime_, std::max(block.time, block.endTime));
    }
    blockCount_ += pending_.blocks.size();
    if (out.cut) ++cutCount_;
    clusters_.push_back(std::move(out));
    hasPending_ = false;
}

void MkvClusterScanner::Finish() {
    if (hasPending_) Commit();
}

int MkvClusterScanner::Percent(int from, int to) const {
    int64_t span = search_.Size() - start_;
    if (span <= 0) return to;
    return from + int((to - from) * (position_ - start_) / span);
}
