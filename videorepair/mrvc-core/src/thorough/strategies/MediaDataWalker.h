// Walks the media data of an MP4/MOV whose index is lost, sample by sample: a
// video sample where one starts (told by its own structure), and between video
// samples the audio the writer interleaved, cut into its frames. What is
// neither (damage, a timed metadata track) is stepped over and counted. Files
// with audio alone (M4A) are one long stretch of audio frames.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "thorough/RepairControl.h"
#include "thorough/strategies/AccessUnitReader.h"
#include "thorough/strategies/AudioFrameSplitter.h"

class FileReader;

namespace thorough {

struct CarvedSample {
    int64_t offset = 0;
    uint32_t size = 0;
    bool video = true;
    bool key = false;
    int64_t samples = 0;  // audio: duration in samples
    bool afterGap = false;  // damage was stepped over just before it
};

class MediaDataWalker {
public:
    // audio may be null (no audio track, or none that can be cut). largestAudioRun:
    // the longest audio stretch of the sample's writer (0: unknown); much longer
    // ones are not its audio alone.
    MediaDataWalker(FileReader& file, const AccessUnitReader& video, AudioFrameSplitter* audio,
                    int64_t largestAudioRun = 0);

    // Progress over total bytes of media data goes to control (may be null),
    // which also says when to stop walking.
    void Watch(RepairControl* control, ProgressRange progress, int64_t total);

    // Appends the samples found in [begin, end) of the file; false once the host
    // asked to stop (what was found so far is kept).
    bool Walk(int64_t begin, int64_t end, std::vector<CarvedSample>& out);

    int64_t Skipped() const { return skipped_; }

private:
    bool Load(int64_t at, int64_t end);
    const uint8_t* At(int64_t at) const {
        return reinterpret_cast<const uint8_t*>(buffer_.data()) + (at - bufferStart_);
    }
    size_t AvailableAt(int64_t at) const { return size_t(bufferStart_ + int64_t(buffer_.size()) - at); }
    size_t VideoAt(int64_t at, int64_t end, bool& key);
    int64_t NextVideo(int64_t from, int64_t end, size_t& length, bool& key);
    // True when the stretch's first bytes were taken as audio.
    bool TakeAudio(int64_t begin, int64_t end, std::vector<CarvedSample>& out);
    std::vector<AudioFrame> FramesFrom(const uint8_t* run, size_t size, size_t& from, bool cut);
    void DoubtLastVideo(std::vector<CarvedSample>& out);
    void Add(std::vector<CarvedSample>& out, CarvedSample sample);
    void Skip(int64_t bytes);
    bool Stopped(int64_t walkedInRange);
    bool WalkAudioOnly(int64_t begin, int64_t end, std::vector<CarvedSample>& out);

    FileReader& file_;
    const AccessUnitReader& video_;
    AudioFrameSplitter* audio_;
    int64_t longestRun_;
    std::string buffer_;
    int64_t bufferStart_ = 0;
    int64_t skipped_ = 0;
    bool gap_ = false;  // bytes were stepped over since the last sample
    RepairControl* control_ = nullptr;
    ProgressRange progress_;
    int64_t total_ = 0, walked_ = 0, lastCheck_ = 0;
    int64_t rangeEnd_ = 0;  // where the media data being walked ends
    bool audioFound_ = false;
};

}  // namespace thorough
