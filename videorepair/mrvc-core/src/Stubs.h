// The metadata parser and the remote repair manager: interfaces the library
// answers with fixed empty values.
#pragma once

#include "IRemoteRepairManager.h"
#include "IVideoMetaDataParser.h"

// Zero bytes, valid as an empty narrow or wide string; never freed by callers.
extern const wchar_t kEmptyText[1];

class VideoMetaDataParser final : public IVideoMetaDataParser {
public:
    void* Destroy(uint32_t flags) override;
    int32_t Open(const wchar_t*) override { return -1; }
    void Close() override {}
    void ParseAsync(const wchar_t*, std::function<void(int)>) override {}
    void Cancel() override {}
    void Pause() override {}
    void Resume() override {}
    const wchar_t* GetFormatName() override { return kEmptyText; }
    const wchar_t* GetVideoCodec() override { return kEmptyText; }
    const wchar_t* GetAudioCodec() override { return kEmptyText; }
    const wchar_t* GetCreationTime() override { return kEmptyText; }
    const wchar_t* GetDeviceName() override { return kEmptyText; }
    double GetDuration() override { return 0.0; }
    double GetFrameRate() override { return 0.0; }
    int32_t GetWidth() override { return 0; }
    int32_t GetHeight() override { return 0; }
    int32_t GetBitRate() override { return 0; }
    int32_t GetStreamCount() override { return 0; }
    int32_t GetVideoStreamIndex() override { return -1; }
    int32_t GetAudioStreamIndex() override { return -1; }
    const wchar_t* GetErrorText() override { return kEmptyText; }
    const char* GetJson() override { return "{}"; }
};

class RemoteRepairManagerWrapper final : public IRemoteRepairManager {
public:
    void* Destroy(uint32_t flags) override;
    void Initialize(const wchar_t*) override {}
    void SetServer(const wchar_t*) override {}
    void SetAccount(const wchar_t*, const wchar_t*) override {}
    bool IsConnected() override { return false; }
    bool IsBusy() override { return false; }
    int32_t Upload(const wchar_t*, const wchar_t*) override { return -1; }
    int32_t QueryState(const wchar_t*) override { return -1; }
    void CancelJob(const wchar_t*) override {}
    const wchar_t* GetLastError() override { return kEmptyText; }
    int32_t Download(const wchar_t*, const wchar_t*) override { return -1; }
    void Disconnect() override {}
    void DownloadAsync(const wchar_t*, const wchar_t*, std::function<void(int, int)>) override {}
    void Shutdown() override {}
};
