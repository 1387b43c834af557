// End to end through the manager: generated WMV files damaged in three ways, each
// repaired with a sample of the same settings but other content.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <random>
#include <sstream>

#include "IVideoRepairManager.h"
#include "VideoRepairExport.h"
#include "support/RepairHarness.h"

using namespace testing_support;
using namespace repair_harness;

namespace {

constexpr int64_t kAsfPacketSize = 3200;  // what ffmpeg's ASF muxer writes

struct Clip {
    const char* name;
    const char* videoCodec;
    const char* audioCodec;  // nullptr: no audio
};

const Clip kClips[] = {
    {"wmv2", "wmv2", "wmav2"},
    {"wmv1", "wmv1", "wmav1"},
    {"videoonly", "wmv2", nullptr},
};

std::vector<std::string> ClipArgs(const Clip& clip, bool sample) {
    std::vector<std::string> args = {"-f", "lavfi", "-i",
                                     sample ? "testsrc2=size=320x240:rate=25:duration=3"
                                            : "testsrc=size=320x240:rate=25:duration=4"};
    if (clip.audioCodec != nullptr) {
        args.insert(args.end(), {"-f", "lavfi", "-i", sample ? "sine=frequency=880:duration=3"
                                                             : "sine=frequency=440:duration=4"});
    }
    args.insert(args.end(), {"-c:v", clip.videoCodec, "-b:v", "500k", "-g", "10"});
    if (clip.audioCodec != nullptr) args.insert(args.end(), {"-c:a", clip.audioCodec, "-b:a", "64k"});
    else args.push_back("-an");
    return args;
}

// Frames whose bytes lie wholly outside the damage: a frame's bytes run from its
// first ASF packet (ffprobe's position) to at most the end of the packet where
// the next frame starts.
int SurvivingFrames(const std::string& healthy, const Damage& damage) {
    return CountSurvivors(ToNextPacket(ProbeVideoPackets(healthy), -1, kAsfPacketSize), damage, Dependence::kNone);
}

enum class DamageKind { kHeader, kRanges, kTail };

std::string DamageName(DamageKind d) {
    return d == DamageKind::kHeader ? "header" : d == DamageKind::kRanges ? "ranges" : "tail";
}

Damage DamageFor(DamageKind kind, int64_t size) {
    Damage damage;
    damage.keep = size;  // a frame whose last ASF packet would lie past the end is lost
    if (kind == DamageKind::kHeader) damage.zeroed = {{0, 4096}};
    if (kind == DamageKind::kRanges) damage.noise = {{size * 4 / 10, size * 4 / 10 + 30000}, {size * 7 / 10, size * 7 / 10 + 10000}};
    if (kind == DamageKind::kTail) damage.keep = size * 7 / 10;
    return damage;
}

class WmvRepairEndToEnd : public ::testing::TestWithParam<std::tuple<int, DamageKind>> {};

TEST_P(WmvRepairEndToEnd, RepairsFromSampleAndLeavesInputAlone) {
    const Clip& clip = kClips[std::get<0>(GetParam())];
    const DamageKind damage = std::get<1>(GetParam());
    std::string original = GeneratedMedia(std::string("wmv_") + clip.name + ".wmv", ClipArgs(clip, false));
    std::string sample = GeneratedMedia(std::string("wmv_") + clip.name + "_sample.wmv", ClipArgs(clip, true));
    ASSERT_FALSE(original.empty());
    ASSERT_FALSE(sample.empty());

    TempDir dir("wmv");
    const Damage plan = DamageFor(damage, FileSize(original));
    const std::string bytes = ApplyDamage(ReadFile(original), plan);
    const std::string damaged = dir.file("damaged.wmv");
    WriteFile(damaged, bytes);
    const int frames = int(ProbeVideoPackets(original).size());
    const int expected = SurvivingFrames(original, plan);
    ASSERT_GT(expected, 20);

    ManagerRun run = RepairThroughManager(damaged, sample, dir);
    ASSERT_EQ(run.result, 0);
    const std::string& output = run.repairedPath;
    ASSERT_TRUE(FileExists(output)) << output;
    EXPECT_EQ(output.substr(output.size() - 4), ".wmv");
    const int decoded = CountDecodedVideoFrames(output);
    EXPECT_GE(decoded, expected * 9 / 10) << DamageName(damage) << " " << clip.name;
    EXPECT_LE(decoded, frames + 2);
    EXPECT_EQ(CountStreams(output, "a"), clip.audioCodec != nullptr ? 1 : 0);
    EXPECT_TRUE(run.inputUnchanged);
    EXPECT_EQ(ReadFile(damaged), bytes);
    // The pure files, dumps and merged AVI are gone from the work directory.
    EXPECT_TRUE(std::filesystem::is_empty(dir.file("work"))) << dir.file("work");
}

INSTANTIATE_TEST_SUITE_P(Clips, WmvRepairEndToEnd,
                         ::testing::Combine(::testing::Values(0, 1, 2),
                                            ::testing::Values(DamageKind::kHeader, DamageKind::kRanges, DamageKind::kTail)),
                         [](const auto& info) {
                             return std::string(kClips[std::get<0>(info.param)].name) + "_" +
                                    DamageName(std::get<1>(info.param));
                         });

}  // namespace
