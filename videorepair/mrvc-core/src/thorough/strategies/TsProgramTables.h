// The PAT and PMT packets at the start of a sample recording, to put in front
// of a damaged stream whose own were lost. Only the head of the sample is read.
#pragma once

#include <array>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace thorough {

class TsProgramTables {
public:
    using Packet = std::array<uint8_t, 188>;

    static constexpr size_t kHeadBytes = 1u << 20;

    // Reads the first headBytes of the sample; false when no PAT with all its
    // PMTs is found there.
    bool Load(const std::wstring& samplePath, size_t headBytes = kHeadBytes);
    // The same from bytes in memory (the head of a file).
    bool Parse(const uint8_t* data, size_t length, bool atFileEnd);

    bool Found() const { return complete_; }
    // The PAT packet, then one PMT packet per program, as 188 bytes each.
    const std::vector<Packet>& Packets() const { return packets_; }
    // Whether a PMT names this PID as an elementary stream.
    bool Carries(int pid) const { return streamPids_.count(pid) != 0; }
    // The sample's stored packet size, 0 when none was recognised.
    int PacketSize() const { return packetSize_; }

private:
    void Take(const uint8_t* p);
    void TakePat(const uint8_t* p, size_t start, size_t length);
    void TakePmt(const uint8_t* p, size_t start, size_t length);
    void Keep(const uint8_t* p);

    int packetSize_ = 0;
    bool complete_ = false;
    std::set<int> pmtPids_;
    std::set<int> pmtPidsTaken_;
    std::set<int> streamPids_;
    std::vector<Packet> packets_;
};

}  // namespace thorough
