// MKV: a sample's head (EBML header, Info, Tracks) over arbitrary bytes; the damaged file has lost its own head, so the sample's is parsed and then used for the scan and the rebuilt file.
#include "FuzzSupport.h"
#include "MkvAdvanceRepair.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::wstring damaged = fuzz::MediaFile("headless.mkv");
    fuzz::RepairAndWrite<MkvAdvanceRepair>(damaged, fuzz::WriteInput("sample.mkv", data, size));
    return 0;
}
