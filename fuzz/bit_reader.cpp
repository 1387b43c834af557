// The bit reader against a plain reference: the first byte gives how many
// operation bytes follow, the rest is the data. Each operation reads 0..64 bits
// or skips some; results must match bit for bit until the first failure.
#include <cstdlib>

#include "FuzzSupport.h"
#include "util/BitReader.h"

namespace {

uint64_t ReferenceBits(const uint8_t* data, uint64_t position, uint32_t n) {
    uint64_t value = 0;
    for (uint32_t i = 0; i < n; ++i) {
        uint64_t bit = position + i;
        value = (value << 1) | ((data[bit / 8] >> (7 - bit % 8)) & 1);
    }
    return value;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    const size_t opCount = std::min<size_t>(data[0], size - 1);
    const uint8_t* ops = data + 1;
    const uint8_t* bytes = ops + opCount;
    const uint32_t byteCount = uint32_t(size - 1 - opCount);
    const uint64_t totalBits = uint64_t(byteCount) * 8;
    util::BitReader reader(bytes, byteCount);
    uint64_t position = 0;
    for (size_t i = 0; i < opCount; ++i) {
        const bool skip = (ops[i] & 0x80) != 0;
        const uint64_t n = skip ? uint64_t(ops[i] & 0x7F) * 13 : ops[i] % 65;
        const bool fits = position + n <= totalBits;
        bool ok = false;
        if (skip) {
            ok = reader.skipBits(n);
        } else {
            uint64_t value = 0;
            ok = reader.readBits(uint32_t(n), value);
            if (ok && fits && value != ReferenceBits(bytes, position, uint32_t(n))) std::abort();
        }
        if (ok != fits) std::abort();
        if (!ok) break;
        position += n;
        if (reader.position() != position) std::abort();
    }
    return 0;
}
