// MTS: sync-run scan and range copy over arbitrary damaged bytes, with a valid sample.
#include "FuzzSupport.h"
#include "MtsAdvanceRepair.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::wstring sample = fuzz::MediaFile("sample.mts");
    fuzz::RepairAndWrite<MtsAdvanceRepair>(fuzz::WriteInput("damaged.mts", data, size), sample);
    return 0;
}
