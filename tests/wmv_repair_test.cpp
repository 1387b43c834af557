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
#include "support/TestSupport.h"

using namespace testing_support;

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

struct Packet {
    int64_t pos;
    int64_t size;
};

// Video packets as ffprobe reports them (pos is the ASF packet holding the frame's start).
std::vector<Packet> VideoPackets(const std::string& path) {
    std::string out;
    RunProgram({VR_TEST_FFPROBE, "-v", "error", "-select_streams", "v:0", "-show_entries", "packet=pos,size",
                "-of", "csv=p=0", path},
               &out);
    std::vector<Packet> packets;
    std::istringstream lines(out);
    std::string line;
    while (std::getline(lines, line)) {
        Packet p{};
        if (std::sscanf(line.c_str(), "%lld,%lld", reinterpret_cast<long long*>(&p.size),
                        reinterpret_cast<long long*>(&p.pos)) == 2)
            packets.push_back(p);
    }
    return packets;
}

struct Range {
    int64_t from, to;
};

// Frames whose bytes lie wholly outside the damage: a frame's bytes run from its
// first ASF packet to at most the end of the packet where the next frame starts.
int SurvivingFrames(const std::vector<Packet>& packets, const std::vector<Range>& damage, int64_t fileEnd) {
    int survived = 0;
    for (size_t i = 0; i < packets.size(); ++i) {
        int64_t from = packets[i].pos;
        int64_t to = (i + 1 < packets.size() ? packets[i + 1].pos : from + packets[i].size) + kAsfPacketSize;
        bool hit = to > fileEnd;
        for (const Range& r : damage) hit = hit || (r.from < to && from < r.to);
        if (!hit) ++survived;
    }
    return survived;
}

std::vector<std::string> StreamTypes(const std::string& path) {
    std::string out;
    RunProgram({VR_TEST_FFPROBE, "-v", "error", "-show_entries", "stream=codec_type", "-of", "csv=p=0", path}, &out);
    std::vector<std::string> types;
    std::istringstream lines(out);
    std::string line;
    while (std::getline(lines, line)) types.push_back(line);
    return types;
}

enum class Damage { kHeader, kRanges, kTail };

std::string DamageName(Damage d) {
    return d == Damage::kHeader ? "header" : d == Damage::kRanges ? "ranges" : "tail";
}

// Applies the damage to bytes and returns the ranges no longer trusted.
std::vector<Range> Apply(Damage damage, std::string& bytes) {
    const int64_t size = int64_t(bytes.size());
    std::mt19937 random(7);
    if (damage == Damage::kHeader) {
        std::fill(bytes.begin(), bytes.begin() + 4096, '\0');
        return {{0, 4096}};
    }
    if (damage == Damage::kRanges) {
        std::vector<Range> ranges = {{size * 4 / 10, size * 4 / 10 + 30000}, {size * 7 / 10, size * 7 / 10 + 10000}};
        for (const Range& r : ranges)
            for (int64_t i = r.from; i < r.to; ++i) bytes[size_t(i)] = char(random());
        return ranges;
    }
    bytes.resize(size_t(size * 7 / 10));
    return {};
}

class WmvRepairEndToEnd : public ::testing::TestWithParam<std::tuple<int, Damage>> {};

TEST_P(WmvRepairEndToEnd, RepairsFromSampleAndLeavesInputAlone) {
    const Clip& clip = kClips[std::get<0>(GetParam())];
    const Damage damage = std::get<1>(GetParam());
    std::string original = GeneratedMedia(std::string("wmv_") + clip.name + ".wmv", ClipArgs(clip, false));
    std::string sample = GeneratedMedia(std::string("wmv_") + clip.name + "_sample.wmv", ClipArgs(clip, true));
    ASSERT_FALSE(original.empty());
    ASSERT_FALSE(sample.empty());

    TempDir dir("wmv");
    std::string bytes = ReadFile(original);
    std::vector<Range> ranges = Apply(damage, bytes);
    const std::string damaged = dir.file("damaged.wmv");
    WriteFile(damaged, bytes);
    const std::vector<Packet> frames = VideoPackets(original);
    const int expected = SurvivingFrames(frames, ranges, int64_t(bytes.size()));
    ASSERT_GT(expected, 20);

    IVideoRepairManager* manager = nullptr;
    ASSERT_EQ(InitKzVideoRepairLib(&manager), 0);
    RecordingObserver observer;
    ASSERT_EQ(manager->Initialize(&observer, dir.wpath().c_str(), dir.wfile("work").c_str()), 0);
    ASSERT_EQ(manager->Repair(Wide(damaged).c_str(), Wide(sample).c_str()), 0);
    wchar_t repaired[4096] = {};
    ASSERT_EQ(manager->GetRepairedFilePath(repaired, Wide(damaged).c_str()), 0);
    manager->Release();

    const std::string output = Narrow(repaired);
    ASSERT_TRUE(FileExists(output)) << output;
    EXPECT_EQ(output.substr(output.size() - 4), ".wmv");
    const int decoded = CountDecodedVideoFrames(output);
    EXPECT_GE(decoded, expected * 9 / 10) << DamageName(damage) << " " << clip.name;
    EXPECT_LE(decoded, int(frames.size()) + 2);
    std::vector<std::string> types = StreamTypes(output);
    EXPECT_EQ(std::count(types.begin(), types.end(), "audio"), clip.audioCodec != nullptr ? 1 : 0);
    EXPECT_EQ(ReadFile(damaged), bytes);
    // The pure files, dumps and merged AVI are gone from the work directory.
    EXPECT_TRUE(std::filesystem::is_empty(dir.file("work"))) << dir.file("work");
}

INSTANTIATE_TEST_SUITE_P(Clips, WmvRepairEndToEnd,
                         ::testing::Combine(::testing::Values(0, 1, 2),
                                            ::testing::Values(Damage::kHeader, Damage::kRanges, Damage::kTail)),
                         [](const auto& info) {
                             return std::string(kClips[std::get<0>(info.param)].name) + "_" +
                                    DamageName(std::get<1>(info.param));
                         });

}  // namespace
