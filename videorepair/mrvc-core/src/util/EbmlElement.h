// EBML element headers (RFC 8794): an id, then a size, both variable-length
// numbers decoded through ReadEbmlId/ReadEbmlNumber; plus readers for the
// payload types Matroska uses and a walker over children held in memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

class FileReader;

namespace util {

struct EbmlElementHeader {
    uint32_t id = 0;
    uint32_t idLength = 0;
    uint64_t size = 0;  // meaningless when unknownSize
    uint32_t sizeLength = 0;
    bool unknownSize = false;  // the reserved all-ones size
    uint32_t HeaderLength() const { return idLength + sizeLength; }
};

// The longest header: a 4-byte id and an 8-byte size.
constexpr size_t kEbmlMaxHeaderBytes = 12;

// False when the id or the size is malformed or the bytes run out.
bool ParseEbmlHeader(const uint8_t* data, size_t available, EbmlElementHeader& out);
// The same at a file offset.
bool ReadEbmlHeaderAt(FileReader& file, int64_t offset, EbmlElementHeader& out);

// Big-endian unsigned/signed integers of 0..8 bytes and 4- or 8-byte floats.
uint64_t EbmlUnsigned(const uint8_t* data, size_t n);
double EbmlFloat(const uint8_t* data, size_t n);

// Children of a master element whose payload is in memory. Next() stops at the
// end, or fails (Failed()) at a child that is malformed, of unknown size, or
// that runs past the parent.
class EbmlChildReader {
public:
    struct Child {
        EbmlElementHeader header;
        size_t offset = 0;  // of the child's header inside the parent's payload
        const uint8_t* payload = nullptr;
        size_t size = 0;
        size_t End() const { return offset + header.HeaderLength() + size; }
        uint64_t Unsigned() const { return EbmlUnsigned(payload, size); }
        std::string Text() const;
        std::string Raw(const uint8_t* parent) const;  // the whole child, header included
    };

    EbmlChildReader(const uint8_t* data, size_t size) : data_(data), size_(size) {}
    bool Next(Child& out);
    bool Failed() const { return failed_; }

private:
    const uint8_t* data_;
    size_t size_;
    size_t position_ = 0;
    bool failed_ = false;
};

}  // namespace util
