#include "thorough/strategies/ProgramStreamUnits.h"

#include <algorithm>
#include <cstring>

namespace thorough {
namespace ps {
namespace {

constexpr size_t kMpeg1PackBytes = 12;
constexpr size_t kMpeg2PackBytes = 14;
constexpr int kMaxMpeg1Stuffing = 16;
// Any rate will do for a synthetic pack: demuxers time packets by their PTS.
constexpr uint32_t kSyntheticMuxRate = 25200;  // units of 50 bytes/s, the DVD rate
// Zeros that no stream has between two units: a run this long is a hole.
constexpr size_t kHoleZeros = 64;

size_t Length16(const uint8_t* d) { return size_t(d[4]) << 8 | d[5]; }

// A 33-bit time stamp in 5 bytes: a 4-bit prefix and three marker bits.
bool TimeStamp(const uint8_t* p, uint8_t prefix) {
    return (p[0] >> 4) == prefix && (p[0] & 1) && (p[2] & 1) && (p[4] & 1);
}

Verdict JudgeMpeg2Pack(const uint8_t* d, size_t n, Unit& unit) {
    if (n < kMpeg2PackBytes) return Verdict::kShort;
    const bool markers = (d[4] & 0xC4) == 0x44 && (d[6] & 0x04) && (d[8] & 0x04) && (d[9] & 0x01) &&
                         (d[12] & 0x03) == 0x03;
    const uint32_t muxRate = uint32_t(d[10]) << 14 | uint32_t(d[11]) << 6 | d[12] >> 2;
    if (!markers || muxRate == 0) return Verdict::kInvalid;
    const size_t size = kMpeg2PackBytes + (d[13] & 7);
    if (n < size) return Verdict::kShort;
    for (size_t i = kMpeg2PackBytes; i < size; ++i)
        if (d[i] != 0xFF) return Verdict::kInvalid;
    unit = {UnitKind::kPack, size, PackForm::kMpeg2};
    return Verdict::kValid;
}

Verdict JudgeMpeg1Pack(const uint8_t* d, size_t n, Unit& unit) {
    if (n < kMpeg1PackBytes) return Verdict::kShort;
    const bool markers = (d[4] & 0xF1) == 0x21 && (d[6] & 1) && (d[8] & 1) && (d[9] & 0x80) && (d[11] & 1);
    const uint32_t muxRate = uint32_t(d[9] & 0x7F) << 15 | uint32_t(d[10]) << 7 | d[11] >> 1;
    if (!markers || muxRate == 0) return Verdict::kInvalid;
    unit = {UnitKind::kPack, kMpeg1PackBytes, PackForm::kMpeg1};
    return Verdict::kValid;
}

Verdict JudgePack(const uint8_t* d, size_t n, Unit& unit) {
    if (n < 5) return Verdict::kShort;
    if ((d[4] & 0xC0) == 0x40) return JudgeMpeg2Pack(d, n, unit);
    if ((d[4] & 0xF0) == 0x20) return JudgeMpeg1Pack(d, n, unit);
    return Verdict::kInvalid;
}

// Six fixed bytes behind the length, then 3 bytes a stream: the id (B8 and up)
// and '11' ahead of the buffer bound.
Verdict JudgeSystemHeader(const uint8_t* d, size_t n, Unit& unit) {
    if (n < 6) return Verdict::kShort;
    const size_t length = Length16(d);
    if (length < 6 || (length - 6) % 3 != 0) return Verdict::kInvalid;
    const size_t size = 6 + length;
    if (n < size) return Verdict::kShort;
    if (!(d[6] & 0x80) || !(d[8] & 0x01) || !(d[10] & 0x20)) return Verdict::kInvalid;
    for (size_t i = 12; i < size; i += 3)
        if (d[i] < 0xB8 || (d[i + 1] & 0xC0) != 0xC0) return Verdict::kInvalid;
    unit = {UnitKind::kSystemHeader, size, PackForm::kUnknown};
    return Verdict::kValid;
}

// The bytes the PES extension's flags call for, or -1 when they overrun `room`.
int ExtensionBytes(const uint8_t* e, size_t room) {
    if (room < 1) return -1;
    size_t need = 1;
    const uint8_t flags = e[0];
    if (flags & 0x80) need += 16;  // PES private data
    if (flags & 0x40) {            // pack header field
        if (need >= room) return -1;
        need += 1 + e[need];
    }
    if (flags & 0x20) need += 2;  // program packet sequence counter
    if (flags & 0x10) need += 2;  // P-STD buffer
    if (flags & 0x01) {           // extension 2
        if (need >= room) return -1;
        need += 1 + (e[need] & 0x7F);
    }
    return need <= room ? int(need) : -1;
}

// '10', flags, PES_header_data_length; the optional fields the flags name must
// fit in the header data, time stamps with their markers.
bool Mpeg2PesHeader(const uint8_t* d, size_t size) {
    if (size < 9) return false;
    const uint8_t flags = d[7];
    const size_t dataLength = d[8];
    if (9 + dataLength > size) return false;
    const uint8_t* f = d + 9;
    size_t need = 0;
    switch (flags >> 6) {
        case 1: return false;  // DTS without PTS is forbidden
        case 2: need = 5; break;
        case 3: need = 10; break;
        default: break;
    }
    if (need > dataLength) return false;
    if (need == 5 && !TimeStamp(f, 0x2)) return false;
    if (need == 10 && !(TimeStamp(f, 0x3) && TimeStamp(f + 5, 0x1))) return false;
    if (flags & 0x20) need += 6;  // ESCR
    if (flags & 0x10) need += 3;  // ES rate
    if (flags & 0x08) need += 1;  // trick mode
    if (flags & 0x04) need += 1;  // additional copy info
    if (flags & 0x02) need += 2;  // previous PES CRC
    if (need > dataLength) return false;
    return !(flags & 0x01) || ExtensionBytes(f + need, dataLength - need) >= 0;
}

// Up to 16 stuffing bytes, an optional '01' STD buffer field, then '0010' PTS,
// '0011' PTS and DTS, or 0x0F.
bool Mpeg1PesHeader(const uint8_t* d, size_t size) {
    size_t i = 6;
    int stuffing = 0;
    while (i < size && d[i] == 0xFF && stuffing < kMaxMpeg1Stuffing) ++i, ++stuffing;
    if (i < size && (d[i] & 0xC0) == 0x40) i += 2;
    if (i >= size) return false;
    const uint8_t c = d[i];
    if (c == 0x0F) return true;
    if ((c >> 4) == 0x2) return i + 5 <= size && TimeStamp(d + i, 0x2);
    if ((c >> 4) == 0x3) return i + 10 <= size && TimeStamp(d + i, 0x3) && TimeStamp(d + i + 5, 0x1);
    return false;
}

// Every stream but the map, padding, private stream 2, ECM, EMM, DSM-CC, H.222.1
// type E and the directory has the PES header (0xFD carries VC-1 on HD discs).
bool CarriesPesHeader(uint8_t id) {
    if (id == kPrivateStream1 || (id >= 0xC0 && id <= 0xEF)) return true;
    return id >= 0xF3 && id <= 0xFE && id != 0xF8;
}

Verdict JudgePes(const uint8_t* d, size_t n, Unit& unit) {
    if (n < 6) return Verdict::kShort;
    const uint8_t id = d[3];
    const size_t size = 6 + Length16(d);
    if (n < size) return Verdict::kShort;
    PackForm form = PackForm::kUnknown;
    if (id == kStreamMapId) {
        if (size < 16 || !(d[7] & 0x01)) return Verdict::kInvalid;  // marker ahead of the info length
    } else if (CarriesPesHeader(id)) {
        if (size < 7) return Verdict::kInvalid;
        const bool mpeg2 = (d[6] & 0xC0) == 0x80;
        if (mpeg2 ? !Mpeg2PesHeader(d, size) : !Mpeg1PesHeader(d, size)) return Verdict::kInvalid;
        form = mpeg2 ? PackForm::kMpeg2 : PackForm::kMpeg1;
    }
    unit = {UnitKind::kPes, size, form};
    return Verdict::kValid;
}

bool StartsUnit(const uint8_t* d) { return d[0] == 0 && d[1] == 0 && d[2] == 1 && IsSystemId(d[3]); }

size_t ZeroRun(const uint8_t* d, size_t n, size_t from, size_t most) {
    size_t run = 0;
    while (from + run < n && run < most && d[from + run] == 0) ++run;
    return run;
}

// A unit ends well when the next one starts there, when the file ends there, or
// when a hole of zeros starts there: holes from unreadable sectors begin on pack
// boundaries, and a unit that the hole cut would end in zeros itself.
Verdict WhatFollows(const uint8_t* d, size_t n, size_t end, bool windowReachesEnd) {
    if (end + 4 <= n && StartsUnit(d + end)) return Verdict::kValid;
    if (windowReachesEnd && end + 4 > n) return Verdict::kValid;
    const size_t zeros = ZeroRun(d, n, end, kHoleZeros);
    const bool toEnd = end + zeros == n;
    if (d[end - 1] != 0 && (zeros == kHoleZeros || (toEnd && windowReachesEnd))) return Verdict::kValid;
    if (!windowReachesEnd && (end + 4 > n || toEnd)) return Verdict::kShort;
    return Verdict::kInvalid;
}

}  // namespace

bool IsSystemId(uint8_t id) { return id >= kEndId; }

Verdict JudgeUnit(const uint8_t* d, size_t n, Unit& unit) {
    if (n < 4) return Verdict::kShort;
    if (d[0] != 0 || d[1] != 0 || d[2] != 1 || !IsSystemId(d[3])) return Verdict::kInvalid;
    switch (d[3]) {
        case kEndId: unit = {UnitKind::kEnd, 4, PackForm::kUnknown}; return Verdict::kValid;
        case kPackId: return JudgePack(d, n, unit);
        case kSystemHeaderId: return JudgeSystemHeader(d, n, unit);
        default: return JudgePes(d, n, unit);
    }
}

Verdict CheckUnit(const uint8_t* d, size_t n, size_t at, bool windowReachesEnd, Unit& unit) {
    const Verdict header = JudgeUnit(d + at, n - at, unit);
    if (header == Verdict::kShort) return windowReachesEnd ? Verdict::kInvalid : Verdict::kShort;
    if (header == Verdict::kInvalid) return header;
    return WhatFollows(d, n, at + unit.size, windowReachesEnd);
}

// Anchored on the prefix's 0x01: zeros are common (holes, video data), so
// memchr on them would stop too often.
size_t FindUnit(const uint8_t* d, size_t n, size_t from, bool windowReachesEnd) {
    const size_t limit = windowReachesEnd || n < 3 ? n : n - 3;
    for (size_t i = from + 2; i < n;) {
        const void* hit = std::memchr(d + i, 0x01, n - i);
        if (hit == nullptr) break;
        const size_t one = size_t(static_cast<const uint8_t*>(hit) - d);
        const size_t at = one - 2;
        Unit unit;
        if (d[at] == 0 && d[at + 1] == 0 && CheckUnit(d, n, at, windowReachesEnd, unit) != Verdict::kInvalid)
            return at;
        i = one + 1;
    }
    return std::max(limit, from);
}

PackForm FirstPackForm(const uint8_t* d, size_t n, bool windowReachesEnd) {
    for (size_t at = FindUnit(d, n, 0, windowReachesEnd); at < n; at = FindUnit(d, n, at + 1, windowReachesEnd)) {
        Unit unit;
        if (CheckUnit(d, n, at, windowReachesEnd, unit) == Verdict::kValid && unit.kind == UnitKind::kPack)
            return unit.form;
    }
    return PackForm::kUnknown;
}

std::vector<uint8_t> SyntheticPackHeader(PackForm form) {
    const uint32_t r = kSyntheticMuxRate;
    if (form == PackForm::kMpeg1)
        return {0x00, 0x00, 0x01, kPackId, 0x21, 0x00, 0x01, 0x00, 0x01,
                uint8_t(0x80 | r >> 15), uint8_t(r >> 7), uint8_t(r << 1 | 1)};
    return {0x00, 0x00, 0x01, kPackId, 0x44, 0x00, 0x04, 0x00, 0x04, 0x01,
            uint8_t(r >> 14), uint8_t(r >> 6), uint8_t(r << 2 | 3), 0xF8};
}

}  // namespace ps
}  // namespace thorough
