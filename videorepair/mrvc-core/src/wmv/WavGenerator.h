// Writes a WAV file (RIFF WAVE with a WAVEFORMATEX "fmt " chunk) holding the carved
// audio payloads back to back in one "data" chunk.
#pragma once

#include <atomic>
#include <string>

#include "wmv/AsfTypes.h"
#include "wmv/GeneratorStreams.h"

namespace wmv {

class WavGenerator {
public:
    WavGenerator(const std::string& inputPath, const std::string& outputPath, const PayloadList& records,
                 const AudioStreamInfo& info);

    // Writes the whole file: 0, or -1 when a file could not be opened or written.
    int Generate();

private:
    static std::atomic<uint32_t> flushCounter_;  // one for every WavGenerator in the process

    GeneratorStreams io_;
    AudioStreamInfo info_;
    uint32_t dataSize_ = 0;
    PayloadList records_;
};

}  // namespace wmv
