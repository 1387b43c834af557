// Whether the sample's decoder configuration fits the damaged recording: its
// first key pictures, carved without an index, must decode cleanly with it. A
// sample from other settings (another profile, size or chroma format) decodes
// them with errors, and its file would be garbage.
#pragma once

#include <vector>

#include "io/FileReader.h"
#include "thorough/AvHandles.h"
#include "thorough/strategies/MediaDataWalker.h"

namespace thorough {

// True when a key picture among the first few decodes without an error, or when
// there is no key picture to try.
bool KeyPicturesDecode(const AVCodecParameters* video, const std::vector<CarvedSample>& samples, FileReader& file);

}  // namespace thorough
