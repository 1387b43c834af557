// One end-to-end repair per engine through the DLL, with the Windows ffmpeg.exe
// where the engine runs it: a healthy sample and a damaged recording of the same
// settings; the repaired file must decode and the damaged file stay untouched.
#include <gtest/gtest.h>

#include <random>

#include "DllHost.h"
#include "support/TestSupport.h"

using namespace testing_support;
using windows_test::DllHost;

namespace {

struct Case {
    const char* name;
    const char* ext;
    std::vector<std::string> codecs;  // the same settings for sample and recording
    int minimumFrames;                // of 100 in the recording
};

std::vector<std::string> Sources(const char* picture, const char* tone, int seconds) {
    std::string d = std::to_string(seconds);
    return {"-f", "lavfi", "-i", std::string(picture) + "=size=320x240:rate=25:duration=" + d,
            "-f", "lavfi", "-i", std::string("sine=frequency=") + tone + ":duration=" + d};
}

std::string Make(const Case& c, const std::string& role, const char* picture, const char* tone, int seconds) {
    std::vector<std::string> args = Sources(picture, tone, seconds);
    args.insert(args.end(), c.codecs.begin(), c.codecs.end());
    return GeneratedMedia(std::string("win_") + c.name + "_" + role + "." + c.ext, args);
}

// What a card pulled while recording leaves: the head zeroed, a range
// overwritten with noise, the tail lost.
std::string Damage(std::string bytes, size_t headBytes, int atPercent, int lengthPercent, int cutPercent) {
    std::mt19937 noise(7);
    for (size_t i = 0; i < headBytes && i < bytes.size(); ++i) bytes[i] = 0;
    size_t at = bytes.size() * size_t(atPercent) / 100;
    size_t length = bytes.size() * size_t(lengthPercent) / 100;
    for (size_t i = at; i < at + length && i < bytes.size(); ++i) bytes[i] = char(noise());
    bytes.resize(bytes.size() - bytes.size() * size_t(cutPercent) / 100);
    return bytes;
}

class EngineRepairOnWindows : public ::testing::TestWithParam<Case> {};

}  // namespace

TEST_P(EngineRepairOnWindows, RepairsThroughTheDll) {
    const Case& c = GetParam();
    std::string sample = Make(c, "sample", "testsrc", "880", 2);
    std::string original = Make(c, "original", "testsrc2", "440", 4);
    ASSERT_FALSE(sample.empty());
    ASSERT_FALSE(original.empty());
    TempDir dir(c.name);
    std::string damaged = dir.file(std::string("clip damaged.") + c.ext);
    WriteFile(damaged, Damage(ReadFile(original), 4096, 40, 2, 30));
    const std::string before = ReadFile(damaged);

    DllHost dll;
    IVideoRepairManager* manager = dll.NewManager();
    ASSERT_NE(manager, nullptr);
    RecordingObserver observer;
    ASSERT_EQ(manager->Initialize(&observer, dir.wpath().c_str(), dir.wfile("work").c_str()), 0);
    ASSERT_EQ(manager->Repair(Wide(damaged).c_str(), Wide(sample).c_str()), 0)
        << ReadFile(dir.file("KzVideoRepair.log"));
    std::wstring repaired = windows_test::RepairedPath(manager, Wide(damaged));
    manager->Release();

    ASSERT_FALSE(repaired.empty()) << ReadFile(dir.file("KzVideoRepair.log"));
    EXPECT_GE(CountDecodedVideoFrames(Narrow(repaired)), c.minimumFrames) << Narrow(repaired);
    EXPECT_EQ(ReadFile(damaged), before);
}

INSTANTIATE_TEST_SUITE_P(
    Engines, EngineRepairOnWindows,
    ::testing::Values(
        Case{"avi", "avi", {"-c:v", "mjpeg", "-c:a", "pcm_s16le"}, 40},
        Case{"flv", "flv", {"-c:v", "flv1", "-q:v", "3", "-c:a", "mp3", "-ar", "44100"}, 40},
        Case{"mkv", "mkv", {"-c:v", "mpeg4", "-g", "25", "-c:a", "pcm_s16le"}, 40},
        Case{"mpeg", "mpg", {"-c:v", "mpeg2video", "-g", "12", "-b:v", "2M", "-c:a", "mp2", "-f", "mpeg"}, 40},
        Case{"mts", "m2ts",
             {"-c:v", "mpeg2video", "-g", "12", "-bf", "0", "-c:a", "mp2", "-f", "mpegts", "-mpegts_m2ts_mode", "1"},
             40},
        Case{"mxf", "mxf",
             {"-c:v", "mpeg2video", "-g", "12", "-bf", "0", "-c:a", "pcm_s16le", "-ar", "48000", "-ac", "2"}, 40},
        Case{"wmv", "wmv", {"-c:v", "wmv2", "-b:v", "1M", "-c:a", "wmav2"}, 40}),
    [](const ::testing::TestParamInfo<Case>& info) { return std::string(info.param.name); });
