// Puts back what the damage removed from the streams, from the sample: codec
// parameters the demuxer could not find, the decoder configuration, and the
// parameter sets or sequence header in front of the first key frame. Leading
// video packets that no decoder can use (before the first key frame) are dropped.
#pragma once

#include <string>
#include <vector>

#include "thorough/AvHandles.h"
#include "thorough/PacketSource.h"
#include "thorough/SampleModel.h"

namespace thorough {

class StreamRestorer {
public:
    explicit StreamRestorer(const SampleModel& sample) : sample_(sample) {}

    // Learns the damaged streams; call once, before Parameters and Fix.
    void Prepare(const PacketSource& input);

    // The parameters to write stream index with (restored where needed).
    const AVCodecParameters* Parameters(unsigned index) const { return streams_[index].parameters.get(); }
    AVRational FrameRate(unsigned index) const { return streams_[index].frameRate; }

    // Adjusts one packet before it is written; false: drop it.
    bool Fix(AVPacket* packet);

    // What was put back, for the log and the report.
    const std::vector<std::string>& Restorations() const { return restorations_; }

private:
    struct State {
        ParametersPtr parameters;
        AVRational frameRate{0, 1};
        std::string ownHeader;     // from the damaged stream's own configuration
        std::string sampleHeader;  // from the sample
        bool keySeen = false;
        bool headerSettled = false;
        int dropped = 0;
    };

    void RestoreParameters(unsigned index, const AVCodecParameters* own, State& state, int ordinal);
    bool FixVideo(AVPacket* packet, State& state, unsigned index);
    void Note(const std::string& what, unsigned index);

    const SampleModel& sample_;
    std::vector<State> streams_;
    std::vector<std::string> restorations_;
};

}  // namespace thorough
