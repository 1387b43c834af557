// End-to-end repairs of MPEG program streams through the exported manager, and
// the engine's documented failures.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "MpegAdvanceRepair.h"
#include "MpegPesMatcher.h"
#include "io/PositionedReader.h"
#include "RepairLog.h"
#include "IVideoRepairManager.h"
#include "VideoRepairExport.h"
#include "support/RepairHarness.h"

using namespace testing_support;
using namespace repair_harness;

namespace {

struct MpegMedia {
    std::string damagedSource;  // healthy original that the test damages
    std::string sample;         // same settings, other content
    bool hasAudio;
};

std::vector<std::string> Inputs(const std::string& video, double seconds, bool audio, int frequency) {
    std::vector<std::string> args = {"-f", "lavfi", "-i", video + "=size=320x240:rate=25:duration=" + std::to_string(seconds)};
    if (audio) {
        args.insert(args.end(), {"-f", "lavfi", "-i",
                                 "sine=frequency=" + std::to_string(frequency) + ":duration=" + std::to_string(seconds)});
    }
    return args;
}

std::vector<std::string> Join(std::vector<std::string> a, const std::vector<std::string>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

const std::vector<std::string> kMpeg2Mp2 = {"-c:v", "mpeg2video", "-g", "12", "-bf", "2", "-b:v", "1500k",
                                            "-c:a", "mp2", "-b:a", "128k", "-f", "mpeg"};
const std::vector<std::string> kMpeg1Mp2 = {"-c:v", "mpeg1video", "-g", "12", "-b:v", "1500k",
                                            "-c:a", "mp2", "-b:a", "128k", "-f", "mpeg"};
const std::vector<std::string> kMpeg2Only = {"-c:v", "mpeg2video", "-g", "12", "-bf", "2", "-b:v", "1500k", "-f", "dvd"};

MpegMedia Mpeg2WithMp2() {
    return {GeneratedMedia("mpeg_m2ps_main.mpg", Join(Inputs("testsrc", 4, true, 440), kMpeg2Mp2)),
            GeneratedMedia("mpeg_m2ps_sample.mpg", Join(Inputs("testsrc2", 2, true, 880), kMpeg2Mp2)), true};
}
MpegMedia Mpeg1WithMp2() {
    return {GeneratedMedia("mpeg_m1_main.mpg", Join(Inputs("testsrc", 4, true, 440), kMpeg1Mp2)),
            GeneratedMedia("mpeg_m1_sample.mpg", Join(Inputs("testsrc2", 2, true, 880), kMpeg1Mp2)), true};
}
MpegMedia Mpeg2VideoOnly() {
    return {GeneratedMedia("mpeg_v_main.mpg", Join(Inputs("testsrc", 4, false, 0), kMpeg2Only)),
            GeneratedMedia("mpeg_v_sample.mpg", Join(Inputs("testsrc2", 2, false, 0), kMpeg2Only)), false};
}

// Frames that escaped the damage and whose references did too: a lost frame
// takes the rest of its group of pictures with it.
int DecodableSurvivors(const std::string& healthy, const Damage& damage) {
    return CountSurvivors(ToNextPosition(ProbeVideoPackets(healthy), FileSize(healthy)), damage,
                          Dependence::kUnbrokenChain);
}

int CountDecodedAudioFrames(const std::string& path) {
    std::string out;
    int rc = RunProgram({VR_TEST_FFPROBE, "-v", "error", "-count_frames", "-select_streams", "a:0",
                         "-show_entries", "stream=nb_read_frames", "-of", "csv=p=0", path},
                        &out);
    try {
        return rc == 0 ? std::stoi(out) : -1;
    } catch (...) {
        return -1;
    }
}

struct NamedDamage {
    const char* name;
    Damage damage;
};

void ExpectRepairs(const MpegMedia& media, const std::string& damagedName, const NamedDamage& named) {
    ASSERT_FALSE(media.damagedSource.empty());
    ASSERT_FALSE(media.sample.empty());
    TempDir dir("mpeg");
    const std::string damaged = dir.file(damagedName);
    const std::string sample = dir.file("sample.mpg");
    WriteFile(damaged, ApplyDamage(ReadFile(media.damagedSource), named.damage));
    WriteFile(sample, ReadFile(media.sample));
    const std::string before = ReadFile(damaged);

    ManagerRun run = RepairThroughManager(damaged, sample, dir);
    ASSERT_EQ(run.result, 0);
    ASSERT_FALSE(run.repairedPath.empty());
    const std::string& repaired = run.repairedPath;
    EXPECT_EQ(repaired.substr(repaired.size() - 5), ".mpeg");
    const std::vector<std::string>& events = run.events;
    ASSERT_GE(events.size(), 3u);
    EXPECT_EQ(events.front(), "start");
    EXPECT_EQ(events[events.size() - 2], "p0:100");
    EXPECT_EQ(events.back(), "finish");

    const int survived = DecodableSurvivors(media.damagedSource, named.damage);
    const int frames = int(ProbeVideoPackets(media.damagedSource).size());
    const int decoded = CountDecodedVideoFrames(repaired);
    EXPECT_GE(decoded * 10, survived * 9) << named.name << ": decoded " << decoded << " of " << survived;
    EXPECT_LE(decoded, frames);
    if (media.hasAudio) EXPECT_GT(CountDecodedAudioFrames(repaired), 0) << named.name;
    else EXPECT_EQ(CountStreams(repaired, "a"), 0);
    EXPECT_TRUE(run.inputUnchanged);
    EXPECT_EQ(ReadFile(damaged), before);
    // The dumps and the sample's extractions are gone.
    EXPECT_TRUE(std::filesystem::is_empty(dir.file("work")));
    EXPECT_FALSE(FileExists(dir.file("sample_Video.dat")));
    EXPECT_FALSE(FileExists(dir.file("sample_Audio.wav")));
}

// The head zeroed; other ranges overwritten with noise; the tail cut.
NamedDamage Named(const char* name, int64_t size, std::vector<Range> overwritten, double keepFraction) {
    NamedDamage named{name, {}};
    for (const Range& r : overwritten) (r.begin == 0 ? named.damage.zeroed : named.damage.noise).push_back(r);
    named.damage.keep = int64_t(double(size) * keepFraction);
    return named;
}

std::vector<NamedDamage> RealLifeDamage(int64_t size) {
    return {Named("header zeroed", size, {{0, 4096}}, 1.0),
            Named("ranges overwritten", size,
                  {{size * 3 / 10, size * 3 / 10 + 40000}, {size * 6 / 10, size * 6 / 10 + 20000}}, 1.0),
            Named("tail cut", size, {}, 0.7)};
}

NamedDamage AllThree(int64_t size) { return Named("all three", size, {{0, 4096}, {size / 2, size / 2 + 30000}}, 0.8); }

}  // namespace

TEST(MpegRepairEndToEnd, Mpeg2VideoWithMp2Audio) {
    MpegMedia media = Mpeg2WithMp2();
    for (const NamedDamage& d : RealLifeDamage(FileSize(media.damagedSource))) ExpectRepairs(media, "clip.mpg", d);
}

TEST(MpegRepairEndToEnd, Mpeg1VideoWithMp2Audio) {
    MpegMedia media = Mpeg1WithMp2();
    ExpectRepairs(media, "clip.mpeg", AllThree(FileSize(media.damagedSource)));
}

TEST(MpegRepairEndToEnd, VideoOnlySampleGivesVideoOnlyRepair) {
    MpegMedia media = Mpeg2VideoOnly();
    ExpectRepairs(media, "clip.mpg", AllThree(FileSize(media.damagedSource)));
}

// ---- the engine on its own ----

namespace {

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

    EXPECT_TRUE(run.Logged("[MPEG] Video samples counts is:  " + std::to_string(ref.video.size())));
    EXPECT_TRUE(run.Logged("[MPEG] Video sample Sequence 0: offset:" + std::to_string(ref.video[0].offset) +
                           ", size:" + std::to_string(ref.video[0].size) + " result size: "));
    EXPECT_TRUE(run.Logged("[MPEG] Audio samples counts is:  " + std::to_string(ref.audio.size())));
}

TEST(MpegAdvanceRepairEngine, SampleWithoutExtractableVideoFails) {
    EngineRun run;
    const std::string audioOnly = GeneratedMedia(
        "mpeg_audio_only.mpg", {"-f", "lavfi", "-i", "sine=frequency=440:duration=1", "-c:a", "mp2", "-f", "mpeg"});
    ASSERT_FALSE(audioOnly.empty());
    const std::string sample = run.dir.file("sample.mpg");
    WriteFile(sample, ReadFile(audioOnly));
    const std::string damaged = run.dir.file("clip.mpg");
    WriteFile(damaged, ReadFile(Mpeg1WithMp2().damagedSource));

    EXPECT_EQ(run.Repair(damaged, sample), -1);
    EXPECT_TRUE(run.Logged("[INFO] "));
    EXPECT_TRUE(run.Logged("[Sprt] parse Sample video failed."));
    EXPECT_FALSE(FileExists(run.dir.file("sample_Video.dat")));
    // Output before a successful repair: nothing to write.
    EXPECT_EQ(run.Output(damaged), "");
    EXPECT_TRUE(run.Logged("[Wmv] dataList is empty:."));
    EXPECT_TRUE(run.Logged("[CTRL] Extract video frames failed, code: 1"));
}

TEST(MpegAdvanceRepairEngine, MissingFfmpegOrFilesFailWithTheirMessages) {
    MpegMedia media = Mpeg1WithMp2();
    {
        EngineRun run(Wide("/nonexistent/ffmpeg"));
        EXPECT_EQ(run.Repair(media.damagedSource, media.sample), -1);
        EXPECT_TRUE(run.Logged("[ENCD] cmd is not exists. cmd is: /nonexistent/ffmpeg"));
        EXPECT_TRUE(run.Logged("[Sprt] parse Sample video failed."));
    }
    {
        EngineRun run(L"");
        EXPECT_EQ(run.Repair(media.damagedSource, media.sample), -1);
        EXPECT_TRUE(run.Logged("[ENCD] cmd is empty."));
    }
    {
        EngineRun run;
        EXPECT_EQ(run.Repair(media.damagedSource, run.dir.file("missing.mpg")), -1);
        EXPECT_TRUE(run.Logged("[Sprt] Open file stream failed,file is: " + run.dir.file("missing.mpg")));
        EXPECT_TRUE(run.Logged("[Sprt] create sample file stream failed."));
        EXPECT_TRUE(run.Logged("[Sprt] parse Sample video failed."));
    }
    {
        EngineRun run;
        const std::string sample = run.dir.file("sample.mpg");
        WriteFile(sample, ReadFile(media.sample));
        EXPECT_EQ(run.Repair(run.dir.file("missing.mpg"), sample), -1);
        EXPECT_TRUE(run.Logged("[Sprt] create file stream failed."));
    }
}

TEST(MpegAdvanceRepairEngine, NoiseGivesNoSamplesAndNoOutput) {
    EngineRun run;
    MpegMedia media = Mpeg1WithMp2();
    const std::string sample = run.dir.file("sample.mpg");
    WriteFile(sample, ReadFile(media.sample));
    std::string noise(300000, '\0');
    for (size_t i = 0; i < noise.size(); ++i) noise[i] = char(0x80 | ((i * 2654435761u) >> 11));  // never 00 or 01
    const std::string damaged = run.dir.file("noise.mpg");
    WriteFile(damaged, noise);
    ASSERT_EQ(run.Repair(damaged, sample), 0);
    EXPECT_TRUE(run.engine.VideoSamples().empty());
    EXPECT_EQ(run.progress.back(), 100);
    EXPECT_EQ(run.Output(damaged), "");
    EXPECT_EQ(ReadFile(damaged), noise);
}
