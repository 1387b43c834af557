#include "RepairLog.h"

#include <algorithm>
#include <ctime>
#include <sstream>

#include "platform/Platform.h"

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
    platform::LocalTime(now, local);
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
    // Append keeps earlier sessions; the file opens shared, so other processes
    // may read (and write) it while it is open, and each line lands at its end.
    fd_ = platform::OpenForAppend(platform::ToWide(filePath));
}

RepairLog::~RepairLog() { Close(); }

void RepairLog::Close() {
    std::lock_guard<std::mutex> guard(lock_);
    if (fd_ >= 0) platform::Close(fd_);
    fd_ = -1;
}

template <class T>
void RepairLog::WriteLine(uint32_t line, int level, const std::string& message, const T& value) {
    std::lock_guard<std::mutex> guard(lock_);
    if (level < minimumLevel_ || fd_ < 0) return;
    std::ostringstream text;
    text << PrefixOf(level);
    WriteLocalTime(text);
    text << '(' << line << ") " << message << ' ' << value << '\n';
    // One write per line: unbuffered, so the line survives a crash of the host.
    const std::string bytes = text.str();
    for (size_t done = 0; done < bytes.size();) {
        uint32_t piece = uint32_t(std::min<size_t>(bytes.size() - done, 1u << 20));
        int64_t n = platform::Write(fd_, bytes.data() + done, piece);
        if (n <= 0) return;
        done += size_t(n);
    }
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
