#include "io/FileReader.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "platform/Platform.h"

FileReader::FileReader(size_t cacheBytes)
    : capacity_(std::max<size_t>(cacheBytes, 8192)), faults_(std::make_shared<ReadFaults>()) {}

FileReader::~FileReader() { Close(); }

bool FileReader::Open(const std::wstring& path) {
    Close();
    fd_ = platform::OpenForRead(path);
    if (fd_ < 0) return false;
    size_ = platform::Seek(fd_, 0, SEEK_END);
    if (size_ < 0) size_ = 0;
    platform::Seek(fd_, 0, SEEK_SET);
    faults_ = ReadFaultWatch::For(path);
    rescue_ = std::make_unique<SectorRescue>(faults_, size_);
    return true;
}

void FileReader::Close() {
    if (fd_ >= 0) platform::Close(fd_);
    fd_ = -1;
    size_ = 0;
    cacheStart_ = 0;
    cacheLength_ = 0;
    readError_ = false;
    rescue_.reset();
    std::vector<uint8_t>().swap(cache_);
}

// Makes [offset, offset + need) resident if the file has it, keeping an overlap
// with what is already loaded so that forward scans never re-read.
bool FileReader::Load(int64_t offset, size_t need) {
    if (cache_.size() != capacity_) cache_.resize(capacity_);
    size_t kept = 0;
    int64_t cacheEnd = cacheStart_ + int64_t(cacheLength_);
    // A hop lands away from what is loaded; reading on from it loads in full.
    const bool hop = hopping_ && cacheLength_ > 0 && (offset > cacheEnd || offset < cacheStart_);
    const size_t fill = hop ? std::min(capacity_, std::max(need, kHopLoadBytes)) : capacity_;
    if (offset >= cacheStart_ && offset < cacheEnd) {
        kept = size_t(cacheEnd - offset);
        std::memmove(cache_.data(), cache_.data() + (offset - cacheStart_), kept);
    }
    cacheStart_ = offset;
    cacheLength_ = kept;
    int64_t at = offset + int64_t(kept);
    if (platform::Seek(fd_, at, SEEK_SET) < 0) return false;
    while (cacheLength_ < fill) {
        uint32_t want = uint32_t(std::min<size_t>(fill - cacheLength_, 1u << 30));
        // Sectors known to be bad are not asked for again (nor anything once the
        // device is gone): the read stops short of them and they come as zeros.
        const int64_t bad = faults_->NextUnreadable(at);
        if (bad > at) want = uint32_t(std::min<int64_t>(want, bad - at));
        int64_t got = bad == at ? -1 : platform::Read(fd_, cache_.data() + cacheLength_, want);
        if (got < 0) {
            // The device refused: take what it still gives, piece by piece.
            want = uint32_t(std::max<int64_t>(0, std::min<int64_t>(want, size_ - at)));
            got = int64_t(rescue_->Fill(fd_, at, cache_.data() + cacheLength_, want));
            readError_ = got == 0;
            if (got > 0 && platform::Seek(fd_, at + got, SEEK_SET) < 0) got = 0;
        }
        if (got <= 0) break;
        cacheLength_ += size_t(got);
        at += got;
    }
    return true;
}

const uint8_t* FileReader::View(int64_t offset, size_t n, size_t& available) {
    available = 0;
    if (fd_ < 0 || offset < 0) return nullptr;
    n = std::min(n, MaxView());
    int64_t cacheEnd = cacheStart_ + int64_t(cacheLength_);
    // Resident: the whole view is loaded, or the loaded part already reaches the end of the file.
    bool resident = offset >= cacheStart_ && offset < cacheEnd &&
                    (offset + int64_t(n) <= cacheEnd || cacheEnd >= size_);
    if (!resident) {
        if (!Load(offset, n)) return nullptr;
        cacheEnd = cacheStart_ + int64_t(cacheLength_);
    }
    if (offset < cacheStart_ || offset >= cacheEnd) return nullptr;
    available = std::min(n, size_t(cacheEnd - offset));
    return cache_.data() + (offset - cacheStart_);
}

int64_t FileReader::ReadAt(int64_t offset, void* dst, size_t n) {
    if (fd_ < 0 || offset < 0) return -1;
    auto* out = static_cast<uint8_t*>(dst);
    size_t done = 0;
    while (done < n) {
        size_t got = 0;
        const uint8_t* p = View(offset + int64_t(done), n - done, got);
        if (p == nullptr || got == 0) break;
        std::memcpy(out + done, p, got);
        done += got;
    }
    if (done == 0 && readError_) return -1;
    return int64_t(done);
}
