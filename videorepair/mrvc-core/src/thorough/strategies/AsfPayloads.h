// The payloads of one ASF data packet: the payload parsing information, single
// or multiple payloads, and compressed payloads split into the whole media
// objects they carry. Only bytes inside the packet are ever read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace thorough {
namespace asf {

// A piece of one media object as a packet carries it.
struct Fragment {
    uint8_t stream = 0;          // 1..127
    bool key = false;
    uint32_t object = 0;         // media object number (wraps with its field)
    uint32_t offset = 0;         // where the piece lies in the object
    uint32_t objectSize = 0;     // 0: unknown (no replicated data)
    int64_t presentationMs = -1; // -1: unknown
    size_t at = 0, size = 0;     // the piece's bytes, relative to the packet start
};

// Splits the packet at data (packetSize bytes) into fragments; false when its
// fields do not describe a packet of that size (damage, or not a packet at all),
// with the payloads read whole before the damage left in out.
bool ParsePacket(const uint8_t* data, size_t packetSize, std::vector<Fragment>& out);

// True when data starts like a data packet: error-correction flags with two bytes
// of zeros (what every writer uses), or length-type flags with no error correction.
bool LooksLikePacketStart(const uint8_t* data, size_t size);

}  // namespace asf
}  // namespace thorough
