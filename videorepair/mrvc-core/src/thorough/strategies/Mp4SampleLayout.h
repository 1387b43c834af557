// What the healthy sample's own samples show about the recorder that its
// decoder configuration does not: how large its video samples grow, how many
// slices a picture has, how long its NAL length prefixes are, and how much audio
// the writer puts between video samples (its chunk pattern).
#pragma once

#include <cstdint>
#include <string>

#include "thorough/strategies/AccessUnitReader.h"

namespace thorough {

struct SampleLayout {
    VideoShape video;            // codec NONE when the video cannot be read
    int64_t largestAudioRun = 0;  // bytes of the longest audio stretch between other samples
    double longestAudioRunSeconds = 0;
    int64_t audioRunUnit = 0;  // bytes every audio stretch's length is a multiple of
};

SampleLayout LearnSampleLayout(const std::wstring& samplePath, int videoIndex, int audioIndex);

}  // namespace thorough
