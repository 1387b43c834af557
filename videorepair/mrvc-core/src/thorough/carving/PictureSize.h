// What a carved stream's own bytes tell that a sample from the same device may
// get wrong: the picture size it was recorded at, and how long each audio
// packet plays.
#pragma once

#include <cstdint>
#include <vector>

#include "io/FileReader.h"
#include "thorough/AvHandles.h"
#include "thorough/carving/CarvedSource.h"

namespace thorough {

struct AviCarvedChunk;

// Decodes the first pictures of each video stream and, where their size differs
// from the parameters', takes the decoded size: a camera's sample may have been
// recorded at another size than the damaged file.
void FitPictureSize(FileReader& file, const std::vector<AviCarvedChunk>& chunks, CarvedSource& out);

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
