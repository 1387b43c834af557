// The repair manager a host obtains from InitKzVideoRepairLib. The slot order of
// this table is the binary contract with hosts: never reorder it.
#pragma once

#include <cstdint>
#include <functional>

class IVideoRepairObserver;

// Save progress: (kind, value), kind is always 1.
using SaveProgressCallback = std::function<void(int, int)>;

class IVideoRepairManager {
public:
    virtual int32_t Initialize(IVideoRepairObserver* observer, const wchar_t* logDirectory,
                               const wchar_t* workDirectory) = 0;                       // 0
    virtual int32_t FfmpegRepair(const wchar_t* videoPath) = 0;                          // 1
    virtual int32_t Repair(const wchar_t* videoPath, const wchar_t* samplePath) = 0;    // 2
    virtual void Pause(uint32_t jobId) = 0;                                              // 3
    virtual void Resume(uint32_t jobId) = 0;                                             // 4
    virtual void Cancel(uint32_t jobId) = 0;                                             // 5
    virtual void Release() = 0;                                                          // 6
    virtual int32_t GetRepairedFilePath(wchar_t* outPath, const wchar_t* videoPath) = 0; // 7
    virtual int32_t SaveAs(const wchar_t* videoPath, const wchar_t* destinationPath) = 0; // 8
    virtual int32_t RepairWithOptions(const wchar_t* videoPath, const wchar_t* samplePath,
                                      uint32_t option, void* optionData) = 0;            // 9
    virtual int32_t SetRepairMode(uint32_t mode) = 0;                                    // 10
    virtual int32_t SetEngineStrings(const wchar_t* s1, const wchar_t* s2, const wchar_t* s3,
                                     const wchar_t* s4) = 0;                             // 11
    virtual int32_t SaveAs(const wchar_t* videoPath, const wchar_t* destinationPath,
                           SaveProgressCallback callback) = 0;                           // 12
    virtual int32_t Reserved(void* ignored) = 0;                                         // 13

protected:
    // No virtual destructor: hosts never delete the manager, they call Release.
    ~IVideoRepairManager() = default;
};
