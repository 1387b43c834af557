// The thorough repair end to end, through the exported manager as a host drives
// it: every engine's clip under the damages users meet, judged by what decodes.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "IVideoRepairManager.h"
#include "VideoRepairExport.h"
#include "support/EngineClips.h"
#include "support/RepairHarness.h"

using namespace repair_harness;
using testing_support::CountDecodedVideoFrames;

namespace {

struct DamageCase {
    std::string name;
    Damage (*make)(int64_t size);
};

const std::vector<DamageCase>& Damages() {
    static const std::vector<DamageCase> cases = {
        {"Intact", [](int64_t) { return Damage{}; }},
        {"NoiseInMiddle", [](int64_t n) { return Damage{{}, {{n * 45 / 100, n * 45 / 100 + n / 50}}}; }},
        {"ZeroHole", [](int64_t n) { return Damage{{{n / 2, n / 2 + n / 20}}}; }},
        {"CutAt60", [](int64_t n) { Damage d; d.keep = n * 6 / 10; return d; }},
        {"HeaderZeroed", [](int64_t n) { return Damage{{{0, std::min<int64_t>(8192, n / 4)}}}; }},
    };
    return cases;
}

class ThoroughRepairTest : public ::testing::TestWithParam<std::tuple<EngineClip, DamageCase>> {};

// Never worse than the damaged file as it is, every event a host expects, the
// input untouched, and nothing left beside it but the repaired file.
TEST_P(ThoroughRepairTest, NeverWorseThanTheDamagedFile) {
    const auto& [clip, damage] = GetParam();
    std::string healthy = MakeEngineClip(clip, false), sample = MakeEngineClip(clip, true);
    ASSERT_FALSE(healthy.empty());
    TempDir dir("thorough");
    std::string bytes = ReadFile(healthy);
    std::string damaged = dir.file("in/damaged." + clip.extension);
    std::filesystem::create_directories(dir.file("in"));
    WriteFile(damaged, ApplyDamage(bytes, damage.make(int64_t(bytes.size()))));
    int asIs = CountBitExactFrames(damaged, healthy);

    ThoroughRepairOptions options{};
    options.size = sizeof options;
    ManagerRun run = ThoroughRepairThroughManager(damaged, sample, dir, &options);

    EXPECT_TRUE(run.inputUnchanged);
    if (run.result != 0) {
        EXPECT_EQ(asIs, 0) << "failed although the damaged file plays";
        return;
    }
    ASSERT_EQ(run.events.front(), "start");
    EXPECT_EQ(run.events.back(), "finish");
    EXPECT_TRUE(IsUuidName(run.repairedPath, dir.file("in"), clip.extension)) << run.repairedPath;
    EXPECT_EQ(FilesIn(dir.file("in")), 2u) << "only the damaged and the repaired file";
    int repaired = CountBitExactFrames(run.repairedPath, healthy);
    EXPECT_GE(repaired, asIs * 98 / 100) << "as is " << asIs << ", verdict " << options.reason;
    EXPECT_NE(options.verdict, kVerdictNone);
    EXPECT_GT(options.repaired.videoFrames, 0);
    if (damage.name == "Intact") {
        EXPECT_GE(repaired, 48);
    }
}

INSTANTIATE_TEST_SUITE_P(Engines, ThoroughRepairTest,
                         ::testing::Combine(::testing::ValuesIn(AllEngineClips()), ::testing::ValuesIn(Damages())),
                         [](const auto& info) {
                             return std::get<0>(info.param).engine + std::get<1>(info.param).name;
                         });

// Writers that send the decoder configuration only now and then: here every copy
// of it was wiped in place, so the damaged file decodes nothing as it is. The
// sample's copy, put in front of the first key frame, brings the stream back.
struct WipedHeaderCase {
    std::string name, extension;
    std::vector<std::string> codecArgs;
    bool (*isHeader)(uint8_t unitType);
};

// Zeros every Annex B unit that isHeader names, from its start code to the next
// start code, never past the 188-byte transport packet it begins in.
std::string WipeHeaders(std::string bytes, bool (*isHeader)(uint8_t), size_t packetBytes) {
    for (size_t i = 0; i + 4 < bytes.size(); ++i) {
        if (bytes[i] != 0 || bytes[i + 1] != 0 || bytes[i + 2] != 1 || !isHeader(uint8_t(bytes[i + 3]))) continue;
        size_t end = packetBytes > 0 ? std::min(bytes.size(), (i / packetBytes + 1) * packetBytes) : bytes.size();
        size_t next = bytes.find(std::string("\0\0\1", 3), i + 3);
        for (size_t j = i; j < std::min(end, next); ++j) bytes[j] = 0;
    }
    return bytes;
}

TEST(ThoroughRepairRestoreTest, DecoderConfigurationComesBackFromTheSample) {
    const WipedHeaderCase cases[] = {
        {"h264", "mts", {"-c:v", "libx264", "-pix_fmt", "yuv420p", "-preset", "veryfast", "-g", "25", "-f", "mpegts"},
         [](uint8_t t) { return (t & 0x1F) == 7 || (t & 0x1F) == 8; }},
        {"mpeg2", "mpg", {"-c:v", "mpeg2video", "-g", "12", "-q:v", "5", "-f", "vob"},
         [](uint8_t t) { return t == 0xB3; }},
    };
    for (const WipedHeaderCase& c : cases) {
        SCOPED_TRACE(c.name);
        auto make = [&](const char* source, const char* tag) {
            std::vector<std::string> args = {"-f", "lavfi", "-i", std::string(source) + "=size=320x240:rate=25:duration=2",
                                             "-an"};
            args.insert(args.end(), c.codecArgs.begin(), c.codecArgs.end());
            return testing_support::GeneratedMedia("wiped_" + c.name + tag + "." + c.extension, args);
        };
        std::string healthy = make("testsrc", ""), sample = make("testsrc2", "_sample");
        TempDir dir("wiped");
        std::string damaged = dir.file("damaged." + c.extension);
        WriteFile(damaged, WipeHeaders(ReadFile(healthy), c.isHeader, c.extension == "mts" ? 188 : 2048));
        EXPECT_LE(CountBitExactFrames(damaged, healthy), 5) << "the wipe left a header";
        ThoroughRepairOptions options{};
        options.size = sizeof options;
        ManagerRun run = ThoroughRepairThroughManager(damaged, sample, dir, &options);
        ASSERT_EQ(run.result, 0);
        EXPECT_GE(CountBitExactFrames(run.repairedPath, healthy), 45) << options.reason;
        EXPECT_TRUE(HasLine(run.log, "parameter sets from the sample")) << options.reason;
    }
}

TEST(ThoroughRepairOptionsTest, OtherOptionsAndShortStructsDoNothing) {
    std::string healthy = MakeEngineClip(AllEngineClips()[0], false);
    TempDir dir("options");
    ThoroughRepairOptions tooSmall{};
    tooSmall.size = 4;
    ThoroughRepairOptions fine{};
    fine.size = sizeof fine;
    struct Case {
        uint32_t option;
        ThoroughRepairOptions* data;
    } cases[] = {{0, &fine}, {2, &fine}, {0xFFFFFFFFu, &fine}, {kRepairOptionThorough, &tooSmall}};
    for (const Case& c : cases) {
        IVideoRepairManager* manager = nullptr;
        ASSERT_EQ(InitKzVideoRepairLib(&manager), 0);
        testing_support::RecordingObserver observer;
        manager->Initialize(&observer, dir.wpath().c_str(), dir.wfile("work").c_str());
        std::wstring video = testing_support::Wide(healthy);
        EXPECT_EQ(manager->RepairWithOptions(video.c_str(), video.c_str(), c.option, c.data), -1) << c.option;
        EXPECT_TRUE(observer.Events().empty());
        wchar_t path[4096];
        EXPECT_EQ(manager->GetRepairedFilePath(path, video.c_str()), -1);
        manager->Release();
    }
}

// A caller that knows only the first fields gets nothing written past them; the
// output path it names is where the file goes, and SaveAs serves the record.
TEST(ThoroughRepairOptionsTest, OldCallersAndOutputPath) {
    const EngineClip& clip = AllEngineClips()[0];
    std::string healthy = MakeEngineClip(clip, false);
    TempDir dir("outpath");
    std::string damaged = dir.file("damaged." + clip.extension);
    WriteFile(damaged, ReadFile(healthy));
    std::wstring output = dir.wfile("chosen." + clip.extension);
    struct {
        ThoroughRepairOptions options;
        char guard[8];
    } call{};
    call.options.size = kThoroughOptionsMinimumSize;
    call.options.outputPath = output.c_str();
    call.options.verdict = 77;
    ManagerRun run = ThoroughRepairThroughManager(damaged, "", dir, &call.options);
    ASSERT_EQ(run.result, 0);
    EXPECT_EQ(run.repairedPath, testing_support::Narrow(output));
    EXPECT_EQ(call.options.verdict, 77) << "written past the caller's size";
    EXPECT_GE(CountDecodedVideoFrames(testing_support::Narrow(output)), 48);
}

// The record of a thorough repair serves GetRepairedFilePath and SaveAs as Repair's does.
TEST(ThoroughRepairOptionsTest, RecordServesSaveAs) {
    const EngineClip& clip = AllEngineClips()[1];
    std::string healthy = MakeEngineClip(clip, false);
    TempDir dir("saveas");
    std::string damaged = dir.file("damaged." + clip.extension);
    WriteFile(damaged, ReadFile(healthy).substr(0, size_t(testing_support::FileSize(healthy) * 7 / 10)));
    IVideoRepairManager* manager = nullptr;
    ASSERT_EQ(InitKzVideoRepairLib(&manager), 0);
    testing_support::RecordingObserver observer;
    manager->Initialize(&observer, dir.wpath().c_str(), dir.wfile("work").c_str());
    ThoroughRepairOptions options{};
    options.size = sizeof options;
    std::wstring video = testing_support::Wide(damaged), saved = dir.wfile("saved." + clip.extension);
    ASSERT_EQ(manager->RepairWithOptions(video.c_str(), L"", kRepairOptionThorough, &options), 0);
    wchar_t path[4096];
    ASSERT_EQ(manager->GetRepairedFilePath(path, video.c_str()), 0);
    EXPECT_EQ(manager->SaveAs(video.c_str(), saved.c_str()), 0);
    manager->Release();
    EXPECT_EQ(ReadFile(testing_support::Narrow(saved)), ReadFile(testing_support::Narrow(path)));
    EXPECT_GT(CountBitExactFrames(testing_support::Narrow(saved), healthy), 30);
}

// Cancel half way: the repair still returns a playable file with what it found.
TEST(ThoroughRepairCancelTest, CancelKeepsAPlayableResult) {
    std::string healthy = testing_support::GeneratedMedia(
        "thorough_long.ts", {"-f", "lavfi", "-i", "testsrc=size=160x120:rate=25:duration=40", "-an", "-c:v",
                             "mpeg2video", "-g", "12", "-q:v", "8", "-f", "mpegts"});
    TempDir dir("cancel");
    std::string damaged = dir.file("long.mts");
    WriteFile(damaged, ReadFile(healthy));
    IVideoRepairManager* manager = nullptr;
    ASSERT_EQ(InitKzVideoRepairLib(&manager), 0);
    struct CancellingObserver : testing_support::RecordingObserver {
        IVideoRepairManager* manager = nullptr;
        std::atomic<bool> cancelled{false};
        void OnProgress(int32_t kind, int32_t value, int32_t r, void* d) override {
            RecordingObserver::OnProgress(kind, value, r, d);
            if (value >= 20 && !cancelled.exchange(true)) manager->Cancel(0);
        }
    } observer;
    observer.manager = manager;
    manager->Initialize(&observer, dir.wpath().c_str(), dir.wfile("work").c_str());
    ThoroughRepairOptions options{};
    options.size = sizeof options;
    std::wstring video = testing_support::Wide(damaged);
    ASSERT_EQ(manager->RepairWithOptions(video.c_str(), L"", kRepairOptionThorough, &options), 0);
    wchar_t path[4096];
    ASSERT_EQ(manager->GetRepairedFilePath(path, video.c_str()), 0);
    manager->Release();
    int frames = CountDecodedVideoFrames(testing_support::Narrow(path));
    EXPECT_TRUE(observer.cancelled);
    EXPECT_GT(frames, 0);
    EXPECT_LT(frames, 1000) << "the cancel did not shorten the repair";
}

}  // namespace

// Cameras name their files 00000.MTS or MVI_0001.AVI: the thorough road takes
// any letter case, while Repair keeps its exact-case table and refuses them.
TEST(ThoroughRepairNamesTest, UpperCaseExtensionsTakeTheThoroughRoad) {
    for (const EngineClip& clip : AllEngineClips()) {
        SCOPED_TRACE(clip.engine);
        std::string healthy = MakeEngineClip(clip, false);
        TempDir dir("uppercase");
        std::string extension = clip.extension;
        for (char& c : extension) c = char(std::toupper(static_cast<unsigned char>(c)));
        std::string damaged = dir.file("CLIP." + extension);
        WriteFile(damaged, ReadFile(healthy).substr(0, size_t(testing_support::FileSize(healthy) * 7 / 10)));
        ManagerRun thorough = ThoroughRepairThroughManager(damaged, "", dir);
        ASSERT_EQ(thorough.result, 0);
        EXPECT_GT(CountDecodedVideoFrames(thorough.repairedPath), 0) << thorough.repairedPath;
        EXPECT_EQ(RepairThroughManager(damaged, MakeEngineClip(clip, true), dir).result, -1);
    }
}
