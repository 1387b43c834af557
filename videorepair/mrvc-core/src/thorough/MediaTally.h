// Counts what a file holds, packet by packet, as it is read or written: video
// frames that demux and (as far as checked) decode, audio packets and seconds.
// The judge compares candidates by these counts.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "VideoRepairOptions.h"
#include "thorough/AvHandles.h"
#include "thorough/DecodeCheck.h"
#include "thorough/RepairRecord.h"

namespace thorough {

class MediaTally {
public:
    enum class Decode { kNone, kWindows, kEveryPacket };

    // One entry per stream; parameters may be null for a stream that is ignored.
    // With Decode::kNone the video's share that decodes is taken from AssumeShare.
    void AddStream(const AVCodecParameters* parameters, AVRational timeBase, AVRational frameRate, Decode decode);
    void AssumeShare(double share) { assumedShare_ = share; }
    void Count(const AVPacket* packet, unsigned stream);
    void Finish();

    // The main video stream (most frames) and all audio.
    ThoroughMediaCount Result() const;
    // As if every video frame after a key frame decoded: the most that the same
    // packets could score in any file.
    ThoroughMediaCount Bound() const;
    // The share of the main video stream's packets that decode.
    double VideoShare() const;

private:
    struct Stream {
        AVMediaType type = AVMEDIA_TYPE_UNKNOWN;
        AVRational timeBase{1, 1};
        double frameSeconds = 0;  // one frame's duration when the rate is known
        int64_t packets = 0;
        bool keySeen = false;
        double seconds = 0;
        int64_t firstPts = AV_NOPTS_VALUE, lastPts = AV_NOPTS_VALUE;
        std::unique_ptr<DecodeCheck> check;
    };
    double SecondsOf(const Stream& s) const;
    const Stream* MainVideo() const;
    ThoroughMediaCount ResultAt(double videoShare) const;

    std::vector<Stream> streams_;
    double assumedShare_ = 1.0;
};

// One repair's candidate and how it did.
struct Candidate {
    ThoroughVerdict kind = kVerdictNone;
    std::wstring path;  // empty for the damaged file as it is
    ThoroughMediaCount count{};
    bool usable = false;  // written completely (or the damaged file itself)
    // What the candidate's pass did with the damaged file's bytes; null: not known.
    std::shared_ptr<RepairRecord> record;
};

// The better of two candidates: more frames that decode, then more audio; a
// candidate that rebuilt the file wins near-ties, since it carries a fresh index.
bool Better(const Candidate& a, const Candidate& b);
double ScoreOf(const ThoroughMediaCount& count);

}  // namespace thorough
