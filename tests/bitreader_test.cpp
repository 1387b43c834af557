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

// From a fresh reader each: zero bits consume nothing; 64 bits on a full cache,
// then 64 straddling the provider's 8-byte pieces; widths of every kind.
TEST(BitReader, ReadsOfEveryWidthMatchTheReference) {
    const auto d = Pattern(200);
    for (const std::vector<uint32_t>& widths : {std::vector<uint32_t>{0, 8}, std::vector<uint32_t>{64, 3, 64},
                                                std::vector<uint32_t>{1, 7, 13, 64, 33, 5, 63, 2, 64, 64, 17, 40}}) {
        BitReader r(d.data(), uint32_t(d.size()));
        uint64_t pos = 0;
        for (uint32_t n : widths) {
            uint64_t v = 99;
            ASSERT_TRUE(r.readBits(n, v)) << n;
            EXPECT_EQ(v, BitsAt(d, pos, n)) << "width " << n << " at " << pos;
            pos += n;
            EXPECT_EQ(r.position(), pos);
        }
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
