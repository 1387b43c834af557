// The library's record of one thorough repair (written as JSON where the host
// asked for it), read back for the report page, the contact sheet and --json.
#pragma once

#include <Poco/JSON/Object.h>

#include <cstdint>
#include <string>
#include <vector>

struct MapRange {
    int64_t offset = 0;
    int64_t length = 0;
    std::string kind;  // recovered, skipped, unreadable, restored
    std::string note;
};

struct MapGap {
    std::string stream;  // "video", "audio", ...
    double start = 0;    // seconds from the repaired file's start
    double end = 0;
};

struct MapStream {
    int index = 0;
    std::string kind;
    std::string codec;
    double first = 0;
    double last = 0;
    int64_t frames = 0;
};

struct RepairMap {
    bool loaded = false;
    int64_t fileSize = 0;
    std::vector<MapRange> ranges;
    std::vector<MapGap> gaps;
    std::vector<MapStream> streams;
    std::vector<std::string> warnings;

    int64_t BytesOf(const std::string& kind) const;
    bool HasVideo() const;
    double Duration() const;  // the latest stream end
};

// loaded false when the file is missing or is not a record.
RepairMap ReadRepairMap(const std::string& path);
// The same from a parsed record, or from the map of a --json line.
RepairMap MapFromJson(const Poco::JSON::Object::Ptr& root);

// The map for --json: ranges (offset, length, kind, note) and gaps (start, end, stream).
Poco::JSON::Object::Ptr MapJson(const RepairMap& map);
