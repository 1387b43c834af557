// Repairs WMV/ASF files: learns stream descriptions and the data-packet size from a
// healthy sample, carves every video and audio payload out of the damaged file's
// data packets, writes them as a pure AVI and a pure WAV, and has ffmpeg merge the
// two and re-wrap the result as WMV.
#pragma once

#include <memory>
#include <string>

#include "AdvanceRepairBase.h"
#include "io/PositionedReader.h"
#include "wmv/AsfTypes.h"
#include "wmv/WmvAsfInfoParser.h"

class WmvAdvanceRepair : public AdvanceRepairBase {
public:
    WmvAdvanceRepair();
    ~WmvAdvanceRepair() override;

    std::wstring GetFormatName() override { return formatName_; }
    int Repair() override;
    using AdvanceRepairBase::GetRepairedVideo;
    std::wstring GetRepairedVideo(std::wstring& result, const std::wstring& first, const std::wstring& second,
                                  int mode) override;
    void Release() override;

    // 1: the merge copies the audio as it is; 0 (the default): it is re-encoded in stereo.
    void SetCopyAudio(int flag) { copyAudio_ = flag; }

    const wmv::PayloadList& VideoSamples() const { return videoSamples_; }
    const wmv::PayloadList& AudioSamples() const { return audioSamples_; }
    const wmv::VideoStreamInfo& ChosenVideoInfo() const { return chosenVideo_; }
    const wmv::AudioStreamInfo& ChosenAudioInfo() const { return chosenAudio_; }

private:
    int ParseSampleVideo();
    int ReadSampleStreams(const uint8_t* buf, size_t length, int64_t& dataAt);
    int ReadPacketSize(const uint8_t* buf, size_t length, int64_t& dataAt);
    int64_t CountSamplePackets(FileReader& sample, int64_t firstPacket);
    void ChooseStreams();
    void ScanDamaged();
    int64_t FindInWindow(size_t& windowLength);
    bool CarveAt(int64_t match);
    void LogLists();
    double MergeDuration() const;

    int ExtractSamples(const wmv::PayloadList& list, const std::wstring& path, size_t count);
    bool WritePureVideo(const std::wstring& base);
    bool WritePureAudio(const std::wstring& base, std::wstring& wavPath);
    int MergeVideoAudio(const std::wstring& avi, const std::wstring& wav, const std::wstring& merged);
    int ConvertToWmv(const std::wstring& merged, const std::wstring& output);
    int RunFfmpeg(const char* what, const std::vector<std::string>& args, int limitSeconds);

    std::wstring formatName_ = L"wmv";
    std::shared_ptr<wmv::WmvAsfInfoParser> parser_;
    wmv::VideoStreamInfo sampleVideo_, damagedVideo_, chosenVideo_;
    wmv::AudioStreamInfo sampleAudio_, damagedAudio_, chosenAudio_;
    uint32_t packetSize_ = 0;
    int64_t sampleCount_ = 0;
    int64_t fileSize_ = 0;
    PositionedReader damaged_;
    wmv::PayloadList videoSamples_;
    wmv::PayloadList audioSamples_;
    int copyAudio_ = 0;
};
