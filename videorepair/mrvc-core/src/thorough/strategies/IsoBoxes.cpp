#include "thorough/strategies/IsoBoxes.h"

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
        if (got < 8 || !ReadBoxHeader(head, size_t(got), at, fileSize, box)) {
            // What follows is no box: the rest is one unknown stretch.
            if (!boxes.empty()) boxes.back().truncated = boxes.back().truncated || at < fileSize;
            break;
        }
        boxes.push_back(box);
        if (box.truncated) break;
        at = box.End();
    }
    return boxes;
}

std::vector<MediaRange> MediaData(const std::vector<Box>& boxes, int64_t fileSize) {
    std::vector<MediaRange> ranges;
    for (const Box& box : boxes) {
        if (box.type != "mdat") continue;
        int64_t end = box.truncated ? fileSize : std::min(box.End(), fileSize);
        if (end > box.PayloadBegin()) ranges.push_back({box.PayloadBegin(), end});
    }
    return ranges;
}

bool IndexIntact(const std::vector<Box>& boxes) {
    bool moov = false;
    for (const Box& box : boxes) {
        if (box.truncated) return false;
        moov = moov || box.type == "moov";
    }
    return moov;
}

bool Fragmented(const std::vector<Box>& boxes) {
    for (const Box& box : boxes)
        if (box.type == "moof") return true;
    return false;
}

}  // namespace iso
}  // namespace thorough
