// MKV: head, cluster scan and the rebuilt file over arbitrary damaged bytes, with a valid sample.
#include "FuzzSupport.h"
#include "MkvAdvanceRepair.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::wstring sample = fuzz::MediaFile("sample.mkv");
    fuzz::RepairAndWrite<MkvAdvanceRepair>(fuzz::WriteInput("damaged.mkv", data, size), sample);
    return 0;
}
