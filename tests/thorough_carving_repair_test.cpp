// The container carvers end to end through the manager: files whose header was
// lost come back with their decoder configuration written once, and a sample
// recorded at another picture size does not impose its size.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "support/RepairHarness.h"

using namespace repair_harness;

namespace {

constexpr int kFrames = 100;  // 4 s at 25 fps, a key frame every 25

std::string Clip(const std::string& name, const std::string& source, const std::string& size, double seconds,
                 const std::vector<std::string>& codec) {
    std::string d = std::to_string(seconds);
    std::vector<std::string> args = {"-f", "lavfi", "-i", source + "=size=" + size + ":rate=25:duration=" + d,
                                     "-f", "lavfi", "-i", "sine=frequency=440:sample_rate=44100:duration=" + d};
    args.insert(args.end(), codec.begin(), codec.end());
    return testing_support::GeneratedMedia(name, args);
}

// FLV tags that carry a sequence header: AVC (video codec 7) and AAC (sound format 10),
// packet type 0.
struct SequenceHeaders {
    int avc = 0, aac = 0;
};
SequenceHeaders CountSequenceHeaders(const std::string& bytes) {
    SequenceHeaders found;
    for (size_t at = 13; at + 13 <= bytes.size();) {
        uint8_t type = uint8_t(bytes[at]);
        size_t size = size_t(uint8_t(bytes[at + 1])) << 16 | size_t(uint8_t(bytes[at + 2])) << 8 | uint8_t(bytes[at + 3]);
        uint8_t first = uint8_t(bytes[at + 11]), second = uint8_t(bytes[at + 12]);
        if (type == 9 && (first & 15) == 7 && second == 0) ++found.avc;
        if (type == 8 && (first >> 4) == 10 && second == 0) ++found.aac;
        at += 11 + size + 4;
    }
    return found;
}

// The width the AVI header itself declares (the first strf's BITMAPINFOHEADER), which
// players size their pictures by; a decoder reads the bitstream's own instead.
int DeclaredWidth(const std::string& bytes) {
    size_t at = bytes.find("strf");
    return at == std::string::npos || at + 16 > bytes.size() ? -1 : int(Le32At(bytes, at + 12));
}

int Width(const std::string& path) {
    std::string out;
    testing_support::RunProgram({VR_TEST_FFPROBE, "-v", "error", "-select_streams", "v:0", "-show_entries",
                                 "stream=width", "-of", "csv=p=0", path},
                                &out);
    return std::atoi(out.c_str());
}

struct CarveCase {
    std::string name, extension;
    std::vector<std::string> codec;
    std::string sampleSize;
    bool headerLost;  // else noise in the middle
    int leastExact;   // bit-exact frames at least (a lost header takes the first group of pictures)
};

TEST(ThoroughCarvingRepairTest, HeaderLossAndOtherSampleSizes) {
    const std::vector<std::string> h264 = {"-c:v", "libx264", "-pix_fmt", "yuv420p", "-preset", "veryfast",
                                           "-g", "25", "-c:a", "aac"};
    const CarveCase cases[] = {
        {"flv_h264_header", "flv", h264, "320x240", true, 72},
        {"flv_h264_noise", "flv", h264, "320x240", false, -1},
        {"mkv_h264_header", "mkv", h264, "320x240", true, 72},
        {"avi_mpeg4_other_size", "avi", {"-c:v", "mpeg4", "-g", "25", "-q:v", "4", "-c:a", "libmp3lame"}, "160x120",
         true, 95},
    };
    for (const CarveCase& c : cases) {
        SCOPED_TRACE(c.name);
        std::string healthy = Clip("carve_" + c.name + "." + c.extension, "testsrc2", "320x240", kFrames / 25.0, c.codec);
        std::string sample =
            Clip("carve_" + c.name + "_sample." + c.extension, "testsrc", c.sampleSize, 2.0, c.codec);
        ASSERT_FALSE(healthy.empty() || sample.empty());
        TempDir dir("carverepair");
        std::string damaged = dir.file("in/damaged." + c.extension);
        std::filesystem::create_directories(dir.file("in"));
        std::string bytes = ReadFile(healthy);
        int64_t n = int64_t(bytes.size());
        Damage damage = c.headerLost ? Damage{{{0, 8192}}} : Damage{{}, {{n * 45 / 100, n * 45 / 100 + n / 50}}};
        WriteFile(damaged, ApplyDamage(bytes, damage));
        int asIs = CountBitExactFrames(damaged, healthy);

        ThoroughRepairOptions options{};
        options.size = sizeof options;
        ManagerRun run = ThoroughRepairThroughManager(damaged, sample, dir, &options);
        ASSERT_EQ(run.result, 0);
        int exact = CountBitExactFrames(run.repairedPath, healthy);
        EXPECT_GE(exact, std::max(asIs, c.leastExact)) << options.reason;
        EXPECT_EQ(Width(run.repairedPath), 320);
        if (c.extension == "avi") EXPECT_EQ(DeclaredWidth(ReadFile(run.repairedPath)), 320);
        if (c.extension == "flv") {
            SequenceHeaders headers = CountSequenceHeaders(ReadFile(run.repairedPath));
            EXPECT_EQ(headers.avc, 1);
            EXPECT_EQ(headers.aac, 1);
        }
    }
}

}  // namespace
