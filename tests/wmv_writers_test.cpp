// The AVI and WAV writers, their files parsed back byte by byte.
#include <gtest/gtest.h>

#include <string>

#include "support/TestSupport.h"
#include "wmv/AviGenerator.h"
#include "wmv/WavGenerator.h"

using namespace testing_support;
using namespace wmv;

namespace {

uint32_t U32At(const std::string& b, size_t at) {
    return uint32_t(uint8_t(b[at])) | uint32_t(uint8_t(b[at + 1])) << 8 | uint32_t(uint8_t(b[at + 2])) << 16 |
           uint32_t(uint8_t(b[at + 3])) << 24;
}
uint16_t U16At(const std::string& b, size_t at) { return uint16_t(uint8_t(b[at]) | uint8_t(b[at + 1]) << 8); }

PayloadRecord Record(int64_t offset, int64_t size, uint32_t object) {
    PayloadRecord r;
    r.valid = 1;
    r.offset = offset;
    r.size = size;
    r.streamNumber = 1;
    r.mediaObjectNumber = object;
    return r;
}

VideoStreamInfo Video(const std::string& codec, size_t extra = 4) {
    VideoStreamInfo v;
    v.streamNumber = 1;
    v.frameRate = 25;
    v.width = 320;
    v.height = 240;
    v.bitsPerPixel = 24;
    v.codec = codec;
    v.codecExtra.assign(extra, 0x7A);
    return v;
}

class WmvWriters : public ::testing::Test {
protected:
    void SetUp() override {
        std::string bytes;
        for (int i = 0; i < 256; ++i) bytes.push_back(char(i));
        WriteFile(input(), bytes);
    }
    std::string input() const { return dir.file("input.bin"); }
    std::string Avi(const PayloadList& list, const VideoStreamInfo& info) {
        std::string out = dir.file("out.avi");
        EXPECT_EQ(AviGenerator(input(), out, list, info).Generate(), 0);
        return ReadFile(out);
    }
    TempDir dir{"wmvw"};
};

TEST_F(WmvWriters, EmptyListsGiveEmptyFiles) {
    std::string avi = Avi({}, Video("WMV2", 0));
    ASSERT_EQ(avi.size(), 1024u);
    EXPECT_EQ(avi.substr(0, 4), "RIFF");
    EXPECT_EQ(U32At(avi, 4), 1016u);
    EXPECT_EQ(U32At(avi, 16), 68u);   // hdrl list size
    EXPECT_EQ(U32At(avi, 48), 0u);    // total frames
    EXPECT_EQ(U32At(avi, 56), 0u);    // streams
    EXPECT_EQ(avi.substr(212, 4), "JUNK");
    EXPECT_EQ(U32At(avi, 216), 1024u - 212 - 20);
    EXPECT_EQ(avi.substr(1012, 4), "LIST");
    EXPECT_EQ(U32At(avi, 1016), 4u);
    EXPECT_EQ(avi.substr(1020, 4), "movi");

    AudioStreamInfo a;
    a.formatTag = 0x161;
    a.extraSize = 2;
    a.extra = {9, 8};
    std::string out = dir.file("out.wav");
    ASSERT_EQ(WavGenerator(input(), out, {}, a).Generate(), 0);
    std::string wav = ReadFile(out);
    ASSERT_EQ(wav.size(), 12u + 8 + 18 + 2 + 8);
    EXPECT_EQ(U32At(wav, 4), 2u + 38);
    EXPECT_EQ(wav.substr(40, 4), "data");
    EXPECT_EQ(U32At(wav, 44), 0u);
}

TEST_F(WmvWriters, AviHeaderFields) {
    std::string avi = Avi({Record(10, 5, 1)}, Video("WMV2"));
    EXPECT_EQ(U32At(avi, 16), 4u + 188);  // hdrl: extra bytes + 188
    EXPECT_EQ(U32At(avi, 56), 1u);
    EXPECT_EQ(U32At(avi, 92), 4u + 116);  // strl
    EXPECT_EQ(avi.substr(108, 8), "vidsWMV2");
    EXPECT_EQ(U32At(avi, 132), 50000u);
    EXPECT_EQ(U16At(avi, 160), 320);
    EXPECT_EQ(avi.substr(164, 4), "strf");
    EXPECT_EQ(U32At(avi, 168), 44u);
    EXPECT_EQ(U16At(avi, 186), 24);
    EXPECT_EQ(avi.substr(188, 4), "WMV2");
    EXPECT_EQ(U32At(avi, 192), 320u * 240 * 24 / 8);
    EXPECT_EQ(avi.substr(212, 4), std::string(4, '\x7A'));
    EXPECT_EQ(avi.substr(216, 4), "JUNK");
}

TEST_F(WmvWriters, RateDoublesOnlyForTheWindowsMediaCodes) {
    for (const char* codec : {"WMV1", "WMV2", "WMV3", "MP43", "M4S2"})
        EXPECT_EQ(AviGenerator::StreamRate(29.97, codec), 2 * 29970u) << codec;
    for (const char* codec : {"wmv3", "WMV3 ", "WVC1", "M4S", ""})
        EXPECT_EQ(AviGenerator::StreamRate(29.97, codec), 29970u) << codec;
    EXPECT_EQ(U32At(Avi({Record(0, 1, 1)}, Video("wmv2")), 132), 25000u);
}

// Players count the empty chunk before every frame: at the doubled rate the file
// lasts as long as its frames, at the plain rate (VC-1) twice as long. The merge
// keeps all of it.
TEST_F(WmvWriters, SecondsFollowTheAnnouncedRate) {
    EXPECT_DOUBLE_EQ(AviGenerator::Seconds(100, 25, "WMV2"), 4.0);
    EXPECT_DOUBLE_EQ(AviGenerator::Seconds(100, 25, "WVC1"), 8.0);
    EXPECT_DOUBLE_EQ(AviGenerator::Seconds(100, 0, "WVC1"), 0.0);
}

TEST_F(WmvWriters, FramesAreRunsOfOneMediaObject) {
    // Object 1 comes back after object 2: three frames, not two.
    std::string avi = Avi({Record(10, 3, 1), Record(20, 2, 1), Record(30, 4, 2), Record(40, 1, 1)}, Video("WMV2"));
    EXPECT_EQ(U32At(avi, 48), 3u);
    EXPECT_EQ(U32At(avi, 140), 3u);
    EXPECT_EQ(U32At(avi, 4), uint32_t(avi.size() - 8));
    EXPECT_EQ(U32At(avi, 1016), uint32_t(avi.size() - 1020));
    size_t at = 1024;
    auto expectFrame = [&](uint32_t size, const std::string& bytes) {
        EXPECT_EQ(avi.substr(at, 4), "00dc");
        EXPECT_EQ(U32At(avi, at + 4), 0u);  // the empty chunk before every frame
        EXPECT_EQ(avi.substr(at + 8, 4), "00dc");
        EXPECT_EQ(U32At(avi, at + 12), size);
        EXPECT_EQ(avi.substr(at + 16, bytes.size()), bytes);
        at += 16 + bytes.size();
    };
    expectFrame(5, "\x0A\x0B\x0C\x14\x15");
    expectFrame(4, "\x1E\x1F\x20\x21");
    expectFrame(1, "\x28");
    EXPECT_EQ(at, avi.size());
}

TEST_F(WmvWriters, LongHeaderGetsNoPaddingAndKeepsItsBytes) {
    std::string avi = Avi({Record(0, 2, 1)}, Video("WMV3", 900));
    EXPECT_EQ(avi.find("JUNK"), std::string::npos);
    EXPECT_EQ(avi.find("movi"), std::string::npos);
    EXPECT_EQ(avi.substr(212, 900), std::string(900, '\x7A'));
    EXPECT_EQ(avi.substr(1112, 4), "00dc");
    EXPECT_EQ(avi.size(), 1112u + 16 + 2);
}

// Standard output belongs to the host (the tool's JSON lines): the library says
// nothing there.
TEST_F(WmvWriters, UnreadableRecordIsSkippedWithoutAWordOnStandardOutput) {
    testing::internal::CaptureStdout();
    std::string avi = Avi({Record(250, 20, 1), Record(0, 2, 2)}, Video("WMV2", 0));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(U32At(avi, 1024 + 12), 20u);  // the size stays as counted
    EXPECT_EQ(avi.substr(1024 + 16, 4), "00dc");
    EXPECT_EQ(U32At(avi, 48), 2u);
}

TEST_F(WmvWriters, WavHoldsTheRecordsInOrder) {
    AudioStreamInfo a;
    a.formatTag = 0x161;
    a.channels = 2;
    a.samplesPerSecond = 44100;
    a.averageBytesPerSecond = 8000;
    a.blockAlign = 1487;
    a.extraSize = 3;
    a.extra = {1, 2, 3};
    std::string out = dir.file("out.wav");
    ASSERT_EQ(WavGenerator(input(), out, {Record(5, 2, 1), Record(1, 3, 2)}, a).Generate(), 0);
    std::string wav = ReadFile(out);
    EXPECT_EQ(wav.substr(0, 16), std::string("RIFF") + std::string("\x2E\0\0\0", 4) + "WAVEfmt ");
    EXPECT_EQ(U32At(wav, 16), 21u);
    EXPECT_EQ(U16At(wav, 20), 0x161);
    EXPECT_EQ(U32At(wav, 24), 44100u);
    EXPECT_EQ(U16At(wav, 32), 1487);
    EXPECT_EQ(U16At(wav, 36), 3);
    EXPECT_EQ(wav.substr(38, 3), "\x01\x02\x03");
    EXPECT_EQ(wav.substr(41, 4), "data");
    EXPECT_EQ(U32At(wav, 45), 5u);
    EXPECT_EQ(wav.substr(49), "\x05\x06\x01\x02\x03");
}

TEST_F(WmvWriters, UnopenableOutputFails) {
    EXPECT_EQ(AviGenerator(input(), dir.file("missing/x.avi"), {}, Video("WMV2")).Generate(), -1);
    EXPECT_EQ(WavGenerator(input(), dir.file("missing/x.wav"), {}, AudioStreamInfo()).Generate(), -1);
}

}  // namespace
