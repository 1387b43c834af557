// The positioned reader shared by the byte-stepping engines: at every step its
// window holds min(remaining, window) bytes from the position, equal to the
// file's bytes, while the file itself is read in big pieces only.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <random>

#include "io/FileReader.h"
#include "io/PositionedReader.h"
#include "support/TestSupport.h"

using testing_support::TempDir;
using testing_support::Wide;

namespace {

std::string RandomBytes(size_t n, uint32_t seed) {
    std::mt19937 random(seed);
    std::string bytes(n, '\0');
    for (char& c : bytes) c = char(random());
    return bytes;
}

using testing_support::IoCounter;

int64_t ReadCallsSoFar() { return IoCounter("syscr:"); }
int64_t BytesReadSoFar() { return IoCounter("rchar:"); }

::testing::AssertionResult WindowMatches(PositionedReader& reader, const std::string& file, size_t window) {
    const int64_t position = reader.Position();
    const size_t expected = position < int64_t(file.size()) ? std::min(file.size() - size_t(position), window) : 0;
    bool filled = reader.Fill();
    if (filled != (expected > 0)) return ::testing::AssertionFailure() << "Fill() at " << position;
    if (!filled) return ::testing::AssertionSuccess();
    if (reader.Length() != expected)
        return ::testing::AssertionFailure() << "length " << reader.Length() << " at " << position;
    if (std::memcmp(reader.Data(), file.data() + position, expected) != 0)
        return ::testing::AssertionFailure() << "bytes differ at " << position;
    return ::testing::AssertionSuccess();
}

}  // namespace

TEST(PositionedReader, WindowEqualsFileBytesAtEveryStep) {
    TempDir dir("preader");
    const size_t window = 4096;
    const std::string file = RandomBytes(3 * window + 123, 7);
    testing_support::WriteFile(dir.file("f.bin"), file);
    PositionedReader reader(window);
    ASSERT_TRUE(reader.Open(dir.wfile("f.bin")));
    ASSERT_EQ(reader.Size(), int64_t(file.size()));

    // Byte by byte to the end, then past it.
    while (reader.Position() <= int64_t(file.size())) {
        ASSERT_TRUE(WindowMatches(reader, file, window));
        reader.Advance(1);
    }
    // Jumps of every kind, backwards seeks included.
    const int64_t steps[] = {0, 17, int64_t(window) - 1, 1, int64_t(window) + 3, 2 * int64_t(window), 5};
    reader.Seek(0);
    for (int64_t step : steps) {
        reader.Advance(step);
        ASSERT_TRUE(WindowMatches(reader, file, window));
    }
    for (int64_t back : {int64_t(file.size()) - 1, int64_t(10), int64_t(window) * 2 + 1, int64_t(0)}) {
        reader.Seek(back);
        ASSERT_TRUE(WindowMatches(reader, file, window));
    }
    // A direct read elsewhere moves the file cache; the next window is still right.
    reader.Seek(100);
    ASSERT_TRUE(WindowMatches(reader, file, window));
    char far[16];
    ASSERT_EQ(reader.File().ReadAt(int64_t(file.size()) - 16, far, sizeof far), 16);
    ASSERT_EQ(reader.File().ReadAt(5000, far, sizeof far), 16);
    reader.Advance(1);
    ASSERT_TRUE(WindowMatches(reader, file, window));
}

TEST(PositionedReader, FullWindowAcrossRefillsAndCheapByteSteps) {
    TempDir dir("preader4m");
    const size_t window = PositionedReader::kWindowBytes;
    const std::string file = RandomBytes(10 * 1024 * 1024 + 17, 11);
    testing_support::WriteFile(dir.file("f.bin"), file);
    PositionedReader reader;
    ASSERT_TRUE(reader.Open(dir.wfile("f.bin")));

    const int64_t readsBefore = ReadCallsSoFar();
    for (int64_t position = 0; position < int64_t(file.size()); ++position) {
        ASSERT_TRUE(reader.Fill()) << position;
        const size_t expected = std::min(file.size() - size_t(position), window);
        ASSERT_EQ(reader.Length(), expected) << position;
        ASSERT_EQ(reader.Data()[0], uint8_t(file[size_t(position)])) << position;
        ASSERT_EQ(reader.Data()[expected - 1], uint8_t(file[size_t(position) + expected - 1])) << position;
        if (position % 65536 == 0 || position % 1048576 > 1048570) {
            ASSERT_EQ(std::memcmp(reader.Data(), file.data() + position, expected), 0) << position;
        }
        reader.Advance(1);
    }
    const int64_t readsAfter = ReadCallsSoFar();
    EXPECT_FALSE(reader.Fill());
    if (readsBefore < 0) GTEST_SKIP() << "read calls are not counted on this system";
    // Ten million one-byte steps over a 10 MiB file: a handful of big reads, not one per step.
    EXPECT_LE(readsAfter - readsBefore, 16);
}

TEST(PositionedReader, EmptyAndMissingFiles) {
    TempDir dir("preader0");
    testing_support::WriteFile(dir.file("empty.bin"), "");
    PositionedReader reader;
    ASSERT_TRUE(reader.Open(dir.wfile("empty.bin")));
    EXPECT_FALSE(reader.Fill());
    EXPECT_EQ(reader.Remaining(), 0);
    EXPECT_FALSE(reader.Open(dir.wfile("missing.bin")));
    EXPECT_FALSE(reader.Fill());
}

// A walker hopping from header to header: with hopping on, the same bytes come
// back for every read (hops, runs read on, steps back, the end of the file),
// while what is fetched from the file shrinks to about what was asked for.
TEST(FileReaderHopping, SameBytesFarLessFetched) {
    TempDir dir("hopping");
    const std::string file = RandomBytes(16u << 20, 11);
    std::ofstream(dir.file("f"), std::ios::binary) << file;
    struct Read {
        int64_t offset;
        size_t size;
    };
    std::vector<Read> reads;
    for (int64_t at = 0; at < int64_t(file.size()); at += 60000) reads.push_back({at, 12});  // headers
    for (int64_t at = 1000; at < 300000; at += 5000) reads.push_back({at, 5000});            // read on
    reads.push_back({int64_t(file.size()) - 5, 64});                                          // past the end
    reads.push_back({123, 70000});                                                            // back, and long

    if (BytesReadSoFar() < 0) GTEST_SKIP() << "no /proc/self/io here";
    int64_t fetched[2] = {0, 0};
    for (bool hopping : {false, true}) {
        FileReader reader(1u << 20);
        ASSERT_TRUE(reader.Open(Wide(dir.file("f"))));
        reader.SetHopping(hopping);
        const int64_t before = BytesReadSoFar();
        std::string got;
        for (const Read& r : reads) {
            got.assign(r.size, '\0');
            int64_t n = reader.ReadAt(r.offset, got.data(), r.size);
            const size_t expected = std::min(r.size, file.size() - size_t(r.offset));
            ASSERT_EQ(n, int64_t(expected)) << r.offset;
            ASSERT_EQ(0, std::memcmp(got.data(), file.data() + r.offset, expected)) << r.offset;
        }
        fetched[hopping] = BytesReadSoFar() - before;
    }
    EXPECT_GE(fetched[0], int64_t(file.size()));
    EXPECT_LT(fetched[1], int64_t(file.size()) / 3) << "hopping fetched " << fetched[1];
}
