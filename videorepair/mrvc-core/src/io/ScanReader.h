// Block reads for scanning engines. The formats dictate small blocks (1 KiB and
// so on) and look-ups a little ahead of the block (size words, chunk heads);
// this reader serves them from one FileReader cache that is kept filled `reach`
// bytes ahead, so the operating system sees a few big sequential reads while
// every block holds exactly the bytes a plain read at that offset would give.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "io/FileReader.h"

class ScanReader {
public:
    explicit ScanReader(size_t reach) : reach_(reach), file_(std::make_unique<FileReader>(kSmallCache)) {}

    // The cache holds three reaches (one kept ahead, two read per refill), or
    // twice the file when that is less.
    bool Open(const std::wstring& path) {
        file_ = std::make_unique<FileReader>(kSmallCache);
        if (!file_->Open(path)) return false;
        const size_t wanted = size_t(std::min<int64_t>(int64_t(reach_) * 3, std::max<int64_t>(2 * file_->Size(), kSmallCache)));
        if (wanted == kSmallCache) return true;
        file_ = std::make_unique<FileReader>(wanted);
        return file_->Open(path);
    }
    void Close() { file_->Close(); }
    bool IsOpen() const { return file_->IsOpen(); }
    int64_t Size() const { return file_->Size(); }

    // Makes [offset, offset + reach) resident (as far as the file goes), so that
    // the look-ups that follow come from memory.
    void KeepAhead(int64_t offset) {
        size_t got = 0;
        file_->View(std::max<int64_t>(offset, 0), reach_, got);
    }

    // Resident bytes from a start offset: valid until the next call on the reader.
    struct Window {
        const uint8_t* data = nullptr;
        int64_t start = 0;
        size_t length = 0;
        bool Holds(int64_t at, size_t n) const {
            return data != nullptr && at >= start && at + int64_t(n) <= start + int64_t(length);
        }
        int64_t End() const { return start + int64_t(length); }
    };
    // Up to `reach` bytes from offset, loading them when needed.
    Window WindowAt(int64_t offset) {
        Window w;
        w.start = offset;
        w.data = file_->View(offset, reach_, w.length);
        return w;
    }

    // Fills dst[0, n) with the file's bytes at offset; bytes the file does not
    // have (before its start or past its end) are zero. Returns the number of
    // file bytes copied, or -1 on a read error.
    int64_t ReadBlock(int64_t offset, uint8_t* dst, size_t n) {
        std::memset(dst, 0, n);
        size_t skip = 0;
        if (offset < 0) {
            if (int64_t(n) <= -offset) return 0;
            skip = size_t(-offset);
            offset = 0;
        }
        int64_t got = file_->ReadAt(offset, dst + skip, n - skip);
        return got;
    }

    bool ReadU32LE(int64_t offset, uint32_t& value) {
        uint8_t b[4];
        if (ReadBlock(offset, b, 4) != 4) return false;
        value = uint32_t(b[0]) | uint32_t(b[1]) << 8 | uint32_t(b[2]) << 16 | uint32_t(b[3]) << 24;
        return true;
    }

    bool ReadU32BE(int64_t offset, uint32_t& value) {
        uint8_t b[4];
        if (ReadBlock(offset, b, 4) != 4) return false;
        value = uint32_t(b[0]) << 24 | uint32_t(b[1]) << 16 | uint32_t(b[2]) << 8 | uint32_t(b[3]);
        return true;
    }

    // A view of up to n bytes at offset (n is capped by the cache), valid until
    // the next call; null with available = 0 when nothing is there.
    const uint8_t* View(int64_t offset, size_t n, size_t& available) {
        return file_->View(offset, n, available);
    }

private:
    static constexpr size_t kSmallCache = 65536;

    size_t reach_;
    std::unique_ptr<FileReader> file_;
};
