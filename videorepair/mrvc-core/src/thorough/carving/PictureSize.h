// What a carved video stream's own bytes tell that a sample from the same device
// may get wrong: the picture size it was recorded at.
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

}  // namespace thorough
