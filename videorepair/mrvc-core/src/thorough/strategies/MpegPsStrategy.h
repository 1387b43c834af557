// MPEG program streams (MPEG-1 system streams, MPEG-2 program streams, VOB):
// the demuxer reads a cleaned stream of whole units, and the result is written
// in the pack form the file had.
#pragma once

#include "thorough/strategies/ContainerStrategy.h"
#include "thorough/strategies/ProgramStreamUnits.h"

namespace thorough {

class MpegPsStrategy : public ContainerStrategy {
public:
    const char* Name() const override { return "mpeg"; }
    std::unique_ptr<ByteSource> Clean(const std::wstring& damagedPath, const std::wstring& samplePath,
                                      RepairLog* log) override;
    std::string CleanedFormat() const override { return "mpeg"; }
    MuxerChoice Muxer() const override;

private:
    ps::PackForm form_ = ps::PackForm::kUnknown;
};

}  // namespace thorough
