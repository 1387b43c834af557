// Every engine end to end through the exported manager: ffmpeg-made clips are
// damaged the ways broken recordings are (head lost, garbage over the data, the
// tail cut, all at once) and repaired with a sample of the same settings but
// other content. One table row per clip and damage; what a row expects back is
// computed from ffprobe's packet positions in the healthy clip.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <sstream>

#include "support/RepairHarness.h"

using namespace repair_harness;
namespace ts = testing_support;

namespace {

struct Clip {
    std::string name;
    std::string ext;                 // of the generated file
    std::vector<std::string> codec;  // codec and muxer arguments
    bool audio = true;
    std::string size = "320x240";
    int seconds = 4;
};

// The healthy clip (testsrc, 440 Hz) or its sample (smptebars, 880 Hz, 2 s).
std::string Make(const Clip& clip, bool sample) {
    const std::string seconds = sample ? "2" : std::to_string(clip.seconds);
    std::vector<std::string> args = {"-f", "lavfi", "-i",
                                     std::string(sample ? "smptebars" : "testsrc") + "=size=" + clip.size +
                                         ":rate=25:duration=" + seconds};
    if (clip.audio) {
        args.insert(args.end(), {"-f", "lavfi", "-i",
                                 std::string("sine=sample_rate=48000:frequency=") + (sample ? "880" : "440") +
                                     ":duration=" + seconds});
    } else {
        args.push_back("-an");
    }
    args.insert(args.end(), clip.codec.begin(), clip.codec.end());
    return ts::GeneratedMedia("e2e_" + clip.name + (sample ? "_sample." : ".") + clip.ext, args);
}

bool HasEncoder(const std::string& name) {
    static const std::string encoders = [] {
        std::string out;
        ts::RunProgram({ts::BinDir() + "/ffmpeg", "-hide_banner", "-encoders"}, &out);
        return out;
    }();
    return encoders.find(" " + name + " ") != std::string::npos;
}

// How each engine's frames survive a damage, and which bytes are its head.
struct Engine {
    std::string name;
    std::string outExt;   // "" keeps the damaged file's extension
    std::string logLine;  // what a successful repair logs
    std::vector<FrameSpan> (*frames)(const std::string& healthy);
    Dependence dependence;
    int64_t (*head)(const std::string& bytes);
};

int64_t FirstCluster(const std::string& b) { return int64_t(b.find("\x1F\x43\xB6\x75", 0, 4)); }

const Engine kAvi{"Avi", "", "Flv Header is damaged, will try repairing. -1",
                  // a chunk: the 8-byte chunk header in front of the reported position
                  [](const std::string& h) { return OwnBytes(ProbeVideoPackets(h), 8, 0); }, Dependence::kNone,
                  [](const std::string& b) { return int64_t(b.find("movi")) + 4; }};
const Engine kFlv{"Flv", "", "Flv Header is damaged, will try repairing. -1",
                  // a tag: 11-byte header in front, up to 5 bytes of video header and the size word behind
                  [](const std::string& h) { return OwnBytes(ProbeVideoPackets(h), 0, 11 + 5 + 4); },
                  Dependence::kNone, [](const std::string&) { return int64_t(200); }};
// Blocks are re-clustered one by one behind the key frame that opens them.
const Engine kMkv{"Mkv", "", "Using the sample's head",
                  [](const std::string& h) { return OwnBytes(PositionedPackets(ProbeVideoPackets(h)), 0, 0); },
                  Dependence::kKeyFrame, FirstCluster};
// A program stream frame can start inside the previous frame's packet.
const Engine kMpeg{"Mpeg", "mpeg", "[MPEG] Video samples counts is:",
                   [](const std::string& h) { return ToNextPosition(ProbeVideoPackets(h), ts::FileSize(h)); },
                   Dependence::kUnbrokenChain, [](const std::string&) { return int64_t(4096); }};
std::vector<FrameSpan> ToNext(const std::string& h) {
    return ToNextPacket(PositionedPackets(ProbeVideoPackets(h)), ts::FileSize(h), 0);
}
const Engine kMts{"Mts", "", "Flv Header is damaged, will try repairing.", ToNext, Dependence::kUnbrokenChain,
                  [](const std::string&) { return int64_t(4096); }};
const Engine kMxf{"Mxf", "mxf", "[mxf] Video samples counts is:", ToNext, Dependence::kUnbrokenChain,
                  [](const std::string&) { return int64_t(16384); }};
// A frame runs from its first ASF packet to the end of the packet where the next one starts.
const Engine kWmv{"Wmv", "", "[mxf] Video samples counts is:",
                  [](const std::string& h) { return ToNextPacket(ProbeVideoPackets(h), -1, 3200); },
                  Dependence::kNone, [](const std::string&) { return int64_t(4096); }};

enum Kind { kHead = 1, kGarbage = 2, kTail = 4, kAll = 7 };

struct Case {
    std::string name;
    const Engine* engine;
    Clip clip;
    Kind kind;
    std::string damagedExt = {};                      // "" keeps the clip's
    std::string (*reshape)(const std::string&) = nullptr;  // a layout ffmpeg does not write
};

void PrintTo(const Case& c, std::ostream* os) { *os << c.name; }

Damage Plan(const Case& c, const std::string& bytes) {
    const int64_t size = int64_t(bytes.size());
    auto at = [size](int percent) { return size * percent / 100; };
    Damage d;
    if (c.kind & kHead) d.zeroed = {{0, c.engine->head(bytes)}};
    if (c.kind & kGarbage) d.noise = {{at(30), at(30) + size / 40}, {at(55), at(55) + 700}, {at(70), at(70) + size / 80}};
    if (c.kind & kTail) d.keep = at(85);
    if (c.kind == kAll && c.engine == &kMkv) {
        // The second half of the cluster at 60 % is lost; what follows moves up.
        int64_t start = 0, end = size;
        for (size_t p = bytes.find("\x1F\x43\xB6\x75", 0, 4); p != std::string::npos;
             p = bytes.find("\x1F\x43\xB6\x75", p + 1, 4)) {
            if (int64_t(p) <= at(60)) start = int64_t(p);
            else if (end == size) end = int64_t(p);
        }
        d.removed = {start + (end - start) / 2, end};
    }
    return d;
}

// The 204-byte layout: 16 bytes in front of every 188-byte packet.
std::string With16BytePrefixes(const std::string& ts) {
    std::string out;
    for (size_t p = 0; p + 188 <= ts.size(); p += 188) out += std::string(16, '\x5A') + ts.substr(p, 188);
    return out;
}

const std::vector<std::string> kX264 = {"-c:v", "libx264", "-preset", "veryfast", "-pix_fmt", "yuv420p"};
std::vector<std::string> Join(std::vector<std::string> a, const std::vector<std::string>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

const Clip kAviMpeg4{"avi_mpeg4_mp3", "avi", {"-c:v", "mpeg4", "-q:v", "2", "-c:a", "libmp3lame", "-b:a", "96k"}};
const Clip kAviMjpeg{"avi_mjpeg_pcm", "avi", {"-c:v", "mjpeg", "-q:v", "3", "-c:a", "pcm_s16le"}};
const Clip kFlv1{"flv_flv1_mp3", "flv", {"-c:v", "flv", "-q:v", "2", "-c:a", "libmp3lame", "-b:a", "96k"}};
const Clip kFlvH264{"flv_h264_aac", "flv", Join(kX264, {"-g", "25", "-c:a", "aac", "-b:a", "96k"})};
const Clip kMkvH264{"mkv_h264_aac", "mkv", Join(kX264, {"-g", "12", "-c:a", "aac"})};
const Clip kMkvVp9{"mkv_vp9_opus", "mkv",
                   {"-c:v", "libvpx-vp9", "-deadline", "realtime", "-cpu-used", "8", "-b:v", "400k", "-g", "12",
                    "-c:a", "libopus"}};
const Clip kMkvMpeg4{"mkv_mpeg4", "mkv", {"-c:v", "mpeg4", "-q:v", "4", "-g", "12"}, false};
const Clip kMkvmerge{"mkv_mkvmerge", "mkv", {}};  // kMkvH264 remuxed by mkvmerge: BlockGroups, lacing
const std::vector<std::string> kMpeg2 = {"-c:v", "mpeg2video", "-g", "12", "-bf", "2", "-b:v", "1500k"};
const Clip kMpeg2Mp2{"mpeg2_mp2", "mpg", Join(kMpeg2, {"-c:a", "mp2", "-b:a", "128k", "-f", "mpeg"})};
const Clip kMpeg1Mp2{"mpeg1_mp2", "mpg",
                     {"-c:v", "mpeg1video", "-g", "12", "-b:v", "1500k", "-c:a", "mp2", "-b:a", "128k", "-f", "mpeg"}};
const Clip kMpeg2Dvd{"mpeg2_dvd", "mpg", Join(kMpeg2, {"-f", "dvd"}), false};
const std::vector<std::string> kTs = {"-c:v", "mpeg2video", "-g", "12", "-bf", "0", "-q:v", "4", "-c:a", "mp2",
                                      "-b:a", "128k", "-f", "mpegts"};
const Clip kM2ts{"mts_192", "m2ts", Join(kTs, {"-mpegts_m2ts_mode", "1"})};
const Clip kTs188{"mts_188", "ts", Join(kTs, {"-mpegts_m2ts_mode", "0"})};
const Clip kOp1a{"mxf_op1a", "mxf",
                 {"-c:v", "mpeg2video", "-g", "12", "-bf", "0", "-q:v", "4", "-c:a", "pcm_s16le", "-ac", "2"}};
const Clip kD10{"mxf_d10", "mxf",
                {"-pix_fmt", "yuv422p", "-c:v", "mpeg2video", "-g", "1", "-b:v", "50M", "-minrate", "50M", "-maxrate",
                 "50M", "-bufsize", "2000000", "-rc_init_occupancy", "2000000", "-c:a", "pcm_s16le", "-f", "mxf_d10"},
                true, "720x608", 2};
const Clip kWmv2{"wmv2", "wmv", {"-c:v", "wmv2", "-b:v", "500k", "-g", "10", "-c:a", "wmav2", "-b:a", "64k"}};
const Clip kWmv1{"wmv1", "wmv", {"-c:v", "wmv1", "-b:v", "500k", "-g", "10", "-c:a", "wmav1", "-b:a", "64k"}};
const Clip kWmvVideo{"wmv2_video", "wmv", {"-c:v", "wmv2", "-b:v", "500k", "-g", "10"}, false};

// Each damage alone on one clip per engine, and all of them on every clip.
const std::vector<Case> kCases = {
    {"Avi_HeadLost", &kAvi, kAviMpeg4, kHead},       {"Avi_Garbage", &kAvi, kAviMpeg4, kGarbage},
    {"Avi_Idx1Lost", &kAvi, kAviMpeg4, kTail},       {"Avi_All", &kAvi, kAviMpeg4, kAll},
    {"AviMjpeg_All", &kAvi, kAviMjpeg, kAll},        {"Flv_HeadLost", &kFlv, kFlv1, kHead},
    {"Flv_Garbage", &kFlv, kFlv1, kGarbage},         {"Flv_TailCut", &kFlv, kFlv1, kTail},
    {"FlvH264_All", &kFlv, kFlvH264, kAll},          {"MkvH264_All", &kMkv, kMkvH264, kAll},
    {"MkvVp9_All", &kMkv, kMkvVp9, kAll},            {"MkvMpeg4VideoOnly_All", &kMkv, kMkvMpeg4, kAll},
    {"MkvWrittenByMkvmerge_All", &kMkv, kMkvmerge, kAll},
    {"Mpeg2_HeadLost", &kMpeg, kMpeg2Mp2, kHead},    {"Mpeg2_Garbage", &kMpeg, kMpeg2Mp2, kGarbage},
    {"Mpeg2_TailCut", &kMpeg, kMpeg2Mp2, kTail},     {"Mpeg1_All", &kMpeg, kMpeg1Mp2, kAll, "mpeg"},
    {"Mpeg2VideoOnly_All", &kMpeg, kMpeg2Dvd, kAll}, {"M2tsAsMts_All", &kMts, kM2ts, kAll, "mts"},
    {"M2ts_All", &kMts, kM2ts, kAll},                {"PlainTsAsM2ts_All", &kMts, kTs188, kAll, "m2ts"},
    {"Prefixed204_All", &kMts, kTs188, kAll, "m2ts", With16BytePrefixes},
    {"MxfOp1a_All", &kMxf, kOp1a, kAll},             {"MxfD10_All", &kMxf, kD10, kAll},
    {"MxfNamedKlv_All", &kMxf, kOp1a, kAll, "klv"},  {"Wmv2_HeadLost", &kWmv, kWmv2, kHead},
    {"Wmv2_Garbage", &kWmv, kWmv2, kGarbage},        {"Wmv2_TailCut", &kWmv, kWmv2, kTail},
    {"Wmv1_All", &kWmv, kWmv1, kAll},                {"WmvVideoOnly_All", &kWmv, kWmvVideo, kAll},
};

bool HaveMkvmerge() { return ts::RunProgram({"mkvmerge", "--version"}) == 0; }

std::string Remuxed(const std::string& source, const std::string& name) {
    if (source.empty()) return std::string();
    const std::string target = source.substr(0, source.rfind('/') + 1) + name;
    if (ts::FileExists(target)) return target;
    const std::string partial = target + ".part" + std::to_string(::getpid()) + ".mkv";
    if (ts::RunProgram({"mkvmerge", "-q", "-o", partial, "--cluster-length", "500ms", source}) > 1) return std::string();
    std::rename(partial.c_str(), target.c_str());
    return target;
}

// Frames a seek to `seconds` returns, and the time of the first.
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
        if (!line.empty() && frames++ == 0) *firstTime = std::atof(line.c_str());
    }
    return frames;
}

class EngineRepair : public ::testing::TestWithParam<Case> {};

}  // namespace

TEST_P(EngineRepair, RepairedFileDecodesWhatSurvived) {
    const Case& c = GetParam();
    const Engine& engine = *c.engine;
    if (c.clip.name == "mkv_vp9_opus" && !(HasEncoder("libvpx-vp9") && HasEncoder("libopus")))
        GTEST_SKIP() << "ffmpeg lacks libvpx-vp9 or libopus";
    if (c.clip.name == "mkv_mkvmerge" && !HaveMkvmerge()) GTEST_SKIP() << "mkvmerge (mkvtoolnix) is not installed";
    std::string clip, sample;
    if (c.clip.name == "mkv_mkvmerge") {
        clip = Remuxed(Make(kMkvH264, false), "e2e_mkvmerge.mkv");
        sample = Remuxed(Make(kMkvH264, true), "e2e_mkvmerge_sample.mkv");
    } else {
        clip = Make(c.clip, false);
        sample = Make(c.clip, true);
    }
    ASSERT_FALSE(clip.empty());
    ASSERT_FALSE(sample.empty());

    TempDir dir("e2e");
    const std::string ext = c.damagedExt.empty() ? c.clip.ext : c.damagedExt;
    std::string healthy = clip, bytes = ReadFile(clip), sampleBytes = ReadFile(sample);
    if (c.reshape != nullptr) {
        bytes = c.reshape(bytes);
        sampleBytes = c.reshape(sampleBytes);
        healthy = dir.file("healthy." + c.clip.ext);
        WriteFile(healthy, bytes);
    }
    const Damage damage = Plan(c, bytes);
    const std::vector<FrameSpan> frames = engine.frames(healthy);
    const int survivors = CountSurvivors(frames, damage, engine.dependence);
    ASSERT_GT(survivors, int(frames.size()) / 4) << "the damage spared too little to judge";

    // The sample beside the damaged file: some engines write extractions beside it.
    const std::string damagedPath = dir.file("damaged." + ext), samplePath = dir.file("sample." + ext);
    WriteFile(damagedPath, ApplyDamage(bytes, damage));
    WriteFile(samplePath, sampleBytes);
    const size_t filesBefore = FilesIn(dir.path());
    ManagerRun run = RepairThroughManager(damagedPath, samplePath, dir);
    ASSERT_EQ(run.result, 0);
    EXPECT_TRUE(run.inputUnchanged) << "the damaged file must stay as it was";
    EXPECT_TRUE(IsUuidName(run.repairedPath, dir.path(), engine.outExt.empty() ? ext : engine.outExt))
        << run.repairedPath;
    // Nothing else is left behind: no dumps in the work folder, no extractions.
    EXPECT_EQ(FilesIn(dir.path()), filesBefore + 2) << "the repaired file and the log only";
    EXPECT_TRUE(HasLine(run.log, engine.logLine));
    ASSERT_FALSE(run.events.empty());
    EXPECT_EQ(run.events.front(), "start");
    EXPECT_EQ(run.events.back(), "finish");

    const int decoded = ts::CountDecodedVideoFrames(run.repairedPath);
    EXPECT_GE(decoded * 10, survivors * 9) << "decoded " << decoded << " of " << survivors << " surviving frames";
    EXPECT_LE(decoded, int(frames.size()) + 2);
    if (c.clip.audio) EXPECT_GE(CountStreams(run.repairedPath, "a"), 1);
    else EXPECT_EQ(CountStreams(run.repairedPath, "a"), 0);

    if (c.engine == &kMkv) {
        // The rebuilt Cues take a seek to the middle.
        std::string out;
        ts::RunProgram({VR_TEST_FFPROBE, "-v", "error", "-show_entries", "format=duration", "-of", "csv=p=0",
                        run.repairedPath},
                       &out);
        const double duration = std::atof(out.c_str());
        EXPECT_GT(duration, 0.5);
        double firstTime = -1;
        EXPECT_GT(FramesAfterSeek(run.repairedPath, duration / 2, &firstTime), 0);
        EXPECT_GE(firstTime, duration / 2 - 1.5) << "the seek must land near the middle";
        if (HaveMkvmerge()) {
            std::string identify;
            EXPECT_EQ(ts::RunProgram({"mkvmerge", "--identify", run.repairedPath}, &identify), 0) << identify;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Damages, EngineRepair, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<Case>& info) { return info.param.name; });

// ---- what only some engines do ----

// An MKV whose head survived needs no sample.
TEST(EngineRepairSample, MkvWithItsOwnHeadNeedsNoSample) {
    const std::string good = Make(kMkvMpeg4, false);
    ASSERT_FALSE(good.empty());
    TempDir dir("mkvown");
    const std::string bytes = ReadFile(good), damaged = dir.file("tail_cut.mkv");
    WriteFile(damaged, bytes.substr(0, bytes.size() * 3 / 4));
    ManagerRun run = RepairThroughManager(damaged, "", dir);
    ASSERT_EQ(run.result, 0);
    EXPECT_TRUE(run.inputUnchanged);
    EXPECT_GE(ts::CountDecodedVideoFrames(run.repairedPath), int(ProbeVideoPackets(good).size()) * 3 / 4 * 9 / 10);
    EXPECT_TRUE(HasLine(run.log, "Using the damaged file's own head"));
}

// ffmpeg cannot describe this MXF sample: no rate is learnt, which is not a
// failure. The duration is then 100 frames / 30 fps, so
// the 25 fps video is cut to about 83 frames.
TEST(EngineRepairSample, MxfSampleWithoutUsableReportFallsBackToThirtyFps) {
    const std::string good = Make({"mxf_op1a_video", "mxf", {"-c:v", "mpeg2video", "-g", "12", "-q:v", "4"}, false}, false);
    ASSERT_FALSE(good.empty());
    TempDir dir("mxfsample");
    WriteFile(dir.file("sample.mxf"), std::string(5000, '\x33'));
    WriteFile(dir.file("damaged.mxf"), ReadFile(good));
    ManagerRun run = RepairThroughManager(dir.file("damaged.mxf"), dir.file("sample.mxf"), dir);
    ASSERT_EQ(run.result, 0);
    EXPECT_TRUE(HasLine(run.log, "[mxf] Video samples counts is:  100"));
    EXPECT_FALSE(HasLine(run.log, "[AnalyzeSampleVideo]"));
    const int decoded = ts::CountDecodedVideoFrames(run.repairedPath);
    EXPECT_GE(decoded, 80);
    EXPECT_LE(decoded, 86);
}
