// Reads a file at arbitrary offsets through one large cache, so that engines can
// ask for small blocks (as their formats dictate) while the operating system is
// asked for big pieces. Memory is the cache, never the file. Sectors the device
// cannot read come as zeros (see SectorRescue), and so does everything behind
// the point where the device went away.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "io/ReadFaults.h"
#include "io/SectorRescue.h"

class FileReader {
public:
    static constexpr size_t kDefaultCacheBytes = 8u << 20;

    explicit FileReader(size_t cacheBytes = kDefaultCacheBytes);
    ~FileReader();
    FileReader(const FileReader&) = delete;
    FileReader& operator=(const FileReader&) = delete;

    bool Open(const std::wstring& path);  // read-only, binary, shared
    void Close();
    bool IsOpen() const { return fd_ >= 0; }
    int64_t Size() const { return size_; }
    // What could not be read so far (shared by every reader of a watched path).
    const ReadFaults& Faults() const { return *faults_; }

    // Up to n bytes from offset (fewer at the end of the file, 0 past it). The
    // pointer stays valid until the next call. n is capped at MaxView().
    const uint8_t* View(int64_t offset, size_t n, size_t& available);
    size_t MaxView() const { return capacity_ / 2; }

    // Copies up to n bytes from offset into dst; returns the count, -1 on error.
    int64_t ReadAt(int64_t offset, void* dst, size_t n);

    // For walkers that hop from header to header over payloads they do not look
    // at: a read that lands away from what is loaded loads only what it asks for
    // (at least kHopLoadBytes); reading on from there loads in full again. Only
    // which bytes are fetched changes.
    void SetHopping(bool on) { hopping_ = on; }
    static constexpr size_t kHopLoadBytes = 4u << 10;

private:
    bool Load(int64_t offset, size_t need);

    int fd_ = -1;
    int64_t size_ = 0;
    size_t capacity_;
    std::vector<uint8_t> cache_;
    int64_t cacheStart_ = 0;
    size_t cacheLength_ = 0;
    bool readError_ = false;
    bool hopping_ = false;
    std::shared_ptr<ReadFaults> faults_;
    std::unique_ptr<SectorRescue> rescue_;
};
