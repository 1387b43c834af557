// The top-level boxes of an ISO base media file (MP4, MOV, 3GP), read from their
// headers alone: where the media data lies, and whether the index (moov) that
// tells its samples apart is there at all.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

class FileReader;

namespace thorough {
namespace iso {

struct Box {
    std::string type;      // four characters
    int64_t offset = 0;    // of the header
    int64_t header = 8;    // 8, or 16 with a 64-bit size
    int64_t size = 0;      // as declared; to the end of the file when declared 0
    bool truncated = false;  // the declared size runs past the end of the file
    int64_t End() const { return offset + size; }
    int64_t PayloadBegin() const { return offset + header; }
};

// A box header at data[0..available); false when it is not a plausible one.
bool ReadBoxHeader(const uint8_t* data, size_t available, int64_t offset, int64_t fileSize, Box& box);

// The type given to a stretch whose box headers damage took.
constexpr const char* kLostStretch = "????";

// The top-level boxes in file order. Where a header is no box, the structure
// is looked for again further on (an mdat, or a moov or moof whose first child
// is a box), and the stretch between is listed as lost; with none further on,
// an mdat just before runs to the end (its size was never brought up to date).
std::vector<Box> TopLevelBoxes(FileReader& file);

// The media data that the damaged file holds: each mdat's payload (to the end
// of the file where its size runs past it) and each lost stretch.
struct MediaRange {
    int64_t begin = 0;
    int64_t end = 0;
};
std::vector<MediaRange> MediaData(const std::vector<Box>& boxes);

// True when damage took box headers somewhere.
bool HasLostStretch(const std::vector<Box>& boxes);

// True when the list has a whole moov (the media data may still be cut: the
// demuxer then reads every sample the file still holds).
bool IndexIntact(const std::vector<Box>& boxes);

}  // namespace iso
}  // namespace thorough
