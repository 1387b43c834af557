// The program stream cleaning of the thorough road: which units the judge takes
// on hand-made bytes, what the cleaner hands on around holes and garbage, and
// what libavformat demuxes from cleaned copies of damaged ffmpeg-made streams.
#include <gtest/gtest.h>

#include <random>
#include <set>
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
const Bytes kSystem = {0, 0, 1, 0xBB, 0x00, 0x0C, 0xA1, 0xA1, 0xAD, 0x04, 0x21, 0xFF, 0xE0, 0xE0, 0xE6, 0xC0, 0xC0, 0x20};
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
        {"length_runs_past_next_unit", Pes(0xE0, {0x0F}, 20, 4), x, 0},
        {"length_stops_short", Pes(0xE0, {0x0F}, 20, -4), x, 0},
        {"pack_mpeg2_marker_cleared", {0, 0, 1, 0xBA, 0x44, 0, 0, 0, 4, 1, 0x43, 0x43, 0x5B, 0xF8}, x, 0},
        {"pack_mpeg2_zero_mux_rate", {0, 0, 1, 0xBA, 0x44, 0, 4, 0, 4, 1, 0, 0, 3, 0xF8}, x, 0},
        {"pack_mpeg2_stuffing_not_ff", {0, 0, 1, 0xBA, 0x44, 0, 4, 0, 4, 1, 0x43, 0x43, 0x5B, 0xFA, 0xFF, 0x00}, x, 0},
        {"pack_mpeg1_marker_cleared", {0, 0, 1, 0xBA, 0x21, 0, 1, 0, 1, 0xA1, 0xA1, 0xAC}, x, 0},
        {"pack_neither_form", {0, 0, 1, 0xBA, 0x00, 0, 1, 0, 1, 0xA1, 0xA1, 0xAD}, x, 0},
        {"system_header_odd_length", Cat({{0, 0, 1, 0xBB, 0x00, 0x0D}, Bytes(kSystem.begin() + 6, kSystem.end()), {0}}), x, 0},
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

// Cleans bytes written to a file; the cleaner's output, its skip count in *skipped.
Bytes CleanBytes(const Bytes& file, ps::PackForm leading = ps::PackForm::kUnknown, int64_t* skipped = nullptr) {
    TempDir dir("ps");
    WriteFile(dir.file("in.mpg"), std::string(file.begin(), file.end()));
    ProgramStreamCleaner cleaner(leading);
    if (!cleaner.Open(dir.wfile("in.mpg"))) return {};
    Bytes out;
    uint8_t buffer[1000];
    for (int64_t n; (n = cleaner.Read(buffer, sizeof buffer)) > 0;) out.insert(out.end(), buffer, buffer + n);
    if (skipped != nullptr) *skipped = cleaner.Skipped();
    return out;
}

struct Piece {
    Bytes bytes;
    bool kept;
};

struct StreamCase {
    const char* name;
    std::vector<Piece> pieces;
};

Bytes Garbage(size_t n) {
    Bytes b(n);
    std::mt19937 random(7);
    for (uint8_t& x : b) x = uint8_t(random() % 0xFE + 2);  // no prefix: never 00 or 01
    return b;
}

std::vector<StreamCase> StreamCases() {
    const Bytes video = Pes(0xE0, Cat({{0x81, 0x80, 0x05}, kPts}), 200);
    const Bytes audio = Pes(0xC0, Cat({{0x81, 0x80, 0x05}, kPts}), 90);
    const Bytes cut(video.begin(), video.begin() + 100);
    return {
        {"zero_hole_between_packs", {{kPack2, true}, {video, true}, {Bytes(300, 0), false}, {kPack2, true}, {audio, true}}},
        {"zero_hole_inside_packet", {{kPack2, true}, {video, true}, {kPack2, true}, {cut, false}, {Bytes(300, 0), false}, {kPack2, true}, {audio, true}, {kEnd, true}}},
        {"garbage_between_packs", {{kPack2, true}, {video, false}, {Garbage(500), false}, {kPack2, true}, {audio, true}}},
        {"garbage_with_false_prefix", {{kPack1, true}, {audio, false}, {Cat({Garbage(50), {0, 0, 1, 0xE0, 0, 9}, Garbage(50)}), false}, {kPack1, true}, {audio, true}}},
        {"packet_cut_by_garbage", {{kPack2, true}, {video, true}, {kPack2, true}, {cut, false}, {Garbage(500), false}, {kPack2, true}, {audio, true}}},
        {"packet_cut_by_end_of_file", {{kPack2, true}, {audio, true}, {kPack2, true}, {cut, false}}},
        {"short_hole_is_not_a_hole", {{kPack2, true}, {audio, false}, {Bytes(20, 0), false}, {kPack2, true}, {audio, true}}},
        {"system_header_and_padding", {{kPack2, true}, {kSystem, true}, {Pes(0xBE, {}, 40), true}, {Pes(0xBF, {1}, 40), true}, {kEnd, true}}},
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

}  // namespace
