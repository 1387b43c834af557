// MPEG program stream: the damaged-file scan (packet matching and the skip to the
// next candidate) over arbitrary bytes, stepping as the engine does. The first
// three bytes choose the learnt prefixes and whether audio is collected.
#include <algorithm>

#include "FuzzSupport.h"
#include "MpegPesMatcher.h"
#include "io/PositionedReader.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 3) return 0;
    MpegPesMatcher matcher;
    matcher.SetPrefixes(data[0], data[1]);
    matcher.SetNoAudio((data[2] & 1) != 0);
    matcher.Reset();
    const uint8_t* file = data + 3;
    const int64_t fileSize = int64_t(size - 3);
    int64_t position = 0;
    while (position < fileSize) {
        const size_t window = size_t(std::min<int64_t>(fileSize - position, PositionedReader::kWindowBytes));
        SampleRecord record = matcher.MatchPacketAt(position, file + position, window);
        if (record.found) {
            position += int64_t(record.packetLength);
        } else {
            int64_t step = matcher.DistanceToNextCandidate(file + position, window, fileSize - position);
            if (step < 1) std::abort();  // promised: always >= 1
            position += step;
        }
    }
    return 0;
}
