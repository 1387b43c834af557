#include "Unreadable.h"

#include <Poco/File.h>
#include <Poco/JSON/Array.h>
#include <Poco/JSON/Parser.h>
#include <Poco/Process.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

std::string RecordPathIn(const std::string& workDirectory) {
    std::string folder = workDirectory;
    if (!folder.empty() && folder.back() != '/' && folder.back() != '\\') folder += '/';
    return folder + "repair-record-" + std::to_string(Poco::Process::id()) + ".json";
}

std::vector<ByteRange> TakeUnreadableRanges(const std::string& recordPath) {
    std::vector<ByteRange> ranges;
    try {
        std::ifstream in(recordPath, std::ios::binary);
        std::stringstream text;
        text << in.rdbuf();
        if (!in || text.str().empty()) return ranges;
        Poco::JSON::Object::Ptr record = Poco::JSON::Parser().parse(text.str()).extract<Poco::JSON::Object::Ptr>();
        Poco::JSON::Array::Ptr all = record->getArray("ranges");
        for (size_t i = 0; all && i < all->size(); ++i) {
            Poco::JSON::Object::Ptr range = all->getObject(unsigned(i));
            if (range && range->getValue<std::string>("kind") == "unreadable")
                ranges.push_back({range->getValue<int64_t>("offset"), range->getValue<int64_t>("length")});
        }
    } catch (...) {
    }
    try {
        Poco::File(recordPath).remove();
    } catch (...) {
    }
    return ranges;
}

void AddUnreadableJson(Poco::JSON::Object& object, const std::vector<ByteRange>& ranges) {
    Poco::JSON::Array::Ptr list = new Poco::JSON::Array;
    for (const ByteRange& range : ranges) {
        Poco::JSON::Object::Ptr item = new Poco::JSON::Object;
        item->set("offset", range.offset);
        item->set("length", range.length);
        list->add(item);
    }
    object.set("unreadable", list);
}

void PrintUnreadable(std::FILE* out, const std::vector<ByteRange>& ranges) {
    if (ranges.empty()) return;
    int64_t total = 0;
    for (const ByteRange& range : ranges) total += range.length;
    std::fprintf(out, "  unreadable %lld bytes in %zu range%s (read as zeros; partly recovered)\n", (long long)total,
                 ranges.size(), ranges.size() == 1 ? "" : "s");
    size_t shown = 0;
    for (const ByteRange& range : ranges) {
        if (++shown > 8) {
            std::fprintf(out, "             ... and %zu more\n", ranges.size() - 8);
            break;
        }
        std::fprintf(out, "             at %lld, %lld bytes\n", (long long)range.offset, (long long)range.length);
    }
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
