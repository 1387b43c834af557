#include "thorough/strategies/MpegTsStrategy.h"

#include "thorough/strategies/TransportStreamCleaner.h"

namespace thorough {

std::unique_ptr<ByteSource> MpegTsStrategy::Clean(const std::wstring& damagedPath, const std::wstring& samplePath,
                                                  RepairLog* log) {
    auto cleaner = std::make_unique<TransportStreamCleaner>(log);
    const bool opened = cleaner->Open(damagedPath, samplePath);
    // With no packets in the damaged file the sample's form is the best guess.
    packetSize_ = opened ? cleaner->PacketSize() : cleaner->SamplePacketSize();
    if (!opened) return nullptr;
    return cleaner;
}

// 192-byte packets are written back as M2TS. 204-byte ones go out as plain
// 188-byte packets: the muxer has no parity to write, and the old parity no
// longer matches packets that were moved or put back.
MuxerChoice MpegTsStrategy::Muxer() const {
    MuxerChoice choice;
    choice.name = "mpegts";
    choice.options["mpegts_m2ts_mode"] = packetSize_ == 192 ? "1" : "0";
    return choice;
}

}  // namespace thorough
