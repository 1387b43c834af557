// Where the library finds ffmpeg and where it puts its work: the host program's
// directory (or the system's ffmpeg) and the process-wide work directory.
#pragma once

#include <string>

namespace app_paths {

// Directory of the host program, with "/" as separator.
std::wstring ApplicationDirectory();

// The environment variable that names an ffmpeg program.
constexpr const wchar_t kFfmpegVariable[] = L"VIDEOREPAIR_FFMPEG";

// The ffmpeg to run: beside the host program when it is there; else the path in
// VIDEOREPAIR_FFMPEG when that is set; else the first ffmpeg on PATH; else the
// path beside the host program, which does not exist and says where it was sought.
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
