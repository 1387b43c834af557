// The MP4 family (MP4, MOV, 3GP, ...) on the thorough road only. These files are
// never repaired by the compatible road: Repair answers -1, and the manager
// reaches this engine for the thorough option alone.
#pragma once

#include <string>

#include "AdvanceRepairBase.h"

class Mp4AdvanceRepair : public AdvanceRepairBase {
public:
    // formatName: the lower-case extension ("mp4", "mov", "3gp", ...), which
    // chooses the muxer of the repaired file.
    explicit Mp4AdvanceRepair(std::wstring formatName);

    std::wstring GetFormatName() override { return formatName_; }
    int Repair() override;
    using AdvanceRepairBase::GetRepairedVideo;
    std::wstring GetRepairedVideo(std::wstring& result, const std::wstring& first, const std::wstring& second,
                                  int mode) override;
    void Release() override {}

private:
    std::wstring formatName_;
};
