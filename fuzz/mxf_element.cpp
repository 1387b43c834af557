// MXF: essence element matching (SMPTE 379 keys, SMPTE 336 BER lengths) over
// arbitrary damaged bytes, stepping as the engine's scan does.
#include <algorithm>

#include "FuzzSupport.h"
#include "MxfAdvanceRepair.h"
#include "io/PositionedReader.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    int64_t position = 0;
    while (position < int64_t(size)) {
        const size_t window = std::min<size_t>(size - size_t(position), PositionedReader::kWindowBytes);
        MxfAdvanceRepair::SampleRecord record =
            MxfAdvanceRepair::MatchEssenceElement(data + position, window, position);
        if (record.found && record.packetLength == 0) std::abort();  // the scan would stand still
        position += record.found ? int64_t(record.packetLength) : 1;
    }
    return 0;
}
