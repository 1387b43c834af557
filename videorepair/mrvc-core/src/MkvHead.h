// What a repaired Matroska file needs from a healthy head: the EBML header,
// Info (TimestampScale and the rest of its children) and Tracks.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

class FileReader;

struct MkvTrack {
    uint64_t number = 0;
    uint64_t type = 0;
    std::string codecId;
    std::string codecPrivate;
    uint64_t defaultDuration = 0;  // nanoseconds per frame, 0 when not given
};

struct MkvHead {
    std::string ebmlHeader;     // the whole element, copied as it stands
    std::string docType;
    uint64_t timestampScale = 1000000;  // nanoseconds per timestamp tick
    std::string infoChildren;   // Info's children without Duration, CRC-32 and Void
    std::string tracksElement;  // the whole Tracks element, copied as it stands
    std::vector<MkvTrack> tracks;
    int64_t end = 0;            // file offset just past the last head element read

    const MkvTrack* FindTrack(uint64_t number) const;
    // The track the seek index follows: the first video track, else the first track.
    const MkvTrack* CueTrack() const;
};

class MkvHeadParser {
public:
    // Reads the head at the start of the file. On failure why names what broke.
    static bool Parse(FileReader& file, MkvHead& head, std::string& why);

private:
    static bool ParseEbmlHeader(FileReader& file, MkvHead& head, int64_t& next, std::string& why);
    static bool ParseSegmentHead(FileReader& file, int64_t segmentData, MkvHead& head, std::string& why);
    static bool ParseInfo(const std::string& payload, MkvHead& head);
    static bool ParseTracks(const std::string& payload, MkvHead& head);
    static bool ParseTrackEntry(const uint8_t* data, size_t size, MkvTrack& track);
    static bool TracksAgree(const MkvHead& head, std::string& why);
};
