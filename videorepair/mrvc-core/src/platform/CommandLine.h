// Splitting a Windows-style command line into arguments, for platforms that start
// children from an argument vector.
#pragma once

#include <string>
#include <vector>

namespace platform {

// Blanks outside double quotes separate arguments; the quotes themselves group
// and are dropped. There is no escaping: a quote inside a name ends the group.
std::vector<std::wstring> SplitCommandLine(const std::wstring& commandLine);

}  // namespace platform
