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

namespace {

// A box that opens the file's structure again after damage: media data, or an
// index or fragment whose first child is a box too.
bool Resumes(FileReader& file, int64_t at, const uint8_t* head, size_t available, Box& box) {
    if (!ReadBoxHeader(head, available, at, file.Size(), box)) return false;
    if (box.type == "mdat") return true;
    if (box.type != "moov" && box.type != "moof") return false;
    uint8_t child[16] = {0};
    Box inner;
    const int64_t got = file.ReadAt(box.PayloadBegin(), child, sizeof child);
    return got >= 8 && ReadBoxHeader(child, size_t(got), box.PayloadBegin(), box.End(), inner) && !inner.truncated;
}

// The next box behind damage at from; -1 when the file holds none.
int64_t NextBox(FileReader& file, int64_t from) {
    constexpr size_t kWindow = 1 << 20;
    std::string window;
    for (int64_t start = from; start + 8 <= file.Size(); start += int64_t(kWindow)) {
        window.resize(kWindow + 16);
        const int64_t got = file.ReadAt(start, window.data(), window.size());
        if (got < 8) return -1;
        const auto* bytes = reinterpret_cast<const uint8_t*>(window.data());
        for (size_t i = 4; i + 4 <= size_t(got) && i - 4 < kWindow; ++i) {
            if (bytes[i] != 'm' || (bytes[i + 1] != 'd' && bytes[i + 1] != 'o')) continue;
            Box box;
            const int64_t at = start + int64_t(i) - 4;
            if (Resumes(file, at, bytes + i - 4, size_t(got) - (i - 4), box)) return at;
        }
    }
    return -1;
}

}  // namespace

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
        if (isBox && !(box.truncated && !KnownTopLevel(box.type))) {
            boxes.push_back(box);
            if (box.truncated) break;
            at = box.End();
            continue;
        }
        const int64_t next = NextBox(file, at + 1);
        // What follows an mdat and is no box up to the end is more of its media
        // data, under a size the writer never brought up to date.
        if (next < 0 && !boxes.empty() && boxes.back().type == "mdat") {
            boxes.back().truncated = true;
            boxes.back().size = fileSize - boxes.back().offset;
            break;
        }
        // Else damage took the boxes' heads: the stretch up to where the structure
        // resumes may still hold media data.
        Box lost;
        lost.type = kLostStretch;
        lost.offset = at;
        lost.header = 0;
        lost.size = (next < 0 ? fileSize : next) - at;
        boxes.push_back(lost);
        if (next < 0) break;
        at = next;
    }
    return boxes;
}

std::vector<MediaRange> MediaData(const std::vector<Box>& boxes) {
    std::vector<MediaRange> ranges;
    for (const Box& box : boxes) {
        if (box.type != "mdat" && box.type != kLostStretch) continue;
        if (box.End() > box.PayloadBegin()) ranges.push_back({box.PayloadBegin(), box.End()});
    }
    return ranges;
}

bool HasLostStretch(const std::vector<Box>& boxes) {
    for (const Box& box : boxes)
        if (box.type == kLostStretch) return true;
    return false;
}

bool IndexIntact(const std::vector<Box>& boxes) {
    for (const Box& box : boxes)
        if (box.type == "moov" && !box.truncated) return true;
    return false;
}

}  // namespace iso
}  // namespace thorough
