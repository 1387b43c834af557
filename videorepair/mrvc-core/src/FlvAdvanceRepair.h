// Repairs an FLV file by carving runs of tags whose size words agree, and writing
// them, byte for byte and in file order, behind the 13-byte head of a healthy
// sample from the same device. Tags and timestamps are left as they are.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "AdvanceRepairBase.h"
#include "io/FileWriter.h"
#include "io/ScanReader.h"

// A run of consecutive valid tags: [start, end), end just past the last tag's
// previous-tag-size word.
struct FlvRun {
    int64_t start;
    int64_t end;
};

class FlvAdvanceRepair : public AdvanceRepairBase {
public:
    FlvAdvanceRepair();
    ~FlvAdvanceRepair() override;

    std::wstring GetFormatName() override { return L"flv"; }
    int Repair() override;
    using AdvanceRepairBase::GetRepairedVideo;
    std::wstring GetRepairedVideo(std::wstring& result, const std::wstring& first,
                                  const std::wstring& second, int mode) override;
    void Release() override;

    const std::vector<FlvRun>& Runs() const { return runs_; }

protected:
    bool CarvesInProcess() const override { return true; }

private:
    void ScanForRuns();
    void ScanBlock(uint8_t* block, int64_t& blockOffset);
    void Realign(uint8_t* block, int64_t& blockOffset, size_t from);
    bool SizeWordMatches(ScanReader::Window& window, int64_t tagOffset, uint32_t dataSize);
    bool TagAt(int64_t offset, uint32_t& dataSize);
    int64_t WalkRun(int64_t start);
    bool CopyRuns(FileWriter& out);

    ScanReader damaged_;
    ScanReader farWords_;  // size words beyond the scan window, read without moving it
    ScanReader sampleFile_;
    int64_t damagedSize_ = 0;
    std::vector<FlvRun> runs_;
};
