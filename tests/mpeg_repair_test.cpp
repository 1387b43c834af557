// The MPEG program stream engine on its own: its scan against the byte-by-byte
// definition, and its documented failures (end-to-end repairs are in
// engine_repair_test.cpp).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "MpegAdvanceRepair.h"
#include "MpegPesMatcher.h"
#include "io/PositionedReader.h"
#include "RepairLog.h"
#include "support/RepairHarness.h"

using namespace testing_support;
using namespace repair_harness;

namespace {

struct MpegMedia {
    std::string damagedSource;  // healthy original that the test damages
    std::string sample;         // same settings, other content
};

// MPEG-2 video and MP2 audio in a program stream: 4 s of testsrc, 2 s of testsrc2.
MpegMedia Mpeg2WithMp2() {
    auto make = [](const std::string& name, const std::string& video, const std::string& seconds, const char* tone) {
        return GeneratedMedia(name, {"-f", "lavfi", "-i", video + "=size=320x240:rate=25:duration=" + seconds, "-f",
                                     "lavfi", "-i", std::string("sine=frequency=") + tone + ":duration=" + seconds,
                                     "-c:v", "mpeg2video", "-g", "12", "-bf", "2", "-b:v", "1500k", "-c:a", "mp2",
                                     "-b:a", "128k", "-f", "mpeg"});
    };
    return {make("mpeg_m2ps_main.mpg", "testsrc", "4", "440"), make("mpeg_m2ps_sample.mpg", "testsrc2", "2", "880")};
}

std::string LogText(const TempDir& dir) { return ReadFile(dir.file("engine.log")); }

struct EngineRun {
    TempDir dir{"mpegeng"};
    RepairLog log{0, dir.file("engine.log")};
    MpegAdvanceRepair engine;
    std::vector<int> progress;

    explicit EngineRun(const std::wstring& ffmpeg = Wide(BinDir() + "/ffmpeg")) : engine(ffmpeg) {
        engine.SetLogger(&log);
        engine.SetProgressCallback([this](int p) { progress.push_back(p); });
    }
    int Repair(const std::string& damaged, const std::string& sample) {
        engine.SetVideoPath(Wide(damaged), Wide(sample));
        return engine.Repair();
    }
    std::string Output(const std::string& damaged) {
        std::wstring out;
        return Narrow(engine.GetRepairedVideo(out, Wide(damaged), std::wstring(), 0));
    }
    bool Logged(const std::string& text) { return LogText(dir).find(text) != std::string::npos; }
};

// What the document's byte-by-byte scan finds and reports, position by position.
struct ReferenceScan {
    std::vector<SampleRecord> video, audio;
    std::vector<int> percents;  // every value the scan asks to report, in order
};

ReferenceScan ScanByteByByte(const std::string& path, uint8_t videoPrefix, uint8_t audioPrefix, bool noAudio) {
    ReferenceScan ref;
    PositionedReader reader;
    EXPECT_TRUE(reader.Open(Wide(path)));
    MpegPesMatcher matcher;
    matcher.SetPrefixes(videoPrefix, audioPrefix);
    matcher.SetNoAudio(noAudio);
    const int64_t size = reader.Size();
    while (reader.Position() < size) {
        ref.percents.push_back(int(reader.Position() * 100 / size));
        reader.Fill();
        SampleRecord r = matcher.MatchPacketAt(reader.Position(), reader.Data(), reader.Length());
        if (!r.found) {
            reader.Advance(1);
            continue;
        }
        (r.kind == SampleRecord::kVideo ? ref.video : ref.audio).push_back(r);
        reader.Advance(int64_t(r.packetLength));
    }
    ref.percents.push_back(100);
    return ref;
}

void ExpectSameRecords(const std::vector<SampleRecord>& got, const std::vector<SampleRecord>& want) {
    ASSERT_EQ(got.size(), want.size());
    for (size_t i = 0; i < got.size(); ++i) {
        EXPECT_EQ(got[i].offset, want[i].offset) << i;
        EXPECT_EQ(got[i].size, want[i].size) << i;
        EXPECT_EQ(got[i].packetLength, want[i].packetLength) << i;
        EXPECT_EQ(got[i].frameType, want[i].frameType) << i;
    }
}

}  // namespace

// The scan passes runs of bytes that cannot start a packet in one step; the
// packets found and the progress reported must be those of the single steps.
TEST(MpegAdvanceRepairEngine, ScanMatchesTheByteByByteDefinition) {
    MpegMedia media = Mpeg2WithMp2();
    ASSERT_FALSE(media.damagedSource.empty());
    EngineRun run;
    std::string bytes = ReadFile(media.damagedSource);
    bytes.resize(90000);  // packets of 2 KiB are over 1 % each: progress jumps with them
    for (size_t i = 30000; i < 42000; ++i) bytes[i] = char((i * 2654435761u) >> 13);
    const std::string damaged = run.dir.file("clip.mpg");
    const std::string sample = run.dir.file("sample.mpg");
    WriteFile(damaged, bytes);
    WriteFile(sample, ReadFile(media.sample));

    run.engine.Stop();  // before Repair: no effect, Repair starts afresh
    ASSERT_EQ(run.Repair(damaged, sample), 0);
    EXPECT_GT(run.engine.VideoPrefixBytes(), 2);
    EXPECT_FALSE(run.engine.NoAudio());
    ReferenceScan ref = ScanByteByByte(damaged, run.engine.VideoPrefixBytes(), run.engine.AudioPrefixBytes(), false);
    ExpectSameRecords(run.engine.VideoSamples(), ref.video);
    ExpectSameRecords(run.engine.AudioSamples(), ref.audio);
    EXPECT_FALSE(ref.video.empty());
    EXPECT_FALSE(ref.audio.empty());

    // The sample's learning reports first; after it, growth only, exactly as the single steps would.
    const int learnt = run.progress.empty() ? -1 : run.progress.front();
    std::vector<int> expected = {learnt};
    for (int p : ref.percents)
        if (p > expected.back()) expected.push_back(p);
    EXPECT_EQ(run.progress, expected);
    EXPECT_LT(expected.size(), 100u);  // some values were jumped over with whole packets
}

// Each failure ends in -1, says why in the log, and leaves nothing to write.
TEST(MpegAdvanceRepairEngine, SampleFfmpegOrDamagedFileUnusable) {
    const MpegMedia media = Mpeg2WithMp2();
    const std::string audioOnly = GeneratedMedia(
        "mpeg_audio_only.mpg", {"-f", "lavfi", "-i", "sine=frequency=440:duration=1", "-c:a", "mp2", "-f", "mpeg"});
    ASSERT_FALSE(audioOnly.empty());
    struct Row {
        const char* what;
        std::wstring ffmpeg;
        std::string sample, damaged;  // "" for a missing file
        std::string line;
    };
    const std::wstring ffmpeg = Wide(BinDir() + "/ffmpeg");
    for (const Row& row : std::vector<Row>{
             {"sample without video", ffmpeg, audioOnly, media.damagedSource, "[Sprt] parse Sample video failed."},
             {"ffmpeg missing", L"/nonexistent/ffmpeg", media.sample, media.damagedSource,
              "[Sprt] parse Sample video failed."},
             {"no ffmpeg", L"", media.sample, media.damagedSource, "[Sprt] parse Sample video failed."},
             {"sample missing", ffmpeg, "", media.damagedSource, "[Sprt] create sample file stream failed."},
             {"damaged file missing", ffmpeg, media.sample, "", "[Sprt] create file stream failed."}}) {
        EngineRun run(row.ffmpeg);
        const std::string sample = run.dir.file("sample.mpg"), damaged = run.dir.file("clip.mpg");
        if (!row.sample.empty()) WriteFile(sample, ReadFile(row.sample));
        if (!row.damaged.empty()) WriteFile(damaged, ReadFile(row.damaged));
        EXPECT_EQ(run.Repair(damaged, sample), -1) << row.what;
        EXPECT_TRUE(run.Logged(row.line)) << row.what << "\n" << LogText(run.dir);
        EXPECT_FALSE(FileExists(run.dir.file("sample_Video.dat"))) << row.what;
        EXPECT_EQ(run.Output(damaged), "") << row.what;
    }
}
