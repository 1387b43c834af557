// The transport-stream engine: the layout probe and the run scan on hand-made
// packet blocks (end-to-end repairs are in engine_repair_test.cpp).
#include <gtest/gtest.h>


#include "MtsAdvanceRepair.h"
#include "RepairLog.h"
#include "support/RepairHarness.h"

using namespace repair_harness;
using testing_support::GeneratedMedia;
using testing_support::Wide;

namespace {

std::vector<std::string> ClipArgs(const std::vector<std::string>& muxer) {
    std::vector<std::string> args = {"-f", "lavfi", "-i", "testsrc=size=320x240:rate=25", "-f", "lavfi", "-i",
                                     "sine=frequency=440:sample_rate=48000", "-t", "3", "-c:v", "mpeg2video",
                                     "-g", "12", "-bf", "0", "-q:v", "4", "-c:a", "mp2", "-b:a", "128k"};
    args.insert(args.end(), muxer.begin(), muxer.end());
    return args;
}

std::string M2tsClip() { return GeneratedMedia("mts_clip_192.m2ts", ClipArgs({"-f", "mpegts", "-mpegts_m2ts_mode", "1"})); }
std::string TsClip() { return GeneratedMedia("mts_clip_188.ts", ClipArgs({"-f", "mpegts", "-mpegts_m2ts_mode", "0"})); }

// n packets of a given stride whose sync byte sits at syncOffset.
std::string Packets(int n, int stride = 188, int syncOffset = 0, char fill = '\x11') {
    std::string out;
    for (int i = 0; i < n; ++i) {
        std::string packet(size_t(stride), fill);
        packet[size_t(syncOffset)] = '\x47';
        out += packet;
    }
    return out;
}

struct EngineRun {
    int result = -1;
    std::vector<MtsAdvanceRepair::ByteRange> ranges;
    std::string output;
};

// Repairs hand-made bytes with the engine itself, against a real sample.
EngineRun RunEngine(const std::string& damagedBytes, const std::string& sample, const std::string& ext = "m2ts") {
    TempDir dir("mts");
    std::string damaged = dir.file("damaged." + ext);
    WriteFile(damaged, damagedBytes);
    MtsAdvanceRepair engine;
    engine.SetVideoPath(Wide(damaged), Wide(sample));
    EngineRun run;
    run.result = engine.Repair();
    run.ranges = engine.ValidRanges();
    if (run.result == 0) {
        std::wstring out;
        engine.GetRepairedVideo(out, Wide(damaged), std::wstring(), 0);
        run.output = ReadFile(testing_support::Narrow(out));
    }
    engine.Release();
    return run;
}

std::vector<std::pair<int64_t, int64_t>> SpansOf(const EngineRun& run) {
    std::vector<std::pair<int64_t, int64_t>> spans;
    for (const auto& r : run.ranges) spans.push_back({r.begin, r.end});
    return spans;
}

}  // namespace

TEST(MtsLayoutProbe, ChoosesStrideFromSyncBytes) {
    using L = MtsAdvanceRepair;
    std::string ts = Packets(6);
    EXPECT_EQ(L::LayoutFromHead(reinterpret_cast<const uint8_t*>(ts.data()), ts.size()).packetSize, 188);

    std::string pre204 = Packets(6, 204, 16);
    auto layout = L::LayoutFromHead(reinterpret_cast<const uint8_t*>(pre204.data()), pre204.size());
    EXPECT_EQ(layout.packetSize, 204);
    EXPECT_EQ(layout.syncOffset, 16);

    // 192 is the answer whenever the other two tests fail: no sync at all, a real
    // M2TS head, a short head, and a head where both the 192 and 204 tests pass.
    std::string zeros(1024, '\0');
    std::string m2ts = Packets(6, 192, 4);
    std::string both = m2ts;
    for (int k = 0; k < 5; ++k) both[size_t(16 + 204 * k)] = '\x47';
    for (const std::string* head : {&zeros, &m2ts, &both}) {
        layout = L::LayoutFromHead(reinterpret_cast<const uint8_t*>(head->data()), head->size());
        EXPECT_EQ(layout.packetSize, 192);
        EXPECT_EQ(layout.syncOffset, 4);
    }
    layout = L::LayoutFromHead(reinterpret_cast<const uint8_t*>(ts.data()), 500);  // sync at 0 and 188 only
    EXPECT_EQ(layout.packetSize, 192);
}

namespace {

std::string WithByte(std::string bytes, size_t at, char value) {
    bytes[at] = value;
    return bytes;
}

using Spans = std::vector<std::pair<int64_t, int64_t>>;

struct ScanCase {
    const char* name;
    std::string damaged;
    Spans spans;
    bool m2ts = false;  // 192-byte sample and an .mts name
};

const std::vector<ScanCase> kScanCases = {
    // One bad sync byte, or a whole bad packet, ends a run; the scan finds the next.
    {"BadPacketEndsARun", Packets(20) + std::string(188, '\x00') + Packets(20), {{0, 20 * 188}, {21 * 188, 41 * 188}}},
    {"BadSyncByteEndsARun", WithByte(Packets(30), 15 * 188, 'X'), {{0, 15 * 188}, {16 * 188, 30 * 188}}},
    // The next run is searched for right behind the break, not a packet further on.
    {"RunRightAfterAShortGap", Packets(20) + std::string(100, '\x00') + Packets(20),
     {{0, 20 * 188}, {20 * 188 + 100, 40 * 188 + 100}}},
    // Starting at packet 6 of a ten-packet block, offsets 0..939 are tried, so
    // the run is picked up at the second block, 4 packets in...
    {"RunStartingLateInABlock", std::string(6 * 188, '\x01') + Packets(30), {{1880, 36 * 188}}},
    // ...while at packet 4 it is found where it starts.
    {"RunStartingEarlyInABlock", std::string(4 * 188 + 3, '\x01') + Packets(30), {{4 * 188 + 3, 34 * 188 + 3}}},
    // Past one verification block of 5140 packets, with a break in the second block.
    {"BreakPastTheFirstVerificationBlock", WithByte(Packets(6000), 5500 * 188, '\0'),
     {{0, 5500 * 188}, {5501 * 188, 6000 * 188}}},
    // A tail of four good packets is no run: an empty output and success.
    {"FourPacketsAreNoRun", std::string(3000, '\x02') + Packets(4), {}},
    // A partial last packet stays in the run; the copy stops at the end of the file.
    {"PartialLastPacket", Packets(12) + "\x47partial", {{0, 13 * 188}}},
    // 192-byte packets whose stream starts 2 bytes into a packet: the sync at 2
    // lies below the prefix length and is passed over; the next starts the run.
    {"PrefixedPacketsKeepTheirPrefixes", Packets(20, 192, 4).substr(2), {{190, 20 * 192 - 2 + 4}}, true},
};

void PrintTo(const ScanCase& c, std::ostream* os) { *os << c.name; }

class MtsRunScan : public ::testing::TestWithParam<ScanCase> {};

}  // namespace

TEST_P(MtsRunScan, KeepsTheRunsOfSynchronisedPackets) {
    const ScanCase& c = GetParam();
    EngineRun run = c.m2ts ? RunEngine(c.damaged, M2tsClip(), "mts") : RunEngine(c.damaged, TsClip());
    ASSERT_EQ(run.result, 0);
    EXPECT_EQ(SpansOf(run), c.spans);
    std::string expected;
    for (const auto& [begin, end] : c.spans) expected += c.damaged.substr(size_t(begin), size_t(end - begin));
    EXPECT_EQ(run.output, expected);
}

INSTANTIATE_TEST_SUITE_P(Layouts, MtsRunScan, ::testing::ValuesIn(kScanCases),
                         [](const ::testing::TestParamInfo<ScanCase>& info) { return info.param.name; });

TEST(MtsFailures, PathsSampleAndDamagedFile) {
    TempDir dir("mtsfail");
    std::string damaged = dir.file("d.m2ts");
    WriteFile(damaged, Packets(10));
    std::string notMedia = dir.file("sample.m2ts");
    WriteFile(notMedia, std::string(4000, '\x01'));
    RepairLog log(0, dir.file("log.txt"));

    MtsAdvanceRepair engine;
    engine.SetLogger(&log);
    engine.SetVideoPath(Wide(damaged), L"");
    EXPECT_EQ(engine.Repair(), -1);
    engine.SetVideoPath(Wide(damaged), Wide(notMedia));
    EXPECT_EQ(engine.Repair(), -2);
    engine.SetVideoPath(Wide(damaged), Wide(dir.file("missing.m2ts")));
    EXPECT_EQ(engine.Repair(), -2);
    engine.SetVideoPath(Wide(dir.file("gone.MTS")), Wide(TsClip()));
    EXPECT_EQ(engine.GetFormatName(), L"mts");
    EXPECT_EQ(engine.Repair(), -1);
    engine.Release();
    log.Close();
    auto lines = testing_support::ReadLines(dir.file("log.txt"));
    EXPECT_FALSE(HasLine(lines, "Flv Header is damaged"));

    // Through the manager: the rejected sample gives -2 and no result.
    ManagerRun managed = RepairThroughManager(damaged, notMedia, dir);
    EXPECT_EQ(managed.result, -2);
    EXPECT_TRUE(managed.repairedPath.empty());
    EXPECT_TRUE(managed.inputUnchanged);
}
