#include "RepairLog.h"

#include <ctime>

const std::string kInertLogFileName = "repair.log";
const std::string kInertLogCategory = "Repair";

namespace {

const char* PrefixOf(int level) {
    switch (level) {
        case kLogDebug: return "[DEBUG] ";
        case kLogInfo: return "[INFO] ";
        case kLogWarning: return "[WARNING] ";
        case kLogError: return "[ERROR] ";
        default: return "";  // no default prefix: the rest of the line follows as usual
    }
}

void WriteTwoDigits(std::ostream& out, int value) {
    out << char('0' + value / 10 % 10) << char('0' + value % 10);
}

void WriteLocalTime(std::ostream& out) {
    std::time_t now = std::time(nullptr);
    std::tm local{};
#if defined(_WIN32)
    localtime_s(&local, &now);
#else
    localtime_r(&now, &local);
#endif
    out << (local.tm_year + 1900) << '-';
    WriteTwoDigits(out, local.tm_mon + 1);
    out << '-';
    WriteTwoDigits(out, local.tm_mday);
    out << ' ';
    WriteTwoDigits(out, local.tm_hour);
    out << ':';
    WriteTwoDigits(out, local.tm_min);
    out << ':';
    WriteTwoDigits(out, local.tm_sec);
    out << ' ';
}

}  // namespace

RepairLog::RepairLog(int minimumLevel, const std::string& filePath) : minimumLevel_(minimumLevel) {
    // Append keeps earlier sessions; the stream opens shared, so other processes
    // may read (and write) the file while it is open.
    stream_.open(filePath, std::ios::out | std::ios::app | std::ios::binary);
}

RepairLog::~RepairLog() { Close(); }

void RepairLog::Close() {
    std::lock_guard<std::mutex> guard(lock_);
    if (stream_.is_open()) stream_.close();
}

template <class T>
void RepairLog::WriteLine(uint32_t line, int level, const std::string& message, const T& value) {
    std::lock_guard<std::mutex> guard(lock_);
    if (level < minimumLevel_ || !stream_.is_open()) return;
    stream_ << PrefixOf(level);
    WriteLocalTime(stream_);
    stream_ << '(' << line << ") " << message << ' ' << value << '\n';
    stream_.flush();
}

void RepairLog::Log(const char*, uint32_t line, int level, const std::string& message, int32_t value) {
    WriteLine(line, level, message, value);
}
void RepairLog::Log(const char*, uint32_t line, int level, const std::string& message, int64_t value) {
    WriteLine(line, level, message, value);
}
void RepairLog::Log(const char*, uint32_t line, int level, const std::string& message, const char* value) {
    WriteLine(line, level, message, value != nullptr ? value : "");
}
void RepairLog::Log(const char*, uint32_t line, int level, const std::string& message, char value) {
    WriteLine(line, level, message, value);
}
void RepairLog::Log(const char*, uint32_t line, int level, const std::string& message,
                    const std::string& value) {
    WriteLine(line, level, message, value);
}
