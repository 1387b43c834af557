// The parts of the test helpers that differ between operating systems.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace testing_support {

int ProcessId();

// Makes one media file with ffmpeg (arguments after "-y", then target). False on failure.
bool MakeMedia(const std::string& target, const std::vector<std::string>& ffmpegArgs);

// The [start, end) byte ranges of a regular file that hold data: a sparse file's
// holes are left out where the system can tell them, else one range covers all.
std::vector<std::pair<int64_t, int64_t>> DataExtents(const std::string& path);

}  // namespace testing_support
