// The MXF carver of the thorough road: essence elements timed by their content
// package in hand-made KLV files, and whole repairs of generated files whose
// header (and for MPEG-2 every sequence header) is gone.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <tuple>
#include <vector>

#include "support/CarvedPackets.h"
#include "support/RepairHarness.h"
#include "thorough/strategies/MxfCarver.h"

using namespace repair_harness;
using namespace thorough;
using Bytes = std::vector<uint8_t>;

namespace {

using carved_packets::Filled;
using carved_packets::Le;

using carved_packets::Carved;
using carved_packets::Drain;
using carved_packets::Parameters;

const uint32_t kPictureTrack = 0x15010501, kSoundTrack = 0x16010101;

Bytes Klv(const Bytes& key12, uint32_t track, const Bytes& value, bool longLength = true) {
    Bytes b = key12;
    for (int i = 3; i >= 0; --i) b.push_back(uint8_t(track >> (8 * i)));
    if (longLength) {
        b.push_back(0x83);
        for (int i = 2; i >= 0; --i) b.push_back(uint8_t(value.size() >> (8 * i)));
    } else {
        b.push_back(uint8_t(value.size()));
    }
    b.insert(b.end(), value.begin(), value.end());
    return b;
}

const Bytes kElementKey = {0x06, 0x0E, 0x2B, 0x34, 0x01, 0x02, 0x01, 0x01, 0x0D, 0x01, 0x03, 0x01};
const Bytes kFillKey = {0x06, 0x0E, 0x2B, 0x34, 0x01, 0x01, 0x01, 0x02, 0x03, 0x01, 0x02, 0x10};

// One content package: a picture of 300 + unit bytes and 80 bytes of sound.
Bytes Package(int unit) {
    Bytes p = Klv(kElementKey, kPictureTrack, Filled(300 + size_t(unit), uint8_t(0x10 * unit)));
    Bytes s = Klv(kElementKey, kSoundTrack, Filled(80, uint8_t(0x10 * unit + 1)));
    p.insert(p.end(), s.begin(), s.end());
    return p;
}

std::vector<Carved> CarveMxf(const Bytes& file) {
    TempDir dir("mxfcarve");
    WriteFile(dir.file("in.mxf"), std::string(file.begin(), file.end()));
    std::vector<MxfTrack> tracks;
    tracks.push_back({kPictureTrack, Parameters(AVMEDIA_TYPE_VIDEO, AV_CODEC_ID_DVVIDEO), {1, 25}});
    tracks.push_back({kSoundTrack, Parameters(AVMEDIA_TYPE_AUDIO, AV_CODEC_ID_PCM_S16LE), {1, 48000}});
    MxfCarver carver({25, 1}, std::move(tracks));
    EXPECT_TRUE(carver.Open(dir.wfile("in.mxf")));
    std::vector<Carved> out = Drain(carver);
    for (Carved& c : out) std::get<2>(c) = 0;  // sizes are checked by the first byte
    return out;
}

// Picture values far larger than the walker's peek, across many loads of its
// cache: every byte of the file is fetched about once, not once for the peek
// past a triplet and again for its value.
TEST(MxfCarverTest, CarvingReadsTheFileOnce) {
    if (testing_support::IoCounter("rchar:") < 0) GTEST_SKIP() << "no /proc/self/io here";
    Bytes file;
    for (int unit = 0; unit < 80; ++unit) {
        Bytes p = Klv(kElementKey, kPictureTrack, Filled(300000 + size_t(unit), uint8_t(unit)));
        Bytes s = Klv(kElementKey, kSoundTrack, Filled(1920, uint8_t(unit + 1)));
        file.insert(file.end(), p.begin(), p.end());
        file.insert(file.end(), s.begin(), s.end());
    }
    const int64_t before = testing_support::IoCounter("rchar:");
    EXPECT_EQ(CarveMxf(file).size(), 160u);
    const int64_t fetched = testing_support::IoCounter("rchar:") - before;
    EXPECT_LT(fetched, int64_t(file.size()) * 5 / 4) << "fetched " << fetched << " of " << file.size();
}

struct MxfCase {
    const char* name;
    void (*damage)(Bytes& file, const std::vector<size_t>& packageAt);
    std::vector<Carved> expected;
};

TEST(MxfCarverTest, TimesEachElementByItsContentPackage) {
    auto v = [](int64_t unit, int first) { return Carved{0, unit, 0, true, first}; };
    auto s = [](int64_t unit, int first) { return Carved{1, unit * 1920, 0, true, first}; };
    const MxfCase cases[] = {
        {"whole", [](Bytes&, const std::vector<size_t>&) {},
         {v(0, 0x00), s(0, 0x01), v(1, 0x10), s(1, 0x11), v(2, 0x20), s(2, 0x21), v(3, 0x30), s(3, 0x31)}},
        // The lost package is counted from the bytes passed over: the rest keeps its time.
        {"second_package_zeroed",
         [](Bytes& f, const std::vector<size_t>& at) { std::fill(f.begin() + long(at[1]), f.begin() + long(at[2]), 0); },
         {v(0, 0x00), s(0, 0x01), v(2, 0x20), s(2, 0x21), v(3, 0x30), s(3, 0x31)}},
        // A length that damage made longer is not followed into the next package,
        // whether it runs past the file or over the next key.
        {"picture_length_past_the_file", [](Bytes& f, const std::vector<size_t>& at) { f[at[2] + 17] = 0x7F; },
         {v(0, 0x00), s(0, 0x01), v(1, 0x10), s(1, 0x11), s(2, 0x21), v(3, 0x30), s(3, 0x31)}},
        {"picture_length_over_the_next_key", [](Bytes& f, const std::vector<size_t>& at) { f[at[2] + 18] += 1; },
         {v(0, 0x00), s(0, 0x01), v(1, 0x10), s(1, 0x11), s(2, 0x21), v(3, 0x30), s(3, 0x31)}},
        {"cut_inside_the_last_picture", [](Bytes& f, const std::vector<size_t>& at) { f.resize(at[3] + 100); },
         {v(0, 0x00), s(0, 0x01), v(1, 0x10), s(1, 0x11), v(2, 0x20), s(2, 0x21)}},
    };
    for (const MxfCase& c : cases) {
        Bytes file = Klv(kFillKey, 0x01000000, Bytes(40, 0), false);
        std::vector<size_t> packageAt;
        for (int unit = 0; unit < 4; ++unit) {
            packageAt.push_back(file.size());
            Bytes p = Package(unit);
            file.insert(file.end(), p.begin(), p.end());
        }
        packageAt.push_back(file.size());
        c.damage(file, packageAt);
        EXPECT_EQ(CarveMxf(file), c.expected) << c.name;
    }
}

TEST(MxfCarverTest, Aes3WordsBecomePcm) {
    // One sample of eight channels: 4-bit flags below 24 audio bits and 4 bits above.
    Bytes element = {0, 0, 0, 0};
    for (uint32_t c = 0; c < 8; ++c) Le(element, ((0x123456u + c) << 4) | 0xF000000Fu, 4);
    EXPECT_EQ(PcmFromAes3(element.data(), element.size(), 2, 24), std::string("\x56\x34\x12\x57\x34\x12", 6));
    EXPECT_EQ(PcmFromAes3(element.data(), element.size(), 2, 16), std::string("\x34\x12\x34\x12", 4));
    EXPECT_EQ(PcmFromAes3(element.data(), 3, 2, 16), std::string());
}

// Zeros every MPEG-2 sequence header, from its start code to the next start code.
std::string WipeSequenceHeaders(std::string bytes) {
    const std::string header("\0\0\1\xB3", 4), prefix("\0\0\1", 3);
    for (size_t at = bytes.find(header); at != std::string::npos; at = bytes.find(header, at)) {
        size_t end = std::min(bytes.find(prefix, at + 3), bytes.size());
        std::fill(bytes.begin() + long(at), bytes.begin() + long(end), '\0');
    }
    return bytes;
}

struct LostHeaderCase {
    const char* name;
    std::vector<std::string> codecArgs;
    const char* rate;
    const char* timeBase;  // the edit rate's inverse, as written
    bool wipeSequenceHeaders;
    Dependence dependence;
};

// A whole repair of a file whose header partition is gone: the sample gives the
// descriptors and the edit rate, the carver the essence, and for long-GOP MPEG-2
// whose every sequence header was lost too, the sample's sequence header.
TEST(MxfCarverTest, RepairsAFileWhoseHeaderIsGone) {
    const LostHeaderCase cases[] = {
        {"mpeg2_long_gop_sequence_headers_gone", {"-c:v", "mpeg2video", "-g", "12", "-bf", "2", "-q:v", "5"}, "25", "1/25", true,
         Dependence::kUnbrokenChain},
        {"jpeg2000_at_23.976", {"-c:v", "jpeg2000"}, "24000/1001", "1001/24000", false, Dependence::kNone},
    };
    for (const LostHeaderCase& c : cases) {
        SCOPED_TRACE(c.name);
        auto make = [&](const char* source, const std::string& name) {
            std::vector<std::string> args = {"-f", "lavfi", "-i",
                                             std::string(source) + "=size=320x240:duration=2:rate=" + c.rate, "-f",
                                             "lavfi", "-i", "sine=frequency=440:sample_rate=48000:duration=2", "-c:a", "pcm_s16le"};
            args.insert(args.end(), c.codecArgs.begin(), c.codecArgs.end());
            return testing_support::GeneratedMedia(name, args);
        };
        const std::string healthy = make("testsrc", std::string("mxf_carve_") + c.name + ".mxf");
        const std::string sample = make("testsrc2", std::string("mxf_carve_") + c.name + "_sample.mxf");
        ASSERT_FALSE(healthy.empty() || sample.empty());
        const std::string bytes = ReadFile(healthy);
        Damage damage;
        damage.zeroed = {{0, 8192}};
        TempDir dir("mxfheader");
        const std::string damaged = dir.file("damaged.mxf");
        std::string broken = ApplyDamage(bytes, damage);
        WriteFile(damaged, c.wipeSequenceHeaders ? WipeSequenceHeaders(broken) : broken);
        const auto packets = PositionedPackets(ProbeVideoPackets(healthy));
        int survivors = CountSurvivors(ToNextPacket(packets, int64_t(bytes.size()), 0), damage, c.dependence);

        ThoroughRepairOptions options{};
        options.size = sizeof options;
        ManagerRun run = ThoroughRepairThroughManager(damaged, sample, dir, &options);
        ASSERT_EQ(run.result, 0) << options.reason;
        EXPECT_GE(CountBitExactFrames(run.repairedPath, healthy), survivors * 95 / 100) << options.reason;
        std::string timeBase;
        testing_support::RunProgram({VR_TEST_FFPROBE, "-v", "error", "-select_streams", "v:0", "-show_entries",
                                     "stream=time_base", "-of", "csv=p=0", run.repairedPath},
                                    &timeBase);
        EXPECT_EQ(timeBase.substr(0, timeBase.find_first_of(",\r\n")), c.timeBase) << "no guessed rate";
    }
}

}  // namespace
