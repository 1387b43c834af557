// WMV: packet search and payload carving over arbitrary damaged bytes, with a valid sample. The output is made by ffmpeg, so it is not written here.
#include "FuzzSupport.h"
#include "WmvAdvanceRepair.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::wstring sample = fuzz::MediaFile("sample.wmv");
    fuzz::RepairAndWrite<WmvAdvanceRepair>(fuzz::WriteInput("damaged.wmv", data, size), sample, false);
    return 0;
}
