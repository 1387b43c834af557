#include "RecordReader.h"

#include <Poco/JSON/Parser.h>

#include <algorithm>
#include <fstream>
#include <sstream>

namespace {

using Poco::JSON::Array;
using Poco::JSON::Object;

template <typename T>
T Value(const Object::Ptr& object, const std::string& key, T fallback) {
    return object->has(key) && !object->isNull(key) ? object->getValue<T>(key) : fallback;
}

std::vector<Object::Ptr> Objects(const Object::Ptr& root, const std::string& key) {
    std::vector<Object::Ptr> out;
    Array::Ptr array = root->getArray(key);
    if (!array) return out;
    for (size_t i = 0; i < array->size(); ++i)
        if (Object::Ptr item = array->getObject(unsigned(i))) out.push_back(item);
    return out;
}

}  // namespace

int64_t RepairMap::BytesOf(const std::string& kind) const {
    int64_t total = 0;
    for (const MapRange& range : ranges)
        if (range.kind == kind) total += range.length;
    return total;
}

bool RepairMap::HasVideo() const {
    return std::any_of(streams.begin(), streams.end(),
                       [](const MapStream& s) { return s.kind == "video" && s.frames > 0; });
}

double RepairMap::Duration() const {
    double end = 0;
    for (const MapStream& s : streams) end = std::max(end, s.last);
    return end;
}

RepairMap MapFromJson(const Poco::JSON::Object::Ptr& root) {
    RepairMap map;
    if (!root) return map;
    try {
        map.fileSize = Value<int64_t>(root, "fileSize", 0);
        for (const Object::Ptr& r : Objects(root, "ranges"))
            map.ranges.push_back({Value<int64_t>(r, "offset", 0), Value<int64_t>(r, "length", 0),
                                  Value<std::string>(r, "kind", ""), Value<std::string>(r, "note", "")});
        for (const Object::Ptr& g : Objects(root, "gaps"))
            map.gaps.push_back({Value<std::string>(g, "stream", ""), Value<double>(g, "start", 0), Value<double>(g, "end", 0)});
        for (const Object::Ptr& s : Objects(root, "streams"))
            map.streams.push_back({Value<int>(s, "index", 0), Value<std::string>(s, "kind", ""),
                                   Value<std::string>(s, "codec", ""), Value<double>(s, "first", 0),
                                   Value<double>(s, "last", 0), Value<int64_t>(s, "frames", 0)});
        if (Array::Ptr warnings = root->getArray("warnings"))
            for (size_t i = 0; i < warnings->size(); ++i) map.warnings.push_back(warnings->getElement<std::string>(unsigned(i)));
        map.loaded = true;
    } catch (const std::exception&) {
        map = RepairMap();
    }
    return map;
}

RepairMap ReadRepairMap(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return RepairMap();
    std::stringstream text;
    text << in.rdbuf();
    try {
        return MapFromJson(Poco::JSON::Parser().parse(text.str()).extract<Object::Ptr>());
    } catch (const std::exception&) {
        return RepairMap();
    }
}

Poco::JSON::Object::Ptr MapJson(const RepairMap& map) {
    Object::Ptr object = new Object(Poco::JSON_PRESERVE_KEY_ORDER);
    object->set("fileSize", map.fileSize);
    Array::Ptr ranges = new Array;
    for (const MapRange& r : map.ranges) {
        Object::Ptr range = new Object(Poco::JSON_PRESERVE_KEY_ORDER);
        range->set("offset", r.offset);
        range->set("length", r.length);
        range->set("kind", r.kind);
        if (!r.note.empty()) range->set("note", r.note);
        ranges->add(range);
    }
    Array::Ptr gaps = new Array;
    for (const MapGap& g : map.gaps) {
        Object::Ptr gap = new Object(Poco::JSON_PRESERVE_KEY_ORDER);
        gap->set("start", g.start);
        gap->set("end", g.end);
        gap->set("stream", g.stream);
        gaps->add(gap);
    }
    object->set("ranges", ranges);
    object->set("gaps", gaps);
    return object;
}
