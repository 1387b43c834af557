// The program stream cleaning of the thorough road: which units the judge takes
// on hand-made bytes, what the cleaner hands on around holes and garbage, and
// what libavformat demuxes from cleaned copies of damaged ffmpeg-made streams.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

extern "C" {
#include <libavformat/avformat.h>
}

#include "support/TestSupport.h"
#include "thorough/strategies/MpegPsStrategy.h"
#include "thorough/strategies/ProgramStreamCleaner.h"

using namespace testing_support;
using namespace thorough;
using Bytes = std::vector<uint8_t>;

namespace {

Bytes Cat(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& p : parts) all.insert(all.end(), p.begin(), p.end());
    return all;
}

// A PES packet: start code, PES_packet_length, header bytes, then a payload that
// holds no start code prefix.
Bytes Pes(uint8_t id, const Bytes& header, size_t payload = 20, int lengthDelta = 0) {
    const size_t length = header.size() + payload + lengthDelta;
    Bytes b = {0, 0, 1, id, uint8_t(length >> 8), uint8_t(length)};
    b.insert(b.end(), header.begin(), header.end());
    for (size_t i = 0; i < payload; ++i) b.push_back(uint8_t(0x40 + i % 0x80));
    return b;
}

const Bytes kPack2 = {0, 0, 1, 0xBA, 0x44, 0x00, 0x04, 0x00, 0x04, 0x01, 0x43, 0x43, 0x5B, 0xF8};
const Bytes kPack1 = {0, 0, 1, 0xBA, 0x21, 0x00, 0x01, 0x00, 0x01, 0xA1, 0xA1, 0xAD};
const Bytes kSystem = {0, 0, 1, 0xBB, 0x00, 0x0C, 0xA1, 0xA1, 0xAD,  // rate bound, audio bound
                       0x04, 0x21, 0xFF, 0xE0, 0xE0, 0xE6, 0xC0, 0xC0, 0x20};
const Bytes kEnd = {0, 0, 1, 0xB9};
const Bytes kPts = {0x21, 0x00, 0x01, 0x00, 0x01};
const Bytes kPtsDts = {0x31, 0x00, 0x01, 0x00, 0x01, 0x11, 0x00, 0x01, 0x00, 0x01};

struct UnitCase {
    const char* name;
    Bytes unit;
    ps::Verdict verdict;
    size_t size;  // when valid
};

std::vector<UnitCase> UnitCases() {
    const Bytes ff16(16, 0xFF);
    const Bytes hdr2 = {0x81, 0xC1, 0x0E, 0x31, 0, 1, 0, 1, 0x11, 0, 1, 0, 1, 0x10, 0x60, 0xE6, 0xFF};
    auto v = ps::Verdict::kValid, x = ps::Verdict::kInvalid;
    return {
        {"mpeg2_header_length_0", Pes(0xE0, {0x80, 0x00, 0x00}), v, 29},
        {"mpeg2_pts_length_5", Pes(0xC0, Cat({{0x81, 0x80, 0x05}, kPts})), v, 34},
        {"mpeg2_pts_dts_length_10", Pes(0xE0, Cat({{0x81, 0xC0, 0x0A}, kPtsDts})), v, 39},
        {"mpeg2_extension_and_stuffing_length_14", Pes(0xE0, hdr2), v, 43},
        {"mpeg2_pts_and_stuffing_length_8", Pes(0xBD, Cat({{0x81, 0x80, 0x08}, kPts, {0xFF, 0xFF, 0xFF}})), v, 37},
        {"mpeg1_none", Pes(0xE0, {0x0F}), v, 27},
        {"mpeg1_16_stuffing_pts", Pes(0xC0, Cat({ff16, kPts})), v, 47},
        {"mpeg1_std_buffer_pts", Pes(0xC0, Cat({{0x60, 0xE6}, kPts})), v, 33},
        {"mpeg1_stuffing_std_buffer_pts_dts", Pes(0xE0, Cat({{0xFF, 0xFF, 0x60, 0xE6}, kPtsDts})), v, 40},
        {"mpeg1_std_buffer_none", Pes(0xE0, {0x40, 0x20, 0x0F}), v, 29},
        {"padding", Pes(0xBE, {}, 30), v, 36},
        {"navigation", Pes(0xBF, {0x00}, 30), v, 37},
        {"extended_stream_id", Pes(0xFD, {0x81, 0x01, 0x03, 0x01, 0x81, 0x55}), v, 32},
        {"ecm_without_pes_header", Pes(0xF0, {}, 12), v, 18},
        {"pack_mpeg2", kPack2, v, 14},
        {"pack_mpeg2_stuffing", {0, 0, 1, 0xBA, 0x44, 0, 4, 0, 4, 1, 0x43, 0x43, 0x5B, 0xFA, 0xFF, 0xFF}, v, 16},
        {"pack_mpeg1", kPack1, v, 12},
        {"system_header", kSystem, v, 18},
        {"end_code", kEnd, v, 4},
        {"mpeg2_header_past_packet", Pes(0xE0, {0x80, 0x80, 0x20, 0x21, 0, 1, 0, 1}, 0), x, 0},
        {"mpeg2_pts_without_room", Pes(0xE0, {0x80, 0x80, 0x00}), x, 0},
        {"mpeg2_pts_marker_cleared", Pes(0xE0, Cat({{0x81, 0x80, 0x05}, {0x21, 0, 0, 0, 1}})), x, 0},
        {"mpeg2_dts_without_pts", Pes(0xE0, Cat({{0x81, 0x40, 0x05}, kPts})), x, 0},
        {"mpeg2_dts_prefix_wrong", Pes(0xE0, Cat({{0x81, 0xC0, 0x0A}, {0x31, 0, 1, 0, 1}, kPts})), x, 0},
        {"mpeg2_extension_past_header", Pes(0xE0, Cat({{0x81, 0x81, 0x06}, kPts, {0x10}})), x, 0},
        {"mpeg1_17_stuffing", Pes(0xE0, Cat({ff16, {0xFF, 0x0F}})), x, 0},
        {"mpeg1_pts_marker_cleared", Pes(0xE0, {0x21, 0, 1, 0, 0}), x, 0},
        {"mpeg1_unknown_field", Pes(0xE0, {0x05}), x, 0},
        {"extended_stream_id_without_header", Pes(0xFD, {0x05}), x, 0},
        {"length_runs_past_next_unit", Pes(0xE0, {0x0F}, 20, 4), x, 0},
        {"length_stops_short", Pes(0xE0, {0x0F}, 20, -4), x, 0},
        {"pack_mpeg2_marker_cleared", {0, 0, 1, 0xBA, 0x44, 0, 0, 0, 4, 1, 0x43, 0x43, 0x5B, 0xF8}, x, 0},
        {"pack_mpeg2_zero_mux_rate", {0, 0, 1, 0xBA, 0x44, 0, 4, 0, 4, 1, 0, 0, 3, 0xF8}, x, 0},
        {"pack_mpeg2_stuffing_not_ff", {0, 0, 1, 0xBA, 0x44, 0, 4, 0, 4, 1, 0x43, 0x43, 0x5B, 0xFA, 0xFF, 0x00}, x, 0},
        {"pack_mpeg1_marker_cleared", {0, 0, 1, 0xBA, 0x21, 0, 1, 0, 1, 0xA1, 0xA1, 0xAC}, x, 0},
        {"pack_neither_form", {0, 0, 1, 0xBA, 0x00, 0, 1, 0, 1, 0xA1, 0xA1, 0xAD}, x, 0},
        {"system_header_odd_length", Cat({{0, 0, 1, 0xBB, 0x00, 0x0D}, Bytes(kSystem.begin() + 6, kSystem.end()), {0}}),
         x, 0},
    };
}

TEST(MpegPsUnits, JudgesEachUnitWithTheStartCodeBehindIt) {
    for (const UnitCase& c : UnitCases()) {
        // A pack follows the unit's bytes, so a wrong length misses its start code.
        const Bytes d = Cat({c.unit, kPack2});
        ps::Unit unit;
        EXPECT_EQ(ps::CheckUnit(d.data(), d.size(), 0, true, unit), c.verdict) << c.name;
        if (c.verdict == ps::Verdict::kValid) {
            EXPECT_EQ(unit.size, c.size) << c.name;
        }
    }
}

Bytes Drain(ByteSource& source) {
    Bytes out;
    uint8_t buffer[1000];
    for (int64_t n; (n = source.Read(buffer, sizeof buffer)) > 0;) out.insert(out.end(), buffer, buffer + n);
    return out;
}

// Cleans bytes written to a file; the cleaner's output, its skip count in *skipped.
Bytes CleanBytes(const Bytes& file, ps::PackForm leading = ps::PackForm::kUnknown, int64_t* skipped = nullptr,
                 size_t window = ProgramStreamCleaner::kWindowBytes) {
    TempDir dir("ps");
    WriteFile(dir.file("in.mpg"), std::string(file.begin(), file.end()));
    ProgramStreamCleaner cleaner(leading, nullptr, window);
    if (!cleaner.Open(dir.wfile("in.mpg"))) return {};
    const Bytes out = Drain(cleaner);
    if (skipped != nullptr) *skipped = cleaner.Skipped();
    return out;
}

Bytes Garbage(size_t n) {
    Bytes b(n);
    std::mt19937 random(7);
    for (uint8_t& x : b) x = uint8_t(random() % 0xFE + 2);  // no prefix: never 00 or 01
    return b;
}

// Bytes of a hand-made file, and whether the cleaner is to hand them on.
struct Piece {
    Bytes bytes;
    bool kept;
};
Piece K(const Bytes& b) { return {b, true}; }
Piece D(const Bytes& b) { return {b, false}; }

struct StreamCase {
    const char* name;
    std::vector<Piece> pieces;
};

std::vector<StreamCase> StreamCases() {
    const Bytes video = Pes(0xE0, Cat({{0x81, 0x80, 0x05}, kPts}), 200);
    const Bytes audio = Pes(0xC0, Cat({{0x81, 0x80, 0x05}, kPts}), 90);
    const Bytes cut(video.begin(), video.begin() + 100), zeros(300, 0), noise = Garbage(500);
    const Bytes falsePrefix = Cat({Garbage(50), {0, 0, 1, 0xE0, 0, 9}, Garbage(50)});
    // A cut unit whose header is right still takes its declared length, as a
    // demuxer takes it: the rest of its bytes come from what follows.
    const size_t rest = video.size() - cut.size();
    const Bytes zerosTaken(rest, 0), zerosLeft(zeros.size() - rest, 0);
    const Bytes noiseTaken(noise.begin(), noise.begin() + long(rest)), noiseLeft(noise.begin() + long(rest), noise.end());
    return {
        {"zero_hole_between_packs", {K(kPack2), K(video), D(zeros), K(kPack2), K(audio)}},
        {"zero_hole_inside_packet",
         {K(kPack2), K(video), K(kPack2), K(cut), K(zerosTaken), D(zerosLeft), K(kPack2), K(audio), K(kEnd)}},
        {"garbage_between_packs", {K(kPack2), K(video), D(noise), K(kPack2), K(audio)}},
        {"garbage_with_false_prefix", {K(kPack1), K(audio), D(falsePrefix), K(kPack1), K(audio)}},
        {"garbage_first", {D(noise), K(kPack2), K(audio)}},
        {"packet_cut_by_garbage", {K(kPack2), K(video), K(kPack2), K(cut), K(noiseTaken), D(noiseLeft), K(kPack2), K(audio)}},
        {"packet_cut_by_end_of_file", {K(kPack2), K(audio), K(kPack2), D(cut)}},
        {"short_hole", {K(kPack2), K(audio), D(Bytes(20, 0)), K(kPack2), K(audio)}},
        {"system_header_and_padding", {K(kPack2), K(kSystem), K(Pes(0xBE, {}, 40)), K(Pes(0xBF, {1}, 40)), K(kEnd)}},
    };
}

TEST(MpegPsCleaner, KeepsWholeUnitsAndSkipsTheRest) {
    for (const StreamCase& c : StreamCases()) {
        Bytes file, kept;
        int64_t dropped = 0, skipped = -1;
        for (const Piece& p : c.pieces) {
            file.insert(file.end(), p.bytes.begin(), p.bytes.end());
            if (p.kept) kept.insert(kept.end(), p.bytes.begin(), p.bytes.end());
            if (!p.kept) dropped += int64_t(p.bytes.size());
        }
        EXPECT_EQ(CleanBytes(file, ps::PackForm::kUnknown, &skipped), kept) << c.name;
        EXPECT_EQ(skipped, dropped) << c.name;
    }
}

// A unit that starts just before the end of the window is judged in the next one.
TEST(MpegPsCleaner, ReadsAUnitAcrossTheWindowEdge) {
    const size_t window = 2 * ps::kLongestUnit;
    const Bytes units = Cat({kPack2, Pes(0xC0, {0x0F}), kPack2, Pes(0xE0, {0x0F})});
    for (size_t before : {1, 2, 3, 10, 60}) {
        int64_t skipped = -1;
        EXPECT_EQ(CleanBytes(Cat({Garbage(window - before), units}), ps::PackForm::kUnknown, &skipped, window), units)
            << before;
        EXPECT_EQ(skipped, int64_t(window - before)) << before;
    }
}

// The made-up pack takes the sample's form, else the form of the file's next pack.
TEST(MpegPsCleaner, PutsAPackAheadOfAStreamThatLostItsOwn) {
    const Bytes pes = Pes(0xE0, {0x0F}, 50);
    const struct {
        Bytes file;
        ps::PackForm sample, expected;
    } cases[] = {{Cat({pes, kPack1, pes}), ps::PackForm::kUnknown, ps::PackForm::kMpeg1},
                 {Cat({pes, kPack2, pes}), ps::PackForm::kUnknown, ps::PackForm::kMpeg2},
                 {Cat({pes, kPack1, pes}), ps::PackForm::kMpeg2, ps::PackForm::kMpeg2},
                 {Cat({Bytes(10, 0), pes}), ps::PackForm::kUnknown, ps::PackForm::kMpeg1}};
    for (const auto& c : cases) {
        const Bytes out = CleanBytes(c.file, c.sample);
        ps::Unit pack;
        ASSERT_EQ(ps::CheckUnit(out.data(), out.size(), 0, true, pack), ps::Verdict::kValid);
        EXPECT_EQ(pack.kind, ps::UnitKind::kPack);
        EXPECT_EQ(pack.form, c.expected);
        ASSERT_GE(out.size(), pack.size + pes.size());
        EXPECT_EQ(Bytes(out.begin() + pack.size, out.begin() + pack.size + pes.size()), pes);
    }
}

int ReadSource(void* opaque, uint8_t* buffer, int size) {
    const int64_t n = static_cast<ByteSource*>(opaque)->Read(buffer, size_t(size));
    return n > 0 ? int(n) : n == 0 ? AVERROR_EOF : AVERROR(EIO);
}

// The packets libavformat's "mpeg" demuxer takes from the source, or from the
// file at path when there is none.
struct Demuxed {
    int video = 0, audio = 0;
    int64_t videoBytes = 0;
};

Demuxed Demux(ByteSource* source, const std::string& path) {
    av_log_set_level(AV_LOG_FATAL);  // damaged streams make the parsers talk
    Demuxed d;
    AVFormatContext* format = avformat_alloc_context();
    AVIOContext* io = nullptr;
    if (source != nullptr) {
        uint8_t* buffer = static_cast<uint8_t*>(av_malloc(32768));
        io = avio_alloc_context(buffer, 32768, 0, source, ReadSource, nullptr, nullptr);
        format->pb = io;
    }
    if (avformat_open_input(&format, source ? nullptr : path.c_str(), av_find_input_format("mpeg"), nullptr) == 0) {
        AVPacket* packet = av_packet_alloc();
        const bool found = avformat_find_stream_info(format, nullptr) >= 0;
        while (found && av_read_frame(format, packet) >= 0) {
            const AVMediaType type = format->streams[packet->stream_index]->codecpar->codec_type;
            d.audio += type == AVMEDIA_TYPE_AUDIO;
            d.video += type == AVMEDIA_TYPE_VIDEO;
            d.videoBytes += type == AVMEDIA_TYPE_VIDEO ? packet->size : 0;
            av_packet_unref(packet);
        }
        av_packet_free(&packet);
        avformat_close_input(&format);
    }
    if (io != nullptr) av_freep(&io->buffer);
    avio_context_free(&io);
    return d;
}

// Units of a cleaned stream that are not whole units of the original file (a
// made-up leading pack aside); -1 when the stream does not parse as units.
int UnitsNotInOriginal(const Bytes& out, const std::string& original) {
    int missing = 0;
    for (size_t at = 0; at < out.size();) {
        ps::Unit unit;
        if (ps::CheckUnit(out.data(), out.size(), at, true, unit) != ps::Verdict::kValid) return -1;
        const std::string bytes(out.begin() + at, out.begin() + at + unit.size);
        missing += at > 0 && original.find(bytes) == std::string::npos;
        at += unit.size;
    }
    return missing;
}

struct Media {
    const char* name;
    const char* codec;
    const char* format;
    const char* muxer;
    size_t packBytes;
};

void PrintTo(const Media& m, std::ostream* os) { *os << m.name; }

const Media kMedia[] = {{"ps_mpeg2.vob", "mpeg2video", "vob", "vob", 14},
                        {"ps_mpeg1.mpg", "mpeg1video", "mpeg", "mpeg", 12}};

// Damages in place: none, garbage mid-file, a hole of whole sectors, the head
// zeroed, the head zeroed through the next pack header. Returns the bytes covered.
size_t Damage(int kind, std::string& file, size_t packBytes) {
    const size_t at[] = {0, file.size() / 2 + 1000, file.size() / 3 / 2048 * 2048, 0, 0};
    const size_t length[] = {0, 16384, 8192, 8192, file.find(std::string("\0\0\1\xBA", 4), 8192) + packBytes};
    const Bytes noise = Garbage(length[kind]);
    file.replace(at[kind], length[kind],
                 kind == 1 ? std::string(noise.begin(), noise.end()) : std::string(length[kind], '\0'));
    return length[kind];
}

class MpegPsRoad : public ::testing::TestWithParam<Media> {};

// The cleaned copy of a damaged stream holds whole units of the original (and the
// one the damage began in) and demuxes to its packets, less those the damage covered.
TEST_P(MpegPsRoad, DamagedStreamDemuxesToThePacketsLeft) {
    const Media& m = GetParam();
    const std::string path = GeneratedMedia(m.name, {"-f", "lavfi", "-i", "testsrc=size=320x240:rate=25:duration=4",
                                                     "-f", "lavfi", "-i", "sine=frequency=440:duration=4", "-c:v",
                                                     m.codec, "-g", "12", "-b:v", "2M", "-c:a", "mp2", "-f", m.format});
    ASSERT_FALSE(path.empty());
    const Demuxed original = Demux(nullptr, path);
    ASSERT_GT(original.video, 90);
    const double frameBytes = double(original.videoBytes) / original.video;
    TempDir dir("psroad");
    for (int kind = 0; kind < 5; ++kind) {
        std::string file = ReadFile(path);
        const size_t covered = Damage(kind, file, m.packBytes);
        WriteFile(dir.file(m.name), file);
        auto strategy = StrategyFor(m.format == std::string("vob") ? "mpeg" : "mpg");
        auto source = strategy->Clean(dir.wfile(m.name), std::wstring(), nullptr);
        ASSERT_TRUE(source != nullptr);
        EXPECT_EQ(strategy->CleanedFormat(), "mpeg");
        EXPECT_EQ(strategy->Muxer().name, m.muxer);
        const Demuxed cleaned = Demux(source.get(), std::string());
        const int lost = original.video - cleaned.video;
        EXPECT_GE(lost, 0) << kind;
        EXPECT_LE(lost, int(covered / frameBytes) + (kind == 0 ? 0 : 2)) << kind;
        EXPECT_GT(cleaned.audio, original.audio * 9 / 10) << kind;
        EXPECT_GE(source->Skipped(), int64_t(covered) * 9 / 10) << kind;
        EXPECT_LE(source->Skipped(), int64_t(covered) + 2 * 2048 + 12) << kind;
        EXPECT_EQ(source->Consumed(), int64_t(file.size())) << kind;
        // With the intact file as the sample, and again through the smallest window.
        const Bytes out = Drain(*strategy->Clean(dir.wfile(m.name), Wide(path), nullptr));
        // Only the unit that the damage began in may differ from the original's.
        EXPECT_LE(UnitsNotInOriginal(out, ReadFile(path)), kind == 0 ? 0 : 1) << kind;
        ps::Unit first;
        EXPECT_EQ(ps::CheckUnit(out.data(), out.size(), 0, false, first), ps::Verdict::kValid) << kind;
        EXPECT_EQ(first.size, m.packBytes) << kind;
        ProgramStreamCleaner narrow(ps::PackForm::kUnknown, nullptr, 0);
        ASSERT_TRUE(narrow.Open(dir.wfile(m.name)));
        EXPECT_TRUE(Drain(narrow) == out) << kind;
    }
}

INSTANTIATE_TEST_SUITE_P(MpegPs, MpegPsRoad, ::testing::ValuesIn(kMedia),
                         [](const ::testing::TestParamInfo<Media>& info) { return std::string(info.param.format); });

}  // namespace
