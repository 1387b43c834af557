#include "util/EbmlElement.h"

#include <cstring>

#include "io/FileReader.h"
#include "util/Ebml.h"

namespace util {

bool ParseEbmlHeader(const uint8_t* data, size_t available, EbmlElementHeader& out) {
    uint32_t id = 0;
    uint32_t idLength = 0;
    if (!ReadEbmlId(data, available, id, idLength)) return false;
    EbmlNumber size;
    if (!ReadEbmlNumber(data + idLength, available - idLength, size)) return false;
    out.id = id;
    out.idLength = idLength;
    out.size = size.value;
    out.sizeLength = size.length;
    out.unknownSize = size.allOnes;
    return true;
}

bool ReadEbmlHeaderAt(FileReader& file, int64_t offset, EbmlElementHeader& out) {
    size_t available = 0;
    const uint8_t* data = file.View(offset, kEbmlMaxHeaderBytes, available);
    return data != nullptr && ParseEbmlHeader(data, available, out);
}

uint64_t EbmlUnsigned(const uint8_t* data, size_t n) {
    uint64_t value = 0;
    for (size_t i = 0; i < n && i < 8; ++i) value = (value << 8) | data[i];
    return value;
}

double EbmlFloat(const uint8_t* data, size_t n) {
    if (n == 4) {
        uint32_t bits = uint32_t(EbmlUnsigned(data, 4));
        float f;
        std::memcpy(&f, &bits, 4);
        return f;
    }
    if (n == 8) {
        uint64_t bits = EbmlUnsigned(data, 8);
        double d;
        std::memcpy(&d, &bits, 8);
        return d;
    }
    return 0.0;
}

std::string EbmlChildReader::Child::Text() const {
    std::string text(reinterpret_cast<const char*>(payload), size);
    size_t zero = text.find('\0');  // strings may be padded with zeros
    return zero == std::string::npos ? text : text.substr(0, zero);
}

std::string EbmlChildReader::Child::Raw(const uint8_t* parent) const {
    return std::string(reinterpret_cast<const char*>(parent + offset), End() - offset);
}

bool EbmlChildReader::Next(Child& out) {
    if (failed_ || position_ >= size_) return false;
    EbmlElementHeader header;
    size_t left = size_ - position_;
    if (!ParseEbmlHeader(data_ + position_, left, header) || header.unknownSize ||
        header.size > left - header.HeaderLength()) {
        failed_ = true;
        return false;
    }
    out.header = header;
    out.offset = position_;
    out.payload = data_ + position_ + header.HeaderLength();
    out.size = size_t(header.size);
    position_ = out.End();
    return true;
}

}  // namespace util
