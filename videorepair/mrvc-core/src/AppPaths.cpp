#include "AppPaths.h"

#include <Poco/File.h>

#include <mutex>

#include "TextUtil.h"
#include "platform/Platform.h"

namespace app_paths {

namespace {

std::mutex workDirectoryLock;
std::wstring& WorkDirectoryStorage() {
    static std::wstring directory;
    return directory;
}

Poco::File FileOf(const std::wstring& path) { return Poco::File(platform::ToNarrow(path)); }

}  // namespace

std::wstring ApplicationDirectory() {
    std::wstring exe = platform::ExecutablePath();
    size_t cut = exe.rfind(platform::NativeSeparator());
    std::wstring directory = cut == std::wstring::npos ? exe : exe.substr(0, cut);
    return text::ReplaceAll(directory, L'\\', L'/');
}

std::wstring FfmpegPath() {
    const std::wstring beside = ApplicationDirectory() + L"/" + platform::FfmpegProgramName();
    if (RegularFileExists(beside)) return beside;
    // A path the user named is kept even when it is wrong, so the error names it
    // instead of quietly running another ffmpeg.
    std::wstring named;
    if (platform::GetEnvironment(kFfmpegVariable, named) && !named.empty()) return named;
    const std::wstring onSearchPath = platform::FindProgramOnPath(platform::FfmpegProgramName());
    return onSearchPath.empty() ? beside : onSearchPath;
}

std::wstring DefaultWorkDirectory() { return platform::UserTemporaryDirectory() + L"/VR"; }

std::wstring WorkDirectory() {
    std::lock_guard<std::mutex> guard(workDirectoryLock);
    return WorkDirectoryStorage();
}

void SetWorkDirectory(const std::wstring& directory) {
    std::lock_guard<std::mutex> guard(workDirectoryLock);
    WorkDirectoryStorage() = directory;
}

bool CreateDirectories(const std::wstring& directory) {
    if (directory.empty()) return false;
    try {
        Poco::File dir = FileOf(directory);
        dir.createDirectories();
        return dir.isDirectory();
    } catch (...) {
        return false;
    }
}

bool DirectoryExists(const std::wstring& directory) {
    if (directory.empty()) return false;
    try {
        Poco::File dir = FileOf(directory);
        return dir.exists() && dir.isDirectory();
    } catch (...) {
        return false;
    }
}

bool RegularFileExists(const std::wstring& path) {
    if (path.empty()) return false;
    try {
        Poco::File file = FileOf(path);
        return file.exists() && file.isFile();
    } catch (...) {
        return false;
    }
}

bool IsSpecialFile(const std::wstring& path) {
    if (path.empty()) return false;
    try {
        Poco::File file = FileOf(path);
        return file.exists() && !file.isFile();
    } catch (...) {
        return false;
    }
}

}  // namespace app_paths
