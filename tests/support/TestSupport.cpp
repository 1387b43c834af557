#include "support/TestSupport.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include "platform/Platform.h"
#include "support/System.h"

namespace testing_support {

namespace fs = std::filesystem;

TempDir::TempDir(const std::string& tag) {
    static std::atomic<int> counter{0};
    std::random_device rd;
    fs::path base = fs::path(VR_TEST_MEDIA_DIR).parent_path() / "testtmp";
    path_ = (base / (tag + "_" + std::to_string(ProcessId()) + "_" + std::to_string(counter++) + "_" +
                     std::to_string(rd() % 100000)))
                .string();
    fs::create_directories(path_);
}

TempDir::~TempDir() {
    std::error_code ec;
    fs::permissions(path_, fs::perms::owner_all, fs::perm_options::add, ec);
    fs::remove_all(path_, ec);
}

std::wstring TempDir::wpath() const { return Wide(path_); }
std::wstring TempDir::wfile(const std::string& name) const { return Wide(file(name)); }

std::wstring Wide(const std::string& s) { return platform::ToWide(s); }
std::string Narrow(const std::wstring& s) { return platform::ToNarrow(s); }

std::string ReadFile(const std::string& path) {
    std::ifstream in(fs::u8path(path), std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void WriteFile(const std::string& path, const std::string& bytes) {
    std::ofstream out(fs::u8path(path), std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), std::streamsize(bytes.size()));
}

bool FileExists(const std::string& path) { return fs::is_regular_file(fs::u8path(path)); }

int64_t FileSize(const std::string& path) {
    std::error_code ec;
    auto n = fs::file_size(fs::u8path(path), ec);
    return ec ? -1 : int64_t(n);
}

std::vector<std::string> ReadLines(const std::string& path) {
    std::vector<std::string> lines;
    std::ifstream in(fs::u8path(path));
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

std::string BinDir() { return VR_TEST_BIN_DIR; }

std::string GeneratedMedia(const std::string& name, const std::vector<std::string>& ffmpegArgs) {
    fs::create_directories(VR_TEST_MEDIA_DIR);
    std::string target = std::string(VR_TEST_MEDIA_DIR) + "/" + name;
    if (fs::exists(fs::u8path(target))) return target;
    // Made under a private name and renamed, so a reader never sees half a file.
    std::string ext = fs::path(name).extension().string();
    std::string partial = target + ".part" + std::to_string(ProcessId()) + ext;
    if (!MakeMedia(partial, ffmpegArgs)) {
        std::error_code ignored;
        fs::remove(fs::u8path(partial), ignored);
        return std::string();
    }
    std::error_code ec;
    fs::rename(fs::u8path(partial), fs::u8path(target), ec);
    if (ec) fs::remove(fs::u8path(partial), ec);  // another process made it first
    return target;
}

int CountDecodedVideoFrames(const std::string& path) {
    std::string out;
    int rc = RunProgram({VR_TEST_FFPROBE, "-v", "error", "-count_frames", "-select_streams", "v:0",
                         "-show_entries", "stream=nb_read_frames", "-of", "csv=p=0", path},
                        &out);
    if (rc != 0) return -1;
    try {
        return std::stoi(out);
    } catch (...) {
        return -1;
    }
}

void RecordingObserver::OnProgress(int32_t kind, int32_t value, int32_t reserved, void* data) {
    Add("p" + std::to_string(kind) + ":" + std::to_string(value) +
        (reserved != 0 || data != nullptr ? "!" : ""));
}

std::vector<std::string> RecordingObserver::Events() {
    std::lock_guard<std::mutex> guard(lock_);
    return events_;
}

void RecordingObserver::Clear() {
    std::lock_guard<std::mutex> guard(lock_);
    events_.clear();
}

void RecordingObserver::Add(const std::string& e) {
    std::lock_guard<std::mutex> guard(lock_);
    events_.push_back(e);
}

int64_t IoCounter(const std::string& name) {
    std::ifstream io("/proc/self/io");
    for (std::string key; io >> key;) {
        int64_t value = 0;
        io >> value;
        if (key == name) return value;
    }
    return -1;
}

}  // namespace testing_support
