#include "thorough/strategies/TsPacket.h"

#include <cstring>

namespace thorough {
namespace ts {

namespace {

int FieldControl(const uint8_t* p) { return (p[3] >> 4) & 3; }

}  // namespace

size_t PayloadOffset(const uint8_t* p) {
    const int control = FieldControl(p);
    if ((control & 1) == 0) return 0;
    size_t offset = 4;
    if (control & 2) offset += 1 + size_t(p[4]);
    return offset < kPacketBytes ? offset : 0;
}

bool LooksRight(const uint8_t* p) {
    if (p[0] != kSyncByte) return false;
    const int control = FieldControl(p);
    if (control == 0) return false;
    if ((control & 2) == 0) return true;
    // With a payload the field leaves at least one payload byte; without one it
    // fills the packet.
    const size_t longest = control == 3 ? 182 : 183;
    return p[4] <= longest;
}

bool StartsPes(const uint8_t* p) {
    if (!StartsUnit(p)) return false;
    const size_t at = PayloadOffset(p);
    return at != 0 && at + 3 <= kPacketBytes && p[at] == 0 && p[at + 1] == 0 && p[at + 2] == 1;
}

int TableId(const uint8_t* p) {
    if (!StartsUnit(p)) return -1;
    const size_t at = PayloadOffset(p);
    if (at == 0) return -1;
    const size_t table = at + 1 + p[at];  // past the pointer_field
    return table < kPacketBytes ? p[table] : -1;
}

bool SectionInPacket(const uint8_t* p, size_t& start, size_t& length) {
    if (TableId(p) < 0) return false;
    const size_t at = PayloadOffset(p);
    start = at + 1 + p[at];
    if (start + 3 > kPacketBytes) return false;
    length = 3 + (size_t(p[start + 1] & 0x0F) << 8 | p[start + 2]);
    return start + length <= kPacketBytes;
}

bool RunHolds(const uint8_t* data, size_t length, bool atFileEnd, size_t at, int stride, int want) {
    for (int k = 0; k < want; ++k) {
        const size_t sync = at + size_t(k) * size_t(stride);
        if (sync + kPacketBytes > length) return atFileEnd && k >= kResyncRun;
        if (data[sync] != kSyncByte) return false;
    }
    return true;
}

int RunLength(const uint8_t* data, size_t length, size_t at, int stride, int most) {
    int count = 0;
    for (size_t sync = at; count < most && sync + kPacketBytes <= length && data[sync] == kSyncByte; sync += size_t(stride)) {
        ++count;
    }
    return count;
}

namespace {

SyncRun LongestNear(const uint8_t* data, size_t length, size_t at, int stride) {
    SyncRun best{int64_t(at), stride};
    int bestLength = RunLength(data, length, at, stride, kCompareRun);
    for (size_t later = at + 1; later <= at + size_t(stride) - kPacketBytes; ++later) {
        const int runLength = RunLength(data, length, later, stride, kCompareRun);
        if (runLength > bestLength) {
            best.at = int64_t(later);
            bestLength = runLength;
        }
    }
    return best;
}

}  // namespace

SyncRun FindRun(const uint8_t* data, size_t from, size_t limit, size_t length, bool atFileEnd, int preferred) {
    while (from < limit) {
        const void* hit = std::memchr(data + from, kSyncByte, limit - from);
        if (hit == nullptr) break;
        const size_t at = size_t(static_cast<const uint8_t*>(hit) - data);
        if (preferred != 0 && RunHolds(data, length, atFileEnd, at, preferred, kResyncRun)) {
            return LongestNear(data, length, at, preferred);
        }
        for (int size : kPacketSizes) {
            if (size != preferred && RunHolds(data, length, atFileEnd, at, size, kDetectRun)) {
                return LongestNear(data, length, at, size);
            }
        }
        from = at + 1;
    }
    return SyncRun();
}

}  // namespace ts
}  // namespace thorough
