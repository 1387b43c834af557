// Transport stream packets as ISO/IEC 13818-1 lays them out, and the sync-byte
// runs that tell where packets start in a damaged file. Stored packets come in
// three sizes: 188 bytes; 192 with a 4-byte TP_extra_header in front (BDAV,
// AVCHD); 204 with 16 Reed-Solomon parity bytes behind. In all three the 188
// bytes from the sync byte are the packet itself, so the sync positions and the
// stride between them are all a reader needs.
#pragma once

#include <cstddef>
#include <cstdint>

namespace thorough {
namespace ts {

constexpr size_t kPacketBytes = 188;
constexpr uint8_t kSyncByte = 0x47;
constexpr int kPacketSizes[] = {188, 192, 204};
constexpr int kNullPid = 0x1FFF;

// Consecutive syncs that establish a packet size from nothing: a stray 0x47 in
// garbage matches one stride in 256, sixteen in a row practically never.
constexpr int kDetectRun = 16;
// Consecutive syncs at the known stride that take a stream back after a loss.
constexpr int kResyncRun = 5;
// Packets a run is followed for when two runs compete (see FindRun).
constexpr int kCompareRun = 64;
// Bytes a run search may look ahead of its first sync.
constexpr size_t kRunReach = size_t(kCompareRun) * 204 + 204;

// Bytes of a stored packet in front of its sync byte.
inline int PrefixBytes(int packetSize) { return packetSize == 192 ? 4 : 0; }

inline int Pid(const uint8_t* p) { return (p[1] & 0x1F) << 8 | p[2]; }
inline bool StartsUnit(const uint8_t* p) { return (p[1] & 0x40) != 0; }
inline int Continuity(const uint8_t* p) { return p[3] & 0x0F; }
inline void SetContinuity(uint8_t* p, int cc) { p[3] = uint8_t((p[3] & 0xF0) | (cc & 0x0F)); }

// Offset of the payload in the packet, or 0 when the packet carries none.
size_t PayloadOffset(const uint8_t* p);

// False for packets that cannot be right whatever the demuxer does with them:
// no sync, the reserved adaptation_field_control 00, or an adaptation field
// longer than the packet.
bool LooksRight(const uint8_t* p);

// A packet that begins a PES packet (payload starts with 00 00 01).
bool StartsPes(const uint8_t* p);

// The table_id of the section a unit-start packet begins, or -1.
int TableId(const uint8_t* p);

// Where a section begins in a unit-start packet and how long it is (header
// included); false when it does not fit in this packet.
bool SectionInPacket(const uint8_t* p, size_t& start, size_t& length);

struct SyncRun {
    int64_t at = -1;  // offset of the first sync byte in the searched bytes
    int packetSize = 0;
};

// Whether `want` syncs follow at the stride from data[at]. When the data ends
// inside the run, atFileEnd says the file ends there too, and a run of at least
// kResyncRun complete packets is then enough.
bool RunHolds(const uint8_t* data, size_t length, bool atFileEnd, size_t at, int stride, int want);

// Consecutive syncs from data[at] at the stride, up to most.
int RunLength(const uint8_t* data, size_t length, size_t at, int stride, int most);

// The first sync in data[from, limit) that starts a run: kResyncRun packets at
// the preferred stride (0: none known), or kDetectRun at any other size. Bytes
// between packets (a 192-byte packet's header, a 204-byte one's parity) may
// hold a sync byte at the same place for a while, as a header's time stamp
// passes 0x47; such a run starts just before the true one and ends sooner, so
// the longest run that starts within those bytes is taken. Runs may look up to
// length, which must reach kRunReach past limit unless the data ends with the
// file.
SyncRun FindRun(const uint8_t* data, size_t from, size_t limit, size_t length, bool atFileEnd, int preferred);

}  // namespace ts
}  // namespace thorough
