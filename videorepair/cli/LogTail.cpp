#include "LogTail.h"

#include <filesystem>
#include <algorithm>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <vector>

namespace {

const char kErrorPrefix[] = "[ERROR] ";
const char kFfmpegOutput[] = "FfmpegRepair stdout/stderr:";
const size_t kMaxRead = 4 * 1024 * 1024;  // the log only grows; never read more than a run wrote

bool StartsWith(const std::string& text, const char* prefix) { return text.rfind(prefix, 0) == 0; }

bool IsLogLine(const std::string& line) {
    for (const char* level : {"[DEBUG] ", "[INFO] ", "[WARNING] ", kErrorPrefix}) {
        if (StartsWith(line, level)) return true;
    }
    return false;
}

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        lines.push_back(line);
    }
    return lines;
}

// "[ERROR] 2024-03-07 09:05:01 (412) message value" -> "message value".
std::string MessageOf(const std::string& line) {
    size_t close = line.find(") ");
    return close == std::string::npos ? line : line.substr(close + 2);
}

std::string Trimmed(const std::string& text) {
    size_t first = text.find_first_not_of(" \t");
    size_t last = text.find_last_not_of(" \t");
    return first == std::string::npos ? std::string() : text.substr(first, last - first + 1);
}

}  // namespace

void LogTail::Mark() {
    std::ifstream in(std::filesystem::u8path(path_), std::ios::binary | std::ios::ate);
    mark_ = in ? int64_t(in.tellg()) : 0;
}

std::string LogTail::ReadSinceMark() const {
    std::ifstream in(std::filesystem::u8path(path_), std::ios::binary | std::ios::ate);
    if (!in) return std::string();
    int64_t end = int64_t(in.tellg());
    if (end <= mark_) return std::string();
    int64_t start = end - mark_ > int64_t(kMaxRead) ? end - int64_t(kMaxRead) : mark_;
    std::string text(size_t(end - start), '\0');
    in.seekg(start);
    in.read(&text[0], std::streamsize(text.size()));
    return text;
}

std::string LogTail::LastError() const {
    std::string found;
    for (const std::string& line : Lines(ReadSinceMark())) {
        if (StartsWith(line, kErrorPrefix)) found = MessageOf(line);
    }
    return found;
}

std::vector<std::pair<int64_t, int64_t>> LogTail::Pairs(const std::string& message) const {
    std::vector<std::pair<int64_t, int64_t>> pairs;
    for (const std::string& line : Lines(ReadSinceMark())) {
        const size_t at = IsLogLine(line) ? line.find(message) : std::string::npos;
        long long first = 0, second = 0;
        if (at != std::string::npos &&
            std::sscanf(line.c_str() + at + message.size(), " %lld, %lld", &first, &second) == 2)
            pairs.emplace_back(first, second);
    }
    return pairs;
}

std::string LogTail::LastFfmpegLine() const {
    // ffmpeg's output is one log value spanning many lines: it runs from the
    // line holding the marker to the next line that starts with a level.
    std::string found;
    bool inside = false;
    for (const std::string& line : Lines(ReadSinceMark())) {
        std::string text = line;
        if (IsLogLine(line)) {
            size_t at = line.find(kFfmpegOutput);
            inside = at != std::string::npos;
            if (!inside) continue;
            text = line.substr(at + sizeof kFfmpegOutput - 1);
        }
        text = Trimmed(text);
        if (inside && !text.empty()) found = text;
    }
    return found;
}

std::string LogTail::TakeNewLines() {
    std::ifstream in(std::filesystem::u8path(path_), std::ios::binary | std::ios::ate);
    if (!in) return std::string();
    int64_t end = int64_t(in.tellg());
    if (end <= shown_) return std::string();
    std::string text(size_t(std::min<int64_t>(end - shown_, int64_t(kMaxRead))), '\0');
    in.seekg(shown_);
    in.read(&text[0], std::streamsize(text.size()));
    size_t complete = text.rfind('\n');
    if (complete == std::string::npos) return std::string();
    text.resize(complete);
    shown_ += int64_t(complete) + 1;
    return text;
}
