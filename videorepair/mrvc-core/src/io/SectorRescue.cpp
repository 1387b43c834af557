#include "io/SectorRescue.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "platform/Platform.h"

namespace {

// The bytes at [at, at + n): n, fewer at the end of the file, -1 on a read error.
int64_t ReadExactly(int fd, int64_t at, uint8_t* dst, size_t n) {
    if (platform::Seek(fd, at, SEEK_SET) < 0) return -1;
    size_t done = 0;
    while (done < n) {
        int64_t got = platform::Read(fd, dst + done, uint32_t(n - done));
        if (got < 0) return -1;
        if (got == 0) break;
        done += size_t(got);
    }
    return int64_t(done);
}

}  // namespace

// Pieces end on their own size's boundary, so sectors are the device's sectors.
size_t SectorRescue::PieceAt(int64_t at, size_t left) const {
    size_t unit = at < sectorsUntil_ ? kSectorBytes : kPieceBytes;
    return std::min(unit - size_t(at % int64_t(unit)), left);
}

size_t SectorRescue::Zero(int64_t at, uint8_t* dst, size_t n, bool record) {
    std::memset(dst, 0, n);
    if (record) faults_->AddUnreadable(at, int64_t(n));
    return n;
}

size_t SectorRescue::SkipAhead(int64_t at, uint8_t* dst, size_t left) {
    size_t n = size_t(std::min<int64_t>(skip_, int64_t(left)));
    skip_ *= 2;
    badRun_ = kLongRun - 1;  // the sector after the skip is a probe
    return Zero(at, dst, n, true);
}

void SectorRescue::Failed(int64_t at, size_t piece) {
    if (platform::LastIoFailure() == platform::IoFailure::kDeviceGone) return faults_->DeviceGoneAt(at, fileSize_);
    if (piece > kSectorBytes) {
        sectorsUntil_ = at + int64_t(piece);
        return;
    }
    faults_->AddUnreadable(at, int64_t(piece));
    if (++badRun_ >= kLongRun && ++failedProbes_ > kGoneAfterProbes) faults_->DeviceGoneAt(at, fileSize_);
}

size_t SectorRescue::Fill(int fd, int64_t at, uint8_t* dst, size_t n) {
    size_t done = 0;
    while (done < n) {
        const int64_t position = at + int64_t(done);
        const size_t left = n - done;
        if (position >= fileSize_) break;
        int64_t knownEnd = 0;
        if (faults_->KnownUnreadable(position, knownEnd)) {
            done += Zero(position, dst + done, size_t(std::min<int64_t>(knownEnd - position, int64_t(left))), false);
            continue;
        }
        if (badRun_ >= kLongRun) {
            done += SkipAhead(position, dst + done, left);
            continue;
        }
        size_t piece = PieceAt(position, left);
        int64_t got = ReadExactly(fd, position, dst + done, piece);
        if (got < 0) {
            Failed(position, piece);
            continue;
        }
        badRun_ = 0;  // the device answers again
        failedProbes_ = 0;
        skip_ = kFirstSkip;
        done += size_t(got);
        if (size_t(got) < piece) break;  // the file ends here
    }
    return done;
}
