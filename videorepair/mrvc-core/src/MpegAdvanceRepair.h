// Repairs MPEG program streams without rebuilding their structure: learns the PES
// header size from a healthy sample, carves video (0xE0) and audio (0xC0) PES
// payloads from the damaged file, dumps them as raw elementary streams and has
// ffmpeg mux them into a new MPEG file.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "AdvanceRepairBase.h"
#include "MpegPesMatcher.h"
#include "MpegPrefixLearner.h"
#include "SampleRecord.h"
#include "io/PositionedReader.h"

class MpegAdvanceRepair : public AdvanceRepairBase {
public:
    MpegAdvanceRepair();
    // ffmpegPath: the program run for extraction and merging (ffmpeg beside the host by default).
    explicit MpegAdvanceRepair(std::wstring ffmpegPath);
    ~MpegAdvanceRepair() override;

    std::wstring GetFormatName() override { return L"mpeg"; }
    int Repair() override;
    using AdvanceRepairBase::GetRepairedVideo;
    std::wstring GetRepairedVideo(std::wstring& result, const std::wstring& damagedPath,
                                  const std::wstring& outputDirectory, int mode) override;
    void Release() override;

    uint8_t VideoPrefixBytes() const { return videoPrefixBytes_; }
    uint8_t AudioPrefixBytes() const { return audioPrefixBytes_; }
    bool NoAudio() const { return noAudio_; }
    const std::vector<SampleRecord>& VideoSamples() const { return videoSamples_; }
    const std::vector<SampleRecord>& AudioSamples() const { return audioSamples_; }

private:
    int ParseSampleVideo();
    std::wstring ExtractSampleVideoStream();
    std::wstring ExtractSampleAudioStream();
    std::wstring ExtractSampleStream(const std::vector<std::string>& args, const std::string& outPath);
    MpegPrefixLearner::Control LearnerControl();
    bool OpenReader(PositionedReader& reader, const std::wstring& path);

    void ScanDamagedFile();
    void ReportSkippedProgress(int64_t position, int64_t step, int64_t size);
    void SplitSamples();
    void LogSampleLists();
    void LogSampleList(const std::vector<SampleRecord>& list, const char* countMessage, const char* lineFormat);

    int WriteSampleData(const std::vector<SampleRecord>& list, const std::wstring& outPath);
    bool MergeStreams(const std::wstring& videoDump, const std::wstring& audioDump, const std::wstring& outPath);
    int RunFfmpeg(const std::vector<std::string>& args, int timeoutSeconds);
    std::wstring NewDumpPath() const;

    std::wstring ffmpegPath_;
    PositionedReader sample_;
    PositionedReader damaged_;
    MpegPesMatcher matcher_;
    uint8_t videoPrefixBytes_ = 0;
    uint8_t audioPrefixBytes_ = 0;
    bool noAudio_ = false;
    std::vector<SampleRecord> allSamples_;
    std::vector<SampleRecord> videoSamples_;
    std::vector<SampleRecord> audioSamples_;
    std::wstring outputPath_;
};
