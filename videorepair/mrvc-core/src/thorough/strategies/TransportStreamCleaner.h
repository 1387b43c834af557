// A damaged transport stream (188-, 192- or 204-byte packets) read forward as a
// clean stream of 188-byte packets: prefixes and parity removed, garbage, holes
// and cut packets stepped over, impossible packets dropped, and the sample's
// PAT and PMT put in front when the damage took the stream's own.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "io/PositionedReader.h"
#include "thorough/ByteSource.h"
#include "thorough/ViewMap.h"
#include "thorough/strategies/TsProgramTables.h"

class RepairLog;

namespace thorough {

class TransportStreamCleaner : public ByteSource {
public:
    static constexpr size_t kWindowBytes = 1u << 20;

    explicit TransportStreamCleaner(RepairLog* log = nullptr, size_t windowBytes = kWindowBytes);

    // False when the damaged file does not open or holds no packet run at all.
    // The sample may be empty or unusable; its tables are then not offered.
    bool Open(const std::wstring& damagedPath, const std::wstring& samplePath);

    int64_t Read(uint8_t* buffer, size_t size) override;
    int64_t Consumed() const override { return cursor_ < reader_.Size() ? cursor_ : reader_.Size(); }
    int64_t Skipped() const override { return skipped_; }

    // Stored packet size found first in the damaged file and in the sample; 0: none.
    int PacketSize() const { return firstPacketSize_; }
    int SamplePacketSize() const { return tables_.PacketSize(); }
    bool InjectedTables() const { return injected_; }
    bool ChangedAnything() const override { return skipped_ > 0 || injected_; }
    int64_t FileOffset(int64_t viewOffset) const override { return map_.FileOffset(viewOffset); }
    std::vector<RecordRange> PutIn() const override { return putIn_; }
    std::vector<RecordRange> SkippedRanges() const override { return skips_.Ranges(); }

private:
    bool Produce();
    bool FindStream();
    bool WindowAtCursor();
    bool ConfirmedAtCursor() const;
    void Emit(const uint8_t* packet);
    void Watch(const uint8_t* packet);
    void Inject();
    void Append(const uint8_t* packet);
    void Finish();

    RepairLog* log_;
    PositionedReader reader_;
    TsProgramTables tables_;
    const uint8_t* window_ = nullptr;  // bytes at the cursor
    size_t windowLength_ = 0;
    bool windowAtEnd_ = false;         // the window ends with the file
    bool readError_ = false;

    int64_t cursor_ = 0;  // next sync byte expected, or where the search goes on
    int packetSize_ = 0;  // stride of the stream being followed
    int firstPacketSize_ = 0;
    bool locked_ = false;
    bool finished_ = false;
    int64_t covered_ = 0;  // end of the last emitted packet in the damaged file
    int64_t skipped_ = 0;
    int64_t resyncs_ = 0;

    bool sawPat_ = false;
    bool sawPmt_ = false;
    bool headerSettled_ = false;  // decided at the first PES start, once
    bool injected_ = false;

    ViewMap map_;
    SkipList skips_;
    std::vector<RecordRange> putIn_;
    std::vector<uint8_t> pending_;
    size_t pendingAt_ = 0;
};

}  // namespace thorough
