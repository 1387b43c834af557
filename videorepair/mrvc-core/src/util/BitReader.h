// Most-significant-bit-first reads of 0..64 bits over a memory block, without
// allocation: two 64-bit caches in front of a byte provider.
#pragma once

#include <cstdint>

namespace util {

class BitReaderCore {
public:
    class ByteStreamProvider {
    public:
        virtual ~ByteStreamProvider() = default;
        // Hands out up to maxBytes next bytes (which count as consumed); returns how many.
        virtual int read(int maxBytes, const uint8_t** out) = 0;
    };

    explicit BitReaderCore(ByteStreamProvider* provider) : provider_(provider) {}

    bool readBits(uint32_t n, uint64_t& out);
    bool skipBits(uint64_t n);
    uint64_t position() const { return position_; }

private:
    bool refill(uint32_t need);
    void moveSpareIntoCache();
    bool skipInsideCaches(uint64_t n);

    ByteStreamProvider* provider_;
    uint64_t position_ = 0;
    uint32_t cachedBits_ = 0;
    uint64_t cache_ = 0;
    uint32_t spareBits_ = 0;
    uint64_t spare_ = 0;
};

class BitReader final : public BitReaderCore::ByteStreamProvider {
public:
    BitReader(const uint8_t* data, uint32_t size)
        : size_(size), current_(data), remaining_(size), core_(this) {}
    BitReader(const BitReader&) = delete;
    BitReader& operator=(const BitReader&) = delete;

    int read(int maxBytes, const uint8_t** out) override;

    bool readBits(uint32_t n, uint64_t& out) { return core_.readBits(n, out); }
    bool skipBits(uint64_t n) { return core_.skipBits(n); }
    uint64_t position() const { return core_.position(); }
    uint32_t size() const { return size_; }

private:
    uint32_t size_;
    const uint8_t* current_;
    uint32_t remaining_;
    BitReaderCore core_;
};

}  // namespace util
