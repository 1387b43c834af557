// The contact sheet of a repaired file: frames at regular times and the first
// frame after each hole in its video, as thumbnails for the report page or
// composed into one PNG with each frame's time under it.
#pragma once

#include <string>
#include <vector>

#include "FrameGrabber.h"
#include "RecordReader.h"

namespace contact_sheet {

constexpr int kRegularFrames = 20;
constexpr int kThumbnailWidth = 240;

// Regular times over the record's timeline, then the end of every video gap.
std::vector<FrameWanted> TimesFor(const RepairMap& map, int regular = kRegularFrames);

// The thumbnails of the repaired file; empty when it has no video that decodes.
std::vector<Thumbnail> Take(const std::string& repairedPath, const RepairMap& map);

// "1:02.5", "1:02:03.0".
std::string TimeText(double seconds);

// The thumbnails tiled in rows, each with its time, as PNG bytes; empty when
// there is nothing to show or encoding failed.
std::string ComposePng(const std::vector<Thumbnail>& thumbnails);

}  // namespace contact_sheet
