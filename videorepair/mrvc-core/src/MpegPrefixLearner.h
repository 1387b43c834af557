// Learns from a healthy sample how many bytes lie between the end of a PES start
// code and the elementary-stream payload, by finding a packet's bytes in the
// stream that ffmpeg extracted from the same sample.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

class PositionedReader;

class MpegPrefixLearner {
public:
    struct Control {
        std::function<void(int)> progress;             // whole percent of the sample read
        std::function<bool()> pauseThenShouldStop;     // between two candidate packets
        std::function<bool()> stopRequested;           // before the first one
    };

    explicit MpegPrefixLearner(Control control) : control_(std::move(control)) {}

    // Video: the 2 length bytes plus the PES header; 0 when nothing was found.
    uint8_t LearnVideoPrefix(PositionedReader& sample, const std::wstring& extractedVideoPath);
    // Audio: offset, behind the start code, at which the extracted audio begins
    // within the first 100 bytes of a packet; 0 when nothing was found.
    uint8_t LearnAudioPrefix(PositionedReader& sample, const std::wstring& extractedAudioPath);

    // Where the sound data starts in an extracted audio file: behind the "data"
    // chunk header of a RIFF/WAVE file, else at 0.
    static size_t AudioPayloadStart(const std::vector<uint8_t>& head);

private:
    enum class Verdict { kSkipped, kNoMatch, kMatched };
    using Judge = std::function<Verdict(const uint8_t* window, size_t length, size_t q, uint8_t& prefix)>;

    uint8_t Learn(PositionedReader& sample, uint8_t streamId, const Judge& judge);
    Verdict JudgeVideo(const uint8_t* window, size_t length, size_t q, uint8_t& prefix);
    Verdict JudgeAudio(const uint8_t* window, size_t length, size_t q, uint8_t& prefix) const;
    // The first n bytes of the extracted file (fewer when it is shorter).
    const std::vector<uint8_t>& HeadOf(const std::wstring& path, size_t n);

    Control control_;
    std::wstring headPath_;
    std::vector<uint8_t> head_;
    bool headComplete_ = false;
    std::vector<uint8_t> audioNeedle_;
};
