// Repairs MXF files from their essence: learns the audio coding and the frame
// rate of a healthy sample from ffmpeg's report, collects the picture and sound
// elements of the damaged file's generic container (SMPTE 379 keys, SMPTE 336
// BER lengths), dumps their values raw and has ffmpeg wrap the dumps again.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "AdvanceRepairBase.h"
#include "EngineProcess.h"

class PositionedReader;

class MxfAdvanceRepair : public AdvanceRepairBase {
public:
    // One collected essence element; kind 0 picture, 1 sound, 2 nothing found.
    struct SampleRecord {
        bool found = false;
        uint64_t offset = 0;  // absolute offset of the element's value
        int64_t size = 0;     // value length
        uint64_t packetLength = 0;
        uint32_t kind = 2;
        uint32_t frameType = 4;
    };

    // What the sample's report taught.
    struct SampleInfo {
        double frameRate = 30.0;
        std::vector<std::string> audioInputOptions;
    };

    MxfAdvanceRepair();
    ~MxfAdvanceRepair() override;

    std::wstring GetFormatName() override { return L"mxf"; }
    int Repair() override;
    using AdvanceRepairBase::GetRepairedVideo;
    std::wstring GetRepairedVideo(std::wstring& result, const std::wstring& first, const std::wstring& second,
                                  int mode) override;
    void Release() override;

    // The program run for the analysis and the merge (ffmpeg beside the host by default).
    void SetFfmpegPath(const std::wstring& path) { ffmpegPath_ = path; }

    // Reads ffmpeg's report on the sample, line by line. Throws std::invalid_argument
    // or std::out_of_range when the number in front of "fps" does not convert.
    static SampleInfo ParseSampleReport(const std::string& report);
    // The essence element whose key starts at data[0] (available bytes from the
    // reader's position); not found when the key, the item type or the BER length
    // does not qualify. position is the absolute offset of data[0].
    static SampleRecord MatchEssenceElement(const uint8_t* data, size_t available, int64_t position);

    const std::vector<SampleRecord>& VideoSamples() const { return videoSamples_; }
    const std::vector<SampleRecord>& AudioSamples() const { return audioSamples_; }
    const SampleInfo& LearntSample() const { return sample_; }

private:
    int AnalyzeSampleVideo();
    void ScanDamagedFile(PositionedReader& reader);
    void LogSampleLists();
    bool WriteDump(const std::vector<SampleRecord>& samples, const std::wstring& path);
    bool MergeStreams(const std::wstring& videoDump, const std::wstring& audioDump, const std::wstring& output);
    EngineProcessResult RunFfmpeg(const std::vector<std::string>& args);

    std::wstring ffmpegPath_;
    int64_t damagedSize_ = 0;
    SampleInfo sample_;
    std::vector<SampleRecord> videoSamples_;
    std::vector<SampleRecord> audioSamples_;
    std::wstring outputPath_;
};
