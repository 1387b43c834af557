// What a healthy sample from the same device teaches: its streams, their codec
// parameters with the decoder configuration, time bases and frame rates, and the
// in-band headers that the damaged stream may have lost.
#pragma once

#include <string>
#include <vector>

#include "thorough/AvHandles.h"

namespace thorough {

struct SampleStream {
    AVMediaType type = AVMEDIA_TYPE_UNKNOWN;
    int id = 0;  // the container's own stream id (ASF stream number, MPEG-TS PID, ...)
    ParametersPtr parameters;
    AVRational timeBase{0, 1};
    AVRational frameRate{0, 1};
    std::string inBandHeader;  // Annex B parameter sets or sequence header, with start codes
    std::string displayMatrix;  // empty: shown as stored
};

class SampleModel {
public:
    // False when the sample is missing or unreadable: the repair goes on without it.
    bool Load(const std::wstring& path);

    bool Empty() const { return streams_.empty(); }
    // Where the sample was loaded from, for containers that read its header bytes.
    const std::wstring& Path() const { return path_; }
    const std::vector<SampleStream>& Streams() const { return streams_; }

    // The sample stream that best stands for a damaged stream: the same codec and
    // kind at the same place among its kind, else the same codec, else the same
    // kind at that place. Null when nothing fits.
    const SampleStream* Match(AVMediaType type, AVCodecID codec, int ordinalOfType) const;

private:
    void LearnInBandHeaders(AVFormatContext* input);

    std::vector<SampleStream> streams_;
    std::wstring path_;
};

}  // namespace thorough
