// AVI: chunk scan, movi walk and the rebuilt file over arbitrary damaged bytes, with a valid sample.
#include "FuzzSupport.h"
#include "AviAdvanceRepair.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::wstring sample = fuzz::MediaFile("sample.avi");
    fuzz::RepairAndWrite<AviAdvanceRepair>(fuzz::WriteInput("damaged.avi", data, size), sample);
    return 0;
}
