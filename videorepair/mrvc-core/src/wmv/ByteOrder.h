// Little-endian reads from byte buffers, as ASF, RIFF and WAV store numbers.
#pragma once

#include <cstddef>
#include <cstdint>

namespace wmv {

inline uint16_t Le16(const uint8_t* p) { return uint16_t(p[0] | (p[1] << 8)); }
inline uint32_t Le32(const uint8_t* p) { return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24; }
inline uint64_t Le64(const uint8_t* p) { return uint64_t(Le32(p)) | uint64_t(Le32(p + 4)) << 32; }

// A field of 0, 1, 2 or 4 bytes.
inline uint32_t LeField(const uint8_t* p, size_t bytes) {
    switch (bytes) {
        case 1: return p[0];
        case 2: return Le16(p);
        case 4: return Le32(p);
        default: return 0;
    }
}

}  // namespace wmv
