// The container carvers of the thorough road, on hand-made bytes: where a walk
// picks up again after damage (true offsets), what it must not take for frames
// (an old AVI index), what it keeps that a demuxer drops (zero-length FLV tags,
// Matroska blocks whose cluster head was lost) and how laced frames split.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "io/FileReader.h"
#include "support/RepairHarness.h"
#include "thorough/SampleModel.h"
#include "thorough/carving/AviChunkCarver.h"
#include "thorough/carving/CarvedSource.h"
#include "thorough/carving/FlvTagCarver.h"
#include "thorough/carving/MkvBlockCarver.h"

using namespace repair_harness;

namespace {

// Appends a piece and remembers where the part that matters starts.
struct Builder {
    std::string bytes;
    std::vector<int64_t> marks;
    void Add(const std::string& piece, size_t markAt = std::string::npos) {
        if (markAt != std::string::npos) marks.push_back(int64_t(bytes.size() + markAt));
        bytes += piece;
    }
};

std::string Written(const TempDir& dir, const std::string& bytes) {
    std::string path = dir.file("carve.bin");
    WriteFile(path, bytes);
    return path;
}

// ---- what the road reads ----

// VP9 pictures past damage wait for their stream's next key frame, unless their
// group's presentation times show that no picture went missing; the picture before
// the damage, audio, pictures of an unbroken stretch, and the pictures of codecs
// whose decoders conceal lost references always pass.
struct Carved {
    bool video, key;
    uint32_t run;
    int64_t pts;
    bool passes;
};

std::vector<int64_t> ReadThrough(AVCodecID codec, const std::vector<Carved>& steps, std::vector<int64_t>& expected) {
    TempDir dir("carvedsource");
    thorough::CarvedSource source;
    EXPECT_TRUE(source.Open(testing_support::Wide(Written(dir, std::string(64, 'x')))));
    for (AVMediaType type : {AVMEDIA_TYPE_VIDEO, AVMEDIA_TYPE_AUDIO}) {
        AVCodecParameters* p = avcodec_parameters_alloc();
        p->codec_type = type;
        p->codec_id = type == AVMEDIA_TYPE_VIDEO ? codec : AV_CODEC_ID_OPUS;
        source.AddStream(p, {1, 1000}, {0, 1});
        avcodec_parameters_free(&p);
    }
    for (size_t i = 0; i < steps.size(); ++i) {
        const Carved& c = steps[i];
        source.Add({int64_t(i), 1, c.video ? 0u : 1u, c.pts, AV_NOPTS_VALUE, 0, c.key, c.run});
        if (c.passes) expected.push_back(int64_t(i));
    }
    std::vector<int64_t> read;
    AVPacket* packet = av_packet_alloc();
    while (source.Next(packet)) {
        read.push_back(packet->pos);
        av_packet_unref(packet);
    }
    av_packet_free(&packet);
    return read;
}

TEST(CarvedSourceTest, PicturesCutOffFromTheirReferencesAreLeftOut) {
    constexpr int64_t kNone = AV_NOPTS_VALUE;
    const std::vector<Carved> untimed = {
        {true, true, 0, kNone, true},   {true, false, 0, kNone, true}, {false, true, 1, kNone, true},
        {true, false, 1, kNone, false}, {true, false, 1, kNone, false}, {true, true, 2, kNone, true},
        {true, false, 2, kNone, true},  {true, false, 3, kNone, false}};
    std::vector<Carved> concealed = untimed;
    for (Carved& c : concealed) c.passes = true;
    const std::vector<std::pair<AVCodecID, std::vector<Carved>>> scenarios = {
        // no times: every picture past damage waits for a key frame
        {AV_CODEC_ID_VP9, untimed},
        // a decoder that conceals gets them all
        {AV_CODEC_ID_H264, concealed},
        // times run on across the damage (only audio was lost): the group stays whole
        {AV_CODEC_ID_VP9, {{true, true, 0, 0, true}, {true, false, 0, 80, true}, {true, false, 1, 40, true},
         {true, false, 1, 120, true}, {true, true, 1, 160, true}}},
        // a picture's time is missing: those past the damage go
        {AV_CODEC_ID_VP9, {{true, true, 0, 0, true}, {true, false, 0, 40, true}, {true, false, 1, 120, false},
                           {true, false, 1, 160, false}, {true, true, 1, 200, true}}},
    };
    for (size_t i = 0; i < scenarios.size(); ++i) {
        SCOPED_TRACE(i);
        std::vector<int64_t> expected;
        std::vector<int64_t> read = ReadThrough(scenarios[i].first, scenarios[i].second, expected);
        EXPECT_EQ(read, expected);
    }
}

// ---- FLV ----

std::string FlvTag(uint8_t type, const std::string& data, uint32_t time, int sizeWordError = 0) {
    std::string t(1, char(type));
    PutBe24(t, uint32_t(data.size()));
    PutBe24(t, time);
    t += std::string(4, '\0');  // timestamp extension, stream id
    t += data;
    PutBe32(t, uint32_t(data.size() + 11 + sizeWordError));
    return t;
}
std::string Picture(bool key, char fill) { return std::string(1, key ? '\x12' : '\x22') + std::string(40, fill); }

struct FlvCase {
    const char* name;
    int brokenTag;    // this picture's size word is wrong: -1 for none
    bool zeroLength;  // a zero-length audio tag after the second picture
    std::string gap;  // bytes between the second and third picture
    bool headLost;
    size_t keptPictures;
};

TEST(FlvTagCarverTest, KeepsEveryTagThatCanBeVerifiedAtItsTrueOffset) {
    const FlvCase cases[] = {
        {"clean", -1, false, "", false, 5},
        {"zero-length tag in a run", -1, true, "", false, 5},
        {"garbage with tag-like bytes", -1, false, std::string("\x09\x00\x00\x20ZZZZ\x00\x00\x00\x08Z", 13) + Filler(50), false, 5},
        {"broken size word", 1, false, "", false, 4},
        {"head lost", -1, false, "", true, 5},
    };
    for (const FlvCase& c : cases) {
        SCOPED_TRACE(c.name);
        Builder b;
        b.Add(std::string("FLV\x01\x01\x00\x00\x00\x09\x00\x00\x00\x00", 13));
        for (int i = 0; i < 5; ++i) {
            bool kept = i != c.brokenTag;
            b.Add(FlvTag(9, Picture(i == 0, char('a' + i)), uint32_t(40 * i), kept ? 0 : 3), kept ? 12 : std::string::npos);
            if (i == 1 && c.zeroLength) b.Add(FlvTag(8, "", 40));
            if (i == 1) b.Add(c.gap);
        }
        if (c.headLost) b.bytes.replace(0, 20, std::string(20, '\0'));
        TempDir dir("flvcarve");
        thorough::SampleModel none;
        auto carved = thorough::FlvTagCarver(none).Carve(testing_support::Wide(Written(dir, b.bytes)));
        ASSERT_TRUE(carved);
        std::vector<int64_t> offsets;
        for (const auto& p : carved->Packets()) offsets.push_back(p.offset);
        std::vector<int64_t> expected(b.marks.begin() + (c.headLost ? 1 : 0), b.marks.end());
        EXPECT_EQ(offsets, expected);
        EXPECT_EQ(carved->Packets().size(), c.keptPictures - (c.headLost ? 1 : 0));
        EXPECT_EQ(carved->Parameters(0)->codec_id, AV_CODEC_ID_FLV1);
    }
}

// ---- Matroska ----

std::string Vint(uint64_t v, int length) {
    std::string s(size_t(length), '\0');
    for (int i = length - 1; i >= 0; --i, v >>= 8) s[size_t(i)] = char(v & 0xFF);
    s[0] = char(uint8_t(s[0]) | (0x80 >> (length - 1)));
    return s;
}
std::string Element(const std::string& id, const std::string& payload) {
    return id + Vint(payload.size(), 4) + payload;
}
// A block body: track 1-byte, 16-bit time, flags, then lacing and frames.
std::string BlockBody(int track, int16_t time, uint8_t flags, const std::string& rest) {
    return std::string{char(0x80 | track), char(uint16_t(time) >> 8), char(time & 0xFF), char(flags)} + rest;
}

TEST(MkvBlockWalkTest, BlocksWithoutTheirClusterHeadAreKeptAndTimedBeforeTheNextCluster) {
    Builder b;
    b.Add(Filler(21));  // the lost Segment head and start of the first Cluster
    b.Add(Element("\xA3", BlockBody(1, 0, 0x80, std::string(30, 'k'))), 9);
    b.Add(Element("\xA3", BlockBody(1, 40, 0x00, std::string(20, 'p'))), 9);
    b.Add(Filler(7));
    std::string cluster = Element("\xE7", std::string("\x03\xE8", 2)) +   // Timestamp 1000
                          Element("\xA3", BlockBody(2, 0, 0x80, std::string(25, 'k'))) +
                          Element("\xA0", Element("\xA1", BlockBody(1, 40, 0x00, std::string(9, 'b'))) +
                                              Element("\xFB", std::string(1, '\x28')));
    b.Add(std::string("\x1F\x43\xB6\x75\xFF", 5) + cluster);  // unknown size
    TempDir dir("mkvwalk");
    FileReader file;
    ASSERT_TRUE(file.Open(testing_support::Wide(Written(dir, b.bytes))));
    thorough::MkvBlockWalk walk(file);
    walk.Run();
    const auto& frames = walk.Frames();
    ASSERT_EQ(frames.size(), 4u);
    EXPECT_EQ(frames[0].offset, b.marks[0]);
    EXPECT_EQ(frames[1].offset, b.marks[1]);
    EXPECT_TRUE(frames[0].key);
    EXPECT_FALSE(frames[3].key) << "a BlockGroup with a ReferenceBlock";
    EXPECT_EQ(frames[3].size, 9u);
    std::vector<int64_t> times = thorough::ClusterTimes(walk.Groups(), frames, 25);
    EXPECT_FALSE(walk.Groups()[frames[0].group].known);
    EXPECT_EQ(times[frames[2].group], 1000);
    int64_t orphanEnd = times[frames[1].group] + frames[1].relative;
    int64_t nextOfTrack = times[frames[3].group] + frames[3].relative;
    EXPECT_EQ(orphanEnd, nextOfTrack - 40) << "one step of the track before its next block";
}

TEST(MkvBlockWalkTest, LacedFramesSplitByTheirSizes) {
    struct LaceCase {
        const char* name;
        uint8_t flags;
        std::string sizes;  // the lace header after the frame count
        std::vector<uint32_t> expected;
    };
    const LaceCase cases[] = {
        {"xiph", 0x02, std::string("\x0A\xFF\x2D", 3), {10, 300, 14}},
        {"ebml", 0x06, std::string("\x8A\xC1", 2), {10, 12, 302}},  // 12 = 10 + (0x41 - 63)
        {"fixed", 0x04, "", {108, 108, 108}},
    };
    for (const LaceCase& c : cases) {
        SCOPED_TRACE(c.name);
        uint32_t total = 0;
        for (uint32_t s : c.expected) total += s;
        std::string body = BlockBody(1, 0, uint8_t(0x80 | c.flags), std::string(1, '\x02') + c.sizes + std::string(total, 'x'));
        std::string bytes = Element("\xA3", body) + Element("\xA3", BlockBody(1, 1, 0x80, "y"));
        TempDir dir("mkvlace");
        FileReader file;
        ASSERT_TRUE(file.Open(testing_support::Wide(Written(dir, bytes))));
        thorough::MkvBlockWalk walk(file);
        walk.Run();
        std::vector<uint32_t> sizes;
        for (const auto& f : walk.Frames()) sizes.push_back(f.size);
        sizes.pop_back();  // the plain block behind
        EXPECT_EQ(sizes, c.expected);
        ASSERT_FALSE(walk.Frames().empty());
        EXPECT_EQ(walk.Frames()[0].offset, 5 + 4 + 1 + int64_t(c.sizes.size()));  // element, block and lace heads
    }
}

// Tracks are matched to the sample's streams by number where the numbers are the
// sample's, else by their payloads: the track with the larger frames is the video.
TEST(MkvBlockCarverTest, TracksMatchTheSampleByNumberElseByPayload) {
    struct TrackCase {
        const char* name;
        int bigTrack, smallTrack;
        AVMediaType bigType;
    };
    const TrackCase cases[] = {
        {"the sample's numbers", 2, 1, AVMEDIA_TYPE_AUDIO},
        {"numbers the sample does not have", 5, 7, AVMEDIA_TYPE_VIDEO},
    };
    std::string samplePath = testing_support::GeneratedMedia(
        "carve_tracks_sample.mkv", {"-f", "lavfi", "-i", "testsrc2=size=160x120:rate=25:duration=1", "-f", "lavfi",
                                    "-i", "sine=duration=1", "-c:v", "libx264", "-pix_fmt", "yuv420p", "-c:a", "aac"});
    thorough::SampleModel sample;
    ASSERT_TRUE(sample.Load(testing_support::Wide(samplePath)));
    for (const TrackCase& c : cases) {
        SCOPED_TRACE(c.name);
        std::string cluster = Element("\xE7", std::string(1, '\0'));
        for (int i = 0; i < 3; ++i) {
            cluster += Element("\xA3", BlockBody(c.bigTrack, int16_t(40 * i), 0x80, std::string(300, 'v')));
            cluster += Element("\xA3", BlockBody(c.smallTrack, int16_t(40 * i), 0x80, std::string(20, 'a')));
        }
        TempDir dir("mkvtracks");
        std::string path = Written(dir, Filler(64) + std::string("\x1F\x43\xB6\x75\xFF", 5) + cluster);
        auto carved = thorough::MkvBlockCarver(sample).Carve(testing_support::Wide(path));
        ASSERT_TRUE(carved);
        ASSERT_EQ(carved->Packets().size(), 6u);
        for (const auto& p : carved->Packets()) {
            AVMediaType type = carved->Parameters(p.stream)->codec_type;
            EXPECT_EQ(type == c.bigType, p.size == 300) << p.size;
        }
    }
}

// ---- AVI ----

std::string Chunk(const char* id, const std::string& data) {
    std::string c(id, 4);
    PutLe32(c, uint32_t(data.size()));
    return c + data + (data.size() % 2 != 0 ? std::string(1, '\0') : std::string());
}
std::string List(const char* type, const std::string& body) {
    std::string l("LIST", 4);
    PutLe32(l, uint32_t(body.size() + 4));
    return l + type + body;
}
std::string IndexRecords(const std::vector<int64_t>& offsets) {
    std::string r;
    for (int64_t at : offsets) {
        r += "00dc";
        PutLe32(r, 0x10);
        PutLe32(r, uint32_t(at));
        PutLe32(r, 30);
    }
    return r;
}

struct AviCase {
    const char* name;
    bool headLost, indexHeadLost, garbage, extension;
};

TEST(AviChunkWalkTest, TrueOffsetsAcrossDamageAndNoIndexRecordTakenForAFrame) {
    const AviCase cases[] = {
        {"clean", false, false, false, false},
        {"garbage between chunks", false, false, true, false},
        {"head lost, walk meets the old index", true, true, false, false},
        {"index then an OpenDML extension", false, false, true, true},
    };
    for (const AviCase& c : cases) {
        SCOPED_TRACE(c.name);
        Builder b;
        b.Add(std::string("RIFF\0\0\0\0AVI ", 12));
        b.Add(List("hdrl", Chunk("avih", std::string(56, '\0'))));
        b.Add(std::string("LIST\0\0\0\0movi", 12));
        for (int i = 0; i < 4; ++i) {
            b.Add(Chunk("00dc", std::string(30, char('a' + i))), 8);
            b.Add(Chunk("01wb", std::string(7, 's')), 8);
            if (i == 1 && c.garbage) b.Add(std::string("00dcZZ01wb\x05\x00", 12) + Filler(17));
        }
        std::string index = Chunk("idx1", IndexRecords({4, 50, 96, 150, 200}));
        if (c.indexHeadLost) index.replace(0, 8, Filler(8));
        b.Add(index);
        if (c.extension)
            b.Add(std::string("RIFF\0\0\0\0AVIX", 12) + List("movi", Chunk("00dc", std::string(30, 'x'))), 32);
        if (c.headLost) b.bytes.replace(0, 60, std::string(60, '\0'));
        TempDir dir("aviwalk");
        FileReader file;
        ASSERT_TRUE(file.Open(testing_support::Wide(Written(dir, b.bytes))));
        thorough::AviChunkWalk walk(file, 2);
        walk.Run();
        std::vector<int64_t> offsets;
        for (const auto& chunk : walk.Chunks()) offsets.push_back(chunk.offset);
        EXPECT_EQ(offsets, b.marks);
    }
}

}  // namespace
