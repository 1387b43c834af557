// The AVI engine on hand-made byte layouts: the scan, the chunk walk and the
// output (end-to-end repairs are in engine_repair_test.cpp).
#include <gtest/gtest.h>

#include <algorithm>

#include "AviAdvanceRepair.h"
#include "support/RepairHarness.h"

using namespace repair_harness;

namespace {

std::string Chunk(const std::string& id, const std::string& body) {
    std::string s = id;
    PutLe32(s, uint32_t(body.size()));
    s += body;
    if (body.size() % 2) s.push_back('\0');
    return s;
}

std::string List(const std::string& type, const std::string& body) {
    std::string s = "LIST";
    PutLe32(s, uint32_t(body.size() + 4));
    return s + type + body;
}

std::string Zeros(size_t n) { return std::string(n, '\0'); }

// A small but well-formed sample: one video and one audio stream, an INFO list.
std::string SampleAvi(const std::string& moviBody) {
    std::string avih = Zeros(56);
    std::string strhV = "vids" + Zeros(52), strhA = "auds" + Zeros(52);
    std::string hdrl = Chunk("avih", avih) + List("strl", Chunk("strh", strhV) + Chunk("strf", Zeros(40))) +
                       List("strl", Chunk("strh", strhA) + Chunk("strf", Zeros(18)) + Chunk("JUNK", Zeros(20)));
    std::string body = "AVI " + List("hdrl", hdrl) + List("INFO", Chunk("ISFT", "test")) + List("movi", moviBody) +
                       Chunk("idx1", "");
    std::string riff = "RIFF";
    PutLe32(riff, uint32_t(body.size()));
    return riff + body;
}

struct AviRun {
    TempDir dir{"avi"};
    AviAdvanceRepair engine;
    std::vector<int> progress;
    std::string damagedPath = dir.file("damaged.avi");
    std::string samplePath = dir.file("sample.avi");

    int Repair(const std::string& damaged, const std::string& sample = SampleAvi(Chunk("00dc", "x"))) {
        WriteFile(damagedPath, damaged);
        if (!sample.empty()) WriteFile(samplePath, sample);
        engine.SetProgressCallback([this](int p) { progress.push_back(p); });
        engine.SetVideoPath(testing_support::Wide(damagedPath), testing_support::Wide(samplePath));
        return engine.Repair();
    }
    std::string Output() {
        std::wstring result;
        engine.GetRepairedVideo(result, testing_support::Wide(damagedPath), L"", 0);
        return result.empty() ? std::string() : ReadFile(testing_support::Narrow(result));
    }
    ~AviRun() { engine.Release(); }
};

struct Expected {
    std::string id;
    uint32_t flags, offset, size;
};

void ExpectEntries(const std::vector<AviIndexEntry>& got, const std::vector<Expected>& want) {
    ASSERT_EQ(got.size(), want.size());
    for (size_t i = 0; i < want.size(); ++i) {
        std::string id(reinterpret_cast<const char*>(&got[i].chunkId), 4);
        EXPECT_EQ(id, want[i].id) << i;
        EXPECT_EQ(got[i].flags, want[i].flags) << i;
        EXPECT_EQ(got[i].offset, want[i].offset) << i;
        EXPECT_EQ(got[i].size, want[i].size) << i;
    }
}

}  // namespace

TEST(AviScan, FindsMoviAndIdx1InAHealthyFile) {
    std::string movi = Chunk("00dc", std::string(100, 'v')) + Chunk("01wb", std::string(30, 'a'));
    std::string file = SampleAvi(movi);
    AviRun run;
    ASSERT_EQ(run.Repair(file, file), 0);
    EXPECT_EQ(run.engine.MoviOffset(), int64_t(file.find("movi")));
    EXPECT_FALSE(run.engine.MoviTentative());
    EXPECT_EQ(run.engine.Idx1Offset(), int64_t(file.rfind("idx1")));
    ExpectEntries(run.engine.IndexEntries(), {{"00dc", 16, 4, 100}, {"01wb", 0, 112, 30}});
    // The walk stops at idx1; the header is the sample's up to its LIST movi.
    EXPECT_EQ(run.engine.SampleInfo().headerLength, file.find("movi") - 8);
    EXPECT_EQ(run.engine.SampleInfo().streamHeaders.size(), 2u);
    EXPECT_EQ(run.engine.SampleInfo().videoFormats.size(), 1u);
    EXPECT_EQ(run.engine.SampleInfo().audioFormats.size(), 1u);
    EXPECT_FALSE(run.engine.SampleInfo().infoList.empty());
}

namespace {

struct WalkCase {
    const char* name;
    std::string damaged;
    int64_t moviOffset;
    bool tentative;
    std::vector<Expected> entries;
    uint32_t moviSize;  // 0: not checked
};

const std::string kA = Chunk("00dc", std::string(10, 'v')), kB = Chunk("01wb", std::string(6, 'a')),
                  kC = Chunk("00db", std::string(20, 'v')), kTwo = Chunk("00dc", "abcd") + Chunk("01wb", "ef");

// Offsets count from the movi list's type word; skipped garbage does not count.
const std::vector<WalkCase> kWalkCases = {
    // "00dc" at 1022..1025 straddles the first 1024-byte block: the movi offset
    // is taken four bytes in front of it, tentatively.
    {"ChunkIdAcrossTheBlockBorder", Filler(1022) + kTwo, 1018, true, {{"00dc", 16, 0, 4}, {"01wb", 0, 12, 2}}, 0},
    {"MoviWordAcrossTheBlockBorder", Filler(1022) + "movi" + kTwo, 1022, false,
     {{"00dc", 16, 4, 4}, {"01wb", 0, 16, 2}}, 0},
    {"ResynchronisesOverShortAndLongGarbage", "movi" + kA + Filler(300) + kB + Filler(3000) + kC, 0, false,
     {{"00dc", 16, 4, 10}, {"01wb", 0, 22, 6}, {"00db", 16, 36, 20}}, 4 + 18 + 14 + 28},
    // Odd sizes are padded; only video chunks are key frames; JUNK is not indexed.
    {"PadsOddSizesAndMarksOnlyVideoAsKeyFrames",
     "movi" + Chunk("00dc", "12345") + Chunk("JUNK", "jj") + Chunk("01wb", "1234567") + Chunk("00db", "1234") +
         Chunk("01pc", "") + Chunk("ix00", "12"),
     0, false, {{"00dc", 16, 4, 6}, {"01wb", 0, 28, 8}, {"00db", 16, 44, 4}, {"01pc", 0, 56, 0}, {"ix00", 0, 64, 2}}, 0},
};

void PrintTo(const WalkCase& c, std::ostream* os) { *os << c.name; }

class AviWalk : public ::testing::TestWithParam<WalkCase> {};

}  // namespace

TEST_P(AviWalk, IndexesEveryChunkFound) {
    const WalkCase& c = GetParam();
    AviRun run;
    ASSERT_EQ(run.Repair(c.damaged), 0);
    EXPECT_EQ(run.engine.MoviOffset(), c.moviOffset);
    EXPECT_EQ(run.engine.MoviTentative(), c.tentative);
    ExpectEntries(run.engine.IndexEntries(), c.entries);
    if (c.moviSize != 0) {
        EXPECT_EQ(run.engine.MoviSize(), c.moviSize);
    }
}

INSTANTIATE_TEST_SUITE_P(Layouts, AviWalk, ::testing::ValuesIn(kWalkCases),
                         [](const ::testing::TestParamInfo<WalkCase>& info) { return info.param.name; });

TEST(AviOutput, SampleHeaderPatchedThenDataThenIndex) {
    std::string sample = SampleAvi(Chunk("00dc", std::string(500, 's')));
    std::string movi = Chunk("00dc", std::string(100, 'v')) + Chunk("01wb", std::string(31, 'a'));
    std::string damaged = SampleAvi(movi);
    // Destroy everything in front of the data: no "movi" word survives.
    size_t firstChunk = damaged.find("00dc");
    damaged.replace(0, firstChunk, Zeros(firstChunk));
    AviRun run;
    ASSERT_EQ(run.Repair(damaged, sample), 0);
    ASSERT_TRUE(run.engine.MoviTentative());
    const std::string out = run.Output();

    const size_t headerLength = sample.find("movi") - 8;
    ASSERT_GE(out.size(), headerLength + 12);
    std::string header = out.substr(0, headerLength);
    EXPECT_EQ(header.substr(0, 4), "RIFF");
    EXPECT_EQ(header.substr(8, 40), sample.substr(8, 40));
    EXPECT_EQ(header.substr(52), sample.substr(52, headerLength - 52));
    const uint32_t entries = uint32_t(run.engine.IndexEntries().size());
    EXPECT_EQ(Le32At(header, 48), entries);  // avih total frames
    // Without a "movi" word the list length starts at 0: the list announces four
    // bytes less than a real movi list would, and the output carries four bytes
    // less of the chunks.
    const uint32_t moviSize = Le32At(out, headerLength + 4);
    EXPECT_EQ(moviSize, uint32_t(movi.size()));
    EXPECT_EQ(out.substr(headerLength, 4), "LIST");
    EXPECT_EQ(out.substr(headerLength + 8, 4), "movi");
    EXPECT_EQ(out.substr(headerLength + 12, moviSize - 4), damaged.substr(firstChunk, moviSize - 4));
    // The damaged file's old idx1 was walked through as garbage; a rebuilt one follows.
    const size_t idx1 = headerLength + 8 + moviSize;
    EXPECT_EQ(out.substr(idx1, 4), "idx1");
    EXPECT_EQ(Le32At(out, idx1 + 4), 16 * entries);
    EXPECT_EQ(out.size(), idx1 + 8 + 16 * entries);
    EXPECT_EQ(out.substr(idx1 + 8, 4), "00dc");
    EXPECT_EQ(Le32At(out, 4), uint32_t(out.size() - 8));  // RIFF size
}

TEST(AviOutput, IndexOf65535EntriesIsWrittenButNotOf65536) {
    for (uint32_t count : {65535u, 65536u}) {
        std::string movi = "movi";
        movi.reserve(4 + 8 * size_t(count));
        for (uint32_t i = 0; i < count; ++i) movi += Chunk(i % 2 ? "01wb" : "00dc", "");
        AviRun run;
        ASSERT_EQ(run.Repair(movi), 0);
        ASSERT_EQ(run.engine.IndexEntries().size(), count);
        const std::string out = run.Output();
        const size_t headerLength = size_t(run.engine.SampleInfo().headerLength);
        const size_t idx1 = headerLength + 8 + Le32At(out, headerLength + 4);
        ASSERT_EQ(out.substr(idx1, 4), "idx1");
        EXPECT_EQ(Le32At(out, idx1 + 4), 16 * count) << "the head always announces every entry";
        const size_t written = out.size() - idx1 - 8;
        EXPECT_EQ(written, count == 65535 ? 16 * size_t(count) : 0u) << count;
    }
}

TEST(AviRepair, MissingSampleGivesOutputWithoutHeaderAndProgressMilestones) {
    AviRun run;
    const std::string damaged = "movi" + Chunk("00dc", "abcd");
    ASSERT_EQ(run.Repair(damaged, std::string()), 0);
    const std::string out = run.Output();
    EXPECT_EQ(out.substr(0, 4), "LIST");
    EXPECT_EQ(out.substr(8, 4), "movi");
    ASSERT_FALSE(run.progress.empty());
    EXPECT_EQ(run.progress.front(), 2);
    EXPECT_EQ(run.progress.back(), 100);
    EXPECT_TRUE(std::is_sorted(run.progress.begin(), run.progress.end()));
    for (int milestone : {75, 85}) {
        EXPECT_NE(std::find(run.progress.begin(), run.progress.end(), milestone), run.progress.end());
    }
    EXPECT_EQ(ReadFile(run.damagedPath), damaged);
}
