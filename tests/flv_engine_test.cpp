// The FLV engine on hand-made tag layouts: the scan, its runs and the output
// (end-to-end repairs are in engine_repair_test.cpp).
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

std::string ZeroSizeTag() {
    std::string zero(1, '\x09');
    PutBe24(zero, 0);
    zero += std::string(7, '\0');
    PutBe32(zero, 11);
    return zero;
}

std::string SizeWordOff() {
    std::string broken = Tag(9, 600);
    broken[broken.size() - 1] ^= 1;
    return broken;
}

struct ScanCase {
    const char* name;
    std::string damaged;
    Runs runs;
};

// The scan finds runs of consistent tags; the output is the sample's head and every run.
const std::vector<ScanCase> kScanCases = {
    // A damaged head, two runs separated by garbage far enough apart to be found.
    {"TwoRunsAroundGarbage", Filler(13, 'A') + Tags(4, 100) + Filler(1500) + Tags(3, 250),
     {{13, 413}, {1913, 2663}}},
    // A tag of data size 0 is never a candidate, and inside a run it ends the run.
    {"ZeroSizeTagAlone", Filler(100) + ZeroSizeTag() + Filler(100), {}},
    {"ZeroSizeTagEndsARun", Filler(20) + Tags(2, 60) + ZeroSizeTag() + Filler(3000), {{20, 140}}},
    // Candidates near the 1024-byte block end are tested on the realigned block...
    {"CandidateAt1014", Filler(1014) + Tags(5, 100), {{1014, 1514}}},
    {"CandidateAt1018", Filler(1018) + Tags(5, 100), {{1018, 1518}}},
    // ...but in its last three bytes the size comes partly from the refilled
    // bytes, so that tag is missed; the scan picks the run up past that block.
    {"CandidateInTheLastThreeBytes", Filler(1022) + Tags(20, 100), {{1022 + 1100, 1022 + 2000}}},
    // The scan resumes 1024 bytes past a run: run B, 20 bytes after A, is never seen.
    {"ResumesPastARun", Filler(13) + Tags(3, 100) + Filler(20) + Tags(5, 100) + Filler(2000) + Tags(3, 100),
     {{13, 313}, {2833, 3133}}},
    // A disagreeing size word ends a run; 1024 bytes on, the fourth tag starts the next.
    {"SizeWordDisagrees", Tag(9, 600) + SizeWordOff() + Tags(4, 600), {{0, 600}, {1800, 3600}}},
};

void PrintTo(const ScanCase& c, std::ostream* os) { *os << c.name; }

class FlvScan : public ::testing::TestWithParam<ScanCase> {};

}  // namespace

TEST_P(FlvScan, FindsTheRunsAndWritesThemBehindTheSampleHead) {
    const ScanCase& c = GetParam();
    FlvRunner run;
    ASSERT_EQ(run.Repair(c.damaged), 0);
    EXPECT_EQ(run.Runs(), c.runs);
    std::string expected = SampleHead();
    for (const auto& [begin, end] : c.runs) expected += c.damaged.substr(size_t(begin), size_t(end - begin));
    EXPECT_EQ(run.Output(), expected);
    EXPECT_EQ(run.progress, (std::vector<int>{20, 100}));
    EXPECT_EQ(ReadFile(run.damagedPath), c.damaged);
}

INSTANTIATE_TEST_SUITE_P(Layouts, FlvScan, ::testing::ValuesIn(kScanCases),
                         [](const ::testing::TestParamInfo<ScanCase>& info) { return info.param.name; });

TEST(FlvRepair, OutputThatCannotBeCreatedGivesNoPath) {
    FlvRunner run;
    ASSERT_EQ(run.Repair(Tags(2, 50)), 0);
    std::wstring result;
    run.engine.GetRepairedVideo(result, run.dir.wfile("no/such/dir/x.flv"), L"", 0);
    EXPECT_TRUE(result.empty());
}
