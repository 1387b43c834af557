#include "thorough/PassRecorder.h"

#include <algorithm>

namespace thorough {
namespace {

// spans less the stretches the source stepped over (both in file order).
std::vector<PassRecorder::Span> Without(const std::vector<PassRecorder::Span>& spans,
                                        const std::vector<RecordRange>& skips) {
    std::vector<PassRecorder::Span> out;
    size_t k = 0;
    for (PassRecorder::Span span : spans) {
        while (k < skips.size() && skips[k].offset + skips[k].length <= span.start) ++k;
        for (size_t j = k; j < skips.size() && skips[j].offset < span.end; ++j) {
            if (skips[j].offset > span.start) out.push_back({span.start, skips[j].offset});
            span.start = std::max(span.start, skips[j].offset + skips[j].length);
        }
        if (span.end > span.start) out.push_back(span);
    }
    return out;
}

}  // namespace

void PassRecorder::Packet(int64_t position, int64_t size) {
    if (position < 0 || size <= 0) return;
    // Packets mostly come in file order: the newest span is the one that grows.
    if (!spans_.empty()) {
        Span& last = spans_.back();
        if (position >= last.start && position <= last.end + kStructureBytes) {
            last.end = std::max(last.end, position + size);
            return;
        }
    }
    spans_.push_back({position, position + size});
}

void PassRecorder::Restored(int64_t position, int64_t bytes, const std::string& note) {
    restored_.push_back({std::max<int64_t>(position, 0), std::max<int64_t>(bytes, 0), RangeKind::kRestored, note});
}

void PassRecorder::Finish(const PacketSource& input, int64_t readUpTo, RepairRecord& record) {
    std::sort(spans_.begin(), spans_.end(), [](const Span& a, const Span& b) { return a.start < b.start; });
    std::vector<Span> merged;
    for (const Span& span : spans_) {
        if (!merged.empty() && span.start <= merged.back().end + kStructureBytes) {
            merged.back().end = std::max(merged.back().end, span.end);
        } else {
            merged.push_back(span);
        }
    }
    // The file's own header in front and its short tail belong to the packets too.
    if (!merged.empty() && merged.front().start <= kStructureBytes) merged.front().start = 0;
    if (!merged.empty() && readUpTo - merged.back().end <= kStructureBytes)
        merged.back().end = std::max(merged.back().end, readUpTo);
    merged = Without(merged, input.SkippedRanges());
    int64_t covered = 0;
    for (const Span& span : merged) {
        if (span.start > covered) record.AddRange(covered, std::min(span.start, readUpTo) - covered, RangeKind::kSkipped);
        record.AddRange(span.start, span.end - span.start, RangeKind::kRecovered);
        covered = std::max(covered, span.end);
    }
    if (readUpTo > covered) record.AddRange(covered, readUpTo - covered, RangeKind::kSkipped);
    for (const RecordRange& range : input.PutIn()) record.AddRange(range.offset, range.length, range.kind, range.note);
    for (const RecordRange& range : restored_) record.AddRange(range.offset, range.length, range.kind, range.note);
}

}  // namespace thorough
