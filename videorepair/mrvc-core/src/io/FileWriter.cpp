#include "io/FileWriter.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "platform/Platform.h"

FileWriter::~FileWriter() { Close(); }

bool FileWriter::Create(const std::wstring& path) {
    Close();
    failure_ = platform::IoFailure::kNone;
    fd_ = platform::OpenForWrite(path);
    ok_ = true;
    if (fd_ < 0) Fail();
    written_ = 0;
    buffer_.clear();
    buffer_.reserve(kPieceBytes);
    return ok_;
}

void FileWriter::Fail() {
    if (ok_) failure_ = platform::LastIoFailure();
    ok_ = false;
}

bool FileWriter::Flush() {
    size_t done = 0;
    while (ok_ && done < buffer_.size()) {
        uint32_t piece = uint32_t(std::min(buffer_.size() - done, kPieceBytes));
        int64_t n = platform::Write(fd_, buffer_.data() + done, piece);
        if (n != int64_t(piece)) Fail();
        done += piece;
    }
    buffer_.clear();
    return ok_;
}

// Writes straight from the caller's memory, in pieces of at most 1 MiB: bulk copies
// (at least kDirectBytes) skip the buffer.
bool FileWriter::WriteDirect(const uint8_t* p, size_t n) {
    while (ok_ && n > 0) {
        uint32_t piece = uint32_t(std::min(n, kPieceBytes));
        if (platform::Write(fd_, p, piece) != int64_t(piece)) Fail();
        p += piece;
        n -= piece;
        written_ += int64_t(piece);
    }
    return ok_;
}

bool FileWriter::Write(const void* data, size_t n) {
    if (fd_ < 0 || !ok_) return false;
    const auto* p = static_cast<const uint8_t*>(data);
    if (n >= kDirectBytes) return Flush() && WriteDirect(p, n);
    while (n > 0) {
        size_t room = kPieceBytes - buffer_.size();
        size_t take = std::min(room, n);
        buffer_.insert(buffer_.end(), p, p + take);
        p += take;
        n -= take;
        written_ += int64_t(take);
        if (buffer_.size() == kPieceBytes && !Flush()) return false;
    }
    return true;
}

bool FileWriter::WriteU32LE(uint32_t v) {
    uint8_t b[4] = {uint8_t(v), uint8_t(v >> 8), uint8_t(v >> 16), uint8_t(v >> 24)};
    return Write(b, 4);
}

bool FileWriter::PatchAt(int64_t offset, const void* data, size_t n) {
    if (fd_ < 0 || !Flush()) return false;
    if (platform::Seek(fd_, offset, SEEK_SET) < 0 ||
        platform::Write(fd_, data, uint32_t(n)) != int64_t(n))
        Fail();
    platform::Seek(fd_, 0, SEEK_END);
    return ok_;
}

bool FileWriter::Close() {
    if (fd_ < 0) return ok_;
    Flush();
    if (platform::Close(fd_) != 0) Fail();
    fd_ = -1;
    return ok_;
}
