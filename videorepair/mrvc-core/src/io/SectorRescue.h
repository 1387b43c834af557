// What a reader does when the operating system refuses a read: the refused piece
// is read again in 64 KiB pieces, and a piece that fails sector by sector, so that
// what is lost shrinks to the sectors that are really bad. Those are handed on as
// zeros, which every scanner steps over as it steps over garbage. After a long run
// of bad sectors (a card pulled, a scratched disc) it skips ahead in growing steps
// as a rescue copier does, and once the device is gone it asks no more.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "io/ReadFaults.h"

class SectorRescue {
public:
    static constexpr size_t kSectorBytes = 512;
    static constexpr size_t kPieceBytes = 65536;
    static constexpr int kLongRun = 256;        // bad sectors in a row before skipping
    static constexpr int64_t kFirstSkip = 65536;
    static constexpr int kGoneAfterProbes = 12;  // failed probes in a row: the device is gone

    SectorRescue(std::shared_ptr<ReadFaults> faults, int64_t fileSize)
        : faults_(std::move(faults)), fileSize_(fileSize) {}

    // Fills dst with [at, at + n) of the file, bad sectors (and all behind a device
    // that went away) as zeros. Returns the bytes filled: n, or fewer where the file ends.
    size_t Fill(int fd, int64_t at, uint8_t* dst, size_t n);

private:
    size_t PieceAt(int64_t at, size_t left) const;
    size_t Zero(int64_t at, uint8_t* dst, size_t n, bool record);
    size_t SkipAhead(int64_t at, uint8_t* dst, size_t left);
    void Failed(int64_t at, size_t piece);

    std::shared_ptr<ReadFaults> faults_;
    int64_t fileSize_;
    int64_t sectorsUntil_ = 0;  // read sector by sector below this offset
    int badRun_ = 0;
    int failedProbes_ = 0;
    int64_t skip_ = kFirstSkip;
};
