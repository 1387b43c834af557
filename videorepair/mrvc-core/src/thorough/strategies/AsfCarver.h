// Media objects cut out of an ASF file's data packets where no demuxer reads it:
// packets found on the packet-size grid (or by their error-correction and
// length-type flags past damage), their fragments put back together into whole objects, each with its
// presentation time from the replicated data and its key-frame flag.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "io/FileReader.h"
#include "thorough/PacketSource.h"
#include "thorough/strategies/AsfObjectAssembler.h"

namespace thorough {

// One stream to carve: its ASF stream number and what to write it with.
struct AsfStream {
    uint8_t number = 0;
    ParametersPtr parameters;
    AVRational frameRate{0, 1};
};

struct AsfLayout {
    uint32_t packetSize = 0;
    int64_t prerollMs = 0;  // taken off every presentation time, as players do
};

class AsfCarver : public PacketSource {
public:
    AsfCarver(AsfLayout layout, std::vector<AsfStream> streams);

    bool Open(const std::wstring& path);

    unsigned StreamCount() const override { return unsigned(streams_.size()); }
    const AVCodecParameters* Parameters(unsigned stream) const override { return streams_[stream].parameters.get(); }
    AVRational TimeBase(unsigned) const override { return AVRational{1, 1000}; }  // ASF times are milliseconds
    AVRational FrameRate(unsigned stream) const override { return streams_[stream].frameRate; }
    bool Next(AVPacket* packet) override;
    int64_t Consumed() const override { return position_; }
    int64_t Skipped() const override { return skipped_; }
    int64_t FilePosition(const AVPacket*) const override { return lastAt_; }

    int64_t DroppedObjects() const { return assembler_.Dropped(); }

private:
    bool ReadPacket();
    bool Parses(int64_t position, bool onGrid);
    int64_t NextPacketStart(int64_t from);
    bool Found(int64_t candidate, bool corrected);
    int IndexOf(uint8_t number) const;
    bool ToPacket(asf::MediaObject& object, AVPacket* packet);

    AsfLayout layout_;
    std::vector<AsfStream> streams_;
    FileReader file_;
    int64_t position_ = 0;
    int64_t skipped_ = 0;
    bool correctionSeen_ = false;  // the file's packets carry error-correction flags
    std::vector<asf::Fragment> fragments_;
    asf::ObjectAssembler assembler_;
    int64_t lastAt_ = -1;  // the packet the object last returned ended in
};

}  // namespace thorough
