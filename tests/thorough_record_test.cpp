// The record of a repair: ranges of one kind merge, kinds never do, and the JSON
// that reports and pictures are drawn from says exactly what was added.
#include <gtest/gtest.h>

#include "thorough/RepairRecord.h"

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
