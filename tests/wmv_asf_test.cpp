// The ASF header parser and the data-packet carver on hand-made bytes.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <thread>
#include <string>
#include <vector>

#include "wmv/AsfPacketCarver.h"
#include "wmv/WmvAsfInfoParser.h"

using namespace wmv;

namespace {

using Bytes = std::vector<uint8_t>;

void Put(Bytes& b, uint64_t v, int n) {
    for (int i = 0; i < n; ++i) b.push_back(uint8_t(v >> (8 * i)));
}
void Put(Bytes& b, const AsfGuid& g) { b.insert(b.end(), g.begin(), g.end()); }
void SetSize(Bytes& b) {
    for (int i = 0; i < 8; ++i) b[16 + i] = uint8_t(uint64_t(b.size()) >> (8 * i));
}

Bytes FileProperties(uint64_t packets, uint64_t play100ns, uint64_t prerollMs) {
    Bytes b;
    Put(b, kAsfFilePropertiesObject);
    Put(b, 104, 8);
    b.resize(56, 0);
    Put(b, packets, 8);
    Put(b, play100ns, 8);
    Put(b, 0, 8);  // send duration
    Put(b, prerollMs, 8);
    b.resize(104, 0);
    return b;
}

Bytes StreamProperties(const AsfGuid& type, uint8_t streamNumber, const Bytes& typeSpecific) {
    Bytes b;
    Put(b, kAsfStreamPropertiesObject);
    Put(b, 0, 8);
    Put(b, type);
    b.resize(64, 0);
    Put(b, typeSpecific.size(), 4);
    Put(b, 0, 4);
    Put(b, streamNumber, 2);
    Put(b, 0, 4);
    b.insert(b.end(), typeSpecific.begin(), typeSpecific.end());
    SetSize(b);
    return b;
}

Bytes WaveFormat(uint16_t tag, uint16_t extraSize, const Bytes& extra) {
    Bytes b;
    Put(b, tag, 2);
    Put(b, 2, 2);
    Put(b, 44100, 4);
    Put(b, 8000, 4);
    Put(b, 1487, 2);
    Put(b, 16, 2);
    Put(b, extraSize, 2);
    b.insert(b.end(), extra.begin(), extra.end());
    return b;
}

Bytes VideoFormat(uint32_t bitmapSize, const char* codec, const Bytes& extra) {
    Bytes b;
    Put(b, 0x10140, 4);  // only the low 16 bits are the width
    Put(b, 240, 4);
    b.push_back(2);
    Put(b, 40 + extra.size(), 2);
    Put(b, bitmapSize, 4);
    Put(b, 320, 4);
    Put(b, 240, 4);
    Put(b, 1, 2);
    Put(b, 24, 2);
    b.insert(b.end(), codec, codec + 4);
    b.resize(b.size() + 20, 0);
    b.insert(b.end(), extra.begin(), extra.end());
    return b;
}

TEST(WmvAsfInfoParser, FilePropertiesSetDurationOnlyAbovePreroll) {
    WmvAsfInfoParser parser;
    Bytes fp = FileProperties(100, 30000000, 3000);  // 3 s play, 3 s preroll
    EXPECT_EQ(parser.ParseFileProperties(fp.data(), fp.size()), 104u);
    EXPECT_EQ(parser.DurationSeconds(), 0u);
    EXPECT_EQ(parser.VideoInfo().frameRate, 0.0);

    fp = FileProperties(100, 71000000, 3100);  // 7.1 s play, 3.1 s preroll: whole seconds 7 - 3
    parser.ParseFileProperties(fp.data(), fp.size());
    EXPECT_EQ(parser.DurationSeconds(), 4u);
    EXPECT_EQ(parser.PacketRate(), 25.0);
    EXPECT_EQ(parser.ParseFileProperties(fp.data(), 87), 0u);
}

TEST(WmvAsfInfoParser, AudioStreamAndCodecNames) {
    WmvAsfInfoParser parser;
    Bytes sp = StreamProperties(kAsfAudioMedia, 0x82, WaveFormat(0x163, 3, {7, 8, 9}));
    EXPECT_EQ(parser.ParseStreamProperties(sp.data(), sp.size()), sp.size());
    AudioStreamInfo a = parser.AudioInfo();
    EXPECT_EQ(a.streamNumber, 2);  // the low 7 bits of the flags
    EXPECT_EQ(a.codecName, "wma lossess");
    EXPECT_EQ(a.samplesPerSecond, 44100u);
    EXPECT_EQ(a.blockAlign, 1487);
    EXPECT_EQ(a.extra, (Bytes{7, 8, 9}));
}

TEST(WmvAsfInfoParser, VideoStreamAndOtherTypes) {
    WmvAsfInfoParser parser;
    Bytes sp = StreamProperties(kAsfVideoMedia, 1, VideoFormat(44, "WMV2", {1, 2, 3, 4}));
    EXPECT_EQ(parser.ParseStreamProperties(sp.data(), sp.size()), sp.size());
    VideoStreamInfo v = parser.VideoInfo();
    EXPECT_EQ(v.streamNumber, 1);
    EXPECT_EQ(v.width, 0x140);
    EXPECT_EQ(v.height, 240);
    EXPECT_EQ(v.bitsPerPixel, 24);
    EXPECT_EQ(v.codec, "WMV2");
    EXPECT_EQ(v.codecExtra, (Bytes{1, 2, 3, 4}));

    AsfGuid command = kAsfVideoMedia;
    command[0] ^= 0xFF;
    sp = StreamProperties(command, 5, VideoFormat(40, "WMV2", {}));
    EXPECT_EQ(parser.ParseStreamProperties(sp.data(), sp.size()), 0u);
    EXPECT_EQ(parser.VideoInfo().streamNumber, 1);
}

TEST(WmvAsfInfoParser, LyingSizesStayInsideTheBuffer) {
    WmvAsfInfoParser parser;
    // The bitmap header claims 64 KiB of codec data that the buffer does not hold.
    Bytes sp = StreamProperties(kAsfVideoMedia, 1, VideoFormat(0xFFFF, "WMV3", {5, 6}));
    sp[64] = sp[65] = sp[66] = sp[67] = 0xFF;  // and the type-specific length lies too
    EXPECT_NE(parser.ParseStreamProperties(sp.data(), sp.size()), 0u);
    EXPECT_EQ(parser.VideoInfo().codecExtra, (Bytes{5, 6}));

    sp = StreamProperties(kAsfAudioMedia, 2, WaveFormat(0x161, 0xFFFF, {1}));
    EXPECT_NE(parser.ParseStreamProperties(sp.data(), sp.size()), 0u);
    EXPECT_EQ(parser.AudioInfo().extra, (Bytes{1}));
    EXPECT_EQ(parser.AudioInfo().extraSize, 1);

    // Too short for the format structures, or for the object itself.
    sp = StreamProperties(kAsfVideoMedia, 1, Bytes(50, 0));
    EXPECT_EQ(parser.ParseStreamProperties(sp.data(), sp.size()), 0u);
    sp = StreamProperties(kAsfAudioMedia, 2, Bytes(17, 0));
    EXPECT_EQ(parser.ParseStreamProperties(sp.data(), sp.size()), 0u);
    EXPECT_EQ(parser.ParseStreamProperties(sp.data(), 77), 0u);
}

TEST(WmvAsfInfoParser, FindObjectAndPacketSize) {
    Bytes b(10, 0xAA);
    Put(b, kAsfDataObject);
    Put(b, 50 + 3200 * 10, 8);
    b.resize(10 + 40, 0);
    Put(b, 10, 8);
    b.resize(10 + 50, 0);
    EXPECT_EQ(WmvAsfInfoParser::FindObject(b.data(), b.size(), kAsfDataObject), 10);
    EXPECT_EQ(WmvAsfInfoParser::FindObject(b.data(), 15, kAsfDataObject), -1);
    EXPECT_EQ(WmvAsfInfoParser::FindObject(b.data(), b.size(), kAsfHeaderObject), -1);
    uint32_t packetSize = 0;
    EXPECT_TRUE(WmvAsfInfoParser::PacketSize(b.data() + 10, 50, packetSize));
    EXPECT_EQ(packetSize, 3200u);
    EXPECT_FALSE(WmvAsfInfoParser::PacketSize(b.data() + 10, 49, packetSize));
    std::memset(b.data() + 50, 0, 8);  // no packets counted
    EXPECT_FALSE(WmvAsfInfoParser::PacketSize(b.data() + 10, 50, packetSize));
}

TEST(WmvAsfInfoParser, SearchTakesEveryStreamOfTheBuffer) {
    Bytes b(33, 0);
    Bytes video = StreamProperties(kAsfVideoMedia, 3, VideoFormat(40, "WMV1", {}));
    Bytes audio = StreamProperties(kAsfAudioMedia, 4, WaveFormat(0x161, 0, {}));
    b.insert(b.end(), video.begin(), video.end());
    b.insert(b.end(), 7, 0x11);
    b.insert(b.end(), audio.begin(), audio.end());
    WmvAsfInfoParser parser;
    EXPECT_EQ(parser.SearchStreamProperties(b.data(), b.size()), 2);
    EXPECT_EQ(parser.VideoInfo().streamNumber, 3);
    EXPECT_EQ(parser.AudioInfo().streamNumber, 4);
}

// ---- carving ----

constexpr uint32_t kP = 200;

struct PacketLayout {
    bool multiple = false;
    uint32_t padding = 0;
    uint8_t paddingType = 1;  // byte
};

// Packet header: 82 00 00, length types, properties (replicated byte, offset
// dword, object number byte, stream byte), padding, send time, duration.
Bytes PacketHeader(const PacketLayout& s) {
    Bytes b = {0x82, 0x00, 0x00};
    b.push_back(uint8_t((s.multiple ? 1 : 0) | (s.paddingType << 3)));
    b.push_back(0x5D);
    Put(b, s.padding, s.paddingType == 2 ? 2 : s.paddingType);
    Put(b, 0, 6);
    return b;
}

void PayloadHeader(Bytes& b, uint8_t stream, uint8_t object, uint8_t replicated) {
    b.push_back(stream);
    b.push_back(object);
    Put(b, 0, 4);
    b.push_back(replicated);
    b.insert(b.end(), replicated, 0xEE);
}

CarveSettings Settings() {
    CarveSettings s;
    s.packetSize = kP;
    s.videoStream = 1;
    s.audioStream = 2;
    return s;
}

Bytes SinglePacket(uint8_t stream, uint8_t replicated, uint32_t padding) {
    PacketLayout layout;
    layout.padding = padding;
    Bytes b = PacketHeader(layout);
    PayloadHeader(b, stream, 9, replicated);
    b.resize(kP, 0x55);
    return b;
}

TEST(AsfPacketCarver, SinglePayload) {
    Bytes b = SinglePacket(0x81, 8, 10);
    CarveResult r = CarvePacket(b.data(), b.size(), 1000, Settings());
    ASSERT_EQ(r.records.size(), 1u);
    const size_t headers = 12 + 7 + 8;
    EXPECT_EQ(r.records[0].offset, int64_t(1000 + headers));
    EXPECT_EQ(r.records[0].size, int64_t(kP - headers - 10));
    EXPECT_EQ(r.records[0].streamNumber, 1);
    EXPECT_EQ(r.records[0].keyFrame, 1);
    EXPECT_EQ(r.records[0].mediaObjectNumber, 9u);
    EXPECT_EQ(r.advance, int64_t(kP));
}

Bytes MultiplePacket(const std::vector<std::tuple<uint8_t, uint8_t, uint16_t>>& payloads, uint32_t padding,
                     uint8_t replicated = 8) {
    PacketLayout layout;
    layout.multiple = true;
    layout.padding = padding;
    Bytes b = PacketHeader(layout);
    b.push_back(uint8_t(0x80 | payloads.size()));  // word lengths
    for (auto [stream, object, length] : payloads) {
        PayloadHeader(b, stream, object, replicated);
        Put(b, length, 2);
        b.insert(b.end(), length, 0x33);
    }
    b.resize(kP, 0);
    return b;
}

TEST(AsfPacketCarver, MultiplePayloads) {
    size_t used = 13 + 2 * (7 + 8 + 2) + 80;
    Bytes b = MultiplePacket({{1, 4, 50}, {0x82, 7, 30}}, uint32_t(kP - used));
    CarveResult r = CarvePacket(b.data(), b.size(), 0, Settings());
    ASSERT_EQ(r.records.size(), 2u);
    EXPECT_EQ(r.records[0].offset, 13 + 17);
    EXPECT_EQ(r.records[0].size, 50);
    EXPECT_EQ(r.records[1].offset, 13 + 17 + 50 + 17);
    EXPECT_EQ(r.records[1].streamNumber, 2);
    EXPECT_EQ(r.records[1].keyFrame, 1);
    EXPECT_EQ(r.advance, int64_t(kP));  // over the padding to the next packet

    // A foreign stream ends the packet with what was carved before it.
    b = MultiplePacket({{1, 4, 50}, {6, 7, 30}}, 0);
    EXPECT_EQ(CarvePacket(b.data(), b.size(), 0, Settings()).records.size(), 1u);
    // Fewer than 3 bytes left: what was carved stands.
    b = MultiplePacket({{1, 4, 50}, {2, 7, 30}}, 0);
    EXPECT_EQ(CarvePacket(b.data(), 13 + 17 + 50 + 2, 0, Settings()).records.size(), 1u);
}

TEST(AsfPacketCarver, PacketsThatYieldNothing) {
    Bytes notAStart = SinglePacket(1, 8, 0);
    notAStart[1] = 1;
    const struct {
        const char* what;
        Bytes packet;
        size_t length;
    } cases[] = {
        {"padding larger than the packet", SinglePacket(1, 8, kP + 1), kP},
        {"compressed payload", SinglePacket(1, 1, 0), kP},
        {"compressed payloads", MultiplePacket({{1, 4, 20}}, 0, 1), kP},
        {"stream 0", SinglePacket(0x80, 8, 0), kP},
        {"a stream of neither kind", SinglePacket(5, 8, 0), kP},
        {"remaining length equals the padding", SinglePacket(1, 8, kP - (12 + 7 + 8)), kP},
        {"not a packet start", notAStart, kP},
        {"cut inside the header", SinglePacket(1, 8, 0), 6},
        {"only stream 0 in a multiple-payload packet", MultiplePacket({{0, 4, 50}}, 0), kP},
        {"a payload length beyond the packet", MultiplePacket({{1, 4, 50}, {2, 7, uint16_t(kP + 1)}}, 0), kP},
        {"a view that ends inside the replicated data", MultiplePacket({{1, 4, 50}, {2, 7, 30}}, 0), 13 + 17 + 50 + 5},
    };
    for (const auto& c : cases)
        EXPECT_TRUE(CarvePacket(c.packet.data(), c.length, 0, Settings()).records.empty()) << c.what;
}

TEST(AsfPacketCarver, FindPacketStart) {
    Bytes b(100, 0x82);
    EXPECT_EQ(FindPacketStart(b.data(), b.size()), -1);
    b[98] = 0;
    b[99] = 0;
    EXPECT_EQ(FindPacketStart(b.data(), b.size()), 97);
    EXPECT_EQ(FindPacketStart(b.data(), 99), -1);  // the third byte lies outside
    EXPECT_EQ(FindPacketStart(b.data(), 2), -1);
}

}  // namespace

// ---- the engine on hand-made files ----

#include "RepairLog.h"
#include "WmvAdvanceRepair.h"
#include "support/TestSupport.h"

namespace {

using testing_support::ReadFile;
using testing_support::TempDir;
using testing_support::Wide;

std::string Str(const Bytes& b) { return std::string(b.begin(), b.end()); }

Bytes HeaderObject(const std::vector<Bytes>& children) {
    Bytes b;
    Put(b, kAsfHeaderObject);
    Put(b, 0, 8);
    Put(b, children.size(), 4);
    b.push_back(1);
    b.push_back(2);
    for (const Bytes& c : children) b.insert(b.end(), c.begin(), c.end());
    SetSize(b);
    return b;
}

Bytes DataObject(uint64_t packets, const std::vector<Bytes>& contents) {
    Bytes b;
    Put(b, kAsfDataObject);
    Put(b, 50 + packets * kP, 8);
    b.resize(40, 0);
    Put(b, packets, 8);
    Put(b, 0x101, 2);
    for (const Bytes& c : contents) b.insert(b.end(), c.begin(), c.end());
    return b;
}

Bytes AsfFile(const AsfGuid& secondStreamType, uint64_t packets) {
    Bytes file = HeaderObject({FileProperties(packets, 71000000, 3100),
                               StreamProperties(kAsfVideoMedia, 1, VideoFormat(44, "WMV2", {1, 2, 3, 4})),
                               StreamProperties(secondStreamType, 2, WaveFormat(0x161, 0, {}))});
    Bytes data = DataObject(packets, {SinglePacket(0x81, 8, 0), SinglePacket(2, 8, 0)});
    file.insert(file.end(), data.begin(), data.end());
    return file;
}

class WmvEngine : public ::testing::Test {
protected:
    int Repair(const Bytes& damaged, const Bytes& sample) {
        testing_support::WriteFile(dir.file("d.wmv"), Str(damaged));
        testing_support::WriteFile(dir.file("s.wmv"), Str(sample));
        engine.SetLogger(&log);
        engine.SetVideoPath(Wide(dir.file("d.wmv")), Wide(dir.file("s.wmv")));
        return engine.Repair();
    }
    bool Logged(const std::string& text) { return ReadFile(dir.file("log")).find(text) != std::string::npos; }

    TempDir dir{"wmve"};
    RepairLog log{0, dir.file("log")};
    WmvAdvanceRepair engine;
};

TEST_F(WmvEngine, CarvesTheSamplesStreamsWhenTheHeaderIsGone) {
    Bytes sample = AsfFile(kAsfAudioMedia, 2);
    Bytes damaged(777, 0x82);  // a header of garbage and candidates that carve nothing
    Bytes packets = DataObject(2, {SinglePacket(0x81, 8, 0), SinglePacket(2, 8, 0), SinglePacket(1, 8, 0)});
    damaged.insert(damaged.end(), packets.begin(), packets.end());
    ASSERT_EQ(Repair(damaged, sample), 0);
    ASSERT_EQ(engine.VideoSamples().size(), 2u);
    EXPECT_EQ(engine.VideoSamples()[0].offset, int64_t(777 + 50 + 27));
    EXPECT_EQ(engine.AudioSamples().size(), 1u);
    EXPECT_EQ(engine.ChosenVideoInfo().codec, "WMV2");
    EXPECT_EQ(engine.ChosenVideoInfo().frameRate, 0.25);  // one sample frame over 7 s - 3 s of preroll
    EXPECT_TRUE(Logged("[mxf] Video samples counts is: 2"));
    EXPECT_TRUE(Logged("[Wmv] Video sample Sequence 1: offset:"));
}

TEST_F(WmvEngine, DamagedFilesOwnStreamsWin) {
    Bytes damaged = HeaderObject({StreamProperties(kAsfVideoMedia, 3, VideoFormat(40, "WMV1", {})),
                                  StreamProperties(kAsfAudioMedia, 4, WaveFormat(0x160, 0, {}))});
    ASSERT_EQ(Repair(damaged, AsfFile(kAsfAudioMedia, 2)), 0);
    EXPECT_EQ(engine.ChosenVideoInfo().streamNumber, 3);
    EXPECT_EQ(engine.ChosenVideoInfo().codec, "WMV1");
    EXPECT_EQ(engine.ChosenAudioInfo().streamNumber, 4);
    EXPECT_EQ(engine.ChosenAudioInfo().codecName, "wma1");
}

TEST_F(WmvEngine, StopWhilePausedEndsTheRepairWithWhatWasFound) {
    Bytes damaged = DataObject(2, {SinglePacket(0x81, 8, 0), SinglePacket(2, 8, 0)});
    testing_support::WriteFile(dir.file("d.wmv"), Str(damaged));
    testing_support::WriteFile(dir.file("s.wmv"), Str(AsfFile(kAsfAudioMedia, 2)));
    engine.SetVideoPath(Wide(dir.file("d.wmv")), Wide(dir.file("s.wmv")));
    engine.Pause();
    int result = 1;
    std::thread repair([&]() { result = engine.Repair(); });
    // Stop once the sample is read, so it lands in the paused scan however slow the build.
    for (int i = 0; i < 2000 && !Logged("[WMV] sample video frames:"); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    engine.Stop();
    repair.join();
    EXPECT_EQ(result, 0);
    EXPECT_TRUE(engine.VideoSamples().empty());
}

TEST_F(WmvEngine, BadSamplesFailWithTheirReason) {
    EXPECT_EQ(Repair(Bytes(10, 0), AsfFile(kAsfAudioMedia, 0)), -1);  // no packets counted
    EXPECT_TRUE(Logged("no packet size"));
    EXPECT_TRUE(Logged("[Sprt] parse Sample video failed."));

    AsfGuid other = kAsfAudioMedia;
    other[15] ^= 1;
    EXPECT_EQ(Repair(Bytes(10, 0), AsfFile(other, 2)), -1);  // a stream of neither type
    EXPECT_EQ(Repair(Bytes(10, 0), HeaderObject({FileProperties(2, 71000000, 3100)})), -1);
    EXPECT_TRUE(Logged("[WMV] search data object failed, offset:."));
}

}  // namespace
