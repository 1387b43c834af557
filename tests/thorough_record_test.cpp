// The record of a repair: ranges of one kind merge, kinds never do, the JSON
// that reports and pictures are drawn from says exactly what was added, and a
// pass turns the places of its packets into ranges.
#include <gtest/gtest.h>

#include "thorough/PassRecorder.h"
#include "thorough/RepairRecord.h"
#include "thorough/ViewMap.h"

using thorough::RangeKind;
using thorough::RepairRecord;

TEST(RepairRecordTest, RangesMergeByKindAndNote) {
    RepairRecord record;
    record.SetFileSize(1000);
    record.AddRange(100, 50, RangeKind::kRecovered);
    record.AddRange(150, 50, RangeKind::kRecovered);  // adjacent: grows the first
    record.AddRange(200, 10, RangeKind::kSkipped);    // another kind: its own range
    record.AddRange(210, 90, RangeKind::kRecovered);
    record.AddRange(0, 0, RangeKind::kRecovered);     // empty: nothing
    record.AddRange(100, 0, RangeKind::kRestored, "parameter sets");
    record.AddRange(100, 0, RangeKind::kRestored, "parameter sets");  // restorations are never merged
    auto ranges = record.Ranges();
    ASSERT_EQ(ranges.size(), 5u);
    EXPECT_EQ(ranges[0].offset, 100);
    EXPECT_EQ(ranges[0].length, 100);
    EXPECT_EQ(record.BytesOf(RangeKind::kRecovered), 190);
    EXPECT_EQ(record.BytesOf(RangeKind::kSkipped), 10);
    EXPECT_EQ(record.BytesOf(RangeKind::kUnreadable), 0);
}

TEST(RepairRecordTest, JsonNamesEveryRangeAndGap) {
    RepairRecord record;
    record.SetFileSize(4096);
    record.AddRange(0, 512, RangeKind::kUnreadable);
    record.AddRange(512, 0, RangeKind::kRestored, "a \"header\"");
    record.AddGap("video", 1.5, 2.25);
    record.AddGap("audio", 3, 3);  // empty: nothing
    EXPECT_EQ(record.ToJson(),
              "{\"fileSize\":4096,\"ranges\":[{\"offset\":0,\"length\":512,\"kind\":\"unreadable\"},"
              "{\"offset\":512,\"length\":0,\"kind\":\"restored\",\"note\":\"a \\\"header\\\"\"}],"
              "\"gaps\":[{\"stream\":\"video\",\"start\":1.500,\"end\":2.250}],\"streams\":[],\"warnings\":[]}");
}

// What one pass used of the damaged file: packets close together make one
// recovered range (the structure between them included), what lies between
// distant ones is skipped, and a stretch the source stepped over is never
// recovered, even where a packet was read across it.
namespace {

struct RecordedPass : thorough::PacketSource {
    std::vector<thorough::RecordRange> skips;
    unsigned StreamCount() const override { return 0; }
    const AVCodecParameters* Parameters(unsigned) const override { return nullptr; }
    AVRational TimeBase(unsigned) const override { return {1, 1}; }
    AVRational FrameRate(unsigned) const override { return {0, 1}; }
    bool Next(AVPacket*) override { return false; }
    int64_t Consumed() const override { return 0; }
    std::vector<thorough::RecordRange> SkippedRanges() const override { return skips; }
};

struct PassCase {
    const char* name;
    std::vector<std::pair<int64_t, int64_t>> packets;  // position, size
    std::vector<thorough::RecordRange> skips;
    int64_t readUpTo;
    std::string expected;  // kind letter and range, in file order
};

std::string Drawn(const RepairRecord& record) {
    std::string out;
    for (const thorough::RecordRange& r : record.Ranges())
        out += std::string(1, thorough::RangeKindName(r.kind)[0]) + std::to_string(r.offset) + "+" +
               std::to_string(r.length) + " ";
    return out;
}

}  // namespace

TEST(RepairRecordTest, PassRecorderTurnsPacketsIntoRanges) {
    using thorough::RangeKind;
    const std::vector<PassCase> cases = {
        {"close packets join, header and tail included", {{1000, 500}, {2000, 500}, {4000, 1000}}, {}, 6000,
         "r0+6000 "},
        {"a distant packet leaves the stretch between skipped", {{0, 1000}, {100000, 1000}}, {}, 101000,
         "r0+1000 s1000+99000 r100000+1000 "},
        {"a lost head and an unread tail are skipped", {{50000, 1000}, {51000, 1000}}, {}, 200000,
         "s0+50000 r50000+2000 s52000+148000 "},
        {"a packet read across a stepped-over stretch", {{0, 20000}}, {{8000, 4000, RangeKind::kSkipped, ""}}, 20000,
         "r0+8000 s8000+4000 r12000+8000 "},
        {"packets out of file order", {{30000, 1000}, {0, 1000}, {1000, 1000}}, {}, 31000,
         "r0+2000 s2000+28000 r30000+1000 "},
    };
    for (const PassCase& c : cases) {
        thorough::PassRecorder recorder;
        RecordedPass source;
        source.skips = c.skips;
        for (auto [position, size] : c.packets) recorder.Packet(position, size);
        RepairRecord record;
        recorder.Finish(source, c.readUpTo, record);
        EXPECT_EQ(Drawn(record), c.expected) << c.name;
    }
}

TEST(RepairRecordTest, ViewMapFindsFileOffsetsAroundPutInBytes) {
    thorough::ViewMap map;
    map.AddPutIn(376);       // tables from the sample
    map.Add(1000, 188 * 2);  // two packets
    map.Add(5000, 188);      // after a hole
    EXPECT_EQ(map.FileOffset(0), -1);
    EXPECT_EQ(map.FileOffset(376), 1000);
    EXPECT_EQ(map.FileOffset(376 + 200), 1200);
    EXPECT_EQ(map.FileOffset(376 + 376), 5000);
    EXPECT_EQ(map.FileOffset(376 + 376 + 188), -1);
}
