// FLV: tag-run scan and copy over arbitrary damaged bytes, with a valid sample.
#include "FuzzSupport.h"
#include "FlvAdvanceRepair.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::wstring sample = fuzz::MediaFile("sample.flv");
    fuzz::RepairAndWrite<FlvAdvanceRepair>(fuzz::WriteInput("damaged.flv", data, size), sample);
    return 0;
}
