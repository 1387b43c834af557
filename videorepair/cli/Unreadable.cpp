#include "Unreadable.h"

#include <Poco/JSON/Array.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>

std::vector<MapRange> UnreadableRanges(const std::string& recordPath) {
    std::vector<MapRange> ranges;
    for (const MapRange& range : ReadRepairMap(recordPath).ranges)
        if (range.kind == "unreadable") ranges.push_back(range);
    return ranges;
}

void AddUnreadableJson(Poco::JSON::Object& object, const std::vector<MapRange>& ranges) {
    Poco::JSON::Array::Ptr list = new Poco::JSON::Array;
    for (const MapRange& range : ranges) {
        Poco::JSON::Object::Ptr item = new Poco::JSON::Object(Poco::JSON_PRESERVE_KEY_ORDER);
        item->set("offset", range.offset);
        item->set("length", range.length);
        list->add(item);
    }
    object.set("unreadable", list);
}

std::string UnreadableText(const std::vector<MapRange>& ranges) {
    if (ranges.empty()) return std::string();
    int64_t total = 0;
    for (const MapRange& range : ranges) total += range.length;
    std::string text = "  unreadable " + std::to_string(total) + " bytes in " + std::to_string(ranges.size()) +
                       (ranges.size() == 1 ? " range" : " ranges") + " (read as zeros; partly recovered)\n";
    size_t shown = 0;
    for (const MapRange& range : ranges) {
        if (++shown > 8) {
            text += "            ... and " + std::to_string(ranges.size() - 8) + " more\n";
            break;
        }
        text += "            at " + std::to_string(range.offset) + ", " + std::to_string(range.length) + " bytes\n";
    }
    return text;
}

std::string ReadThroughFailure(const std::string& path) {
    std::error_code ec;
    const auto size = std::filesystem::file_size(std::filesystem::u8path(path), ec);
    std::ifstream in(std::filesystem::u8path(path), std::ios::binary);  // UTF-8 names on every system
    if (ec || !in) return std::string();  // not opening is reported elsewhere
    std::vector<char> buffer(1 << 16);
    uintmax_t total = 0;
    errno = 0;
    while (in.read(buffer.data(), std::streamsize(buffer.size())) || in.gcount() > 0) total += uintmax_t(in.gcount());
    if (total >= size) return std::string();
    const char* cause = errno != 0 ? std::strerror(errno) : "read error";
    return std::string(cause) + " at byte " + std::to_string(total);
}
