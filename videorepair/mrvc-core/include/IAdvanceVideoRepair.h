// The interface every container engine implements. Sixteen slots, in this order;
// no virtual destructor (slot 0 is an ordinary setter).
#pragma once

#include <cstdint>
#include <functional>
#include <string>

class IVideoRepairObserver;
class RepairLog;

using EngineProgressCallback = std::function<void(int)>;

class IAdvanceVideoRepair {
public:
    virtual void SetObserver(IVideoRepairObserver* observer) = 0;                       // 0
    virtual void Pause() = 0;                                                           // 1
    virtual void Resume() = 0;                                                          // 2
    virtual void Stop() = 0;                                                            // 3
    virtual std::wstring GetFormatName() = 0;                                           // 4
    virtual void SetLogger(RepairLog* log) = 0;                                         // 5
    virtual void SetVideoPath(const std::wstring& damagedPath,
                              const std::wstring& samplePath) = 0;                      // 6
    virtual void SetRepairMode(int mode) = 0;                                           // 7
    virtual void SetEngineStrings(const void* strings) = 0;                             // 8
    virtual int Repair() = 0;                                                           // 9
    virtual std::wstring GetRepairedVideo(std::wstring& result, const std::wstring& first,
                                          const std::wstring& second, int mode) = 0;    // 10
    virtual int RepairWithOptions(const wchar_t* damagedPath, const wchar_t* samplePath,
                                  void* optionData, uint32_t option) = 0;               // 11
    virtual void Release() = 0;                                                         // 12
    virtual void SetProgressCallback(EngineProgressCallback callback) = 0;              // 13
    virtual std::wstring GetRepairedVideo(std::wstring& result, const std::wstring& first,
                                          const std::wstring& second, int mode,
                                          std::function<void(int)> progress) = 0;       // 14
    virtual int Unsupported(void* ignored) = 0;                                         // 15

protected:
    ~IAdvanceVideoRepair() = default;
};
