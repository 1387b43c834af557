// MXF: reading ffmpeg's report on a sample (audio coding, frame rate) from
// arbitrary text. A number in front of "fps" that does not convert throws, as
// documented; the engine catches that.
#include <stdexcept>
#include <string>

#include "FuzzSupport.h"
#include "MxfAdvanceRepair.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    try {
        MxfAdvanceRepair::ParseSampleReport(std::string(reinterpret_cast<const char*>(data), size));
    } catch (const std::invalid_argument&) {
    } catch (const std::out_of_range&) {
    }
    return 0;
}
