// The MXF engine: essence-element matching with BER lengths, the reading of
// ffmpeg's report on the sample, the scan and its log, and its failures
// (end-to-end repairs are in engine_repair_test.cpp).
#include <gtest/gtest.h>

#include <stdexcept>

#include "AppPaths.h"
#include "MxfAdvanceRepair.h"
#include "RepairLog.h"
#include "support/RepairHarness.h"

using namespace repair_harness;
using testing_support::GeneratedMedia;
using testing_support::Wide;

namespace {

using Record = MxfAdvanceRepair::SampleRecord;

std::string Key(uint8_t itemType) {
    const char prefix[] = "\x06\x0E\x2B\x34\x01\x02\x01\x01\x0D\x01\x03\x01";
    std::string key(prefix, 12);
    key += char(itemType);
    key += std::string("\x01\x01\x00", 4).substr(0, 3);
    return key;
}

// A KLV with a given length field and value bytes.
std::string Klv(uint8_t itemType, const std::string& ber, const std::string& value) {
    return Key(itemType) + ber + value;
}

std::string Short(size_t n) { return std::string(1, char(n)); }

Record Match(const std::string& bytes, int64_t position = 1000) {
    return MxfAdvanceRepair::MatchEssenceElement(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size(),
                                                 position);
}

std::string Op1aClip() {
    return GeneratedMedia("mxf_op1a.mxf", {"-f", "lavfi", "-i", "testsrc=size=320x240:rate=25", "-f", "lavfi", "-i",
                                           "sine=frequency=440:sample_rate=48000", "-t", "3", "-c:v", "mpeg2video",
                                           "-g", "12", "-bf", "0", "-q:v", "4", "-c:a", "pcm_s16le", "-ac", "2"});
}

}  // namespace

namespace {

std::string NotAnEssenceKey() {
    std::string fill = Klv(0x15, Short(4), "dddd");
    fill[7] = 0x02;
    return fill;
}

struct MatchCase {
    std::string what;
    std::string bytes;
    bool found;
    uint32_t kind = 0;  // 0 picture, 1 sound
    uint64_t offset = 0;
    int64_t size = 0;
};

// Matched at position 1000; offset and size are the value's.
const std::vector<MatchCase> kMatchCases = {
    {"picture, short length", Klv(0x15, Short(10), std::string(10, 'v')), true, 0, 1017, 10},
    {"sound, 3 length bytes", Klv(0x16, std::string("\x83\x01\x00\x00", 4), std::string(20, 'a')), true, 1, 1020,
     65536},
    {"8 length bytes", Klv(0x05, std::string("\x88\0\0\0\0\0\0\0\x07", 9), "x"), true, 0, 1025, 7},
    {"compound picture item", Klv(0x18, Short(1), "c"), true, 0, 1017, 1},
    {"sound item 0x06", Klv(0x06, Short(1), "s"), true, 1, 1017, 1},
    // Lengths that do not qualify.
    {"zero length", Klv(0x15, Short(0), ""), false},
    {"0x80: no length bytes", Klv(0x15, "\x80", "zzzz"), false},
    {"9 length bytes", Klv(0x15, std::string("\x89\0\0\0\0\0\0\0\0\x05", 10), "zzzz"), false},
    {"length bytes past the data", Klv(0x15, std::string("\x84\x00\x01", 3), ""), false},
    {"length of 2^63", Klv(0x15, std::string("\x88\x80\0\0\0\0\0\0\x01", 9), "zz"), false},
    {"key without a length", Key(0x15), false},
    // System (0x04, 0x14), data (0x07, 0x17) items and other keys are not collected.
    {"system item 0x04", Klv(0x04, Short(4), "dddd"), false},
    {"system item 0x14", Klv(0x14, Short(4), "dddd"), false},
    {"data item 0x07", Klv(0x07, Short(4), "dddd"), false},
    {"data item 0x17", Klv(0x17, Short(4), "dddd"), false},
    {"item type 0x01", Klv(0x01, Short(4), "dddd"), false},
    {"not an essence key", NotAnEssenceKey(), false},
};

}  // namespace

TEST(MxfEssenceMatch, KeysItemTypesAndBerLengths) {
    for (const MatchCase& c : kMatchCases) {
        const Record r = Match(c.bytes);
        EXPECT_EQ(r.found, c.found) << c.what;
        if (!r.found || !c.found) continue;
        EXPECT_EQ(r.kind, c.kind) << c.what;
        EXPECT_EQ(r.offset, c.offset) << c.what;
        EXPECT_EQ(r.size, c.size) << c.what;
        EXPECT_EQ(r.packetLength, uint32_t(c.offset - 1000 + uint64_t(c.size))) << c.what;  // key, length, value
    }
}

TEST(MxfSampleReport, AudioOptionsAndFrameRate) {
    using M = MxfAdvanceRepair;
    auto info = M::ParseSampleReport(
        "Input #0, mxf, from 's.mxf':\n"
        "  Stream #0:0: Video: mpeg2video (4:2:2), yuv422p(tv, top first), 720x608 [SAR 152:135 DAR 4:3], "
        "50000 kb/s, 29.97 fps, 29.97 tbr, 1k tbn\n"
        "  Stream #0:1: Audio: pcm_s16le, 48000 Hz, stereo, s16, 1536 kb/s\n");
    EXPECT_DOUBLE_EQ(info.frameRate, 29.97);
    EXPECT_EQ(info.audioInputOptions, (std::vector<std::string>{"-f", "s16le", "-ar", "48000", "-ac", "2"}));

    info = M::ParseSampleReport("  Stream #0:1: Audio: pcm_s24le, 44100 Hz, mono, s32\r\n");
    EXPECT_EQ(info.audioInputOptions, (std::vector<std::string>{"-f", "s24le", "-ar", "44100", "-ac", "1"}));
    info = M::ParseSampleReport("  Stream #0:1: Audio: pcm_s16le, 48000 Hz, 8 channels, s16, 6144 kb/s\n");
    EXPECT_EQ(info.audioInputOptions, (std::vector<std::string>{"-f", "s16le", "-ar", "48000", "-ac", "8"}));
    info = M::ParseSampleReport("  Stream #0:1: Audio: aac (LC), 32000 Hz, stereo, fltp\n");
    EXPECT_EQ(info.audioInputOptions, (std::vector<std::string>{"-ar", "32000", "-ac", "2"}));

    // No "fps" on the video line, no video line, or "fps" past the 1023 characters
    // of a line buffer: the rate stays 30.
    EXPECT_DOUBLE_EQ(M::ParseSampleReport("Stream #0:0: Video: mpeg2video, 25 tbr\n").frameRate, 30.0);
    EXPECT_DOUBLE_EQ(M::ParseSampleReport("nothing here").frameRate, 30.0);
    EXPECT_DOUBLE_EQ(M::ParseSampleReport("Video: x" + std::string(1100, ',') + " 25 fps\n").frameRate, 30.0);
    EXPECT_THROW(M::ParseSampleReport("Stream #0:0: Video: rawvideo, fps\n"), std::invalid_argument);
}

TEST(MxfScan, CollectsPictureAndSoundElementsAndLogsThem) {
    TempDir dir("mxfscan");
    std::string bytes = "junk!" + Klv(0x15, Short(10), std::string(10, 'v')) +   // at 5
                        Klv(0x16, Short(4), "aaaa") +                             // at 32
                        Klv(0x17, Short(3), "ddd") +                              // data item: stepped over
                        Klv(0x15, std::string("\x89\0\0\0\0\0\0\0\0\x02", 10), "zz") +  // 9-byte BER
                        Klv(0x05, Short(2), "VV");
    std::string damaged = dir.file("d.mxf");
    WriteFile(damaged, bytes);
    RepairLog log(0, dir.file("log.txt"));
    MxfAdvanceRepair engine;
    engine.SetLogger(&log);
    engine.SetVideoPath(Wide(damaged), L"");
    ASSERT_EQ(engine.Repair(), 0);
    ASSERT_EQ(engine.VideoSamples().size(), 2u);
    ASSERT_EQ(engine.AudioSamples().size(), 1u);
    EXPECT_EQ(engine.VideoSamples()[0].offset, 22u);
    EXPECT_EQ(engine.AudioSamples()[0].offset, 49u);
    EXPECT_EQ(engine.VideoSamples()[1].offset, bytes.size() - 2);
    EXPECT_DOUBLE_EQ(engine.LearntSample().frameRate, 30.0);
    log.Close();
    auto lines = testing_support::ReadLines(dir.file("log.txt"));
    EXPECT_TRUE(HasLine(lines, "[mxf] Video samples counts is:  2"));
    EXPECT_TRUE(HasLine(lines, "Video Frame Info: [mxf] Video sample Sequence 1: offset:" +
                                   std::to_string(bytes.size() - 2) + ", size:2"));
    EXPECT_TRUE(HasLine(lines, "Audio Frame Info: [mxf] Audio sample Sequence 0: offset:49, size:4"));
    char percent[128];
    snprintf(percent, sizeof percent, "[mxf] Video Repair Percent is %f,Audio Repair Percent is %f",
             1200.0 / double(bytes.size()), 400.0 / double(bytes.size()));
    EXPECT_TRUE(HasLine(lines, std::string("Repair Percent: ") + percent));
}

TEST(MxfFailures, MissingFilesAndMissingFfmpeg) {
    TempDir dir("mxffail");
    RepairLog log(0, dir.file("log.txt"));
    MxfAdvanceRepair engine;
    engine.SetLogger(&log);
    engine.SetVideoPath(L"", L"");
    EXPECT_EQ(engine.Repair(), -1);
    engine.SetVideoPath(Wide(dir.file("missing.mxf")), L"");
    EXPECT_EQ(engine.Repair(), -1);

    // Without ffmpeg the analysis fails and the repair goes on; the merge fails.
    std::string damaged = dir.file("d.mxf");
    WriteFile(damaged, ReadFile(Op1aClip()));
    std::string work = dir.file("work");
    testing_support::RunProgram({"mkdir", "-p", work});
    app_paths::SetWorkDirectory(Wide(work));
    engine.SetFfmpegPath(Wide(dir.file("nowhere/ffmpeg")));
    engine.SetVideoPath(Wide(damaged), Wide(Op1aClip()));
    EXPECT_EQ(engine.Repair(), 0);
    EXPECT_EQ(engine.VideoSamples().size(), 75u);
    EXPECT_TRUE(engine.LearntSample().audioInputOptions.empty());
    std::wstring out;
    EXPECT_EQ(engine.GetRepairedVideo(out, Wide(damaged), L"", 0), L"");
    engine.SetFfmpegPath(L"");
    EXPECT_EQ(engine.GetRepairedVideo(out, Wide(damaged), L"", 0), L"");
    engine.Release();
    log.Close();
    EXPECT_EQ(FilesIn(work), 0u) << "dumps are removed after a failed merge";
    EXPECT_EQ(FilesIn(dir.path()), 2u);  // the damaged file and the log

    auto lines = testing_support::ReadLines(dir.file("log.txt"));
    EXPECT_TRUE(HasLine(lines, "[Sprt] create file stream failed."));
    EXPECT_TRUE(HasLine(lines, "[AnalyzeSampleVideo]Analysize audio codec info by ffmpeg failed."));
    EXPECT_TRUE(HasLine(lines, "[GetRepairedVideo]merge audio and video file by ffmpeg failed."));
}
