// How long each carved audio packet plays, where the container does not say (AVI
// times audio only by its bytes).
#pragma once

#include <cstdint>

#include "io/FileReader.h"
#include "thorough/AvHandles.h"

namespace thorough {

// Samples in each audio packet: from the packet size for PCM and ADPCM, else from
// a parser that reads the frames' headers (MP3, AC-3, ...).
class AudioClock {
public:
    explicit AudioClock(const AVCodecParameters* parameters);
    ~AudioClock();
    AudioClock(AudioClock&& other) noexcept;
    AudioClock(const AudioClock&) = delete;
    AudioClock& operator=(const AudioClock&) = delete;

    int64_t Samples(FileReader& file, int64_t offset, uint32_t size);

private:
    ParametersPtr parameters_;
    CodecPtr codec_;
    AVCodecParserContext* parser_ = nullptr;
};

}  // namespace thorough
