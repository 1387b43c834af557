// Which bytes of a cleaned view of the damaged file came from where in it, so the
// record of the repair can name file offsets for what a demuxer read from the view.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "thorough/RepairRecord.h"

namespace thorough {

// Stretches of the file stepped over, in file order, neighbours joined.
class SkipList {
public:
    void Add(int64_t offset, int64_t length) {
        if (length <= 0) return;
        if (!ranges_.empty() && ranges_.back().offset + ranges_.back().length == offset) {
            ranges_.back().length += length;
            return;
        }
        ranges_.push_back({offset, length, RangeKind::kSkipped, std::string()});
    }
    const std::vector<RecordRange>& Ranges() const { return ranges_; }

private:
    std::vector<RecordRange> ranges_;
};

class ViewMap {
public:
    // The next length bytes of the view are the file's from fileOffset on.
    void Add(int64_t fileOffset, int64_t length) {
        if (length <= 0) return;
        if (!pieces_.empty()) {
            Piece& last = pieces_.back();
            if (last.file >= 0 && last.file + last.length == fileOffset) {
                last.length += length;
                viewEnd_ += length;
                return;
            }
        }
        pieces_.push_back({viewEnd_, fileOffset, length});
        viewEnd_ += length;
    }
    // The next length bytes of the view were put in: they are nowhere in the file.
    void AddPutIn(int64_t length) {
        if (length <= 0) return;
        pieces_.push_back({viewEnd_, -1, length});
        viewEnd_ += length;
    }
    int64_t FileOffset(int64_t viewOffset) const {
        auto after = std::upper_bound(pieces_.begin(), pieces_.end(), viewOffset,
                                      [](int64_t at, const Piece& piece) { return at < piece.view; });
        if (after == pieces_.begin()) return -1;
        const Piece& piece = *(after - 1);
        if (piece.file < 0 || viewOffset >= piece.view + piece.length) return -1;
        return piece.file + (viewOffset - piece.view);
    }

private:
    struct Piece {
        int64_t view, file, length;  // file -1: put in
    };
    std::vector<Piece> pieces_;
    int64_t viewEnd_ = 0;
};

}  // namespace thorough
