#include "thorough/strategies/IsoBoxes.h"

#include <algorithm>
#include <cctype>

#include "io/FileReader.h"

namespace thorough {
namespace iso {
namespace {

uint32_t Be32(const uint8_t* p) { return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3]; }

bool PrintableType(const uint8_t* p) {
    for (int i = 0; i < 4; ++i)
        if (!std::isprint(p[i])) return false;
    return true;
}

// The boxes a file holds at its top level (ISO/IEC 14496-12 and QuickTime).
bool KnownTopLevel(const std::string& type) {
    static const char* const known[] = {"ftyp", "styp", "moov", "mdat", "moof", "mfra", "free", "skip",
                                        "wide", "uuid", "meta", "sidx", "ssix", "emsg", "prft", "pdin",
                                        "pnot", "junk", "PICT"};
    for (const char* k : known)
        if (type == k) return true;
    return false;
}

}  // namespace

bool ReadBoxHeader(const uint8_t* data, size_t available, int64_t offset, int64_t fileSize, Box& box) {
    if (available < 8 || !PrintableType(data + 4)) return false;
    box = Box();
    box.offset = offset;
    box.type.assign(reinterpret_cast<const char*>(data + 4), 4);
    uint64_t size = Be32(data);
    if (size == 1) {
        if (available < 16) return false;
        size = uint64_t(Be32(data + 8)) << 32 | Be32(data + 12);
        box.header = 16;
    }
    if (size == 0) {
        box.size = fileSize - offset;  // to the end of the file, as the standard allows
    } else if (size < uint64_t(box.header)) {
        return false;
    } else {
        box.size = int64_t(size);
    }
    if (box.End() > fileSize) {
        box.truncated = true;
        box.size = fileSize - offset;
    }
    return true;
}

std::vector<Box> TopLevelBoxes(FileReader& file) {
    std::vector<Box> boxes;
    const int64_t fileSize = file.Size();
    for (int64_t at = 0; at + 8 <= fileSize;) {
        uint8_t head[16] = {0};
        int64_t got = file.ReadAt(at, head, sizeof head);
        Box box;
        // Media data behind an mdat whose size was written too small can spell a
        // printable type; an unknown one that runs past the end is no box.
        bool isBox = got >= 8 && ReadBoxHeader(head, size_t(got), at, fileSize, box);
        if (!isBox || (box.truncated && !KnownTopLevel(box.type))) {
            // What follows an mdat and is no box is more of its media data, under
            // a size the writer never brought up to date.
            if (!boxes.empty() && boxes.back().type == "mdat") boxes.back().truncated = true;
            break;
        }
        boxes.push_back(box);
        if (box.truncated) break;
        at = box.End();
    }
    return boxes;
}

std::vector<MediaRange> MediaData(const std::vector<Box>& boxes, int64_t dataEnd) {
    std::vector<MediaRange> ranges;
    int64_t wholeEnd = 0;
    for (const Box& box : boxes) {
        if (!box.truncated) wholeEnd = box.End();
        if (box.type != "mdat") continue;
        int64_t end = box.truncated ? dataEnd : std::min(box.End(), dataEnd);
        if (end > box.PayloadBegin()) ranges.push_back({box.PayloadBegin(), end});
    }
    if (ranges.empty() && dataEnd > wholeEnd) ranges.push_back({wholeEnd, dataEnd});
    return ranges;
}

int64_t TrailingIndexAt(FileReader& file) {
    constexpr int64_t kLookBack = 32 << 20;  // larger indexes are rare; the walk then just steps over it
    const int64_t size = file.Size(), from = std::max<int64_t>(0, size - kLookBack);
    std::string tail(size_t(size - from), '\0');
    if (file.ReadAt(from, tail.data(), tail.size()) != int64_t(tail.size())) return size;
    for (size_t at = tail.size() >= 8 ? tail.size() - 8 : 0; at + 8 <= tail.size() && at >= 4; --at) {
        if (tail.compare(at, 4, "moov") != 0) continue;
        const auto* p = reinterpret_cast<const uint8_t*>(tail.data()) + at - 4;
        if (from + int64_t(at) - 4 + int64_t(Be32(p)) == size) return from + int64_t(at) - 4;
    }
    return size;
}

bool IndexIntact(const std::vector<Box>& boxes) {
    for (const Box& box : boxes)
        if (box.type == "moov" && !box.truncated) return true;
    return false;
}

}  // namespace iso
}  // namespace thorough
