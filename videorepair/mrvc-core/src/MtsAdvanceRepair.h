// Repairs MPEG transport streams (188-byte TS, 192-byte M2TS/MTS, 204-byte
// packets, ISO/IEC 13818-1): learns the packet layout from a healthy sample of the
// same device, keeps every run of correctly synchronised packets in the damaged
// file and writes the runs one after another.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "AdvanceRepairBase.h"
#include "io/FileReader.h"

class MtsAdvanceRepair : public AdvanceRepairBase {
public:
    struct ByteRange {
        int64_t begin = 0;  // first kept byte (the packet prefix, if any)
        int64_t end = 0;    // one past the last kept byte
    };

    struct PacketLayout {
        int32_t packetSize = 192;
        int64_t syncOffset = 4;  // bytes before the 0x47 sync byte in each packet
    };

    MtsAdvanceRepair();
    ~MtsAdvanceRepair() override;

    std::wstring GetFormatName() override { return formatName_; }
    void SetVideoPath(const std::wstring& damagedPath, const std::wstring& samplePath) override;
    int Repair() override;
    using AdvanceRepairBase::GetRepairedVideo;
    std::wstring GetRepairedVideo(std::wstring& result, const std::wstring& first, const std::wstring& second,
                                  int mode) override;
    void Release() override;

    // The layout test on the first bytes of a sample (up to 1024): 188 when sync
    // bytes stand every 188 bytes from 0, 204 when they stand every 204 bytes
    // from 16 (and not every 192 from 4), 192 with a 4-byte prefix otherwise.
    static PacketLayout LayoutFromHead(const uint8_t* head, size_t length);

    const PacketLayout& Layout() const { return layout_; }
    const std::vector<ByteRange>& ValidRanges() const { return validRanges_; }

protected:
    bool CarvesInProcess() const override { return true; }

private:
    static constexpr int kScanPackets = 10;
    static constexpr int kMatchPackets = 5;
    static constexpr int kRunBlockPackets = 5140;

    bool ProbeSampleLayout();
    void ScanDamagedFile();
    int64_t FindSyncRun(const uint8_t* block, size_t count, int64_t blockPosition) const;
    int64_t CollectRun(int64_t syncPosition);

    std::wstring formatName_ = L"mts";
    PacketLayout layout_;
    FileReader damaged_;
    std::vector<ByteRange> validRanges_;
};
