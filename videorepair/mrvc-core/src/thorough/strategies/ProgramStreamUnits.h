// The units of an MPEG program stream (ISO/IEC 11172-1 system streams and
// ISO/IEC 13818-1 program streams) judged one at a time from their bytes: pack
// headers, system headers, PES packets and the end code. A judge never trusts a
// length it has not checked against the header's own marker bits, because a
// damaged file is full of start-code look-alikes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace thorough {
namespace ps {

enum class PackForm { kUnknown, kMpeg1, kMpeg2 };

enum class UnitKind { kPack, kSystemHeader, kPes, kEnd };

struct Unit {
    UnitKind kind = UnitKind::kPes;
    size_t size = 0;                     // whole unit, start code included
    PackForm form = PackForm::kUnknown;  // pack headers: their form; PES: their header's form
};

enum class Verdict { kValid, kInvalid, kShort };

constexpr uint8_t kPackId = 0xBA;
constexpr uint8_t kSystemHeaderId = 0xBB;
constexpr uint8_t kEndId = 0xB9;
constexpr uint8_t kStreamMapId = 0xBC;
constexpr uint8_t kPrivateStream1 = 0xBD;
constexpr uint8_t kPaddingId = 0xBE;
constexpr uint8_t kPrivateStream2 = 0xBF;
constexpr size_t kLongestUnit = 6 + 65535;

// True for the ids a program stream's units start with (B9 to FF).
bool IsSystemId(uint8_t id);

// Judges the unit at d[0, n). kShort: the header needs more bytes than n, or the
// unit runs past n. The unit's end is not looked at; see FollowedByUnit.
Verdict JudgeUnit(const uint8_t* d, size_t n, Unit& unit);

// Judges the unit at d[at, n) together with its end: a unit is kValid only when
// another unit's start code prefix and system id follow it, or the file ends
// there (fewer than four bytes left, when `windowReachesEnd` says that d ends
// where the file does), or a long run of zeros starts right behind its last,
// non-zero byte. kShort: d ends before this can be told.
Verdict CheckUnit(const uint8_t* d, size_t n, size_t at, bool windowReachesEnd, Unit& unit);

// The first offset from `from` on where CheckUnit says kValid or kShort; n when
// there is none (n - 3 when d does not reach the file's end, so that a start
// code cut by the window's end is looked at again).
size_t FindUnit(const uint8_t* d, size_t n, size_t from, bool windowReachesEnd);

// The form of the first valid pack header in d, if any.
PackForm FirstPackForm(const uint8_t* d, size_t n, bool windowReachesEnd);

// A pack header of the form with SCR 0, for a stream whose own first pack was lost.
std::vector<uint8_t> SyntheticPackHeader(PackForm form);

}  // namespace ps
}  // namespace thorough
