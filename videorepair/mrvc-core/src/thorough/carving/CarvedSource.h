// Packets a container carver found in the damaged file, kept as places in the
// file (offset and length) until they are read, so a long file never sits in
// memory. The carver fills it in one walk; the road then reads it like a demuxer.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "io/FileReader.h"
#include "thorough/AvHandles.h"
#include "thorough/PacketSource.h"

namespace thorough {

struct CarvedPacket {
    int64_t offset = 0;  // of the payload in the damaged file
    uint32_t size = 0;
    unsigned stream = 0;
    int64_t pts = AV_NOPTS_VALUE;
    int64_t dts = AV_NOPTS_VALUE;
    int64_t duration = 0;
    bool key = false;
    uint32_t run = 0;  // which unbroken stretch of the file it came from (damage between stretches)
};

class CarvedSource : public PacketSource {
public:
    CarvedSource() : file_(1u << 20) {}

    // The carvers walk from header to header before packets are read whole.
    bool Open(const std::wstring& path) {
        file_.SetHopping(true);
        return file_.Open(path);
    }
    FileReader& File() { return file_; }

    // A stream for these parameters (copied); returns its index.
    unsigned AddStream(const AVCodecParameters* parameters, AVRational timeBase, AVRational frameRate);
    AVCodecParameters* MutableParameters(unsigned stream) { return streams_[stream].parameters.get(); }
    void Add(const CarvedPacket& packet) { packets_.push_back(packet); }
    void AddSkipped(int64_t bytes) { skipped_ += bytes; }

    const std::vector<CarvedPacket>& Packets() const { return packets_; }
    std::vector<CarvedPacket>& MutablePackets() { return packets_; }

    unsigned StreamCount() const override { return unsigned(streams_.size()); }
    const AVCodecParameters* Parameters(unsigned stream) const override { return streams_[stream].parameters.get(); }
    AVRational TimeBase(unsigned stream) const override { return streams_[stream].timeBase; }
    AVRational FrameRate(unsigned stream) const override { return streams_[stream].frameRate; }
    bool Next(AVPacket* packet) override;
    int64_t Consumed() const override { return consumed_; }
    int64_t Skipped() const override { return skipped_; }

private:
    struct Stream {
        ParametersPtr parameters;
        AVRational timeBase{1, 1000};
        AVRational frameRate{0, 1};
    };

    FileReader file_;
    std::vector<Stream> streams_;
    std::vector<CarvedPacket> packets_;
    std::vector<bool> leaveOut_;  // pictures whose references the damage took, settled on the first read
    bool settled_ = false;
    size_t next_ = 0;
    int64_t consumed_ = 0;
    int64_t skipped_ = 0;
};

}  // namespace thorough
