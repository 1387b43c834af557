// AVI: the sample's header walk (hdrl, strl, movi, idx1) over arbitrary sample bytes.
#include "FuzzSupport.h"
#include "AviAdvanceRepair.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::wstring damaged = fuzz::MediaFile("sample.avi");
    fuzz::RepairAndWrite<AviAdvanceRepair>(damaged, fuzz::WriteInput("sample.avi", data, size));
    return 0;
}
