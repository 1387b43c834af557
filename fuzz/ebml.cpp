// EBML numbers, ids and element headers (RFC 8794) at every offset of arbitrary
// bytes, and a walk over nested children the way the MKV head parser walks them.
#include <cstdlib>

#include "FuzzSupport.h"
#include "util/Ebml.h"
#include "util/EbmlElement.h"

namespace {

void Walk(const uint8_t* data, size_t size, int depth) {
    util::EbmlChildReader reader(data, size);
    util::EbmlChildReader::Child child;
    while (reader.Next(child)) {
        if (child.End() > size || child.payload < data || child.payload + child.size > data + size) std::abort();
        (void)child.Unsigned();
        (void)child.Text();
        (void)child.Raw(data);
        (void)util::EbmlFloat(child.payload, child.size);
        if (depth < 8) Walk(child.payload, child.size, depth + 1);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    for (size_t at = 0; at < size; ++at) {
        util::EbmlNumber number;
        if (util::ReadEbmlNumber(data + at, size - at, number)) {
            if (number.length != util::EbmlMarkerLength(data[at]) || number.length > size - at) std::abort();
        }
        uint32_t id = 0, idLength = 0;
        if (util::ReadEbmlId(data + at, size - at, id, idLength) && idLength > size - at) std::abort();
        util::EbmlElementHeader header;
        if (util::ParseEbmlHeader(data + at, size - at, header) && header.HeaderLength() > size - at) std::abort();
    }
    Walk(data, size, 0);
    return 0;
}
