// Remote repair interface. The library's implementation is a stub with fixed
// answers; the slot order is the binary contract with hosts.
#pragma once

#include <cstdint>
#include <functional>

class IRemoteRepairManager {
public:
    // Slot 0: deleting destructor (one slot, frees the object when bit 0 of flags is set).
    virtual void* Destroy(uint32_t flags) = 0;                                   // 0
    virtual void Initialize(const wchar_t* logDirectory) = 0;                    // 1
    virtual void SetServer(const wchar_t* address) = 0;                          // 2
    virtual void SetAccount(const wchar_t* user, const wchar_t* token) = 0;      // 3
    virtual bool IsConnected() = 0;                                              // 4
    virtual bool IsBusy() = 0;                                                   // 5
    virtual int32_t Upload(const wchar_t* videoPath, const wchar_t* samplePath) = 0;  // 6
    virtual int32_t QueryState(const wchar_t* videoPath) = 0;                    // 7
    virtual void CancelJob(const wchar_t* videoPath) = 0;                        // 8
    virtual const wchar_t* GetLastError() = 0;                                   // 9
    virtual int32_t Download(const wchar_t* videoPath, const wchar_t* destinationPath) = 0;  // 10
    virtual void Disconnect() = 0;                                               // 11
    virtual void DownloadAsync(const wchar_t* videoPath, const wchar_t* destinationPath,
                               std::function<void(int, int)> progress) = 0;      // 12
    virtual void Shutdown() = 0;                                                 // 13

protected:
    ~IRemoteRepairManager() = default;
};
