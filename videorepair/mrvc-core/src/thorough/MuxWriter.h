// The repaired file, written in process by libavformat's muxer for the damaged
// file's own container, with timestamps made sane (every stream's decoding times
// increase) and the muxer's index for seeking.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "thorough/AvHandles.h"
#include "thorough/strategies/ContainerStrategy.h"

namespace thorough {

class MuxWriter {
public:
    MuxWriter() = default;
    ~MuxWriter();
    MuxWriter(const MuxWriter&) = delete;
    MuxWriter& operator=(const MuxWriter&) = delete;

    // muxer.name empty: guessed from the path's extension.
    bool Open(const std::wstring& path, const MuxerChoice& muxer);

    // An output stream for these parameters; -1 when the muxer cannot carry it.
    // displayMatrix: how to turn the picture (see PacketSource), empty for none.
    int AddStream(const AVCodecParameters* parameters, AVRational timeBase, AVRational frameRate,
                  const std::string& displayMatrix = std::string());

    // Writes one packet (timestamps in inputTimeBase) to output stream index.
    bool Write(AVPacket* packet, int index, AVRational inputTimeBase);

    // Writes the trailer and closes the file; false when anything failed.
    bool Finish();

    int64_t PacketsWritten() const { return written_; }
    const std::string& Error() const { return error_; }

private:
    struct Clock {
        int64_t lastDts = AV_NOPTS_VALUE;
        int64_t lastDuration = 0;
    };

    bool Start();
    void MakeTimesSane(AVPacket* packet, Clock& clock);
    void Fail(const std::string& what, int code);

    AVFormatContext* output_ = nullptr;
    std::vector<Clock> clocks_;
    bool started_ = false;
    bool failed_ = false;
    int64_t written_ = 0;
    std::string error_;
};

}  // namespace thorough
