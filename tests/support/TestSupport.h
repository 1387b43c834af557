// Shared helpers for the tests.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "IVideoRepairObserver.h"

namespace testing_support {

// A fresh folder under the build tree, removed when the object goes.
class TempDir {
public:
    explicit TempDir(const std::string& tag = "t");
    ~TempDir();
    const std::string& path() const { return path_; }
    std::wstring wpath() const;
    std::string file(const std::string& name) const { return path_ + "/" + name; }
    std::wstring wfile(const std::string& name) const;

private:
    std::string path_;
};

std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& bytes);
bool FileExists(const std::string& path);
int64_t FileSize(const std::string& path);
std::vector<std::string> ReadLines(const std::string& path);
std::wstring Wide(const std::string& s);
std::string Narrow(const std::wstring& s);

// A media file made once per build tree with ffmpeg (arguments after "-y",
// output appended). Safe when several test processes ask at once.
std::string GeneratedMedia(const std::string& name, const std::vector<std::string>& ffmpegArgs);

// Runs a program with arguments (no shell); returns its exit code, stdout in out.
int RunProgram(const std::vector<std::string>& argv, std::string* out = nullptr);

// Probes a media file: frames that decode in the first video stream (-1 if the
// file does not open), with ffprobe -count_frames.
int CountDecodedVideoFrames(const std::string& path);

// The folder of the test executables, beside which the ffmpeg link lives.
std::string BinDir();

// One of this process's I/O counters ("rchar:", "syscr:", ... from Linux's
// /proc/self/io), or -1 where that is not known.
int64_t IoCounter(const std::string& name);

// Records every observer call in order, as strings like "start", "p0:5", "finish".
class RecordingObserver : public IVideoRepairObserver {
public:
    void OnProgress(int32_t kind, int32_t value, int32_t reserved, void* data) override;
    void OnStarted() override { Add("start"); }
    void OnStopped() override { Add("stopped"); }
    void OnPaused() override { Add("paused"); }
    void OnResumed() override { Add("resumed"); }
    void OnFinished() override { Add("finish"); }
    std::vector<std::string> Events();
    void Clear();

private:
    void Add(const std::string& e);
    std::mutex lock_;
    std::vector<std::string> events_;
};

}  // namespace testing_support
