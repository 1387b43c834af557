// The ASF carver of the thorough road: media objects put back together from
// hand-made data packets, and whole repairs of generated files whose header is gone.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "support/CarvedPackets.h"
#include "support/RepairHarness.h"
#include "thorough/strategies/AsfCarver.h"

using namespace repair_harness;
using namespace thorough;
using Bytes = std::vector<uint8_t>;

namespace {

constexpr size_t kPacketSize = 200;

struct Payload {
    uint8_t stream;
    bool key;
    uint8_t object;
    uint32_t offset;      // into the object; the presentation time when compressed
    uint32_t objectSize;  // 0 for a compressed payload
    uint32_t timeMs;
    Bytes data;
    uint8_t delta = 0;  // compressed: presentation time delta
};

using carved_packets::Filled;
using carved_packets::Le;

// Sub-payloads of a compressed payload: a length byte before each object.
Bytes Subs(std::initializer_list<size_t> sizes) {
    Bytes b;
    uint8_t first = 0x30;
    for (size_t n : sizes) {
        b.push_back(uint8_t(n));
        Bytes object = Filled(n, first++);
        b.insert(b.end(), object.begin(), object.end());
    }
    return b;
}

// A packet with error correction, multiple payloads (word lengths), byte object
// numbers, dword offsets, byte replicated lengths and a byte of padding length.
Bytes AsfPacket(const std::vector<Payload>& payloads) {
    Bytes b = {0x82, 0x00, 0x00, 0x09, 0x5D, 0x00};
    Le(b, 1000, 4);
    Le(b, 0, 2);
    b.push_back(uint8_t(0x80 | payloads.size()));
    for (const Payload& p : payloads) {
        b.push_back(uint8_t(p.stream | (p.key ? 0x80 : 0)));
        b.push_back(p.object);
        Le(b, p.offset, 4);
        if (p.objectSize == 0) {
            b.push_back(1);
            b.push_back(p.delta);
        } else {
            b.push_back(8);
            Le(b, p.objectSize, 4);
            Le(b, p.timeMs, 4);
        }
        Le(b, uint32_t(p.data.size()), 2);
        b.insert(b.end(), p.data.begin(), p.data.end());
    }
    EXPECT_LE(b.size(), kPacketSize);
    b[5] = uint8_t(kPacketSize - b.size());
    b.resize(kPacketSize, 0);
    return b;
}

// The same packet without error correction: its three bytes become padding.
Bytes WithoutCorrection(const Bytes& packet) {
    Bytes b(packet.begin() + 3, packet.end());
    b[2] = uint8_t(b[2] + 3);
    b.resize(kPacketSize, 0);
    return b;
}

using carved_packets::Carved;
using carved_packets::Drain;
using carved_packets::Parameters;

std::vector<Carved> CarveAsf(const std::vector<Bytes>& pieces) {
    TempDir dir("asfcarve");
    std::string file(50, '\x11');  // what is left of a data object header
    for (const Bytes& p : pieces) file.append(p.begin(), p.end());
    WriteFile(dir.file("in.wmv"), file);
    std::vector<AsfStream> streams;
    streams.push_back({1, Parameters(AVMEDIA_TYPE_VIDEO, AV_CODEC_ID_WMV2), {25, 1}});
    streams.push_back({2, Parameters(AVMEDIA_TYPE_AUDIO, AV_CODEC_ID_WMAV2), {0, 1}});
    AsfCarver carver(AsfLayout{kPacketSize, 100}, std::move(streams));
    EXPECT_TRUE(carver.Open(dir.wfile("in.wmv")));
    return Drain(carver);
}

struct AsfCase {
    const char* name;
    std::vector<Bytes> pieces;
    std::vector<Carved> expected;
};

std::vector<AsfCase> AsfCases() {
    const Bytes a = Filled(100, 0x01), b = Filled(120, 0x41), c = Filled(40, 0x81), s = Filled(30, 0xC1);
    auto part = [&](size_t from, size_t n) { return Bytes(b.begin() + long(from), b.begin() + long(from + n)); };
    const Bytes p1 = AsfPacket({{1, true, 7, 0, 100, 140, a}, {2, true, 3, 0, 30, 140, s}});
    const Bytes p2 = AsfPacket({{1, false, 8, 0, 120, 180, part(0, 40)}});
    const Bytes p3 = AsfPacket({{1, false, 8, 40, 120, 180, part(40, 50)}});
    const Bytes p4 = AsfPacket({{1, false, 8, 90, 120, 180, part(90, 30)}, {1, false, 9, 0, 40, 220, c}});
    const Bytes lost(kPacketSize, 0);
    Bytes p4broken = p4;
    p4broken[75] = p4broken[76] = 0xFF;  // the second payload's length
    const Bytes compressed = AsfPacket({{2, true, 4, 300, 0, 0, Subs({20, 21, 22}), 40}, {1, true, 10, 0, 40, 260, c}});
    return {
        {"object_over_three_packets", {p1, p2, p3, p4},
         {{0, 40, 100, true, 0x01}, {1, 40, 30, true, 0xC1}, {0, 80, 120, false, 0x41}, {0, 120, 40, false, 0x81}}},
        {"object_over_three_packets_middle_one_lost", {p1, p2, lost, p4},
         {{0, 40, 100, true, 0x01}, {1, 40, 30, true, 0xC1}, {0, 120, 40, false, 0x81}}},
        {"object_over_three_packets_first_one_lost", {p1, lost, p3, p4},
         {{0, 40, 100, true, 0x01}, {1, 40, 30, true, 0xC1}, {0, 120, 40, false, 0x81}}},
        {"payloads_before_damage_in_a_packet_kept", {p1, p2, p3, p4broken},
         {{0, 40, 100, true, 0x01}, {1, 40, 30, true, 0xC1}, {0, 80, 120, false, 0x41}}},
        {"packets_without_error_correction_around_a_lost_one",
         {WithoutCorrection(p1), WithoutCorrection(p2), lost, WithoutCorrection(p4)},
         {{0, 40, 100, true, 0x01}, {1, 40, 30, true, 0xC1}, {0, 120, 40, false, 0x81}}},
        {"garbage_between_packets", {p1, Bytes(37, 0x82), p2, p3, p4},
         {{0, 40, 100, true, 0x01}, {1, 40, 30, true, 0xC1}, {0, 80, 120, false, 0x41}, {0, 120, 40, false, 0x81}}},
        {"compressed_payload_then_a_plain_one", {compressed},
         {{1, 200, 20, true, 0x30}, {1, 240, 21, true, 0x31}, {1, 280, 22, true, 0x32}, {0, 160, 40, true, 0x81}}},
        {"packet_naming_an_unknown_stream", {AsfPacket({{5, true, 1, 0, 40, 140, c}}), p1},
         {{0, 40, 100, true, 0x01}, {1, 40, 30, true, 0xC1}}},
    };
}

TEST(AsfCarverTest, PutsWholeMediaObjectsBackWithTheirTimes) {
    for (const AsfCase& c : AsfCases()) EXPECT_EQ(CarveAsf(c.pieces), c.expected) << c.name;
}

// A whole repair of a file whose header is gone: the sample gives the packet size
// and the streams, the carver every media object left.
struct LostHeaderCase {
    const char* name;
    Damage (*make)(int64_t size);
};

TEST(AsfCarverTest, RepairsAFileWhoseHeaderIsGone) {
    const LostHeaderCase cases[] = {
        {"header_zeroed", [](int64_t) { Damage d; d.zeroed = {{0, 8192}}; return d; }},
        {"header_zeroed_and_noise",
         [](int64_t n) { Damage d; d.zeroed = {{0, 8192}}; d.noise = {{n / 2, n / 2 + 5000}}; return d; }},
    };
    auto make = [](const char* source, const char* name) {
        return testing_support::GeneratedMedia(
            name, {"-f", "lavfi", "-i", std::string(source) + "=size=320x240:rate=25:duration=3", "-f", "lavfi", "-i",
                   "sine=frequency=440:duration=3", "-c:v", "wmv2", "-b:v", "600k", "-g", "10", "-c:a", "wmav2"});
    };
    const std::string healthy = make("testsrc", "asf_carve.wmv"), sample = make("testsrc2", "asf_carve_sample.wmv");
    ASSERT_FALSE(healthy.empty() || sample.empty());
    const std::string bytes = ReadFile(healthy);
    const auto packets = PositionedPackets(ProbeVideoPackets(healthy));
    for (const LostHeaderCase& c : cases) {
        SCOPED_TRACE(c.name);
        TempDir dir("asfheader");
        const Damage damage = c.make(int64_t(bytes.size()));
        const std::string damaged = dir.file("damaged.wmv");
        WriteFile(damaged, ApplyDamage(bytes, damage));
        int survivors = CountSurvivors(ToNextPacket(packets, int64_t(bytes.size()), 0), damage,
                                       Dependence::kUnbrokenChain);
        ThoroughRepairOptions options{};
        options.size = sizeof options;
        ManagerRun run = ThoroughRepairThroughManager(damaged, sample, dir, &options);
        ASSERT_EQ(run.result, 0) << options.reason;
        EXPECT_GE(CountBitExactFrames(run.repairedPath, healthy), survivors * 95 / 100) << options.reason;
        EXPECT_EQ(CountStreams(run.repairedPath, "a"), 1);
    }
}

}  // namespace
