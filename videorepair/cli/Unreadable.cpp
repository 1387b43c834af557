#include "Unreadable.h"

#include <Poco/JSON/Array.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>

std::vector<UnreadableRange> UnreadableRanges(const std::string& recordPath) {
    std::vector<UnreadableRange> ranges;
    for (const MapRange& range : ReadRepairMap(recordPath).ranges)
        if (range.kind == "unreadable") ranges.push_back({range.offset, range.length});
    return ranges;
}

void EstimateCost(std::vector<UnreadableRange>& ranges, int64_t damagedBytes, double seconds, int64_t videoFrames) {
    if (damagedBytes <= 0 || seconds <= 0) return;
    for (UnreadableRange& range : ranges) {
        range.seconds = seconds * double(range.length) / double(damagedBytes);
        if (videoFrames > 0) range.frames = int64_t(std::ceil(range.seconds * double(videoFrames) / seconds));
    }
}

void AddUnreadableJson(Poco::JSON::Object& object, const std::vector<UnreadableRange>& ranges) {
    Poco::JSON::Array::Ptr list = new Poco::JSON::Array;
    for (const UnreadableRange& range : ranges) {
        Poco::JSON::Object::Ptr item = new Poco::JSON::Object(Poco::JSON_PRESERVE_KEY_ORDER);
        item->set("offset", range.offset);
        item->set("length", range.length);
        item->set("seconds", range.seconds >= 0 ? Poco::Dynamic::Var(range.seconds) : Poco::Dynamic::Var());
        item->set("frames", range.frames >= 0 ? Poco::Dynamic::Var(range.frames) : Poco::Dynamic::Var());
        list->add(item);
    }
    object.set("unreadable", list);
}

namespace {

std::string CostText(const UnreadableRange& range) {
    if (range.seconds < 0) return std::string();
    char text[96];
    if (range.frames >= 0)
        std::snprintf(text, sizeof text, ": about %.2f s, %lld video frames", range.seconds, (long long)range.frames);
    else
        std::snprintf(text, sizeof text, ": about %.2f s", range.seconds);
    return text;
}

}  // namespace

std::string UnreadableText(const std::vector<UnreadableRange>& ranges) {
    if (ranges.empty()) return std::string();
    UnreadableRange total;
    total.seconds = ranges.front().seconds < 0 ? -1 : 0;
    total.frames = ranges.front().frames < 0 ? -1 : 0;
    for (const UnreadableRange& range : ranges) {
        total.length += range.length;
        if (total.seconds >= 0) total.seconds += range.seconds;
        if (total.frames >= 0) total.frames += range.frames;
    }
    std::string text = "  unreadable " + std::to_string(total.length) + " bytes in " + std::to_string(ranges.size()) +
                       (ranges.size() == 1 ? " range" : " ranges") + " (read as zeros; partly recovered)" +
                       CostText(total) + "\n";
    size_t shown = 0;
    for (const UnreadableRange& range : ranges) {
        if (++shown > 8) {
            text += "            ... and " + std::to_string(ranges.size() - 8) + " more\n";
            break;
        }
        text += "            at " + std::to_string(range.offset) + ", " + std::to_string(range.length) + " bytes" +
                CostText(range) + "\n";
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
