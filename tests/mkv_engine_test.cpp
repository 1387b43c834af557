// Byte-level checks of the MKV engine's pieces: EBML numbers, cluster
// acceptance, cutting and resynchronising, and the writer's output read back.
#include <gtest/gtest.h>

#include <cstring>

#include "MkvAdvanceRepair.h"
#include "MkvClusterParser.h"
#include "MkvClusterScanner.h"
#include "MkvHead.h"
#include "MkvWriter.h"
#include "io/FileReader.h"
#include "support/TestSupport.h"
#include "util/Ebml.h"
#include "util/EbmlElement.h"

namespace ts = testing_support;

namespace {

std::string Size(uint64_t n) {
    std::string out;
    int length = 1;
    while (length < 8 && n >= (uint64_t(1) << (7 * length)) - 1) ++length;
    ebml_out::AppendSize(out, n, length);
    return out;
}

std::string El(uint32_t id, const std::string& payload) {
    std::string out;
    ebml_out::AppendId(out, id);
    return out + Size(payload.size()) + payload;
}

std::string Uint(uint32_t id, uint64_t value) {
    std::string payload;
    for (int i = 7; i >= 0; --i) payload.push_back(char(value >> (8 * i)));
    return El(id, payload);
}

const std::string kUnknownSize("\x01\xFF\xFF\xFF\xFF\xFF\xFF\xFF", 8);

std::string Head() {
    std::string ebml = El(0x1A45DFA3, El(0x4282, "matroska"));
    std::string info = El(0x1549A966, Uint(0x2AD7B1, 1000000));
    std::string video = El(0xAE, Uint(0xD7, 1) + Uint(0x83, 1) + El(0x86, "V_TEST") + Uint(0x23E383, 40000000));
    std::string audio = El(0xAE, Uint(0xD7, 2) + Uint(0x83, 2) + El(0x86, "A_TEST"));
    return ebml + std::string("\x18\x53\x80\x67", 4) + kUnknownSize + info + El(0x1654AE6B, video + audio);
}

// A SimpleBlock of `bytes` payload bytes whose filler never looks like a Cluster id.
std::string Block(uint64_t track, int16_t relative, bool key, size_t bytes = 40) {
    std::string payload;
    payload.push_back(char(0x80 | track));
    payload.push_back(char(uint16_t(relative) >> 8));
    payload.push_back(char(relative & 0xFF));
    payload.push_back(char(key ? 0x80 : 0x00));
    payload.append(bytes, char(0x55));
    return El(0xA3, payload);
}

std::string Cluster(uint64_t timestamp, const std::string& children, bool unknownSize = false) {
    std::string payload = Uint(0xE7, timestamp) + children;
    if (!unknownSize) return El(0x1F43B675, payload);
    return std::string("\x1F\x43\xB6\x75", 4) + kUnknownSize + payload;
}

std::string FourBlocks(int16_t step = 40) {
    return Block(1, 0, true) + Block(2, 0, true) + Block(1, step, false) + Block(1, int16_t(2 * step), false);
}

class MkvBytesTest : public ::testing::Test {
protected:
    // Writes the bytes to a file and parses its head (or the standard one).
    void Load(const std::string& bytes) {
        path_ = dir_.file("t.mkv");
        ts::WriteFile(path_, bytes);
        ASSERT_TRUE(search_.Open(ts::Wide(path_)));
        ASSERT_TRUE(parse_.Open(ts::Wide(path_)));
        std::string why;
        ASSERT_TRUE(MkvHeadParser::Parse(search_, head_, why)) << why;
    }
    MkvClusterScanner& Scan() {
        scanner_.reset(new MkvClusterScanner(search_, parse_, head_, 0));
        while (scanner_->ScanBlock()) {
        }
        scanner_->Finish();
        return *scanner_;
    }
    bool ParseAt(int64_t offset, MkvParsedCluster& out) {
        MkvClusterParser parser(parse_, head_);
        return parser.Parse(offset, out);
    }

    ts::TempDir dir_{"mkvb"};
    std::string path_;
    FileReader search_, parse_;
    MkvHead head_;
    std::unique_ptr<MkvClusterScanner> scanner_;
};

int64_t Bytes(const std::vector<MkvRange>& ranges) {
    int64_t n = 0;
    for (const MkvRange& r : ranges) n += r.end - r.start;
    return n;
}

}  // namespace

TEST(EbmlNumbers, EveryLengthRoundTripsAndAllOnesIsReserved) {
    for (int length = 1; length <= 8; ++length) {
        uint64_t largest = (uint64_t(1) << (7 * length)) - 2;  // all ones minus one: still a value
        for (uint64_t value : {uint64_t(0), uint64_t(5), largest}) {
            std::string bytes;
            ebml_out::AppendSize(bytes, value, length);
            util::EbmlNumber n;
            ASSERT_TRUE(util::ReadEbmlNumber(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size(), n));
            EXPECT_EQ(n.value, value) << "length " << length;
            EXPECT_EQ(n.length, uint32_t(length));
            EXPECT_FALSE(n.allOnes);
            EXPECT_FALSE(util::ReadEbmlNumber(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size() - 1, n))
                << "a number cut short must fail, length " << length;
        }
        std::string ones;
        ebml_out::AppendSize(ones, largest + 1, length);
        util::EbmlNumber n;
        ASSERT_TRUE(util::ReadEbmlNumber(reinterpret_cast<const uint8_t*>(ones.data()), ones.size(), n));
        EXPECT_TRUE(n.allOnes) << "length " << length;
        util::EbmlElementHeader header;
        std::string element = std::string("\xEC", 1) + ones;
        ASSERT_TRUE(util::ParseEbmlHeader(reinterpret_cast<const uint8_t*>(element.data()), element.size(), header));
        EXPECT_TRUE(header.unknownSize);
        EXPECT_EQ(header.HeaderLength(), uint32_t(1 + length));
    }
    const uint8_t zero[9] = {0, 1, 2, 3, 4, 5, 6, 7, 8};
    util::EbmlNumber n;
    EXPECT_FALSE(util::ReadEbmlNumber(zero, sizeof zero, n));
    util::EbmlElementHeader header;
    const uint8_t fiveByteId[] = {0x08, 0x11, 0x22, 0x33, 0x44, 0x81};
    EXPECT_FALSE(util::ParseEbmlHeader(fiveByteId, sizeof fiveByteId, header));
}

TEST_F(MkvBytesTest, HeadWithDuplicateTrackNumbersIsRefused) {
    std::string bytes = Head();
    size_t at = bytes.find(std::string("\xD7\x88\0\0\0\0\0\0\0\x02", 10));
    ASSERT_NE(at, std::string::npos);
    bytes[at + 9] = 1;
    ts::WriteFile(dir_.file("dup.mkv"), bytes);
    FileReader file;
    ASSERT_TRUE(file.Open(ts::Wide(dir_.file("dup.mkv"))));
    MkvHead head;
    std::string why;
    EXPECT_FALSE(MkvHeadParser::Parse(file, head, why));
    EXPECT_FALSE(why.empty());
}

TEST_F(MkvBytesTest, ClusterWithCrcThenTimestampIsAccepted) {
    std::string crc = El(0xBF, std::string("\x12\x34\x56\x78", 4));
    std::string payload = crc + Uint(0xE7, 1000) + FourBlocks();
    Load(Head() + El(0x1F43B675, payload));
    MkvParsedCluster cluster;
    ASSERT_TRUE(ParseAt(int64_t(Head().size()), cluster));
    EXPECT_FALSE(cluster.cut);
    ASSERT_EQ(cluster.blocks.size(), 4u);
    EXPECT_EQ(cluster.blocks[2].time, 1040);
    EXPECT_EQ(cluster.blocks[2].endTime, 1080);  // DefaultDuration 40 ms
    EXPECT_TRUE(cluster.blocks[0].key);
    EXPECT_FALSE(cluster.blocks[3].key);
}

namespace {

struct ExpectedCluster {
    uint64_t timestamp;
    bool cut;
    int64_t bytes;  // of whole blocks kept
    size_t ranges;  // 0: not checked
};

struct ScanCase {
    const char* name;
    std::string body;  // behind the standard head
    std::vector<ExpectedCluster> clusters;
};

std::string Blocks(int n, size_t bytes) {
    std::string blocks;
    for (int i = 0; i < n; ++i) blocks += Block(1, int16_t(40 * i), i == 0, bytes);
    return blocks;
}

std::string ZeroedAt(std::string bytes, size_t at, size_t n) {
    std::fill(bytes.begin() + int64_t(at), bytes.begin() + int64_t(at + n), '\0');
    return bytes;
}

std::string Noise(size_t n) {
    std::string noise(n, '\0');
    for (size_t i = 0; i < noise.size(); ++i) noise[i] = char((i * 2654435761u) >> 11);
    return noise;
}

const int64_t k4 = int64_t(FourBlocks().size()), kBlock = int64_t(Block(1, 0, true).size());

const std::vector<ScanCase> kScanCases = {
    {"FirstChildNotATimestamp", El(0x1F43B675, Block(1, 0, true) + Uint(0xE7, 0) + Block(1, 40, false)), {}},
    // A block of an unknown track is dropped like damaged bytes, and a cluster
    // whose only block is foreign goes with it.
    {"BlockOfAnUnknownTrack",
     Cluster(0, Block(7, 0, true)) + Cluster(80, Block(1, 0, true) + Block(9, 40, false) + Block(1, 80, false)),
     {{80, true, 2 * kBlock, 2}}},
    {"UnknownSizeClusterEndsAtTheNextCluster",
     Cluster(0, FourBlocks(), true) + Cluster(160, FourBlocks()) + El(0x1C53BB6B, std::string(10, '\x42')),
     {{0, false, k4, 0}, {160, false, k4, 0}}},
    // The rest of the second cluster was lost: its whole blocks stay, and the next cluster.
    {"ClusterCutInHalf",
     Cluster(0, FourBlocks()) + Cluster(320, Blocks(8, 200)).substr(0, Cluster(320, Blocks(8, 200)).size() / 2) +
         Cluster(640, FourBlocks()),
     {{0, false, k4, 0}, {320, true, 3 * int64_t(Block(1, 0, true, 200).size()), 0}, {640, false, k4, 0}}},
    // Damage over the third block: the blocks after it are kept.
    {"DamageInsideACluster", ZeroedAt(Cluster(0, Blocks(6, 100)), Cluster(0, Blocks(6, 100)).size() - 4 * 106, 20),
     {{0, true, 5 * 106, 2}}},
    {"TruncatedCluster", Cluster(0, FourBlocks()).substr(0, Cluster(0, FourBlocks()).size() - 10),
     {{0, true, k4 - int64_t(Block(1, 80, false).size()), 0}}},
    {"HostileSizesAndNoise",
     std::string("\x1F\x43\xB6\x75\x01\x00\xFF\xFF\xFF\xFF\xFF\xF0", 12) + Uint(0xE7, 0) +
         std::string("\xA3\x01\x7F\xFF\xFF\xFF\xFF\xFF\xFF", 9) + Noise(200000) + "\x1F\x43\xB6\x75",
     {}},
};

void PrintTo(const ScanCase& c, std::ostream* os) { *os << c.name; }

class MkvScan : public MkvBytesTest, public ::testing::WithParamInterface<ScanCase> {};

}  // namespace

TEST_P(MkvScan, KeepsTheWholeBlocksOfValidClusters) {
    const ScanCase& c = GetParam();
    Load(Head() + c.body);
    const auto& clusters = Scan().Clusters();
    ASSERT_EQ(clusters.size(), c.clusters.size());
    size_t cut = 0;
    for (size_t i = 0; i < clusters.size(); ++i) {
        EXPECT_EQ(clusters[i].timestamp, c.clusters[i].timestamp) << i;
        EXPECT_EQ(clusters[i].cut, c.clusters[i].cut) << i;
        EXPECT_EQ(Bytes(clusters[i].ranges), c.clusters[i].bytes) << i;
        if (c.clusters[i].ranges != 0) {
            EXPECT_EQ(clusters[i].ranges.size(), c.clusters[i].ranges) << i;
        }
        cut += c.clusters[i].cut ? 1 : 0;
    }
    EXPECT_EQ(scanner_->CutCount(), cut);
}

INSTANTIATE_TEST_SUITE_P(Layouts, MkvScan, ::testing::ValuesIn(kScanCases),
                         [](const ::testing::TestParamInfo<ScanCase>& info) { return info.param.name; });

// What the writer produces must parse again as the same clusters, with Cues.
TEST_F(MkvBytesTest, WrittenFileReadsBackWithDurationAndCues) {
    Load(Head() + Cluster(0, FourBlocks()) + Cluster(160, FourBlocks()));
    MkvClusterScanner& scanner = Scan();
    std::string outPath = dir_.file("out.mkv");
    MkvWriter writer;
    ASSERT_TRUE(writer.Create(ts::Wide(outPath)));
    ASSERT_TRUE(writer.WriteHead(head_, double(scanner.EndTime()), true));
    ASSERT_TRUE(writer.WriteClusters(search_, scanner.Clusters()));
    EXPECT_EQ(scanner.Cues().size(), 2u) << "one key frame of track 1 per cluster";
    ASSERT_TRUE(writer.WriteCues(scanner.Cues(), 1));
    ASSERT_TRUE(writer.Finish());

    FileReader out, follow;
    ASSERT_TRUE(out.Open(ts::Wide(outPath)));
    ASSERT_TRUE(follow.Open(ts::Wide(outPath)));
    MkvHead head;
    std::string why;
    ASSERT_TRUE(MkvHeadParser::Parse(out, head, why)) << why;
    EXPECT_EQ(head.tracks.size(), 2u);
    MkvClusterScanner again(out, follow, head, head.end);
    while (again.ScanBlock()) {
    }
    again.Finish();
    ASSERT_EQ(again.Clusters().size(), 2u);
    EXPECT_EQ(again.BlockCount(), 8u);
    EXPECT_EQ(again.CutCount(), 0u);

    std::string bytes = ts::ReadFile(outPath);
    std::string duration("\x44\x89\x88", 3);
    size_t at = bytes.find(duration);
    ASSERT_NE(at, std::string::npos);
    EXPECT_DOUBLE_EQ(util::EbmlFloat(reinterpret_cast<const uint8_t*>(bytes.data()) + at + 3, 8), 280.0);
    size_t segmentSize = bytes.find(std::string("\x18\x53\x80\x67", 4));
    util::EbmlElementHeader segment;
    ASSERT_TRUE(util::ParseEbmlHeader(reinterpret_cast<const uint8_t*>(bytes.data()) + segmentSize, 12, segment));
    EXPECT_EQ(segment.size, bytes.size() - segmentSize - 12) << "the Segment size covers the rest of the file";
    EXPECT_NE(bytes.find(std::string("\x1C\x53\xBB\x6B", 4)), std::string::npos);
}

// The engine itself: a hand-made file with its own head, repaired without a sample.
TEST_F(MkvBytesTest, EngineReportsGrowingProgressAndNothingAfterRelease) {
    std::string bytes = Head() + Cluster(0, FourBlocks()) + Cluster(160, FourBlocks());
    path_ = dir_.file("own.mkv");
    ts::WriteFile(path_, bytes);
    MkvAdvanceRepair engine;
    std::vector<int> progress;
    engine.SetProgressCallback([&](int p) { progress.push_back(p); });
    engine.SetVideoPath(ts::Wide(path_), L"");
    ASSERT_EQ(engine.Repair(), 0);
    ASSERT_FALSE(progress.empty());
    EXPECT_EQ(progress.back(), 100);
    EXPECT_TRUE(std::is_sorted(progress.begin(), progress.end()));
    std::wstring result;
    EXPECT_FALSE(engine.GetRepairedVideo(result, ts::Wide(path_), L"", 0).empty());
    engine.Release();
    EXPECT_TRUE(engine.GetRepairedVideo(result, ts::Wide(path_), L"", 0).empty()) << "nothing after Release";
}
