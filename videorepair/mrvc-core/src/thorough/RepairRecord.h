// What the repair did, as it did it: which bytes of the damaged file became the
// result, which were skipped as unusable or could not be read, what the sample put
// back, and where the kept file's streams have gaps. Reports and pictures of the
// repair are drawn from this record, never guessed afterwards. Passes on several
// threads add to it at once.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace thorough {

enum class RangeKind { kRecovered, kSkipped, kUnreadable, kRestored };

const char* RangeKindName(RangeKind kind);

// A stretch of the damaged file. Restored ranges have no bytes there: their
// offset is where the sample's bytes were put in, their length what was put in.
struct RecordRange {
    int64_t offset = 0;
    int64_t length = 0;
    RangeKind kind = RangeKind::kRecovered;
    std::string note;  // e.g. "H.264 parameter sets from the sample"
};

// A stretch of the kept file's timeline where a stream has no packets.
struct RecordGap {
    std::string stream;  // "video", "audio", ...
    double start = 0;    // seconds
    double end = 0;
};

// One stream of the kept file as its packets' times give it.
struct RecordStream {
    int index = 0;
    std::string kind;   // "video", "audio", ...
    std::string codec;  // "h264", "aac", ...
    double first = 0;   // seconds
    double last = 0;    // end of the last packet
    int64_t frames = 0; // packets
};

class RepairRecord {
public:
    void SetFileSize(int64_t size);
    // Adjacent or overlapping ranges of one kind (and note) are merged.
    void AddRange(int64_t offset, int64_t length, RangeKind kind, const std::string& note = std::string());
    void AddGap(const std::string& stream, double start, double end);
    void AddStream(const RecordStream& stream);
    // Something a person should know about the record itself, in plain words.
    void AddWarning(const std::string& text);
    // Everything other holds but its file size.
    void AddFrom(const RepairRecord& other);

    int64_t FileSize() const;
    std::vector<RecordRange> Ranges() const;  // by offset
    std::vector<RecordGap> Gaps() const;
    std::vector<RecordStream> Streams() const;
    std::vector<std::string> Warnings() const;
    int64_t BytesOf(RangeKind kind) const;

    std::string ToJson() const;

private:
    mutable std::mutex mutex_;
    int64_t fileSize_ = 0;
    std::vector<RecordRange> ranges_;
    std::vector<RecordGap> gaps_;
    std::vector<RecordStream> streams_;
    std::vector<std::string> warnings_;
};

}  // namespace thorough
