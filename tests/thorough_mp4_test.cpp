// MP4/MOV/3GP on the thorough road: recordings that stopped before their index
// was written, carved with a sample of the same settings; the NAL unit reader
// and the walker on hand-made bytes; and the compatible road still refusing.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <sstream>
#include <tuple>

#include "io/FileReader.h"
#include "support/RepairHarness.h"
#include "thorough/strategies/AccessUnitReader.h"
#include "thorough/strategies/IsoBoxes.h"
#include "thorough/strategies/MediaDataWalker.h"
#include "thorough/strategies/PictureOrder.h"
#include "thorough/strategies/SampleTimeline.h"

using namespace repair_harness;
using thorough::AccessUnitReader;
using thorough::CarvedSample;
using thorough::VideoShape;

namespace {

using Bytes = std::string;

// ---- hand-made bytes ----

Bytes Nal(uint8_t header, size_t payload, uint8_t first = 0x88) {
    Bytes n(1, char(header));
    n += char(first);
    for (size_t i = 1; i < payload; ++i) n += char(0x40 + i % 61);  // never 00 00 0x
    return n;
}
Bytes Prefixed(const Bytes& nal) {
    Bytes out;
    PutBe32(out, uint32_t(nal.size()));
    return out + nal;
}
// An H.264 sample: SEI and IDR slice, or one P slice.
Bytes Idr(size_t n) { return Prefixed(Nal(0x06, 9)) + Prefixed(Nal(0x65, n)); }
Bytes Slice(size_t n) { return Prefixed(Nal(0x41, n)); }
Bytes SecondSlice(size_t n) { return Prefixed(Nal(0x41, n, 0x28)); }  // first_mb_in_slice != 0
// Bytes the reader must never take for video: a prefix of 0x21.. is far too long.
Bytes AudioLike(size_t n, char fill = '\x21') { return Bytes(n, fill); }

VideoShape H264(int slices = 1) { return VideoShape{AV_CODEC_ID_H264, 4, 4096, slices}; }

struct MeasureCase {
    const char* name;
    Bytes data;
    VideoShape shape;
    size_t expected;
    bool key;
};

TEST(Mp4AccessUnitTest, TellsWhereEachVideoSampleEnds) {
    Bytes lying = Prefixed(Nal(0x41, 60));
    lying[3] = char(60 + 4 + 40);  // runs into the next sample's prefix
    Bytes hevcIdr = Prefixed(Bytes{'\x26', '\x01', '\x80', '\x33', '\x44', '\x55'});
    // SEI messages: user data (type 5, two bytes), then a recovery point whose count is 0 or 2.
    Bytes recoversHere = Prefixed(Bytes("\x06\x05\x02\x11\x22\x06\x01\xC4\x80", 9));
    Bytes recoversLater = Prefixed(Bytes("\x06\x06\x01\x64\x80", 5));
    const MeasureCase cases[] = {
        {"recovery point at this picture, no IDR", recoversHere + Slice(80) + Slice(9), H264(),
         recoversHere.size() + Slice(80).size(), true},
        {"recovery point two pictures on", recoversLater + Slice(80), H264(), recoversLater.size() + Slice(80).size(),
         false},
        {"key sample, then audio", Idr(200) + AudioLike(50), H264(), Idr(200).size(), true},
        {"P sample, then the next sample", Slice(80) + Slice(90), H264(), Slice(80).size(), false},
        {"second slice kept where pictures have two", Slice(80) + SecondSlice(40) + Slice(9), H264(2),
         Slice(80).size() + SecondSlice(40).size(), false},
        {"second slice not kept where pictures have one", Slice(80) + SecondSlice(40), H264(1), Slice(80).size(),
         false},
        {"length that lies", lying + Slice(40), H264(), 0, false},
        {"length past the data", Slice(80).substr(0, 50), H264(), 0, false},
        {"audio bytes", AudioLike(300), H264(), 0, false},
        {"slice that is not the picture's first", SecondSlice(40), H264(2), 0, false},
        {"HEVC IDR", hevcIdr + AudioLike(20), VideoShape{AV_CODEC_ID_HEVC, 4, 4096, 1}, hevcIdr.size(), true},
        {"JPEG picture", Bytes("\xFF\xD8\xFF\xE0\x00\x10\xFF\x00\xFF\xD9", 10) + AudioLike(9),
         VideoShape{AV_CODEC_ID_MJPEG, 0, 4096, 1}, 10, true},
    };
    for (const MeasureCase& c : cases) {
        AccessUnitReader reader(c.shape);
        bool key = false;
        EXPECT_EQ(reader.Measure(reinterpret_cast<const uint8_t*>(c.data.data()), c.data.size(), key), c.expected)
            << c.name;
        EXPECT_EQ(key, c.key) << c.name;
    }
}

// A start code or a length prefix inside a unit, wherever it falls against the
// words the search steps by; a lone zero byte or 00 00 03 is no such thing.
TEST(Mp4AccessUnitTest, FindsForbiddenSequencesAtEveryAlignment) {
    for (size_t size : {3u, 9u, 10u, 17u, 40u}) {
        for (size_t at = 0; at + 3 <= size; ++at) {
            for (char third : {'\x00', '\x01', '\x02', '\x03'}) {
                Bytes data(size, '\x55');
                data[at] = data[at + 1] = '\0';
                data[at + 2] = third;
                const bool forbidden = third != '\x03';
                EXPECT_EQ(thorough::nal::HasForbiddenSequence(reinterpret_cast<const uint8_t*>(data.data()), size),
                          forbidden)
                    << "size " << size << " at " << at << " third " << int(third);
            }
        }
        Bytes lone(size, '\x55');
        lone[size / 2] = '\0';
        EXPECT_FALSE(thorough::nal::HasForbiddenSequence(reinterpret_cast<const uint8_t*>(lone.data()), size));
    }
}

// The writer's chunks alternate the tracks unevenly: one, two or three video
// samples, then runs of PCM of different lengths; a sample whose length lies, a
// stretch of damage, and a phantom (damage that reads as a sample far larger
// than the sample's, followed by no sample) are stepped over, and the walk goes
// on behind them.
TEST(Mp4WalkerTest, UnevenChunksAndALyingLengthAreWalkedSampleBySample) {
    Bytes lying = Slice(30);
    lying[3] = char(30 + 4 + 8);
    struct Piece {
        Bytes bytes;
        char kind;  // 'v' video, 'a' audio, '-' stepped over
    };
    const std::vector<Piece> pieces = {
        {Idr(120), 'v'}, {AudioLike(16, '\x11'), 'a'}, {Slice(50), 'v'},     {Slice(60), 'v'},
        {AudioLike(4, '\x12'), 'a'}, {Slice(70), 'v'}, {lying, '-'},        {Slice(40), 'v'},
        {Slice(45), 'v'},           {Slice(47), 'v'}, {AudioLike(40, '\x13'), 'a'}, {Slice(33), 'v'},
        {AudioLike(7, '\x7F'), '-'},   {Idr(90), 'v'},         {Slice(800), '-'},
        {AudioLike(7, '\x7F'), '-'},   {Slice(30), 'v'},
    };
    Bytes mdat;
    for (const Piece& p : pieces) mdat += p.bytes;
    TempDir dir("mp4walk");
    WriteFile(dir.file("mdat"), mdat);
    FileReader file;
    ASSERT_TRUE(file.Open(dir.wfile("mdat")));

    thorough::ParametersPtr owner(avcodec_parameters_alloc());
    AVCodecParameters* pcm = owner.get();
    pcm->codec_type = AVMEDIA_TYPE_AUDIO;
    pcm->codec_id = AV_CODEC_ID_PCM_S16LE;
    av_channel_layout_default(&pcm->ch_layout, 2);
    pcm->sample_rate = 48000;
    thorough::AudioFrameSplitter audio(pcm);
    AccessUnitReader video(VideoShape{AV_CODEC_ID_H264, 4, 300, 1});
    thorough::MediaDataWalker walker(file, video, &audio);
    std::vector<CarvedSample> found;
    walker.Walk(0, int64_t(mdat.size()), found);

    std::vector<std::pair<int64_t, char>> expected, got;
    int64_t at = 0, skipped = 0;
    for (const Piece& p : pieces) {
        if (p.kind == '-') skipped += int64_t(p.bytes.size());
        else expected.emplace_back(at, p.kind);
        at += int64_t(p.bytes.size());
    }
    for (const CarvedSample& s : found) got.emplace_back(s.offset, s.video ? 'v' : 'a');
    EXPECT_EQ(got, expected);
    EXPECT_EQ(walker.Skipped(), skipped);
}

TEST(Mp4PictureOrderTest, PresentationFollowsOrderCounts) {
    constexpr int U = thorough::PictureOrderReader::kUnknown;
    struct Case {
        const char* name;
        std::vector<int> counts;
        std::vector<bool> keys;
        std::vector<int64_t> expected;
    };
    const Case cases[] = {
        {"no reordering", {0, 2, 4}, {true, false, false}, {0, 1, 2}},
        {"B pictures", {0, 8, 4, 2, 6, 16, 12}, {true, false, false, false, false, false, false}, {0, 4, 2, 1, 3, 6, 5}},
        {"IDR restarts the count", {0, 4, 2, 0, 4, 2}, {true, false, false, true, false, false}, {0, 2, 1, 3, 5, 4}},
        {"open GOP key goes on counting", {20, 24, 22, 25, 23}, {true, false, false, true, false}, {0, 3, 1, 4, 2}},
        {"unknown keeps decoding order", {0, U, 4, 2}, {true, false, false, false}, {0, 1, 3, 2}},
    };
    for (const Case& c : cases) EXPECT_EQ(thorough::PresentationOrder(c.counts, c.keys), c.expected) << c.name;
}

// What the order count is read from: the units before the first picture unit
// whole, and that one's head with its length cut to what was read.
TEST(Mp4PictureOrderTest, OrderCountHeadKeepsTheSliceHeader) {
    struct Case {
        const char* name;
        Bytes sample;
        AVCodecID codec;
        size_t expectedSize;  // 0: the whole sample is needed
        size_t lengthAt;      // where the picture unit's length field is
        uint32_t length;      // and what it says in the head
    };
    const Bytes big = Idr(20000), seiThenSlice = Prefixed(Nal(0x06, 3900)) + Slice(9000);
    const Bytes hevc = Prefixed(Nal(0x4e, 30)) + Prefixed(Nal(0x26, 9000));  // SEI, then an IDR_W_RADL slice
    Bytes lying = Prefixed(Nal(0x65, 10));
    lying[1] = 0x10;  // longer than the sample
    const Case cases[] = {
        {"slice crosses the prefix", big, AV_CODEC_ID_H264, 4096, 14, 4096 - 18},
        {"slice whole within the prefix", Idr(500) + Slice(9000), AV_CODEC_ID_H264, 14 + 4 + 501, 14, 501},
        {"too little of the slice read", seiThenSlice, AV_CODEC_ID_H264, 0, 0, 0},
        {"a length that lies", lying + Bytes(5000, 'x'), AV_CODEC_ID_H264, 0, 0, 0},
        {"HEVC picture unit", hevc, AV_CODEC_ID_HEVC, 4096, 35, 4096 - 39},
        {"another codec", big, AV_CODEC_ID_MJPEG, 0, 0, 0},
    };
    for (const Case& c : cases) {
        const std::string head = thorough::OrderCountHead(reinterpret_cast<const uint8_t*>(c.sample.data()), 4096,
                                                          c.sample.size(), c.codec, 4);
        ASSERT_EQ(head.size(), c.expectedSize) << c.name;
        if (head.empty()) continue;
        const size_t at = c.lengthAt;
        EXPECT_EQ(uint32_t(uint8_t(head[at])) << 24 | uint32_t(uint8_t(head[at + 1])) << 16 |
                      uint32_t(uint8_t(head[at + 2])) << 8 | uint8_t(head[at + 3]),
                  c.length)
            << c.name;
        EXPECT_EQ(head.substr(0, at), c.sample.substr(0, at)) << c.name;
        EXPECT_EQ(head.substr(at + 4), c.sample.substr(at + 4, head.size() - at - 4)) << c.name;
    }
}

// Damage takes spans of both tracks, seldom the same: 4 s at 25 fps with
// 1024-sample AAC frames interleaved by time, as a fine-grained writer does.
// Across the gaps the tracks are given back their lost spans and stay within
// a video and an audio frame of each other; without it, they drift apart.
TEST(Mp4TimelineTest, TracksStayInStepAcrossDamage) {
    struct Truth {
        CarvedSample sample;
        int number;  // of its track
        double seconds;
    };
    std::vector<Truth> recorded;
    for (int v = 0, a = 0; v < 100 || a < 187;) {
        const double videoAt = v * 0.04, audioAt = a * 1024.0 / 48000;
        if (a < 187 && (v >= 100 || audioAt <= videoAt)) {
            recorded.push_back({CarvedSample{0, 100, false, true, 1024}, a, audioAt}), ++a;
        } else {
            recorded.push_back({CarvedSample{0, 100, true, v % 25 == 0, 0}, v, videoAt}), ++v;
        }
    }
    struct Case {
        const char* name;
        std::pair<int, int> video, audio;  // frames lost, [first, end) of each track
        bool keepInStep;
        double worst;  // most seconds the tracks may be apart behind the gap (least, for drift)
    };
    const double step = 0.04 + 1024.0 / 48000;
    const Case cases[] = {
        {"three pictures lost", {40, 43}, {0, 0}, true, step},
        {"six audio frames lost", {0, 0}, {90, 96}, true, step},
        {"a stretch of both lost", {30, 50}, {56, 90}, true, step},
        {"ten pictures and two audio frames lost", {60, 70}, {114, 116}, true, step},
        {"three pictures lost, tracks left to drift", {40, 43}, {0, 0}, false, 0.12},
    };
    for (const Case& c : cases) {
        std::vector<CarvedSample> samples;
        std::vector<double> truth;
        bool gap = false;
        for (const Truth& t : recorded) {
            const auto& lost = t.sample.video ? c.video : c.audio;
            if (t.number >= lost.first && t.number < lost.second) {
                gap = true;
                continue;
            }
            samples.push_back(t.sample);
            samples.back().afterGap = gap;
            gap = false;
            truth.push_back(t.seconds);
        }
        std::vector<int64_t> presentation;
        for (const CarvedSample& s : samples)
            if (s.video) presentation.push_back(int64_t(presentation.size()));
        thorough::TimelineSettings settings;
        settings.videoBase = {1, 25};
        settings.keepInStep = c.keepInStep;
        const auto times = thorough::TimeSamples(samples, presentation, settings);
        // Behind the gap, how far apart the tracks' shifts from where they were recorded are.
        double least = 1e9, most = -1e9;
        bool behind = false;
        for (size_t i = 0; i < samples.size(); ++i) {
            behind = behind || samples[i].afterGap;
            if (!behind) continue;
            const double at = samples[i].video ? double(times[i].dts) / 25 : double(times[i].pts) / 48000;
            least = std::min(least, at - truth[i]);
            most = std::max(most, at - truth[i]);
        }
        const double worst = most - least;
        if (c.keepInStep) EXPECT_LE(worst, c.worst + 1e-9) << c.name;
        else EXPECT_GE(worst, c.worst - 1e-9) << c.name << ": drift expected";
    }
}

Bytes Box(const char* type, uint32_t size, size_t payload) {
    Bytes b;
    PutBe32(b, size);
    return b + type + Bytes(payload, '\x42');
}

// Where the media data lies when the recording stopped: mdat sizes of 0, past
// the end, too small, or 64-bit; a head the damage zeroed, with the index still
// at the end of the file; a fragment whose moof a hole took.
TEST(Mp4BoxesTest, MediaDataIsFoundWhateverItsHeaderSays) {
    Bytes large;
    PutBe32(large, 1);
    large += "mdat";
    PutBe32(large, 0);
    PutBe32(large, 16 + 100);
    large += Bytes(100, '\x42');
    struct Case {
        const char* name;
        Bytes file;
        std::vector<std::pair<int64_t, int64_t>> ranges;
    };
    const Case cases[] = {
        {"size 0 runs to the end", Box("ftyp", 16, 8) + Box("mdat", 0, 300), {{24, 324}}},
        {"size past the end", Box("ftyp", 16, 8) + Box("mdat", 5000, 300), {{24, 324}}},
        {"size too small, media data behind", Box("ftyp", 16, 8) + Box("mdat", 108, 300), {{24, 324}}},
        {"whole, index behind", Box("ftyp", 16, 8) + Box("mdat", 108, 100) + Box("moov", 40, 0) + Box("mvhd", 32, 24),
         {{24, 124}}},
        {"64-bit size", Box("ftyp", 16, 8) + large, {{32, 132}}},
        {"head zeroed, index at the end",
         Bytes(64, '\0') + Bytes(200, '\x42') + Box("moov", 40, 0) + Box("mvhd", 32, 24), {{0, 264}}},
        {"fragments, one whose head a hole took",
         Box("moov", 24, 0) + Box("mvhd", 16, 8) + Box("moof", 24, 0) + Box("mfhd", 16, 8) + Box("mdat", 58, 50) +
             Bytes(30, '\0') + Bytes(40, '\x42') + Box("moof", 24, 0) + Box("mfhd", 16, 8) + Box("mdat", 28, 20),
         {{56, 106}, {106, 176}, {208, 228}}},
    };
    for (const Case& c : cases) {
        TempDir dir("mp4boxes");
        WriteFile(dir.file("f"), c.file);
        FileReader file;
        ASSERT_TRUE(file.Open(dir.wfile("f")));
        std::vector<std::pair<int64_t, int64_t>> got;
        for (const auto& r : thorough::iso::MediaData(thorough::iso::TopLevelBoxes(file)))
            got.emplace_back(r.begin, r.end);
        EXPECT_EQ(got, c.ranges) << c.name;
    }
}

// ---- end to end, through the exported manager ----

struct Recorder {
    std::string name, extension;
    std::vector<std::string> codecArgs;
};

std::vector<std::string> Lavfi(bool sample) {
    const std::string seconds = sample ? "2" : "4";
    return {"-f", "lavfi", "-i", std::string(sample ? "testsrc" : "testsrc2") + "=size=320x240:rate=25:duration=" + seconds,
            "-f", "lavfi", "-i",
            std::string("sine=frequency=") + (sample ? "660" : "440") + ":sample_rate=48000:duration=" + seconds};
}

std::string Make(const Recorder& r, bool sample) {
    std::vector<std::string> args = Lavfi(sample);
    args.insert(args.end(), r.codecArgs.begin(), r.codecArgs.end());
    args.insert(args.end(), {"-threads", "1"});
    return testing_support::GeneratedMedia("mp4rec_" + r.name + (sample ? "_sample." : ".") + r.extension, args);
}

void PrintTo(const Recorder& r, std::ostream* os) { *os << r.name; }

const std::vector<Recorder>& Recorders() {
    static const std::vector<Recorder> recorders = {
        {"h264_aac", "mp4", {"-c:v", "libx264", "-preset", "veryfast", "-g", "25", "-pix_fmt", "yuv420p", "-c:a", "aac"}},
        {"h264_pcm", "mov",
         {"-c:v", "libx264", "-preset", "veryfast", "-g", "25", "-bf", "0", "-pix_fmt", "yuv420p", "-c:a", "pcm_s16le"}},
        {"mjpeg_pcm", "mov", {"-c:v", "mjpeg", "-q:v", "3", "-pix_fmt", "yuvj420p", "-c:a", "pcm_s16le"}},
        {"hevc_aac", "mp4",
         {"-c:v", "libx265", "-preset", "veryfast", "-g", "25", "-pix_fmt", "yuv420p", "-x265-params", "log-level=none",
          "-c:a", "aac"}},
    };
    return recorders;
}

// Where the moov box starts (the index written last); the file size when none.
int64_t IndexAt(const std::string& bytes) {
    for (size_t at = 0; at + 8 <= bytes.size();) {
        uint32_t size = uint32_t(uint8_t(bytes[at])) << 24 | uint32_t(uint8_t(bytes[at + 1])) << 16 |
                        uint32_t(uint8_t(bytes[at + 2])) << 8 | uint8_t(bytes[at + 3]);
        if (bytes.compare(at + 4, 4, "moov") == 0) return int64_t(at);
        if (size < 8) break;
        at += size;
    }
    return int64_t(bytes.size());
}

// The recording that was never finished: the index is gone, and the media data
// is cut at `keep` of its length, or declared with size 0, or hit by noise.
struct Unfinished {
    const char* name;
    double keep;
    bool sizeZero;
    bool noise;
};

void PrintTo(const Unfinished& u, std::ostream* os) { *os << u.name; }

double StreamSeconds(const std::string& path, const char* stream) {
    std::string out;
    testing_support::RunProgram({VR_TEST_FFPROBE, "-v", "error", "-select_streams", stream, "-show_entries",
                                 "packet=duration_time", "-of", "csv=p=0", path},
                                &out);
    double total = 0;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) total += std::atof(line.c_str());
    return total;
}

// Seconds of the healthy file's first audio stream whose packets lie whole in
// the kept bytes: those away from the noise, and all of them.
std::pair<double, double> WrittenAudioSeconds(const std::string& healthy, int64_t kept, const Damage& noise) {
    std::string out;
    testing_support::RunProgram({VR_TEST_FFPROBE, "-v", "error", "-select_streams", "a:0", "-show_entries",
                                 "packet=duration_time,size,pos", "-of", "csv=p=0", healthy},
                                &out);
    std::pair<double, double> seconds{0, 0};
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
        double duration = 0;
        long long size = 0, pos = -1;
        if (std::sscanf(line.c_str(), "%lf,%lld,%lld", &duration, &size, &pos) != 3 || pos + size > kept) continue;
        seconds.first += noise.Hits(pos, pos + size) ? 0 : duration;
        seconds.second += duration;
    }
    return seconds;
}

// One thorough repair through the exported manager; reason holds what it said.
struct Thorough {
    ManagerRun run;
    std::string reason;
};
Thorough RepairThoroughly(const std::string& damaged, const std::string& sample, const TempDir& dir) {
    ThoroughRepairOptions options{};
    options.size = sizeof options;
    ManagerRun run = ThoroughRepairThroughManager(damaged, sample, dir, &options);
    return {run, options.reason};
}

class Mp4UnfinishedTest : public ::testing::TestWithParam<std::tuple<Recorder, Unfinished>> {};

TEST_P(Mp4UnfinishedTest, RecoversTheFramesThatWereWrittenInSync) {
    const auto& [recorder, damage] = GetParam();
    std::string healthy = Make(recorder, false), sample = Make(recorder, true);
    if (healthy.empty() && recorder.name == "hevc_aac") GTEST_SKIP() << "no libx265 here";
    ASSERT_FALSE(healthy.empty());
    std::string bytes = ReadFile(healthy);
    const int64_t index = IndexAt(bytes);
    ASSERT_LT(index, int64_t(bytes.size()));
    std::string cut = bytes.substr(0, size_t(index));
    std::vector<ProbedPacket> packets = PositionedPackets(ProbeVideoPackets(healthy));
    ASSERT_FALSE(packets.empty());
    const int64_t mdatBegin = packets.front().position;
    cut.resize(size_t(mdatBegin + int64_t(double(index - mdatBegin) * damage.keep)));
    if (damage.sizeZero) cut.replace(size_t(mdatBegin - 8), 4, std::string(4, '\0'));
    Damage noise;
    if (damage.noise) noise.noise = {{int64_t(cut.size()) / 2, int64_t(cut.size()) / 2 + 3000}};
    TempDir dir("mp4unfinished");
    std::string damaged = dir.file("damaged." + recorder.extension);
    WriteFile(damaged, ApplyDamage(cut, noise));

    int written = 0;
    for (const ProbedPacket& p : packets) {
        const bool whole = p.position + p.size <= int64_t(cut.size());
        const bool hit = damage.noise && noise.Hits(p.position, p.position + p.size);
        written += whole && !hit;
    }
    const auto [run, reason] = RepairThoroughly(damaged, sample, dir);
    ASSERT_EQ(run.result, 0) << reason;
    EXPECT_TRUE(run.inputUnchanged);
    // Noise costs the rest of its group of pictures beside the frame it hit.
    const double share = damage.noise ? 0.75 : 0.95;
    EXPECT_GE(CountBitExactFrames(run.repairedPath, healthy), int(share * written)) << reason;
    // Audio in sync: all that was written whole, within a video frame; frames the
    // noise hit may or may not still decode.
    const double frame = 1.0 / 25, audio = StreamSeconds(run.repairedPath, "a:0");
    const auto [spared, whole] = WrittenAudioSeconds(healthy, int64_t(cut.size()), noise);
    EXPECT_GE(audio, spared - frame);
    EXPECT_LE(audio, whole + frame);
    // The compatible road still refuses the family.
    EXPECT_EQ(RepairThroughManager(damaged, sample, dir).result, -1);
}

INSTANTIATE_TEST_SUITE_P(Recorders, Mp4UnfinishedTest,
                         ::testing::Combine(::testing::ValuesIn(Recorders()),
                                            ::testing::Values(Unfinished{"IndexLost", 1.0, false, false},
                                                              Unfinished{"CutAt60", 0.6, false, false},
                                                              Unfinished{"SizeZero", 0.8, true, false},
                                                              Unfinished{"Noise", 1.0, false, true})),
                         [](const auto& info) {
                             return std::get<0>(info.param).name + "_" + std::get<1>(info.param).name;
                         });

// A camera that writes one IDR picture and then only I pictures with recovery
// points (an open GOP): with the start of the recording gone, decoding starts
// again at the next recovery point instead of waiting for an IDR that never comes.
TEST(Mp4RecoveryPointTest, AnOpenGopRecordingRestartsAtItsRecoveryPoints) {
    const Recorder openGop{"h264_open_gop", "mp4",
                           {"-c:v", "libx264", "-preset", "veryfast", "-pix_fmt", "yuv420p", "-x264-params",
                            "open-gop=1:keyint=25:min-keyint=25:scenecut=0", "-c:a", "aac"}};
    std::string healthy = Make(openGop, false), sample = Make(openGop, true);
    ASSERT_FALSE(healthy.empty());
    std::string bytes = ReadFile(healthy);
    std::string cut = bytes.substr(0, size_t(IndexAt(bytes)));
    std::vector<ProbedPacket> packets = PositionedPackets(ProbeVideoPackets(healthy));
    ASSERT_GT(packets.size(), 75u);
    const int64_t zeroedEnd = packets[30].position;  // the IDR and the first group are gone
    cut.replace(0, size_t(zeroedEnd), size_t(zeroedEnd), '\0');
    TempDir dir("mp4opengop");
    std::string damaged = dir.file("damaged.mp4");
    WriteFile(damaged, cut);
    int whole = 0;
    for (const ProbedPacket& p : packets) whole += p.position >= zeroedEnd;
    const auto [run, reason] = RepairThoroughly(damaged, sample, dir);
    ASSERT_EQ(run.result, 0) << reason;
    // The pictures that lean on the lost group before the first recovery point are lost too.
    EXPECT_GE(CountBitExactFrames(run.repairedPath, healthy), int(0.7 * whole)) << reason;
}

// A sample of another codec, or of the same codec with other settings, is no
// guide: the tool says so and writes nothing. A sample whose sound is another
// codec still guides the pictures: they come back, without sound, and the
// tool says so rather than write the damaged file's sound as the sample's.
TEST(Mp4SampleFitTest, ASampleThatDoesNotFitIsRefusedWithAReason) {
    const std::vector<std::string> h264 = {"-c:v", "libx264", "-preset", "veryfast", "-g", "25"};
    auto with = [&](std::vector<std::string> more) {
        more.insert(more.begin(), h264.begin(), h264.end());
        return more;
    };
    const struct {
        Recorder sample;
        int result;
        const char* said;
    } cases[] = {
        {Recorders()[2], -1, "does not fit"},
        {{"h264_444", "mp4", with({"-pix_fmt", "yuv444p", "-c:a", "aac"})}, -1, "does not fit"},
        {{"h264_pcm_b", "mov", with({"-pix_fmt", "yuv420p", "-c:a", "pcm_s16le"})}, 0, "without sound"},
    };
    const std::string healthy = Make(Recorders()[0], false);
    const std::string bytes = ReadFile(healthy);
    for (const auto& c : cases) {
        TempDir dir("mp4fit");
        std::string damaged = dir.file("damaged.mp4");
        WriteFile(damaged, bytes.substr(0, size_t(IndexAt(bytes))));
        const auto [run, reason] = RepairThoroughly(damaged, Make(c.sample, true), dir);
        EXPECT_EQ(run.result, c.result) << c.sample.name;
        EXPECT_NE(reason.find(c.said), std::string::npos) << reason;
        EXPECT_TRUE(run.inputUnchanged);
        if (run.result != 0) continue;
        EXPECT_GE(CountBitExactFrames(run.repairedPath, healthy), 95);
        EXPECT_EQ(CountStreams(run.repairedPath, "a"), 0) << reason;
    }
}

// The index survived but not all the data: the file's own index is read, every
// sample still whole is kept, the cut one is left out and the reason says so;
// a zeroed head, or a hole where a fragment's head was, hides samples from the
// demuxer, and the carver takes over.
TEST(Mp4IndexKeptTest, CutDataZeroedHeadsAndFragments) {
    const Recorder front{"h264_aac_front", "mp4",
                         {"-c:v", "libx264", "-preset", "veryfast", "-g", "25", "-pix_fmt", "yuv420p", "-c:a", "aac",
                          "-movflags", "+faststart"}};
    const Recorder fragmented{"h264_aac_fragmented", "mp4",
                              {"-c:v", "libx264", "-preset", "veryfast", "-g", "25", "-pix_fmt", "yuv420p", "-c:a",
                               "aac", "-movflags", "frag_keyframe+empty_moov"}};
    struct Case {
        const char* name;
        const Recorder& recorder;
        double keep;
        Range zeroed;  // as shares of the file, in thousandths
        const char* said;
    };
    const Case cases[] = {
        {"data cut behind a leading index", front, 0.6, {0, 0}, "left out"},
        {"head zeroed, index at the end", Recorders()[0], 1.0, {0, 40}, ""},
        {"fragments, the last one cut", fragmented, 0.6, {0, 0}, ""},
        {"fragments, one whose head a hole took", fragmented, 1.0, {450, 500}, ""},
    };
    for (const Case& c : cases) {
        std::string healthy = Make(c.recorder, false), sample = Make(c.recorder, true);
        std::string bytes = ReadFile(healthy);
        Damage damage;
        const int64_t size = int64_t(bytes.size());
        damage.keep = int64_t(double(size) * c.keep);
        if (c.zeroed.end > 0) damage.zeroed = {{size * c.zeroed.begin / 1000, size * c.zeroed.end / 1000}};
        TempDir dir("mp4kept");
        std::string damaged = dir.file("damaged.mp4");
        WriteFile(damaged, ApplyDamage(bytes, damage));
        const auto frames = CountSurvivors(OwnBytes(PositionedPackets(ProbeVideoPackets(healthy)), 0, 0), damage,
                                           Dependence::kUnbrokenChain);
        const auto [run, reason] = RepairThoroughly(damaged, sample, dir);
        ASSERT_EQ(run.result, 0) << c.name;
        EXPECT_GE(CountBitExactFrames(run.repairedPath, healthy), int(0.95 * frames)) << c.name;
        // Behind a hole, pictures that lost their references still decode; a cut
        // leaves none such.
        if (c.zeroed.end == 0) {
            EXPECT_EQ(testing_support::CountDecodedVideoFrames(run.repairedPath),
                      CountBitExactFrames(run.repairedPath, healthy))
                << c.name << ": a frame that is not whole was kept";
        }
        EXPECT_NE(reason.find(c.said), std::string::npos) << reason;
    }
}

// A sound recording (M4A) that stopped before its index: its AAC frames are
// cut one after another, over noise too, and none is lost but what was hit.
// The rotation a stream is to be shown with, as ffprobe reads it; empty: none.
std::string Rotation(const std::string& path) {
    std::string out;
    testing_support::RunProgram({VR_TEST_FFPROBE, "-v", "error", "-select_streams", "v:0", "-show_entries",
                                 "stream_side_data=rotation", "-of", "csv=p=0", path},
                                &out);
    return out.substr(0, out.find_first_of("\r\n"));
}

// A phone held upright records its pictures sideways and says so in the track
// header; the repaired file says so too, whether its index was lost (the
// sample's is taken) or kept in front of data that was cut (the file's own).
TEST(Mp4RotationTest, UprightRecordingsStayUpright) {
    const Recorder& phone = Recorders().front();
    TempDir dir("mp4rotation");
    auto turn = [&](bool sample, bool indexInFront) {
        std::string path = dir.file(std::string(sample ? "sample" : "healthy") + (indexInFront ? "_front" : "") + ".mp4");
        std::vector<std::string> args = {testing_support::BinDir() + "/ffmpeg", "-v", "error", "-y", "-i",
                                         Make(phone, sample), "-c", "copy", "-metadata:s:v:0", "rotate=90"};
        if (indexInFront) args.insert(args.end(), {"-movflags", "+faststart"});
        args.push_back(path);
        return testing_support::RunProgram(args) == 0 ? path : std::string();
    };
    const std::string sample = turn(true, false), atEnd = turn(false, false), inFront = turn(false, true);
    ASSERT_FALSE(sample.empty() || atEnd.empty() || inFront.empty());
    const std::string rotation = Rotation(atEnd);
    ASSERT_FALSE(rotation.empty());
    const std::string unfinished = ReadFile(atEnd), cut = ReadFile(inFront);
    const struct {
        const char* name;
        std::string bytes;
    } cases[] = {{"index lost", unfinished.substr(0, size_t(IndexAt(unfinished)))},
                 {"index kept, data cut", cut.substr(0, cut.size() * 7 / 10)}};
    for (const auto& c : cases) {
        std::string damaged = dir.file(std::string(c.name) + ".mp4");
        WriteFile(damaged, c.bytes);
        const auto [run, reason] = RepairThoroughly(damaged, sample, dir);
        ASSERT_EQ(run.result, 0) << c.name << ": " << reason;
        EXPECT_EQ(Rotation(run.repairedPath), rotation) << c.name << ": " << reason;
    }
}

TEST(Mp4AudioOnlyTest, AnUnfinishedSoundRecordingComesBack) {
    auto make = [](bool sample) {
        return testing_support::GeneratedMedia(
            std::string("mp4rec_voice") + (sample ? "_sample" : "") + ".m4a",
            {"-f", "lavfi", "-i", std::string("sine=frequency=") + (sample ? "660" : "440") + ":sample_rate=48000:duration=" +
                                     (sample ? "2" : "6"),
             "-c:a", "aac", "-threads", "1"});
    };
    const std::string healthy = make(false), sample = make(true);
    const std::string bytes = ReadFile(healthy);
    for (bool noisy : {false, true}) {
        const std::string cut = bytes.substr(0, size_t(IndexAt(bytes)));
        Damage noise;
        if (noisy) noise.noise = {{int64_t(cut.size()) / 2, int64_t(cut.size()) / 2 + 3000}};
        TempDir dir("mp4voice");
        const std::string damaged = dir.file("damaged.m4a");
        WriteFile(damaged, ApplyDamage(cut, noise));
        const auto [run, reason] = RepairThoroughly(damaged, sample, dir);
        ASSERT_EQ(run.result, 0) << reason;
        const auto [spared, whole] = WrittenAudioSeconds(healthy, int64_t(cut.size()), noise);
        const double audio = StreamSeconds(run.repairedPath, "a:0"), frame = 1024.0 / 48000;
        EXPECT_GE(audio, spared - frame) << (noisy ? "noise" : "cut");
        EXPECT_LE(audio, whole + frame) << (noisy ? "noise" : "cut");
    }
}

// A timed metadata track (as phones write beside their video and sound) puts a
// small sample in front of every audio chunk: the carver steps over it, and
// loses neither pictures nor sound.
TEST(Mp4MetadataTrackTest, MetadataInFrontOfEachAudioChunkIsSteppedOver) {
    const std::string healthy = Make(Recorders()[0], false), sample = Make(Recorders()[0], true);
    const std::string bytes = ReadFile(healthy);
    std::string out;
    testing_support::RunProgram({VR_TEST_FFPROBE, "-v", "error", "-show_entries", "packet=stream_index,pos,size", "-of",
                                 "csv=p=0", healthy},
                                &out);
    std::vector<std::tuple<long long, long long, int>> packets;  // pos, size, stream
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
        int stream = 0;
        long long size = 0, pos = 0;
        if (std::sscanf(line.c_str(), "%d,%lld,%lld", &stream, &size, &pos) == 3) packets.emplace_back(pos, size, stream);
    }
    std::sort(packets.begin(), packets.end());
    ASSERT_FALSE(packets.empty());
    const Bytes metadata = Bytes("\x00\x00\x00\x18keyd\x01\x02", 10) + Bytes(14, '\x33');
    std::string rebuilt = bytes.substr(0, size_t(std::get<0>(packets.front())));
    rebuilt.replace(rebuilt.size() - 8, 4, std::string(4, '\0'));  // the mdat size a writer puts first
    int previous = 0;
    for (const auto& [pos, size, stream] : packets) {
        if (stream == 1 && previous == 0) rebuilt += metadata;
        rebuilt += bytes.substr(size_t(pos), size_t(size));
        previous = stream;
    }
    TempDir dir("mp4meta");
    const std::string damaged = dir.file("damaged.mp4");
    WriteFile(damaged, rebuilt);
    const auto [run, reason] = RepairThoroughly(damaged, sample, dir);
    ASSERT_EQ(run.result, 0) << reason;
    EXPECT_GE(CountBitExactFrames(run.repairedPath, healthy), 95);
    const auto [spared, whole] = WrittenAudioSeconds(healthy, int64_t(bytes.size()), Damage());
    EXPECT_NEAR(StreamSeconds(run.repairedPath, "a:0"), whole, 1.0 / 25) << reason;
}

}  // namespace
