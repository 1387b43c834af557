// Where a pass takes its packets from: libavformat reading the damaged file (or a
// strategy's cleaned view of it), or a strategy's own carver, which cuts packets
// out of the file where no demuxer can read it. Either way the pass restores,
// writes and counts them the same.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "thorough/AvHandles.h"
#include "thorough/RepairRecord.h"

namespace thorough {

class PacketSource {
public:
    virtual ~PacketSource() = default;

    virtual unsigned StreamCount() const = 0;
    // A stream's codec parameters (with its decoder configuration where known).
    virtual const AVCodecParameters* Parameters(unsigned stream) const = 0;
    // The time base of the packets' timestamps.
    virtual AVRational TimeBase(unsigned stream) const = 0;
    // Frames per second where known, else {0, 1}.
    virtual AVRational FrameRate(unsigned stream) const = 0;
    // How the picture is to be turned for display (the 3x3 display matrix that
    // phones record upright pictures with); empty when it is shown as stored.
    virtual std::string DisplayMatrix(unsigned stream) const {
        (void)stream;
        return std::string();
    }

    // The next packet (its stream_index set); false at the end.
    virtual bool Next(AVPacket* packet) = 0;

    // How far into the damaged file the source has got, for progress.
    virtual int64_t Consumed() const = 0;
    // Bytes of the damaged file left out as unusable.
    virtual int64_t Skipped() const { return 0; }
    // Where the packet just returned by Next lies in the damaged file; -1: not known.
    virtual int64_t FilePosition(const AVPacket* packet) const { return packet->pos; }
    // What the source put in that the file did not have, for the record.
    virtual std::vector<RecordRange> PutIn() const { return {}; }
    // Stretches of the damaged file the source stepped over, by file offset.
    virtual std::vector<RecordRange> SkippedRanges() const { return {}; }
};

}  // namespace thorough
