// The parts of the test helpers that differ between operating systems.
#pragma once

#include <string>
#include <vector>

namespace testing_support {

int ProcessId();

// Makes one media file with ffmpeg (arguments after "-y", then target). False on failure.
bool MakeMedia(const std::string& target, const std::vector<std::string>& ffmpegArgs);

}  // namespace testing_support
