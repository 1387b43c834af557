// End-to-end MKV repairs through the manager: generated files are damaged the
// way broken recordings are (head zeroed, clusters overwritten, a cluster cut in
// half, tail and Cues lost) and the repaired file is checked with ffprobe and,
// where installed, mkvmerge.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <sstream>

#include <unistd.h>

#include "IVideoRepairManager.h"
#include "VideoRepairExport.h"
#include "support/RepairHarness.h"

namespace ts = testing_support;
using namespace repair_harness;

namespace {

// The first video stream's packets with a position, in file order.
std::vector<ProbedPacket> VideoPackets(const std::string& path) { return PositionedPackets(ProbeVideoPackets(path)); }

int64_t FirstCluster(const std::string& bytes) { return int64_t(bytes.find("\x1F\x43\xB6\x75", 0, 4)); }

// Cluster offsets of the file (by id, confirmed by a Timestamp or CRC-32 after the size).
std::vector<int64_t> ClusterOffsets(const std::string& bytes) {
    std::vector<int64_t> offsets;
    for (size_t at = bytes.find("\x1F\x43\xB6\x75", 0, 4); at != std::string::npos;
         at = bytes.find("\x1F\x43\xB6\x75", at + 1, 4))
        offsets.push_back(int64_t(at));
    return offsets;
}

// Damage as broken recordings show it: the head zeroed up to the first
// cluster, 6 KB overwritten inside the cluster at 35 %, the second half of the
// cluster at 60 % removed, and the tail (Cues included) lost from 90 % on.
Damage PlanDamage(const std::string& bytes) {
    std::vector<int64_t> clusters = ClusterOffsets(bytes);
    Damage d;
    int64_t size = int64_t(bytes.size());
    d.zeroed = {{0, FirstCluster(bytes)}};
    d.noise = {{size * 35 / 100, size * 35 / 100 + 6000}};
    int64_t mid = size * 60 / 100;
    auto next = std::upper_bound(clusters.begin(), clusters.end(), mid);
    int64_t start = *(next - 1);
    int64_t end = next != clusters.end() ? *next : size;
    d.removed = {start + (end - start) / 2, end};
    d.keep = size * 90 / 100;
    return d;
}

// Frames that can come back: their bytes survived, and so did the key frame they depend on.
int DecodableSurvivors(const std::vector<ProbedPacket>& packets, const Damage& d) {
    return CountSurvivors(OwnBytes(packets, 0, 0), d, Dependence::kKeyFrame);
}

bool HaveMkvmerge() { return ts::RunProgram({"mkvmerge", "--version"}) == 0; }

// Frames returned by a seek to the middle of the file (packets read from there).
int FramesAfterSeek(const std::string& path, double seconds, double* firstTime) {
    std::string out;
    std::ostringstream interval;
    interval << seconds << "%+#5";
    ts::RunProgram({VR_TEST_FFPROBE, "-v", "error", "-select_streams", "v:0", "-read_intervals", interval.str(),
                    "-show_entries", "frame=pts_time", "-of", "csv=p=0", path},
                   &out);
    std::istringstream lines(out);
    int frames = 0;
    for (std::string line; std::getline(lines, line);) {
        if (line.empty()) continue;
        if (frames++ == 0) *firstTime = std::atof(line.c_str());
    }
    return frames;
}

double DurationOf(const std::string& path) {
    std::string out;
    ts::RunProgram({VR_TEST_FFPROBE, "-v", "error", "-show_entries", "format=duration", "-of", "csv=p=0", path}, &out);
    return std::atof(out.c_str());
}

class MkvRepairTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(InitKzVideoRepairLib(&manager_), 0);
        ASSERT_EQ(manager_->Initialize(&observer_, dir_.wpath().c_str(), dir_.wpath().c_str()), 0);
    }
    void TearDown() override { manager_->Release(); }

    // Repairs a damaged copy of `good` with `sample`; returns the repaired path.
    void RepairAndCheck(const std::string& good, const std::string& sample) {
        ASSERT_FALSE(good.empty());
        ASSERT_FALSE(sample.empty());
        std::string bytes = ts::ReadFile(good);
        Damage damage = PlanDamage(bytes);
        std::string damagedPath = dir_.file("damaged.mkv");
        std::string damagedBytes = ApplyDamage(bytes, damage);
        ts::WriteFile(damagedPath, damagedBytes);
        const InputGuard input(damagedPath);
        int expected = DecodableSurvivors(VideoPackets(good), damage);
        ASSERT_GT(expected, 10);

        ASSERT_EQ(manager_->Repair(ts::Wide(damagedPath).c_str(), ts::Wide(sample).c_str()), 0);
        wchar_t out[4096] = {};
        ASSERT_EQ(manager_->GetRepairedFilePath(out, ts::Wide(damagedPath).c_str()), 0);
        std::string repaired = ts::Narrow(out);
        EXPECT_TRUE(input.Unchanged());
        EXPECT_EQ(ts::ReadFile(damagedPath), damagedBytes) << "the damaged input must stay untouched";

        int decoded = ts::CountDecodedVideoFrames(repaired);
        EXPECT_GE(decoded, expected * 9 / 10) << "expected about " << expected;
        EXPECT_LE(decoded, int(VideoPackets(good).size()));

        double duration = DurationOf(repaired);
        EXPECT_GT(duration, 0.5);
        double firstTime = -1;
        EXPECT_GT(FramesAfterSeek(repaired, duration / 2, &firstTime), 0);
        EXPECT_GE(firstTime, duration / 2 - 1.5) << "the seek must land near the middle";

        if (HaveMkvmerge()) {
            std::string identify;
            int rc = ts::RunProgram({"mkvmerge", "--identify", repaired}, &identify);
            EXPECT_EQ(rc, 0) << identify;
            EXPECT_NE(identify.find("Matroska"), std::string::npos) << identify;
        }
        std::vector<std::string> log = ts::ReadLines(dir_.file("KzVideoRepair.log"));
        auto logged = [&](const std::string& text) {
            return std::any_of(log.begin(), log.end(), [&](const std::string& l) { return l.find(text) != std::string::npos; });
        };
        EXPECT_TRUE(logged("Repaired Mkv Head"));
        EXPECT_TRUE(logged("Repaired Mkv Body"));
        EXPECT_TRUE(logged("Flv Header is damaged, will try repairing."));
        EXPECT_TRUE(logged("Using the sample's head"));
    }

    std::string Repaired(const std::string& damagedPath) {
        wchar_t out[4096] = {};
        if (manager_->GetRepairedFilePath(out, ts::Wide(damagedPath).c_str()) != 0) return std::string();
        return ts::Narrow(out);
    }

    ts::TempDir dir_{"mkv"};
    ts::RecordingObserver observer_;
    IVideoRepairManager* manager_ = nullptr;
};

std::vector<std::string> H264Or(const std::string& fallback) {
    std::string encoders;
    ts::RunProgram({ts::BinDir() + "/ffmpeg", "-hide_banner", "-encoders"}, &encoders);
    if (encoders.find("libx264") != std::string::npos) return {"-c:v", "libx264", "-preset", "veryfast"};
    return {"-c:v", fallback};
}

std::string MakeClip(const std::string& name, const std::string& pattern, std::vector<std::string> video,
                     std::vector<std::string> audio) {
    std::vector<std::string> args = {"-f", "lavfi", "-i", pattern + "=size=320x240:rate=25:duration=4"};
    if (!audio.empty()) args.insert(args.end(), {"-f", "lavfi", "-i", "sine=frequency=440:duration=4"});
    args.insert(args.end(), video.begin(), video.end());
    args.insert(args.end(), {"-g", "12", "-pix_fmt", "yuv420p"});
    args.insert(args.end(), audio.begin(), audio.end());
    return ts::GeneratedMedia(name, args);
}

// mkvmerge's own muxing (BlockGroups, lacing, its cluster layout), from an ffmpeg clip.
std::string Remuxed(const std::string& source, const std::string& name) {
    if (source.empty()) return std::string();
    std::string target = source.substr(0, source.rfind('/') + 1) + name;
    if (ts::FileExists(target)) return target;
    std::string partial = target + ".part" + std::to_string(::getpid()) + ".mkv";
    if (ts::RunProgram({"mkvmerge", "-q", "-o", partial, "--cluster-length", "500ms", source}) > 1) return std::string();
    std::rename(partial.c_str(), target.c_str());
    return target;
}

}  // namespace

TEST_F(MkvRepairTest, H264AacFromFfmpeg) {
    auto video = H264Or("mpeg4");
    RepairAndCheck(MakeClip("mkv_h264_aac.mkv", "testsrc", video, {"-c:a", "aac"}),
                   MakeClip("mkv_h264_aac_sample.mkv", "smptebars", video, {"-c:a", "aac"}));
}

TEST_F(MkvRepairTest, Vp9OpusFromFfmpeg) {
    std::string encoders;
    ts::RunProgram({ts::BinDir() + "/ffmpeg", "-hide_banner", "-encoders"}, &encoders);
    if (encoders.find("libvpx-vp9") == std::string::npos || encoders.find("libopus") == std::string::npos)
        GTEST_SKIP() << "ffmpeg lacks libvpx-vp9 or libopus";
    std::vector<std::string> video = {"-c:v", "libvpx-vp9", "-deadline", "realtime", "-cpu-used", "8", "-b:v", "400k"};
    RepairAndCheck(MakeClip("mkv_vp9_opus.mkv", "testsrc", video, {"-c:a", "libopus"}),
                   MakeClip("mkv_vp9_opus_sample.mkv", "smptebars", video, {"-c:a", "libopus"}));
}

TEST_F(MkvRepairTest, VideoOnlyMpeg4) {
    std::vector<std::string> video = {"-c:v", "mpeg4", "-q:v", "4"};
    RepairAndCheck(MakeClip("mkv_mpeg4_only.mkv", "testsrc", video, {}),
                   MakeClip("mkv_mpeg4_only_sample.mkv", "smptebars", video, {}));
}

TEST_F(MkvRepairTest, WrittenByMkvmerge) {
    if (!HaveMkvmerge()) GTEST_SKIP() << "mkvmerge (Debian package mkvtoolnix) is not installed";
    auto video = H264Or("mpeg4");
    RepairAndCheck(Remuxed(MakeClip("mkv_h264_aac.mkv", "testsrc", video, {"-c:a", "aac"}), "mkv_mkvmerge.mkv"),
                   Remuxed(MakeClip("mkv_h264_aac_sample.mkv", "smptebars", video, {"-c:a", "aac"}),
                           "mkv_mkvmerge_sample.mkv"));
}

// A file whose head survived needs no sample; the one that came with it is not read.
TEST_F(MkvRepairTest, OwnHeadWithoutSample) {
    std::string good = MakeClip("mkv_mpeg4_only.mkv", "testsrc", {"-c:v", "mpeg4", "-q:v", "4"}, {});
    ASSERT_FALSE(good.empty());
    std::string bytes = ts::ReadFile(good);
    std::string damagedPath = dir_.file("tail_cut.mkv");
    ts::WriteFile(damagedPath, bytes.substr(0, bytes.size() * 3 / 4));
    const InputGuard input(damagedPath);
    ASSERT_EQ(manager_->Repair(ts::Wide(damagedPath).c_str(), L""), 0);
    EXPECT_TRUE(input.Unchanged());
    std::string repaired = Repaired(damagedPath);
    int decoded = ts::CountDecodedVideoFrames(repaired);
    EXPECT_GE(decoded, int(VideoPackets(good).size()) * 3 / 4 * 9 / 10);
    std::string log = ts::ReadFile(dir_.file("KzVideoRepair.log"));
    EXPECT_NE(log.find("Using the damaged file's own head"), std::string::npos);
}

TEST_F(MkvRepairTest, NoUsableHeadFails) {
    std::string damagedPath = dir_.file("noise.mkv");
    std::string noise(300000, '\0');
    for (size_t i = 0; i < noise.size(); ++i) noise[i] = char((i * 2654435761u) >> 13);
    ts::WriteFile(damagedPath, noise);
    const InputGuard input(damagedPath);
    EXPECT_EQ(manager_->Repair(ts::Wide(damagedPath).c_str(), L""), -1);
    EXPECT_EQ(manager_->Repair(ts::Wide(damagedPath).c_str(), ts::Wide(dir_.file("missing.mkv")).c_str()), -1);
    ts::WriteFile(dir_.file("bad_sample.mkv"), noise.substr(0, 5000));
    EXPECT_EQ(manager_->Repair(ts::Wide(damagedPath).c_str(), ts::Wide(dir_.file("bad_sample.mkv")).c_str()), -1);
    EXPECT_TRUE(input.Unchanged());
    std::string log = ts::ReadFile(dir_.file("KzVideoRepair.log"));
    EXPECT_NE(log.find("[MKV] No sample given and the damaged file's head is unusable."), std::string::npos);
    EXPECT_NE(log.find("[MKV] Sample's head is unusable too:"), std::string::npos);
}
