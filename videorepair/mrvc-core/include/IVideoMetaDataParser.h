// Metadata parser interface. The library's implementation answers every slot with
// a fixed empty value; the slot order is the binary contract with hosts.
#pragma once

#include <cstdint>
#include <functional>

class IVideoMetaDataParser {
public:
    // Slot 0 is the deleting destructor in the MSVC sense: one slot, frees the
    // object when bit 0 of flags is set. Declared as an ordinary virtual so the
    // table has the same shape with every compiler.
    virtual void* Destroy(uint32_t flags) = 0;                                   // 0
    virtual int32_t Open(const wchar_t* videoPath) = 0;                          // 1
    virtual void Close() = 0;                                                    // 2
    virtual void ParseAsync(const wchar_t* videoPath, std::function<void(int)> done) = 0;  // 3
    virtual void Cancel() = 0;                                                   // 4
    virtual void Pause() = 0;                                                    // 5
    virtual void Resume() = 0;                                                   // 6
    virtual const wchar_t* GetFormatName() = 0;                                  // 7
    virtual const wchar_t* GetVideoCodec() = 0;                                  // 8
    virtual const wchar_t* GetAudioCodec() = 0;                                  // 9
    virtual const wchar_t* GetCreationTime() = 0;                                // 10
    virtual const wchar_t* GetDeviceName() = 0;                                  // 11
    virtual double GetDuration() = 0;                                            // 12
    virtual double GetFrameRate() = 0;                                           // 13
    virtual int32_t GetWidth() = 0;                                              // 14
    virtual int32_t GetHeight() = 0;                                             // 15
    virtual int32_t GetBitRate() = 0;                                            // 16
    virtual int32_t GetStreamCount() = 0;                                        // 17
    virtual int32_t GetVideoStreamIndex() = 0;                                   // 18
    virtual int32_t GetAudioStreamIndex() = 0;                                   // 19
    virtual const wchar_t* GetErrorText() = 0;                                   // 20
    virtual const char* GetJson() = 0;                                           // 21

protected:
    ~IVideoMetaDataParser() = default;
};
