// WMV: the ASF header parser (File Properties, Stream Properties, Data objects) and the sample's packet count over arbitrary sample bytes.
#include "FuzzSupport.h"
#include "WmvAdvanceRepair.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::wstring damaged = fuzz::MediaFile("small.wmv");
    fuzz::RepairAndWrite<WmvAdvanceRepair>(damaged, fuzz::WriteInput("sample.wmv", data, size), false);
    return 0;
}
