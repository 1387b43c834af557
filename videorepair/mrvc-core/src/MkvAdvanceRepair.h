// Matroska/WebM repair: takes the head (EBML header, Info, Tracks) from the
// damaged file when it survives, else from the sample; keeps every Cluster of
// the damaged file whose children parse, cutting those that run into damaged
// bytes; writes them behind the head with a new Duration and rebuilt Cues.
#pragma once

#include <memory>
#include <string>

#include "AdvanceRepairBase.h"
#include "MkvClusterScanner.h"
#include "MkvHead.h"
#include "io/FileReader.h"

class MkvAdvanceRepair final : public AdvanceRepairBase {
public:
    MkvAdvanceRepair();
    ~MkvAdvanceRepair() override;

    std::wstring GetFormatName() override { return L"mkv"; }
    int Repair() override;
    using AdvanceRepairBase::GetRepairedVideo;
    std::wstring GetRepairedVideo(std::wstring& result, const std::wstring& first, const std::wstring& second,
                                  int mode) override;
    void Release() override;

protected:
    bool CarvesInProcess() const override { return true; }

private:
    void ReadMetadata();
    bool ChooseHead();
    void ScanClusters();
    bool WriteOutput(const std::wstring& path);
    void CloseFiles();

    FileReader damaged_;
    FileReader follower_;  // a second view of the damaged file for the cluster parser
    MkvHead head_;
    std::unique_ptr<MkvClusterScanner> scanner_;
    bool repaired_ = false;
};
