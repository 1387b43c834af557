#include "util/BitReader.h"

namespace util {

int BitReader::read(int maxBytes, const uint8_t** out) {
    uint32_t n = maxBytes <= 0 ? 0 : (uint32_t(maxBytes) < remaining_ ? uint32_t(maxBytes) : remaining_);
    *out = current_;
    current_ += n;
    remaining_ -= n;
    return int(n);
}

void BitReaderCore::moveSpareIntoCache() {
    if (cachedBits_ >= 64 || spareBits_ == 0) return;
    uint32_t room = 64 - cachedBits_;
    uint32_t take = spareBits_ < room ? spareBits_ : room;
    cache_ |= spare_ >> cachedBits_;  // spare is left-aligned: its top bits go right below the cached ones
    if (cachedBits_ + take < 64) cache_ &= ~(~0ULL >> (cachedBits_ + take));
    cachedBits_ += take;
    spare_ = take >= 64 ? 0 : spare_ << take;
    spareBits_ -= take;
}

bool BitReaderCore::refill(uint32_t need) {
    moveSpareIntoCache();
    if (cachedBits_ >= need) return true;
    const uint8_t* bytes = nullptr;
    int got = provider_->read(8, &bytes);
    if (got <= 0) return false;
    uint64_t loaded = 0;
    for (int i = 0; i < got; ++i) loaded |= uint64_t(bytes[i]) << (56 - 8 * i);
    // The spare cache is empty here: step one moved all it held into a cache with room.
    spare_ = loaded;
    spareBits_ = uint32_t(got) * 8;
    moveSpareIntoCache();
    return cachedBits_ >= need;
}

bool BitReaderCore::readBits(uint32_t n, uint64_t& out) {
    if (n == 0) {
        out = 0;
        return true;
    }
    if (n > 64) n = 64;
    if (n > cachedBits_ && !refill(n)) {
        cachedBits_ = 0;
        cache_ = 0;
        out = 0;
        return false;
    }
    position_ += n;
    if (n == 64) {
        out = cache_;
        cache_ = 0;
        cachedBits_ = 0;
        return true;
    }
    out = cache_ >> (64 - n);
    cache_ <<= n;
    cachedBits_ -= n;
    return true;
}

bool BitReaderCore::skipInsideCaches(uint64_t n) {
    while (n >= 64) {
        if (cachedBits_ < 64 && !refill(64)) return false;
        position_ += 64;
        cache_ = 0;
        cachedBits_ = 0;
        n -= 64;
    }
    uint64_t discarded = 0;
    return readBits(uint32_t(n), discarded);
}

bool BitReaderCore::skipBits(uint64_t n) {
    if (n <= uint64_t(cachedBits_) + spareBits_) return skipInsideCaches(n);
    position_ += uint64_t(cachedBits_) + spareBits_;
    uint64_t rest = n - cachedBits_ - spareBits_;
    cache_ = spare_ = 0;
    cachedBits_ = spareBits_ = 0;
    uint64_t wholeBytes = rest / 8;
    const uint8_t* ignored = nullptr;
    uint64_t received = 0;
    // The provider takes an int: very long skips are asked for in several calls.
    while (received < wholeBytes) {
        uint64_t ask = wholeBytes - received;
        int got = provider_->read(ask > 0x40000000 ? 0x40000000 : int(ask), &ignored);
        if (got <= 0) break;
        received += uint64_t(got);
    }
    position_ += 8 * received;
    if (received < wholeBytes) return false;
    return skipInsideCaches(rest % 8);
}

}  // namespace util
