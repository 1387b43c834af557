// Files over 4 GiB, made sparse so that they cost no disk: real container bytes
// sit behind a hole of more than 4 GiB. Every engine scans from the first byte,
// as its format's rules say, so each of these repairs reads the whole hole
// (about 7 s a file on a 2-core test machine); the cases for all seven engines
// therefore run only when VR_LARGE_FILE_TESTS is set. The AVI 1.0 limit case,
// where a container's own 32-bit fields meet a larger file, always runs.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>

#include "AviAdvanceRepair.h"
#include "RepairLog.h"
#include "support/EngineClips.h"
#include "support/RepairHarness.h"

using namespace repair_harness;

namespace {

constexpr int64_t kFourGiB = int64_t(1) << 32;

// A file of `holeBytes` unwritten bytes followed by `tail`.
bool WriteSparse(const std::string& path, int64_t holeBytes, const std::string& tail) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    bool ok = ::ftruncate(fd, holeBytes) == 0 &&
              ::pwrite(fd, tail.data(), tail.size(), holeBytes) == ssize_t(tail.size());
    return ::close(fd) == 0 && ok;
}

bool LargeFileTestsWanted() { return std::getenv("VR_LARGE_FILE_TESTS") != nullptr; }

class VeryLargeFile : public ::testing::TestWithParam<EngineClip> {};

}  // namespace

TEST_P(VeryLargeFile, DataAboveFourGiBIsFoundAndCopied) {
    if (!LargeFileTestsWanted()) GTEST_SKIP() << "reads a 4 GiB hole; set VR_LARGE_FILE_TESTS=1 to run it";
    const std::string clip = MakeEngineClip(GetParam(), false), sample = MakeEngineClip(GetParam(), true);
    ASSERT_FALSE(clip.empty());
    TempDir dir("large");
    const std::string damaged = dir.file("large." + GetParam().extension);
    const std::string bytes = ReadFile(clip);
    // The MXF scan gives up after 2^31 bytes that match no element, as its rules
    // say ("[MXF] Unused size exceed"): its clip sits just below that point, past
    // the signed 32-bit boundary, where the scan still reaches it.
    const int64_t hole = GetParam().engine == "Mxf" ? (int64_t(1) << 31) - 65536 : kFourGiB + (1 << 20);
    ASSERT_TRUE(WriteSparse(damaged, hole, bytes));

    ManagerRun run = RepairThroughManager(damaged, sample, dir);
    ASSERT_EQ(run.result, 0);
    EXPECT_TRUE(run.inputUnchanged);
    ASSERT_FALSE(run.repairedPath.empty()) << [&] {
        std::string text;
        for (const std::string& line : run.log) text += line + "\n";
        return text;
    }();
    // The hole is not carried into the result: what comes back is the clip.
    EXPECT_LT(testing_support::FileSize(run.repairedPath), 4 * int64_t(bytes.size()) + (1 << 20));
    const int frames = int(ProbeVideoPackets(clip).size());
    const int decoded = testing_support::CountDecodedVideoFrames(run.repairedPath);
    EXPECT_GE(decoded * 10, frames * 9) << decoded << " of " << frames;
}

INSTANTIATE_TEST_SUITE_P(Engines, VeryLargeFile, ::testing::ValuesIn(AllEngineClips()),
                         [](const ::testing::TestParamInfo<EngineClip>& info) { return EngineName(info.param); });

// AVI 1.0 keeps sizes and idx1 offsets in 32 bits. A movi list whose chunks
// would take the result past 4 GiB is indexed up to the last chunk that fits;
// the walk stops there with a warning instead of wrapping the sizes around.
TEST(VeryLargeAvi, ChunksPastTheFourGiBLimitOfAvi10AreNotIndexed) {
    const std::string sample = MakeEngineClip(AllEngineClips()[0], true);
    ASSERT_FALSE(sample.empty());
    TempDir dir("largeavi");
    auto chunk = [](const std::string& id, uint32_t size, const std::string& body) {
        std::string s = id;
        PutLe32(s, size);
        return s + body;
    };
    const uint32_t hugeSize = 0xFFFFFF00u;
    const std::string head = "movi" + chunk("00dc", 100, std::string(100, 'v')) + chunk("01wb", 30, std::string(30, 'a')) +
                             chunk("00dc", hugeSize, "");
    const std::string tail = chunk("00dc", 4, "tail");
    const std::string damaged = dir.file("limit.avi");
    ASSERT_TRUE(WriteSparse(damaged, int64_t(head.size()) + hugeSize, tail));
    {
        // The head goes into the hole's first bytes.
        const int fd = ::open(damaged.c_str(), O_WRONLY | O_CLOEXEC);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(::pwrite(fd, head.data(), head.size(), 0), ssize_t(head.size()));
        ::close(fd);
    }
    const InputGuard input(damaged);

    RepairLog log(0, dir.file("engine.log"));
    AviAdvanceRepair engine;
    engine.SetLogger(&log);
    engine.SetVideoPath(testing_support::Wide(damaged), testing_support::Wide(sample));
    ASSERT_EQ(engine.Repair(), 0);
    ASSERT_EQ(engine.IndexEntries().size(), 2u);
    EXPECT_EQ(engine.IndexEntries()[1].offset, 4u + 108);
    EXPECT_EQ(engine.MoviSize(), 4u + 108 + 38);
    std::wstring out;
    engine.GetRepairedVideo(out, testing_support::Wide(damaged), L"", 0);
    engine.Release();
    log.Close();
    ASSERT_FALSE(out.empty());
    const std::string repaired = ReadFile(testing_support::Narrow(out));
    const std::string sampleBytes = ReadFile(sample);
    const size_t headerLength = sampleBytes.find("movi") - 8;
    ASSERT_EQ(repaired.size(), headerLength + 12 + (108 + 38) + 8 + 2 * 16);
    EXPECT_EQ(Le32At(repaired, 4), uint32_t(repaired.size() - 8)) << "the RIFF size";
    EXPECT_EQ(repaired.substr(headerLength + 12, 108 + 38), head.substr(4, 108 + 38));
    EXPECT_TRUE(input.Unchanged());
    EXPECT_TRUE(HasLine(testing_support::ReadLines(dir.file("engine.log")),
                        "[AVI] The movi list reaches the 4 GiB limit of AVI 1.0, indexing stops at: " +
                            std::to_string(head.size() - 8)));
}
