// Where the library finds ffmpeg and where it puts its work: the host program's
// directory and the process-wide work directory.
#pragma once

#include <string>

namespace app_paths {

// Directory of the host program, with "/" as separator.
std::wstring ApplicationDirectory();

// ffmpeg beside the host program.
std::wstring FfmpegPath();

// The user's temporary directory + "/VR", used when the host names no work directory.
std::wstring DefaultWorkDirectory();

// The work directory shared by every manager in the process.
std::wstring WorkDirectory();
void SetWorkDirectory(const std::wstring& directory);

// Creates a directory with all missing parents; false when it still does not exist.
bool CreateDirectories(const std::wstring& directory);
bool DirectoryExists(const std::wstring& directory);
bool RegularFileExists(const std::wstring& path);
// True when the path names something that is there but is no regular file (a
// directory, a FIFO, a device): ffmpeg and libavformat would fail on it or, for
// a FIFO, wait for a writer forever.
bool IsSpecialFile(const std::wstring& path);

}  // namespace app_paths
