// Sequential output through one buffer; bulk data passes in pieces of at most 1 MiB.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/Platform.h"

class FileWriter {
public:
    static constexpr size_t kPieceBytes = 1048576;
    static constexpr size_t kDirectBytes = 65536;  // writes this long bypass the buffer

    FileWriter() = default;
    ~FileWriter();
    FileWriter(const FileWriter&) = delete;
    FileWriter& operator=(const FileWriter&) = delete;

    bool Create(const std::wstring& path);  // write-only, created, binary, shared
    bool Write(const void* data, size_t n);
    bool WriteU32LE(uint32_t value);
    // Rewrites bytes already written (flushes first); the position stays at the end.
    bool PatchAt(int64_t offset, const void* data, size_t n);
    int64_t Written() const { return written_; }
    bool Ok() const { return ok_; }
    bool Flush();  // hands what is buffered to the file
    // Why the first failed open or write failed (kNone while all went well).
    platform::IoFailure Failure() const { return failure_; }
    bool Close();  // flushes; false if any write failed

private:
    bool WriteDirect(const uint8_t* p, size_t n);
    void Fail();

    int fd_ = -1;
    std::vector<uint8_t> buffer_;
    int64_t written_ = 0;
    bool ok_ = true;
    platform::IoFailure failure_ = platform::IoFailure::kNone;
};
