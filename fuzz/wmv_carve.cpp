// WMV: carving ASF data packets (payload parsing information, single and multiple
// payloads) from arbitrary bytes. The first four bytes choose the packet size and
// the wanted stream numbers; the rest is searched for packet starts as the scan does.
#include <algorithm>

#include "FuzzSupport.h"
#include "wmv/AsfPacketCarver.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 4) return 0;
    wmv::CarveSettings settings;
    settings.packetSize = uint32_t(data[0]) | uint32_t(data[1]) << 8;
    settings.videoStream = data[2] & 0x7F;
    settings.audioStream = data[3] & 0x7F;
    const uint8_t* file = data + 4;
    const size_t length = size - 4;
    size_t position = 0;
    while (position < length) {
        int64_t found = wmv::FindPacketStart(file + position, length - position);
        if (found < 0) break;
        const size_t start = position + size_t(found);
        const size_t reach = 64 + 63 * (size_t(settings.packetSize) * 2 + 17);
        wmv::CarveResult carved =
            wmv::CarvePacket(file + start, std::min(length - start, reach), int64_t(start), settings);
        for (const wmv::PayloadRecord& record : carved.records) (void)record;
        position = start + size_t(std::max<int64_t>(carved.advance, 1));
    }
    return 0;
}
