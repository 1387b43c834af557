// The library's one log file: a line per event, shared by the manager and all its
// engines, flushed line by line so that it survives a crash of the host.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>

enum LogLevel : int { kLogDebug = 0, kLogInfo = 1, kLogWarning = 2, kLogError = 3 };

class RepairLog {
public:
    // filePath is UTF-8; the file is opened through its wide name, shared, for appending.
    RepairLog(int minimumLevel, const std::string& filePath);
    ~RepairLog();
    RepairLog(const RepairLog&) = delete;
    RepairLog& operator=(const RepairLog&) = delete;

    // sourceFile is accepted for the caller's bookkeeping and never written.
    void Log(const char* sourceFile, uint32_t line, int level, const std::string& message, int32_t value);
    void Log(const char* sourceFile, uint32_t line, int level, const std::string& message, int64_t value);
    void Log(const char* sourceFile, uint32_t line, int level, const std::string& message, const char* value);
    void Log(const char* sourceFile, uint32_t line, int level, const std::string& message, char value);
    void Log(const char* sourceFile, uint32_t line, int level, const std::string& message,
             const std::string& value);

    bool IsOpen() const { return fd_ >= 0; }
    void Close();

private:
    template <class T>
    void WriteLine(uint32_t line, int level, const std::string& message, const T& value);

    int fd_ = -1;
    int minimumLevel_;
    std::mutex lock_;
};

// Logs through an optional log object, naming the calling line.
#define VR_LOG(log, level, message, value)                                      \
    do {                                                                        \
        if ((log) != nullptr) (log)->Log(kLogSource, __LINE__, (level), (message), (value)); \
    } while (0)

// Names that the library sets up at load time and never reads; the log file's
// name does not come from them.
extern const std::string kInertLogFileName;
extern const std::string kInertLogCategory;
