// The FLV engine: hand-made tag layouts for the scan and the runs, then
// ffmpeg-made files repaired through the manager.
#include <gtest/gtest.h>

#include "FlvAdvanceRepair.h"
#include "support/RepairHarness.h"

using namespace repair_harness;

namespace {

// A tag of `total` bytes: 11-byte header, body, previous-tag-size word.
std::string Tag(uint8_t type, size_t total, char fill = 'Z') {
    const uint32_t dataSize = uint32_t(total - 15);
    std::string s(1, char(type));
    PutBe24(s, dataSize);
    s += std::string(7, '\0');  // timestamp, extension, stream id
    s += std::string(dataSize, fill);
    PutBe32(s, dataSize + 11);
    return s;
}

std::string Tags(int count, size_t total) {
    std::string s;
    for (int i = 0; i < count; ++i) s += Tag(i % 2 ? 8 : 9, total);
    return s;
}

std::string SampleHead() {
    std::string s = "FLV\x01\x05";
    PutBe32(s, 9);
    PutBe32(s, 0);
    return s;
}

struct FlvRunner {
    TempDir dir{"flv"};
    FlvAdvanceRepair engine;
    std::vector<int> progress;
    std::string damagedPath = dir.file("damaged.flv");
    std::string samplePath = dir.file("sample.flv");

    int Repair(const std::string& damaged) {
        WriteFile(damagedPath, damaged);
        WriteFile(samplePath, SampleHead() + Tags(2, 40));
        engine.SetProgressCallback([this](int p) { progress.push_back(p); });
        engine.SetVideoPath(testing_support::Wide(damagedPath), testing_support::Wide(samplePath));
        return engine.Repair();
    }
    std::vector<std::pair<int64_t, int64_t>> Runs() const {
        std::vector<std::pair<int64_t, int64_t>> out;
        for (const FlvRun& r : engine.Runs()) out.emplace_back(r.start, r.end);
        return out;
    }
    std::string Output() {
        std::wstring result;
        engine.GetRepairedVideo(result, testing_support::Wide(damagedPath), L"", 0);
        return result.empty() ? std::string() : ReadFile(testing_support::Narrow(result));
    }
    ~FlvRunner() { engine.Release(); }
};

using Runs = std::vector<std::pair<int64_t, int64_t>>;

}  // namespace

TEST(FlvScan, OutputIsSampleHeadFollowedByEveryRun) {
    // A damaged head, two runs separated by garbage far enough apart to be found.
    const std::string first = Tags(4, 100), second = Tags(3, 250);
    const std::string damaged = Filler(13, 'A') + first + Filler(1500) + second;
    FlvRunner run;
    ASSERT_EQ(run.Repair(damaged), 0);
    const int64_t secondAt = 13 + 400 + 1500;
    EXPECT_EQ(run.Runs(), (Runs{{13, 413}, {secondAt, secondAt + 750}}));
    EXPECT_EQ(run.Output(), SampleHead() + first + second);
    EXPECT_EQ(run.progress, (std::vector<int>{20, 100}));
    EXPECT_EQ(ReadFile(run.damagedPath), damaged);
}

TEST(FlvScan, TagOfDataSizeZeroIsNeverAccepted) {
    std::string zero(1, '\x09');
    PutBe24(zero, 0);
    zero += std::string(7, '\0');
    PutBe32(zero, 11);
    // Alone it is no candidate; inside a run it ends the run.
    FlvRunner alone;
    ASSERT_EQ(alone.Repair(Filler(100) + zero + Filler(100)), 0);
    EXPECT_TRUE(alone.Runs().empty());
    EXPECT_EQ(alone.Output(), SampleHead());

    FlvRunner inside;
    ASSERT_EQ(inside.Repair(Filler(20) + Tags(2, 60) + zero + Filler(3000)), 0);
    EXPECT_EQ(inside.Runs(), (Runs{{20, 140}}));
}

TEST(FlvScan, CandidatesNearTheBlockEndAreTestedOnTheRealignedBlock) {
    for (int64_t at : {1014, 1018}) {
        FlvRunner run;
        ASSERT_EQ(run.Repair(Filler(size_t(at)) + Tags(5, 100)), 0);
        EXPECT_EQ(run.Runs(), (Runs{{at, at + 500}})) << at;
    }
    // In the block's last three bytes the size is taken partly from the refilled
    // bytes, so that tag is missed; the scan picks the run up past that block.
    FlvRunner lastBytes;
    ASSERT_EQ(lastBytes.Repair(Filler(1022) + Tags(20, 100)), 0);
    EXPECT_EQ(lastBytes.Runs(), (Runs{{1022 + 1100, 1022 + 2000}}));
}

TEST(FlvScan, ScanResumes1024BytesPastARun) {
    // Run B starts 20 bytes after run A and is never seen; run C, further on, is.
    const std::string damaged = Filler(13) + Tags(3, 100) + Filler(20) + Tags(5, 100) + Filler(2000) + Tags(3, 100);
    FlvRunner run;
    ASSERT_EQ(run.Repair(damaged), 0);
    EXPECT_EQ(run.Runs(), (Runs{{13, 313}, {2833, 3133}}));
}

TEST(FlvScan, DisagreeingSizeWordEndsARun) {
    std::string broken = Tag(9, 600);
    broken[broken.size() - 1] ^= 1;
    const std::string damaged = Tag(9, 600) + broken + Tags(4, 600);
    FlvRunner run;
    ASSERT_EQ(run.Repair(damaged), 0);
    // The scan goes on 1024 bytes past the first run's end and finds the fourth tag.
    EXPECT_EQ(run.Runs(), (Runs{{0, 600}, {1800, 3600}}));
}

TEST(FlvRepair, RefusesMissingInputs) {
    FlvAdvanceRepair engine;
    EXPECT_EQ(engine.Repair(), -1);
    TempDir dir("flvbad");
    WriteFile(dir.file("ok.flv"), Tags(2, 50));
    engine.SetVideoPath(dir.wfile("ok.flv"), dir.wfile("missing.flv"));
    EXPECT_EQ(engine.Repair(), -1) << "sample missing";
    engine.SetVideoPath(dir.wfile("missing.flv"), dir.wfile("ok.flv"));
    EXPECT_EQ(engine.Repair(), -1) << "damaged missing";
    engine.SetVideoPath(dir.wfile("ok.flv"), dir.wfile("ok.flv"));
    EXPECT_EQ(engine.Repair(), 0);
    std::wstring result;
    engine.GetRepairedVideo(result, dir.wfile("no/such/dir/x.flv"), L"", 0);
    EXPECT_TRUE(result.empty()) << "output cannot be created";
    engine.Release();
}

TEST(FlvRepair, HostileSizesAreHarmless) {
    // Tags announcing 16 MiB bodies in a small file, and random bytes.
    std::string damaged;
    for (int i = 0; i < 64; ++i) damaged += std::string("\x09\xff\xff\xff", 4) + Noise(60, uint32_t(i));
    FlvRunner run;
    ASSERT_EQ(run.Repair(damaged), 0);
    EXPECT_EQ(run.Output().substr(0, 13), SampleHead());
}

// ---- ffmpeg-made files through the manager ----

namespace {

struct FlvMedia {
    std::string name;
    std::vector<std::string> codecArgs;
};

std::string MakeFlv(const FlvMedia& media, bool sample) {
    std::vector<std::string> args = {"-f", "lavfi", "-i",
                                     sample ? "testsrc2=size=320x240:rate=25" : "testsrc=size=320x240:rate=25",
                                     "-f", "lavfi", "-i",
                                     sample ? "sine=frequency=880:sample_rate=44100" : "sine=frequency=440:sample_rate=44100",
                                     "-t", sample ? "2" : "4"};
    args.insert(args.end(), media.codecArgs.begin(), media.codecArgs.end());
    return testing_support::GeneratedMedia("flv_" + media.name + (sample ? "_sample.flv" : "_clip.flv"), args);
}

const FlvMedia kFlv1Mp3{"flv1_mp3", {"-c:v", "flv", "-q:v", "2", "-c:a", "libmp3lame", "-b:a", "96k"}};
const FlvMedia kH264Aac{"h264_aac",
                        {"-c:v", "libx264", "-preset", "veryfast", "-crf", "18", "-g", "25", "-pix_fmt", "yuv420p",
                         "-c:a", "aac", "-b:a", "96k"}};

enum class FlvDamage { HeadZeroed, TailCut, Garbage, Combined };

Damage DamageFor(FlvDamage kind, int64_t size) {
    auto at = [size](double f) { return int64_t(double(size) * f); };
    const std::vector<Range> garbage = {{at(0.3), at(0.3) + 1500}, {at(0.5), at(0.5) + 700}, {at(0.7), at(0.7) + 2500}};
    Damage d;
    switch (kind) {
        // The head and the metadata tag; the codec configuration behind them survives.
        case FlvDamage::HeadZeroed: d.zeroed = {{0, 200}}; break;
        case FlvDamage::TailCut: d.keep = at(0.85); break;
        case FlvDamage::Garbage: d.noise = garbage; break;
        case FlvDamage::Combined:
            d.zeroed = {{0, 200}};
            d.noise = garbage;
            d.keep = at(0.9);
            break;
    }
    return d;
}

std::string FlvCaseName(const ::testing::TestParamInfo<std::tuple<FlvMedia, FlvDamage>>& info) {
    static const char* const kNames[] = {"HeadZeroed", "TailCut", "Garbage", "Combined"};
    return std::get<0>(info.param).name + "_" + kNames[int(std::get<1>(info.param))];
}

class FlvEndToEnd : public ::testing::TestWithParam<std::tuple<FlvMedia, FlvDamage>> {};

}  // namespace

TEST_P(FlvEndToEnd, RepairedFileDecodesWhatSurvived) {
    const FlvMedia& media = std::get<0>(GetParam());
    const std::string clip = MakeFlv(media, false), sample = MakeFlv(media, true);
    ASSERT_FALSE(clip.empty());
    ASSERT_FALSE(sample.empty());
    const std::string original = ReadFile(clip);
    const Damage damage = DamageFor(std::get<1>(GetParam()), int64_t(original.size()));
    // A packet's tag: 11-byte header in front of the reported position's payload,
    // up to 5 bytes of video header and the 4-byte size word behind.
    const std::vector<FrameSpan> packets = OwnBytes(ProbeVideoPackets(clip), 0, 11 + 5 + 4);
    const int survivors = CountSurvivors(packets, damage, Dependence::kNone);
    ASSERT_GT(survivors, int(packets.size()) / 2);

    TempDir dir("flve2e");
    const std::string damagedPath = dir.file("damaged.flv");
    const std::string damaged = ApplyDamage(original, damage);
    WriteFile(damagedPath, damaged);
    ManagerRun run = RepairThroughManager(damagedPath, sample, dir.path(), dir.path());
    ASSERT_EQ(run.result, 0);
    EXPECT_TRUE(IsUuidName(run.repairedPath, dir.path(), "flv")) << run.repairedPath;
    EXPECT_TRUE(run.inputUnchanged);
    EXPECT_EQ(ReadFile(damagedPath), damaged) << "the damaged file must stay as it was";
    const std::string repaired = ReadFile(run.repairedPath);
    EXPECT_EQ(repaired.substr(0, 13), ReadFile(sample).substr(0, 13));
    const int decoded = testing_support::CountDecodedVideoFrames(run.repairedPath);
    EXPECT_GE(decoded, survivors * 9 / 10) << "of " << survivors << " surviving frames";

    EXPECT_TRUE(HasLine(run.log, "Flv Header is damaged, will try repairing. -1"));
}

INSTANTIATE_TEST_SUITE_P(Damages, FlvEndToEnd,
                         ::testing::Combine(::testing::Values(kFlv1Mp3, kH264Aac),
                                            ::testing::Values(FlvDamage::HeadZeroed, FlvDamage::TailCut,
                                                              FlvDamage::Garbage, FlvDamage::Combined)),
                         FlvCaseName);
