#include "thorough/RepairRecord.h"

#include <algorithm>
#include <cstdio>

namespace thorough {
namespace {

std::string Quoted(const std::string& text) {
    std::string out = "\"";
    for (unsigned char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += char(c);
        } else if (c < 0x20) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
            out += escaped;
        } else {
            out += char(c);
        }
    }
    return out + "\"";
}

bool Touches(const RecordRange& a, const RecordRange& b) {
    return a.kind == b.kind && a.note == b.note && a.offset <= b.offset + b.length && b.offset <= a.offset + a.length;
}

}  // namespace

const char* RangeKindName(RangeKind kind) {
    switch (kind) {
        case RangeKind::kRecovered: return "recovered";
        case RangeKind::kSkipped: return "skipped";
        case RangeKind::kUnreadable: return "unreadable";
        case RangeKind::kRestored: return "restored";
    }
    return "unknown";
}

void RepairRecord::SetFileSize(int64_t size) {
    std::lock_guard<std::mutex> lock(mutex_);
    fileSize_ = size;
}

void RepairRecord::AddRange(int64_t offset, int64_t length, RangeKind kind, const std::string& note) {
    if (length < 0 || (length == 0 && kind != RangeKind::kRestored)) return;
    std::lock_guard<std::mutex> lock(mutex_);
    RecordRange added{offset, length, kind, note};
    // Passes add in file order, so the newest range is the one most likely to grow.
    for (auto it = ranges_.rbegin(); it != ranges_.rend() && kind != RangeKind::kRestored; ++it) {
        if (!Touches(*it, added)) continue;
        int64_t end = std::max(it->offset + it->length, offset + length);
        it->offset = std::min(it->offset, offset);
        it->length = end - it->offset;
        return;
    }
    ranges_.push_back(added);
}

void RepairRecord::AddGap(const std::string& stream, double start, double end) {
    if (end <= start) return;
    std::lock_guard<std::mutex> lock(mutex_);
    gaps_.push_back({stream, start, end});
}

void RepairRecord::AddStream(const RecordStream& stream) {
    std::lock_guard<std::mutex> lock(mutex_);
    streams_.push_back(stream);
}

void RepairRecord::AddWarning(const std::string& text) {
    std::lock_guard<std::mutex> lock(mutex_);
    warnings_.push_back(text);
}

void RepairRecord::AddFrom(const RepairRecord& other) {
    if (&other == this) return;
    for (const RecordRange& range : other.Ranges()) AddRange(range.offset, range.length, range.kind, range.note);
    for (const RecordGap& gap : other.Gaps()) AddGap(gap.stream, gap.start, gap.end);
    for (const RecordStream& stream : other.Streams()) AddStream(stream);
    for (const std::string& warning : other.Warnings()) AddWarning(warning);
}

std::vector<RecordStream> RepairRecord::Streams() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return streams_;
}

std::vector<std::string> RepairRecord::Warnings() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return warnings_;
}

int64_t RepairRecord::FileSize() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return fileSize_;
}

std::vector<RecordRange> RepairRecord::Ranges() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<RecordRange> sorted = ranges_;
    std::stable_sort(sorted.begin(), sorted.end(),
                     [](const RecordRange& a, const RecordRange& b) { return a.offset < b.offset; });
    return sorted;
}

std::vector<RecordGap> RepairRecord::Gaps() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return gaps_;
}

int64_t RepairRecord::BytesOf(RangeKind kind) const {
    std::lock_guard<std::mutex> lock(mutex_);
    int64_t total = 0;
    for (const RecordRange& range : ranges_)
        if (range.kind == kind) total += range.length;
    return total;
}

std::string RepairRecord::ToJson() const {
    std::string json = "{\"fileSize\":" + std::to_string(FileSize()) + ",\"ranges\":[";
    bool first = true;
    for (const RecordRange& range : Ranges()) {
        json += first ? "" : ",";
        first = false;
        json += "{\"offset\":" + std::to_string(range.offset) + ",\"length\":" + std::to_string(range.length) +
                ",\"kind\":" + Quoted(RangeKindName(range.kind));
        if (!range.note.empty()) json += ",\"note\":" + Quoted(range.note);
        json += "}";
    }
    json += "],\"gaps\":[";
    first = true;
    for (const RecordGap& gap : Gaps()) {
        char times[96];
        std::snprintf(times, sizeof times, ",\"start\":%.3f,\"end\":%.3f}", gap.start, gap.end);
        json += (first ? "{\"stream\":" : ",{\"stream\":") + Quoted(gap.stream) + times;
        first = false;
    }
    json += "],\"streams\":[";
    first = true;
    for (const RecordStream& stream : Streams()) {
        char numbers[160];
        std::snprintf(numbers, sizeof numbers, ",\"first\":%.3f,\"last\":%.3f,\"frames\":%lld}", stream.first,
                      stream.last, (long long)stream.frames);
        json += (first ? "{\"index\":" : ",{\"index\":") + std::to_string(stream.index) +
                ",\"kind\":" + Quoted(stream.kind) + ",\"codec\":" + Quoted(stream.codec) + numbers;
        first = false;
    }
    json += "],\"warnings\":[";
    first = true;
    for (const std::string& warning : Warnings()) {
        json += (first ? "" : ",") + Quoted(warning);
        first = false;
    }
    return json + "]}";
}

}  // namespace thorough
