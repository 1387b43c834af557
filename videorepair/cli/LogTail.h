// Reads what the library wrote to KzVideoRepair.log during one call, to give the
// user the library's own reason for a failure. Each run has a log of its own,
// so no other process's lines are ever read.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

class LogTail {
public:
    explicit LogTail(std::string logPath) : path_(std::move(logPath)) {}

    const std::string& Path() const { return path_; }
    void Mark();  // from here on

    // The message and value of the last "[ERROR] " line since Mark, without the
    // level and time stamp; empty when there is none.
    std::string LastError() const;
    // The last non-empty line of ffmpeg's output the library logged since Mark.
    std::string LastFfmpegLine() const;
    // The "A, B" values of every line since Mark whose message is message.
    std::vector<std::pair<int64_t, int64_t>> Pairs(const std::string& message) const;
    // Complete lines written since the previous call (for -v).
    std::string TakeNewLines();

private:
    std::string ReadSinceMark() const;

    std::string path_;
    int64_t mark_ = 0;
    int64_t shown_ = 0;
};
