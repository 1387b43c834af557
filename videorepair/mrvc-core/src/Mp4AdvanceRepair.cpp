#include "Mp4AdvanceRepair.h"

namespace {
const char* const kLogSource = "videorepair/mrvc-core/src/Mp4AdvanceRepair";
}

Mp4AdvanceRepair::Mp4AdvanceRepair(std::wstring formatName)
    : AdvanceRepairBase("Mp4AdvanceRepair", kLogSource), formatName_(std::move(formatName)) {}

int Mp4AdvanceRepair::Repair() {
    LogEntry("Repair");
    ENGINE_LOG(kLogError, "MP4-family files are repaired on the thorough road only", "");
    return -1;
}

std::wstring Mp4AdvanceRepair::GetRepairedVideo(std::wstring& result, const std::wstring&, const std::wstring&, int) {
    result.clear();
    return result;
}
