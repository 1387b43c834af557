// The transport-stream engine: the layout probe, the run scan on hand-made
// packet blocks, and whole repairs of generated TS/M2TS files through the manager.
#include <gtest/gtest.h>

#include <cstring>

#include "MtsAdvanceRepair.h"
#include "RepairLog.h"
#include "support/RepairHarness.h"

using namespace repair_harness;
using testing_support::FileSize;
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

// The 204-byte layout this engine expects: 16 bytes in front of every 188-byte packet.
std::string With16BytePrefixes(const std::string& ts) {
    std::string out;
    for (size_t p = 0; p + 188 <= ts.size(); p += 188) {
        out.append(16, '\x5A');
        out.append(ts, p, 188);
    }
    return out;
}

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

std::vector<std::pair<int64_t, int64_t>> Spans(const EngineRun& run) {
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

TEST(MtsRunScan, OneBadSyncByteEndsARunAndTheScanFindsTheNext) {
    std::string bytes = Packets(20) + std::string(188, '\x00') + Packets(20);
    EngineRun run = RunEngine(bytes, TsClip());
    ASSERT_EQ(run.result, 0);
    EXPECT_EQ(Spans(run), (std::vector<std::pair<int64_t, int64_t>>{{0, 20 * 188}, {21 * 188, 41 * 188}}));
    EXPECT_EQ(run.output, bytes.substr(0, 20 * 188) + bytes.substr(21 * 188));

    // A single bad sync byte, not a whole packet, is enough.
    bytes = Packets(30);
    bytes[15 * 188] = 'X';
    run = RunEngine(bytes, TsClip());
    EXPECT_EQ(Spans(run), (std::vector<std::pair<int64_t, int64_t>>{{0, 15 * 188}, {16 * 188, 30 * 188}}));
}

TEST(MtsRunScan, RunStartingLateInATenPacketBlockIsFoundFromTheNextBlock) {
    // Starts at packet 6 of the first block: offsets 0..939 are tried, so the
    // run is picked up at the second block, 4 packets in.
    std::string late = std::string(6 * 188, '\x01') + Packets(30);
    EngineRun run = RunEngine(late, TsClip());
    EXPECT_EQ(Spans(run), (std::vector<std::pair<int64_t, int64_t>>{{1880, 36 * 188}}));
    EXPECT_EQ(run.output, late.substr(1880));

    // Starting at packet 4 it is found where it starts.
    std::string early = std::string(4 * 188 + 3, '\x01') + Packets(30);
    run = RunEngine(early, TsClip());
    EXPECT_EQ(Spans(run), (std::vector<std::pair<int64_t, int64_t>>{{4 * 188 + 3, int64_t(early.size())}}));
}

TEST(MtsRunScan, LongRunsNoRunsAndShortTails) {
    // Past one verification block of 5140 packets, with a break in the second block.
    std::string bytes = Packets(6000);
    bytes[5500 * 188] = '\0';
    EngineRun run = RunEngine(bytes, TsClip());
    EXPECT_EQ(Spans(run),
              (std::vector<std::pair<int64_t, int64_t>>{{0, 5500 * 188}, {5501 * 188, 6000 * 188}}));

    // Nothing synchronised, and a tail of four good packets: an empty output and success.
    run = RunEngine(std::string(5000, '\x47') + std::string(1, '\0') + std::string(3000, '\x02') + Packets(4),
                    TsClip());
    EXPECT_EQ(run.result, 0);
    EXPECT_TRUE(run.ranges.empty() || run.ranges.front().begin < 5000);  // a field of 0x47 is "in sync"
    run = RunEngine(std::string(3000, '\x02') + Packets(4), TsClip());
    EXPECT_EQ(run.result, 0);
    EXPECT_TRUE(run.ranges.empty());
    EXPECT_TRUE(run.output.empty());

    // A partial last packet stays in the run, and the output is the whole file.
    bytes = Packets(12) + std::string("\x47partial");
    run = RunEngine(bytes, TsClip());
    ASSERT_EQ(run.ranges.size(), 1u);
    EXPECT_EQ(run.output, bytes);
}

TEST(MtsRunScan, PrefixedPacketsKeepTheirPrefixes) {
    // 192-byte packets whose stream starts 2 bytes into a packet: the sync at 2
    // lies below the prefix length and is passed over; the next one starts the run.
    std::string m2ts = Packets(20, 192, 4).substr(2);
    EngineRun run = RunEngine(m2ts, M2tsClip(), "mts");
    // The last packet is 4 bytes short of its stride, so its slot ends the run
    // past the end of the file (the copy stops at the end).
    EXPECT_EQ(Spans(run), (std::vector<std::pair<int64_t, int64_t>>{{190, int64_t(m2ts.size()) + 4}}));
    EXPECT_EQ(run.output, m2ts.substr(190));
}

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
    EXPECT_TRUE(HasLine(lines, "MtsAdvanceRepair::Repair"));
    EXPECT_FALSE(HasLine(lines, "Flv Header is damaged"));

    // Through the manager: the rejected sample gives -2 and no result.
    ManagerRun managed = RepairThroughManager(damaged, notMedia, dir);
    EXPECT_EQ(managed.result, -2);
    EXPECT_TRUE(managed.repairedPath.empty());
    EXPECT_TRUE(managed.inputUnchanged);
}

struct MtsCase {
    const char* name;
    const char* extension;
    bool plain188;
    bool prefixed204;
};

void PrintTo(const MtsCase& c, std::ostream* os) { *os << c.name; }

class MtsEndToEnd : public ::testing::TestWithParam<MtsCase> {};

TEST_P(MtsEndToEnd, RecoversWhatSurvivedTheDamage) {
    const MtsCase& c = GetParam();
    TempDir dir("mtse2e");
    std::string healthy = c.plain188 || c.prefixed204 ? TsClip() : M2tsClip();
    ASSERT_FALSE(healthy.empty());
    std::string bytes = ReadFile(healthy);
    if (c.prefixed204) {
        bytes = With16BytePrefixes(bytes);
        healthy = dir.file("healthy204.ts");
        WriteFile(healthy, bytes);
    }
    std::string sample = dir.file(std::string("sample.") + c.extension);
    WriteFile(sample, bytes);
    const Damage damage = TypicalDamage(int64_t(bytes.size()), 4096, 0.4, int64_t(bytes.size() / 12), 0.8);
    bytes = ApplyDamage(bytes, damage);
    std::string damaged = dir.file(std::string("damaged.") + c.extension);
    WriteFile(damaged, bytes);

    ManagerRun run = RepairThroughManager(damaged, sample, dir);
    ASSERT_EQ(run.result, 0);
    ASSERT_FALSE(run.repairedPath.empty());
    EXPECT_EQ(run.repairedPath.substr(run.repairedPath.size() - strlen(c.extension)), c.extension);
    EXPECT_TRUE(run.inputUnchanged);
    EXPECT_EQ(ReadFile(damaged), bytes) << "the damaged input must stay as it was";
    EXPECT_TRUE(HasLine(run.log, "Flv Header is damaged, will try repairing."));
    EXPECT_EQ(run.events.back(), "finish");

    const std::vector<FrameSpan> frames = ToNextPacket(PositionedPackets(ProbeVideoPackets(healthy)), FileSize(healthy), 0);
    int surviving = CountSurvivors(frames, damage, Dependence::kUnbrokenChain);
    int decoded = testing_support::CountDecodedVideoFrames(run.repairedPath);
    EXPECT_GE(surviving, 25);
    EXPECT_GE(decoded * 10, surviving * 9) << decoded << " of " << surviving << " in " << run.repairedPath;
    EXPECT_GE(CountStreams(run.repairedPath, "a"), 1);
    EXPECT_LT(FileSize(run.repairedPath), FileSize(damaged));
}

INSTANTIATE_TEST_SUITE_P(Layouts, MtsEndToEnd,
                         ::testing::Values(MtsCase{"M2tsAsMts", "mts", false, false},
                                           MtsCase{"M2tsAsM2ts", "m2ts", false, false},
                                           MtsCase{"PlainTsAsM2ts", "m2ts", true, false},
                                           MtsCase{"Prefixed204", "m2ts", false, true}),
                         [](const ::testing::TestParamInfo<MtsCase>& info) { return info.param.name; });
