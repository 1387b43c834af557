#include <gtest/gtest.h>

#include <vector>

#include "util/BitReader.h"

using util::BitReader;

namespace {

// Reference: bit i of the block, most significant first.
uint64_t BitsAt(const std::vector<uint8_t>& data, uint64_t start, uint32_t n) {
    uint64_t v = 0;
    for (uint32_t i = 0; i < n; ++i) {
        uint64_t bit = start + i;
        v = (v << 1) | ((data[bit / 8] >> (7 - bit % 8)) & 1u);
    }
    return v;
}

std::vector<uint8_t> Pattern(size_t n) {
    std::vector<uint8_t> d(n);
    uint32_t x = 0x12345678;
    for (auto& b : d) {
        x = x * 1103515245u + 12345u;
        b = uint8_t(x >> 24);
    }
    return d;
}

}  // namespace

TEST(BitReader, ZeroBitsSucceedWithoutConsuming) {
    std::vector<uint8_t> d = {0xAB};
    BitReader r(d.data(), 1);
    uint64_t v = 99;
    EXPECT_TRUE(r.readBits(0, v));
    EXPECT_EQ(v, 0u);
    EXPECT_TRUE(r.readBits(8, v));
    EXPECT_EQ(v, 0xABu);
}

TEST(BitReader, SixtyFourBitsOnAFullCache) {
    auto d = Pattern(24);
    BitReader r(d.data(), uint32_t(d.size()));
    uint64_t v = 0;
    ASSERT_TRUE(r.readBits(64, v));
    EXPECT_EQ(v, BitsAt(d, 0, 64));
    ASSERT_TRUE(r.readBits(3, v));
    EXPECT_EQ(v, BitsAt(d, 64, 3));
    ASSERT_TRUE(r.readBits(64, v));  // straddles the provider's 8-byte pieces
    EXPECT_EQ(v, BitsAt(d, 67, 64));
    EXPECT_EQ(r.position(), 131u);
}

TEST(BitReader, MixedWidthsMatchTheReference) {
    auto d = Pattern(200);
    BitReader r(d.data(), uint32_t(d.size()));
    uint64_t pos = 0;
    for (uint32_t n : {1u, 7u, 13u, 64u, 33u, 5u, 63u, 2u, 64u, 64u, 17u, 40u}) {
        uint64_t v = 0;
        ASSERT_TRUE(r.readBits(n, v)) << n;
        EXPECT_EQ(v, BitsAt(d, pos, n)) << "width " << n << " at " << pos;
        pos += n;
    }
}

TEST(BitReader, ReadingPastTheEndFailsWithZero) {
    std::vector<uint8_t> d = {0xFF, 0xFF};
    BitReader r(d.data(), 2);
    uint64_t v = 7;
    ASSERT_TRUE(r.readBits(12, v));
    EXPECT_FALSE(r.readBits(8, v));
    EXPECT_EQ(v, 0u);
    EXPECT_FALSE(r.readBits(1, v));  // the failed read emptied the cache
}

TEST(BitReader, SkipsAcrossMoreThanSixtyFourBitsWithBothCachesFull) {
    auto d = Pattern(64);
    for (uint64_t skip : {65u, 100u, 128u, 130u, 200u, 333u}) {
        BitReader r(d.data(), uint32_t(d.size()));
        uint64_t v = 0;
        ASSERT_TRUE(r.readBits(4, v));  // loads the first cache and leaves bits in the second
        ASSERT_TRUE(r.skipBits(skip)) << skip;
        ASSERT_TRUE(r.readBits(16, v));
        EXPECT_EQ(v, BitsAt(d, 4 + skip, 16)) << "skip " << skip;
        EXPECT_EQ(r.position(), 4 + skip + 16);
    }
}

TEST(BitReader, SkipPastTheEndFails) {
    std::vector<uint8_t> d(4, 0);
    BitReader r(d.data(), 4);
    EXPECT_FALSE(r.skipBits(40));
    BitReader r2(d.data(), 4);
    EXPECT_TRUE(r2.skipBits(32));
    uint64_t v = 0;
    EXPECT_FALSE(r2.readBits(1, v));
}
