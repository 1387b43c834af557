// Byte-level behaviour of the MPEG program stream carving: which PES packets are
// taken, where their payload starts, the frame type, the scan's skipping, and the
// prefix learning on hand-made packets.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "MpegPesMatcher.h"
#include "MpegPrefixLearner.h"
#include "io/PositionedReader.h"
#include "support/TestSupport.h"

using namespace testing_support;
using Bytes = std::vector<uint8_t>;

namespace {

// A PES packet: start code, PES_packet_length, then `header` and `payload`.
Bytes Pes(uint8_t streamId, const Bytes& header, const Bytes& payload, int lengthOverride = -1) {
    Bytes b = {0x00, 0x00, 0x01, streamId};
    size_t length = lengthOverride >= 0 ? size_t(lengthOverride) : header.size() + payload.size();
    b.push_back(uint8_t(length >> 8));
    b.push_back(uint8_t(length));
    b.insert(b.end(), header.begin(), header.end());
    b.insert(b.end(), payload.begin(), payload.end());
    return b;
}

// An MPEG-2 PES header with a PTS: flags, header length 5, PTS (no start-code bytes).
const Bytes kPtsHeader = {0x81, 0x80, 0x05, 0x21, 0x00, 0x05, 0xbf, 0x21};

Bytes Filler(size_t n, uint8_t seed) {
    Bytes b(n);
    for (size_t i = 0; i < n; ++i) b[i] = uint8_t(0x40 + (seed + i * 7) % 0x80);  // never 00 or 01
    return b;
}

Bytes Cat(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& p : parts) all.insert(all.end(), p.begin(), p.end());
    return all;
}

SampleRecord Match(MpegPesMatcher& m, const Bytes& b, int64_t position = 1000) {
    return m.MatchPacketAt(position, b.data(), b.size());
}

}  // namespace

// With prefixes of 10 bytes, a video packet needs a PES length of at least
// prefix - 1, an audio packet more than the prefix; only E0 and C0 are taken.
TEST(MpegPesMatcher, PacketLengthThresholdsAndStreamIds) {
    const struct {
        const char* what;
        uint8_t id;
        size_t length;
        bool noAudio;
        bool found;
        uint32_t kind;
        int64_t size;  // the payload at offset 1014 (position 1000, start code, length and prefix)
    } cases[] = {
        {"video at prefix - 2", 0xE0, 8, false, false, SampleRecord::kNothing, 0},
        {"video at prefix - 1", 0xE0, 9, false, true, SampleRecord::kVideo, 1},
        {"audio at prefix", 0xC0, 10, false, false, SampleRecord::kNothing, 0},
        {"audio past prefix", 0xC0, 11, false, true, SampleRecord::kAudio, 11 - 10 + 2},
        {"audio where there is none", 0xC0, 300, true, false, SampleRecord::kNothing, 0},
    };
    for (const auto& c : cases) {
        MpegPesMatcher m;
        m.SetPrefixes(10, 10);
        m.SetNoAudio(c.noAudio);
        // Padded with bytes of the next packet.
        const SampleRecord r = Match(m, Cat({Pes(c.id, {}, Filler(c.length, 1)), Filler(20, 2)}));
        EXPECT_EQ(r.found, c.found) << c.what;
        EXPECT_EQ(r.kind, c.kind) << c.what;
        EXPECT_EQ(r.frameType, SampleRecord::kFrameUnknown) << c.what;
        EXPECT_EQ(r.offset, c.found ? 1014u : 0u) << c.what;
        EXPECT_EQ(r.size, c.size) << c.what;
        EXPECT_EQ(r.packetLength, c.found ? uint32_t(6 + c.length) : 0u) << c.what;
    }
    MpegPesMatcher m;
    m.SetPrefixes(10, 10);
    for (uint8_t id : {0xE1, 0xEF, 0xC1, 0xDF, 0xBD, 0xBE, 0xBA, 0xB3, 0x00})
        EXPECT_FALSE(Match(m, Pes(id, kPtsHeader, Filler(100, id))).found) << int(id);
    EXPECT_FALSE(Match(m, Cat({{0x00, 0x01, 0xE0}, Filler(100, 1)})).found) << "a start code cut short";
}

TEST(MpegPesMatcher, EarlyStartCodeCutsThePayloadThereWhateverThePrefix) {
    const Bytes sequenceHeader = {0x00, 0x00, 0x01, 0xB3, 0x14, 0x00, 0xf0, 0x23};
    const Bytes packet = Pes(0xE0, kPtsHeader, Cat({sequenceHeader, Filler(200, 3)}));
    for (uint8_t prefix : {uint8_t(3), uint8_t(10), uint8_t(16)}) {
        MpegPesMatcher m;
        m.SetPrefixes(prefix, 0);
        SampleRecord r = Match(m, packet, 0);
        ASSERT_TRUE(r.found);
        EXPECT_EQ(r.offset, 14u);  // 4 + 2 + 8 header bytes
        EXPECT_EQ(r.size, int64_t(packet.size()) - 14);
    }
    // A start code whose packet ends before it: nothing is taken.
    MpegPesMatcher m;
    Bytes shortPacket = Pes(0xE0, kPtsHeader, Cat({sequenceHeader, Filler(20, 3)}), 5);
    EXPECT_FALSE(Match(m, shortPacket).found);
    // A start code beyond the first 20 bytes does not count: the learnt prefix applies.
    m.SetPrefixes(10, 0);
    Bytes late = Pes(0xE0, Cat({kPtsHeader, Filler(8, 4)}), Cat({sequenceHeader, Filler(50, 3)}));
    SampleRecord r = Match(m, late, 0);
    ASSERT_TRUE(r.found);
    EXPECT_EQ(r.offset, 14u);
}

TEST(MpegPesMatcher, FewerThanTwentyBytesLeftIsNeverAPacket) {
    MpegPesMatcher m;
    m.SetPrefixes(2, 2);
    Bytes packet = Pes(0xE0, {}, Filler(14, 5));  // exactly 20 bytes
    EXPECT_TRUE(Match(m, packet).found);
    EXPECT_FALSE(m.MatchPacketAt(0, packet.data(), 19).found);
    Bytes audio = Pes(0xC0, {}, Filler(14, 5));
    EXPECT_FALSE(m.MatchPacketAt(0, audio.data(), 19).found);
}

TEST(MpegPesMatcher, FrameTypeComesFromTheNextPictureHeaderInTheWindow) {
    auto picture = [](uint8_t type) { return Bytes{0x00, 0x00, 0x01, 0x00, 0x00, uint8_t(type << 3 | 0x07), 0xff}; };
    MpegPesMatcher m;
    m.SetPrefixes(10, 10);
    // No picture header anywhere: unknown.
    Bytes plain = Pes(0xE0, kPtsHeader, Filler(100, 1));
    EXPECT_EQ(Match(m, plain).frameType, SampleRecord::kFrameUnknown);

    // The picture header lies in the packet after the next one.
    m.Reset();
    Bytes first = Pes(0xE0, kPtsHeader, Filler(100, 1));
    Bytes second = Pes(0xC0, kPtsHeader, Filler(60, 2));
    Bytes third = Pes(0xE0, kPtsHeader, Cat({picture(SampleRecord::kFrameB), Filler(40, 3)}));
    Bytes fourth = Pes(0xE0, kPtsHeader, Cat({picture(SampleRecord::kFrameP), Filler(40, 3)}));
    Bytes stream = Cat({first, second, third, fourth});
    EXPECT_EQ(Match(m, stream, 0).frameType, SampleRecord::kFrameB);
    // Walking on (as a scan does) finds each following picture in turn.
    size_t at = first.size() + second.size();
    EXPECT_EQ(m.MatchPacketAt(int64_t(at), stream.data() + at, stream.size() - at).frameType, SampleRecord::kFrameB);
    at += third.size();
    EXPECT_EQ(m.MatchPacketAt(int64_t(at), stream.data() + at, stream.size() - at).frameType, SampleRecord::kFrameP);

    // Coding types 0 and 4..7 are not I, P or B.
    for (uint8_t type : {0, 4, 7}) {
        m.Reset();
        EXPECT_EQ(Match(m, Pes(0xE0, kPtsHeader, Cat({picture(type), Filler(40, 3)}))).frameType,
                  SampleRecord::kFrameUnknown);
    }
    m.Reset();
    EXPECT_EQ(Match(m, Pes(0xE0, kPtsHeader, Cat({picture(SampleRecord::kFrameI), Filler(40, 3)}))).frameType,
              SampleRecord::kFrameI);
}

// Every position the scan passes over in one step must be one where the
// byte-by-byte rule finds nothing; the step must stop at the first that could.
TEST(MpegPesMatcher, SkipDistanceNeverPassesAPossiblePacket) {
    std::mt19937 rng(7);
    for (bool noAudio : {false, true}) {
        Bytes data(20000);
        for (auto& b : data) b = uint8_t(rng() % 4 == 0 ? 0 : rng());  // many zeros
        for (size_t at : {size_t(100), size_t(5000), size_t(5001), size_t(19979), size_t(19990)}) {
            const Bytes code = {0x00, 0x00, 0x01, uint8_t(at % 2 ? 0xC0 : 0xE0)};
            std::memcpy(data.data() + at, code.data(), 4);
        }
        MpegPesMatcher m;
        m.SetNoAudio(noAudio);
        const int64_t size = int64_t(data.size());
        for (size_t window : {size_t(64), size_t(4096), data.size()}) {
            int64_t position = 0;
            while (position < size) {
                size_t length = size_t(std::min<int64_t>(size - position, int64_t(window)));
                const uint8_t* w = data.data() + position;
                if (m.MatchPacketAt(position, w, length).found) {
                    ++position;
                    continue;
                }
                int64_t step = m.DistanceToNextCandidate(w, length, size - position);
                ASSERT_GE(step, 1);
                ASSERT_LE(position + step, size);
                for (int64_t p = position + 1; p < position + step; ++p) {
                    size_t l = size_t(std::min<int64_t>(size - p, int64_t(window)));
                    ASSERT_FALSE(m.MatchPacketAt(p, data.data() + p, l).found) << p;
                }
                if (position + step < size && size - (position + step) >= 20) {
                    const uint8_t* c = data.data() + position + step;
                    bool isCode = c[0] == 0 && c[1] == 0 && c[2] == 1 && (c[3] == 0xE0 || (!noAudio && c[3] == 0xC0));
                    bool windowEnd = position + step == position + int64_t(length) - 3;
                    ASSERT_TRUE(isCode || windowEnd) << position << "+" << step;
                }
                position += step;
            }
        }
    }
}

// ---- prefix learning ----

namespace {

struct LearnFiles {
    TempDir dir{"mpegpfx"};
    std::string sample = dir.file("sample.mpg");
    std::string extracted = dir.file("extracted.dat");
};

MpegPrefixLearner QuietLearner(std::vector<int>* progress = nullptr) {
    MpegPrefixLearner::Control c;
    if (progress) c.progress = [progress](int p) { progress->push_back(p); };
    c.pauseThenShouldStop = [] { return false; };
    c.stopRequested = [] { return false; };
    return MpegPrefixLearner(c);
}

uint8_t LearnVideo(const Bytes& sample, const Bytes& elementary, MpegPrefixLearner learner = QuietLearner()) {
    LearnFiles f;
    WriteFile(f.sample, std::string(sample.begin(), sample.end()));
    WriteFile(f.extracted, std::string(elementary.begin(), elementary.end()));
    PositionedReader reader;
    EXPECT_TRUE(reader.Open(Wide(f.sample)));
    return learner.LearnVideoPrefix(reader, Wide(f.extracted));
}

// A program stream of packs, each a pack header and one video packet. The first
// packet opens with a sequence header right behind its PES header (so the
// learning passes over it); the rest carry plain elementary-stream bytes.
Bytes VideoStream(const Bytes& header, const Bytes& elementary, size_t payloadPerPacket) {
    Bytes stream;
    for (size_t at = 0; at < elementary.size(); at += payloadPerPacket) {
        Bytes packHeader = Cat({{0x00, 0x00, 0x01, 0xBA}, Filler(10, 9)});
        size_t n = std::min(payloadPerPacket, elementary.size() - at);
        Bytes payload(elementary.begin() + int64_t(at), elementary.begin() + int64_t(at + n));
        Bytes packet = Pes(0xE0, header, payload);
        stream.insert(stream.end(), packHeader.begin(), packHeader.end());
        stream.insert(stream.end(), packet.begin(), packet.end());
    }
    return stream;
}

Bytes Elementary(size_t n) {
    Bytes es = {0x00, 0x00, 0x01, 0xB3, 0x14, 0x00, 0xf0, 0x23};
    std::mt19937 rng(3);
    while (es.size() < n) es.push_back(uint8_t(0x02 + rng() % 250));
    return es;
}

}  // namespace

// The learning compares a candidate only with as many extracted bytes as lie
// between the reader and the candidate; the pack headers give that slack, as the
// packs and audio packets of a real stream do.
TEST(MpegPrefixLearner, VideoPrefixIsLengthBytesPlusPesHeader) {
    Bytes es = Elementary(4000);
    EXPECT_EQ(LearnVideo(VideoStream(kPtsHeader, es, 300), es), 10);             // 2 + 8
    EXPECT_EQ(LearnVideo(VideoStream({0x81, 0x00, 0x00}, es, 300), es), 5);      // no PTS
    Bytes ptsDts = Cat({{0x81, 0xC0, 0x0A}, Filler(10, 1)});
    EXPECT_EQ(LearnVideo(VideoStream(ptsDts, es, 300), es), 15);                 // 2 + 13
}

TEST(MpegPrefixLearner, VideoPrefixStaysUnlearntWithoutAMatchAndStopsWhenAsked) {
    Bytes es = Elementary(4000);
    Bytes other = Elementary(4000);
    for (auto& b : other) b = uint8_t(b ^ 0x5a);
    std::vector<int> progress;
    // Nothing matches: the walk reaches the end, reporting how far it got.
    uint8_t prefix = LearnVideo(VideoStream(kPtsHeader, es, 300), other, QuietLearner(&progress));
    EXPECT_LE(prefix, 2);
    ASSERT_FALSE(progress.empty());
    EXPECT_GT(progress.back(), 80);

    MpegPrefixLearner::Control stopped;
    stopped.stopRequested = [] { return true; };
    stopped.pauseThenShouldStop = [] { return true; };
    EXPECT_EQ(LearnVideo(VideoStream(kPtsHeader, es, 300), es, MpegPrefixLearner(stopped)), 0);

    // A sample without any video start code ends the walk instead of looping.
    EXPECT_EQ(LearnVideo(Filler(3000, 4), es), 0);
}

TEST(MpegPrefixLearner, AudioPrefixSkipsTheWaveHeaderOfTheExtraction) {
    Bytes audio = Filler(400, 11);
    audio[0] = 0xFF;
    audio[1] = 0xFD;
    Bytes sample = Cat({Pes(0xE0, kPtsHeader, Filler(100, 1)), Pes(0xC0, kPtsHeader, Bytes(audio.begin(), audio.begin() + 200)),
                        Pes(0xC0, kPtsHeader, Bytes(audio.begin() + 200, audio.end()))});
    Bytes wave = {'R', 'I', 'F', 'F', 0, 0, 0, 0, 'W', 'A', 'V', 'E', 'f', 'm', 't', ' ', 4, 0, 0, 0, 1, 2, 3, 4,
                  'd', 'a', 't', 'a', 0x90, 1, 0, 0};
    EXPECT_EQ(MpegPrefixLearner::AudioPayloadStart(wave), wave.size());
    for (const Bytes& extracted : {Cat({wave, audio}), audio}) {
        LearnFiles f;
        WriteFile(f.sample, std::string(sample.begin(), sample.end()));
        WriteFile(f.extracted, std::string(extracted.begin(), extracted.end()));
        PositionedReader reader;
        ASSERT_TRUE(reader.Open(Wide(f.sample)));
        EXPECT_EQ(QuietLearner().LearnAudioPrefix(reader, Wide(f.extracted)), 10);
    }
}
