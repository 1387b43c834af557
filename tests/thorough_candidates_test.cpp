// Which files the thorough repair writes before the judge picks one: a second
// candidate is written only where its packets, all taken as good, could beat
// what is already written; where two tie, the remux of the file as it is wins,
// since it keeps what no carver looks for.
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>

#include "support/RepairHarness.h"
#include "support/TestSupport.h"

using namespace repair_harness;
using testing_support::GeneratedMedia;

namespace {

std::vector<std::string> Clip(const std::string& content, const std::vector<std::string>& codec) {
    std::vector<std::string> args = {"-f", "lavfi", "-i", content + "=size=320x240:rate=25:duration=4",
                                     "-f", "lavfi", "-i", "sine=frequency=440:duration=4"};
    args.insert(args.end(), codec.begin(), codec.end());
    return args;
}

struct CandidateCase {
    std::string name, extension;
    std::vector<std::string> codec;
    std::function<Damage(int64_t)> damage;
    std::string logged;  // a line the repair must log
};

void PrintTo(const CandidateCase& c, std::ostream* os) { *os << c.name; }

class ThoroughCandidatesTest : public ::testing::TestWithParam<CandidateCase> {};

TEST_P(ThoroughCandidatesTest, SecondFileOnlyWhereItCouldWin) {
    const CandidateCase& c = GetParam();
    std::string healthy = GeneratedMedia("candidates_" + c.name + "." + c.extension, Clip("testsrc", c.codec));
    std::string sample = GeneratedMedia("candidates_" + c.name + "_sample." + c.extension, Clip("testsrc2", c.codec));
    ASSERT_FALSE(healthy.empty());
    ASSERT_FALSE(sample.empty());
    TempDir dir("candidates");
    std::string bytes = ReadFile(healthy), damaged = dir.file("damaged." + c.extension);
    WriteFile(damaged, ApplyDamage(bytes, c.damage(int64_t(bytes.size()))));
    const int asIs = CountBitExactFrames(damaged, healthy);

    ThoroughRepairOptions options{};
    options.size = sizeof options;
    ManagerRun run = ThoroughRepairThroughManager(damaged, sample, dir, &options);

    ASSERT_EQ(run.result, 0) << options.reason;
    EXPECT_TRUE(HasLine(run.log, c.logged)) << options.reason;
    EXPECT_GE(CountBitExactFrames(run.repairedPath, healthy), asIs);
    EXPECT_GE(CountStreams(run.repairedPath, "a"), 1);
}

const std::vector<std::string> kMkv = {"-c:v", "libx264", "-g", "25", "-c:a", "aac"};
const std::vector<std::string> kMxf = {"-c:v", "mpeg2video", "-g", "12", "-bf", "0", "-c:a", "pcm_s16le", "-ar", "48000"};

INSTANTIATE_TEST_SUITE_P(
    Containers, ThoroughCandidatesTest,
    ::testing::Values(
        // The Matroska carver keeps the blocks behind a damaged one, libavformat's
        // demuxer not: the remux cannot beat it and is never written.
        CandidateCase{"MkvNoise", "mkv", kMkv,
                      [](int64_t n) {
                          Damage d;
                          d.noise = {{n * 45 / 100, n * 45 / 100 + 4096}};
                          return d;
                      },
                      "a remux would hold less than the carver's file"},
        // A file that plays as it is: the MXF carver finds nothing more.
        CandidateCase{"MxfIntact", "mxf", kMxf, [](int64_t) { return Damage{}; },
                      "the carver found no more than what plays already"}),
    [](const auto& info) { return info.param.name; });

// An intact Matroska file with subtitles: carver and remux tie on pictures and
// sound, and the remux, which carries the subtitles, is kept.
TEST(ThoroughCandidatesTieTest, RemuxKeepsSubtitlesOnATie) {
    TempDir dir("candidates_tie");
    WriteFile(dir.file("words.srt"), "1\n00:00:00,500 --> 00:00:02,000\nHello\n\n2\n00:00:02,500 --> 00:00:03,500\nAgain\n");
    std::vector<std::string> args = Clip("testsrc", {});
    args.insert(args.end(), {"-i", dir.file("words.srt"), "-map", "0", "-map", "1", "-map", "2"});
    args.insert(args.end(), kMkv.begin(), kMkv.end());
    args.insert(args.end(), {"-c:s", "srt"});
    std::string healthy = GeneratedMedia("candidates_subtitles.mkv", args);
    std::string sample = GeneratedMedia("candidates_MkvNoise_sample.mkv", Clip("testsrc2", kMkv));
    ASSERT_FALSE(healthy.empty());
    ASSERT_EQ(CountStreams(healthy, "s"), 1);
    std::string damaged = dir.file("damaged.mkv");
    std::filesystem::copy_file(healthy, damaged);

    ThoroughRepairOptions options{};
    options.size = sizeof options;
    ManagerRun run = ThoroughRepairThroughManager(damaged, sample, dir, &options);

    ASSERT_EQ(run.result, 0) << options.reason;
    EXPECT_EQ(CountStreams(run.repairedPath, "s"), 1) << options.reason;
    EXPECT_EQ(CountBitExactFrames(run.repairedPath, healthy), CountBitExactFrames(healthy, healthy));
}

}  // namespace
